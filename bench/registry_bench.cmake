find_package(SQLite3 REQUIRED)
pkg_check_modules(GIO REQUIRED IMPORTED_TARGET gio-2.0)
set(registry_bench_PEERS SQLite::SQLite3 PkgConfig::GIO)
