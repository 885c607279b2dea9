# A fake child download that really writes its segment through a FileDataAsyncWriter, and
# fragmented MP4 segments made with ffmpeg.
target_sources(terncl_test_support PRIVATE
  writingfakedownload.h writingfakedownload.cpp
  fmp4segments.h fmp4segments.cpp)
