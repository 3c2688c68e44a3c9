// Fuzz target: readPortFrame, the framing of PIM over a reliable transport. A frame it
// accepts must lie inside the packet, its header must write back byte for byte, and a
// Join/Prune inside is decoded from a copy that ends where the frame ends, as the
// association's receive path does, so the decoder cannot read into the next frame.
#include <cstring>

#include "Pim/PimMessage.h"
#include "Pim/PortFrame.h"
#include "fuzz/FuzzInput.h"

std::uint32_t PimFuzz::readPortFrame(const std::uint8_t* data, std::size_t size) {
  using namespace Routing::Pim::Reliable;
  auto in = decode(data, size);
  if (!in) return 0;
  PortFrame f;
  const std::uint32_t n = Routing::Pim::Reliable::readPortFrame(in->pkt, in->offset, f);
  if (n == 0) return 0;
  check(in->offset + n <= in->pkt->size(), "frame runs past the packet");
  check(f.pimLength == 0 || f.pimOffset + f.pimLength == in->offset + n, "message not at the end");
  auto out = Nimo::Pkt::create(n);
  check(writePortHeader(out, 0, f.type, f.pimLength) == n, "accepted frame does not write");
  check(std::memcmp(out->data(0, 4), in->pkt->data(in->offset, 4), 4) == 0, "header differs");
  if (f.type == kPortTypeJoinPrune && in->srcIp.isSet()) {
    auto jp = Kel::Ptr<Routing::Pim::Packet::JoinPruneMessage>::make();
    jp->srcIpIs(portMessageAddr(in->srcIp.af()));
    jp->dstIpIs(portMessageAddr(in->srcIp.af()));
    (void)jp->readJoinPruneMessage(Nimo::Pkt::copyOf(in->pkt->data(f.pimOffset), f.pimLength, 0), 0,
                                   nullptr);
  }
  return n;
}
PIM_FUZZ_ENTRY(PimFuzz::readPortFrame)
