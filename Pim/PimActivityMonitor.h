// PimActivityMonitor: whether a multicast route of one VRF carried traffic recently, the
// keepalive of an (S,G) route (RFC 7761 4.1.3). The agent polls each route with the
// PimActivityInfo of its previous poll and keeps the answer for the next one.
//
// isActive(key, lastStats) asks, in order:
//   1. hardware (isActiveInHw): the forwarding agent's Hardware::Status for the VRF. A
//      route whose last hardware activity is at most activityInterval seconds old (equal
//      counts) is active; so is a route present in hardware whose own activity is stale
//      but whose fast-drop activity is fresh. A hardware hit answers active with timeStamp
//      now and the kernel statistics handed in, unchanged: the next kernel poll then
//      compares against the counters it really saw last, not against a made-up reading.
//   2. the kernel's multicast forwarding counters, read on the VRF's PIM socket with
//      SIOCGETSGCNT (struct sioc_sg_req) or SIOCGETSGCNT_IN6 (struct sioc_sg_req6, the
//      kernel's own definition: 80 bytes on x86-64). A (*,G) key asks for source 0.0.0.0
//      or ::. Active means the counters changed since the last poll, not that they grew:
//      an entry re-created by the kernel restarts from zero, and that counts once. The
//      answer carries the new counters and timeStamp now, active or not.
// Linux answers these ioctls on any raw socket of the network namespace, from the
// namespace's default multicast routing table, while the multicast routing daemon holds
// MRT_INIT on its own socket. So here a VRF is a network namespace, and the IpPam handed
// in must be open in it.
//
// A failed query ("Unable to get stats", errno traced; EADDRNOTAVAIL when the kernel has
// no entry, as after the routing daemon restarted) answers not active and hands back the
// previous counters unchanged, so that one failed poll followed by a good one compares
// against real old counters instead of faking activity against zeros.
//
// Wrong-interface traffic: the kernel counts a packet that arrived on an interface other
// than the route's incoming one in the packet count as well as in wrong_if. It is not
// subtracted: a changed packet count is activity, and a source still sending on the wrong
// interface is alive (it is what drives asserts). The counters keep wrongIf for callers
// that want to tell the two apart.
//
// inactivityInterval (the agent's poll spacing for kernel routes) is 10 s for an
// expiryTime of 150 s or less and 15 s above; handleExpiryInterval recomputes it at
// construction and on every change of expiryTime (default 210 s, the keepalive period).
//
// Traces (facility "PimActivityMonitor"; level 4 the decisions, 5 failed queries) begin
// "<Vrf:" VRF ">" and name the step: "isActiveInHw()", "isActiveInKernel4()",
// "isActiveInKernel6()".
//
// Inputs: the hardware status (read on each call), the IpPam's socket (ioctl on each
// kernel poll), the clock. No timers, no reactors: the agent drives the polls.
// Threading: event-loop thread only; no locks.
//
// Usage:
//   auto mon = pimActivityMonitorSmFactory(L3::VrfName("red"), pam, hwStatus, clock);
//   mon->expiryTimeIs(150);                       // inactivityInterval() == 10
//   PimActivityInfo info;                         // first poll: zero counters
//   info = mon->isActive(RouteKey(src, grp), info.kernelStats());
//   if (!info.isActive()) { /* count towards the keepalive timeout */ }
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>

#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/PimCore.h"
#include "Pim/platform/Routing.h"
#include "Pim/platform/System.h"

namespace Routing::Pim {

// The kernel's counters of one route.
class PimKernelStats {
 public:
  PimKernelStats() noexcept = default;
  PimKernelStats(std::uint64_t packetCount, std::uint64_t byteCount, std::uint64_t wrongIf) noexcept
      : packetCount_(packetCount), byteCount_(byteCount), wrongIf_(wrongIf) {}
  std::uint64_t packetCount() const noexcept { return packetCount_; }
  std::uint64_t byteCount() const noexcept { return byteCount_; }
  std::uint64_t wrongIf() const noexcept { return wrongIf_; }
  friend bool operator==(const PimKernelStats&, const PimKernelStats&) = default;

 private:
  std::uint64_t packetCount_ = 0;
  std::uint64_t byteCount_ = 0;
  std::uint64_t wrongIf_ = 0;

 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::PimKernelStats";
  static constexpr auto kFields =
      std::make_tuple(Kel::field("packetCount", &PimKernelStats::packetCount_),
                      Kel::field("byteCount", &PimKernelStats::byteCount_),
                      Kel::field("wrongIf", &PimKernelStats::wrongIf_));
};

class PimActivityInfo {
 public:
  PimActivityInfo() noexcept = default;
  PimActivityInfo(const PimKernelStats& kernelStats, bool isActive, double timeStamp) noexcept
      : kernelStats_(kernelStats), isActive_(isActive), timeStamp_(timeStamp) {}
  const PimKernelStats& kernelStats() const noexcept { return kernelStats_; }
  bool isActive() const noexcept { return isActive_; }
  double timeStamp() const noexcept { return timeStamp_; }
  friend bool operator==(const PimActivityInfo&, const PimActivityInfo&) = default;

 private:
  PimKernelStats kernelStats_;
  bool isActive_ = false;
  double timeStamp_ = 0.0;

 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::PimActivityInfo";
  static constexpr auto kFields =
      std::make_tuple(Kel::field("kernelStats", &PimActivityInfo::kernelStats_),
                      Kel::field("isActive", &PimActivityInfo::isActive_),
                      Kel::field("timeStamp", &PimActivityInfo::timeStamp_));
};

std::string valueToStrep(const PimKernelStats& v);
std::string valueToStrep(const PimActivityInfo& v);
std::ostream& operator<<(std::ostream& os, const PimKernelStats& v);
std::ostream& operator<<(std::ostream& os, const PimActivityInfo& v);

class PimActivityMonitorSm : public Kel::Entity {
 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::PimActivityMonitorSm";
  static constexpr std::uint32_t kDefaultExpiryTime = 210;

  // The kernel query: ioctl(fd, request, arg), answering 0 or the errno. Tests replace it.
  using SgCountQuery = std::function<int(int fd, unsigned long request, void* arg)>;

  PimActivityMonitorSm(const L3::VrfName& vrf, Kel::Ptr<Nimo::IpPam> pam,
                       Kel::Ptr<Multicast::Fib::Hardware::Status> hwStatus,
                       Kel::Ptr<Kel::Clock> clock);

  const L3::VrfName& vrfName() const noexcept { return vrf_; }
  const Kel::Ptr<Nimo::IpPam>& pam() const noexcept { return pam_; }
  std::uint32_t expiryTime() const noexcept { return expiryTime_; }
  void expiryTimeIs(std::uint32_t seconds);
  double inactivityInterval() const noexcept { return inactivityInterval_; }
  bool initialized() const noexcept { return initialized_; }
  void handleExpiryInterval();

  PimActivityInfo isActive(const RouteKey& key, const PimKernelStats& lastStats);
  // The same at a time the caller read once for a whole poll of many routes: the clock
  // read costs about as much as the hardware lookup itself (bench/ActivityBench).
  PimActivityInfo isActive(const RouteKey& key, const PimKernelStats& lastStats, double now);
  bool isActiveInHw(const Multicast::Fib::Hardware::RouteKey& key);

  static Multicast::Fib::Hardware::RouteKey convertKey(const RouteKey& key);
  static sockaddr_in6 ip6AddrToSockAddr(const Nimo::IpGenAddr& a);

  // Kernel queries made and failed, for show commands and tests.
  std::uint64_t kernelQueries() const noexcept { return kernelQueries_; }
  std::uint64_t kernelQueryErrors() const noexcept { return kernelQueryErrors_; }
  void sgCountQueryIs(SgCountQuery q) { query_ = std::move(q); }

 private:
  bool isActiveInHw(const Multicast::Fib::Hardware::RouteKey& key, double now);
  // 0 and the counters, or the errno.
  int kernelStats(const RouteKey& key, PimKernelStats& out);

  L3::VrfName vrf_;
  Kel::Ptr<Nimo::IpPam> pam_;
  Kel::Ptr<Multicast::Fib::Hardware::Status> hw_;
  // The VRF's hardware status as of hw_'s version hwVersion_. Not owned: hw_ holds it
  // until its version moves, and holding it here would keep a retired writer's tables.
  const Multicast::Fib::Hardware::VrfStatus* hwVrf_ = nullptr;
  std::uint64_t hwVersion_ = 0;
  Kel::Ptr<Kel::Clock> clock_;
  SgCountQuery query_;
  std::uint32_t expiryTime_ = kDefaultExpiryTime;
  double inactivityInterval_ = 0.0;
  bool initialized_ = false;
  std::uint64_t kernelQueries_ = 0;
  std::uint64_t kernelQueryErrors_ = 0;
};

Kel::Ptr<PimActivityMonitorSm> pimActivityMonitorSmFactory(
    const L3::VrfName& vrf, Kel::Ptr<Nimo::IpPam> pam,
    Kel::Ptr<Multicast::Fib::Hardware::Status> hwStatus, Kel::Ptr<Kel::Clock> clock);

// Trace facility of the monitor.
Flicklog::Facility& activityMonitorTrace();

}  // namespace Routing::Pim
