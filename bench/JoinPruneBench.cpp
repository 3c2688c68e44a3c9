// JoinPruneBench: what reading, writing and draining Join/Prune messages cost, per source,
// beside a baseline measured in the same run.
//
//   figure                                   baseline
//   read of a full-MTU IPv4 Join/Prune of    walking the same bytes into a preallocated
//   181 (S,G) joins (1474 bytes), and of     array of (address, flags, mask) records: once
//   the same with the sources descending     with the layout fixed (the compiler vectorises
//                                            it), once dispatching on each family byte with
//                                            a bounds check, as any reader must
//   write of that data set into a message    the same baselines
//   draining a 10,000-entry data set (300    the same baselines
//   groups, every kind) into 1500-byte
//   messages, per entry
//
// The writer deletes what it writes, so each write or drain iteration first copies the
// data set from a prototype; that copy is measured on its own and printed beside, and the
// per-source figures are given with and without it. A read includes making the message
// and its data set, as the receive path does per packet. Tracing is off. The summary
// divides CPU times (medians with --benchmark_repetitions), so that other processes on a
// shared machine shift the figures less. Run from the release preset:
//   cmake --preset release && cmake --build build/release --target JoinPruneBench
//   build/release/bench/JoinPruneBench
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Pim/PimMessage.h"

namespace {

using Routing::Pim::JoinPruneData;
using Routing::Pim::Packet::JoinPruneMessage;

constexpr unsigned kFullMtuSources = 181;                          // (1480 - 14 - 12) / 8
constexpr unsigned kFullMtuBytes = 14 + 12 + kFullMtuSources * 8;  // 1474
constexpr unsigned kDrainEntries = 10000;

Kel::Ptr<JoinPruneMessage> message() {
  auto m = Kel::Ptr<JoinPruneMessage>::make();
  m->srcIpIs(Nimo::IpGenAddr("10.0.0.1"));
  m->dstIpIs(Nimo::IpGenAddr("224.0.0.13"));
  return m;
}

Kel::Ptr<JoinPruneData> fullMtuData() {
  auto d = Kel::Ptr<JoinPruneData>::make();
  d->upstreamNeighborIs(Nimo::IpGenAddr("10.0.0.2"));
  d->holdTimeIs(210);
  auto& g = d->joinPruneGroupDataIs(Nimo::IpGenPrefix("239.1.1.1/32"));
  for (unsigned i = 0; i < kFullMtuSources; ++i)
    g.joinedSourceIs(Nimo::IpGenAddr::v4(0x0a000001 + i));
  return d;
}

// 300 groups, 10,000 entries of every kind, as a busy router's periodic refresh.
Kel::Ptr<JoinPruneData> drainData() {
  auto d = Kel::Ptr<JoinPruneData>::make();
  d->upstreamNeighborIs(Nimo::IpGenAddr("10.0.0.2"));
  d->holdTimeIs(210);
  unsigned made = 0;
  for (unsigned g = 0; made < kDrainEntries; g = (g + 1) % 300) {
    auto& gd = d->joinPruneGroupDataIs(Nimo::IpGenPrefix(Nimo::IpGenAddr::v4(0xef010000 + g), 32));
    const Nimo::IpGenAddr s = Nimo::IpGenAddr::v4(0x0a000000 + made + 1);
    switch (made % 4) {
      case 0:
        gd.joinedSourceIs(s);
        break;
      case 1:
        gd.prunedSourceIs(s);
        break;
      case 2:
        gd.prunedRptSourceIs(s);
        break;
      default:
        if (!gd.wcSourceData()) {
          gd.wcSourceDataIs(Routing::Pim::WcSourceData(Nimo::IpGenAddr("10.255.0.1"), true));
        } else {
          gd.joinedSourceIs(s);
        }
    }
    ++made;
  }
  return d;
}

Kel::Ptr<Nimo::Pkt> fullMtuPacket() {
  auto m = message();
  m->joinPruneDataIs(fullMtuData());
  auto pkt = Nimo::Pkt::create(1500);
  if (m->writeJoinPruneMessage(pkt, 0, nullptr) != kFullMtuBytes) {
    std::fprintf(stderr, "JoinPruneBench: the full-MTU message does not write\n");
    std::exit(1);
  }
  return pkt;
}

// ---------------------------------------------------------------------------------------
// Read, and the baseline walk

// The same sources in descending order, as a peer may list them.
Kel::Ptr<Nimo::Pkt> descendingPacket() {
  auto pkt = fullMtuPacket();
  std::uint8_t* p = pkt->writableData(0);
  std::uint8_t* first = p + 26;
  for (unsigned i = 0; i < kFullMtuSources / 2; ++i) {
    std::swap_ranges(first + i * 8, first + i * 8 + 8, first + (kFullMtuSources - 1 - i) * 8);
  }
  Nimo::store16(p + 2, 0);
  Nimo::store16(p + 2, Nimo::inetChecksum(p, kFullMtuBytes));
  return pkt;
}

void readFullMtu(benchmark::State& state, Kel::Ptr<Nimo::Pkt> (*make)()) {
  auto pkt = make();
  for (auto _ : state) {
    auto m = message();
    const std::uint32_t n = m->readJoinPruneMessage(pkt, 0, nullptr);
    if (n != kFullMtuBytes) state.SkipWithError("read failed");
    benchmark::DoNotOptimize(n);
  }
}

struct WalkedSource {
  std::uint32_t address;
  std::uint8_t flags;
  std::uint8_t maskLen;
};

void walkFullMtu(benchmark::State& state) {
  auto pkt = fullMtuPacket();
  std::vector<WalkedSource> out(kFullMtuSources);
  const std::uint8_t* base = pkt->data(0);
  for (auto _ : state) {
    benchmark::DoNotOptimize(base);
    const std::uint8_t* p = base + 26;  // header, upstream, J/P info, group, counts
    for (unsigned i = 0; i < kFullMtuSources; ++i, p += 8) {
      out[i] = WalkedSource{Nimo::load32(p + 4), p[2], p[3]};
    }
    benchmark::ClobberMemory();
  }
}

// The same walk for a reader that does not know the layout in advance: the family byte
// picks the address length, and each source is bounds-checked before it is copied.
struct WalkedAddress {
  std::uint8_t family;
  std::uint8_t flags;
  std::uint8_t maskLen;
  std::uint8_t bytes[16];
};

void walkFullMtuChecked(benchmark::State& state) {
  auto pkt = fullMtuPacket();
  std::vector<WalkedAddress> out(kFullMtuSources);
  const std::uint8_t* base = pkt->data(0);
  const std::uint32_t size = pkt->size();
  for (auto _ : state) {
    benchmark::DoNotOptimize(base);
    std::uint32_t pos = 26;
    for (unsigned i = 0; i < kFullMtuSources; ++i) {
      const std::uint8_t* p = base + pos;
      const std::uint32_t n = p[0] == 2 ? 16 : 4;
      if (size - pos < 4 + n) break;
      WalkedAddress& w = out[i];
      w.family = p[0];
      w.flags = p[2];
      w.maskLen = p[3];
      std::memcpy(w.bytes, p + 4, n);
      pos += 4 + n;
    }
    benchmark::ClobberMemory();
  }
}

// ---------------------------------------------------------------------------------------
// Write and drain, and the copy they include

void copyData(benchmark::State& state, Kel::Ptr<JoinPruneData> (*make)()) {
  auto proto = make();
  for (auto _ : state) {
    auto d = Kel::Ptr<JoinPruneData>::make(*proto);
    benchmark::DoNotOptimize(d.ptr());
  }
}

void writeFullMtu(benchmark::State& state) {
  auto proto = fullMtuData();
  auto m = message();
  for (auto _ : state) {
    m->joinPruneDataIs(Kel::Ptr<JoinPruneData>::make(*proto));
    auto pkt = Nimo::Pkt::create(1500);
    const std::uint32_t n = m->writeJoinPruneMessage(pkt, 0, nullptr);
    if (n != kFullMtuBytes) state.SkipWithError("write failed");
    benchmark::DoNotOptimize(n);
  }
}

void drain10k(benchmark::State& state) {
  auto proto = drainData();
  auto m = message();
  std::size_t messages = 0;
  for (auto _ : state) {
    auto d = Kel::Ptr<JoinPruneData>::make(*proto);
    m->joinPruneDataIs(d);
    while (!d->empty()) {
      auto pkt = Nimo::Pkt::create(1500);
      if (m->writeJoinPruneMessage(pkt, 0, nullptr) == 0) {
        state.SkipWithError("drain failed");
        break;
      }
      ++messages;
    }
  }
  state.counters["messages"] =
      benchmark::Counter(static_cast<double>(messages) / static_cast<double>(state.iterations()));
}

// ---------------------------------------------------------------------------------------
// Summary: per-source figures and their ratio to the walk, from this run's times.

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(OutputOptions o) : ConsoleReporter(o) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.error_occurred) continue;
      const std::string name = r.run_name.str();
      if (r.run_type == Run::RT_Iteration) {
        samples_[name].push_back(r.GetAdjustedCPUTime());
      } else if (r.aggregate_name == "median") {
        median_[name] = r.GetAdjustedCPUTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void printRatios() const {
    const double walk = ns("Walk/FullMtu") / kFullMtuSources;
    const double walkChecked = ns("WalkChecked/FullMtu") / kFullMtuSources;
    const double read = ns("Read/FullMtu") / kFullMtuSources;
    const double readDescending = ns("Read/FullMtuDescending") / kFullMtuSources;
    const double write = ns("Write/FullMtu") / kFullMtuSources;
    const double writeNet = (ns("Write/FullMtu") - ns("Copy/FullMtu")) / kFullMtuSources;
    const double drain = ns("Drain/10k") / kDrainEntries;
    const double drainNet = (ns("Drain/10k") - ns("Copy/10k")) / kDrainEntries;
    if (walk <= 0) return;
    std::printf("\n%-34s %10s   %-24s %10s %8s\n", "figure", "ns/source", "baseline", "ns/source",
                "ratio");
    auto row = [&](const char* figure, double v, const char* baseline, double b) {
      if (v > 0 && b > 0) {
        std::printf("%-34s %10.2f   %-24s %10.2f %7.2fx\n", figure, v, baseline, b, v / b);
      }
    };
    for (auto [name, b] :
         {std::pair{"walk, fixed layout", walk}, std::pair{"walk, family-checked", walkChecked}}) {
      row("read, full-MTU IPv4 (S,G) joins", read, name, b);
      row("read, same, sources descending", readDescending, name, b);
      row("write, same (copy included)", write, name, b);
      row("write, same (copy subtracted)", writeNet, name, b);
      row("drain 10,000 entries (copy incl.)", drain, name, b);
      row("drain 10,000 entries (copy subtr.)", drainNet, name, b);
    }
  }

 private:
  double ns(const std::string& name) const {
    if (auto m = median_.find(name); m != median_.end()) return m->second;
    auto s = samples_.find(name);
    if (s == samples_.end() || s->second.empty()) return 0;
    std::vector<double> v = s->second;
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2), v.end());
    return v[v.size() / 2];
  }
  std::map<std::string, std::vector<double>> samples_;
  std::map<std::string, double> median_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::RegisterBenchmark("Read/FullMtu", readFullMtu, fullMtuPacket);
  benchmark::RegisterBenchmark("Read/FullMtuDescending", readFullMtu, descendingPacket);
  benchmark::RegisterBenchmark("Walk/FullMtu", walkFullMtu);
  benchmark::RegisterBenchmark("WalkChecked/FullMtu", walkFullMtuChecked);
  benchmark::RegisterBenchmark("Write/FullMtu", writeFullMtu);
  benchmark::RegisterBenchmark("Copy/FullMtu", copyData, fullMtuData);
  benchmark::RegisterBenchmark("Drain/10k", drain10k);
  benchmark::RegisterBenchmark("Copy/10k", copyData, drainData);

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_Color
                                               : benchmark::ConsoleReporter::OO_None);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios();
  benchmark::Shutdown();
  return 0;
}
