// Fuzz target: EncodedUnicastAddress::readUnicastAddress; what it reads, if the writer
// takes it (it refuses a multicast address), must write back to the same bytes.
#include <cstring>

#include "Pim/PimMessage.h"
#include "fuzz/FuzzInput.h"

std::uint32_t PimFuzz::readUnicastAddress(const std::uint8_t* data, std::size_t size) {
  auto in = decode(data, size);
  if (!in) return 0;
  Routing::Pim::Packet::EncodedUnicastAddress a;
  std::uint32_t n = a.readUnicastAddress(in->pkt, in->offset);
  if (n == 0) return 0;
  (void)a.valid();
  auto out = Nimo::Pkt::create(n);
  if (a.writeUnicastAddress(out, 0) == 0) return n;
  check(std::memcmp(out->data(0, n), in->pkt->data(in->offset, n), n) == 0, "rewrite differs");
  return n;
}
PIM_FUZZ_ENTRY(PimFuzz::readUnicastAddress)
