# 32-bit ARM with floating-point registers: the handheld's own kind.
set(ZR_TARGET armhf)
set(ZR_TRIPLET arm-linux-gnueabihf)
set(ZR_LIBRARY_TRIPLET ${ZR_TRIPLET})
set(CMAKE_SYSTEM_PROCESSOR armv7l)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
