# Debian packages through `cpack -G DEB` (run in the build folder), one per install component:
#   tesmar         the tools, the opener and the daemon, their manual pages
#   libtesmar-dev  the static library, headers, pkg-config and CMake files, section 3 pages
# The packages install under /usr. The tools' run-time dependencies are computed from the
# programs (dpkg-shlibdeps); the development package depends on the -dev packages of what the
# library links (cmake/install.cmake works them out).
set(TESMAR_DEBIAN_DIR ${CMAKE_CURRENT_LIST_DIR}/debian)
set(TESMAR_MAINTAINER "tesmar maintainers <maintainers@tesmar.invalid>")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tesmar)
set(CPACK_PACKAGE_VENDOR "tesmar maintainers")
set(CPACK_PACKAGE_CONTACT "${TESMAR_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL tools dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${TESMAR_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tesmar)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
"services opener and command-line tools over the tesmar library
This package holds brix-lock, which runs a command while holding a lock
that works between processes and between machines sharing a directory;
brix-config, which reads, changes and checks configuration files; and
brix-codesign, which signs and verifies programs and bundles when built.
.
The services opener and the services daemon are installed under
/usr/libexec/tesmar without the set-user-ID bit; a product installer sets
it on its own copy.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtesmar-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(dev_depends "libc6-dev | libc-dev")
# The C++ runtime the archive was built against: GCC's, whichever compiler built it, found by
# the version in its library folder (/usr/lib/gcc/<triplet>/<major>).
string(REGEX MATCH "/gcc/[^/;]+/([0-9]+)" gcc_dir "${CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES}")
if(gcc_dir)
  string(APPEND dev_depends ", libstdc++-${CMAKE_MATCH_1}-dev | libstdc++-dev")
else()
  string(APPEND dev_depends ", libstdc++-dev")
endif()
foreach(deb IN LISTS TESMAR_DEV_DEBS)
  string(APPEND dev_depends ", ${deb}")
endforeach()
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${dev_depends}")
set(CPACK_COMPONENT_DEV_DESCRIPTION
"runtime library of the services opener (development files)
libtesmar is a C library with a C++ implementation: logging and panic,
string formatting, growable buffers, hash tables, Unicode strings and
encodings, files with atomic update and a lock-file protocol that works
between machines, configuration files with preference layers, user
messages, identifiers and instrumented locks.
.
This package holds the static library, its C headers under
/usr/include/tesmar, a pkg-config file (tesmar.pc), a CMake package
(find_package(tesmar), target tesmar::tesmar) and manual pages.")

# Each package carries its copyright file and its changelog.
foreach(component tools dev)
  string(TOUPPER ${component} upper)
  set(pkg ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(docdir ${CMAKE_INSTALL_DATAROOTDIR}/doc/${pkg})
  install(FILES ${TESMAR_DEBIAN_DIR}/copyright DESTINATION ${docdir} COMPONENT ${component})
  if(TESMAR_GZIP)
    set(changelog ${CMAKE_BINARY_DIR}/install/${pkg}/changelog.gz)
    add_custom_command(OUTPUT ${changelog}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/install/${pkg}
      COMMAND sh -c "'${TESMAR_GZIP}' -9nc '${TESMAR_DEBIAN_DIR}/changelog' > '${changelog}'"
      DEPENDS ${TESMAR_DEBIAN_DIR}/changelog VERBATIM)
    add_custom_target(tesmar_changelog_${component} ALL DEPENDS ${changelog})
    install(FILES ${changelog} DESTINATION ${docdir} COMPONENT ${component})
  endif()
endforeach()
# The opener and the daemon run as root and are linked statically on purpose (they load nothing
# at start and depend on no dynamic loader behaviour); the override names those that are.
set(overrides "")
foreach(program IN LISTS TESMAR_LIBEXEC_PROGRAMS)
  if(TARGET ${program})
    get_target_property(options ${program} LINK_OPTIONS)
    if("-static" IN_LIST options)
      string(APPEND overrides "tesmar: statically-linked-binary "
                              "[usr/${TESMAR_INSTALL_LIBEXECDIR}/${program}]\n")
    endif()
  endif()
endforeach()
if(overrides)
  file(WRITE ${CMAKE_BINARY_DIR}/install/tesmar.lintian-overrides
       "# Programs that run as root, linked statically on purpose.\n${overrides}")
  install(FILES ${CMAKE_BINARY_DIR}/install/tesmar.lintian-overrides
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME tesmar
          COMPONENT tools)
endif()

include(CPack)
