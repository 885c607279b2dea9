# File-name rules: sanitized names, extensions, unique names, the ".unwanted" folder, long paths.
terncl_add_sources(
  HEADERS
    terncl/fs/qt/utils/filenamerules.h
  SOURCES
    terncl/fs/qt/utils/filenamerules.cpp)
