find_package(SQLite3 REQUIRED)
pkg_check_modules(LIBXML2 REQUIRED IMPORTED_TARGET libxml-2.0)
set(connection_bench_PEERS SQLite::SQLite3 PkgConfig::LIBXML2)
