# Script mode (cmake -P): install, configure the consumer against the scratch prefix, build
# it, run both programs. Any failing step fails the test with that step's output.
foreach(var PIM_BINARY_DIR CONSUMER_SOURCE_DIR WORK_DIR INSTALL_LIBDIR CXX GENERATOR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "RunConsumer.cmake: ${var} not set")
  endif()
endforeach()

set(prefix ${WORK_DIR}/prefix)
set(build ${WORK_DIR}/build)
file(REMOVE_RECURSE ${WORK_DIR})

execute_process(COMMAND ${CMAKE_COMMAND} --install ${PIM_BINARY_DIR} --prefix ${prefix}
                COMMAND_ERROR_IS_FATAL ANY)

# Plain pkg-config users find the package through PKG_CONFIG_PATH, not CMake's prefix path.
set(ENV{PKG_CONFIG_PATH} ${prefix}/${INSTALL_LIBDIR}/pkgconfig)
execute_process(COMMAND ${CMAKE_COMMAND} -S ${CONSUMER_SOURCE_DIR} -B ${build} -G ${GENERATOR}
                        -DCMAKE_CXX_COMPILER=${CXX}
                        -DCMAKE_PREFIX_PATH=${prefix}
                        -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
                        -DPKG_CONFIG_USE_CMAKE_PREFIX_PATH=OFF
                        "-DCMAKE_CXX_FLAGS=${EXTRA_FLAGS}"
                        "-DCMAKE_EXE_LINKER_FLAGS=${EXTRA_FLAGS}"
                        -DEXPECTED_PREFIX=${prefix}
                COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_COMMAND} --build ${build} COMMAND_ERROR_IS_FATAL ANY)

foreach(program consumer_cmake consumer_pkgconfig consumer_linux_cmake consumer_linux_pkgconfig)
  execute_process(COMMAND ${build}/${program} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
