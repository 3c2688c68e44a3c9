// The RPF machines: linking, marking on RIB changes, the sliced review's exactly-once
// publication across suspensions, the unresolved-route retries, start-up, and a churn test
// against a brute-force oracle of real lookups.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "Pim/RpfSm.h"
#include "Pim/UnresolvedSm.h"
#include "tests/PimTestUtil.h"
#include "tests/RpfAgentUtil.h"
#include "tests/RpfTestUtil.h"

namespace {

using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
using namespace Routing::Pim;
using PimTest::Agent;
using PimTest::noRpf;
using PimTest::rpfOn;
using PimTest::settleLoop;
using Trie4 = Routing::Shadow::Status::Trie;
using Trie6 = Routing6::Shadow::Status::Trie;

const IpGenAddr kGroup("232.1.1.1");

RouteKey sg(const std::string& s, const IpGenAddr& g = kGroup) { return RouteKey(IpGenAddr(s), g); }
// Key i has the source 10.<i / 256>.<i % 256>.1, alone in its /24.
RouteKey sgOf(std::uint32_t i) { return RouteKey(IpGenAddr::v4(0x0a000001u + (i << 8)), kGroup); }

// Machines over tries the test writes directly: every insert and remove is a RIB notice.
class RpfSmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* f : {"RpfSm", "UnresolvedSm"}) Flicklog::facility(f).levelIs(8);
    agent_.notifierIs(status_);
  }
  void TearDown() override {
    for (const char* f : {"RpfSm", "UnresolvedSm"}) Flicklog::facility(f).levelIs(0);
  }
  void start(Kel::Ptr<const Trie4> urib, Kel::Ptr<const Trie4> mrib,
             Kel::Ptr<PimRpfTable> table = nullptr) {
    sm_ = rpfSmFactory(Nimo::AddressFamily::ipv4, config_, status_, urib, mrib, table, nullptr,
                       mfib_, clock_, loop_.timers());
    un_ = unresolvedSmFactory(status_, urib, mrib, clock_, loop_.timers());
  }
  void start() { start(urib_, mrib_); }
  void start6() {
    sm_ = rpfSmFactory(Nimo::AddressFamily::ipv6, config_, status_, urib6_, mrib6_, nullptr,
                       nullptr, mfib_, clock_, loop_.timers());
    un_ = unresolvedSmFactory(status_, urib6_, mrib6_, clock_, loop_.timers());
  }
  template <typename Trie>
  void route(Kel::Ptr<Trie>& t, const std::string& p, std::uint32_t metric = 0) {
    decltype(Trie::Entry::payload) r;
    r.prefix = IpGenPrefix(p);
    r.metric = metric;
    t->insert(r.prefix, r);
  }
  void write(const RouteKey& k, const Rpf& r) { config_->rpfConfigInfoIs(k, RpfConfigInfo(r)); }
  void settle() { settleLoop(loop_, *clock_); }
  // The keys a change marks, before any review; then the review runs.
  std::set<RouteKey> marked(const std::function<void()>& change) {
    capture_.clear();
    change();
    std::set<RouteKey> m = sm_->changeRpf();
    settle();
    return m;
  }
  bool traced(std::string_view text) const { return PimTest::traced(capture_, text); }
  void expectSound(bool quiescent = true) {
    EXPECT_EQ(sm_->checkInvariantsForTest(quiescent), "");
    EXPECT_EQ(un_->checkInvariantsForTest(quiescent), "");
  }

  Kel::Ptr<Kel::ManualClock> clock_ = Kel::Ptr<Kel::ManualClock>::make(10.0);
  Ulm::EventLoop loop_{clock_};
  Kel::Ptr<Trie4> urib_ = Kel::Ptr<Trie4>::make("urib", Nimo::AddressFamily::ipv4);
  Kel::Ptr<Trie4> mrib_ = Kel::Ptr<Trie4>::make("mrib", Nimo::AddressFamily::ipv4);
  Kel::Ptr<Trie6> urib6_ = Kel::Ptr<Trie6>::make("urib6", Nimo::AddressFamily::ipv6);
  Kel::Ptr<Trie6> mrib6_ = Kel::Ptr<Trie6>::make("mrib6", Nimo::AddressFamily::ipv6);
  Kel::Ptr<Routing::Multicast::Fib::Config> mfib_ =
      Kel::Ptr<Routing::Multicast::Fib::Config>::make("mfib");
  Kel::Ptr<RpfConfig> config_ = Kel::Ptr<RpfConfig>::make("config");
  Kel::Ptr<RpfStatus> status_ = Kel::Ptr<RpfStatus>::make("status");
  Agent agent_;
  Kel::Ptr<RpfSm> sm_;
  Kel::Ptr<UnresolvedSm> un_;
  Flicklog::CaptureSink capture_;
};

TEST_F(RpfSmTest, LinksUnlinksAndEntersUnresolvedRoutes) {
  start();
  const RouteKey a = sg("10.1.0.1"), b = sg("10.1.0.2"), wc(kGroup);
  write(a, rpfOn("10.1.0.0/16", a.source()));
  write(b, rpfOn("10.1.0.0/16", b.source()));
  EXPECT_TRUE(traced("adding 10.1.0.0/16 to RPF trie "));
  EXPECT_TRUE(traced("users left: 2"));
  capture_.clear();
  write(b, rpfOn("10.1.0.0/16", b.source()));  // the same Rpf: nothing at all
  write(RouteKey(IpGenAddr("2001:db8::1"), IpGenAddr("ff3e::1")),
        rpfOn("2001:db8::/32", IpGenAddr("2001:db8::1")));
  EXPECT_TRUE(capture_.texts().empty());
  config_->rpfConfigInfoDel(a);
  EXPECT_TRUE(traced("users left: 1"));
  EXPECT_EQ(sm_->userCount(IpGenPrefix("10.1.0.0/16")), 1u);
  // No RPF: unresolved with its target, linked nowhere; then back, and out of the set.
  write(b, noRpf(b.source()));
  EXPECT_TRUE(traced("RpfSm: RPF changed, adding (10.1.0.2, 232.1.1.1) to unresolved routes"));
  EXPECT_TRUE(traced("Deleting prefix from RPF trie "));
  EXPECT_EQ(status_->unresolvedRoute().at(b), b.source());
  EXPECT_EQ(sm_->trieSize(), 0u);
  write(wc, noRpf(IpGenAddr("10.9.9.9")));  // a (*,G) needs its RP
  EXPECT_EQ(status_->unresolvedWcRoute().at(wc), IpGenAddr("10.9.9.9"));
  expectSound(false);
  write(b, rpfOn("10.1.0.0/24", b.source()));
  EXPECT_TRUE(traced("RPF changed, removing (10.1.0.2, 232.1.1.1) from unresolved routes"));
  EXPECT_TRUE(status_->unresolvedRoute().empty());
  write(b, rpfOn("10.1.0.0/16", b.source(), RpfRib::M));
  EXPECT_TRUE(traced("prevRpfLen changed from 24 for key (10.1.0.2, 232.1.1.1)"));
  expectSound(false);
  config_->rpfConfigInfoDelAll();  // reconciled key by key
  settle();
  EXPECT_EQ(sm_->trieSize(), 0u);
  EXPECT_TRUE(status_->unresolvedWcRoute().empty());
  expectSound();
}

// Bad Rpfs are refused before any change: the range error reaches the writer and the
// machine is as it was; a RIB other than U or M is a programming error.
TEST_F(RpfSmTest, RefusesBadRpfsBeforeAnyChange) {
  start();
  const RouteKey a = sg("10.1.0.1");
  write(a, rpfOn("10.1.0.0/16", a.source()));
  Rpf hostBits = rpfOn("10.1.0.0/16", a.source());
  hostBits.prefix = IpGenPrefix(IpGenAddr("10.1.0.1"), 16);
  PimTest::expectRangeError([&] { write(a, RpfConfigInfo(hostBits).rpf); },
                            "Prefix::validAsPrefix != true not allowed");
  EXPECT_EQ(sm_->userCount(IpGenPrefix("10.1.0.0/16")), 1u);
  config_->rpfConfigInfoIs(a, RpfConfigInfo(rpfOn("10.1.0.0/16", a.source())));  // restore
  EXPECT_EQ(sm_->checkInvariantsForTest(), "");
  Rpf noRib = rpfOn("10.2.0.0/16", a.source(), RpfRib::none);
  EXPECT_DEATH(write(sg("10.2.0.1"), noRib),
               "rpf.rpfRib\\(\\) == U\\(\\) \\|\\| rpf.rpfRib\\(\\) == M\\(\\)");
}

// What each RIB change marks: the changeRpf set right after the change, before any review.
TEST_F(RpfSmTest, RibChangesMarkExactlyTheRoutesTheyCanMove) {
  route(urib_, "10.0.0.0/8");
  route(urib_, "10.1.0.0/16");
  route(urib_, "10.1.1.0/25");
  route(mrib_, "10.3.0.0/16");
  route(urib_, "10.3.0.0/16");
  start();
  std::set<RouteKey> in24;
  for (std::uint32_t i = 0; i < 64; ++i) {  // /16 users spread over 10.1.0.0-10.1.3.255
    const RouteKey k(IpGenAddr::v4(0x0a010000u + i * 16), kGroup);
    write(k, rpfOn("10.1.0.0/16", k.source()));
    if (IpGenPrefix("10.1.1.0/24").contains(k.source())) in24.insert(k);
  }
  const RouteKey on25 = sg("10.1.1.5"), onM = sg("10.1.1.200"), onM16 = sg("10.3.0.1");
  write(on25, rpfOn("10.1.1.0/25", on25.source()));
  write(onM, rpfOn("10.1.0.0/16", onM.source(), RpfRib::M));
  write(onM16, rpfOn("10.3.0.0/16", onM16.source(), RpfRib::M));
  settle();  // the start-up publication
  ASSERT_TRUE(sm_->changeRpf().empty());
  // A unicast /24 under the /16: its unicast users inside the /24; the multicast-linked one
  // stays, and the walk stops at the /25, which still has its unicast route.
  EXPECT_EQ(marked([&] { route(urib_, "10.1.1.0/24"); }), in24);
  EXPECT_TRUE(traced("Truncating subtree walk at 10.1.1.0/25"));
  // The same /24 in the multicast RIB moves every unicast-linked route under it.
  std::set<RouteKey> all24 = in24;
  all24.insert({on25, onM});
  EXPECT_EQ(marked([&] { route(mrib_, "10.1.1.0/24"); }), all24);
  EXPECT_TRUE(traced("subtree walk since route added to MRIB"));
  // Deleting a prefix marks its users; a unicast update spares multicast-linked users.
  EXPECT_EQ(marked([&] { urib_->remove(IpGenPrefix("10.1.1.0/25")); }), std::set<RouteKey>{on25});
  EXPECT_EQ(marked([&] { route(urib_, "10.3.0.0/16", 5); }), std::set<RouteKey>{});
  EXPECT_TRUE(traced("SGs are using the prefix in the MRIB"));
  EXPECT_EQ(marked([&] { route(urib_, "10.7.0.0/16"); }), std::set<RouteKey>{});
  EXPECT_EQ(marked([&] {
              mfib_->multipathControlIs(
                  Routing::Multicast::Fib::Config::MultipathControl::highestNexthop);
            }).size(),
            64u + 3);
  expectSound();
}

// IPv6, with an IPv4 route in the same config that the IPv6 machines leave alone: what each
// RIB change marks, and unresolved routes retried by a route under them, (*,G) first, the
// (*,G) by a route to its new RP and not by one to its old.
TEST_F(RpfSmTest, Ipv6MarksAndRetriesByTheSameRules) {
  for (const char* p : {"2001:db8::/32", "2001:db8:1::/48", "2001:db8:1:101::/64"})
    route(urib6_, p);
  start6();
  const RouteKey v4 = sg("10.1.0.1");
  write(v4, rpfOn("10.1.0.0/16", v4.source()));
  const IpGenAddr g6("ff3e::1");
  std::set<RouteKey> on48, in56;  // users of the /48 in its subnets :0, :100, :200, :300
  for (std::uint32_t i = 0; i < 64; ++i) {
    const RouteKey k(IpGenAddr(fmt::format("2001:db8:1:{:x}::{:x}", (i % 4) << 8, i + 1)), g6);
    write(k, rpfOn("2001:db8:1::/48", k.source()));
    on48.insert(k);
    if (i % 4 == 1) in56.insert(k);
  }
  const RouteKey on64(IpGenAddr("2001:db8:1:101::5"), g6);
  write(on64, rpfOn("2001:db8:1:101::/64", on64.source()));
  settle();
  EXPECT_EQ(sm_->trieSize(), 2u);  // the IPv4 route is not linked here
  const struct {
    std::function<void()> change;
    std::set<RouteKey> marked;
    const char* trace;
  } rows[] = {
      {[&] { route(urib6_, "2001:db8:1:100::/56"); }, in56,
       "Truncating subtree walk at 2001:db8:1:101::/64"},
      {[&] { urib6_->remove(IpGenPrefix("2001:db8:1:101::/64")); }, {on64}, ""},
      {[&] { route(urib6_, "2001:db8:7::/48"); }, {}, ""},
      {[&] { urib6_->remove(IpGenPrefix("2001:db8:1::/48")); }, on48, ""},
  };
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    EXPECT_EQ(marked(rows[i].change), rows[i].marked) << "row " << i;
    if (*rows[i].trace) {
      EXPECT_TRUE(traced(rows[i].trace)) << rows[i].trace;
    }
  }
  const RouteKey wc(g6), sg6(IpGenAddr("2001:db8:9::1"), g6);
  write(wc, noRpf(IpGenAddr("2001:db8:2::1")));
  write(sg6, noRpf(sg6.source()));
  write(wc, noRpf(IpGenAddr("2001:db8:b::1")));  // a new RP
  settle();
  agent_.order.clear();
  route(urib6_, "2001:db8:2::/48");
  EXPECT_FALSE(un_->reviewScheduled());
  route(urib6_, "2001:db8:8::/45");
  settle();
  EXPECT_EQ(agent_.order, (std::vector<RouteKey>{wc, sg6}));
  expectSound();
}

// Exactly once across suspensions, with a deadline clock that steps on every read: 1,000
// keys a slice, and between slices keys deleted (the bookmark's among them), marked before
// and after the bookmark, or rewritten by the agent from inside its handler.
TEST_F(RpfSmTest, ReviewPublishesEveryMarkedKeyExactlyOnce) {
  for (bool sync : {false, true}) {
    SCOPED_TRACE(sync ? "agent recomputing in its handler" : "agent draining only");
    capture_.clear();
    agent_.published.clear();
    config_->rpfConfigInfoDelAll();
    start();
    Flicklog::facility("RpfSm").levelIs(4);
    sm_->reviewDeadlineClockIs(Kel::Ptr<PimTest::SteppingClock>::make());
    sm_->reviewQuantumIs(1000.0 / 1024);
    constexpr std::uint32_t kKeys = 10000;
    auto prefixOf = [](std::uint32_t i) {
      return IpGenPrefix(IpGenAddr::v4(0x0a000000u + (i << 8)), 24).str();
    };
    for (std::uint32_t i = 0; i < kKeys; ++i) write(sgOf(i), rpfOn(prefixOf(i), sgOf(i).source()));
    std::map<RouteKey, int> owed;  // publications each key is owed: 0 or 1
    int duplicates = 0;
    auto markKey = [&](std::uint32_t i) {
      route(urib_, prefixOf(i));  // added: marks the users of the prefix itself
      urib_->remove(IpGenPrefix(prefixOf(i)));
      owed[sgOf(i)] = 1;
    };
    auto del = [&](const RouteKey& k) {
      config_->rpfConfigInfoDel(k);
      owed.erase(k);
    };
    for (std::uint32_t i = 0; i < kKeys; ++i) markKey(i);
    agent_.recompute = [&](const RouteKey& k) {
      auto it = owed.find(k);
      if (it == owed.end() || it->second == 0) {
        ++duplicates;
      } else {
        it->second = 0;
      }
      if (!sync) return;
      // Move the key to a /23, and delete a key further on, under the walk.
      const Nimo::IpGenAddr net = config_->rpfConfigInfo(k)->rpf.prefix.address();
      write(k, rpfOn(IpGenPrefix(net, 23).masked().str(), k.source()));
      const RouteKey next(IpGenAddr::v4(k.source().v4Addr() + (13u << 8)), kGroup);
      if (config_->rpfConfigInfo(next) && (k.source().v4Addr() >> 8) % 5 == 0) del(next);
    };
    std::mt19937 rng(7);
    int suspended = 0;
    for (int slice = 0; slice < 40 && !sm_->changeRpf().empty(); ++slice) {
      const std::uint64_t before = sm_->reviewStats().published;
      sm_->doReview();
      if (!sm_->reviewBookmark()) continue;
      ++suspended;
      EXPECT_EQ(sm_->reviewStats().published - before, 1000u) << "slice " << slice;
      const std::uint32_t bm = (sm_->reviewBookmark()->source().v4Addr() - 0x0a000001u) >> 8;
      del(sgOf(bm));
      for (int j = 0; j < 20; ++j) {
        const std::uint32_t i = static_cast<std::uint32_t>(rng() % kKeys);
        if (config_->rpfConfigInfo(sgOf(i))) markKey(i);
      }
    }
    settle();
    EXPECT_GE(suspended, 9);
    EXPECT_EQ(duplicates, 0);
    for (const auto& [k, n] : owed) EXPECT_EQ(n, 0) << "never published: " << k;
    EXPECT_TRUE(traced("Suspending review "));
    EXPECT_TRUE(traced("has been deleted"));
    EXPECT_TRUE(traced("Finished review"));
    expectSound();
    agent_.recompute = nullptr;
  }
}

// Unresolved routes are retried by the RIB changes that can resolve them, in slices, (*,G)
// before (S,G), with one restart for any number of changes during a running review.
TEST_F(RpfSmTest, UnresolvedRoutesAreRetriedByRibChangesUnderThem) {
  start();
  un_->reviewDeadlineClockIs(Kel::Ptr<PimTest::SteppingClock>::make());
  un_->reviewQuantumIs(100.0 / 1024);  // 100 routes a slice
  for (std::uint32_t i = 0; i < 300; ++i) write(sgOf(i), noRpf(sgOf(i).source()));
  const RouteKey wc1(IpGenAddr("239.1.1.1")), wc2(IpGenAddr("239.1.1.2"));
  write(wc1, noRpf(IpGenAddr("192.168.1.1")));
  write(wc2, noRpf(IpGenAddr("192.168.2.1")));
  settle();
  agent_.order.clear();
  agent_.published.clear();
  // Nothing under a change: one trie query, no review.
  route(urib_, "172.16.0.0/12");
  EXPECT_FALSE(un_->reviewScheduled());
  EXPECT_EQ(un_->stats().reviewsAsked, 0u);
  // An RP's change moves the (*,G) route in the index: the old RP's route no longer retries.
  write(wc2, noRpf(IpGenAddr("192.168.3.1")));
  route(urib_, "192.168.2.0/24");
  EXPECT_FALSE(un_->reviewScheduled());
  // A default route: every unresolved route once, (*,G) first, in slices; changes before the
  // first slice are covered, those after it make one restart.
  route(urib_, "0.0.0.0/0");
  route(urib_, "10.0.0.0/8");
  EXPECT_TRUE(un_->reviewScheduled());
  loop_.runOnce(0.0);  // first slice: 100 routes
  EXPECT_EQ(agent_.order.size(), 100u);
  EXPECT_EQ(agent_.order[0], wc1);
  EXPECT_EQ(agent_.order[1], wc2);
  EXPECT_TRUE(un_->bookmark().key && !un_->bookmark().wcWalk);
  route(urib_, "10.0.1.0/24");
  route(urib_, "10.0.2.0/24");
  // Routes resolved under the walk are not published again.
  const std::set<RouteKey> resolvedLate{sgOf(250), sgOf(251)};
  for (const RouteKey& k : resolvedLate) write(k, rpfOn("10.0.0.0/8", k.source()));
  settle();
  EXPECT_EQ(un_->stats().restarts, 1u);
  EXPECT_TRUE(traced("UnresolvedSm: Restarting route review "));
  EXPECT_TRUE(traced("UnresolvedSm: Suspending (S,G) route review with "));
  EXPECT_TRUE(traced("UnresolvedSm: Finished route review"));
  for (const auto& [k, n] : agent_.published)
    EXPECT_EQ(n, resolvedLate.count(k) ? 0 : 2) << k;  // once per review, two reviews
  EXPECT_EQ(agent_.published.size(), 302u - 2);
  // The new RP gets its route: the (*,G) route is retried.
  agent_.published.clear();
  route(urib_, "192.168.3.0/24");
  settle();
  EXPECT_EQ(agent_.published.count(wc2), 1u);
  expectSound();
}

// Machines created after the agent wrote 10,000 routes, 1,000 of them unresolved: every
// route linked or entered, each published exactly once between the two machines.
TEST_F(RpfSmTest, StartUpPublishesEveryExistingRouteOnce) {
  for (std::uint32_t i = 0; i < 10000; ++i) {
    const RouteKey k = sgOf(i);
    write(k, i % 10 == 0 ? noRpf(k.source()) : rpfOn("10.0.0.0/8", k.source()));
  }
  start();
  settle();
  EXPECT_EQ(agent_.published.size(), 10000u);
  EXPECT_EQ(status_->rpfRouteChangedCount(), 10000u);  // both machines together
  EXPECT_EQ(status_->unresolvedRoute().size(), 1000u);
  EXPECT_EQ(sm_->userCount(IpGenPrefix("10.0.0.0/8")), 9000u);
  expectSound();
  config_->rpfConfigInfoDelAll();
  settle();
  EXPECT_EQ(sm_->trieSize(), 0u);
  EXPECT_EQ(un_->index().keys(), 0u);
  expectSound();
}

// Every RpfStatus handler is reached once by its change, and not by a repeated one.
TEST(RpfStatusTest, EveryHandlerOncePerChange) {
  struct Count : RpfStatus::NotifieeConst {
    std::map<std::string, int> n;
    void onUnresolvedRoute(const RouteKey&) override { ++n["sg key"]; }
    void onUnresolvedRoute() override { ++n["sg all"]; }
    void onUnresolvedRouteImmediate() override { n["sg imm"] += 1 + 10 * n["sg all"]; }
    void onUnresolvedWcRoute(const RouteKey&) override { ++n["wc key"]; }
    void onUnresolvedWcRoute() override { ++n["wc all"]; }
    void onUnresolvedWcRouteImmediate() override { n["wc imm"] += 1 + 10 * n["wc all"]; }
    void onRpfRouteChanged(const RouteKey&) override { ++n["chg key"]; }
    void onRpfRouteChanged() override { ++n["chg all"]; }
    void onRpfRouteChangedCount(const RouteKey&) override { ++n["cnt key"]; }
    void onRpfRouteChangedCount() override { ++n["cnt all"]; }
  };
  auto st = Kel::Ptr<RpfStatus>::make("s");
  Count c;
  c.notifierIs(st);
  const RouteKey k = sg("10.0.0.1"), w(kGroup);
  const IpGenAddr a("10.0.0.1"), b("10.0.0.2");
  const std::pair<std::function<void()>, std::map<std::string, int>> rows[] = {
      {[&] { st->unresolvedRouteIs(k, a); }, {{"sg key", 1}}},
      {[&] { st->unresolvedRouteIs(k, a); }, {}},
      {[&] { st->unresolvedRouteIs(k, b); }, {{"sg key", 1}}},  // a new target notifies
      {[&] { st->unresolvedRouteDelAll(); }, {{"sg imm", 1}, {"sg all", 1}}},
      {[&] { st->unresolvedWcRouteIs(w, a); }, {{"wc key", 1}}},
      {[&] { st->unresolvedWcRouteDel(w); }, {{"wc key", 1}}},
      {[&] { st->unresolvedWcRouteIs(w, a); }, {{"wc key", 1}}},
      {[&] { st->unresolvedWcRouteDelAll(); }, {{"wc imm", 1}, {"wc all", 1}}},
      {[&] { st->rpfRouteChangedIs(k); }, {{"chg key", 1}}},
      {[&] { st->rpfRouteChangedIs(k); }, {}},  // not drained yet: not announced again
      {[&] { st->rpfRouteChangedDel(k); }, {{"chg key", 1}}},
      {[&] { st->rpfRouteChangedIs(k); }, {{"chg key", 1}}},
      {[&] { st->rpfRouteChangedDelAll(); }, {{"chg all", 1}}},
      {[&] { st->rpfRouteChangedCountInc(k); }, {{"cnt key", 1}}},
      {[&] { st->rpfRouteChangedCountIs(1); }, {}},
      {[&] { st->rpfRouteChangedCountIs(5); }, {{"cnt all", 1}}},
  };
  int row = 0;
  for (const auto& [change, expect] : rows) {
    c.n.clear();
    change();
    std::erase_if(c.n, [](const auto& e) { return e.second == 0; });
    EXPECT_EQ(c.n, expect) << "row " << row++;
  }
}

// Churn against a brute-force oracle: random changes in both RIBs (specifics under linked
// prefixes, deletions, metric changes, default flaps), agent writes and deletions,
// multipath changes; the agent recomputes every route published to it. At quiescence every
// stored Rpf equals a fresh lookup, and the invariants hold.
class RpfSmChurnTest : public ::testing::Test, public PimTest::RibRig {};

TEST_F(RpfSmChurnTest, EveryRouteMatchesAFreshLookupAtQuiescence) {
  std::uint64_t needless = 0, publications = 0;
  for (std::uint32_t seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    auto pick = [&](std::uint32_t n) { return static_cast<std::uint32_t>(rng() % n); };
    auto config = Kel::Ptr<RpfConfig>::make("config");
    auto status = Kel::Ptr<RpfStatus>::make("status");
    routesAre("");
    auto lookup = [&](const RouteKey& k) {
      Rpf r = table_->doLookup(k.source(), k.group()).rpf;
      r.target = k.source();
      return r;
    };
    Agent agent;
    agent.recompute = [&](const RouteKey& k) {
      if (!config->rpfConfigInfo(k)) return;
      const Rpf r = lookup(k);
      needless += config->rpfConfigInfo(k)->rpf == r;
      ++publications;
      config->rpfConfigInfoIs(k, RpfConfigInfo(r));
    };
    agent.notifierIs(status);
    auto sm = rpfSmFactory(Nimo::AddressFamily::ipv4, config, status,
                           ucast_->uribShadowStatus()->trie(), ucast_->mribShadowStatus()->trie(),
                           table_, nullptr, mfib_, clock_, loop_.timers());
    auto un = unresolvedSmFactory(status, ucast_->uribShadowStatus()->trie(),
                                  ucast_->mribShadowStatus()->trie(), clock_, loop_.timers());
    auto busy = [&] { return sm->reviewScheduled() || un->reviewScheduled(); };
    const char* vias[] = {"10.0.1.2@eth1", "10.0.1.3@eth1", "10.0.2.2@eth2", "10.0.3.9@eth3"};
    auto randomPrefix = [&] {
      const std::uint8_t len = static_cast<std::uint8_t>(std::array{0, 8, 16, 20, 24, 28}[pick(6)]);
      return IpGenPrefix(IpGenAddr::v4(0x0a000000u | (pick(4) << 16) | (pick(4) << 8)), len)
          .masked();
    };
    std::map<std::pair<int, IpGenPrefix>, std::string> ribs;  // (rib, prefix) -> route line
    auto push = [&] {
      std::string text;
      for (const auto& [key, line] : ribs)
        text += std::string(key.first ? "mrib " : "urib ") + key.second.str() + line + "\n";
      EXPECT_EQ(routesAre(text), 0u);
    };
    std::vector<RouteKey> keys;
    for (std::uint32_t i = 0; i < 40; ++i)
      keys.emplace_back(
          IpGenAddr::v4(0x0a000000u | (pick(4) << 16) | (pick(4) << 8) | (1 + pick(200))), kGroup);
    for (int step = 0; step < 60; ++step) {
      const std::uint32_t what = pick(10);
      if (what < 5) {
        const auto p = randomPrefix();
        ribs[{pick(4) == 0, p}] =
            fmt::format(" 2 {} 0 {}", pick(3), vias[pick(4)]);  // add or change
      } else if (what < 7 && !ribs.empty()) {
        ribs.erase(std::next(ribs.begin(), pick(static_cast<std::uint32_t>(ribs.size()))));
      } else if (what == 7) {
        const RouteKey& k = keys[pick(40)];
        config->rpfConfigInfoIs(k, RpfConfigInfo(lookup(k)));
      } else if (what == 8) {
        config->rpfConfigInfoDel(keys[pick(40)]);
      } else {
        mfib_->multipathControlIs(
            static_cast<Routing::Multicast::Fib::Config::MultipathControl>(pick(2)));
      }
      push();
      clock_->advance(0.001 * pick(100));
      if (pick(3) == 0) settleLoop(loop_, *clock_, busy);
    }
    settleLoop(loop_, *clock_, busy);
    for (const auto& [k, info] : config->rpfConfigInfo()) EXPECT_EQ(info.rpf, lookup(k)) << k;
    EXPECT_EQ(sm->checkInvariantsForTest(true), "");
    EXPECT_EQ(un->checkInvariantsForTest(true), "");
  }
  std::printf("churn: %llu publications, %llu needless (the Rpf was already right)\n",
              static_cast<unsigned long long>(publications),
              static_cast<unsigned long long>(needless));
}

// When most unresolved addresses go, the index rebuilds its trie from the rest: nothing
// lost from it, the memory given back, and later additions indexed as before.
TEST(TargetIndexTest, RebuildsWhenMostAddressesGo) {
  TargetIndex idx("idx", Nimo::AddressFamily::ipv4);
  auto addr = [](std::uint32_t i) { return IpGenAddr::v4(0x0a000000u + i * 7); };
  for (std::uint32_t i = 0; i < 2000; ++i) idx.keyIs(RouteKey(addr(i), kGroup), addr(i));
  const std::size_t peak = idx.memoryBytes();
  for (std::uint32_t i = 400; i < 2000; ++i) idx.keyDel(RouteKey(addr(i), kGroup));
  EXPECT_EQ(idx.checkForTest(), "");
  EXPECT_LT(idx.memoryBytes(), peak / 2);
  for (std::uint32_t i = 0; i < 2000; ++i)
    ASSERT_EQ(idx.anyUnder(IpGenPrefix(addr(i), 32)), i < 400) << i;
  idx.keyIs(sg("11.0.0.1"), IpGenAddr("11.0.0.1"));
  EXPECT_TRUE(idx.anyUnder(IpGenPrefix("11.0.0.0/8")));
  EXPECT_EQ(idx.checkForTest(), "");
}

}  // namespace
