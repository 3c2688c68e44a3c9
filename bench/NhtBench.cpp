// RPF from next-hop tracking beside its baselines, measured in the same run:
// - RpfTable::doLookup for tracked IPv4 targets over a unicast RIB of N routes (1-2 vias on
//   PIM interfaces with active neighbours, an empty multicast RIB), against bare reads of
//   the shared-memory entries the lookup reads (multicast status entry, unicast status entry,
//   FEC part) without validation; aim: at least 0.4x;
// - one FEC part read, and its size (every sequence-locked read copies a whole part);
// - the trie engine (PimRpfTable) on the same routes and targets;
// - shared-memory bytes per tracked address (status and the client's config table);
// - the adapter's re-resolution after a default-route replace under which the tracked
//   addresses lie (route commit to status commit, through the shadow as in nhtd), against
//   asking the kernel for each address (one RTM_GETROUTE fibmatch round trip each, in a
//   namespace of its own holding the same default route); aim: at least 10x. The kernel
//   baseline needs root and is skipped otherwise.
// Each figure is the median of 5 passes over the targets.
//
// Usage: NhtBench [routes] [targets] [re-resolution runs, 5 unless given; more for a profile]
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>

#include "Pim/RpfTable.h"
#include "tests/netns/NetnsUtil.h"

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

// Wall and thread CPU time of one run, in microseconds.
struct Span {
  double wallUs = 0, cpuUs = 0;
  static Span now() {
    timespec c{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &c);
    return {std::chrono::duration<double, std::micro>(Clock::now().time_since_epoch()).count(),
            static_cast<double>(c.tv_sec) * 1e6 + static_cast<double>(c.tv_nsec) / 1e3};
  }
  Span operator-(const Span& o) const { return {wallUs - o.wallUs, cpuUs - o.cpuUs}; }
  // Each figure's own median over the runs.
  static Span median(std::vector<Span> v) {
    Span m;
    std::sort(v.begin(), v.end(), [](auto& a, auto& b) { return a.wallUs < b.wallUs; });
    m.wallUs = v[v.size() / 2].wallUs;
    std::sort(v.begin(), v.end(), [](auto& a, auto& b) { return a.cpuUs < b.cpuUs; });
    m.cpuUs = v[v.size() / 2].cpuUs;
    return m;
  }
};

std::uint64_t fileBytes(const std::string& f) {
  struct stat st {};
  return ::stat(f.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_blocks) * 512u : 0;
}

// One RTM_GETROUTE fibmatch round trip per address in namespace ns; returns the answers that
// named a route (so that a refused query cannot pass for a fast one).
std::size_t kernelLookups(int fd, const std::vector<IpGenAddr>& addrs) {
  std::size_t answered = 0;
  char buf[4096];
  std::uint32_t seq = 0;
  for (const auto& a : addrs) {
    struct {
      nlmsghdr h;
      rtmsg r;
      rtattr dst;
      std::uint32_t addr;
    } req{};
    req.h.nlmsg_len = sizeof req;
    req.h.nlmsg_type = RTM_GETROUTE;
    req.h.nlmsg_flags = NLM_F_REQUEST;
    req.h.nlmsg_seq = ++seq;
    req.r.rtm_family = AF_INET;
    req.r.rtm_dst_len = 32;
    req.r.rtm_flags = RTM_F_FIB_MATCH;
    req.dst.rta_type = RTA_DST;
    req.dst.rta_len = RTA_LENGTH(sizeof req.addr);
    req.addr = htonl(a.v4Addr());
    if (::send(fd, &req, sizeof req, 0) != static_cast<ssize_t>(sizeof req)) break;
    const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    answered += n >= static_cast<ssize_t>(sizeof(nlmsghdr)) &&
                reinterpret_cast<const nlmsghdr*>(buf)->nlmsg_type == RTM_NEWROUTE;
  }
  return answered;
}

// Re-resolution after a default-route replace, beside the kernel asked once per address.
void reresolveFigure(Ulm::EventLoop& loop, const Kel::Ptr<Kel::SystemClock>& clock,
                     std::uint32_t nTargets, int runs) {
  const std::string path = Routing::ribMountPath(kV4, "nhtb");
  auto fec = Routing::Fib::FecWriter::create(path, "fec", 64, clock);
  auto urib = Routing::Fib::RouteWriter::create(path, "urib", fec, 64);
  const IpGenPrefix deflt("0.0.0.0/0");
  const IntfId dev("eth1");
  auto defaultVia = [&](int i) {
    const Routing::Fib::Via v{IpGenAddr::v4(0x0aff0102u + static_cast<std::uint32_t>(i % 2)), dev};
    urib->routeIs(deflt, Routing::Fib::RouteType::remote, 1, 1, std::span(&v, 1));
    urib->commit();
  };
  defaultVia(0);
  auto shadow = Routing::Shadow::Status::create(loop, path, "urib");
  auto out = Routing::NexthopVrfStatusWriter::create(kV4, "nhtb", "unicast", nTargets * 2);
  auto nht = Routing::NexthopResolver::create(loop.timers(), shadow->trie(), out);
  for (int i = 0; i < 100000 && !shadow->synced(); ++i) loop.runOnce(0.0);
  std::vector<IpGenAddr> addrs;
  std::mt19937 rng(9);
  for (std::uint32_t i = 0; i < nTargets; ++i) {
    addrs.push_back(IpGenAddr::v4(0x64400000u | (static_cast<std::uint32_t>(rng()) >> 10)));
    nht->trackIs(addrs.back());
  }
  nht->resolveAll();
  nht->commit();
  // Wall time and this thread's CPU time (which on a loaded machine is the fairer figure:
  // the kernel answers RTM_GETROUTE in the asking thread's system time, so both sides count
  // what they spend and neither counts the time others hold the CPU).
  std::vector<Span> ours;
  for (int r = 1; r <= runs; ++r) {
    const std::uint64_t done = nht->resolutions() + nht->tracked();
    const Span t = Span::now();
    defaultVia(r);
    for (int i = 0; i < 100000 && nht->resolutions() < done; ++i) loop.runOnce(0.0);
    nht->commit();
    ours.push_back(Span::now() - t);
  }
  const Span mine = Span::median(ours);
  std::printf("re-resolution after a default-route replace, %zu addresses: %.0f us (CPU %.0f us)\n",
              nht->tracked(), mine.wallUs, mine.cpuUs);
  if (!PimTest::isRoot()) {
    std::printf("kernel baseline skipped: needs root (a namespace of its own)\n");
    return;
  }
  const std::string ns = fmt::format("nhtbench{}", ::getpid());
  using PimTest::sh;
  const bool ok = sh("ip netns add " + ns) == 0 &&
                  sh(fmt::format("ip -n {} link add d0 type veth peer name d1", ns)) == 0 &&
                  sh(fmt::format("ip -n {} link set d0 up", ns)) == 0 &&
                  sh(fmt::format("ip -n {} link set d1 up", ns)) == 0 &&
                  sh(fmt::format("ip -n {} addr add 10.255.1.1/24 dev d0", ns)) == 0 &&
                  sh(fmt::format("ip -n {} route add default via 10.255.1.2", ns)) == 0;
  const int fd =
      ok ? PimTest::inNetns(ns, [] { return ::socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE); }) : -1;
  if (fd >= 0) {
    std::size_t answered = 0;
    std::vector<Span> kernel;
    for (int r = 0; r < 5; ++r) {
      const Span t = Span::now();
      answered = kernelLookups(fd, addrs);
      kernel.push_back(Span::now() - t);
    }
    ::close(fd);
    const Span k = Span::median(kernel);
    std::printf(
        "kernel, one RTM_GETROUTE per address: %.0f us (CPU %.0f us, %zu answered)  this %.1fx "
        "as fast in CPU, %.1fx in wall time (aim >= 10x)\n",
        k.wallUs, k.cpuUs, answered, k.cpuUs / mine.cpuUs, k.wallUs / mine.wallUs);
  } else {
    std::printf("kernel baseline: the namespace could not be made\n");
  }
  sh("ip netns del " + ns);
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint32_t nRoutes = argc > 1 ? static_cast<std::uint32_t>(std::atoi(argv[1])) : 1000000;
  const std::uint32_t nTargets = argc > 2 ? static_cast<std::uint32_t>(std::atoi(argv[2])) : 10000;
  const int runs = argc > 3 ? std::max(1, std::atoi(argv[3])) : 5;
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
  reresolveFigure(loop, clock, nTargets, runs);
  std::printf("(sink %llu)\n", static_cast<unsigned long long>(sink));
  table = nullptr;
  trie = nullptr;
  std::filesystem::remove_all(root);
  return 0;
}
