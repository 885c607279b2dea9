# The process launch queue and the sandbox settings it carries.
terncl_add_sources(
  HEADERS
    terncl/qt/process/qtprocesssandboxmanager.h
    terncl/qt/process/qtprocesslaunchmanager.h
  SOURCES
    terncl/qt/process/qtprocesssandboxmanager.cpp
    terncl/qt/process/qtprocesslaunchmanager.cpp)
