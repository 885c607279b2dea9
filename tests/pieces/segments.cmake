terncl_add_test(tst_abstractdownloadfileops
  terncl/inet/qt/download/tst_abstractdownloadfileops.cpp)
