// The next-hop-tracking RPF machine over real tracking tables: a unicast and a multicast RIB
// written here, resolved by the routing agent's resolver, read back through the client's
// status and backlogs. Registrations, the multicast-first rule, RP moves, equal resolutions,
// the RIB assertion, sliced publication, and exactness over random churn.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "Pim/RpfRouteSm.h"
#include "tests/PimIOTestUtil.h"
#include "tests/PimTestUtil.h"
#include "tests/RpfAgentUtil.h"

namespace {

using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
using namespace Routing::Pim;
using PimTest::noRpf;
using PimTest::rpfOn;
constexpr auto kV4 = Nimo::AddressFamily::ipv4;
using Addrs = std::set<IpGenAddr>;
using Keys = std::set<RouteKey>;

RouteKey sg(const char* s, const char* g) { return RouteKey(IpGenAddr(s), IpGenAddr(g)); }
RouteKey wc(const char* g) { return RouteKey(IpGenAddr(g)); }

class RpfRouteSmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Flicklog::facility("RpfRouteSm").levelIs(8);
    const std::string path = Routing::ribMountPath(kV4, "default");
    fec_ = Routing::Fib::FecWriter::create(path, "fec", 1 << 12, clock_);
    for (int m = 0; m < 2; ++m) {
      rib_[m] = Routing::Fib::RouteWriter::create(path, m ? "mrib" : "urib", fec_, 1 << 12);
      rib_[m]->commit();
      shadow_[m] = Routing::Shadow::Status::create(loop_, path, m ? "mrib" : "urib");
      cfg_[m] = Routing::NexthopVrfConfig::create(loop_, kV4, "default", kRib[m], "sm");
      st_[m] = Routing::NexthopVrfStatus::create(loop_, kV4, "default", kRib[m]);
    }
    agentUp();
    agent_.notifierIs(status_);
    start();
  }
  void TearDown() override { Flicklog::facility("RpfRouteSm").levelIs(0); }
  // The routing agent: one resolver per RIB; again to restart it, after a turn without it as
  // a real restart has (a writer replaced within one turn is not seen to go).
  void agentUp() {
    for (auto& r : resolver_) r = nullptr;
    for (int j = 0; j < 8; ++j) loop_.runOnce(0.0);
    for (int m = 0; m < 2; ++m) {
      resolver_[m] = Routing::NexthopResolver::create(
          loop_.timers(), shadow_[m]->trie(),
          Routing::NexthopVrfStatusWriter::create(kV4, "default", kRib[m]));
      resolver_[m]->clientIs(loop_, "default", kRib[m], "sm");
      resolver_[m]->resolveAll();
    }
  }
  void start() {
    sm_ = nullptr;
    const auto t = rpfRouteTracking(cfg_[0], cfg_[1], st_[0], st_[1]);
    sm_ = rpfRouteSmFactory(kV4, config_, status_, nullptr, clock_, loop_.timers(), t);
  }
  void route(int m, const char* p, std::uint32_t metric) {
    const Routing::Fib::Via v[] = {{IpGenAddr("10.0.1.2"), Nimo::IntfId("eth1")}};
    rib_[m]->routeIs(IpGenPrefix(p), Routing::Fib::RouteType::remote, metric, 0, v);
    rib_[m]->commit();
  }
  void unroute(int m, const char* p) {
    rib_[m]->routeDel(IpGenPrefix(p));
    rib_[m]->commit();
  }
  void write(const RouteKey& k, const IpGenAddr& target, RpfRib rib = RpfRib::U) {
    config_->rpfConfigInfoIs(k, RpfConfigInfo(rpfOn("0.0.0.0/0", target, rib)));
  }
  // Runs the loop and the reviews to quiescence; returns what was published since the last
  // call, failing on any key published twice.
  Keys settle() {
    // Shared-memory readers keep timers of their own: wait only for the machine's.
    for (int i = 0; i < 3; ++i) {
      for (int j = 0; j < 8; ++j) loop_.runOnce(0.0);
      if (sm_) PimTest::settleLoop(loop_, *clock_, [&] { return sm_->reviewScheduled(); });
    }
    Keys out;
    for (const auto& [k, n] : agent_.published) {
      EXPECT_EQ(n, 1) << k;
      out.insert(k);
    }
    agent_.published.clear();
    return out;
  }
  Addrs registered(int m) const {
    Addrs out;
    cfg_[m]->forEach([&](const IpGenAddr& a) { out.insert(a); });
    return out;
  }
  bool traced(std::string_view text) const { return PimTest::traced(capture_, text); }

  static constexpr const char* kRib[2] = {"unicast", "multicast"};
  PimTest::DrobeRoot root_;
  Kel::Ptr<Kel::ManualClock> clock_ = Kel::Ptr<Kel::ManualClock>::make(10.0);
  Ulm::EventLoop loop_{clock_};
  Kel::Ptr<Routing::Fib::FecWriter> fec_;
  Kel::Ptr<Routing::Fib::RouteWriter> rib_[2];
  Kel::Ptr<Routing::Shadow::Status> shadow_[2];
  Kel::Ptr<Routing::NexthopResolver> resolver_[2];
  Kel::Ptr<Routing::NexthopVrfConfig> cfg_[2];
  Kel::Ptr<Routing::NexthopVrfStatus> st_[2];
  Kel::Ptr<RpfConfig> config_ = Kel::Ptr<RpfConfig>::make("config");
  Kel::Ptr<RpfStatus> status_ = Kel::Ptr<RpfStatus>::make("status");
  PimTest::Agent agent_;
  Kel::Ptr<RpfRouteSm> sm_;
  Flicklog::CaptureSink capture_;
};

// One scripted story; each step states what is published, what is registered (the same in
// both configurations), the RIB of S1's record and a trace line.
TEST_F(RpfRouteSmTest, ScriptedSteps) {
  const IpGenAddr s1("10.1.0.1"), s2("10.2.0.1"), rp1("10.9.0.1"), rp2("10.9.0.2");
  const RouteKey a = sg("10.1.0.1", "232.1.1.1"), b = sg("10.1.0.1", "232.1.1.2");
  const RouteKey c = sg("10.2.0.1", "232.1.1.1"), w = wc("239.1.1.1");
  const RouteKey both = sg("10.9.0.2", "232.1.1.3");
  route(0, "10.0.0.0/8", 1);
  struct Step {
    const char* what;
    std::function<void()> act;
    Keys published;
    Addrs regs;
    RpfRib s1Rib;
    const char* trace;
  };
  using R = RpfRib;
  // clang-format off
  const Step steps[] = {
    {"two (S,G)s of S1: one record; the first resolution publishes both",
     [&] { write(a, s1), write(b, s1); }, {a, b}, {s1}, R::U, "Watching source 10.1.0.1"},
    {"one removed: still registered", [&] { config_->rpfConfigInfoDel(a); }, {}, {s1}, R::U, ""},
    {"both removed: unregistered from both", [&] { config_->rpfConfigInfoDel(b); }, {}, {},
     R::none, "Stop watching source 10.1.0.1"},
    {"back: its first resolution publishes it", [&] { write(a, s1); }, {a}, {s1}, R::U, ""},
    {"unicast update", [&] { route(0, "10.0.0.0/8", 2); }, {a}, {s1}, R::U,
     " Urib route updated for 10.1.0.1"},
    {"multicast addition moves S1 to M", [&] { route(1, "10.1.0.0/16", 1); }, {a}, {s1}, R::M,
     " Mrib route added for 10.1.0.1"},
    {"unicast change on M: ignored", [&] { route(0, "10.1.0.0/16", 1); }, {}, {s1}, R::M,
     " Ignoring Urib route change for 10.1.0.1"},
    {"multicast deletion falls back to U", [&] { unroute(1, "10.1.0.0/16"); }, {a}, {s1}, R::U,
     " Mrib route deleted, Urib route available for 10.1.0.1"},
    {"a (*,G) tracks its RP", [&] { write(w, rp1); }, {w}, {s1, rp1}, R::U, "Watching rp 10.9.0.1"},
    {"RP change: the group moves, the old RP goes", [&] { write(w, rp2); }, {w}, {s1, rp2}, R::U,
     "Stop watching rp 10.9.0.1"},
    {"source and RP at once: one record", [&] { write(both, rp2); }, {}, {s1, rp2}, R::U, ""},
    {"its change publishes both kinds", [&] { route(0, "10.9.0.0/16", 1); }, {w, both}, {s1, rp2},
     R::U, " Urib route updated for 10.9.0.2"},
    {"restarted routing agent, equal answers: nothing", [&] { agentUp(); }, {}, {s1, rp2}, R::U,
     ""},
    {"the (S,G) side gone: still the RP", [&] { config_->rpfConfigInfoDel(both); }, {}, {s1, rp2},
     R::U, ""},
    {"empty Rpf: unresolved and unwatched",
     [&] { config_->rpfConfigInfoIs(a, RpfConfigInfo(noRpf(s1))); }, {}, {rp2}, R::none,
     " Adding to unresolvedRoute key (10.1.0.1, 232.1.1.1)"},
    {"unicast deletion under S2", [&] { write(c, s2), settle(), unroute(0, "10.0.0.0/8"); }, {c},
     {rp2, s2}, R::none, " Urib route deleted, no route available for 10.2.0.1"},
    {"multicast only, then gone: no route",
     [&] { route(1, "10.2.0.0/16", 1), settle(), unroute(1, "10.2.0.0/16"); }, {c}, {rp2, s2},
     R::none, " Mrib route deleted, no route available for 10.2.0.1"},
  };
  // clang-format on
  for (const Step& s : steps) {
    SCOPED_TRACE(s.what);
    capture_.clear();
    s.act();
    EXPECT_EQ(settle(), s.published);
    EXPECT_EQ(registered(0), s.regs);
    EXPECT_EQ(registered(1), s.regs);
    auto r = sm_->routeSourceInfo().find(s1);
    EXPECT_EQ(r == sm_->routeSourceInfo().end() ? RpfRib::none : r->second.rib, s.s1Rib);
    if (*s.trace) {
      EXPECT_TRUE(traced(s.trace));
    }
    EXPECT_EQ(sm_->checkInvariantsForTest(), "");
  }
  EXPECT_EQ(status_->unresolvedRoute().at(a), s1);
  EXPECT_EQ(sm_->groupRp().at(IpGenAddr("239.1.1.1")).rp(), rp2);
  // Re-created over the same routes: registers what is in use, publishes nothing; gone, it
  // leaves nothing registered.
  start();
  EXPECT_EQ(settle(), Keys{});
  EXPECT_EQ(registered(0), (Addrs{rp2, s2}));
  sm_ = nullptr;
  settle();
  EXPECT_EQ(registered(0), Addrs{});
  EXPECT_EQ(registered(1), Addrs{});
}

TEST_F(RpfRouteSmTest, RibOtherThanUnicastOrMulticastIsAnAssertion) {
  EXPECT_DEATH(write(sg("10.1.0.1", "232.1.1.1"), IpGenAddr("10.1.0.1"), RpfRib::none),
               "rpf.rpfRib\\(\\) == U\\(\\) \\|\\| rpf.rpfRib\\(\\) == M\\(\\)");
}

// Random churn on 1,000 sources and 10 RPs: registrations always equal the addresses in use
// and end empty; a change of one address's resolution publishes exactly its dependents, each
// once, across reviews sliced to two keys.
TEST_F(RpfRouteSmTest, ExactnessUnderRandomChurn) {
  sm_->reviewDeadlineClockIs(Kel::Ptr<PimTest::SteppingClock>::make());
  sm_->reviewQuantumIs(2.0 / 1024);  // two keys a slice
  Flicklog::facility("RpfRouteSm").levelIs(4);
  route(0, "0.0.0.0/0", 1);
  std::mt19937 rng(16);
  auto pick = [&](std::uint32_t n) { return static_cast<std::uint32_t>(rng() % n); };
  auto src = [](std::uint32_t i) { return IpGenAddr::v4(0x0a000000u + (i << 4)); };
  auto rp = [](std::uint32_t i) { return IpGenAddr::v4(0x0b000000u + (i << 4)); };
  auto grp = [](std::uint32_t i) { return IpGenAddr::v4(0xe8000000u + i); };
  std::map<RouteKey, IpGenAddr> model;  // watched key -> tracked address
  std::uint32_t resolutionChanges = 0;
  for (int op = 0; op < 10000; ++op) {
    const std::uint32_t kind = pick(10);
    if (kind < 4) {  // an (S,G) added or its Rpf changed (sometimes to none)
      const RouteKey k(src(pick(1000)), grp(pick(20)));
      if (pick(8) == 0) {
        config_->rpfConfigInfoIs(k, RpfConfigInfo(noRpf(k.source())));
        model.erase(k);
      } else {
        write(k, k.source(), pick(2) ? RpfRib::U : RpfRib::M);
        model[k] = k.source();
      }
    } else if (kind < 6) {  // a (*,G) added or its RP changed
      const RouteKey k(grp(100 + pick(50)));
      const IpGenAddr r = pick(10) == 0 ? src(pick(1000)) : rp(pick(10));
      write(k, r);
      model[k] = r;
    } else if (kind < 9 && !model.empty()) {  // a route removed
      auto it = std::next(model.begin(), pick(static_cast<std::uint32_t>(model.size())));
      config_->rpfConfigInfoDel(it->first);
      model.erase(it);
    } else if (!model.empty() && op % 5 == 0) {  // one address's resolution changes
      settle();
      const IpGenAddr a =
          std::next(model.begin(), pick(static_cast<std::uint32_t>(model.size())))->second;
      Keys dependents;
      for (const auto& [k, t] : model)
        if (t == a) dependents.insert(k);
      const auto metric = static_cast<std::uint32_t>(op);
      const Routing::Fib::Via via[] = {{IpGenAddr("10.0.1.2"), Nimo::IntfId("eth1")}};
      // A record on M ignores unicast changes; make it answer from the multicast RIB too.
      const bool onM = sm_->routeSourceInfo().at(a).rib == RpfRib::M;
      for (int m = 0; m <= (onM ? 1 : 0); ++m) {
        rib_[m]->routeIs(IpGenPrefix(a, 32), Routing::Fib::RouteType::remote, metric, 0, via);
        rib_[m]->commit();
      }
      ASSERT_EQ(settle(), dependents) << "op " << op << " address " << a;
      ++resolutionChanges;
    }
    Addrs inUse;
    for (const auto& [k, t] : model) inUse.insert(t);
    ASSERT_EQ(sm_->routeSourceInfo().size(), inUse.size()) << "op " << op;
    if (op % 50 == 0) {
      ASSERT_EQ(registered(0), inUse) << "op " << op;
      ASSERT_EQ(registered(1), inUse) << "op " << op;
      ASSERT_EQ(sm_->checkInvariantsForTest(), "") << "op " << op;
    }
  }
  EXPECT_GT(resolutionChanges, 100u);
  EXPECT_TRUE(traced("RpfRouteSm: Suspending RPF route change review with "));
  config_->rpfConfigInfoDelAll();
  settle();
  EXPECT_TRUE(sm_->routeSourceInfo().empty());
  EXPECT_EQ(registered(0), Addrs{});
  EXPECT_EQ(registered(1), Addrs{});
}

}  // namespace
