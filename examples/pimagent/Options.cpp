#include "examples/pimagent/Options.h"

#include <getopt.h>

#include <cmath>
#include <cstdlib>
#include <string_view>

#include "Pim/platform/System.h"

namespace PimAgent {

namespace {

// A number of seconds in (0, max].
std::optional<double> seconds(const char* text, double max) {
  char* end = nullptr;
  const double v = std::strtod(text, &end);
  if (end == text || *end != 0 || !std::isfinite(v) || v <= 0 || v > max) return std::nullopt;
  return v;
}

std::optional<Nimo::IpGenAddr> address(std::string_view text) {
  return Nimo::IpGenAddr::parse(text);
}

// "SOURCE,GROUP@UPSTREAM" or "*,GROUP,RP@UPSTREAM".
std::optional<Join> join(std::string_view text) {
  const auto at = text.rfind('@');
  if (at == std::string_view::npos) return std::nullopt;
  const auto up = address(text.substr(at + 1));
  std::string_view route = text.substr(0, at);
  const auto comma = route.find(',');
  if (!up || comma == std::string_view::npos) return std::nullopt;
  Join j;
  j.upstream = *up;
  const std::string_view first = route.substr(0, comma);
  route = route.substr(comma + 1);
  if (first == "*") {
    const auto comma2 = route.find(',');
    if (comma2 == std::string_view::npos) return std::nullopt;
    const auto g = address(route.substr(0, comma2));
    const auto rp = address(route.substr(comma2 + 1));
    if (!g || !rp) return std::nullopt;
    j.group = *g;
    j.rp = *rp;
  } else {
    const auto s = address(first);
    const auto g = address(route);
    if (!s || !g) return std::nullopt;
    j.source = *s;
    j.group = *g;
  }
  const Nimo::AddressFamily af = j.group.af();
  if (!j.group.isMulticast() || j.upstream.af() != af || (j.source && j.source->af() != af) ||
      (!j.source && j.rp.af() != af)) {
    return std::nullopt;
  }
  return j;
}

}  // namespace

std::variant<Options, std::string> parseOptions(int argc, char** argv) {
  enum : int { kNetns = 1, kVrf, kAf, kIntf, kHello, kHold, kDr, kJoin, kDuration, kTrace };
  static const option longOptions[] = {
      {"netns", required_argument, nullptr, kNetns},
      {"vrf", required_argument, nullptr, kVrf},
      {"af", required_argument, nullptr, kAf},
      {"intf", required_argument, nullptr, kIntf},
      {"hello-interval", required_argument, nullptr, kHello},
      {"holdtime", required_argument, nullptr, kHold},
      {"dr-priority", required_argument, nullptr, kDr},
      {"join", required_argument, nullptr, kJoin},
      {"duration", required_argument, nullptr, kDuration},
      {"trace", required_argument, nullptr, kTrace},
      {nullptr, 0, nullptr, 0},
  };
  Options o;
  bool holdtimeGiven = false;
  opterr = 0;
  optind = 1;
  for (;;) {
    const int c = getopt_long(argc, argv, "", longOptions, nullptr);
    if (c == -1) break;
    const std::string_view arg = optarg ? optarg : "";
    switch (c) {
      case kNetns:
        if (arg.empty() || arg.find('/') != std::string_view::npos)
          return "bad --netns: " + std::string(arg);
        o.netns = arg;
        break;
      case kVrf:
        if (arg.empty() || arg.size() > L3::VrfName::kMaxLen || !L3::VrfName::validBytes(arg)) {
          return "bad --vrf: " + std::string(arg);
        }
        o.vrf = arg;
        break;
      case kAf:
        if (arg == "4" || arg == "6" || arg == "both") {
          o.v4 = arg != "6";
          o.v6 = arg != "4";
        } else {
          return "bad --af (4, 6 or both): " + std::string(arg);
        }
        break;
      case kIntf:
        if (arg.empty() || arg.size() > Nimo::IntfId::kMaxLen)
          return "bad --intf: " + std::string(arg);
        o.intfs.emplace_back(arg);
        break;
      case kHello: {
        // The default holdtime (3.5 x) must fit the 16-bit Hello option.
        const auto s = seconds(optarg, 18724);
        if (!s) return "bad --hello-interval (seconds, 1 to 18724): " + std::string(arg);
        o.helloInterval = *s;
        break;
      }
      case kHold: {
        const auto s = seconds(optarg, 65535);
        if (!s || *s < 1) return "bad --holdtime (seconds, 1 to 65535): " + std::string(arg);
        o.holdtime = std::floor(*s);
        holdtimeGiven = true;
        break;
      }
      case kDr: {
        char* end = nullptr;
        const unsigned long long v = std::strtoull(optarg, &end, 10);
        if (arg.empty() || *end != 0 || arg[0] == '-' || v > 0xffffffffull) {
          return "bad --dr-priority (0 to 4294967295): " + std::string(arg);
        }
        o.drPriority = static_cast<std::uint32_t>(v);
        break;
      }
      case kJoin: {
        const auto j = join(arg);
        if (!j)
          return "bad --join (SOURCE,GROUP@UPSTREAM or *,GROUP,RP@UPSTREAM): " + std::string(arg);
        o.joins.push_back(*j);
        break;
      }
      case kDuration: {
        const auto s = seconds(optarg, 1e7);
        if (!s) return "bad --duration (seconds): " + std::string(arg);
        o.duration = *s;
        break;
      }
      case kTrace: {
        const auto eq = arg.find('=');
        if (eq == 0 || eq == std::string_view::npos || eq + 1 == arg.size()) {
          return "bad --trace (FACILITY=LEVEL, level 0 to 9): " + std::string(arg);
        }
        char* end = nullptr;
        const long level = std::strtol(optarg + eq + 1, &end, 10);
        if (level < 0 || level > 9 || *end != 0) {
          return "bad --trace (FACILITY=LEVEL, level 0 to 9): " + std::string(arg);
        }
        o.traces.emplace_back(std::string(arg.substr(0, eq)), static_cast<int>(level));
        break;
      }
      default:
        return "unknown or incomplete option: " + std::string(argv[optind - 1]);
    }
  }
  if (optind < argc) return "unexpected argument: " + std::string(argv[optind]);
  if (!holdtimeGiven) o.holdtime = std::floor(3.5 * o.helloInterval);
  if (o.holdtime < 1) o.holdtime = 1;
  for (const Join& j : o.joins) {
    const bool v6 = j.af() == Nimo::AddressFamily::ipv6;
    if ((v6 && !o.v6) || (!v6 && !o.v4)) {
      return "--join of a family not run (see --af): " + j.group.str();
    }
  }
  return o;
}

}  // namespace PimAgent
