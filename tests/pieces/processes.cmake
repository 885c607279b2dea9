add_subdirectory(terncl/qt/process)
