terncl_add_test(tst_modules terncl/core/tst_modules.cpp)
