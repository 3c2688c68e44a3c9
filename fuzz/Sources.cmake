# The fuzz targets' sources, shared by fuzz/CMakeLists.txt (one libFuzzer binary each) and
# tests/CMakeLists.txt (FuzzRegressionTest links them all and replays inputs).
set(PIM_FUZZ_TARGETS readHeader readUnicastAddress readGroupAddress readSourceAddress
    readHelloMessage readJoinPruneMessage
    readRegisterMessage readRegisterStopMessage readAssertMessage readBootstrapMessage
    readCrpAdvMessage readDfElectionMessage pimdumpFrame processPkt
    readPortFrame)
# Own input formats and seeds; not in FuzzInput.h. rpfSm: the RPF machines against lookups.
set(PIM_FUZZ_PLATFORM_TARGETS drobeReader rpfSm)
# As the platform targets, linked with pimlinux; seeds in fuzz/seeds/<target>.
set(PIM_FUZZ_LINUX_TARGETS netlinkRoute)
set(PIM_FUZZ_SUPPORT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/FuzzInput.cpp
    ${CMAKE_CURRENT_LIST_DIR}/FuzzSeedsSamples.cpp)
# The readers whose property is a plain round trip share ReadMessageFuzz.cpp.
set(PIM_FUZZ_TARGET_SOURCES "")
foreach(f ReadHeader ReadMessage ReadJoinPruneMessage PimdumpFrame ProcessPkt ReadPortFrame)
  list(APPEND PIM_FUZZ_TARGET_SOURCES ${CMAKE_CURRENT_LIST_DIR}/${f}Fuzz.cpp)
endforeach()
