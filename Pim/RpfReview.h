// The pieces the RPF state machines share (RpfSm, RpfRouteSm, UnresolvedSm):
//
// - RouteKeyReview: a pending set of route keys and its sliced review. mark(key) adds a key
//   and asks the review timer for a run; each run walks the set in RouteKey order from a
//   bookmark, hands every key to the owner's publish callback and removes it, and stops
//   when the quantum is spent (at least one key per run), keeping the next key as the
//   bookmark. After "Finished review" the bookmark returns to the start, and keys marked
//   behind it while the review was suspended are published by the next run. The walk goes
//   from key to key (never an iterator across a publication): the owner's callback may
//   publish to an agent that writes or deletes routes synchronously, which unmarks keys
//   under the walk. A key is removed before it is published, so a key marked again from
//   inside its own publication waits for a later run rather than being lost.
//   The quantum's deadline is read from the deadline clock (the monotonic system clock by
//   default; tests hand in one that steps on every read); the review timer keeps the
//   machine's clock. The trace texts are the owner's (ReviewTexts).
// - UnresolvedSets: the writes of routes without an RPF into RpfStatus (unresolvedRoute for
//   (S,G), unresolvedWcRoute for (*,G)) with their traces, prefixed by the machine's name.
// - publishRpfChange: the review's publication of one key, skipped for a deleted route.
// - TargetIndex: route keys indexed by the address each one needs, in a trie of host
//   prefixes, so that a RIB change can ask with one trie query whether any key lies under
//   it. A key moves when its address changes; a prefix lives while it has users. The trie
//   keeps its nodes for reuse, so when the addresses fall to a quarter of their peak it is
//   rebuilt from them: after a burst of unresolved routes resolves, the memory comes back.
//
// Threading: event-loop thread only; no locks.
//
// Usage:
//   Routing::Pim::RouteKeyReview review(wheel, clock, trace, kRpfSmReviewTexts,
//                                       [&](const RouteKey& k) { status->rpfRouteChangedIs(k); });
//   review.mark(key);          // published on a later pass of the wheel
//   Routing::Pim::TargetIndex idx("UnresolvedTrie", Nimo::AddressFamily::ipv4);
//   idx.keyIs(key, Nimo::IpGenAddr("10.1.1.1"));
//   idx.anyUnder(Nimo::IpGenPrefix("10.0.0.0/8"));  // true
#pragma once

#include <fmt/ostream.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/PimCore.h"
#include "Pim/platform/Ulm.h"
#include "Pim/platform/routing/Trie.h"

namespace Routing::Pim {

// The review timer's parameters, shared by the RPF machines.
inline constexpr double kReviewFillInterval = 1.0;
inline constexpr std::uint32_t kReviewCredits = 4;
inline constexpr double kReviewMinDelay = 0.01;
inline constexpr double kReviewMaxDelay = 0.05;
inline constexpr double kReviewQuantum = 0.1;

// Registration needs the watched entity writable; watching changes nothing in it.
template <typename T>
Kel::Ptr<T> watchable(const Kel::Ptr<const T>& p) {
  return Kel::Ptr<T>(const_cast<T*>(p.ptr()));
}

// Slice figures for tests and benches.
struct ReviewStats {
  std::uint64_t runs = 0;       // slices run
  std::uint64_t published = 0;  // keys handed to the callback
  double longestSlice = 0;      // seconds, by the deadline clock
};

// A review's trace lines: "<machine><starting>", "<machine><suspending><n> published, <m>
// pending", "<machine><finished>".
struct ReviewTexts {
  std::string_view machine;
  std::string_view starting;
  std::string_view suspending;
  std::string_view finished;
};
inline constexpr ReviewTexts kRpfSmReviewTexts{"RpfSm", ": Starting new review",
                                               ": Suspending review ", ": Finished review"};

class RouteKeyReview {
 public:
  using Publish = std::function<void(const RouteKey&)>;
  RouteKeyReview(Ulm::TimerWheel& wheel, Kel::Ptr<const Kel::Clock> clock,
                 Flicklog::Facility& trace, ReviewTexts texts, Publish publish);

  void mark(const RouteKey& k);
  // Marks many keys; sorting them first makes each insertion land beside the previous one,
  // which matters when a change marks 100,000 keys at once.
  void mark(std::vector<RouteKey>& keys);
  void unmark(const RouteKey& k) {
    if (pending_.erase(k) != 0) removed();
  }
  bool marked(const RouteKey& k) const { return pending_.count(k) != 0; }
  const std::set<RouteKey>& pending() const noexcept { return pending_; }
  const std::optional<RouteKey>& bookmark() const noexcept { return bookmark_; }
  // Drops every pending key (the owner is being reset).
  void clear();

  double reviewQuantum() const noexcept { return quantum_; }
  void reviewQuantumIs(double q) noexcept { quantum_ = q; }
  void deadlineClockIs(Kel::Ptr<const Kel::Clock> c) { deadlineClock_ = std::move(c); }
  const ReviewStats& stats() const noexcept { return stats_; }
  bool scheduled() const noexcept { return timer_.scheduled(); }

  // One run; the timer calls it.
  void doReview();

 private:
  // Every removal: the insertion hint may point at what went.
  void removed() noexcept {
    hint_ = pending_.end();
    ++changes_;
  }
  void insert(const RouteKey& k) {
    hint_ = std::next(pending_.insert(hint_, k));
    ++changes_;
  }
  Flicklog::Facility& trace_;
  ReviewTexts texts_;
  Publish publish_;
  std::set<RouteKey> pending_;
  // Where the last insertion went: keys marked in ascending order (the users of a prefix, a
  // sorted batch) insert in constant time after it.
  std::set<RouteKey>::iterator hint_ = pending_.end();
  // Counts insertions and removals: a walk keeps its next key only across a publication
  // that changed nothing.
  std::uint64_t changes_ = 0;
  std::optional<RouteKey> bookmark_;
  double quantum_ = kReviewQuantum;
  Kel::Ptr<const Kel::Clock> deadlineClock_;
  ReviewStats stats_;
  Ulm::ReviewTimer timer_;
};

// Routes without an RPF in RpfStatus, (S,G) and (*,G) alike. The owner knows whether a key
// is unresolved; this writes the status and traces, "<machine>: RPF changed, adding <key> to
// unresolved routes" and the rest.
class UnresolvedSets {
 public:
  UnresolvedSets(Kel::Ptr<RpfStatus> status, Flicklog::Facility& trace, std::string_view machine)
      : status_(std::move(status)), trace_(trace), machine_(machine) {}
  // k has no RPF; target is the address it needs (source or RP).
  void add(const RouteKey& k, const Nimo::IpGenAddr& target);
  // k has an RPF again.
  void resolved(const RouteKey& k);
  // k's route is gone.
  void deleted(const RouteKey& k);
  bool has(const RouteKey& k) const;

 private:
  void del(const RouteKey& k);
  Kel::Ptr<RpfStatus> status_;
  Flicklog::Facility& trace_;
  std::string_view machine_;
};

// The address a route's RPF is for: the Rpf's target; else the source of an (S,G); else, for
// a (*,G) Rpf written without its RP, the prefix's address.
Nimo::IpGenAddr rpfTarget(const RouteKey& k, const Rpf& rpf);

// Publishes k as changed (rpfRouteChangedIs, rpfRouteChangedCountInc) when its RPF record
// still exists; otherwise traces "<machine>: <key> has been deleted" and returns false.
bool publishRpfChange(const RpfConfig& config, RpfStatus& status, const RouteKey& k,
                      Flicklog::Facility& trace, std::string_view machine);
// The same for a key known to have its record.
inline void publishRpfChange(RpfStatus& status, const RouteKey& k) {
  status.rpfRouteChangedIs(k);
  status.rpfRouteChangedCountInc(k);
}

class TargetIndex {
 public:
  TargetIndex(Kel::Name name, Nimo::AddressFamily af) : trie_(std::move(name), af) {}

  // Enters or moves key under addr (an unset addr only removes it).
  void keyIs(const RouteKey& k, const Nimo::IpGenAddr& addr);
  void keyDel(const RouteKey& k);
  void clear();
  // Some key's address lies inside p: one trie query.
  bool anyUnder(const Nimo::IpGenPrefix& p) const { return trie_.longerRoutePresent(p); }
  std::size_t keys() const noexcept { return addr_.size(); }
  std::size_t targets() const noexcept { return users_.size(); }
  const Nimo::IpGenAddr* addressOf(const RouteKey& k) const {
    auto it = addr_.find(k);
    return it == addr_.end() ? nullptr : &it->second;
  }
  const Routing::TrieGen<std::uint8_t>& trie() const noexcept { return trie_; }
  // Trie, users and key map agree; "" when they do, else what is wrong.
  std::string checkForTest() const;
  std::size_t memoryBytes() const noexcept;

 private:
  struct AddrHash {
    std::size_t operator()(const Nimo::IpGenAddr& a) const noexcept { return a.hash(); }
  };
  static Nimo::IpGenPrefix hostOf(const Nimo::IpGenAddr& a) {
    return Nimo::IpGenPrefix(a, static_cast<std::uint8_t>(a.byteLength() * 8));
  }
  void compact();
  std::size_t peak_ = 0;  // addresses, since the last rebuild
  Routing::TrieGen<std::uint8_t> trie_;
  std::unordered_map<Nimo::IpGenAddr, std::uint32_t, AddrHash> users_;
  std::unordered_map<RouteKey, Nimo::IpGenAddr, RouteKeyHash> addr_;
};

}  // namespace Routing::Pim
