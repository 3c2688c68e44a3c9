// Drobe wake-up: how a writer's commit reaches its readers. A writer process keeps one
// registry (WakeRegistry) for all its tables, in which each reader process registers once
// per event loop; ReaderHub holds that loop's descriptors and registrations.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Pim/platform/Ulm.h"
#include "Pim/platform/drobe/Header.h"
#include "Pim/platform/drobe/Mount.h"

namespace Drobe::detail {

class Mapping;

// A loop's entry in one writer's registry, shared by every reader of the loop that mounts
// one of that writer's tables.
struct Registration {
  std::string file;
  ReaderEntry* entries = nullptr;  // the registry page, mapped writable
  ReaderEntry* entry = nullptr;    // ours
  std::uint32_t count = 0;         // entries in the page the writer uses
  int refs = 0;
};

// ReaderHub: the descriptors of all readers on one event loop, so that a reader process
// holds a handful whatever it mounts: one eventfd and one datagram socket for wake-ups
// (registered under the same name in every table), one inotify instance, and one pidfd
// per writer process. A wake-up or event is offered to every reader of the loop; each
// checks its own table, which costs a load or two.
class ReaderHub {
 public:
  static ReaderHub* join(Ulm::EventLoop& loop, ReaderCore* c);
  void leave(ReaderCore* c) {
    if (dispatching_ > 0) {
      // Keep indexes stable for the dispatch in progress; it compacts afterwards.
      std::replace(cores_.begin(), cores_.end(), c, static_cast<ReaderCore*>(nullptr));
      return;
    }
    std::erase(cores_, c);
    if (cores_.empty()) destroy();
  }
  int eventFd() const noexcept { return eventFd_; }
  int sock() const noexcept { return sock_; }
  int inotify() const noexcept { return inotify_; }
  void watchWriter(ReaderCore* c, std::int32_t pid);
  void unwatchWriter(ReaderCore* c);
  // Registers the loop with the writer of m (pid) once, and marks m's table as read;
  // nullptr if the registry cannot be had (not writable for us, or full): the reader polls.
  Registration* enrol(const Mapping& m, std::int32_t pid);
  void withdraw(Registration* r);
  std::uint64_t wakeUps() const noexcept { return wakeUps_; }

 private:
  struct Pidfd {
    int fd = -1;
    int refs = 0;
  };
  explicit ReaderHub(Ulm::EventLoop& loop);
  void destroy();
  void directoryEvents();
  // Clears every registration's flag, then offers the wake-up to every reader: a commit
  // after the clear wakes us again, one before it is in the rings we are about to read.
  void woken();
  // Calls fn for each reader that is still on the loop when its turn comes (a handler may
  // destroy readers); the hub goes when the last one has.
  template <typename F>
  void dispatch(F&& fn) {
    ++dispatching_;
    // By index: readers that join during the dispatch are appended, readers that leave
    // are nulled (see leave), so no copy of the list is needed on the wake-up path.
    const std::size_t n = cores_.size();
    for (std::size_t i = 0; i < n; ++i) {
      if (ReaderCore* c = cores_[i]) fn(c);
    }
    if (--dispatching_ > 0) return;
    std::erase(cores_, nullptr);
    if (cores_.empty()) destroy();
  }

  Ulm::EventLoop& loop_;
  std::vector<ReaderCore*> cores_;
  std::map<std::int32_t, Pidfd> writers_;
  std::map<std::string, Registration> registrations_;  // by registry file
  std::uint64_t wakeUps_ = 0;
  int eventFd_ = -1;
  int sock_ = -1;
  int inotify_ = -1;
  int dispatching_ = 0;
};

// WakeRegistry: a writer process's registry of reader processes and the descriptors that
// wake them (a duplicate of the reader's eventfd and a pidfd, or a connected datagram
// socket), shared by every table the process writes: two descriptors per reader process.
// A commit wakes the readers whose interest mask holds the table's bit, each at most once
// until it clears its flag. Event-loop thread only, like the writers; acquire and release
// take a lock.
class WakeRegistry {
 public:
  // The process's registry, created on first use; nullptr if it cannot be.
  static WakeRegistry* acquire();
  void release();
  std::uint64_t id() const noexcept { return id_; }
  // Wakes the readers of a table (mask: its bit); table names it in traces.
  void signal(std::uint64_t mask, const std::string& table);
  std::uint32_t readers(std::uint64_t mask) const noexcept;
  std::uint64_t sent() const noexcept { return sent_; }

 private:
  struct Peer {
    int fd = -1;     // the reader's eventfd (duplicated) or a connected socket
    int pidfd = -1;  // with an eventfd: tells whether the reader still lives
    bool eventFd = false;
    std::uint64_t nextCheck = 0;  // monotonic ns of the next liveness check
    std::int32_t pid = 0;
    std::int32_t readerEventFd = -1;  // the number the reader registered
    std::uint32_t nameLen = 0;
    char name[sizeof ReaderEntry::name] = {};
  };
  WakeRegistry() = default;
  bool create();
  // Closes what a forked child inherited, leaving the parent's registry as it is.
  void forget();
  bool openPeer(Peer& p, const ReaderEntry& e, const std::string& table);
  void closePeer(Peer& p);
  void freeEntry(ReaderEntry& e, Peer& p, std::uint32_t i, const std::string& table);

  std::string file_;
  int fd_ = -1;  // holds the lock that tells readers and successors we live
  ReaderEntry* entries_ = nullptr;
  std::int32_t pid_ = 0;
  std::uint64_t id_ = 0;
  int refs_ = 0;
  std::uint64_t sent_ = 0;
  Peer peers_[kMaxReaders];
};

}  // namespace Drobe::detail
