// Keys and records of the PIM status tables: hashing, ordering, null keys, text forms and
// their parsing, human forms.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Pim/PimTypesDrobe.h"

namespace {

using Nimo::IntfId;
using Nimo::IpGenAddr;
using Nimo::IpGenAddrWithMask;
using Nimo::IpGenPrefix;
namespace D = Routing::Pim::Drobe;
namespace N = Routing::Pim::IntfNghbr::Drobe;
namespace P = Routing::Pim;
namespace R = Routing::Pim::Reliable;

// ---------------------------------------------------------------------------------------
// Hashing. The reference below is written independently of the library: 64-bit arithmetic
// reduced by masks, rotation by shifts, Wang's first step in its usual ~h + (h << 15) form.

std::uint64_t m32(std::uint64_t x) { return x & 0xffffffffu; }
std::uint32_t refRotl(std::uint32_t x, int n) {
  return static_cast<std::uint32_t>(m32((std::uint64_t{x} << n) | (x >> (32 - n))));
}
std::uint32_t refWang(std::uint32_t key) {
  std::uint64_t h = key;
  h = m32(~h + (h << 15));
  const std::uint64_t x = h ^ (h >> 12);
  h = m32(x + (x << 2));  // x * 5
  h = m32((h ^ (h >> 4)) * 2057);
  h = h ^ (h >> 16);
  return static_cast<std::uint32_t>(h);
}
std::uint32_t refKeyHash(std::uint32_t a, std::uint32_t b) {
  return refWang(refRotl(a, 8) ^ refRotl(b, 16));
}

TEST(PimTypesDrobeHash, WorkedByHand) {
  // Component hashes (platform): "Ethernet1" -> 0x88539b3f and "" -> 0 (the NUL-padded
  // name's four little-endian words, each times its odd constant, xor-folded); 10.0.0.2 ->
  // 0xe8600ac0 (FNV-1a over family byte 1 then the four bytes).
  // NeighborKey: rotl(0xe8600ac0, 8) ^ rotl(0x88539b3f, 16) = 0xfb3548bb, mixed 0x54b08425.
  // CounterKey(3, 255): first 0xff03; rotl(0xff03, 8) ^ rotl(0x88539b3f, 16) = 0x9bc08b53,
  // mixed 0xceed5940.
  const IntfId e1("Ethernet1");
  struct Case {
    const char* what;
    std::uint32_t hash;
    std::uint32_t expected;
  } cases[] = {
      {"NeighborKey", D::NeighborKey(IpGenAddr("10.0.0.2"), e1).hash(), 0x54b08425u},
      {"CounterKey", D::CounterKey(3, 255, e1).hash(), 0xceed5940u},
      {"null CounterKey", D::CounterKey().hash(), 0xcaa3caa3u},
      {"IntfVrfKey", N::IntfVrfKey(e1, 7).hash(), 0x5fc2b0f6u},
      {"IPv6 NeighborKey", N::NeighborKey(IpGenAddr("fe80::1"), N::IntfVrfKey(e1, 7)).hash(),
       0xf5a83beau},
  };
  for (const auto& c : cases) EXPECT_EQ(c.hash, c.expected) << c.what;
}

TEST(PimTypesDrobeHash, EveryKeyCombinesItsComponentsInOrder) {
  const IntfId e1("Ethernet1");
  const IpGenAddr a("10.0.0.2"), s("10.0.0.99");
  const IpGenPrefix p("10.1.0.0/16");
  const D::NeighborKey nk(a, e1);
  const N::IntfVrfKey ivk(e1, 42);
  const N::NeighborKey nnk(a, ivk);
  struct Case {
    const char* what;
    std::uint32_t hash, first, second;
  } cases[] = {
      {"D::NeighborKey", nk.hash(), a.hash(), e1.hash()},
      {"D::NeighborSecondaryAddressKey", D::NeighborSecondaryAddressKey(nk, s).hash(), nk.hash(),
       s.hash()},
      {"D::IntfSecondaryAddressKey", D::IntfSecondaryAddressKey(e1, s).hash(), e1.hash(), s.hash()},
      {"D::IntfSecondaryPrefixKey", D::IntfSecondaryPrefixKey(e1, p).hash(), e1.hash(), p.hash()},
      {"D::CounterKey", D::CounterKey(0x23, 7, e1).hash(), 0x0723u, e1.hash()},
      {"N::IntfVrfKey", ivk.hash(), e1.hash(), 42u},
      {"N::NeighborKey", nnk.hash(), a.hash(), ivk.hash()},
      {"N::NeighborSecondaryAddressKey", N::NeighborSecondaryAddressKey(nnk, s).hash(), nnk.hash(),
       s.hash()},
      {"N::IntfSecondaryAddressKey", N::IntfSecondaryAddressKey(ivk, s).hash(), ivk.hash(),
       s.hash()},
      {"N::IntfSecondaryPrefixKey", N::IntfSecondaryPrefixKey(ivk, p).hash(), ivk.hash(), p.hash()},
  };
  for (const auto& c : cases) EXPECT_EQ(c.hash, refKeyHash(c.first, c.second)) << c.what;
}

// ---------------------------------------------------------------------------------------
// Ordering and null keys.

TEST(PimTypesDrobeKeys, CounterKeyOrdersByTypeThenSubtypeThenInterface) {
  const IntfId a("A"), b("B");
  // Each pair: first < second.
  std::pair<D::CounterKey, D::CounterKey> ordered[] = {
      {D::CounterKey(3, 0, a), D::CounterKey(3, 1, a)},    // stype after equal mtype
      {D::CounterKey(2, 200, b), D::CounterKey(3, 0, a)},  // mtype before stype and intf
      {D::CounterKey(3, 1, b), D::CounterKey(3, 2, a)},    // stype before intf
      {D::CounterKey(3, 1, a), D::CounterKey(3, 1, b)},    // intf last
      {D::CounterKey(3, 1, IntfId()), D::CounterKey(3, 1, a)},
  };
  for (const auto& [lo, hi] : ordered) {
    EXPECT_TRUE(lo < hi) << lo << " < " << hi;
    EXPECT_FALSE(hi < lo) << hi;
    EXPECT_NE(lo, hi);
  }
}

TEST(PimTypesDrobeKeys, OtherKeysOrderFieldByField) {
  const IntfId a("A"), b("B");
  const IpGenAddr x("10.0.0.1"), y("10.0.0.2");
  EXPECT_LT(D::NeighborKey(x, b), D::NeighborKey(y, a));  // address first
  EXPECT_LT(D::NeighborKey(x, a), D::NeighborKey(x, b));
  EXPECT_LT(N::IntfVrfKey(a, 9), N::IntfVrfKey(b, 1));  // interface before VRF
  EXPECT_LT(N::IntfVrfKey(a, 1), N::IntfVrfKey(a, 9));
  EXPECT_LT(D::NeighborSecondaryAddressKey(D::NeighborKey(x, b), x),
            D::NeighborSecondaryAddressKey(D::NeighborKey(y, a), x));
  EXPECT_LT(D::IntfSecondaryPrefixKey(a, IpGenPrefix("10.0.0.0/8")),
            D::IntfSecondaryPrefixKey(a, IpGenPrefix("10.0.0.0/9")));
}

TEST(PimTypesDrobeKeys, DefaultIsNullAndAnyFieldSetIsNot) {
  const IntfId e("E");
  const IpGenAddr ad("0.0.0.0");  // set (family IPv4) though all zero
  struct Case {
    const char* what;
    bool null;
    bool expected;
  } cases[] = {
      {"D::NeighborKey()", !D::NeighborKey(), true},
      {"D::NeighborKey(addr)", !D::NeighborKey(ad, IntfId()), false},
      {"D::NeighborKey(intf)", !D::NeighborKey(IpGenAddr(), e), false},
      {"D::CounterKey()", !D::CounterKey(), true},
      {"D::CounterKey(mtype)", !D::CounterKey(1, 0, IntfId()), false},
      {"D::CounterKey(stype)", !D::CounterKey(0, 1, IntfId()), false},
      {"D::CounterKey(intf)", !D::CounterKey(0, 0, e), false},
      {"D::IntfSecondaryAddressKey()", !D::IntfSecondaryAddressKey(), true},
      {"D::IntfSecondaryAddressKey(addr)", !D::IntfSecondaryAddressKey(IntfId(), ad), false},
      {"D::IntfSecondaryPrefixKey()", !D::IntfSecondaryPrefixKey(), true},
      {"D::IntfSecondaryPrefixKey(intf)", !D::IntfSecondaryPrefixKey(e, IpGenPrefix()), false},
      {"D::NeighborSecondaryAddressKey()", !D::NeighborSecondaryAddressKey(), true},
      {"N::IntfVrfKey()", !N::IntfVrfKey(), true},
      {"N::IntfVrfKey(vrf)", !N::IntfVrfKey(IntfId(), 1), false},
      {"N::NeighborKey(vrf)", !N::NeighborKey(IpGenAddr(), N::IntfVrfKey(IntfId(), 1)), false},
      {"D::Intf()", !D::Intf(), true},
      {"D::Intf(key)", !D::Intf(e, IpGenAddrWithMask()), false},
      {"N::Neighbor()", !N::Neighbor(), true},
      {"D::MessageCounterData()", !D::MessageCounterData(), true},
      {"D::NeighborRef(key)", !D::NeighborRef(D::NeighborKey(ad, e)), false},
  };
  for (const auto& c : cases) EXPECT_EQ(c.null, c.expected) << c.what;
}

// ---------------------------------------------------------------------------------------
// Text forms. Samples fill every field with a non-default value, so that a field left out
// of the text form or of the parser changes the round trip.

template <typename IntfT, typename Key>
IntfT sampleIntf(const Key& key) {
  IntfT i(key, IpGenAddrWithMask("10.1.2.3/24"));
  i.maskLengthIs(24);
  i.usedAddressWithMaskIs(IpGenAddrWithMask("10.1.2.4/24"));
  i.modeIs(P::Mode::SparseBidir);
  i.borderRouterIs(true);
  i.enabledIs(true);
  i.sourceInjectIs(true);
  i.assertTimeoutIs(180);
  i.assertOverrideIntervalIs(3);
  i.helloPeriodIs(30);
  i.helloHoldTimeIs(105);
  i.triggeredHelloIs(true);
  i.triggeredHelloCountIs(4);
  i.lastHelloTimeIs(1234.5625);
  i.helloDelayIs(5);
  i.joinPrunePeriodIs(60);
  i.joinPruneHoldTimeIs(210);
  i.propagationDelayIs(500);
  i.usedPropagationDelayIs(501);
  i.overrideIntervalIs(2500);
  i.usedOverrideIntervalIs(2501);
  i.tBitIs(true);
  i.usedTBitIs(true);
  i.drPriorityIs(7);
  i.usedDrIs(IpGenAddr("10.1.2.9"));
  i.usedDrPriorityIs(8);
  i.generationIdIs(0xdeadbeef);
  i.bfdEnabledIs(true);
  i.portCapabilityFlagsIs(R::CapabilityFlags(true, true));
  i.portInterfaceIdIs(R::InterfaceId(0x01010101, 9));
  i.fastFailoverIs(true);
  return i;
}

template <typename NeighborT, typename Key>
NeighborT sampleNeighbor(const Key& key) {
  NeighborT n(key, 105, P::DrPriorityOption(3), P::GenerationIdOption(0x1234),
              P::LanPruneDelayOption::fromParts(true, 500, 2500));
  n.creationTimeIs(10.25);
  n.lastRefreshTimeIs(99.5);
  n.bfdStateIs(Bfd::OperState::Up);
  n.portInfoIs(R::NeighborInfo(IpGenAddr("fe80::2"), R::CapabilityFlags(false, true),
                               R::InterfaceId(0x02020202, 11)));
  n.transportProtocolIs(R::Protocol::Sctp);
  return n;
}

// One text-form case: the printed text and a parse of it compared with the original.
struct TextCase {
  std::string name;
  std::string text;
  std::function<bool(const std::string&)> parsesBackEqual;  // throws on malformed text
};

template <typename T>
TextCase textCase(const T& v) {
  std::ostringstream os;
  os << v;  // operator<< prints the valueToStrep text
  EXPECT_EQ(os.str(), valueToStrep(v));
  return {std::string(T::kTypeName), valueToStrep(v),
          [v](const std::string& t) { return T(t.begin(), t.end()) == v; }};
}

std::vector<TextCase> allTextCases() {
  const IntfId e1("Ethernet1/2");
  const IpGenAddr a("10.0.0.2"), s("10.0.0.99");
  const IpGenPrefix p("10.9.0.0/16");
  const D::NeighborKey dn(a, e1);
  const N::IntfVrfKey ivk(e1, 42);
  const N::NeighborKey nn(IpGenAddr("fe80::1"), ivk);
  D::MessageCounterData mc(D::CounterKey(3, 255, e1), Routing::Pim::IO::MessageCounter(1, 2, 3),
                           Routing::Pim::IO::MessageCounter(4, 5, 6));
  // Absent options print "None" and must read back as absent.
  N::Neighbor bare(nn, 0, P::DrPriorityOption(), P::GenerationIdOption(), P::LanPruneDelayOption());
  return {
      textCase(dn),
      textCase(D::NeighborSecondaryAddressKey(dn, s)),
      textCase(D::IntfSecondaryAddressKey(e1, s)),
      textCase(D::IntfSecondaryPrefixKey(e1, p)),
      textCase(D::CounterKey(0x23, 7, e1)),
      textCase(D::NeighborRef(dn)),
      textCase(D::NeighborSecondaryAddress(D::NeighborSecondaryAddressKey(dn, s))),
      textCase(D::IntfSecondaryAddress(D::IntfSecondaryAddressKey(e1, s))),
      textCase(D::IntfSecondaryPrefix(D::IntfSecondaryPrefixKey(e1, p))),
      textCase(sampleIntf<D::Intf>(e1)),
      textCase(sampleNeighbor<D::Neighbor>(dn)),
      textCase(mc),
      textCase(ivk),
      textCase(nn),
      textCase(N::NeighborSecondaryAddressKey(nn, s)),
      textCase(N::IntfSecondaryAddressKey(ivk, s)),
      textCase(N::IntfSecondaryPrefixKey(ivk, p)),
      textCase(N::NeighborRef(nn)),
      textCase(N::NeighborSecondaryAddress(N::NeighborSecondaryAddressKey(nn, s))),
      textCase(N::IntfSecondaryAddress(N::IntfSecondaryAddressKey(ivk, s))),
      textCase(N::IntfSecondaryPrefix(N::IntfSecondaryPrefixKey(ivk, p))),
      textCase(sampleIntf<N::Intf>(ivk)),
      textCase(sampleNeighbor<N::Neighbor>(nn)),
      textCase(bare),
  };
}

TEST(PimTypesDrobeText, FixedFormatsOfKeys) {
  const IntfId e1("Ethernet1");
  EXPECT_EQ(valueToStrep(D::CounterKey(3, 255, e1)),
            "Value('Routing::Pim::Drobe::CounterKey', ** {'mtype': 3, 'stype': 255, "
            "'intfId': 'Ethernet1'})");
  EXPECT_EQ(valueToStrep(D::NeighborKey(IpGenAddr("10.0.0.2"), e1)),
            "Value('Routing::Pim::Drobe::NeighborKey', ** {'address': 10.0.0.2, "
            "'intfId': 'Ethernet1'})");
  EXPECT_EQ(valueToStrep(N::IntfVrfKey(e1, 7)),
            "Value('Routing::Pim::IntfNghbr::Drobe::IntfVrfKey', ** {'intfId': 'Ethernet1', "
            "'vrfId': 7})");
  EXPECT_EQ(valueToStrep(N::NeighborKey(IpGenAddr("fe80::1"), N::IntfVrfKey(e1, 7))),
            "Value('Routing::Pim::IntfNghbr::Drobe::NeighborKey', ** {'address': fe80::1, "
            "'intfVrfKey': Value('Routing::Pim::IntfNghbr::Drobe::IntfVrfKey', ** "
            "{'intfId': 'Ethernet1', 'vrfId': 7})})");
  EXPECT_EQ(valueToStrep(D::MessageCounterData(D::CounterKey(1, 2, IntfId()))),
            "Value('Routing::Pim::Drobe::MessageCounterData', ** {'key': "
            "Value('Routing::Pim::Drobe::CounterKey', ** {'mtype': 1, 'stype': 2, 'intfId': ''}), "
            "'rxMsgCounter': Value('Routing::Pim::IO::MessageCounter', ** {'invalid': 0, "
            "'filtered': 0, 'success': 0}), 'txMsgCounter': "
            "Value('Routing::Pim::IO::MessageCounter', ** {'invalid': 0, 'filtered': 0, "
            "'success': 0})})");
}

TEST(PimTypesDrobeText, EveryRecordParsesBackEqual) {
  for (const auto& c : allTextCases()) {
    bool equal = false;
    EXPECT_NO_THROW(equal = c.parsesBackEqual(c.text)) << c.text;
    EXPECT_TRUE(equal) << c.name << ": " << c.text;
  }
}

// Breaks each leaf field value in turn (a stray character where its value starts) and
// expects the range error to name that field; also breaks the framing.
TEST(PimTypesDrobeText, MalformedFieldRaisesRangeErrorNamingIt) {
  int broken = 0;
  for (const auto& c : allTextCases()) {
    for (std::size_t at = c.text.find("'"); at != std::string::npos;
         at = c.text.find("'", at + 1)) {
      std::size_t close = c.text.find("': ", at + 1);
      if (close == std::string::npos || c.text.find_first_of(" ,{}", at + 1) < close) continue;
      const std::string field = c.text.substr(at + 1, close - at - 1);
      const std::size_t valueAt = close + 3;
      if (c.text.compare(valueAt, 6, "Value(") == 0) continue;  // nested: its leaves are hit
      std::string bad = c.text;
      bad.insert(valueAt, "@");
      try {
        c.parsesBackEqual(bad);
        ADD_FAILURE() << c.name << ": no error for " << bad;
      } catch (const Kel::RangeError& e) {
        EXPECT_NE(std::string(e.what()).find("::" + field + " has no parsable value"),
                  std::string::npos)
            << c.name << " field " << field << ": " << e.what();
      }
      ++broken;
    }
    for (std::string bad : {c.text.substr(0, c.text.size() - 1), c.text + " ",
                            "Value('Other', ** {" + c.text.substr(c.text.find("{") + 1)}) {
      EXPECT_THROW(c.parsesBackEqual(bad), Kel::RangeError) << bad;
    }
  }
  EXPECT_GT(broken, 150);  // every leaf of every record above was exercised
}

TEST(PimTypesDrobeText, OutOfRangeValuesAreRejected) {
  const std::string key =
      "Value('Routing::Pim::Drobe::CounterKey', ** {'mtype': 256, "
      "'stype': 0, 'intfId': 'E'})";
  EXPECT_THROW(D::CounterKey(key.begin(), key.end()), Kel::RangeError);
  const std::string longName =
      "Value('Routing::Pim::IntfNghbr::Drobe::IntfVrfKey', ** "
      "{'intfId': '" +
      std::string(32, 'x') + "', 'vrfId': 1})";
  EXPECT_THROW(N::IntfVrfKey(longName.begin(), longName.end()), Kel::RangeError);
}

// ---------------------------------------------------------------------------------------
// Human forms.

TEST(PimTypesDrobeText, DrobeStrings) {
  const IntfId e1("Ethernet1");
  const D::NeighborKey dn(IpGenAddr("10.0.0.2"), e1);
  EXPECT_EQ(sampleNeighbor<D::Neighbor>(dn).drobeString(),
            "[neighbor address=10.0.0.2, neighbor interface=Ethernet1, creation time=10.25, "
            "last refresh time=99.5, hello holdtime=105, dr priority option=3, "
            "generation id option=4660, lan prune delay option={tBit=True, "
            "propagationDelay=500, overrideInterval=2500}, bfd state=up, "
            "portInfo={connectionAddr=fe80::2, capabilityFlags=sctp, interfaceId=2.2.2.2:11}, "
            "connectionStatus=sctp]");
  // maskLength, sourceInject, helloHoldTime and joinPruneHoldTime are left out.
  EXPECT_EQ(sampleIntf<N::Intf>(N::IntfVrfKey(e1, 3)).drobeString(),
            "[intId=Ethernet1 (vrf 3), addressWithMask=10.1.2.3/24, "
            "usedAddressWithMask=10.1.2.4/24, mode=sparseBidir, borderRouter=True, "
            "enabled=True, assertTimeout=180, assertOverrideInterval=3, helloPeriod=30, "
            "triggeredHello=True, triggeredHelloCount=4, lastHelloTime=1234.5625, "
            "helloDelay=5, joinPrunePeriod=60, propagationDelay=500, "
            "usedPropagationDelay=501, overrideInterval=2500, usedOverrideInterval=2501, "
            "tBit=True, usedTBit=True, drPriority=7, usedDr=10.1.2.9, usedDrPriority=8, "
            "generationId=3735928559, bfdEnabled=True, portCapabilityFlags=tcp|sctp, "
            "portInterfaceId=1.1.1.1:9, fast failover=True]");
  D::MessageCounterData mc(D::CounterKey(3, 255, e1), Routing::Pim::IO::MessageCounter(0, 1, 2),
                           Routing::Pim::IO::MessageCounter());
  // The key's closing parenthesis shows twice.
  EXPECT_EQ(mc.drobeString(),
            "[key: (MessageType=3, MessageSubtype=255, Interface=\"Ethernet1\")), "
            "rx: {invalid=0, filtered=1, success=2}, tx: {invalid=0, filtered=0, success=0}]");
}

}  // namespace
