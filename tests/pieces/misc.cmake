add_subdirectory(terncl/qt/misc)
