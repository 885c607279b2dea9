# Debian packages made with CPack from three install components:
#   lib       -> libternclshared<SOVERSION>  the shared library (Debian names it after its SONAME)
#   dev       -> libternclshared-dev         headers, CMake package, pkg-config file
#   tern-get  -> tern-get                    the program, its man page and bash completion
# Configure with -DCMAKE_INSTALL_PREFIX=/usr so that the paths compiled into the CMake and
# pkg-config files are those the packages install to, then run cpack in the build folder
# (scripts/build-packages does both and checks the result with lintian).

set(TERNCL_PACKAGE_MAINTAINER "ternclshared developers <ternclshared@packages.invalid>"
    CACHE STRING "The Maintainer of the Debian packages")
set(TERNCL_PACKAGE_RELEASE 1 CACHE STRING "The Debian revision of the packages")

set(terncl_lib_package "libternclshared${PROJECT_VERSION_MAJOR}")
set(terncl_dev_package "libternclshared-dev")
set(terncl_program_package "tern-get")
set(terncl_doc_dir "${CMAKE_INSTALL_DATAROOTDIR}/doc")
set(terncl_packaging_dir "${PROJECT_BINARY_DIR}/packaging")

# --- Files Debian wants in every package: copyright and changelog.Debian.gz ------------------

set(TERNCL_DEB_SOURCE "${PROJECT_NAME}")
set(TERNCL_DEB_VERSION "${PROJECT_VERSION}-${TERNCL_PACKAGE_RELEASE}")
set(TERNCL_DEB_MAINTAINER "${TERNCL_PACKAGE_MAINTAINER}")
# SOURCE_DATE_EPOCH, when set, makes the date (and so the packages) reproducible.
string(TIMESTAMP TERNCL_DEB_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file("${PROJECT_SOURCE_DIR}/packaging/changelog.Debian.in"
               "${terncl_packaging_dir}/changelog.Debian" @ONLY)

find_program(TERNCL_GZIP gzip)
find_program(TERNCL_HELP2MAN help2man)
set(terncl_packaging_outputs "${terncl_packaging_dir}/changelog.Debian.gz")
add_custom_command(OUTPUT "${terncl_packaging_dir}/changelog.Debian.gz"
  COMMAND "${TERNCL_GZIP}" -9nkf changelog.Debian
  DEPENDS "${terncl_packaging_dir}/changelog.Debian"
  WORKING_DIRECTORY "${terncl_packaging_dir}"
  COMMENT "Compressing the Debian changelog" VERBATIM)

foreach(pair "lib;${terncl_lib_package}" "dev;${terncl_dev_package}"
        "tern-get;${terncl_program_package}")
  list(GET pair 0 component)
  list(GET pair 1 package)
  install(FILES "${PROJECT_SOURCE_DIR}/packaging/copyright"
                "${terncl_packaging_dir}/changelog.Debian.gz"
          DESTINATION "${terncl_doc_dir}/${package}" COMPONENT ${component})
endforeach()

# --- tern-get: man page from --help, bash completion -------------------------------------------

if(TARGET tern-get)
  install(FILES "${PROJECT_SOURCE_DIR}/packaging/tern-get.bash-completion"
          DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions"
          RENAME tern-get COMPONENT tern-get)
  # The page is written by running the program: not where it cannot run here, nor under the
  # sanitizers, whose exit-time reports are no help text.
  if(TERNCL_HELP2MAN AND NOT CMAKE_CROSSCOMPILING AND NOT TERNCL_SANITIZE)
    set(man_page "${terncl_packaging_dir}/tern-get.1")
    add_custom_command(OUTPUT "${man_page}.gz"
      COMMAND "${TERNCL_HELP2MAN}" --no-info --section=1
              "--name=download files and HLS streams over HTTP"
              "--output=${man_page}" "$<TARGET_FILE:tern-get>"
      COMMAND "${TERNCL_GZIP}" -9nf "${man_page}"
      DEPENDS tern-get
      COMMENT "Writing the man page of tern-get from its --help" VERBATIM)
    list(APPEND terncl_packaging_outputs "${man_page}.gz")
    install(FILES "${man_page}.gz" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
            COMPONENT tern-get)
  elseif(NOT TERNCL_HELP2MAN)
    message(STATUS "help2man not found: tern-get gets no man page (apt-get install help2man)")
  endif()
endif()
add_custom_target(terncl_packaging_files ALL DEPENDS ${terncl_packaging_outputs})

# --- CPack --------------------------------------------------------------------------------------

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME "${PROJECT_NAME}")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "${TERNCL_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL lib dev tern-get)
# Each package carries its own synopsis: equal to CPack's default, the project's summary is not
# put in front of every component's description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_NAME} built using CMake")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE "${TERNCL_PACKAGE_RELEASE}")
set(CPACK_DEBIAN_PACKAGE_SOURCE "${PROJECT_NAME}")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# tern-get's own library is found in the build tree; its dependency comes from the component.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/src")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_LIB_PACKAGE_NAME "${terncl_lib_package}")
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/packaging/libternclshared/triggers")
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_LIB_DESCRIPTION "engine of a desktop download manager
ternclshared holds the engine of a desktop download manager as a Qt 6
library: downloads made of independent segments, collections of
downloads, media downloads merged with ffmpeg, asynchronous file writers,
shared speed and connection limits, and helpers that run external tools
in a sandbox.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME "${terncl_dev_package}")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "qt6-base-dev (>= 6.4)")
set(CPACK_COMPONENT_DEV_DEPENDS lib)
set(CPACK_COMPONENT_DEV_DESCRIPTION "engine of a desktop download manager - development files
The headers of ternclshared, its CMake package (find_package(ternclshared))
and its pkg-config file, for building applications on the library.")

set(CPACK_DEBIAN_TERN-GET_PACKAGE_NAME "${terncl_program_package}")
set(CPACK_DEBIAN_TERN-GET_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TERN-GET_PACKAGE_RECOMMENDS ffmpeg)
set(CPACK_COMPONENT_TERN-GET_DEPENDS lib)
set(CPACK_COMPONENT_TERN-GET_DESCRIPTION "resumable downloader of files and HLS streams
tern-get downloads a file, or an HLS playlist whose segments are joined
into one file, over HTTP and HTTPS. It resumes interrupted downloads,
holds a speed limit (a lower one on battery), fetches several segments
at once, can log the request and response headers of each run, and
reports progress as JSON for front ends. ffmpeg, when installed, turns
fragmented MP4 streams into MP4 files.")

include(CPack)
