# WebKitGTK by itself, to be compared with the HTML control: a library, and a program that shows one page. Without
# sanitizers, as what it links.
find_package(PkgConfig REQUIRED)
pkg_check_modules(ENGINE_ALONE REQUIRED webkit2gtk-4.1)
add_library(engine_alone STATIC ${PROJECT_SOURCE_DIR}/tests/support/engine_alone.cpp)
target_include_directories(engine_alone PUBLIC ${PROJECT_SOURCE_DIR}/tests)
target_include_directories(engine_alone SYSTEM PUBLIC ${ENGINE_ALONE_INCLUDE_DIRS})
target_link_libraries(engine_alone PUBLIC ${ENGINE_ALONE_LINK_LIBRARIES})
add_executable(html_engine_alone ${PROJECT_SOURCE_DIR}/tests/support/engine_alone_program.cpp)
target_link_libraries(html_engine_alone PRIVATE engine_alone)
foreach(target IN ITEMS engine_alone html_engine_alone)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wno-deprecated-declarations -Werror)
endforeach()
