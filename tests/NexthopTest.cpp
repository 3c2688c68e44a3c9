// Next-hop tracking through shared memory: a client's registrations and backlog on one side,
// the resolver over a RIB shadow on the other. The backlog's invariants under churn, a
// second client, a restarted routing agent and a client that goes away.
#include <gtest/gtest.h>

#include "Pim/platform/Routing.h"
#include "tests/PimIOTestUtil.h"

namespace {

using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
constexpr auto kV4 = Nimo::AddressFamily::ipv4;

class NexthopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fec_ = Routing::Fib::FecWriter::create(path_, "fec", 1 << 10, clock_);
    urib_ = Routing::Fib::RouteWriter::create(path_, "urib", fec_, 1 << 10);
    urib_->commit();
    shadow_ = Routing::Shadow::Status::create(loop_, path_, "urib");
    agentUp();
    config_ = Routing::NexthopVrfConfig::create(loop_, kV4, "default", "unicast", "sm");
    status_ = Routing::NexthopVrfStatus::create(loop_, kV4, "default", "unicast");
    backlog_ = Routing::NexthopBacklog::create(status_, config_);
    turn();
  }
  void agentUp() {
    resolver_ = Routing::NexthopResolver::create(
        loop_.timers(), shadow_->trie(),
        Routing::NexthopVrfStatusWriter::create(kV4, "default", "unicast"));
    for (const char* c : {"sm", "bidir"}) resolver_->clientIs(loop_, "default", "unicast", c);
    resolver_->resolveAll();  // the shadow was loaded before this resolver: no onChangedAll
  }
  void turn() {
    for (int i = 0; i < 8; ++i) loop_.runOnce(0.0);
  }
  void route(const char* prefix, std::uint32_t metric, const char* hop = "10.0.1.2") {
    const Routing::Fib::Via v[] = {{IpGenAddr(hop), Nimo::IntfId("eth1")}};
    urib_->routeIs(IpGenPrefix(prefix), Routing::Fib::RouteType::remote, metric, 0, v);
    urib_->commit();
  }
  std::vector<IpGenAddr> drain() {
    std::vector<IpGenAddr> out;
    while (auto a = backlog_->backlogFront()) {
      out.push_back(*a);
      backlog_->backlogDel(*a);
    }
    return out;
  }
  Routing::NexthopStatusEntry entry(const char* a) {
    Routing::NexthopStatusEntry e;
    status_->entry(IpGenAddr(a), e);
    return e;
  }

  PimTest::DrobeRoot root_;
  const std::string path_ = Routing::ribMountPath(kV4, "default");
  Kel::Ptr<Kel::ManualClock> clock_ = Kel::Ptr<Kel::ManualClock>::make();
  Ulm::EventLoop loop_{clock_};
  Kel::Ptr<Routing::Fib::FecWriter> fec_;
  Kel::Ptr<Routing::Fib::RouteWriter> urib_;
  Kel::Ptr<Routing::Shadow::Status> shadow_;
  Kel::Ptr<Routing::NexthopResolver> resolver_;
  Kel::Ptr<Routing::NexthopVrfConfig> config_;
  Kel::Ptr<Routing::NexthopVrfStatus> status_;
  Kel::Ptr<Routing::NexthopBacklog> backlog_;
};

TEST_F(NexthopTest, BacklogHoldsOnlyRegisteredAddressesOncePerDrain) {
  route("10.1.0.0/16", 1);
  route("10.2.0.0/16", 1);
  for (const char* a : {"10.1.0.1", "10.1.0.2", "10.2.0.1"}) config_->nexthopIs(IpGenAddr(a));
  auto other = Routing::NexthopVrfConfig::create(loop_, kV4, "default", "unicast", "bidir");
  other->nexthopIs(IpGenAddr("10.1.0.9"));  // another client's address
  turn();
  ASSERT_TRUE(status_->synced());
  EXPECT_EQ(entry("10.1.0.9").prefix, IpGenPrefix("10.1.0.0/16"));  // resolved for bidir
  std::vector<IpGenAddr> first = drain();
  std::sort(first.begin(), first.end());
  EXPECT_EQ(first, (std::vector<IpGenAddr>{IpGenAddr("10.1.0.1"), IpGenAddr("10.1.0.2"),
                                           IpGenAddr("10.2.0.1")}));
  // 10,000 flaps of one route in a burst: its two registered addresses, once each.
  const std::size_t memBefore = backlog_->memoryBytes();
  for (int round = 0; round < 2; ++round) {
    for (std::uint32_t i = 0; i < 10000; ++i) {
      route("10.1.0.0/16", 2 + (i & 1));
      if (i % 1000 == 0) loop_.runOnce(0.0);
    }
    turn();
    EXPECT_EQ(backlog_->size(), 2u);
    EXPECT_FALSE(backlog_->backlogHas(IpGenAddr("10.2.0.1")));
    EXPECT_FALSE(backlog_->backlogHas(IpGenAddr("10.1.0.9")));
    EXPECT_EQ(drain().size(), 2u);
  }
  EXPECT_LE(backlog_->memoryBytes(), memBefore + 256);
  // An ECMP member withdrawn under the same prefix is a changed entry (a new FEC id).
  const std::uint32_t fecBefore = entry("10.2.0.1").fecId;
  const Routing::Fib::Via two[] = {{IpGenAddr("10.0.1.2"), Nimo::IntfId("eth1")},
                                   {IpGenAddr("10.0.1.3"), Nimo::IntfId("eth1")}};
  urib_->routeIs(IpGenPrefix("10.2.0.0/16"), Routing::Fib::RouteType::remote, 1, 0, two);
  urib_->commit();
  turn();
  drain();
  route("10.2.0.0/16", 1);
  turn();
  EXPECT_EQ(entry("10.2.0.1").fecId, fecBefore);
  EXPECT_EQ(drain(), std::vector<IpGenAddr>{IpGenAddr("10.2.0.1")});
  // nexthopDel of a pending address takes it out of the backlog.
  route("10.2.0.0/16", 5);
  turn();
  ASSERT_TRUE(backlog_->backlogHas(IpGenAddr("10.2.0.1")));
  config_->nexthopDel(IpGenAddr("10.2.0.1"));
  EXPECT_FALSE(backlog_->backlogHas(IpGenAddr("10.2.0.1")));
  EXPECT_EQ(backlog_->backlogFront(), std::nullopt);
}

TEST_F(NexthopTest, RestartedAgentNeverReadsAsDeleted) {
  route("10.1.0.0/16", 1);
  const std::vector<const char*> addrs = {"10.1.0.1", "10.1.0.2", "10.3.0.1"};
  for (const char* a : addrs) config_->nexthopIs(IpGenAddr(a));
  turn();
  drain();
  std::vector<Routing::NexthopStatusEntry> before;
  for (const char* a : addrs) before.push_back(entry(a));
  EXPECT_FALSE(before[2].resolved());  // tracked, no route
  // The agent goes away and a new one mounts an empty table: nothing enters the backlog
  // until its first full pass is published.
  resolver_ = nullptr;
  turn();
  auto out = Routing::NexthopVrfStatusWriter::create(kV4, "default", "unicast");
  turn();
  EXPECT_FALSE(status_->synced());
  EXPECT_EQ(backlog_->size(), 0u);
  out = nullptr;
  agentUp();
  turn();
  ASSERT_TRUE(status_->synced());
  for (std::size_t i = 0; i < addrs.size(); ++i) EXPECT_EQ(entry(addrs[i]), before[i]) << addrs[i];
  EXPECT_EQ(drain().size(), addrs.size());  // each once, re-read harmlessly
}

TEST_F(NexthopTest, ClientThatGoesAwayIsForgottenAndRelearnt) {
  route("10.1.0.0/16", 1);
  config_->nexthopIs(IpGenAddr("10.1.0.1"));
  turn();
  EXPECT_EQ(resolver_->tracked(), 1u);
  backlog_ = nullptr;
  config_ = nullptr;  // retires the client's table
  turn();
  EXPECT_EQ(resolver_->tracked(), 0u);
  EXPECT_FALSE(entry("10.1.0.1").resolved());
  config_ = Routing::NexthopVrfConfig::create(loop_, kV4, "default", "unicast", "sm");
  config_->nexthopIs(IpGenAddr("10.1.0.1"));
  turn();
  EXPECT_EQ(resolver_->tracked(), 1u);
  EXPECT_EQ(entry("10.1.0.1").prefix, IpGenPrefix("10.1.0.0/16"));
}

}  // namespace
