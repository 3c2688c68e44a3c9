// Drobe: keyed tables of trivially copyable records in POSIX shared memory. One writer
// process, any number of reader processes, each reader on its own Ulm::EventLoop.
//
// Files. Tables live under a root directory, /dev/shm/pimcore unless the environment
// variable DROBE_ROOT names another (tests use a private root). A table set is mounted at a
// path such as "routing/pim/status/default"; each collection of the set ("neighbor") is
// one mapped file <root>/<path>/<collection>. A path of one or more components, none
// empty, "." or "..", and a collection name of one component are the only ones accepted
// (anything else is traced and refused, no file made). Writers create directories;
// readers never do. Every writer mount creates a fresh file and renames it into place, so
// a reader always maps a fully initialised table, and a restarted writer never scribbles
// over a mapping that readers of its dead predecessor still hold.
//
// Records. A collection is templated on key K (trivially copyable, `std::uint32_t hash()
// const`, operator==) and value V (trivially copyable, `K key() const`, operator== for the
// writer). There are capacity * 4/3 slots (so at most 3/4 of them live), probed linearly
// from a home slot taken from the high bits of hash(k) * slots, which needs no
// power-of-two slot count (the counters table would pay 70% more memory for one).
//
// Memory. Nothing touches a page of slots that was never used: an empty slot is all zero,
// which is what a fresh file and the writer's private copy (an anonymous mapping) hold; the
// writer marks a page in a bitmap before it first writes there, and readers treat slots on
// unmarked pages as empty without reading them. An empty table costs its header and bitmap
// pages (and its process one registry page); entries cost the pages they land on.
//
// Growth. CollectionInfo::maxCapacity above capacity lets a table grow: an insert into a
// table at capacity doubles it (up to the maximum) into a new file beside the current one,
// which the next commit() renames into place. Readers keep the old mapping, consistent if
// stale, until they move to the new one (same writer, same generation) with one
// onCollection() and no change of mount status. A table at its maximum refuses as below.
//
// Writer semantics.
//   - is(v) inserts or overwrites, del(k) removes, delAll() empties; find/lookup/iteration
//     see these at once. Readers see nothing until commit(): the writer works on a private
//     shadow of the slots and commit() copies the slots it dirtied into shared memory,
//     appends the change notices, and wakes the readers. One commit per event-loop turn
//     is the intended rhythm; a burst of commits costs each reader one wake-up.
//   - A full table refuses the insert: is() returns false, the table is unchanged, one
//     trace line goes to facility "Drobe" (level 1) and the collection's refused count
//     (also in shared memory, for show commands) goes up.
//   - Deletion leaves a tombstone so that a reader probing concurrently never finds its
//     chain cut short. An insert reuses the first tombstone on its probe path; a tombstone
//     followed by an empty slot is turned back into an empty slot (and so on backwards),
//     which is safe because no probe chain can pass through it. If tombstones still fill
//     the table past 7/8 of its slots, the writer rebuilds the slots in place and announces
//     a whole-collection change (readers resync).
//   - lookup(k) also checks the slots it walks: a slot state that is none of empty, live or
//     tombstone, or a live slot whose stored hash disagrees with its key, is reported as
//     LookupStatus::Corrupt with the slot index. The caller hands that to corruptionIs(slot),
//     which traces, counts, turns the slot into a tombstone and announces a
//     whole-collection change. find(k) treats a corrupt slot as absent.
//   - notify(k) / notifyCollection() queue a change notice with no data change; they go
//     out with the next commit.
//   - Destroying the writer retires the table: readers get onMountStatus(false), the file
//     is removed.
//
// Reader semantics.
//   - find(k) and iteration read shared memory directly and return copies. Each slot is
//     guarded by a sequence lock (odd while the writer copies it): a reader copies the slot,
//     then checks the sequence is even and unchanged; it retries a bounded number of times
//     (kReadRetries) and otherwise treats the slot as changing: find() returns nullopt and
//     iteration skips it. A changing slot belongs to a commit in progress, whose notice
//     follows, so the reader re-reads it on that notification. A torn record is never
//     returned. (The seqlock is chosen over double buffering: readers never block the
//     writer, there is no per-reader state in the slots, and a slot costs 8 bytes.)
//   - Notifications run on the reader's EventLoop, through Reader::NotifieeConst:
//       onMountStatus(true)  the writer's table appeared (also on a restarted writer);
//                            followed by onCollection() (the initial whole-table sync);
//       onKey(k)             k changed (inserted, overwritten, deleted, or notify(k));
//       onCollection()       anything may have changed: re-read the whole collection;
//       onMountStatus(false) the writer retired or died; the reader is empty until a
//                            writer mounts again; followed by onCollection().
//   - Change ring: the writer appends one entry (key, position) per changed key per commit
//     to a bounded ring in shared memory. A reader remembers the last position it
//     consumed; if the writer has lapped it, or an entry it is reading gets overwritten,
//     it delivers one onCollection() instead of the lost keys. Memory stays bounded under a
//     flood and nothing is lost, only coarsened. Changes to one key between two commits
//     are normally announced once.
//   - Writer death: the writer holds an exclusive open-file-description lock (F_OFD_SETLK)
//     on its file for its whole life; the kernel drops it when the writer dies, whatever
//     later becomes of its pid, so readers and a successor writer test the lock, not the
//     pid. The header also holds the writer's pid (a hint, for a pidfd that makes a crash
//     show at once, and for traces) and a generation number bumped on every writer mount.
//     The reader watches the mount directory with inotify (a new writer's file appears by
//     rename); a one-second health timer re-checks everything, which also covers a
//     kernel without pidfd and a lost inotify event. A writer's forked child that has not
//     exec'd inherits the lock descriptor and keeps the writer "alive".
//   - Trust. A reader maps the records read-only and only the writer's registry page
//     writable. It checks the header before use: magic and version, key, record and slot
//     sizes and a schema fingerprint of the key's and record's field lists (Kel's
//     kFields: names, offsets, sizes, kinds), reader count and ring size (a power of two)
//     within bounds, and every offset and the file size against the geometry those imply.
//     A table that fails is refused with a trace naming the check. Geometry is copied at
//     mount; nothing read from shared memory afterwards decides where a pointer goes.
//
// Wake-up. All readers on one event loop share one eventfd (watched edge-triggered), one
// AF_UNIX SOCK_DGRAM socket (autobound in the abstract namespace), one inotify instance
// and one pidfd per writer process: a reader process holds a handful of descriptors
// however many tables it mounts. A writer process keeps one registry for all its tables
// (a page under <root>/.wake, named by its pid and a random id carried in every table
// header, locked like a table while the writer lives); a loop registers there once, with
// its eventfd (by number) and socket (by name), and sets the bit of each table it mounts
// in its entry's interest mask. On commit the writer, for each reader interested in the
// table, swaps the entry's "signalled" flag to 1 and wakes the reader only if it was 0;
// the loop clears the flags of its registrations before it offers the wake-up to its
// readers, each of which compares its ring head (a load or two). So a burst of commits on
// any number of one writer's tables costs one wake-up per reader process, and no commit
// is missed. The writer keeps, per reader process, a duplicate of the reader's eventfd
// taken once with pidfd_getfd(2) (needs ptrace access to the reader, which root has;
// Linux >= 5.6) and the pidfd, so its descriptors grow by two per reader process; a
// wake-up is one 8-byte write(2), and the edge-triggered reader never reads the counter.
// When pidfd_getfd is refused the writer falls back to a socket connected to the
// reader's (one send(2) per wake-up, one recv(2) in the reader). The registry file is
// mode 0660, so readers of another user in the writer's group register too.
// A wake-up that cannot be delivered (say the writer is out of descriptors) is counted in
// the reader's registry entry; the reader's health timer sees the count move and polls
// every 50 ms until it stops moving, so changes arrive late, never not at all.
// Why not a futex: it wakes a thread blocked in futex(2), which a single-threaded epoll
// loop never is; a named pipe leaves files behind when a reader dies. Figures from
// bench/DrobeBench (release build, 2 cores, per-table descriptors as measured in the first
// design): median 9.9 us vs 6.3 us for a bare futex wake (1.54x), p99 31 us vs 20 us; the
// datagram path 16.3 us vs 7.0 us. A bare eventfd plus edge-triggered epoll between two
// processes takes about 8.5 us where the futex takes 6.6 us: most of the gap is epoll's.
// A dead reader's registry entry is freed by the writer: with a socket when its send fails
// (ECONNREFUSED); with an eventfd, whose writes succeed whether the reader lives or not,
// when the reader has left its flag set and its pidfd (polled at most once a second per
// reader) says it exited. A reader that finds the registry full polls on its health timer.
//
// Threading: a Writer or Reader belongs to its process's event-loop thread; the few
// process-wide tables (the loops' shared descriptors, the writer's per-reader descriptors)
// take a mutex when a reader joins or leaves. Across processes only atomics and sequence
// locks: a dead writer cannot block a reader. Every shared word is accessed through
// std::atomic_ref, so the seqlock's racing copy is not a data race (see readSlot).
//
// Usage (writer process):
//   Drobe::TableSet set("routing/pim/status/default");
//   auto nbr = set.writer<NeighborKey, Neighbor>({"neighbor", 1024});
//   nbr->is(neighbor);          // false if the table is full
//   nbr->del(otherKey);
//   nbr->commit();              // readers see both changes and get onKey for each
// Reader process:
//   struct Watch : Drobe::Reader<NeighborKey, Neighbor>::NotifieeConst {
//     void onKey(const NeighborKey& k) override { auto v = notifier()->find(k); ... }
//     void onCollection() override { for (const Neighbor& n : *notifier()) ...; }
//   };
//   auto rd = set.reader<NeighborKey, Neighbor>(loop, "neighbor");
//   Watch w;  w.notifierIs(rd);  loop.run();
#pragma once

#include <algorithm>
#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Ulm.h"
#include "Pim/platform/drobe/Format.h"
#include "Pim/platform/drobe/Index.h"
#include "Pim/platform/drobe/Mount.h"
#include "Pim/platform/drobe/Slots.h"

namespace Drobe {

// <DROBE_ROOT or /dev/shm/pimcore>, then the mount directory and a collection's file.
std::string rootDir();
std::string mountDir(std::string_view path);
std::string collectionFile(std::string_view path, std::string_view collection);

// The trace facility of the library ("Drobe").
Flicklog::Facility& trace();

template <typename K>
concept TableKey = std::is_trivially_copyable_v<K> && requires(const K& k) {
  { k.hash() } -> std::convertible_to<std::uint32_t>;
  { k == k } -> std::convertible_to<bool>;
};

template <typename V, typename K>
concept TableValue = std::is_trivially_copyable_v<V> && requires(const V& v) {
  { v.key() } -> std::convertible_to<K>;
};

inline constexpr std::uint32_t kDefaultRingSize = 1024;

// One collection as the writer declares it.
struct CollectionInfo {
  std::string name;
  std::uint32_t capacity = 0;     // live entries at mount
  std::uint32_t ringSize = 0;     // change-ring entries, rounded up to a power of two;
                                  // 0 means kDefaultRingSize
  std::uint32_t maxCapacity = 0;  // the table grows up to this; 0: no growth
};

// The collections of a table set as its writer declares them.
struct MountInfo {
  std::vector<CollectionInfo> collections;
  const CollectionInfo* find(std::string_view name) const;
};

enum class LookupStatus { Absent, Found, Corrupt };

// A reader's answer for one key: a slot being rewritten is neither present nor absent (a
// caller that would treat absence as news waits for the commit's notice instead).
enum class FindStatus { absent, found, changing };

template <typename V>
struct Lookup {
  LookupStatus status = LookupStatus::Absent;
  std::uint32_t slot = 0;  // where it was found, or the corrupt slot
  V value{};               // valid when Found
  bool found() const noexcept { return status == LookupStatus::Found; }
  bool corrupt() const noexcept { return status == LookupStatus::Corrupt; }
};

// Figures of one collection, from its shared header (show commands, benchmarks).
struct CollectionStats {
  std::uint64_t generation = 0;  // writer mounts on this path, this one included
  std::uint64_t commits = 0;
  std::uint64_t refused = 0;  // inserts refused because the table was full
  std::uint64_t corrupt = 0;  // corrupt slots reported and cleared
  std::uint32_t size = 0;     // live entries as of the last commit
  std::uint32_t capacity = 0;
  std::uint32_t slots = 0;
  std::uint32_t ringSize = 0;
  std::uint32_t readers = 0;  // reader processes (event loops) registered for this table
  // Writer: wake-ups its process sent, for all its tables; reader: wake-ups its event loop
  // received, for all its tables.
  std::uint64_t wakeUps = 0;
  std::uint64_t bytes = 0;  // size of the shared file
};

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
class Writer : public Kel::PtrInterface {
 public:
  // Mounts the collection info.name at path; nullptr (traced) if the file cannot be made
  // or another live process writes it.
  static Kel::Ptr<Writer> create(std::string_view path, const CollectionInfo& info);
  ~Writer() override;

  // Insert or overwrite; false (refused, traced, counted) if the table is full.
  bool is(const V& v) {
    bool changed;
    return is(v, changed);
  }
  // As is(v), in one probe; changed says whether the table now differs (an equal record
  // is left alone and announces nothing).
  bool is(const V& v, bool& changed);
  // Read-modify-write in one probe: fn(V&) changes k's entry in place; an absent entry
  // starts as init() (whose key must be k). The entry is announced as changed without
  // comparing, since callers use this to change it (a counter). False (as is()) if the
  // table is full.
  template <typename Init, typename F>
  bool update(const K& k, Init&& init, F&& fn);
  // Grows the table now, in one step, to hold n entries (at most its maximum): a writer
  // that knows its size ahead skips the intermediate growths and their copies. False if
  // the growth failed (the table keeps its size and grows as usual).
  bool reserve(std::uint32_t n);
  // Remove; false if k was absent.
  bool del(const K& k);
  void delAll();
  std::optional<V> find(const K& k) const;
  Lookup<V> lookup(const K& k) const;
  // Starts loading k's home slot of the writer's copy: a caller about to write many keys
  // asks for one a few places ahead, so that the misses overlap.
  void prefetch(const K& k) const noexcept {
    __builtin_prefetch(
        &shadow_[detail::homeSlot(static_cast<std::uint32_t>(k.hash()), layout_.slotCount)]);
  }
  void corruptionIs(std::uint32_t slot);

  void notify(const K& k);
  void notifyCollection();
  void commit();
  bool pending() const noexcept;

  std::uint32_t size() const noexcept { return live_; }
  bool empty() const noexcept { return live_ == 0; }
  std::uint32_t capacity() const noexcept { return layout_.capacity; }
  std::uint64_t refused() const noexcept { return refused_; }
  std::uint64_t corrupt() const noexcept { return corrupt_; }
  CollectionStats stats() const { return core_->stats(); }
  const std::string& file() const noexcept { return core_->file(); }

  // Iteration over live entries in slot order (the writer's view, committed or not).
  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = V;
    using difference_type = std::ptrdiff_t;
    using pointer = const V*;
    using reference = const V&;
    const_iterator() = default;
    reference operator*() const { return w_->shadow_[i_].value; }
    pointer operator->() const { return &w_->shadow_[i_].value; }
    const_iterator& operator++() {
      i_ = w_->nextLive(i_ + 1);
      return *this;
    }
    const_iterator operator++(int) {
      auto t = *this;
      ++*this;
      return t;
    }
    bool operator==(const const_iterator& o) const { return i_ == o.i_; }

   private:
    friend class Writer;
    const_iterator(const Writer* w, std::uint32_t i) : w_(w), i_(i) {}
    const Writer* w_ = nullptr;
    std::uint32_t i_ = 0;
  };
  const_iterator begin() const { return const_iterator(this, nextLive(0)); }
  const_iterator end() const { return const_iterator(this, layout_.slotCount); }

  // Test hook: overwrites the state byte of k's shadow slot (to simulate a scribble).
  void slotStateIsForTest(const K& k, std::uint8_t state);

 private:
  Writer(std::string_view path, const CollectionInfo& info, const detail::Layout& layout);
  static detail::Layout layoutFor(std::uint32_t capacity, std::uint32_t ringSize);
  bool grow(std::uint32_t cap);
  std::uint32_t nextLive(std::uint32_t from) const noexcept;
  void markDirty(std::uint32_t slot);
  void queueKey(std::uint32_t slot, const K& k);
  void queueCollection();
  void sweepTombstones(std::uint32_t slot);
  void rebuild();
  // The slot holding k (found), else the first tombstone or empty slot on its probe path
  // (slotCount if none). A scribbled slot on the path is cleared and the probe restarted.
  struct Probe {
    std::uint32_t slot;
    bool found;
  };
  Probe probe(const K& k, std::uint32_t h);
  bool insertAt(std::uint32_t slot, std::uint32_t h, const K& k, const V& v);

  detail::Layout layout_;
  std::unique_ptr<detail::WriterCore> core_;
  // After a growth, the table readers still map until the next commit installs core_.
  std::unique_ptr<detail::WriterCore> installed_;
  std::uint32_t maxCapacity_ = 0;
  // Per slot, side by side so that one update touches one cache line of marks.
  struct Marks {
    std::uint64_t dirty = 0;  // commit epoch in which the slot was dirtied
    std::uint64_t key = 0;    // commit epoch in which the slot's key was queued
  };
  detail::AnonBuffer shadowMem_;
  detail::AnonBuffer marksMem_;
  detail::SlotBody<V>* shadow_ = nullptr;
  Marks* marks_ = nullptr;
  std::vector<std::uint32_t> dirty_;
  std::vector<K> pendingKeys_;
  std::uint64_t epoch_ = 1;
  bool pendingCollection_ = false;
  bool allDirty_ = false;
  std::uint32_t live_ = 0;
  std::uint32_t tombs_ = 0;
  std::uint64_t refused_ = 0;
  std::uint64_t corrupt_ = 0;
};

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
class Reader : public Kel::PtrInterface {
 public:
  // Watches path/name on loop; mounts now if the writer's table exists, else when it
  // appears. Notifiees attached right after creation get the initial onMountStatus(true)
  // and onCollection() from the loop (they are deferred to the first loop turn).
  static Kel::Ptr<Reader> create(Ulm::EventLoop& loop, std::string_view path,
                                 std::string_view name);
  ~Reader() override;

  class NotifieeConst : public Kel::BaseNotifiee<Reader, NotifieeConst> {
   public:
    virtual void onKey(const K&) {}
    virtual void onCollection() {}
    virtual void onMountStatus(bool) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  bool mounted() const noexcept { return core_.mounted(); }
  // A copy of k's record; nullopt if absent, unmounted, or being rewritten right now.
  std::optional<V> find(const K& k) const;
  // As find(), telling a slot that is being rewritten apart from an absent key.
  FindStatus findStatus(const K& k, V& out) const;
  // Starts loading k's home slot, so that a lookup needing two independent records can
  // have both misses under way at once.
  void prefetch(const K& k) const noexcept;
  // Calls fn(const V&) for each stable live record.
  template <typename F>
  void forEach(F&& fn) const;
  // Live entries as of the writer's last commit.
  std::uint32_t size() const;
  CollectionStats stats() const { return core_.stats(); }
  // Whole-collection resyncs caused by falling behind the ring.
  std::uint64_t overflows() const noexcept { return overflows_; }
  // Processes pending change notices now (the loop does it on wake-up).
  void sync();

  // Iteration yields copies of the stable live records.
  class const_iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = V;
    using difference_type = std::ptrdiff_t;
    using pointer = const V*;
    using reference = const V&;
    const_iterator() = default;
    reference operator*() const { return cur_.value; }
    pointer operator->() const { return &cur_.value; }
    const_iterator& operator++() {
      i_ = r_->nextStable(i_ + 1, cur_);
      return *this;
    }
    bool operator==(const const_iterator& o) const { return i_ == o.i_; }

   private:
    friend class Reader;
    const_iterator(const Reader* r, std::uint32_t i) : r_(r), i_(i) {
      if (r_) i_ = r_->nextStable(i_, cur_);
    }
    const Reader* r_ = nullptr;
    std::uint32_t i_ = 0;
    detail::SlotBody<V> cur_;
  };
  const_iterator begin() const { return const_iterator(this, 0); }
  const_iterator end() const { return const_iterator(nullptr, endIndex()); }

 private:
  Reader(Ulm::EventLoop& loop, std::string_view path, std::string_view name);
  std::uint32_t endIndex() const noexcept;
  std::uint32_t nextStable(std::uint32_t from, detail::SlotBody<V>& out) const;
  void handleWake();
  void handleMountStatus(bool mounted);
  void handleRemap();

  detail::ReaderCore core_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
  std::uint64_t consumed_ = 0;  // ring position read up to
  std::uint64_t overflows_ = 0;
  std::vector<K> batch_;
};

// Several collections at one mount path.
class TableSet {
 public:
  explicit TableSet(std::string path, MountInfo info = {});
  const std::string& path() const noexcept { return path_; }
  const MountInfo& info() const noexcept { return info_; }

  // The writer of a collection, declared here or in the MountInfo (by name).
  template <typename K, typename V>
  Kel::Ptr<Writer<K, V>> writer(const CollectionInfo& c) const {
    return Writer<K, V>::create(path_, c);
  }
  template <typename K, typename V>
  Kel::Ptr<Writer<K, V>> writer(std::string_view name) const;  // KEL_ASSERT if undeclared
  template <typename K, typename V>
  Kel::Ptr<Reader<K, V>> reader(Ulm::EventLoop& loop, std::string_view name) const {
    return Reader<K, V>::create(loop, path_, name);
  }

 private:
  std::string path_;
  MountInfo info_;
};

// ---------------------------------------------------------------------------------------
// Implementation of the templates.

// --- Writer ------------------------------------------------------------------------------

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> detail::Layout Writer<K, V>::layoutFor(
    std::uint32_t capacity, std::uint32_t ringSize) {
  detail::Layout l;
  l.keySize = sizeof(K);
  l.valueSize = sizeof(V);
  l.slotSize = detail::kSlotSize<V>;
  l.ringEntrySize = detail::kRingEntrySize<K>;
  l.schema = detail::schemaFor<K, V>();
  l.capacity = std::min(capacity, detail::kMaxCapacity);
  l.slotCount = detail::slotCountFor(l.capacity);
  l.ringSize = detail::ringSizeFor(ringSize);
  return l;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> Kel::Ptr<Writer<K, V>> Writer<K, V>::create(
    std::string_view path, const CollectionInfo& info) {
  Kel::Ptr<Writer> w(new Writer(path, info, layoutFor(info.capacity, info.ringSize)));
  if (!w->core_->ok()) return nullptr;
  return w;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> Writer<K, V>::Writer(std::string_view path,
                                                              const CollectionInfo& info,
                                                              const detail::Layout& layout)
    : layout_(layout),
      core_(std::make_unique<detail::WriterCore>(std::string(path), info.name, layout)),
      maxCapacity_(std::min(std::max(info.maxCapacity, layout.capacity), detail::kMaxCapacity)) {
  if (!core_->ok()) return;
  // Zero-filled and untouched until used: an empty slot is all zeroes, and so is a mark.
  shadowMem_.allocate(std::size_t{layout_.slotCount} * sizeof(detail::SlotBody<V>));
  marksMem_.allocate(std::size_t{layout_.slotCount} * sizeof(Marks));
  shadow_ = static_cast<detail::SlotBody<V>*>(shadowMem_.data());
  marks_ = static_cast<Marks*>(marksMem_.data());
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> Writer<K, V>::~Writer() = default;

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> Lookup<V> Writer<K, V>::lookup(const K& k)
const {
  Lookup<V> r;
  const std::uint32_t h = static_cast<std::uint32_t>(k.hash());
  const std::uint32_t slots = layout_.slotCount;
  std::uint32_t i = detail::homeSlot(h, slots);
  for (std::uint32_t n = 0; n < slots; ++n, i = detail::nextSlot(i, slots)) {
    const detail::SlotBody<V>& b = shadow_[i];
    if (b.state == detail::kSlotEmpty) break;
    if (b.state == detail::kSlotTomb) continue;
    if (b.state != detail::kSlotLive) {
      r.status = LookupStatus::Corrupt;
      r.slot = i;
      return r;
    }
    if (b.value.key() == k) {
      r.status = b.hash == h ? LookupStatus::Found : LookupStatus::Corrupt;
      r.slot = i;
      if (r.found()) r.value = b.value;
      return r;
    }
  }
  return r;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> std::optional<V> Writer<K, V>::find(const K& k)
const {
  Lookup<V> r = lookup(k);
  if (!r.found()) return std::nullopt;
  return r.value;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
typename Writer<K, V>::Probe Writer<K, V>::probe(const K& k, std::uint32_t h) {
  const std::uint32_t slots = layout_.slotCount;
  for (;;) {
    std::uint32_t freeSlot = slots;
    bool restart = false;
    std::uint32_t i = detail::homeSlot(h, slots);
    for (std::uint32_t n = 0; n < slots; ++n, i = detail::nextSlot(i, slots)) {
      const detail::SlotBody<V>& b = shadow_[i];
      if (b.state == detail::kSlotEmpty) {
        if (freeSlot == slots) freeSlot = i;
        break;
      }
      if (b.state == detail::kSlotTomb) {
        if (freeSlot == slots) freeSlot = i;
        continue;
      }
      if (b.state != detail::kSlotLive || (b.hash != h && b.value.key() == k)) {
        // A scribbled slot on our path: clear it and start over (it is now a tombstone,
        // so the restart terminates).
        corruptionIs(i);
        restart = true;
        break;
      }
      if (b.hash == h && b.value.key() == k) return {i, true};
    }
    if (!restart) return {freeSlot, false};
  }
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
bool Writer<K, V>::insertAt(std::uint32_t slot, std::uint32_t h, const K& k, const V& v) {
  if (live_ >= layout_.capacity && layout_.capacity < maxCapacity_ &&
      grow(static_cast<std::uint32_t>(
          std::min<std::uint64_t>(std::uint64_t{layout_.capacity} * 2, maxCapacity_)))) {
    slot = probe(k, h).slot;
  }
  if (live_ >= layout_.capacity || slot == layout_.slotCount) {
    ++refused_;
    core_->refusedInc();
    FLICK_TRACE(trace(), 1, "{}: table full ({} entries), insert refused", core_->file(),
                layout_.capacity);
    return false;
  }
  detail::SlotBody<V>& b = shadow_[slot];
  if (b.state == detail::kSlotTomb) --tombs_;
  b.state = detail::kSlotLive;
  b.hash = h;
  b.value = v;
  ++live_;
  markDirty(slot);
  marks_[slot].key = 0;  // a new key in this slot: announce it even if the old one was
  queueKey(slot, k);
  if (std::uint64_t{live_ + tombs_} * 8 > std::uint64_t{layout_.slotCount} * 7) rebuild();
  return true;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
bool Writer<K, V>::is(const V& v, bool& changed) {
  const K k = v.key();
  const std::uint32_t h = static_cast<std::uint32_t>(k.hash());
  const Probe p = probe(k, h);
  if (!p.found) return changed = insertAt(p.slot, h, k, v);
  detail::SlotBody<V>& b = shadow_[p.slot];
  static_assert(std::equality_comparable<V>, "a writer compares records with operator==");
  changed = !(b.value == v);
  if (!changed) return true;
  b.value = v;
  markDirty(p.slot);
  queueKey(p.slot, k);
  return true;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
template <typename Init, typename F>
bool Writer<K, V>::update(const K& k, Init&& init, F&& fn) {
  const std::uint32_t h = static_cast<std::uint32_t>(k.hash());
  // Counting hits the same keys again and again, most of them in their home slot: one
  // compare there before the probe loop, and nothing to mark for a key already marked
  // in this commit.
  std::uint32_t slot = detail::homeSlot(h, layout_.slotCount);
  const detail::SlotBody<V>& home = shadow_[slot];
  if (home.state != detail::kSlotLive || home.hash != h || !(home.value.key() == k)) {
    const Probe p = probe(k, h);
    if (!p.found) {
      V v = init();
      fn(v);
      return insertAt(p.slot, h, k, v);
    }
    slot = p.slot;
  }
  fn(shadow_[slot].value);
  if (marks_[slot].dirty != epoch_ || marks_[slot].key != epoch_) {
    markDirty(slot);
    queueKey(slot, k);
  }
  return true;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
bool Writer<K, V>::del(const K& k) {
  Lookup<V> r = lookup(k);
  if (r.corrupt()) {
    corruptionIs(r.slot);
    return false;
  }
  if (!r.found()) return false;
  detail::SlotBody<V>& b = shadow_[r.slot];
  b = detail::SlotBody<V>{};
  b.state = detail::kSlotTomb;
  --live_;
  ++tombs_;
  markDirty(r.slot);
  queueKey(r.slot, k);
  sweepTombstones(r.slot);
  return true;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Writer<K, V>::delAll() {
  if (live_ == 0 && tombs_ == 0) return;
  shadowMem_.clear();
  live_ = 0;
  tombs_ = 0;
  allDirty_ = true;
  queueCollection();
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Writer<K, V>::corruptionIs(std::uint32_t slot) {
  if (slot >= layout_.slotCount) return;
  ++corrupt_;
  core_->corruptInc();
  FLICK_TRACE(trace(), 1, "{}: corrupt slot {} (state {:#x}) cleared", core_->file(), slot,
              shadow_[slot].state);
  shadow_[slot] = detail::SlotBody<V>{};
  shadow_[slot].state = detail::kSlotTomb;
  // The slot's former role is unknown: recount.
  live_ = 0;
  tombs_ = 0;
  for (std::uint32_t i = 0; i < layout_.slotCount; ++i) {
    live_ += shadow_[i].state == detail::kSlotLive;
    tombs_ += shadow_[i].state == detail::kSlotTomb;
  }
  markDirty(slot);
  queueCollection();
  sweepTombstones(slot);
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Writer<K, V>::notify(const K& k) {
  Lookup<V> r = lookup(k);
  if (r.found()) {
    queueKey(r.slot, k);
  } else if (!pendingCollection_) {
    if (pendingKeys_.size() >= layout_.ringSize) return queueCollection();
    pendingKeys_.push_back(k);
  }
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Writer<K, V>::notifyCollection() { queueCollection(); }

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
bool Writer<K, V>::pending() const noexcept {
  return !dirty_.empty() || allDirty_ || !pendingKeys_.empty() || pendingCollection_;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Writer<K, V>::commit() {
  if (!pending()) return;
  // Slots first, then the notices that point readers at them.
  if (allDirty_) {
    // Slots never written stay untouched: they read as empty already.
    for (std::uint32_t i = 0; i < layout_.slotCount; ++i) {
      if (shadow_[i].state != detail::kSlotEmpty || core_->slotWritten(i)) {
        detail::clearPadding(shadow_[i]);
        detail::writeSlot(core_->slotForWrite(i), shadow_[i]);
      }
    }
  } else {
    // Padding cleared here, once per commit, so that no stack bytes a record carried in
    // reach shared memory.
    for (std::uint32_t i : dirty_) {
      detail::clearPadding(shadow_[i]);
      detail::writeSlot(core_->slotForWrite(i), shadow_[i]);
    }
  }
  std::uint64_t head = core_->ringHead();
  auto append = [&](std::uint64_t kind, const K& key) {
    std::uint64_t* e = core_->ringEntry(head);
    K k = key;
    detail::clearPadding(k);
    std::uint64_t words[detail::kKeyWords<K>] = {};
    std::memcpy(words, static_cast<const void*>(&k), sizeof k);
    detail::storeWord(e, detail::kRingWriting, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    detail::storeWord(e + 1, kind, std::memory_order_relaxed);
    for (std::size_t w = 0; w < detail::kKeyWords<K>; ++w) {
      detail::storeWord(e + 2 + w, words[w], std::memory_order_relaxed);
    }
    detail::storeWord(e, head + 1, std::memory_order_release);
    ++head;
  };
  if (pendingCollection_) {
    append(detail::kRingCollection, K{});
  } else {
    for (const K& k : pendingKeys_) append(detail::kRingKey, k);
  }
  core_->publish(head, live_);
  if (installed_) {
    // A grown table goes in place whole: readers switch to it from the old one, which
    // stays consistent (if stale) until they do.
    core_->install(*installed_);
    installed_.reset();
  }
  dirty_.clear();
  pendingKeys_.clear();
  pendingCollection_ = false;
  allDirty_ = false;
  ++epoch_;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Writer<K, V>::slotStateIsForTest(const K& k, std::uint8_t state) {
  Lookup<V> r = lookup(k);
  if (r.found()) shadow_[r.slot].state = state;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> std::uint32_t Writer<K, V>::nextLive(std::uint32_t from)
const noexcept {
  while (from < layout_.slotCount && shadow_[from].state != detail::kSlotLive) ++from;
  return from;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Writer<K, V>::markDirty(std::uint32_t slot) {
  if (allDirty_ || marks_[slot].dirty == epoch_) return;
  marks_[slot].dirty = epoch_;
  dirty_.push_back(slot);
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Writer<K, V>::queueKey(std::uint32_t slot, const K& k) {
  if (pendingCollection_ || marks_[slot].key == epoch_) return;
  marks_[slot].key = epoch_;
  // More keys than the ring holds would lap every reader anyway.
  if (pendingKeys_.size() >= layout_.ringSize) return queueCollection();
  pendingKeys_.push_back(k);
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Writer<K, V>::queueCollection() {
  pendingCollection_ = true;
  pendingKeys_.clear();
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Writer<K, V>::sweepTombstones(std::uint32_t slot) {
  // A tombstone followed by an empty slot ends every probe chain through it: empty it,
  // and walk back over the tombstones before it.
  const std::uint32_t slots = layout_.slotCount;
  if (shadow_[detail::nextSlot(slot, slots)].state != detail::kSlotEmpty) return;
  std::uint32_t i = slot;
  for (std::uint32_t n = 0; n < layout_.slotCount && shadow_[i].state == detail::kSlotTomb;
       ++n, i = detail::prevSlot(i, slots)) {
    shadow_[i].state = detail::kSlotEmpty;
    --tombs_;
    markDirty(i);
  }
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
bool Writer<K, V>::reserve(std::uint32_t n) {
  n = std::min(n, maxCapacity_);
  return n <= layout_.capacity || grow(n);
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
bool Writer<K, V>::grow(std::uint32_t cap) {
  // cap entries in a new file beside the current one; it replaces the current one at the
  // next commit, as one whole-collection change.
  const detail::Layout layout = layoutFor(cap, layout_.ringSize);
  auto next = std::make_unique<detail::WriterCore>(*core_, layout);
  if (!next->ok()) return false;
  std::vector<detail::SlotBody<V>> live;
  live.reserve(live_);
  for (std::uint32_t i = 0; i < layout_.slotCount; ++i) {
    if (shadow_[i].state == detail::kSlotLive) live.push_back(shadow_[i]);
  }
  if (!shadowMem_.allocate(std::size_t{layout.slotCount} * sizeof(detail::SlotBody<V>)) ||
      !marksMem_.allocate(std::size_t{layout.slotCount} * sizeof(Marks))) {
    KEL_ASSERT(false && "out of address space for a grown table");
  }
  shadow_ = static_cast<detail::SlotBody<V>*>(shadowMem_.data());
  marks_ = static_cast<Marks*>(marksMem_.data());
  FLICK_TRACE(trace(), 4, "{}: growing from {} to {} entries", core_->file(), layout_.capacity,
              cap);
  layout_ = layout;
  for (const detail::SlotBody<V>& b : live) {
    std::uint32_t i = detail::homeSlot(b.hash, layout_.slotCount);
    while (shadow_[i].state != detail::kSlotEmpty) i = detail::nextSlot(i, layout_.slotCount);
    shadow_[i] = b;
  }
  tombs_ = 0;
  dirty_.clear();
  allDirty_ = true;
  queueCollection();
  // Keep the table readers map until the grown one is installed; an intermediate one
  // (two growths between commits) is dropped.
  if (!installed_) installed_ = std::move(core_);
  core_ = std::move(next);
  return true;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Writer<K, V>::rebuild() {
  // Tombstones crowd the table: lay the live entries out afresh. Entries move, so readers
  // are told to resync rather than which keys changed.
  std::vector<V> values;
  values.reserve(live_);
  for (std::uint32_t i = 0; i < layout_.slotCount; ++i) {
    if (shadow_[i].state == detail::kSlotLive) values.push_back(shadow_[i].value);
  }
  shadowMem_.clear();
  const std::uint32_t slots = layout_.slotCount;
  for (const V& v : values) {
    const std::uint32_t h = static_cast<std::uint32_t>(v.key().hash());
    std::uint32_t i = detail::homeSlot(h, slots);
    while (shadow_[i].state != detail::kSlotEmpty) i = detail::nextSlot(i, slots);
    shadow_[i].state = detail::kSlotLive;
    shadow_[i].hash = h;
    shadow_[i].value = v;
  }
  tombs_ = 0;
  allDirty_ = true;
  queueCollection();
  FLICK_TRACE(trace(), 4, "{}: rebuilt {} entries", core_->file(), live_);
}

// --- Reader ------------------------------------------------------------------------------

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> Kel::Ptr<Reader<K, V>> Reader<K, V>::create(
    Ulm::EventLoop& loop, std::string_view path, std::string_view name) {
  return Kel::Ptr<Reader>(new Reader(loop, path, name));
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> Reader<K, V>::Reader(Ulm::EventLoop& loop,
                                                              std::string_view path,
                                                              std::string_view name)
    : core_(
          loop, std::string(path), std::string(name),
          [] {
            detail::Layout l;
            l.keySize = sizeof(K);
            l.valueSize = sizeof(V);
            l.slotSize = detail::kSlotSize<V>;
            l.ringEntrySize = detail::kRingEntrySize<K>;
            l.schema = detail::schemaFor<K, V>();
            return l;
          }(),
          detail::ReaderCore::Hooks{this, [this] { handleWake(); },
                                    [this](bool m) { handleMountStatus(m); },
                                    [this] { handleRemap(); }}) {}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> Reader<K, V>::~Reader() = default;

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> std::optional<V> Reader<K, V>::find(const K& k)
const {
  V v;
  if (findStatus(k, v) != FindStatus::found) return std::nullopt;
  return v;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> FindStatus Reader<K, V>::findStatus(const K& k, V& out)
const {
  if (!core_.mounted()) return FindStatus::absent;
  const std::uint32_t h = static_cast<std::uint32_t>(k.hash());
  const std::uint32_t slots = core_.layout().slotCount;
  std::uint32_t i = detail::homeSlot(h, slots);
  detail::SlotBody<V> b;
  for (std::uint32_t n = 0; n < slots; ++n, i = detail::nextSlot(i, slots)) {
    if (!detail::readSlot(core_.slot(i), b)) return FindStatus::changing;  // notice follows
    if (b.state == detail::kSlotEmpty) return FindStatus::absent;
    if (b.state == detail::kSlotLive && b.hash == h && b.value.key() == k) {
      out = b.value;
      return FindStatus::found;
    }
  }
  return FindStatus::absent;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Reader<K, V>::prefetch(const K& k) const noexcept {
  if (!core_.mounted()) return;
  const auto* s = reinterpret_cast<const char*>(
      core_.slot(detail::homeSlot(static_cast<std::uint32_t>(k.hash()), core_.layout().slotCount)));
  if (!s) return;
  for (std::uint32_t b = 0; b < detail::kSlotSize<V>; b += 64) __builtin_prefetch(s + b);
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
template <typename F>
void Reader<K, V>::forEach(F&& fn) const {
  detail::SlotBody<V> b;
  const std::uint32_t end = endIndex();
  for (std::uint32_t i = nextStable(0, b); i < end; i = nextStable(i + 1, b)) fn(b.value);
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> std::uint32_t Reader<K, V>::size()
const { return core_.stats().size; }

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> std::uint32_t Reader<K, V>::endIndex()
const noexcept { return core_.mounted() ? core_.layout().slotCount : 0; }

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K> std::uint32_t Reader<K, V>::nextStable(
    std::uint32_t from, detail::SlotBody<V>& out)
const {
  const std::uint32_t end = endIndex();
  for (; from < end; ++from) {
    if (detail::readSlot(core_.slot(from), out) && out.state == detail::kSlotLive) return from;
  }
  return end;
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Reader<K, V>::sync() { handleWake(); }

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Reader<K, V>::handleWake() {
  // Before the mount is announced, its initial onCollection() covers every change.
  if (!core_.announced()) return;
  const std::uint64_t head = core_.publishedHead();
  if (head == consumed_) return;
  const std::uint64_t ringSize = core_.layout().ringSize;
  bool lost = head - consumed_ > ringSize;
  batch_.clear();
  std::uint64_t collections = 0;
  std::uint64_t words[detail::kKeyWords<K>];
  for (std::uint64_t p = consumed_; !lost && p != head; ++p) {
    const std::uint64_t* e = core_.ringEntry(p);
    if (detail::loadWord(e, std::memory_order_acquire) != p + 1) {
      lost = true;
      break;
    }
    const std::uint64_t kind = detail::loadWord(e + 1, std::memory_order_relaxed);
    for (std::size_t w = 0; w < detail::kKeyWords<K>; ++w) {
      words[w] = detail::loadWord(e + 2 + w, std::memory_order_relaxed);
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (detail::loadWord(e, std::memory_order_relaxed) != p + 1) {
      lost = true;  // lapped while copying
      break;
    }
    K k;
    std::memcpy(static_cast<void*>(&k), words, sizeof k);
    if (kind == detail::kRingCollection) {
      ++collections;
    } else {
      batch_.push_back(k);
    }
  }
  consumed_ = head;
  Kel::Ptr<Reader> hold(this);
  if (lost) {
    ++overflows_;
    FLICK_TRACE(trace(), 5, "{}: change ring overrun, resync", core_.file());
    notifiees_.forEach([](NotifieeConst& n) { n.onCollection(); });
    return;
  }
  if (collections) notifiees_.forEach([](NotifieeConst& n) { n.onCollection(); });
  // Copied: a handler may run sync() and reuse batch_.
  std::vector<K> keys;
  keys.swap(batch_);
  for (const K& k : keys) {
    notifiees_.forEach([&](NotifieeConst& n) { n.onKey(k); });
  }
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Reader<K, V>::handleMountStatus(bool m) {
  Kel::Ptr<Reader> hold(this);
  if (m) consumed_ = core_.publishedHead();
  notifiees_.forEach([m](NotifieeConst& n) { n.onMountStatus(m); });
  notifiees_.forEach([](NotifieeConst& n) { n.onCollection(); });
}

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
void Reader<K, V>::handleRemap() {
  // The grown table's ring starts afresh: one whole-collection notice covers the switch.
  Kel::Ptr<Reader> hold(this);
  consumed_ = core_.publishedHead();
  notifiees_.forEach([](NotifieeConst& n) { n.onCollection(); });
}

// --- TableSet ----------------------------------------------------------------------------

template <typename K, typename V>
Kel::Ptr<Writer<K, V>> TableSet::writer(std::string_view name) const {
  const CollectionInfo* c = info_.find(name);
  KEL_ASSERT(c && "collection not declared in the table set's MountInfo");
  return Writer<K, V>::create(path_, *c);
}

}  // namespace Drobe
