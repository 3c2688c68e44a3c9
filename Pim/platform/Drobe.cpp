// Drobe: the untyped half of the shared-memory tables: the file and its header, the reader
// registry, wake-ups, mounting and writer liveness. The typed slot and ring handling is in
// drobe/Slots.h and Drobe.h.

#include "Pim/platform/Drobe.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/un.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <vector>

#include "Pim/platform/drobe/Header.h"
#include "Pim/platform/drobe/Liveness.h"
#include "Pim/platform/drobe/Mapping.h"

namespace Drobe {

namespace detail {

namespace {

constexpr double kHealthPeriod = 1.0;
// How often a reader whose wake-ups are failing polls instead (until they work again).
constexpr double kFailingPollPeriod = 0.05;
// How often the writer asks whether a reader woken through its eventfd, that has not
// consumed its last wake-up, is still alive (a write to a dead reader's eventfd succeeds).
constexpr std::uint64_t kPeerCheckNs = 1000000000ull;

std::uint64_t monotonicNs() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ull +
         static_cast<std::uint64_t>(ts.tv_nsec);
}

}  // namespace

// ---------------------------------------------------------------------------------------
// WriterCore

WriterCore::WriterCore(std::string path, std::string name, const Layout& layout)
    : path_(std::move(path)), name_(std::move(name)), layout_(layout) {
  file_ = collectionFile(path_, name_);
  if (!safeMountPath(path_) || !safeCollectionName(name_)) {
    FLICK_TRACE(trace(), 1, "{}: unsafe mount path, refused", file_);
    return;
  }
  const std::string dir = mountDir(path_);
  if (!mkdirs(dir)) {
    FLICK_TRACE(trace(), 1, "{}: cannot create directory: {}", dir, std::strerror(errno));
    return;
  }
  // A predecessor's table gives the generation; one whose writer still holds its lock
  // keeps it. The pid in the header only names that writer in the trace.
  std::uint64_t generation = 1;
  bool live = false;
  if (Mapping* old = mapExisting(file_, layout_, Access::Probe, live)) {
    const Header* h = old->header();
    if (live) {
      FLICK_TRACE(trace(), 1, "{}: writer {} is alive, mount refused", file_, h->writerPid.load());
      delete old;
      return;
    }
    generation = h->generation.load() + 1;
    delete old;
  }
  if (!create(generation, nullptr)) return;
  // Built under a private name and renamed into place, so a reader never maps a table
  // that is still being initialised.
  if (::rename(tmp_.c_str(), file_.c_str()) != 0) {
    FLICK_TRACE(trace(), 1, "{}: cannot rename into place: {}", file_, std::strerror(errno));
    ::unlink(tmp_.c_str());
    delete map_;
    map_ = nullptr;
    return;
  }
  tmp_.clear();
  FLICK_TRACE(trace(), 4, "{}: mounted, generation {}, capacity {}, {} slots, {} bytes", file_,
              generation, layout_.capacity, layout_.slotCount, map_->size());
}

WriterCore::WriterCore(const WriterCore& from, const Layout& layout)
    : path_(from.path_), name_(from.name_), file_(from.file_), layout_(layout) {
  create(from.map_->header()->generation.load(), &from);
}

bool WriterCore::create(std::uint64_t generation, const WriterCore* from) {
  static std::atomic<std::uint32_t> serial{0};
  const FileGeometry g = geometryOf(layout_);
  tmp_ = mountDir(path_) + "/." + name_ + "." + std::to_string(::getpid()) + "." +
         std::to_string(serial.fetch_add(1)) + ".tmp";
  int fd = ::open(tmp_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0660);
  if (fd < 0) {
    FLICK_TRACE(trace(), 1, "{}: cannot create: {}", tmp_, std::strerror(errno));
    return false;
  }
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  void* base = MAP_FAILED;
  struct stat st {};
  if (::fcntl(fd, F_OFD_SETLK, &fl) == 0 && ::ftruncate(fd, static_cast<off_t>(g.fileSize)) == 0 &&
      ::fstat(fd, &st) == 0) {
    base = ::mmap(nullptr, g.fileSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  }
  if (base == MAP_FAILED) {
    FLICK_TRACE(trace(), 1, "{}: cannot lock, size or map: {}", tmp_, std::strerror(errno));
    ::close(fd);
    ::unlink(tmp_.c_str());
    return false;
  }
  lockFd_ = fd;
  auto* h = new (base) Header{};
  h->magic = kMagic;
  h->version = kVersion;
  h->maxReaders = kMaxReaders;
  h->layout = layout_;
  h->registryOffset = g.registryOffset;
  h->ringOffset = g.ringOffset;
  h->bitmapOffset = g.bitmapOffset;
  h->slotsOffset = g.slotsOffset;
  h->fileSize = g.fileSize;
  h->generation.store(generation);
  h->writerPid.store(::getpid());
  if (from) {
    const Header* o = from->map_->header();
    h->commits.store(o->commits.load());
    h->refused.store(o->refused.load());
    h->corrupt.store(o->corrupt.load());
  }
  auto* bytes = static_cast<std::byte*>(base);
  auto* registry = reinterpret_cast<ReaderEntry*>(bytes + g.registryOffset);
  for (std::uint32_t i = 0; i < kMaxReaders; ++i) new (registry + i) ReaderEntry{};
  // The ring, the bitmap and the slots stay as ftruncate left them: zeroes, untouched.
  map_ = Mapping::create(bytes, g.fileSize, st, *h, registry);
  h->state.store(kStateLive, std::memory_order_release);
  peers_.resize(kMaxReaders);
  return true;
}

void WriterCore::install(WriterCore& from) {
  if (::rename(tmp_.c_str(), file_.c_str()) != 0) {
    FLICK_TRACE(trace(), 1, "{}: cannot rename into place: {}", file_, std::strerror(errno));
    return;
  }
  tmp_.clear();
  // Its readers find the grown table under the same name and generation, and move.
  from.grown_ = true;
  from.map_->header()->state.store(kStateGrown, std::memory_order_seq_cst);
  from.signalReaders();
  FLICK_TRACE(trace(), 4, "{}: grown to capacity {}, {} slots, {} bytes", file_, layout_.capacity,
              layout_.slotCount, map_->size());
}

WriterCore::~WriterCore() {
  if (map_ && !tmp_.empty()) {
    ::unlink(tmp_.c_str());  // never put in place
  } else if (map_ && !grown_) {
    map_->header()->state.store(kStateRetired, std::memory_order_seq_cst);
    signalReaders();
    // Remove the file only if it is still ours; a successor may have replaced it.
    struct stat st {};
    if (::stat(file_.c_str(), &st) == 0 && map_->sameFile(st)) ::unlink(file_.c_str());
  }
  delete map_;
  if (lockFd_ >= 0) ::close(lockFd_);
  for (Peer& p : peers_) closePeer(p);
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

std::uint64_t* WriterCore::slotForWrite(std::uint32_t i) noexcept {
  const auto [first, last] = map_->pagesOf(i);
  for (std::uint64_t p = first; p <= last; ++p) map_->pageUse(p);
  return map_->slot(i);
}

bool WriterCore::slotWritten(std::uint32_t i) const noexcept {
  const auto [first, last] = map_->pagesOf(i);
  for (std::uint64_t p = first; p <= last; ++p) {
    if (!map_->pageUsed(p)) return false;
  }
  return loadWord(map_->slot(i), std::memory_order_relaxed) != 0;
}

std::uint64_t* WriterCore::ringEntry(std::uint64_t pos) const noexcept {
  return map_->ringEntry(pos);
}

std::uint64_t WriterCore::ringHead() const noexcept {
  return map_->header()->ringHead.load(std::memory_order_relaxed);
}

void WriterCore::publish(std::uint64_t newHead, std::uint32_t liveCount) {
  Header* h = map_->header();
  h->liveCount.store(liveCount, std::memory_order_relaxed);
  h->commits.fetch_add(1, std::memory_order_relaxed);
  // seq_cst pairs with the reader clearing its flag before loading the head: either the
  // reader sees this head, or it cleared its flag first and we send it a datagram.
  h->ringHead.store(newHead, std::memory_order_seq_cst);
  signalReaders();
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

void WriterCore::refusedInc() { map_->header()->refused.fetch_add(1, std::memory_order_relaxed); }
void WriterCore::corruptInc() { map_->header()->corrupt.fetch_add(1, std::memory_order_relaxed); }

namespace {

CollectionStats statsOf(const Mapping* m) {
  CollectionStats s;
  if (!m) return s;
  const Header* h = m->header();
  s.generation = h->generation.load();
  s.commits = h->commits.load();
  s.refused = h->refused.load();
  s.corrupt = h->corrupt.load();
  s.size = h->liveCount.load();
  s.capacity = m->layout().capacity;
  s.slots = m->layout().slotCount;
  s.ringSize = m->layout().ringSize;
  for (std::uint32_t i = 0; i < m->maxReaders(); ++i) {
    s.readers += m->reader(i)->state.load() == kEntryActive;
  }
  s.bytes = m->size();
  return s;
}

}  // namespace

CollectionStats WriterCore::stats() const { return statsOf(map_); }

// ---------------------------------------------------------------------------------------
// ReaderHub: the descriptors of all readers on one event loop, so that a reader process
// holds a handful whatever it mounts: one eventfd and one datagram socket for wake-ups
// (registered under the same name in every table), one inotify instance, and one pidfd
// per writer process. A wake-up or event is offered to every reader of the loop; each
// checks its own table, which costs a load or two.

namespace {
std::mutex gHubsMutex;
std::map<const Ulm::EventLoop*, ReaderHub*> gHubs;
}  // namespace

class ReaderHub {
 public:
  static ReaderHub* join(Ulm::EventLoop& loop, ReaderCore* c) {
    std::lock_guard<std::mutex> lock(gHubsMutex);
    ReaderHub*& h = gHubs[&loop];
    if (!h) h = new ReaderHub(loop);
    h->cores_.push_back(c);
    return h;
  }
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
  void watchWriter(ReaderCore* c, std::int32_t pid) {
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
  void unwatchWriter(ReaderCore* c) {
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

 private:
  struct Pidfd {
    int fd = -1;
    int refs = 0;
  };
  explicit ReaderHub(Ulm::EventLoop& loop) : loop_(loop) {
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
  void destroy() {
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
  void directoryEvents() {
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

// ---------------------------------------------------------------------------------------
// ReaderCore

ReaderCore::ReaderCore(Ulm::EventLoop& loop, std::string path, std::string name,
                       const Layout& layout, Hooks hooks)
    : loop_(loop),
      path_(std::move(path)),
      name_(std::move(name)),
      layout_(layout),
      hooks_(std::move(hooks)),
      health_(loop.timers(), [this] {
        health_.delayIs(kHealthPeriod);
        check();
        if (failing_) health_.delayIs(kFailingPollPeriod);
      }) {
  file_ = collectionFile(path_, name_);
  safe_ = safeMountPath(path_) && safeCollectionName(name_);
  if (!safe_) {
    FLICK_TRACE(trace(), 1, "{}: unsafe mount path, refused", file_);
    return;
  }
  hub_ = ReaderHub::join(loop_, this);
  watchDir();
  tryMount();
  // Announce (or poll) on the first loop turn, after the creator attached its notifiees.
  health_.deadlineIs(loop_.clock()->now());
}

// Watches the mount directory for a writer's file to appear. Readers never create the
// directory: until it exists, the health timer tries again.
void ReaderCore::watchDir() {
  if (watching_ || hub_->inotify() < 0) return;
  std::string dir = mountDir(path_);
  wd_ = ::inotify_add_watch(
      hub_->inotify(), dir.c_str(),
      IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_ONLYDIR | IN_DELETE_SELF);
  watching_ = wd_ >= 0;
  // Not there yet: watch the nearest directory that is, to try again when the next one
  // down appears.
  while (!watching_ && errno == ENOENT) {
    const std::size_t slash = dir.rfind('/');
    if (slash == std::string::npos || slash == 0) break;
    dir.resize(slash);
    if (::inotify_add_watch(hub_->inotify(), dir.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR) >=
        0) {
      break;
    }
  }
}

ReaderCore::~ReaderCore() {
  if (map_) {
    if (registryIndex_ >= 0) map_->reader(static_cast<std::uint32_t>(registryIndex_))->state = 0;
    delete map_;
  }
  if (hub_) {
    hub_->unwatchWriter(this);
    hub_->leave(this);
  }
}

const std::uint64_t* ReaderCore::slot(std::uint32_t i) const noexcept {
  const auto [first, last] = map_->pagesOf(i);
  for (std::uint64_t p = first; p <= last; ++p) {
    if (!map_->pageUsed(p)) return nullptr;
  }
  return map_->slot(i);
}

const std::uint64_t* ReaderCore::ringEntry(std::uint64_t pos) const noexcept {
  return map_->ringEntry(pos);
}

std::uint64_t ReaderCore::rearmAndHead() noexcept {
  if (!map_) return 0;
  if (registryIndex_ >= 0) {
    map_->reader(static_cast<std::uint32_t>(registryIndex_))->signalled.store(0);
  }
  return map_->header()->ringHead.load(std::memory_order_seq_cst);
}

CollectionStats ReaderCore::stats() const { return statsOf(map_); }

void ReaderCore::woken() {
  Kel::Ptr<const Kel::PtrInterface> hold(hooks_.owner);
  if (!map_) return;
  if (map_->header()->state.load() != kStateLive) {
    check();
  } else {
    hooks_.wake();
  }
}

// Alive: the writer has not retired and its lock is still on the file we mapped.
bool ReaderCore::writerAlive() const {
  if (map_->header()->state.load() != kStateLive) return false;
  const int fd = ::open(file_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st {};
  const bool alive = ::fstat(fd, &st) == 0 && map_->sameFile(st) && writerLockHeld(fd);
  ::close(fd);
  return alive;
}

void ReaderCore::tryMount() {
  if (map_ || !safe_) return;
  watchDir();
  bool live = false;
  Mapping* m = mapExisting(file_, layout_, Access::Reader, live);
  if (!m) return;
  const Header* h = m->header();
  const std::int32_t pid = h->writerPid.load();
  if (h->state.load() != kStateLive || !live) {
    delete m;  // a dead writer's table: wait for its successor
    return;
  }
  map_ = m;
  layout_ = m->layout();
  registerForWakeUps();
  // The writer's exit makes its pidfd readable: prompt detection of a crash. The pid is
  // only a hint (the lock decides), so a wrong one costs the health timer's delay.
  hub_->watchWriter(this, pid);
  FLICK_TRACE(trace(), 4, "{}: reader mounted generation {}", file_, h->generation.load());
}

// Moves to the table that replaced ours if it is the same writer's, grown (same
// generation, live): the old mapping served finds until now, so readers never see an
// empty or torn table on the way.
bool ReaderCore::remap() {
  bool live = false;
  Mapping* m = mapExisting(file_, layout_, Access::Reader, live);
  if (!m) return false;
  const Header* h = m->header();
  if (!live || h->state.load() != kStateLive ||
      h->generation.load() != map_->header()->generation.load()) {
    delete m;
    return false;
  }
  if (registryIndex_ >= 0) {
    map_->reader(static_cast<std::uint32_t>(registryIndex_))->state.store(kEntryFree);
  }
  delete map_;
  map_ = m;
  layout_ = m->layout();
  registerForWakeUps();
  FLICK_TRACE(trace(), 4, "{}: reader moved to the grown table, capacity {}", file_,
              layout_.capacity);
  return true;
}

void ReaderCore::registerForWakeUps() {
  Mapping* m = map_;
  registryIndex_ = -1;
  sockaddr_un addr{};
  socklen_t alen = sizeof addr;
  if (hub_->sock() >= 0 &&
      ::getsockname(hub_->sock(), reinterpret_cast<sockaddr*>(&addr), &alen) == 0) {
    const auto nameLen =
        static_cast<std::uint32_t>(alen - static_cast<socklen_t>(offsetof(sockaddr_un, sun_path)));
    for (std::uint32_t i = 0; i < m->maxReaders() && nameLen <= sizeof ReaderEntry::name; ++i) {
      ReaderEntry* e = m->reader(i);
      std::uint32_t expected = kEntryFree;
      if (!e->state.compare_exchange_strong(expected, kEntryClaiming)) continue;
      e->pid.store(::getpid());
      e->nameLen = nameLen;
      std::memcpy(e->name, addr.sun_path, nameLen);
      e->eventFd = hub_->eventFd();
      e->signalled.store(0);
      undelivered_ = e->undelivered.load();
      e->state.store(kEntryActive, std::memory_order_release);
      registryIndex_ = static_cast<int>(i);
      break;
    }
  }
  if (registryIndex_ < 0 && m->hasRegistry()) {
    FLICK_TRACE(trace(), 1, "{}: reader registry full, polling every {}s", file_, kHealthPeriod);
  }
}

void ReaderCore::unmount() {
  if (!map_) return;
  hub_->unwatchWriter(this);
  if (registryIndex_ >= 0) {
    map_->reader(static_cast<std::uint32_t>(registryIndex_))->state.store(kEntryFree);
    registryIndex_ = -1;
  }
  delete map_;
  map_ = nullptr;
  FLICK_TRACE(trace(), 4, "{}: reader unmounted", file_);
}

void ReaderCore::check() {
  // The owner may release the reader from a notification: keep it until we return.
  Kel::Ptr<const Kel::PtrInterface> hold(hooks_.owner);
  if (map_) {
    struct stat st {};
    const bool replaced = ::stat(file_.c_str(), &st) != 0 || !map_->sameFile(st);
    if (replaced && announced_ && remap()) {
      hooks_.remapped();
      return;
    }
    if (replaced || !writerAlive()) {
      unmount();
      if (announced_) {
        announced_ = false;
        hooks_.mountStatus(false);
      }
    }
  }
  if (!map_) tryMount();
  if (map_ && !announced_) {
    announced_ = true;
    hooks_.mountStatus(true);
    return;
  }
  // Without a registry entry nobody wakes us; with one, the writer counts the wake-ups it
  // could not deliver. Either way, poll: quickly while wake-ups fail, else at this tick.
  if (!map_) return;
  const bool wasFailing = failing_;
  failing_ = registryIndex_ < 0;
  if (registryIndex_ >= 0) {
    const std::uint32_t n =
        map_->reader(static_cast<std::uint32_t>(registryIndex_))->undelivered.load();
    if (n != undelivered_) {
      if (!wasFailing) FLICK_TRACE(trace(), 4, "{}: wake-ups undelivered, polling", file_);
      failing_ = true;
      undelivered_ = n;
    }
  }
  hooks_.wake();
}

}  // namespace detail

// ---------------------------------------------------------------------------------------

Flicklog::Facility& trace() {
  static Flicklog::Facility& f = Flicklog::facility("Drobe");
  return f;
}

std::string rootDir() {
  const char* env = std::getenv("DROBE_ROOT");
  std::string root = env && *env ? env : "/dev/shm/pimcore";
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  return root;
}

std::string mountDir(std::string_view path) {
  std::string dir = rootDir();
  if (!path.empty() && path.front() != '/') dir += '/';
  dir += path;
  return dir;
}

std::string collectionFile(std::string_view path, std::string_view collection) {
  std::string f = mountDir(path);
  f += '/';
  f += collection;
  return f;
}

const CollectionInfo* MountInfo::find(std::string_view name) const {
  for (const CollectionInfo& c : collections) {
    if (c.name == name) return &c;
  }
  return nullptr;
}

TableSet::TableSet(std::string path, MountInfo info)
    : path_(std::move(path)), info_(std::move(info)) {}

}  // namespace Drobe
