find_package(SQLite3 REQUIRED)
set(messages_bench_PEERS SQLite::SQLite3)
