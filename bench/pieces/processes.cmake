# The launch queue against a plain QProcess loop, both running a trivial helper program.
# Run: bench_processqueue [LAUNCHES=500] [ROUNDS=5]
add_executable(terncl_bench_child "${PROJECT_SOURCE_DIR}/tests/support/testchildprogram.cpp")
target_link_libraries(terncl_bench_child PRIVATE terncl_build_settings)
add_executable(bench_processqueue processes/bench_processqueue.cpp)
target_link_libraries(bench_processqueue PRIVATE ternclshared terncl_build_settings)
target_compile_definitions(bench_processqueue
  PRIVATE TERNCL_BENCH_CHILD_PATH="$<TARGET_FILE:terncl_bench_child>")
add_dependencies(bench_processqueue terncl_bench_child)
