terncl_add_fuzzer(fuzz_downloadrecord terncl/inet/qt/download/fuzz_downloadrecord.cpp)
