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
// Status and IntfStatus (PimDrobeIntf.h) differ only in their keys, their interface
// collection and their capacities: they share one body (DrobeDetail::StatusTables), and
// every collection's operations and handlers are declared by one macro each
// (PIM_DROBE_COLLECTION, PIM_DROBE_HANDLERS), so that all collections spell them alike.
//
// Writers keep the tables consistent in dependency order: an interface before its
// neighbours and secondary addresses, a neighbour before its secondary addresses and its
// inactiveNeighbor entry; removal the other way. commit() commits in dependency order;
// when removing, commit the dependants first.
//
// Capacities (entries): each collection starts at its declared size and grows, past a load
// threshold, up to kMaxGrowth (16) times that size; a full table at its maximum refuses
// the insert, traced and counted by Drobe.
//   Status: pimIntf 2048, neighbor 16384, inactiveNeighbor 16384, intfSecondaryAddress
//   8192, intfSecondaryPrefix 8192, neighborSecondaryAddress 32768 (maxima 32768, 262144,
//   262144, 131072, 131072, 524288). Sized for a large VRF: thousands of PIM interfaces
//   (SVIs), 10k+ neighbours on shared LANs, a few secondary addresses per neighbour; the
//   maxima leave room for a fabric an order of magnitude larger. Untouched pages of a
//   table cost no memory, so the initial sizes cost nothing until used.
//   MessageCounters: msgCounter 7168, maximum 114688 (writerMountInfo).
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

#include "Pim/PimDrobeTables.h"
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

// How far a status or counter collection grows beyond its declared (initial) size.
inline constexpr std::uint32_t kMaxGrowth = 16;
// A collection of `initial` entries that grows up to kMaxGrowth times that.
::Drobe::CollectionInfo growingCollection(std::string_view name, std::uint32_t initial);
// A status container's six collections in dependency order, each growing from the
// container's declared size (S: Status or IntfStatus, which name their own interface
// collection).
template <typename S>
::Drobe::MountInfo statusMountInfo(std::string_view intfName, std::uint32_t intfCapacity) {
  return {{growingCollection(intfName, intfCapacity),
           growingCollection("neighbor", S::kNeighborCapacity),
           growingCollection("inactiveNeighbor", S::kInactiveNeighborCapacity),
           growingCollection("intfSecondaryAddress", S::kIntfSecondaryAddressCapacity),
           growingCollection("intfSecondaryPrefix", S::kIntfSecondaryPrefixCapacity),
           growingCollection("neighborSecondaryAddress", S::kNeighborSecondaryAddressCapacity)}};
}

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
  // table and the entry starts again from init(). notify: false when the caller knows
  // nobody watches (a call through the notice functions costs more than the count).
  template <typename Init, typename F>
  bool update(const K& k, Init&& init, F&& fn, bool notify = true) {
    KEL_ASSERT(writer_ && "table not mounted for writing");
    const std::uint64_t corruptBefore = writer_->corrupt();
    const bool ok = writer_->update(k, std::forward<Init>(init), std::forward<F>(fn));
    if (writer_->corrupt() != corruptBefore) {
      FLICK_TRACE(pimDrobeTrace(), 1, "{}: corrupt entry met while updating, cleared", name_);
    }
    if (ok && notify) dispatch_.key(k);
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

// The generated-style operations of collection `name`, held in member `table` (a
// Collection<Key, Value>): the list in the header comment, and nameTable() for tools.
#define PIM_DROBE_COLLECTION(name, table, Key, Value)                                       \
  std::optional<Value> name(const Key& k) const { return table.find(k); }                   \
  bool name##Is(const Value& v) { return table.is(v); }                                     \
  bool name##Del(const Key& k) { return table.del(k); }                                     \
  void name##DelAll() { table.delAll(); }                                                   \
  void name##Commit() { table.commit(); }                                                   \
  void name##Notify(const Key& k) { table.notify(k); }                                      \
  void name##NotifyCollection() { table.notifyCollection(); }                               \
  void name##NotifyMountStatus(bool mounted) { table.notifyMountStatus(mounted); }          \
  template <typename F>                                                                     \
  void name##ForEach(F&& fn) const {                                                        \
    table.forEach(std::forward<F>(fn));                                                     \
  }                                                                                         \
  std::uint32_t name##Size() const { return table.size(); }                                 \
  const ::Routing::Pim::DrobeDetail::Collection<Key, Value>& name##Table() const noexcept { \
    return table;                                                                           \
  }

// A notifiee's three handlers of collection Name: a key changed, the whole collection
// changed, the table (dis)appeared.
#define PIM_DROBE_HANDLERS(Name, Key)  \
  virtual void on##Name(const Key&) {} \
  virtual void on##Name() {}           \
  virtual void on##Name##MountStatus(bool) {}

// The handlers of one collection in notifiee N, by member pointer.
template <typename N, typename K>
struct Handlers {
  void (N::*key)(const K&);
  void (N::*all)();
  void (N::*mount)(bool);
};

// A collection's events reach handlers h of every notifiee in list.
template <typename K, typename N>
Dispatch<K> dispatchTo(Kel::NotifieeList<N>& list, Handlers<N, K> h) {
  return {[&list, h](const K& k) { list.forEach([&](N& n) { (n.*h.key)(k); }); },
          [&list, h] { list.forEach([&](N& n) { (n.*h.all)(); }); },
          [&list, h](bool m) { list.forEach([&](N& n) { (n.*h.mount)(m); }); }};
}

// The notifiee handlers of the five collections that both status containers hold beside
// their interface collection; each container's NotifieeConst adds the interface's. E is
// the container, N its NotifieeConst, T its generation's StatusTypes.
template <typename E, typename N, typename T>
class StatusHandlers : public Kel::BaseNotifiee<E, N> {
 public:
  PIM_DROBE_HANDLERS(Neighbor, typename T::NeighborKey)
  PIM_DROBE_HANDLERS(InactiveNeighbor, typename T::NeighborKey)
  PIM_DROBE_HANDLERS(IntfSecondaryAddress, typename T::IntfSecondaryAddressKey)
  PIM_DROBE_HANDLERS(IntfSecondaryPrefix, typename T::IntfSecondaryPrefixKey)
  PIM_DROBE_HANDLERS(NeighborSecondaryAddress, typename T::NeighborSecondaryAddressKey)
};

// The body of both status containers (Drobe::Status, IntfNghbr::Drobe::IntfStatus): the
// notifiee list and the six collections, mounted, committed and unmounted together in
// dependency order. The container names its interface collection (pimIntf, intf) and
// declares that collection's operations; the other five are declared here. N is the
// container's NotifieeConst, T its generation's StatusTypes.
template <typename N, typename T>
class StatusTables : public Kel::Entity {
 public:
  using NotifieeConst = N;
  void notifieeAdd(N* n) { notifiees_.add(n); }
  void notifieeRemove(N* n) { notifiees_.remove(n); }

  // Mounts every collection in dependency order as the writer; false (nothing mounted)
  // if one cannot be created, e.g. because another live process writes it.
  bool mountWriter() {
    const ::Drobe::TableSet set(name().str(), writerInfo_);
    const bool ok = intf_.mountWriter(set) && neighbor_.mountWriter(set) &&
                    inactiveNeighbor_.mountWriter(set) && intfSecondaryAddress_.mountWriter(set) &&
                    intfSecondaryPrefix_.mountWriter(set) &&
                    neighborSecondaryAddress_.mountWriter(set);
    if (!ok) unmount();
    return ok;
  }
  // Mounts every collection in dependency order for reading on loop; the notifiees learn
  // of each table's availability through the MountStatus handlers.
  void mountReader(Ulm::EventLoop& loop) {
    const ::Drobe::TableSet set(name().str());
    intf_.mountReader(loop, set);
    neighbor_.mountReader(loop, set);
    inactiveNeighbor_.mountReader(loop, set);
    intfSecondaryAddress_.mountReader(loop, set);
    intfSecondaryPrefix_.mountReader(loop, set);
    neighborSecondaryAddress_.mountReader(loop, set);
  }
  void unmount() {
    // Dependants first.
    neighborSecondaryAddress_.unmount();
    intfSecondaryPrefix_.unmount();
    intfSecondaryAddress_.unmount();
    inactiveNeighbor_.unmount();
    neighbor_.unmount();
    intf_.unmount();
  }
  bool writable() const noexcept { return intf_.writable(); }
  // Commits every collection, in dependency order.
  void commit() {
    intf_.commit();
    neighbor_.commit();
    inactiveNeighbor_.commit();
    intfSecondaryAddress_.commit();
    intfSecondaryPrefix_.commit();
    neighborSecondaryAddress_.commit();
  }

  // neighbor: Neighbor by NeighborKey.
  PIM_DROBE_COLLECTION(neighbor, neighbor_, typename T::NeighborKey, typename T::Neighbor)
  // inactiveNeighbor: NeighborRef by NeighborKey.
  PIM_DROBE_COLLECTION(inactiveNeighbor, inactiveNeighbor_, typename T::NeighborKey,
                       typename T::NeighborRef)
  // intfSecondaryAddress: IntfSecondaryAddress by IntfSecondaryAddressKey.
  PIM_DROBE_COLLECTION(intfSecondaryAddress, intfSecondaryAddress_,
                       typename T::IntfSecondaryAddressKey, typename T::IntfSecondaryAddress)
  // intfSecondaryPrefix: IntfSecondaryPrefix by IntfSecondaryPrefixKey.
  PIM_DROBE_COLLECTION(intfSecondaryPrefix, intfSecondaryPrefix_,
                       typename T::IntfSecondaryPrefixKey, typename T::IntfSecondaryPrefix)
  // neighborSecondaryAddress: NeighborSecondaryAddress by NeighborSecondaryAddressKey.
  PIM_DROBE_COLLECTION(neighborSecondaryAddress, neighborSecondaryAddress_,
                       typename T::NeighborSecondaryAddressKey,
                       typename T::NeighborSecondaryAddress)

 protected:
  // writerInfo lists the six collections in dependency order, the interface collection
  // (intfName, reported through onIntf) first.
  StatusTables(Kel::Name name, ::Drobe::MountInfo writerInfo, std::string_view intfName,
               Handlers<N, typename T::IntfKey> onIntf)
      : Kel::Entity(std::move(name)),
        writerInfo_(std::move(writerInfo)),
        intf_(intfName, dispatchTo(notifiees_, onIntf)),
        neighbor_("neighbor",
                  dispatchTo<typename T::NeighborKey>(
                      notifiees_, {&N::onNeighbor, &N::onNeighbor, &N::onNeighborMountStatus})),
        inactiveNeighbor_("inactiveNeighbor",
                          dispatchTo<typename T::NeighborKey>(
                              notifiees_, {&N::onInactiveNeighbor, &N::onInactiveNeighbor,
                                           &N::onInactiveNeighborMountStatus})),
        intfSecondaryAddress_(
            "intfSecondaryAddress",
            dispatchTo<typename T::IntfSecondaryAddressKey>(
                notifiees_, {&N::onIntfSecondaryAddress, &N::onIntfSecondaryAddress,
                             &N::onIntfSecondaryAddressMountStatus})),
        intfSecondaryPrefix_("intfSecondaryPrefix",
                             dispatchTo<typename T::IntfSecondaryPrefixKey>(
                                 notifiees_, {&N::onIntfSecondaryPrefix, &N::onIntfSecondaryPrefix,
                                              &N::onIntfSecondaryPrefixMountStatus})),
        neighborSecondaryAddress_(
            "neighborSecondaryAddress",
            dispatchTo<typename T::NeighborSecondaryAddressKey>(
                notifiees_, {&N::onNeighborSecondaryAddress, &N::onNeighborSecondaryAddress,
                             &N::onNeighborSecondaryAddressMountStatus})) {}

 private:
  // Declared first: the collections' dispatch refers to it.
  Kel::NotifieeList<N> notifiees_;
  ::Drobe::MountInfo writerInfo_;

 protected:
  Collection<typename T::IntfKey, typename T::Intf> intf_;

 private:
  Collection<typename T::NeighborKey, typename T::Neighbor> neighbor_;
  Collection<typename T::NeighborKey, typename T::NeighborRef> inactiveNeighbor_;
  Collection<typename T::IntfSecondaryAddressKey, typename T::IntfSecondaryAddress>
      intfSecondaryAddress_;
  Collection<typename T::IntfSecondaryPrefixKey, typename T::IntfSecondaryPrefix>
      intfSecondaryPrefix_;
  Collection<typename T::NeighborSecondaryAddressKey, typename T::NeighborSecondaryAddress>
      neighborSecondaryAddress_;
};

}  // namespace Routing::Pim::DrobeDetail

namespace Routing::Pim::Drobe {

class Status;

// Status::NotifieeConst. Declared ahead of Status, unlike a nested class, so that the
// shared body can hold the list of them.
class StatusNotifiee : public DrobeDetail::StatusHandlers<Status, StatusNotifiee, StatusTypes> {
 public:
  PIM_DROBE_HANDLERS(PimIntf, Nimo::IntfId)
};

class Status : public DrobeDetail::StatusTables<StatusNotifiee, StatusTypes> {
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
  // The six collections with their initial capacities (each grows to 16 times its own),
  // in dependency order.
  static ::Drobe::MountInfo writerMountInfo();

  // The name is the mount path.
  explicit Status(Kel::Name name);

  // pimIntf: Intf by Nimo::IntfId.
  PIM_DROBE_COLLECTION(pimIntf, intf_, Nimo::IntfId, Intf)
};

class MessageCounters : public Kel::Entity {
 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::Drobe::MessageCounters";
  static constexpr std::uint32_t kMsgCounterCapacity = 0x1C00;  // 7168

  // "routing/pim/counters/<vrf>/<name>" or "routing6/pim/counters/<vrf>/<name>".
  static std::string mountPath(Nimo::AddressFamily af, const L3::VrfName& vrf,
                               std::string_view name);
  // The one collection "msgCounter" of 7168 entries, growing to 16 times that.
  static ::Drobe::MountInfo writerMountInfo();

  class NotifieeConst : public Kel::BaseNotifiee<MessageCounters, NotifieeConst> {
   public:
    PIM_DROBE_HANDLERS(MsgCounter, CounterKey)
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
  PIM_DROBE_COLLECTION(msgCounter, msgCounter_, CounterKey, MessageCounterData)

  // The counting rule: adds one to the count of type t in the rx or tx counter of k's
  // entry, starting from an all-zero entry when k has none (or its slot was corrupt).
  // False if the table is full and k is new.
  bool msgCounterInc(const CounterKey& k, IO::MessageCounterDirection d, IO::MessageCounterType t);

 private:
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
