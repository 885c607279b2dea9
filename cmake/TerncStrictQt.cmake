# Compile settings shared by the library, the host, the tests and the tools.
add_library(terncl_build_settings INTERFACE)
target_compile_definitions(terncl_build_settings INTERFACE
  QT_NO_CAST_FROM_ASCII
  QT_NO_CAST_TO_ASCII
  QT_NO_CAST_FROM_BYTEARRAY
  QT_NO_NARROWING_CONVERSIONS_IN_CONNECT
  QT_NO_URL_CAST_FROM_STRING
  QT_STRICT_ITERATORS
  QT_NO_KEYWORDS
  QT_DISABLE_DEPRECATED_UP_TO=0x060400)
target_compile_options(terncl_build_settings INTERFACE
  -Wall -Wextra
  # Error sources name files relative to the repository root.
  "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")
if(TERNCL_WARNINGS_AS_ERRORS)
  target_compile_options(terncl_build_settings INTERFACE -Werror)
endif()
if(TERNCL_SANITIZE)
  target_compile_options(terncl_build_settings INTERFACE
    -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  target_link_options(terncl_build_settings INTERFACE -fsanitize=address,undefined)
endif()
# ThreadSanitizer: a build of its own, since it cannot be combined with AddressSanitizer.
# .ci/tsan.supp names the reports that come from inside uninstrumented libraries.
option(TERNCL_SANITIZE_THREAD "Build with ThreadSanitizer" OFF)
if(TERNCL_SANITIZE_THREAD)
  if(TERNCL_SANITIZE)
    message(FATAL_ERROR "TERNCL_SANITIZE and TERNCL_SANITIZE_THREAD exclude each other")
  endif()
  target_compile_options(terncl_build_settings INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(terncl_build_settings INTERFACE -fsanitize=thread)
  # QtCore's own synchronisation is invisible unless QtCore is instrumented too, so a small
  # library tells ThreadSanitizer about it; turn this off when building against such a QtCore.
  # It goes first on every link line, ahead of QtCore, so that its definitions of QtCore's entry
  # points are the ones found.
  option(TERNCL_TSAN_QT_EDGES "Model an uninstrumented QtCore's synchronisation for TSan" ON)
  if(TERNCL_TSAN_QT_EDGES)
    add_subdirectory("${PROJECT_SOURCE_DIR}/tools/tsan-qt-edges" tsan-qt-edges)
    target_link_libraries(terncl_build_settings INTERFACE $<BUILD_INTERFACE:terncl_tsan_qt_edges>)
    target_link_options(terncl_build_settings INTERFACE "LINKER:--push-state,--no-as-needed"
      "$<TARGET_FILE:terncl_tsan_qt_edges>" "LINKER:--pop-state")
  endif()
endif()

# Adds a library sub-directory's sources and public headers to the library.
# Every header except *_p.h is public and installed under include/ with its path below src/.
function(terncl_add_sources)
  cmake_parse_arguments(ARG "" "" "SOURCES;HEADERS" ${ARGN})
  target_sources(ternclshared PRIVATE ${ARG_SOURCES} ${ARG_HEADERS})
  foreach(header IN LISTS ARG_HEADERS)
    get_filename_component(abs "${header}" ABSOLUTE)
    file(RELATIVE_PATH rel "${PROJECT_SOURCE_DIR}/src" "${abs}")
    if(NOT rel MATCHES "_p\\.h$")
      set_property(GLOBAL APPEND PROPERTY TERNCL_PUBLIC_HEADERS "${rel}")
    endif()
  endforeach()
endfunction()

# The library is built from pieces, each with its own source list, test list and test-support
# list. A build can leave pieces out (work in progress elsewhere) with TERNCL_SKIP_PIECES.
set(TERNCL_SKIP_PIECES "" CACHE STRING "Pieces left out of this build")
set(TERNCL_PIECES utils model versions packs segments writers filenames processes misc ffmpeg
  media modules requestslog battery host)

# Includes "<dir>/<prefix><piece>.cmake" for every piece that is present and not skipped.
macro(terncl_include_pieces dir prefix)
  foreach(piece IN LISTS TERNCL_PIECES)
    if(NOT piece IN_LIST TERNCL_SKIP_PIECES AND EXISTS "${dir}/${prefix}${piece}.cmake")
      include("${dir}/${prefix}${piece}.cmake")
    endif()
  endforeach()
endmacro()

# Fuzzing builds instrument the whole library so that libFuzzer sees coverage inside it.
if(TERNCL_BUILD_FUZZERS)
  target_compile_options(terncl_build_settings INTERFACE
    -fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  target_link_options(terncl_build_settings INTERFACE -fsanitize=address,undefined)
endif()
