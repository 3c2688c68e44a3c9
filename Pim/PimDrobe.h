// PimDrobe: the per-VRF PIM status tables and the message counter table in shared memory.
//
// - Status (Routing::Pim::Drobe): per VRF and address family, the agent's PIM interfaces,
//   neighbours, inactive neighbours and secondary addresses, mounted at
//   "routing/pim/status/<vrf>" ("routing6/..." for IPv6).
// - MessageCounters: the I/O layer's message counters per (type, subtype, interface),
//   mounted at "routing/pim/counters/<vrf>/<name>" (VRF before the caller's name: readers
//   in other processes compose the same path).
// - mountInDependencyOrder: creates a table set entity in the state database and mounts
//   its collections, interfaces first, as the writer or (given a loop) as a reader.
//
// Each container is one Kel entity holding one Drobe collection per attribute. The same
// class serves both ends: the agent mounts it for writing (mountWriter), other processes
// for reading (mountReader). Per collection, shown for neighbor:
//   neighbor(k)                 lookup: a copy or nullopt
//   neighborIs(v) / neighborDel(k) / neighborDelAll()      writer only
//   neighborCommit()            make the writes visible to readers (one per loop turn)
//   neighborNotify(k) / neighborNotifyCollection()          change notice without a change
//   neighborNotifyMountStatus(m)  tells the notifiees the table (dis)appeared
//   neighborForEach(fn), neighborSize()
// Notifiees (NotifieeConst) get onNeighbor(k) for a key, onNeighbor() for the whole
// collection and onNeighborMountStatus(bool). A writer calls them synchronously when a
// setter changes something (a setter that changes nothing notifies nothing); a reader
// calls them from its event loop when the writer's commits arrive.
//
// Writers keep the tables consistent in dependency order: an interface before its
// neighbours and secondary addresses, a neighbour before its secondary addresses and its
// inactiveNeighbor entry; removal the other way. commit() commits in dependency order;
// when removing, commit the dependants first.
//
// Capacities (entries; a full table refuses the insert, traced and counted by Drobe):
//   Status: pimIntf 2048, neighbor 16384, inactiveNeighbor 16384, intfSecondaryAddress
//   8192, intfSecondaryPrefix 8192, neighborSecondaryAddress 32768. Sized for a large
//   VRF: thousands of PIM interfaces (SVIs), 10k+ neighbours on shared LANs, a few
//   secondary addresses per neighbour. Untouched pages of a table cost no memory.
//   MessageCounters: msgCounter 7168 (writerMountInfo).
//
// Corruption: when a writer-side lookup meets a slot that the table library reports as
// corrupt, the container hands the slot to the table's corruption hook (which clears it
// and tells readers to resync), traces it on facility "PimDrobe" and carries on as if the
// entry were absent; the counting rule then starts that counter from zero.
//
// Threading: the owning process's event-loop thread only; no locks. Readers run their
// notifications on the Ulm::EventLoop given to mountReader.
//
// Usage (agent):
//   auto status = Routing::Pim::Drobe::statusFactory(
//       Status::mountPath(Nimo::AddressFamily::ipv4, L3::VrfName("default")));
//   status->mountWriter();
//   status->pimIntfIs(intf);  status->neighborIs(nbr);
//   status->commit();
//   counters->msgCounterInc(CounterKey(3, 255, intfId), MessageCounterDirection::rx,
//                           MessageCounterType::success);
// Usage (reader process):
//   auto status = statusFactory(path);  status->mountReader(loop);
//   struct W : Status::NotifieeConst { void onNeighbor(const NeighborKey& k) override; };
//   W w;  w.notifierIs(status);  loop.run();
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Pim/PimTypesDrobe.h"
#include "Pim/platform/Drobe.h"
#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Ledra.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/System.h"
#include "Pim/platform/Ulm.h"

namespace Routing::Pim::DrobeDetail {

// Trace facility of the status containers.
Flicklog::Facility& pimDrobeTrace();

// "routing" for IPv4, "routing6" for IPv6; any other family is a programming error.
std::string_view routingRoot(Nimo::AddressFamily af);

// How a collection reaches its container's notifiees.
template <typename K>
struct Dispatch {
  std::function<void(const K&)> key;
  std::function<void()> all;
  std::function<void(bool)> mount;
};

// One collection of a container: a Drobe writer or reader behind the container's named
// operations.
template <typename K, typename V>
class Collection {
 public:
  using Key = K;
  using Value = V;
  using Writer = ::Drobe::Writer<K, V>;
  using Reader = ::Drobe::Reader<K, V>;

  Collection(std::string_view name, Dispatch<K> dispatch)
      : name_(name), dispatch_(std::move(dispatch)), watch_(*this) {}
  Collection(const Collection&) = delete;
  Collection& operator=(const Collection&) = delete;

  const std::string& name() const noexcept { return name_; }
  bool writable() const noexcept { return writer_ != nullptr; }
  bool mounted() const noexcept { return writer_ || (reader_ && reader_->mounted()); }
  const Kel::Ptr<Writer>& writer() const noexcept { return writer_; }
  const Kel::Ptr<Reader>& reader() const noexcept { return reader_; }

  bool mountWriter(const ::Drobe::TableSet& set) {
    unmount();
    writer_ = set.writer<K, V>(name_);
    return writer_ != nullptr;
  }
  void mountReader(Ulm::EventLoop& loop, const ::Drobe::TableSet& set) {
    unmount();
    reader_ = set.reader<K, V>(loop, name_);
    watch_.notifierIs(reader_);
  }
  void unmount() {
    watch_.notifierIs(nullptr);
    reader_ = nullptr;
    writer_ = nullptr;
  }

  // A writer-side lookup that meets corruption reports it and answers "absent".
  std::optional<V> find(const K& k) const {
    if (writer_) {
      ::Drobe::Lookup<V> r = writer_->lookup(k);
      if (r.corrupt()) {
        reportCorruption(r.slot);
        return std::nullopt;
      }
      if (r.found()) return r.value;
      return std::nullopt;
    }
    if (reader_) return reader_->find(k);
    return std::nullopt;
  }

  // Insert or overwrite; false if the table refused it (full). Unchanged: no notice.
  bool is(const V& v) {
    KEL_ASSERT(writer_ && "table not mounted for writing");
    const K k = v.key();
    if (std::optional<V> old = find(k); old && *old == v) return true;
    if (!writer_->is(v)) return false;
    dispatch_.key(k);
    return true;
  }
  // Read-modify-write in one probe (the counting rule): fn(V&) changes k's entry, which
  // starts as init() if there is none. A corrupt slot met on the way is cleared by the
  // table and the entry starts again from init().
  template <typename Init, typename F>
  bool update(const K& k, Init&& init, F&& fn) {
    KEL_ASSERT(writer_ && "table not mounted for writing");
    const std::uint64_t corruptBefore = writer_->corrupt();
    const bool ok = writer_->update(k, std::forward<Init>(init), std::forward<F>(fn));
    if (writer_->corrupt() != corruptBefore) {
      FLICK_TRACE(pimDrobeTrace(), 1, "{}: corrupt entry met while updating, cleared", name_);
    }
    if (ok) dispatch_.key(k);
    return ok;
  }
  bool del(const K& k) {
    KEL_ASSERT(writer_ && "table not mounted for writing");
    if (::Drobe::Lookup<V> r = writer_->lookup(k); r.corrupt()) {
      reportCorruption(r.slot);
      return false;
    }
    if (!writer_->del(k)) return false;
    dispatch_.key(k);
    return true;
  }
  void delAll() {
    KEL_ASSERT(writer_ && "table not mounted for writing");
    if (writer_->empty()) return;
    writer_->delAll();
    dispatch_.all();
  }
  void commit() {
    if (writer_) writer_->commit();
  }
  void notify(const K& k) {
    if (writer_) writer_->notify(k);
    dispatch_.key(k);
  }
  void notifyCollection() {
    if (writer_) writer_->notifyCollection();
    dispatch_.all();
  }
  void notifyMountStatus(bool mounted) { dispatch_.mount(mounted); }

  template <typename F>
  void forEach(F&& fn) const {
    if (writer_) {
      for (const V& v : *writer_) fn(v);
    } else if (reader_) {
      reader_->forEach(fn);
    }
  }
  std::uint32_t size() const {
    if (writer_) return writer_->size();
    return reader_ ? reader_->size() : 0;
  }
  ::Drobe::CollectionStats stats() const {
    if (writer_) return writer_->stats();
    return reader_ ? reader_->stats() : ::Drobe::CollectionStats{};
  }

 private:
  // Reader notifications become the container's.
  class Watch : public Reader::NotifieeConst {
   public:
    explicit Watch(Collection& c) : c_(c) {}
    void onKey(const K& k) override { c_.notify(k); }
    void onCollection() override { c_.notifyCollection(); }
    void onMountStatus(bool m) override { c_.notifyMountStatus(m); }

   private:
    Collection& c_;
  };

  void reportCorruption(std::uint32_t slot) const {
    FLICK_TRACE(pimDrobeTrace(), 1, "{}: corrupt entry at slot {}, cleared", name_, slot);
    writer_->corruptionIs(slot);
  }

  std::string name_;
  Dispatch<K> dispatch_;
  Kel::Ptr<Writer> writer_;
  Kel::Ptr<Reader> reader_;
  Watch watch_;
};

}  // namespace Routing::Pim::DrobeDetail

namespace Routing::Pim::Drobe {

class Status : public Kel::Entity {
 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::Drobe::Status";
  static constexpr std::uint32_t kPimIntfCapacity = 2048;
  static constexpr std::uint32_t kNeighborCapacity = 16384;
  static constexpr std::uint32_t kInactiveNeighborCapacity = 16384;
  static constexpr std::uint32_t kIntfSecondaryAddressCapacity = 8192;
  static constexpr std::uint32_t kIntfSecondaryPrefixCapacity = 8192;
  static constexpr std::uint32_t kNeighborSecondaryAddressCapacity = 32768;

  // "routing/pim/status/<vrf>" or "routing6/pim/status/<vrf>".
  static std::string mountPath(Nimo::AddressFamily af, const L3::VrfName& vrf);
  // The six collections with their capacities, in dependency order.
  static ::Drobe::MountInfo writerMountInfo();

  class NotifieeConst : public Kel::BaseNotifiee<Status, NotifieeConst> {
   public:
    virtual void onPimIntf(const Nimo::IntfId&) {}
    virtual void onPimIntf() {}
    virtual void onPimIntfMountStatus(bool) {}
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
  explicit Status(Kel::Name name);

  // Mounts every collection in dependency order as the writer; false (nothing mounted)
  // if one cannot be created, e.g. because another live process writes it.
  bool mountWriter();
  // Mounts every collection in dependency order for reading on loop; the notifiees learn
  // of each table's availability through the MountStatus handlers.
  void mountReader(Ulm::EventLoop& loop);
  void unmount();
  bool writable() const noexcept { return pimIntf_.writable(); }
  // Commits every collection, in dependency order.
  void commit();

  // pimIntf: Intf by Nimo::IntfId.
  std::optional<Intf> pimIntf(const Nimo::IntfId& k) const { return pimIntf_.find(k); }
  bool pimIntfIs(const Intf& v) { return pimIntf_.is(v); }
  bool pimIntfDel(const Nimo::IntfId& k) { return pimIntf_.del(k); }
  void pimIntfDelAll() { pimIntf_.delAll(); }
  void pimIntfCommit() { pimIntf_.commit(); }
  void pimIntfNotify(const Nimo::IntfId& k) { pimIntf_.notify(k); }
  void pimIntfNotifyCollection() { pimIntf_.notifyCollection(); }
  void pimIntfNotifyMountStatus(bool mounted) { pimIntf_.notifyMountStatus(mounted); }
  template <typename F>
  void pimIntfForEach(F&& fn) const {
    pimIntf_.forEach(std::forward<F>(fn));
  }
  std::uint32_t pimIntfSize() const { return pimIntf_.size(); }
  const DrobeDetail::Collection<Nimo::IntfId, Intf>& pimIntfTable() const noexcept {
    return pimIntf_;
  }
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
  DrobeDetail::Collection<Nimo::IntfId, Intf> pimIntf_;
  DrobeDetail::Collection<NeighborKey, Neighbor> neighbor_;
  DrobeDetail::Collection<NeighborKey, NeighborRef> inactiveNeighbor_;
  DrobeDetail::Collection<IntfSecondaryAddressKey, IntfSecondaryAddress> intfSecondaryAddress_;
  DrobeDetail::Collection<IntfSecondaryPrefixKey, IntfSecondaryPrefix> intfSecondaryPrefix_;
  DrobeDetail::Collection<NeighborSecondaryAddressKey, NeighborSecondaryAddress>
      neighborSecondaryAddress_;
};

class MessageCounters : public Kel::Entity {
 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::Drobe::MessageCounters";
  static constexpr std::uint32_t kMsgCounterCapacity = 0x1C00;  // 7168

  // "routing/pim/counters/<vrf>/<name>" or "routing6/pim/counters/<vrf>/<name>".
  static std::string mountPath(Nimo::AddressFamily af, const L3::VrfName& vrf,
                               std::string_view name);
  // The one collection "msgCounter" of 7168 entries.
  static ::Drobe::MountInfo writerMountInfo();

  class NotifieeConst : public Kel::BaseNotifiee<MessageCounters, NotifieeConst> {
   public:
    virtual void onMsgCounter(const CounterKey&) {}
    virtual void onMsgCounter() {}
    virtual void onMsgCounterMountStatus(bool) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  // The name is the mount path.
  explicit MessageCounters(Kel::Name name);

  bool mountWriter();
  void mountReader(Ulm::EventLoop& loop);
  void unmount();
  bool writable() const noexcept { return msgCounter_.writable(); }

  // msgCounter: MessageCounterData by CounterKey.
  std::optional<MessageCounterData> msgCounter(const CounterKey& k) const {
    return msgCounter_.find(k);
  }
  bool msgCounterIs(const MessageCounterData& v) { return msgCounter_.is(v); }
  bool msgCounterDel(const CounterKey& k) { return msgCounter_.del(k); }
  void msgCounterDelAll() { msgCounter_.delAll(); }
  void msgCounterCommit() { msgCounter_.commit(); }
  void msgCounterNotify(const CounterKey& k) { msgCounter_.notify(k); }
  void msgCounterNotifyCollection() { msgCounter_.notifyCollection(); }
  void msgCounterNotifyMountStatus(bool mounted) { msgCounter_.notifyMountStatus(mounted); }
  template <typename F>
  void msgCounterForEach(F&& fn) const {
    msgCounter_.forEach(std::forward<F>(fn));
  }
  std::uint32_t msgCounterSize() const { return msgCounter_.size(); }
  const DrobeDetail::Collection<CounterKey, MessageCounterData>& msgCounterTable() const noexcept {
    return msgCounter_;
  }

  // The counting rule: adds one to the count of type t in the rx or tx counter of k's
  // entry, starting from an all-zero entry when k has none (or its slot was corrupt).
  // False if the table is full and k is new.
  bool msgCounterInc(const CounterKey& k, IO::MessageCounterDirection d, IO::MessageCounterType t);

 private:
  template <typename K, typename FK, typename FA, typename FM>
  DrobeDetail::Dispatch<K> dispatch(FK onKey, FA onAll, FM onMount) {
    return {
        [this, onKey](const K& k) { notifiees_.forEach([&](NotifieeConst& n) { onKey(n, k); }); },
        [this, onAll] { notifiees_.forEach([&](NotifieeConst& n) { onAll(n); }); },
        [this, onMount](bool m) { notifiees_.forEach([&](NotifieeConst& n) { onMount(n, m); }); }};
  }

  Kel::NotifieeList<NotifieeConst> notifiees_;
  DrobeDetail::Collection<CounterKey, MessageCounterData> msgCounter_;
};

Kel::Ptr<Status> statusFactory(const Kel::Name& name);
Kel::Ptr<MessageCounters> messageCountersFactory(const Kel::Name& name);

// Creates the table-set entity of type `type` ("Routing::Pim::Drobe::Status" or
// "Routing::Pim::IntfNghbr::Drobe::IntfStatus") named `path`, mounts it in em at path and
// mounts its collections in dependency order: as the writer, or, given a loop, for
// reading. Null if the path is taken in em or the writer cannot mount. Another type is a
// programming error.
Kel::Ptr<Kel::Entity> mountInDependencyOrder(Ledra::EntityManager& em, std::string_view path,
                                             std::string_view type);
Kel::Ptr<Kel::Entity> mountInDependencyOrder(Ledra::EntityManager& em, std::string_view path,
                                             std::string_view type, Ulm::EventLoop& loop);

}  // namespace Routing::Pim::Drobe
