# The test `structure` itself: that it passes a small house whose arrows run the right way, and names each arrow that
# does not.
#   cmake -DROOT=... -DWORK=... -P check.cmake
cmake_minimum_required(VERSION 3.25)

# house(FILE INCLUDE): a house with one more file, which includes that
function(house file include)
  file(REMOVE_RECURSE ${WORK})
  file(WRITE ${WORK}/platform/families.cmake "include(${ROOT}/platform/families.cmake)\n"
       "set(ZR_FAMILIES)\nzr_family(low HEADERS low)\nzr_family(middle HEADERS middle)\nzr_family(high HEADERS high)\n")
  foreach(family low middle high)
    file(WRITE ${WORK}/platform/include/platform/${family}.h "")
    file(WRITE ${WORK}/platform/seam/${family}/offer.h "")
    file(WRITE ${WORK}/platform/${family}/private.h "")
  endforeach()
  file(WRITE ${WORK}/platform/seam/base/forks.h "enum class ForkRank {\n Low,\n Middle,\n High,\n Count,\n};\n")
  file(WRITE ${WORK}/platform/include/platform/platform.h "#include \"platform/high.h\"\n")
  file(WRITE ${WORK}/zr/rooms.cmake "include(${ROOT}/zr/rooms.cmake)\n"
       "set(ZR_ROOMS)\nzr_room(floor)\nzr_room(left USES floor)\nzr_room(right USES floor)\n"
       "zr_room(attic USES floor left)\n")
  file(WRITE ${WORK}/${file} "// a comment\n#include ${include}\n")
endfunction()

function(run)
  execute_process(COMMAND ${CMAKE_COMMAND} -DROOT=${WORK} -P ${ROOT}/tests/structure/run.cmake RESULT_VARIABLE result
                  ERROR_VARIABLE error)
  string(REGEX REPLACE "[ \n]+" " " error "${error}")
  set(result ${result} PARENT_SCOPE)
  set(error "${error}" PARENT_SCOPE)
endfunction()

function(passes file include)
  house(${file} ${include})
  run()
  if(NOT result EQUAL 0)
    message(SEND_ERROR "${file} must be allowed to include ${include}, but: ${error}")
  endif()
endfunction()

function(complains sentence)
  run()
  string(FIND "${error}" "${sentence}" place)
  if(result EQUAL 0 OR place EQUAL -1)
    message(SEND_ERROR "expected '${sentence}', got result ${result} and: ${error}")
  endif()
endfunction()

# fails(FILE INCLUDE [SENTENCE])
function(fails file include)
  house(${file} ${include})
  if(ARGC GREATER 2)
    complains(${ARGV2})
  else()
    complains("${file} includes ${include}")
  endif()
endfunction()

# A family sees what it and those below it offer, and its own folder.
passes(platform/middle/x.cpp "\"low/offer.h\"")
passes(platform/middle/x.cpp "\"middle/offer.h\"")
passes(platform/middle/x.cpp "\"private.h\"")
passes(platform/middle/x.cpp "\"platform/low.h\"")
passes(platform/middle/room/x.cpp "\"platform/middle.h\"")
passes(platform/middle/x.cpp "\"ZrLog/ZrLog.h\"")
passes(platform/middle/x.cpp "<sys/mman.h>")
passes(platform/seam/high/x.h "\"low/offer.h\"")
fails(platform/middle/x.cpp "\"high/offer.h\"")
fails(platform/middle/room/x.cpp "\"high/offer.h\"")
fails(platform/middle/x.cpp "\"platform/high.h\"")
fails(platform/middle/x.cpp "\"platform/platform.h\"")
fails(platform/middle/x.cpp "\"low/private.h\"")
fails(platform/middle/x.cpp "\"platform/low/private.h\"")
fails(platform/middle/x.cpp "\"../low/private.h\"")
fails(platform/middle/x.cpp "\"ZrUtility/ZrArray.h\"")
fails(platform/seam/middle/x.h "\"high/offer.h\"")
fails(platform/seam/middle/x.h "\"private.h\"")
fails(platform/include/platform/middle.h "\"platform/high.h\"")
fails(platform/include/platform/middle.h "\"middle/offer.h\"")
fails(platform/include/platform/more.h "<string>" "platform/more.h is no family's")

# Forks go by the order of the families.
foreach(ranks "Low, High, Middle, Count" "Low, Middle, Count" "Low, Middle, High, Attic, Count")
  house(platform/middle/x.cpp "<string>")
  file(WRITE ${WORK}/platform/seam/base/forks.h "enum class ForkRank { ${ranks} };\n")
  complains("ForkRank names other families")
endforeach()

# The library sees the platform's public headers.
passes(ZrUtility/X.cpp "\"platform/high.h\"")
passes(ZrUtility/Helpers/X.cpp "\"ZrUtility/ZrArray.h\"")
passes(ZrUtility/X.cpp "<string>")
fails(ZrUtility/X.cpp "<unistd.h>")
fails(ZrUtility/X.cpp "\"low/offer.h\"")
fails(ZrUtility/X.cpp "\"zr/base/text.h\"")

# The tool and the examples see what is installed.
passes(examples/x.cpp "<platform/platform.h>")
fails(examples/x.cpp "\"low/offer.h\"")
fails(examples/x.cpp "\"platform/seam/low/offer.h\"")
fails(examples/x.cpp "\"platform/low/private.h\"")

# A room of the tool sees itself and the rooms that it uses.
passes(zr/left/x.cpp "\"zr/left/y.h\"")
passes(zr/left/x.h "\"zr/floor/y.h\"")
passes(zr/attic/x.cpp "\"zr/left/y.h\"")
passes(zr/floor/x.cpp "\"platform/high.h\"")
passes(zr/floor/x.cpp "<memory>")
fails(zr/floor/x.cpp "\"zr/left/y.h\"")
fails(zr/left/x.cpp "\"zr/right/y.h\"")
fails(zr/attic/x.cpp "\"zr/right/y.h\"")
fails(zr/floor/x.cpp "<zr/left/y.h>")
fails(zr/floor/x.cpp "\"y.h\"")
fails(zr/floor/x.cpp "\"low/offer.h\"")
fails(zr/cellar/x.cpp "<memory>" "zr/cellar/x.cpp is in no room")
file(APPEND ${WORK}/zr/rooms.cmake "zr_room(extension USES garden)\nzr_room(garden)\n")
complains("room extension uses garden, which is not named before it")

file(REMOVE_RECURSE ${WORK})
