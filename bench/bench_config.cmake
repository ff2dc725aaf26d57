# Peers (GLib key files, inih) link only into this program. The preference store is built in
# with its machine-wide path under a private root in the build tree, so that all six layers
# can be given real files.
find_package(PkgConfig REQUIRED)
pkg_check_modules(BENCH_CONFIG_PEERS REQUIRED IMPORTED_TARGET glib-2.0 inih)
target_link_libraries(bench_config PRIVATE PkgConfig::BENCH_CONFIG_PEERS)
target_sources(bench_config PRIVATE ${CMAKE_SOURCE_DIR}/lib/config/preference.cpp)
target_compile_definitions(bench_config PRIVATE
  BRIX_ROOT_PREFIX="${CMAKE_CURRENT_BINARY_DIR}/config_root")
