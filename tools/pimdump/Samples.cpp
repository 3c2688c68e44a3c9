// The sample messages: one of every type per family, written by the library's writers.

#include "tools/pimdump/Samples.h"

#include "Pim/PimMessage.h"

namespace PimDump {

namespace {

namespace P = Routing::Pim::Packet;
using Nimo::IpGenAddr;

struct Family {
  IpGenAddr self, peer, allPim, rp, source, group;
};
const Family kV4{IpGenAddr("10.1.0.1"), IpGenAddr("10.1.0.2"),  IpGenAddr("224.0.0.13"),
                 IpGenAddr("10.9.9.9"), IpGenAddr("192.0.2.7"), IpGenAddr("232.1.1.1")};
const Family kV6{IpGenAddr("fe80::1"),      IpGenAddr("fe80::2"),     IpGenAddr("ff02::d"),
                 IpGenAddr("2001:db8::99"), IpGenAddr("2001:db8::7"), IpGenAddr("ff3e::1:1")};

// A message written by its writer, between src and dst, as the PIM payload of an IP packet.
template <typename M, typename Write>
Bytes written(M& m, Write write, const IpGenAddr& src, const IpGenAddr& dst) {
  m.srcIpIs(src);
  m.dstIpIs(dst);
  auto pkt = Nimo::Pkt::create(9000);
  const std::uint32_t n = (m.*write)(pkt, 0);
  if (n == 0) throw std::runtime_error("a sample message failed to write");
  pkt->sizeIs(n);
  return PimDump::ipPacket(src, dst, {pkt->data(0, n), n});
}

}  // namespace

Bytes sampleHello(bool v6, bool everyOption) {
  const Family& f = v6 ? kV6 : kV4;
  P::HelloMessage h;
  h.holdTimeOptionIs(true);
  h.holdTimeIs(105);
  h.drPriorityOptionIs(true);
  h.drPriorityIs(everyOption ? 7 : 1);
  h.generationIdOptionIs(true);
  h.generationIdIs(0x1234abcd);
  if (everyOption) {
    h.lanPruneDelayOptionIs(true);
    h.tBitIs(true);
    h.propagationDelayIs(P::HelloMessage::HelloPropagationDelay(500));
    h.overrideIntervalIs(2500);
    h.bidirectionalCapableIs(true);
    h.secondaryAddrIs(f.rp, true);
    h.interfaceIdOptionIs(true);
    h.routerIdIs(0x0a010001);
    h.interfaceIdIs(3);
  }
  return written(h, &P::HelloMessage::writeHelloMessage, f.self, f.allPim);
}

Bytes sampleHelloExtremes(bool v6) {
  const Family& f = v6 ? kV6 : kV4;
  P::HelloMessage h;
  h.holdTimeOptionIs(true);
  h.holdTimeIs(0xffff);
  h.lanPruneDelayOptionIs(true);
  h.tBitIs(false);
  h.propagationDelayIs(P::HelloMessage::HelloPropagationDelay(32767));
  h.overrideIntervalIs(0);
  h.drPriorityOptionIs(true);
  h.drPriorityIs(0xfffffffe);
  h.generationIdOptionIs(true);
  h.generationIdIs(0xdeadbeef);
  h.secondaryAddrIs(f.rp, true);
  h.secondaryAddrIs(f.source, true);
  return written(h, &P::HelloMessage::writeHelloMessage, f.self, f.allPim);
}

// Every message type of one family, in type order.
std::vector<Bytes> sampleMessages(bool v6) {
  std::vector<Bytes> out;
  out.push_back(sampleHello(v6, true));
  return out;
}

}  // namespace PimDump
