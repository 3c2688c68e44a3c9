// RpfSm. Inputs:
// - config (RpfConfig): onRpfConfigInfo(key) -> handleRpfConfigInfo; onRpfConfigInfo() ->
//   reconciled key by key;
// - uribTrie, mribTrie: onChangedRoute -> routeAdded / routeUpdated / routeDeleted;
//   onChangedAll -> every linked route marked;
// - mfibConfig: onMultipathControl -> every linked route marked;
// - the review timer (inside RouteKeyReview) -> doReview.
#include "Pim/RpfSm.h"

#include <unordered_map>

namespace Routing::Pim {

namespace {

Flicklog::Facility& rpfSmTrace() {
  static Flicklog::Facility& f = Flicklog::facility("RpfSm");
  return f;
}

constexpr std::string_view kBadPrefix = "Prefix::validAsPrefix != true not allowed";

struct PrefixHash {
  std::size_t operator()(const Nimo::IpGenPrefix& p) const noexcept { return p.hash(); }
};

// What a key was linked to, or that it is unresolved.
struct Link {
  Nimo::IpGenPrefix prefix;
  Nimo::IpGenAddr target;
  RpfRib rib = RpfRib::none;
  bool unresolved = false;
};
using Links = std::unordered_map<RouteKey, Link, RouteKeyHash>;

// One user of a linked prefix: its record in the key's links (whose nodes never move), so
// that a user costs a pointer beside the record rather than a second copy of key and
// target.
using User = const Links::value_type*;
// A position among users: target, then key.
struct UserAt {
  Nimo::IpGenAddr target;
  RouteKey key;
};
// Users ordered by target, so that the users under a more specific prefix are one range.
struct ByTarget {
  using is_transparent = void;
  static const Nimo::IpGenAddr& target(User u) noexcept { return u->second.target; }
  static const Nimo::IpGenAddr& target(const UserAt& a) noexcept { return a.target; }
  static const RouteKey& key(User u) noexcept { return u->first; }
  static const RouteKey& key(const UserAt& a) noexcept { return a.key; }
  template <typename A, typename B>
  bool operator()(const A& a, const B& b) const noexcept {
    if (auto c = target(a) <=> target(b); c != 0) return c < 0;
    return key(a) < key(b);
  }
};

template <Nimo::AddressFamily F>
class RpfSmGen final : public RpfSm {
 public:
  using RibTrie = Routing::TrieGen<Routing::RouteGen<F>>;

  RpfSmGen(Kel::Ptr<const RpfConfig> config, Kel::Ptr<RpfStatus> status,
           Kel::Ptr<const RibTrie> uribTrie, Kel::Ptr<const RibTrie> mribTrie,
           Kel::Ptr<PimRpfTable> pimRpfTable, Kel::Ptr<RpHashStatus> rpHashStatus,
           Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
           Kel::Ptr<const Kel::Clock> clock, Ulm::TimerWheel& wheel)
      : RpfSm(F == Nimo::AddressFamily::ipv4 ? "RpfSm" : "RpfSm6"),
        config_(std::move(config)),
        status_(std::move(status)),
        uribTrie_(std::move(uribTrie)),
        mribTrie_(std::move(mribTrie)),
        pimRpfTable_(std::move(pimRpfTable)),
        rpHashStatus_(std::move(rpHashStatus)),
        mfibConfig_(std::move(mfibConfig)),
        clock_(std::move(clock)),
        trie_("RpfTrie", F),
        unresolved_(status_, rpfSmTrace(), "RpfSm"),
        review_(wheel, clock_, rpfSmTrace(), kRpfSmReviewTexts,
                [this](const RouteKey& k) { publish(k); }),
        configReactor_(this),
        uribReactor_(this, RpfRib::U),
        mribReactor_(this, RpfRib::M),
        mfibReactor_(this) {
    KEL_ASSERT(config_ && status_);
    handleInitialized();
  }

  Nimo::AddressFamily af() const noexcept override { return F; }
  const std::set<RouteKey>& changeRpf() const noexcept override { return review_.pending(); }
  const std::optional<RouteKey>& reviewBookmark() const noexcept override {
    return review_.bookmark();
  }
  double reviewQuantum() const noexcept override { return review_.reviewQuantum(); }
  void reviewQuantumIs(double q) override { review_.reviewQuantumIs(q); }
  void reviewDeadlineClockIs(Kel::Ptr<const Kel::Clock> c) override {
    review_.deadlineClockIs(std::move(c));
  }
  bool reviewScheduled() const noexcept override { return review_.scheduled(); }
  void doReview() override { review_.doReview(); }
  std::size_t trieSize() const noexcept override { return trie_.size(); }
  std::size_t userCount(const Nimo::IpGenPrefix& p) const override {
    auto it = entries_.find(p);
    return it == entries_.end() ? 0 : it->second.user.size();
  }
  const Stats& stats() const noexcept override { return stats_; }
  const ReviewStats& reviewStats() const noexcept override { return review_.stats(); }
  std::string checkInvariantsForTest(bool quiescent) const override;

 private:
  struct TrieEntryInfo {
    RpfRib rib = RpfRib::none;
    std::set<User, ByTarget> user;
  };

  struct ConfigReactor : RpfConfig::NotifieeConst {
    explicit ConfigReactor(RpfSmGen* o) : owner(o) {}
    void onRpfConfigInfo(const RouteKey& k) override { owner->handleRpfConfigInfo(k); }
    void onRpfConfigInfo() override { owner->handleRpfConfigInfoAll(); }
    RpfSmGen* owner;
  };
  struct RibReactor : RibTrie::NotifieeConst {
    RibReactor(RpfSmGen* o, RpfRib r) : owner(o), rib(r) {}
    void onChangedRoute(const Nimo::IpGenPrefix& p, Routing::TrieChange c) override {
      owner->handleRibChange(p, c, rib);
    }
    void onChangedAll() override { owner->markAllLinked(); }
    RpfSmGen* owner;
    RpfRib rib;
  };
  struct MfibReactor : Routing::Multicast::Fib::Config::NotifieeConst {
    explicit MfibReactor(RpfSmGen* o) : owner(o) {}
    void onMultipathControl() override { owner->handleMultipathControl(); }
    RpfSmGen* owner;
  };

  void handleInitialized() {
    configReactor_.notifierIs(config_);
    if (uribTrie_) uribReactor_.notifierIs(watchable(uribTrie_));
    if (mribTrie_) mribReactor_.notifierIs(watchable(mribTrie_));
    if (mfibConfig_) mfibReactor_.notifierIs(watchable(mfibConfig_));
    // A machine started after the agent wrote routes treats them all as changed.
    for (const auto& [k, info] : config_->rpfConfigInfo()) {
      if (k.af() != F) continue;
      handleRpf(k);
      if (!links_.at(k).unresolved) mark(k);
    }
  }

  void handleRpfConfigInfo(const RouteKey& k) {
    if (k.af() != F) return;
    if (config_->rpfConfigInfo(k)) {
      handleRpf(k);
    } else {
      handleDelete(k);
    }
  }

  void handleRpfConfigInfoAll() {
    std::vector<RouteKey> gone;
    for (const auto& [k, l] : links_)
      if (!config_->rpfConfigInfo(k)) gone.push_back(k);
    for (const RouteKey& k : gone) handleDelete(k);
    for (const auto& [k, info] : config_->rpfConfigInfo())
      if (k.af() == F) handleRpf(k);
  }

  void handleRpf(const RouteKey& k) {
    auto& tr = rpfSmTrace();
    const Rpf& rpf = config_->rpfConfigInfo(k)->rpf;
    const bool empty = rpf.rpfIntf.empty();
    if (!empty) {
      // Both checks come before any change of state: a throw leaves the machine as it was.
      if (rpf.rib != RpfRib::U && rpf.rib != RpfRib::M) {
        Kel::assertionFailed("rpf.rpfRib() == U() || rpf.rpfRib() == M()", __FILE__, __LINE__);
      }
      if (rpf.prefix.af() != F || !(rpf.prefix.masked() == rpf.prefix)) {
        throw Kel::RangeError(std::string(kBadPrefix));
      }
    }
    const Nimo::IpGenAddr target = rpfTarget(k, rpf);
    auto it = links_.find(k);
    const Link* old = it == links_.end() ? nullptr : &it->second;
    if (empty) {
      if (old && old->unresolved && old->target == target) return;
      if (old && !old->unresolved) unlink(*it);
      links_[k] = Link{Nimo::IpGenPrefix(), target, RpfRib::none, true};
      unresolved_.add(k, target);
      return;
    }
    if (old && !old->unresolved && old->prefix == rpf.prefix && old->rib == rpf.rib &&
        old->target == target) {
      return;  // the same link: a rewrite of an equal route, or a new neighbour only
    }
    int prevLen = -1;
    if (old && old->unresolved) {
      unresolved_.resolved(k);
      it = links_.find(k);  // its watchers ran in between
    } else if (old) {
      prevLen = old->prefix.maskLen();
      unlink(*it);
    }
    // The record first: the user set orders by it.
    const Link now{rpf.prefix, target, rpf.rib, false};
    if (it == links_.end()) {
      it = links_.emplace(k, now).first;
    } else {
      it->second = now;
    }
    link(*it);
    if (prevLen >= 0 && prevLen != rpf.prefix.maskLen()) {
      FLICK_TRACE(tr, 4, "RpfSm: prevRpfLen changed from {} for key {}", prevLen, fmt::streamed(k));
    }
  }

  void link(const Links::value_type& l) {
    const RouteKey& k = l.first;
    const Nimo::IpGenPrefix& p = l.second.prefix;
    const RpfRib rib = l.second.rib;
    auto& tr = rpfSmTrace();
    auto [eit, added] = entries_.try_emplace(p);
    TrieEntryInfo& e = eit->second;
    if (added) {
      FLICK_TRACE(tr, 4, "RpfSm: RPF changed for {}, adding {} to RPF trie ", fmt::streamed(k), p);
      e.rib = rib;
      trie_.insert(p, rib);
    } else if (e.rib != rib) {
      FLICK_TRACE(tr, 4, "RpfSm: RPF changed, rib changed, for route {}, prefix {}",
                  fmt::streamed(k), p);
      FLICK_TRACE(tr, 4, "RpfSm: Type of prefix is flipping ");
      e.rib = rib;
      trie_.insert(p, rib);
    }
    e.user.insert(&l);
    FLICK_TRACE(tr, 4, "RpfSm: RPF changed, linking prefix {} to route {}, users left: {}", p,
                fmt::streamed(k), e.user.size());
  }

  // Before the record changes or goes: the user set orders by it.
  void unlink(const Links::value_type& l) {
    const RouteKey& k = l.first;
    const Nimo::IpGenPrefix& p = l.second.prefix;
    auto& tr = rpfSmTrace();
    auto eit = entries_.find(p);
    if (eit == entries_.end()) return;
    auto& users = eit->second.user;
    if (auto u = users.find(&l); u != users.end()) users.erase(u);
    FLICK_TRACE(tr, 4, "RpfSm: unlinking prefix {} from route {}, users left: {}", p,
                fmt::streamed(k), eit->second.user.size());
    if (!eit->second.user.empty()) return;
    FLICK_TRACE(tr, 4, "RpfSm: Deleting prefix from RPF trie {}", p);
    trie_.remove(p);
    entries_.erase(eit);
  }

  void handleDelete(const RouteKey& k) {
    auto it = links_.find(k);
    if (it == links_.end()) return;
    if (it->second.unresolved) {
      links_.erase(it);
      unresolved_.deleted(k);
    } else {
      unlink(*it);
      links_.erase(it);
    }
    // A pending key stays pending: the review drops it ("has been deleted").
  }

  void mark(const RouteKey& k) {
    ++stats_.marked;
    review_.mark(k);
  }

  void markAllLinked() {
    for (const auto& [p, e] : entries_)
      for (User u : e.user) mark(u->first);
  }

  void handleMultipathControl() {
    FLICK_TRACE(rpfSmTrace(), 4, "RpfSm: multipath control changed, marking every route");
    markAllLinked();
  }

  void handleRibChange(const Nimo::IpGenPrefix& p, Routing::TrieChange c, RpfRib rib) {
    if (p.af() != F) return;
    switch (c) {
      case Routing::TrieChange::added:
        routeAdded(p, rib);
        break;
      case Routing::TrieChange::updated:
        routeUpdated(p, rib);
        break;
      case Routing::TrieChange::deleted:
        routeDeleted(p, rib);
        break;
    }
  }

  void routeDeleted(const Nimo::IpGenPrefix& p, RpfRib rib) {
    auto eit = entries_.find(p);
    if (eit != entries_.end()) {
      FLICK_TRACE(rpfSmTrace(), 4, "RpfSm: route deleted {}, users: {}", p,
                  eit->second.user.size());
      for (User u : eit->second.user) mark(u->first);
    }
    // A multicast route without a usable next hop sent the lookups under it on to the
    // unicast RIB; with it gone, a less specific multicast route may take them.
    if (rib == RpfRib::M) capture(p, rib, true);
  }

  bool stillValid(User u) {
    if (!pimRpfTable_) return false;
    const RpfConfigInfo* info = config_->rpfConfigInfo(u->first);
    return info && pimRpfTable_->validRpf(info->rpf, u->second.target);
  }

  void routeUpdated(const Nimo::IpGenPrefix& p, RpfRib rib) {
    auto& tr = rpfSmTrace();
    auto eit = entries_.find(p);
    if (eit == entries_.end()) {
      FLICK_TRACE(tr, 8, "RpfSm: route updated {}, no users", p);
    } else {
      bool mribUsers = false;
      // Marking only schedules a review: the user set is not touched under this loop.
      for (User u : eit->second.user) {
        if (rib == RpfRib::U && u->second.rib == RpfRib::M) {
          mribUsers = true;
          continue;
        }
        if (u->second.rib == rib && stillValid(u)) continue;
        FLICK_TRACE(tr, 8, "RpfSm: {} SG to re-eval ", fmt::streamed(u->first));
        mark(u->first);
      }
      if (mribUsers) FLICK_TRACE(tr, 8, "RpfSm: {} SGs are using the prefix in the MRIB", p);
    }
    // A multicast route changing can now win over unicast-linked routes beneath it.
    if (rib == RpfRib::M) capture(p, rib, true);
  }

  void routeAdded(const Nimo::IpGenPrefix& p, RpfRib rib) { capture(p, rib, false); }

  // Marks the routes that the route p of rib may now capture: users under p of every
  // enclosing linked prefix, then the RPF trie's subtree below p.
  void capture(const Nimo::IpGenPrefix& p, RpfRib rib, bool skipSelf) {
    auto& tr = rpfSmTrace();
    const Nimo::IpGenPrefix net = p.masked();
    const UserAt from{net.address(), RouteKey()};
    for (const auto* q = trie_.findParent(net); q; q = trie_.findParent(q->prefix)) {
      const TrieEntryInfo& e = entries_.at(q->prefix);
      for (auto it = e.user.lower_bound(from);
           it != e.user.end() && net.contains((*it)->second.target); ++it) {
        if (rib == RpfRib::U && (*it)->second.rib == RpfRib::M) continue;
        mark((*it)->first);
      }
    }
    if (rib == RpfRib::M) {
      FLICK_TRACE(tr, 4, "RpfSm: {} subtree walk since route added to MRIB", net);
    }
    trie_.preOrderWalk(net, [&](const typename Routing::TrieGen<RpfRib>::Entry& q) {
      const bool self = q.prefix == net;
      if (self && skipSelf) return true;
      const TrieEntryInfo& e = entries_.at(q.prefix);
      if (!self && truncates(q.prefix, e, rib)) {
        ++stats_.truncations;
        FLICK_TRACE(tr, 4, "RpfSm: Truncating subtree walk at {}", q.prefix);
        return false;
      }
      for (User u : e.user) {
        if (rib == RpfRib::U && u->second.rib == RpfRib::M) continue;
        mark(u->first);
      }
      return true;
    });
  }

  bool truncates(const Nimo::IpGenPrefix& q, const TrieEntryInfo& e, RpfRib rib) const {
    if (rib == RpfRib::U) return uribTrie_ && uribTrie_->find(q) != nullptr;
    return e.rib == RpfRib::M && mribTrie_ && mribTrie_->find(q) != nullptr;
  }

  void publish(const RouteKey& k) {
    if (publishRpfChange(*config_, *status_, k, rpfSmTrace(), "RpfSm")) {
      ++stats_.published;
    } else {
      ++stats_.deletedAtReview;
    }
  }

  Kel::Ptr<const RpfConfig> config_;
  Kel::Ptr<RpfStatus> status_;
  Kel::Ptr<const RibTrie> uribTrie_;
  Kel::Ptr<const RibTrie> mribTrie_;
  Kel::Ptr<PimRpfTable> pimRpfTable_;
  Kel::Ptr<RpHashStatus> rpHashStatus_;
  Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig_;
  Kel::Ptr<const Kel::Clock> clock_;
  Routing::TrieGen<RpfRib> trie_;
  std::unordered_map<Nimo::IpGenPrefix, TrieEntryInfo, PrefixHash> entries_;
  Links links_;
  Stats stats_;
  UnresolvedSets unresolved_;
  RouteKeyReview review_;
  // Reactors last: they detach first when the machine goes.
  ConfigReactor configReactor_;
  RibReactor uribReactor_;
  RibReactor mribReactor_;
  MfibReactor mfibReactor_;
};

template <Nimo::AddressFamily F>
std::string RpfSmGen<F>::checkInvariantsForTest(bool quiescent) const {
  auto str = [](const auto& v) { return fmt::format("{}", fmt::streamed(v)); };
  std::size_t own = 0, linked = 0;
  for (const auto& [k, info] : config_->rpfConfigInfo()) {
    if (k.af() != F) continue;
    ++own;
    auto it = links_.find(k);
    if (it == links_.end()) return "config key not known: " + str(k);
    const Link& l = it->second;
    const Rpf& rpf = info.rpf;
    const auto& coll = k.isStarG() ? status_->unresolvedWcRoute() : status_->unresolvedRoute();
    auto u = coll.find(k);
    if (rpf.rpfIntf.empty()) {
      if (!l.unresolved) return "empty Rpf but linked: " + str(k);
      if (u == coll.end() || !(u->second == rpfTarget(k, rpf)))
        return "unresolved key missing or with a wrong target: " + str(k);
      continue;
    }
    ++linked;
    if (l.unresolved || u != coll.end()) return "linked key still unresolved: " + str(k);
    if (!(l.prefix == rpf.prefix) || l.rib != rpf.rib)
      return "key linked to another prefix than its Rpf's: " + str(k);
    auto e = entries_.find(l.prefix);
    if (e == entries_.end() || !e->second.user.count(&*it))
      return "key not among its prefix's users: " + str(k);
  }
  if (links_.size() != own) return "records of deleted keys remain";
  for (const auto* coll : {&status_->unresolvedRoute(), &status_->unresolvedWcRoute()}) {
    for (const auto& [k, a] : *coll) {
      if (k.af() != F) continue;
      auto it = links_.find(k);
      if (it == links_.end() || !it->second.unresolved) return "stale unresolved key: " + str(k);
    }
  }
  std::size_t users = 0;
  for (const auto& [p, e] : entries_) {
    if (e.user.empty()) return "entry without users: " + p.str();
    if (!trie_.find(p)) return "entry missing from the RPF trie: " + p.str();
    users += e.user.size();
  }
  if (trie_.size() != entries_.size()) return "RPF trie and entries differ";
  if (users != linked) return "user count differs from linked keys";
  if (quiescent && (!review_.pending().empty() || review_.scheduled()))
    return "review pending at quiescence";
  return "";
}

template <Nimo::AddressFamily F, typename Trie>
Kel::Ptr<RpfSm> make(Nimo::AddressFamily af, Kel::Ptr<const RpfConfig> config,
                     Kel::Ptr<RpfStatus> status, Kel::Ptr<const Trie> uribTrie,
                     Kel::Ptr<const Trie> mribTrie, Kel::Ptr<PimRpfTable> pimRpfTable,
                     Kel::Ptr<RpHashStatus> rpHashStatus,
                     Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
                     Kel::Ptr<const Kel::Clock> clock, Ulm::TimerWheel& wheel) {
  KEL_ASSERT(af == F && "RpfSm of the tries' address family");
  return Kel::Ptr<RpfSm>(new RpfSmGen<F>(std::move(config), std::move(status), std::move(uribTrie),
                                         std::move(mribTrie), std::move(pimRpfTable),
                                         std::move(rpHashStatus), std::move(mfibConfig),
                                         std::move(clock), wheel));
}

}  // namespace

Kel::Ptr<RpfSm> rpfSmFactory(Nimo::AddressFamily af, Kel::Ptr<const RpfConfig> config,
                             Kel::Ptr<RpfStatus> status, Kel::Ptr<const UribTrie4> uribTrie,
                             Kel::Ptr<const UribTrie4> mribTrie, Kel::Ptr<PimRpfTable> pimRpfTable,
                             Kel::Ptr<RpHashStatus> rpHashStatus,
                             Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
                             Kel::Ptr<const Kel::Clock> clock, Ulm::TimerWheel& wheel) {
  return make<Nimo::AddressFamily::ipv4>(af, config, status, uribTrie, mribTrie, pimRpfTable,
                                         rpHashStatus, mfibConfig, clock, wheel);
}

Kel::Ptr<RpfSm> rpfSmFactory(Nimo::AddressFamily af, Kel::Ptr<const RpfConfig> config,
                             Kel::Ptr<RpfStatus> status, Kel::Ptr<const UribTrie6> uribTrie,
                             Kel::Ptr<const UribTrie6> mribTrie, Kel::Ptr<PimRpfTable> pimRpfTable,
                             Kel::Ptr<RpHashStatus> rpHashStatus,
                             Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
                             Kel::Ptr<const Kel::Clock> clock, Ulm::TimerWheel& wheel) {
  return make<Nimo::AddressFamily::ipv6>(af, config, status, uribTrie, mribTrie, pimRpfTable,
                                         rpHashStatus, mfibConfig, clock, wheel);
}

}  // namespace Routing::Pim
