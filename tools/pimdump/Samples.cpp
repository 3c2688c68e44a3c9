// The sample messages: one of every type per family, written by the library's writers.

#include "tools/pimdump/Samples.h"

#include <functional>

#include "Pim/PimMessage.h"

namespace PimDump {

namespace {

namespace P = Routing::Pim::Packet;
using Nimo::IpGenAddr;

// self and peer are link-local neighbours in IPv6; unicast messages (Register, its Stop,
// C-RP-Adv) go between global addresses: self's is "router".
struct Family {
  IpGenAddr self, peer, allPim, rp, source, group, router, rp2;
};
const Family kV4{IpGenAddr("10.1.0.1"), IpGenAddr("10.1.0.2"),  IpGenAddr("224.0.0.13"),
                 IpGenAddr("10.9.9.9"), IpGenAddr("192.0.2.7"), IpGenAddr("232.1.1.1"),
                 IpGenAddr("10.1.0.1"), IpGenAddr("10.9.9.8")};
const Family kV6{IpGenAddr("fe80::1"),       IpGenAddr("fe80::2"),     IpGenAddr("ff02::d"),
                 IpGenAddr("2001:db8::99"),  IpGenAddr("2001:db8::7"), IpGenAddr("ff3e::1:1"),
                 IpGenAddr("2001:db8:1::1"), IpGenAddr("2001:db8::98")};

// A message written by its writer, between src and dst, as the PIM payload of an IP packet.
template <typename M, typename Write>
Bytes written(M& m, Write write, const IpGenAddr& src, const IpGenAddr& dst) {
  m.srcIpIs(src);
  m.dstIpIs(dst);
  auto pkt = Nimo::Pkt::create(9000);
  const std::uint32_t n = std::invoke(write, m, pkt, 0u);
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

// Every message type of one family, in type order: a Hello, a data and a null Register,
// a Register-Stop, a Join/Prune with every kind of entry, a Bootstrap, an Assert, a
// C-RP-Adv and the four DF Election subtypes.
std::vector<Bytes> sampleMessages(bool v6) {
  const Family& f = v6 ? kV6 : kV4;
  const auto host = static_cast<std::uint8_t>(v6 ? 128 : 32);
  auto a = [v6](const char* v4Text, const char* v6Text) { return IpGenAddr(v6 ? v6Text : v4Text); };
  auto pfx = [v6](const char* v4Text, const char* v6Text) {
    return Nimo::IpGenPrefix(v6 ? v6Text : v4Text);
  };
  std::vector<Bytes> out;
  out.push_back(sampleHello(v6, true));

  for (const bool null : {false, true}) {
    P::RegisterMessage r;
    r.nullFlagIs(null);
    r.borderFlagIs(null);
    r.innerSourceIs(f.source);
    r.innerGroupIs(f.group);
    r.hopLimitIs(63);
    if (!null) {
      // A UDP datagram from the source to the group, as the first-hop router received it.
      const Bytes udp = {0x1f, 0x90, 0x1f, 0x90, 0x00, 0x0c, 0x00, 0x00, 'd', 'a', 't', 'a'};
      Bytes inner = PimDump::ipPacket(f.source, f.group, udp);
      inner[v6 ? 6 : 9] = 17;
      if (v6) {  // IPv6 forbids a zero UDP checksum
        Nimo::store16(inner.data() + 46,
                      Nimo::inetChecksumV6(f.source, f.group, 12, 17, inner.data() + 40, 12));
      } else {
        Nimo::store16(inner.data() + 10, 0);
        Nimo::store16(inner.data() + 10, Nimo::inetChecksum(inner.data(), 20));
      }
      r.rcvdPktIs(Nimo::Pkt::copyOf(inner.data(), static_cast<std::uint32_t>(inner.size())));
    }
    out.push_back(written(r, &P::RegisterMessage::writeRegisterMessage, f.router, f.rp));
  }

  P::RegisterStopMessage stop;
  stop.groupIs(P::EncodedGroupAddress(P::GroupAddress(Nimo::IpGenPrefix(f.group, host), 0)));
  stop.sourceIs(P::EncodedUnicastAddress(f.source));
  out.push_back(written(stop, &P::RegisterStopMessage::writeRegisterStopMessage, f.rp, f.router));

  auto data = Kel::Ptr<Routing::Pim::JoinPruneData>::make();
  data->upstreamNeighborIs(f.peer);
  data->holdTimeIs(210);
  auto& g1 = data->joinPruneGroupDataIs(Nimo::IpGenPrefix(a("239.1.1.1", "ff3e::1"), host));
  g1.joinedSourceIs(a("10.1.1.1", "2001:db8::1"));
  g1.wcSourceDataIs(Routing::Pim::WcSourceData(f.rp, true));
  g1.prunedRptSourceIs(a("10.2.2.2", "2001:db8::2"));
  auto& g2 = data->joinPruneGroupDataIs(Nimo::IpGenPrefix(f.group, host));
  g2.joinedRptSourceIs(a("10.3.3.3", "2001:db8::3"));
  g2.prunedSourceIs(a("10.4.4.4", "2001:db8::4"));
  P::JoinPruneMessage jp;
  jp.joinPruneDataIs(data);
  out.push_back(written(
      jp,
      [](P::JoinPruneMessage& m, const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t off) {
        return m.writeJoinPruneMessage(pkt, off, nullptr);
      },
      f.self, f.allPim));

  P::BootstrapMessage bsm;
  bsm.fragmentTagIs(0x1234);
  bsm.hashMaskLenIs(v6 ? 126 : 30);
  bsm.bsrPriorityIs(64);
  bsm.bsrAddressIs(f.rp);
  for (const auto& [prefix, rps] : {std::pair{pfx("224.0.0.0/4", "ff00::/8"), 2},
                                    std::pair{pfx("239.0.0.0/8", "ff3e::/16"), 1}}) {
    auto& g = bsm.groupDataIs(prefix);
    g.rpCount = g.fragRpCount = static_cast<std::uint8_t>(rps);
    for (int i = 0; i < rps; ++i) {
      auto& rp = g.rpListIs(i == 0 ? f.rp : f.rp2);
      rp.rpHoldtime = 150;
      rp.rpPriority = static_cast<std::uint8_t>(192 + i);
    }
  }
  out.push_back(written(bsm, &P::BootstrapMessage::writeBootstrapMessage, f.rp, f.allPim));

  P::AssertMessage assertion;
  assertion.groupIs(P::EncodedGroupAddress(P::GroupAddress(Nimo::IpGenPrefix(f.group, host), 0)));
  assertion.sourceIs(P::EncodedUnicastAddress(f.source));
  assertion.rptIs(true);
  assertion.metricPreferenceIs(P::AssertMessage::AssertMetricPreference(110));
  assertion.metricIs(20);
  out.push_back(written(assertion, &P::AssertMessage::writeAssertMessage, f.self, f.allPim));

  P::CrpAdvMessage crp;
  crp.prefixCountIs(2);
  crp.priorityIs(10);
  crp.holdtimeIs(150);
  crp.rpAddressIs(f.router);
  auto groups = Kel::Ptr<P::CrpGroupData>::make();
  groups->groupInfoIs(pfx("224.0.0.0/4", "ff00::/8"));
  groups->groupInfoIs(pfx("239.0.0.0/8", "ff3e::/16"));
  crp.groupDataIs(groups);
  out.push_back(written(crp, &P::CrpAdvMessage::writeCrpAdvMessage, f.router, f.rp));

  auto df = [&](auto& m, auto write) {
    m.rpAddressIs(P::EncodedUnicastAddress(f.rp));
    m.senderMetricPrefIs({110, 20});
    out.push_back(written(m, write, f.self, f.allPim));
  };
  P::DfElectionOfferMessage offer;
  df(offer, &P::DfElectionOfferMessage::writeDfElectionOfferMessage);
  P::DfElectionWinnerMessage winner;
  df(winner, &P::DfElectionWinnerMessage::writeDfElectionWinnerMessage);
  P::DfElectionBackoffMessage backoff;
  backoff.offeringAddressIs(P::EncodedUnicastAddress(f.peer));
  backoff.offeringMetricPrefIs({100, 10});
  backoff.intervalIs(100);
  df(backoff, &P::DfElectionBackoffMessage::writeDfElectionBackoffMessage);
  P::DfElectionPassMessage pass;
  pass.winningAddressIs(P::EncodedUnicastAddress(f.peer));
  pass.winningMetricPrefIs({100, 10});
  df(pass, &P::DfElectionPassMessage::writeDfElectionPassMessage);
  return out;
}

}  // namespace PimDump
