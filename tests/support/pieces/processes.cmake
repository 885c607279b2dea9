# The helper program that stands in for external tools, and its description for the tests.
add_executable(terncl_test_child testchildprogram.cpp)
target_link_libraries(terncl_test_child PRIVATE terncl_build_settings)
target_sources(terncl_test_support PRIVATE testchild.h testchild.cpp)
target_compile_definitions(terncl_test_support
  PRIVATE TERNCL_TEST_CHILD_PATH="$<TARGET_FILE:terncl_test_child>")
add_dependencies(terncl_test_support terncl_test_child)
# A stand-in for the Win32 calls of the process sandbox.
target_sources(terncl_test_support PRIVATE fakewinsandboxapi.h fakewinsandboxapi.cpp)
