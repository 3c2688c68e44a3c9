// The RPF machines under a flapping default route and other RIB events, each figure beside
// a baseline measured in the same run:
// - the flap: 10,000 /24s and a default route in the unicast RIB (shared memory, read back
//   through the shadow); 100,000 (S,G) routes linked by an agent doing real lookups, 20,000
//   of them on the default; the default withdrawn (every recomputation done), then restored.
//   At the default quantum and at 0.005 s, and once more with all 100,000 on the default.
//   Per phase: routes affected; published by each machine; duplicates, missed and needless;
//   slices; the longest slice; the longest event-loop callback of any kind; the time from
//   the RIB notice to the last publication (timer gaps on the loop's clock plus the work);
//   the machines' time per affected route (wall, and this thread's CPU) beside a bare loop
//   publishing the same routes to the same kind of agent without the machines; bytes per
//   route held by both machines (the agent's own records excluded).
// - 100,000 unresolved routes and RIB changes under which none lies, beside a bare
//   longerRoutePresent on the same trie.
// - a /24 added under a /16 with 100,000 users, beside marking those users directly.
// - 1,000 RIB changes per second for 10 s of loop time under 100,000 routes.
// The loop's clock is a manual clock stepped to each timer's deadline, so timer gaps cost no
// waiting; work is timed with the monotonic clock.
//
// Usage: RpfSmBench [flap|flap005|flapall|unrelated|specific|churn]   (all by default; build
// with the release preset for figures)
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <random>
#include <set>

#include "Pim/RpfSm.h"
#include "Pim/UnresolvedSm.h"
#include "bench/BenchClock.h"
#include "tests/RpfTestUtil.h"

namespace {

using namespace Routing::Pim;
using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
using Mono = std::chrono::steady_clock;
using Trie4 = Routing::Shadow::Status::Trie;

double since(Mono::time_point t) { return std::chrono::duration<double>(Mono::now() - t).count(); }
std::size_t heapBytes() { return mallinfo2().uordblks; }

struct Row {
  std::string figure;
  double value, baseline;
  std::string target;
};
std::vector<Row> gRows;
void row(std::string figure, double value, double baseline, std::string target) {
  gRows.push_back({std::move(figure), value, baseline, std::move(target)});
}

// The agent: recomputes each published route with a real lookup and drains it.
struct Agent : RpfStatus::Notifiee {
  Kel::Ptr<RpfConfig> config;
  Kel::Ptr<PimRpfTable> table;
  std::map<RouteKey, int> published;
  std::uint64_t needless = 0;
  void onRpfRouteChanged(const RouteKey& k) override {
    if (!notifierWritable()->rpfRouteChangedHas(k)) return;
    ++published[k];
    recompute(k);
    notifierWritable()->rpfRouteChangedDel(k);
  }
  void recompute(const RouteKey& k) {
    Rpf r = table->doLookup(k.source(), k.group()).rpf;
    r.target = k.source();
    const RpfConfigInfo* old = config->rpfConfigInfo(k);
    needless += old && old->rpf == r;
    config->rpfConfigInfoIs(k, RpfConfigInfo(r));
  }
};

struct Flap {
  PimTest::RibRig rig{1 << 15};
  Kel::Ptr<RpfConfig> config = Kel::Ptr<RpfConfig>::make("config");
  Kel::Ptr<RpfStatus> status = Kel::Ptr<RpfStatus>::make("status");
  Agent agent;
  Kel::Ptr<RpfSm> sm;
  Kel::Ptr<UnresolvedSm> un;
  std::vector<RouteKey> keys;
  double longestCallback = 0;
  // The same by this thread's CPU time: on a loaded machine the wall figure also counts
  // the time the scheduler gave to other processes in the middle of a callback.
  double longestCallbackCpu = 0;
  double work = 0;
  double workCpu = 0;

  void timedRunOnce() {
    const auto start = Mono::now();
    const double cpu0 = BenchClock::threadCpu();
    rig.loop_.runOnce(0.0);
    const double cpu = BenchClock::threadCpu() - cpu0;
    workCpu += cpu;
    longestCallbackCpu = std::max(longestCallbackCpu, cpu);
    const double d = since(start);
    longestCallback = std::max(longestCallback, d);
    work += d;
  }

  // Runs the loop until neither machine has a review scheduled, stepping the manual clock
  // to each deadline; returns the loop-clock time that passed.
  double settle() {
    const double t0 = rig.clock_->now();
    for (int i = 0; i < 1000000; ++i) {
      timedRunOnce();
      if (!sm->reviewScheduled() && !un->reviewScheduled() && i > 2) break;
      auto next = rig.loop_.timers().nextDeadline();
      if (next) rig.clock_->nowIs(std::max(rig.clock_->now(), *next));
    }
    return rig.clock_->now() - t0;
  }
};

void flap(double quantum, bool allOnDefault) {
  const std::string label =
      fmt::format("flap q={}{}", quantum, allOnDefault ? ", all on default" : "");
  Flap f;
  std::string text = "urib 0.0.0.0/0 2 0 0 10.0.1.2@eth1\n";
  for (std::uint32_t i = 0; i < 10000; ++i)
    text += fmt::format("urib {}/24 2 0 0 10.0.2.2@eth2\n",
                        IpGenAddr::v4(0x0b000000u + (i << 8)).str());
  if (f.rig.routesAre(text) != 0) std::printf("route load failed\n");
  for (int i = 0; i < 20; ++i) f.rig.loop_.runOnce(0.0);
  f.agent.config = f.config;
  f.agent.table = f.rig.table_;
  f.agent.notifierIs(f.status);
  const IpGenAddr group("232.1.1.1");
  for (std::uint32_t i = 0; i < 100000; ++i) {
    // 80,000 sources in the /24s (8 each), 20,000 outside them on the default.
    const bool onDefault = allOnDefault || i >= 80000;
    const std::uint32_t src =
        onDefault ? 0x14000000u + i : 0x0b000000u + ((i / 8) << 8) + 1 + i % 8;
    f.keys.emplace_back(IpGenAddr::v4(src), group);
    f.agent.recompute(f.keys.back());
  }
  // The agent's counter of every route exists before the heap is read: the figure is the
  // machines' alone.
  for (const RouteKey& k : f.keys) f.agent.published[k] = 0;
  const std::size_t heap0 = heapBytes();
  auto urib = f.rig.ucast_->uribShadowStatus()->trie();
  auto mrib = f.rig.ucast_->mribShadowStatus()->trie();
  f.sm = rpfSmFactory(Nimo::AddressFamily::ipv4, f.config, f.status, urib, mrib, f.rig.table_,
                      nullptr, f.rig.mfib_, f.rig.clock_, f.rig.loop_.timers());
  f.un = unresolvedSmFactory(f.status, urib, mrib, f.rig.clock_, f.rig.loop_.timers());
  f.sm->reviewQuantumIs(quantum);
  f.un->reviewQuantumIs(quantum);
  f.settle();  // the start-up publication of every route
  const double bytesPerRoute = static_cast<double>(heapBytes() - heap0) / 100000.0;
  std::printf("%s: %zu routes linked, %zu prefixes, %.0f bytes/route held by both machines\n",
              label.c_str(), f.config->rpfConfigInfo().size(), f.sm->trieSize(), bytesPerRoute);

  for (const bool withdraw : {true, false}) {
    // Which routes the change moves: the oracle is a fresh lookup of every route after it.
    std::map<RouteKey, Rpf> before;
    for (const RouteKey& k : f.keys) before[k] = f.config->rpfConfigInfo(k)->rpf;
    const auto sm0 = f.sm->stats();
    const auto un0 = f.un->stats();
    const auto rv0 = f.sm->reviewStats();
    f.agent.published.clear();
    f.agent.needless = 0;
    f.longestCallback = f.longestCallbackCpu = 0;
    f.work = f.workCpu = 0;
    if (withdraw) {
      f.rig.urib_->routeDel(IpGenPrefix("0.0.0.0/0"));
    } else {
      std::istringstream in("0.0.0.0/0 2 0 0 10.0.1.2@eth1\n");
      Routing::loadRoutes(*f.rig.urib_, in);
    }
    f.rig.commit();
    const double loopTime = f.settle();
    std::set<RouteKey> affected;
    std::size_t missed = 0, duplicates = 0, wrong = 0;
    for (const RouteKey& k : f.keys) {
      Rpf now = f.rig.table_->doLookup(k.source(), k.group()).rpf;
      now.target = k.source();
      if (!(now == before[k])) affected.insert(k);
      if (!(now == f.config->rpfConfigInfo(k)->rpf)) ++wrong;
      auto p = f.agent.published.find(k);
      if (affected.count(k) && p == f.agent.published.end()) ++missed;
      if (p != f.agent.published.end() && p->second > 1) ++duplicates;
    }
    std::size_t needless = 0;
    for (const auto& [k, n] : f.agent.published) needless += !affected.count(k);
    // Baseline: the same routes published to the same agent, no machines attached.
    auto config2 = Kel::Ptr<RpfConfig>::make("bare");
    auto status2 = Kel::Ptr<RpfStatus>::make("bare");
    for (const auto& [k, r] : before) config2->rpfConfigInfoIs(k, RpfConfigInfo(r));
    Agent bare;
    bare.config = config2;
    bare.table = f.rig.table_;
    bare.notifierIs(status2);
    const auto t0 = Mono::now();
    const double cpu0 = BenchClock::threadCpu();
    for (const RouteKey& k : affected) {
      status2->rpfRouteChangedIs(k);
      status2->rpfRouteChangedCountInc(k);
    }
    const double bareCpu = BenchClock::threadCpu() - cpu0;
    const double bareTime = since(t0);
    const double n = static_cast<double>(std::max<std::size_t>(affected.size(), 1));
    const char* phase = withdraw ? "withdraw" : "restore";
    std::printf(
        "  %s: affected %zu; published RpfSm %llu, UnresolvedSm %llu; duplicates %zu, missed "
        "%zu, needless %zu, wrong at the end %zu; slices %llu + %llu; longest slice %.4f s, "
        "longest callback %.4f s (CPU %.4f s); notice to last publication %.3f s (loop clock %.3f "
        "s of "
        "timer gaps + %.3f s work)\n",
        phase, affected.size(),
        static_cast<unsigned long long>(f.sm->stats().published - sm0.published),
        static_cast<unsigned long long>(f.un->stats().published - un0.published), duplicates,
        missed, needless, wrong,
        static_cast<unsigned long long>(f.sm->reviewStats().runs - rv0.runs),
        static_cast<unsigned long long>(f.un->stats().slices - un0.slices),
        std::max(f.sm->reviewStats().longestSlice, f.un->stats().longestSlice), f.longestCallback,
        f.longestCallbackCpu, loopTime + f.work, loopTime, f.work);
    const std::string p = label + " " + phase;
    row(p + ": us per affected route", f.work / n * 1e6, bareTime / n * 1e6, "<= 2x, aim 1.5x");
    // On a shared machine the wall figure also holds time given to other processes.
    row(p + ": CPU us per affected route", f.workCpu / n * 1e6, bareCpu / n * 1e6,
        "<= 2x, aim 1.5x");
    row(p + ": longest callback, s", f.longestCallback, quantum, "<= 1x quantum");
    row(p + ": longest callback, CPU s", f.longestCallbackCpu, quantum, "<= 1x quantum");
    row(p + ": dup+missed+needless", static_cast<double>(duplicates + missed + needless), 0, "0");
  }
  row(label + ": bytes per linked route", bytesPerRoute, 200, "aim <= 200");
}

// RIB changes under which no unresolved target lies, beside the bare trie query.
void unrelatedChange() {
  auto clock = Kel::Ptr<Kel::ManualClock>::make();
  Ulm::EventLoop loop(clock);
  auto urib = Kel::Ptr<Trie4>::make("urib", Nimo::AddressFamily::ipv4);
  auto status = Kel::Ptr<RpfStatus>::make("status");
  for (std::uint32_t i = 0; i < 100000; ++i) {
    const IpGenAddr src = IpGenAddr::v4(0x0b000001u + (i << 8));  // 11.0.0.1 to 12.134.159.1
    status->unresolvedRouteIs(RouteKey(src, IpGenAddr("232.1.1.1")), src);
  }
  auto un = unresolvedSmFactory(status, urib, nullptr, clock, loop.timers());
  while (loop.timers().nextDeadline()) {
    clock->nowIs(*loop.timers().nextDeadline());
    loop.runOnce(0.0);
  }
  constexpr int kOps = 200000;
  std::vector<IpGenPrefix> ps;  // /22s in 13.0.0.0/12: no unresolved source under any
  for (std::uint32_t i = 0; i < 1024; ++i)
    ps.emplace_back(IpGenAddr::v4(0x0d000000u + (i << 10)), 22);
  const auto& trie = un->index().trie();
  const std::uint64_t asked0 = un->stats().reviewsAsked;
  auto plain = Kel::Ptr<Trie4>::make("plain", Nimo::AddressFamily::ipv4);
  volatile bool sink = false;
  double best = 1e9, bestBare = 1e9;
  for (int rep = 0; rep < 5; ++rep) {
    // The RIB change through the machine (one query, nothing more), beside the same change
    // on a trie nobody watches plus the bare query by hand.
    auto t0 = Mono::now();
    for (int i = 0; i < kOps / 2; ++i) {
      const IpGenPrefix& p = ps[static_cast<std::size_t>(i) & 1023];
      urib->insert(p, Routing::Fib::Route());
      urib->remove(p);
    }
    best = std::min(best, since(t0) / kOps);
    t0 = Mono::now();
    for (int i = 0; i < kOps / 2; ++i) {
      const IpGenPrefix& p = ps[static_cast<std::size_t>(i) & 1023];
      plain->insert(p, Routing::Fib::Route());
      sink = sink ^ trie.longerRoutePresent(p);
      plain->remove(p);
      sink = sink ^ trie.longerRoutePresent(p);
    }
    bestBare = std::min(bestBare, since(t0) / kOps);
  }
  std::printf(
      "unrelated change: %.1f ns per RIB change with the machine, %.1f ns for the change "
      "and a bare longerRoutePresent; review scheduled: %s, reviews asked %llu\n",
      best * 1e9, bestBare * 1e9, un->reviewScheduled() ? "yes" : "no",
      static_cast<unsigned long long>(un->stats().reviewsAsked - asked0));
  row("unrelated RIB change, ns", best * 1e9, bestBare * 1e9, "<= 1.5x");
}

// A /24 added under a /16 with 100,000 users, beside marking its users directly.
void specificUnderBusy16() {
  auto clock = Kel::Ptr<Kel::ManualClock>::make();
  Ulm::EventLoop loop(clock);
  auto urib = Kel::Ptr<Trie4>::make("urib", Nimo::AddressFamily::ipv4);
  auto config = Kel::Ptr<RpfConfig>::make("config");
  auto status = Kel::Ptr<RpfStatus>::make("status");
  auto sm = rpfSmFactory(Nimo::AddressFamily::ipv4, config, status, urib, nullptr, nullptr, nullptr,
                         nullptr, clock, loop.timers());
  std::vector<RouteKey> in24;
  const IpGenPrefix p24("10.1.7.0/24");
  for (std::uint32_t i = 0; i < 100000; ++i) {
    const IpGenAddr src = IpGenAddr::v4(0x0a010000u + (i * 655) % 65536);
    const RouteKey k(src, IpGenAddr::v4(0xe8000000u + i));
    Rpf r;
    r.rpfIntf = Nimo::IntfId("eth1");
    r.prefix = IpGenPrefix("10.1.0.0/16");
    r.target = src;
    r.rib = RpfRib::U;
    config->rpfConfigInfoIs(k, RpfConfigInfo(r));
    if (p24.contains(src)) in24.push_back(k);
  }
  sm->reviewQuantumIs(1e9);
  sm->doReview();  // the start-up marks
  double best = 1e9, bestBare = 1e9;
  std::size_t marked = 0;
  for (int rep = 0; rep < 20; ++rep) {
    Routing::Fib::Route r;
    r.prefix = p24;
    auto t0 = Mono::now();
    urib->insert(p24, r);
    best = std::min(best, since(t0));
    marked = sm->changeRpf().size();
    urib->remove(p24);
    sm->doReview();
    std::set<RouteKey> direct;
    t0 = Mono::now();
    for (const RouteKey& k : in24) direct.insert(k);
    bestBare = std::min(bestBare, since(t0));
  }
  std::printf(
      "/24 under a /16 of 100,000 users: %zu marked (%zu users inside), %.1f us; "
      "marking them directly %.1f us\n",
      marked, in24.size(), best * 1e6, bestBare * 1e6);
  row("/24 under busy /16, us", best * 1e6, bestBare * 1e6, "<= 10x");
}

// 1,000 RIB changes per second for 10 s of loop time under 100,000 routes.
void steadyChurn() {
  Flap f;
  std::string text;
  for (std::uint32_t i = 0; i < 1000; ++i)
    text += fmt::format("urib {}/24 2 0 0 10.0.2.2@eth2\n",
                        IpGenAddr::v4(0x0b000000u + (i << 8)).str());
  f.rig.routesAre(text);
  f.agent.config = f.config;
  f.agent.table = f.rig.table_;
  f.agent.notifierIs(f.status);
  for (std::uint32_t i = 0; i < 100000; ++i) {
    // 99,000 sources in the /24s; 1,000 in 12.0.0.0/16 with no usable route (unresolved).
    const std::uint32_t src = i < 99000 ? 0x0b000000u + ((i % 1000) << 8) + 1 + i / 1000
                                        : 0x0c000001u + ((i % 1000) << 4);
    f.keys.emplace_back(IpGenAddr::v4(src), IpGenAddr::v4(0xe8000001u));
    f.agent.recompute(f.keys.back());
  }
  auto urib = f.rig.ucast_->uribShadowStatus()->trie();
  f.sm = rpfSmFactory(Nimo::AddressFamily::ipv4, f.config, f.status, urib, nullptr, f.rig.table_,
                      nullptr, f.rig.mfib_, f.rig.clock_, f.rig.loop_.timers());
  f.un = unresolvedSmFactory(f.status, urib, nullptr, f.rig.clock_, f.rig.loop_.timers());
  f.settle();
  // Every route's counter exists before the heap is read, so the agent's record does not
  // grow into the figure.
  for (const RouteKey& k : f.keys) f.agent.published[k] = 0;
  const std::size_t heap0 = heapBytes();
  const std::size_t index0 = f.un->index().memoryBytes();
  std::size_t heapHalf = 0, unresolvedHalf = 0;
  f.longestCallback = f.longestCallbackCpu = 0;
  std::mt19937 rng(1);
  for (int ms = 0; ms < 10000; ++ms) {
    // A /24's metric flips, a /28 comes or goes under a /24 in use, or (one in five) a route
    // with no usable next hop comes or goes over unresolved sources.
    const std::uint32_t i = static_cast<std::uint32_t>(rng() % 1000);
    const IpGenAddr net = IpGenAddr::v4(0x0b000000u + (i << 8));
    const IpGenAddr dead = IpGenAddr::v4(0x0c000000u + ((i % 16) << 8));
    std::string line;
    switch (rng() % 5) {
      case 0:
        line = fmt::format("{}/24 2 0 0 10.0.3.9@eth3\n", dead.str());
        break;
      case 1:
        line = fmt::format("{}/24 2 {} 0 10.0.2.2@eth2\n", net.str(), ms % 7);
        break;
      default:
        line = fmt::format("{}/28 2 0 0 10.0.2.2@eth2\n", net.str());
    }
    std::istringstream in(line);
    Routing::loadRoutes(*f.rig.urib_, in);
    if (rng() % 2) f.rig.urib_->routeDel(IpGenPrefix(line.substr(0, line.find(' '))));
    f.rig.commit();
    f.rig.clock_->advance(0.001);
    f.timedRunOnce();
    // Half-way, quiescent: what the second half adds tells growth that goes on from
    // tables that reached their size once.
    if (ms == 4999) {
      f.settle();
      heapHalf = heapBytes();
      unresolvedHalf = f.status->unresolvedRoute().size();
    }
  }
  f.settle();
  // The changes delete /24s for good (about half of them in the end), so the routes under
  // them stay unresolved and the machines hold them as such: the heap grows with that set.
  // With the starting routes back, every route resolves again and the heap must come back.
  std::size_t publications = 0;
  for (const auto& [k, n] : f.agent.published) publications += static_cast<std::size_t>(n);
  const std::size_t heapEnd = heapBytes();
  const std::size_t unresolvedEnd = f.status->unresolvedRoute().size();
  const std::size_t pendingEnd = f.sm->changeRpf().size();
  const double longest = f.longestCallback, longestCpu = f.longestCallbackCpu;
  f.rig.routesAre(text);
  f.settle();
  const long long heapBack = static_cast<long long>(heapBytes()) - static_cast<long long>(heap0);
  std::printf(
      "steady churn: 10,000 changes in 10 s of loop time; pending at the end %zu; "
      "UnresolvedSm restarts %llu over %llu reviews; longest callback %.4f s (CPU %.4f s); heap "
      "%+lld bytes after 5 s (%zu routes unresolved), %+lld after 10 s (%zu unresolved), %+lld "
      "with the starting routes back (%zu unresolved; UnresolvedSm's index keeps %+lld bytes of "
      "its peak capacity); %.3f publications per route\n",
      pendingEnd, static_cast<unsigned long long>(f.un->stats().restarts),
      static_cast<unsigned long long>(f.un->stats().reviewsFinished), longest, longestCpu,
      static_cast<long long>(heapHalf) - static_cast<long long>(heap0), unresolvedHalf,
      static_cast<long long>(heapEnd) - static_cast<long long>(heap0), unresolvedEnd, heapBack,
      f.status->unresolvedRoute().size(),
      static_cast<long long>(f.un->index().memoryBytes()) - static_cast<long long>(index0),
      static_cast<double>(publications) / 100000.0);
  row("steady churn: longest callback, s", longest, kReviewQuantum, "<= 1x quantum");
  row("steady churn: longest callback, CPU s", longestCpu, kReviewQuantum, "<= 1x quantum");
  row("steady churn: heap with the starting routes back, bytes", static_cast<double>(heapBack), 0,
      "~0");
}

}  // namespace

int main(int argc, char** argv) {
  Flicklog::allLevelsIs(0);
  // One scenario by name (flap, flap005, flapall, unrelated, specific, churn), or all.
  const std::string only = argc > 1 ? argv[1] : "";
  auto want = [&](const char* name) { return only.empty() || only == name; };
  if (want("flap")) flap(kReviewQuantum, false);
  if (want("flap005")) flap(0.005, false);
  if (want("flapall")) flap(kReviewQuantum, true);
  if (want("unrelated")) unrelatedChange();
  if (want("specific")) specificUnderBusy16();
  if (want("churn")) steadyChurn();
  std::printf("\n%-58s %12s %12s %8s  %s\n", "figure", "value", "baseline", "ratio", "target");
  for (const Row& r : gRows) {
    std::printf("%-58s %12.4g %12.4g %7.2fx  %s\n", r.figure.c_str(), r.value, r.baseline,
                r.baseline > 0 ? r.value / r.baseline : 0.0, r.target.c_str());
  }
  return 0;
}
