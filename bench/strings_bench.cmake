pkg_check_modules(icu REQUIRED IMPORTED_TARGET icu-uc)
set(strings_bench_PEERS PkgConfig::icu)
