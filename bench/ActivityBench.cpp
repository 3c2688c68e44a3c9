// ActivityBench: what one activity poll of a route costs, on each path, beside a baseline
// measured in the same run.
//
//   figure                                  baseline
//   isActive on the kernel path (no         a bare SIOCGETSGCNT loop over the same 10,000
//   hardware entry), 10,000 MFC entries     MFC entries on the same socket
//   isActive on the hardware path (a        a bare find of the route in the same
//   fresh hit), 10,000 hardware routes      hardware table
//   the same, the time read once per poll   the same
//   of all routes (the isActive overload
//   taking `now`)
// Goals: at least 0.8x the kernel baseline's speed, 0.5x the hardware one's. Then the
// event-loop time of one poll over all 10,000 kernel routes (median of 5 passes).
//
// Needs root: it creates namespace actbench<pid> with a veth pair inside, owns the
// MRT_INIT socket there, and removes the namespace at exit. Run from the release preset:
//   cmake --preset release && cmake --build build/release --target ActivityBench
//   build/release/bench/ActivityBench
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <netinet/in.h>  // before the kernel headers, which then skip their copies
#include <sys/ioctl.h>
#include <unistd.h>
// clang-format off
#include <linux/mroute.h>
// clang-format on

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "Pim/PimActivityMonitor.h"
#include "bench/BenchTimes.h"
#include "tests/netns/NetnsUtil.h"

namespace {

using Nimo::IpGenAddr;
namespace P = Routing::Pim;
namespace Hw = Routing::Multicast::Fib::Hardware;

constexpr std::uint32_t kRoutes = 10000;

P::RouteKey route(std::uint32_t i) {
  return P::RouteKey(IpGenAddr::v4(0x0a000001u), IpGenAddr::v4(0xe8000000u + i));
}

struct Rig {
  std::string ns;
  int mrt = -1;
  Kel::Ptr<Nimo::IpPam> pam;
  Kel::Ptr<Hw::Status> hw = Kel::Ptr<Hw::Status>::make("hw");
  Kel::Ptr<Kel::SystemClock> clock = Kel::Ptr<Kel::SystemClock>::make();
  Kel::Ptr<P::PimActivityMonitorSm> kernelMon, hwMon;
  Kel::Ptr<Hw::VrfStatus> hwVrf;
};
Rig* gRig = nullptr;

bool setUp(Rig& r) {
  r.ns = fmt::format("actbench{}", ::getpid());
  using PimTest::sh;
  if (sh("ip netns add " + r.ns) != 0) return false;
  // Two interfaces for the VIFs: the ends of one veth pair.
  if (sh(fmt::format("ip -n {} link add in0 type veth peer name out0", r.ns)) != 0) return false;
  for (const char* dev : {"in0", "out0"}) {
    if (sh(fmt::format("ip -n {} link set {} up", r.ns, dev)) != 0) return false;
  }
  r.mrt = PimTest::inNetns(r.ns, [] { return ::socket(AF_INET, SOCK_RAW, IPPROTO_IGMP); });
  const int one = 1;
  if (r.mrt < 0 || ::setsockopt(r.mrt, IPPROTO_IP, MRT_INIT, &one, sizeof one) != 0) return false;
  for (std::uint16_t v = 0; v < 2; ++v) {
    vifctl c{};
    c.vifc_vifi = v;
    c.vifc_flags = VIFF_USE_IFINDEX;
    c.vifc_threshold = 1;
    c.vifc_lcl_ifindex = static_cast<int>(
        PimTest::inNetns(r.ns, [&] { return ::if_nametoindex(v ? "out0" : "in0"); }));
    if (::setsockopt(r.mrt, IPPROTO_IP, MRT_ADD_VIF, &c, sizeof c) != 0) return false;
  }
  for (std::uint32_t i = 0; i < kRoutes; ++i) {
    mfcctl m{};
    const P::RouteKey k = route(i);
    std::memcpy(&m.mfcc_origin, k.source().bytes(), 4);
    std::memcpy(&m.mfcc_mcastgrp, k.group().bytes(), 4);
    m.mfcc_parent = 0;
    m.mfcc_ttls[1] = 1;
    if (::setsockopt(r.mrt, IPPROTO_IP, MRT_ADD_MFC, &m, sizeof m) != 0) return false;
  }
  r.pam = Nimo::ipPamFactory("pim", Nimo::AddressFamily::ipv4, 103, r.ns);
  if (!r.pam->ok()) return false;
  r.kernelMon = P::pimActivityMonitorSmFactory(L3::VrfName("nohw"), r.pam, r.hw, r.clock);
  r.hwMon = P::pimActivityMonitorSmFactory(L3::VrfName("red"), r.pam, r.hw, r.clock);
  r.hwVrf = r.hw->vrfStatusWriter(L3::VrfName("red"));
  if (!r.hwVrf) return false;
  r.hwVrf->activityIntervalIs(255);
  const double now = r.clock->now();
  for (std::uint32_t i = 0; i < kRoutes; ++i) {
    if (!r.hwVrf->routeActivityIs(P::PimActivityMonitorSm::convertKey(route(i)), now)) return false;
  }
  r.hwVrf->commit();
  return true;
}

void kernelIsActive(benchmark::State& state) {
  std::uint32_t i = 0;
  P::PimKernelStats last;
  std::size_t active = 0;
  for (auto _ : state) active += gRig->kernelMon->isActive(route(i++ % kRoutes), last).isActive();
  benchmark::DoNotOptimize(active);
  if (gRig->kernelMon->kernelQueryErrors()) state.SkipWithError("kernel queries failed");
}

void kernelBareIoctl(benchmark::State& state) {
  std::uint32_t i = 0;
  std::uint64_t pkts = 0;
  const int fd = gRig->pam->fd();
  for (auto _ : state) {
    const P::RouteKey k = route(i++ % kRoutes);
    sioc_sg_req req{};
    std::memcpy(&req.src, k.source().bytes(), 4);
    std::memcpy(&req.grp, k.group().bytes(), 4);
    if (::ioctl(fd, SIOCGETSGCNT, &req) != 0) state.SkipWithError("ioctl failed");
    pkts += req.pktcnt;
  }
  benchmark::DoNotOptimize(pkts);
}

void hardwareIsActive(benchmark::State& state) {
  std::vector<P::RouteKey> keys;
  for (std::uint32_t i = 0; i < kRoutes; ++i) keys.push_back(route(i));
  std::uint32_t i = 0;
  std::size_t active = 0;
  for (auto _ : state) active += gRig->hwMon->isActive(keys[i++ % kRoutes], {}).isActive();
  benchmark::DoNotOptimize(active);
  if (gRig->hwMon->kernelQueries()) state.SkipWithError("the kernel was asked");
}

// The same with one clock read per 10,000 polls, as an agent polling every route in one
// event-loop turn does.
void hardwareIsActivePollTime(benchmark::State& state) {
  std::vector<P::RouteKey> keys;
  for (std::uint32_t i = 0; i < kRoutes; ++i) keys.push_back(route(i));
  std::uint32_t i = 0;
  std::size_t active = 0;
  double now = gRig->clock->now();
  for (auto _ : state) {
    if (i % kRoutes == 0) now = gRig->clock->now();
    active += gRig->hwMon->isActive(keys[i++ % kRoutes], {}, now).isActive();
  }
  benchmark::DoNotOptimize(active);
  if (gRig->hwMon->kernelQueries()) state.SkipWithError("the kernel was asked");
}

void hardwareBareFind(benchmark::State& state) {
  std::vector<Hw::RouteKey> keys;
  for (std::uint32_t i = 0; i < kRoutes; ++i) {
    keys.push_back(P::PimActivityMonitorSm::convertKey(route(i)));
  }
  std::uint32_t i = 0;
  double sum = 0;
  for (auto _ : state) sum += gRig->hwVrf->lastActivityTime(keys[i++ % kRoutes]).value_or(0);
  benchmark::DoNotOptimize(sum);
}

// Wall time of one poll over every kernel route, in ms: the median of five.
double pollMs() {
  std::vector<double> ms;
  std::vector<P::PimKernelStats> last(kRoutes);
  for (int pass = 0; pass < 5; ++pass) {
    const auto t0 = std::chrono::steady_clock::now();
    for (std::uint32_t i = 0; i < kRoutes; ++i) {
      last[i] = gRig->kernelMon->isActive(route(i), last[i]).kernelStats();
    }
    ms.push_back(
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
  }
  std::sort(ms.begin(), ms.end());
  return ms[2];
}

}  // namespace

int main(int argc, char** argv) {
  if (!PimTest::isRoot()) {
    std::fprintf(stderr, "ActivityBench needs root (a network namespace, MRT_INIT)\n");
    return 0;
  }
  const std::string root = fmt::format("/dev/shm/actbench-{}", ::getpid());
  std::filesystem::create_directories(root);
  ::setenv("DROBE_ROOT", root.c_str(), 1);
  Rig rig;
  gRig = &rig;
  const bool ok = setUp(rig);
  int rc = 1;
  if (!ok) {
    std::fprintf(stderr, "ActivityBench: setup failed: %s\n", std::strerror(errno));
  } else {
    benchmark::RegisterBenchmark("Kernel/IsActive", kernelIsActive);
    benchmark::RegisterBenchmark("Kernel/BareIoctl", kernelBareIoctl);
    benchmark::RegisterBenchmark("Hardware/IsActive", hardwareIsActive);
    benchmark::RegisterBenchmark("Hardware/IsActivePollTime", hardwareIsActivePollTime);
    benchmark::RegisterBenchmark("Hardware/BareFind", hardwareBareFind);
    rc = BenchTimes::run(argc, argv, BenchTimes::Clock::Real, [](const auto& t) {
      std::printf("\n%-30s %10s %10s %8s %6s\n", "figure", "ns", "baseline", "speed", "goal");
      auto line = [&](const char* what, const char* fig, const char* base, double goal) {
        const double f = t.ns(fig), b = t.ns(base);
        if (f > 0 && b > 0) {
          std::printf("%-30s %10.1f %10.1f %7.2fx %5.1fx\n", what, f, b, b / f, goal);
        }
      };
      line("isActive, kernel path", "Kernel/IsActive", "Kernel/BareIoctl", 0.8);
      line("isActive, hardware path", "Hardware/IsActive", "Hardware/BareFind", 0.5);
      line("  with one clock read per poll", "Hardware/IsActivePollTime", "Hardware/BareFind", 0.5);
      std::printf("one poll over %u kernel routes: %.2f ms\n", kRoutes, pollMs());
    });
  }
  const int mrt = rig.mrt;
  rig = Rig();  // the monitors and tables first
  if (mrt >= 0) ::close(mrt);
  PimTest::sh("ip netns del " + fmt::format("actbench{}", ::getpid()));
  std::filesystem::remove_all(root);
  return rc;
}
