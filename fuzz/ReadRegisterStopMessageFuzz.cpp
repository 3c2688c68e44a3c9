// Fuzz target: RegisterStopMessage::readRegisterStopMessage; an accepted Register-Stop must
// write back to the same bytes.
#include <cstring>

#include "Pim/PimMessage.h"
#include "fuzz/FuzzInput.h"

std::uint32_t PimFuzz::readRegisterStopMessage(const std::uint8_t* data, std::size_t size) {
  auto in = decode(data, size);
  if (!in) return 0;
  auto rx = Kel::Ptr<Routing::Pim::Packet::RegisterStopMessage>::make();
  rx->srcIpIs(in->srcIp), rx->dstIpIs(in->dstIp);
  std::uint32_t n = rx->readRegisterStopMessage(in->pkt, in->offset);
  if (n == 0) return 0;
  auto out = Nimo::Pkt::create(n);
  check(rx->writeRegisterStopMessage(out, 0) == n, "accepted Register-Stop does not write");
  check(std::memcmp(out->data(4, n - 4), in->pkt->data(in->offset + 4, n - 4), n - 4) == 0,
        "rewritten Register-Stop differs");
  return n;
}
PIM_FUZZ_ENTRY(PimFuzz::readRegisterStopMessage)
