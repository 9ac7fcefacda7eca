pkg_check_modules(WINPR REQUIRED IMPORTED_TARGET winpr2)
# On its own, without our headers and warnings: WinPR declares the same names.
add_library(winpr_message_peer STATIC winpr_message_peer.cpp)
target_link_libraries(winpr_message_peer PRIVATE PkgConfig::WINPR Threads::Threads)
set(message_bench_PEERS winpr_message_peer)
