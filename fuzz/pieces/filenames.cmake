# The file-name rules, fed arbitrary names (UTF-8 or raw UTF-16) with every switch combination.
# Run: fuzz_filenamerules -max_total_time=60 CORPUS_DIR fuzz/corpus/filenames
terncl_add_fuzzer(fuzz_filenamerules terncl/fs/qt/utils/fuzz_filenamerules.cpp)
