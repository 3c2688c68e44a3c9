// DrobeBench: the shared-memory tables beside their floors, measured in the same run.
//
//   DrobeBench                 keyed updates vs bare seqlock stores, wake-up latency
//                              (eventfd, or datagram without ptrace access, + epoll vs
//                              bare futex), bytes per entry
//   DrobeBench --wake [rounds [samples]]  wake-up latency, futex and drobe side by side in
//                              each round (default 20 rounds of 5000 samples); prints
//                              each round and the spread of the ratios
//   DrobeBench --torn [reads]  a writer process updates records without pause while this
//                              process reads them (default 10^9 reads); prints reads and
//                              torn reads
//
// The record is shaped like the message-counter table's (interface name, type, subtype,
// six 32-bit counts) at its declared capacity of 7168 entries.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Pim/platform/Drobe.h"
#include "Pim/platform/Nimo.h"

namespace {

constexpr std::uint32_t kCapacity = 7168;

struct CKey {
  Nimo::IntfId intf;
  std::uint8_t mtype = 0;
  std::uint8_t stype = 0;
  std::uint32_t hash() const {
    // The counter key's combination: rotated component hashes, then Wang's shift mix.
    std::uint32_t h =
        std::rotl(static_cast<std::uint32_t>((stype << 8) | mtype), 8) ^ std::rotl(intf.hash(), 16);
    h = (h * 32767u) - 1;
    h = (h ^ (h >> 12)) * 5;
    h = (h ^ (h >> 4)) * 2057;
    return h ^ (h >> 16);
  }
  bool operator==(const CKey&) const = default;
};

struct CVal {
  CKey k;
  std::uint32_t rx[3] = {};
  std::uint32_t tx[3] = {};
  CKey key() const { return k; }
  bool operator==(const CVal&) const = default;
  // Self-checking content for the torn-read run: every count derives from rx[0].
  static CVal make(const CKey& k, std::uint32_t n) {
    CVal v{k, {n, n * 3u, n ^ 0x5a5a5a5au}, {~n, n * 7u, n + 0x1234u}};
    return v;
  }
  bool intact() const {
    const CVal w = make(k, rx[0]);
    return std::memcmp(this, &w, sizeof w) == 0;
  }
};

using Writer = Drobe::Writer<CKey, CVal>;
using Reader = Drobe::Reader<CKey, CVal>;

std::vector<CKey> makeKeys(std::uint32_t n) {
  std::vector<CKey> keys;
  for (std::uint32_t i = 0; keys.size() < n; ++i) {
    CKey k{Nimo::IntfId("Ethernet" + std::to_string(i / 48)), static_cast<std::uint8_t>(i % 8),
           static_cast<std::uint8_t>(i / 8 % 6)};
    keys.push_back(k);
  }
  return keys;
}

std::vector<std::uint32_t> randomIndices(std::uint32_t n, std::uint32_t range) {
  std::mt19937 rng(42);
  std::vector<std::uint32_t> out(n);
  for (auto& i : out) i = static_cast<std::uint32_t>(rng() % range);
  return out;
}

std::uint64_t nowNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ull +
         static_cast<std::uint64_t>(ts.tv_nsec);
}

// ---------------------------------------------------------------------------------------
// Throughput: keyed updates with change notices vs bare seqlock stores.

void BM_KeyedUpdate(benchmark::State& state) {
  const auto batch = static_cast<std::uint32_t>(state.range(0));
  auto w = Writer::create("bench/keyed", {"msgCounter", kCapacity, 0});
  const auto keys = makeKeys(kCapacity);
  for (const CKey& k : keys) w->is(CVal::make(k, 0));
  w->commit();
  const auto idx = randomIndices(1 << 20, kCapacity);
  std::uint32_t n = 0;
  for (auto _ : state) {
    const std::uint32_t i = idx[n & ((1 << 20) - 1)];
    w->is(CVal::make(keys[i], ++n));
    if (n % batch == 0) w->commit();
  }
  w->commit();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_KeyedUpdate)->Arg(1)->Arg(64);

void BM_BareSeqlockStore(benchmark::State& state) {
  // The same table's slots, written directly: sequence lock and copy, no key, no probe,
  // no shadow, no notice. The slots are the tail of the file.
  auto w = Writer::create("bench/bare", {"msgCounter", kCapacity, 0});
  const auto st = w->stats();
  const int fd = ::open(w->file().c_str(), O_RDWR | O_CLOEXEC);
  void* base = ::mmap(nullptr, st.bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  // The slots end the file, from a page boundary, padded to a page.
  constexpr std::size_t kSlot = Drobe::detail::kSlotSize<CVal>;
  const std::size_t slotBytes = (std::size_t{st.slots} * kSlot + 4095) & ~std::size_t{4095};
  auto* slots = static_cast<std::byte*>(base) + st.bytes - slotBytes;
  const auto keys = makeKeys(kCapacity);
  const auto idx = randomIndices(1 << 20, st.slots);
  Drobe::detail::SlotBody<CVal> body;
  body.state = Drobe::detail::kSlotLive;
  std::uint32_t n = 0;
  for (auto _ : state) {
    const std::uint32_t i = idx[n & ((1 << 20) - 1)];
    body.value = CVal::make(keys[i % kCapacity], ++n);
    Drobe::detail::writeSlot(reinterpret_cast<std::uint64_t*>(slots + i * kSlot), body);
  }
  ::munmap(base, st.bytes);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareSeqlockStore);

void BM_ReaderFind(benchmark::State& state) {
  auto w = Writer::create("bench/find", {"msgCounter", kCapacity, 0});
  const auto keys = makeKeys(kCapacity);
  for (const CKey& k : keys) w->is(CVal::make(k, 1));
  w->commit();
  Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
  auto r = Reader::create(loop, "bench/find", "msgCounter");
  const auto idx = randomIndices(1 << 20, kCapacity);
  std::uint32_t n = 0;
  for (auto _ : state) {
    auto v = r->find(keys[idx[n++ & ((1 << 20) - 1)]]);
    benchmark::DoNotOptimize(v);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ReaderFind);

// Insertion of 1,000,000 small records with a commit per 10,000: into a table that grows
// from 64k (rebuilt five times into new files), and into one sized for them at mount.
struct MKey {
  std::uint32_t id = 0;
  std::uint32_t hash() const { return id * 2654435761u; }
  bool operator==(const MKey&) const = default;
};
struct MVal {
  MKey k;
  std::uint32_t a = 0;
  std::uint64_t b = 0;
  MKey key() const { return k; }
  bool operator==(const MVal&) const = default;
};
constexpr std::uint32_t kMillion = 1000000;

void insertMillion(benchmark::State& state, std::uint32_t initial) {
  int run = 0;
  for (auto _ : state) {
    auto w = Drobe::Writer<MKey, MVal>::create("bench/million" + std::to_string(run++),
                                               {"rec", initial, 0, kMillion});
    for (std::uint32_t id = 0; id < kMillion; ++id) {
      w->is({{id}, id, id * 3ull});
      if (id % 10000 == 9999) w->commit();
    }
    w->commit();
    benchmark::DoNotOptimize(w->size());
  }
  state.SetItemsProcessed(state.iterations() * kMillion);
}
void BM_InsertMillionGrowing(benchmark::State& state) { insertMillion(state, 65536); }
void BM_InsertMillionPresized(benchmark::State& state) { insertMillion(state, kMillion); }
BENCHMARK(BM_InsertMillionGrowing)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_InsertMillionPresized)->Unit(benchmark::kMillisecond)->Iterations(3);

// Resident bytes of this process, shared pages it touched included.
std::uint64_t residentBytes() {
  std::FILE* f = std::fopen("/proc/self/smaps_rollup", "re");
  if (!f) return 0;
  char line[256];
  unsigned long long kb = 0;
  while (std::fgets(line, sizeof line, f)) {
    if (std::sscanf(line, "Rss: %llu kB", &kb) == 1) break;
  }
  std::fclose(f);
  return kb * 1024;
}

// Keeps each benchmark's rate for the ratio lines printed after the run.
class Collector : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      auto it = r.counters.find("items_per_second");
      if (it != r.counters.end()) rate[r.benchmark_name()] = it->second.value;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> rate;
};

// ---------------------------------------------------------------------------------------
// Wake-up latency across processes: the writer stamps a record and commits; the reader
// process, blocked in epoll on its own loop, measures the delay to its onKey. The floor:
// the same two processes, the reader blocked in futex(2) on a shared word.

constexpr int kWakeSamples = 20000;

struct SharedPage {
  std::atomic<std::uint32_t> word{0};
  std::atomic<std::uint64_t> t0{0};
  std::atomic<std::uint64_t> acks{0};
  std::uint64_t lat[kWakeSamples];
};

SharedPage* sharedPage() {
  void* p = ::mmap(nullptr, sizeof(SharedPage), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                   -1, 0);
  return new (p) SharedPage{};
}

bool waitAcks(SharedPage* sp, std::uint64_t n) {
  for (int i = 0; i < 200000; ++i) {  // ~10 s at most
    if (sp->acks.load() >= n) return true;
    ::usleep(50);
  }
  return false;
}

void pause(std::mt19937& rng) { ::usleep(static_cast<useconds_t>(100 + rng() % 200)); }

struct Percentiles {
  double median = 0, p99 = 0;
};

Percentiles percentiles(SharedPage* sp, int n) {
  std::vector<std::uint64_t> v(sp->lat, sp->lat + n);
  std::sort(v.begin(), v.end());
  return {static_cast<double>(v[v.size() / 2]) / 1000.0,
          static_cast<double>(v[v.size() * 99 / 100]) / 1000.0};
}

Percentiles futexLatency(int n = kWakeSamples) {
  SharedPage* sp = sharedPage();
  const pid_t child = ::fork();
  if (child == 0) {
    for (int i = 0; i < n; ++i) {
      while (sp->word.load() == static_cast<std::uint32_t>(i)) {
        ::syscall(SYS_futex, &sp->word, FUTEX_WAIT, i, nullptr, nullptr, 0);
      }
      sp->lat[i] = nowNs() - sp->t0.load();
      sp->acks.fetch_add(1);
    }
    ::_exit(0);
  }
  std::mt19937 rng(1);
  for (int i = 0; i < n; ++i) {
    pause(rng);
    sp->t0.store(nowNs());
    sp->word.fetch_add(1);
    ::syscall(SYS_futex, &sp->word, FUTEX_WAKE, 1, nullptr, nullptr, 0);
    if (!waitAcks(sp, static_cast<std::uint64_t>(i) + 1)) break;
  }
  ::waitpid(child, nullptr, 0);
  Percentiles p = percentiles(sp, n);
  ::munmap(sp, sizeof(SharedPage));
  return p;
}

struct Stamp {
  CKey k;
  std::uint64_t t0 = 0;
  CKey key() const { return k; }
  bool operator==(const Stamp&) const = default;
};

Percentiles drobeLatency(int n = kWakeSamples) {
  SharedPage* sp = sharedPage();
  auto w = Drobe::Writer<CKey, Stamp>::create("bench/wake", {"stamp", 16, 0});
  const CKey key{Nimo::IntfId("Ethernet1"), 1, 0};
  const pid_t child = ::fork();
  if (child == 0) {
    // The child's copy of the writer is never destroyed (_exit), so it cannot retire the
    // parent's table.
    struct Stamper : Drobe::Reader<CKey, Stamp>::NotifieeConst {
      SharedPage* sp;
      Ulm::EventLoop* loop;
      int n;
      int i = 0;
      // Changes committed before the announcement are folded into its onCollection(), so
      // the writer starts stamping only once it is delivered.
      void onMountStatus(bool mounted) override {
        if (mounted) sp->word.store(1);
      }
      void onKey(const CKey& k) override {
        const std::uint64_t now = nowNs();
        auto v = notifier()->find(k);
        if (!v || i >= n) return;
        sp->lat[i++] = now - v->t0;
        sp->acks.fetch_add(1);
        if (i == n) loop->stop();
      }
    };
    Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
    Stamper s;
    s.sp = sp;
    s.loop = &loop;
    s.n = n;
    s.notifierIs(Drobe::Reader<CKey, Stamp>::create(loop, "bench/wake", "stamp"));
    loop.run();
    ::_exit(0);
  }
  for (int i = 0; i < 10000 && sp->word.load() == 0; ++i) ::usleep(1000);
  std::mt19937 rng(1);
  for (int i = 0; i < n; ++i) {
    pause(rng);
    const Stamp s{key, nowNs()};
    w->is(s);
    w->commit();
    if (!waitAcks(sp, static_cast<std::uint64_t>(i) + 1)) break;
  }
  ::waitpid(child, nullptr, 0);
  Percentiles p = percentiles(sp, n);
  ::munmap(sp, sizeof(SharedPage));
  return p;
}

// Wake-up latency of both, side by side, `rounds` times: the load of a shared machine
// moves between rounds, so each ratio pairs two measurements taken one after the other,
// and the spread of the ratios says how far one round can be trusted.
int wakeMode(int rounds, int samples) {
  std::vector<double> medians, p99s;
  std::printf("%5s %12s %12s %12s %12s %8s %8s\n", "round", "futex med", "drobe med", "futex p99",
              "drobe p99", "med x", "p99 x");
  for (int r = 0; r < rounds; ++r) {
    const Percentiles f = futexLatency(samples), d = drobeLatency(samples);
    medians.push_back(d.median / f.median);
    p99s.push_back(d.p99 / f.p99);
    std::printf("%5d %10.1fus %10.1fus %10.1fus %10.1fus %7.2fx %7.2fx\n", r, f.median, d.median,
                f.p99, d.p99, medians.back(), p99s.back());
  }
  auto spread = [](const char* what, std::vector<double> v, double aim) {
    std::sort(v.begin(), v.end());
    const auto below = std::count_if(v.begin(), v.end(), [&](double x) { return x <= aim; });
    std::printf(
        "WakeRatio %s over %zu rounds: min %.2f, quartiles %.2f / %.2f / %.2f, max %.2f; "
        "%td of %zu rounds within the aim (<= %.1f)\n",
        what, v.size(), v.front(), v[v.size() / 4], v[v.size() / 2], v[v.size() * 3 / 4], v.back(),
        below, v.size(), aim);
  };
  spread("median", medians, 1.5);
  spread("p99", p99s, 2.0);
  return 0;
}

// ---------------------------------------------------------------------------------------
// Torn reads: a writer process rewrites random records in commits of 64 without pause.

int tornMode(std::uint64_t reads) {
  const auto keys = makeKeys(kCapacity);
  {
    // Populate before the reader starts, so a miss can only mean "being rewritten".
    auto w = Writer::create("bench/torn", {"msgCounter", kCapacity, 0});
    for (const CKey& k : keys) w->is(CVal::make(k, 0));
    w->commit();
    const pid_t writer = ::fork();
    if (writer == 0) {
      const auto idx = randomIndices(1 << 20, kCapacity);
      std::uint32_t n = 0;
      for (;;) {
        for (int j = 0; j < 64; ++j) {
          ++n;
          w->is(CVal::make(keys[idx[n & ((1 << 20) - 1)]], n));
        }
        w->commit();
      }
    }
    Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
    auto r = Reader::create(loop, "bench/torn", "msgCounter");
    const auto idx = randomIndices(1 << 20, kCapacity);
    std::uint64_t torn = 0, changing = 0;
    const std::uint64_t t0 = nowNs();
    const std::uint64_t commits0 = r->stats().commits;
    for (std::uint64_t i = 0; i < reads; ++i) {
      auto v = r->find(keys[idx[i & ((1 << 20) - 1)]]);
      if (!v) {
        ++changing;
      } else if (!v->intact() || !(v->k == keys[idx[i & ((1 << 20) - 1)]])) {
        ++torn;
      }
    }
    const double secs = static_cast<double>(nowNs() - t0) / 1e9;
    const std::uint64_t commits = r->stats().commits - commits0;
    ::kill(writer, SIGKILL);
    ::waitpid(writer, nullptr, 0);
    // The writer object here never wrote after the fork; retire it quietly.
    std::printf(
        "TornReads: reads %" PRIu64 " torn %" PRIu64 " (retried out, treated as changing %" PRIu64
        ") in %.1f s = %.1f M reads/s, concurrent writer commits %" PRIu64 " (x64 updates)\n",
        reads, torn, changing, secs, static_cast<double>(reads) / secs / 1e6, commits);
    return torn == 0 ? 0 : 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string root = "/dev/shm/drobebench." + std::to_string(::getpid());
  ::setenv("DROBE_ROOT", root.c_str(), 1);
  int rc = 0;
  if (argc > 1 && std::strcmp(argv[1], "--wake") == 0) {
    rc = wakeMode(argc > 2 ? std::atoi(argv[2]) : 20, argc > 3 ? std::atoi(argv[3]) : 5000);
  } else if (argc > 1 && std::strcmp(argv[1], "--torn") == 0) {
    rc = tornMode(argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1000000000ull);
  } else {
    benchmark::Initialize(&argc, argv);
    Collector rep;
    benchmark::RunSpecifiedBenchmarks(&rep);
    const double bare = rep.rate["BM_BareSeqlockStore"];
    for (const char* name : {"BM_KeyedUpdate/1", "BM_KeyedUpdate/64"}) {
      if (!rep.rate.count(name) || bare <= 0) continue;  // filtered out
      const double keyed = rep.rate[name];
      std::printf("%s: %.1f M updates/s vs bare seqlock store %.1f M/s: ratio %.3f (aim >= 0.1)\n",
                  name, keyed / 1e6, bare / 1e6, keyed / bare);
    }
    const Percentiles f = futexLatency();
    const Percentiles d = drobeLatency();
    std::printf("WakeLatency futex (floor): median %.1f us, p99 %.1f us (%d samples)\n", f.median,
                f.p99, kWakeSamples);
    std::printf(
        "WakeLatency drobe eventfd (or datagram)+epoll: median %.1f us, p99 %.1f us: ratio median "
        "%.2f (aim "
        "<= 1.5), p99 %.2f (aim <= 2)\n",
        d.median, d.p99, d.median / f.median, d.p99 / f.p99);
    const double grow = rep.rate["BM_InsertMillionGrowing/iterations:3"],
                 sized = rep.rate["BM_InsertMillionPresized/iterations:3"];
    if (grow > 0 && sized > 0) {
      std::printf(
          "InsertMillion: growing from 64k %.1f M inserts/s vs pre-sized %.1f M/s: time ratio "
          "%.2f (aim <= 2)\n",
          grow / 1e6, sized / 1e6, sized / grow);
    }
    const std::uint64_t rss0 = residentBytes();
    auto w = Writer::create("bench/size", {"msgCounter", kCapacity, 0});
    const std::uint64_t rssEmpty = residentBytes() - rss0;
    const auto keys = makeKeys(kCapacity);
    for (std::uint32_t i = 0; i < 1000; ++i) w->is(CVal::make(keys[i], 1));
    w->commit();
    const std::uint64_t rss1000 = residentBytes() - rss0 - rssEmpty;
    std::printf("ResidentBytes: empty %u-entry counter table %" PRIu64
                " bytes, per 1000 entries %" PRIu64 " bytes (%.0f per entry)\n",
                kCapacity, rssEmpty, rss1000, static_cast<double>(rss1000) / 1000.0);
    const auto st = w->stats();
    std::printf("SharedBytes: %" PRIu64
                " bytes for %u entries (%u slots of %zu bytes, ring %u): %.1f "
                "bytes per entry (record %zu bytes)\n",
                st.bytes, st.capacity, st.slots, std::size_t{Drobe::detail::kSlotSize<CVal>},
                st.ringSize, static_cast<double>(st.bytes) / st.capacity, sizeof(CVal));
  }
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  return rc;
}
