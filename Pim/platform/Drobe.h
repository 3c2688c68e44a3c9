// Drobe: keyed tables of trivially copyable records in POSIX shared memory. One writer
// process, any number of reader processes, each reader on its own Ulm::EventLoop.
//
// Files. Tables live under a root directory, /dev/shm/pimcore unless the environment
// variable DROBE_ROOT names another (tests use a private root). A table set is mounted at a
// path such as "routing/pim/status/default"; each collection of the set ("neighbor") is
// one mapped file <root>/<path>/<collection>. Every writer mount creates a fresh file and
// renames it into place, so a reader always maps a fully initialised table, and a restarted
// writer never scribbles over a mapping that readers of its dead predecessor still hold.
//
// Records. A collection is templated on key K (trivially copyable, `std::uint32_t hash()
// const`, operator==) and value V (trivially copyable, `K key() const`). The capacity (live
// entries) is fixed by the writer at mount time; slots are a power of two with at most 3/4
// of them live, probed linearly from hash(k).
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
//     writer, there is no per-reader state in the slots, and a slot costs 4 bytes.)
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
//     flood and nothing is lost, only coarsened. Within one commit a key appears once.
//   - Writer death: the header holds the writer's pid and a generation number bumped on
//     every writer mount. The reader watches the writer with a pidfd (readable when the
//     process exits) on its loop, and the mount directory with inotify (a new writer's
//     file appears by rename); a one-second health timer re-checks both, which also covers
//     a kernel without pidfd and a lost inotify event.
//
// Wake-up. Each reader owns an AF_UNIX SOCK_DGRAM socket (non-blocking, autobound in the
// abstract namespace) watched by its EventLoop, and registers its name in a reader registry
// in the table header. On commit the writer, for each registered reader, swaps the reader's
// "signalled" flag to 1 and sends one byte only if it was 0; the reader clears the flag
// before it reads the ring, so a burst of commits costs one datagram and one wake-up, and
// no commit is missed. A futex would wake a thread blocked in futex(2), which a
// single-threaded epoll loop cannot be; an eventfd cannot be shared with an unrelated
// process without a socket to pass it over anyway. Measured by bench/DrobeBench on this
// machine: see the WakeLatency figures there (datagram+epoll vs a bare futex wake).
// A dead reader's registry entry is freed by the writer when its send fails
// (ECONNREFUSED); a reader that finds the registry full falls back to its health timer.
//
// Threading: a Writer or Reader belongs to its process's event-loop thread; no locks.
// Across processes only atomics and sequence locks (lock-free; a dead writer cannot block
// a reader). All processes must share a pid namespace for the liveness check.
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

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Ulm.h"

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
inline constexpr int kReadRetries = 64;

// One collection as the writer declares it.
struct CollectionInfo {
  std::string name;
  std::uint32_t capacity = 0;
  std::uint32_t ringSize = 0;  // change-ring entries, rounded up to a power of two;
                               // 0 means kDefaultRingSize
};

// The collections of a table set as its writer declares them.
struct MountInfo {
  std::vector<CollectionInfo> collections;
  const CollectionInfo* find(std::string_view name) const;
};

enum class LookupStatus { Absent, Found, Corrupt };

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
  std::uint32_t readers = 0;  // registered readers
  std::uint64_t bytes = 0;    // size of the shared file
};

namespace detail {

// Slot states. Distinct non-zero patterns so that a scribbled byte is unlikely to pass.
inline constexpr std::uint8_t kSlotEmpty = 0x00;
inline constexpr std::uint8_t kSlotLive = 0xA5;
inline constexpr std::uint8_t kSlotTomb = 0x5A;

inline constexpr std::uint32_t kRingKey = 1;
inline constexpr std::uint32_t kRingCollection = 2;

// One slot: sequence lock, state, stored hash, value. The same layout serves as the
// writer's private shadow (seq unused there).
template <typename V>
struct Slot {
  std::atomic<std::uint32_t> seq{0};
  std::uint8_t state = kSlotEmpty;
  std::uint8_t pad[3]{};
  std::uint32_t hash = 0;
  V value{};
};

template <typename K>
struct RingEntry {
  std::atomic<std::uint64_t> pos{~std::uint64_t{0}};  // ring position, ~0 while written
  std::uint32_t kind = 0;
  std::uint32_t pad = 0;
  K key{};
};

// Geometry of a collection file; the writer stores it, a reader checks it against its
// own template arguments before it trusts the mapping.
struct Layout {
  std::uint32_t keySize = 0;
  std::uint32_t valueSize = 0;
  std::uint32_t slotSize = 0;
  std::uint32_t ringEntrySize = 0;
  std::uint32_t capacity = 0;
  std::uint32_t slotCount = 0;
  std::uint32_t ringSize = 0;
};

std::uint32_t slotCountFor(std::uint32_t capacity);
std::uint32_t ringSizeFor(std::uint32_t requested);

struct Header;
class Mapping;

// The untyped half of a writer: file, header, registry, wake-ups.
class WriterCore {
 public:
  WriterCore(std::string path, std::string name, const Layout& layout);
  ~WriterCore();
  WriterCore(const WriterCore&) = delete;
  WriterCore& operator=(const WriterCore&) = delete;

  bool ok() const noexcept { return map_ != nullptr; }
  const std::string& file() const noexcept { return file_; }
  const std::string& name() const noexcept { return name_; }
  std::byte* slot(std::uint32_t i) const noexcept;
  std::byte* ringEntry(std::uint64_t pos) const noexcept;
  std::uint64_t ringHead() const noexcept;
  // Makes ring entries up to newHead visible, counts the commit, wakes the readers.
  void publish(std::uint64_t newHead, std::uint32_t liveCount);
  void refusedInc();
  void corruptInc();
  CollectionStats stats() const;

 private:
  void signalReaders();
  std::string path_;
  std::string name_;
  std::string file_;
  Layout layout_;
  Mapping* map_ = nullptr;
  int sendFd_ = -1;
};

// The untyped half of a reader: mounting, remounting, the wake-up socket, liveness.
class ReaderCore {
 public:
  struct Hooks {
    std::function<void()> wake;             // the ring may have new entries
    std::function<void(bool)> mountStatus;  // mounted / unmounted
  };
  ReaderCore(Ulm::EventLoop& loop, std::string path, std::string name, const Layout& layout,
             Hooks hooks);
  ~ReaderCore();
  ReaderCore(const ReaderCore&) = delete;
  ReaderCore& operator=(const ReaderCore&) = delete;

  bool mounted() const noexcept { return map_ != nullptr; }
  const std::string& file() const noexcept { return file_; }
  const Layout& layout() const noexcept { return layout_; }
  const std::byte* slot(std::uint32_t i) const noexcept;
  const std::byte* ringEntry(std::uint64_t pos) const noexcept;
  // Clears this reader's signalled flag (before reading the ring) and returns the ring
  // head published by the last commit.
  std::uint64_t rearmAndHead() noexcept;
  CollectionStats stats() const;
  // Re-checks the file and the writer now (also run by the health timer).
  void check();

 private:
  void tryMount();
  void unmount();
  void drainSocket();
  bool writerAlive() const;
  Ulm::EventLoop& loop_;
  std::string path_;
  std::string name_;
  std::string file_;
  Layout layout_;
  Hooks hooks_;
  Mapping* map_ = nullptr;
  int sock_ = -1;
  int inotify_ = -1;
  int pidfd_ = -1;
  int registryIndex_ = -1;
  Ulm::Timer health_;
};

// Sequence-locked copy of one shared slot. Returns false if the slot kept changing.
template <typename V>
bool readSlot(const std::byte* raw, Slot<V>& out) noexcept;

}  // namespace detail

template <typename K, typename V>
requires TableKey<K> && TableValue<V, K>
class Writer : public Kel::PtrInterface {
 public:
  // Mounts the collection info.name at path; nullptr (traced) if the file cannot be made
  // or another live process writes it.
  static Kel::Ptr<Writer> create(std::string_view path, const CollectionInfo& info);
  ~Writer() override;

  // Insert or overwrite; false (refused, traced, counted) if the table is full.
  bool is(const V& v);
  // Remove; false if k was absent.
  bool del(const K& k);
  void delAll();
  std::optional<V> find(const K& k) const;
  Lookup<V> lookup(const K& k) const;
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
  CollectionStats stats() const { return core_.stats(); }
  const std::string& file() const noexcept { return core_.file(); }

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
  static detail::Layout layoutFor(const CollectionInfo& info);
  std::uint32_t nextLive(std::uint32_t from) const noexcept;
  void markDirty(std::uint32_t slot);
  void queueKey(std::uint32_t slot, const K& k);
  void queueCollection();
  void sweepTombstones(std::uint32_t slot);
  void rebuild();

  detail::Layout layout_;
  detail::WriterCore core_;
  std::vector<detail::Slot<V>> shadow_;
  std::vector<std::uint64_t> dirtyMark_;  // commit epoch in which the slot was dirtied
  std::vector<std::uint64_t> keyMark_;    // commit epoch in which the slot's key was queued
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
    detail::Slot<V> cur_;
  };
  const_iterator begin() const { return const_iterator(this, 0); }
  const_iterator end() const { return const_iterator(nullptr, endIndex()); }

 private:
  Reader(Ulm::EventLoop& loop, std::string_view path, std::string_view name);
  std::uint32_t endIndex() const noexcept;
  std::uint32_t nextStable(std::uint32_t from, detail::Slot<V>& out) const;
  void handleWake();
  void handleMountStatus(bool mounted);

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

}  // namespace Drobe
