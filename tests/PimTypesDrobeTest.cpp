// PIM status table keys and records: hashing, ordering, null keys, text forms, human forms.
#include <gtest/gtest.h>

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
    std::uint32_t hash, expected;
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
  // {key hash, first component, second component}: D keys, then N keys.
  const std::uint32_t cases[][3] = {
      {nk.hash(), a.hash(), e1.hash()},
      {D::NeighborSecondaryAddressKey(nk, s).hash(), nk.hash(), s.hash()},
      {D::IntfSecondaryAddressKey(e1, s).hash(), e1.hash(), s.hash()},
      {D::IntfSecondaryPrefixKey(e1, p).hash(), e1.hash(), p.hash()},
      {D::CounterKey(0x23, 7, e1).hash(), 0x0723u, e1.hash()},
      {ivk.hash(), e1.hash(), 42u},
      {nnk.hash(), a.hash(), ivk.hash()},
      {N::NeighborSecondaryAddressKey(nnk, s).hash(), nnk.hash(), s.hash()},
      {N::IntfSecondaryAddressKey(ivk, s).hash(), ivk.hash(), s.hash()},
      {N::IntfSecondaryPrefixKey(ivk, p).hash(), ivk.hash(), p.hash()},
  };
  for (const auto& c : cases) EXPECT_EQ(c[0], refKeyHash(c[1], c[2])) << "row " << &c - cases;
}

TEST(PimTypesDrobeKeys, KeysOrderFieldByField) {
  const IntfId a("A"), b("B");
  const IpGenAddr x("10.0.0.1"), y("10.0.0.2");
  // Counter keys: type, then subtype, then interface. Each pair: first < second.
  std::pair<D::CounterKey, D::CounterKey> ordered[] = {
      {D::CounterKey(3, 0, a), D::CounterKey(3, 1, a)},    // stype after equal mtype
      {D::CounterKey(2, 200, b), D::CounterKey(3, 0, a)},  // mtype before stype and intf
      {D::CounterKey(3, 1, b), D::CounterKey(3, 2, a)},    // stype before intf
      {D::CounterKey(3, 1, a), D::CounterKey(3, 1, b)},    // intf last
  };
  for (const auto& [lo, hi] : ordered) {
    EXPECT_TRUE(lo < hi) << lo << " < " << hi;
    EXPECT_FALSE(hi < lo) << hi;
    EXPECT_NE(lo, hi);
  }
  EXPECT_LT(D::NeighborKey(x, b), D::NeighborKey(y, a));  // address first
  EXPECT_LT(D::NeighborKey(x, a), D::NeighborKey(x, b));
  EXPECT_LT(N::IntfVrfKey(a, 9), N::IntfVrfKey(b, 1));  // interface before VRF
  EXPECT_LT(N::IntfVrfKey(a, 1), N::IntfVrfKey(a, 9));
}

// Text forms. Samples fill every field with a non-default value, so that a field left out
// of the text form or of the parser changes the round trip. The Intf sample is parsed from
// its text and must print that text back, which pins the format of its many fields.
const std::string kIntfFields =
    "'addressWithMask': 10.1.2.3/24, 'maskLength': 24, 'usedAddressWithMask': 10.1.2.4/24, "
    "'mode': sparseBidir, 'borderRouter': True, 'enabled': True, 'sourceInject': True, "
    "'assertTimeout': 180, 'assertOverrideInterval': 3, 'helloPeriod': 30, 'helloHoldTime': 105, "
    "'triggeredHello': True, 'triggeredHelloCount': 4, 'lastHelloTime': 1234.5625, "
    "'helloDelay': 5, 'joinPrunePeriod': 60, 'joinPruneHoldTime': 210, 'propagationDelay': 500, "
    "'usedPropagationDelay': 501, 'overrideInterval': 2500, 'usedOverrideInterval': 2501, "
    "'tBit': True, 'usedTBit': True, 'drPriority': 7, 'usedDr': 10.1.2.9, 'usedDrPriority': 8, "
    "'generationId': 3735928559, 'bfdEnabled': True, 'portCapabilityFlags': "
    "Value('Routing::Pim::Reliable::CapabilityFlags', ** {'tcpCapable': True, 'sctpCapable': "
    "True}), 'portInterfaceId': Value('Routing::Pim::Reliable::InterfaceId', ** {'routerId': "
    "16843009, 'localId': 9}), 'fastFailover': True";

template <typename IntfT>
IntfT sampleIntf(const std::string& keyText) {
  const std::string t = "Value('" + std::string(IntfT::kTypeName) + "', ** {'key': " + keyText +
                        ", " + kIntfFields + "})";
  IntfT i(t.begin(), t.end());
  EXPECT_EQ(valueToStrep(i), t);
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
  std::string name, text;
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
  const D::MessageCounterData mc(D::CounterKey(3, 255, e1), {1, 2, 3}, {4, 5, 6});
  // Absent options print "None" and must read back as absent.
  N::Neighbor bare(nn, 0, P::DrPriorityOption(), P::GenerationIdOption(), P::LanPruneDelayOption());
  auto textCases = [](const auto&... v) { return std::vector<TextCase>{textCase(v)...}; };
  return textCases(dn, D::NeighborSecondaryAddressKey(dn, s), D::IntfSecondaryAddressKey(e1, s),
                   D::IntfSecondaryPrefixKey(e1, p), D::CounterKey(0x23, 7, e1), D::NeighborRef(dn),
                   D::NeighborSecondaryAddress(D::NeighborSecondaryAddressKey(dn, s)),
                   D::IntfSecondaryAddress(D::IntfSecondaryAddressKey(e1, s)),
                   D::IntfSecondaryPrefix(D::IntfSecondaryPrefixKey(e1, p)),
                   sampleIntf<D::Intf>("'Ethernet1/2'"), sampleNeighbor<D::Neighbor>(dn), mc, ivk,
                   nn, N::NeighborSecondaryAddressKey(nn, s), N::IntfSecondaryAddressKey(ivk, s),
                   N::IntfSecondaryPrefixKey(ivk, p), N::NeighborRef(nn),
                   N::NeighborSecondaryAddress(N::NeighborSecondaryAddressKey(nn, s)),
                   N::IntfSecondaryAddress(N::IntfSecondaryAddressKey(ivk, s)),
                   N::IntfSecondaryPrefix(N::IntfSecondaryPrefixKey(ivk, p)),
                   sampleIntf<N::Intf>(valueToStrep(ivk)), sampleNeighbor<N::Neighbor>(nn), bare);
}

TEST(PimTypesDrobeText, FixedFormatsOfKeys) {
  const IntfId e1("Ethernet1");
  EXPECT_EQ(valueToStrep(D::CounterKey(3, 255, e1)),
            "Value('Routing::Pim::Drobe::CounterKey', ** {'mtype': 3, 'stype': 255, "
            "'intfId': 'Ethernet1'})");
  EXPECT_EQ(valueToStrep(N::NeighborKey(IpGenAddr("fe80::1"), N::IntfVrfKey(e1, 7))),
            "Value('Routing::Pim::IntfNghbr::Drobe::NeighborKey', ** {'address': fe80::1, "
            "'intfVrfKey': Value('Routing::Pim::IntfNghbr::Drobe::IntfVrfKey', ** "
            "{'intfId': 'Ethernet1', 'vrfId': 7})})");
}

// Every record parses back equal. Then each leaf field value in turn gets a stray character
// where it starts, and the range error must name that field; broken framing raises it too.
TEST(PimTypesDrobeText, EveryRecordParsesBackAndAMalformedFieldIsNamed) {
  int broken = 0;
  for (const auto& c : allTextCases()) {
    bool equal = false;
    EXPECT_NO_THROW(equal = c.parsesBackEqual(c.text)) << c.text;
    EXPECT_TRUE(equal) << c.name << ": " << c.text;
    for (std::size_t at = c.text.find("'"); at != std::string::npos;
         at = c.text.find("'", at + 1)) {
      std::size_t close = c.text.find("': ", at + 1);
      if (close == std::string::npos || c.text.find_first_of(" ,{}", at + 1) < close) continue;
      const std::string field = c.text.substr(at + 1, close - at - 1);
      if (c.text.compare(close + 3, 6, "Value(") == 0) continue;  // nested: its leaves are hit
      std::string bad = c.text;
      bad.insert(close + 3, "@");
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
                            "Value('Other', ** {" + c.text.substr(c.text.find("{") + 1)})
      EXPECT_THROW(c.parsesBackEqual(bad), Kel::RangeError) << bad;
  }
  EXPECT_GT(broken, 150);  // every leaf of every record above was exercised
}

TEST(PimTypesDrobeText, OutOfRangeValuesAreRejected) {
  const std::string key =
      "Value('Routing::Pim::Drobe::CounterKey', ** {'mtype': 256, 'stype': 0, 'intfId': 'E'})";
  EXPECT_THROW(D::CounterKey(key.begin(), key.end()), Kel::RangeError);
  const std::string longName =
      "Value('Routing::Pim::IntfNghbr::Drobe::IntfVrfKey', ** {'intfId': '" + std::string(32, 'x') +
      "', 'vrfId': 1})";
  EXPECT_THROW(N::IntfVrfKey(longName.begin(), longName.end()), Kel::RangeError);
}

// Human forms, with their deliberate quirks.
TEST(PimTypesDrobeText, DrobeStrings) {
  const IntfId e1("Ethernet1");
  // maskLength, sourceInject, helloHoldTime and joinPruneHoldTime are left out.
  EXPECT_EQ(sampleIntf<N::Intf>(valueToStrep(N::IntfVrfKey(e1, 3))).drobeString(),
            "[intId=Ethernet1 (vrf 3), addressWithMask=10.1.2.3/24, "
            "usedAddressWithMask=10.1.2.4/24, mode=sparseBidir, borderRouter=True, "
            "enabled=True, assertTimeout=180, assertOverrideInterval=3, helloPeriod=30, "
            "triggeredHello=True, triggeredHelloCount=4, lastHelloTime=1234.5625, "
            "helloDelay=5, joinPrunePeriod=60, propagationDelay=500, "
            "usedPropagationDelay=501, overrideInterval=2500, usedOverrideInterval=2501, "
            "tBit=True, usedTBit=True, drPriority=7, usedDr=10.1.2.9, usedDrPriority=8, "
            "generationId=3735928559, bfdEnabled=True, portCapabilityFlags=tcp|sctp, "
            "portInterfaceId=1.1.1.1:9, fast failover=True]");
  // The key's closing parenthesis shows twice.
  EXPECT_EQ(D::MessageCounterData(D::CounterKey(3, 255, e1), {0, 1, 2}, {}).drobeString(),
            "[key: (MessageType=3, MessageSubtype=255, Interface=\"Ethernet1\")), "
            "rx: {invalid=0, filtered=1, success=2}, tx: {invalid=0, filtered=0, success=0}]");
}

}  // namespace
