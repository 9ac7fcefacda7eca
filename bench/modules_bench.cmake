add_library(bench_module MODULE support/module.cpp)
target_link_libraries(bench_module PRIVATE zr_settings)
target_include_directories(bench_module PRIVATE ${PROJECT_SOURCE_DIR}/platform/include)
# Not linked: copied and loaded while the program runs.
add_library(modules_bench_module INTERFACE)
target_compile_definitions(modules_bench_module INTERFACE BENCH_MODULE="$<TARGET_FILE:bench_module>")
add_dependencies(modules_bench_module bench_module)
set(modules_bench_PEERS modules_bench_module)
