find_package(SQLite3 REQUIRED)
set(contacts_bench_PEERS SQLite::SQLite3)
