// RibIngestBench: the kernel RIB adapter's start-up ingest of a large ECMP table beside a
// bare netlink dump drain of the same table, in the same run. Root only: it makes a network
// namespace (named with the pid, removed at the end) holding N IPv4 routes over two next
// hops.
//
//   sudo ./build/release/bench/RibIngestBench [routes=100000] [runs=5]
//
// Figures (pinned to one core; medians of the runs with their range):
//   - bare drain: one RTM_GETROUTE dump read to NLMSG_DONE, every message header walked;
//   - adapter ingest: NetlinkRibSm constructed on a fresh table set (both families dumped,
//     every route parsed, translated, published and committed);
//   - the same ratio in the thread's CPU time (system time included, so the kernel's side
//     of the dump counts), steadier than wall time on a shared machine;
//   - the adapter's resident memory per route (process RSS growth over the first ingest,
//     shared-memory pages it touched included).
#include <fmt/format.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Pim/linux/NetlinkIntfStatus.h"
#include "Pim/linux/NetlinkRib.h"
#include "bench/BenchClock.h"
#include "tests/netns/NetnsUtil.h"

namespace {

long residentKb() {
  std::ifstream f("/proc/self/status");
  for (std::string line; std::getline(f, line);)
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  return -1;
}

// The baseline: the least a reader of the kernel's table can do. Returns the routes seen.
std::size_t bareDrain(const std::string& ns) {
  const int fd = PimTest::inNetns(ns, [] { return ::socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE); });
  if (fd < 0) return 0;
  struct {
    nlmsghdr h;
    rtmsg r;
  } req{};
  req.h.nlmsg_len = sizeof req;
  req.h.nlmsg_type = RTM_GETROUTE;
  req.h.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  req.h.nlmsg_seq = 1;
  req.r.rtm_family = AF_INET;
  std::size_t routes = 0;
  std::vector<char> buf(1 << 20);
  if (::send(fd, &req, sizeof req, 0) == static_cast<ssize_t>(sizeof req)) {
    for (bool done = false; !done;) {
      const ssize_t n = ::recv(fd, buf.data(), buf.size(), 0);
      if (n <= 0) break;
      auto len = static_cast<unsigned>(n);
      for (auto* h = reinterpret_cast<nlmsghdr*>(buf.data()); NLMSG_OK(h, len);
           h = NLMSG_NEXT(h, len)) {
        if (h->nlmsg_type == NLMSG_DONE || h->nlmsg_type == NLMSG_ERROR) done = true;
        if (h->nlmsg_type == RTM_NEWROUTE) ++routes;
      }
    }
  }
  ::close(fd);
  return routes;
}

}  // namespace

int main(int argc, char** argv) {
  const int routes = argc > 1 ? std::stoi(argv[1]) : 100000;
  const int runs = argc > 2 ? std::stoi(argv[2]) : 5;
  if (!PimTest::isRoot()) {
    std::fprintf(stderr, "RibIngestBench needs root (a network namespace)\n");
    return 1;
  }
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(1, &set);
  ::sched_setaffinity(0, sizeof set, &set);
  const int pid = ::getpid();
  const std::string ns = fmt::format("ribbench{}", pid);
  const std::string root = fmt::format("/dev/shm/ribbench.{}", pid);
  const std::string batch = fmt::format("/tmp/ribbench-{}", pid);
  ::setenv("DROBE_ROOT", root.c_str(), 1);
  using PimTest::sh;
  bool ok = sh("ip netns add " + ns) == 0 &&
            sh(fmt::format("ip -n {} link add b0 type veth peer name b1", ns)) == 0 &&
            sh(fmt::format("ip -n {0} link set b0 up && ip -n {0} link set b1 up", ns)) == 0 &&
            sh(fmt::format("ip -n {} addr add 10.255.0.1/24 dev b0", ns)) == 0;
  {
    std::ofstream f(batch);
    for (int i = 0; i < routes; ++i)
      f << fmt::format("route add {}.{}.{}.0/24 nexthop via 10.255.0.2 nexthop via 10.255.0.3\n",
                       11 + i / 65536, (i / 256) % 256, i % 256);
  }
  ok = ok && sh(fmt::format("ip -n {} -batch {}", ns, batch)) == 0;
  std::remove(batch.c_str());
  int rc = 1;
  if (ok) {
    std::vector<double> drain, ingest, drainCpu, ingestCpu;
    std::size_t seen = 0, published = 0;
    double bytesPerRoute = 0;
    for (int run = 0; run < runs; ++run) {
      double t = BenchClock::wall(), c = BenchClock::threadCpu();
      seen = bareDrain(ns);
      drain.push_back(BenchClock::wall() - t);
      drainCpu.push_back(BenchClock::threadCpu() - c);

      Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
      auto dir = Kel::Ptr<Interface::IntfStatusDir>::make("intf");
      auto intfs = Interface::netlinkIntfStatusSmFactory(dir, loop, ns);
      Routing::NetlinkRibConfig config;
      config.netNs = ns;
      config.vrf = fmt::format("bench{}", run);  // a fresh table set each run
      const long before = residentKb();
      t = BenchClock::wall();
      c = BenchClock::threadCpu();
      auto rib = Routing::netlinkRibSmFactory(config, dir, loop);
      ingest.push_back(BenchClock::wall() - t);
      ingestCpu.push_back(BenchClock::threadCpu() - c);
      if (run == 0) bytesPerRoute = static_cast<double>(residentKb() - before) * 1024.0 / routes;
      published = rib->urib()->table().size();
    }
    const BenchClock::Spread d = BenchClock::spread(drain), a = BenchClock::spread(ingest);
    const BenchClock::Spread dc = BenchClock::spread(drainCpu), ac = BenchClock::spread(ingestCpu);
    std::printf("%d ECMP routes (2 next hops): bare drain saw %zu, the adapter published %zu\n",
                routes, seen, published);
    std::printf("\n%-32s %12s %22s %12s %7s  %s\n", "figure", "routes/s", "(range)", "baseline",
                "ratio", "target");
    std::printf("%-32s %12.4g %10.4g-%-11.4g %12.4g %6.2fx  %s\n", "adapter ingest vs bare drain",
                routes / a.median, routes / a.hi, routes / a.lo, routes / d.median,
                d.median / a.median, ">= 0.3x, aim 0.5x");
    std::printf("%-32s %12.4g %10.4g-%-11.4g %12.4g %6.2fx  %s\n", "the same in thread CPU time",
                routes / ac.median, routes / ac.hi, routes / ac.lo, routes / dc.median,
                dc.median / ac.median, ">= 0.3x, aim 0.5x");
    std::printf("%-32s %12.0f %22s %12s %7s  %s\n", "adapter resident bytes/route", bytesPerRoute,
                "(first ingest)", "-", "-", "-");
    rc = seen >= static_cast<std::size_t>(routes) ? 0 : 1;
  } else {
    std::fprintf(stderr, "RibIngestBench: namespace setup failed\n");
  }
  sh("ip netns del " + ns);
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  return rc;
}
