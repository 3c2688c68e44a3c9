// Hello reader, writer and print form.

#include <gmock/gmock.h>

#include "Pim/PimMessage.h"
#include "tests/PimCodecTestUtil.h"

namespace {

using namespace PimTest;
using namespace Routing::Pim::Packet;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Delay = HelloMessage::HelloPropagationDelay;

// One annotated vector per family drives both directions. Checksums were summed by hand
// with the RFC 1071 loop and are checked again below with the test's own reference.
const Bytes kHelloV4 =
    hex("20 00 60 ee"               // version 2 type 0, reserved, checksum
        "00 01 00 02  00 69"        // holdtime 105
        "00 02 00 04  81 f4 09 c4"  // LAN prune delay: T, 500 ms, override 2500
        "00 13 00 04  00 00 00 01"  // DR priority 1
        "00 14 00 04  12 34 ab cd"  // generation id
        "00 16 00 00"               // bidirectional capable
        "00 18 00 0c  01 00 0a 01 00 01  01 00 0a 02 00 01"  // address list 10.1.0.1 10.2.0.1
        "00 1b 00 08  00 01 00 00 0a 00 00 01"               // PIM over TCP, 10.0.0.1
        "00 1c 00 08  00 01 00 00 0a 00 00 01"               // PIM over SCTP, 10.0.0.1
        "00 1f 00 08  0a 00 00 01 00 00 00 03");             // router id 10.0.0.1, interface id 3

const Bytes kHelloV6 =
    hex("20 00 7f 7e"
        "00 01 00 02  00 69"
        "00 02 00 04  01 f4 09 c4"  // no T bit
        "00 13 00 04  00 00 00 01"
        "00 14 00 04  fe ed be ef"
        "00 16 00 00"
        "00 18 00 24  02 00 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01"
        "             02 00 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 02"
        "00 1c 00 14  00 02 00 00 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01"
        "00 1f 00 08  0a 00 00 01 00 00 00 03");

Kel::Ptr<HelloMessage> hello(bool v6) { return message<HelloMessage>(v6 ? kV6 : kV4); }

Kel::Ptr<HelloMessage> goldenObject(bool v6) {
  auto h = hello(v6);
  h->holdTimeOptionIs(true);
  h->holdTimeIs(105);
  h->lanPruneDelayOptionIs(true);
  h->tBitIs(!v6);
  h->propagationDelayIs(Delay(500));
  h->overrideIntervalIs(2500);
  h->drPriorityOptionIs(true);
  h->drPriorityIs(1);
  h->generationIdOptionIs(true);
  h->generationIdIs(v6 ? 0xfeedbeef : 0x1234abcd);
  h->bidirectionalCapableIs(true);
  for (const char* a : v6 ? std::vector<const char*>{"2001:db8::1", "2001:db8::2"}
                          : std::vector<const char*>{"10.1.0.1", "10.2.0.1"}) {
    h->secondaryAddrIs(Nimo::IpGenAddr(a), true);
  }
  if (!v6) {
    h->tcpConnectionOptionIs(true);
    h->tcpConnectionIdIs(Nimo::IpGenAddr("10.0.0.1"));
  }
  h->sctpConnectionOptionIs(true);
  h->sctpConnectionIdIs(Nimo::IpGenAddr(v6 ? "2001:db8::1" : "10.0.0.1"));
  h->interfaceIdOptionIs(true);
  h->routerIdIs(0x0a000001);
  h->interfaceIdIs(3);
  return h;
}

// Option bits for the generated Hellos below.
enum : unsigned {
  kHold = 1,
  kLpd = 2,
  kDr = 4,
  kGen = 8,
  kBidir = 16,
  kAddrs = 32,
  kTcp = 64,
  kSctp = 128,
  kIfId = 256,
  kAllOptions = 511
};

// Turns on the options in mask with values drawn from seed; absent options keep their
// zero values, as a reader leaves them.
void setOptions(HelloMessage& h, unsigned mask, unsigned seed, bool v6) {
  const auto u16 = [](unsigned v) { return static_cast<std::uint16_t>(v); };
  h.holdTimeOptionIs(mask & kHold);
  h.holdTimeIs(mask & kHold ? u16(seed * 7) : 0);
  h.lanPruneDelayOptionIs(mask & kLpd);
  if (mask & kLpd) {
    h.tBitIs(seed & 0x10);
    h.propagationDelayIs(Delay(u16(seed * 61 % 32768)));
    h.overrideIntervalIs(u16(seed * 3));
  }
  h.drPriorityOptionIs(mask & kDr);
  h.drPriorityIs(mask & kDr ? seed * 0x01010101u : 0);
  h.generationIdOptionIs(mask & kGen);
  h.generationIdIs(mask & kGen ? ~seed : 0);
  h.bidirectionalCapableIs(mask & kBidir);
  for (unsigned i = 0; mask & kAddrs && i < 1 + seed % 5; ++i) {
    h.secondaryAddrIs(v6 ? Nimo::IpGenAddr(fmt::format("2001:db8::{:x}", i + 1))
                         : Nimo::IpGenAddr::v4(0x0a000001 + i),
                      true);
  }
  const Nimo::IpGenAddr conn(v6 ? "2001:db8::aa" : "10.9.9.9");
  h.tcpConnectionOptionIs(mask & kTcp);
  h.tcpConnectionIdIs(mask & kTcp ? conn : Nimo::IpGenAddr());
  h.sctpConnectionOptionIs(mask & kSctp);
  h.sctpConnectionIdIs(mask & kSctp ? conn : Nimo::IpGenAddr());
  h.interfaceIdOptionIs(mask & kIfId);
  h.routerIdIs(mask & kIfId ? seed : 0);
  h.interfaceIdIs(mask & kIfId ? seed + 1 : 0);
}

class HelloTest : public CodecTest {};

// Both directions, then every strict prefix: one that ends on an option boundary reads,
// any other fails. A flipped checksum bit fails in the header.
TEST_F(HelloTest, GoldenVectors) {
  for (const Family* f : {&kV4, &kV6}) {
    const Bytes& g = f->v6 ? kHelloV6 : kHelloV4;
    std::set<std::size_t> boundaries{4};
    for (std::size_t at = 4; at < g.size(); boundaries.insert(at))
      at += 4 + (std::size_t{g[at + 2]} << 8 | g[at + 3]);
    auto tx = goldenObject(f->v6);
    golden(*f, g, *tx, &HelloMessage::readHelloMessage, &HelloMessage::writeHelloMessage, {},
           boundaries);
    EXPECT_EQ(tx->length(), g.size());
    Bytes bad = g;
    bad[3] ^= 0x10;
    clear();
    EXPECT_EQ(hello(f->v6)->readHelloMessage(pkt(bad), 0), 0u);
    ASSERT_EQ(errors().size(), 2u);
    EXPECT_THAT(errors()[0], ::testing::StartsWith("Invalid Pim Message - Checksum - Received: "));
    EXPECT_EQ(errors()[1], "Invalid Pim Hello - Header - Read Error");
  }
}

// ---------------------------------------------------------------------------------------
// Reader edge cases: one IPv4 body per row, header and checksum added by the test.

class HelloReadTest : public TraceTest {
 protected:
  std::uint32_t read(const Bytes& options, Kel::Ptr<HelloMessage>& h) {
    Bytes msg = hex("20 00 00 00");
    msg.insert(msg.end(), options.begin(), options.end());
    h = hello(false);
    return h->readHelloMessage(pkt(withChecksum(msg, kV4Src, kV4Dst)), 0);
  }
};

TEST_F(HelloReadTest, OptionEdgeCases) {
  const std::string kHello = "Invalid Pim Hello - ";
  struct Case {
    const char* options;
    bool ok;
    std::vector<std::string> errors;  // "Invalid Pim Hello - " implied
    std::string warning;
  };
  const std::string kUnsupported = "Warning: Pim Hello - Unsupport Hello Option - Type: 65001";
  // clang-format off
  const Case cases[] = {
      {"", true, {}, ""},
      {"0001 0004 0069 0000", false, {"Holdtime Option Size - Received Value: 4"}, ""},
      {"0001 0002 00", false, {"Holdtime Option Length - Remaining: 1 Expected: 2"}, ""},
      {"0002 0002 0000", false, {"Lan Prune Delay Option Size - Received Value: 2"}, ""},
      {"0013 0004 0000 01", false, {"Dr Priority Option Length - Remaining: 3 Expected: 4"}, ""},
      {"0014 0008 0000 0001 0000 0002", false,
       {"Generation Id Option Size - Received Value: 8"}, ""},
      {"0016 0001 00", false,
       {"Non-zero Bidirectional Capable Option Size - Received Value: 1"}, ""},
      {"0001 0002 0069 0000", false, {"Hello Option Length - Remaining: 2 Expected: 4"}, ""},
      {"fde9 0006 0102 0304 0506 0001 0002 0069", true, {}, kUnsupported},
      {"fde9 0006 0102 0304", false,
       {"Hello Option Length - Remaining: -2 Expected: 4"}, kUnsupported},
      {"0018 000c 0100 0a01 0001", false,
       {"Address List Option Length - Remaining: 6 Expected: 12"}, ""},
      // An address cut short by its option's length, though the packet goes on.
      {"0018 0004 0100 0a01 0001 0002 0069", false,
       {"Invalid Encoded Unicast Address - Ip Address Length - Remaining: 2 Expected: 4",
        "Address List Option - Unicast Address - Parse Error"}, ""},
      {"0018 0000 0001 0002 0069", true, {}, ""},
      {"001b 0014 0001 0000 2001 0db8 0000 0000 0000 0000 0000 0001", true,
       {"Pim over Tcp Option - IPv4 address family has unexpected length 16"}, ""},
      {"001c 0008 0002 0000 0a00 0001", true,
       {"Pim over Sctp Option - IPv6 address family has unexpected length 4"}, ""},
      {"001c 0008 0003 0000 0a00 0001", true,
       {"Pim over Sctp Option - Invalid address family 3 with length 4"}, ""},
      {"001c 0004 0001 0000", false, {"Pim over Sctp Option Size - Received Value: 4"}, ""},
      {"001b 0008 0001 0000 0a00", false, {"Hello Option Length - Remaining: -2 Expected: 4"}, ""},
      {"001f 0004 0000 0001", false, {"Interface Identifier Option Size - Received Value: 4"}, ""},
      {"001f 0008 0000 0001", false, {"Hello Option Length - Remaining: -4 Expected: 4"}, ""},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    clear();
    Kel::Ptr<HelloMessage> h;
    const Bytes options = hex(c.options);
    EXPECT_EQ(read(options, h), c.ok ? options.size() + 4 : 0u);
    std::vector<std::string> want;
    for (const auto& e : c.errors) want.push_back(e.starts_with("Invalid ") ? e : kHello + e);
    EXPECT_EQ(errors(), want);
    EXPECT_EQ(warnings(), only(c.warning));
  }
}

TEST_F(HelloReadTest, NoHoldtimeIsANoteNotAnError) {
  Kel::Ptr<HelloMessage> h;
  EXPECT_EQ(read({}, h), 4u);
  EXPECT_FALSE(h->holdTimeOption());
  EXPECT_THAT(at(9), ElementsAre("Invalid Pim Hello - No Holdtime Option"));
  EXPECT_THAT(at(4), Contains("RX: <PIM version=2 type=0 (Hello) reserved=0 length=4 "
                              "src=10.0.0.1 dst=224.0.0.13>"));
}

TEST_F(HelloReadTest, RepeatedOptionOverwrites) {
  Kel::Ptr<HelloMessage> h;
  ASSERT_EQ(read(hex("0013 0004 0000 0005  0013 0004 0000 0009"), h), 20u);
  EXPECT_EQ(h->drPriority(), 9u);
}

TEST_F(HelloReadTest, AddressListKeepsOnlyTheMessageFamily) {
  Kel::Ptr<HelloMessage> h;
  ASSERT_EQ(read(hex("0018 001e  0200 2001 0db8 0000 0000 0000 0000 0000 0001"
                     "           0100 e001 0101  0100 0a00 0005"),
                 h),
            38u);
  EXPECT_THAT(h->secondaryAddr(),
              ElementsAre(Nimo::IpGenAddr("10.0.0.5"), Nimo::IpGenAddr("224.1.1.1")));
  EXPECT_THAT(warnings(),
              ElementsAre("Warning: Pim Hello - Address List Option - Family: 2 Skipping "
                          "Address: 2001:db8::1",
                          "Warning: Pim Hello - Address List Option - Skipping Invalid Address: "
                          "224.1.1.1"));
}

// Hellos as deployed routers send them.
TEST_F(HelloReadTest, RealRouterHellos) {
  struct Case {
    const char* name;
    const char* options;
    std::vector<std::string> secondary;
    std::size_t warnings;
  };
  const Case cases[] = {
      // IPv4 Hello whose address list carries the interface's IPv6 addresses.
      {"ipv6 addresses in an ipv4 hello",
       "0001 0002 0069  0014 0004 6b8b 4567  0013 0004 0000 0001  0002 0004 01f4 09c4"
       "0018 0024  0200 fe80 0000 0000 0000 0250 56ff fe8a 1c2d"
       "           0200 2001 0db8 0001 0000 0000 0000 0000 0001",
       {},
       2},
      // The current address list and the old experimental copy of it (type 65001).
      {"address list twice, new and old type",
       "0001 0002 0069  0018 0006 0100 0a00 0002  fde9 0006 0100 0a00 0002",
       {"10.0.0.2"},
       1},
      {"zero-length unknown option 65004", "0001 0002 0069  fdec 0000  0014 0004 0000 0001", {}, 1},
      {"state refresh capable, option 21", "0001 0002 0069  0015 0004 0100 003c", {}, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    clear();
    Kel::Ptr<HelloMessage> h;
    const Bytes options = hex(c.options);
    ASSERT_EQ(read(options, h), options.size() + 4);
    EXPECT_EQ(h->holdTime(), 105);
    std::set<Nimo::IpGenAddr> want;
    for (const auto& a : c.secondary) want.insert(Nimo::IpGenAddr(a));
    EXPECT_EQ(h->secondaryAddr(), want);
    EXPECT_EQ(warnings().size(), c.warnings);
    EXPECT_THAT(errors(), IsEmpty());
  }
}

// ---------------------------------------------------------------------------------------
// Writer

TEST(HelloRoundTrip, EveryCombinationOfOptions) {
  for (const Family* f : {&kV4, &kV6}) {
    for (unsigned mask = 0; mask <= kAllOptions; ++mask) {
      auto tx = message<HelloMessage>(*f);
      setOptions(*tx, mask, mask, f->v6);
      roundTrip(*f, *tx, &HelloMessage::readHelloMessage, &HelloMessage::writeHelloMessage,
                "mask " + std::to_string(mask));
    }
  }
}

class HelloWriteTest : public TraceTest {};

// With one byte less than an option needs, the write fails with that option's text.
TEST_F(HelloWriteTest, SpaceChecksPerOption) {
  struct Case {
    unsigned option;
    std::uint32_t room;  // one byte short; one more byte makes the write succeed
    std::string error;
  };
  // clang-format off
  const Case cases[] = {
      {0, 3, "Invalid Pim Hello - Header - Unavailable Space - Remaining: 3"},
      {kHold, 9, "Invalid Pim Hello - Holdtime Option - Unavailable Space - Remaining: 5 Expected: 6"},
      {kLpd, 11, "Invalid Pim Hello - Lan Prune Delay Option - Unavailable Space - Remaining: 7"},
      {kDr, 11, "Invalid Pim Hello - Dr Priority Option - Unavailable Space - Remaining: 7"},
      {kGen, 11, "Invalid Pim Hello - Generation Id Option - Unavailable Space - Remaining: 7"},
      {kBidir, 7, "Invalid Pim Hello - Bidirectional Capable Option - Unavailable Space - Remaining: 3"},
      {kTcp, 15, "Invalid Pim Hello - TCP capable  Option - Unavailable Space - Remaining: 11"},
      {kSctp, 15, "Invalid Pim Hello - STCP capable  Option - Unavailable Space - Remaining: 11"},
      {kIfId, 15, "Invalid Pim Hello - InterfaceId Option - Unavailable Space - Remaining: 11 Expected: 12"},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    auto h = hello(false);
    setOptions(*h, c.option, 1, false);
    clear();
    EXPECT_EQ(h->writeHelloMessage(Nimo::Pkt::create(c.room), 0), 0u);
    EXPECT_THAT(errors(), ElementsAre(c.error));
    clear();
    EXPECT_GT(h->writeHelloMessage(Nimo::Pkt::create(c.room + 1), 0), 0u);
  }
  // The address list's own header reuses the generation id text.
  auto h = hello(false);
  h->secondaryAddrIs(Nimo::IpGenAddr("10.0.0.9"), true);
  clear();
  EXPECT_EQ(h->writeHelloMessage(Nimo::Pkt::create(7), 0), 0u);
  EXPECT_EQ(h->writeHelloMessage(Nimo::Pkt::create(13), 0), 0u);
  EXPECT_THAT(
      errors(),
      ElementsAre("Invalid Pim Hello - Generation Id Option - Unavailable Space - Remaining: 3",
                  "Invalid Encoded Unicast Address - Ip Address Length - Remaining: 3 "
                  "Expected: 4",
                  "Invalid Pim Hello - Address List Option - Unicast Address - Write Error"));
  EXPECT_EQ(h->writeHelloMessage(Nimo::Pkt::create(14), 0), 14u);
}

TEST_F(HelloWriteTest, FamilyChecks) {
  struct Case {
    const char* name;
    void (*fill)(HelloMessage&);
    std::vector<std::string> errors;
  };
  const Case cases[] = {
      {"secondary of the other family",
       [](HelloMessage& h) {
         h.secondaryAddrIs(Nimo::IpGenAddr("10.0.0.9"), true);
         h.secondaryAddrIs(Nimo::IpGenAddr("2001:db8::9"), true);
       },
       {"Invalid Pim Hello - Address List Option - Family: 2 Address: 2001:db8::9"}},
      {"multicast secondary",
       [](HelloMessage& h) { h.secondaryAddrIs(Nimo::IpGenAddr("239.1.1.1"), true); },
       {"Invalid Encoded Unicast Address - Not Unicast - Address: 239.1.1.1",
        "Invalid Pim Hello - Address List Option - Unicast Address - Write Error"}},
      {"tcp of the other family",
       [](HelloMessage& h) {
         h.tcpConnectionOptionIs(true);
         h.tcpConnectionIdIs(Nimo::IpGenAddr("::1"));
       },
       {"Invalid Pim Hello - tcpConnectionId Option - Family: 2"}},
      {"sctp unset",
       [](HelloMessage& h) { h.sctpConnectionOptionIs(true); },
       {"Invalid Pim Hello - sctpConnectionId Option - Family: 0"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto h = hello(false);
    c.fill(*h);
    clear();
    EXPECT_EQ(h->writeHelloMessage(Nimo::Pkt::create(200), 0), 0u);
    EXPECT_EQ(errors(), c.errors);
  }
  auto none = Kel::Ptr<HelloMessage>::make();
  none->sctpConnectionOptionIs(true);
  clear();
  EXPECT_EQ(none->writeHelloMessage(Nimo::Pkt::create(200), 0), 0u);
  EXPECT_THAT(errors(),
              ElementsAre("Invalid Pim Hello - SCTP capable Option - Invalid address family 0"));
}

TEST_F(HelloWriteTest, V6SctpTraceAndPrintForm) {
  auto h = goldenObject(false);
  std::ostringstream os;
  os << *h;
  EXPECT_EQ(os.str(),
            "version=2 type=0 (Hello) reserved=0 length=0 src=10.0.0.1 dst=224.0.0.13"
            " | Option: holdtime=105 | Option: tbit=1, propagationDelay=500, override=2500"
            " | Option: drPriority=1 | Option: generationId=305441741"
            " | Option: secondary address=[ 10.1.0.1 10.2.0.1 ] | Option: bidirectional capable"
            " | Option: sctpConnectionId = 10.0.0.1 | Option: sctpConnectionId=10.0.0.1"
            " | Option: [ RouterId :167772161 InterfaceId:3]");
  auto v6 = goldenObject(true);
  ASSERT_GT(v6->writeHelloMessage(Nimo::Pkt::create(200), 0), 0u);
  EXPECT_THAT(at(4), Contains(" write v6 sctpConnectionId with size 24"));
  EXPECT_THAT(at(4), Contains(::testing::StartsWith("TX: <PIM version=2 type=0 (Hello)")));
}

// ---------------------------------------------------------------------------------------
// Propagation delay values

TEST(HelloPropagationDelay, RangeAndBits) {
  auto h = hello(false);
  h->tBitIs(true);
  h->propagationDelayIs(Delay(32767));
  EXPECT_TRUE(h->tBit());
  EXPECT_EQ(h->propagationDelay().value(), 32767);
  EXPECT_EQ(h->implPropagationDelay(), HelloMessage::HelloImplPropagationDelay(0xff, 0xff));
  h->tBitIs(false);
  EXPECT_EQ(h->propagationDelay().value(), 32767);
  EXPECT_EQ(h->implPropagationDelay().v0, 0x7f);

  expectRangeError([] { Delay(32768); },
                   "HelloPropagationDelay::value < HelloPropagationDelay::min or > "
                   "HelloPropagationDelay::max not allowed");
  expectTextForm(Delay(500),
                 "Value('Routing::Pim::Packet::HelloMessage::HelloPropagationDelay', ** "
                 "{'value': 500})");
  expectNoParse<Delay>(
      "Value('Routing::Pim::Packet::HelloMessage::HelloPropagationDelay', ** {'value': 32768})");
  EXPECT_EQ(Kel::valueToStrep(HelloMessage::HelloImplPropagationDelay(0x81, 0xf4)),
            "Value('Routing::Pim::Packet::HelloMessage::HelloImplPropagationDelay', ** "
            "{'v0': 129, 'v1': 244})");
}

}  // namespace
