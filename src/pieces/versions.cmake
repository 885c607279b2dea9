# The versions of a web resource, their preference order and the selected one; the download base
# chooses its default version through them.
terncl_add_sources(
  HEADERS
    terncl/inet/qt/download/abstractdownloadresourceversionoption.h
    terncl/inet/qt/download/abstractdownloadresourceversionselector.h
  SOURCES
    terncl/inet/qt/download/abstractdownloadresourceversionselector.cpp)
