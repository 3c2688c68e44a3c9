// PimCore: print forms of the agent-side PIM types.
#include "Pim/platform/PimCore.h"

namespace Routing::Pim {

std::ostream& operator<<(std::ostream& os, const JoinPruneData::Bookmark& b) {
  using C = JoinPruneData::Bookmark::Collection;
  os << "Bookmark: (" << b.group() << ", " << b.source() << ") Collection: ";
  switch (b.collection()) {
    case C::StarG:
      os << "(*,G)";
      break;
    case C::SgRpt:
      os << "(S,G,rpt)";
      break;
    case C::Sg:
      os << "(S,G)";
      break;
    default:
      os << "unknown";
      break;
  }
  return os << (b.type() == JoinPruneData::Bookmark::Type::Join ? " Type: join" : " Type: prune");
}

}  // namespace Routing::Pim

// ---------------------------------------------------------------------------------------
// RpfConfig, RpfStatus

namespace Routing::Pim {

void RpfConfig::rpfConfigInfoIs(const RouteKey& k, const RpfConfigInfo& v) {
  auto [it, added] = info_.try_emplace(k, v);
  if (!added) {
    if (it->second == v) return;
    it->second = v;
  }
  rpfConfigInfoNotify(k);
}

void RpfConfig::rpfConfigInfoDel(const RouteKey& k) {
  if (info_.erase(k) == 0) return;
  rpfConfigInfoNotify(k);
}

void RpfConfig::rpfConfigInfoDelAll() {
  if (info_.empty()) return;
  info_.clear();
  notifiees_.forEach([](NotifieeConst& n) { n.onRpfConfigInfo(); });
}

void RpfStatus::addrIs(AddrMap& m, const RouteKey& k, const Nimo::IpGenAddr& a, bool wc) {
  auto [it, added] = m.try_emplace(k, a);
  if (!added) {
    if (it->second == a) return;
    it->second = a;
  }
  notifiees_.forEach(
      [&](NotifieeConst& n) { wc ? n.onUnresolvedWcRoute(k) : n.onUnresolvedRoute(k); });
}

void RpfStatus::addrDel(AddrMap& m, const RouteKey& k, bool wc) {
  if (m.erase(k) == 0) return;
  notifiees_.forEach(
      [&](NotifieeConst& n) { wc ? n.onUnresolvedWcRoute(k) : n.onUnresolvedRoute(k); });
}

void RpfStatus::addrDelAll(AddrMap& m, bool wc) {
  if (m.empty()) return;
  m.clear();
  notifiees_.forEach([&](NotifieeConst& n) {
    wc ? n.onUnresolvedWcRouteImmediate() : n.onUnresolvedRouteImmediate();
  });
  notifiees_.forEach(
      [&](NotifieeConst& n) { wc ? n.onUnresolvedWcRoute() : n.onUnresolvedRoute(); });
}

void RpfStatus::unresolvedRouteIs(const RouteKey& k, const Nimo::IpGenAddr& target) {
  addrIs(unresolved_, k, target, false);
}
void RpfStatus::unresolvedRouteDel(const RouteKey& k) { addrDel(unresolved_, k, false); }
void RpfStatus::unresolvedRouteDelAll() { addrDelAll(unresolved_, false); }
void RpfStatus::unresolvedWcRouteIs(const RouteKey& k, const Nimo::IpGenAddr& rp) {
  addrIs(unresolvedWc_, k, rp, true);
}
void RpfStatus::unresolvedWcRouteDel(const RouteKey& k) { addrDel(unresolvedWc_, k, true); }
void RpfStatus::unresolvedWcRouteDelAll() { addrDelAll(unresolvedWc_, true); }

void RpfStatus::rpfRouteChangedIs(const RouteKey& k) {
  if (!changed_.insert(k).second) return;
  notifiees_.forEach([&](NotifieeConst& n) { n.onRpfRouteChanged(k); });
}

void RpfStatus::rpfRouteChangedDel(const RouteKey& k) {
  if (changed_.erase(k) == 0) return;
  notifiees_.forEach([&](NotifieeConst& n) { n.onRpfRouteChanged(k); });
}

void RpfStatus::rpfRouteChangedDelAll() {
  if (changed_.empty()) return;
  changed_.clear();
  notifiees_.forEach([](NotifieeConst& n) { n.onRpfRouteChanged(); });
}

void RpfStatus::rpfRouteChangedCountInc(const RouteKey& k, std::uint64_t n) {
  if (n == 0) return;
  count_ += n;
  notifiees_.forEach([&](NotifieeConst& w) { w.onRpfRouteChangedCount(k); });
}

void RpfStatus::rpfRouteChangedCountIs(std::uint64_t n) {
  if (n == count_) return;
  count_ = n;
  notifiees_.forEach([](NotifieeConst& w) { w.onRpfRouteChangedCount(); });
}

}  // namespace Routing::Pim
