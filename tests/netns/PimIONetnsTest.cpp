// The receive side on real raw sockets: namespaces A and B joined by a veth; A sends PIM
// with a plain raw socket, B runs the I/O machine on its own socket.
#include <gmock/gmock.h>

#include "tests/PimIOTestUtil.h"
#include "tests/netns/NetnsUtil.h"

namespace {

using namespace PimTest;
using Routing::Pim::IO::MessageCounterType;

class PimIONetnsTest : public ::testing::TestWithParam<Nimo::AddressFamily> {
 protected:
  void SetUp() override {
    if (!isRoot()) GTEST_SKIP() << "needs root (network namespaces, raw sockets)";
    pair = std::make_unique<NetnsPair>();
    ASSERT_TRUE(pair->ok);
    v6 = GetParam() == Nimo::AddressFamily::ipv6;
    src = Nimo::IpGenAddr(v6 ? "fd77::1" : "10.77.0.1");
    all = Nimo::IpGenAddr(v6 ? "ff02::d" : "224.0.0.13");
    sender = std::make_unique<RawSender>(pair->a, v6 ? AF_INET6 : AF_INET, pair->ifIndexA);
    ASSERT_TRUE(sender->ok());
    rig = std::make_unique<IoRig>(GetParam(), Kel::Ptr<Kel::SystemClock>::make(), pair->b);
    ASSERT_TRUE(rig->mgr->pam()) << "no socket in " << pair->b;
    rig->intf(pair->vethB.c_str(), pair->ifIndexB);
    rig->mgr->rxMessageInfoIs(0);
    rig->mgr->rxMessageInfoIs(3);
    rig->start();
  }
  // Turns B's loop until pred holds (bounded).
  bool until(const std::function<bool()>& pred) { return waitLoop(rig->loop, pred); }

  DrobeRoot root;
  std::unique_ptr<NetnsPair> pair;
  std::unique_ptr<RawSender> sender;
  std::unique_ptr<IoRig> rig;
  bool v6 = false;
  Nimo::IpGenAddr src, all;
};

TEST_P(PimIONetnsTest, HelloArrivesWithInterfaceAndNeighbourAndIsCounted) {
  const char* intf = pair->vethB.c_str();
  // The kernel agrees that B joined the group on its veth.
  EXPECT_EQ(sh(fmt::format("ip -n {} maddr show dev {} | grep -q {}", pair->b, intf,
                           v6 ? "ff02::d" : "224.0.0.13")),
            0);
  ASSERT_TRUE(sender->send(all.str(), helloBytes(src, all)));
  const auto& info = rig->mgr->rxMessageInfo(0);
  ASSERT_TRUE(until([&] { return info->count() == 1; }));
  EXPECT_EQ(info->intfId(), Nimo::IntfId(intf));
  EXPECT_EQ(info->neighborAddr(), src);
  EXPECT_EQ(info->helloMessage()->holdTime(), 105);
  EXPECT_EQ(rig->rx(0, intf, MessageCounterType::success), 1u);
  EXPECT_EQ(rig->rx(0, "", MessageCounterType::success), 1u);

  // Told to take less than a Hello, the socket drops the next one as an error.
  auto& pam = *rig->mgr->pam();
  EXPECT_EQ(pam.maxRxPktData(), 65535u);
  pam.maxRxPktDataIs(8);
  ASSERT_TRUE(sender->send(all.str(), helloBytes(src, all)));
  ASSERT_TRUE(until([&] { return pam.rxErrors() == 1; }));
  EXPECT_EQ(info->count(), 1u);
}

TEST_P(PimIONetnsTest, UnregisteredTypesNeverReachUserSpace) {
  const auto& pam = *rig->mgr->pam();
  // An Assert-typed packet (only Hello and Join/Prune are registered), then a Hello.
  Bytes notWanted = helloBytes(src, all);
  notWanted[0] = 0x25;
  ASSERT_TRUE(sender->send(all.str(), notWanted));
  ASSERT_TRUE(sender->send(all.str(), helloBytes(src, all)));
  ASSERT_TRUE(until([&] { return rig->mgr->rxMessageInfo(0)->count() == 1; }));
  EXPECT_EQ(pam.rxPktCount(), 1u);
  EXPECT_EQ(rig->mgr->rxPamCounter()->count(), 1u);

  // Registering Assert rebuilds the filter: the next one is read (and counted, though
  // nothing decodes it here).
  rig->mgr->rxMessageInfoIs(5);
  ASSERT_TRUE(sender->send(all.str(), notWanted));
  ASSERT_TRUE(until([&] { return pam.rxPktCount() == 2; }));
}

// A Join/Prune before any Hello waits in B's queue; it reaches the agent once A is made a
// neighbour, and a second one, from a neighbour that never shows up, is purged.
TEST_P(PimIONetnsTest, JoinPruneWaitsForItsNeighbourOrIsPurged) {
  const Nimo::IntfId intf(pair->vethB);
  const auto& info = rig->mgr->rxMessageInfo(3);
  ASSERT_TRUE(sender->send(all.str(), joinPruneBytes(src, all)));
  ASSERT_TRUE(until([&] { return rig->io->pimUnresPktSize() == 1; }));
  EXPECT_EQ(info->count(), 0u);
  rig->status->activeNeighborIs({intf, src}, 105);
  EXPECT_EQ(info->count(), 1u);
  EXPECT_EQ(info->neighborAddr(), src);
  EXPECT_EQ(info->intfId(), intf);
  EXPECT_EQ(info->joinPruneMessage()->joinPruneData()->routes(), 1u);
  EXPECT_EQ(rig->io->pimUnresPktSize(), 0u);

  rig->status->activeNeighborDel({intf, src});
  rig->io->unresTimeoutIs(0.05);
  ASSERT_TRUE(sender->send(all.str(), joinPruneBytes(src, all)));
  ASSERT_TRUE(until([&] { return rig->io->pimUnresPktSize() == 1; }));
  EXPECT_TRUE(until([&] { return rig->io->pimUnresPktSize() == 0; }));
  EXPECT_EQ(info->count(), 1u);
  EXPECT_EQ(rig->rx(3, pair->vethB.c_str(), MessageCounterType::invalid), 1u);
  EXPECT_EQ(rig->rx(3, pair->vethB.c_str(), MessageCounterType::success), 1u);
}

// The kernel takes every option the access manager asks for, in both socket variants.
TEST_P(PimIONetnsTest, SocketVariantsTakeTheirOptions) {
  for (bool headerInclude : {false, true}) {
    auto m =
        Routing::Pim::IO::pamManagerFactory(L3::VrfName("v"), GetParam(), pair->b, headerInclude);
    ASSERT_TRUE(m->pam());
    const auto& pam = *m->pam();
    EXPECT_EQ(pam.optionErrors(), 0u);
    EXPECT_EQ(pam.options() & 0x1808u, 0x1808u);
    EXPECT_EQ((pam.options() & 0x0002u) != 0 || pam.ipv6HeaderInclude(), headerInclude);
    EXPECT_EQ(pam.param(6), 4u << 20);
    m->transparentIpIs(true);
    EXPECT_EQ(pam.options() & 0x0200u, 0x0200u);
  }
}

// A sending rig in A on its veth, whose PIM interface has primary address src.
std::unique_ptr<IoRig> senderRig(const NetnsPair& pair, Nimo::AddressFamily af, bool buildHeader,
                                 const Nimo::IpGenAddr& src) {
  auto r =
      std::make_unique<IoRig>(af, Kel::Ptr<Kel::SystemClock>::make(), pair.a, "txrig", buildHeader);
  r->intf(pair.vethA.c_str(), pair.ifIndexA);
  r->status->intfIs(Nimo::IntfId(pair.vethA), false, src);
  r->start();
  return r;
}

Kel::Ptr<Routing::Pim::Packet::HelloMessage> hello() {
  auto h = Kel::Ptr<Routing::Pim::Packet::HelloMessage>::make();
  h->holdTimeOptionIs(true);
  h->holdTimeIs(105);
  return h;
}

// A data Register too large for the link: the header says DF, so the kernel refuses it;
// the refusal is traced and counted, and the next message goes out as usual.
TEST_P(PimIONetnsTest, RegisterLargerThanTheMtuFailsAloneWithDontFragment) {
  auto tx = senderRig(*pair, GetParam(), true, src);
  const Nimo::IpGenAddr group(v6 ? "ff3e::9" : "232.9.9.9");
  Bytes inner(1600);
  if (v6) {
    Nimo::Ipv6Hdr(inner.data()).build(0, 1560, 17, 64, src, group);
  } else {
    Nimo::Ipv4Hdr(inner.data()).build(0, 1600, 64, 17, src, group);
  }
  auto reg = Kel::Ptr<Routing::Pim::Packet::RegisterMessage>::make();
  reg->rcvdPktIs(pkt(inner));
  Routing::Pim::IO::ioTrace().levelIs(1);
  Flicklog::CaptureSink capture;
  tx->send(reg, pair->vethA.c_str(), Nimo::IpGenAddr(v6 ? "fd77::2" : "10.77.0.2"));
  Routing::Pim::IO::ioTrace().levelIs(0);
  const char* intf = pair->vethA.c_str();
  EXPECT_EQ(tx->tx(1, intf, MessageCounterType::invalid), 1u);
  EXPECT_EQ(tx->tx(1, intf, MessageCounterType::success), 0u);
  EXPECT_EQ(tx->mgr->txPamCounter()->error(), 1u);
  ASSERT_FALSE(capture.lines().empty());
  EXPECT_THAT(capture.lines().back().text, ::testing::EndsWith(" failed to send."));

  tx->send(hello(), intf);
  EXPECT_EQ(tx->tx(0, intf, MessageCounterType::success), 1u);
  ASSERT_TRUE(until([&] { return rig->mgr->rxMessageInfo(0)->count() == 1; }));
  EXPECT_EQ(rig->mgr->rxMessageInfo(0)->neighborAddr(), src);
}

// Two link-local addresses on A's veth: whichever is the PIM interface's address is the
// source the Hello leaves with, and its checksum (which covers the source) holds at B, with
// the kernel building the header or the manager.
TEST(PimIONetnsTest6, ChecksumCoversTheLinkLocalSourceThePacketLeavesWith) {
  if (!isRoot()) GTEST_SKIP() << "needs root (network namespaces, raw sockets)";
  DrobeRoot root;
  NetnsPair pair("pll");
  ASSERT_TRUE(pair.ok);
  for (const char* a : {"fe80::a1", "fe80::a2"}) {
    ASSERT_EQ(sh(fmt::format("ip -n {} addr add {}/64 dev {} nodad", pair.a, a, pair.vethA)), 0);
  }
  IoRig b(Nimo::AddressFamily::ipv6, Kel::Ptr<Kel::SystemClock>::make(), pair.b);
  b.intf(pair.vethB.c_str(), pair.ifIndexB);
  b.mgr->rxMessageInfoIs(0);
  b.start();
  const auto& info = b.mgr->rxMessageInfo(0);
  std::uint32_t expected = 0;
  for (bool buildHeader : {false, true}) {
    for (const char* a : {"fe80::a2", "fe80::a1"}) {
      SCOPED_TRACE(fmt::format("{} header built {}", a, buildHeader));
      auto tx = senderRig(pair, Nimo::AddressFamily::ipv6, buildHeader, Nimo::IpGenAddr(a));
      tx->send(hello(), pair.vethA.c_str());
      ++expected;
      waitLoop(b.loop, [&] { return info->count() >= expected; });
      ASSERT_EQ(info->count(), expected);
      EXPECT_EQ(info->neighborAddr(), Nimo::IpGenAddr(a));
    }
  }
  EXPECT_EQ(b.rx(0, pair.vethB.c_str(), MessageCounterType::invalid), 0u);
}

INSTANTIATE_TEST_SUITE_P(Families, PimIONetnsTest,
                         ::testing::Values(Nimo::AddressFamily::ipv4, Nimo::AddressFamily::ipv6),
                         [](const auto& i) {
                           return i.param == Nimo::AddressFamily::ipv4 ? "IPv4" : "IPv6";
                         });

}  // namespace
