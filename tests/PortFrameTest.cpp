// PortFrame: the PORT messages around PIM Join/Prunes on a reliable-transport association.
#include <gtest/gtest.h>

#include "Pim/PimMessage.h"
#include "Pim/PortFrame.h"
#include "tests/PimTestUtil.h"

namespace {

using namespace Routing::Pim::Reliable;
using PimTest::Bytes;

class PortFrameTest : public PimTest::TraceTest {};

const InterfaceId kIfId(0x0a000001, 0x01020304);

// A Join/Prune for one group written inside a PORT Join/Prune message; the message's bytes.
Bytes portJoinPrune(Nimo::AddressFamily af) {
  const bool v4 = af == Nimo::AddressFamily::ipv4;
  auto data = Kel::Ptr<Routing::Pim::JoinPruneData>::make();
  data->upstreamNeighborIs(Nimo::IpGenAddr(v4 ? "10.0.0.2" : "2001:db8::2"));
  data->holdTimeIs(210);
  data->joinPruneGroupDataIs(
          Nimo::IpGenPrefix(Nimo::IpGenAddr(v4 ? "232.1.1.1" : "ff3e::1"), v4 ? 32 : 128))
      .joinedSourceIs(Nimo::IpGenAddr(v4 ? "10.1.1.1" : "2001:db8::1:1"));
  Routing::Pim::Packet::JoinPruneMessage m;
  m.srcIpIs(portMessageAddr(af));
  m.dstIpIs(portMessageAddr(af));
  m.joinPruneDataIs(data);
  auto pkt = Nimo::Pkt::create(1500);
  const std::uint32_t n = m.writeJoinPruneMessage(pkt, kPortJoinPruneOffset, nullptr);
  EXPECT_NE(n, 0u);
  EXPECT_EQ(writePortJoinPrune(pkt, 0, kIfId, af, n), kPortJoinPruneOffset + n);
  return PimTest::bytesOf(*pkt, kPortJoinPruneOffset + n);
}

TEST_F(PortFrameTest, JoinPruneGoesRoundInBothFamiliesAndEveryPrefixFails) {
  for (const auto af : {Nimo::AddressFamily::ipv4, Nimo::AddressFamily::ipv6}) {
    const Bytes msg = portJoinPrune(af);
    const auto pim = static_cast<std::uint8_t>(msg.size() - kPortJoinPruneOffset);
    const std::uint8_t opt = af == Nimo::AddressFamily::ipv4 ? 1 : 2;
    EXPECT_EQ(PimTest::toHex(Bytes(msg.begin(), msg.begin() + kPortJoinPruneOffset)),
              PimTest::toHex({0,    1,   0, static_cast<std::uint8_t>(pim + 16),
                              0,    0,   0, 0,
                              0x0a, 0,   0, 1,
                              1,    2,   3, 4,
                              0,    opt, 0, pim}));
    // A keep-alive and then the Join/Prune, as they follow each other on the association.
    Bytes two = {0, 2, 0, 0};
    two.insert(two.end(), msg.begin(), msg.end());
    const auto pkt = PimTest::pkt(two);
    PortMessage m;
    ASSERT_EQ(readPortMessage(pkt, 0, m), 4u);
    EXPECT_EQ(m.type, kPortTypeKeepAlive);
    ASSERT_EQ(readPortMessage(pkt, 4, m), msg.size());
    EXPECT_EQ(m.interfaceId, kIfId);
    EXPECT_EQ(m.joinPrunes, 1u);
    std::vector<PortOption> opts;
    forEachPortOption(*pkt, m, [&](const PortOption& o) { opts.push_back(o); });
    ASSERT_EQ(opts.size(), 1u);
    EXPECT_EQ(portOptionFamily(opts[0].type), af);
    EXPECT_EQ(opts[0].offset, 4 + kPortJoinPruneOffset);
    EXPECT_EQ(opts[0].length, pim);
    // The option's value decodes with the unspecified pseudo-header addresses.
    auto rx = Kel::Ptr<Routing::Pim::Packet::JoinPruneMessage>::make();
    rx->srcIpIs(portMessageAddr(af));
    rx->dstIpIs(portMessageAddr(af));
    ASSERT_EQ(
        rx->readJoinPruneMessage(Nimo::Pkt::copyOf(pkt->data(opts[0].offset), pim, 0), 0, nullptr),
        pim);
    EXPECT_EQ(rx->joinPruneData()->holdTime(), 210);
    // Cut anywhere before its end, the message fails with one line.
    for (long n = 0; n < static_cast<long>(msg.size()); ++n) {
      clear();
      EXPECT_EQ(readPortMessage(PimTest::pkt(Bytes(msg.begin(), msg.begin() + n)), 0, m), 0u) << n;
      EXPECT_EQ(errors().size(), 1u) << n;
    }
  }
}

TEST_F(PortFrameTest, MalformedMessagesFailAndUnknownOnesAreSteppedOver) {
  // The line is the warning when the message is consumed, else the error.
  struct Row {
    const char* in;
    std::uint32_t offset, consumed, joinPrunes, unknownOptions;
    std::string line;
  };
  const Row rows[] = {
      // Accepted: unknown type, keep-alive with a body, options of every kind, none at all.
      {"0003 0002 0909", 0, 6, 0, 0, "Warning: Port Message - Unknown Type: 3 Length: 2"},
      {"0002 0002 0909 0002 0000", 0, 6, 0, 0, ""},
      {"0001 0016 00000000 01010101 00000002 0009 0000 0001 0002 2300", 0, 26, 1, 1,
       "Warning: Port Join/Prune - Unknown Option - Type: 9"},
      {"0001 000c ffffffff 01010101 00000002", 0, 16, 0, 0, ""},
      // Refused: each with one line.
      {"0001 000b 00000000 01010101 000000", 0, 0, 0, 0,
       "Invalid Port Join/Prune - Message Length: 11 Expected: 12"},
      {"0001 000e 00000000 01010101 00000002 0001", 0, 0, 0, 0,
       "Invalid Port Join/Prune - Option Header - Remaining: 2"},
      {"0001 0010 00000000 01010101 00000002 0001 0009", 0, 0, 0, 0,
       "Invalid Port Join/Prune - Option Type: 1 Length: 9 Remaining: 0"},
      {"0001 ffff 00000000", 0, 0, 0, 0,
       "Invalid Port Message - Message Length: 65535 Remaining: 4"},
      {"0002 0000", 3, 0, 0, 0, "Invalid Port Message - Header - Read Error - Remaining: 1"},
  };
  for (const auto& r : rows) {
    clear();
    PortMessage m;
    EXPECT_EQ(readPortMessage(PimTest::pkt(PimTest::hex(r.in)), r.offset, m), r.consumed) << r.in;
    EXPECT_EQ(r.consumed ? warnings() : errors(), only(r.line)) << r.in;
    EXPECT_EQ((r.consumed ? errors() : warnings()), only("")) << r.in;
    if (r.consumed == 0) continue;
    EXPECT_EQ(m.joinPrunes, r.joinPrunes) << r.in;
    EXPECT_EQ(m.unknownOptions, r.unknownOptions) << r.in;
  }
  // Writer refusals: a message too short to be PIM, one too long for the length fields,
  // no room for the headers.
  auto small = Nimo::Pkt::create(kPortJoinPruneOffset + 3);
  EXPECT_EQ(writePortJoinPrune(small, 0, kIfId, Nimo::AddressFamily::ipv4, 3), 0u);
  EXPECT_EQ(writePortJoinPrune(small, 0, kIfId, Nimo::AddressFamily::ipv4, 0xfff0), 0u);
  EXPECT_EQ(writePortJoinPrune(small, 0, kIfId, Nimo::AddressFamily::ipv4, 4), 0u);
  EXPECT_EQ(writePortKeepAlive(small, kPortJoinPruneOffset), 0u);
  EXPECT_EQ(writePortKeepAlive(small, 0), 4u);
}

}  // namespace
