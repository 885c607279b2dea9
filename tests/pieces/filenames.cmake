add_subdirectory(terncl/fs/qt/utils)
