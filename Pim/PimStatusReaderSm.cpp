// Inputs:
//   GlobalStatusReaderSm   GlobalStatus (enabled VRF sets) -> handlePimEnabledVrf
//   StatusReaderSm         Drobe::Status, per key -> handleIntf, handleNeighbor, ...;
//                          whole collection or (un)mount -> full pass (handleInitialized)
//   GlobalStatusModeFilterSm  AllStatusColl -> handleVrfStatus
//   StatusModeFilterSm     AllStatus -> handlePimIntf; per Intf (KelIntf) mode, border
//                          router, address -> doMaybeUpdate; neighbours -> handleActiveNeighbor
#include "Pim/PimStatusReaderSm.h"

#include <algorithm>
#include <set>
#include <unordered_set>
#include <vector>

namespace Routing::Pim {

namespace {

// Trace texts, in the order they occur.
constexpr std::string_view kCreatingStatus = " ), Creating PIM status";
constexpr std::string_view kMounted = " ), Mounted for reading";
constexpr std::string_view kDeletingStatus = " ), Deleting PIM status";
constexpr std::string_view kUnmounted = " ), Unmounted from reading";
constexpr std::string_view kRemovingIntf = "(), Removing interface ";
constexpr std::string_view kUnableNeighbor = "(), Unable to update neighbor ";
constexpr std::string_view kNoIntf = ".  Did not create interface ";
constexpr std::string_view kAddingNeighbor = "(), Adding neighbor ";
constexpr std::string_view kToIntf = " to interface ";
constexpr std::string_view kUpdatingNeighbor = "(), Updating neighbor ";
constexpr std::string_view kRemovingNeighbor = "(), Removing neighbor ";
constexpr std::string_view kFromIntf = " from interface ";
constexpr std::string_view kUnableInactive = "(), Unable to update inactive neighbor ";
constexpr std::string_view kNoNeighbor = ".  Did not create neighbor ";
constexpr std::string_view kAddingInactive = "(), Adding inactive neighbor ";
constexpr std::string_view kRemovingInactive = "(), Removing inactive neighbor ";
constexpr std::string_view kAddingSecondary = "(), Adding secondary address ";
constexpr std::string_view kRemovingSecondary = "(), Removing secondary address ";
constexpr std::string_view kUnableSecondary = "(), Unable to update secondary address ";
constexpr std::string_view kNoIntfInDrobe = ".  No interface in drobe ";
constexpr std::string_view kAddingPrefix = "(), Adding secondary prefix ";
constexpr std::string_view kRemovingPrefix = "(), Removing secondary prefix ";
constexpr std::string_view kUnablePrefix = "(), Unable to update secondary prefix ";
constexpr std::string_view kToNeighbor = " to neighbor ";
constexpr std::string_view kFromNeighbor = " from neighbor ";
constexpr std::string_view kCreatingFilter = "), Creating StatusModeFilterSm ";
constexpr std::string_view kProcessIntf = " ), Process interface";
constexpr std::string_view kAddingActive = " ), Adding active neighbor";
constexpr std::string_view kFilteredOutIntf = " ), Filtered out interface";
constexpr std::string_view kFilteredOut = " ), Filtered out";

constexpr int kChange = 4;
constexpr int kDrop = 5;

}  // namespace

Flicklog::Facility& statusReaderTrace() {
  static Flicklog::Facility& f = Flicklog::facility("PimStatusReaderSm");
  return f;
}

bool modeAccepts(Mode filter, Mode intf, bool borderRouter) noexcept {
  switch (filter) {
    case Mode::Sparse:
      return intf == Mode::Sparse || intf == Mode::SparseBidir || borderRouter;
    case Mode::Bidir:
      return intf == Mode::Bidir || intf == Mode::SparseBidir;
    case Mode::SparseBidir:
      return true;
    case Mode::None:
      break;
  }
  return false;
}

}  // namespace Routing::Pim

namespace Routing::Pim::Drobe {

namespace {

Flicklog::Facility& trace() { return statusReaderTrace(); }

// Empties a mirror one interface at a time (each removal announced). The key is copied:
// the removal frees the map's own.
void clearMirror(Pim::AllStatus& all) {
  while (!all.pimIntf().empty()) {
    const Nimo::IntfId id = all.pimIntf().begin()->first;
    all.pimIntfDel(id);
  }
}

struct KeyHash {
  std::size_t operator()(const NeighborKey& k) const noexcept { return k.hash(); }
};

// A key's record from a collection: a reader's answer keeps "being rewritten" apart from
// "absent"; a writer's table (same process) has no such state.
template <typename K, typename V>
::Drobe::FindStatus lookup(const DrobeDetail::Collection<K, V>& c, const K& k, V& out) {
  if (c.reader()) return c.reader()->findStatus(k, out);
  if (std::optional<V> v = c.find(k)) {
    out = *v;
    return ::Drobe::FindStatus::found;
  }
  return ::Drobe::FindStatus::absent;
}

// The mirrored neighbour made from its record; secondary addresses are their own table's.
Pim::Neighbor neighborOf(const Drobe::Neighbor& r, const Pim::Neighbor* old) {
  Pim::Neighbor n(r.key().address());
  n.creationTime = r.creationTime();
  n.lastRefreshTime = r.lastRefreshTime();
  n.holdTime = r.holdTime();
  n.drPriorityOption = r.drPriorityOption();
  n.generationIdOption = r.generationIdOption();
  n.lanPruneDelayOption = r.lanPruneDelayOption();
  n.bfdState = r.bfdState();
  n.portInfo = r.portInfo();
  n.transportProtocol = r.transportProtocol();
  if (old) n.secondaryAddress = old->secondaryAddress;
  return n;
}

// Calls fn(element, walked) for each element in one set but not the other: walked when
// only `want` (what the table's walk read) has it. Collected first, as fn changes `have`.
template <typename T, typename F>
void forEachDifference(const std::set<T>& have, const std::set<T>& want, F fn) {
  if (have.empty() && want.empty()) return;
  std::vector<std::pair<T, bool>> diff;
  auto h = have.begin();
  auto w = want.begin();
  while (h != have.end() || w != want.end()) {
    if (w == want.end() || (h != have.end() && *h < *w)) {
      diff.emplace_back(*h++, false);
    } else if (h == have.end() || *w < *h) {
      diff.emplace_back(*w++, true);
    } else {
      ++h, ++w;
    }
  }
  for (const auto& [v, walked] : diff) fn(v, walked);
}

}  // namespace

StatusReaderSm::StatusReaderSm(const L3::VrfName& vrf, const Kel::Ptr<Pim::AllStatus>& allStatus,
                               const Kel::Ptr<Status>& drobeStatus)
    : Kel::Entity(vrf.str()),
      vrf_(vrf),
      allStatus_(allStatus),
      drobeStatus_(drobeStatus),
      reactor_(*this),
      mirrorReactor_(*this) {
  reactor_.notifierIs(drobeStatus_);
  mirrorReactor_.notifierIs(allStatus_);
}

StatusReaderSm::~StatusReaderSm() { clearMirror(*allStatus_); }

void StatusReaderSm::enabledIs(bool e) {
  if (enabled_ == e) return;
  enabled_ = e;
  if (enabled_) handleInitialized();
}

void StatusReaderSm::handleCollection() {
  if (initialized_) handleInitialized();
}

void StatusReaderSm::handleInitialized() {
  if (!enabled_ || inFullPass_) return;
  inFullPass_ = true;
  ++fullPasses_;
  const bool wasInitialized = initialized_;
  initialized_ = true;  // the handlers below apply their updates
  // Interfaces: each record as the walk read it (looking it up again by key would read
  // its slot, and the slots probed before it, a second time); then every mirrored
  // interface the walk did not give, which the table may no longer hold.
  std::unordered_set<Nimo::IntfId, IdHash> walked;
  walked.reserve(drobeStatus_->pimIntfSize());
  drobeStatus_->pimIntfForEach([&](const Drobe::Intf& r) {
    applyIntf(r);
    walked.insert(r.key());
  });
  if (walked.size() != allStatus_->pimIntf().size()) {
    std::vector<Nimo::IntfId> ids;
    for (const auto& [id, intf] : allStatus_->pimIntf()) {
      if (!walked.count(id)) ids.push_back(id);
    }
    for (const Nimo::IntfId& id : ids) handleIntf(id);
  }
  // Neighbours from their records, each in its active or inactive place (the inactive
  // table read once, rather than probed per neighbour); then, if the mirror holds more than
  // the table gave, the ones the table no longer has.
  std::unordered_set<NeighborKey, KeyHash> inactive;
  drobeStatus_->inactiveNeighborForEach([&](const NeighborRef& r) { inactive.insert(r.key()); });
  std::size_t applied = 0;
  drobeStatus_->neighborForEach([&](const Drobe::Neighbor& r) {
    if (Kel::Ptr<Pim::Intf> intf = applyNeighbor(r)) {
      setActive(*intf, r.key(), inactive.count(r.key()) != 0);
      ++applied;
    }
  });
  std::size_t inMirror = 0;
  for (const auto& [id, intf] : allStatus_->pimIntf()) inMirror += intf->neighbor().size();
  if (inMirror != applied) {
    std::vector<NeighborKey> nbrs;
    for (const auto& [id, intf] : allStatus_->pimIntf()) {
      for (const auto& [addr, n] : intf->neighbor()) nbrs.emplace_back(addr, id);
    }
    for (const NeighborKey& k : nbrs) handleNeighbor(k);
  }
  syncSecondaries();
  inFullPass_ = false;
  if (!wasInitialized) {
    FLICK_TRACE(trace(), kChange, "StatusReaderSm::handleInitialized( {} ), {} interfaces",
                vrf_.name(), allStatus_->pimIntf().size());
  }
}

void StatusReaderSm::syncSecondaries() {
  using AddrSet = std::set<Nimo::IpGenAddr>;
  using PrefixSet = std::set<Nimo::IpGenPrefix>;
  std::unordered_map<Nimo::IntfId, AddrSet, IdHash> addrs;
  std::unordered_map<Nimo::IntfId, PrefixSet, IdHash> prefixes;
  std::unordered_map<NeighborKey, AddrSet, KeyHash> nbrAddrs;
  drobeStatus_->intfSecondaryAddressForEach([&](const Drobe::IntfSecondaryAddress& r) {
    addrs[r.key().intfId()].insert(r.key().secondaryAddress());
  });
  drobeStatus_->intfSecondaryPrefixForEach([&](const Drobe::IntfSecondaryPrefix& r) {
    prefixes[r.key().intfId()].insert(r.key().secondaryPrefix());
  });
  drobeStatus_->neighborSecondaryAddressForEach([&](const Drobe::NeighborSecondaryAddress& r) {
    nbrAddrs[r.key().neighbor()].insert(r.key().secondaryAddress());
  });
  // Entries whose interface or neighbour is not mirrored are dropped with their traces.
  for (const auto& [id, set] : addrs) {
    if (!mirrored(id)) {
      for (const auto& a : set) handleIntfSecondaryAddress({id, a});
    }
  }
  for (const auto& [id, set] : prefixes) {
    if (!mirrored(id)) {
      for (const auto& p : set) handleIntfSecondaryPrefix({id, p});
    }
  }
  // What the walk read is applied as read; what only the mirror holds is looked up (the
  // table may have it back by now).
  static const AddrSet kNoAddrs;
  static const PrefixSet kNoPrefixes;
  for (const auto& entry : allStatus_->pimIntf()) {
    const Nimo::IntfId& id = entry.first;
    const Pim::Intf& intf = *entry.second;
    auto a = addrs.find(id);
    forEachDifference(intf.secondaryAddress(), a == addrs.end() ? kNoAddrs : a->second,
                      [&](const auto& v, bool walked) {
                        intfSecondaryAddress({id, v}, walked);
                      });
    auto p = prefixes.find(id);
    forEachDifference(intf.secondaryPrefix(), p == prefixes.end() ? kNoPrefixes : p->second,
                      [&](const auto& v, bool walked) {
                        intfSecondaryPrefix({id, v}, walked);
                      });
    for (const auto& nbr : intf.neighbor()) {
      if (nbrAddrs.empty() && nbr.second.secondaryAddress.empty()) continue;
      const NeighborKey nk(nbr.first, id);
      auto sec = nbrAddrs.find(nk);
      forEachDifference(nbr.second.secondaryAddress, sec == nbrAddrs.end() ? kNoAddrs : sec->second,
                        [&](const auto& v, bool) {
                          handleNeighborSecondaryAddress({nk, v});
                        });
      if (sec != nbrAddrs.end()) nbrAddrs.erase(sec);
    }
  }
  for (const auto& [nk, set] : nbrAddrs) {
    for (const auto& a : set) handleNeighborSecondaryAddress({nk, a});
  }
}

void StatusReaderSm::handleIntf(const Nimo::IntfId& intfId) {
  if (!initialized_) return;
  Drobe::Intf r;
  switch (lookup(drobeStatus_->pimIntfTable(), intfId, r)) {
    case ::Drobe::FindStatus::changing:
      return;  // its commit's notice follows
    case ::Drobe::FindStatus::absent:
      if (!mirrored(intfId)) return;
      FLICK_TRACE(trace(), kChange, "StatusReaderSm::handleIntf{}{}", kRemovingIntf, intfId);
      lastIntf_.erase(intfId);
      allStatus_->pimIntfDel(intfId);
      return;
    case ::Drobe::FindStatus::found:
      break;
  }
  applyIntf(r);
}

void StatusReaderSm::applyIntf(const Drobe::Intf& r) {
  const Nimo::IntfId& intfId = r.key();
  Kel::Ptr<Pim::Intf> intf = mirrored(intfId);
  auto [last, first] = lastIntf_.try_emplace(intfId, r);
  if (intf && !first && last->second == r) return;
  // A new interface gets its attributes before it is announced.
  const bool created = !intf;
  if (created) intf = Kel::Ptr<Pim::Intf>::make(intfId);
#define PIM_INTF_COPY(T, name, Name) intf->name##Is(r.name());
  PIM_INTF_ATTRIBUTES(PIM_INTF_COPY)
#undef PIM_INTF_COPY
  last->second = r;
  if (created) allStatus_->pimIntfIs(intf);
}

Kel::Ptr<Pim::Intf> StatusReaderSm::mirrored(const Nimo::IntfId& id) {
  auto [it, fresh] = mirrored_.try_emplace(id, nullptr);
  if (fresh) {
    it->second = allStatus_->pimIntf(id).ptr();
    if (!it->second) {
      mirrored_.erase(it);
      return nullptr;
    }
  }
  return it->second;
}

Kel::Ptr<Pim::Intf> StatusReaderSm::intfFor(const Nimo::IntfId& id) {
  if (Kel::Ptr<Pim::Intf> intf = mirrored(id)) return intf;
  handleIntf(id);
  return mirrored(id);
}

Kel::Ptr<Pim::Intf> StatusReaderSm::neighborFor(const NeighborKey& key, bool& missingIntf) {
  Kel::Ptr<Pim::Intf> intf = intfFor(key.intfId());
  missingIntf = !intf;
  if (!intf) return nullptr;
  if (!intf->neighbor(key.address())) handleNeighbor(key);
  return intf->neighbor(key.address()) ? intf : nullptr;
}

void StatusReaderSm::handleNeighbor(const NeighborKey& key) {
  if (!initialized_) return;
  Drobe::Neighbor r;
  switch (lookup(drobeStatus_->neighborTable(), key, r)) {
    case ::Drobe::FindStatus::changing:
      return;
    case ::Drobe::FindStatus::absent:
      if (Kel::Ptr<Pim::Intf> intf = mirrored(key.intfId());
          intf && intf->neighbor(key.address())) {
        removeNeighbor(*intf, key);
      }
      return;
    case ::Drobe::FindStatus::found:
      break;
  }
  const bool known = [&] {
    Kel::Ptr<Pim::Intf> i = mirrored(key.intfId());
    return i && i->neighbor(key.address());
  }();
  Kel::Ptr<Pim::Intf> intf = applyNeighbor(r);
  if (intf && !known) syncActive(*intf, key);
}

Kel::Ptr<Pim::Intf> StatusReaderSm::applyNeighbor(const Drobe::Neighbor& r) {
  const NeighborKey& key = r.key();
  Kel::Ptr<Pim::Intf> intf = intfFor(key.intfId());
  if (!intf) {
    FLICK_TRACE(trace(), kDrop, "StatusReaderSm::handleNeighbor{}{}{}{}", kUnableNeighbor,
                key.address(), kNoIntf, key.intfId());
    return nullptr;
  }
  const Pim::Neighbor* old = intf->neighbor(key.address());
  if (old) {
    const Pim::Neighbor n = neighborOf(r, old);
    if (*old == n) return intf;
    FLICK_TRACE(trace(), kChange, "StatusReaderSm::handleNeighbor{}{}", kUpdatingNeighbor,
                key.address());
    intf->neighborIs(n);
    return intf;
  }
  FLICK_TRACE(trace(), kChange, "StatusReaderSm::handleNeighbor{}{}{}{}", kAddingNeighbor,
              key.address(), kToIntf, key.intfId());
  intf->neighborIs(neighborOf(r, nullptr));
  return intf;
}

void StatusReaderSm::removeNeighbor(Pim::Intf& intf, const NeighborKey& key) {
  FLICK_TRACE(trace(), kChange, "StatusReaderSm::handleNeighbor{}{}{}{}", kRemovingNeighbor,
              key.address(), kFromIntf, key.intfId());
  intf.activeNeighborDel(key.address());
  intf.inactiveBfdNeighborDel(key.address());
  intf.neighborDel(key.address());
}

void StatusReaderSm::syncActive(Pim::Intf& intf, const NeighborKey& key) {
  NeighborRef ref;
  const ::Drobe::FindStatus st = lookup(drobeStatus_->inactiveNeighborTable(), key, ref);
  if (st != ::Drobe::FindStatus::changing) setActive(intf, key, st == ::Drobe::FindStatus::found);
}

void StatusReaderSm::setActive(Pim::Intf& intf, const NeighborKey& key, bool inactive) {
  const bool was = intf.inactiveBfdNeighbor(key.address());
  if (inactive) {
    if (!was) {
      FLICK_TRACE(trace(), kChange, "StatusReaderSm::handleInactiveNeighbor{}{}{}{}",
                  kAddingInactive, key.address(), kToIntf, key.intfId());
    }
    intf.inactiveBfdNeighborIs(key.address());
    intf.activeNeighborDel(key.address());
    return;
  }
  if (was) {
    FLICK_TRACE(trace(), kChange, "StatusReaderSm::handleInactiveNeighbor{}{}{}{}",
                kRemovingInactive, key.address(), kFromIntf, key.intfId());
  }
  intf.inactiveBfdNeighborDel(key.address());
  intf.activeNeighborIs(key.address());
}

void StatusReaderSm::handleInactiveNeighbor(const NeighborKey& key) {
  if (!initialized_) return;
  bool missingIntf = false;
  Kel::Ptr<Pim::Intf> intf = neighborFor(key, missingIntf);
  if (!intf) {
    FLICK_TRACE(trace(), kDrop, "StatusReaderSm::handleInactiveNeighbor{}{}{}{}", kUnableInactive,
                key.address(), missingIntf ? kNoIntf : kNoNeighbor,
                missingIntf ? fmt::format("{}", key.intfId()) : key.address().str());
    return;
  }
  syncActive(*intf, key);
}

// An interface's secondary address or prefix follows its table: texts[0] unable, [1]
// adding, [2] removing; has(intf) and set(intf, on) reach the interface's set.
template <typename K, typename V, typename T, typename Has, typename Set>
void StatusReaderSm::handleSecondary(const K& key, const DrobeDetail::Collection<K, V>& table,
                                     const T& value, std::string_view handler,
                                     const std::string_view (&texts)[3], Has has, Set set,
                                     bool walked) {
  if (!initialized_) return;
  V r;
  const ::Drobe::FindStatus st = walked ? ::Drobe::FindStatus::found : lookup(table, key, r);
  if (st == ::Drobe::FindStatus::changing) return;
  Kel::Ptr<Pim::Intf> intf = intfFor(key.intfId());
  if (!intf) {
    FLICK_TRACE(trace(), kDrop, "StatusReaderSm::{}{}{}{}{}", handler, texts[0], value,
                kNoIntfInDrobe, key.intfId());
    return;
  }
  const bool on = st == ::Drobe::FindStatus::found;
  if (has(*intf) == on) return;
  FLICK_TRACE(trace(), kChange, "StatusReaderSm::{}{}{}{}{}", handler, on ? texts[1] : texts[2],
              value, on ? kToIntf : kFromIntf, key.intfId());
  set(*intf, on);
}

void StatusReaderSm::handleIntfSecondaryAddress(const IntfSecondaryAddressKey& key) {
  intfSecondaryAddress(key, false);
}

void StatusReaderSm::intfSecondaryAddress(const IntfSecondaryAddressKey& key, bool walked) {
  static constexpr std::string_view kTexts[3] = {kUnableSecondary, kAddingSecondary,
                                                 kRemovingSecondary};
  const Nimo::IpGenAddr& a = key.secondaryAddress();
  handleSecondary(
      key, drobeStatus_->intfSecondaryAddressTable(), a, "handleIntfSecondaryAddress", kTexts,
      [&](const Pim::Intf& i) { return i.secondaryAddress().count(a) != 0; },
      [&](Pim::Intf& i, bool on) { on ? i.secondaryAddressIs(a) : i.secondaryAddressDel(a); },
      walked);
}

void StatusReaderSm::handleIntfSecondaryPrefix(const IntfSecondaryPrefixKey& key) {
  intfSecondaryPrefix(key, false);
}

void StatusReaderSm::intfSecondaryPrefix(const IntfSecondaryPrefixKey& key, bool walked) {
  static constexpr std::string_view kTexts[3] = {kUnablePrefix, kAddingPrefix, kRemovingPrefix};
  const Nimo::IpGenPrefix& p = key.secondaryPrefix();
  handleSecondary(
      key, drobeStatus_->intfSecondaryPrefixTable(), p, "handleIntfSecondaryPrefix", kTexts,
      [&](const Pim::Intf& i) { return i.secondaryPrefix().count(p) != 0; },
      [&](Pim::Intf& i, bool on) { on ? i.secondaryPrefixIs(p) : i.secondaryPrefixDel(p); },
      walked);
}

void StatusReaderSm::handleNeighborSecondaryAddress(const NeighborSecondaryAddressKey& key) {
  if (!initialized_) return;
  NeighborSecondaryAddress r;
  const ::Drobe::FindStatus st = lookup(drobeStatus_->neighborSecondaryAddressTable(), key, r);
  if (st == ::Drobe::FindStatus::changing) return;
  const NeighborKey& nk = key.neighbor();
  bool missingIntf = false;
  Kel::Ptr<Pim::Intf> intf = neighborFor(nk, missingIntf);
  if (!intf) {
    FLICK_TRACE(trace(), kDrop, "StatusReaderSm::handleNeighborSecondaryAddress{}{}{}{}",
                kUnableSecondary, key.secondaryAddress(),
                missingIntf ? kNoIntfInDrobe : kNoNeighbor,
                missingIntf ? fmt::format("{}", nk.intfId()) : nk.address().str());
    return;
  }
  const bool on = st == ::Drobe::FindStatus::found;
  if (intf->neighbor(nk.address())->secondaryAddress.count(key.secondaryAddress()) ==
      (on ? 1u : 0u))
    return;
  FLICK_TRACE(trace(), kChange, "StatusReaderSm::handleNeighborSecondaryAddress{}{}{}{}",
              on ? kAddingSecondary : kRemovingSecondary, key.secondaryAddress(),
              on ? kToNeighbor : kFromNeighbor, nk.address());
  intf->neighborSecondaryAddressIs(nk.address(), key.secondaryAddress(), on);
}

Kel::Ptr<StatusReaderSm> statusReaderSmFactory(const L3::VrfName& vrf,
                                               const Kel::Ptr<Pim::AllStatus>& allStatus,
                                               const Kel::Ptr<Status>& drobeStatus) {
  return Kel::Ptr<StatusReaderSm>::make(vrf, allStatus, drobeStatus);
}

// ---------------------------------------------------------------------------------------
// GlobalStatusReaderSm

GlobalStatusReaderSm::GlobalStatusReaderSm(Nimo::AddressFamily af,
                                           const Kel::Ptr<GlobalStatus>& pimGlobalStatus,
                                           const Kel::Ptr<AllStatusColl>& allStatusColl,
                                           bool enabled, const Kel::Ptr<Kel::Clock>& clock,
                                           Ledra::EntityManager& em, Ulm::EventLoop& loop)
    : Kel::Entity("GlobalStatusReaderSm"),
      af_(af),
      pimGlobalStatus_(pimGlobalStatus),
      allStatusColl_(allStatusColl),
      enabled_(enabled),
      clock_(clock),
      em_(em),
      loop_(loop),
      reactor_(*this) {
  reactor_.notifierIs(pimGlobalStatus_);
  handleInitialized();
}

GlobalStatusReaderSm::~GlobalStatusReaderSm() {
  while (!statusReaderSm_.empty()) {
    const L3::VrfName vrf = statusReaderSm_.begin()->first;  // deleteVrf frees the map's key
    deleteVrf(vrf);
  }
}

void GlobalStatusReaderSm::handleInitialized() {
  std::set<L3::VrfName> all = pimGlobalStatus_->pimEnabledSparseModeVrf();
  all.insert(pimGlobalStatus_->pimEnabledBidirVrf().begin(),
             pimGlobalStatus_->pimEnabledBidirVrf().end());
  for (const auto& [vrf, sm] : statusReaderSm_) all.insert(vrf);
  for (const L3::VrfName& vrf : all) handlePimEnabledVrf(vrf);
  initialized_ = true;
}

void GlobalStatusReaderSm::handlePimEnabledVrf(const L3::VrfName& vrf) {
  const bool on = pimGlobalStatus_->pimEnabled(vrf);
  const bool exists = statusReaderSm_.count(vrf) != 0;
  if (on && !exists) {
    FLICK_TRACE(trace(), kChange, "GlobalStatusReaderSm::handlePimEnabledVrf( {}{}", vrf.name(),
                kCreatingStatus);
    Kel::Ptr<Pim::AllStatus> all = allStatusColl_->vrfStatusIs(vrf);
    const std::string path = Status::mountPath(af_, vrf);
    // A path left mounted by someone else is reused as it stands.
    Kel::Ptr<Status> tables = em_.lookup<Status>(path);
    if (!tables) {
      tables = Kel::ptr_cast<Status>(mountInDependencyOrder(em_, path, Status::kTypeName, loop_));
    }
    FLICK_TRACE(trace(), kChange, "GlobalStatusReaderSm::handlePimEnabledVrf( {}{}", vrf.name(),
                kMounted);
    auto sm = statusReaderSmFactory(vrf, all, tables);
    statusReaderSm_.emplace(vrf, sm);
    sm->enabledIs(enabled_);
  } else if (!on && exists) {
    deleteVrf(vrf);
  }
}

void GlobalStatusReaderSm::deleteVrf(const L3::VrfName& vrf) {
  statusReaderSm_.erase(vrf);
  if (Kel::Ptr<Pim::AllStatus> all = allStatusColl_->vrfStatus(vrf)) clearMirror(*all);
  FLICK_TRACE(trace(), kChange, "GlobalStatusReaderSm::handlePimEnabledVrf( {}{}", vrf.name(),
              kDeletingStatus);
  allStatusColl_->vrfStatusDel(vrf);
  const std::string path = Status::mountPath(af_, vrf);
  if (Kel::Ptr<Status> tables = em_.lookup<Status>(path)) {
    tables->unmount();
    em_.unmount(path);
  }
  FLICK_TRACE(trace(), kChange, "GlobalStatusReaderSm::handlePimEnabledVrf( {}{}", vrf.name(),
              kUnmounted);
}

Kel::Ptr<GlobalStatusReaderSm> globalStatusReaderSmFactory(
    Nimo::AddressFamily af, const Kel::Ptr<GlobalStatus>& pimGlobalStatus,
    const Kel::Ptr<AllStatusColl>& allStatusColl, bool enabled, const Kel::Ptr<Kel::Clock>& clock,
    Ledra::EntityManager& em, Ulm::EventLoop& loop) {
  return Kel::Ptr<GlobalStatusReaderSm>::make(af, pimGlobalStatus, allStatusColl, enabled, clock,
                                              em, loop);
}

}  // namespace Routing::Pim::Drobe

namespace Routing::Pim {

namespace {
Flicklog::Facility& trace() { return statusReaderTrace(); }
}  // namespace

// ---------------------------------------------------------------------------------------
// StatusModeFilterSm

StatusModeFilterSm::StatusModeFilterSm(const L3::VrfName& vrf, const Kel::Ptr<AllStatus>& allStatus,
                                       const Kel::Ptr<Status>& status, Mode mode)
    : Kel::Entity(vrf.str()),
      vrf_(vrf),
      allStatus_(allStatus),
      status_(status),
      mode_(mode),
      reactor_(*this) {
  reactor_.notifierIs(allStatus_);
  for (const auto& [id, intf] : allStatus_->pimIntf()) handlePimIntf(id);
  initialized_ = true;
}

StatusModeFilterSm::~StatusModeFilterSm() { intfDelAll(); }

bool StatusModeFilterSm::processIntf(const Nimo::IntfId& intfId) const {
  Kel::Ptr<Intf> intf = allStatus_->pimIntf(intfId);
  return intf && modeAccepts(mode_, intf->mode(), intf->borderRouter());
}

void StatusModeFilterSm::handlePimIntf(const Nimo::IntfId& intfId) {
  Kel::Ptr<Intf> intf = allStatus_->pimIntf(intfId);
  if (!intf) return intfDel(intfId);
  auto& reactor = kelIntf_[intfId];
  // A replaced interface object gets a reactor of its own.
  if (!reactor || reactor->notifier() != intf) reactor = std::make_unique<KelIntf>(*this, intf);
  doMaybeUpdate(intfId);
}

void StatusModeFilterSm::doMaybeUpdate(const Nimo::IntfId& intfId) {
  Kel::Ptr<Intf> intf = allStatus_->pimIntf(intfId);
  if (!processIntf(intfId)) {
    if (!status_->intf(intfId)) return;
    FLICK_TRACE(trace(), kChange, "StatusModeFilterSm::doMaybeUpdate( {}{}", intfId,
                kFilteredOutIntf);
    removeNeighbors(intfId);
    status_->intfDel(intfId);
    return;
  }
  FLICK_TRACE(trace(), kChange, "StatusModeFilterSm::doMaybeUpdate( {}{}", intfId, kProcessIntf);
  status_->pimIntfIs(*intf);
  for (const Nimo::IpGenAddr& a : intf->activeNeighbor()) addNeighbor(*intf, a);
}

void StatusModeFilterSm::handleActiveNeighbor(const Nimo::IntfId& intfId,
                                              const Nimo::IpGenAddr& addr) {
  if (!processIntf(intfId)) {
    FLICK_TRACE(trace(), kChange, "StatusModeFilterSm::handleActiveNeighbor( {}, {}{}", intfId,
                addr, kFilteredOut);
    return;
  }
  Kel::Ptr<Intf> intf = allStatus_->pimIntf(intfId);
  if (intf->activeNeighbor(addr) && intf->neighbor(addr)) {
    addNeighbor(*intf, addr);
  } else {
    removeNeighbor(intfId, addr);
  }
}

void StatusModeFilterSm::addNeighbor(const Intf& intf, const Nimo::IpGenAddr& addr) {
  const Neighbor* n = intf.neighbor(addr);
  if (!n) return;
  const ActiveNeighborKey k{intf.intfId(), addr};
  auto it = status_->activeNeighbor().find(k);
  if (it != status_->activeNeighbor().end() && it->second == n->holdTime) return;
  FLICK_TRACE(trace(), kChange, "StatusModeFilterSm::addNeighbor( {}, {}{}", intf.intfId(), addr,
              kAddingActive);
  status_->activeNeighborIs(k, n->holdTime);
}

void StatusModeFilterSm::removeNeighbor(const Nimo::IntfId& intfId, const Nimo::IpGenAddr& addr) {
  status_->activeNeighborDel({intfId, addr});
}

void StatusModeFilterSm::removeNeighbors(const Nimo::IntfId& intfId) {
  // The output is ordered by interface, then address; an unset address sorts first.
  std::vector<Nimo::IpGenAddr> gone;
  const auto& out = status_->activeNeighbor();
  for (auto it = out.lower_bound({intfId, Nimo::IpGenAddr()});
       it != out.end() && it->first.intfId == intfId; ++it) {
    gone.push_back(it->first.address);
  }
  for (const Nimo::IpGenAddr& a : gone) removeNeighbor(intfId, a);
}

void StatusModeFilterSm::intfDel(const Nimo::IntfId& intfId) {
  kelIntf_.erase(intfId);
  removeNeighbors(intfId);
  status_->intfDel(intfId);
}

void StatusModeFilterSm::intfDelAll() {
  // Keys are copied: intfDel frees the maps' own.
  while (!kelIntf_.empty()) {
    const Nimo::IntfId id = kelIntf_.begin()->first;
    intfDel(id);
  }
  // Interfaces written before their reactor went (none expected) go too.
  while (!status_->intf().empty()) {
    const Nimo::IntfId id = status_->intf().begin()->first;
    intfDel(id);
  }
}

Kel::Ptr<StatusModeFilterSm> statusModeFilterSmFactory(const L3::VrfName& vrf,
                                                       const Kel::Ptr<AllStatus>& allStatus,
                                                       const Kel::Ptr<Status>& status, Mode mode) {
  return Kel::Ptr<StatusModeFilterSm>::make(vrf, allStatus, status, mode);
}

// ---------------------------------------------------------------------------------------
// GlobalStatusModeFilterSm

GlobalStatusModeFilterSm::GlobalStatusModeFilterSm(const Kel::Ptr<AllStatusColl>& input,
                                                   const Kel::Ptr<StatusColl>& output, Mode mode)
    : Kel::Entity("GlobalStatusModeFilterSm"),
      input_(input),
      output_(output),
      mode_(mode),
      reactor_(*this) {
  reactor_.notifierIs(input_);
  handleInitialized();
}

GlobalStatusModeFilterSm::~GlobalStatusModeFilterSm() {
  while (!statusModeFilterSm_.empty()) {
    const L3::VrfName vrf = statusModeFilterSm_.begin()->first;
    statusModeFilterSm_.erase(statusModeFilterSm_.begin());
    output_->vrfStatusDel(vrf);
  }
}

void GlobalStatusModeFilterSm::handleInitialized() {
  for (const auto& [vrf, all] : input_->vrfStatus()) handleVrfStatus(vrf);
  initialized_ = true;
}

void GlobalStatusModeFilterSm::handleVrfStatus(const L3::VrfName& vrf) {
  Kel::Ptr<AllStatus> in = input_->vrfStatus(vrf);
  auto it = statusModeFilterSm_.find(vrf);
  if (in && it == statusModeFilterSm_.end()) {
    FLICK_TRACE(trace(), kChange, "GlobalStatusModeFilterSm::handleVrfStatus({}{}", kCreatingFilter,
                vrf.name());
    Kel::Ptr<Status> out = output_->vrfStatusIs(vrf);
    statusModeFilterSm_.emplace(vrf, statusModeFilterSmFactory(vrf, in, out, mode_));
  } else if (!in && it != statusModeFilterSm_.end()) {
    statusModeFilterSm_.erase(it);
    output_->vrfStatusDel(vrf);
  }
}

Kel::Ptr<GlobalStatusModeFilterSm> globalStatusModeFilterSmFactory(
    const Kel::Ptr<AllStatusColl>& input, const Kel::Ptr<StatusColl>& output, Mode mode) {
  return Kel::Ptr<GlobalStatusModeFilterSm>::make(input, output, mode);
}

}  // namespace Routing::Pim
