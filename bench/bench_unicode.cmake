# The uncached lookup is measured through the table's internal header.
target_include_directories(bench_unicode PRIVATE ${CMAKE_SOURCE_DIR}/lib)
