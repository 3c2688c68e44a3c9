// PimRpfTable: RPF lookup of a source or RP against the unicast routing tables.
//
// For a target address and a group it finds the route that covers the target (trie match,
// then the route record from the shared table), reads the route's FEC, keeps the next hops
// PIM may use (validPimVia4/6), chooses one by a hash of (target, group, hop) that every
// router computes alike, and names a backup on another interface. The answer is an RpfInfo.
//
// Watches nothing: every lookup reads the current tables. Reads:
// - PimUcastRouteStatus: handles of the route tables, FEC tables and shadows (tries) of the
//   unicast, multicast and multicast-specific RIBs of both families. An unset handle reads
//   as a RIB without routes.
// - Routing::Pim::Status: PIM interfaces (address), active neighbours, neighbour secondary
//   addresses.
// - Routing::Multicast::Fib::Config: multipath control (1: highest next hop, else hash).
// - Routing::McastBoundary::Status: a via whose interface has a boundary for the group is
//   not valid.
//
// Order of the RIBs. IPv4: the multicast-specific RIB, then the multicast RIB, then the
// unicast RIB; the next is consulted when the previous gives an empty answer (no route, or
// no valid via). Multicast-specific and multicast answers are marked RpfRib M. IPv6: the
// unicast RIB only, even when an IPv6 multicast RIB holds a more specific route.
//
// Decisions.
// - A matched route whose record is absent from the table (the trie is ahead of it) gives
//   way to the trie's parent prefix; a record being rewritten at that moment is read again
//   (a few times) and, if it is still changing, the RIB answers nothing rather than a
//   shorter prefix that no later notice would correct.
// - The metric of a multicast-specific RIB answer is that route's own metric.
// - Equal hashes tie to the higher hop, equal hops (a link-local address on two links) to
//   the higher interface id: the choice never depends on the via set's order.
// - rpfInfoFromIntfId counts only vias on the given interface; a valid via elsewhere is
//   traced and ignored.
// - validRpf re-runs the match in the RIB the Rpf names and says valid only when the route
//   (prefix, metric, preference) is the same and the choice cannot differ: one valid via,
//   or multipath control 1; with several vias under the hash (which needs the group, not
//   kept in an Rpf) it says invalid and the caller looks up again. Boundaries are not
//   re-checked: they are not routing state.
// - A FEC of more than 512 vias (a table is input from another process) is traced and
//   counted (fecErrors) and the lookup answers empty; nothing throws out of a lookup.
// - No allocation per lookup: the FEC is copied into a fixed array, the via sets are fixed
//   arrays cleared for each lookup, the hash runs over the address bytes in place.
//
// Traces go to the facility "PimRpfTable": level 4 the outcome of each lookup, level 8 the
// detail (routes, vias, verdicts). Nothing is formatted while the level is off.
//
// Threading: event-loop thread only; no locks.
//
// Usage:
//   auto routes = Kel::Ptr<Routing::Pim::PimUcastRouteStatus>::make("ucast");
//   routes->uribShadowStatusIs(Routing::Shadow::Status::create(loop, path, "urib"));
//   routes->uribStatusIs(routes->uribShadowStatus()->table());
//   routes->uribFecIs(Drobe::Reader<Routing::FecKey, Routing::Fib::FecPart>::create(
//       loop, path, "fec"));
//   auto rpf = Routing::Pim::pimRpfTableFactory(routes, pimStatus, mfibConfig, intfDir,
//                                               boundaryStatus);
//   Routing::Pim::RpfInfo info = rpf->doLookup(Nimo::IpGenAddr("10.1.1.1"),
//                                              Nimo::IpGenAddr("232.1.1.1"));
#pragma once

#include <array>
#include <cstdint>

#include "Pim/PimMcastBoundary.h"
#include "Pim/platform/Drobe.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/PimCore.h"
#include "Pim/platform/Routing.h"
#include "Pim/platform/System.h"

namespace Routing::Pim {

struct RpfInfo {
  static constexpr std::string_view kTypeName = "Routing::Pim::RpfInfo";
  Rpf rpf;
  bool rpfAttached = false;
  std::uint32_t numValidVias = 0;
  Rpf rpfFrr;
  bool rpfFrrAttached = false;

  static constexpr auto kFields = std::make_tuple(
      Kel::field("rpf", &RpfInfo::rpf), Kel::field("rpfAttached", &RpfInfo::rpfAttached),
      Kel::field("numValidVias", &RpfInfo::numValidVias), Kel::field("rpfFrr", &RpfInfo::rpfFrr),
      Kel::field("rpfFrrAttached", &RpfInfo::rpfFrrAttached));
  RpfInfo() = default;
  RpfInfo(const Rpf& r, bool attached, std::uint32_t valid)
      : rpf(r), rpfAttached(attached), numValidVias(valid) {}
  RpfInfo(const char* begin, const char* end) { Kel::parseValue(begin, end, *this); }
  bool operator!() const noexcept { return *this == RpfInfo(); }
  friend bool operator==(const RpfInfo&, const RpfInfo&) = default;
};

struct ValidVia {
  static constexpr std::string_view kTypeName = "Routing::Pim::ValidVia";
  bool validVia = false;
  bool attachedVia = false;
  static constexpr auto kFields =
      std::make_tuple(Kel::field("validVia", &ValidVia::validVia),
                      Kel::field("attachedVia", &ValidVia::attachedVia));
  ValidVia() = default;
  ValidVia(bool valid, bool attached) : validVia(valid), attachedVia(attached) {}
  ValidVia(const char* begin, const char* end) { Kel::parseValue(begin, end, *this); }
  friend bool operator==(const ValidVia&, const ValidVia&) = default;
};

std::ostream& operator<<(std::ostream& os, const RpfInfo& r);
std::ostream& operator<<(std::ostream& os, const ValidVia& v);

using RouteTable4 = Drobe::Reader<Nimo::IpGenPrefix, Routing::Fib::Route>;
using RouteTable6 = Drobe::Reader<Nimo::IpGenPrefix, Routing6::Fib::Route>;
using FecTable4 = Drobe::Reader<Routing::FecKey, Routing::Fib::FecPart>;
using FecTable6 = Drobe::Reader<Routing::FecKey, Routing6::Fib::FecPart>;

// Handles of the platform's route tables; setters notify onRouteTables() after a change.
class PimUcastRouteStatus : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<PimUcastRouteStatus, NotifieeConst> {
   public:
    virtual void onRouteTables() {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }
  explicit PimUcastRouteStatus(Kel::Name name) : Kel::Entity(std::move(name)) {}

#define PIM_UCAST_ATTR(Type, name)                                   \
 public:                                                             \
  const Kel::Ptr<Type>& name() const noexcept { return name##_; }    \
  void name##Is(Kel::Ptr<Type> v) {                                  \
    if (v == name##_) return;                                        \
    name##_ = std::move(v);                                          \
    notifiees_.forEach([](NotifieeConst& n) { n.onRouteTables(); }); \
  }                                                                  \
  void name##Del() { name##Is(nullptr); }                            \
                                                                     \
 private:                                                            \
  Kel::Ptr<Type> name##_;

  PIM_UCAST_ATTR(RouteTable4, uribStatus)
  PIM_UCAST_ATTR(FecTable4, uribFec)
  PIM_UCAST_ATTR(Routing::Shadow::Status, uribShadowStatus)
  PIM_UCAST_ATTR(RouteTable4, mribStatus)
  PIM_UCAST_ATTR(Routing::Shadow::Status, mribShadowStatus)
  PIM_UCAST_ATTR(RouteTable4, mcRibStatus)
  PIM_UCAST_ATTR(FecTable4, mcFec)
  PIM_UCAST_ATTR(Routing::Shadow::Status, mcRibShadowStatus)
  PIM_UCAST_ATTR(RouteTable6, urib6Status)
  PIM_UCAST_ATTR(FecTable6, urib6Fec)
  PIM_UCAST_ATTR(Routing6::Shadow::Status, urib6ShadowStatus)
  PIM_UCAST_ATTR(RouteTable6, mrib6Status)
  PIM_UCAST_ATTR(Routing6::Shadow::Status, mrib6ShadowStatus)
  PIM_UCAST_ATTR(RouteTable6, mcRib6Status)
  PIM_UCAST_ATTR(FecTable6, mc6Fec)
  PIM_UCAST_ATTR(Routing6::Shadow::Status, mcRib6ShadowStatus)
#undef PIM_UCAST_ATTR

 private:
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

inline constexpr std::uint32_t kMaxRpfVias = 512;

// A lookup's scratch set of valid vias: a fixed array, cleared (not freed) per lookup.
template <typename Via>
class ViaSetGen {
 public:
  struct Item {
    Via via;
    bool attached;
  };
  std::uint32_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  const Item* begin() const noexcept { return items_.data(); }
  const Item* end() const noexcept { return items_.data() + size_; }
  const Item* find(const Via& v) const noexcept {
    for (const Item& i : *this)
      if (i.via == v) return &i;
    return nullptr;
  }
  void viaIs(const Via& v, bool attached) noexcept {
    if (find(v) || size_ == kMaxRpfVias) return;
    items_[size_++] = Item{v, attached};
  }
  // Removes every via for which pred(via) holds.
  template <typename Pred>
  void viaDelIf(Pred&& pred) noexcept {
    std::uint32_t kept = 0;
    for (std::uint32_t i = 0; i < size_; ++i)
      if (!pred(items_[i].via)) items_[kept++] = items_[i];
    size_ = kept;
  }
  void viaDel(const Via& v) noexcept {
    viaDelIf([&](const Via& x) { return x == v; });
  }
  void viaDelAll() noexcept { size_ = 0; }

 private:
  std::array<Item, kMaxRpfVias> items_;
  std::uint32_t size_ = 0;
};

class PimRpfTable : public Kel::Entity {
 public:
  using ViaSet = ViaSetGen<Routing::Fib::Via>;
  using ViaSet6 = ViaSetGen<Routing6::Fib::Via>;

  PimRpfTable(Kel::Ptr<PimUcastRouteStatus> ucastRouteStatus,
              Kel::Ptr<const Routing::Pim::Status> status,
              Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
              Kel::Ptr<const Interface::IntfStatusDir> allIntfStatusDir,
              Kel::Ptr<const Routing::McastBoundary::Status> mcastBoundaryStatus);

  const Kel::Ptr<PimUcastRouteStatus>& ucastRouteStatus() const noexcept { return ucast_; }
  const Kel::Ptr<const Routing::Pim::Status>& status() const noexcept { return status_; }
  const Kel::Ptr<const Routing::Multicast::Fib::Config>& mfibConfig() const noexcept {
    return mfibConfig_;
  }
  const Kel::Ptr<const Interface::IntfStatusDir>& allIntfStatusDir() const noexcept {
    return allIntfStatusDir_;
  }
  const Kel::Ptr<const Routing::McastBoundary::Status>& mcastBoundaryStatus() const noexcept {
    return mcastBoundaryStatus_;
  }
  ViaSet& viaSet() noexcept { return viaSet_; }
  ViaSet6& viaSet6() noexcept { return viaSet6_; }
  void viaSetDelAll() noexcept { viaSet_.viaDelAll(); }
  void viaSet6DelAll() noexcept { viaSet6_.viaDelAll(); }

  void handleInitialized() {}

  RpfInfo doLookup(const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group);
  bool validRpf(const Rpf& rpf, const Nimo::IpGenAddr& target);
  RpfInfo rpfInfoFromIntfId(const Nimo::IntfId& intfId, const Nimo::IpGenAddr& target,
                            const Nimo::IpGenAddr& group);
  Nimo::IpGenAddr getRpfNeighbor(const Nimo::IntfId& intfId, const Nimo::IpGenAddr& hop) const;
  ValidVia validPimVia4(const Routing::Fib::Via& via, Routing::Fib::RouteType routeType,
                        const Nimo::IpGenPrefix& prefix, const Nimo::IpGenAddr& target,
                        const Nimo::IpGenAddr& group);
  ValidVia validPimVia6(const Routing6::Fib::Via& via, Routing6::Fib::RouteType routeType,
                        const Nimo::IpGenPrefix& prefix, const Nimo::IpGenAddr& target,
                        const Nimo::IpGenAddr& group);

  // FECs refused for having more vias than a lookup takes.
  std::uint64_t fecErrors() const noexcept { return fecErrors_; }
  void fecErrorsInc() noexcept { ++fecErrors_; }

  // The FEC copy of the current lookup (internal to the lookup functions).
  template <typename Via>
  std::span<Via> viaArray() noexcept;

 private:
  Kel::Ptr<PimUcastRouteStatus> ucast_;
  Kel::Ptr<const Routing::Pim::Status> status_;
  Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig_;
  Kel::Ptr<const Interface::IntfStatusDir> allIntfStatusDir_;
  Kel::Ptr<const Routing::McastBoundary::Status> mcastBoundaryStatus_;
  Kel::Ptr<Boundary::McastBoundary> boundary_;
  ViaSet viaSet_;
  ViaSet6 viaSet6_;
  std::array<Routing::Fib::Via, kMaxRpfVias> vias4_;
  std::array<Routing6::Fib::Via, kMaxRpfVias> vias6_;
  std::uint64_t fecErrors_ = 0;
};

Kel::Ptr<PimRpfTable> pimRpfTableFactory(
    Kel::Ptr<PimUcastRouteStatus> ucastRouteStatus, Kel::Ptr<const Routing::Pim::Status> status,
    Kel::Ptr<const Routing::Multicast::Fib::Config> mfibConfig,
    Kel::Ptr<const Interface::IntfStatusDir> allIntfStatusDir,
    Kel::Ptr<const Routing::McastBoundary::Status> mcastBoundaryStatus);

RpfInfo doLookup4(const Kel::Ptr<PimRpfTable>& table, const Nimo::IpGenAddr& target,
                  const Nimo::IpGenAddr& group);
RpfInfo doLookupUrib6(const Kel::Ptr<PimRpfTable>& table, const Nimo::IpGenAddr& target,
                      const Nimo::IpGenAddr& group);
bool validRpf4(const Kel::Ptr<PimRpfTable>& table, const Rpf& rpf, const Nimo::IpGenAddr& target);
bool validRpf6(const Kel::Ptr<PimRpfTable>& table, const Rpf& rpf, const Nimo::IpGenAddr& target);
RpfInfo rpfInfoFromIntfId4(const Kel::Ptr<PimRpfTable>& table, const Nimo::IntfId& intfId,
                           const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group);
Routing::Fib::Via doSelectVia(const Kel::Ptr<PimRpfTable>& table, const Nimo::IpGenAddr& target,
                              const Nimo::IpGenAddr& group);
Routing6::Fib::Via doSelectVia6(const Kel::Ptr<PimRpfTable>& table, const Nimo::IpGenAddr& target,
                                const Nimo::IpGenAddr& group);
// The Rpf of one chosen via: prefix, metric and preference from the unicast route when urib,
// else from the multicast-specific route when given, else from the multicast route.
Rpf getRpf(const Kel::Ptr<PimRpfTable>& table, const Nimo::IpGenAddr& target,
           const Routing::Fib::Via& via, bool attached, bool urib,
           const Routing::Fib::Route* uribRoute, const Routing::Fib::Route* mribRoute,
           const Routing::Fib::Route* mcRibRoute);
Rpf getRpf(const Kel::Ptr<PimRpfTable>& table, const Nimo::IpGenAddr& target,
           const Routing6::Fib::Via& via, bool attached, bool urib,
           const Routing6::Fib::Route* uribRoute, const Routing6::Fib::Route* mribRoute,
           const Routing6::Fib::Route* mcRibRoute);
// The shadow still holds, for the target, the route the rpf was built from.
bool ribRoute(const Rpf& rpf, const Kel::Ptr<Routing::Shadow::Status>& shadow,
              const Nimo::IpGenAddr& target);
bool ribRoute(const Rpf& rpf, const Kel::Ptr<Routing6::Shadow::Status>& shadow,
              const Nimo::IpGenAddr& target);

// The lookup steps after the route is known, shared with the next-hop-tracking RpfTable so
// that the two engines cannot drift.
// - rpfFecVias: the FEC of the route into the table's fixed array; nullopt (traced) when the
//   FEC or one of its parts is missing; Kel::RangeError past 512 vias.
// - rpfViaSetFill: clears the via set and fills it with the vias PIM may use (with onlyIntf,
//   only those on that interface).
// - rpfFromViaSet: the choice, its Rpf marked rib, the backup on another interface; empty
//   (traced) when the set is empty.
std::optional<std::span<const Routing::Fib::Via>> rpfFecVias(PimRpfTable& t, const FecTable4* fecs,
                                                             const Routing::Fib::Route& route,
                                                             const Nimo::IpGenAddr& target);
std::optional<std::span<const Routing6::Fib::Via>> rpfFecVias(PimRpfTable& t, const FecTable6* fecs,
                                                              const Routing6::Fib::Route& route,
                                                              const Nimo::IpGenAddr& target);
void rpfViaSetFill(PimRpfTable& t, const Routing::Fib::Route& route,
                   std::span<const Routing::Fib::Via> vias, const Nimo::IpGenAddr& target,
                   const Nimo::IpGenAddr& group, const Nimo::IntfId* onlyIntf = nullptr);
void rpfViaSetFill(PimRpfTable& t, const Routing6::Fib::Route& route,
                   std::span<const Routing6::Fib::Via> vias, const Nimo::IpGenAddr& target,
                   const Nimo::IpGenAddr& group, const Nimo::IntfId* onlyIntf = nullptr);
RpfInfo rpfFromViaSet(PimRpfTable& t, const Routing::Fib::Route& route, RpfRib rib,
                      const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group);
RpfInfo rpfFromViaSet(PimRpfTable& t, const Routing6::Fib::Route& route, RpfRib rib,
                      const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group);

// The equal-cost hash of one hop for (target, group): one-at-a-time over the address bytes
// in network order, target then group then hop, with the final mix.
std::uint32_t rpfViaHash(const Nimo::IpGenAddr& target, const Nimo::IpGenAddr& group,
                         const Nimo::IpGenAddr& hop) noexcept;

}  // namespace Routing::Pim
