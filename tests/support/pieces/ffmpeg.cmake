# Test media made with ffmpeg and checked with ffprobe.
target_sources(terncl_test_support PRIVATE ffmpegtestmedia.h ffmpegtestmedia.cpp)
