target_include_directories(fuzz_authForm PRIVATE ${CMAKE_SOURCE_DIR}/lib)
target_link_libraries(fuzz_authForm PRIVATE tesmar_auth)
