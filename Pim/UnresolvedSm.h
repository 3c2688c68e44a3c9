// UnresolvedSm: retries the multicast routes that have no RPF when a RIB change could
// resolve them.
//
// Watches: RpfStatus (unresolvedRoute and unresolvedWcRoute, which RpfSm fills with the
// address each route needs: its source, or the RP of a (*,G)) and the unicast and
// multicast RIB tries. Publishes: rpfRouteChanged and its count in RpfStatus, the signal
// RpfSm uses; the agent looks up again and, if it now finds an RPF, writes it, which takes
// the route out of the unresolved collections.
//
// The unresolved routes are indexed by the addresses they need (TargetIndex, a trie of host
// prefixes, "UnresolvedTrie"), so a RIB change under which no unresolved target lies costs
// one longerRoutePresent query and nothing more. One under which some target lies asks for
// a review of every unresolved route: the (*,G) routes first, then the (S,G) routes, in key
// order, in slices of reviewQuantum, resumed from one bookmark whose kind says which walk
// it is in. The walk reads the live collections key by key: a route resolved during the
// review (the agent writes from its handler) is not published again; one that becomes
// unresolved behind the bookmark waits for the next RIB change.
//
// Restart. A RIB change that arrives once the review's first slice has begun may concern
// routes the review has already passed: the review restarts once at its end, at once and
// still in slices ("UnresolvedSm: Restarting route review "), however many such changes
// came. Changes while the review is only scheduled are covered by it.
//
// Start: every route already unresolved is entered and one full review runs (RIB changes
// made before the machine existed were never seen). Create it after RpfSm.
//
// Limit: only RIB changes retry a route. A route unresolved for want of a PIM neighbour (a
// RIB route whose next hops are not valid) is the agent's to retry when neighbours change.
// A (*,G) route whose RP is unknown (no address) is not indexed; full reviews still
// publish it.
//
// Traces: facility "UnresolvedSm", level 4 (reviews), 8 (per route).
// Threading: event-loop thread only; no locks.
//
// Usage:
//   auto rpfSm = Routing::Pim::rpfSmFactory(...);
//   auto unresolved = Routing::Pim::unresolvedSmFactory(status, uribTrie, mribTrie, clock,
//                                                       loop.timers());
//   // a default route appears: every unresolved route is in status->rpfRouteChanged()
//   // within a few passes of the loop.
#pragma once

#include <optional>
#include <string>

#include "Pim/RpfReview.h"
#include "Pim/platform/PimCore.h"
#include "Pim/platform/Routing.h"
#include "Pim/platform/Ulm.h"
#include "Pim/platform/routing/Shadow.h"

namespace Routing::Pim {

class UnresolvedSm : public Kel::Entity {
 public:
  struct Stats {
    std::uint64_t ribChanges = 0;    // per-prefix RIB notices seen
    std::uint64_t reviewsAsked = 0;  // notices with a target under them
    std::uint64_t published = 0;
    std::uint64_t slices = 0;
    std::uint64_t restarts = 0;
    std::uint64_t reviewsFinished = 0;
    double longestSlice = 0;  // seconds, by the deadline clock
  };
  struct Bookmark {
    bool wcWalk = true;  // which walk the review is in: (*,G) first, then (S,G)
    std::optional<RouteKey> key;
  };
  using Entity::Entity;

  virtual Nimo::AddressFamily af() const noexcept = 0;
  virtual bool reviewAll() const noexcept = 0;
  virtual bool scheduleReviewAll() const noexcept = 0;
  virtual bool pendingReviewAll() const noexcept = 0;
  virtual std::uint32_t numPendingChanges() const noexcept = 0;
  virtual const Bookmark& bookmark() const noexcept = 0;
  virtual double reviewQuantum() const noexcept = 0;
  virtual void reviewQuantumIs(double seconds) = 0;
  virtual void reviewDeadlineClockIs(Kel::Ptr<const Kel::Clock> clock) = 0;
  virtual bool reviewScheduled() const noexcept = 0;
  virtual void doReview() = 0;
  virtual const TargetIndex& index() const noexcept = 0;
  virtual const Stats& stats() const noexcept = 0;
  virtual std::string checkInvariantsForTest(bool quiescent = false) const = 0;
};

Kel::Ptr<UnresolvedSm> unresolvedSmFactory(Kel::Ptr<RpfStatus> status,
                                           Kel::Ptr<const Routing::Shadow::Status::Trie> uribTrie,
                                           Kel::Ptr<const Routing::Shadow::Status::Trie> mribTrie,
                                           Kel::Ptr<const Kel::Clock> clock,
                                           Ulm::TimerWheel& wheel);
Kel::Ptr<UnresolvedSm> unresolvedSmFactory(Kel::Ptr<RpfStatus> status,
                                           Kel::Ptr<const Routing6::Shadow::Status::Trie> uribTrie,
                                           Kel::Ptr<const Routing6::Shadow::Status::Trie> mribTrie,
                                           Kel::Ptr<const Kel::Clock> clock,
                                           Ulm::TimerWheel& wheel);
// The name the machine's creation goes by in the agents.
template <typename Trie>
Kel::Ptr<UnresolvedSm> UnresolvedSmIs(Kel::Ptr<RpfStatus> status, Kel::Ptr<const Trie> uribTrie,
                                      Kel::Ptr<const Trie> mribTrie,
                                      Kel::Ptr<const Kel::Clock> clock, Ulm::TimerWheel& wheel) {
  return unresolvedSmFactory(std::move(status), std::move(uribTrie), std::move(mribTrie),
                             std::move(clock), wheel);
}

}  // namespace Routing::Pim
