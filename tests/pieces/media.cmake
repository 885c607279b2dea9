# Only where the media piece is built (it needs the pieces named below).
if(NOT "model" IN_LIST TERNCL_SKIP_PIECES AND NOT "packs" IN_LIST TERNCL_SKIP_PIECES
   AND NOT "segments" IN_LIST TERNCL_SKIP_PIECES AND NOT "ffmpeg" IN_LIST TERNCL_SKIP_PIECES
   AND NOT "filenames" IN_LIST TERNCL_SKIP_PIECES)
  terncl_add_test(tst_abstractdownloadresourceversionsquerysizes
    terncl/inet/qt/download/tst_abstractdownloadresourceversionsquerysizes.cpp)
  terncl_add_test(tst_abstractmediadownload
    terncl/inet/qt/download/tst_abstractmediadownload.cpp LABELS ffmpeg)
endif()
