# The parser of ffmpeg's console output, fed real output in random chunks and its mutations.
# Run: fuzz_ffmpegoutput -dict=fuzz/ffmpeg/ffmpegoutput.dict CORPUS_DIR fuzz/corpus/ffmpeg
terncl_add_fuzzer(fuzz_ffmpegoutput ffmpeg/fuzz_ffmpegoutput.cpp)
