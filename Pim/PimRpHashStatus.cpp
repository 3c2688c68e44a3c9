#include "Pim/PimRpHashStatus.h"

#include <algorithm>
#include <functional>

template class ::Drobe::Writer<Nimo::IpGenPrefix, Routing::Pim::RpHash>;
template class ::Drobe::Reader<Nimo::IpGenPrefix, Routing::Pim::RpHash>;

namespace Routing::Pim {

namespace {

std::string composePath(Nimo::AddressFamily af, std::string_view middle, std::string_view name,
                        const L3::VrfName& vrf) {
  // The writer's name before the VRF.
  std::string p(DrobeDetail::routingRoot(af));
  p += middle;
  p += name;
  p += '/';
  p += vrf.name();
  return p;
}

std::size_t familyIndex(Nimo::AddressFamily af) { return af == Nimo::AddressFamily::ipv6; }

}  // namespace

std::string valueToStrep(const RpHash& v) { return Kel::valueToStrep(v); }
std::string valueToStrep(const GroupRp& v) { return Kel::valueToStrep(v); }
std::ostream& operator<<(std::ostream& os, const RpHash& v) { return os << valueToStrep(v); }
std::ostream& operator<<(std::ostream& os, const GroupRp& v) { return os << valueToStrep(v); }

std::string RpHashStatus::mountPath(Nimo::AddressFamily af, const L3::VrfName& vrf,
                                    std::string_view name) {
  return composePath(af, "/pim/rphash/", name, vrf);
}
std::string RpHashStatus::staticMountPath(Nimo::AddressFamily af, const L3::VrfName& vrf,
                                          std::string_view name) {
  return composePath(af, "/pim/rphash/static/", name, vrf);
}
std::string RpHashStatus::bsrMountPath(Nimo::AddressFamily af, const L3::VrfName& vrf,
                                       std::string_view name) {
  return composePath(af, "/pim/bsr/rphash/", name, vrf);
}
std::string RpHashStatus::prefixMountPath(Nimo::AddressFamily af, const L3::VrfName& vrf,
                                          std::string_view name) {
  return composePath(af, "/pim/rpprefixhash/", name, vrf);
}
std::string RpHashStatus::bsrPrefixMountPath(Nimo::AddressFamily af, const L3::VrfName& vrf,
                                             std::string_view name) {
  return composePath(af, "/pim/bsr/rpprefixhash/", name, vrf);
}

::Drobe::MountInfo RpHashStatus::writerMountInfo() {
  return {{{"rpHash", kRpHashCapacity, kRpHashCapacity}}};
}

RpHashStatus::RpHashStatus(Kel::Name name)
    : Kel::Entity(std::move(name)),
      rpHash_("rpHash",
              {[this](const Nimo::IpGenPrefix& k) { handleKey(k); }, [this] { handleCollection(); },
               [this](bool m) {
                 notifiees_.forEach([m](NotifieeConst& n) { n.onRpHashMountStatus(m); });
               }}) {}

bool RpHashStatus::mountWriter() {
  const bool ok = rpHash_.mountWriter(::Drobe::TableSet(name().str(), writerMountInfo()));
  indexRebuild();  // a fresh table: empty
  return ok;
}

void RpHashStatus::mountReader(Ulm::EventLoop& loop) {
  rpHash_.mountReader(loop, ::Drobe::TableSet(name().str()));
}

bool RpHashStatus::rpHashIs(const RpHash& v) {
  const auto& w = rpHash_.writer();
  KEL_ASSERT(w && "table not mounted for writing");
  const Nimo::IpGenPrefix& k = v.key();
  // One probe tells both whether anything changes and whether the key is new.
  const ::Drobe::Lookup<RpHash> old = w->lookup(k);
  if (old.corrupt()) corruptionIs(old.slot);
  if (old.found() && old.value == v) return true;
  if (!w->is(v)) return false;
  if (!old.found() && keys_.insert(k).second) lengthCountAdd(k, 1);
  notifiees_.forEach([&](NotifieeConst& n) { n.onRpHash(k); });
  return true;
}

RpHash RpHashStatus::rpHashDel(const Nimo::IpGenPrefix& k) {
  const auto& w = rpHash_.writer();
  KEL_ASSERT(w && "table not mounted for writing");
  const ::Drobe::Lookup<RpHash> old = w->lookup(k);
  if (old.corrupt()) corruptionIs(old.slot);
  if (!old.found() || !w->del(k)) return RpHash();
  if (keys_.erase(k)) lengthCountAdd(k, -1);
  notifiees_.forEach([&](NotifieeConst& n) { n.onRpHash(k); });
  return old.value;
}

void RpHashStatus::rpHashDelAll() {
  // Key by key, so that every reader hears of each entry.
  std::vector<Nimo::IpGenPrefix> keys;
  keys.reserve(rpHash_.size());
  rpHash_.forEach([&](const RpHash& e) { keys.push_back(e.key()); });
  for (const auto& k : keys) rpHashDel(k);
}

void RpHashStatus::rpHashCommit(const RpHash& entry) {
  rpHash_.commit();
  notifiees_.forEach([&](NotifieeConst& n) { n.onRpHash(entry.key()); });
}

void RpHashStatus::corruptionIs(std::uint32_t slot) {
  FLICK_TRACE(DrobeDetail::pimDrobeTrace(), 1, "{}: corrupt rpHash entry at slot {}, cleared",
              name().str(), slot);
  rpHash_.writer()->corruptionIs(slot);
}

RpHash RpHashStatus::rpForGroup(const Nimo::IpGenAddr& group) const {
  if (!group.isSet()) return RpHash();
  for (std::uint8_t len : lengths_[familyIndex(group.af())]) {
    if (auto e = rpHash_.find(Nimo::IpGenPrefix(group, len).masked())) return *e;
  }
  return RpHash();
}

const std::vector<std::uint8_t>& RpHashStatus::maskLengths(Nimo::AddressFamily af) const {
  return lengths_[familyIndex(af)];
}

void RpHashStatus::lengthCountAdd(const Nimo::IpGenPrefix& k, int delta) {
  const std::size_t f = familyIndex(k.af());
  std::uint32_t& c = lengthCount_[f][k.maskLen()];
  const bool was = c != 0;
  c = static_cast<std::uint32_t>(static_cast<int>(c) + delta);
  if (was == (c != 0)) return;
  auto& v = lengths_[f];
  if (c) {
    v.insert(std::upper_bound(v.begin(), v.end(), k.maskLen(), std::greater<>()), k.maskLen());
  } else {
    std::erase(v, k.maskLen());
  }
}

void RpHashStatus::handleKey(const Nimo::IpGenPrefix& k) {
  // Idempotent: a notice may repeat, or describe a state the table has already left.
  const bool present = rpHash_.find(k).has_value();
  if (present && keys_.insert(k).second) lengthCountAdd(k, 1);
  if (!present && keys_.erase(k)) lengthCountAdd(k, -1);
  notifiees_.forEach([&](NotifieeConst& n) { n.onRpHash(k); });
}

void RpHashStatus::handleCollection() {
  indexRebuild();
  notifiees_.forEach([](NotifieeConst& n) { n.onRpHashImmediate(); });
  notifiees_.forEach([](NotifieeConst& n) { n.onRpHash(); });
}

void RpHashStatus::indexRebuild() {
  keys_.clear();
  lengthCount_ = {};
  for (auto& v : lengths_) v.clear();
  rpHash_.forEach([&](const RpHash& e) {
    if (keys_.insert(e.key()).second) lengthCountAdd(e.key(), 1);
  });
}

Kel::Ptr<RpHashStatus> rpHashStatusFactory(const Kel::Name& name) {
  return Kel::Ptr<RpHashStatus>::make(name);
}

}  // namespace Routing::Pim
