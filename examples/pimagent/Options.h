// pimagent's command line.
//
//   pimagent [--netns NAME] [--vrf NAME] [--af 4|6|both] [--intf IFNAME]...
//            [--hello-interval S] [--holdtime S] [--dr-priority N]
//            [--join SOURCE,GROUP@UPSTREAM]... [--join *,GROUP,RP@UPSTREAM]...
//            [--duration S] [--trace FACILITY=LEVEL]
//
// Defaults: this namespace, VRF "default", IPv4, every interface that is up and not
// loopback, 30 s Hellos, holdtime 3.5 x the interval, DR priority 1, no joins, no end.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "Pim/platform/Nimo.h"

namespace PimAgent {

// One configured join: (S,G) when source is set, else (*,G) with its RP.
struct Join {
  std::optional<Nimo::IpGenAddr> source;
  Nimo::IpGenAddr group;
  Nimo::IpGenAddr rp;
  Nimo::IpGenAddr upstream;
  Nimo::AddressFamily af() const noexcept { return group.af(); }
};

struct Options {
  std::string netns;
  std::string vrf = "default";
  bool v4 = true;
  bool v6 = false;
  std::vector<std::string> intfs;  // empty: every interface that is up and not loopback
  double helloInterval = 30;
  double holdtime = 105;  // 3.5 x helloInterval unless given
  std::uint32_t drPriority = 1;
  std::vector<Join> joins;
  double duration = 0;  // 0: until SIGINT/SIGTERM
  std::vector<std::pair<std::string, int>> traces;
};

// The options, or the one-line reason they are not acceptable.
std::variant<Options, std::string> parseOptions(int argc, char** argv);

}  // namespace PimAgent
