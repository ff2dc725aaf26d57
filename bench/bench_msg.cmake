# The gettext peer: glibc's dgettext with a catalogue that GNU msgfmt compiles at run time.
find_program(BENCH_MSGFMT msgfmt REQUIRED)
target_compile_definitions(bench_msg PRIVATE BENCH_MSGFMT="${BENCH_MSGFMT}")
