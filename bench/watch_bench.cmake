pkg_check_modules(UV REQUIRED IMPORTED_TARGET libuv)
set(watch_bench_PEERS PkgConfig::UV)
