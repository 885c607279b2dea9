terncl_add_test(tst_abstractnetworkconsumerspack
  terncl/inet/qt/download/tst_abstractnetworkconsumerspack.cpp)
if(NOT "model" IN_LIST TERNCL_SKIP_PIECES)
  terncl_add_test(tst_abstractdownloadspack terncl/inet/qt/download/tst_abstractdownloadspack.cpp)
endif()
