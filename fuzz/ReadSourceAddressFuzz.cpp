// Fuzz target: EncodedSourceAddress::readSourceAddress; what it reads, if the writer takes
// it (a multicast source it refuses), must write back to the same bytes.
#include "Pim/PimMessage.h"
#include "fuzz/ReadRoundTrip.h"

std::uint32_t PimFuzz::readSourceAddress(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::Packet::EncodedSourceAddress;
  return addressRoundTrip<EncodedSourceAddress>(data, size,
                                                &EncodedSourceAddress::readSourceAddress,
                                                &EncodedSourceAddress::writeSourceAddress);
}
PIM_FUZZ_ENTRY(PimFuzz::readSourceAddress)
