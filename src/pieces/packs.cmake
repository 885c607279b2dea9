# Packs: consumers sharing limits, packs tracking running items, downloads made of downloads.
terncl_add_sources(
  HEADERS
    terncl/inet/qt/download/abstractnetworkconsumerspack.h
    terncl/inet/qt/download/abstractnetworkconsumerswithextrataskspack.h
  SOURCES
    terncl/inet/qt/download/abstractnetworkconsumerspack.cpp
    terncl/inet/qt/download/abstractnetworkconsumerswithextrataskspack.cpp)
