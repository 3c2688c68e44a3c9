// RxBench: the receive loop between two network namespaces beside a bare recvmsg drain.
//
// A child process pinned to one core sends a burst of PIM packets from namespace A over a
// veth; the parent, pinned to another core, lets them queue in the I/O machine's socket in
// namespace B and then times the drain: once through IOSm::rxPkt (checks, decode, counting
// into the shared-memory table, dispatch) and once with a bare recvmsg loop on the same
// socket, alternating, over several rounds. It prints packets per second for both, their
// ratio, the CPU cost per packet beside the figure for another router's daemon (3.3-4.5 us
// per Hello), and the split of one packet's cost measured in memory on the same packet.
// Two kinds of packet: a typical Hello, and a Join/Prune filling the link's 1500 bytes.
//
//   RxBench [packets-per-burst [rounds]]       (root; default 2000 and 15)
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <vector>

#include "Pim/PimIO.h"
#include "bench/BenchClock.h"
#include "tests/netns/NetnsUtil.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Routing::Pim::IO::MessageCounterType;

void pin(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<std::size_t>(cpu), &set);
  ::sched_setaffinity(0, sizeof set, &set);
}

using BenchClock::median;
using BenchClock::threadCpu;
using BenchClock::wall;

Bytes hello(const Nimo::IpGenAddr& src, const Nimo::IpGenAddr& dst) {
  Routing::Pim::Packet::HelloMessage h;
  h.srcIpIs(src);
  h.dstIpIs(dst);
  h.holdTimeOptionIs(true);
  h.holdTimeIs(105);
  h.drPriorityOptionIs(true);
  h.drPriorityIs(1);
  h.generationIdOptionIs(true);
  h.generationIdIs(0x12345678);
  h.lanPruneDelayOptionIs(true);
  h.overrideIntervalIs(2500);
  auto p = Nimo::Pkt::create(1500);
  const std::uint32_t n = h.writeHelloMessage(p, 0);
  const std::uint8_t* d = p->data(0, n);
  return Bytes(d, d + n);
}

// A Join/Prune as large as the link allows: one group, as many (S,G) joins as fit.
Bytes fullJoinPrune(const Nimo::IpGenAddr& src, const Nimo::IpGenAddr& dst) {
  const bool v6 = src.af() == Nimo::AddressFamily::ipv6;
  auto data = Kel::Ptr<Routing::Pim::JoinPruneData>::make();
  data->upstreamNeighborIs(Nimo::IpGenAddr(v6 ? "fd77::2" : "10.77.0.2"));
  data->holdTimeIs(210);
  auto& g = data->joinPruneGroupDataIs(Nimo::IpGenPrefix(v6 ? "ff3e::1/128" : "239.1.1.1/32"));
  for (int i = 0; i < 400; ++i) {
    std::uint8_t a[16] = {};
    a[0] = v6 ? 0x20 : 192;
    a[v6 ? 14 : 2] = std::uint8_t(i >> 8);
    a[v6 ? 15 : 3] = std::uint8_t(i);
    g.joinedSourceIs(Nimo::IpGenAddr(src.af(), a));
  }
  Routing::Pim::Packet::JoinPruneMessage m;
  m.srcIpIs(src);
  m.dstIpIs(dst);
  m.joinPruneDataIs(data);
  // The writer leaves room for a 20-byte header; an IPv6 header takes 40 of the 1500.
  m.mtuIs(v6 ? 1480 : 1500);
  auto p = Nimo::Pkt::create(1500);
  const std::uint32_t n = m.writeJoinPruneMessage(p, 0, nullptr);
  const std::uint8_t* d = p->data(0, n);
  return Bytes(d, d + n);
}

// Sends count copies of pim from namespace ns in a child pinned to cpu; waits for it.
bool burst(PimTest::NetnsPair& pair, bool v6, const Bytes& pim, int count, int cpu) {
  const pid_t child = ::fork();
  if (child == 0) {
    pin(cpu);
    PimTest::RawSender s(pair.a, v6 ? AF_INET6 : AF_INET, pair.ifIndexA);
    int sent = 0;
    for (int i = 0; i < count && s.ok(); ++i) sent += s.send(v6 ? "ff02::d" : "224.0.0.13", pim);
    ::_exit(sent == count ? 0 : 1);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  // Let the last packets cross the veth.
  ::usleep(20000);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

struct Figures {
  double fullNs = 0, bareNs = 0, fullCpuNs = 0;
};

int runFamily(Nimo::AddressFamily af, bool joinPrune, int count, int rounds) {
  const bool v6 = af == Nimo::AddressFamily::ipv6;
  PimTest::NetnsPair pair("prb");
  if (!pair.ok) {
    std::fprintf(stderr, "RxBench: namespace setup failed\n");
    return 1;
  }
  const Nimo::IpGenAddr src(v6 ? "fd77::1" : "10.77.0.1");
  const Nimo::IpGenAddr all(v6 ? "ff02::d" : "224.0.0.13");
  const L3::VrfName vrf("default");
  auto clock = Kel::Ptr<Kel::SystemClock>::make();
  Ulm::EventLoop loop(clock);
  auto dir = Kel::Ptr<Interface::IntfStatusDir>::make("intf");
  auto& st = dir->intfStatusIs(Nimo::IntfId(pair.vethB));
  st.ifIndex = pair.ifIndexB;
  st.deviceName = pair.vethB;
  auto status = Kel::Ptr<Routing::Pim::Status>::make("pim");
  status->intfIs(Nimo::IntfId(pair.vethB));
  // A known neighbour: Join/Prunes are posted, not queued.
  status->activeNeighborIs({Nimo::IntfId(pair.vethB), src}, 105);
  auto acls = Kel::Ptr<Acl::Config>::make("acl");
  auto counters = Routing::Pim::Drobe::messageCountersFactory(
      Routing::Pim::Drobe::MessageCounters::mountPath(af, vrf, "rxbench"));
  if (!counters->mountWriter()) return 1;
  auto mgr = Routing::Pim::IO::pamManagerFactory(vrf, af, pair.b, false);
  if (!mgr->pam()) return 1;
  auto io = Routing::Pim::IO::iOSmFactory(vrf, loop);
  io->pimPamManagerIs(mgr);
  io->pimCountersIs(counters);
  io->pimStatusIs(status);
  io->pimConfigCollIs(Kel::Ptr<Routing::Pim::ConfigColl>::make("cfg"));
  io->aclConfigIs(acls);
  io->ipGenIntfStatusIs(dir);
  io->kernelIntfStatusDirIs(dir);
  io->allIntfStatusDirIs(dir);
  io->serviceAclFilterSmIs(Kel::Ptr<Acl::ServiceAclFilterSm>::make("svc", acls));
  io->loopQuantumIs(10.0);  // drain the whole burst in one call
  mgr->rxMessageInfoIs(0);
  mgr->rxMessageInfoIs(3);
  io->initializedIs(true);
  Nimo::IpPam& pam = *mgr->pam();

  const Bytes pim = joinPrune ? fullJoinPrune(src, all) : hello(src, all);
  pin(1);
  std::vector<double> full, bare, fullCpu;
  std::vector<std::uint8_t> buf(65536);
  for (int r = 0; r < rounds; ++r) {
    // Through the I/O machine.
    if (!burst(pair, v6, pim, count, 0)) return 1;
    const std::uint32_t before = mgr->rxPamCounter()->processed();
    double t0 = wall(), c0 = threadCpu();
    io->rxPkt();
    double t1 = wall(), c1 = threadCpu();
    const std::uint32_t got = mgr->rxPamCounter()->processed() - before;
    if (got != std::uint32_t(count)) {
      std::fprintf(stderr, "RxBench: %u of %d processed (kernel drops %llu)\n", got, count,
                   static_cast<unsigned long long>(pam.rxKernelDrops()));
      return 1;
    }
    full.push_back((t1 - t0) / count * 1e9);
    fullCpu.push_back((c1 - c0) / count * 1e9);
    // Bare drain of the same burst on the same socket.
    if (!burst(pair, v6, pim, count, 0)) return 1;
    int n = 0;
    t0 = wall();
    for (;;) {
      sockaddr_in6 from;
      alignas(cmsghdr) char control[256];
      iovec iov{buf.data(), buf.size()};
      msghdr msg{};
      msg.msg_name = &from;
      msg.msg_namelen = sizeof from;
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      if (::recvmsg(pam.fd(), &msg, 0) < 0) break;
      ++n;
    }
    t1 = wall();
    if (n != count) {
      std::fprintf(stderr, "RxBench: bare drain read %d of %d\n", n, count);
      return 1;
    }
    bare.push_back((t1 - t0) / count * 1e9);
  }

  // The split, in memory on one packet of the same kind.
  const std::uint32_t hl = v6 ? Nimo::Ipv6Hdr::kSize : Nimo::Ipv4Hdr::kMinSize;
  Bytes wire(hl);
  if (v6) {
    Nimo::Ipv6Hdr(wire.data()).build(0xc0, std::uint16_t(pim.size()), 103, 1, src, all);
  } else {
    Nimo::Ipv4Hdr(wire.data()).build(0xc0, std::uint16_t(hl + pim.size()), 1, 103, src, all);
  }
  wire.insert(wire.end(), pim.begin(), pim.end());
  auto pkt = Nimo::Pkt::copyOf(wire.data(), static_cast<std::uint32_t>(wire.size()));
  const int iters = 200000;
  auto perPkt = [&](auto&& fn) {
    const double t0 = wall();
    for (int i = 0; i < iters; ++i) fn();
    return (wall() - t0) / iters * 1e9;
  };
  const double checks = perPkt([&] {
    auto ctx = Routing::Pim::IO::rxPktContextFactory(pkt, pair.ifIndexB);
    ctx->remainingIs(pkt->size());
    io->readIpHeader(*ctx) && io->peekPimHeader(*ctx) && io->validateRxInterface(*ctx) &&
        io->validateRxDstAddress(*ctx) && io->validateRxSrcAddress(*ctx);
  });
  const double decode = perPkt([&] {
    if (joinPrune) {
      auto m = Kel::Ptr<Routing::Pim::Packet::JoinPruneMessage>::make();
      m->srcIpIs(src);
      m->dstIpIs(all);
      m->readJoinPruneMessage(pkt, hl, nullptr);
    } else {
      auto h = Kel::Ptr<Routing::Pim::Packet::HelloMessage>::make();
      h->srcIpIs(src);
      h->dstIpIs(all);
      h->readHelloMessage(pkt, hl);
    }
  });
  const double counting = perPkt([&] {
    io->updateCounter(Routing::Pim::IO::MessageCounterDirection::rx, joinPrune ? 3 : 0, 255,
                      Nimo::IntfId(pair.vethB), MessageCounterType::success);
  });
  const double process =
      perPkt([&] { io->processPkt(Routing::Pim::IO::rxPktContextFactory(pkt, pair.ifIndexB)); });
  const double recv = median(bare);
  const double fullNs = median(full), cpuNs = median(fullCpu);
  std::printf("%s %s (%zu bytes of PIM), %d-packet bursts, %d rounds (medians)\n",
              v6 ? "IPv6" : "IPv4", joinPrune ? "Join/Prune" : "Hello", pim.size(), count, rounds);
  std::printf("  rxPkt drain   %7.0f ns/pkt  %8.0f pkt/s\n", fullNs, 1e9 / fullNs);
  std::printf("  bare recvmsg  %7.0f ns/pkt  %8.0f pkt/s\n", recv, 1e9 / recv);
  std::printf("  ratio (rxPkt pkt/s / bare pkt/s): %.2fx   (aim >= 0.7x)\n", recv / fullNs);
  std::printf("  CPU per packet in rxPkt: %.0f ns = %.0f pkt per CPU-second\n", cpuNs, 1e9 / cpuNs);
  if (!joinPrune) {
    std::printf(
        "  vs 3.3-4.5 us of CPU per Hello in another router's daemon: %.1f-%.1fx its packets "
        "per CPU-second   (aim >= 2.5x)\n",
        3300 / cpuNs, 4500 / cpuNs);
  }
  std::printf(
      "  split of one packet: recvmsg %.0f, checks %.0f, decode %.0f, counting %.0f, "
      "dispatch %.0f ns (in memory: processPkt %.0f ns)\n",
      recv, checks, decode, counting, std::max(0.0, process - checks - decode - counting), process);
  counters->unmount();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (!PimTest::isRoot()) {
    std::printf("RxBench: needs root (network namespaces, raw sockets); nothing measured\n");
    return 0;
  }
  const int count = argc > 1 ? std::atoi(argv[1]) : 2000;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 15;
  const std::string root = fmt::format("/dev/shm/rxbench.{}", ::getpid());
  ::setenv("DROBE_ROOT", root.c_str(), 1);
  int rc = 0;
  for (bool joinPrune : {false, true}) {
    for (auto af : {Nimo::AddressFamily::ipv4, Nimo::AddressFamily::ipv6}) {
      rc |= runFamily(af, joinPrune, count, rounds);
    }
  }
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  return rc;
}
