find_package(absl REQUIRED)
set(tables_bench_PEERS absl::flat_hash_map absl::hash)
