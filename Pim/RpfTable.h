// RpfTable: RPF lookup from next-hop tracking. The routing agents resolve every source and RP
// the PIM agent registered (Routing::NexthopVrfConfig) and publish, per RIB, one status entry
// per address naming the resolving route's prefix and FEC (Routing::NexthopVrfStatus); the
// FECs are in that RIB's forwarding status. This table reads the entry and the FEC instead of
// matching the target in a trie, and answers the same RpfInfo as PimRpfTable.
//
// Reads:
// - UcastRouteStatus: per RIB (urib, mrib, urib6, mrib6) a RibInfo of the next-hop status and
//   the forwarding status. A RibInfo left unset, or with a handle unset, is a RIB without
//   routes.
// - Routing::Pim::Status, Routing::Multicast::Fib::Config, Routing::McastBoundary::Status: as
//   PimRpfTable. Via validation, the equal-cost choice, the Rpf and the backup are
//   PimRpfTable's own functions, called through an engine of that class that holds this
//   table's via sets (viaSet4, viaSet6) and traces under its facility "PimRpfTable".
//
// Order of the RIBs, both families: the multicast RIB, then, when its answer is empty (no
// entry, or no valid via), the unicast RIB; the Rpf is marked M or U after the RIB that
// answered. Any other family gives an empty answer.
//
// Decisions.
// - A status entry is no route in that RIB (traced "No route found in <rib>") when it is
//   absent, unresolved, of another family than the target, or does not cover the target; or
//   when the FEC it names is not (yet) in the forwarding status (the two tables are written
//   separately). An entry slot being rewritten is read again a few times, then taken as none.
// - A FEC of more than 512 vias: the range error of PimRpfTable, caught here, traced and
//   counted (fecErrors); the lookup answers empty.
// - ribRoute4 / ribRoute6 (validRpf): the RIB still resolves the target with the stored
//   prefix, metric and preference, and its FEC still holds a valid via on the stored
//   interface towards the stored neighbour ("Incorrect rpf prefix. Returning" when the
//   resolution moved). A U answer is no longer valid once the multicast RIB answers for the
//   target. Boundaries are not re-checked (they are not routing state), nor the equal-cost
//   choice among several valid vias (a new member does not invalidate a held RPF).
// - rpfInfoFromIntfId counts only vias on the given interface, multicast RIB first.
// - No allocation per lookup: the via sets and the FEC copy are the engine's fixed arrays.
//
// Traces go to the facility "RpfTable" (level 4 outcomes); the shared steps trace under
// "PimRpfTable" as they do for the trie engine.
//
// Threading: event-loop thread only; no locks.
//
// Usage:
//   auto routes = Kel::Ptr<Routing::Pim::UcastRouteStatus>::make(Nimo::AddressFamily::ipv4);
//   routes->uribIs(Routing::Pim::RibInfo(
//       Routing::NexthopVrfStatus::create(loop, af, "default", "unicast"),
//       Drobe::Fib::ForwardingStatus::create(loop, "default", "urib")));
//   auto rpf = Routing::Pim::rpfTableFactory(routes, pimStatus, mfibConfig, intfDir, boundary);
//   Routing::Pim::RpfInfo info = rpf->doLookup(source, group);
#pragma once

#include "Pim/PimRpfTable.h"

namespace Routing::Pim {

template <typename ForwardingStatus>
struct RibInfoGen {
  Kel::Ptr<const Routing::NexthopVrfStatus> nexthopStatus;
  Kel::Ptr<const ForwardingStatus> forwardingStatus;
  RibInfoGen() = default;
  RibInfoGen(Kel::Ptr<const Routing::NexthopVrfStatus> n, Kel::Ptr<const ForwardingStatus> f)
      : nexthopStatus(std::move(n)), forwardingStatus(std::move(f)) {}
  bool operator!() const noexcept { return !nexthopStatus && !forwardingStatus; }
  friend bool operator==(const RibInfoGen&, const RibInfoGen&) = default;
};
using RibInfo = RibInfoGen<Drobe::Fib::ForwardingStatus>;
using Rib6Info = RibInfoGen<Drobe::Fib6::ForwardingStatus>;

class UcastRouteStatus : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<UcastRouteStatus, NotifieeConst> {
   public:
    virtual void onUrib() {}
    virtual void onMrib() {}
    virtual void onUrib6() {}
    virtual void onMrib6() {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }
  explicit UcastRouteStatus(Nimo::AddressFamily af) : Kel::Entity("UcastRouteStatus"), af_(af) {}
  Nimo::AddressFamily af() const noexcept { return af_; }

#define PIM_RIB_ATTR(Type, name, On)                          \
 public:                                                      \
  const Type& name() const noexcept { return name##_; }       \
  void name##Is(const Type& v) {                              \
    if (v == name##_) return;                                 \
    name##_ = v;                                              \
    notifiees_.forEach([](NotifieeConst& n) { n.on##On(); }); \
  }                                                           \
                                                              \
 private:                                                     \
  Type name##_;

  PIM_RIB_ATTR(RibInfo, urib, Urib)
  PIM_RIB_ATTR(RibInfo, mrib, Mrib)
  PIM_RIB_ATTR(Rib6Info, urib6, Urib6)
  PIM_RIB_ATTR(Rib6Info, mrib6, Mrib6)
#undef PIM_RIB_ATTR

 private:
  Nimo::AddressFamily af_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

class RpfTable : public Kel::Entity {
 public:
  RpfTable(Kel::Ptr<UcastRouteStatus> ucastRouteStatus, Kel::Ptr<const Routing::Pim::Status> status,
           Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
           Kel::Ptr<const Interface::IntfStatusDir> allIntfStatusDir,
           Kel::Ptr<const Routing::McastBoundary::Status> mcastBoundaryStatus);

  const Kel::Ptr<UcastRouteStatus>& ucastRouteStatus() const noexcept { return ucast_; }
  const Kel::Ptr<const Routing::Pim::Status>& status() const noexcept { return engine_->status(); }
  const Kel::Ptr<const Routing::Multicast::Fib::Config>& mfibConfig() const noexcept {
    return engine_->mfibConfig();
  }
  const Kel::Ptr<const Interface::IntfStatusDir>& allIntfStatusDir() const noexcept {
    return engine_->allIntfStatusDir();
  }
  const Kel::Ptr<const Routing::McastBoundary::Status>& mcastBoundaryStatus() const noexcept {
    return engine_->mcastBoundaryStatus();
  }
  PimRpfTable::ViaSet& viaSet4() noexcept { return engine_->viaSet(); }
  PimRpfTable::ViaSet6& viaSet6() noexcept { return engine_->viaSet6(); }
  // The trie engine whose lookup steps this table calls (it holds the via sets).
  PimRpfTable& engine() noexcept { return *engine_; }

  void handleInitialized() {}

  RpfInfo doLookup(const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group);
  bool validRpf(const Rpf& rpf, const Nimo::IpGenAddr& target);
  RpfInfo rpfInfoFromIntfId(const Nimo::IntfId& intfId, const Nimo::IpGenAddr& target,
                            const Nimo::IpGenAddr& group);
  Nimo::IpGenAddr getRpfNeighbor(const Nimo::IntfId& intfId, const Nimo::IpGenAddr& hop) const {
    return engine_->getRpfNeighbor(intfId, hop);
  }
  ValidVia validPimVia4(const Routing::Fib::Via& via, Routing::Fib::RouteType routeType,
                        const Nimo::IpGenPrefix& prefix, const Nimo::IpGenAddr& target,
                        const Nimo::IpGenAddr& group) {
    return engine_->validPimVia4(via, routeType, prefix, target, group);
  }
  ValidVia validPimVia6(const Routing6::Fib::Via& via, Routing6::Fib::RouteType routeType,
                        const Nimo::IpGenPrefix& prefix, const Nimo::IpGenAddr& target,
                        const Nimo::IpGenAddr& group) {
    return engine_->validPimVia6(via, routeType, prefix, target, group);
  }
  // FECs refused for having more vias than a lookup takes.
  std::uint64_t fecErrors() const noexcept { return engine_->fecErrors(); }

 private:
  template <typename Fn>
  auto guarded(const Nimo::IpGenAddr& target, Fn&& fn) -> decltype(fn());
  Kel::Ptr<UcastRouteStatus> ucast_;
  Kel::Ptr<PimRpfTable> engine_;
};

Kel::Ptr<RpfTable> rpfTableFactory(
    Kel::Ptr<UcastRouteStatus> ucastRouteStatus, Kel::Ptr<const Routing::Pim::Status> status,
    Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
    Kel::Ptr<const Interface::IntfStatusDir> allIntfStatusDir,
    Kel::Ptr<const Routing::McastBoundary::Status> mcastBoundaryStatus);

// One RIB; the Rpf is marked rib. May throw the via-count range error (doLookup catches it).
RpfInfo doLookup4(const Kel::Ptr<RpfTable>& table, const Nimo::IpGenAddr& target,
                  const Nimo::IpGenAddr& group, const RibInfo& ribInfo, RpfRib rib);
RpfInfo doLookup6(const Kel::Ptr<RpfTable>& table, const Nimo::IpGenAddr& target,
                  const Nimo::IpGenAddr& group, const Rib6Info& ribInfo, RpfRib rib);
RpfInfo rpfInfoFromIntfId4(const Kel::Ptr<RpfTable>& table, const Nimo::IntfId& intfId,
                           const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group,
                           const RibInfo& ribInfo, RpfRib rib);
RpfInfo rpfInfoFromIntfId6(const Kel::Ptr<RpfTable>& table, const Nimo::IntfId& intfId,
                           const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group,
                           const Rib6Info& ribInfo, RpfRib rib);
Routing::Fib::Via doSelectVia4(const Kel::Ptr<RpfTable>& table, const Nimo::IpGenAddr& target,
                               const Nimo::IpGenAddr& group);
Routing6::Fib::Via doSelectVia6(const Kel::Ptr<RpfTable>& table, const Nimo::IpGenAddr& target,
                                const Nimo::IpGenAddr& group);
// The stored rpf still holds against that RIB's resolution of the target.
bool ribRoute4(const Kel::Ptr<RpfTable>& table, const Rpf& rpf, const RibInfo& ribInfo,
               const Nimo::IpGenAddr& target);
bool ribRoute6(const Kel::Ptr<RpfTable>& table, const Rpf& rpf, const Rib6Info& ribInfo,
               const Nimo::IpGenAddr& target);

}  // namespace Routing::Pim
