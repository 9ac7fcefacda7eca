find_package(spdlog REQUIRED)
set(log_bench_PEERS spdlog::spdlog_header_only)
