find_package(sdbus-c++ REQUIRED)
set(telephony_bench_PEERS SDBusCpp::sdbus-c++)
