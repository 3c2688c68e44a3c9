// PortFrame: the TLV around PIM messages on a reliable-transport association.
#include <gtest/gtest.h>

#include "Pim/PimMessage.h"
#include "Pim/PortFrame.h"
#include "tests/PimTestUtil.h"

namespace {

using namespace Routing::Pim::Reliable;
using PimTest::Bytes;

class PortFrameTest : public PimTest::TraceTest {};

// A Join/Prune for one group, written behind a frame header; the frame's bytes.
Bytes framedJoinPrune(Nimo::AddressFamily af) {
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
  const std::uint32_t n = m.writeJoinPruneMessage(pkt, kPortHeaderSize, nullptr);
  EXPECT_NE(n, 0u);
  EXPECT_EQ(writePortHeader(pkt, 0, kPortTypeJoinPrune, n), kPortHeaderSize + n);
  return PimTest::bytesOf(*pkt, kPortHeaderSize + n);
}

TEST_F(PortFrameTest, JoinPruneGoesRoundInBothFamiliesAndEveryPrefixFails) {
  for (const auto af : {Nimo::AddressFamily::ipv4, Nimo::AddressFamily::ipv6}) {
    const Bytes frame = framedJoinPrune(af);
    const auto len = static_cast<std::uint16_t>(frame.size() - 4);
    EXPECT_EQ(PimTest::toHex(Bytes(frame.begin(), frame.begin() + 8)),
              PimTest::toHex({0, 1, static_cast<std::uint8_t>(len >> 8),
                              static_cast<std::uint8_t>(len), 0, 0, 0, 0}));
    // Two frames back to back, as on a byte stream: the first ends where the second starts.
    Bytes two = frame;
    two.insert(two.end(), frame.begin(), frame.end());
    PortFrame f;
    ASSERT_EQ(readPortFrame(PimTest::pkt(two), 0, f), frame.size());
    EXPECT_EQ(f.pimOffset, kPortHeaderSize);
    EXPECT_EQ(f.pimLength, frame.size() - kPortHeaderSize);
    ASSERT_EQ(readPortFrame(PimTest::pkt(two), static_cast<std::uint32_t>(frame.size()), f),
              frame.size());
    EXPECT_EQ(f.pimOffset, frame.size() + kPortHeaderSize);
    // The message inside decodes with the unspecified pseudo-header addresses.
    auto rx = Kel::Ptr<Routing::Pim::Packet::JoinPruneMessage>::make();
    rx->srcIpIs(portMessageAddr(af));
    rx->dstIpIs(portMessageAddr(af));
    ASSERT_EQ(rx->readJoinPruneMessage(
                  PimTest::pkt(Bytes(frame.begin() + kPortHeaderSize, frame.end())), 0, nullptr),
              f.pimLength);
    EXPECT_EQ(rx->joinPruneData()->holdTime(), 210);
    for (long n = 0; n < static_cast<long>(frame.size()); ++n) {
      clear();
      EXPECT_EQ(readPortFrame(PimTest::pkt(Bytes(frame.begin(), frame.begin() + n)), 0, f), 0u)
          << n;
      EXPECT_EQ(errors().size(), 1u) << n;
    }
  }
}

TEST_F(PortFrameTest, BadFramesFailWithOneLine) {
  struct Row {
    Bytes in;
    std::uint32_t offset;
    std::string error;
  };
  const Row rows[] = {
      {{0, 3, 0, 8, 0, 0, 0, 0, 0x23, 0, 0, 0}, 0, "Invalid Port Frame - Unknown Type: 3"},
      {{0, 1, 0, 7, 0, 0, 0, 0, 0x23, 0, 0},
       0,
       "Invalid Port Frame - Join/Prune Length: 7 Expected: 8"},
      {{0, 2, 0, 5, 0, 0, 0, 0, 0}, 0, "Invalid Port Frame - Keep-Alive Length: 5 Expected: 4"},
      {{0, 1, 0xff, 0xff, 0, 0, 0, 0},
       0,
       "Invalid Port Frame - Message Length: 65535 Remaining: 4"},
      {{0, 2, 0, 4, 0, 0, 0, 0}, 9, "Invalid Port Frame - Header - Read Error - Remaining: 0"},
  };
  for (const auto& r : rows) {
    clear();
    PortFrame f;
    EXPECT_EQ(readPortFrame(PimTest::pkt(r.in), r.offset, f), 0u) << r.error;
    EXPECT_EQ(errors(), only(r.error));
  }
  // Keep-alive: consumed, no message.
  PortFrame f;
  EXPECT_EQ(readPortFrame(PimTest::pkt({0, 2, 0, 4, 0, 0, 0, 0}), 0, f), 8u);
  EXPECT_EQ(f.pimLength, 0u);
  // Writer refusals: a message too short to be PIM, a keep-alive with a body, no room.
  auto small = Nimo::Pkt::create(10);
  EXPECT_EQ(writePortHeader(small, 0, kPortTypeJoinPrune, 3), 0u);
  EXPECT_EQ(writePortHeader(small, 0, kPortTypeKeepAlive, 4), 0u);
  EXPECT_EQ(writePortHeader(small, 0, kPortTypeJoinPrune, 4), 0u);
  EXPECT_EQ(writePortHeader(small, 0, 7, 0), 0u);
}

}  // namespace
