# Debian's cross compilers, with the headers and libraries of the target from a folder that scripts/sysroot has filled:
# this computer's own packages stay as they are. Included by the toolchain file of each target, which says
#   ZR_TARGET           Debian's name of the architecture
#   ZR_TRIPLET          its name in the names of tools
#   ZR_LIBRARY_TRIPLET  its name in those of folders with libraries
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${ZR_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ZR_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${ZR_LIBRARY_TRIPLET})
get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot-${ZR_TARGET} ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/${ZR_LIBRARY_TRIPLET}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
