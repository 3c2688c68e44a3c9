// The libFuzzer entry point of one target, named by PIM_FUZZ_TARGET when it is built.
#include "fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  (void)PimFuzz::PIM_FUZZ_TARGET(data, size);
  return 0;
}
