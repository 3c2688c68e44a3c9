// The next-hop-tracking RPF machine end to end on a kernel's routes: ribd and nhtd run as
// their own processes over a namespace of this test; in the test process RpfRouteSm,
// RpfTable and a small agent (recompute each published route with RpfTable, write the Rpf).
// Routes change with `ip route`. Both families; root only; every wait is bounded.
#include <sys/wait.h>

#include <algorithm>

#include "Pim/RpfRouteSm.h"
#include "Pim/RpfTable.h"
#include "tests/netns/DaemonNetns.h"

namespace {

using Nimo::IpGenAddr;
using namespace Routing::Pim;

// One family's addresses: S1 and S2 under their own prefixes, two gateways on the link, a
// group of each kind.
struct Family {
  Nimo::AddressFamily af;
  const char* name;
  const char *s1Prefix, *s1, *s2Prefix, *s2, *gwA, *gwB, *group, *group2;
};
const Family kFamilies[] = {
    {Nimo::AddressFamily::ipv4, "IPv4", "10.1.0.0/16", "10.1.0.1", "10.2.0.0/16", "10.2.0.1",
     "10.77.0.2", "10.77.0.3", "232.1.1.1", "232.1.1.2"},
    {Nimo::AddressFamily::ipv6, "IPv6", "2001:db8:1::/48", "2001:db8:1::1", "2001:db8:2::/48",
     "2001:db8:2::1", "fd77::2", "fd77::3", "ff3e::1", "ff3e::2"},
};

class RpfRouteNetnsTest : public PimTest::DaemonNetnsTest<::testing::TestWithParam<Family>> {
 protected:
  RpfRouteNetnsTest() : DaemonNetnsTest("rrt") {}
  void SetUp() override {
    if (!ready()) return;
    const Family& f = GetParam();
    for (const char* p : {f.s1Prefix, f.s2Prefix})
      ASSERT_EQ(ip("route add {} via {}", p, f.gwA), 0);
    startRibd(100);
    startNhtd();
    const bool v4 = f.af == Nimo::AddressFamily::ipv4;
    for (int m = 0; m < 2; ++m) {
      const char* rib = m ? "multicast" : "unicast";
      cfg_[m] = Routing::NexthopVrfConfig::create(loop_, f.af, "default", rib, "sm");
      st_[m] = Routing::NexthopVrfStatus::create(loop_, f.af, "default", rib);
    }
    auto ucast = Kel::Ptr<UcastRouteStatus>::make(f.af);
    if (v4) {
      ucast->uribIs({st_[0], ::Drobe::Fib::ForwardingStatus::create(loop_, "default", "urib")});
      ucast->mribIs({st_[1], ::Drobe::Fib::ForwardingStatus::create(loop_, "default", "mrib")});
    } else {
      ucast->urib6Is({st_[0], ::Drobe::Fib6::ForwardingStatus::create(loop_, "default", "urib")});
      ucast->mrib6Is({st_[1], ::Drobe::Fib6::ForwardingStatus::create(loop_, "default", "mrib")});
    }
    table_ = rpfTableFactory(ucast, pimStatus(v4 ? "10.77.0.1" : "fd77::1", {f.gwA, f.gwB}),
                             nullptr, nullptr, nullptr);
    // The agent: each published route is looked up again and its new Rpf written.
    agent_.recompute = [this](const RouteKey& k) {
      const IpGenAddr target = k.isStarG() ? config_->rpfConfigInfo(k)->rpf.target : k.source();
      Rpf rpf = table_->doLookup(target, k.group()).rpf;
      if (rpf.rpfIntf.empty()) return;  // keeps the old Rpf; this test has no unresolved routes
      rpf.target = target;
      config_->rpfConfigInfoIs(k, RpfConfigInfo(rpf));
    };
    agent_.notifierIs(status_);
    start();
  }
  void TearDown() override {
    sm_ = nullptr;
    DaemonNetnsTest::TearDown();
  }
  void start() {
    sm_ = nullptr;
    const auto t = rpfRouteTracking(cfg_[0], cfg_[1], st_[0], st_[1]);
    sm_ = rpfRouteSmFactory(GetParam().af, config_, status_, nullptr, loop_.clock(), loop_.timers(),
                            t);
  }
  // Observed: n more addresses taken from the backlogs (equal ones included).
  std::function<bool()> drained(std::uint64_t n) {
    const std::uint64_t want = sm_->stats().backlogEntries + n;
    return [this, want] { return sm_->stats().backlogEntries >= want; };
  }
  IpGenAddr neighbor(const RouteKey& k) const { return config_->rpfConfigInfo(k)->rpf.rpfNeighbor; }
  // The gateway `ip route get` names for a.
  IpGenAddr kernelVia(const char* a) {
    const std::string out =
        PimTest::runCommand(fmt::format("ip -n {} route get {}", ns_, a), false).out;
    const auto at = out.find(" via ");
    if (at == std::string::npos) return IpGenAddr();
    return IpGenAddr(out.substr(at + 5, out.find(' ', at + 5) - at - 5));
  }
  Keys keysOf(const char* s) const {
    return {RouteKey(IpGenAddr(s), IpGenAddr(GetParam().group)),
            RouteKey(IpGenAddr(s), IpGenAddr(GetParam().group2))};
  }
  // The agent's first Rpf for a new route is a placeholder on the unicast RIB; the first
  // resolution of its source publishes it and the agent writes the real one. True once every
  // route points at gwA.
  bool routesUp(const Keys& keys) {
    const char* any = GetParam().af == Nimo::AddressFamily::ipv4 ? "0.0.0.0/0" : "::/0";
    for (const RouteKey& k : keys)
      config_->rpfConfigInfoIs(k, RpfConfigInfo(PimTest::rpfOn(any, k.source())));
    const bool up = waitFor([&] {
      return std::all_of(keys.begin(), keys.end(), [&](const RouteKey& k) {
        return neighbor(k) == IpGenAddr(GetParam().gwA);
      });
    });
    published([] { return true; });  // what is left of the start
    return up;
  }
  bool registeredBoth(const char* a) const {
    return cfg_[0]->nexthop(IpGenAddr(a)) && cfg_[1]->nexthop(IpGenAddr(a));
  }

  Kel::Ptr<Routing::NexthopVrfConfig> cfg_[2];
  Kel::Ptr<Routing::NexthopVrfStatus> st_[2];
  Kel::Ptr<RpfTable> table_;
  Kel::Ptr<RpfConfig> config_ = Kel::Ptr<RpfConfig>::make("config");
  Kel::Ptr<RpfStatus> status_ = Kel::Ptr<RpfStatus>::make("status");
  Kel::Ptr<RpfRouteSm> sm_;
};

TEST_P(RpfRouteNetnsTest, KernelRouteChangesPublishExactlyTheirDependents) {
  const Family& f = GetParam();
  const Keys k1 = keysOf(f.s1), k2 = keysOf(f.s2);
  ASSERT_TRUE(routesUp(k1) && routesUp(k2));
  EXPECT_TRUE(registeredBoth(f.s1) && registeredBoth(f.s2));

  ASSERT_EQ(ip("route replace {} via {}", f.s1Prefix, f.gwB), 0);
  EXPECT_EQ(published(), k1);
  for (const RouteKey& k : k1) EXPECT_EQ(neighbor(k), kernelVia(f.s1)) << k;
  EXPECT_EQ(kernelVia(f.s1), IpGenAddr(f.gwB));

  ASSERT_EQ(ip("route add table 100 {} via {}", f.s2Prefix, f.gwB), 0);
  EXPECT_EQ(published(), k2);
  EXPECT_EQ(sm_->routeSourceInfo().at(IpGenAddr(f.s2)).rib, RpfRib::M);
  for (const RouteKey& k : k2) EXPECT_EQ(config_->rpfConfigInfo(k)->rpf.rib, RpfRib::M);

  const std::uint64_t ignored = sm_->stats().ignored;
  ASSERT_EQ(ip("route replace {} via {}", f.s2Prefix, f.gwB), 0);
  EXPECT_EQ(published([&] { return sm_->stats().ignored > ignored; }), Keys{});

  ASSERT_EQ(ip("route del table 100 {}", f.s2Prefix), 0);
  EXPECT_EQ(published(), k2);
  EXPECT_EQ(sm_->routeSourceInfo().at(IpGenAddr(f.s2)).rib, RpfRib::U);
  for (const RouteKey& k : k2) EXPECT_EQ(config_->rpfConfigInfo(k)->rpf.rib, RpfRib::U);

  for (const RouteKey& k : k1) config_->rpfConfigInfoDel(k);
  EXPECT_TRUE(waitFor(
      [&] { return !cfg_[0]->nexthop(IpGenAddr(f.s1)) && !cfg_[1]->nexthop(IpGenAddr(f.s1)); }));
  ASSERT_EQ(ip("route replace {} via {}", f.s1Prefix, f.gwA), 0);
  EXPECT_EQ(published([] { return true; }, 1.0), Keys{});  // nothing to wait for: S1 untracked
}

// A burst of replaces, the adapter killed and restarted, the machine re-created.
TEST_P(RpfRouteNetnsTest, ChurnAndCrashes) {
  const Family& f = GetParam();
  const Keys k1 = keysOf(f.s1), k2 = keysOf(f.s2);
  ASSERT_TRUE(routesUp(k1) && routesUp(k2));
  // 1,000 replaces of S1's prefix in a burst: S1's routes at most once per review pass, and
  // the backlog never larger than the tracked set.
  const std::string batch = fmt::format("/tmp/rrt{}.batch", ::getpid());
  if (FILE* b = std::fopen(batch.c_str(), "w")) {
    for (int i = 0; i < 1000; ++i)
      fmt::print(b, "route replace {} via {}\n", f.s1Prefix, i % 2 ? f.gwB : f.gwA);
    std::fclose(b);
  }
  agent_.published.clear();
  std::size_t maxBacklog = 0;
  const std::uint64_t passes = sm_->reviewStats().runs;
  const pid_t burst = PimTest::spawn(fmt::format("exec ip -n {} -batch {}", ns_, batch));
  int status = -1;
  for (int i = 0; i < 500 && status == -1; ++i) {
    if (::waitpid(burst, &status, WNOHANG) != burst) status = -1;
    loop_.runOnce(0.01);
    maxBacklog = std::max(maxBacklog, sm_->tracking().uribBacklog->size());
  }
  EXPECT_EQ(status == -1 ? PimTest::waitChild(burst, 10) : status, 0) << "ip -batch";
  std::remove(batch.c_str());
  ASSERT_TRUE(waitFor([&] { return neighbor(*k1.begin()) == kernelVia(f.s1); }));
  linger(1.0);
  EXPECT_LE(maxBacklog, sm_->routeSourceInfo().size());
  std::map<RouteKey, int> seen;
  for (const auto& [k, n] : agent_.published) seen[k] += n;
  EXPECT_FALSE(seen.empty());
  for (const auto& [k, n] : seen) {
    EXPECT_TRUE(k1.count(k)) << k;
    EXPECT_LE(static_cast<std::uint64_t>(n), sm_->reviewStats().runs - passes) << k;
  }

  // The adapter killed; restarted over unchanged routes: nothing. Killed again, S1's route
  // changed meanwhile: exactly S1's routes.
  stop(nhtd_, SIGKILL);
  startNhtd();
  // A restarted adapter's first full pass puts every registered address on both backlogs.
  const std::size_t all = 2 * sm_->routeSourceInfo().size();
  EXPECT_EQ(published(drained(all)), Keys{});
  stop(nhtd_, SIGKILL);
  const IpGenAddr other(kernelVia(f.s1) == IpGenAddr(f.gwA) ? f.gwB : f.gwA);
  ASSERT_EQ(ip("route replace {} via {}", f.s1Prefix, other), 0);
  startNhtd();
  EXPECT_EQ(published(), k1);
  for (const RouteKey& k : k1) EXPECT_EQ(neighbor(k), other) << k;

  // Re-created: the same registrations, nothing published; gone: nothing registered.
  start();
  EXPECT_EQ(published([] { return true; }, 1.0), Keys{});
  EXPECT_TRUE(registeredBoth(f.s1) && registeredBoth(f.s2));
  EXPECT_EQ(sm_->checkInvariantsForTest(), "");
  sm_ = nullptr;
  EXPECT_EQ(cfg_[0]->size() + cfg_[1]->size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Families, RpfRouteNetnsTest, ::testing::ValuesIn(kFamilies),
                         [](const auto& i) { return std::string(i.param.name); });

}  // namespace
