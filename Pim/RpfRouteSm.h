// RpfRouteSm: the RpfSm of the next-hop-tracking configuration. Instead of linking routes to
// RIB prefixes it registers every address a multicast route's RPF depends on (the source of
// an (S,G), the RP of a (*,G)) as a tracked next hop with the routing agents, in the unicast
// and the multicast next-hop configuration, drains their backlogs of changed resolutions, and
// publishes in RpfStatus which routes must look their RPF up again (RpfTable.h answers).
//
// Records: one RouteSourceInfo per tracked address, however many routes use it: sgGroup (the
// groups of (S,G)s with this source), wcGroup (the groups whose (*,G) uses it as RP), rib
// (the RIB whose resolution is in use, U or M) and the last resolution seen in each RIB. An
// address that is both a source and an RP has one record, registered once in each
// configuration, and unregistered from both when both sets are empty.
//
// A (*,G) key tracks its RP, which is the Rpf's target (the agent looks the RP up and writes
// it there); groupRp holds the RP in use per group, so that a group whose RP changed moves
// from the old RP's wcGroup to the new one's (and the old RP is unregistered once unused).
// A key whose Rpf is empty enters the unresolved set of its kind and is unwatched.
//
// Backlogs. Each entry is compared with the record's last resolution for that RIB: added,
// updated, deleted, or equal (a duplicate notice, a restarted routing agent: nothing is
// published). The multicast RIB comes first: a unicast change of a record on M is only
// traced; a multicast addition or update moves the record to M; a multicast deletion falls
// back to U (when the unicast status has an entry) or reports no route. Otherwise every
// dependent is marked and the sliced review (RpfReview.h) publishes each once. A backlog
// notice drains on the next turn (a restarted routing agent's synced mark can be read before
// its entries); a drain stops when the quantum is spent and resumes on the next turn: the
// backlog is its own bookmark.
//
// Start: keys already in rpfConfig are watched and registered; a new record takes its last
// resolutions from the status as it stands, so a machine re-created over unchanged routes
// publishes nothing. Destruction unregisters every address (nothing leaks); unresolved
// entries stay in RpfStatus, as RpfSm leaves them.
//
// A change of multipath control marks every watched route, as in RpfSm.
//
// Review timer: fill interval 1.0 s and 4 credits, as RpfSm. A drain that finds n changed
// addresses marks their dependents once and asks for one review, so a burst of backlog
// notices costs the same number of runs as one RIB event under RpfSm; the same figures keep
// both machines' behaviour under a flap alike.
//
// Traces: facility "RpfRouteSm", level 4 (records, RIB choices, reviews), 8 (per route).
// Threading: event-loop thread only; no locks.
//
// Usage:
//   Routing::Pim::RpfRouteTracking t{uCfg, mCfg, uStatus, mStatus,
//                                    Routing::NexthopBacklog::create(uStatus, uCfg),
//                                    Routing::NexthopBacklog::create(mStatus, mCfg)};
//   auto sm = Routing::Pim::rpfRouteSmFactory(Nimo::AddressFamily::ipv4, config, status,
//                                             mfibConfig, clock, loop.timers(), t);
//   config->rpfConfigInfoIs(key, RpfConfigInfo(rpfTable->doLookup(src, grp).rpf));
//   // later: status->rpfRouteChanged() holds key; look up again and write the new Rpf.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <unordered_map>

// Before PimRpHashStatus.h, whose Routing::Pim::Drobe would hide ::Drobe from them.
#include "Pim/RpfTable.h"
#include "Pim/platform/Routing.h"
#include "Pim/platform/routing/Nexthop.h"
// clang-format off
#include "Pim/PimRpHashStatus.h"
// clang-format on
#include "Pim/RpfReview.h"
#include "Pim/platform/PimCore.h"

namespace Routing::Pim {

// The next-hop tracking a machine registers with and drains.
struct RpfRouteTracking {
  Kel::Ptr<Routing::NexthopVrfConfig> uribNexthopConfig;
  Kel::Ptr<Routing::NexthopVrfConfig> mribNexthopConfig;
  Kel::Ptr<const Routing::NexthopVrfStatus> uribNexthopStatus;
  Kel::Ptr<const Routing::NexthopVrfStatus> mribNexthopStatus;
  Kel::Ptr<Routing::NexthopBacklog> uribBacklog;
  Kel::Ptr<Routing::NexthopBacklog> mribBacklog;
};

struct RouteSourceInfo {
  explicit RouteSourceInfo(const Nimo::IpGenAddr& a) : addr(a) {}
  Nimo::IpGenAddr addr;
  RpfRib rib = RpfRib::U;
  std::set<Nimo::IpGenAddr> sgGroup;
  std::set<Nimo::IpGenAddr> wcGroup;
  // Last resolution seen per RIB; unset: no route.
  std::optional<Routing::NexthopStatusEntry> urib;
  std::optional<Routing::NexthopStatusEntry> mrib;
};

class RpfRouteSm : public Kel::Entity {
 public:
  struct Stats {
    std::uint64_t backlogEntries = 0;  // addresses taken from either backlog
    std::uint64_t equal = 0;           // entries equal to the last seen
    std::uint64_t ignored = 0;         // unicast changes of records on M
    std::uint64_t marked = 0;          // dependents marked
    std::uint64_t published = 0;
    std::uint64_t drainRuns = 0;  // handler runs that took entries
    double longestDrain = 0;      // seconds, by the deadline clock
  };
  using Entity::Entity;

  virtual Nimo::AddressFamily af() const noexcept = 0;
  virtual double minDelay() const noexcept = 0;
  virtual double maxDelay() const noexcept = 0;
  virtual double reviewQuantum() const noexcept = 0;
  virtual void reviewQuantumIs(double seconds) = 0;
  // The clock the quantum's deadline is read from (default: the monotonic system clock).
  virtual void reviewDeadlineClockIs(Kel::Ptr<const Kel::Clock> clock) = 0;
  virtual const RpfRouteTracking& tracking() const noexcept = 0;
  virtual const std::unordered_map<Nimo::IpGenAddr, RouteSourceInfo, Routing::AddrHash>&
  routeSourceInfo() const noexcept = 0;
  bool routeSourceInfoHas(const Nimo::IpGenAddr& a) const {
    return routeSourceInfo().count(a) != 0;
  }
  virtual const std::map<Nimo::IpGenAddr, GroupRp>& groupRp() const noexcept = 0;
  virtual const std::set<RouteKey>& changeRpf() const noexcept = 0;
  virtual const std::optional<RouteKey>& reviewBookmark() const noexcept = 0;
  virtual bool reviewScheduled() const noexcept = 0;
  virtual void doReview() = 0;
  virtual void handleUribNexthopBacklog() = 0;
  virtual void handleMribNexthopBacklog() = 0;
  virtual const Stats& stats() const noexcept = 0;
  virtual const ReviewStats& reviewStats() const noexcept = 0;
  // "" when records, registrations and the config agree, else the first thing wrong.
  virtual std::string checkInvariantsForTest() const = 0;
  // Bytes held by records, groupRp and the pending set (containers' nodes and buckets).
  virtual std::size_t memoryBytes() const noexcept = 0;
};

Kel::Ptr<RpfRouteSm> rpfRouteSmFactory(Nimo::AddressFamily af, Kel::Ptr<const RpfConfig> rpfConfig,
                                       Kel::Ptr<RpfStatus> status,
                                       Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
                                       Kel::Ptr<const Kel::Clock> clock, Ulm::TimerWheel& wheel,
                                       RpfRouteTracking tracking);

}  // namespace Routing::Pim
