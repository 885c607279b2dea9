# Script runtimes (Python, Deno) started through the process queue, and the description of
# optional dependencies an application offers to install.
terncl_add_sources(
  HEADERS
    terncl/qt/misc/dependencyinfo.h
    terncl/qt/misc/abstractdependencymanager.h
    terncl/qt/misc/abstractdependencyinstallmanager.h
    terncl/qt/misc/complexdependencymanager.h
    terncl/qt/misc/qtpythonmanager.h
    terncl/qt/misc/qtdenomanager.h
    terncl/qt/misc/scriptruntimeprobe_p.h
  SOURCES
    terncl/qt/misc/abstractdependencymanager.cpp
    terncl/qt/misc/abstractdependencyinstallmanager.cpp
    terncl/qt/misc/complexdependencymanager.cpp
    terncl/qt/misc/qtpythonmanager.cpp
    terncl/qt/misc/qtdenomanager.cpp
    terncl/qt/misc/scriptruntimeprobe.cpp)
