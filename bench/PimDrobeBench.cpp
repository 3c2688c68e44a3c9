// PimDrobeBench: what the counting rule costs on the shared-memory counter table, and how
// many bytes of shared memory each entry of each status collection takes, each printed
// beside a baseline measured in the same run.
//
//   figure                                baseline
//   one counting-rule update: the four    the same four keys counted in a plain
//   keys the I/O layer counts per packet  std::unordered_map (find or insert, add one)
//   (all interfaces / the interface, any
//   subtype / the subtype), on the writer
//   shared bytes per entry, per           the record's own size (sizeof)
//   collection (file size / capacity)
//
// The update loop commits every 256 updates (amortised into the figure), as an agent
// commits once per event-loop turn, not per packet. Tables live under a private
// DROBE_ROOT, removed at exit. Run from the release preset:
//   cmake --preset release -B build/<you>-rel && cmake --build build/<you>-rel --target
//   PimDrobeBench build/<you>-rel/bench/PimDrobeBench
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "Pim/PimDrobe.h"
#include "Pim/PimDrobeIntf.h"
#include "bench/BenchTimes.h"

namespace {

namespace D = Routing::Pim::Drobe;
namespace N = Routing::Pim::IntfNghbr::Drobe;
using Routing::Pim::IO::MessageCounterDirection;
using Routing::Pim::IO::MessageCounterType;

// The packets the loop counts: 32 interfaces, Join/Prune or Hello, subtype 0.
struct Packet {
  Nimo::IntfId intf;
  std::uint8_t mtype;
};
const std::vector<Packet>& packets() {
  static const std::vector<Packet> p = [] {
    std::vector<Packet> v;
    for (int i = 0; i < 32; ++i) {
      v.push_back(
          {Nimo::IntfId("Ethernet" + std::to_string(i)), static_cast<std::uint8_t>(i % 2 ? 3 : 0)});
    }
    return v;
  }();
  return p;
}

// The four keys of one update, in the I/O layer's order.
template <typename Count>
void countPacket(const Packet& p, Count count) {
  static const Nimo::IntfId all;
  count(D::CounterKey(p.mtype, 255, all));
  count(D::CounterKey(p.mtype, 255, p.intf));
  count(D::CounterKey(p.mtype, 0, all));
  count(D::CounterKey(p.mtype, 0, p.intf));
}

void countingRuleDrobe(benchmark::State& state) {
  static int n = 0;
  auto c = D::messageCountersFactory("bench/counters/" + std::to_string(++n));
  if (!c->mountWriter()) {
    state.SkipWithError("cannot mount the counter table");
    return;
  }
  const auto& ps = packets();
  std::size_t i = 0;
  for (auto _ : state) {
    countPacket(ps[i % ps.size()], [&](const D::CounterKey& k) {
      c->msgCounterInc(k, MessageCounterDirection::rx, MessageCounterType::success);
    });
    if (++i % 256 == 0) c->msgCounterCommit();
  }
  benchmark::DoNotOptimize(c->msgCounterSize());
}

struct CounterKeyHash {
  std::size_t operator()(const D::CounterKey& k) const noexcept { return k.hash(); }
};

void countingRuleUnorderedMap(benchmark::State& state) {
  std::unordered_map<D::CounterKey, D::MessageCounterData, CounterKeyHash> m;
  m.reserve(D::MessageCounters::kMsgCounterCapacity);
  const auto& ps = packets();
  std::size_t i = 0;
  for (auto _ : state) {
    countPacket(ps[i++ % ps.size()], [&](const D::CounterKey& k) {
      auto it = m.try_emplace(k, k).first;
      it->second.countInc(MessageCounterDirection::rx, MessageCounterType::success);
    });
  }
  benchmark::DoNotOptimize(m.size());
}

// ---------------------------------------------------------------------------------------
// Summary.

void printRatio(const BenchTimes::Times& t) {
  const double f = t.ns("CountingRule/Drobe"), b = t.ns("CountingRule/UnorderedMap");
  if (f <= 0 || b <= 0) return;
  std::printf("\n%-30s %10s   %-30s %10s %8s\n", "figure", "ns/op", "baseline", "ns/op", "ratio");
  std::printf("%-30s %10.1f   %-30s %10.1f %7.2fx\n", "CountingRule/Drobe", f,
              "CountingRule/UnorderedMap", b, f / b);
}

template <typename Table>
void printBytes(const char* set, const Table& t) {
  const ::Drobe::CollectionStats s = t.stats();
  const double perEntry = static_cast<double>(s.bytes) / s.capacity;
  const auto record = sizeof(typename Table::Value);
  std::printf("%-12s %-26s %8u %12llu %10.1f %8zu %7.2fx\n", set, t.name().c_str(), s.capacity,
              static_cast<unsigned long long>(s.bytes), perEntry, record,
              perEntry / static_cast<double>(record));
}

void printSharedBytes() {
  auto s = D::statusFactory("bench/status");
  auto a = N::intfStatusFactory("bench/intf/status");
  auto c = D::messageCountersFactory("bench/counters/bytes");
  if (!s->mountWriter() || !a->mountWriter() || !c->mountWriter()) {
    std::fprintf(stderr, "PimDrobeBench: cannot mount the tables\n");
    return;
  }
  std::printf("\n%-12s %-26s %8s %12s %10s %8s %8s\n", "table set", "collection", "capacity",
              "shm bytes", "bytes/ent", "sizeof", "ratio");
  printBytes("Status", s->pimIntfTable());
  printBytes("Status", s->neighborTable());
  printBytes("Status", s->inactiveNeighborTable());
  printBytes("Status", s->intfSecondaryAddressTable());
  printBytes("Status", s->intfSecondaryPrefixTable());
  printBytes("Status", s->neighborSecondaryAddressTable());
  printBytes("IntfStatus", a->intfTable());
  printBytes("IntfStatus", a->neighborTable());
  printBytes("IntfStatus", a->inactiveNeighborTable());
  printBytes("IntfStatus", a->intfSecondaryAddressTable());
  printBytes("IntfStatus", a->intfSecondaryPrefixTable());
  printBytes("IntfStatus", a->neighborSecondaryAddressTable());
  printBytes("Counters", c->msgCounterTable());
}

}  // namespace

int main(int argc, char** argv) {
  const std::string root = "/dev/shm/pimdrobe-bench-" + std::to_string(::getpid());
  std::filesystem::create_directories(root);
  ::setenv("DROBE_ROOT", root.c_str(), 1);

  benchmark::RegisterBenchmark("CountingRule/Drobe", countingRuleDrobe);
  benchmark::RegisterBenchmark("CountingRule/UnorderedMap", countingRuleUnorderedMap);
  const int rc = BenchTimes::run(argc, argv, BenchTimes::Clock::Real, [](const auto& t) {
    printRatio(t);
    printSharedBytes();
  });
  std::filesystem::remove_all(root);
  return rc;
}
