add_subdirectory(terncl/qt/media/ffmpeg)
