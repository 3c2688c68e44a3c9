// pimagent: a small PIM agent on the library's public API (see Options.h and Agent.h).
//
// It follows the kernel's interfaces over netlink (in --netns when given), runs one
// FamilyAgent per address family on one event loop, and stops on SIGINT, SIGTERM or at the
// end of --duration, saying goodbye to its neighbours first. Exit status: 0 after a clean
// stop, 1 when the socket, netlink or the status tables cannot be had, 2 for bad options.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "Pim/linux/NetlinkIntfStatus.h"
#include "Pim/platform/Flicklog.h"
#include "examples/pimagent/Agent.h"

int main(int argc, char** argv) {
  auto parsed = PimAgent::parseOptions(argc, argv);
  if (auto* err = std::get_if<std::string>(&parsed)) {
    std::fprintf(stderr, "pimagent: %s\n", err->c_str());
    return 2;
  }
  const PimAgent::Options& options = std::get<PimAgent::Options>(parsed);
  for (const auto& [facility, level] : options.traces) Flicklog::facility(facility).levelIs(level);

  // Signals arrive as readable events of the loop, never in the middle of a handler.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
  const int sigfd = signalfd(-1, &stopSignals, SFD_NONBLOCK | SFD_CLOEXEC);

  Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
  Ulm::FdWatch signals(loop, sigfd, [&] {
    signalfd_siginfo si;
    if (::read(sigfd, &si, sizeof si) == sizeof si) {
      std::printf("pimagent: signal %u, stopping\n", si.ssi_signo);
    }
    loop.stop();
  });
  Ulm::Timer end(loop.timers(), [&] { loop.stop(); });
  if (options.duration > 0) end.delayIs(options.duration);

  auto dir = Kel::Ptr<Interface::IntfStatusDir>::make("intf");
  auto netlink = Interface::netlinkIntfStatusSmFactory(dir, loop, options.netns);
  if (!netlink->ok()) {
    std::fprintf(stderr, "pimagent: netlink refused%s\n",
                 options.netns.empty() ? "" : (" in " + options.netns).c_str());
    return 1;
  }
  std::vector<std::unique_ptr<PimAgent::FamilyAgent>> agents;
  if (options.v4) {
    agents.push_back(
        std::make_unique<PimAgent::FamilyAgent>(options, Nimo::AddressFamily::ipv4, loop, dir));
  }
  if (options.v6) {
    agents.push_back(
        std::make_unique<PimAgent::FamilyAgent>(options, Nimo::AddressFamily::ipv6, loop, dir));
  }
  for (const auto& a : agents)
    if (!a->ok()) return 1;
  std::printf("pimagent: running in %s, VRF %s\n",
              options.netns.empty() ? "this namespace" : options.netns.c_str(),
              options.vrf.c_str());
  std::fflush(stdout);
  for (const auto& a : agents) a->start();
  loop.run();
  for (const auto& a : agents) a->stop();
  return 0;
}
