# A child-downloads manager that keeps children in memory, for composite downloads.
target_sources(terncl_test_support PRIVATE fakechilddownloadsmanager.h fakechilddownloadsmanager.cpp)
