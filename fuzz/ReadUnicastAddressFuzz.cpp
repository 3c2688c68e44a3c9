// Fuzz target: EncodedUnicastAddress::readUnicastAddress; what it reads, if the writer takes
// it (it refuses a multicast address), must write back to the same bytes.
#include "Pim/PimMessage.h"
#include "fuzz/ReadRoundTrip.h"

std::uint32_t PimFuzz::readUnicastAddress(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::Packet::EncodedUnicastAddress;
  return addressRoundTrip<EncodedUnicastAddress>(data, size,
                                                 &EncodedUnicastAddress::readUnicastAddress,
                                                 &EncodedUnicastAddress::writeUnicastAddress);
}
PIM_FUZZ_ENTRY(PimFuzz::readUnicastAddress)
