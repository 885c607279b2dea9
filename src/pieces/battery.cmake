# Battery information: the abstract interface, the Windows power-status logic (tested anywhere
# through its source interface) and, on Linux, UPower with the power-supply files behind it.
terncl_add_sources(
  HEADERS
    terncl/core/systempowerstatussource.h
    terncl/core/qtabstractbatteryinfo.h
    terncl/core/qtwindowsbatteryinfo.h
  SOURCES
    terncl/core/qtabstractbatteryinfo.cpp
    terncl/core/qtwindowsbatteryinfo.cpp)
if(WIN32)
  # The thin Win32 layer: plain C++ over kernel32, also built on its own by the cross-compile
  # check together with terncl/core/win32/powerstatusprobe.cpp.
  terncl_add_sources(
    HEADERS terncl/core/win32/win32systempowerstatussource_p.h
    SOURCES terncl/core/win32/win32systempowerstatussource.cpp)
elseif(CMAKE_SYSTEM_NAME STREQUAL "Linux")
  # D-Bus stays out of the public headers: a private dependency of the shared library.
  find_package(Qt6 6.4 REQUIRED COMPONENTS DBus)
  target_link_libraries(ternclshared PRIVATE Qt6::DBus)
  set(TERNCL_PC_REQUIRES_PRIVATE "Qt6DBus >= 6.4")
  terncl_add_sources(
    HEADERS
      terncl/core/qtlinuxbatteryinfo.h
      terncl/core/powersupplyfiles_p.h
      terncl/core/upowerpropertiesproxy_p.h
    SOURCES
      terncl/core/qtlinuxbatteryinfo.cpp
      terncl/core/powersupplyfiles.cpp
      terncl/core/upowerpropertiesproxy.cpp)
endif()
