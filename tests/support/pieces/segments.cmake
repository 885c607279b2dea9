# A fake child download that really writes its segment through a FileDataAsyncWriter.
target_sources(terncl_test_support PRIVATE writingfakedownload.h)
