// Routing::Shadow::Status: a reader's applied copy of one RIB's route table, kept in a
// TrieGen whose payload is the route record (so the trie and the shadow are one structure and
// always in step). It follows the shared table's change notices:
// - onKey: the route is read and applied (added, updated or deleted);
// - the first mount: the whole table is loaded quietly and announced as one onChangedAll();
// - a later whole-collection notice (lapped change ring, grown table, restarted writer):
//   resync by difference, notifying only the prefixes whose route differs;
// - the writer going away: the shadow keeps its routes until a writer mounts again, then
//   resyncs by difference (a restarted writer with one route changed costs one notice).
//   A writer that has mounted but not committed yet is still filling its table (ribd
//   dumping the kernel): the resync waits for its first commit, polled every 0.05 s for at
//   most 5 s, because resyncing against the empty table would delete every route and add
//   it back a moment later, and every route resting on one would be recomputed twice.
// Load and resync run in slices of at most sliceSeconds() of work, resumed from the loop's
// timer wheel, so that the agent's loop keeps running; notices arriving in between are
// applied at once.
//
// The shared table may be ahead of the trie (a notice not yet handled): the RPF lookup
// copes (it walks to the parent prefix when a matched route has left the table).
//
// Threading: event-loop thread only; no locks.
//
// Usage:
//   auto urib = Routing::Shadow::Status::create(loop, "routing/rib/default", "urib");
//   struct W : Routing::Shadow::Status::Trie::NotifieeConst { ... onChangedRoute ... };
//   W w; w.notifierIs(urib->trie());
//   const auto* e = urib->trie().longestMatch(Nimo::IpGenAddr("10.1.2.3"));
#pragma once

#include <chrono>

#include "Pim/platform/Drobe.h"
#include "Pim/platform/Ulm.h"
#include "Pim/platform/routing/Fib.h"
#include "Pim/platform/routing/Trie.h"

namespace Routing::Shadow {

template <Nimo::AddressFamily F>
class StatusGen : public Kel::Entity {
 public:
  using Route = RouteGen<F>;
  using Trie = TrieGen<Route>;
  using Table = Drobe::Reader<Nimo::IpGenPrefix, Route>;

  static Kel::Ptr<StatusGen> create(Ulm::EventLoop& loop, std::string_view path,
                                    std::string_view collection) {
    return Kel::Ptr<StatusGen>(new StatusGen(loop, path, collection));
  }
  ~StatusGen() override { reactor_.notifierIs(nullptr); }

  // Notifiees attach to the trie (it is reference counted: notifierIs(shadow->trie())).
  const Kel::Ptr<Trie>& trie() const noexcept { return trie_; }
  const Kel::Ptr<Table>& table() const noexcept { return table_; }
  // The first full load has completed.
  bool synced() const noexcept { return synced_; }
  bool resyncing() const noexcept { return phase_ != Phase::idle; }
  std::uint64_t resyncs() const noexcept { return resyncs_; }
  // The longest single slice of load or resync work so far, in seconds.
  double longestSlice() const noexcept { return longestSlice_; }
  double sliceSeconds() const noexcept { return sliceSeconds_; }
  // Work per slice: time, and (for tests) a route count.
  void sliceIs(double seconds, std::uint32_t maxRoutes = ~0u) {
    sliceSeconds_ = seconds;
    sliceRoutes_ = maxRoutes;
  }

 private:
  enum class Phase { idle, awaitCommit, scan, sweep };
  static constexpr double kCommitPoll = 0.05;
  static constexpr std::uint32_t kCommitPolls = 100;
  struct Reactor : Table::NotifieeConst {
    StatusGen* owner = nullptr;
    void onKey(const Nimo::IpGenPrefix& k) override { owner->handleKey(k); }
    void onCollection() override { owner->handleCollection(); }
    void onMountStatus(bool m) override { owner->handleMountStatus(m); }
  };

  StatusGen(Ulm::EventLoop& loop, std::string_view path, std::string_view collection)
      : Kel::Entity(std::string(collection)),
        trie_(Kel::Ptr<Trie>::make(std::string(collection), F)),
        table_(Table::create(loop, path, collection)),
        timer_(loop.timers(), [this] { runSlice(); }) {
    trie_->quietIs(true);
    reactor_.owner = this;
    reactor_.notifierIs(table_);
  }

  void apply(const Nimo::IpGenPrefix& k) {
    Route r;
    switch (table_->findStatus(k, r)) {
      case Drobe::FindStatus::found: {
        std::uint32_t id = 0;
        trie_->insert(k, r, &id);
        mark(id);
        break;
      }
      case Drobe::FindStatus::absent:
        trie_->remove(k);
        break;
      case Drobe::FindStatus::changing:
        break;  // its commit's notice follows
    }
  }
  void mark(std::uint32_t id) {
    if (id >= seen_.size()) seen_.resize(std::max<std::size_t>(id + 1, seen_.size() * 2), 0);
    seen_[id] = epoch_;
  }
  void handleKey(const Nimo::IpGenPrefix& k) {
    if (phase_ == Phase::awaitCommit) return startResync();  // the first commit's notice
    if (table_->mounted()) apply(k);
  }
  void handleMountStatus(bool m) { mounted_ = m; }
  void handleCollection() {
    // While no writer is mounted the table reads empty: keep the shadow until one returns.
    if (!mounted_) return;
    if (synced_ && table_->stats().commits == 0) {
      if (phase_ != Phase::awaitCommit) polls_ = 0;
      phase_ = Phase::awaitCommit;
      timer_.delayIs(kCommitPoll);
      return;
    }
    startResync();
  }
  void startResync() {
    ++epoch_;
    ++resyncs_;
    phase_ = Phase::scan;
    scan_ = table_->begin();
    sweep_ = 0;
    runSlice();
  }
  void runSlice() {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    std::uint32_t done = 0;
    auto spent = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    auto full = [&] {
      return done >= sliceRoutes_ || ((done & 255) == 0 && spent() >= sliceSeconds_);
    };
    if (phase_ == Phase::awaitCommit) {
      if (!mounted_) {  // gone again: the next mount starts over
        phase_ = Phase::idle;
        return;
      }
      if (table_->stats().commits == 0 && ++polls_ < kCommitPolls)
        return timer_.delayIs(kCommitPoll);
      return startResync();
    }
    while (phase_ == Phase::scan) {
      if (scan_ == table_->end()) {
        phase_ = Phase::sweep;
        break;
      }
      const Route r = *scan_;
      ++scan_;
      std::uint32_t id = 0;
      trie_->insert(r.prefix, r, &id);
      mark(id);
      if (++done && full()) return yield(spent());
    }
    while (phase_ == Phase::sweep) {
      if (sweep_ >= trie_->entryIdEnd()) {
        phase_ = Phase::idle;
        break;
      }
      const std::uint32_t id = sweep_++;
      const auto* e = trie_->entry(id);
      if (!e || (id < seen_.size() && seen_[id] == epoch_)) {
        if (++done && full()) return yield(spent());
        continue;
      }
      const Nimo::IpGenPrefix k = e->prefix;
      apply(k);
      if (++done && full()) return yield(spent());
    }
    longestSlice_ = std::max(longestSlice_, spent());
    if (!synced_) {
      synced_ = true;
      trie_->quietIs(false);  // one whole-table notice
    }
  }
  void yield(double spent) {
    longestSlice_ = std::max(longestSlice_, spent);
    timer_.delayIs(0);
  }

  Kel::Ptr<Trie> trie_;
  Kel::Ptr<Table> table_;
  Reactor reactor_;
  Ulm::Timer timer_;
  bool mounted_ = false;
  bool synced_ = false;
  Phase phase_ = Phase::idle;
  typename Table::const_iterator scan_;
  std::uint32_t sweep_ = 0;
  std::uint32_t polls_ = 0;  // first-commit polls of a remounted writer
  std::vector<std::uint64_t> seen_;
  std::uint64_t epoch_ = 0;
  std::uint64_t resyncs_ = 0;
  double longestSlice_ = 0;
  // Half the loop's 0.1 s budget: the clock is read every 256 routes and the loop has other
  // work in the same turn.
  double sliceSeconds_ = 0.05;
  std::uint32_t sliceRoutes_ = ~0u;
};

using Status = StatusGen<Nimo::AddressFamily::ipv4>;

}  // namespace Routing::Shadow

namespace Routing6::Shadow {
using Status = Routing::Shadow::StatusGen<Nimo::AddressFamily::ipv6>;
}  // namespace Routing6::Shadow
