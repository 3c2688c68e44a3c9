// RpfSm: keeps the agent's multicast routes tied to the RIB prefixes their RPF rests on,
// and tells the agent which routes must look their RPF up again.
//
// Watches: the agent's RpfConfig (one Rpf per route), the unicast and multicast RIB tries
// (prefix added, updated, deleted; whole-table notices), the multicast FIB config
// (multipath control). Publishes into RpfStatus: unresolvedRoute / unresolvedWcRoute (the
// routes without an RPF, with the address each needs) and rpfRouteChanged with its count.
// One machine per address family; keys of the other family are ignored, so one RpfConfig
// and one RpfStatus may serve both.
//
// Per route it remembers what it linked (prefix, RIB, target): the config already holds
// the new Rpf when the handler runs, and a delete unlinks by this record, never by a trie
// match. Each linked prefix is an entry of the RPF trie with its users ordered by target,
// so that marking the users under a new more specific prefix is a range, not a scan.
//
// RIB changes mark routes (they go into the pending set and are published by the sliced
// review, RpfReview.h):
// - deleted: every user of the prefix; a multicast deletion also marks the routes under it
//   as an update does (a multicast route without a usable next hop sent their lookups on to
//   the unicast RIB, and a less specific multicast route may take them now);
// - updated: each user whose own Rpf names that RIB and that validRpf no longer accepts; a
//   unicast update leaves multicast-linked users alone (the multicast RIB is looked up
//   first); a multicast update marks unicast-linked users (the multicast route may now
//   win) and walks the subtree as an addition does;
// - added: the users under the new prefix of every enclosing linked prefix, then the
//   subtree of the RPF trie below it. Truncation: a unicast addition cannot move a route
//   linked through the multicast RIB (never marked), nor one linked to a more specific
//   prefix that still has a unicast route (the walk is truncated there); a multicast
//   addition moves every unicast-linked route below it and truncates only at
//   multicast-linked prefixes with a live multicast route. When unsure it marks: a needless
//   publication costs one lookup, a missed one leaves a route on a dead path.
// - a whole-table notice (first mount, resync) and a change of multipath control mark
//   every linked route.
//
// Start: every route already in the config is linked and marked, so each linked route is
// published once; routes already unresolved are entered in RpfStatus, and the
// unresolved-route machine (created after this one) publishes them in its first review.
// A key deleted while pending is dropped at review time ("<key> has been deleted").
//
// Checks before any change of state: an Rpf with an interface must name the unicast or
// multicast RIB (assertion) and a prefix without host bits (range error, which reaches the
// agent's setter since notices are synchronous; the machine is left as it was).
//
// The multicast-specific RIB is not watched: its changes reach the agent through its own
// lookups only. rpHashStatus is held for the agent's (*,G) targets; no step reads it.
//
// Traces: facility "RpfSm", level 4 (links, marks, reviews), 8 (per user).
// Threading: event-loop thread only; no locks.
//
// Usage:
//   auto sm = Routing::Pim::rpfSmFactory(Nimo::AddressFamily::ipv4, config, status,
//                                        ucast->uribShadowStatus()->trie(),
//                                        ucast->mribShadowStatus()->trie(), rpfTable, nullptr,
//                                        mfibConfig, clock, loop.timers());
//   config->rpfConfigInfoIs(key, RpfConfigInfo(rpfTable->doLookup(src, grp).rpf));
//   // ... a RIB change later: status->rpfRouteChanged() holds key; look up again, write
//   // the new Rpf, then status->rpfRouteChangedDel(key).
#pragma once

#include <set>
#include <string>

// Before PimRpHashStatus.h, whose Routing::Pim::Drobe would hide ::Drobe from it.
#include "Pim/PimRpfTable.h"
// clang-format off
#include "Pim/PimRpHashStatus.h"
// clang-format on
#include "Pim/RpfReview.h"
#include "Pim/platform/PimCore.h"
#include "Pim/platform/Routing.h"
#include "Pim/platform/Ulm.h"

namespace Routing::Pim {

class RpfSm : public Kel::Entity {
 public:
  struct Stats {
    std::uint64_t marked = 0;     // mark calls (a key already pending counts again)
    std::uint64_t published = 0;  // rpfRouteChangedIs calls
    std::uint64_t deletedAtReview = 0;
    std::uint64_t truncations = 0;
  };
  using Entity::Entity;

  virtual Nimo::AddressFamily af() const noexcept = 0;
  virtual const std::set<RouteKey>& changeRpf() const noexcept = 0;
  virtual const std::optional<RouteKey>& reviewBookmark() const noexcept = 0;
  virtual double reviewQuantum() const noexcept = 0;
  virtual void reviewQuantumIs(double seconds) = 0;
  // The clock the review's deadline is read from (default: the monotonic system clock).
  virtual void reviewDeadlineClockIs(Kel::Ptr<const Kel::Clock> clock) = 0;
  virtual bool reviewScheduled() const noexcept = 0;
  virtual void doReview() = 0;
  // Linked prefixes, and the users of one (0 when not linked).
  virtual std::size_t trieSize() const noexcept = 0;
  virtual std::size_t userCount(const Nimo::IpGenPrefix& prefix) const = 0;
  virtual const Stats& stats() const noexcept = 0;
  virtual const ReviewStats& reviewStats() const noexcept = 0;
  // "" when every invariant holds, else the first one broken. With quiescent, nothing may be
  // pending either.
  virtual std::string checkInvariantsForTest(bool quiescent = false) const = 0;
};

using UribTrie4 = Routing::Shadow::Status::Trie;
using UribTrie6 = Routing6::Shadow::Status::Trie;

Kel::Ptr<RpfSm> rpfSmFactory(Nimo::AddressFamily af, Kel::Ptr<const RpfConfig> config,
                             Kel::Ptr<RpfStatus> status, Kel::Ptr<const UribTrie4> uribTrie,
                             Kel::Ptr<const UribTrie4> mribTrie, Kel::Ptr<PimRpfTable> pimRpfTable,
                             Kel::Ptr<RpHashStatus> rpHashStatus,
                             Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
                             Kel::Ptr<const Kel::Clock> clock, Ulm::TimerWheel& wheel);
Kel::Ptr<RpfSm> rpfSmFactory(Nimo::AddressFamily af, Kel::Ptr<const RpfConfig> config,
                             Kel::Ptr<RpfStatus> status, Kel::Ptr<const UribTrie6> uribTrie,
                             Kel::Ptr<const UribTrie6> mribTrie, Kel::Ptr<PimRpfTable> pimRpfTable,
                             Kel::Ptr<RpHashStatus> rpHashStatus,
                             Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
                             Kel::Ptr<const Kel::Clock> clock, Ulm::TimerWheel& wheel);

}  // namespace Routing::Pim
