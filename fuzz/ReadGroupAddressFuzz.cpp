// Fuzz target: EncodedGroupAddress::readGroupAddress; what it reads, if the writer takes
// it (a unicast group it refuses), must write back to the same bytes.
#include "Pim/PimMessage.h"
#include "fuzz/ReadRoundTrip.h"

std::uint32_t PimFuzz::readGroupAddress(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::Packet::EncodedGroupAddress;
  return addressRoundTrip<EncodedGroupAddress>(data, size, &EncodedGroupAddress::readGroupAddress,
                                               &EncodedGroupAddress::writeGroupAddress);
}
PIM_FUZZ_ENTRY(PimFuzz::readGroupAddress)
