// Fuzz target: RegisterMessage::readRegisterMessage; a Register it accepts, written back
// (data: its inner packet copied; null: a fresh dummy header), must read back equal. A data
// Register's inner packet must be the tail of what was read, in place.
#include "Pim/PimMessage.h"
#include "fuzz/FuzzInput.h"

std::uint32_t PimFuzz::readRegisterMessage(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::Packet::RegisterMessage;
  auto in = decode(data, size);
  if (!in) return 0;
  auto rx = Kel::Ptr<RegisterMessage>::make(), again = Kel::Ptr<RegisterMessage>::make();
  for (auto& m : {rx, again}) m->srcIpIs(in->srcIp), m->dstIpIs(in->dstIp);
  const std::uint32_t before = in->pkt->size();
  std::uint32_t n = rx->readRegisterMessage(in->pkt, in->offset);
  if (n == 0) return 0;
  if (!rx->nullFlag()) {
    check(rx->rcvdPkt() == in->pkt && in->pkt->size() == before - in->offset - 8,
          "data Register not handed on in place");
  }
  auto out = Nimo::Pkt::create(n + 64);
  std::uint32_t w = rx->writeRegisterMessage(out, 0);
  if (w == 0) return n;  // e.g. an inner length the writer finds insane
  check(out->sizeIs(w) && again->readRegisterMessage(out, 0) == w,
        "rewritten Register does not read");
  check(*again == *rx, "rewritten Register reads back different");
  return n;
}
PIM_FUZZ_ENTRY(PimFuzz::readRegisterMessage)
