# The fuzzer reads product state into private records through the internal header.
target_include_directories(fuzz_identity PRIVATE ${CMAKE_SOURCE_DIR}/lib)
