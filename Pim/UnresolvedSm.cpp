// UnresolvedSm. Inputs:
// - status (RpfStatus): onUnresolvedRoute(key) / onUnresolvedWcRoute(key) ->
//   handleUnresolvedRoute; the immediate whole-collection handlers rebuild the index;
// - uribTrie, mribTrie: onChangedRoute -> handleRibChange; onChangedAll -> a full review;
// - the review timer -> doReview.
#include "Pim/UnresolvedSm.h"

namespace Routing::Pim {

namespace {

Flicklog::Facility& unresolvedTrace() {
  static Flicklog::Facility& f = Flicklog::facility("UnresolvedSm");
  return f;
}

template <Nimo::AddressFamily F>
class UnresolvedSmGen final : public UnresolvedSm {
 public:
  using RibTrie = Routing::TrieGen<Routing::RouteGen<F>>;

  UnresolvedSmGen(Kel::Ptr<RpfStatus> status, Kel::Ptr<const RibTrie> uribTrie,
                  Kel::Ptr<const RibTrie> mribTrie, Kel::Ptr<const Kel::Clock> clock,
                  Ulm::TimerWheel& wheel)
      : UnresolvedSm(F == Nimo::AddressFamily::ipv4 ? "UnresolvedSm" : "UnresolvedSm6"),
        status_(std::move(status)),
        uribTrie_(std::move(uribTrie)),
        mribTrie_(std::move(mribTrie)),
        clock_(std::move(clock)),
        index_("UnresolvedTrie", F),
        deadlineClock_(Kel::Ptr<Kel::SystemClock>::make()),
        timer_(wheel, clock_, kReviewFillInterval, kReviewCredits, kReviewMinDelay, kReviewMaxDelay,
               [this] { doReview(); }),
        statusReactor_(this),
        uribReactor_(this),
        mribReactor_(this) {
    KEL_ASSERT(status_);
    handleInitialized();
  }

  Nimo::AddressFamily af() const noexcept override { return F; }
  bool reviewAll() const noexcept override { return reviewAll_; }
  bool scheduleReviewAll() const noexcept override { return scheduleReviewAll_; }
  bool pendingReviewAll() const noexcept override { return pendingReviewAll_; }
  std::uint32_t numPendingChanges() const noexcept override { return numPendingChanges_; }
  const Bookmark& bookmark() const noexcept override { return bookmark_; }
  double reviewQuantum() const noexcept override { return quantum_; }
  void reviewQuantumIs(double q) override { quantum_ = q; }
  void reviewDeadlineClockIs(Kel::Ptr<const Kel::Clock> c) override {
    deadlineClock_ = std::move(c);
  }
  bool reviewScheduled() const noexcept override { return timer_.scheduled(); }
  const TargetIndex& index() const noexcept override { return index_; }
  const Stats& stats() const noexcept override { return stats_; }
  void doReview() override;
  std::string checkInvariantsForTest(bool quiescent) const override;

 private:
  struct StatusReactor : RpfStatus::NotifieeConst {
    explicit StatusReactor(UnresolvedSmGen* o) : owner(o) {}
    void onUnresolvedRoute(const RouteKey& k) override { owner->handleUnresolvedRoute(k); }
    void onUnresolvedWcRoute(const RouteKey& k) override { owner->handleUnresolvedRoute(k); }
    void onUnresolvedRouteImmediate() override { owner->rebuildIndex(); }
    void onUnresolvedWcRouteImmediate() override { owner->rebuildIndex(); }
    UnresolvedSmGen* owner;
  };
  struct RibReactor : RibTrie::NotifieeConst {
    explicit RibReactor(UnresolvedSmGen* o) : owner(o) {}
    void onChangedRoute(const Nimo::IpGenPrefix& p, Routing::TrieChange) override {
      owner->handleRibChange(p);
    }
    void onChangedAll() override { owner->handleRibChangeAll(); }
    UnresolvedSmGen* owner;
  };

  // The smallest key of the family: (*, zero group). Keys order by family first, so one
  // family's keys are one run of each ordered collection.
  static RouteKey firstKey() {
    static const std::uint8_t zero[16] = {};
    return RouteKey(Nimo::IpGenAddr(F, zero));
  }
  static bool hasOwn(const RpfStatus::AddrMap& m) {
    auto it = m.lower_bound(firstKey());
    return it != m.end() && it->first.af() == F;
  }
  const RpfStatus::AddrMap& collection(bool wc) const {
    return wc ? status_->unresolvedWcRoute() : status_->unresolvedRoute();
  }

  void handleInitialized() {
    statusReactor_.notifierIs(status_);
    if (uribTrie_)
      uribReactor_.notifierIs(Kel::Ptr<RibTrie>(const_cast<RibTrie*>(uribTrie_.ptr())));
    if (mribTrie_)
      mribReactor_.notifierIs(Kel::Ptr<RibTrie>(const_cast<RibTrie*>(mribTrie_.ptr())));
    rebuildIndex();
    // RIB changes made before the machine existed were never seen: one full review.
    startReview();
  }

  void rebuildIndex() {
    index_.clear();
    for (bool wc : {true, false}) {
      const auto& m = collection(wc);
      for (auto it = m.lower_bound(firstKey()); it != m.end() && it->first.af() == F; ++it)
        index_.keyIs(it->first, it->second);
    }
  }

  void handleUnresolvedRoute(const RouteKey& k) {
    if (k.af() != F) return;
    const auto& m = collection(k.isStarG());
    auto it = m.find(k);
    if (it == m.end()) {
      index_.keyDel(k);
    } else {
      index_.keyIs(k, it->second);
    }
  }

  void handleRibChange(const Nimo::IpGenPrefix& p) {
    ++stats_.ribChanges;
    if (!index_.anyUnder(p)) return;
    ++stats_.reviewsAsked;
    scheduleReviewAll_ = true;
    doUpdateReviewTimer();
  }

  void handleRibChangeAll() {
    scheduleReviewAll_ = true;
    doUpdateReviewTimer();
  }

  void doUpdateReviewTimer() {
    auto& tr = unresolvedTrace();
    if (reviewAll_) {
      // A review only scheduled covers the change; one already walking may have passed
      // the routes it concerns.
      if (started_) {
        ++numPendingChanges_;
        pendingReviewAll_ = true;
        FLICK_TRACE(tr, 8, "UnresolvedSm: doUpdateReviewTimer(), review pending");
      }
      return;
    }
    startReview();
  }

  void startReview() {
    auto& tr = unresolvedTrace();
    const bool sg = hasOwn(status_->unresolvedRoute());
    const bool wc = hasOwn(status_->unresolvedWcRoute());
    if (!sg) FLICK_TRACE(tr, 8, "UnresolvedSm: doUpdateReviewTimer(), no unresolved routes ");
    if (!wc) FLICK_TRACE(tr, 8, "UnresolvedSm: doUpdateReviewTimer(), no (*,G) unresolved routes");
    scheduleReviewAll_ = false;
    if (!sg && !wc) return;
    reviewAll_ = true;
    started_ = false;
    bookmark_ = Bookmark{};
    timer_.requestImmediate();
  }

  void publish(const RouteKey& k) {
    ++stats_.published;
    publishRpfChange(*status_, k);
  }

  Kel::Ptr<RpfStatus> status_;
  Kel::Ptr<const RibTrie> uribTrie_;
  Kel::Ptr<const RibTrie> mribTrie_;
  Kel::Ptr<const Kel::Clock> clock_;
  TargetIndex index_;
  bool reviewAll_ = false;
  bool scheduleReviewAll_ = false;
  bool pendingReviewAll_ = false;
  bool started_ = false;  // the running review's first slice has begun
  std::uint32_t numPendingChanges_ = 0;
  Bookmark bookmark_;
  double quantum_ = kReviewQuantum;
  Kel::Ptr<const Kel::Clock> deadlineClock_;
  Stats stats_;
  Ulm::ReviewTimer timer_;
  StatusReactor statusReactor_;
  RibReactor uribReactor_;
  RibReactor mribReactor_;
};

template <Nimo::AddressFamily F>
void UnresolvedSmGen<F>::doReview() {
  auto& tr = unresolvedTrace();
  FLICK_TRACE(tr, 4, "UnresolvedSm: Starting/resuming review");
  if (!reviewAll_) return;
  started_ = true;
  ++stats_.slices;
  const Kel::Time start = deadlineClock_->now();
  const Kel::Time deadline = start + quantum_;
  std::uint64_t done = 0;
  for (const bool wc : {true, false}) {
    if (wc && !bookmark_.wcWalk) continue;
    const auto& m = collection(wc);
    auto it = m.lower_bound(bookmark_.key ? *bookmark_.key : firstKey());
    while (it != m.end() && it->first.af() == F) {
      if (done > 0) {
        const Kel::Time now = deadlineClock_->now();
        if (now >= deadline) {
          stats_.longestSlice = std::max(stats_.longestSlice, now - start);
          bookmark_ = Bookmark{wc, it->first};
          FLICK_TRACE(tr, 4, "UnresolvedSm: Suspending {} route review with {} published",
                      wc ? "(*,G)" : "(S,G)", done);
          timer_.request();
          return;
        }
      }
      const RouteKey k = it->first;
      ++done;
      FLICK_TRACE(tr, 8, "UnresolvedSm: {}: Checking unresolved {} route {}", done,
                  wc ? "(*,G)" : "(S,G)", fmt::streamed(k));
      publish(k);
      // The agent may resolve routes from its handler: look the next key up afresh.
      it = m.upper_bound(k);
    }
    bookmark_ = Bookmark{false, std::nullopt};
  }
  stats_.longestSlice = std::max(stats_.longestSlice, deadlineClock_->now() - start);
  bookmark_ = Bookmark{};
  if (numPendingChanges_ != 0 || pendingReviewAll_) {
    numPendingChanges_ = 0;
    pendingReviewAll_ = false;
    started_ = false;
    ++stats_.restarts;
    FLICK_TRACE(tr, 4, "UnresolvedSm: Restarting route review ");
    timer_.requestImmediate();
    return;
  }
  reviewAll_ = false;
  started_ = false;
  ++stats_.reviewsFinished;
  FLICK_TRACE(tr, 4, "UnresolvedSm: Finished route review");
}

template <Nimo::AddressFamily F>
std::string UnresolvedSmGen<F>::checkInvariantsForTest(bool quiescent) const {
  if (std::string e = index_.checkForTest(); !e.empty()) return e;
  std::size_t indexed = 0;
  for (bool wc : {true, false}) {
    const auto& m = collection(wc);
    for (auto it = m.lower_bound(firstKey()); it != m.end() && it->first.af() == F; ++it) {
      if (!it->second.isSet() || it->second.af() != F) continue;
      ++indexed;
      const Nimo::IpGenAddr* a = index_.addressOf(it->first);
      if (!a || !(*a == it->second))
        return fmt::format("unresolved route not indexed by its target: {}",
                           fmt::streamed(it->first));
    }
  }
  if (indexed != index_.keys()) return "index holds routes that are not unresolved";
  if (quiescent && (reviewAll_ || timer_.scheduled())) return "review pending at quiescence";
  return "";
}

template <Nimo::AddressFamily F, typename Trie>
Kel::Ptr<UnresolvedSm> make(Kel::Ptr<RpfStatus> status, Kel::Ptr<const Trie> uribTrie,
                            Kel::Ptr<const Trie> mribTrie, Kel::Ptr<const Kel::Clock> clock,
                            Ulm::TimerWheel& wheel) {
  return Kel::Ptr<UnresolvedSm>(new UnresolvedSmGen<F>(
      std::move(status), std::move(uribTrie), std::move(mribTrie), std::move(clock), wheel));
}

}  // namespace

Kel::Ptr<UnresolvedSm> unresolvedSmFactory(Kel::Ptr<RpfStatus> status,
                                           Kel::Ptr<const Routing::Shadow::Status::Trie> uribTrie,
                                           Kel::Ptr<const Routing::Shadow::Status::Trie> mribTrie,
                                           Kel::Ptr<const Kel::Clock> clock,
                                           Ulm::TimerWheel& wheel) {
  return make<Nimo::AddressFamily::ipv4>(status, uribTrie, mribTrie, clock, wheel);
}

Kel::Ptr<UnresolvedSm> unresolvedSmFactory(Kel::Ptr<RpfStatus> status,
                                           Kel::Ptr<const Routing6::Shadow::Status::Trie> uribTrie,
                                           Kel::Ptr<const Routing6::Shadow::Status::Trie> mribTrie,
                                           Kel::Ptr<const Kel::Clock> clock,
                                           Ulm::TimerWheel& wheel) {
  return make<Nimo::AddressFamily::ipv6>(status, uribTrie, mribTrie, clock, wheel);
}

}  // namespace Routing::Pim
