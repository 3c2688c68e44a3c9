// The RPF machines end to end over a kernel's routes: ribd publishes the routes of a
// namespace of this test as its own process; the test is the agent (shadows and tries, the
// RPF lookup, RpfSm and UnresolvedSm of both families over one RpfConfig and RpfStatus, and
// an agent that looks up again whatever is published to it) and changes routes with `ip`.
// Root only; every wait is bounded.
#include <gtest/gtest.h>

#include <map>

#include "Pim/RpfSm.h"
#include "Pim/UnresolvedSm.h"
#include "tests/netns/DaemonNetns.h"

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
  const char* dash;      // ip's family option
  const char* specific;  // prefix, via the first neighbour
  const char* deflt;     // "default" as ip writes it, via the second neighbour
  const char* hops[2];
  const char *group, *rp;
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
    {kV4, "-4", "10.1.0.0/16", "0.0.0.0/0", {"10.77.0.2", "10.77.0.3"}, "232.1.1.1", "10.200.0.1"},
    {kV6, "-6", "2001:db8:1::/48", "::/0", {"fd77::2", "fd77::3"}, "ff3e::1", "2001:db8:200::1"},
};
constexpr std::uint32_t kOnSpecific = 300, kOnDefault = 100;

class RpfSmNetnsTest : public PimTest::DaemonNetnsTest<> {
 protected:
  RpfSmNetnsTest() : DaemonNetnsTest("rsm") {}
  void SetUp() override {
    if (!ready()) return;
    for (const Family& f : kFamilies) {
      ASSERT_EQ(ip("route add {} via {}", f.specific, f.hops[0]), 0);
      ASSERT_EQ(ip("{} route add default via {}", f.dash, f.hops[1]), 0);
    }
    startRibd();
  }
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
  auto mfib = Kel::Ptr<Routing::Multicast::Fib::Config>::make("mfib");
  auto config = Kel::Ptr<RpfConfig>::make("config");
  auto status = Kel::Ptr<RpfStatus>::make("status");
  auto table = pimRpfTableFactory(
      ucast, pimStatus("10.77.0.1", {"10.77.0.2", "10.77.0.3", "fd77::2", "fd77::3"}), mfib,
      nullptr, nullptr);
  auto lookup = [&](const RouteKey& k, const IpGenAddr& rp) {
    const IpGenAddr target = k.isStarG() ? rp : k.source();
    Rpf r = table->doLookup(target, k.group()).rpf;
    r.target = target;
    return r;
  };
  // The agent looks up again every route published to it and writes the answer.
  agent_.recompute = [&](const RouteKey& k) {
    if (const auto* info = config->rpfConfigInfo(k))
      config->rpfConfigInfoIs(k, RpfConfigInfo(lookup(k, info->rpf.target)));
  };

  // The routes, per family: which rest on the default.
  std::map<RouteKey, IpGenAddr> rpOf;  // the target the agent looks up for each key
  std::map<Nimo::AddressFamily, Keys> onDefault;
  for (const Family& f : kFamilies) {
    for (std::uint32_t i = 0; i < kOnSpecific; ++i)
      rpOf[RouteKey(f.onSpecific(i), IpGenAddr(f.group))] = {};
    for (std::uint32_t i = 0; i < kOnDefault; ++i) {
      const RouteKey k(f.onDefault(i), IpGenAddr(f.group));
      rpOf[k] = {};
      onDefault[f.af].insert(k);
    }
    rpOf[RouteKey(IpGenAddr(f.group))] = IpGenAddr(f.rp);
    onDefault[f.af].insert(RouteKey(IpGenAddr(f.group)));
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
    for (const auto& [k, rp] : rpOf) config->rpfConfigInfoIs(k, RpfConfigInfo(lookup(k, rp)));
    return allLinked();
  })) << "ribd's routes never reached the lookups";

  agent_.notifierIs(status);
  Kel::Ptr<RpfSm> sm[2];
  Kel::Ptr<UnresolvedSm> un[2];
  auto machines = [&](int i, const auto& urib, const auto& mrib) {
    sm[i] = rpfSmFactory(kFamilies[i].af, config, status, urib->trie(), mrib->trie(), table,
                         nullptr, mfib, loop_.clock(), loop_.timers());
    un[i] = unresolvedSmFactory(status, urib->trie(), mrib->trie(), loop_.clock(), loop_.timers());
  };
  machines(0, ucast->uribShadowStatus(), ucast->mribShadowStatus());
  machines(1, ucast->urib6ShadowStatus(), ucast->mrib6ShadowStatus());
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
  ASSERT_TRUE(waitFor([&] { return agent_.published.size() == rpOf.size() && idle(); }));
  linger();
  for (const auto& [k, n] : agent_.published) EXPECT_EQ(n, 1) << k;
  EXPECT_TRUE(allLinked());
  sound();

  for (const Family& f : kFamilies) {
    SCOPED_TRACE(f.dash);
    auto unresolved = [&] {
      Keys keys;
      for (const auto& [k, a] : status->unresolvedRoute()) keys.insert(k);
      for (const auto& [k, a] : status->unresolvedWcRoute()) keys.insert(k);
      return keys;
    };
    // Withdrawn: exactly the routes on it are published, and they become unresolved.
    ASSERT_EQ(ip("{} route del default", f.dash), 0);
    EXPECT_EQ(published([&] { return unresolved() == onDefault[f.af] && idle(); }),
              onDefault[f.af]);
    EXPECT_EQ(unresolved(), onDefault[f.af]);
    EXPECT_EQ(status->unresolvedWcRoute().count(RouteKey(IpGenAddr(f.group))), 1u);
    sound();
    // Restored: the unresolved-route machine retries them and they link again.
    ASSERT_EQ(ip("{} route add default via {}", f.dash, f.hops[1]), 0);
    EXPECT_EQ(published([&] { return allLinked() && idle(); }), onDefault[f.af]);
    EXPECT_TRUE(unresolved().empty());
    sound();
  }

  // ribd restarted over the same routes: the shadows resync by difference, nothing moves.
  const std::uint64_t resyncs = ucast->uribShadowStatus()->resyncs();
  const std::uint64_t resyncs6 = ucast->urib6ShadowStatus()->resyncs();
  stop(ribd_);
  startRibd();
  EXPECT_EQ(published([&] {
              return ucast->uribShadowStatus()->resyncs() > resyncs &&
                     ucast->urib6ShadowStatus()->resyncs() > resyncs6 &&
                     !ucast->uribShadowStatus()->resyncing() &&
                     !ucast->urib6ShadowStatus()->resyncing();
            }),
            Keys{});
  EXPECT_TRUE(allLinked());
  sound();
}

}  // namespace
