# Data writers: the asynchronous sink interface, the file writer with preallocation and the
# memory writer.
terncl_add_sources(
  HEADERS
    terncl/data/qt/abstractdataasyncprocessor.h
    terncl/data/qt/filedataasyncwriter.h
    terncl/data/qt/memorydataasyncwriter.h
    terncl/data/qt/filespacereservation_p.h
  SOURCES
    terncl/data/qt/abstractdataasyncprocessor.cpp
    terncl/data/qt/filedataasyncwriter.cpp
    terncl/data/qt/memorydataasyncwriter.cpp
    terncl/data/qt/filespacereservation.cpp)
