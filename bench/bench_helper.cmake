# The helper under measurement trusts the test signing authority, as the benchmark's signed copy.
add_executable(bench-helper-service ${CMAKE_SOURCE_DIR}/apps/helper/main.cpp)
target_link_libraries(bench-helper-service PRIVATE tesmar_helper brix_codesign_test)
target_link_libraries(${name} PRIVATE tesmar_helper brix_codesign_test)
target_compile_definitions(${name} PRIVATE HELPER_PROGRAM="$<TARGET_FILE:bench-helper-service>"
                                           PKI_DIR="${BRIX_CODESIGN_PKI}")
add_dependencies(${name} bench-helper-service)
# libcrypto comes early on the line (for the library's identifiers), before the code signatures
# that also need it: keep it although nothing before it asks for it.
target_link_options(${name} PRIVATE -Wl,--no-as-needed)
