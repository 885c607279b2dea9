if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
  find_package(Qt6 6.4 REQUIRED COMPONENTS DBus)
  terncl_add_test(tst_batteryinfo terncl/core/tst_batteryinfo.cpp LIBS Qt6::DBus)
endif()
