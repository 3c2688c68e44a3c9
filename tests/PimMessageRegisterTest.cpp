// Register and Register-Stop readers, writers and print forms.

#include <gmock/gmock.h>

#include "Pim/PimMessage.h"
#include "tests/PimCodecTestUtil.h"

namespace {

using namespace PimTest;
using namespace Routing::Pim::Packet;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Registers go to the RP's unicast address.
const Family kReg4{false, Nimo::IpGenAddr("10.0.0.1"), Nimo::IpGenAddr("10.9.9.9")};
const Family kReg6{true, Nimo::IpGenAddr("2001:db8::1"), Nimo::IpGenAddr("2001:db8::99")};

// A Register's checksum covers its first 8 bytes (whole = true: all of it, as some peers
// send it), summed with the test's reference.
Bytes registerChecksum(Bytes msg, const Family& f, bool whole = false) {
  msg[2] = msg[3] = 0;
  const Bytes covered(msg.begin(),
                      msg.begin() + static_cast<std::ptrdiff_t>(
                                        whole ? msg.size() : std::min<std::size_t>(8, msg.size())));
  const auto n = static_cast<std::uint32_t>(covered.size());
  const std::uint16_t c = f.v6 ? refChecksumV6(f.src, f.dst, n, covered) : refChecksum(covered);
  msg[2] = std::uint8_t(c >> 8);
  msg[3] = std::uint8_t(c);
  return msg;
}

enum class InnerSum { Right, Zero, Wrong };

// An inner IPv4 header: first byte, total length, TTL 64, protocol, source 10.0.0.5.
Bytes ip4(std::uint8_t first, std::uint16_t total, const char* dst, std::uint8_t proto,
          InnerSum sum = InnerSum::Right) {
  Bytes h = hex("00 00 00 00  00 00 00 00  40 00 00 00  0a 00 00 05  00 00 00 00");
  h[0] = first;
  h[2] = std::uint8_t(total >> 8);
  h[3] = std::uint8_t(total);
  h[9] = proto;
  const Nimo::IpGenAddr d(dst);
  std::copy(d.bytes(), d.bytes() + 4, h.begin() + 16);
  const std::uint16_t c = sum == InnerSum::Right   ? refChecksum(h)
                          : sum == InnerSum::Wrong ? 0xbeef
                                                   : 0;
  h[10] = std::uint8_t(c >> 8);
  h[11] = std::uint8_t(c);
  return h;
}

// An inner IPv6 header: payload length, next header, hop limit 64, source 2001:db8::5.
Bytes ip6(std::uint16_t plen, const char* dst, std::uint8_t next) {
  Bytes h = hex("60 00 00 00 0000 00 40  2001 0db8 0000 0000 0000 0000 0000 0005");
  h[4] = std::uint8_t(plen >> 8);
  h[5] = std::uint8_t(plen);
  h[6] = next;
  const Nimo::IpGenAddr d(dst);
  h.insert(h.end(), d.bytes(), d.bytes() + 16);
  return h;
}

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

const Bytes kData = hex("40 00 00 00") /* N */, kHdr = hex("21 00 00 00");
const Bytes kFlagsData = hex("00 00 00 00"), kFlagsNull = hex("40 00 00 00");
const Bytes kUdp8 = hex("1f 90 1f 90 00 08 00 00");

// The four golden Registers: {IPv4, IPv6} x {data, null}, checksum over 8 bytes.
struct Golden {
  const Family& family;
  bool null;
  Bytes inner;
  Bytes bytes() const {
    return registerChecksum(cat({kHdr, null ? kFlagsNull : kFlagsData, inner}), family);
  }
};
const Golden kGoldens[] = {
    {kReg4, false, cat({ip4(0x45, 28, "239.1.2.3", 17), kUdp8})},
    {kReg4, true, ip4(0x45, 20, "239.1.2.3", 0)},
    {kReg6, false, cat({ip6(8, "ff3e::1234", 17), kUdp8})},
    {kReg6, true, ip6(0, "ff3e::1234", 59)},
};

// The object a golden vector encodes, as a sender fills it.
Kel::Ptr<RegisterMessage> goldenObject(const Golden& g) {
  auto m = message<RegisterMessage>(g.family);
  m->nullFlagIs(g.null);
  if (g.null) {
    m->innerSourceIs(Nimo::IpGenAddr(g.family.v6 ? "2001:db8::5" : "10.0.0.5"));
    m->innerGroupIs(Nimo::IpGenAddr(g.family.v6 ? "ff3e::1234" : "239.1.2.3"));
    m->hopLimitIs(64);
  } else {
    m->rcvdPktIs(pkt(g.inner));
  }
  return m;
}

class RegisterGoldenTest : public TraceTest, public ::testing::WithParamInterface<Golden> {};

TEST_P(RegisterGoldenTest, WriteIsByteExact) {
  auto tx = goldenObject(GetParam());
  const Bytes out = written(*tx, &RegisterMessage::writeRegisterMessage), want = GetParam().bytes();
  EXPECT_EQ(out, want) << "written:\n" << toHex(out) << "\nwanted:\n" << toHex(want);
  EXPECT_EQ(tx->length(), 8u);
  EXPECT_THAT(errors(), IsEmpty());
}

// A data Register hands on its inner packet in place: the same Pkt, on the same buffer,
// now beginning at the inner IP header. A Null-Register leaves the packet alone.
TEST_P(RegisterGoldenTest, ReadHandsOnTheInnerPacketWithoutACopy) {
  const Golden& g = GetParam();
  const Bytes bytes = g.bytes();
  Bytes framed(20, 0xee);
  framed.insert(framed.end(), bytes.begin(), bytes.end());
  auto p = pkt(framed);
  const std::uint8_t* buffer = p->data(0);
  auto rx = message<RegisterMessage>(g.family);
  ASSERT_EQ(rx->readRegisterMessage(p, 20), bytes.size());
  EXPECT_EQ(rx->nullFlag(), g.null);
  EXPECT_EQ(rx->messageSubtype(), g.null ? 0 : 1);
  EXPECT_EQ(rx->innerGroup(), Nimo::IpGenAddr(g.family.v6 ? "ff3e::1234" : "239.1.2.3"));
  EXPECT_EQ(rx->hopLimit(), 64);
  if (g.null) {
    EXPECT_FALSE(rx->rcvdPkt());
    EXPECT_EQ(p->data(0), buffer);
    EXPECT_EQ(p->size(), framed.size());
  } else {
    ASSERT_EQ(rx->rcvdPkt(), p);
    EXPECT_EQ(p->data(0), buffer + 28);  // 20 bytes of framing, PIM header, flags word
    EXPECT_EQ(bytesOf(*p, p->size()), g.inner);
  }
  auto tx = goldenObject(g);
  written(*tx, &RegisterMessage::writeRegisterMessage);
  EXPECT_EQ(*rx, *tx);
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_P(RegisterGoldenTest, TruncationSweep) {
  const Family& f = GetParam().family;
  truncationSweep<RegisterMessage>(f, &RegisterMessage::readRegisterMessage, GetParam().bytes(),
                                   [&](const Bytes& b) { return registerChecksum(b, f); });
}

INSTANTIATE_TEST_SUITE_P(Vectors, RegisterGoldenTest, ::testing::ValuesIn(kGoldens),
                         [](const auto& i) {
                           return std::string(i.param.family.name()) +
                                  (i.param.null ? "Null" : "Data");
                         });

// ---------------------------------------------------------------------------------------
// Reader edge cases: one body (flags word and inner packet) per row.

class RegisterReadTest : public TraceTest {};

TEST_F(RegisterReadTest, InnerHeaderChecks) {
  const std::string kReg = "Invalid Pim Register - ";
  const Bytes null4 = ip4(0x45, 20, "239.1.2.3", 0);
  struct Case {
    const char* name;
    const Family& family;
    Bytes body;
    bool wholeSum;
    std::string error;  // "Invalid Pim Register - " implied; empty: accepted
  };
  const Case cases[] = {
      {"data, checksum over 8 bytes", kReg4,
       cat({kFlagsData, ip4(0x45, 28, "239.1.2.3", 17), kUdp8}), false, ""},
      {"data, checksum over the whole packet", kReg4,
       cat({kFlagsData, ip4(0x45, 28, "239.1.2.3", 17), kUdp8}), true, ""},
      {"IPv6 data, checksum over the whole packet", kReg6,
       cat({kFlagsData, ip6(8, "ff3e::1", 17), kUdp8}), true, ""},
      {"null, wrong inner checksum", kReg4,
       cat({kFlagsNull, ip4(0x45, 20, "239.1.2.3", 0, InnerSum::Wrong)}), false,
       "Null Register - Invalid Inner Ip Checksum"},
      {"data, wrong inner checksum: not checked", kReg4,
       cat({kFlagsData, ip4(0x45, 20, "239.1.2.3", 0, InnerSum::Wrong)}), false, ""},
      // Deployed open-source routers leave the dummy header's checksum 0.
      {"null, inner checksum 0", kReg4,
       cat({kFlagsNull, ip4(0x45, 20, "239.1.2.3", 0, InnerSum::Zero)}), false,
       "Null Register - Invalid Inner Ip Checksum"},
      {"null, inner length 28 with 20 bytes", kReg4,
       cat({kFlagsNull, ip4(0x45, 28, "239.1.2.3", 0)}), false,
       "Null Register - Invalid Inner Ip Length - Length: 28"},
      {"null, 20 bytes and a trailing one", kReg4, cat({kFlagsNull, null4, hex("00")}), false,
       "Null Register - Invalid Inner Ip Length - Length: 20"},
      {"version nibble 0 read as IPv4", kReg4, cat({kFlagsNull, ip4(0x05, 20, "239.1.2.3", 0)}),
       false, ""},
      {"version 5", kReg4, cat({kFlagsData, ip4(0x55, 20, "239.1.2.3", 0)}), false,
       "Inner Ip Header - Unknown Version"},
      {"IPv6 Register, IPv4 inner", kReg6, cat({kFlagsData, ip4(0x45, 28, "239.1.2.3", 17), kUdp8}),
       false, "Inner Ip Header - Family: 2 Inner Family: 1"},
      {"IPv4 Register, IPv6 inner", kReg4, cat({kFlagsData, ip6(0, "ff3e::1", 59)}), false,
       "Inner Ip Header - Family: 1 Inner Family: 2"},
      {"inner unicast destination", kReg4, cat({kFlagsData, ip4(0x45, 20, "10.0.0.9", 0)}), false,
       "Inner Ip Header - Not Multicast - Destination: 10.0.0.9"},
      {"IPv6 inner unicast destination", kReg6, cat({kFlagsData, ip6(0, "2001:db8::9", 59)}), false,
       "Inner Ip6 Header - Not Multicast - Destination: 2001:db8::9"},
      {"data shorter than its total length", kReg4,
       cat({kFlagsData, ip4(0x45, 100, "239.1.2.3", 17), kUdp8}), false,
       "Encapsulated Data Length - Remaining: 28 Expected: 100"},
      {"IPv6 data shorter than its payload length", kReg6,
       cat({kFlagsData, ip6(9, "ff3e::1", 17), kUdp8}), false,
       "Encapsulated Data Length - Remaining: 48 Expected: 49"},
      {"flags only", kReg4, kFlagsData, false,
       "Encapsulated Data Length - Remaining: 0 Expected: 20"},
      {"inner header cut short", kReg4, cat({kFlagsData, hex("45 00 00")}), false,
       "Encapsulated Data Length - Remaining: 3 Expected: 20"},
      {"IHL 6 with 20 bytes", kReg4, cat({kFlagsData, ip4(0x46, 20, "239.1.2.3", 0)}), false,
       "Encapsulated Data Length - Remaining: 20 Expected: 24"},
      {"IPv6 null, payload length 8 and no payload", kReg6,
       cat({kFlagsNull, ip6(8, "ff3e::1", 17)}), false,
       "Null Register - Invalid Inner Ip6 Length - Length: 48 Remaining: 40"},
      {"flags word cut short", kReg4, hex("00 00"), false, "Flags Length - Remaining: 2"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    clear();
    const Bytes msg = registerChecksum(cat({kHdr, c.body}), c.family, c.wholeSum);
    auto p = pkt(msg);
    const std::uint8_t* before = p->data(0);
    auto rx = message<RegisterMessage>(c.family);
    EXPECT_EQ(rx->readRegisterMessage(p, 0), c.error.empty() ? msg.size() : 0u);
    EXPECT_EQ(errors(), only(c.error.empty() ? "" : kReg + c.error));
    // A rejected Register leaves the packet as it came.
    if (!c.error.empty()) {
      EXPECT_TRUE(p->data(0) == before && p->size() == msg.size());
    }
  }
}

TEST_F(RegisterReadTest, DummyHeaderTraceAndPrintForm) {
  auto rx = message<RegisterMessage>(kReg4);
  ASSERT_GT(rx->readRegisterMessage(pkt(kGoldens[1].bytes()), 0), 0u);
  EXPECT_THAT(
      at(4),
      ::testing::Contains(
          "RX: Dummy Header: <IP version=4 ihl=20 tos=0 len=20 id=0 moreFrag=false "
          "dontFrag=false reservedFragFlag=false frag=0 ttl=64 proto=0 chksum=" +
          fmt::format("{:#06x}", refChecksum(ip4(0x45, 20, "239.1.2.3", 0, InnerSum::Zero))) +
          " computed chksum=" +
          fmt::format("{:#06x}", refChecksum(ip4(0x45, 20, "239.1.2.3", 0, InnerSum::Zero))) +
          ">"));
  rx->borderFlagIs(true);
  EXPECT_EQ(
      printed(*rx),
      "version=2 type=1 (Register) reserved=0 length=8 src=10.0.0.1 dst=10.9.9.9 | null bit=1, "
      "border bit=1 | Encapsulated src=10.0.0.5 group=239.1.2.3 outer src=10.0.0.1 outer "
      "dst=10.9.9.9");
}

// ---------------------------------------------------------------------------------------
// Writer

class RegisterWriteTest : public TraceTest {};

TEST_F(RegisterWriteTest, Failures) {
  const std::string kReg = "Invalid Pim Register - ";
  struct Case {
    const char* name;
    const Family& family;
    bool null;
    Bytes inner;  // rcvdPkt's bytes; empty: none
    std::uint32_t room;
    std::string error;
  };
  const Bytes data4 = cat({ip4(0x45, 28, "239.1.2.3", 17), kUdp8});
  const Case cases[] = {
      {"no header room", kReg4, false, data4, 3, "Header - Unavailable Space - Remaining: 3"},
      {"no flags room", kReg4, false, data4, 7,
       "Flags - Unavailable Space - Remaining: 3 Expected: 4"},
      {"no rcvdPkt", kReg4, false, {}, 100, "No Rcvd Pkt"},
      {"inner unicast", kReg4, false, ip4(0x45, 20, "10.0.0.9", 0), 100,
       "Inner Ip Header - Not Multicast - Destination: 10.0.0.9"},
      {"inner total length past its packet", kReg4, false, ip4(0x45, 100, "239.1.2.3", 0), 100,
       "Encapsulated Data Length - Length: 100"},
      {"inner shorter than a header", kReg4, false, hex("45 00 00 10"), 100,
       "Encapsulated Data Length - Length: 4"},
      {"IPv4 inner in an IPv6 Register", kReg6, false, data4, 100, "Invalid Family - Family: 1"},
      {"no room for the data", kReg4, false, data4, 35,
       "Encapsulated Data - Unavailable Space - Remaining: 27"},
      {"no room for the dummy",
       kReg4,
       true,
       {},
       27,
       "Null Header - Unavailable Space - Remaining: 19"},
      {"IPv6 dummy without inner addresses", kReg6, true, {}, 100, "Invalid Family - Family: 0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto tx = message<RegisterMessage>(c.family);
    tx->nullFlagIs(c.null);
    if (!c.inner.empty()) tx->rcvdPktIs(pkt(c.inner));
    if (c.null && !c.family.v6) {
      tx->innerSourceIs(Nimo::IpGenAddr("10.0.0.5"));
      tx->innerGroupIs(Nimo::IpGenAddr("239.1.2.3"));
    }
    clear();
    EXPECT_THAT(written(*tx, &RegisterMessage::writeRegisterMessage, c.room), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre(kReg + c.error));
  }
}

// A Null-Register written while rcvdPkt holds the data packet takes the dummy header's
// fields from that packet's header.
TEST_F(RegisterWriteTest, NullRegisterFromTheDataPacket) {
  auto tx = message<RegisterMessage>(kReg4);
  tx->nullFlagIs(true);
  tx->rcvdPktIs(pkt(cat({ip4(0x45, 28, "239.1.2.3", 17), kUdp8})));
  const Bytes out = written(*tx, &RegisterMessage::writeRegisterMessage);
  EXPECT_EQ(out, registerChecksum(cat({kHdr, kFlagsNull, ip4(0x45, 20, "239.1.2.3", 17)}), kReg4));
  EXPECT_THAT(at(4), ::testing::Contains(
                         "Invalid Pim Register - Null Register - Using Encapsulated Data Fields"));
}

TEST(RegisterRoundTrip, GeneratedRegisters) {
  for (const Family* f : {&kReg4, &kReg6}) {
    for (unsigned seed = 0; seed < 64; ++seed) {
      auto tx = message<RegisterMessage>(*f);
      tx->implRegisterFlagsU32Is(seed *
                                 0x2468ace1u);  // every combination of B and N, reserved bits
      const std::uint16_t payload = static_cast<std::uint16_t>(seed * 23 % 1400);
      const auto group =
          f->v6 ? fmt::format("ff3e::{:x}", seed + 1) : fmt::format("239.1.{}.1", seed + 1);
      Bytes inner = f->v6 ? ip6(payload, group.c_str(), 17)
                          : ip4(0x45, std::uint16_t(20 + payload), group.c_str(), 17);
      inner.resize(inner.size() + payload, std::uint8_t(seed));
      tx->rcvdPktIs(pkt(inner));
      tx->reserved2Is(std::uint8_t(seed));
      tx->hopLimitIs(std::uint8_t(255 - seed));
      tx->innerSourceIs(Nimo::IpGenAddr(f->v6 ? "2001:db8::5" : "10.0.0.5"));
      tx->innerGroupIs(Nimo::IpGenAddr(group));
      const Bytes out = written(*tx, &RegisterMessage::writeRegisterMessage, 2000);
      ASSERT_FALSE(out.empty()) << seed;
      if (tx->nullFlag()) tx->rcvdPktIs(nullptr);  // a read Null-Register has no data packet
      auto rx = message<RegisterMessage>(*f);
      ASSERT_EQ(rx->readRegisterMessage(pkt(out), 0), out.size()) << seed;
      EXPECT_EQ(*rx, *tx) << f->name() << " seed " << seed;
    }
  }
}

// ---------------------------------------------------------------------------------------
// Flags word

struct FlagsWatcher : RegisterMessage::NotifieeConst {
  int calls = 0;
  void onImplRegisterFlags() override { ++calls; }
};

TEST(RegisterFlags, SubtypeFollowsNAndOnlyRealChangesNotify) {
  auto m = Kel::Ptr<RegisterMessage>::make();
  EXPECT_EQ(m->messageSubtype(), 1);  // flags 0: a data Register
  FlagsWatcher w;
  m->notifieeAdd(&w);
  m->implRegisterFlagsU32Is(0x40000000);
  m->implRegisterFlagsIs(RegisterMessage::RegisterImplFlags(0x40, 0, 0, 0));  // the same word
  EXPECT_EQ(w.calls, 1);
  EXPECT_EQ(m->messageSubtype(), 0);
  m->borderFlagIs(true);
  EXPECT_EQ(m->implRegisterFlagsU32(), 0xc0000000u);
  m->nullFlagIs(false);
  EXPECT_EQ(m->implRegisterFlagsU32(), 0x80000000u);
  EXPECT_EQ(m->messageSubtype(), 1);
  EXPECT_EQ(w.calls, 3);
  m->notifieeRemove(&w);
  const std::string text = Kel::valueToStrep(m->implRegisterFlags());
  EXPECT_EQ(text,
            "Value('Routing::Pim::Packet::RegisterMessage::RegisterImplFlags', ** {'v0': 128, "
            "'v1': 0, 'v2': 0, 'v3': 0})");
  EXPECT_EQ(RegisterMessage::RegisterImplFlags(text.data(), text.data() + text.size()),
            m->implRegisterFlags());
}

// ---------------------------------------------------------------------------------------
// Register-Stop

const Bytes kStop4 =
    hex("22 00 00 00"
        "01 00 00 20 ef 01 02 03"  // group 239.1.2.3/32
        "01 00 0a 00 00 05");      // source 10.0.0.5
const Bytes kStop6 =
    hex("22 00 00 00"
        "02 00 00 80 ff3e 0000 0000 0000 0000 0000 0000 1234"  // ff3e::1234/128
        "02 00 2001 0db8 0000 0000 0000 0000 0000 0005");      // 2001:db8::5

Kel::Ptr<RegisterStopMessage> stopObject(const Family& f, std::uint8_t groupMask) {
  auto m = message<RegisterStopMessage>(f);
  const Nimo::IpGenAddr g(f.v6 ? "ff3e::1234" : "239.1.2.3");
  m->groupIs(EncodedGroupAddress(GroupAddress(Nimo::IpGenPrefix(g, groupMask), 0)));
  m->sourceIs(EncodedUnicastAddress(Nimo::IpGenAddr(f.v6 ? "2001:db8::5" : "10.0.0.5")));
  return m;
}

class RegisterStopTest : public TraceTest {};

TEST_F(RegisterStopTest, GoldenBothWaysAndHostPrefixOnTheWire) {
  for (const Family* f : {&kV4, &kV6}) {
    SCOPED_TRACE(f->name());
    const Bytes golden = withChecksum(f->v6 ? kStop6 : kStop4, f->src, f->dst);
    // The object holds a /24 (/64) group; the mask byte on the wire is still 32 (128).
    auto tx = stopObject(*f, f->v6 ? 64 : 24);
    const Bytes out = written(*tx, &RegisterStopMessage::writeRegisterStopMessage);
    EXPECT_EQ(out, golden) << toHex(out);
    ASSERT_GT(out.size(), 7u);
    EXPECT_EQ(out[7], f->v6 ? 128 : 32);
    auto rx = message<RegisterStopMessage>(*f);
    ASSERT_EQ(readFramed(*rx, &RegisterStopMessage::readRegisterStopMessage, golden),
              golden.size());
    auto want = stopObject(*f, f->v6 ? 128 : 32);
    want->lengthIs(static_cast<std::uint32_t>(golden.size()));
    EXPECT_EQ(*rx, *want);
    truncationSweep<RegisterStopMessage>(
        *f, &RegisterStopMessage::readRegisterStopMessage, golden,
        [&](const Bytes& b) { return withChecksum(b, f->src, f->dst); });
  }
  EXPECT_EQ(printed(*stopObject(kV4, 32)),
            "version=2 type=2 (Register-Stop) reserved=0 length=0 src=10.0.0.1 "
            "dst=224.0.0.13 | source=10.0.0.5, group=( address=239.1.2.3/32 )");
}

TEST_F(RegisterStopTest, ReaderChecks) {
  const std::string kStop = "Invalid Pim Register Stop - ";
  struct Case {
    const char* body;
    std::vector<std::string> errors;
  };
  const Case cases[] = {
      {"01 00 00 20 ef010203  01 00 0a000005  00", {kStop + "End of Message - Remaining: 1"}},
      {"01 00 00 18 ef010203  01 00 0a000005",
       {kStop + "Group Address - Invalid Prefix - 239.1.2.3/24"}},
      {"01 00 00 20 0a010203  01 00 0a000005",
       {"Invalid Encoded Group Address - Not Multicast - Address: 10.1.2.3",
        kStop + "Group Address - Invalid Prefix - 10.1.2.3/32"}},
      {"02 00 00 80 ff3e0000 00000000 00000000 00001234  01 00 0a000005",
       {kStop + "Group Address - Invalid Family - Family: 1 Group Address: ff3e::1234"}},
      {"01 00 00 20 ef010203  03 00 0a000005",
       {"Invalid Unicast Address - Invalid Family - Value: \x03",
        kStop + "Source Address - Parse Error"}},
      {"01 00 00 20 ef010203  02 00 20010db8 00000000 00000000 00000005",
       {kStop + "Source Address - Invalid Family - Family: 1 Address: 2001:db8::5"}},
      {"01 00 00 20 ef010203  01 00 e0000001",
       {"Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.1",
        kStop + "Source Address - Invalid Address: 224.0.0.1"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    clear();
    auto rx = message<RegisterStopMessage>(kV4);
    EXPECT_EQ(rx->readRegisterStopMessage(
                  pkt(withChecksum(cat({hex("22000000"), hex(c.body)}), kV4Src, kV4Dst)), 0),
              0u);
    EXPECT_EQ(errors(), c.errors);
  }
}

TEST_F(RegisterStopTest, WriterChecks) {
  const std::string kStop = "Invalid Pim Register Stop - ";
  auto v6group = stopObject(kV4, 32);
  v6group->groupIs(EncodedGroupAddress(GroupAddress(Nimo::IpGenPrefix("ff3e::1/128"), 0)));
  auto v6source = stopObject(kV4, 32);
  v6source->sourceIs(EncodedUnicastAddress(Nimo::IpGenAddr("::5")));
  const struct {
    Kel::Ptr<RegisterStopMessage> m;
    std::uint32_t room;
    std::vector<std::string> errors;
  } cases[] = {
      {stopObject(kV4, 32), 3, {kStop + "Header - Unavailable Space - Remaining: 3"}},
      {v6group, 100, {kStop + "Invalid Family - Family: 1 Group Address: ff3e::1"}},
      {v6source, 100, {kStop + "Invalid Family - Family: 1 Source Address: ::5"}},
      {stopObject(kV4, 32),
       11,
       {"Invalid Encoded Group Address - Ip Address Length - Remaining: 3 Expected: 4",
        kStop + "Group Address - Write Error"}},
      {stopObject(kV4, 32),
       17,
       {"Invalid Encoded Unicast Address - Ip Address Length - Remaining: 3 Expected: 4",
        kStop + "Source Address - Write Error"}},
  };
  for (const auto& c : cases) {
    clear();
    EXPECT_THAT(written(*c.m, &RegisterStopMessage::writeRegisterStopMessage, c.room), IsEmpty());
    EXPECT_EQ(errors(), c.errors);
  }
}

}  // namespace
