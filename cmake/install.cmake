# Install rules: the library and its C headers, the pkg-config files, the CMake package, the
# programs and the manual pages. Included once from the top-level CMakeLists.txt; the rules are
# made at the end of the top-level directory, when every target exists, so a program that is not
# part of this build is simply not installed.
#
# Everything is split into two components, which are also the two Debian packages:
#   tools  the command-line tools, the opener and the daemon, section 1 manual pages
#   dev    libtesmar.a, tesmar_auth, headers, pkg-config and CMake files, section 3 pages
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TESMAR_CMAKE_DIR ${CMAKE_CURRENT_LIST_DIR})
set(TESMAR_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/tesmar)
set(TESMAR_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(TESMAR_INSTALL_LIBEXECDIR ${CMAKE_INSTALL_LIBEXECDIR}/tesmar)

# Tools for administrators and developers go to bin/; the opener and the daemon are not run
# from a shell and go to libexec/tesmar/, without the set-user-ID bit: the product's installer
# sets that on its own bundle copy.
set(TESMAR_BIN_PROGRAMS brix-codesign brix-lock brix-config)
set(TESMAR_LIBEXEC_PROGRAMS brix-opener brix-services)

# tesmar_link_needs(<target> <out>): translates what <target> links besides tesmar itself into
# what a consumer of the installed archive needs. Sets in the caller:
#   <out>_FIND        lines for the CMake package (find_dependency and the like)
#   <out>_LINK        the link items of the imported target
#   <out>_PC_REQUIRES pkg-config modules
#   <out>_PC_LIBS     plain linker flags for the pkg-config file
#   <out>_DEB         Debian development packages that provide them
# A library that is not known here is passed on by name with a warning, so that a new
# dependency shows up at configure time instead of as a broken package.
function(tesmar_link_needs target out)
  get_target_property(items ${target} INTERFACE_LINK_LIBRARIES)
  if(NOT items)
    set(items "")
  endif()
  set(find "")
  set(link "")
  set(pcreq "")
  set(pclibs "")
  set(deb "")
  set(icu "")
  foreach(item IN LISTS items)
    string(REGEX REPLACE "^\\$<LINK_ONLY:(.*)>$" "\\1" item "${item}")
    # "::@..." items only mark which directory named the items between them.
    if(item STREQUAL "tesmar" OR item STREQUAL "" OR item MATCHES "^::@")
      continue()
    elseif(item STREQUAL "Threads::Threads")
      list(APPEND find "find_dependency(Threads)")
      list(APPEND link Threads::Threads)
      list(APPEND pclibs -pthread)
    elseif(item MATCHES "^(icu|ICU::)(uc|data|i18n|io)$")
      set(component ${CMAKE_MATCH_2})
      list(APPEND icu ${component})
      list(APPEND link ICU::${component})
      if(component STREQUAL "uc" OR component STREQUAL "data")
        list(APPEND pcreq icu-uc)
      else()
        list(APPEND pcreq icu-${component})
      endif()
      list(APPEND deb libicu-dev)
    elseif(item MATCHES "^(crypto|OpenSSL::Crypto)$")
      list(APPEND find "find_dependency(OpenSSL COMPONENTS Crypto)")
      list(APPEND link OpenSSL::Crypto)
      list(APPEND pcreq libcrypto)
      list(APPEND deb libssl-dev)
    elseif(item MATCHES "^(ssl|OpenSSL::SSL)$")
      list(APPEND find "find_dependency(OpenSSL COMPONENTS SSL)")
      list(APPEND link OpenSSL::SSL)
      list(APPEND pcreq libssl)
      list(APPEND deb libssl-dev)
    elseif(item MATCHES "^(plist-2\\.0|plist|PkgConfig::.*PLIST.*)$")
      list(APPEND find "tesmar_pkg_dependency(PLIST libplist-2.0)")
      list(APPEND link PkgConfig::TESMAR_PLIST)
      list(APPEND pcreq libplist-2.0)
      list(APPEND deb libplist-dev)
    elseif(item MATCHES "^(dbus-1|PkgConfig::.*DBUS.*)$")
      list(APPEND find "tesmar_pkg_dependency(DBUS dbus-1)")
      list(APPEND link PkgConfig::TESMAR_DBUS)
      list(APPEND pcreq dbus-1)
      list(APPEND deb libdbus-1-dev)
    elseif(item MATCHES "^(dl|m|rt|pthread)$")
      list(APPEND link ${item})
      list(APPEND pclibs -l${item})
    else()
      message(WARNING "${target} links '${item}', which cmake/install.cmake does not know: "
                      "the installed package passes it on by name only")
      list(APPEND link ${item})
      list(APPEND pclibs -l${item})
    endif()
  endforeach()
  if(icu)
    list(REMOVE_DUPLICATES icu)
    list(JOIN icu " " icu)
    list(PREPEND find "find_dependency(ICU COMPONENTS ${icu})")
  endif()
  foreach(var find link pcreq pclibs deb)
    if(${var})
      list(REMOVE_DUPLICATES ${var})
    endif()
  endforeach()
  set(${out}_FIND "${find}" PARENT_SCOPE)
  set(${out}_LINK "${link}" PARENT_SCOPE)
  set(${out}_PC_REQUIRES "${pcreq}" PARENT_SCOPE)
  set(${out}_PC_LIBS "${pclibs}" PARENT_SCOPE)
  set(${out}_DEB "${deb}" PARENT_SCOPE)
endfunction()

# The archive is C++ inside: a C program linking it needs the C++ runtime, which is what the C++
# compiler links beyond what the C compiler links.
function(tesmar_cxx_runtime out)
  set(runtime ${CMAKE_CXX_IMPLICIT_LINK_LIBRARIES})
  if(runtime AND CMAKE_C_IMPLICIT_LINK_LIBRARIES)
    list(REMOVE_ITEM runtime ${CMAKE_C_IMPLICIT_LINK_LIBRARIES})
  endif()
  if(NOT runtime)
    set(runtime stdc++ m)
  endif()
  list(REMOVE_DUPLICATES runtime)
  set(${out} "${runtime}" PARENT_SCOPE)
endfunction()

function(tesmar_install_rules)
  # The library.
  install(TARGETS tesmar ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
  if(TARGET tesmar_auth)
    install(TARGETS tesmar_auth ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
  endif()
  # Every header of the C API; the C++ helpers under lib/internal stay private.
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/lib/public/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tesmar
          COMPONENT dev FILES_MATCHING PATTERN "*.h")

  tesmar_link_needs(tesmar TESMAR)
  tesmar_cxx_runtime(TESMAR_CXX_RUNTIME)
  set(auth_found "")
  if(TARGET tesmar_auth)
    tesmar_link_needs(tesmar_auth TESMAR_AUTH)
    set(auth_found 1)
  endif()

  # The CMake package: tesmarConfig.cmake defines tesmar::tesmar (and tesmar::auth) over the
  # installed archives; it is relocatable, finding its prefix from its own place.
  list(JOIN TESMAR_FIND "\n" TESMAR_CONFIG_FIND)
  set(auth_find ${TESMAR_AUTH_FIND})
  if(auth_find AND TESMAR_FIND)
    list(REMOVE_ITEM auth_find ${TESMAR_FIND})
  endif()
  list(JOIN auth_find "\n  " TESMAR_CONFIG_AUTH_FIND)
  set(TESMAR_CONFIG_LINK "${TESMAR_LINK}")
  set(TESMAR_CONFIG_AUTH_LINK "${TESMAR_AUTH_LINK}")
  set(TESMAR_CONFIG_HAS_AUTH "${auth_found}")
  set(TESMAR_CONFIG_CXX_RUNTIME "${TESMAR_CXX_RUNTIME}")
  set(TESMAR_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR})
  set(TESMAR_LIBDIR ${CMAKE_INSTALL_LIBDIR})
  configure_package_config_file(${TESMAR_CMAKE_DIR}/tesmarConfig.cmake.in
    ${CMAKE_BINARY_DIR}/install/tesmarConfig.cmake
    INSTALL_DESTINATION ${TESMAR_INSTALL_CMAKEDIR}
    PATH_VARS TESMAR_INCLUDEDIR TESMAR_LIBDIR)
  write_basic_package_version_file(${CMAKE_BINARY_DIR}/install/tesmarConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
  install(FILES ${CMAKE_BINARY_DIR}/install/tesmarConfig.cmake
                ${CMAKE_BINARY_DIR}/install/tesmarConfigVersion.cmake
          DESTINATION ${TESMAR_INSTALL_CMAKEDIR} COMPONENT dev)

  # pkg-config files. The archive is static only, so its dependencies are public (Requires and
  # Libs), not private: a plain `pkg-config --libs tesmar` links. The prefix is the one of the
  # install, known only when it runs (cmake --install --prefix P), so the files are finished then.
  list(JOIN TESMAR_PC_REQUIRES ", " TESMAR_PC_REQUIRES_TEXT)
  set(pc_libs ${TESMAR_PC_LIBS})
  foreach(lib IN LISTS TESMAR_CXX_RUNTIME)
    list(APPEND pc_libs -l${lib})
  endforeach()
  list(REMOVE_DUPLICATES pc_libs)
  list(JOIN pc_libs " " TESMAR_PC_LIBS_TEXT)
  list(JOIN TESMAR_AUTH_PC_REQUIRES ", " TESMAR_AUTH_PC_REQUIRES_TEXT)
  set(TESMAR_PC_PREFIX "@TESMAR_PC_PREFIX@")
  set(pcfiles tesmar)
  if(auth_found)
    list(APPEND pcfiles tesmar-auth)
  endif()
  foreach(pc IN LISTS pcfiles)
    configure_file(${TESMAR_CMAKE_DIR}/${pc}.pc.in ${CMAKE_BINARY_DIR}/install/${pc}.pc.in @ONLY)
    # Finished in a folder of its own per destination, so that installs running side by side
    # (the tests install while a package is built) never share a file.
    install(CODE "
      set(TESMAR_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
      string(MD5 _tesmar_pc_key \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}\")
      set(_tesmar_pc_dir \"${CMAKE_BINARY_DIR}/install/pc-\${_tesmar_pc_key}\")
      configure_file(\"${CMAKE_BINARY_DIR}/install/${pc}.pc.in\" \"\${_tesmar_pc_dir}/${pc}.pc\" @ONLY)
      file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${TESMAR_INSTALL_PKGCONFIGDIR}\"
           TYPE FILE FILES \"\${_tesmar_pc_dir}/${pc}.pc\")
      file(REMOVE_RECURSE \"\${_tesmar_pc_dir}\")"
      COMPONENT dev)
  endforeach()

  # Programs.
  set(bin_programs ${TESMAR_BIN_PROGRAMS})
  # The example privileged helper is whatever program apps/helper makes.
  if(EXISTS ${CMAKE_SOURCE_DIR}/apps/helper/CMakeLists.txt)
    get_property(helper_targets DIRECTORY ${CMAKE_SOURCE_DIR}/apps/helper
                 PROPERTY BUILDSYSTEM_TARGETS)
    foreach(t IN LISTS helper_targets)
      get_target_property(type ${t} TYPE)
      if(type STREQUAL "EXECUTABLE")
        list(APPEND bin_programs ${t})
      endif()
    endforeach()
  endif()
  set(TESMAR_INSTALLED_PROGRAMS "" PARENT_SCOPE)
  set(installed "")
  foreach(program IN LISTS bin_programs)
    if(TARGET ${program})
      install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
      list(APPEND installed ${program})
    endif()
  endforeach()
  foreach(program IN LISTS TESMAR_LIBEXEC_PROGRAMS)
    if(TARGET ${program})
      install(TARGETS ${program} RUNTIME DESTINATION ${TESMAR_INSTALL_LIBEXECDIR}
              PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                          WORLD_READ WORLD_EXECUTE
              COMPONENT tools)
      list(APPEND installed ${program})
    endif()
  endforeach()

  # Manual pages, compressed as Debian wants them when gzip is at hand.
  find_program(TESMAR_GZIP gzip)
  foreach(section 1 3)
    if(section STREQUAL "1")
      set(component tools)
    else()
      set(component dev)
    endif()
    file(GLOB pages CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/man/man${section}/*.${section})
    list(SORT pages)
    set(outputs "")
    foreach(page IN LISTS pages)
      get_filename_component(name ${page} NAME)
      # A page for a program this build does not make is not installed.
      if(section STREQUAL "1")
        get_filename_component(program ${page} NAME_WE)
        if(NOT TARGET ${program})
          continue()
        endif()
      endif()
      if(TESMAR_GZIP)
        set(out ${CMAKE_BINARY_DIR}/install/man${section}/${name}.gz)
        add_custom_command(OUTPUT ${out}
          COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/install/man${section}
          COMMAND sh -c "'${TESMAR_GZIP}' -9nc '${page}' > '${out}'"
          DEPENDS ${page} VERBATIM)
      else()
        set(out ${page})
      endif()
      list(APPEND outputs ${out})
    endforeach()
    if(outputs)
      add_custom_target(tesmar_man${section} ALL DEPENDS ${outputs})
      install(FILES ${outputs} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
              COMPONENT ${component})
    endif()
  endforeach()

  # Values the packaging reads.
  set(TESMAR_DEV_DEBS ${TESMAR_DEB} ${TESMAR_AUTH_DEB})
  if(TESMAR_DEV_DEBS)
    list(REMOVE_DUPLICATES TESMAR_DEV_DEBS)
  endif()
  set(TESMAR_DEV_DEBS "${TESMAR_DEV_DEBS}" PARENT_SCOPE)
  set(TESMAR_INSTALLED_PROGRAMS "${installed}" PARENT_SCOPE)
endfunction()

function(tesmar_install_finish)
  tesmar_install_rules()
  include(${TESMAR_CMAKE_DIR}/packaging.cmake)
endfunction()

cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL tesmar_install_finish)
