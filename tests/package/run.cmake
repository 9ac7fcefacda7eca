# Installs the build into a fresh prefix, then builds and runs a program outside the tree against it: once through
# the CMake package, once through pkg-config.
#   cmake -DBUILD=... -DSOURCE=... -DPORTED=... -DWORK=... -DCXX=... -DFLAGS=... -P run.cmake
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
set(prefix ${WORK}/prefix)
set(ENV{ZR_HOME} ${WORK}/state)
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})

run(${CMAKE_COMMAND} -G Ninja -S ${SOURCE} -B ${WORK}/build -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX}
    -DCMAKE_CXX_FLAGS=${FLAGS} -DPORTED=${PORTED})
run(${CMAKE_COMMAND} --build ${WORK}/build)
run(${WORK}/build/outside)
run(${CMAKE_COMMAND} -DPROGRAM=${WORK}/build/outbox -DWORK=${WORK}/outbox -P ${PORTED}/run.cmake)

file(GLOB_RECURSE pc ${prefix}/ZrUtility.pc)
get_filename_component(pc_dir ${pc} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
execute_process(COMMAND pkg-config --define-variable=prefix=${prefix} --cflags --libs ZrUtility
                OUTPUT_VARIABLE words OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(words)
separate_arguments(FLAGS)
get_filename_component(lib_dir ${pc_dir} DIRECTORY)
run(${CXX} -std=c++20 ${FLAGS} ${SOURCE}/main.cpp -o ${WORK}/outside ${words} -Wl,-rpath,${lib_dir})
run(${WORK}/outside)
file(REMOVE_RECURSE ${WORK})
