# The fuzzer reaches the built-in converters through their internal header.
target_include_directories(fuzz_codeset PRIVATE ${CMAKE_SOURCE_DIR}/lib)
