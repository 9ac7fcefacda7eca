# WinPR declares the same names as the platform headers, so it is called from a source of its own.
pkg_check_modules(WINPR REQUIRED IMPORTED_TARGET winpr2)
if(NOT TARGET winpr_peer)
  add_library(winpr_peer STATIC support/winpr_peer.cpp)
  target_include_directories(winpr_peer PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(winpr_peer PRIVATE PkgConfig::WINPR)
endif()
find_package(spdlog REQUIRED)
set(locks_bench_PEERS winpr_peer spdlog::spdlog)
