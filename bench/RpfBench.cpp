// RPF lookup and RIB reader figures beside a plain binary trie over the same prefixes,
// measured in the same run:
// - doLookup per second on 1,000,000 IPv4 routes of Internet-like lengths (1-2 vias over 4
//   PIM interfaces with active neighbours, targets inside stored prefixes, varying groups,
//   traces off), and the trie match alone; IPv6 with 200,000 prefixes;
// - reader bytes per route (trie, shadow records, index) and shared-memory bytes per route;
// - reader catch-up from a fresh mount and 100,000 random updates in routes per second beside
//   binary-trie inserts, and the longest event-loop slice during catch-up, a resync and a
//   default-route or /8 change.
// Pinned to one core; each figure is the median of 5 runs, with its range.
//
// Usage: RpfBench [routes4] [routes6]
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <set>

#include "Pim/PimRpfTable.h"
#include "bench/BenchClock.h"

namespace {

using Nimo::AddressFamily;
using Nimo::IntfId;
using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

using Stat = BenchClock::Spread;
using BenchClock::spread;

// The baseline: one bit per level, nodes in a vector.
class BinaryTrie {
 public:
  explicit BinaryTrie(int bits) : bits_(bits) { nodes_.push_back({}); }
  void insert(const IpGenPrefix& p, std::uint32_t v) {
    std::uint32_t n = 0;
    const std::uint8_t* b = p.address().bytes();
    for (int i = 0; i < p.maskLen(); ++i) {
      const int bit = (b[i / 8] >> (7 - i % 8)) & 1;
      if (!nodes_[n].child[bit]) {
        nodes_[n].child[bit] = static_cast<std::uint32_t>(nodes_.size());
        nodes_.push_back({});
      }
      n = nodes_[n].child[bit];
    }
    nodes_[n].value = v;
  }
  std::uint32_t match(const IpGenAddr& a) const {
    std::uint32_t n = 0, best = nodes_[0].value;
    const std::uint8_t* b = a.bytes();
    for (int i = 0; i < bits_; ++i) {
      n = nodes_[n].child[(b[i / 8] >> (7 - i % 8)) & 1];
      if (!n) break;
      if (nodes_[n].value) best = nodes_[n].value;
    }
    return best;
  }

 private:
  struct Node {
    std::uint32_t child[2] = {0, 0};
    std::uint32_t value = 0;
  };
  int bits_;
  std::vector<Node> nodes_;
};

std::uint8_t v4Len(std::mt19937& rng) {
  const auto r = rng() % 1000;
  if (r < 550) return 24;
  if (r < 700) return static_cast<std::uint8_t>(22 + rng() % 2);
  if (r < 780) return static_cast<std::uint8_t>(20 + rng() % 2);
  if (r < 900) return static_cast<std::uint8_t>(16 + rng() % 4);
  if (r < 910) return static_cast<std::uint8_t>(8 + rng() % 8);
  if (r < 930) return static_cast<std::uint8_t>(25 + rng() % 8);
  return static_cast<std::uint8_t>(17 + rng() % 5);
}
std::uint8_t v6Len(std::mt19937& rng) {
  const auto r = rng() % 100;
  if (r < 50) return 48;
  if (r < 65) return 32;
  if (r < 75) return 44;
  if (r < 85) return 40;
  if (r < 92) return static_cast<std::uint8_t>(29 + rng() % 8);
  return static_cast<std::uint8_t>(56 + rng() % 9);
}

IpGenAddr randomAddr(std::mt19937& rng, AddressFamily af) {
  std::uint8_t b[16];
  for (auto& x : b) x = static_cast<std::uint8_t>(rng());
  if (af == AddressFamily::ipv4) {
    b[0] = static_cast<std::uint8_t>(1 + rng() % 223);
  } else {
    b[0] = 0x20;
    b[1] = static_cast<std::uint8_t>(rng() % 16);  // 2000::/12, as allocated space is
  }
  return IpGenAddr(af, b);
}

// A random address inside p.
IpGenAddr inside(std::mt19937& rng, const IpGenPrefix& p) {
  const IpGenAddr r = randomAddr(rng, p.af());
  std::uint8_t b[16];
  for (int i = 0; i < p.address().byteLength(); ++i) {
    const int keep = std::clamp(p.maskLen() - 8 * i, 0, 8);
    const auto mask = static_cast<std::uint8_t>(keep == 0 ? 0 : 0xff << (8 - keep));
    b[i] = static_cast<std::uint8_t>((p.address().bytes()[i] & mask) | (r.bytes()[i] & ~mask));
  }
  return IpGenAddr(p.af(), b);
}

template <AddressFamily F>
struct Setup {
  using Via = Routing::ViaGen<F>;
  std::vector<IpGenPrefix> prefixes;
  std::vector<std::vector<Via>> sets;
  std::vector<IpGenAddr> targets, groups;
};

template <AddressFamily F>
Setup<F> makeSetup(std::size_t n, std::uint32_t seed) {
  Setup<F> s;
  std::mt19937 rng(seed);
  std::set<IpGenPrefix> seen;
  while (seen.size() < n) {
    const std::uint8_t len = F == AddressFamily::ipv4 ? v4Len(rng) : v6Len(rng);
    seen.insert(IpGenPrefix(randomAddr(rng, F), len).masked());
  }
  s.prefixes.assign(seen.begin(), seen.end());
  std::shuffle(s.prefixes.begin(), s.prefixes.end(), rng);
  for (int i = 0; i < 4; ++i) {
    const IpGenAddr hop(F == AddressFamily::ipv4 ? fmt::format("10.0.{}.2", i)
                                                 : fmt::format("fe80::{}:2", i + 1));
    s.sets.push_back({{hop, IntfId(fmt::format("eth{}", i))}});
  }
  s.sets.push_back({s.sets[0][0], s.sets[1][0]});
  s.sets.push_back({s.sets[2][0], s.sets[3][0]});
  for (int i = 0; i < (1 << 20); ++i) {
    s.targets.push_back(inside(rng, s.prefixes[rng() % s.prefixes.size()]));
    s.groups.push_back(F == AddressFamily::ipv4
                           ? IpGenAddr::v4(0xe8000000u + (rng() & 0xffffff))
                           : IpGenAddr(fmt::format("ff3e::{:x}", rng() & 0xffff)));
  }
  return s;
}

struct Row {
  std::string figure;
  Stat value;
  std::string unit;
  Stat baseline;
  std::string target;
};
std::vector<Row> gRows;

template <typename F>
Stat timeNs(int runs, std::size_t ops, F&& fn) {
  std::vector<double> v;
  for (int r = 0; r < runs; ++r) {
    const auto t = Clock::now();
    fn();
    v.push_back(secondsSince(t) * 1e9 / static_cast<double>(ops));
  }
  return spread(v);
}

template <AddressFamily F>
void runFamily(std::size_t n, Ulm::EventLoop& loop, const char* label) {
  using Traits = Routing::FamilyTraits<F>;
  constexpr int kRuns = 5;
  std::printf("%s: %zu prefixes\n", label, n);
  const Setup<F> s = makeSetup<F>(n, F == AddressFamily::ipv4 ? 1 : 2);
  const std::string path = Routing::ribMountPath(F, "bench");
  auto fecs = Routing::FecWriterGen<F>::create(path, "fec", 1024);
  auto urib =
      Routing::RouteWriterGen<F>::create(path, "urib", fecs, static_cast<std::uint32_t>(n * 2));
  for (std::size_t i = 0; i < n; ++i) {
    urib->routeIs(s.prefixes[i], Traits::RouteType::remote, 0, 1, s.sets[i % s.sets.size()]);
  }
  urib->commit();

  // Catch-up from a fresh mount, beside binary-trie inserts of the same prefixes.
  std::vector<double> catchUp, binInsert;
  Kel::Ptr<Routing::Shadow::StatusGen<F>> shadow;
  double longestCatchUp = 0;
  for (int r = 0; r < kRuns; ++r) {
    shadow = nullptr;
    auto t = Clock::now();
    shadow = Routing::Shadow::StatusGen<F>::create(loop, path, "urib");
    while (!shadow->synced()) loop.runOnce(0.0);
    catchUp.push_back(static_cast<double>(n) / secondsSince(t));
    longestCatchUp = std::max(longestCatchUp, shadow->longestSlice());
    t = Clock::now();
    BinaryTrie bt(Traits::kBits);
    for (std::size_t i = 0; i < n; ++i) bt.insert(s.prefixes[i], static_cast<std::uint32_t>(i + 1));
    binInsert.push_back(static_cast<double>(n) / secondsSince(t));
  }
  BinaryTrie bt(Traits::kBits);
  for (std::size_t i = 0; i < n; ++i) bt.insert(s.prefixes[i], static_cast<std::uint32_t>(i + 1));

  auto ucast = Kel::Ptr<Routing::Pim::PimUcastRouteStatus>::make("ucast");
  auto status = Kel::Ptr<Routing::Pim::Status>::make("pim");
  for (int i = 0; i < 4; ++i) {
    const auto& via = s.sets[static_cast<std::size_t>(i)][0];
    status->intfIs(via.intfId, false,
                   IpGenAddr(F == AddressFamily::ipv4 ? fmt::format("10.0.{}.1", i)
                                                      : fmt::format("fe80::{}:1", i + 1)));
    status->activeNeighborIs({via.intfId, via.hop}, 105);
  }
  if constexpr (F == AddressFamily::ipv4) {
    ucast->uribShadowStatusIs(shadow);
    ucast->uribStatusIs(shadow->table());
    ucast->uribFecIs(Routing::Pim::FecTable4::create(loop, path, "fec"));
  } else {
    ucast->urib6ShadowStatusIs(shadow);
    ucast->urib6StatusIs(shadow->table());
    ucast->urib6FecIs(Routing::Pim::FecTable6::create(loop, path, "fec"));
  }
  for (int i = 0; i < 5; ++i) loop.runOnce(0.0);
  auto table = Routing::Pim::pimRpfTableFactory(
      ucast, status, Kel::Ptr<Routing::Multicast::Fib::Config>::make("mfib"), nullptr, nullptr);

  const std::size_t ops = s.targets.size();
  std::uint64_t sink = 0, empty = 0;
  const Stat binNs = timeNs(kRuns, ops, [&] {
    for (const auto& t : s.targets) sink += bt.match(t);
  });
  const Stat matchNs = timeNs(kRuns, ops, [&] {
    for (const auto& t : s.targets)
      sink += reinterpret_cast<std::uintptr_t>(shadow->trie()->longestMatch(t));
  });
  const Stat lookupNs = timeNs(kRuns, ops, [&] {
    for (std::size_t i = 0; i < ops; ++i) empty += !table->doLookup(s.targets[i], s.groups[i]);
  });
  const Stat hotNs = timeNs(1, 100000, [&] {
    for (int i = 0; i < 100000; ++i) empty += !table->doLookup(s.targets[0], s.groups[0]);
  });
  std::printf("  doLookup of one target, cache hot: %.1f ns\n", hotNs.median);
  if (empty) std::printf("  (%llu empty answers)\n", static_cast<unsigned long long>(empty));
  std::printf("  (checksum %llu)\n", static_cast<unsigned long long>(sink & 0xff));

  // 100,000 random updates: new next hops for random routes, in commits of 1,000; the reader's
  // time is the loop's.
  std::vector<double> updates;
  std::mt19937 rng(9);
  const std::size_t kUpdates = std::min<std::size_t>(100000, n);
  for (int r = 0; r < kRuns; ++r) {
    double readerSeconds = 0;
    for (std::size_t done = 0; done < kUpdates; done += 1000) {
      for (int k = 0; k < 1000; ++k) {
        const std::size_t i = rng() % n;
        urib->routeIs(s.prefixes[i], Traits::RouteType::remote, static_cast<std::uint32_t>(r + 1),
                      1, s.sets[rng() % s.sets.size()]);
      }
      urib->commit();
      const auto t = Clock::now();
      for (int k = 0; k < 3; ++k) loop.runOnce(0.0);
      readerSeconds += secondsSince(t);
    }
    updates.push_back(static_cast<double>(kUpdates) / readerSeconds);
  }
  // Longest loop callback: a /0 and a /8 change with the full table, and a resync forced by a
  // burst larger than the change ring.
  double longestChange = 0;
  for (const char* p : {F == AddressFamily::ipv4 ? "0.0.0.0/0" : "::/0",
                        F == AddressFamily::ipv4 ? "11.0.0.0/8" : "2001::/8"}) {
    for (int k = 0; k < 2; ++k) {
      if (k == 0) {
        urib->routeIs(IpGenPrefix(p), Traits::RouteType::remote, 0, 1, s.sets[0]);
      } else {
        urib->routeDel(IpGenPrefix(p));
      }
      urib->commit();
      const auto t = Clock::now();
      loop.runOnce(0.0);
      longestChange = std::max(longestChange, secondsSince(t));
    }
  }
  const double before = shadow->longestSlice();
  for (int k = 0; k < 5000; ++k) {
    urib->routeIs(s.prefixes[rng() % n], Traits::RouteType::remote, 99, 1, s.sets[rng() % 4]);
  }
  urib->commit();
  const auto resyncs = shadow->resyncs();
  const auto t = Clock::now();
  while (shadow->resyncs() == resyncs || shadow->resyncing()) loop.runOnce(0.0);
  const double resyncSeconds = secondsSince(t);
  const double longestResync = std::max(before, shadow->longestSlice());

  const double readerBytes =
      static_cast<double>(shadow->trie()->memoryBytes()) / static_cast<double>(n);
  const double shmBytes =
      static_cast<double>(shadow->table()->stats().bytes + fecs->table().stats().bytes) /
      static_cast<double>(n);
  std::printf("  doLookup %.1f ns (%.1f-%.1f), match %.1f ns, binary trie %.1f ns\n",
              lookupNs.median, lookupNs.lo, lookupNs.hi, matchNs.median, binNs.median);
  std::printf("  reader %.0f B/route (trie, shadow, index), shared memory %.0f B/route\n",
              readerBytes, shmBytes);
  std::printf("  resync of %zu routes by difference: %.3f s in slices\n", n, resyncSeconds);
  std::printf("  longest slice: catch-up %.4f s, /0 or /8 change %.4f s, resync %.4f s\n",
              longestCatchUp, longestChange, longestResync);
  const std::string l(label);
  auto perSec = [](Stat ns) { return Stat{1e9 / ns.median, 1e9 / ns.hi, 1e9 / ns.lo}; };
  gRows.push_back({l + " doLookup/s", perSec(lookupNs), "/s", perSec(binNs), ">= 0.5x (aim 0.8x)"});
  gRows.push_back({l + " match/s", perSec(matchNs), "/s", perSec(binNs), "-"});
  gRows.push_back({l + " catch-up routes/s", spread(catchUp), "/s", spread(binInsert), ">= 0.25x"});
  gRows.push_back({l + " update routes/s", spread(updates), "/s", spread(binInsert), ">= 0.25x"});
  const double longest = std::max(longestCatchUp, std::max(longestChange, longestResync));
  // One figure over all runs: no range. The baseline column holds the limit.
  gRows.push_back(
      {l + " longest slice (s)", {longest, longest, longest}, "s", {0.1, 0.1, 0.1}, "<= 0.1 s"});
  gRows.push_back({l + " reader B/route",
                   {readerBytes, readerBytes, readerBytes},
                   "B",
                   {150, 150, 150},
                   "aim <= 150"});
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t n4 = argc > 1 ? std::stoul(argv[1]) : 1000000;
  const std::size_t n6 = argc > 2 ? std::stoul(argv[2]) : 200000;
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(1, &set);
  ::sched_setaffinity(0, sizeof set, &set);
  const std::string root = fmt::format("/dev/shm/rpfbench.{}", ::getpid());
  ::setenv("DROBE_ROOT", root.c_str(), 1);
  {
    Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
    runFamily<AddressFamily::ipv4>(n4, loop, "IPv4");
    runFamily<AddressFamily::ipv6>(n6, loop, "IPv6");
  }
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  std::printf("\n%-28s %14s %22s %14s %7s  %s\n", "figure", "value", "(range)", "baseline", "ratio",
              "target");
  for (const Row& r : gRows) {
    // Rates: ours over the baseline's; limits (slice, bytes): ours over the limit.
    const double ratio = r.value.median / r.baseline.median;
    std::printf("%-28s %14.4g %10.4g-%-11.4g %14.4g %6.2fx  %s\n", r.figure.c_str(), r.value.median,
                r.value.lo, r.value.hi, r.baseline.median, ratio, r.target.c_str());
  }
  return 0;
}
