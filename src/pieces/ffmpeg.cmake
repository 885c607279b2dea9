# The ffmpeg manager (version check, launches, progress from its output) and the audio/video
# merger built on it.
terncl_add_sources(
  HEADERS
    terncl/qt/media/ffmpeg/qtffmpegmanager.h
    terncl/qt/media/ffmpeg/qtffmpegavmerger.h
    terncl/qt/media/ffmpeg/ffmpegpaths_p.h
  SOURCES
    terncl/qt/media/ffmpeg/qtffmpegmanager.cpp
    terncl/qt/media/ffmpeg/qtffmpegavmerger.cpp
    terncl/qt/media/ffmpeg/ffmpegpaths.cpp)
