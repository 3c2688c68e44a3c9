// Route and FEC tables: the writer's publication rules, and a reader's shadow across
// processes (convergence, FECs always present, writer restart, sliced catch-up).
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <sstream>

#include "Pim/platform/Routing.h"
#include "tests/DrobeRootUtil.h"
#include "tests/PimTestUtil.h"

namespace {

using Nimo::IntfId;
using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
namespace V4 = Routing::Fib;
using Shadow = Routing::Shadow::Status;
using FecReader = Drobe::Reader<Routing::FecKey, V4::FecPart>;

constexpr const char* kPath = "routing/rib/test";

class RoutingTablesTest : public ::testing::Test {
 protected:
  PimTest::DrobeRoot root_;
  Kel::Ptr<Kel::ManualClock> clock_ = Kel::Ptr<Kel::ManualClock>::make();
  Ulm::EventLoop loop_{clock_};
};

// Next-hop sets 0..3: one or two vias over four interfaces.
std::vector<V4::Via> viaSet(std::uint32_t n) {
  std::vector<V4::Via> v{{IpGenAddr::v4(0xc0000201u + n), IntfId(fmt::format("eth{}", n))}};
  if (n % 2) v.push_back({IpGenAddr::v4(0xc0000211u + n), IntfId(fmt::format("eth{}", n - 1))});
  return v;
}

struct Model {
  struct R {
    std::uint32_t set, metric;
  };
  std::map<IpGenPrefix, R> routes;
  void publish(V4::RouteWriter& w, const IpGenPrefix& p, const R& r) {
    routes[p] = r;
    w.routeIs(p, V4::RouteType::remote, r.metric, 1, viaSet(r.set));
  }
};

IpGenPrefix nthPrefix(std::uint32_t i) {
  return IpGenPrefix(IpGenAddr::v4(0x0b000000u + (i << 8)), static_cast<std::uint8_t>(24));
}

TEST_F(RoutingTablesTest, WriterSharesFecsAndDeletesThemAfterGrace) {
  auto fecs = V4::FecWriter::create(kPath, "fec", 64, clock_, 2.0);
  auto urib = V4::RouteWriter::create(kPath, "urib", fecs, 1000);
  for (std::uint32_t i = 0; i < 1000; ++i) {
    ASSERT_TRUE(urib->routeIs(nthPrefix(i), V4::RouteType::remote, 0, 1, viaSet(i % 3)));
  }
  urib->commit();
  EXPECT_EQ(fecs->fecCount(), 3u);
  // Vias in another order, duplicated: the same FEC.
  auto s = viaSet(1);
  s.push_back(s.front());
  std::reverse(s.begin(), s.end());
  ASSERT_TRUE(urib->routeIs(nthPrefix(0), V4::RouteType::remote, 0, 1, s));
  EXPECT_EQ(urib->table().find(nthPrefix(0))->fecId, urib->table().find(nthPrefix(1))->fecId);
  // Set 0's last user moves away: its FEC stays for the grace period, then goes.
  for (std::uint32_t i = 3; i < 1000; i += 3)
    urib->routeIs(nthPrefix(i), V4::RouteType::remote, 0, 1, viaSet(2));
  urib->commit();
  EXPECT_EQ(fecs->fecCount(), 3u);
  clock_->advance(1.9);
  urib->commit();
  EXPECT_EQ(fecs->fecCount(), 3u);
  clock_->advance(0.2);
  urib->commit();
  EXPECT_EQ(fecs->fecCount(), 2u);
  // The FEC acquired last goes, then its vias come back: published afresh.
  ASSERT_TRUE(urib->routeIs(nthPrefix(0), V4::RouteType::remote, 0, 1, viaSet(5)));
  ASSERT_TRUE(urib->routeDel(nthPrefix(0)));
  urib->commit();
  clock_->advance(2.1);
  urib->commit();
  EXPECT_EQ(fecs->fecCount(), 2u);
  ASSERT_TRUE(urib->routeIs(nthPrefix(0), V4::RouteType::remote, 0, 1, viaSet(5)));
  EXPECT_TRUE(fecs->table().lookup({urib->table().find(nthPrefix(0))->fecId, 0}).found());
  // A full table refuses and counts; the route keeps its old record.
  auto small = V4::RouteWriter::create(kPath, "small", fecs, 2);
  EXPECT_TRUE(small->routeIs(nthPrefix(0), V4::RouteType::remote, 0, 1, viaSet(1)));
  EXPECT_TRUE(small->routeIs(nthPrefix(1), V4::RouteType::remote, 0, 1, viaSet(1)));
  EXPECT_FALSE(small->routeIs(nthPrefix(2), V4::RouteType::remote, 0, 1, viaSet(1)));
  EXPECT_EQ(small->refused(), 1u);
  // Loader: good lines load, bad ones are counted.
  std::istringstream text(
      "10.0.0.0/8 2 0 1 192.0.2.1@eth1 # comment\n10.1.0.0/16 2 x 1\n2001::/16 2 0 1\n"
      "10.2.0.0/16 2 0 1 192.0.2.1\n");
  std::size_t bad = 0;
  auto loaded = V4::RouteWriter::create(kPath, "loaded", fecs, 16);
  EXPECT_EQ(Routing::loadRoutes(*loaded, text, &bad), 1u);
  EXPECT_EQ(bad, 3u);
}

struct Watch : Shadow::Trie::NotifieeConst {
  Kel::Ptr<FecReader> fecs;
  std::uint64_t notices = 0, all = 0, fecMissing = 0;
  void onChangedRoute(const IpGenPrefix& p, Routing::TrieChange c) override {
    ++notices;
    if (c == Routing::TrieChange::deleted) return;
    const auto* e = notifier()->find(p);
    V4::FecPart part;
    if (!e ||
        fecs->findStatus(Routing::FecKey{e->payload.fecId, 0}, part) != Drobe::FindStatus::found) {
      ++fecMissing;
    }
  }
  void onChangedAll() override { ++all; }
};

// The writer's run: 100,000 routes, then 10,000 random changes in commits of 100. The
// reader replays the same seed to know the final table.
void writerRun(Model& m, V4::RouteWriter* w, bool publish) {
  std::mt19937 rng(42);
  auto apply = [&](const IpGenPrefix& p, const Model::R& r) {
    if (publish) {
      m.publish(*w, p, r);
    } else {
      m.routes[p] = r;
    }
  };
  for (std::uint32_t i = 0; i < 100000; ++i) apply(nthPrefix(i), {i % 4, 0});
  if (publish) w->commit();
  for (std::uint32_t c = 0; c < 10000; ++c) {
    const IpGenPrefix p = nthPrefix(static_cast<std::uint32_t>(rng() % 110000));
    if (rng() % 5 == 0) {
      m.routes.erase(p);
      if (publish) w->routeDel(p);
    } else {
      apply(p, {static_cast<std::uint32_t>(rng() % 4), static_cast<std::uint32_t>(rng() % 3)});
    }
    if (publish && c % 100 == 99) w->commit();
  }
  if (publish) w->commit();
}

TEST_F(RoutingTablesTest, ReaderConvergesAcrossProcessesAndResyncsByDifference) {
  PimTest::Children children;
  const int child = children.spawn([](int fd) {
    Model m;
    auto fecs = V4::FecWriter::create(kPath, "fec", 1024);
    auto urib = V4::RouteWriter::create(kPath, "urib", fecs, 1 << 18);
    writerRun(m, urib.ptr(), true);
    PimTest::send(fd, 'w');
    PimTest::hold(fd);  // killed by the parent
  });
  // Writer death is noticed by the reader's health checks: real time here.
  Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
  auto shadow = Shadow::create(loop, kPath, "urib");
  Watch w;
  w.fecs = FecReader::create(loop, kPath, "fec");
  w.notifierIs(shadow->trie());
  Model want;
  writerRun(want, nullptr, false);
  auto converged = [&] {
    if (shadow->trie()->size() != want.routes.size() || shadow->resyncing()) return false;
    for (const auto& [p, r] : want.routes) {
      const auto* e = shadow->trie()->find(p);
      if (!e || e->payload.metric != r.metric) return false;
    }
    return true;
  };
  char c = 0;
  bool done = false;
  for (int i = 0; i < 3000 && !(done && converged()); ++i) {
    loop.runOnce(0.01);
    if (!done) done = PimTest::receive(child, c, 0);
  }
  EXPECT_EQ(children.exitCode(child, 10, true), -1);
  ASSERT_TRUE(converged());
  EXPECT_EQ(w.fecMissing, 0u);
  EXPECT_EQ(w.all, 1u);  // the first load, announced once

  // A new writer with one route changed: exactly one notice.
  for (int i = 0; i < 300 && shadow->table()->mounted(); ++i) loop.runOnce(0.01);
  w.notices = 0;
  {
    auto fecs = V4::FecWriter::create(kPath, "fec", 1024);
    auto urib = V4::RouteWriter::create(kPath, "urib", fecs, 1 << 18);
    ASSERT_TRUE(urib);
    auto it = want.routes.begin();
    it->second.metric += 7;
    Model again;
    for (const auto& [p, r] : want.routes) again.publish(*urib, p, r);
    urib->commit();
    for (int i = 0; i < 600 && !(shadow->table()->mounted() && converged()); ++i) {
      loop.runOnce(0.01);
    }
    EXPECT_TRUE(converged());
    EXPECT_EQ(w.notices, 1u);
  }
}

TEST_F(RoutingTablesTest, CatchUpRunsInSlicesAndAnnouncesOnce) {
  auto fecs = V4::FecWriter::create(kPath, "fec", 64, clock_);
  auto urib = V4::RouteWriter::create(kPath, "urib", fecs, 1 << 14);
  for (std::uint32_t i = 0; i < 5000; ++i)
    urib->routeIs(nthPrefix(i), V4::RouteType::remote, 0, 1, viaSet(i % 4));
  urib->commit();
  auto shadow = Shadow::create(loop_, kPath, "urib");
  shadow->sliceIs(0.1, 1000);
  Watch w;
  w.fecs = FecReader::create(loop_, kPath, "fec");
  w.notifierIs(shadow->trie());
  int turns = 0;
  for (; turns < 100 && !shadow->synced(); ++turns) loop_.runOnce(0.0);
  EXPECT_GE(turns, 5);  // 5,000 routes at 1,000 a slice
  EXPECT_EQ(shadow->trie()->size(), 5000u);
  EXPECT_EQ(w.all, 1u);
  EXPECT_EQ(w.notices, 0u);
}

}  // namespace
