# The file writer against plain write(2) and fallocate(2) on the same disk.
# Run on the disk to measure: bench_writers [folder] [write MiB] [preallocate MiB] [runs]
add_executable(bench_writers terncl/data/qt/bench_filedataasyncwriter.cpp)
target_link_libraries(bench_writers PRIVATE ternclshared terncl_build_settings)
