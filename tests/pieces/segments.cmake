terncl_add_test(tst_abstractdownloadfileops
  terncl/inet/qt/download/tst_abstractdownloadfileops.cpp LABELS ffmpeg)
terncl_add_test(tst_independentsegmentsdownloader
  terncl/inet/qt/download/tst_independentsegmentsdownloader.cpp)
