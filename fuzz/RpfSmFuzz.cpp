// Fuzz target: RpfSm and UnresolvedSm under random unicast and multicast RIB changes and
// random route additions and deletions, against a fresh lookup of every route.
//
// After every operation the loop runs to quiescence, with an agent that recomputes each
// route published to it. Then:
// - every route's stored Rpf equals a fresh lookup: a route the change moved was published
//   (none missed, none stranded behind a suspended review);
// - no route was published twice for one operation, but by each machine once when its
//   recomputation moved it from one to the other (RpfSm publishes it, it goes unresolved
//   ahead of UnresolvedSm's bookmark, and that review publishes it again);
// - both machines' invariants hold, nothing pending.
// At the end every route is deleted and the invariants must hold over empty containers.
//
// Input: byte 0 picks the review quantum (bits 0-3: (n + 1) steps of a deadline clock that
// advances at every read, or, with bit 4, the default quantum of the system clock). Then
// operations of three bytes [op, a, b]:
//   op % 6 == 0, 1: a unicast (0) or multicast (1) route for the prefix of a, next hop and
//                   metric from b (a route already there is updated);
//   op % 6 == 2:    the route of a deleted from the RIB of b's bit 0;
//   op % 6 == 3:    an (S,G) route with source a, or with b's bit 7 the (*,G) of group b
//                   whose RP is a;
//   op % 6 == 4:    the (S,G) of a deleted, or with b's bit 7 the (*,G) of b;
//   op % 6 == 5:    multipath control set to b's bit 0.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "Pim/RpfSm.h"
#include "Pim/UnresolvedSm.h"
#include "tests/RpfTestUtil.h"

namespace {

using namespace Routing::Pim;
using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;

void require(bool ok, const std::string& what) {
  if (ok) return;
  std::fprintf(stderr, "rpfSm: %s\n", what.c_str());
  std::abort();
}

// Advances 1/1024 s at every read, so a quantum of n/1024 s is n keys of a review.
struct SteppingClock : Kel::Clock {
  mutable double t = 0;
  Kel::Time now() const noexcept override { return t += 1.0 / 1024; }
};

// Addresses and prefixes within 10.0.0.0/16: 4 /24s of 8 hosts, so routes and prefixes
// overlap often.
IpGenAddr address(std::uint8_t a) {
  const std::uint32_t n = a;
  return IpGenAddr::v4(0x0a000000u | (n % 4) << 8 | n >> 5);
}
IpGenPrefix prefixOf(std::uint8_t a) {
  static constexpr std::array<std::uint8_t, 6> kLens{0, 8, 16, 22, 24, 30};
  return IpGenPrefix(address(a), kLens[(a >> 2) % kLens.size()]).masked();
}

struct World : PimTest::RibRig {
  World() : RibRig(1 << 10) {}
  Rpf lookup(const RouteKey& k) {
    const IpGenAddr target = k.isStarG() ? rp.at(k) : k.source();
    Rpf r = table_->doLookup(target, k.group()).rpf;
    r.target = target;
    return r;
  }
  std::map<RouteKey, IpGenAddr> rp;  // the RP of each (*,G)
};

struct Agent : RpfStatus::Notifiee {
  World* world = nullptr;
  Kel::Ptr<RpfConfig> config;
  std::map<RouteKey, int> published;
  std::map<RouteKey, int> handedOver;  // recomputations that resolved or unresolved it
  void onRpfRouteChanged(const RouteKey& k) override {
    if (!notifierWritable()->rpfRouteChangedHas(k)) return;  // our own drain
    ++published[k];
    if (const RpfConfigInfo* old = config->rpfConfigInfo(k)) {
      const Rpf now = world->lookup(k);
      handedOver[k] += old->rpf.rpfIntf.empty() != now.rpfIntf.empty();
      config->rpfConfigInfoIs(k, RpfConfigInfo(now));
    }
    notifierWritable()->rpfRouteChangedDel(k);
  }
};

RouteKey wcKey(std::uint8_t b) { return RouteKey(IpGenAddr::v4(0xe8010100u | b)); }
std::string str(const RouteKey& k) { return fmt::format("{}", fmt::streamed(k)); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static World world;
  if (size == 0) return 0;
  world.routesAre("");
  world.rp.clear();
  world.mfib_->multipathControlIs(Routing::Multicast::Fib::Config::MultipathControl{});
  auto config = Kel::Ptr<RpfConfig>::make("config");
  auto status = Kel::Ptr<RpfStatus>::make("status");
  Agent agent;
  agent.world = &world;
  agent.config = config;
  agent.notifierIs(status);
  auto urib = world.ucast_->uribShadowStatus()->trie();
  auto mrib = world.ucast_->mribShadowStatus()->trie();
  auto sm = rpfSmFactory(Nimo::AddressFamily::ipv4, config, status, urib, mrib, world.table_,
                         nullptr, world.mfib_, world.clock_, world.loop_.timers());
  auto un = unresolvedSmFactory(status, urib, mrib, world.clock_, world.loop_.timers());
  if (!(data[0] & 0x10)) {
    auto deadline = Kel::Ptr<const Kel::Clock>(new SteppingClock);
    const double quantum = ((data[0] & 0x0f) + 1) / 1024.0;
    sm->reviewDeadlineClockIs(deadline);
    un->reviewDeadlineClockIs(deadline);
    sm->reviewQuantumIs(quantum);
    un->reviewQuantumIs(quantum);
  }
  std::map<std::pair<bool, IpGenPrefix>, std::string> ribs;  // (multicast, prefix) -> route
  static constexpr std::array<const char*, 4> kVias{"10.0.1.2@eth1", "10.0.1.3@eth1",
                                                    "10.0.2.2@eth2", "10.0.3.9@eth3"};
  const IpGenAddr group("232.1.1.1");
  auto settle = [&] {
    for (int i = 0; i < 100000; ++i) {
      auto d = world.loop_.timers().nextDeadline();
      if (!d || (!sm->reviewScheduled() && !un->reviewScheduled())) return;
      world.clock_->nowIs(std::max(world.clock_->now(), *d));
      world.loop_.runOnce(0.0);
    }
    require(false, "the loop did not settle");
  };
  auto check = [&](std::size_t op) {
    for (const auto& [k, info] : config->rpfConfigInfo()) {
      require(info.rpf == world.lookup(k),
              fmt::format("op {}: {} not recomputed after a change that moved it", op, str(k)));
    }
    for (const auto& [k, n] : agent.published) {
      require(n <= 1 + agent.handedOver[k],
              fmt::format("op {}: {} published {} times", op, str(k), n));
    }
    require(sm->checkInvariantsForTest(true).empty(),
            fmt::format("op {}: RpfSm: {}", op, sm->checkInvariantsForTest(true)));
    require(un->checkInvariantsForTest(true).empty(),
            fmt::format("op {}: UnresolvedSm: {}", op, un->checkInvariantsForTest(true)));
    agent.published.clear();
    agent.handedOver.clear();
  };
  for (std::size_t at = 1; at + 3 <= size && at < 1 + 3 * 200; at += 3) {
    const std::uint8_t op = data[at] % 6, a = data[at + 1], b = data[at + 2];
    if (op <= 1) {
      ribs[{op == 1, prefixOf(a)}] = fmt::format(" 2 {} 0 {}", b >> 2 & 3, kVias[b & 3]);
    } else if (op == 2) {
      ribs.erase({(b & 1) != 0, prefixOf(a)});
    } else if (op == 3) {
      RouteKey k = wcKey(b);
      if (b & 0x80) {
        world.rp[k] = address(a);
      } else {
        k = RouteKey(address(a), group);
      }
      config->rpfConfigInfoIs(k, RpfConfigInfo(world.lookup(k)));
    } else if (op == 4) {
      config->rpfConfigInfoDel(b & 0x80 ? wcKey(b) : RouteKey(address(a), group));
    } else {
      world.mfib_->multipathControlIs(
          static_cast<Routing::Multicast::Fib::Config::MultipathControl>(b & 1));
    }
    if (op <= 2) {
      std::string text;
      for (const auto& [key, line] : ribs)
        text += std::string(key.first ? "mrib " : "urib ") + key.second.str() + line + "\n";
      require(world.routesAre(text) == 0, "a route did not load");
    }
    settle();
    check(at / 3);
  }
  config->rpfConfigInfoDelAll();
  settle();
  require(sm->checkInvariantsForTest(true).empty(), "RpfSm after deleting every route");
  require(un->checkInvariantsForTest(true).empty(), "UnresolvedSm after deleting every route");
  require(sm->trieSize() == 0, "RPF trie not empty after deleting every route");
  return 0;
}
