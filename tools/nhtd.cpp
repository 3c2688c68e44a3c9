// nhtd: next-hop tracking for a plain Linux router. It reads a VRF's unicast and multicast
// RIBs as ribd publishes them from the kernel (both families), follows every client's
// registrations (Routing::NexthopVrfConfig tables, found by name under the config path of
// each RIB and family), and publishes each tracked address's resolution
// (Routing::NexthopVrfStatus) until SIGINT, SIGTERM or the end of --duration.
//
//   nhtd [--vrf NAME] [--duration S]
//
// Resolution is a longest match in the RIB mirror it already holds (a Routing::Shadow per
// RIB), never a kernel query; a route change re-resolves only the tracked addresses under its
// prefix. Carrier loss: ribd drops linkdown next hops from a route's vias (a route left with
// none gives way to the next candidate), so the resolving FEC, and with it the status entry,
// changes. Client tables are looked for every second; client names contain no '.'.
//
// It prints one line when every RIB has been read ("nhtd: ready ..."), and the tracked counts
// at exit. Exit status: 0 after a clean stop, 1 when a status table cannot be had, 2 for bad
// options.
#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <string>

#include "Pim/platform/Routing.h"
#include "tools/LoopStop.h"

namespace {

constexpr const char* kUsage = "usage: nhtd [--vrf NAME] [--duration SECONDS]";
constexpr const char* kRibs[][2] = {{"urib", "unicast"}, {"mrib", "multicast"}};

// One RIB of one family: its mirror and its resolver.
template <Nimo::AddressFamily F>
struct Rib {
  Kel::Ptr<Routing::Shadow::StatusGen<F>> shadow;
  Kel::Ptr<Routing::NexthopResolverGen<F>> resolver;
  std::string configDir;
  std::string vrf, name;

  bool open(Ulm::EventLoop& loop, const std::string& v, const char* table, const char* rib) {
    vrf = v;
    name = rib;
    shadow = Routing::Shadow::StatusGen<F>::create(loop, Routing::ribMountPath(F, vrf), table);
    auto out = Routing::NexthopVrfStatusWriter::create(F, vrf, rib);
    if (!out) return false;
    resolver = Routing::NexthopResolverGen<F>::create(loop.timers(), shadow->trie(), out);
    configDir = Drobe::mountDir(Routing::nexthopConfigPath(F, vrf, rib));
    return true;
  }
  void scanClients(Ulm::EventLoop& loop) {
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(configDir, ec)) {
      const std::string n = e.path().filename().string();
      if (n.find('.') == std::string::npos && e.is_regular_file(ec))
        resolver->clientIs(loop, vrf, name, n);
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  std::string vrf = "default";
  double duration = 0;
  const option longOptions[] = {{"vrf", required_argument, nullptr, 'v'},
                                {"duration", required_argument, nullptr, 'd'},
                                {nullptr, 0, nullptr, 0}};
  for (int c; (c = getopt_long(argc, argv, "", longOptions, nullptr)) != -1;) {
    bool ok = false;
    if (c == 'v') {
      vrf = optarg;
      ok = !vrf.empty();
    } else if (c == 'd') {
      const std::string_view s(optarg);
      ok = std::from_chars(s.data(), s.data() + s.size(), duration).ptr == s.data() + s.size() &&
           duration >= 0;
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

  Rib<Nimo::AddressFamily::ipv4> v4[2];
  Rib<Nimo::AddressFamily::ipv6> v6[2];
  for (int i = 0; i < 2; ++i) {
    if (!v4[i].open(loop, vrf, kRibs[i][0], kRibs[i][1]) ||
        !v6[i].open(loop, vrf, kRibs[i][0], kRibs[i][1])) {
      std::fprintf(stderr, "nhtd: the next-hop status tables refused\n");
      return 1;
    }
  }
  auto scan = [&] {
    for (int i = 0; i < 2; ++i) {
      v4[i].scanClients(loop);
      v6[i].scanClients(loop);
    }
  };
  scan();
  Ulm::Timer rescan(loop.timers(), {});
  rescan.callbackIs([&] {
    scan();
    rescan.delayIs(1.0);
  });
  rescan.delayIs(1.0);
  // A RIB that ribd does not publish (no --mrib-table) is empty: after two seconds its
  // resolver marks its answers complete (every address unresolved) without waiting longer.
  int checks = 0;
  Ulm::Timer readyCheck(loop.timers(), {});
  readyCheck.callbackIs([&] {
    bool ready = true;
    auto check = [&](auto& rib) {
      if (rib.shadow->synced()) return;
      if (checks == 40 && !rib.shadow->table()->mounted()) {
        rib.resolver->resolveAll();
        return;
      }
      if (checks <= 40 || rib.shadow->table()->mounted()) ready = false;
    };
    for (int i = 0; i < 2; ++i) {
      check(v4[i]);
      check(v6[i]);
    }
    ++checks;
    if (!ready) return readyCheck.delayIs(0.05);
    std::printf("nhtd: ready, VRF %s: %u/%u IPv4 and %u/%u IPv6 routes (unicast/multicast)\n",
                vrf.c_str(), static_cast<unsigned>(v4[0].shadow->trie()->size()),
                static_cast<unsigned>(v4[1].shadow->trie()->size()),
                static_cast<unsigned>(v6[0].shadow->trie()->size()),
                static_cast<unsigned>(v6[1].shadow->trie()->size()));
    std::fflush(stdout);
  });
  readyCheck.delayIs(0);
  loop.run();
  std::printf("nhtd: stopping: tracking %zu/%zu IPv4 and %zu/%zu IPv6 addresses\n",
              v4[0].resolver->tracked(), v4[1].resolver->tracked(), v6[0].resolver->tracked(),
              v6[1].resolver->tracked());
  return 0;
}
