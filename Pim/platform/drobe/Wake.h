// Drobe wake-up: how a writer's commit reaches its readers. ReaderHub holds the descriptors
// of all readers on one event loop; the writer's side (its per-reader-process descriptors
// and the signalling on commit) is WriterCore's, in Wake.cpp.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "Pim/platform/Ulm.h"
#include "Pim/platform/drobe/Mount.h"

namespace Drobe::detail {

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

 private:
  struct Pidfd {
    int fd = -1;
    int refs = 0;
  };
  explicit ReaderHub(Ulm::EventLoop& loop);
  void destroy();
  void directoryEvents();
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
  int eventFd_ = -1;
  int sock_ = -1;
  int inotify_ = -1;
  int dispatching_ = 0;
};

}  // namespace Drobe::detail
