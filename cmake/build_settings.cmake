# One set of compiler settings for every target of the tree.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
# An installed program finds the libraries it was installed with.
set(CMAKE_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}:$ORIGIN")

# While the first number of the version is 0, each second one may break what was linked before.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(ZR_SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
else()
  set(ZR_SOVERSION ${PROJECT_VERSION_MAJOR})
endif()
# Libraries of two versions lie side by side, and so do the modules that each of them loads.
set(ZR_MODULES_FOLDER zrutility${ZR_SOVERSION})

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

find_package(Threads REQUIRED)

find_program(ZR_CCACHE ccache)
if(ZR_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${ZR_CCACHE})
  if(ZR_PRECOMPILE)
    # What ccache asks for before it keeps what was compiled with precompiled headers.
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${ZR_CCACHE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      add_compile_options(-fpch-preprocess)
    endif()
  endif()
endif()

# zr_compile_together(TARGET...): by the dozen, where that is wanted
function(zr_compile_together)
  if(ZR_UNITY)
    set_target_properties(${ARGV} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 12)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      # It takes a source that is included for a header, which should have no unnamed namespace.
      foreach(target IN LISTS ARGV)
        target_compile_options(${target} PRIVATE -Wno-subobject-linkage)
      endforeach()
    endif()
  endif()
endfunction()

# zr_export_public_names(LIBRARY...): these show what their installed headers declare, and nothing else.
function(zr_export_public_names)
  foreach(library IN LISTS ARGV)
    target_link_options(${library} PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map)
    set_property(TARGET ${library} APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map)
  endforeach()
endfunction()

add_library(zr_settings INTERFACE)
target_compile_options(zr_settings INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wno-sign-conversion
                                             -Wnon-virtual-dtor -Wold-style-cast -Werror)
# Compiled together, a name in one source may well be that of something in another.
target_compile_options(zr_settings INTERFACE $<$<NOT:$<BOOL:$<TARGET_PROPERTY:UNITY_BUILD>>>:-Wshadow>)
# Unique symbols would keep a library in memory after dlclose; the static objects of ZrUtility must end with it.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(zr_settings INTERFACE -fno-gnu-unique)
  # It notes on 32-bit ARM what versions before 7.1 would have passed differently.
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    target_compile_options(zr_settings INTERFACE -Wno-psabi)
  endif()
  # GCC 12 sees overlapping copies in optimised string concatenations of its own library that cannot be.
  if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(zr_settings INTERFACE -Wno-restrict)
  endif()
endif()
# Later ones warn of what GCC's library does within std::stable_sort.
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 15)
  target_compile_options(zr_settings INTERFACE -Wno-deprecated-declarations)
endif()
if(ZR_SANITIZE)
  target_compile_options(zr_settings INTERFACE -fsanitize=${ZR_SANITIZE} -fno-sanitize-recover=all
                                               -fno-omit-frame-pointer)
  target_link_options(zr_settings INTERFACE -fsanitize=${ZR_SANITIZE})
  # Where each check of undefined behaviour would say what it saw, a process begins with 500,000 addresses to relocate,
  # and the tests start thousands: they stop it instead. What Clang cannot check without words is told as ever.
  if(ZR_SANITIZE MATCHES undefined AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(zr_settings INTERFACE -fsanitize-trap=undefined)
  endif()
  # Linked in, Clang's thread sanitizer would let no program have an operator new of its own.
  if(ZR_SANITIZE MATCHES thread AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libclang_rt.tsan-${CMAKE_SYSTEM_PROCESSOR}.so
                    OUTPUT_VARIABLE runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
    cmake_path(GET runtime PARENT_PATH folder)
    target_link_options(zr_settings INTERFACE -shared-libsan -Wl,-rpath,${folder})
  endif()
  foreach(sanitizer address thread)
    if(ZR_SANITIZE MATCHES ${sanitizer})
      string(TOUPPER ZR_SANITIZE_${sanitizer} defined)
      target_compile_definitions(zr_settings INTERFACE ${defined})
    endif()
  endforeach()
endif()
# The fuzzer sees where a run goes in everything that is ours, not only in the target's own file.
if(ZR_FUZZ)
  target_compile_options(zr_settings INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(zr_settings INTERFACE -fsanitize=fuzzer-no-link)
endif()
# Files of any size and times behind 2038 on every target.
target_compile_definitions(zr_settings INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_link_libraries(zr_settings INTERFACE Threads::Threads)
