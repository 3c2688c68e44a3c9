// Common header, checksums and encoded addresses.

#include <gmock/gmock.h>

#include "Pim/PimMessage.h"
#include "tests/PimTestUtil.h"

namespace {

using namespace PimTest;
using namespace Routing::Pim::Packet;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

Kel::Ptr<Message> message(Nimo::PimMessageType t, const Nimo::IpGenAddr& src,
                          const Nimo::IpGenAddr& dst) {
  auto m = Kel::Ptr<Message>::make(t);
  m->srcIpIs(src);
  m->dstIpIs(dst);
  return m;
}

// ---------------------------------------------------------------------------------------
// readHeader

class HeaderTest : public TraceTest {};

TEST_F(HeaderTest, ReadChecksOrderAndTexts) {
  const Bytes hello4 = withChecksum(hex("20 00 00 00"), kV4Src, kV4Dst);
  Bytes corrupt = hello4;
  corrupt[3] ^= 0x01;
  const std::uint16_t goodSum = std::uint16_t(hello4[2] << 8 | hello4[3]);
  struct Case {
    const char* name;
    Bytes bytes;
    std::uint32_t offset;
    Nimo::IpGenAddr src, dst;
    std::uint32_t result;
    std::vector<std::string> errors;
  };
  const auto checksum = [](std::uint16_t received, std::uint16_t calculated) {
    return fmt::format("Invalid Pim Message - Checksum - Received: {:#06x} Calculated: {:#06x}",
                       received, calculated);
  };
  // clang-format off
  const Case cases[] = {
      {"three bytes", hex("20 00 df"), 0, kV4Src, kV4Dst, 0, {"Invalid Pim Message - Missing Pim Header - Remaining: 3"}},
      {"offset past the end", hello4, 9, kV4Src, kV4Dst, 0, {"Invalid Pim Message - Missing Pim Header - Remaining: 0"}},
      {"exactly four bytes", hello4, 0, kV4Src, kV4Dst, 4, {}},
      {"no family", hello4, 0, {}, {}, 0, {"Invalid address family"}},
      {"family from dstIp alone", hello4, 0, {}, kV4Dst, 4, {}},
      {"flipped checksum bit", corrupt, 0, kV4Src, kV4Dst, 0, {checksum(goodSum ^ 1, goodSum)}},
      {"checksum over IPv4 rules in an IPv6 context", hello4, 0, kV6Src, kV6Dst, 0,
       {checksum(goodSum, refChecksumV6(kV6Src, kV6Dst, 4, hex("20 00 00 00")))}},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    clear();
    auto m = message(Nimo::PimMessageType::pimHello, c.src, c.dst);
    EXPECT_EQ(m->readHeader(pkt(c.bytes), c.offset), c.result);
    EXPECT_EQ(errors(), c.errors);
  }
}

TEST_F(HeaderTest, ReadKeepsReservedAndSetsLength) {
  const Bytes b = withChecksum(hex("23 5a 00 00  01 02 03 04 05 06"), kV4Src, kV4Dst);
  auto m = message(Nimo::PimMessageType::pimJoinPrune, kV4Src, kV4Dst);
  ASSERT_EQ(m->readHeader(pkt(b), 0), 4u);
  EXPECT_EQ(m->reserved(), 0x5a);
  EXPECT_EQ(m->length(), 10u);
  EXPECT_EQ(m->messageType(), 3);
  EXPECT_THAT(at(4), ::testing::Contains(fmt::format(
                         "readHeader: RX: <PIM version=2 type=3 (Join/Prune) reserved=90 "
                         "checksum={:#06x} length=10 remaining 10>",
                         b[2] << 8 | b[3])));
}

// Registers: summed over the first 8 bytes, or (second try) over the whole message.
TEST_F(HeaderTest, RegisterChecksumEitherWay) {
  const Bytes inner = hex("21 00 00 00  00 00 00 00  45 00 00 14 de ad be ef");
  for (bool v6 : {false, true}) {
    SCOPED_TRACE(v6 ? "IPv6" : "IPv4");
    const auto& src = v6 ? kV6Src : kV4Src;
    const auto& dst = v6 ? kV6Dst : kV4Dst;
    const Bytes first8 = withChecksum(inner, src, dst, 8);
    const Bytes whole = withChecksum(inner, src, dst);
    ASSERT_NE(first8, whole);
    Bytes bad = whole;
    bad[2] ^= 0x80;
    for (const auto& [bytes, result] :
         {std::pair{first8, 4u}, std::pair{whole, 4u}, std::pair{bad, 0u}}) {
      clear();
      auto m = message(Nimo::PimMessageType::pimRegister, src, dst);
      EXPECT_EQ(m->readHeader(pkt(bytes), 0), result);
      EXPECT_EQ(m->length(), 8u);
      if (result == 0) {
        ASSERT_EQ(errors().size(), 1u);
        EXPECT_THAT(errors()[0],
                    ::testing::StartsWith("Invalid Pim Message - Register Checksum - Received: "));
      }
    }
  }
}

// The checksum written over an odd length in both families, a Register's over its first 8
// bytes (the IPv6 pseudo-header counts 8 too), and the two refusals.
TEST_F(HeaderTest, WriteChecksumsMatchIndependentSumOrRefuse) {
  const Bytes hello = hex("20 5a 00 00  00 01 00 02 00 69 00 13 00 04 00 00 00 07 aa");
  const Bytes reg = hex("21 00 00 00  40 00 00 00  60 00 00 00 00 00");
  const struct {
    Nimo::PimMessageType type;
    Nimo::IpGenAddr src, dst;
    Bytes bytes;
    std::uint32_t length;  // also the bytes summed
    const char* error;
  } cases[] = {
      {Nimo::PimMessageType::pimHello, kV4Src, kV4Dst, hello, 19, nullptr},
      {Nimo::PimMessageType::pimHello, kV6Src, kV6Dst, hello, 19, nullptr},
      {Nimo::PimMessageType::pimRegister, kV6Src, kV6Dst, reg, 8, nullptr},
      {Nimo::PimMessageType::pimHello, kV4Src, kV4Dst, hex("00 00 00"), 4,
       "Invalid Pim Message - Header - Unavailable Space - Remaining: 3"},
      {Nimo::PimMessageType::pimHello, {}, {}, hex("00 00 00 00"), 4, "Invalid address family"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(toHex(c.bytes));
    clear();
    auto p = pkt(c.bytes);
    auto m = message(c.type, c.src, c.dst);
    m->reservedIs(c.bytes.size() > 1 ? c.bytes[1] : 0);
    m->lengthIs(c.length);
    EXPECT_EQ(m->writeHeader(p, 0), c.error ? 0u : 4u);
    EXPECT_EQ(errors(), only(c.error ? c.error : ""));
    if (!c.error) {
      EXPECT_EQ(bytesOf(*p, p->size()), withChecksum(c.bytes, c.src, c.dst, c.length));
    }
  }
}

// ---------------------------------------------------------------------------------------
// Encoded-Unicast

class UnicastTest : public TraceTest {};

TEST_F(UnicastTest, Read) {
  struct Case {
    const char* name;
    Bytes bytes;
    std::uint32_t result;
    std::string address;
    std::string error;
  };
  // clang-format off
  const Case cases[] = {
      {"ipv4", hex("01 00 0a 00 00 01"), 6, "10.0.0.1", ""},
      {"ipv6", hex("02 00 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01"), 18, "2001:db8::1", ""},
      {"multicast is the caller's business", hex("01 00 e0 00 00 05"), 6, "224.0.0.5", ""},
      {"one byte", hex("01"), 0, "", "Invalid Encoded Unicast Address - Family and Encoding Length - Remaining: 1 Expected: 2"},
      {"encoding 1", hex("01 01 0a 00 00 01"), 0, "", "Invalid Encoded Unicast Address - Invalid Encoding - Value: \x01"},
      {"family 3", hex("03 00 0a 00 00 01"), 0, "", "Invalid Unicast Address - Invalid Family - Value: \x03"},
      {"short ipv4", hex("01 00 0a 00 00"), 0, "", "Invalid Encoded Unicast Address - Ip Address Length - Remaining: 3 Expected: 4"},
      {"short ipv6", hex("02 00 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00"), 0, "", "Invalid Encoded Unicast Address - Ip6 Address Length - Remaining: 15 Expected: 16"},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    clear();
    EncodedUnicastAddress a;
    EXPECT_EQ(a.readUnicastAddress(pkt(c.bytes), 0), c.result);
    if (c.result) {
      EXPECT_EQ(a.address(), Nimo::IpGenAddr(c.address));
    }
    EXPECT_EQ(errors(), only(c.error));
  }
}

TEST_F(UnicastTest, WriteAndValid) {
  struct Case {
    const char* name;
    Nimo::IpGenAddr address;
    std::uint32_t room;
    std::uint32_t result;
    std::string error;
    bool valid;
  };
  // clang-format off
  const Case cases[] = {
      {"ipv4", Nimo::IpGenAddr("10.0.0.1"), 6, 6, "", true},
      {"ipv6", Nimo::IpGenAddr("2001:db8::1"), 18, 18, "", true},
      {"multicast", Nimo::IpGenAddr("224.1.1.1"), 6, 0, "Invalid Encoded Unicast Address - Not Unicast - Address: 224.1.1.1", false},
      {"ipv6 short", Nimo::IpGenAddr("2001:db8::1"), 12, 0, "Invalid Encoded Unicast Address - Ip Address Length - Remaining: 10 Expected: 16", true},
      {"no room for the prefix", Nimo::IpGenAddr("10.0.0.1"), 1, 0, "Invalid Encoded Unicast Address - Family and Encoding Length - Remaining: 1 Expected: 2", true},
      {"unset", Nimo::IpGenAddr(), 6, 0, "Invalid Encoded Unicast Address - Invalid Family - Value: 0", false},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    clear();
    auto p = Nimo::Pkt::create(c.room);
    EncodedUnicastAddress a(c.address);
    EXPECT_EQ(a.writeUnicastAddress(p, 0), c.result);
    if (c.result) {
      EncodedUnicastAddress back;
      EXPECT_EQ(back.readUnicastAddress(p, 0), c.result);
      EXPECT_EQ(back, a);
    }
    EXPECT_EQ(errors(), only(c.error));
    clear();
    EXPECT_EQ(a.valid(), c.valid);
  }
  clear();
  EXPECT_FALSE(EncodedUnicastAddress().valid());
  EXPECT_THAT(errors(), ElementsAre("Invalid Encoded Unicast Address - Unsupported Address "
                                    "Family - Address Family: 0"));
}

// ---------------------------------------------------------------------------------------
// Encoded-Group and Encoded-Source

class PrefixAddressTest : public TraceTest {};

TEST_F(PrefixAddressTest, ReadGroupAndSource) {
  struct Case {
    const char* name;
    Bytes bytes;
    std::uint32_t result;
    std::string prefix;
    std::uint8_t flags;
    std::string groupError;  // the source texts say "Source" where these say "Group"
  };
  // clang-format off
  const Case cases[] = {
      {"ipv4", hex("01 00 80 18 e1 02 03 00"), 8, "225.2.3.0/24", 0x80, ""},
      {"ipv6", hex("02 00 07 80 ff 0e 00 00 00 00 00 00 00 00 00 00 00 00 01 23"), 20, "ff0e::123/128", 0x07, ""},
      {"mask 33", hex("01 00 00 21 e0 00 00 00"), 0, "", 0, "Invalid Encoded Group Address - Incorrect Prefix Range - 224.0.0.0/33"},
      {"mask 129", hex("02 00 00 81 ff 0e 00 00 00 00 00 00 00 00 00 00 00 00 01 23"), 0, "", 0, "Invalid Encoded Group Address - Incorrect Prefix Range - ff0e::123/129"},
      {"three bytes", hex("01 00 00"), 0, "", 0, "Invalid Encoded Group Address - Family and Encoding Length - Remaining: 3 Expected: 4"},
      {"encoding 2", hex("01 02 00 20 e0 00 00 01"), 0, "", 0, "Invalid Encoded Group Address - Invalid Encoding - Value: \x02"},
      {"family 9", hex("09 00 00 20 e0 00 00 01"), 0, "", 0, "Invalid Encoded Group Address - Invalid Family - Value: \x09"},
      {"short ipv4", hex("01 00 00 20 e0 00 01"), 0, "", 0, "Invalid Encoded Group Address - Ip Address Length - Remaining: 3 Expected: 4"},
      {"short ipv6", hex("02 00 00 80 ff 0e"), 0, "", 0, "Invalid Encoded Group Address - Ip Address Length - Remaining: 2 Expected: 16"},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto expectErrors = [&](std::string_view kind) {
      std::string e = c.groupError;
      if (auto at = e.find("Group"); at != std::string::npos) e.replace(at, 5, kind);
      EXPECT_EQ(errors(), only(e));
    };
    clear();
    EncodedGroupAddress g;
    EXPECT_EQ(g.readGroupAddress(pkt(c.bytes), 0), c.result);
    expectErrors("Group");
    clear();
    EncodedSourceAddress s;
    EXPECT_EQ(s.readSourceAddress(pkt(c.bytes), 0), c.result);
    expectErrors("Source");
    if (c.result) {
      EXPECT_EQ(g.groupAddress(), GroupAddress(Nimo::IpGenPrefix(c.prefix), c.flags));
      EXPECT_EQ(s.sourceAddress(), SourceAddress(Nimo::IpGenPrefix(c.prefix), c.flags));
    }
  }
}

TEST_F(PrefixAddressTest, EveryStrictPrefixFails) {
  const Bytes full = hex("02 00 07 80 ff 0e 00 00 00 00 00 00 00 00 00 00 00 00 01 23");
  for (std::size_t n = 0; n < full.size(); ++n) {
    Bytes part(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n));
    EncodedGroupAddress g;
    EncodedSourceAddress s;
    EncodedUnicastAddress u;
    EXPECT_EQ(g.readGroupAddress(pkt(part), 0), 0u) << n;
    EXPECT_EQ(s.readSourceAddress(pkt(part), 0), 0u) << n;
    if (n < 18) {
      EXPECT_EQ(u.readUnicastAddress(pkt(part), 0), 0u) << n;
    }
  }
}

TEST_F(PrefixAddressTest, WriteGroupUnicastFailsAfterThreeBytes) {
  auto p = Nimo::Pkt::create(8);
  EncodedGroupAddress g(GroupAddress(Nimo::IpGenPrefix("10.0.0.0/8"), 0x80));
  EXPECT_EQ(g.writeGroupAddress(p, 0), 0u);
  EXPECT_EQ(bytesOf(*p, 8), hex("01 00 80 00 00 00 00 00"));
  EXPECT_THAT(errors(),
              ElementsAre("Invalid Encoded Group Address - Not Multicast - Address: 10.0.0.0"));
}

TEST_F(PrefixAddressTest, WriteRoundTripsAndChecksKind) {
  struct Case {
    std::string prefix;
    std::uint8_t flags;
    std::uint32_t room;
    std::uint32_t groupResult, sourceResult;
  };
  const Case cases[] = {
      {"239.1.2.0/24", 0x81, 8, 8, 0},     {"ff3e::8000:1/128", 0x00, 20, 20, 0},
      {"10.1.1.1/32", 0x07, 8, 0, 8},      {"2001:db8::5/128", 0x04, 20, 0, 20},
      {"2001:db8::5/128", 0x04, 19, 0, 0},  // one byte short
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.prefix);
    const Nimo::IpGenPrefix prefix(c.prefix);
    auto p = Nimo::Pkt::create(c.room);
    EncodedGroupAddress g(GroupAddress(prefix, c.flags));
    EXPECT_EQ(g.writeGroupAddress(p, 0), c.groupResult);
    if (c.groupResult) {
      EncodedGroupAddress back;
      EXPECT_EQ(back.readGroupAddress(p, 0), c.groupResult);
      EXPECT_EQ(back, g);
    }
    EncodedSourceAddress s(SourceAddress(prefix, c.flags));
    EXPECT_EQ(s.writeSourceAddress(p, 0), c.sourceResult);
    if (c.sourceResult) {
      EncodedSourceAddress back;
      EXPECT_EQ(back.readSourceAddress(p, 0), c.sourceResult);
      EXPECT_EQ(back, s);
    }
  }
  EXPECT_THAT(errors(), ::testing::Contains(
                            "Invalid Encoded Source Address - Ip Address Length - Remaining: 15 "
                            "Expected: 16"));
}

TEST_F(PrefixAddressTest, Validity) {
  struct Case {
    const char* name;
    Nimo::IpGenPrefix prefix;
    bool groupValid, sourceValid;
    std::string sourceError;
  };
  // clang-format off
  const Case cases[] = {
      {"multicast host", Nimo::IpGenPrefix("232.1.1.1/32"), true, false, "Invalid Encoded Source Address - Not Unicast - Address: 232.1.1.1"},
      {"all zeros", Nimo::IpGenPrefix("0.0.0.0/32"), false, false, "Invalid Encoded Source Address - All Zeros - Address: 0.0.0.0"},
      {"not host", Nimo::IpGenPrefix("10.0.0.1/24"), false, false, "Invalid Encoded Source Address - Not Host Prefix - Prefix: 10.0.0.1/24"},
      {"v6 not host", Nimo::IpGenPrefix("2001:db8::1/64"), false, false, "Invalid Encoded Source Address - Not Host Prefix - Prefix: 2001:db8::1/64"},
      {"v6 host", Nimo::IpGenPrefix("2001:db8::1/128"), false, true, ""},
      {"unset family", Nimo::IpGenPrefix(), false, false, "Invalid Encoded Group Address - Unsupported Address Family - Address Family: 0"},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(EncodedGroupAddress(GroupAddress(c.prefix, 0)).valid(), c.groupValid);
    clear();
    EXPECT_EQ(EncodedSourceAddress(SourceAddress(c.prefix, 0)).valid(), c.sourceValid);
    EXPECT_EQ(errors(), only(c.sourceError));
  }
}

TEST(PrefixAddress, HostPrefixAndAddress) {
  EncodedSourceAddress s;
  s.addressIs(Nimo::IpGenAddr("2001:db8::9"));
  EXPECT_TRUE(s.isHostPrefix());
  EXPECT_EQ(s.sourceAddress().address.maskLen(), 128);
  EXPECT_EQ(s.address(), Nimo::IpGenAddr("2001:db8::9"));
  EncodedGroupAddress g(GroupAddress(Nimo::IpGenPrefix("239.0.0.0/8"), 0));
  EXPECT_FALSE(g.isHostPrefix());
  EXPECT_EQ(g.address(), Nimo::IpGenAddr("239.0.0.0"));
}

TEST(PrefixAddressDeathTest, AddressOfUnknownFamilyIsAProgrammingError) {
  EXPECT_DEATH(EncodedGroupAddress().address(), "Unknown address family");
  EXPECT_DEATH(EncodedSourceAddress().address(), "Unknown address family");
}

TEST(ValueText, GroupAndSourceRoundTrip) {
  expectTextForm(GroupAddress(Nimo::IpGenPrefix("ff0e::/16"), 0x80),
                 "Value('Routing::Pim::Packet::GroupAddress', ** {'address': ff0e::/16, "
                 "'flags': 128})");
  expectTextForm(SourceAddress(Nimo::IpGenPrefix("10.0.0.1/32"), 7),
                 "Value('Routing::Pim::Packet::SourceAddress', ** {'address': 10.0.0.1/32, "
                 "'flags': 7})");
  expectNoParse<SourceAddress>(
      "Value('Routing::Pim::Packet::SourceAddress', ** {'address': 10.0.0.1/33, 'flags': 7})");
}

}  // namespace
