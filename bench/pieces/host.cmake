# Plain QNetworkAccessManager fetching a URL list in sequence: the floor tern-get is measured
# against (bench/host/compare-downloaders.sh runs it when it is built).
add_executable(bench_qnamsequential host/bench_qnamsequential.cpp)
target_link_libraries(bench_qnamsequential PRIVATE Qt6::Network terncl_build_settings)
