# ctest -P script: configure the tree at SRC into BIN with PIM_USRSCTP=OFF, build
# SctpPamTest there and run it. Fails on any step, and when the configure step does not
# report the userland backend absent.
foreach(v SRC BIN CXX)
  if(NOT DEFINED ${v})
    message(FATAL_ERROR "NoUsrsctpBuild: ${v} not set")
  endif()
endforeach()
include(ProcessorCount)
ProcessorCount(jobs)
if(jobs EQUAL 0)
  set(jobs 2)
endif()

function(step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  message("${out}")
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "NoUsrsctpBuild: ${what} failed (${rc})")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

step(configure ${CMAKE_COMMAND} -S ${SRC} -B ${BIN} -G Ninja -DCMAKE_BUILD_TYPE=Release
     -DCMAKE_CXX_COMPILER=${CXX} -DPIM_WERROR=ON -DPIM_USRSCTP=OFF -DPIM_BUILD_BENCH=OFF)
if(NOT out MATCHES "userland backend absent")
  message(FATAL_ERROR "NoUsrsctpBuild: configure did not report the userland backend absent")
endif()
step(build ${CMAKE_COMMAND} --build ${BIN} --target SctpPamTest -j${jobs})
step(test ${BIN}/tests/SctpPamTest)
if(NOT out MATCHES "OK \\] SctpPamTest.UserlandAbsentSaysSo")
  message(FATAL_ERROR "NoUsrsctpBuild: the absent-backend case did not run")
endif()
