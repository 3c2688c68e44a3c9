// RpHashBench: the RP hash table's two hot operations, each beside a baseline measured in
// the same run.
//
//   figure                                   baseline
//   rpForGroup in a reader process, on a     the same longest match (present lengths,
//   table of 1,000 prefixes of 1, 4 or 33    longest first) over a std::unordered_map
//   distinct mask lengths                    of the same entries in this process
//   rpHashIs + rpHashCommit of one entry     Drobe::Writer::is + commit on a bare table
//                                            of the same records
// Goals: rpForGroup at least 0.5x its baseline's speed, the write at least 0.8x.
// A forked child writes the lookup tables and waits; this process reads them. Tables live
// under a private DROBE_ROOT, removed at exit. Run from the release preset:
//   cmake --preset release && cmake --build build/release --target RpHashBench
//   build/release/bench/RpHashBench
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "Pim/PimRpHashStatus.h"
#include "bench/BenchTimes.h"

namespace {

using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
namespace P = Routing::Pim;

constexpr int kLengthSets[] = {1, 4, 33};
constexpr std::size_t kPrefixes = 1000;

std::string lookupPath(int lengths) { return fmt::format("bench/rphash/lookup{}", lengths); }

// 1,000 IPv4 network prefixes in 224.0.0.0/4 using `lengths` distinct mask lengths (the
// longest ones, /32 down), so that most groups match only after probing several lengths.
std::vector<P::RpHash> entries(int lengths) {
  std::mt19937 rng(static_cast<unsigned>(lengths));
  std::vector<P::RpHash> out;
  std::set<IpGenPrefix> seen;
  while (out.size() < kPrefixes) {
    // With few lengths some are too short for 1,000 distinct prefixes: widen the draw.
    const auto len = static_cast<std::uint8_t>(32 - rng() % static_cast<unsigned>(lengths));
    if (len < 14 && rng() % 8) continue;
    const IpGenPrefix p =
        IpGenPrefix(IpGenAddr::v4(0xe0000000u | (rng() & 0x0fffffffu)), len).masked();
    if (!seen.insert(p).second) continue;
    out.emplace_back(p, IpGenAddr::v4(0x0a000000u + static_cast<std::uint32_t>(out.size())),
                     P::RpPriority(1), P::RpHashMaskLen(30), false, P::Mode::Sparse);
  }
  return out;
}

// Groups: three in four inside an entry (host bits random), the rest anywhere.
std::vector<IpGenAddr> groups(const std::vector<P::RpHash>& es) {
  std::mt19937 rng(99);
  std::vector<IpGenAddr> out;
  for (int i = 0; i < 4096; ++i) {
    std::uint32_t g = 0xe0000000u | (rng() & 0x0fffffffu);
    if (rng() % 4) {
      const IpGenPrefix& p = es[rng() % es.size()].key();
      const std::uint32_t mask = p.maskLen() ? ~0u << (32 - p.maskLen()) : 0;
      g = (p.address().v4Addr() & mask) | (g & ~mask);
    }
    out.push_back(IpGenAddr::v4(g));
  }
  return out;
}

struct PrefixHash {
  std::size_t operator()(const IpGenPrefix& p) const noexcept { return p.hash(); }
};

Ulm::EventLoop& loop() {
  static Ulm::EventLoop l(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
  return l;
}

void rpForGroupReader(benchmark::State& state) {
  const int lengths = static_cast<int>(state.range(0));
  auto t = P::rpHashStatusFactory(lookupPath(lengths));
  t->mountReader(loop());
  for (int i = 0; i < 1000 && t->rpHashSize() < kPrefixes; ++i) loop().runOnce(0.01);
  for (int i = 0; i < 100 && t->maskLengths(Nimo::AddressFamily::ipv4).size() <
                                 static_cast<std::size_t>(lengths);
       ++i) {
    loop().runOnce(0.01);
  }
  if (t->maskLengths(Nimo::AddressFamily::ipv4).size() != static_cast<std::size_t>(lengths)) {
    state.SkipWithError("the writer's table did not arrive");
    return;
  }
  const auto gs = groups(entries(lengths));
  std::size_t i = 0, hits = 0;
  for (auto _ : state) {
    hits += !!t->rpForGroup(gs[i++ & 4095]);
  }
  benchmark::DoNotOptimize(hits);
}

void rpForGroupUnorderedMap(benchmark::State& state) {
  const int lengths = static_cast<int>(state.range(0));
  const auto es = entries(lengths);
  std::unordered_map<IpGenPrefix, P::RpHash, PrefixHash> map;
  std::set<std::uint8_t, std::greater<>> present;
  for (const auto& e : es) {
    map.emplace(e.key(), e);
    present.insert(e.key().maskLen());
  }
  const std::vector<std::uint8_t> lens(present.begin(), present.end());
  const auto gs = groups(es);
  std::size_t i = 0, hits = 0;
  for (auto _ : state) {
    const IpGenAddr& g = gs[i++ & 4095];
    P::RpHash found;
    for (std::uint8_t len : lens) {
      if (auto it = map.find(IpGenPrefix(g, len).masked()); it != map.end()) {
        found = it->second;
        break;
      }
    }
    hits += !!found;
  }
  benchmark::DoNotOptimize(hits);
}

// One entry rewritten per iteration (its RP alternates), then committed.
P::RpHash rewritten(const std::vector<P::RpHash>& es, std::size_t i) {
  P::RpHash e = es[i % es.size()];
  e.rpIs(IpGenAddr::v4(static_cast<std::uint32_t>(i)));
  return e;
}

void writeRpHashStatus(benchmark::State& state) {
  auto t = P::rpHashStatusFactory("bench/rphash/write");
  if (!t->mountWriter()) return state.SkipWithError("cannot mount");
  const auto es = entries(33);
  for (const auto& e : es) t->rpHashIs(e);
  t->rpHashCommit(es[0]);
  std::size_t i = 0;
  for (auto _ : state) {
    const P::RpHash e = rewritten(es, i++);
    t->rpHashIs(e);
    t->rpHashCommit(e);
  }
}

void writeBareDrobe(benchmark::State& state) {
  const Drobe::TableSet set("bench/rphash/bare", P::RpHashStatus::writerMountInfo());
  auto w = set.writer<IpGenPrefix, P::RpHash>("rpHash");
  if (!w) return state.SkipWithError("cannot mount");
  const auto es = entries(33);
  for (const auto& e : es) w->is(e);
  w->commit();
  std::size_t i = 0;
  for (auto _ : state) {
    w->is(rewritten(es, i++));
    w->commit();
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string root = fmt::format("/dev/shm/rphash-bench-{}", ::getpid());
  std::filesystem::create_directories(root);
  ::setenv("DROBE_ROOT", root.c_str(), 1);
  int ready[2];
  if (::pipe(ready) != 0) return 1;
  const pid_t writer = ::fork();
  if (writer == 0) {
    std::vector<Kel::Ptr<P::RpHashStatus>> tables;
    for (int lengths : kLengthSets) {
      auto t = P::rpHashStatusFactory(lookupPath(lengths));
      if (!t->mountWriter()) ::_exit(1);
      const auto es = entries(lengths);
      for (const auto& e : es) t->rpHashIs(e);
      t->rpHashCommit(es[0]);
      tables.push_back(t);
    }
    (void)!::write(ready[1], "r", 1);
    ::pause();
    ::_exit(0);
  }
  char c;
  if (::read(ready[0], &c, 1) != 1) return 1;

  for (int lengths : kLengthSets) {
    benchmark::RegisterBenchmark("RpForGroup/Reader", rpForGroupReader)->Arg(lengths);
    benchmark::RegisterBenchmark("RpForGroup/UnorderedMap", rpForGroupUnorderedMap)->Arg(lengths);
  }
  benchmark::RegisterBenchmark("Write/RpHashStatus", writeRpHashStatus);
  benchmark::RegisterBenchmark("Write/BareDrobe", writeBareDrobe);
  const int rc = BenchTimes::run(argc, argv, BenchTimes::Clock::Real, [](const auto& t) {
    std::printf("\n%-34s %10s %10s %8s %6s\n", "figure", "ns", "baseline", "speed", "goal");
    auto line = [&](const std::string& what, const std::string& fig, const std::string& base,
                    double goal) {
      const double f = t.ns(fig), b = t.ns(base);
      if (f > 0 && b > 0) {
        std::printf("%-34s %10.1f %10.1f %7.2fx %5.1fx\n", what.c_str(), f, b, b / f, goal);
      }
    };
    for (int lengths : kLengthSets) {
      line(fmt::format("rpForGroup, {} lengths", lengths),
           fmt::format("RpForGroup/Reader/{}", lengths),
           fmt::format("RpForGroup/UnorderedMap/{}", lengths), 0.5);
    }
    line("rpHashIs + rpHashCommit", "Write/RpHashStatus", "Write/BareDrobe", 0.8);
  });
  ::kill(writer, SIGKILL);
  ::waitpid(writer, nullptr, 0);
  std::filesystem::remove_all(root);
  return rc;
}
