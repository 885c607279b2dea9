# The independent segments downloader and the files operations it relies on.
terncl_add_sources(
  HEADERS
    terncl/inet/qt/download/abstractdownloadsourceinfo.h
    terncl/inet/qt/download/abstractdownloadfileops.h
    terncl/inet/qt/download/abstractdownloadfilesopscompanion.h
    terncl/inet/qt/download/independentsegmentsdownloader.h
  SOURCES
    terncl/inet/qt/download/abstractdownloadsourceinfo.cpp
    terncl/inet/qt/download/abstractdownloadfileops.cpp
    terncl/inet/qt/download/abstractdownloadfilesopscompanion.cpp
    terncl/inet/qt/download/independentsegmentsdownloader.cpp)
