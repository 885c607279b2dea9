# A scriptable download and a factory of them, for everything that drives downloads.
target_sources(terncl_test_support PRIVATE
  fakedownload.h fakedownload.cpp
  fakedownloadsfactory.h fakedownloadsfactory.cpp)
