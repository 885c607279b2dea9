# Reading the request logs of the network requests logger.
target_sources(terncl_test_support PRIVATE requestlogs.h requestlogs.cpp)
