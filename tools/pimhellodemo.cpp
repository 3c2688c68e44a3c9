// Writes a few Hellos with the codec, as routers on an IPv4 and an IPv6 LAN would send
// them, reads each back from its bytes and prints the decoded message and the bytes.
//
// Usage: pimhellodemo            (set FLICKLOG=Pim::Packet=9 to see the codec's trace)

#include <cstdio>
#include <iostream>

#include "Pim/PimMessage.h"

using Routing::Pim::Packet::HelloMessage;

namespace {

Kel::Ptr<HelloMessage> makeHello(const char* src, const char* dst, std::uint32_t genId) {
  auto h = Kel::Ptr<HelloMessage>::make();
  h->srcIpIs(Nimo::IpGenAddr(src));
  h->dstIpIs(Nimo::IpGenAddr(dst));
  h->holdTimeOptionIs(true);
  h->holdTimeIs(105);
  h->lanPruneDelayOptionIs(true);
  h->propagationDelayIs(HelloMessage::HelloPropagationDelay(500));
  h->overrideIntervalIs(2500);
  h->drPriorityOptionIs(true);
  h->drPriorityIs(1);
  h->generationIdOptionIs(true);
  h->generationIdIs(genId);
  return h;
}

int roundTrip(const Kel::Ptr<HelloMessage>& tx) {
  auto pkt = Nimo::Pkt::create(1500);
  const std::uint32_t n = tx->writeHelloMessage(pkt, 0);
  if (n == 0) {
    std::cerr << "write failed\n";
    return 1;
  }
  pkt->sizeIs(n);
  auto rx = Kel::Ptr<HelloMessage>::make();
  rx->srcIpIs(tx->srcIp());
  rx->dstIpIs(tx->dstIp());
  if (rx->readHelloMessage(pkt, 0) != n || !(*rx == *tx)) {
    std::cerr << "read back differs\n";
    return 1;
  }
  std::cout << "<PIM " << *rx << ">\n  ";
  for (std::uint32_t i = 0; i < n; ++i)
    std::printf("%02x%s", pkt->data(i)[0], i % 16 == 15 ? "\n  " : " ");
  std::cout << "\n";
  return 0;
}

}  // namespace

int main() {
  int failures = 0;

  auto v4 = makeHello("10.0.0.1", "224.0.0.13", 0x1234abcd);
  v4->secondaryAddrIs(Nimo::IpGenAddr("10.1.0.1"), true);
  v4->secondaryAddrIs(Nimo::IpGenAddr("10.2.0.1"), true);
  failures += roundTrip(v4);

  auto bidir = makeHello("10.0.0.2", "224.0.0.13", 7);
  bidir->bidirectionalCapableIs(true);
  bidir->tBitIs(true);
  bidir->interfaceIdOptionIs(true);
  bidir->routerIdIs(0x0a000002);
  bidir->interfaceIdIs(3);
  failures += roundTrip(bidir);

  auto v6 = makeHello("fe80::1", "ff02::d", 0xfeedbeef);
  v6->secondaryAddrIs(Nimo::IpGenAddr("2001:db8::1"), true);
  v6->sctpConnectionOptionIs(true);
  v6->sctpConnectionIdIs(Nimo::IpGenAddr("2001:db8::1"));
  failures += roundTrip(v6);

  return failures == 0 ? 0 : 1;
}
