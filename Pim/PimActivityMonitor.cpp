// Inputs: Hardware::Status (read per call), the IpPam's socket (one ioctl per kernel
// poll), the clock. No reactors, no timers.
#include "Pim/PimActivityMonitor.h"

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <netinet/in.h>  // before the kernel headers, which then skip their copies
#include <sys/ioctl.h>
// clang-format off
#include <linux/mroute.h>
#include <linux/mroute6.h>
// clang-format on

#include <cerrno>
#include <cstring>

namespace Routing::Pim {

namespace {

namespace Hw = Multicast::Fib::Hardware;

// The fixed texts, in the order the steps meet them.
constexpr std::string_view kHwNoVrf = ", vrf status does not exist in hardware";
constexpr std::string_view kHwNoRoute = " does not exist in hardware";
constexpr std::string_view kHwActive = " has hardware activity";
constexpr std::string_view kHwFastDrop = " has hardware activity due to fastdrop activity";
constexpr std::string_view kHwInactive = " has no hardware activity";
constexpr std::string_view kKernelError = "(), Unable to get stats ( error = ";
constexpr std::string_view kKernelErrorRoute = " ) for route ";
constexpr std::string_view kKernelRoute = "(), route ";
constexpr std::string_view kKernelInactive = " has no kernel activity.";
constexpr std::string_view kKernelActive = " has kernel activity.";

int ioctlQuery(int fd, unsigned long request, void* arg) {
  return ::ioctl(fd, request, arg) == 0 ? 0 : errno;
}

}  // namespace

Flicklog::Facility& activityMonitorTrace() {
  static Flicklog::Facility& f = Flicklog::facility("PimActivityMonitor");
  return f;
}

std::string valueToStrep(const PimKernelStats& v) { return Kel::valueToStrep(v); }
std::string valueToStrep(const PimActivityInfo& v) { return Kel::valueToStrep(v); }
std::ostream& operator<<(std::ostream& os, const PimKernelStats& v) {
  return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, const PimActivityInfo& v) {
  return os << valueToStrep(v);
}

PimActivityMonitorSm::PimActivityMonitorSm(const L3::VrfName& vrf, Kel::Ptr<Nimo::IpPam> pam,
                                           Kel::Ptr<Hw::Status> hwStatus,
                                           Kel::Ptr<Kel::Clock> clock)
    : Kel::Entity(Kel::Name("PimActivityMonitorSm/" + vrf.str())),
      vrf_(vrf),
      pam_(std::move(pam)),
      hw_(std::move(hwStatus)),
      clock_(std::move(clock)),
      query_(ioctlQuery) {
  handleExpiryInterval();
  initialized_ = true;
}

void PimActivityMonitorSm::expiryTimeIs(std::uint32_t seconds) {
  if (seconds == expiryTime_) return;
  expiryTime_ = seconds;
  handleExpiryInterval();
}

void PimActivityMonitorSm::handleExpiryInterval() {
  inactivityInterval_ = expiryTime_ > 150 ? 15.0 : 10.0;
}

Hw::RouteKey PimActivityMonitorSm::convertKey(const RouteKey& key) {
  const Nimo::IpGenAddr& g = key.group();
  if (!key.isStarG()) return Hw::RouteKey(key.source(), g);
  static constexpr std::uint8_t kZero[16] = {};
  const Nimo::AddressFamily af =
      g.isSet() ? g.af() : Nimo::AddressFamily::ipv4;  // an unset group has no family
  return Hw::RouteKey(Nimo::IpGenAddr(af, kZero), g);
}

sockaddr_in6 PimActivityMonitorSm::ip6AddrToSockAddr(const Nimo::IpGenAddr& a) {
  sockaddr_in6 s{};
  s.sin6_family = AF_INET6;
  if (a.af() == Nimo::AddressFamily::ipv6) std::memcpy(&s.sin6_addr, a.bytes(), 16);
  return s;
}

bool PimActivityMonitorSm::isActiveInHw(const Hw::RouteKey& key) {
  return isActiveInHw(key, clock_->now());
}

bool PimActivityMonitorSm::isActiveInHw(const Hw::RouteKey& key, double now) {
  auto& tr = activityMonitorTrace();
  auto note = [&](std::string_view text) {
    FLICK_TRACE(tr, 4, "<Vrf:{}> isActiveInHw(), route {}{}", vrf_.name(), fmt::streamed(key),
                text);
  };
  if (hw_ && (hwVersion_ != hw_->version() || !hwVrf_)) {
    hwVrf_ = hw_->vrfStatus(vrf_).ptr();
    hwVersion_ = hw_->version();
  }
  const Hw::VrfStatus* vrf = hw_ ? hwVrf_ : nullptr;
  if (!vrf || !vrf->exists()) {
    note(kHwNoVrf);
    return false;
  }
  const std::optional<double> last = vrf->lastActivityTime(key);
  if (!last) {
    note(kHwNoRoute);
    return false;
  }
  const double interval = vrf->activityInterval();
  if (now - *last <= interval) {
    note(kHwActive);
    return true;
  }
  if (const std::optional<double> drop = vrf->lastFastDropTime(key);
      drop && now - *drop <= interval) {
    note(kHwFastDrop);
    return true;
  }
  note(kHwInactive);
  return false;
}

int PimActivityMonitorSm::kernelStats(const RouteKey& key, PimKernelStats& out) {
  ++kernelQueries_;
  const int fd = pam_ ? pam_->fd() : -1;
  int err;
  if (key.group().af() == Nimo::AddressFamily::ipv6) {
    sioc_sg_req6 req{};
    if (!key.isStarG()) req.src = ip6AddrToSockAddr(key.source());
    req.src.sin6_family = AF_INET6;
    req.grp = ip6AddrToSockAddr(key.group());
    err = query_(fd, SIOCGETSGCNT_IN6, &req);
    if (err == 0) out = PimKernelStats(req.pktcnt, req.bytecnt, req.wrong_if);
  } else {
    sioc_sg_req req{};
    if (!key.isStarG()) std::memcpy(&req.src, key.source().bytes(), 4);
    std::memcpy(&req.grp, key.group().bytes(), 4);
    err = query_(fd, SIOCGETSGCNT, &req);
    if (err == 0) out = PimKernelStats(req.pktcnt, req.bytecnt, req.wrong_if);
  }
  if (err != 0) ++kernelQueryErrors_;
  return err;
}

PimActivityInfo PimActivityMonitorSm::isActive(const RouteKey& key,
                                               const PimKernelStats& lastStats) {
  return isActive(key, lastStats, clock_->now());
}

PimActivityInfo PimActivityMonitorSm::isActive(const RouteKey& key, const PimKernelStats& lastStats,
                                               double now) {
  if (isActiveInHw(convertKey(key), now)) return PimActivityInfo(lastStats, true, now);

  auto& tr = activityMonitorTrace();
  const std::string_view step =
      key.group().af() == Nimo::AddressFamily::ipv6 ? "isActiveInKernel6" : "isActiveInKernel4";
  PimKernelStats stats;
  if (const int err = kernelStats(key, stats); err != 0) {
    FLICK_TRACE(tr, 5, "<Vrf:{}> {}{}{}{}{}", vrf_.name(), step, kKernelError, err,
                kKernelErrorRoute, fmt::streamed(key));
    return PimActivityInfo(lastStats, false, now);
  }
  // A change, not an increase: re-created entries restart from zero.
  const bool active = stats != lastStats;
  FLICK_TRACE(tr, 4, "<Vrf:{}> {}{}{}{}", vrf_.name(), step, kKernelRoute, fmt::streamed(key),
              active ? kKernelActive : kKernelInactive);
  return PimActivityInfo(stats, active, now);
}

Kel::Ptr<PimActivityMonitorSm> pimActivityMonitorSmFactory(const L3::VrfName& vrf,
                                                           Kel::Ptr<Nimo::IpPam> pam,
                                                           Kel::Ptr<Hw::Status> hwStatus,
                                                           Kel::Ptr<Kel::Clock> clock) {
  return Kel::Ptr<PimActivityMonitorSm>::make(vrf, std::move(pam), std::move(hwStatus),
                                              std::move(clock));
}

}  // namespace Routing::Pim
