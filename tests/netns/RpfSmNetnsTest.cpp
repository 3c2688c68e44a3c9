// The RPF machines end to end over a kernel's routes: ribd publishes the routes of a
// namespace of this test as its own process; the test is the agent (shadows and tries, the
// RPF lookup, RpfSm and UnresolvedSm of both families over one RpfConfig and RpfStatus, and
// an agent that looks up again whatever is published to it) and changes routes with `ip`.
// Root only; every wait is bounded.
#include <gtest/gtest.h>
#include <signal.h>

#include <map>
#include <set>

#include "Pim/RpfSm.h"
#include "Pim/UnresolvedSm.h"
#include "tests/DrobeRootUtil.h"
#include "tests/PimTestUtil.h"
#include "tests/netns/NetnsUtil.h"

namespace {

using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
using namespace Routing::Pim;
constexpr auto kV4 = Nimo::AddressFamily::ipv4;
constexpr auto kV6 = Nimo::AddressFamily::ipv6;

// Per family: (S,G) routes on a specific prefix and on the default route, and one (*,G)
// route whose RP rests on the default.
struct Family {
  Nimo::AddressFamily af;
  const char* specific;  // prefix, via the first neighbour
  const char* deflt;     // "default" as ip writes it, via the second neighbour
  const char* hops[2];
  IpGenAddr group;
  IpGenAddr rp;
  IpGenAddr onSpecific(std::uint32_t i) const {
    return af == kV4 ? IpGenAddr::v4(0x0a010000u + i + 1)
                     : IpGenAddr(fmt::format("2001:db8:1::{:x}", i + 1));
  }
  IpGenAddr onDefault(std::uint32_t i) const {
    return af == kV4 ? IpGenAddr::v4(0x0a090000u + i + 1)
                     : IpGenAddr(fmt::format("2001:db8:9::{:x}", i + 1));
  }
};
const Family kFamilies[] = {
    {kV4,
     "10.1.0.0/16",
     "0.0.0.0/0",
     {"10.77.0.2", "10.77.0.3"},
     IpGenAddr("232.1.1.1"),
     IpGenAddr("10.200.0.1")},
    {kV6,
     "2001:db8:1::/48",
     "::/0",
     {"fd77::2", "fd77::3"},
     IpGenAddr("ff3e::1"),
     IpGenAddr("2001:db8:200::1")},
};
constexpr std::uint32_t kOnSpecific = 300, kOnDefault = 100;

// Looks up again every route published to it, writes the answer, and drains the key.
struct Agent : RpfStatus::Notifiee {
  Kel::Ptr<RpfConfig> config;
  Kel::Ptr<PimRpfTable> table;
  std::map<RouteKey, int> published;
  Rpf lookup(const RouteKey& k, const IpGenAddr& rp) const {
    const IpGenAddr target = k.isStarG() ? rp : k.source();
    Rpf r = table->doLookup(target, k.group()).rpf;
    r.target = target;
    return r;
  }
  void onRpfRouteChanged(const RouteKey& k) override {
    if (!notifierWritable()->rpfRouteChangedHas(k)) return;  // our own drain
    ++published[k];
    if (const auto* info = config->rpfConfigInfo(k))
      config->rpfConfigInfoIs(k, RpfConfigInfo(lookup(k, info->rpf.target)));
    notifierWritable()->rpfRouteChangedDel(k);
  }
};

class RpfSmNetnsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!PimTest::isRoot()) GTEST_SKIP() << "needs root (network namespaces)";
    ASSERT_TRUE(pair_.ok);
    ns_ = pair_.a;
    for (const Family& f : kFamilies) {
      ASSERT_EQ(ip(fmt::format("route add {} via {}", f.specific, f.hops[0])), 0);
      ASSERT_EQ(ip(defaultRoute(f)), 0);
    }
    startRibd();
  }
  void TearDown() override {
    if (ribd_ > 0) {
      ::kill(ribd_, SIGTERM);
      EXPECT_EQ(PimTest::waitChild(ribd_, 10), 0);
    }
  }
  int ip(const std::string& args) { return PimTest::sh(fmt::format("ip -n {} {}", ns_, args)); }
  std::string defaultRoute(const Family& f) {
    return fmt::format("{} route add default via {}", f.af == kV4 ? "-4" : "-6", f.hops[1]);
  }
  void startRibd() {
    ribd_ = PimTest::spawn(fmt::format("exec {} --netns {} >/dev/null", RIBD_PATH, ns_));
  }
  template <typename Fn>
  bool waitFor(Fn&& done) {
    return PimTest::waitLoop(loop_, done);
  }
  // Half a second more: what arrives late (a stray notice, a second review) shows.
  void linger() {
    for (int i = 0; i < 10; ++i) loop_.runOnce(0.05);
  }

  PimTest::DrobeRoot root_;
  PimTest::NetnsPair pair_{"rsm"};
  std::string ns_;
  pid_t ribd_ = -1;
  Ulm::EventLoop loop_{Kel::Ptr<Kel::SystemClock>::make()};
};

TEST_F(RpfSmNetnsTest, DefaultRouteWithdrawnAndRestoredRepublishesExactlyItsRoutes) {
  const std::string p4 = Routing::ribMountPath(kV4, "default");
  const std::string p6 = Routing::ribMountPath(kV6, "default");
  auto ucast = Kel::Ptr<PimUcastRouteStatus>::make("ucast");
  ucast->uribShadowStatusIs(Routing::Shadow::Status::create(loop_, p4, "urib"));
  ucast->uribStatusIs(ucast->uribShadowStatus()->table());
  ucast->uribFecIs(FecTable4::create(loop_, p4, "fec"));
  ucast->mribShadowStatusIs(Routing::Shadow::Status::create(loop_, p4, "mrib"));
  ucast->urib6ShadowStatusIs(Routing6::Shadow::Status::create(loop_, p6, "urib"));
  ucast->urib6StatusIs(ucast->urib6ShadowStatus()->table());
  ucast->urib6FecIs(FecTable6::create(loop_, p6, "fec"));
  ucast->mrib6ShadowStatusIs(Routing6::Shadow::Status::create(loop_, p6, "mrib"));
  auto pim = Kel::Ptr<Routing::Pim::Status>::make("pim");
  pim->intfIs(Nimo::IntfId(pair_.vethA), false, IpGenAddr("10.77.0.1"));
  for (const Family& f : kFamilies)
    for (const char* hop : f.hops)
      pim->activeNeighborIs({Nimo::IntfId(pair_.vethA), IpGenAddr(hop)}, 105);
  auto mfib = Kel::Ptr<Routing::Multicast::Fib::Config>::make("mfib");
  auto config = Kel::Ptr<RpfConfig>::make("config");
  auto status = Kel::Ptr<RpfStatus>::make("status");
  Agent agent;
  agent.config = config;
  agent.table = pimRpfTableFactory(ucast, pim, mfib, nullptr, nullptr);

  // The routes, per family: which rest on the default.
  std::map<RouteKey, IpGenAddr> rpOf;  // the target the agent looks up for each key
  std::map<Nimo::AddressFamily, std::set<RouteKey>> onDefault;
  for (const Family& f : kFamilies) {
    for (std::uint32_t i = 0; i < kOnSpecific; ++i) rpOf[RouteKey(f.onSpecific(i), f.group)] = {};
    for (std::uint32_t i = 0; i < kOnDefault; ++i) {
      const RouteKey k(f.onDefault(i), f.group);
      rpOf[k] = {};
      onDefault[f.af].insert(k);
    }
    rpOf[RouteKey(f.group)] = f.rp;
    onDefault[f.af].insert(RouteKey(f.group));
  }
  auto expectedPrefix = [&](const RouteKey& k) {
    const Family& f = kFamilies[k.af() == kV4 ? 0 : 1];
    return IpGenPrefix(onDefault[k.af()].count(k) ? f.deflt : f.specific);
  };
  auto allLinked = [&] {
    for (const auto& [k, rp] : rpOf) {
      const auto* info = config->rpfConfigInfo(k);
      if (!info || info->rpf.prefix != expectedPrefix(k) || info->rpf.rpfIntf.empty()) return false;
    }
    return true;
  };
  // Lookups succeed once ribd has published and the shadows have loaded.
  ASSERT_TRUE(waitFor([&] {
    for (const auto& [k, rp] : rpOf) config->rpfConfigInfoIs(k, RpfConfigInfo(agent.lookup(k, rp)));
    return allLinked();
  })) << "ribd's routes never reached the lookups";

  agent.notifierIs(status);
  Kel::Ptr<RpfSm> sm[2];
  Kel::Ptr<UnresolvedSm> un[2];
  sm[0] = rpfSmFactory(kV4, config, status, ucast->uribShadowStatus()->trie(),
                       ucast->mribShadowStatus()->trie(), agent.table, nullptr, mfib, loop_.clock(),
                       loop_.timers());
  sm[1] = rpfSmFactory(kV6, config, status, ucast->urib6ShadowStatus()->trie(),
                       ucast->mrib6ShadowStatus()->trie(), agent.table, nullptr, mfib,
                       loop_.clock(), loop_.timers());
  un[0] = unresolvedSmFactory(status, ucast->uribShadowStatus()->trie(),
                              ucast->mribShadowStatus()->trie(), loop_.clock(), loop_.timers());
  un[1] = unresolvedSmFactory(status, ucast->urib6ShadowStatus()->trie(),
                              ucast->mrib6ShadowStatus()->trie(), loop_.clock(), loop_.timers());
  auto idle = [&] {
    for (int i = 0; i < 2; ++i)
      if (sm[i]->reviewScheduled() || un[i]->reviewScheduled()) return false;
    return true;
  };
  auto sound = [&] {
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(sm[i]->checkInvariantsForTest(true), "");
      EXPECT_EQ(un[i]->checkInvariantsForTest(true), "");
    }
  };
  // Start-up publishes every route once; the lookups give the same answers.
  ASSERT_TRUE(waitFor([&] { return agent.published.size() == rpOf.size() && idle(); }));
  linger();
  for (const auto& [k, n] : agent.published) EXPECT_EQ(n, 1) << k;
  EXPECT_TRUE(allLinked());
  sound();

  for (const Family& f : kFamilies) {
    SCOPED_TRACE(f.af == kV4 ? "IPv4" : "IPv6");
    auto publishedOnce = [&] {
      std::set<RouteKey> keys;
      for (const auto& [k, n] : agent.published) {
        EXPECT_EQ(n, 1) << k;
        keys.insert(k);
      }
      return keys;
    };
    // Withdrawn: exactly the routes on it are published, and they become unresolved.
    agent.published.clear();
    ASSERT_EQ(ip(fmt::format("{} route del default", f.af == kV4 ? "-4" : "-6")), 0);
    auto unresolved = [&] {
      std::set<RouteKey> keys;
      for (const auto& [k, a] : status->unresolvedRoute()) keys.insert(k);
      for (const auto& [k, a] : status->unresolvedWcRoute()) keys.insert(k);
      return keys;
    };
    ASSERT_TRUE(waitFor([&] { return unresolved() == onDefault[f.af] && idle(); }));
    linger();
    EXPECT_EQ(publishedOnce(), onDefault[f.af]);
    EXPECT_EQ(unresolved(), onDefault[f.af]);
    EXPECT_EQ(status->unresolvedWcRoute().count(RouteKey(f.group)), 1u);
    sound();
    // Restored: the unresolved-route machine retries them and they link again.
    agent.published.clear();
    ASSERT_EQ(ip(defaultRoute(f)), 0);
    ASSERT_TRUE(waitFor([&] { return allLinked() && idle(); }));
    linger();
    EXPECT_EQ(publishedOnce(), onDefault[f.af]);
    EXPECT_TRUE(unresolved().empty());
    sound();
  }

  // ribd restarted over the same routes: the shadows resync by difference, nothing moves.
  agent.published.clear();
  const std::uint64_t resyncs = ucast->uribShadowStatus()->resyncs();
  const std::uint64_t resyncs6 = ucast->urib6ShadowStatus()->resyncs();
  ::kill(ribd_, SIGTERM);
  ASSERT_EQ(PimTest::waitChild(ribd_, 10), 0);
  startRibd();
  EXPECT_TRUE(waitFor([&] {
    return ucast->uribShadowStatus()->resyncs() > resyncs &&
           ucast->urib6ShadowStatus()->resyncs() > resyncs6 &&
           !ucast->uribShadowStatus()->resyncing() && !ucast->urib6ShadowStatus()->resyncing();
  })) << "the shadows did not resync after ribd came back";
  linger();
  EXPECT_TRUE(agent.published.empty()) << agent.published.size() << " routes published";
  EXPECT_TRUE(allLinked());
  sound();
}

}  // namespace
