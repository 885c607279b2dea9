# Packs: consumers sharing limits, packs tracking running items, downloads made of downloads.
terncl_add_sources(
  HEADERS
    terncl/inet/qt/download/abstractnetworkconsumerspack.h
    terncl/inet/qt/download/abstractnetworkconsumerswithextrataskspack.h
  SOURCES
    terncl/inet/qt/download/abstractnetworkconsumerspack.cpp
    terncl/inet/qt/download/abstractnetworkconsumerswithextrataskspack.cpp)
# The downloads pack is a download: it needs the download base of the model piece.
if(NOT "model" IN_LIST TERNCL_SKIP_PIECES)
  terncl_add_sources(
    HEADERS terncl/inet/qt/download/abstractdownloadspack.h
    SOURCES terncl/inet/qt/download/abstractdownloadspack.cpp)
endif()
