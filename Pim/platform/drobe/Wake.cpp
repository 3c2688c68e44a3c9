// Drobe wake-up: the reader hub's descriptors and watches, and the writer's side: one
// eventfd duplicate (or connected socket) and pidfd per reader process, shared by every
// table it writes, the wake-up on commit, and freeing a dead reader's registry entry.

#include "Pim/platform/drobe/Wake.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "Pim/platform/Drobe.h"
#include "Pim/platform/drobe/Header.h"
#include "Pim/platform/drobe/Mapping.h"

namespace Drobe::detail {

namespace {

// How often the writer asks whether a reader woken through its eventfd, that has not
// consumed its last wake-up, is still alive (a write to a dead reader's eventfd succeeds).
constexpr std::uint64_t kPeerCheckNs = 1000000000ull;

std::uint64_t monotonicNs() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ull +
         static_cast<std::uint64_t>(ts.tv_nsec);
}

std::mutex gHubsMutex;
std::map<const Ulm::EventLoop*, ReaderHub*> gHubs;

}  // namespace

ReaderHub* ReaderHub::join(Ulm::EventLoop& loop, ReaderCore* c) {
  std::lock_guard<std::mutex> lock(gHubsMutex);
  ReaderHub*& h = gHubs[&loop];
  if (!h) h = new ReaderHub(loop);
  h->cores_.push_back(c);
  return h;
}

void ReaderHub::watchWriter(ReaderCore* c, std::int32_t pid) {
  unwatchWriter(c);
  c->writerPid_ = pid;
  Pidfd& p = writers_[pid];
  if (p.refs++ == 0) {
    p.fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    // The writer's exit makes its pidfd readable: prompt detection of a crash.
    if (p.fd >= 0) {
      ::fcntl(p.fd, F_SETFD, FD_CLOEXEC);
      loop_.watch(p.fd, [this, pid] {
        dispatch([pid](ReaderCore* r) {
          if (r->writerPid_ == pid) r->check();
        });
      });
    }
  }
}

void ReaderHub::unwatchWriter(ReaderCore* c) {
  if (c->writerPid_ == 0) return;
  auto it = writers_.find(c->writerPid_);
  c->writerPid_ = 0;
  if (it == writers_.end() || --it->second.refs > 0) return;
  if (it->second.fd >= 0) {
    loop_.unwatch(it->second.fd);
    ::close(it->second.fd);
  }
  writers_.erase(it);
}

ReaderHub::ReaderHub(Ulm::EventLoop& loop) : loop_(loop) {
  // Woken through the eventfd when the writer may duplicate it, else through the socket.
  // Edge-triggered: every write is an event, so the counter is never read (one system
  // call less per wake-up); it would take 2^64 wake-ups to fill.
  eventFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (eventFd_ >= 0 &&
      !loop_.watch(
          eventFd_, [this] { dispatch([](ReaderCore* r) { r->woken(); }); }, true)) {
    ::close(eventFd_);
    eventFd_ = -1;
  }
  sock_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  // Binding only the family autobinds a unique abstract name: nothing to clean up.
  if (sock_ < 0 ||
      ::bind(sock_, reinterpret_cast<const sockaddr*>(&addr), sizeof(sa_family_t)) != 0) {
    FLICK_TRACE(trace(), 1, "wake-up socket: {}", std::strerror(errno));
  } else {
    loop_.watch(sock_, [this] {
      // Wake-ups are coalesced, so one datagram is normally all there is; should more be
      // queued, the level-triggered loop calls again.
      char buf[64];
      (void)::recv(sock_, buf, sizeof buf, MSG_DONTWAIT);
      dispatch([](ReaderCore* r) { r->woken(); });
    });
  }
  inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotify_ < 0) {
    FLICK_TRACE(trace(), 1, "inotify unavailable ({}), polling", std::strerror(errno));
  } else {
    loop_.watch(inotify_, [this] { directoryEvents(); });
  }
}

void ReaderHub::destroy() {
  {
    std::lock_guard<std::mutex> lock(gHubsMutex);
    gHubs.erase(&loop_);
  }
  for (int fd : {eventFd_, sock_, inotify_}) {
    if (fd < 0) continue;
    loop_.unwatch(fd);
    ::close(fd);
  }
  delete this;
}

void ReaderHub::directoryEvents() {
  alignas(inotify_event) char buf[4096];
  std::vector<std::string> names;
  std::vector<int> ignored;
  bool overflow = false;
  for (;;) {
    const ssize_t n = ::read(inotify_, buf, sizeof buf);
    if (n <= 0) break;
    for (ssize_t off = 0; off < n;) {
      const auto* ev = reinterpret_cast<const inotify_event*>(buf + off);
      overflow |= (ev->mask & IN_Q_OVERFLOW) != 0;
      if (ev->len) names.emplace_back(ev->name);
      // The directory went away: its readers watch it again when it is back.
      if (ev->mask & IN_IGNORED) ignored.push_back(ev->wd);
      off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
    }
  }
  dispatch([&](ReaderCore* r) {
    if (std::find(ignored.begin(), ignored.end(), r->wd_) != ignored.end()) {
      r->watching_ = false;
    }
    if (overflow || !r->watching_ ||
        std::find(names.begin(), names.end(), r->name_) != names.end()) {
      r->check();
    }
  });
}

namespace {

// The descriptors that wake one reader process (its eventfd, or a socket connected to its
// own, and a pidfd), shared by every collection this process writes: the writer holds two
// per reader process, however many of its tables that process reads.
struct SharedPeer {
  int fd = -1;
  int pidfd = -1;
  bool eventFd = false;
  int refs = 0;
};
std::mutex gPeersMutex;
std::map<std::string, SharedPeer> gPeers;  // by reader pid, socket name and eventfd number

std::string peerKey(std::int32_t pid, const char* name, std::uint32_t len, std::int32_t efd) {
  std::string k(reinterpret_cast<const char*>(&pid), sizeof pid);
  k.append(reinterpret_cast<const char*>(&efd), sizeof efd);
  k.append(name, len);
  return k;
}

}  // namespace

void WriterCore::closePeer(Peer& p) {
  if (p.fd >= 0 || p.pidfd >= 0) {
    std::lock_guard<std::mutex> lock(gPeersMutex);
    auto it = gPeers.find(peerKey(p.pid, p.name, p.nameLen, p.readerEventFd));
    if (it != gPeers.end() && --it->second.refs == 0) {
      if (it->second.fd >= 0) ::close(it->second.fd);
      if (it->second.pidfd >= 0) ::close(it->second.pidfd);
      gPeers.erase(it);
    }
  }
  p.fd = -1;
  p.pidfd = -1;
  p.eventFd = false;
}

bool WriterCore::openPeer(Peer& p, const ReaderEntry& e) {
  std::lock_guard<std::mutex> lock(gPeersMutex);
  p.readerEventFd = e.eventFd;
  const std::string key = peerKey(p.pid, p.name, p.nameLen, p.readerEventFd);
  if (auto it = gPeers.find(key); it != gPeers.end()) {
    ++it->second.refs;
    p.fd = it->second.fd;
    p.pidfd = it->second.pidfd;
    p.eventFd = it->second.eventFd;
    p.nextCheck = monotonicNs() + kPeerCheckNs;
    return true;
  }
  if (!openPeerFds(p, e)) return false;
  gPeers[key] = SharedPeer{p.fd, p.pidfd, p.eventFd, 1};
  return true;
}

bool WriterCore::openPeerFds(Peer& p, const ReaderEntry& e) {
  // Preferred: a duplicate of the reader's eventfd, taken through a pidfd (needs ptrace
  // access to the reader, as root). The pidfd stays open to tell a dead reader.
  if (e.eventFd >= 0) {
    p.pidfd = static_cast<int>(::syscall(SYS_pidfd_open, p.pid, 0));
    if (p.pidfd >= 0) {
      p.fd = static_cast<int>(::syscall(SYS_pidfd_getfd, p.pidfd, e.eventFd, 0));
      if (p.fd >= 0) {
        // A reader frees its entry before it closes its eventfd: if the entry is still the
        // same reader's now, the number named its eventfd when we took it, not a reuse.
        if (e.state.load() != kEntryActive || e.pid.load() != p.pid || e.nameLen != p.nameLen ||
            std::memcmp(e.name, p.name, p.nameLen) != 0) {
          ::close(p.fd);
          ::close(p.pidfd);
          p.fd = p.pidfd = -1;
          errno = EAGAIN;  // the entry changed hands: the next commit starts again
          return false;
        }
        p.eventFd = true;
        p.nextCheck = monotonicNs() + kPeerCheckNs;
        return true;
      }
      ::close(p.pidfd);
      p.pidfd = -1;
    }
  }
  // Otherwise (refused, or an old kernel): a datagram socket connected to the reader's.
  FLICK_TRACE(trace(), 4, "{}: reader {} woken by datagram (pidfd_getfd: {})", file_, p.pid,
              e.eventFd >= 0 ? std::strerror(errno) : "no eventfd");
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, p.name, p.nameLen);
  const auto alen = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + p.nameLen);
  p.fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (p.fd >= 0 && ::connect(p.fd, reinterpret_cast<const sockaddr*>(&addr), alen) != 0) {
    const int err = errno;
    ::close(p.fd);
    p.fd = -1;
    errno = err;
  }
  return p.fd >= 0;
}

void WriterCore::signalReaders() {
  for (std::uint32_t i = 0; i < kMaxReaders; ++i) {
    ReaderEntry* e = map_->reader(i);
    if (e->state.load(std::memory_order_acquire) != kEntryActive) continue;
    Peer& p = peers_[i];
    if (e->signalled.exchange(1, std::memory_order_seq_cst) != 0) {
      // A reader that has not consumed its wake-up may be dead: its eventfd cannot say so.
      if (p.eventFd && p.pid == e->pid.load()) {
        const std::uint64_t now = monotonicNs();
        if (now >= p.nextCheck) {
          p.nextCheck = now + kPeerCheckNs;
          pollfd pfd{p.pidfd, POLLIN, 0};
          if (::poll(&pfd, 1, 0) == 1) freeEntry(*e, p, i);
        }
      }
      continue;
    }
    const std::uint32_t len = std::min<std::uint32_t>(e->nameLen, sizeof e->name);
    if (p.fd < 0 || p.pid != e->pid.load() || p.nameLen != len ||
        std::memcmp(p.name, e->name, len) != 0) {
      closePeer(p);
      p.pid = e->pid.load();
      p.nameLen = len;
      std::memcpy(p.name, e->name, len);
      openPeer(p, *e);
    }
    if (p.fd >= 0 && p.eventFd) {
      const std::uint64_t one = 1;
      if (::write(p.fd, &one, sizeof one) >= 0 || errno == EAGAIN) continue;
    } else {
      const char byte = 1;
      if (p.fd >= 0 && ::send(p.fd, &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) continue;
    }
    if (errno == ECONNREFUSED || errno == ENOENT) {
      freeEntry(*e, p, i);  // the reader is gone without unregistering (killed)
    } else if (errno != EAGAIN) {
      e->undelivered.fetch_add(1);
      FLICK_TRACE(trace(), 1, "{}: wake-up of reader {} failed: {}", file_, e->pid.load(),
                  std::strerror(errno));
      e->signalled.store(0);
    }
  }
}

void WriterCore::freeEntry(ReaderEntry& e, Peer& p, std::uint32_t i) {
  std::uint32_t active = kEntryActive;
  e.state.compare_exchange_strong(active, kEntryFree);
  closePeer(p);
  FLICK_TRACE(trace(), 4, "{}: reader {} gone, entry {} freed", file_, e.pid.load(), i);
}

}  // namespace Drobe::detail
