// Drobe mounting: the untyped halves of a writer (creates, grows and retires a collection
// file, wakes its readers) and of a reader (mounts, remounts, follows the writer's
// liveness), and which paths a table may be mounted at. Implemented in Drobe.cpp; the
// paths in Mount.cpp, the wake-ups in Wake.cpp.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Pim/platform/Kel.h"
#include "Pim/platform/Ulm.h"
#include "Pim/platform/drobe/Format.h"

namespace Drobe {
struct CollectionStats;
}  // namespace Drobe

namespace Drobe::detail {

struct Header;
struct ReaderEntry;
class Mapping;
class ReaderHub;
class WakeRegistry;
struct Registration;

// Where a mount path or collection name may lead: one or more components, none empty, "."
// or "..", so that no name can place a table outside the root.
bool safeMountPath(std::string_view path) noexcept;
bool safeCollectionName(std::string_view name) noexcept;

// The untyped half of a writer: file, header, registry, wake-ups.
class WriterCore {
 public:
  WriterCore(std::string path, std::string name, const Layout& layout);
  // A grown successor of from's table, in a file of its own until install(from) puts it
  // in place (from's readers then move to it).
  WriterCore(const WriterCore& from, const Layout& layout);
  void install(WriterCore& from);
  ~WriterCore();
  WriterCore(const WriterCore&) = delete;
  WriterCore& operator=(const WriterCore&) = delete;

  bool ok() const noexcept { return map_ != nullptr; }
  const std::string& file() const noexcept { return file_; }
  const std::string& name() const noexcept { return name_; }
  // Slot i's words, its pages marked as in use first (readers skip unmarked pages).
  std::uint64_t* slotForWrite(std::uint32_t i) noexcept;
  // Whether slot i was ever written (its pages in use and its sequence non-zero).
  bool slotWritten(std::uint32_t i) const noexcept;
  std::uint64_t* ringEntry(std::uint64_t pos) const noexcept;
  std::uint64_t ringHead() const noexcept;
  // Makes ring entries up to newHead visible, counts the commit, wakes the readers.
  void publish(std::uint64_t newHead, std::uint32_t liveCount);
  void refusedInc();
  void corruptInc();
  CollectionStats stats() const;

 private:
  void signalReaders();
  bool create(std::uint64_t generation, const WriterCore* from);
  std::string path_;
  std::string name_;
  std::string file_;
  Layout layout_;
  Mapping* map_ = nullptr;
  // Open for the writer's whole life, holding an exclusive open-file-description lock on
  // the table: the kernel drops it when the writer dies, whatever becomes of its pid.
  int lockFd_ = -1;
  std::string tmp_;               // the file's name until it is in place
  bool grown_ = false;            // replaced by a grown table: not retired
  WakeRegistry* wake_ = nullptr;  // the process's, shared by all its tables
  std::uint32_t wakeBit_ = 0;
};

// The untyped half of a reader: mounting, remounting, the wake-up socket, liveness.
class ReaderCore {
 public:
  struct Hooks {
    const Kel::PtrInterface* owner = nullptr;  // kept alive while a hook runs
    std::function<void()> wake;                // the ring may have new entries
    std::function<void(bool)> mountStatus;     // mounted / unmounted
    std::function<void()> remapped;            // moved to the writer's grown table
  };
  ReaderCore(Ulm::EventLoop& loop, std::string path, std::string name, const Layout& layout,
             Hooks hooks);
  ~ReaderCore();
  ReaderCore(const ReaderCore&) = delete;
  ReaderCore& operator=(const ReaderCore&) = delete;

  bool mounted() const noexcept { return map_ != nullptr; }
  // Mounted and onMountStatus(true) delivered: change notices may flow.
  bool announced() const noexcept { return announced_; }
  const std::string& file() const noexcept { return file_; }
  const Layout& layout() const noexcept { return layout_; }
  // Slot i's words, or nullptr if the writer never wrote its pages (an empty slot).
  const std::uint64_t* slot(std::uint32_t i) const noexcept;
  const std::uint64_t* ringEntry(std::uint64_t pos) const noexcept;
  // The ring head published by the last commit (the hub clears the wake-up flags before
  // it calls the readers, so a commit after this load wakes them again).
  std::uint64_t publishedHead() const noexcept;
  CollectionStats stats() const;
  // Re-checks the file and the writer now (also run by the health timer).
  void check();

 private:
  friend class ReaderHub;
  void tryMount();
  bool remap();
  void registerForWakeUps(std::int32_t writerPid);
  void unmount();
  void watchDir();
  void woken();
  bool writerAlive() const;
  Ulm::EventLoop& loop_;
  std::string path_;
  std::string name_;
  std::string file_;
  Layout layout_;
  Hooks hooks_;
  Mapping* map_ = nullptr;
  bool safe_ = false;
  ReaderHub* hub_ = nullptr;  // the loop's shared wake-up, directory and writer watches
  int wd_ = -1;               // inotify watch of the mount directory
  bool watching_ = false;
  std::int32_t writerPid_ = 0;     // watched through the hub while mounted
  Registration* reg_ = nullptr;    // the loop's entry in the writer's registry
  std::uint32_t undelivered_ = 0;  // the writer's count of failed wake-ups, as last seen
  bool failing_ = false;           // polling at the short period
  bool announced_ = false;
  Ulm::Timer health_;
};

}  // namespace Drobe::detail
