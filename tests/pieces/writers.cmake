add_subdirectory(terncl/data/qt)
