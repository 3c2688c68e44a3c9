// Fuzz target: JoinPruneMessage::readJoinPruneMessage. Input bit 0x80 (context byte) turns
// on the filters: a boundary over 239.128.0.0/9 and ff3e::8000:0/97, and a bidirectional
// message. A data set the reader accepts, drained by the writer into 1500-byte messages
// and read back from them (with the same filters), must come back whole.
#include "Pim/PimMcastBoundary.h"
#include "Pim/PimMessage.h"
#include "fuzz/FuzzInput.h"

std::uint32_t PimFuzz::readJoinPruneMessage(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::JoinPruneData;
  using Routing::Pim::Packet::JoinPruneMessage;
  static const auto kBoundary = [] {
    auto s = Kel::Ptr<Nimo::IntfBoundaryStatus>::make();
    s->groupPrefixIs(Nimo::IpGenPrefix("239.128.0.0/9"));
    s->groupPrefixIs(Nimo::IpGenPrefix("ff3e::8000:0/97"));
    return Routing::Pim::Boundary::intfBoundaryFactory(s);
  }();
  auto in = decode(data, size);
  if (!in) return 0;
  const bool filters = (data[0] & 0x80) != 0;
  const auto boundary = filters ? kBoundary : nullptr;
  auto message = [&] {
    auto m = Kel::Ptr<JoinPruneMessage>::make();
    m->srcIpIs(in->srcIp), m->dstIpIs(in->dstIp), m->bidirIs(filters);
    return m;
  };
  auto rx = message();
  const std::uint32_t n = rx->readJoinPruneMessage(in->pkt, in->offset, boundary);
  if (n == 0) return 0;

  auto tx = message(), back = message();
  tx->joinPruneDataIs(Kel::Ptr<JoinPruneData>::make(*rx->joinPruneData()));
  back->joinPruneDataIs(Kel::Ptr<JoinPruneData>::make());
  const std::size_t routes = rx->joinPruneData()->routes();
  for (std::size_t calls = 0; !tx->joinPruneData()->empty(); ++calls) {
    check(calls <= routes, "writer makes no progress");
    auto out = Nimo::Pkt::create(1500);
    const std::uint32_t w = tx->writeJoinPruneMessage(out, 0, boundary);
    check(w != 0 && w <= 1480 && out->size() == w, "accepted data set does not write");
    check(back->readJoinPruneMessage(out, 0, boundary) == w, "written Join/Prune does not read");
  }
  check(*back->joinPruneData() == *rx->joinPruneData(), "Join/Prune reads back different");
  return n;
}
