target_link_libraries(${name} PRIVATE brix_codesign_core PkgConfig::PLIST)
