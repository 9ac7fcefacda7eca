# The arrows of the house run one way: checks what each part of the tree includes.
#   cmake -DROOT=... -P run.cmake
cmake_minimum_required(VERSION 3.25)
include(${ROOT}/platform/families.cmake)
include(${ROOT}/zr/rooms.cmake)
set(wrong)

# include_lines(FILE OUT): the names between the brackets or quotes of the file's #include lines
function(include_lines file out)
  file(STRINGS ${file} lines REGEX "^[ \t]*#[ \t]*include")
  set(names)
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^[^<\"]*([<\"][^>\"]+[>\"]).*$" "\\1" name "${line}")
    list(APPEND names "${name}")
  endforeach()
  set(${out} "${names}" PARENT_SCOPE)
endfunction()

# The library: its own headers, the log, the platform's public headers, the C++ standard library.
file(GLOB_RECURSE files ${ROOT}/ZrUtility/*.h ${ROOT}/ZrUtility/*.cpp)
foreach(file IN LISTS files)
  include_lines(${file} names)
  foreach(name IN LISTS names)
    if(NOT name MATCHES "^\"(ZrUtility/.*\\.h|ZrLog/ZrLog\\.h|platform/[a-z_]+\\.h)\"$" AND NOT name MATCHES "^<[a-z_]+>$")
      list(APPEND wrong "${file} includes ${name}")
    endif()
  endforeach()
endforeach()

# The log: its own headers, and what lies below everything.
file(GLOB_RECURSE files ${ROOT}/host/*.h ${ROOT}/ZrLog/*.h ${ROOT}/ZrLog/*.cpp)
foreach(file IN LISTS files)
  include_lines(${file} names)
  foreach(name IN LISTS names)
    if(name MATCHES "/host/" OR name MATCHES "^<(ZrUtility|ZrLog|host|zr|platform)/")
      list(APPEND wrong "${file} includes ${name}")
    elseif(name MATCHES "^\"" AND NOT name MATCHES "^\"host/[a-z_]+\\.h\"$"
           AND NOT (file MATCHES "/ZrLog/" AND name MATCHES "^\"ZrLog/[A-Za-z_]+\\.h\"$"))
      list(APPEND wrong "${file} includes ${name}")
    endif()
  endforeach()
endforeach()

# A platform family: the log, its own headers, and what it and the families before it offer, to everybody
# (include/platform) and to families only (seam/FAMILY). What is offered includes only what is offered likewise. Every
# public header is some family's. What lies below everything (host) is offered to families by base.

# check_quoted(FILES ALLOWED): that the files include in quotes the allowed names only
function(check_quoted files allowed)
  set(found)
  foreach(file IN LISTS files)
    include_lines(${file} names)
    foreach(name IN LISTS names)
      if(name MATCHES "^<(ZrUtility|ZrLog|zr|platform)/")
        list(APPEND found "${file} includes ${name}")
      elseif(name MATCHES "^\"(.*)\"$" AND NOT CMAKE_MATCH_1 IN_LIST allowed)
        list(APPEND found "${file} includes ${name}")
      endif()
    endforeach()
  endforeach()
  set(wrong ${wrong} ${found} PARENT_SCOPE)
endfunction()

set(public)
set(offered)
foreach(family IN LISTS ZR_FAMILIES)
  set(headers ${ZR_FAMILY_${family}_HEADERS})
  list(TRANSFORM headers REPLACE "(.+)" "platform/\\1.h")
  list(APPEND public ${headers})
  list(TRANSFORM headers PREPEND ${ROOT}/platform/include/)
  check_quoted("${headers}" "${public}")

  file(GLOB headers RELATIVE ${ROOT}/platform/seam ${ROOT}/platform/seam/${family}/*.h)
  list(APPEND offered ${headers})
  list(TRANSFORM headers PREPEND ${ROOT}/platform/seam/)
  set(below)
  if(family STREQUAL "base")
    file(GLOB below RELATIVE ${ROOT} ${ROOT}/host/*.h)
  endif()
  check_quoted("${headers}" "${public};${offered};${below}")

  file(GLOB_RECURSE own RELATIVE ${ROOT}/platform/${family} ${ROOT}/platform/${family}/*.h)
  file(GLOB_RECURSE files ${ROOT}/platform/${family}/*.h ${ROOT}/platform/${family}/*.cpp)
  check_quoted("${files}" "${public};${offered};${own};ZrLog/ZrLog.h")
endforeach()
file(GLOB headers RELATIVE ${ROOT}/platform/include ${ROOT}/platform/include/platform/*.h)
# Those that include all of them are nobody's.
list(REMOVE_ITEM headers ${public} platform/platform.h platform/generic_names.h
     platform/win_main.h)
foreach(header IN LISTS headers)
  list(APPEND wrong "${header} is no family's: name it in platform/families.cmake")
endforeach()

# At a fork the families take their locks in the same order.
file(READ ${ROOT}/platform/seam/base/forks.h text)
string(REGEX MATCH "enum class ForkRank {([^}]*)}" ranks "${text}")
string(TOLOWER "${CMAKE_MATCH_1}" ranks)
string(REGEX MATCHALL "[a-z0-9_]+" ranks "${ranks}")
if(NOT "${ranks}" STREQUAL "${ZR_FAMILIES};count")
  list(APPEND wrong "platform/seam/base/forks.h: ForkRank names other families than platform/families.cmake, or in another order")
endif()

# The tool and the examples: what an outside user can use.
list(JOIN ZR_FAMILIES "|" families)
file(GLOB_RECURSE files ${ROOT}/zr/*.h ${ROOT}/zr/*.cpp ${ROOT}/examples/*.cpp)
foreach(file IN LISTS files)
  include_lines(${file} names)
  foreach(name IN LISTS names)
    if(name MATCHES "[<\"](platform/)?(seam|host|${families})/" OR name MATCHES "\\.\\./")
      list(APPEND wrong "${file} includes ${name}")
    endif()
  endforeach()
endforeach()

# The rooms of the tool: each sees itself and the rooms that it uses.
file(GLOB_RECURSE files RELATIVE ${ROOT} ${ROOT}/zr/*/*.h ${ROOT}/zr/*/*.cpp)
foreach(file IN LISTS files)
  string(REGEX REPLACE "^zr/([^/]+)/.*$" "\\1" room ${file})
  if(NOT room IN_LIST ZR_ROOMS)
    list(APPEND wrong "${file} is in no room: name it in zr/rooms.cmake")
  endif()
  list(JOIN ZR_ROOM_${room}_USES "|" used)
  include_lines(${ROOT}/${file} names)
  foreach(name IN LISTS names)
    if(name MATCHES "^<zr/" OR NOT name MATCHES "^<|^\"(platform|ZrUtility|ZrLog)/"
       AND NOT name MATCHES "^\"zr/(${room}|${used})/[a-z_]+\\.h\"$")
      list(APPEND wrong "${file} includes ${name}")
    endif()
  endforeach()
endforeach()

if(wrong)
  list(JOIN wrong "\n" wrong)
  message(FATAL_ERROR "includes against the order of the house:\n${wrong}")
endif()
