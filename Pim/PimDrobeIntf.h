// PimDrobeIntf: the PIM status tables of all VRFs together, per address family.
//
// IntfStatus (Routing::Pim::IntfNghbr::Drobe) holds the same collections as the per-VRF
// Status of PimDrobe.h (see there for the operations, notifications, dependency order and
// corruption handling), keyed by interface and VRF number (IntfVrfKey) instead of the
// interface alone, and mounted once per family at "routing/pim/intf/status" or
// "routing6/pim/intf/status". Its interface collection is called intf (intfIs, onIntf).
//
// Capacities (entries): intf 8192, neighbor 32768, inactiveNeighbor 32768,
// intfSecondaryAddress 16384, intfSecondaryPrefix 16384, neighborSecondaryAddress 65536:
// the per-VRF figures for a box with a handful of large VRFs; untouched pages of a table
// cost no memory.
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

class IntfStatus : public Kel::Entity {
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

  class NotifieeConst : public Kel::BaseNotifiee<IntfStatus, NotifieeConst> {
   public:
    virtual void onIntf(const IntfVrfKey&) {}
    virtual void onIntf() {}
    virtual void onIntfMountStatus(bool) {}
    virtual void onNeighbor(const NeighborKey&) {}
    virtual void onNeighbor() {}
    virtual void onNeighborMountStatus(bool) {}
    virtual void onInactiveNeighbor(const NeighborKey&) {}
    virtual void onInactiveNeighbor() {}
    virtual void onInactiveNeighborMountStatus(bool) {}
    virtual void onIntfSecondaryAddress(const IntfSecondaryAddressKey&) {}
    virtual void onIntfSecondaryAddress() {}
    virtual void onIntfSecondaryAddressMountStatus(bool) {}
    virtual void onIntfSecondaryPrefix(const IntfSecondaryPrefixKey&) {}
    virtual void onIntfSecondaryPrefix() {}
    virtual void onIntfSecondaryPrefixMountStatus(bool) {}
    virtual void onNeighborSecondaryAddress(const NeighborSecondaryAddressKey&) {}
    virtual void onNeighborSecondaryAddress() {}
    virtual void onNeighborSecondaryAddressMountStatus(bool) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  // The name is the mount path.
  explicit IntfStatus(Kel::Name name);

  bool mountWriter();
  void mountReader(Ulm::EventLoop& loop);
  void unmount();
  bool writable() const noexcept { return intf_.writable(); }
  void commit();

  // intf: Intf by IntfVrfKey.
  std::optional<Intf> intf(const IntfVrfKey& k) const { return intf_.find(k); }
  bool intfIs(const Intf& v) { return intf_.is(v); }
  bool intfDel(const IntfVrfKey& k) { return intf_.del(k); }
  void intfDelAll() { intf_.delAll(); }
  void intfCommit() { intf_.commit(); }
  void intfNotify(const IntfVrfKey& k) { intf_.notify(k); }
  void intfNotifyCollection() { intf_.notifyCollection(); }
  void intfNotifyMountStatus(bool mounted) { intf_.notifyMountStatus(mounted); }
  template <typename F>
  void intfForEach(F&& fn) const {
    intf_.forEach(std::forward<F>(fn));
  }
  std::uint32_t intfSize() const { return intf_.size(); }
  const DrobeDetail::Collection<IntfVrfKey, Intf>& intfTable() const noexcept { return intf_; }
  // neighbor: Neighbor by NeighborKey.
  std::optional<Neighbor> neighbor(const NeighborKey& k) const { return neighbor_.find(k); }
  bool neighborIs(const Neighbor& v) { return neighbor_.is(v); }
  bool neighborDel(const NeighborKey& k) { return neighbor_.del(k); }
  void neighborDelAll() { neighbor_.delAll(); }
  void neighborCommit() { neighbor_.commit(); }
  void neighborNotify(const NeighborKey& k) { neighbor_.notify(k); }
  void neighborNotifyCollection() { neighbor_.notifyCollection(); }
  void neighborNotifyMountStatus(bool mounted) { neighbor_.notifyMountStatus(mounted); }
  template <typename F>
  void neighborForEach(F&& fn) const {
    neighbor_.forEach(std::forward<F>(fn));
  }
  std::uint32_t neighborSize() const { return neighbor_.size(); }
  const DrobeDetail::Collection<NeighborKey, Neighbor>& neighborTable() const noexcept {
    return neighbor_;
  }
  // inactiveNeighbor: NeighborRef by NeighborKey.
  std::optional<NeighborRef> inactiveNeighbor(const NeighborKey& k) const {
    return inactiveNeighbor_.find(k);
  }
  bool inactiveNeighborIs(const NeighborRef& v) { return inactiveNeighbor_.is(v); }
  bool inactiveNeighborDel(const NeighborKey& k) { return inactiveNeighbor_.del(k); }
  void inactiveNeighborDelAll() { inactiveNeighbor_.delAll(); }
  void inactiveNeighborCommit() { inactiveNeighbor_.commit(); }
  void inactiveNeighborNotify(const NeighborKey& k) { inactiveNeighbor_.notify(k); }
  void inactiveNeighborNotifyCollection() { inactiveNeighbor_.notifyCollection(); }
  void inactiveNeighborNotifyMountStatus(bool mounted) {
    inactiveNeighbor_.notifyMountStatus(mounted);
  }
  template <typename F>
  void inactiveNeighborForEach(F&& fn) const {
    inactiveNeighbor_.forEach(std::forward<F>(fn));
  }
  std::uint32_t inactiveNeighborSize() const { return inactiveNeighbor_.size(); }
  const DrobeDetail::Collection<NeighborKey, NeighborRef>& inactiveNeighborTable() const noexcept {
    return inactiveNeighbor_;
  }
  // intfSecondaryAddress: IntfSecondaryAddress by IntfSecondaryAddressKey.
  std::optional<IntfSecondaryAddress> intfSecondaryAddress(const IntfSecondaryAddressKey& k) const {
    return intfSecondaryAddress_.find(k);
  }
  bool intfSecondaryAddressIs(const IntfSecondaryAddress& v) { return intfSecondaryAddress_.is(v); }
  bool intfSecondaryAddressDel(const IntfSecondaryAddressKey& k) {
    return intfSecondaryAddress_.del(k);
  }
  void intfSecondaryAddressDelAll() { intfSecondaryAddress_.delAll(); }
  void intfSecondaryAddressCommit() { intfSecondaryAddress_.commit(); }
  void intfSecondaryAddressNotify(const IntfSecondaryAddressKey& k) {
    intfSecondaryAddress_.notify(k);
  }
  void intfSecondaryAddressNotifyCollection() { intfSecondaryAddress_.notifyCollection(); }
  void intfSecondaryAddressNotifyMountStatus(bool mounted) {
    intfSecondaryAddress_.notifyMountStatus(mounted);
  }
  template <typename F>
  void intfSecondaryAddressForEach(F&& fn) const {
    intfSecondaryAddress_.forEach(std::forward<F>(fn));
  }
  std::uint32_t intfSecondaryAddressSize() const { return intfSecondaryAddress_.size(); }
  const DrobeDetail::Collection<IntfSecondaryAddressKey, IntfSecondaryAddress>&
  intfSecondaryAddressTable() const noexcept {
    return intfSecondaryAddress_;
  }
  // intfSecondaryPrefix: IntfSecondaryPrefix by IntfSecondaryPrefixKey.
  std::optional<IntfSecondaryPrefix> intfSecondaryPrefix(const IntfSecondaryPrefixKey& k) const {
    return intfSecondaryPrefix_.find(k);
  }
  bool intfSecondaryPrefixIs(const IntfSecondaryPrefix& v) { return intfSecondaryPrefix_.is(v); }
  bool intfSecondaryPrefixDel(const IntfSecondaryPrefixKey& k) {
    return intfSecondaryPrefix_.del(k);
  }
  void intfSecondaryPrefixDelAll() { intfSecondaryPrefix_.delAll(); }
  void intfSecondaryPrefixCommit() { intfSecondaryPrefix_.commit(); }
  void intfSecondaryPrefixNotify(const IntfSecondaryPrefixKey& k) {
    intfSecondaryPrefix_.notify(k);
  }
  void intfSecondaryPrefixNotifyCollection() { intfSecondaryPrefix_.notifyCollection(); }
  void intfSecondaryPrefixNotifyMountStatus(bool mounted) {
    intfSecondaryPrefix_.notifyMountStatus(mounted);
  }
  template <typename F>
  void intfSecondaryPrefixForEach(F&& fn) const {
    intfSecondaryPrefix_.forEach(std::forward<F>(fn));
  }
  std::uint32_t intfSecondaryPrefixSize() const { return intfSecondaryPrefix_.size(); }
  const DrobeDetail::Collection<IntfSecondaryPrefixKey, IntfSecondaryPrefix>&
  intfSecondaryPrefixTable() const noexcept {
    return intfSecondaryPrefix_;
  }
  // neighborSecondaryAddress: NeighborSecondaryAddress by NeighborSecondaryAddressKey.
  std::optional<NeighborSecondaryAddress> neighborSecondaryAddress(
      const NeighborSecondaryAddressKey& k) const {
    return neighborSecondaryAddress_.find(k);
  }
  bool neighborSecondaryAddressIs(const NeighborSecondaryAddress& v) {
    return neighborSecondaryAddress_.is(v);
  }
  bool neighborSecondaryAddressDel(const NeighborSecondaryAddressKey& k) {
    return neighborSecondaryAddress_.del(k);
  }
  void neighborSecondaryAddressDelAll() { neighborSecondaryAddress_.delAll(); }
  void neighborSecondaryAddressCommit() { neighborSecondaryAddress_.commit(); }
  void neighborSecondaryAddressNotify(const NeighborSecondaryAddressKey& k) {
    neighborSecondaryAddress_.notify(k);
  }
  void neighborSecondaryAddressNotifyCollection() { neighborSecondaryAddress_.notifyCollection(); }
  void neighborSecondaryAddressNotifyMountStatus(bool mounted) {
    neighborSecondaryAddress_.notifyMountStatus(mounted);
  }
  template <typename F>
  void neighborSecondaryAddressForEach(F&& fn) const {
    neighborSecondaryAddress_.forEach(std::forward<F>(fn));
  }
  std::uint32_t neighborSecondaryAddressSize() const { return neighborSecondaryAddress_.size(); }
  const DrobeDetail::Collection<NeighborSecondaryAddressKey, NeighborSecondaryAddress>&
  neighborSecondaryAddressTable() const noexcept {
    return neighborSecondaryAddress_;
  }

 private:
  template <typename K, typename FK, typename FA, typename FM>
  DrobeDetail::Dispatch<K> dispatch(FK onKey, FA onAll, FM onMount) {
    return {
        [this, onKey](const K& k) { notifiees_.forEach([&](NotifieeConst& n) { onKey(n, k); }); },
        [this, onAll] { notifiees_.forEach([&](NotifieeConst& n) { onAll(n); }); },
        [this, onMount](bool m) { notifiees_.forEach([&](NotifieeConst& n) { onMount(n, m); }); }};
  }

  Kel::NotifieeList<NotifieeConst> notifiees_;
  DrobeDetail::Collection<IntfVrfKey, Intf> intf_;
  DrobeDetail::Collection<NeighborKey, Neighbor> neighbor_;
  DrobeDetail::Collection<NeighborKey, NeighborRef> inactiveNeighbor_;
  DrobeDetail::Collection<IntfSecondaryAddressKey, IntfSecondaryAddress> intfSecondaryAddress_;
  DrobeDetail::Collection<IntfSecondaryPrefixKey, IntfSecondaryPrefix> intfSecondaryPrefix_;
  DrobeDetail::Collection<NeighborSecondaryAddressKey, NeighborSecondaryAddress>
      neighborSecondaryAddress_;
};

Kel::Ptr<IntfStatus> intfStatusFactory(const Kel::Name& name);

}  // namespace Routing::Pim::IntfNghbr::Drobe
