# Consumers pack at scale: re-division tick, additions, removals, heap per item.
add_executable(bench_packs terncl/inet/qt/download/bench_abstractnetworkconsumerspack.cpp)
target_link_libraries(bench_packs PRIVATE ternclshared terncl_build_settings)
