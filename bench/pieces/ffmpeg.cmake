# Merging through QtFfmpegAvMerger against the same ffmpeg command run directly.
# Run: bench_ffmpegmerge [ROUNDS=9] [SECONDS=60]
add_executable(bench_ffmpegmerge ffmpeg/bench_ffmpegmerge.cpp)
target_link_libraries(bench_ffmpegmerge PRIVATE ternclshared terncl_build_settings)
