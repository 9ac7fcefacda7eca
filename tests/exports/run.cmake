# A shared library exports what its installed headers declare: all of it, and nothing else.
#   cmake -DLIBRARY=... -DHEADERS=folder,folder... -DNM=... -P run.cmake
cmake_minimum_required(VERSION 3.25)
set(wrong)

string(REPLACE "," ";" folders "${HEADERS}")
set(text)
foreach(folder IN LISTS folders)
  # What cmake/install.cmake lays down.
  file(GLOB headers ${folder}/platform/*.h ${folder}/[A-Z]*.h)
  foreach(header IN LISTS headers)
    file(READ ${header} one)
    string(REGEX REPLACE "//[^\n]*|\n#[^\n]*" "" one "${one}")
    string(APPEND text "${one}")
  endforeach()
endforeach()
string(REGEX MATCHALL "[A-Za-z_][A-Za-z_0-9]*" words "${text}")
list(REMOVE_DUPLICATES words)

# "T Class::function(int)" and the like: each name before the arguments stands in a header.
execute_process(COMMAND ${NM} -DC --defined-only --format=just-symbols ${LIBRARY} OUTPUT_VARIABLE lines
                COMMAND_ERROR_IS_FATAL ANY)
string(REPLACE "[" "(" lines "${lines}")
string(REPLACE "]" ")" lines "${lines}")
string(REPLACE ";" " " lines "${lines}")
string(REPLACE "\n" ";" lines "${lines}")
set(exported)
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^(typeinfo|typeinfo name|vtable|VTT|guard variable) for |^(non-)?virtual thunk to " "" name
                       "${line}")
  string(REGEX REPLACE "[(<].*$" "" name "${name}")
  list(APPEND exported "${name}")
  string(REGEX MATCHALL "[A-Za-z_][A-Za-z_0-9]*" parts "${name}")
  foreach(part IN LISTS parts)
    if(NOT part IN_LIST words OR part STREQUAL "std" OR part STREQUAL "zr")
      list(APPEND wrong "exports ${line}")
      break()
    endif()
  endforeach()
endforeach()

# A function that a header promises is there for who links the library.
string(REGEX MATCHALL "ZR[A-Z]+_API [^;{}()#]*\\(" promised "${text}")
foreach(declaration IN LISTS promised)
  string(REGEX REPLACE "^.*[ *&]([A-Za-z_0-9]+)\\($" "\\1" name "${declaration}")
  if(NOT name IN_LIST exported)
    list(APPEND wrong "does not export ${name}")
  endif()
endforeach()

list(LENGTH exported count)
if(count LESS 10)
  list(APPEND wrong "exports next to nothing")
endif()
if(wrong)
  list(JOIN wrong "\n" wrong)
  message(FATAL_ERROR "${LIBRARY}:\n${wrong}")
endif()
