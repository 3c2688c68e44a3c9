// Seeds of the Register, Register-Stop, Assert, Bootstrap, C-RP-Adv and DF Election fuzz
// targets: each message written by the codec's own writer in both families, so that the
// seeds follow the writers' layout.
#include "Pim/PimMessage.h"
#include "fuzz/FuzzInput.h"

namespace PimFuzz {
namespace {

using namespace Routing::Pim::Packet;
using Bytes = std::vector<std::uint8_t>;

Nimo::IpGenAddr addr(bool v6, const char* a4, const char* a6) {
  return Nimo::IpGenAddr(v6 ? a6 : a4);
}

// The message's bytes as its writer produces them in decode()'s context for family f.
template <typename M, typename Fill>
Bytes written(Family f,
              std::uint32_t (M::*write)(const Kel::Ptr<Nimo::Pkt>&, std::uint32_t) noexcept,
              Fill fill) {
  auto m = Kel::Ptr<M>::make();
  const bool v6 = f == Family::Ipv6;
  m->srcIpIs(addr(v6, "10.0.0.1", "fe80::1"));
  m->dstIpIs(addr(v6, "224.0.0.13", "ff02::d"));
  fill(*m, v6);
  auto pkt = Nimo::Pkt::create(1500);
  const std::uint32_t n = ((*m).*write)(pkt, 0);
  check(n != 0, "seed message does not write");
  const std::uint8_t* p = pkt->data(0, n);
  return Bytes(p, p + n);
}

// An inner packet: IPv4 or IPv6 header to group 239.1.2.3 / ff3e::1234, 8 payload bytes.
Kel::Ptr<Nimo::Pkt> innerPacket(bool v6) {
  auto p = Nimo::Pkt::create(v6 ? 48 : 28);
  std::uint8_t* h = p->writableData(0);
  const Nimo::IpGenAddr src = addr(v6, "10.0.0.5", "2001:db8::5");
  const Nimo::IpGenAddr dst = addr(v6, "239.1.2.3", "ff3e::1234");
  if (v6) {
    Nimo::Ipv6Hdr(h).build(0, 8, 17, 64, src, dst);
  } else {
    Nimo::Ipv4Hdr(h).build(0, 28, 64, 17, src, dst);
  }
  return p;
}

EncodedGroupAddress group(bool v6) {
  EncodedGroupAddress g;
  g.addressIs(addr(v6, "239.1.2.3", "ff3e::1234"));
  return g;
}
EncodedUnicastAddress unicast(bool v6, const char* a4, const char* a6) {
  return EncodedUnicastAddress(addr(v6, a4, a6));
}

template <typename M>
void fillDf(M& m, bool v6) {
  m.rpAddressIs(unicast(v6, "10.0.0.99", "2001:db8::99"));
  m.senderMetricPrefIs({100, 10});
  if constexpr (std::is_same_v<M, DfElectionBackoffMessage>) {
    m.offeringAddressIs(unicast(v6, "10.0.0.7", "2001:db8::7"));
    m.offeringMetricPrefIs({110, 20});
    m.intervalIs(200);
  }
  if constexpr (std::is_same_v<M, DfElectionPassMessage>) {
    m.winningAddressIs(unicast(v6, "10.0.0.7", "2001:db8::7"));
    m.winningMetricPrefIs({110, 20});
  }
}

Bytes message(std::string_view target, Family f, int variant) {
  if (target == "readRegisterMessage") {
    return written(f, &RegisterMessage::writeRegisterMessage, [&](RegisterMessage& m, bool v6) {
      m.nullFlagIs(variant == 1);
      m.rcvdPktIs(innerPacket(v6));
    });
  }
  if (target == "readRegisterStopMessage") {
    return written(f, &RegisterStopMessage::writeRegisterStopMessage,
                   [](RegisterStopMessage& m, bool v6) {
                     m.groupIs(group(v6));
                     m.sourceIs(unicast(v6, "10.0.0.5", "2001:db8::5"));
                   });
  }
  if (target == "readAssertMessage") {
    return written(f, &AssertMessage::writeAssertMessage, [&](AssertMessage& m, bool v6) {
      m.groupIs(group(v6));
      m.sourceIs(unicast(v6, "10.0.0.5", "2001:db8::5"));
      m.rptIs(variant == 1);
      m.metricPreferenceIs(AssertMessage::AssertMetricPreference(110));
      m.metricIs(10);
    });
  }
  if (target == "readBootstrapMessage") {
    return written(f, &BootstrapMessage::writeBootstrapMessage, [&](BootstrapMessage& m, bool v6) {
      m.noForwardIs(variant == 1);
      m.fragmentTagIs(42);
      m.hashMaskLenIs(v6 ? 126 : 30);
      m.bsrAddressIs(addr(v6, "10.0.0.1", "2001:db8::1"));
      for (const char* p : {v6 ? "ff00::/8" : "224.0.0.0/4", v6 ? "ff3e::/16" : "239.0.0.0/8"}) {
        BootstrapGroupData& g = m.groupDataIs(Nimo::IpGenPrefix(p));
        g.rpCount = g.fragRpCount = 2;
        g.rpListIs(addr(v6, "10.0.0.99", "2001:db8::99")).rpHoldtime = 150;
        g.rpListIs(addr(v6, "10.0.0.100", "2001:db8::100")).rpPriority = 192;
      }
    });
  }
  if (target == "readCrpAdvMessage") {
    return written(f, &CrpAdvMessage::writeCrpAdvMessage, [&](CrpAdvMessage& m, bool v6) {
      m.prefixCountIs(2);
      m.holdtimeIs(150);
      m.rpAddressIs(addr(v6, "10.0.0.99", "2001:db8::99"));
      m.groupDataIs(Kel::Ptr<CrpGroupData>::make());
      m.allowedScopeIs(variant == 1 ? CrpAdvScope::Admin : CrpAdvScope::Global);
      for (const char* p : {v6 ? "ff00::/8" : "224.0.0.0/4", v6 ? "ff3e::/16" : "239.0.0.0/8"}) {
        m.groupData()->groupInfoIs(Nimo::IpGenPrefix(p), variant == 1 ? 1 : 0);
      }
    });
  }
  if (target == "readDfElectionMessage") {
    switch (variant) {
      case 0:
        return written(f, &DfElectionOfferMessage::writeDfElectionOfferMessage,
                       fillDf<DfElectionOfferMessage>);
      case 1:
        return written(f, &DfElectionWinnerMessage::writeDfElectionWinnerMessage,
                       fillDf<DfElectionWinnerMessage>);
      case 2:
        return written(f, &DfElectionBackoffMessage::writeDfElectionBackoffMessage,
                       fillDf<DfElectionBackoffMessage>);
      default:
        return written(f, &DfElectionPassMessage::writeDfElectionPassMessage,
                       fillDf<DfElectionPassMessage>);
    }
  }
  return {};
}

}  // namespace

std::vector<Bytes> messageSeeds(std::string_view target) {
  std::vector<Bytes> out;
  const int variants = target == "readDfElectionMessage" ? 4 : 2;
  for (Family f : {Family::Ipv4, Family::Ipv6}) {
    for (int v = 0; v < variants; ++v) {
      Bytes m = message(target, f, v);
      if (m.empty()) return out;
      out.push_back(encode(f, static_cast<std::uint8_t>(v), false, m));
    }
  }
  return out;
}

}  // namespace PimFuzz
