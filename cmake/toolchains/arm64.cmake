# 64-bit ARM.
set(ZR_TARGET arm64)
set(ZR_TRIPLET aarch64-linux-gnu)
set(ZR_LIBRARY_TRIPLET ${ZR_TRIPLET})
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
