# The per-file check against OpenSSL alone, and the opener with the installation (a signed bundle
# under a private root) against the opener without it and the minimal static client.
set(BENCH_INSTALL_ROOT ${CMAKE_CURRENT_BINARY_DIR}/install-root)
set(BENCH_PLAIN_ROOT ${CMAKE_CURRENT_BINARY_DIR}/plain-root)
brix_opener_program(bench-install-opener "${BENCH_INSTALL_ROOT}" TEST_ANCHORS)
brix_services_program(bench-install-services "${BENCH_INSTALL_ROOT}")
brix_opener_program(bench-plain-opener "${BENCH_PLAIN_ROOT}" NO_INSTALL)
brix_services_program(bench-plain-services "${BENCH_PLAIN_ROOT}")
target_link_libraries(bench_codesign PRIVATE brix_opener_install brix_codesign_test)
target_include_directories(bench_codesign PRIVATE ${CMAKE_SOURCE_DIR}/platform/linux)
target_compile_definitions(bench_codesign PRIVATE PKI_DIR="${BRIX_CODESIGN_PKI}"
  INSTALL_ROOT="${BENCH_INSTALL_ROOT}" PLAIN_ROOT="${BENCH_PLAIN_ROOT}"
  INSTALL_OPENER="$<TARGET_FILE:bench-install-opener>"
  INSTALL_SERVICES="$<TARGET_FILE:bench-install-services>"
  PLAIN_OPENER="$<TARGET_FILE:bench-plain-opener>"
  PLAIN_SERVICES="$<TARGET_FILE:bench-plain-services>"
  PEER_CLIENT="$<TARGET_FILE:bench-peer-client>")
add_dependencies(bench_codesign bench-install-opener bench-install-services bench-plain-opener
  bench-plain-services bench-peer-client)
