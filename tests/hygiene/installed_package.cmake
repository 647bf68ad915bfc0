# Installs the built tree into a scratch prefix, then configures, builds and runs the
# consumer project against that prefix only. A cross build passes its TOOLCHAIN_FILE and
# the EMULATOR (a ;-list) that runs its programs.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "${out}")
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
set(launcher)
find_program(ccache ccache)
if(ccache)
  set(launcher -DCMAKE_CXX_COMPILER_LAUNCHER=${ccache})
endif()
if(TOOLCHAIN_FILE)
  list(APPEND launcher -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE})
endif()
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/build -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_BUILD_TYPE=Release ${launcher}
    "-DCMAKE_CXX_FLAGS=${CONSUMER_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${CONSUMER_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
# Windows: the program finds the SDK's DLLs in the installed prefix, not in the build tree.
file(GLOB consumer ${WORK_DIR}/build/consumer ${WORK_DIR}/build/consumer.exe)
if(EMULATOR)
  list(FILTER EMULATOR EXCLUDE REGEX "^WINEPATH=")
  set(EMULATOR ${CMAKE_COMMAND} -E env WINEPATH=Z:${prefix}/bin ${EMULATOR})
endif()
run(${EMULATOR} ${consumer})

# The sample plug-in is built as a third party would: from its own folder, against the
# installed package only.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/plugins/rigid_body -B ${WORK_DIR}/plugin
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release ${launcher}
    "-DCMAKE_CXX_FLAGS=${CONSUMER_FLAGS}" "-DCMAKE_SHARED_LINKER_FLAGS=${CONSUMER_FLAGS}"
    "-DCMAKE_MODULE_LINKER_FLAGS=${CONSUMER_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/plugin)
set(plugin libqor_rigid_body_sdk_cpp.so)
if(TOOLCHAIN_FILE)
  set(plugin qor_rigid_body_sdk_cpp.dll)
endif()
if(NOT EXISTS ${WORK_DIR}/plugin/${plugin})
  message(FATAL_ERROR "the standalone plug-in build produced no ${plugin}")
endif()
