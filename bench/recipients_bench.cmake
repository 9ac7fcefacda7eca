pkg_check_modules(gmime REQUIRED IMPORTED_TARGET gmime-3.0)
set(recipients_bench_PEERS PkgConfig::gmime)
