// NsfBench: a graceful-restart flag change from the agent's setter to the notification in
// another process, beside the bare table wake-up measured in the same run.
//
//   NsfBench [rounds [samples]]       (defaults 10 rounds of 2000 samples)
//
// Baseline: a writer process puts a record in a bare Drobe table and commits; the reader
// process, blocked in epoll on its loop, takes the time in its onKey. Measured: the
// writer calls NsfStatus::restartingIs (the publisher writes and commits), the reader's
// NsfStatusMirror applies the record and its NsfStatus notifiee takes the time in
// onRestarting. Each round measures both back to back, so a shared machine's load moves
// both alike; the figure is the median latency of each and their ratio (aim <= 1.3x).
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "Pim/NsfStatus.h"
#include "bench/BenchClock.h"

namespace {

using namespace Routing::Pim::Nsf;

constexpr int kMaxSamples = 100000;

// Shared between the two processes.
struct Page {
  std::atomic<int> ready{0};
  std::atomic<double> t0{0};
  std::atomic<int> acks{0};
  double lat[kMaxSamples];
};

// Runs the reader part in a child until it has taken n samples; the writer part gets the
// sample index and must change something after stamping t0.
double medianLatency(int n, const std::function<void(Ulm::EventLoop&, Page*, int n)>& reader,
                     const std::function<void(int)>& change) {
  void* mem =
      ::mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Page* page = new (mem) Page{};
  const pid_t child = ::fork();
  if (child == 0) {
    Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
    reader(loop, page, n);
    ::_exit(0);
  }
  for (int i = 0; i < 10000 && page->ready.load() == 0; ++i) ::usleep(1000);
  std::mt19937 rng(1);
  for (int i = 0; i < n; ++i) {
    ::usleep(static_cast<useconds_t>(100 + rng() % 200));
    page->t0.store(BenchClock::wall());
    change(i);
    for (int w = 0; w < 200000 && page->acks.load() <= i; ++w) ::usleep(50);
  }
  ::waitpid(child, nullptr, 0);
  std::vector<double> v(page->lat, page->lat + std::min(n, page->acks.load()));
  ::munmap(mem, sizeof(Page));
  return v.empty() ? 0 : BenchClock::median(v) * 1e6;
}

void sample(Page* p, Ulm::EventLoop& loop, int n) {
  const int i = p->acks.load();
  if (i >= n) return;
  p->lat[i] = BenchClock::wall() - p->t0.load();
  p->acks.store(i + 1);
  if (i + 1 == n) loop.stop();
}

double bareDrobe(int n) {
  auto w =
      ::Drobe::Writer<L3::VrfName, NsfStatusRecord>::create("bench/nsf-bare", {"vrfStatus", 16, 0});
  const L3::VrfName red("red");
  return medianLatency(
      n,
      [](Ulm::EventLoop& loop, Page* p, int samples) {
        using Reader = ::Drobe::Reader<L3::VrfName, NsfStatusRecord>;
        struct Watch : Reader::NotifieeConst {
          Page* p;
          Ulm::EventLoop* loop;
          int n;
          void onMountStatus(bool m) override { p->ready.store(m); }
          void onKey(const L3::VrfName& k) override {
            if (notifier()->find(k)) sample(p, *loop, n);
          }
        } watch;
        watch.p = p;
        watch.loop = &loop;
        watch.n = samples;
        watch.notifierIs(Reader::create(loop, "bench/nsf-bare", "vrfStatus"));
        loop.run();
      },
      [&](int i) {
        w->is(NsfStatusRecord{red, (i & 1) == 0, false});
        w->commit();
      });
}

double nsfMirror(int n) {
  auto coll = nsfStatusCollFactory("nsf");
  auto pub = nsfStatusPublisherFactory(coll, Nimo::AddressFamily::ipv4);
  Kel::Ptr<NsfStatus> red = coll->vrfStatusIs(L3::VrfName("red"));
  return medianLatency(
      n,
      [](Ulm::EventLoop& loop, Page* p, int samples) {
        auto mirror = nsfStatusMirrorFactory(loop, Nimo::AddressFamily::ipv4);
        struct Watch : NsfStatus::NotifieeConst {
          Page* p;
          Ulm::EventLoop* loop;
          int n;
          void onRestarting() override { sample(p, *loop, n); }
        } watch;
        watch.p = p;
        watch.loop = &loop;
        watch.n = samples;
        for (int i = 0; i < 1000 && !mirror->nsfStatusColl()->vrfStatus(L3::VrfName("red")); ++i) {
          loop.runOnce(0.01);
        }
        watch.notifierIs(mirror->nsfStatusColl()->vrfStatus(L3::VrfName("red")));
        p->ready.store(1);
        loop.run();
      },
      [&](int i) { red->restartingIs((i & 1) == 0); });
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 10;
  const int samples = std::clamp(argc > 2 ? std::atoi(argv[2]) : 2000, 1, kMaxSamples);
  const std::string root = "/dev/shm/nsfbench." + std::to_string(::getpid());
  ::setenv("DROBE_ROOT", root.c_str(), 1);
  std::vector<double> bare, nsf, ratio;
  std::printf("%5s %14s %14s %7s\n", "round", "bare drobe us", "nsf mirror us", "ratio");
  for (int r = 0; r < rounds; ++r) {
    bare.push_back(bareDrobe(samples));
    nsf.push_back(nsfMirror(samples));
    ratio.push_back(nsf.back() / bare.back());
    std::printf("%5d %14.1f %14.1f %6.2fx\n", r, bare.back(), nsf.back(), ratio.back());
  }
  std::printf(
      "NsfFlagLatency: setter to notification in another process, median %.1f us; bare Drobe "
      "wake-up (same run) %.1f us; ratio of the round medians %.2fx (aim <= 1.3x)\n",
      BenchClock::median(nsf), BenchClock::median(bare), BenchClock::median(ratio));
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  return 0;
}
