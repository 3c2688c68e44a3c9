// Fuzz target: readPortMessage, the PORT messages of PIM over a reliable transport. A
// message it accepts must lie inside the packet, its options must tile the message exactly,
// a Join/Prune message must write back with the same header, Interface ID and first option
// header, and each Join/Prune option is decoded from a copy that ends where the option
// ends, as the association's receive path does, so the decoder cannot read past it.
#include <cstring>

#include "Pim/PimMessage.h"
#include "Pim/PortFrame.h"
#include "fuzz/FuzzInput.h"

std::uint32_t PimFuzz::readPortFrame(const std::uint8_t* data, std::size_t size) {
  using namespace Routing::Pim::Reliable;
  auto in = decode(data, size);
  if (!in) return 0;
  PortMessage m;
  const std::uint32_t n = readPortMessage(in->pkt, in->offset, m);
  if (n == 0) return 0;
  check(m.end == in->offset + n && m.end <= in->pkt->size(), "message runs past the packet");
  if (m.type != kPortTypeJoinPrune) return n;
  std::uint32_t at = m.optionsOffset, joinPrunes = 0, unknown = 0;
  PortOption first;
  forEachPortOption(*in->pkt, m, [&](const PortOption& o) {
    check(o.offset == at + kPortOptionHeaderSize && o.offset + o.length <= m.end,
          "option outside its message");
    if (at == m.optionsOffset) first = o;
    at = o.offset + o.length;
    const auto af = portOptionFamily(o.type);
    (af ? joinPrunes : unknown) += 1;
    if (!af) return;
    auto jp = Kel::Ptr<Routing::Pim::Packet::JoinPruneMessage>::make();
    jp->srcIpIs(portMessageAddr(*af));
    jp->dstIpIs(portMessageAddr(*af));
    (void)jp->readJoinPruneMessage(Nimo::Pkt::copyOf(in->pkt->data(o.offset), o.length, 0), 0,
                                   nullptr);
  });
  check(at == m.end, "options do not end with the message");
  check(joinPrunes == m.joinPrunes && unknown == m.unknownOptions, "option counts differ");
  // A message whose first option is a Join/Prune of at least a PIM header writes back.
  const auto af = portOptionFamily(first.type);
  if (af && first.length >= kPortMinPimSize) {
    auto out = Nimo::Pkt::create(kPortJoinPruneOffset + first.length);
    check(writePortJoinPrune(out, 0, m.interfaceId, *af, first.length) ==
              kPortJoinPruneOffset + first.length,
          "accepted Join/Prune does not write");
    // The length field differs when more options follow; the rest must match.
    const std::uint8_t* a = out->data(0);
    const std::uint8_t* b = in->pkt->data(in->offset);
    check(std::memcmp(a, b, 2) == 0 && std::memcmp(a + 8, b + 8, kPortJoinPruneOffset - 8) == 0,
          "Join/Prune header differs");
  }
  return n;
}
