// Drobe wake-up: the reader hub's descriptors, watches and registrations, and the writer
// process's registry: one eventfd duplicate (or connected socket) and pidfd per reader
// process, the wake-up on commit, and freeing a dead reader's entry.

#include "Pim/platform/drobe/Wake.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <string>

#include "Pim/platform/Drobe.h"
#include "Pim/platform/drobe/Header.h"
#include "Pim/platform/drobe/Liveness.h"
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
  if (eventFd_ >= 0 && !loop_.watch(
                           eventFd_, [this] { woken(); }, true)) {
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
      woken();
    });
  }
  inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotify_ < 0) {
    FLICK_TRACE(trace(), 1, "inotify unavailable ({}), polling", std::strerror(errno));
  } else {
    loop_.watch(inotify_, [this] { directoryEvents(); });
  }
}

void ReaderHub::woken() {
  ++wakeUps_;
  for (auto& [file, r] : registrations_) r.entry->signalled.store(0, std::memory_order_seq_cst);
  dispatch([](ReaderCore* r) { r->woken(); });
}

Registration* ReaderHub::enrol(const Mapping& m, std::int32_t pid) {
  const std::string file = wakeFile(pid, m.wakeId());
  auto [it, fresh] = registrations_.try_emplace(file);
  Registration& r = it->second;
  if (fresh) {
    r.file = file;
    r.count = std::min(m.maxReaders(), kMaxReaders);
    const int fd = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
    struct stat st {};
    void* page = MAP_FAILED;
    if (fd >= 0 && ::fstat(fd, &st) == 0 && st.st_size == static_cast<off_t>(kPage)) {
      page = ::mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    if (fd >= 0) ::close(fd);
    sockaddr_un addr{};
    socklen_t alen = sizeof addr;
    if (page != MAP_FAILED && sock_ >= 0 &&
        ::getsockname(sock_, reinterpret_cast<sockaddr*>(&addr), &alen) == 0) {
      r.entries = static_cast<ReaderEntry*>(page);
      const auto nameLen = static_cast<std::uint32_t>(
          alen - static_cast<socklen_t>(offsetof(sockaddr_un, sun_path)));
      for (std::uint32_t i = 0; i < r.count && nameLen <= sizeof ReaderEntry::name; ++i) {
        ReaderEntry& e = r.entries[i];
        std::uint32_t expected = kEntryFree;
        if (!e.state.compare_exchange_strong(expected, kEntryClaiming)) continue;
        e.pid.store(::getpid());
        e.nameLen = nameLen;
        std::memcpy(e.name, addr.sun_path, nameLen);
        e.eventFd = eventFd_;
        e.signalled.store(0);
        e.interest.store(0);
        e.state.store(kEntryActive, std::memory_order_release);
        r.entry = &e;
        break;
      }
      if (!r.entry) FLICK_TRACE(trace(), 1, "{}: reader registry full, polling", file);
    } else if (page != MAP_FAILED) {
      ::munmap(page, kPage);
    }
    if (!r.entry) {
      if (r.entries) ::munmap(r.entries, kPage);
      registrations_.erase(it);
      return nullptr;
    }
  }
  ++r.refs;
  r.entry->interest.fetch_or(m.wakeMask(), std::memory_order_seq_cst);
  return &r;
}

void ReaderHub::withdraw(Registration* r) {
  if (!r || --r->refs > 0) return;
  r->entry->state.store(kEntryFree, std::memory_order_release);
  ::munmap(r->entries, kPage);
  registrations_.erase(r->file);
}

void ReaderHub::destroy() {
  // Readers withdraw as they go; a registration left over is freed with the hub.
  for (auto& [file, r] : registrations_) {
    r.entry->state.store(kEntryFree, std::memory_order_release);
    ::munmap(r.entries, kPage);
  }
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

std::mutex gRegistryMutex;
WakeRegistry* gRegistry = nullptr;

// Registries whose writer is gone (its lock released) are removed by the next writer.
void removeStaleRegistries(const std::string& dir) {
  DIR* d = ::opendir(dir.c_str());
  if (!d) return;
  for (dirent* ent = ::readdir(d); ent; ent = ::readdir(d)) {
    if (ent->d_name[0] == '.') continue;
    const std::string file = dir + "/" + ent->d_name;
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    if (!writerLockHeld(fd)) ::unlink(file.c_str());
    ::close(fd);
  }
  ::closedir(d);
}

}  // namespace

std::string wakeFile(std::int32_t pid, std::uint64_t wakeId) {
  return fmt::format("{}/.wake/{}.{:016x}", rootDir(), pid, wakeId);
}

WakeRegistry* WakeRegistry::acquire() {
  std::lock_guard<std::mutex> lock(gRegistryMutex);
  if (gRegistry && gRegistry->pid_ != ::getpid()) {
    gRegistry->forget();  // our parent's, inherited across fork
    gRegistry = nullptr;
  }
  if (!gRegistry) {
    auto* r = new WakeRegistry;
    if (!r->create()) {
      delete r;
      return nullptr;
    }
    gRegistry = r;
  }
  ++gRegistry->refs_;
  return gRegistry;
}

bool WakeRegistry::create() {
  const std::string dir = rootDir() + "/.wake";
  if (!mkdirs(dir)) return false;
  removeStaleRegistries(dir);
  pid_ = ::getpid();
  // Random, so that a recycled pid never names a dead writer's registry as ours.
  if (::getrandom(&id_, sizeof id_, 0) != static_cast<ssize_t>(sizeof id_)) id_ = 0;
  id_ ^= monotonicNs();
  file_ = wakeFile(pid_, id_);
  // Made under a dot name and renamed once locked, so that another writer sweeping stale
  // registries never takes it for a dead one.
  const std::string tmp = fmt::format("{}/.{}.{:016x}.tmp", dir, pid_, id_);
  fd_ = ::open(tmp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0660);
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  void* page = MAP_FAILED;
  // Readers of other users in the writer's group register too, whatever the umask.
  if (fd_ >= 0 && ::fchmod(fd_, 0660) == 0 && ::fcntl(fd_, F_OFD_SETLK, &fl) == 0 &&
      ::ftruncate(fd_, static_cast<off_t>(kPage)) == 0) {
    page = ::mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
  }
  if (page != MAP_FAILED) {
    entries_ = static_cast<ReaderEntry*>(page);
    for (std::uint32_t i = 0; i < kMaxReaders; ++i) new (entries_ + i) ReaderEntry{};
    if (::rename(tmp.c_str(), file_.c_str()) == 0) return true;
    ::munmap(page, kPage);
    entries_ = nullptr;
  }
  FLICK_TRACE(trace(), 1, "{}: cannot create the wake-up registry: {}", file_,
              std::strerror(errno));
  if (fd_ >= 0) {
    ::close(fd_);
    ::unlink(tmp.c_str());
  }
  return false;
}

void WakeRegistry::release() {
  std::lock_guard<std::mutex> lock(gRegistryMutex);
  if (--refs_ > 0) return;
  for (Peer& p : peers_) closePeer(p);
  ::munmap(entries_, kPage);
  ::unlink(file_.c_str());
  ::close(fd_);
  if (gRegistry == this) gRegistry = nullptr;
  delete this;
}

void WakeRegistry::forget() {
  for (Peer& p : peers_) {
    for (int fd : {p.fd, p.pidfd})
      if (fd >= 0) ::close(fd);
  }
  ::munmap(entries_, kPage);
  ::close(fd_);
  delete this;
}

std::uint32_t WakeRegistry::readers(std::uint64_t mask) const noexcept {
  std::uint32_t n = 0;
  for (std::uint32_t i = 0; i < kMaxReaders; ++i) {
    n += entries_[i].state.load() == kEntryActive && (entries_[i].interest.load() & mask) != 0;
  }
  return n;
}

void WakeRegistry::closePeer(Peer& p) {
  for (int fd : {p.fd, p.pidfd})
    if (fd >= 0) ::close(fd);
  p.fd = -1;
  p.pidfd = -1;
  p.eventFd = false;
}

bool WakeRegistry::openPeer(Peer& p, const ReaderEntry& e, const std::string& table) {
  p.readerEventFd = e.eventFd;
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
          closePeer(p);
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
  FLICK_TRACE(trace(), 4, "{}: reader {} woken by datagram (pidfd_getfd: {})", table, p.pid,
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

void WakeRegistry::signal(std::uint64_t mask, const std::string& table) {
  for (std::uint32_t i = 0; i < kMaxReaders; ++i) {
    ReaderEntry& e = entries_[i];
    if (e.state.load(std::memory_order_acquire) != kEntryActive ||
        (e.interest.load(std::memory_order_relaxed) & mask) == 0) {
      continue;
    }
    Peer& p = peers_[i];
    if (e.signalled.exchange(1, std::memory_order_seq_cst) != 0) {
      // A reader that has not consumed its wake-up may be dead: its eventfd cannot say so.
      if (p.eventFd && p.pid == e.pid.load()) {
        const std::uint64_t now = monotonicNs();
        if (now >= p.nextCheck) {
          p.nextCheck = now + kPeerCheckNs;
          pollfd pfd{p.pidfd, POLLIN, 0};
          if (::poll(&pfd, 1, 0) == 1) freeEntry(e, p, i, table);
        }
      }
      continue;
    }
    const std::uint32_t len = std::min<std::uint32_t>(e.nameLen, sizeof e.name);
    if (p.fd < 0 || p.pid != e.pid.load() || p.nameLen != len ||
        std::memcmp(p.name, e.name, len) != 0) {
      closePeer(p);
      p.pid = e.pid.load();
      p.nameLen = len;
      std::memcpy(p.name, e.name, len);
      openPeer(p, e, table);
    }
    if (p.fd >= 0 && p.eventFd) {
      const std::uint64_t one = 1;
      if (::write(p.fd, &one, sizeof one) >= 0 || errno == EAGAIN) {
        ++sent_;
        continue;
      }
    } else {
      const char byte = 1;
      if (p.fd >= 0 && ::send(p.fd, &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
        ++sent_;
        continue;
      }
    }
    if (errno == ECONNREFUSED || errno == ENOENT) {
      freeEntry(e, p, i, table);  // the reader is gone without unregistering (killed)
    } else if (errno != EAGAIN) {
      e.undelivered.fetch_add(1);
      FLICK_TRACE(trace(), 1, "{}: wake-up of reader {} failed: {}", table, e.pid.load(),
                  std::strerror(errno));
      e.signalled.store(0);
    }
  }
}

void WakeRegistry::freeEntry(ReaderEntry& e, Peer& p, std::uint32_t i, const std::string& table) {
  std::uint32_t active = kEntryActive;
  e.state.compare_exchange_strong(active, kEntryFree);
  closePeer(p);
  FLICK_TRACE(trace(), 4, "{}: reader {} gone, entry {} freed", table, e.pid.load(), i);
}

}  // namespace Drobe::detail
