# Storing and restoring download records as they grow, and the speed meter's cost per change.
# Run: bench_downloadrecord [FILES=1000] [SECTIONS=16] [ROUNDS=50]
add_executable(bench_downloadrecord terncl/inet/qt/download/bench_downloadrecord.cpp)
target_link_libraries(bench_downloadrecord PRIVATE ternclshared terncl_build_settings)
