// Register and Register-Stop readers, writers and print forms.

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

// A Register's checksum covers its first 8 bytes, or all of it (whole) as some peers send.
Bytes registerChecksum(const Bytes& msg, const Family& f, bool whole = false) {
  return withChecksum(msg, f.src, f.dst, whole ? SIZE_MAX : 8);
}

enum class InnerSum { Right, Zero, Wrong };

// Inner IPv4 header from 10.0.0.5, TTL 64: first byte, total length, group, protocol.
Bytes ip4(std::uint8_t first, std::uint16_t total, const char* dst, std::uint8_t proto,
          InnerSum sum = InnerSum::Right) {
  Bytes h = hex("00 00 00 00  00 00 00 00  40 00 00 00  0a 00 00 05  00 00 00 00");
  h[0] = first, h[2] = std::uint8_t(total >> 8), h[3] = std::uint8_t(total), h[9] = proto;
  std::copy_n(Nimo::IpGenAddr(dst).bytes(), 4, h.begin() + 16);
  const std::uint16_t c = sum == InnerSum::Right   ? refChecksum(h)
                          : sum == InnerSum::Wrong ? 0xbeef
                                                   : 0;
  h[10] = std::uint8_t(c >> 8), h[11] = std::uint8_t(c);
  return h;
}

// Inner IPv6 header from 2001:db8::5, hop limit 64: payload length, group, next header.
Bytes ip6(std::uint16_t plen, const char* dst, std::uint8_t next) {
  Bytes h = hex("60 00 00 00 0000 00 40  2001 0db8 0000 0000 0000 0000 0000 0005");
  h[4] = std::uint8_t(plen >> 8), h[5] = std::uint8_t(plen), h[6] = next;
  const Nimo::IpGenAddr d(dst);
  h.insert(h.end(), d.bytes(), d.bytes() + 16);
  return h;
}

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

const Bytes kHdr = hex("21 00 00 00"), kData = hex("00 00 00 00"), kNull = hex("40 00 00 00");
const Bytes kUdp8 = hex("1f 90 1f 90 00 08 00 00");
const Bytes kInner4 = cat({ip4(0x45, 28, "239.1.2.3", 17), kUdp8});
const Bytes kInner6 = cat({ip6(8, "ff3e::1234", 17), kUdp8});

class RegisterTest : public CodecTest {};

// {IPv4, IPv6} x {data, null}. A data Register hands its inner packet on in place: the
// same Pkt, on the same buffer, now beginning at the inner IP header; a Null-Register
// leaves the packet alone.
TEST_F(RegisterTest, GoldenVectorsAndTheInnerPacketInPlace) {
  for (const Family* f : {&kReg4, &kReg6}) {
    for (bool null : {false, true}) {
      const Bytes inner = null ? (f->v6 ? ip6(0, "ff3e::1234", 59) : ip4(0x45, 20, "239.1.2.3", 0))
                          : f->v6 ? kInner6
                                  : kInner4;
      const Bytes g = registerChecksum(cat({kHdr, null ? kNull : kData, inner}), *f);
      auto tx = message<RegisterMessage>(*f);
      tx->nullFlagIs(null);
      tx->innerSourceIs(Nimo::IpGenAddr(f->v6 ? "2001:db8::5" : "10.0.0.5"));
      tx->innerGroupIs(Nimo::IpGenAddr(f->v6 ? "ff3e::1234" : "239.1.2.3"));
      tx->hopLimitIs(64);
      if (!null) tx->rcvdPktIs(pkt(inner));
      golden(*f, g, *tx, &RegisterMessage::readRegisterMessage,
             &RegisterMessage::writeRegisterMessage,
             [&](const Bytes& b) { return registerChecksum(b, *f); });
      EXPECT_EQ(tx->length(), 8u);

      auto p = pkt(cat({Bytes(20, 0xee), g}));
      const std::uint8_t* buffer = p->data(0);
      auto rx = message<RegisterMessage>(*f);
      ASSERT_EQ(rx->readRegisterMessage(p, 20), g.size());
      EXPECT_EQ(rx->messageSubtype(), null ? 0 : 1);
      EXPECT_EQ(rx->rcvdPkt(), null ? nullptr : p);
      EXPECT_EQ(p->data(0), null ? buffer : buffer + 28);  // framing, PIM header, flags word
      EXPECT_EQ(bytesOf(*p, p->size()), null ? cat({Bytes(20, 0xee), g}) : inner);
    }
  }
}

TEST_F(RegisterTest, ReaderChecks) {
  struct Case {
    const char* name;
    const Family& family;
    Bytes body;  // flags word and inner packet
    bool wholeSum;
    std::string error;  // after "Invalid Pim Register - "; empty: accepted
  };
  // clang-format off
  const Case cases[] = {
      {"checksum over the whole packet", kReg4, cat({kData, kInner4}), true, ""},
      {"IPv6, checksum over the whole packet", kReg6, cat({kData, kInner6}), true, ""},
      {"null, wrong inner checksum", kReg4, cat({kNull, ip4(0x45, 20, "239.1.2.3", 0, InnerSum::Wrong)}), false, "Null Register - Invalid Inner Ip Checksum"},
      {"data, wrong inner checksum: not checked", kReg4, cat({kData, ip4(0x45, 20, "239.1.2.3", 0, InnerSum::Wrong)}), false, ""},
      // Deployed open-source routers leave the dummy header's checksum 0.
      {"null, inner checksum 0", kReg4, cat({kNull, ip4(0x45, 20, "239.1.2.3", 0, InnerSum::Zero)}), false, "Null Register - Invalid Inner Ip Checksum"},
      {"null, inner length 28 with 20 bytes", kReg4, cat({kNull, ip4(0x45, 28, "239.1.2.3", 0)}), false, "Null Register - Invalid Inner Ip Length - Length: 28"},
      {"null, a byte after the dummy", kReg4, cat({kNull, ip4(0x45, 20, "239.1.2.3", 0), hex("00")}), false, "Null Register - Invalid Inner Ip Length - Length: 20"},
      {"version nibble 0 read as IPv4", kReg4, cat({kNull, ip4(0x05, 20, "239.1.2.3", 0)}), false, ""},
      {"version 5", kReg4, cat({kData, ip4(0x55, 20, "239.1.2.3", 0)}), false, "Inner Ip Header - Unknown Version"},
      {"IPv6 Register, IPv4 inner", kReg6, cat({kData, kInner4}), false, "Inner Ip Header - Family: 2 Inner Family: 1"},
      {"IPv4 Register, IPv6 inner", kReg4, cat({kData, ip6(0, "ff3e::1", 59)}), false, "Inner Ip Header - Family: 1 Inner Family: 2"},
      {"inner unicast", kReg4, cat({kData, ip4(0x45, 20, "10.0.0.9", 0)}), false, "Inner Ip Header - Not Multicast - Destination: 10.0.0.9"},
      {"IPv6 inner unicast", kReg6, cat({kData, ip6(0, "2001:db8::9", 59)}), false, "Inner Ip6 Header - Not Multicast - Destination: 2001:db8::9"},
      {"data shorter than its total length", kReg4, cat({kData, ip4(0x45, 100, "239.1.2.3", 17), kUdp8}), false, "Encapsulated Data Length - Remaining: 28 Expected: 100"},
      {"IPv6 data shorter than its payload", kReg6, cat({kData, ip6(9, "ff3e::1", 17), kUdp8}), false, "Encapsulated Data Length - Remaining: 48 Expected: 49"},
      {"flags only", kReg4, kData, false, "Encapsulated Data Length - Remaining: 0 Expected: 20"},
      {"inner header cut short", kReg4, cat({kData, hex("45 00 00")}), false, "Encapsulated Data Length - Remaining: 3 Expected: 20"},
      {"IHL 6 with 20 bytes", kReg4, cat({kData, ip4(0x46, 20, "239.1.2.3", 0)}), false, "Encapsulated Data Length - Remaining: 20 Expected: 24"},
      {"IPv6 null, payload length 8, none there", kReg6, cat({kNull, ip6(8, "ff3e::1", 17)}), false, "Null Register - Invalid Inner Ip6 Length - Length: 48 Remaining: 40"},
      {"flags word cut short", kReg4, hex("00 00"), false, "Flags Length - Remaining: 2"},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    clear();
    const Bytes msg = registerChecksum(cat({kHdr, c.body}), c.family, c.wholeSum);
    auto p = pkt(msg);
    const std::uint8_t* before = p->data(0);
    EXPECT_EQ(message<RegisterMessage>(c.family)->readRegisterMessage(p, 0),
              c.error.empty() ? msg.size() : 0u);
    EXPECT_EQ(errors(), only(c.error.empty() ? "" : "Invalid Pim Register - " + c.error));
    // A rejected Register leaves the packet as it came.
    EXPECT_TRUE(c.error.empty() || (p->data(0) == before && p->size() == msg.size()));
  }
}

TEST_F(RegisterTest, WriterChecks) {
  struct Case {
    const char* name;
    const Family& family;
    bool null;
    Bytes inner;  // rcvdPkt's bytes; empty: none
    std::uint32_t room;
    std::string error;  // after "Invalid Pim Register - "
  };
  // clang-format off
  const Case cases[] = {
      {"header room", kReg4, false, kInner4, 3, "Header - Unavailable Space - Remaining: 3"},
      {"flags room", kReg4, false, kInner4, 7, "Flags - Unavailable Space - Remaining: 3 Expected: 4"},
      {"no rcvdPkt", kReg4, false, {}, 100, "No Rcvd Pkt"},
      {"inner unicast", kReg4, false, ip4(0x45, 20, "10.0.0.9", 0), 100, "Inner Ip Header - Not Multicast - Destination: 10.0.0.9"},
      {"inner length past its packet", kReg4, false, ip4(0x45, 100, "239.1.2.3", 0), 100, "Encapsulated Data Length - Length: 100"},
      {"inner shorter than a header", kReg4, false, hex("45 00 00 10"), 100, "Encapsulated Data Length - Length: 4"},
      {"IPv4 inner in an IPv6 Register", kReg6, false, kInner4, 100, "Invalid Family - Family: 1"},
      {"data room", kReg4, false, kInner4, 35, "Encapsulated Data - Unavailable Space - Remaining: 27"},
      {"dummy room", kReg4, true, {}, 27, "Null Header - Unavailable Space - Remaining: 19"},
      {"IPv6 dummy with IPv4 inner addresses", kReg6, true, {}, 100, "Invalid Family - Family: 1"},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto tx = message<RegisterMessage>(c.family);
    tx->nullFlagIs(c.null);
    if (!c.inner.empty()) tx->rcvdPktIs(pkt(c.inner));
    tx->innerSourceIs(Nimo::IpGenAddr("10.0.0.5"));
    tx->innerGroupIs(Nimo::IpGenAddr("239.1.2.3"));
    EXPECT_THAT(refused(*tx, &RegisterMessage::writeRegisterMessage, c.room),
                ElementsAre("Invalid Pim Register - " + c.error));
  }
}

// With rcvdPkt set, a Null-Register's dummy header takes its fields from that packet.
TEST_F(RegisterTest, NullRegisterFromTheDataPacketAndPrintForm) {
  auto tx = message<RegisterMessage>(kReg4);
  tx->nullFlagIs(true);
  tx->borderFlagIs(true);
  tx->rcvdPktIs(pkt(kInner4));
  const Bytes want =
      registerChecksum(cat({kHdr, hex("c0 00 00 00"), ip4(0x45, 20, "239.1.2.3", 17)}), kReg4);
  EXPECT_EQ(written(*tx, &RegisterMessage::writeRegisterMessage), want);
  EXPECT_THAT(at(4), ::testing::Contains(
                         "Invalid Pim Register - Null Register - Using Encapsulated Data Fields"));
  EXPECT_EQ(printed(*tx),
            "version=2 type=1 (Register) reserved=0 length=8 src=10.0.0.1 dst=10.9.9.9 | null "
            "bit=1, border bit=1 | "
            "Encapsulated src=10.0.0.5 group=239.1.2.3 outer src=10.0.0.1 outer dst=10.9.9.9");
}

TEST(RegisterRoundTrip, GeneratedRegisters) {
  for (const Family* f : {&kReg4, &kReg6}) {
    for (unsigned seed = 0; seed < 64; ++seed) {
      auto tx = message<RegisterMessage>(*f);
      tx->implRegisterFlagsU32Is(seed *
                                 0x2468ace1u);  // B and N in every combination, reserved bits
      const auto payload = static_cast<std::uint16_t>(seed * 23 % 1400);
      const std::string group =
          f->v6 ? fmt::format("ff3e::{:x}", seed + 1) : fmt::format("239.1.{}.1", seed);
      Bytes inner = f->v6 ? ip6(payload, group.c_str(), 17)
                          : ip4(0x45, std::uint16_t(20 + payload), group.c_str(), 17);
      inner.resize(inner.size() + payload, std::uint8_t(seed));
      tx->rcvdPktIs(pkt(inner));
      tx->reserved2Is(std::uint8_t(seed));
      tx->hopLimitIs(std::uint8_t(255 - seed));
      const Bytes out = written(*tx, &RegisterMessage::writeRegisterMessage, 2000);
      ASSERT_FALSE(out.empty()) << seed;
      if (tx->nullFlag()) tx->rcvdPktIs(nullptr);  // a read Null-Register has no data packet
      auto rx = message<RegisterMessage>(*f);
      ASSERT_EQ(rx->readRegisterMessage(pkt(out), 0), out.size()) << seed;
      EXPECT_EQ(*rx, *tx) << f->name() << " seed " << seed;
    }
  }
}

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
  m->nullFlagIs(false);
  EXPECT_EQ(m->implRegisterFlagsU32(), 0x80000000u);
  EXPECT_EQ(m->messageSubtype(), 1);
  EXPECT_EQ(w.calls, 3);
  m->notifieeRemove(&w);
  expectTextForm(m->implRegisterFlags(),
                 "Value('Routing::Pim::Packet::RegisterMessage::RegisterImplFlags', ** {'v0': "
                 "128, 'v1': 0, 'v2': 0, 'v3': 0})");
}

// ---------------------------------------------------------------------------------------
// Register-Stop

const auto stopObject = groupSource<RegisterStopMessage>;

TEST_F(RegisterTest, RegisterStopGoldenAndHostPrefixOnTheWire) {
  for (const Family* f : {&kV4, &kV6}) {
    groupSourceGolden(
        *f, withChecksum(hex("22 00 0000" + groupSourceHex(*f)), f->src, f->dst),
        [&](std::uint8_t mask) { return stopObject(*f, mask); },
        &RegisterStopMessage::readRegisterStopMessage,
        &RegisterStopMessage::writeRegisterStopMessage);
  }
  EXPECT_EQ(printed(*stopObject(kV4, 32)),
            "version=2 type=2 (Register-Stop) reserved=0 length=0 src=10.0.0.1 dst=224.0.0.13 | "
            "source=10.0.0.5, "
            "group=( address=239.1.2.3/32 )");
}

TEST_F(RegisterTest, RegisterStopReaderAndWriterChecks) {
  const std::string k = "Invalid Pim Register Stop - ";
  const auto read = [&](const char* body) {
    return rejected(&RegisterStopMessage::readRegisterStopMessage,
                    hex(std::string("22000000") + body));
  };
  // clang-format off
  EXPECT_THAT(read("01 00 00 20 ef010203  01 00 0a000005  00"), ElementsAre(k + "End of Message - Remaining: 1"));
  EXPECT_THAT(read("01 00 00 18 ef010203  01 00 0a000005"), ElementsAre(k + "Group Address - Invalid Prefix - 239.1.2.3/24"));
  EXPECT_THAT(read("01 00 00 20 0a010203  01 00 0a000005"), ElementsAre("Invalid Encoded Group Address - Not Multicast - Address: 10.1.2.3", k + "Group Address - Invalid Prefix - 10.1.2.3/32"));
  EXPECT_THAT(read("02 00 00 80 ff3e0000 00000000 00000000 00001234  01 00 0a000005"), ElementsAre(k + "Group Address - Invalid Family - Family: 1 Group Address: ff3e::1234"));
  EXPECT_THAT(read("01 00 00 20 ef010203  03 00 0a000005"), ElementsAre("Invalid Unicast Address - Invalid Family - Value: \x03", k + "Source Address - Parse Error"));
  EXPECT_THAT(read("01 00 00 20 ef010203  02 00 20010db8 00000000 00000000 00000005"), ElementsAre(k + "Source Address - Invalid Family - Family: 1 Address: 2001:db8::5"));
  EXPECT_THAT(read("01 00 00 20 ef010203  01 00 e0000001"), ElementsAre("Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.1", k + "Source Address - Invalid Address: 224.0.0.1"));
  // clang-format on
  auto m = stopObject(kV4, 32);
  const auto write = [&](std::uint32_t room) {
    return refused(*m, &RegisterStopMessage::writeRegisterStopMessage, room);
  };
  EXPECT_THAT(write(3), ElementsAre(k + "Header - Unavailable Space - Remaining: 3"));
  EXPECT_THAT(
      write(11),
      ElementsAre("Invalid Encoded Group Address - Ip Address Length - Remaining: 3 Expected: 4",
                  k + "Group Address - Write Error"));
  EXPECT_THAT(
      write(17),
      ElementsAre("Invalid Encoded Unicast Address - Ip Address Length - Remaining: 3 Expected: 4",
                  k + "Source Address - Write Error"));
  m->sourceIs(EncodedUnicastAddress(Nimo::IpGenAddr("::5")));
  EXPECT_THAT(write(100), ElementsAre(k + "Invalid Family - Family: 1 Source Address: ::5"));
  m->groupIs(EncodedGroupAddress(GroupAddress(Nimo::IpGenPrefix("ff3e::1/128"), 0)));
  EXPECT_THAT(write(100), ElementsAre(k + "Invalid Family - Family: 1 Group Address: ff3e::1"));
}

}  // namespace
