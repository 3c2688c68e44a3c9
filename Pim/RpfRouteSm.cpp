// RpfRouteSm. Inputs:
// - rpfConfig: onRpfConfigInfo(key) -> handleRpf / handleDelete; onRpfConfigInfo() ->
//   reconciled key by key;
// - uribBacklog, mribBacklog: onBacklog -> on the next turn handleUribNexthopBacklog /
//   handleMribNexthopBacklog (again while a drain cut short by the quantum left entries);
// - mfibConfig: onMultipathControl -> every watched route marked;
// - the review timer (inside RouteKeyReview) -> doReview.
#include "Pim/RpfRouteSm.h"

#include <algorithm>
#include <vector>

namespace Routing::Pim {

namespace {

Flicklog::Facility& rrTrace() {
  static Flicklog::Facility& f = Flicklog::facility("RpfRouteSm");
  return f;
}

constexpr std::string_view kMachine = "RpfRouteSm";
constexpr ReviewTexts kReviewTexts{kMachine, ": Starting/resuming RPF route change review",
                                   ": Suspending RPF route change review with ",
                                   ": Finished RPF route change review"};

enum class Change { none, added, updated, deleted };

Change compare(const std::optional<Routing::NexthopStatusEntry>& was,
               const std::optional<Routing::NexthopStatusEntry>& now) {
  if (was == now) return Change::none;
  if (!was) return Change::added;
  if (!now) return Change::deleted;
  return Change::updated;
}

class RpfRouteSmImpl final : public RpfRouteSm {
 public:
  using Records = std::unordered_map<Nimo::IpGenAddr, RouteSourceInfo, Routing::AddrHash>;

  RpfRouteSmImpl(Nimo::AddressFamily af, Kel::Ptr<const RpfConfig> config,
                 Kel::Ptr<RpfStatus> status,
                 Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
                 Kel::Ptr<const Kel::Clock> clock, Ulm::TimerWheel& wheel, RpfRouteTracking t)
      : RpfRouteSm(af == Nimo::AddressFamily::ipv4 ? "RpfRouteSm" : "RpfRouteSm6"),
        af_(af),
        config_(std::move(config)),
        status_(std::move(status)),
        mfibConfig_(std::move(mfibConfig)),
        clock_(std::move(clock)),
        tracking_(std::move(t)),
        deadlineClock_(Kel::Ptr<Kel::SystemClock>::make()),
        unresolved_(status_, rrTrace(), kMachine),
        review_(wheel, clock_, rrTrace(), kReviewTexts, [this](const RouteKey& k) { publish(k); }),
        resumeU_(wheel, [this] { handleUribNexthopBacklog(); }),
        resumeM_(wheel, [this] { handleMribNexthopBacklog(); }),
        configReactor_(this),
        uBacklogReactor_(this, false),
        mBacklogReactor_(this, true),
        mfibReactor_(this) {
    KEL_ASSERT(config_ && status_);
    KEL_ASSERT(af == Nimo::AddressFamily::ipv4 || af == Nimo::AddressFamily::ipv6);
    configReactor_.notifierIs(config_);
    if (tracking_.uribBacklog) uBacklogReactor_.notifierIs(tracking_.uribBacklog);
    if (tracking_.mribBacklog) mBacklogReactor_.notifierIs(tracking_.mribBacklog);
    if (mfibConfig_) mfibReactor_.notifierIs(watchable(mfibConfig_));
    // A machine started after the agent wrote routes watches and registers them all.
    for (const auto& [k, info] : config_->rpfConfigInfo())
      if (k.af() == af_) handleRpf(k);
    drainSoon(false);
    drainSoon(true);
  }

  ~RpfRouteSmImpl() override {
    for (const auto& [a, r] : records_) unregister(a);
  }

  Nimo::AddressFamily af() const noexcept override { return af_; }
  double minDelay() const noexcept override { return kReviewMinDelay; }
  double maxDelay() const noexcept override { return kReviewMaxDelay; }
  double reviewQuantum() const noexcept override { return review_.reviewQuantum(); }
  void reviewQuantumIs(double q) override { review_.reviewQuantumIs(q); }
  void reviewDeadlineClockIs(Kel::Ptr<const Kel::Clock> c) override {
    deadlineClock_ = c;
    review_.deadlineClockIs(std::move(c));
  }
  const RpfRouteTracking& tracking() const noexcept override { return tracking_; }
  const Records& routeSourceInfo() const noexcept override { return records_; }
  const std::map<Nimo::IpGenAddr, GroupRp>& groupRp() const noexcept override { return groupRp_; }
  const std::set<RouteKey>& changeRpf() const noexcept override { return review_.pending(); }
  const std::optional<RouteKey>& reviewBookmark() const noexcept override {
    return review_.bookmark();
  }
  bool reviewScheduled() const noexcept override { return review_.scheduled(); }
  void doReview() override { review_.doReview(); }
  void handleUribNexthopBacklog() override { drain(false); }
  void handleMribNexthopBacklog() override { drain(true); }
  const Stats& stats() const noexcept override { return stats_; }
  const ReviewStats& reviewStats() const noexcept override { return review_.stats(); }
  std::string checkInvariantsForTest() const override;
  std::size_t memoryBytes() const noexcept override;

 private:
  struct ConfigReactor : RpfConfig::NotifieeConst {
    explicit ConfigReactor(RpfRouteSmImpl* o) : owner(o) {}
    void onRpfConfigInfo(const RouteKey& k) override { owner->handleRpfConfigInfo(k); }
    void onRpfConfigInfo() override { owner->handleRpfConfigInfoAll(); }
    RpfRouteSmImpl* owner;
  };
  struct BacklogReactor : Routing::NexthopBacklog::NotifieeConst {
    BacklogReactor(RpfRouteSmImpl* o, bool m) : owner(o), mrib(m) {}
    void onBacklog() override { owner->drainSoon(mrib); }
    RpfRouteSmImpl* owner;
    bool mrib;
  };
  struct MfibReactor : Routing::Multicast::Fib::Config::NotifieeConst {
    explicit MfibReactor(RpfRouteSmImpl* o) : owner(o) {}
    void onMultipathControl() override { owner->markAll(); }
    RpfRouteSmImpl* owner;
  };

  void handleRpfConfigInfo(const RouteKey& k) {
    if (k.af() != af_) return;
    if (config_->rpfConfigInfo(k)) {
      handleRpf(k);
    } else {
      handleDelete(k);
    }
  }

  void handleRpfConfigInfoAll() {
    std::vector<RouteKey> gone;
    forEachWatched([&](const RouteKey& k) {
      if (!config_->rpfConfigInfo(k)) gone.push_back(k);
    });
    for (const auto* coll : {&status_->unresolvedRoute(), &status_->unresolvedWcRoute()})
      for (const auto& [k, a] : *coll)
        if (k.af() == af_ && !config_->rpfConfigInfo(k)) gone.push_back(k);
    for (const RouteKey& k : gone) handleDelete(k);
    for (const auto& [k, info] : config_->rpfConfigInfo())
      if (k.af() == af_) handleRpf(k);
  }

  template <typename Fn>
  void forEachWatched(Fn&& fn) const {
    for (const auto& [a, r] : records_)
      for (const Nimo::IpGenAddr& g : r.sgGroup) fn(RouteKey(a, g));
    for (const auto& [g, gr] : groupRp_) fn(RouteKey(g));
  }

  void handleRpf(const RouteKey& k) {
    const Rpf& rpf = config_->rpfConfigInfo(k)->rpf;
    const Nimo::IpGenAddr target = rpfTarget(k, rpf);
    const bool wasUnresolved = unresolved_.has(k);
    if (rpf.rpfIntf.empty()) {
      unwatchRibChanges(k);
      const auto& coll = k.isStarG() ? status_->unresolvedWcRoute() : status_->unresolvedRoute();
      if (wasUnresolved && coll.at(k) == target) return;
      unresolved_.add(k, target);
      return;
    }
    if (rpf.rib != RpfRib::U && rpf.rib != RpfRib::M) {
      Kel::assertionFailed("rpf.rpfRib() == U() || rpf.rpfRib() == M()", __FILE__, __LINE__);
    }
    if (wasUnresolved) unresolved_.resolved(k);
    watchRibChanges(k, rpf, target);
  }

  void handleDelete(const RouteKey& k) {
    if (unresolved_.has(k)) unresolved_.deleted(k);
    unwatchRibChanges(k);
    review_.unmark(k);
  }

  RouteSourceInfo& record(const Nimo::IpGenAddr& a, bool rp) {
    auto [it, added] = records_.try_emplace(a, a);
    if (!added) return it->second;
    FLICK_TRACE(rrTrace(), 4, "{}: {}{}", kMachine, rp ? "Watching rp " : "Watching source ", a);
    RouteSourceInfo& r = it->second;
    // The status as it stands is the baseline: only later changes publish.
    r.urib = current(tracking_.uribNexthopStatus, a);
    r.mrib = current(tracking_.mribNexthopStatus, a);
    for (const auto* cfg : {&tracking_.uribNexthopConfig, &tracking_.mribNexthopConfig}) {
      if (*cfg && !(*cfg)->nexthopIs(a)) {
        FLICK_TRACE(rrTrace(), 1, "{}: next-hop registration refused for {}", kMachine, a);
      }
    }
    return r;
  }

  void unregister(const Nimo::IpGenAddr& a) {
    for (const auto* cfg : {&tracking_.uribNexthopConfig, &tracking_.mribNexthopConfig})
      if (*cfg) (*cfg)->nexthopDel(a);
  }

  void dropIfUnused(Records::iterator it, bool rp) {
    const RouteSourceInfo& r = it->second;
    if (!r.sgGroup.empty() || !r.wcGroup.empty()) return;
    FLICK_TRACE(rrTrace(), 4, "{}: {}{}", kMachine,
                rp ? "Stop watching rp " : "Stop watching source ", r.addr);
    const Nimo::IpGenAddr a = r.addr;
    records_.erase(it);
    unregister(a);
  }

  void watchRibChanges(const RouteKey& k, const Rpf& rpf, const Nimo::IpGenAddr& target) {
    const Nimo::IpGenAddr& g = k.group();
    if (!k.isStarG()) {
      RouteSourceInfo& r = record(k.source(), false);
      r.rib = rpf.rib;
      r.sgGroup.insert(g);
      return;
    }
    auto gr = groupRp_.find(g);
    if (gr != groupRp_.end() && !(gr->second.rp() == target)) {
      FLICK_TRACE(rrTrace(), 4, "{}: RP of {} changed from {} to {}", kMachine, g, gr->second.rp(),
                  target);
      unwatchWc(g);
      gr = groupRp_.end();
    }
    if (gr == groupRp_.end()) groupRp_.emplace(g, GroupRp(g, target));
    RouteSourceInfo& r = record(target, true);
    r.rib = rpf.rib;
    r.wcGroup.insert(g);
  }

  void unwatchWc(const Nimo::IpGenAddr& g) {
    auto gr = groupRp_.find(g);
    if (gr == groupRp_.end()) return;
    auto it = records_.find(gr->second.rp());
    groupRp_.erase(gr);
    if (it == records_.end()) return;
    it->second.wcGroup.erase(g);
    dropIfUnused(it, true);
  }

  void unwatchRibChanges(const RouteKey& k) {
    if (k.isStarG()) {
      unwatchWc(k.group());
      return;
    }
    auto it = records_.find(k.source());
    if (it == records_.end()) return;
    it->second.sgGroup.erase(k.group());
    dropIfUnused(it, false);
  }

  static std::optional<Routing::NexthopStatusEntry> current(
      const Kel::Ptr<const Routing::NexthopVrfStatus>& st, const Nimo::IpGenAddr& a) {
    if (!st) return std::nullopt;
    Routing::NexthopStatusEntry e;
    // A slot being rewritten is read again; its writer's commit notifies once more anyway.
    for (int i = 0; i < 4; ++i) {
      switch (st->entry(a, e)) {
        case ::Drobe::FindStatus::found:
          return e;
        case ::Drobe::FindStatus::absent:
          return std::nullopt;
        case ::Drobe::FindStatus::changing:
          break;
      }
    }
    return std::nullopt;
  }

  // A notice drains on the next turn, not inside it: the routing agent's synced mark and its
  // entries are separate tables, and the mark may be read before the entries it covers.
  void drainSoon(bool mrib) {
    Ulm::Timer& t = mrib ? resumeM_ : resumeU_;
    if (!t.armed()) t.delayIs(0);
  }

  // Takes entries off one backlog until it is empty or the quantum is spent; the rest waits
  // for the next turn.
  void drain(bool mrib) {
    const Kel::Ptr<Routing::NexthopBacklog>& backlog =
        mrib ? tracking_.mribBacklog : tracking_.uribBacklog;
    if (!backlog) return;
    const Kel::Time start = deadlineClock_->now();
    const Kel::Time deadline = start + review_.reviewQuantum();
    std::uint64_t done = 0;
    while (auto a = backlog->backlogFront()) {
      if (done > 0 && deadlineClock_->now() >= deadline) break;
      backlog->backlogDel(*a);
      ++done;
      if (mrib) {
        mribChange(*a);
      } else {
        uribChange(*a);
      }
    }
    // The dependents of every address taken, marked in one sorted batch.
    review_.mark(batch_);
    batch_.clear();
    if (done == 0) return;
    ++stats_.drainRuns;
    stats_.backlogEntries += done;
    stats_.longestDrain = std::max(stats_.longestDrain, deadlineClock_->now() - start);
    if (backlog->size() != 0) drainSoon(mrib);
  }

  RouteSourceInfo& recordOf(const Nimo::IpGenAddr& s) {
    auto it = records_.find(s);
    // The backlog holds only registered addresses, and unregistering takes an address out.
    if (it == records_.end()) Kel::assertionFailed("routeSourceInfoHas( s )", __FILE__, __LINE__);
    return it->second;
  }

  void uribChange(const Nimo::IpGenAddr& s) {
    RouteSourceInfo& r = recordOf(s);
    auto now = current(tracking_.uribNexthopStatus, s);
    const Change c = compare(r.urib, now);
    r.urib = std::move(now);
    if (c == Change::none) {
      ++stats_.equal;
      return;
    }
    if (r.rib == RpfRib::M) {
      ++stats_.ignored;
      FLICK_TRACE(rrTrace(), 4, "{}: Ignoring Urib route change for {}", kMachine, s);
      return;
    }
    FLICK_TRACE(rrTrace(), 4, "{}:{}{}", kMachine,
                c == Change::added     ? " Urib route added for "
                : c == Change::updated ? " Urib route updated for "
                                       : " Urib route deleted, no route available for ",
                s);
    markDependents(r);
  }

  void mribChange(const Nimo::IpGenAddr& s) {
    RouteSourceInfo& r = recordOf(s);
    auto now = current(tracking_.mribNexthopStatus, s);
    const Change c = compare(r.mrib, now);
    r.mrib = std::move(now);
    if (c == Change::none) {
      ++stats_.equal;
      return;
    }
    if (c != Change::deleted) {
      FLICK_TRACE(rrTrace(), 4, "{}:{}{}", kMachine,
                  c == Change::added ? " Mrib route added for " : " Mrib route updated for ", s);
      r.rib = RpfRib::M;
    } else {
      // Read afresh: the unicast backlog may not have been drained yet.
      r.rib = RpfRib::U;
      FLICK_TRACE(rrTrace(), 4, "{}:{}{}", kMachine,
                  current(tracking_.uribNexthopStatus, s)
                      ? " Mrib route deleted, Urib route available for "
                      : " Mrib route deleted, no route available for ",
                  s);
    }
    markDependents(r);
  }

  // Into the batch that the drain marks when it ends.
  void mark(const RouteKey& k) {
    ++stats_.marked;
    FLICK_TRACE(rrTrace(), 8, "{}: {} SG to re-eval ", kMachine, fmt::streamed(k));
    batch_.push_back(k);
  }

  void markDependents(const RouteSourceInfo& r) {
    for (const Nimo::IpGenAddr& g : r.sgGroup) mark(RouteKey(r.addr, g));
    for (const Nimo::IpGenAddr& g : r.wcGroup) mark(RouteKey(g));
  }

  void markAll() {
    FLICK_TRACE(rrTrace(), 4, "{}: multipath control changed, marking every route", kMachine);
    forEachWatched([&](const RouteKey& k) { mark(k); });
    review_.mark(batch_);
    batch_.clear();
  }

  // A deleted key leaves the pending set with its record (handleDelete), so every key the
  // review hands over still has one: no look-up in the config here.
  void publish(const RouteKey& k) {
    publishRpfChange(*status_, k);
    ++stats_.published;
  }

  Nimo::AddressFamily af_;
  Kel::Ptr<const RpfConfig> config_;
  Kel::Ptr<RpfStatus> status_;
  Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig_;
  Kel::Ptr<const Kel::Clock> clock_;
  RpfRouteTracking tracking_;
  Kel::Ptr<const Kel::Clock> deadlineClock_;
  Records records_;
  std::map<Nimo::IpGenAddr, GroupRp> groupRp_;
  Stats stats_;
  std::vector<RouteKey> batch_;
  UnresolvedSets unresolved_;
  RouteKeyReview review_;
  Ulm::Timer resumeU_;
  Ulm::Timer resumeM_;
  // Reactors last: they detach first when the machine goes.
  ConfigReactor configReactor_;
  BacklogReactor uBacklogReactor_;
  BacklogReactor mBacklogReactor_;
  MfibReactor mfibReactor_;
};

std::string RpfRouteSmImpl::checkInvariantsForTest() const {
  auto str = [](const auto& v) { return fmt::format("{}", fmt::streamed(v)); };
  std::size_t watched = 0;
  for (const auto& [k, info] : config_->rpfConfigInfo()) {
    if (k.af() != af_) continue;
    const bool empty = info.rpf.rpfIntf.empty();
    if (empty != unresolved_.has(k)) return "unresolved set disagrees with the Rpf: " + str(k);
    if (empty) continue;
    ++watched;
    const Nimo::IpGenAddr a = k.isStarG() ? rpfTarget(k, info.rpf) : k.source();
    auto it = records_.find(a);
    if (it == records_.end()) return "watched key without a record: " + str(k);
    const auto& set = k.isStarG() ? it->second.wcGroup : it->second.sgGroup;
    if (!set.count(k.group())) return "key missing from its record: " + str(k);
    if (k.isStarG()) {
      auto gr = groupRp_.find(k.group());
      if (gr == groupRp_.end() || !(gr->second.rp() == a)) return "groupRp wrong for " + str(k);
    }
  }
  std::size_t inRecords = groupRp_.size();
  for (const auto& [a, r] : records_) {
    if (r.sgGroup.empty() && r.wcGroup.empty()) return "record without users: " + a.str();
    inRecords += r.sgGroup.size();
    for (const auto* cfg : {&tracking_.uribNexthopConfig, &tracking_.mribNexthopConfig})
      if (*cfg && !(*cfg)->nexthop(a)) return "record not registered: " + a.str();
  }
  std::size_t wc = 0;
  for (const auto& [a, r] : records_) wc += r.wcGroup.size();
  if (wc != groupRp_.size()) return "wcGroup sets and groupRp differ";
  if (inRecords != watched) return "records hold keys the config does not";
  for (const RouteKey& k : review_.pending())
    if (!config_->rpfConfigInfo(k)) return "pending key without a record: " + str(k);
  for (const auto* cfg : {&tracking_.uribNexthopConfig, &tracking_.mribNexthopConfig}) {
    if (!*cfg) continue;
    std::string extra;
    (*cfg)->forEach([&](const Nimo::IpGenAddr& a) {
      if (extra.empty() && !records_.count(a)) extra = a.str();
    });
    if (!extra.empty()) return "registered without a record: " + extra;
  }
  return "";
}

std::size_t RpfRouteSmImpl::memoryBytes() const noexcept {
  // Tree nodes: the value, three pointers and a colour word; hash nodes: the value, a next
  // pointer and the cached hash; buckets one pointer each.
  constexpr std::size_t kTree = 4 * sizeof(void*);
  constexpr std::size_t kHash = 2 * sizeof(void*);
  std::size_t n = records_.bucket_count() * sizeof(void*);
  for (const auto& [a, r] : records_) {
    n += sizeof(Nimo::IpGenAddr) + sizeof(RouteSourceInfo) + kHash;
    n += (r.sgGroup.size() + r.wcGroup.size()) * (sizeof(Nimo::IpGenAddr) + kTree);
  }
  n += groupRp_.size() * (sizeof(Nimo::IpGenAddr) + sizeof(GroupRp) + kTree);
  n += review_.pending().size() * (sizeof(RouteKey) + kTree);
  return n;
}

}  // namespace

RpfRouteTracking rpfRouteTracking(Kel::Ptr<Routing::NexthopVrfConfig> uribConfig,
                                  Kel::Ptr<Routing::NexthopVrfConfig> mribConfig,
                                  Kel::Ptr<Routing::NexthopVrfStatus> uribStatus,
                                  Kel::Ptr<Routing::NexthopVrfStatus> mribStatus) {
  auto ub = Routing::NexthopBacklog::create(uribStatus, uribConfig);
  auto mb = Routing::NexthopBacklog::create(mribStatus, mribConfig);
  return {std::move(uribConfig), std::move(mribConfig), std::move(uribStatus),
          std::move(mribStatus), std::move(ub),         std::move(mb)};
}

Kel::Ptr<RpfRouteSm> rpfRouteSmFactory(Nimo::AddressFamily af, Kel::Ptr<const RpfConfig> rpfConfig,
                                       Kel::Ptr<RpfStatus> status,
                                       Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
                                       Kel::Ptr<const Kel::Clock> clock, Ulm::TimerWheel& wheel,
                                       RpfRouteTracking tracking) {
  return Kel::Ptr<RpfRouteSm>(new RpfRouteSmImpl(af, std::move(rpfConfig), std::move(status),
                                                 std::move(mfibConfig), std::move(clock), wheel,
                                                 std::move(tracking)));
}

}  // namespace Routing::Pim
