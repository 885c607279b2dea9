# The process launch queue and the sandbox that confines its children: Landlock, namespaces and
# a system call filter on Linux; AppContainer or low integrity on Windows, through a thin layer
# over the Win32 calls whose decisions are portable (and tested anywhere against a fake layer).
terncl_add_sources(
  HEADERS
    terncl/qt/process/qtprocesssandboxmanager.h
    terncl/qt/process/qtprocesslaunchmanager.h
    terncl/qt/process/qtwinappcontainerprocessallowedpathsmgr.h
    terncl/qt/process/win/winsandboxapi.h
  SOURCES
    terncl/qt/process/qtprocesssandboxmanager.cpp
    terncl/qt/process/qtprocesslaunchmanager.cpp
    terncl/qt/process/qtwinappcontainerprocessallowedpathsmgr.cpp
    terncl/qt/process/win/winsandboxapi.cpp)
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
  terncl_add_sources(
    HEADERS
      terncl/qt/process/linux/landlock_p.h
      terncl/qt/process/linux/linuxsandbox_p.h
    SOURCES
      terncl/qt/process/linux/landlock.cpp
      terncl/qt/process/linux/linuxsandbox.cpp)
endif()
if(WIN32)
  terncl_add_sources(
    SOURCES terncl/qt/process/win/win32sandboxapi.cpp)
  target_link_libraries(ternclshared PRIVATE advapi32 userenv shell32 ole32)
endif()
