target_link_libraries(${name} PRIVATE tesmar_helper brix_codesign_test)
