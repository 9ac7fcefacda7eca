# 32-bit x86: runs on a 64-bit one without emulation, so that what a 32-bit process does is seen at full speed. The
# programs are for tests where they were built: they find all libraries, and the dynamic linker, in the target's folder.
set(ZR_TARGET i386)
set(ZR_TRIPLET i686-linux-gnu)
set(ZR_LIBRARY_TRIPLET i386-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
set(folders ${CMAKE_SYSROOT}/lib/${ZR_LIBRARY_TRIPLET}:${CMAKE_SYSROOT}/usr/lib/${ZR_LIBRARY_TRIPLET})
set(finds "-Wl,-rpath,${folders} -Wl,--disable-new-dtags")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--dynamic-linker=${CMAKE_SYSROOT}/lib/ld-linux.so.2 ${finds}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${finds}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${finds}")
