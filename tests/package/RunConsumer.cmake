# Installs the build tree into a prefix inside it, then configures, builds
# and runs tests/package/consumer against that copy through find_package,
# and compiles the same program with the flags pkg-config gives.
#
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... -DGENERATOR=... -DCXX=... -P RunConsumer.cmake
foreach(var BUILD_DIR SOURCE_DIR WORK_DIR GENERATOR CXX)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

foreach(installed lib/cmake/veltancmat/veltancmatConfig.cmake lib/cmake/veltancmat/veltancmatConfigVersion.cmake
                  lib/pkgconfig/veltancmat.pc include/veltancmat/models/NCPCA.h
                  include/veltancmat/containers/frame/ProgressScope.h bin/veltan
                  share/locale/de/LC_MESSAGES/veltancmat.mo)
  if(NOT EXISTS ${prefix}/${installed})
    message(FATAL_ERROR "not installed: ${installed}")
  endif()
endforeach()
file(GLOB library ${prefix}/lib/libveltancmat.so*)
if(NOT library)
  message(FATAL_ERROR "not installed: lib/libveltancmat.so")
endif()

run("configure consumer" ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/consumer -G ${GENERATOR}
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_PREFIX_PATH=${prefix})
run("build consumer" ${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
run("run consumer" ${WORK_DIR}/consumer/consumer)
message(STATUS "find_package consumer: ${last_output}")

find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
  set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
  run("pkg-config" ${PKG_CONFIG} --cflags --libs veltancmat)
  separate_arguments(flags UNIX_COMMAND "${last_output}")
  run("compile with pkg-config" ${CXX} -std=c++20 ${SOURCE_DIR}/main.cpp ${flags} -Wl,-rpath,${prefix}/lib
      -o ${WORK_DIR}/consumer-pc)
  run("run pkg-config consumer" ${WORK_DIR}/consumer-pc)
  message(STATUS "pkg-config consumer: ${last_output}")
endif()
