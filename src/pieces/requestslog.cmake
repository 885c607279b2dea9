# The network requests logger: one text file per download run with its first request's and
# response's headers and its outcome.
terncl_add_sources(
  HEADERS
    terncl/inet/qt/download/abstractdownloadsnetworkrequestslogger.h
  SOURCES
    terncl/inet/qt/download/abstractdownloadsnetworkrequestslogger.cpp)
