#include "Pim/RpfTable.h"

namespace Routing::Pim {

namespace {

// Trace texts, in the order a lookup meets them.
// resolveInto's "<function>(), Source: <target>, Group: <group>, No route found in <rib>".
constexpr std::string_view kOtherFamily = ": status entry of another family or prefix: ";
constexpr std::string_view kInvalidNoIntf = ", RPF invalid, no interface";
constexpr std::string_view kInvalidRib = ", RPF invalid, invalid RIB";
constexpr std::string_view kInvalidMribAnswers = ", RPF invalid, the multicast RIB answers";
constexpr std::string_view kRibRouteNone = "No route. Returning";
constexpr std::string_view kIncorrectPrefix = "Incorrect rpf prefix. Returning";
constexpr std::string_view kInvalidVia = ", RPF invalid, no valid via towards the neighbour";

// An entry slot caught mid-rewrite is read again this many times before it counts as none.
constexpr int kChangingRetries = 8;

Flicklog::Facility& trace() {
  static Flicklog::Facility& f = Flicklog::facility("RpfTable");
  return f;
}

template <Nimo::AddressFamily F>
struct Fam;
template <>
struct Fam<Nimo::AddressFamily::ipv4> {
  using Route = Routing::Fib::Route;
  using RouteType = Routing::Fib::RouteType;
  using Info = RibInfo;
  static constexpr std::string_view kRibRoute = "ribRoute4";
  static std::string_view ribName(RpfRib r) { return r == RpfRib::M ? "mrib" : "urib"; }
  static const Info& mrib(const UcastRouteStatus& u) { return u.mrib(); }
  static const Info& urib(const UcastRouteStatus& u) { return u.urib(); }
  static auto& viaSet(RpfTable& t) { return t.viaSet4(); }
};
template <>
struct Fam<Nimo::AddressFamily::ipv6> {
  using Route = Routing6::Fib::Route;
  using RouteType = Routing6::Fib::RouteType;
  using Info = Rib6Info;
  static constexpr std::string_view kRibRoute = "ribRoute6";
  static std::string_view ribName(RpfRib r) { return r == RpfRib::M ? "mrib6" : "urib6"; }
  static const Info& mrib(const UcastRouteStatus& u) { return u.mrib6(); }
  static const Info& urib(const UcastRouteStatus& u) { return u.urib6(); }
  static auto& viaSet(RpfTable& t) { return t.viaSet6(); }
};

// The route the RIB's status entry names for target, with its vias validated into the via
// set. False (traced under fn) when the RIB has no usable route for target.
template <Nimo::AddressFamily F>
bool resolveInto(RpfTable& t, const typename Fam<F>::Info& rib, RpfRib which,
                 const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group, std::string_view fn,
                 const Nimo::IntfId* onlyIntf, typename Fam<F>::Route& route) {
  using T = Fam<F>;
  T::viaSet(t).viaDelAll();
  NexthopStatusEntry e;
  Drobe::FindStatus st = Drobe::FindStatus::absent;
  if (rib.nexthopStatus) {
    st = Drobe::FindStatus::changing;
    for (int i = 0; i < kChangingRetries && st == Drobe::FindStatus::changing; ++i) {
      st = rib.nexthopStatus->entry(target, e);
    }
  }
  bool ok = st == Drobe::FindStatus::found;
  if (ok && (e.prefix.af() != F || !e.prefix.contains(target))) {
    // Input from another process: an entry that cannot be this target's is no route.
    FLICK_TRACE(trace(), 4, "{}{}{}", target, kOtherFamily, e.prefix);
    ok = false;
  }
  if (ok) {
    route.prefix = e.prefix;
    route.fecId = e.fecId;
    route.metric = e.metric;
    route.preference = e.preference;
    route.routeType = static_cast<typename T::RouteType>(e.routeType);
    const auto* fecs = rib.forwardingStatus ? rib.forwardingStatus->fecs().ptr() : nullptr;
    const auto vias = rpfFecVias(t.engine(), fecs, route, target);
    if (vias) {
      rpfViaSetFill(t.engine(), route, *vias, target, group, onlyIntf);
      return true;
    }
  }
  FLICK_TRACE(trace(), 4, "{}(), Source: {}, Group: {}, No route found in {}", fn, target, group,
              T::ribName(which));
  return false;
}

template <Nimo::AddressFamily F>
RpfInfo lookupRib(RpfTable& t, const typename Fam<F>::Info& rib, RpfRib which,
                  const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group, std::string_view fn,
                  const Nimo::IntfId* onlyIntf) {
  typename Fam<F>::Route route;
  if (!resolveInto<F>(t, rib, which, target, group, fn, onlyIntf, route)) return RpfInfo();
  return rpfFromViaSet(t.engine(), route, which, target, group);
}

// Multicast RIB first, the unicast RIB when its answer is empty.
template <Nimo::AddressFamily F>
RpfInfo lookupBoth(RpfTable& t, const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group,
                   std::string_view fn, const Nimo::IntfId* onlyIntf) {
  const UcastRouteStatus& u = *t.ucastRouteStatus();
  // The unicast entry is needed unless the multicast RIB answers: its miss overlaps the
  // multicast read instead of following it.
  if (const auto& s = Fam<F>::urib(u).nexthopStatus) s->prefetch(target);
  RpfInfo info = lookupRib<F>(t, Fam<F>::mrib(u), RpfRib::M, target, group, fn, onlyIntf);
  if (!info) info = lookupRib<F>(t, Fam<F>::urib(u), RpfRib::U, target, group, fn, onlyIntf);
  return info;
}

template <Nimo::AddressFamily F>
bool ribRouteIn(RpfTable& t, const Rpf& rpf, const typename Fam<F>::Info& rib,
                const Nimo::IpGenAddr& target) {
  typename Fam<F>::Route route;
  if (!resolveInto<F>(t, rib, rpf.rib, target, Nimo::IpGenAddr(), Fam<F>::kRibRoute, nullptr,
                      route)) {
    FLICK_TRACE(trace(), 4, "{}", kRibRouteNone);
    return false;
  }
  if (route.prefix != rpf.prefix || route.metric != rpf.metric ||
      route.preference != rpf.preference) {
    FLICK_TRACE(trace(), 4, "{}", kIncorrectPrefix);
    return false;
  }
  for (const auto& i : Fam<F>::viaSet(t)) {
    const Nimo::IpGenAddr nbr = i.attached ? target : t.getRpfNeighbor(i.via.intfId, i.via.hop);
    if (i.via.intfId == rpf.rpfIntf && nbr == rpf.rpfNeighbor) return true;
  }
  FLICK_TRACE(trace(), 4, "{}{}", target, kInvalidVia);
  return false;
}

template <Nimo::AddressFamily F>
bool validRpfIn(RpfTable& t, const Rpf& rpf, const Nimo::IpGenAddr& target) {
  const UcastRouteStatus& u = *t.ucastRouteStatus();
  if (rpf.rib == RpfRib::M) return ribRouteIn<F>(t, rpf, Fam<F>::mrib(u), target);
  if (rpf.rib != RpfRib::U) {
    FLICK_TRACE(trace(), 4, "{}{}", target, kInvalidRib);
    return false;
  }
  if (!ribRouteIn<F>(t, rpf, Fam<F>::urib(u), target)) return false;
  // A lookup now answering from the multicast RIB would take that answer first.
  if (!!lookupRib<F>(t, Fam<F>::mrib(u), RpfRib::M, target, Nimo::IpGenAddr(), Fam<F>::kRibRoute,
                     nullptr)) {
    FLICK_TRACE(trace(), 4, "{}{}", target, kInvalidMribAnswers);
    return false;
  }
  return true;
}

}  // namespace

RpfTable::RpfTable(Kel::Ptr<UcastRouteStatus> ucastRouteStatus,
                   Kel::Ptr<const Routing::Pim::Status> status,
                   Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
                   Kel::Ptr<const Interface::IntfStatusDir> allIntfStatusDir,
                   Kel::Ptr<const Routing::McastBoundary::Status> mcastBoundaryStatus)
    : Kel::Entity("RpfTable"),
      ucast_(std::move(ucastRouteStatus)),
      engine_(pimRpfTableFactory(nullptr, std::move(status), std::move(mfibConfig),
                                 std::move(allIntfStatusDir), std::move(mcastBoundaryStatus))) {
  if (!ucast_) ucast_ = Kel::Ptr<UcastRouteStatus>::make(Nimo::AddressFamily::ipv4);
}

template <typename Fn>
auto RpfTable::guarded(const Nimo::IpGenAddr& target, Fn&& fn) -> decltype(fn()) {
  try {
    return fn();
  } catch (const Kel::RangeError& e) {
    // A table written by another process is input: refuse it here, never in the agent.
    engine_->fecErrorsInc();
    FLICK_TRACE(trace(), 4, "{}: {}", target, e.what());
    viaSet4().viaDelAll();
    viaSet6().viaDelAll();
    return decltype(fn())();
  }
}

RpfInfo RpfTable::doLookup(const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group) {
  return guarded(target, [&] {
    switch (target.af()) {
      case Nimo::AddressFamily::ipv4:
        return lookupBoth<Nimo::AddressFamily::ipv4>(*this, target, group, "doLookup4", nullptr);
      case Nimo::AddressFamily::ipv6:
        return lookupBoth<Nimo::AddressFamily::ipv6>(*this, target, group, "doLookup6", nullptr);
      default:
        return RpfInfo();
    }
  });
}

bool RpfTable::validRpf(const Rpf& rpf, const Nimo::IpGenAddr& target) {
  if (rpf.rpfIntf.empty()) {
    FLICK_TRACE(trace(), 4, "{}{}", target, kInvalidNoIntf);
    return false;
  }
  return guarded(target, [&] {
    switch (target.af()) {
      case Nimo::AddressFamily::ipv4:
        return validRpfIn<Nimo::AddressFamily::ipv4>(*this, rpf, target);
      case Nimo::AddressFamily::ipv6:
        return validRpfIn<Nimo::AddressFamily::ipv6>(*this, rpf, target);
      default:
        return false;
    }
  });
}

RpfInfo RpfTable::rpfInfoFromIntfId(const Nimo::IntfId& intfId, const Nimo::IpGenAddr& target,
                                    const Nimo::IpGenAddr& group) {
  return guarded(target, [&] {
    switch (target.af()) {
      case Nimo::AddressFamily::ipv4:
        return lookupBoth<Nimo::AddressFamily::ipv4>(*this, target, group, "rpfInfoFromIntfId4",
                                                     &intfId);
      case Nimo::AddressFamily::ipv6:
        return lookupBoth<Nimo::AddressFamily::ipv6>(*this, target, group, "rpfInfoFromIntfId6",
                                                     &intfId);
      default:
        return RpfInfo();
    }
  });
}

Kel::Ptr<RpfTable> rpfTableFactory(
    Kel::Ptr<UcastRouteStatus> ucastRouteStatus, Kel::Ptr<const Routing::Pim::Status> status,
    Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
    Kel::Ptr<const Interface::IntfStatusDir> allIntfStatusDir,
    Kel::Ptr<const Routing::McastBoundary::Status> mcastBoundaryStatus) {
  auto t = Kel::Ptr<RpfTable>::make(std::move(ucastRouteStatus), std::move(status),
                                    std::move(mfibConfig), std::move(allIntfStatusDir),
                                    std::move(mcastBoundaryStatus));
  t->handleInitialized();
  return t;
}

RpfInfo doLookup4(const Kel::Ptr<RpfTable>& table, const Nimo::IpGenAddr& target,
                  const Nimo::IpGenAddr& group, const RibInfo& ribInfo, RpfRib rib) {
  return lookupRib<Nimo::AddressFamily::ipv4>(*table, ribInfo, rib, target, group, "doLookup4",
                                              nullptr);
}

RpfInfo doLookup6(const Kel::Ptr<RpfTable>& table, const Nimo::IpGenAddr& target,
                  const Nimo::IpGenAddr& group, const Rib6Info& ribInfo, RpfRib rib) {
  return lookupRib<Nimo::AddressFamily::ipv6>(*table, ribInfo, rib, target, group, "doLookup6",
                                              nullptr);
}

RpfInfo rpfInfoFromIntfId4(const Kel::Ptr<RpfTable>& table, const Nimo::IntfId& intfId,
                           const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group,
                           const RibInfo& ribInfo, RpfRib rib) {
  return lookupRib<Nimo::AddressFamily::ipv4>(*table, ribInfo, rib, target, group,
                                              "rpfInfoFromIntfId4", &intfId);
}

RpfInfo rpfInfoFromIntfId6(const Kel::Ptr<RpfTable>& table, const Nimo::IntfId& intfId,
                           const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group,
                           const Rib6Info& ribInfo, RpfRib rib) {
  return lookupRib<Nimo::AddressFamily::ipv6>(*table, ribInfo, rib, target, group,
                                              "rpfInfoFromIntfId6", &intfId);
}

Routing::Fib::Via doSelectVia4(const Kel::Ptr<RpfTable>& table, const Nimo::IpGenAddr& target,
                               const Nimo::IpGenAddr& group) {
  return doSelectVia(Kel::Ptr<PimRpfTable>(&table->engine()), target, group);
}

Routing6::Fib::Via doSelectVia6(const Kel::Ptr<RpfTable>& table, const Nimo::IpGenAddr& target,
                                const Nimo::IpGenAddr& group) {
  return doSelectVia6(Kel::Ptr<PimRpfTable>(&table->engine()), target, group);
}

bool ribRoute4(const Kel::Ptr<RpfTable>& table, const Rpf& rpf, const RibInfo& ribInfo,
               const Nimo::IpGenAddr& target) {
  return ribRouteIn<Nimo::AddressFamily::ipv4>(*table, rpf, ribInfo, target);
}

bool ribRoute6(const Kel::Ptr<RpfTable>& table, const Rpf& rpf, const Rib6Info& ribInfo,
               const Nimo::IpGenAddr& target) {
  return ribRouteIn<Nimo::AddressFamily::ipv6>(*table, rpf, ribInfo, target);
}

}  // namespace Routing::Pim
