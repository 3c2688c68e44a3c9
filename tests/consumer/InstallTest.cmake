# CTest test "InstallConsumer" (label install): installs this build into a scratch prefix and
# builds and runs tests/consumer against it, once through find_package(PimCore) and once
# through pkg-config. Included from tests/CMakeLists.txt.
#
# Under the sanitizer preset the installed libraries carry ASan/UBSan instrumentation, so
# the consumer is built with the same -fsanitize flags; the test then checks the same thing.
set(_pim_consumer_flags "")
if(PIM_SANITIZE)
  set(_pim_consumer_flags "-fsanitize=address,undefined -fno-sanitize-recover=all")
endif()
add_test(NAME InstallConsumer
  COMMAND ${CMAKE_COMMAND}
    -DPIM_BINARY_DIR=${PROJECT_BINARY_DIR}
    -DCONSUMER_SOURCE_DIR=${CMAKE_CURRENT_LIST_DIR}
    -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/install-consumer
    -DINSTALL_LIBDIR=${CMAKE_INSTALL_LIBDIR}
    -DCXX=${CMAKE_CXX_COMPILER}
    -DGENERATOR=${CMAKE_GENERATOR}
    -DEXTRA_FLAGS=${_pim_consumer_flags}
    -P ${CMAKE_CURRENT_LIST_DIR}/RunConsumer.cmake)
set_tests_properties(InstallConsumer PROPERTIES LABELS install TIMEOUT 300)
