// NsfStatus. Inputs: the publisher watches its NsfStatusColl (onVrfStatus) and each entry
// (onRestarting, onRouteRecoveryComplete); the mirror watches its shared-memory reader
// (key, collection and mount notices).

#include "Pim/NsfStatus.h"

#include <vector>

template class ::Drobe::Writer<L3::VrfName, Routing::Pim::Nsf::NsfStatusRecord>;
template class ::Drobe::Reader<L3::VrfName, Routing::Pim::Nsf::NsfStatusRecord>;

namespace Routing::Pim::Nsf {

// ---------------------------------------------------------------------------------------
// NsfStatus and NsfStatusColl.

NsfStatus::NsfStatus(const L3::VrfName& vrfName)
    : Kel::Entity(Kel::Name(vrfName.str())), vrfName_(vrfName) {}

void NsfStatus::restartingIs(bool v) {
  if (restarting_ == v) return;
  restarting_ = v;
  notifiees_.forEach([](NotifieeConst& n) { n.onRestarting(); });
}

void NsfStatus::routeRecoveryCompleteIs(bool v) {
  if (routeRecoveryComplete_ == v) return;
  routeRecoveryComplete_ = v;
  notifiees_.forEach([](NotifieeConst& n) { n.onRouteRecoveryComplete(); });
}

const Kel::Reflection* NsfStatus::reflection() const noexcept {
  static constexpr Kel::AttributeInfo kAttrs[] = {
      Kel::valueAttribute<&NsfStatus::restarting, &NsfStatus::restartingIs>("restarting"),
      Kel::valueAttribute<&NsfStatus::routeRecoveryComplete, &NsfStatus::routeRecoveryCompleteIs>(
          "routeRecoveryComplete")};
  static constexpr Kel::Reflection kRefl{kTypeName, kAttrs, {}};
  return &kRefl;
}

Kel::Ptr<NsfStatus> NsfStatusColl::vrfStatus(const L3::VrfName& vrf) const {
  auto it = vrfStatus_.find(vrf);
  return it == vrfStatus_.end() ? nullptr : it->second;
}

Kel::Ptr<NsfStatus> NsfStatusColl::vrfStatusIs(const L3::VrfName& vrf) {
  auto [it, added] = vrfStatus_.try_emplace(vrf);
  if (!added) return it->second;
  it->second = nsfStatusFactory(vrf);
  Kel::Ptr<NsfStatus> s = it->second;  // a notifiee may delete it again
  notifiees_.forEach([&](NotifieeConst& n) { n.onVrfStatus(vrf); });
  return s;
}

Kel::Ptr<NsfStatus> NsfStatusColl::vrfStatusDel(const L3::VrfName& vrf) {
  auto it = vrfStatus_.find(vrf);
  if (it == vrfStatus_.end()) return nullptr;
  Kel::Ptr<NsfStatus> s = std::move(it->second);
  vrfStatus_.erase(it);
  notifiees_.forEach([&](NotifieeConst& n) { n.onVrfStatus(vrf); });
  return s;
}

void NsfStatusColl::vrfStatusDelAll() {
  std::vector<L3::VrfName> vrfs;
  for (const auto& [vrf, s] : vrfStatus_) vrfs.push_back(vrf);
  for (const auto& vrf : vrfs) vrfStatusDel(vrf);
}

void NsfStatusColl::vrfStatusNotify(const L3::VrfName& vrf) {
  notifiees_.forEach([&](NotifieeConst& n) { n.onVrfStatus(vrf); });
}

const Kel::Reflection* NsfStatusColl::reflection() const noexcept {
  static constexpr Kel::CollectionRefl kColls[] = {
      {"vrfStatus",
       [](const Kel::Entity& e) {
         std::vector<std::string> keys;
         for (const auto& [vrf, s] : static_cast<const NsfStatusColl&>(e).vrfStatus_) {
           keys.emplace_back();
           Kel::ValueText<L3::VrfName>::print(keys.back(), vrf);
         }
         return keys;
       },
       [](const Kel::Entity& e, std::string_view key) -> Kel::Ptr<Kel::Entity> {
         L3::VrfName vrf;
         if (!Kel::parseWhole(key, vrf)) return nullptr;
         return static_cast<const NsfStatusColl&>(e).vrfStatus(vrf);
       }}};
  static constexpr Kel::Reflection kRefl{kTypeName, {}, kColls};
  return &kRefl;
}

// ---------------------------------------------------------------------------------------
// Shared memory.

std::string nsfStatusMountPath(Nimo::AddressFamily af) {
  return std::string(DrobeDetail::routingRoot(af)) + "/pim/nsf/status";
}

namespace {

NsfStatusRecord recordOf(const NsfStatus& s) {
  return {s.vrfName(), s.restarting(), s.routeRecoveryComplete()};
}

}  // namespace

class NsfStatusPublisher::CollWatch : public NsfStatusColl::NotifieeConst {
 public:
  explicit CollWatch(NsfStatusPublisher& owner) : owner_(owner) {}
  void onVrfStatus(const L3::VrfName& vrf) override { owner_.handleVrfStatus(vrf); }

 private:
  NsfStatusPublisher& owner_;
};

class NsfStatusPublisher::EntryWatch : public NsfStatus::NotifieeConst {
 public:
  explicit EntryWatch(NsfStatusPublisher& owner) : owner_(owner) {}
  void onRestarting() override { owner_.publish(*notifier()); }
  void onRouteRecoveryComplete() override { owner_.publish(*notifier()); }

 private:
  NsfStatusPublisher& owner_;
};

NsfStatusPublisher::NsfStatusPublisher(Kel::Ptr<NsfStatusColl> coll, Nimo::AddressFamily af)
    : coll_(std::move(coll)),
      table_(kNsfStatusCollection, {[](const L3::VrfName&) {}, [] {}, [](bool) {}}) {
  const ::Drobe::MountInfo info{
      {DrobeDetail::growingCollection(kNsfStatusCollection, kNsfStatusCapacity)}};
  if (!table_.mountWriter(::Drobe::TableSet(nsfStatusMountPath(af), info))) return;
  collWatch_ = std::make_unique<CollWatch>(*this);
  collWatch_->notifierIs(coll_);
  for (const auto& [vrf, s] : coll_->vrfStatusMap()) handleVrfStatus(vrf);
  table_.commit();
}

NsfStatusPublisher::~NsfStatusPublisher() = default;

void NsfStatusPublisher::handleVrfStatus(const L3::VrfName& vrf) {
  Kel::Ptr<NsfStatus> s = coll_->vrfStatus(vrf);
  if (!s) {
    entryWatches_.erase(vrf);
    table_.del(vrf);
    table_.commit();
    return;
  }
  auto& w = entryWatches_[vrf];
  if (!w) w = std::make_unique<EntryWatch>(*this);
  w->notifierIs(s);  // a new entity under a known name replaces the old one
  publish(*s);
}

void NsfStatusPublisher::publish(const NsfStatus& s) {
  // A refusal (the table at its maximum) is traced and counted by the table library.
  table_.is(recordOf(s));
  table_.commit();
}

NsfStatusMirror::NsfStatusMirror(Ulm::EventLoop& loop, Nimo::AddressFamily af)
    : Kel::Entity(Kel::Name(nsfStatusMountPath(af))),
      coll_(nsfStatusCollFactory(Kel::Name(nsfStatusMountPath(af)))),
      table_(kNsfStatusCollection,
             {[this](const L3::VrfName& k) { handleKey(k); }, [this] { handleCollection(); },
              [this](bool m) { handleMountStatus(m); }}) {
  table_.mountReader(loop, ::Drobe::TableSet(nsfStatusMountPath(af)));
}

void NsfStatusMirror::apply(const NsfStatusRecord& r) {
  Kel::Ptr<NsfStatus> s = coll_->vrfStatusIs(r.vrfName);
  if (!r.routeRecoveryComplete) s->routeRecoveryCompleteIs(false);
  s->restartingIs(r.restarting);
  if (r.routeRecoveryComplete) s->routeRecoveryCompleteIs(true);
}

void NsfStatusMirror::handleKey(const L3::VrfName& vrf) {
  if (!table_.mounted()) return;  // no writer: keep what the last one published
  NsfStatusRecord r;
  switch (table_.reader()->findStatus(vrf, r)) {
    case ::Drobe::FindStatus::found:
      apply(r);
      break;
    case ::Drobe::FindStatus::absent:
      coll_->vrfStatusDel(vrf);
      break;
    case ::Drobe::FindStatus::changing:
      break;  // its commit's notice follows
  }
}

void NsfStatusMirror::handleCollection() {
  if (!table_.mounted()) return;
  std::vector<L3::VrfName> gone;
  for (const auto& [vrf, s] : coll_->vrfStatusMap()) gone.push_back(vrf);
  for (const auto& vrf : gone) handleKey(vrf);  // deletes the absent ones
  table_.forEach([&](const NsfStatusRecord& r) { apply(r); });
}

void NsfStatusMirror::handleMountStatus(bool mounted) {
  // A new writer's table replaces the entries before anyone hears it is present.
  if (mounted) handleCollection();
  writerPresentIs(mounted);
}

void NsfStatusMirror::writerPresentIs(bool v) {
  if (writerPresent_ == v) return;
  writerPresent_ = v;
  notifiees_.forEach([](NotifieeConst& n) { n.onWriterPresent(); });
}

// ---------------------------------------------------------------------------------------
// Factories.

Kel::Ptr<NsfStatus> nsfStatusFactory(const L3::VrfName& vrfName) {
  return Kel::Ptr<NsfStatus>::make(vrfName);
}

Kel::Ptr<NsfStatusColl> nsfStatusCollFactory(const Kel::Name& name) {
  return Kel::Ptr<NsfStatusColl>::make(name);
}

Kel::Ptr<NsfStatusPublisher> nsfStatusPublisherFactory(Kel::Ptr<NsfStatusColl> coll,
                                                       Nimo::AddressFamily af) {
  return Kel::Ptr<NsfStatusPublisher>::make(std::move(coll), af);
}

Kel::Ptr<NsfStatusMirror> nsfStatusMirrorFactory(Ulm::EventLoop& loop, Nimo::AddressFamily af) {
  return Kel::Ptr<NsfStatusMirror>::make(loop, af);
}

}  // namespace Routing::Pim::Nsf
