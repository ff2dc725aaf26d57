# liblockfile (Debian liblockfile-dev) is the peer of the uncontended lock; benchmark only.
find_library(LOCKFILE_LIBRARY lockfile REQUIRED)
target_link_libraries(bench_fileLock PRIVATE ${LOCKFILE_LIBRARY})
