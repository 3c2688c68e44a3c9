// PortPamManager and PortSctpPam through the fake behind Nimo::SctpPam's seam: lifecycle,
// neighbour lookups, association set-up, and Join/Prunes both ways over a fake association.
#include <gtest/gtest.h>

#include "Pim/PortFrame.h"
#include "Pim/PortPam.h"
#include "tests/PimTestUtil.h"
#include "tests/SctpFake.h"

namespace {

using namespace Routing::Pim::Reliable;
namespace D = Routing::Pim::Drobe;
using Nimo::IpGenAddr;
using Nimo::Sctp::AssocState;
using PimTest::FakeSctp;

[[maybe_unused]] auto* const kRoot =
    ::testing::AddGlobalTestEnvironment(new PimTest::PrivateDrobeRoot("portpam"));

const Nimo::IntfId kIntf("eth1");

struct PortPamTest : ::testing::Test {
  void SetUp() override {
    static int n = 0;
    status = D::statusFactory("test/port/" + std::to_string(++n));
    ASSERT_TRUE(status->mountWriter());
    mgr = portPamManagerFactory("port", "", status, PimTest::fakeFactory(fake));
    mgr->scopeIdOfIs([](const Nimo::IntfId&) { return 7u; });
    trace.levelIs(9);
  }
  void TearDown() override { trace.levelIs(0); }
  void neighbor(const char* addr, const char* conn, Protocol p = Protocol::Sctp,
                InterfaceId id = {}) {
    D::Neighbor nb(D::NeighborKey(IpGenAddr(addr), kIntf), 105, {}, {}, {});
    nb.portInfoIs(NeighborInfo(IpGenAddr(conn), CapabilityFlags(false, true), id));
    nb.transportProtocolIs(p);
    ASSERT_TRUE(status->neighborIs(nb));
    status->neighborCommit();
  }
  std::vector<std::string> lines(int level) const {
    std::vector<std::string> out;
    for (const auto& l : capture.lines())
      if (l.level == level && l.facility == "Pim::Port::IO") out.push_back(l.text);
    return out;
  }
  Flicklog::Facility& trace = Flicklog::facility("Pim::Port::IO");
  Flicklog::CaptureSink capture;
  Kel::Ptr<FakeSctp> fake = Kel::Ptr<FakeSctp>::make();
  Kel::Ptr<D::Status> status;
  Kel::Ptr<PortPamManager> mgr;
};

TEST_F(PortPamTest, InitialisesInOrderAndEnablingOnlyFlipsTheMode) {
  mgr->enabledIs(true);
  EXPECT_FALSE(mgr->sctpPam());  // nothing before initialisation
  mgr->handleInitialized();
  EXPECT_EQ(lines(4), (std::vector<std::string>{"port: handleInitialized - txMessageInfo",
                                                "port: handleInitialized - rxMessageInfo",
                                                "port: handleInitialized - sctpStatus",
                                                "port: handleInitialized - sctpPam"}));
  ASSERT_TRUE(mgr->initialized());
  EXPECT_EQ(mgr->sctpPam()->mode(), 1);
  ASSERT_EQ(fake->binds.size(), 1u);
  EXPECT_EQ(fake->binds[0].port, 8471);
  EXPECT_EQ(fake->listens.size(), 1u);
  const auto pam = mgr->sctpPam();
  for (bool e : {false, true, false}) {
    mgr->enabledIs(e);
    EXPECT_EQ(mgr->sctpPam()->mode(), e ? 1 : 0);
    EXPECT_EQ(mgr->sctpPam()->enabled(), e);
  }
  EXPECT_EQ(mgr->sctpPam(), pam);
  EXPECT_TRUE(pam->ok());
  EXPECT_FALSE(fake->closed);
  EXPECT_EQ(fake->opened, 1);
}

TEST_F(PortPamTest, NoSocketStillInitialises) {
  fake->openError = EPERM;
  mgr->handleInitialized();
  EXPECT_TRUE(mgr->initialized());
  EXPECT_FALSE(mgr->sctpPam()->ok());
  EXPECT_EQ(mgr->sctpPam()->createErrors(), 1u);
  EXPECT_TRUE(fake->binds.empty());
}

TEST_F(PortPamTest, PamForNeighborBySctpRecordAndStatus) {
  mgr->handleInitialized();
  neighbor("10.0.0.2", "10.9.0.2");
  EXPECT_EQ(mgr->getPamForNeighbor(IpGenAddr("10.0.0.2")), Kel::Ptr<Nimo::SctpPam>(mgr->sctpPam()));
  EXPECT_EQ(lines(4).back(), "Neighbor 10.0.0.2 transport protocol sctp");
  EXPECT_FALSE(mgr->getPamForNeighbor(IpGenAddr("10.0.0.3")));
  auto noStatus = portPamManagerFactory("p2", "", nullptr, PimTest::fakeFactory(fake));
  noStatus->handleInitialized();
  EXPECT_FALSE(noStatus->getPamForNeighbor(IpGenAddr("10.0.0.2")));
  neighbor("10.0.0.4", "10.9.0.4", Protocol::Tcp);
  neighbor("10.0.0.5", "10.9.0.5", Protocol::None);
  const char* kText = "false && \"Transport protocol not supported\"";
  EXPECT_DEATH(mgr->getPamForNeighbor(IpGenAddr("10.0.0.4")), kText);
  EXPECT_DEATH(mgr->getPamForNeighbor(IpGenAddr("10.0.0.5")), kText);
}

TEST_F(PortPamTest, SetupConnectsOnceToARealConnectionAddress) {
  struct Row {
    const char* nbr;        // the neighbour asked for
    const char* conn;       // its record's connection address; null: no record
    const char* connected;  // where the one connect went; null: none
    std::uint32_t scope;
  };
  const Row rows[] = {
      {"10.0.0.2", nullptr, nullptr, 0},
      {"10.0.0.3", "0.0.0.0", nullptr, 0},
      {"fe80::3", "::", nullptr, 0},
      {"10.0.0.4", "10.9.0.4", "10.9.0.4", 0},
      {"fe80::5", "2001:db8::5", "2001:db8::5", 0},
      {"fe80::6", "fe80::6", "fe80::6", 7},  // link-local: scoped by the interface
  };
  mgr->enabledIs(true);
  mgr->handleInitialized();
  for (const auto& r : rows) {
    fake->connects.clear();
    if (r.conn) neighbor(r.nbr, r.conn);
    mgr->setupNeighborAssociation(kIntf, IpGenAddr(r.nbr));
    ASSERT_EQ(fake->connects.size(), r.connected ? 1u : 0u) << r.nbr;
    if (!r.connected) continue;
    EXPECT_EQ(fake->connects[0].addr, IpGenAddr(r.connected));
    EXPECT_EQ(fake->connects[0].port, 8471);
    EXPECT_EQ(fake->connects[0].scopeId, r.scope);
    EXPECT_EQ(mgr->sctpPam()->txDstIpAddr(), IpGenAddr(r.connected));
  }
}

TEST_F(PortPamTest, JoinPruneGoesOutFramedAndComesBackDecodedGarbageIsCounted) {
  mgr->enabledIs(true);
  mgr->handleInitialized();
  D::Intf intf(kIntf, Nimo::IpGenAddrWithMask("10.0.0.1/24"));
  intf.portInterfaceIdIs(InterfaceId(1, 2));
  ASSERT_TRUE(status->pimIntfIs(intf));
  neighbor("10.0.0.2", "10.9.0.2", Protocol::Sctp, InterfaceId(9, 9));
  auto jp = Kel::Ptr<Routing::Pim::Packet::JoinPruneMessage>::make();
  auto data = Kel::Ptr<Routing::Pim::JoinPruneData>::make();
  data->upstreamNeighborIs(IpGenAddr("10.0.0.2"));
  data->holdTimeIs(210);
  data->joinPruneGroupDataIs(Nimo::IpGenPrefix(IpGenAddr("232.1.1.1"), 32))
      .joinedSourceIs(IpGenAddr("10.1.1.1"));
  jp->joinPruneDataIs(data);
  const auto post = [&] {
    mgr->txMessageInfo()->neighborAddrIs(IpGenAddr("10.0.0.2"));
    mgr->txMessageInfo()->joinPruneMessageIs(jp);
    mgr->txMessageInfo()->countInc();
  };
  post();  // no association yet: refused
  EXPECT_EQ(mgr->txInvalid(), 1u);
  EXPECT_TRUE(fake->sent.empty());
  fake->peers[5] = {IpGenAddr("10.9.0.2"), 8471, 0};
  fake->event(AssocState::Up, 5);
  mgr->handleReadable();
  ASSERT_EQ(mgr->sctpStatus()->upCount(), 1u);
  post();
  ASSERT_EQ(fake->sent.size(), 1u);
  EXPECT_EQ(fake->sent[0].id, 5u);
  EXPECT_EQ(mgr->txSuccess(), 1u);
  EXPECT_EQ(mgr->sctpPam()->txBytes(), fake->sent[0].bytes.size());
  // Our interface's Interface ID and an IPv4 Join/Prune option.
  PimTest::Bytes msg = fake->sent[0].bytes;
  ASSERT_GT(msg.size(), kPortJoinPruneOffset);
  const auto pim = static_cast<std::uint16_t>(msg.size() - kPortJoinPruneOffset);
  EXPECT_EQ(PimTest::Bytes(msg.begin() + 8, msg.begin() + 20),
            (PimTest::Bytes{0, 0, 0, 1, 0, 0, 0, 2, 0, 1, static_cast<std::uint8_t>(pim >> 8),
                            static_cast<std::uint8_t>(pim)}));
  // It comes back as the neighbour would send it, with the neighbour's Interface ID, behind
  // a keep-alive and an unknown message type, and with an unknown option after it.
  for (std::size_t i = 8; i < 16; ++i) msg[i] = (i == 11 || i == 15) ? 9 : 0;
  msg[3] += 4;
  msg.insert(msg.end(), {0, 7, 0, 0});
  PimTest::Bytes in = {0, 2, 0, 0, 0, 5, 0, 1, 0xaa};
  in.insert(in.end(), msg.begin(), msg.end());
  const IpGenAddr peer("10.9.0.2");
  fake->message({in}, 5, peer);
  // Garbage on the same association: a Join/Prune option that does not decode (the good
  // message after it still arrives), then a message whose length runs past its end.
  PimTest::Bytes bad = {0, 1, 0, 18, 0, 0, 0, 0, 0, 0, 0, 9, 0, 0, 0, 9, 0, 1, 0, 2, 0x23, 0};
  bad.insert(bad.end(), msg.begin(), msg.end());
  fake->message({bad}, 5, peer);
  fake->message({{0, 1, 0, 40, 0, 0}}, 5, peer);
  mgr->handleReadable();
  EXPECT_EQ(mgr->rxSuccess(), 2u);
  EXPECT_EQ(mgr->rxInvalid(), 2u);
  EXPECT_EQ(mgr->rxSkipped(), 3u);  // the unknown type and two unknown options
  const auto rx = mgr->rxMessageInfo()->joinPruneMessage();
  ASSERT_TRUE(rx);
  EXPECT_EQ(rx->joinPruneData()->holdTime(), 210);
  EXPECT_EQ(mgr->rxMessageInfo()->neighborAddr(), peer);
  EXPECT_EQ(mgr->rxMessageInfo()->intfId(), kIntf);
  EXPECT_EQ(mgr->rxInterfaceId(), InterfaceId(9, 9));
  EXPECT_EQ(mgr->rxMessageInfo()->count(), 2u);
  EXPECT_EQ(mgr->rxAssociationId(), 5u);
  EXPECT_EQ(mgr->sctpStatus()->upCount(), 1u);
  EXPECT_EQ(lines(1).size(), 3u);  // one refusal, two invalid messages
}

}  // namespace
