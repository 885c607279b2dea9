# The host's media parsers (HLS playlists, DASH manifests, web pages), built from their sources
# because fuzzing builds leave the host out. Each checks that a parse either fails cleanly or
# hands out only http and https addresses, and that its listing has unique ids.
# Run: fuzz_hlsplaylist -dict=fuzz/host/hlsplaylist.dict CORPUS_DIR fuzz/corpus/hlsplaylist
find_package(LibXml2 REQUIRED)
set(terncl_fuzzed_media_parsers
  "${PROJECT_SOURCE_DIR}/host/lib/mediaparse.cpp"
  "${PROJECT_SOURCE_DIR}/host/lib/hlsplaylistreader.cpp"
  "${PROJECT_SOURCE_DIR}/host/lib/dashmanifestreader.cpp"
  "${PROJECT_SOURCE_DIR}/host/lib/htmlmediapagereader.cpp"
  "${PROJECT_SOURCE_DIR}/host/lib/mediaversions.cpp")
terncl_add_fuzzer(fuzz_hlsplaylist host/fuzz_hlsplaylist.cpp ${terncl_fuzzed_media_parsers})
terncl_add_fuzzer(fuzz_dashmanifest host/fuzz_dashmanifest.cpp ${terncl_fuzzed_media_parsers})
terncl_add_fuzzer(fuzz_htmlmediapage host/fuzz_htmlmediapage.cpp ${terncl_fuzzed_media_parsers})
foreach(target fuzz_hlsplaylist fuzz_dashmanifest fuzz_htmlmediapage)
  target_include_directories(${target} PRIVATE "${PROJECT_SOURCE_DIR}/host/lib")
  target_link_libraries(${target} PRIVATE LibXml2::LibXml2)
endforeach()

# tern-get's state record loader and the checks a saved record passes before it is resumed.
# Run: fuzz_recordstore CORPUS_DIR fuzz/corpus/recordstore
terncl_add_fuzzer(fuzz_recordstore host/fuzz_recordstore.cpp
  "${PROJECT_SOURCE_DIR}/host/lib/recordstore.cpp"
  "${PROJECT_SOURCE_DIR}/host/lib/mediaparse.cpp"
  "${PROJECT_SOURCE_DIR}/host/tern-get/resumecheck.cpp")
target_include_directories(fuzz_recordstore PRIVATE
  "${PROJECT_SOURCE_DIR}/host/lib" "${PROJECT_SOURCE_DIR}/host/tern-get")

# The host's HTTP response head reader and Content-Range parser (pure functions, no libcurl).
# Run: fuzz_httpheaders -dict=fuzz/host/httpheaders.dict CORPUS_DIR fuzz/corpus/httpheaders
terncl_add_fuzzer(fuzz_httpheaders host/fuzz_httpheaders.cpp
  "${PROJECT_SOURCE_DIR}/host/lib/httpheaders.cpp")
target_include_directories(fuzz_httpheaders PRIVATE "${PROJECT_SOURCE_DIR}/host/lib")
