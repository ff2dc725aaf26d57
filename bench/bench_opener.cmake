# The real programs with their machine-wide paths under a private root in the build tree, and a
# minimal static client doing the same hand-over as the peer.
set(BENCH_OPENER_ROOT ${CMAKE_CURRENT_BINARY_DIR}/opener-root)
brix_opener_program(bench-opener "${BENCH_OPENER_ROOT}" NO_INSTALL)
brix_services_program(bench-services "${BENCH_OPENER_ROOT}")
add_executable(bench-peer-client ${CMAKE_CURRENT_SOURCE_DIR}/opener_peer_client.c)
target_link_options(bench-peer-client PRIVATE -static)
add_executable(bench-maxrss ${CMAKE_CURRENT_SOURCE_DIR}/opener_maxrss.c)
target_link_options(bench-maxrss PRIVATE -static)
target_compile_definitions(bench_opener PRIVATE BENCH_ROOT="${BENCH_OPENER_ROOT}"
  BENCH_OPENER="$<TARGET_FILE:bench-opener>" BENCH_SERVICES="$<TARGET_FILE:bench-services>"
  BENCH_PEER="$<TARGET_FILE:bench-peer-client>" BENCH_MAXRSS="$<TARGET_FILE:bench-maxrss>")
add_dependencies(bench_opener bench-opener bench-services bench-peer-client bench-maxrss)
