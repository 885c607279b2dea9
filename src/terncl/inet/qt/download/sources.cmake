# Network consumer base and network coordination.
terncl_add_sources(
  HEADERS
    terncl/inet/qt/download/networktrafficdirection.h
    terncl/inet/qt/download/abstractnetworkconsumersettings.h
    terncl/inet/qt/download/networkusagesettings.h
    terncl/inet/qt/download/qthostandport.h
    terncl/inet/qt/download/qtconnectionsmapentry.h
    terncl/inet/qt/download/qtconnectionsmap.h
    terncl/inet/qt/download/qtnetworkauthscope.h
    terncl/inet/qt/download/qtnetworkauthrecord.h
    terncl/inet/qt/download/qtsslhostpublickey.h
    terncl/inet/qt/download/qtsslhost.h
    terncl/inet/qt/download/abstractnetworkconsumer.h
    terncl/inet/qt/download/abstractnetworkconsumerwithextratasks.h
    terncl/inet/qt/download/abstractnetworkconsumersstats.h
    terncl/inet/qt/download/qtabstractnetworkauthrequestor.h
    terncl/inet/qt/download/qtabstracttwowaynetworkauthrequestor.h
    terncl/inet/qt/download/qtabstractnetworkpasswordskeeper.h
    terncl/inet/qt/download/qtabstractknownsslhostskeeper.h
    terncl/inet/qt/download/qtabstractsslcertificateskeeper.h
    terncl/inet/qt/download/abstractnetworkaccesschief.h
    terncl/inet/qt/download/qtnetworkproxyfactory.h
    terncl/inet/qt/download/qtappsystemdefaultuseragentmanager.h
    terncl/inet/qt/download/qtappsystemdefaultwebbrowsermanager.h
  SOURCES
    terncl/inet/qt/download/qtconnectionsmap.cpp
    terncl/inet/qt/download/abstractnetworkconsumersstats.cpp
    terncl/inet/qt/download/networkconsumerbase.cpp)

# Each later piece of the download subsystem keeps its own list beside this one.
foreach(piece model packs segments)
  if(EXISTS "${CMAKE_CURRENT_LIST_DIR}/sources-${piece}.cmake")
    include("${CMAKE_CURRENT_LIST_DIR}/sources-${piece}.cmake")
  endif()
endforeach()
