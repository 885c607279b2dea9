# Media downloads: the size query of a resource's versions and the download that fetches the
# chosen version by child downloads and merges its audio and video. Builds on the model, the
# versions, the packs, the files operations of the segments piece, the ffmpeg merger and the
# file-name rules.
if(NOT "model" IN_LIST TERNCL_SKIP_PIECES AND NOT "packs" IN_LIST TERNCL_SKIP_PIECES
   AND NOT "segments" IN_LIST TERNCL_SKIP_PIECES AND NOT "ffmpeg" IN_LIST TERNCL_SKIP_PIECES
   AND NOT "filenames" IN_LIST TERNCL_SKIP_PIECES)
  terncl_add_sources(
    HEADERS
      terncl/inet/qt/download/abstractdownloadresourceversionsquerysizes.h
      terncl/inet/qt/download/abstractmediadownload.h
      terncl/inet/qt/download/mediachilddata_p.h
    SOURCES
      terncl/inet/qt/download/abstractdownloadresourceversionsquerysizes.cpp
      terncl/inet/qt/download/abstractmediadownload.cpp
      terncl/inet/qt/download/mediachilddata.cpp)
endif()
