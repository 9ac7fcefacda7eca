pkg_check_modules(ICU_UC REQUIRED IMPORTED_TARGET icu-uc)
set(wide_bench_PEERS PkgConfig::ICU_UC)
