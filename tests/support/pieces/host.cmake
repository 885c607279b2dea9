# Real servers and a fault-injecting server for the reference host's tests.
target_sources(terncl_test_support PRIVATE
  faultyhttpserver.h faultyhttpserver.cpp
  nginxserver.h nginxserver.cpp
)
target_link_libraries(terncl_test_support PUBLIC Qt6::Network)
