#include "Pim/PimRpfTable.h"

#include <fmt/ranges.h>

namespace Routing::Pim {

namespace {

// Trace texts, in the order a lookup meets them.
constexpr std::string_view kNoRoute = " No route ";
constexpr std::string_view kUribRoute = ": Urib route, vias: ";
constexpr std::string_view kMribRoute = ": Mrib route, vias: ";
constexpr std::string_view kMcRibRoute = ": McRib route, vias: ";
constexpr std::string_view kViaIndexRange =
    "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed";
constexpr std::string_view kPodArraySize = "PodArray::set expected size <= ";
constexpr std::string_view kFecMissing = ": FEC missing from its table: ";
constexpr std::string_view kNotValidVia = " is not a valid via.";
constexpr std::string_view kReceive4 = " Routing::Fib::receive => attached = true ";
constexpr std::string_view kReceive6 = " Routing6::Fib::receive => attached = true ";
constexpr std::string_view kLoopback = " Loopback contains target => attached = true ";
constexpr std::string_view kVv4 = " vv: ";
constexpr std::string_view kVv6 = ", vv: ";
constexpr std::string_view kHasBoundary = ", has boundary for group ";
constexpr std::string_view kNoPimNeighbor = " non attached route, no pim neighbor ";
constexpr std::string_view kOtherIntf = ": valid via on another interface ignored: ";
constexpr std::string_view kViaHop = ": Via hop is ";
constexpr std::string_view kViaIntf = ", via intf is: ";
constexpr std::string_view kRibLookup = ": Rib lookup returned RPF ";
constexpr std::string_view kNoValidRpf = ": No valid RPF information found ";
constexpr std::string_view kRpf = ": rpf ";
constexpr std::string_view kNoFrr = ": No need for rpfFrr if rpfAttached ";
constexpr std::string_view kRpfFrr = ": rpfFrr ";
constexpr std::string_view kInvalidNoIntf = ", RPF invalid, no interface";
constexpr std::string_view kInvalidNoMrib = ", RPF invalid, no MRIB route";
constexpr std::string_view kInvalidRib = ", RPF invalid, invalid RIB";
constexpr std::string_view kInvalidChanged = ", RPF invalid, route or next hops changed";
constexpr std::string_view kInvalidEcmp = ", RPF invalid, equal-cost choice needs the group";
constexpr std::string_view kRibRouteNone = "No route. Returning";

// A slot caught mid-rewrite is read again this many times before the RIB gives up.
constexpr int kChangingRetries = 8;

Flicklog::Facility& trace() {
  static Flicklog::Facility& f = Flicklog::facility("PimRpfTable");
  return f;
}

// The route-type rules both families share; only the host mask length differs.
template <typename RouteType, int kHostLen>
struct FamRules {
  static bool direct(RouteType t) noexcept {
    return t == RouteType::receive || t == RouteType::connected || t == RouteType::attached;
  }
  static bool host(RouteType t, const Nimo::IpGenPrefix& p) noexcept {
    return t == RouteType::host && p.maskLen() == kHostLen;
  }
};

template <Nimo::AddressFamily F>
struct Fam;

template <>
struct Fam<Nimo::AddressFamily::ipv4> : FamRules<Routing::Fib::RouteType, 32> {
  using Via = Routing::Fib::Via;
  using Route = Routing::Fib::Route;
  using RouteType = Routing::Fib::RouteType;
  using Shadow = Routing::Shadow::Status;
  using RouteTable = RouteTable4;
  using FecTable = FecTable4;
  using FecPart = Routing::Fib::FecPart;
  static constexpr std::string_view kReceive = kReceive4;
  static constexpr std::string_view kVv = kVv4;
  static PimRpfTable::ViaSet& viaSet(PimRpfTable& t) noexcept { return t.viaSet(); }
};

template <>
struct Fam<Nimo::AddressFamily::ipv6> : FamRules<Routing6::Fib::RouteType, 128> {
  using Via = Routing6::Fib::Via;
  using Route = Routing6::Fib::Route;
  using RouteType = Routing6::Fib::RouteType;
  using Shadow = Routing6::Shadow::Status;
  using RouteTable = RouteTable6;
  using FecTable = FecTable6;
  using FecPart = Routing6::Fib::FecPart;
  static constexpr std::string_view kReceive = kReceive6;
  static constexpr std::string_view kVv = kVv6;
  static PimRpfTable::ViaSet6& viaSet(PimRpfTable& t) noexcept { return t.viaSet6(); }
};

enum class RibKind { urib, mrib, mcRib };

template <Nimo::AddressFamily F>
struct RibRef {
  const typename Fam<F>::Shadow* shadow;
  const typename Fam<F>::RouteTable* routes;
  const typename Fam<F>::FecTable* fecs;
  RibKind kind;
};

RibRef<Nimo::AddressFamily::ipv4> rib4(const PimUcastRouteStatus& u, RibKind k) {
  switch (k) {
    case RibKind::urib:
      return {u.uribShadowStatus().ptr(), u.uribStatus().ptr(), u.uribFec().ptr(), k};
    case RibKind::mrib:
      // The multicast RIB's routes name FECs of the unicast FEC table.
      return {u.mribShadowStatus().ptr(), u.mribStatus().ptr(), u.uribFec().ptr(), k};
    case RibKind::mcRib:
      break;
  }
  return {u.mcRibShadowStatus().ptr(), u.mcRibStatus().ptr(), u.mcFec().ptr(), k};
}

RibRef<Nimo::AddressFamily::ipv6> urib6(const PimUcastRouteStatus& u) {
  return {u.urib6ShadowStatus().ptr(), u.urib6Status().ptr(), u.urib6Fec().ptr(), RibKind::urib};
}

std::string_view routeText(RibKind k) {
  return k == RibKind::urib ? kUribRoute : k == RibKind::mrib ? kMribRoute : kMcRibRoute;
}

// Bob Jenkins' one-at-a-time step over an address's bytes (network order, no family byte).
inline std::uint32_t oaat(std::uint32_t h, const Nimo::IpGenAddr& a) noexcept {
  const std::uint8_t* b = a.bytes();
  for (std::uint8_t i = 0, n = a.byteLength(); i < n; ++i) {
    h = (h + b[i]) * 1025u;
    h ^= h >> 6;
  }
  return h;
}
inline std::uint32_t oaatFinish(std::uint32_t h) noexcept {
  h *= 9u;
  h ^= h >> 11;
  return h * 32769u;
}

// The route covering target in one RIB: trie match, record from the table, parent walk
// while the record is absent.
template <Nimo::AddressFamily F>
bool matchRoute(const RibRef<F>& rib, const Nimo::IpGenAddr& target, typename Fam<F>::Route& out) {
  if (!rib.shadow || !rib.routes) return false;
  const auto& trie = *rib.shadow->trie();
  for (const auto* e = trie.longestMatch(target); e;) {
    Drobe::FindStatus st = Drobe::FindStatus::changing;
    for (int i = 0; i < kChangingRetries && st == Drobe::FindStatus::changing; ++i) {
      st = rib.routes->findStatus(e->prefix, out);
    }
    if (st == Drobe::FindStatus::found) return true;
    if (st == Drobe::FindStatus::changing) return false;
    e = trie.findParent(e->prefix);
  }
  return false;
}

// The route's vias into the table's fixed array; throws the range error past 512.
template <Nimo::AddressFamily F>
std::optional<std::span<const typename Fam<F>::Via>> loadFec(PimRpfTable& t,
                                                             const typename Fam<F>::FecTable* fecs,
                                                             const typename Fam<F>::Route& r,
                                                             const Nimo::IpGenAddr& target) {
  using Via = typename Fam<F>::Via;
  std::span<Via> arr = t.viaArray<Via>();
  if (r.fecId == 0) return std::span<const Via>();
  typename Fam<F>::FecPart part;
  if (!fecs || fecs->findStatus(Routing::FecKey{r.fecId, 0}, part) != Drobe::FindStatus::found) {
    FLICK_TRACE(trace(), 4, "{}{}{}", target, kFecMissing, r.fecId);
    return std::nullopt;
  }
  const std::uint32_t count = part.viaCount;
  if (count > arr.size()) {
    FLICK_TRACE(trace(), 4, "{}{}, got {}", kPodArraySize, arr.size(), count);
    throw Kel::RangeError(std::string(kViaIndexRange));
  }
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t p = i / Routing::kViasPerPart;
    if (p != part.fecKey.part &&
        (fecs->findStatus(Routing::FecKey{r.fecId, p}, part) != Drobe::FindStatus::found ||
         part.viaCount != count)) {
      FLICK_TRACE(trace(), 4, "{}{}{}", target, kFecMissing, r.fecId);
      return std::nullopt;
    }
    arr[i] = part.via[i % Routing::kViasPerPart];
  }
  return std::span<const Via>(arr.data(), count);
}

template <Nimo::AddressFamily F>
ValidVia validPimVia(PimRpfTable& t, const Kel::Ptr<Boundary::McastBoundary>& boundary,
                     const typename Fam<F>::Via& via, typename Fam<F>::RouteType type,
                     const Nimo::IpGenPrefix& prefix, const Nimo::IpGenAddr& target,
                     const Nimo::IpGenAddr& group) {
  using T = Fam<F>;
  FLICK_TRACE(trace(), 8, "{}: via {} {}, route type {}, prefix {}", target, via.hop, via.intfId,
              static_cast<int>(type), prefix);
  ValidVia vv;
  const StatusIntf* intf = t.status() ? t.status()->intf(via.intfId) : nullptr;
  if (!intf) {
    if (type == T::RouteType::receive) {
      FLICK_TRACE(trace(), 8, "{}{}", target, T::kReceive);
      vv = ValidVia(true, true);
    } else if (via.intfId.name().starts_with("Loopback")) {
      FLICK_TRACE(trace(), 8, "{}{}", target, kLoopback);
      vv = ValidVia(true, true);
    }
    FLICK_TRACE(trace(), 8, "{}{}{}", target, T::kVv, Kel::valueToStrep(vv));
    return vv;
  }
  FLICK_TRACE(trace(), 8, "{}: route type {}, hop {}, intf addr {}", target, static_cast<int>(type),
              via.hop, intf->primaryAddr);
  if (group.isSet() && !group.isZero() && t.mcastBoundaryStatus() &&
      boundary->filtered(via.intfId, group)) {
    FLICK_TRACE(trace(), 8, "{}{}{}", target, kHasBoundary, group);
    FLICK_TRACE(trace(), 8, "{}{}{}", target, T::kVv, Kel::valueToStrep(vv));
    return vv;
  }
  bool attached = !via.hop.isSet() || via.hop.isZero() || via.hop == intf->primaryAddr ||
                  T::direct(type) || (T::host(type, prefix) && prefix.address() == target);
  if (attached) {
    vv = ValidVia(true, true);
  } else if (t.status()->activeNeighbor(
                 ActiveNeighborKey{via.intfId, t.getRpfNeighbor(via.intfId, via.hop)})) {
    vv = ValidVia(true, false);
  } else {
    FLICK_TRACE(trace(), 8, "{}{}", target, kNoPimNeighbor);
  }
  FLICK_TRACE(trace(), 8, "{}{}{}", target, T::kVv, Kel::valueToStrep(vv));
  return vv;
}

template <typename Via>
Via selectVia(const ViaSetGen<Via>& set, const Routing::Multicast::Fib::Config* cfg,
              const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group) {
  Via best{};
  if (set.empty()) return best;
  auto higher = [](const Via& a, const Via& b) {  // a beats b on hop, then interface
    return a.hop != b.hop ? a.hop > b.hop : a.intfId > b.intfId;
  };
  if (cfg && cfg->multipathControl() ==
                 Routing::Multicast::Fib::Config::MultipathControl::highestNexthop) {
    best = set.begin()->via;
    for (const auto& i : set)
      if (higher(i.via, best)) best = i.via;
    return best;
  }
  if (set.size() == 1) return set.begin()->via;
  const std::uint32_t h = oaat(oaat(0, target), group);
  std::uint32_t bestHash = 0;
  bool first = true;
  for (const auto& i : set) {
    const std::uint32_t v = oaatFinish(oaat(h, i.via.hop));
    if (first || v > bestHash || (v == bestHash && higher(i.via, best))) {
      best = i.via;
      bestHash = v;
      first = false;
    }
  }
  return best;
}

template <Nimo::AddressFamily F>
Rpf buildRpf(PimRpfTable& t, const Nimo::IpGenAddr& target, const typename Fam<F>::Via& via,
             bool attached, RpfRib ribOf, const typename Fam<F>::Route& route) {
  FLICK_TRACE(trace(), 8, "{}{}{}{}{}", target, kViaHop, via.hop, kViaIntf, via.intfId);
  Rpf rpf;
  rpf.rpfIntf = via.intfId;
  rpf.rpfNeighbor = attached ? target : t.getRpfNeighbor(via.intfId, via.hop);
  rpf.target = target;
  rpf.prefix = route.prefix;
  rpf.metric = route.metric;
  rpf.preference = route.preference;
  rpf.rib = ribOf;
  FLICK_TRACE(trace(), 8, "{}{}{}", target, kRibLookup, Kel::valueToStrep(rpf));
  return rpf;
}

template <Nimo::AddressFamily F>
ValidVia validPimViaOf(PimRpfTable& t, const typename Fam<F>::Via& via,
                       typename Fam<F>::RouteType type, const Nimo::IpGenPrefix& prefix,
                       const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group) {
  if constexpr (F == Nimo::AddressFamily::ipv4) {
    return t.validPimVia4(via, type, prefix, target, group);
  } else {
    return t.validPimVia6(via, type, prefix, target, group);
  }
}

template <Nimo::AddressFamily F>
void fillViaSet(PimRpfTable& t, const typename Fam<F>::Route& route,
                std::span<const typename Fam<F>::Via> vias, const Nimo::IpGenAddr& target,
                const Nimo::IpGenAddr& group, const Nimo::IntfId* onlyIntf);
template <Nimo::AddressFamily F>
RpfInfo rpfFromViaSet(PimRpfTable& t, const typename Fam<F>::Route& route, RpfRib ribOf,
                      const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group);

// Match, FEC and via validation into the via set. The matched route, or nullopt with no route.
// With onlyIntf set, vias elsewhere are traced and left out.
template <Nimo::AddressFamily F>
std::optional<typename Fam<F>::Route> collectVias(PimRpfTable& t, const RibRef<F>& rib,
                                                  const Nimo::IpGenAddr& target,
                                                  const Nimo::IpGenAddr& group,
                                                  const Nimo::IntfId* onlyIntf) {
  auto& set = Fam<F>::viaSet(t);
  set.viaDelAll();
  typename Fam<F>::Route route;
  if (!matchRoute(rib, target, route)) {
    FLICK_TRACE(trace(), 4, "{}{}", target, kNoRoute);
    return std::nullopt;
  }
  const auto vias = loadFec<F>(t, rib.fecs, route, target);
  if (!vias) return route;
  if (trace().enabled(8)) {
    std::string list;
    for (const auto& v : *vias) list += fmt::format("{}@{} ", v.hop, v.intfId);
    FLICK_TRACE(trace(), 8, "{}{}{}", target, routeText(rib.kind), list);
  }
  fillViaSet<F>(t, route, *vias, target, group, onlyIntf);
  return route;
}

// Validates the vias of the route into the via set (which the caller cleared).
template <Nimo::AddressFamily F>
void fillViaSet(PimRpfTable& t, const typename Fam<F>::Route& route,
                std::span<const typename Fam<F>::Via> vias, const Nimo::IpGenAddr& target,
                const Nimo::IpGenAddr& group, const Nimo::IntfId* onlyIntf) {
  auto& set = Fam<F>::viaSet(t);
  for (const auto& via : vias) {
    const ValidVia vv = validPimViaOf<F>(t, via, route.routeType, route.prefix, target, group);
    if (!vv.validVia) {
      FLICK_TRACE(trace(), 8, "{}{}", target, kNotValidVia);
      continue;
    }
    if (onlyIntf && via.intfId != *onlyIntf) {
      FLICK_TRACE(trace(), 8, "{}{}{}", target, kOtherIntf, via.intfId);
      continue;
    }
    set.viaIs(via, vv.attachedVia);
  }
}

template <Nimo::AddressFamily F>
RpfInfo lookupRib(PimRpfTable& t, const RibRef<F>& rib, const Nimo::IpGenAddr& target,
                  const Nimo::IpGenAddr& group, const Nimo::IntfId* onlyIntf = nullptr) {
  const auto route = collectVias<F>(t, rib, target, group, onlyIntf);
  if (!route) return RpfInfo();
  return rpfFromViaSet<F>(t, *route, rib.kind == RibKind::urib ? RpfRib::U : RpfRib::M, target,
                          group);
}

// The answer from the via set: the choice, its Rpf marked ribOf, and the backup.
template <Nimo::AddressFamily F>
RpfInfo rpfFromViaSet(PimRpfTable& t, const typename Fam<F>::Route& route, RpfRib ribOf,
                      const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group) {
  auto& set = Fam<F>::viaSet(t);
  if (set.empty()) {
    FLICK_TRACE(trace(), 4, "{}{}", target, kNoValidRpf);
    return RpfInfo();
  }
  const auto* cfg = t.mfibConfig().ptr();
  const auto chosen = selectVia(set, cfg, target, group);
  const bool attached = set.find(chosen)->attached;
  RpfInfo info(buildRpf<F>(t, target, chosen, attached, ribOf, route), attached, set.size());
  FLICK_TRACE(trace(), 4, "{}{}{}", target, kRpf, Kel::valueToStrep(info.rpf));
  if (attached) {
    FLICK_TRACE(trace(), 4, "{}{}", target, kNoFrr);
    return info;
  }
  // The backup never shares the primary's interface.
  set.viaDelIf([&](const auto& v) { return v.intfId == chosen.intfId; });
  if (set.empty()) return info;
  const auto backup = selectVia(set, cfg, target, group);
  info.rpfFrrAttached = set.find(backup)->attached;
  info.rpfFrr = buildRpf<F>(t, target, backup, info.rpfFrrAttached, ribOf, route);
  FLICK_TRACE(trace(), 4, "{}{}{}", target, kRpfFrr, Kel::valueToStrep(info.rpfFrr));
  return info;
}

// validRpf against one family's RIBs in lookup order.
template <Nimo::AddressFamily F, std::size_t N>
bool validRpfIn(PimRpfTable& t, const Rpf& rpf, const Nimo::IpGenAddr& target,
                const std::array<RibRef<F>, N>& ribs) {
  const Nimo::IpGenAddr noGroup;
  for (const RibRef<F>& rib : ribs) {
    const auto route = collectVias<F>(t, rib, target, noGroup, nullptr);
    auto& set = Fam<F>::viaSet(t);
    if (!route || set.empty()) continue;  // a fresh lookup would move on too
    if (route->prefix != rpf.prefix || route->metric != rpf.metric ||
        route->preference != rpf.preference) {
      FLICK_TRACE(trace(), 4, "{}{}", target, kInvalidChanged);
      return false;
    }
    const auto* cfg = t.mfibConfig().ptr();
    const bool highest =
        cfg && cfg->multipathControl() ==
                   Routing::Multicast::Fib::Config::MultipathControl::highestNexthop;
    if (set.size() > 1 && !highest) {
      FLICK_TRACE(trace(), 4, "{}{}", target, kInvalidEcmp);
      return false;
    }
    const auto chosen = selectVia(set, cfg, target, noGroup);
    const bool attached = set.find(chosen)->attached;
    const Nimo::IpGenAddr nbr = attached ? target : t.getRpfNeighbor(chosen.intfId, chosen.hop);
    if (chosen.intfId != rpf.rpfIntf || nbr != rpf.rpfNeighbor) {
      FLICK_TRACE(trace(), 4, "{}{}", target, kInvalidChanged);
      return false;
    }
    return true;
  }
  FLICK_TRACE(trace(), 4, "{}{}", target, rpf.rib == RpfRib::M ? kInvalidNoMrib : kInvalidChanged);
  return false;
}

template <Nimo::AddressFamily F>
bool ribRouteIn(const Rpf& rpf, const typename Fam<F>::Shadow* shadow,
                const Nimo::IpGenAddr& target) {
  const auto* e = shadow ? shadow->trie()->longestMatch(target) : nullptr;
  if (!e) {
    FLICK_TRACE(trace(), 4, "{}", kRibRouteNone);
    return false;
  }
  return e->prefix == rpf.prefix && e->payload.metric == rpf.metric &&
         e->payload.preference == rpf.preference;
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const RpfInfo& r) { return os << Kel::valueToStrep(r); }
std::ostream& operator<<(std::ostream& os, const ValidVia& v) { return os << Kel::valueToStrep(v); }

std::uint32_t rpfViaHash(const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group,
                         const Nimo::IpGenAddr& hop) noexcept {
  return oaatFinish(oaat(oaat(oaat(0, target), group), hop));
}

PimRpfTable::PimRpfTable(Kel::Ptr<PimUcastRouteStatus> ucastRouteStatus,
                         Kel::Ptr<const Routing::Pim::Status> status,
                         Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
                         Kel::Ptr<const Interface::IntfStatusDir> allIntfStatusDir,
                         Kel::Ptr<const Routing::McastBoundary::Status> mcastBoundaryStatus)
    : Kel::Entity("PimRpfTable"),
      ucast_(std::move(ucastRouteStatus)),
      status_(std::move(status)),
      mfibConfig_(std::move(mfibConfig)),
      allIntfStatusDir_(std::move(allIntfStatusDir)),
      mcastBoundaryStatus_(std::move(mcastBoundaryStatus)),
      boundary_(Boundary::mcastBoundaryFactory("PimRpfTable", mcastBoundaryStatus_)) {
  if (!ucast_) ucast_ = Kel::Ptr<PimUcastRouteStatus>::make("ucast");
}

template <>
std::span<Routing::Fib::Via> PimRpfTable::viaArray<Routing::Fib::Via>() noexcept {
  return vias4_;
}
template <>
std::span<Routing6::Fib::Via> PimRpfTable::viaArray<Routing6::Fib::Via>() noexcept {
  return vias6_;
}

RpfInfo PimRpfTable::doLookup(const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group) {
  Kel::Ptr<PimRpfTable> self(this);
  try {
    switch (target.af()) {
      case Nimo::AddressFamily::ipv4:
        return doLookup4(self, target, group);
      case Nimo::AddressFamily::ipv6: {
        RpfInfo info;
        if (!info) info = doLookupUrib6(self, target, group);
        return info;
      }
      default:
        return RpfInfo();
    }
  } catch (const Kel::RangeError& e) {
    // A table written by another process is input: refuse it here, never in the agent.
    ++fecErrors_;
    FLICK_TRACE(trace(), 4, "{}: {}", target, e.what());
    viaSetDelAll();
    viaSet6DelAll();
    return RpfInfo();
  }
}

bool PimRpfTable::validRpf(const Rpf& rpf, const Nimo::IpGenAddr& target) {
  Kel::Ptr<PimRpfTable> self(this);
  try {
    return target.af() == Nimo::AddressFamily::ipv6 ? validRpf6(self, rpf, target)
                                                    : validRpf4(self, rpf, target);
  } catch (const Kel::RangeError& e) {
    ++fecErrors_;
    FLICK_TRACE(trace(), 4, "{}: {}", target, e.what());
    return false;
  }
}

RpfInfo PimRpfTable::rpfInfoFromIntfId(const Nimo::IntfId& intfId, const Nimo::IpGenAddr& target,
                                       const Nimo::IpGenAddr& group) {
  Kel::Ptr<PimRpfTable> self(this);
  try {
    if (target.af() == Nimo::AddressFamily::ipv4) {
      return rpfInfoFromIntfId4(self, intfId, target, group);
    }
    if (target.af() == Nimo::AddressFamily::ipv6) {
      return lookupRib<Nimo::AddressFamily::ipv6>(*this, urib6(*ucast_), target, group, &intfId);
    }
  } catch (const Kel::RangeError& e) {
    ++fecErrors_;
    FLICK_TRACE(trace(), 4, "{}: {}", target, e.what());
  }
  return RpfInfo();
}

Nimo::IpGenAddr PimRpfTable::getRpfNeighbor(const Nimo::IntfId& intfId,
                                            const Nimo::IpGenAddr& hop) const {
  if (!status_) return hop;
  const Nimo::IpGenAddr* primary = status_->neighborSecondary(ActiveNeighborKey{intfId, hop});
  return primary ? *primary : hop;
}

ValidVia PimRpfTable::validPimVia4(const Routing::Fib::Via& via, Routing::Fib::RouteType type,
                                   const Nimo::IpGenPrefix& prefix, const Nimo::IpGenAddr& target,
                                   const Nimo::IpGenAddr& group) {
  return validPimVia<Nimo::AddressFamily::ipv4>(*this, boundary_, via, type, prefix, target, group);
}

ValidVia PimRpfTable::validPimVia6(const Routing6::Fib::Via& via, Routing6::Fib::RouteType type,
                                   const Nimo::IpGenPrefix& prefix, const Nimo::IpGenAddr& target,
                                   const Nimo::IpGenAddr& group) {
  return validPimVia<Nimo::AddressFamily::ipv6>(*this, boundary_, via, type, prefix, target, group);
}

Kel::Ptr<PimRpfTable> pimRpfTableFactory(
    Kel::Ptr<PimUcastRouteStatus> ucastRouteStatus, Kel::Ptr<const Routing::Pim::Status> status,
    Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
    Kel::Ptr<const Interface::IntfStatusDir> allIntfStatusDir,
    Kel::Ptr<const Routing::McastBoundary::Status> mcastBoundaryStatus) {
  auto t = Kel::Ptr<PimRpfTable>::make(std::move(ucastRouteStatus), std::move(status),
                                       std::move(mfibConfig), std::move(allIntfStatusDir),
                                       std::move(mcastBoundaryStatus));
  t->handleInitialized();
  return t;
}

RpfInfo doLookup4(const Kel::Ptr<PimRpfTable>& table, const Nimo::IpGenAddr& target,
                  const Nimo::IpGenAddr& group) {
  const PimUcastRouteStatus& u = *table->ucastRouteStatus();
  for (RibKind k : {RibKind::mcRib, RibKind::mrib, RibKind::urib}) {
    RpfInfo info = lookupRib<Nimo::AddressFamily::ipv4>(*table, rib4(u, k), target, group);
    if (!!info) return info;
  }
  return RpfInfo();
}

RpfInfo doLookupUrib6(const Kel::Ptr<PimRpfTable>& table, const Nimo::IpGenAddr& target,
                      const Nimo::IpGenAddr& group) {
  return lookupRib<Nimo::AddressFamily::ipv6>(*table, urib6(*table->ucastRouteStatus()), target,
                                              group);
}

bool validRpf4(const Kel::Ptr<PimRpfTable>& table, const Rpf& rpf, const Nimo::IpGenAddr& target) {
  const PimUcastRouteStatus& u = *table->ucastRouteStatus();
  if (rpf.rpfIntf.empty()) {
    FLICK_TRACE(trace(), 4, "{}{}", target, kInvalidNoIntf);
    return false;
  }
  if (rpf.rib == RpfRib::U) {
    if (!ribRoute(rpf, u.uribShadowStatus(), target)) return false;
    // A lookup now answering from a multicast RIB would take that answer first.
    for (RibKind k : {RibKind::mcRib, RibKind::mrib}) {
      if (collectVias<Nimo::AddressFamily::ipv4>(*table, rib4(u, k), target, Nimo::IpGenAddr(),
                                                 nullptr) &&
          !table->viaSet().empty()) {
        FLICK_TRACE(trace(), 4, "{}{}", target, kInvalidChanged);
        return false;
      }
    }
    return validRpfIn<Nimo::AddressFamily::ipv4, 1>(*table, rpf, target, {rib4(u, RibKind::urib)});
  }
  if (rpf.rib == RpfRib::M) {
    return validRpfIn<Nimo::AddressFamily::ipv4, 2>(
        *table, rpf, target, {rib4(u, RibKind::mcRib), rib4(u, RibKind::mrib)});
  }
  FLICK_TRACE(trace(), 4, "{}{}", target, kInvalidRib);
  return false;
}

bool validRpf6(const Kel::Ptr<PimRpfTable>& table, const Rpf& rpf, const Nimo::IpGenAddr& target) {
  const PimUcastRouteStatus& u = *table->ucastRouteStatus();
  if (rpf.rpfIntf.empty()) {
    FLICK_TRACE(trace(), 4, "{}{}", target, kInvalidNoIntf);
    return false;
  }
  // IPv6 answers only ever come from the unicast RIB.
  if (rpf.rib != RpfRib::U) {
    FLICK_TRACE(trace(), 4, "{}{}", target, kInvalidRib);
    return false;
  }
  if (!ribRoute(rpf, u.urib6ShadowStatus(), target)) return false;
  return validRpfIn<Nimo::AddressFamily::ipv6, 1>(*table, rpf, target, {urib6(u)});
}

RpfInfo rpfInfoFromIntfId4(const Kel::Ptr<PimRpfTable>& table, const Nimo::IntfId& intfId,
                           const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group) {
  const PimUcastRouteStatus& u = *table->ucastRouteStatus();
  for (RibKind k : {RibKind::mcRib, RibKind::mrib, RibKind::urib}) {
    RpfInfo info = lookupRib<Nimo::AddressFamily::ipv4>(*table, rib4(u, k), target, group, &intfId);
    if (!!info) return info;
  }
  return RpfInfo();
}

Routing::Fib::Via doSelectVia(const Kel::Ptr<PimRpfTable>& table, const Nimo::IpGenAddr& target,
                              const Nimo::IpGenAddr& group) {
  return selectVia(table->viaSet(), table->mfibConfig().ptr(), target, group);
}

Routing6::Fib::Via doSelectVia6(const Kel::Ptr<PimRpfTable>& table, const Nimo::IpGenAddr& target,
                                const Nimo::IpGenAddr& group) {
  return selectVia(table->viaSet6(), table->mfibConfig().ptr(), target, group);
}

template <Nimo::AddressFamily F>
static Rpf getRpfOf(const Kel::Ptr<PimRpfTable>& table, const Nimo::IpGenAddr& target,
                    const typename Fam<F>::Via& via, bool attached, bool urib,
                    const typename Fam<F>::Route* uribRoute,
                    const typename Fam<F>::Route* mribRoute,
                    const typename Fam<F>::Route* mcRibRoute) {
  const typename Fam<F>::Route* r = urib ? uribRoute : mcRibRoute ? mcRibRoute : mribRoute;
  typename Fam<F>::Route none;
  return buildRpf<F>(*table, target, via, attached, urib ? RpfRib::U : RpfRib::M, r ? *r : none);
}

Rpf getRpf(const Kel::Ptr<PimRpfTable>& table, const Nimo::IpGenAddr& target,
           const Routing::Fib::Via& via, bool attached, bool urib,
           const Routing::Fib::Route* uribRoute, const Routing::Fib::Route* mribRoute,
           const Routing::Fib::Route* mcRibRoute) {
  return getRpfOf<Nimo::AddressFamily::ipv4>(table, target, via, attached, urib, uribRoute,
                                             mribRoute, mcRibRoute);
}

Rpf getRpf(const Kel::Ptr<PimRpfTable>& table, const Nimo::IpGenAddr& target,
           const Routing6::Fib::Via& via, bool attached, bool urib,
           const Routing6::Fib::Route* uribRoute, const Routing6::Fib::Route* mribRoute,
           const Routing6::Fib::Route* mcRibRoute) {
  return getRpfOf<Nimo::AddressFamily::ipv6>(table, target, via, attached, urib, uribRoute,
                                             mribRoute, mcRibRoute);
}

bool ribRoute(const Rpf& rpf, const Kel::Ptr<Routing::Shadow::Status>& shadow,
              const Nimo::IpGenAddr& target) {
  return ribRouteIn<Nimo::AddressFamily::ipv4>(rpf, shadow.ptr(), target);
}

bool ribRoute(const Rpf& rpf, const Kel::Ptr<Routing6::Shadow::Status>& shadow,
              const Nimo::IpGenAddr& target) {
  return ribRouteIn<Nimo::AddressFamily::ipv6>(rpf, shadow.ptr(), target);
}

// The steps RpfTable shares.

std::optional<std::span<const Routing::Fib::Via>> rpfFecVias(PimRpfTable& t, const FecTable4* fecs,
                                                             const Routing::Fib::Route& route,
                                                             const Nimo::IpGenAddr& target) {
  return loadFec<Nimo::AddressFamily::ipv4>(t, fecs, route, target);
}

std::optional<std::span<const Routing6::Fib::Via>> rpfFecVias(PimRpfTable& t, const FecTable6* fecs,
                                                              const Routing6::Fib::Route& route,
                                                              const Nimo::IpGenAddr& target) {
  return loadFec<Nimo::AddressFamily::ipv6>(t, fecs, route, target);
}

void rpfViaSetFill(PimRpfTable& t, const Routing::Fib::Route& route,
                   std::span<const Routing::Fib::Via> vias, const Nimo::IpGenAddr& target,
                   const Nimo::IpGenAddr& group, const Nimo::IntfId* onlyIntf) {
  t.viaSetDelAll();
  fillViaSet<Nimo::AddressFamily::ipv4>(t, route, vias, target, group, onlyIntf);
}

void rpfViaSetFill(PimRpfTable& t, const Routing6::Fib::Route& route,
                   std::span<const Routing6::Fib::Via> vias, const Nimo::IpGenAddr& target,
                   const Nimo::IpGenAddr& group, const Nimo::IntfId* onlyIntf) {
  t.viaSet6DelAll();
  fillViaSet<Nimo::AddressFamily::ipv6>(t, route, vias, target, group, onlyIntf);
}

RpfInfo rpfFromViaSet(PimRpfTable& t, const Routing::Fib::Route& route, RpfRib rib,
                      const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group) {
  return rpfFromViaSet<Nimo::AddressFamily::ipv4>(t, route, rib, target, group);
}

RpfInfo rpfFromViaSet(PimRpfTable& t, const Routing6::Fib::Route& route, RpfRib rib,
                      const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group) {
  return rpfFromViaSet<Nimo::AddressFamily::ipv6>(t, route, rib, target, group);
}

}  // namespace Routing::Pim
