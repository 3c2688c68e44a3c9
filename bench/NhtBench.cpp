// RPF from next-hop tracking beside its baselines, measured in the same run:
// - RpfTable::doLookup for tracked IPv4 targets over a unicast RIB of N routes (1-2 vias on
//   PIM interfaces with active neighbours, an empty multicast RIB), against bare reads of
//   the shared-memory entries the lookup reads (multicast status entry, unicast status entry,
//   FEC part) without validation; aim: at least 0.4x;
// - one FEC part read, and its size (every sequence-locked read copies a whole part);
// - the trie engine (PimRpfTable) on the same routes and targets;
// - shared-memory bytes per tracked address (status and the client's config table).
// Each figure is the median of 5 passes over the targets.
//
// Usage: NhtBench [routes] [targets]
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>

#include "Pim/RpfTable.h"

namespace {

using Nimo::IntfId;
using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
using Clock = std::chrono::steady_clock;
constexpr auto kV4 = Nimo::AddressFamily::ipv4;

template <typename Fn>
double medianNs(std::size_t n, Fn&& fn) {
  std::vector<double> v;
  for (int r = 0; r < 5; ++r) {
    const auto t = Clock::now();
    for (std::size_t i = 0; i < n; ++i) fn(i);
    v.push_back(std::chrono::duration<double, std::nano>(Clock::now() - t).count() /
                static_cast<double>(n));
  }
  std::sort(v.begin(), v.end());
  return v[2];
}

std::uint64_t fileBytes(const std::string& f) {
  struct stat st {};
  return ::stat(f.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_blocks) * 512u : 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint32_t nRoutes = argc > 1 ? static_cast<std::uint32_t>(std::atoi(argv[1])) : 1000000;
  const std::uint32_t nTargets = argc > 2 ? static_cast<std::uint32_t>(std::atoi(argv[2])) : 10000;
  const std::string root = fmt::format("/dev/shm/nhtbench-{}", ::getpid());
  ::setenv("DROBE_ROOT", root.c_str(), 1);
  auto clock = Kel::Ptr<Kel::SystemClock>::make();
  Ulm::EventLoop loop(clock);
  const std::string path = Routing::ribMountPath(kV4, "default");
  auto fec = Routing::Fib::FecWriter::create(path, "fec", 1 << 12, clock);
  auto urib = Routing::Fib::RouteWriter::create(path, "urib", fec, nRoutes + 1024);
  auto mrib = Routing::Fib::RouteWriter::create(path, "mrib", fec, 1024);
  auto status = Kel::Ptr<Routing::Pim::Status>::make("pim");
  const char* hops[][2] = {{"eth1", "10.255.1.2"},
                           {"eth2", "10.255.2.2"},
                           {"eth3", "10.255.3.2"},
                           {"eth4", "10.255.4.2"}};
  for (std::uint32_t i = 0; i < 4; ++i) {
    status->intfIs(IntfId(hops[i][0]), false, IpGenAddr::v4(0x0aff0001u + (i + 1) * 256));
    status->activeNeighborIs({IntfId(hops[i][0]), IpGenAddr(hops[i][1])}, 105);
  }
  std::mt19937 rng(7);
  std::vector<IpGenPrefix> prefixes;
  for (std::uint32_t i = 0; i < nRoutes; ++i) {
    const auto len = static_cast<std::uint8_t>(16 + rng() % 9);
    const IpGenPrefix p =
        IpGenPrefix(IpGenAddr::v4(static_cast<std::uint32_t>(rng())), len).masked();
    Routing::Fib::Via v[2] = {{IpGenAddr(hops[rng() % 4][1]), {}},
                              {IpGenAddr(hops[rng() % 4][1]), {}}};
    for (auto& x : v) {
      for (auto& h : hops)
        if (x.hop == IpGenAddr(h[1])) x.intfId = IntfId(h[0]);
    }
    const std::size_t n = (v[0] == v[1] || rng() % 2) ? 1 : 2;
    if (n == 2 && v[1] < v[0]) std::swap(v[0], v[1]);
    urib->routeIs(p, Routing::Fib::RouteType::remote, 1, 1, std::span(v, n));
    prefixes.push_back(p);
  }
  urib->commit();
  mrib->commit();

  auto uShadow = Routing::Shadow::Status::create(loop, path, "urib");
  auto mShadow = Routing::Shadow::Status::create(loop, path, "mrib");
  auto uOut = Routing::NexthopVrfStatusWriter::create(kV4, "default", "unicast", nTargets * 2);
  auto mOut = Routing::NexthopVrfStatusWriter::create(kV4, "default", "multicast", nTargets * 2);
  auto uNht = Routing::NexthopResolver::create(loop.timers(), uShadow->trie(), uOut);
  auto mNht = Routing::NexthopResolver::create(loop.timers(), mShadow->trie(), mOut);
  auto cfg = Routing::NexthopVrfConfig::create(loop, kV4, "default", "unicast", "bench", nTargets);
  std::vector<IpGenAddr> targets;
  for (std::uint32_t i = 0; i < nTargets; ++i) {
    const IpGenPrefix& p = prefixes[rng() % prefixes.size()];
    const std::uint32_t host = static_cast<std::uint32_t>(rng()) >> p.maskLen();
    targets.push_back(IpGenAddr::v4(p.address().v4Addr() | (p.maskLen() ? host : 0)));
    cfg->nexthopIs(targets.back());
  }
  const auto t0 = Clock::now();
  for (int i = 0; i < 1000000 && !(uShadow->synced() && !uShadow->resyncing() && mShadow->synced());
       ++i)
    loop.runOnce(0.0);
  std::printf("shadow load of %u routes: %.2f s\n", nRoutes,
              std::chrono::duration<double>(Clock::now() - t0).count());
  for (const auto& a : targets) {
    uNht->trackIs(a);
    mNht->trackIs(a);
  }
  uNht->resolveAll();
  mNht->resolveAll();
  for (int i = 0; i < 20; ++i) loop.runOnce(0.0);

  auto ucast = Kel::Ptr<Routing::Pim::UcastRouteStatus>::make(kV4);
  ucast->uribIs({Routing::NexthopVrfStatus::create(loop, kV4, "default", "unicast"),
                 Drobe::Fib::ForwardingStatus::create(loop, "default", "urib")});
  ucast->mribIs({Routing::NexthopVrfStatus::create(loop, kV4, "default", "multicast"),
                 Drobe::Fib::ForwardingStatus::create(loop, "default", "mrib")});
  auto table = Routing::Pim::rpfTableFactory(ucast, status, nullptr, nullptr, nullptr);
  auto trieRoutes = Kel::Ptr<Routing::Pim::PimUcastRouteStatus>::make("trie");
  trieRoutes->uribShadowStatusIs(uShadow);
  trieRoutes->uribStatusIs(uShadow->table());
  trieRoutes->uribFecIs(Routing::Pim::FecTable4::create(loop, path, "fec"));
  trieRoutes->mribShadowStatusIs(mShadow);
  trieRoutes->mribStatusIs(mShadow->table());
  auto trie = Routing::Pim::pimRpfTableFactory(trieRoutes, status, nullptr, nullptr, nullptr);
  for (int i = 0; i < 20; ++i) loop.runOnce(0.0);

  const IpGenAddr group("232.1.1.1");
  std::size_t answered = 0;
  for (const auto& a : targets) answered += !!table->doLookup(a, group);
  std::size_t agree = 0;
  for (const auto& a : targets) agree += table->doLookup(a, group) == trie->doLookup(a, group);
  std::printf("targets %u, answered %zu, equal to the trie engine %zu\n", nTargets, answered,
              agree);

  const auto& uStatus = *ucast->urib().nexthopStatus->table();
  const auto& mStatus = *ucast->mrib().nexthopStatus->table();
  const auto& fecs = *ucast->urib().forwardingStatus->fecs();
  std::uint64_t sink = 0;
  const double ours = medianNs(targets.size(), [&](std::size_t i) {
    sink += table->doLookup(targets[i], group).numValidVias;
  });
  const double bare = medianNs(targets.size(), [&](std::size_t i) {
    Routing::NexthopStatusEntry e;
    Routing::Fib::FecPart part;
    sink += static_cast<std::uint64_t>(mStatus.findStatus(targets[i], e));
    if (uStatus.findStatus(targets[i], e) == Drobe::FindStatus::found)
      sink += static_cast<std::uint64_t>(fecs.findStatus(Routing::FecKey{e.fecId, 0}, part));
  });
  std::vector<std::uint32_t> fecIds;
  for (const auto& a : targets) {
    Routing::NexthopStatusEntry e;
    if (uStatus.findStatus(a, e) == Drobe::FindStatus::found) fecIds.push_back(e.fecId);
  }
  const double fecRead = medianNs(fecIds.size(), [&](std::size_t i) {
    Routing::Fib::FecPart part;
    sink += static_cast<std::uint64_t>(fecs.findStatus(Routing::FecKey{fecIds[i], 0}, part));
  });
  const double trieNs = medianNs(targets.size(), [&](std::size_t i) {
    sink += trie->doLookup(targets[i], group).numValidVias;
  });
  std::printf("RpfTable::doLookup      %8.1f ns  (%.3g /s)\n", ours, 1e9 / ours);
  std::printf("bare entry reads        %8.1f ns  ratio %.2fx (aim >= 0.4x)\n", bare, bare / ours);
  std::printf("one FEC part read       %8.1f ns  (%zu bytes per part, %u vias)\n", fecRead,
              sizeof(Routing::Fib::FecPart), Routing::kViasPerPart);
  std::printf("PimRpfTable::doLookup   %8.1f ns  this engine %.2fx as fast\n", trieNs,
              trieNs / ours);
  const std::uint64_t cfgBytes = fileBytes(
      Drobe::collectionFile(Routing::nexthopConfigPath(kV4, "default", "unicast"), "bench"));
  std::printf("shared bytes per tracked address: status %.1f, client config %.1f\n",
              static_cast<double>(uOut->sharedBytes()) / nTargets,
              static_cast<double>(cfgBytes) / nTargets);
  std::printf("(sink %llu)\n", static_cast<unsigned long long>(sink));
  table = nullptr;
  trie = nullptr;
  std::filesystem::remove_all(root);
  return 0;
}
