# What scripts/port-check says of a source with everything in it, of one with nothing missing, and of wrong arguments.
#   cmake -DROOT=... -DWORK=... -P run.cmake
cmake_minimum_required(VERSION 3.25)

# check(RESULT OUTPUT argument...): that the script ends with RESULT and writes OUTPUT
function(check wanted_result wanted_output)
  execute_process(COMMAND ${ROOT}/scripts/port-check ${ARGN} WORKING_DIRECTORY ${WORK} RESULT_VARIABLE result
                  OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(NOT result STREQUAL wanted_result OR NOT output STREQUAL wanted_output)
    message(FATAL_ERROR "port-check ${ARGN} ends with ${result} and writes:\n${output}${errors}\nwanted ${wanted_result}:\n${wanted_output}")
  endif()
  if(result EQUAL 2 AND errors STREQUAL "")
    message(FATAL_ERROR "port-check ${ARGN} does not say what is wrong")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/tree/below ${WORK}/headers)
configure_file(${CMAKE_CURRENT_LIST_DIR}/sample.txt ${WORK}/sample.cpp COPYONLY)
file(READ ${CMAKE_CURRENT_LIST_DIR}/expected.txt expected)
check(1 "${expected}" sample.cpp)

# Several files, in folders: what one declares another may use.
file(WRITE ${WORK}/tree/uses.cpp "int a = OwnFunction(OWN_NUMBER);\nvoid f() { Beep(1, 2); Beep(3, 4); }\n")
file(WRITE ${WORK}/tree/below/own.h "#define OWN_NUMBER 3\nint OwnFunction(int number);\n")
file(WRITE ${WORK}/tree/below/notes.txt "PlaySound(nothing);\n")
check(1 "      2  Beep                                     tree/uses.cpp:2\n" tree)

# Other headers.
file(WRITE ${WORK}/headers/sound.h "void Beep(int, int);\n")
check(0 "" --headers headers tree)
check(0 "" ${ROOT}/examples/ported)

check(2 "" tree/none.cpp)
check(2 "" --headers nowhere tree)
check(2 "" --unknown)
check(2 "")
execute_process(COMMAND ${ROOT}/scripts/port-check --help RESULT_VARIABLE result OUTPUT_VARIABLE help)
if(NOT result EQUAL 0 OR NOT help MATCHES "port-check \\[--headers DIR\\] FILE")
  message(FATAL_ERROR "the help is: ${help}")
endif()
file(REMOVE_RECURSE ${WORK})
