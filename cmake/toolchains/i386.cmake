# 32-bit x86: runs on a 64-bit one without emulation, so that what a 32-bit process does is seen at full speed.
set(ZR_TARGET i386)
set(ZR_TRIPLET i686-linux-gnu)
set(ZR_LIBRARY_TRIPLET i386-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
