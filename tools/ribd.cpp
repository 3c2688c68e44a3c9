// ribd: publishes the kernel's routes of one network namespace as a VRF's route and FEC
// tables (Routing::NetlinkRibSm), for every agent of that VRF to read, and keeps them
// current until SIGINT, SIGTERM or the end of --duration.
//
//   ribd [--vrf NAME] [--netns NS] [--mrib-table ID] [--rcvbuf BYTES] [--duration S]
//        [--trace LEVEL]
//
// It prints one line when the tables are first published ("ribd: ready ..."), one per
// re-dump after lost notices, and the counters at exit. Exit status: 0 after a clean stop,
// 1 when netlink or the tables cannot be had, 2 for bad options.
#include <getopt.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <string>
#include <string_view>

#include "Pim/linux/NetlinkIntfStatus.h"
#include "Pim/linux/NetlinkRib.h"
#include "Pim/platform/Flicklog.h"
#include "tools/LoopStop.h"

namespace {

constexpr const char* kUsage =
    "usage: ribd [--vrf NAME] [--netns NS] [--mrib-table ID] [--rcvbuf BYTES] "
    "[--duration SECONDS] [--trace LEVEL]";

template <typename T>
bool number(const char* text, T* out) {
  const std::string_view s(text);
  return std::from_chars(s.data(), s.data() + s.size(), *out).ptr == s.data() + s.size();
}

void printCounts(const char* what, const Routing::NetlinkRibSm& rib) {
  std::printf(
      "ribd: %s: %u IPv4 and %u IPv6 routes, %u/%u in the multicast RIB, resyncs %llu, "
      "overflows %llu, skipped %llu, refused %llu, waiting %zu\n",
      what, rib.urib()->table().size(), rib.urib6()->table().size(),
      rib.mrib() ? rib.mrib()->table().size() : 0u, rib.mrib6() ? rib.mrib6()->table().size() : 0u,
      static_cast<unsigned long long>(rib.resyncs()),
      static_cast<unsigned long long>(rib.overflows()),
      static_cast<unsigned long long>(rib.skipped()),
      static_cast<unsigned long long>(rib.refused()), rib.waiting());
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  Routing::NetlinkRibConfig config;
  double duration = 0;
  enum { kVrf = 1, kNetns, kMrib, kRcvBuf, kDuration, kTrace };
  const option longOptions[] = {{"vrf", required_argument, nullptr, kVrf},
                                {"netns", required_argument, nullptr, kNetns},
                                {"mrib-table", required_argument, nullptr, kMrib},
                                {"rcvbuf", required_argument, nullptr, kRcvBuf},
                                {"duration", required_argument, nullptr, kDuration},
                                {"trace", required_argument, nullptr, kTrace},
                                {nullptr, 0, nullptr, 0}};
  for (;;) {
    const int c = getopt_long(argc, argv, "", longOptions, nullptr);
    if (c == -1) break;
    bool ok = true;
    int level = 0;
    switch (c) {
      case kVrf:
        config.vrf = optarg;
        ok = !config.vrf.empty();
        break;
      case kNetns:
        config.netNs = optarg;
        break;
      case kMrib:
        ok = number(optarg, &config.mribTable);
        break;
      case kRcvBuf:
        ok = number(optarg, &config.rcvBuf) && config.rcvBuf > 0;
        break;
      case kDuration:
        ok = number(optarg, &duration) && duration >= 0;
        break;
      case kTrace:
        ok = number(optarg, &level) && level >= 0 && level <= 9;
        if (ok) Flicklog::facility("Pim::Linux").levelIs(level);
        break;
      default:
        ok = false;
    }
    if (!ok) {
      std::fprintf(stderr, "%s\n", kUsage);
      return 2;
    }
  }
  if (optind < argc) {
    std::fprintf(stderr, "%s\n", kUsage);
    return 2;
  }

  Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
  Tools::LoopStop stop(loop, duration);

  auto dir = Kel::Ptr<Interface::IntfStatusDir>::make("intf");
  auto intfs = Interface::netlinkIntfStatusSmFactory(dir, loop, config.netNs);
  auto rib = intfs->ok() ? Routing::netlinkRibSmFactory(config, dir, loop) : nullptr;
  if (!rib || !rib->ok()) {
    std::fprintf(stderr, "ribd: netlink or the route tables refused%s\n",
                 config.netNs.empty() ? "" : (" in " + config.netNs).c_str());
    return 1;
  }
  struct Reporter : Routing::NetlinkRibSm::NotifieeConst {
    Routing::NetlinkRibSm* rib = nullptr;
    std::uint64_t overflows = 0;
    void onResync() override {
      if (rib->overflows() == overflows) return;
      overflows = rib->overflows();
      printCounts("resync after lost notices", *rib);
    }
  } reporter;
  reporter.rib = rib.ptr();
  reporter.overflows = rib->overflows();
  reporter.notifierIs(rib);
  printCounts(("ready, VRF " + config.vrf).c_str(), *rib);
  loop.run();
  printCounts("stopping", *rib);
  return 0;
}
