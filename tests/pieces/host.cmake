if(TARGET ternclhost)
  add_subdirectory(host)
endif()
