# Plain QNetworkAccessManager fetching a URL list in sequence: the floor tern-get is measured
# against (bench/host/compare-downloaders.sh runs it when it is built).
add_executable(bench_qnamsequential host/bench_qnamsequential.cpp)
target_link_libraries(bench_qnamsequential PRIVATE Qt6::Network terncl_build_settings)
# What a manifest of many segments costs in memory once read and listed.
# Run: bench_medialistingmemory [SEGMENTS=299000]
add_executable(bench_medialistingmemory host/bench_medialistingmemory.cpp)
target_link_libraries(bench_medialistingmemory PRIVATE ternclhost terncl_build_settings)
