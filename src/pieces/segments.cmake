# The independent segments downloader and the files operations it relies on.
terncl_add_sources(
  HEADERS
    terncl/inet/qt/download/abstractdownloadsourceinfo.h
    terncl/inet/qt/download/abstractdownloadfileops.h
  SOURCES
    terncl/inet/qt/download/abstractdownloadsourceinfo.cpp
    terncl/inet/qt/download/abstractdownloadfileops.cpp)
