// PIM over SCTP throughput between two namespaces (root): Join/Prunes per second through
// the manager (write, frame, send; received and decoded on the far end) beside the bare
// socket object's send loop of the same frame bytes on the same association, in the same
// run, rounds alternating; association set-up time; the sender's CPU per message.
//
//   sudo build/release/bench/PortBench [messages per round, default 20000] [rounds, default 3]
//
// The far end B runs in a child (a userland stack is one per process) and writes one byte
// to a pipe each time it has decoded a round's worth.
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "Pim/PortFrame.h"
#include "tests/netns/NetnsUtil.h"
#include "tests/netns/PortEnd.h"

namespace {

double cpuSeconds() {
  rusage u{};
  ::getrusage(RUSAGE_SELF, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) * 1e-6;
}
double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct Round {
  double seconds = 0, cpu = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const int n = argc > 1 ? std::atoi(argv[1]) : 20000;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 3;
  if (!PimTest::isRoot()) {
    std::fprintf(stderr, "PortBench: needs root (network namespaces, raw sockets)\n");
    return 2;
  }
  ::setenv("DROBE_ROOT", fmt::format("/dev/shm/portbench-{}", ::getpid()).c_str(), 1);
  PimTest::NetnsPair net("sctpb");
  if (!net.ok) return 1;
  int p[2];
  if (::pipe(p) != 0) return 1;
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(p[0]);
    PimTest::PortEnd b(net.b, net.vethB, net.ifIndexB, "10.77.0.1");
    const std::uint64_t total =
        static_cast<std::uint64_t>(2 * rounds) * static_cast<std::uint64_t>(n);
    std::uint64_t signalled = 0;
    b.runUntil(
        [&] {
          const std::uint64_t done =
              (b.mgr->rxSuccess() + b.mgr->rxInvalid()) / static_cast<std::uint64_t>(n);
          for (; signalled < done; ++signalled) (void)!::write(p[1], "x", 1);
          return signalled * static_cast<std::uint64_t>(n) >= total;
        },
        600);
    ::_exit(0);
  }
  ::close(p[1]);
  int status = 0;
  {
    PimTest::PortEnd a(net.a, net.vethA, net.ifIndexA, "10.77.0.2");
    std::printf("backend: %s\n", std::string(a.mgr->sctpPam()->backendKind()).c_str());
    const double t0 = now();
    a.connect();
    if (!a.runUntil([&] { return a.mgr->sctpStatus()->upCount() == 1; }, 10)) {
      std::fprintf(stderr, "PortBench: no association\n");
      return 1;
    }
    const double setupMs = (now() - t0) * 1e3;
    const auto id = a.mgr->sctpStatus()->association().begin()->first;
    // The bare loop's bytes: the frame the manager writes for message 1.
    auto frame = Nimo::Pkt::create(1500);
    {
      auto data = Kel::Ptr<Routing::Pim::JoinPruneData>::make();
      data->upstreamNeighborIs(Nimo::IpGenAddr("10.77.0.2"));
      data->holdTimeIs(1);
      data->joinPruneGroupDataIs(Nimo::IpGenPrefix(Nimo::IpGenAddr("232.1.1.1"), 32))
          .joinedSourceIs(Nimo::IpGenAddr("10.1.1.1"));
      Routing::Pim::Packet::JoinPruneMessage jp;
      jp.srcIpIs(Routing::Pim::Reliable::portMessageAddr(Nimo::AddressFamily::ipv4));
      jp.dstIpIs(jp.srcIp());
      jp.joinPruneDataIs(data);
      const std::uint32_t len =
          jp.writeJoinPruneMessage(frame, Routing::Pim::Reliable::kPortJoinPruneOffset, nullptr);
      frame->sizeIs(
          Routing::Pim::Reliable::writePortJoinPrune(frame, 0, {}, Nimo::AddressFamily::ipv4, len));
    }
    pollfd pf{p[0], POLLIN, 0};
    const auto waitB = [&] {
      char c;
      return a.runUntil([&] { return ::poll(&pf, 1, 0) == 1; }, 120) && ::read(p[0], &c, 1) == 1;
    };
    const auto round = [&](bool viaManager) {
      Round r;
      const double c0 = cpuSeconds(), w0 = now();
      for (int i = 1; i <= n; ++i) {
        // A full send buffer refuses; the loop drains it and the message goes again.
        a.runUntil(
            [&] {
              return viaManager ? a.send(static_cast<std::uint16_t>(i))
                                : a.mgr->sctpPam()->doSendMsg(frame->data(0), frame->size(), id);
            },
            10);
      }
      if (!waitB()) std::fprintf(stderr, "PortBench: the far end did not report\n");
      r.seconds = now() - w0;
      r.cpu = cpuSeconds() - c0;
      return r;
    };
    Round best[2] = {{1e9, 0}, {1e9, 0}};
    for (int k = 0; k < rounds; ++k) {
      for (int viaManager = 0; viaManager < 2; ++viaManager) {
        const Round r = round(viaManager != 0);
        if (r.seconds < best[viaManager].seconds) best[viaManager] = r;
      }
    }
    const double mgrRate = n / best[1].seconds, bareRate = n / best[0].seconds;
    std::printf("Join/Prunes per second, manager (write, frame, send; far end decodes): %.0f\n",
                mgrRate);
    std::printf("Join/Prunes per second, bare send loop of the same bytes:              %.0f\n",
                bareRate);
    std::printf("ratio manager / bare: %.2fx (aim 0.7x)\n", mgrRate / bareRate);
    std::printf("sender CPU per message, userland backend: manager %.2f us, bare %.2f us\n",
                best[1].cpu / n * 1e6, best[0].cpu / n * 1e6);
    std::printf("association set-up: %.2f ms\n", setupMs);
    std::printf("kernel backend: not measured here (the kernel has no SCTP)\n");
  }
  // The far end exits once it has seen every round; bounded, then killed.
  for (int i = 0; i < 3000 && ::waitpid(child, &status, WNOHANG) != child; ++i) ::usleep(10000);
  if (::waitpid(child, &status, WNOHANG) == 0) {
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
  }
  std::system(fmt::format("rm -rf /dev/shm/portbench-{}", ::getpid()).c_str());
  return 0;
}
