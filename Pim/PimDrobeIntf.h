// PimDrobeIntf: the PIM status tables of all VRFs together, per address family.
//
// IntfStatus (Routing::Pim::IntfNghbr::Drobe) holds the same collections as the per-VRF
// Status of PimDrobe.h (see there for the operations, notifications, dependency order and
// corruption handling), keyed by interface and VRF number (IntfVrfKey) instead of the
// interface alone, and mounted once per family at "routing/pim/intf/status" or
// "routing6/pim/intf/status". Its interface collection is called intf (intfIs, onIntf).
//
// Initial capacities (entries): intf 8192, neighbor 32768, inactiveNeighbor 32768,
// intfSecondaryAddress 16384, intfSecondaryPrefix 16384, neighborSecondaryAddress 65536:
// the per-VRF figures for a box with a handful of large VRFs. Like Status, each grows to
// 16 times its initial size (DrobeDetail::kMaxGrowth); untouched pages of a table cost no
// memory.
//
// Threading: the owning process's event-loop thread only; no locks.
//
// Usage:
//   using namespace Routing::Pim::IntfNghbr::Drobe;
//   auto all = intfStatusFactory(IntfStatus::mountPath(Nimo::AddressFamily::ipv6));
//   all->mountWriter();
//   all->intfIs(Intf(IntfVrfKey(Nimo::IntfId("Ethernet1"), 3), addressWithMask));
//   all->commit();
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Pim/PimDrobe.h"
#include "Pim/PimTypesDrobe.h"

namespace Routing::Pim::IntfNghbr::Drobe {

class IntfStatus;

// IntfStatus::NotifieeConst (declared ahead, as Status's is).
class IntfStatusNotifiee
    : public DrobeDetail::StatusHandlers<IntfStatus, IntfStatusNotifiee, StatusTypes> {
 public:
  PIM_DROBE_HANDLERS(Intf, IntfVrfKey)
};

class IntfStatus : public DrobeDetail::StatusTables<IntfStatusNotifiee, StatusTypes> {
 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::IntfNghbr::Drobe::IntfStatus";
  static constexpr std::uint32_t kIntfCapacity = 8192;
  static constexpr std::uint32_t kNeighborCapacity = 32768;
  static constexpr std::uint32_t kInactiveNeighborCapacity = 32768;
  static constexpr std::uint32_t kIntfSecondaryAddressCapacity = 16384;
  static constexpr std::uint32_t kIntfSecondaryPrefixCapacity = 16384;
  static constexpr std::uint32_t kNeighborSecondaryAddressCapacity = 65536;

  // "routing/pim/intf/status" or "routing6/pim/intf/status".
  static std::string mountPath(Nimo::AddressFamily af);
  static ::Drobe::MountInfo writerMountInfo();

  // The name is the mount path.
  explicit IntfStatus(Kel::Name name);

  // intf: Intf by IntfVrfKey.
  PIM_DROBE_COLLECTION(intf, intf_, IntfVrfKey, Intf)
};

Kel::Ptr<IntfStatus> intfStatusFactory(const Kel::Name& name);

}  // namespace Routing::Pim::IntfNghbr::Drobe
