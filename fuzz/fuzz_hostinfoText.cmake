target_include_directories(fuzz_hostinfoText PRIVATE ${CMAKE_SOURCE_DIR}/lib)
