// Drobe: the untyped half of the shared-memory tables: the file and its header, the reader
// registry, wake-ups, mounting and writer liveness. The typed slot and ring handling is in
// Drobe.h.
//
// File layout (offsets are multiples of 64):
//   Header | reader registry (kMaxReaders entries) | change ring | slots
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
#include <new>

namespace Drobe {

namespace detail {

namespace {

constexpr std::uint64_t kMagic = 0x31454C4241544244ull;  // "DBTABLE1"
constexpr std::uint32_t kVersion = 2;                    // 2: reader entries carry an eventfd
constexpr std::uint32_t kMaxReaders = 64;
constexpr std::uint32_t kStateLive = 1;
constexpr std::uint32_t kStateRetired = 2;
constexpr std::uint32_t kEntryFree = 0;
constexpr std::uint32_t kEntryClaiming = 1;
constexpr std::uint32_t kEntryActive = 2;
constexpr double kHealthPeriod = 1.0;
// How often the writer asks whether a reader woken through its eventfd, that has not
// consumed its last wake-up, is still alive (a write to a dead reader's eventfd succeeds).
constexpr std::uint64_t kPeerCheckNs = 1000000000ull;

std::uint64_t monotonicNs() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ull +
         static_cast<std::uint64_t>(ts.tv_nsec);
}

std::uint64_t roundUp64(std::uint64_t n) { return (n + 63) & ~std::uint64_t{63}; }

}  // namespace

struct alignas(64) Header {
  std::uint64_t magic;
  std::uint32_t version;
  std::uint32_t maxReaders;
  Layout layout;
  std::uint64_t registryOffset;
  std::uint64_t ringOffset;
  std::uint64_t slotsOffset;
  std::uint64_t fileSize;
  std::atomic<std::uint32_t> state;
  std::atomic<std::int32_t> writerPid;
  std::atomic<std::uint64_t> generation;
  // Written on every commit: a line of its own, away from the read-mostly geometry.
  alignas(64) std::atomic<std::uint64_t> ringHead;
  std::atomic<std::uint64_t> commits;
  std::atomic<std::uint64_t> refused;
  std::atomic<std::uint64_t> corrupt;
  std::atomic<std::uint32_t> liveCount;
};

struct alignas(64) ReaderEntry {
  std::atomic<std::uint32_t> state;
  std::atomic<std::int32_t> pid;
  std::atomic<std::uint32_t> signalled;
  std::uint32_t nameLen;
  char name[44];         // abstract socket address, sun_path bytes
  std::int32_t eventFd;  // the reader's eventfd, by its number in the reader; -1 if none
};
static_assert(sizeof(ReaderEntry) == 64);

// One mapped collection file.
class Mapping {
 public:
  ~Mapping() {
    if (base_) munmap(base_, size_);
  }
  static Mapping* create(void* base, std::size_t size, dev_t dev, ino_t ino) {
    auto* m = new Mapping;
    m->base_ = static_cast<std::byte*>(base);
    m->size_ = size;
    m->dev_ = dev;
    m->ino_ = ino;
    return m;
  }
  Header* header() const noexcept { return reinterpret_cast<Header*>(base_); }
  ReaderEntry* reader(std::uint32_t i) const noexcept {
    return reinterpret_cast<ReaderEntry*>(base_ + header()->registryOffset) + i;
  }
  std::byte* slots() const noexcept { return base_ + header()->slotsOffset; }
  std::byte* ring() const noexcept { return base_ + header()->ringOffset; }
  std::size_t size() const noexcept { return size_; }
  bool sameFile(const struct stat& st) const noexcept {
    return st.st_dev == dev_ && st.st_ino == ino_;
  }

 private:
  std::byte* base_ = nullptr;
  std::size_t size_ = 0;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
};

std::uint32_t slotCountFor(std::uint32_t capacity) {
  // At most 3/4 of the slots live keeps linear probes short, and leaves empty slots to
  // end every probe.
  return static_cast<std::uint32_t>(
      std::max<std::uint64_t>(8, (std::uint64_t{capacity} * 4 + 2) / 3));
}

std::uint32_t ringSizeFor(std::uint32_t requested) {
  return std::bit_ceil(std::max<std::uint32_t>(requested == 0 ? kDefaultRingSize : requested, 4));
}

namespace {

// A process is alive if it exists and is not a zombie: a killed writer that its parent has
// not reaped yet must not block its successor.
bool processAlive(std::int32_t pid) {
  if (pid <= 0) return false;
  if (::kill(pid, 0) != 0 && errno != EPERM) return false;
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
  std::FILE* f = std::fopen(path, "re");
  if (!f) return true;
  char buf[512];
  std::size_t n = std::fread(buf, 1, sizeof buf - 1, f);
  std::fclose(f);
  buf[n] = 0;
  const char* close = std::strrchr(buf, ')');
  return !(close && close[1] == ' ' && (close[2] == 'Z' || close[2] == 'X'));
}

bool mkdirs(const std::string& dir) {
  std::string cur;
  std::size_t pos = 0;
  while (pos <= dir.size()) {
    std::size_t next = dir.find('/', pos);
    if (next == std::string::npos) next = dir.size();
    cur = dir.substr(0, next);
    pos = next + 1;
    if (cur.empty()) continue;
    if (::mkdir(cur.c_str(), 0775) != 0 && errno != EEXIST) return false;
  }
  return true;
}

bool layoutMatches(const Layout& have, const Layout& want) {
  return have.keySize == want.keySize && have.valueSize == want.valueSize &&
         have.slotSize == want.slotSize && have.ringEntrySize == want.ringEntrySize;
}

// Maps an existing collection file if it is a complete table of the expected layout.
Mapping* mapExisting(const std::string& file, const Layout& want, bool quiet) {
  int fd = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat st {};
  Mapping* m = nullptr;
  if (::fstat(fd, &st) == 0 && static_cast<std::size_t>(st.st_size) >= sizeof(Header)) {
    const auto size = static_cast<std::size_t>(st.st_size);
    void* base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base != MAP_FAILED) {
      m = Mapping::create(base, size, st.st_dev, st.st_ino);
      const Header* h = m->header();
      if (h->magic != kMagic || h->version != kVersion || h->fileSize != size ||
          !layoutMatches(h->layout, want)) {
        if (!quiet) {
          FLICK_TRACE(trace(), 1, "{}: not a table of this record layout, ignored", file);
        }
        delete m;
        m = nullptr;
      }
    }
  }
  ::close(fd);
  return m;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// WriterCore

WriterCore::WriterCore(std::string path, std::string name, const Layout& layout)
    : path_(std::move(path)), name_(std::move(name)), layout_(layout) {
  file_ = collectionFile(path_, name_);
  const std::string dir = mountDir(path_);
  if (!mkdirs(dir)) {
    FLICK_TRACE(trace(), 1, "{}: cannot create directory: {}", dir, std::strerror(errno));
    return;
  }
  // A predecessor's table gives the generation; a live predecessor keeps its table.
  std::uint64_t generation = 1;
  if (Mapping* old = mapExisting(file_, layout_, true)) {
    const Header* h = old->header();
    const std::int32_t pid = h->writerPid.load();
    if (h->state.load() == kStateLive && pid != ::getpid() && processAlive(pid)) {
      FLICK_TRACE(trace(), 1, "{}: writer {} is alive, mount refused", file_, pid);
      delete old;
      return;
    }
    generation = h->generation.load() + 1;
    delete old;
  }

  const std::uint64_t registryOffset = roundUp64(sizeof(Header));
  const std::uint64_t ringOffset = registryOffset + kMaxReaders * sizeof(ReaderEntry);
  const std::uint64_t slotsOffset =
      roundUp64(ringOffset + std::uint64_t{layout_.ringSize} * layout_.ringEntrySize);
  const std::uint64_t size =
      roundUp64(slotsOffset + std::uint64_t{layout_.slotCount} * layout_.slotSize);

  // Built under a private name and renamed into place, so a reader never maps a table
  // that is still being initialised.
  const std::string tmp = dir + "/." + name_ + "." + std::to_string(::getpid()) + ".tmp";
  int fd = ::open(tmp.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0660);
  if (fd < 0) {
    FLICK_TRACE(trace(), 1, "{}: cannot create: {}", tmp, std::strerror(errno));
    return;
  }
  void* base = MAP_FAILED;
  struct stat st {};
  if (::ftruncate(fd, static_cast<off_t>(size)) == 0 && ::fstat(fd, &st) == 0) {
    base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  }
  ::close(fd);
  if (base == MAP_FAILED) {
    FLICK_TRACE(trace(), 1, "{}: cannot size or map: {}", tmp, std::strerror(errno));
    ::unlink(tmp.c_str());
    return;
  }
  auto* h = new (base) Header{};
  h->magic = kMagic;
  h->version = kVersion;
  h->maxReaders = kMaxReaders;
  h->layout = layout_;
  h->registryOffset = registryOffset;
  h->ringOffset = ringOffset;
  h->slotsOffset = slotsOffset;
  h->fileSize = size;
  h->generation.store(generation);
  h->writerPid.store(::getpid());
  auto* bytes = static_cast<std::byte*>(base);
  for (std::uint32_t i = 0; i < kMaxReaders; ++i) {
    new (bytes + registryOffset + i * sizeof(ReaderEntry)) ReaderEntry{};
  }
  // Ring entries and slots are zero-filled by ftruncate; the typed writer placement-news
  // them before its first commit. Ring positions start at ~0 ("never written").
  map_ = Mapping::create(base, size, st.st_dev, st.st_ino);
  h->state.store(kStateLive, std::memory_order_release);
  if (::rename(tmp.c_str(), file_.c_str()) != 0) {
    FLICK_TRACE(trace(), 1, "{}: cannot rename into place: {}", file_, std::strerror(errno));
    ::unlink(tmp.c_str());
    delete map_;
    map_ = nullptr;
    return;
  }
  peers_.resize(kMaxReaders);
  FLICK_TRACE(trace(), 4, "{}: mounted, generation {}, capacity {}, {} slots, {} bytes", file_,
              generation, layout_.capacity, layout_.slotCount, size);
}

WriterCore::~WriterCore() {
  if (map_) {
    map_->header()->state.store(kStateRetired, std::memory_order_seq_cst);
    signalReaders();
    // Remove the file only if it is still ours; a successor may have replaced it.
    struct stat st {};
    if (::stat(file_.c_str(), &st) == 0 && map_->sameFile(st)) ::unlink(file_.c_str());
    delete map_;
  }
  for (Peer& p : peers_) closePeer(p);
}

void WriterCore::closePeer(Peer& p) {
  if (p.fd >= 0) ::close(p.fd);
  if (p.pidfd >= 0) ::close(p.pidfd);
  p.fd = -1;
  p.pidfd = -1;
  p.eventFd = false;
}

bool WriterCore::openPeer(Peer& p, const ReaderEntry& e) {
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

std::byte* WriterCore::slot(std::uint32_t i) const noexcept {
  return map_->slots() + std::size_t{i} * layout_.slotSize;
}

std::byte* WriterCore::ringEntry(std::uint64_t pos) const noexcept {
  return map_->ring() + (pos & (layout_.ringSize - 1)) * layout_.ringEntrySize;
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
  s.capacity = h->layout.capacity;
  s.slots = h->layout.slotCount;
  s.ringSize = h->layout.ringSize;
  for (std::uint32_t i = 0; i < h->maxReaders; ++i) {
    s.readers += m->reader(i)->state.load() == kEntryActive;
  }
  s.bytes = h->fileSize;
  return s;
}

}  // namespace

CollectionStats WriterCore::stats() const { return statsOf(map_); }

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
      }) {
  file_ = collectionFile(path_, name_);
  const std::string dir = mountDir(path_);
  if (!mkdirs(dir)) {
    FLICK_TRACE(trace(), 1, "{}: cannot create directory: {}", dir, std::strerror(errno));
  }
  inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotify_ >= 0 &&
      ::inotify_add_watch(inotify_, dir.c_str(),
                          IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_ONLYDIR) >= 0) {
    loop_.watch(inotify_, [this] {
      alignas(inotify_event) char buf[4096];
      bool ours = false;
      for (;;) {
        const ssize_t n = ::read(inotify_, buf, sizeof buf);
        if (n <= 0) break;
        for (ssize_t off = 0; off < n;) {
          const auto* ev = reinterpret_cast<const inotify_event*>(buf + off);
          if ((ev->mask & IN_Q_OVERFLOW) || (ev->len && name_ == ev->name)) ours = true;
          off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
        }
      }
      if (ours) check();
    });
  } else {
    FLICK_TRACE(trace(), 1, "{}: inotify unavailable ({}), polling", dir, std::strerror(errno));
  }
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
    FLICK_TRACE(trace(), 1, "{}: wake-up socket: {}", file_, std::strerror(errno));
  } else {
    loop_.watch(sock_, [this] {
      drainSocket();
      woken();
    });
  }
  tryMount();
  // Announce (or poll) on the first loop turn, after the creator attached its notifiees.
  health_.deadlineIs(loop_.clock()->now());
}

ReaderCore::~ReaderCore() {
  if (map_) {
    if (registryIndex_ >= 0) map_->reader(static_cast<std::uint32_t>(registryIndex_))->state = 0;
    delete map_;
  }
  if (pidfd_ >= 0) {
    loop_.unwatch(pidfd_);
    ::close(pidfd_);
  }
  if (sock_ >= 0) {
    loop_.unwatch(sock_);
    ::close(sock_);
  }
  if (eventFd_ >= 0) {
    loop_.unwatch(eventFd_);
    ::close(eventFd_);
  }
  if (inotify_ >= 0) {
    loop_.unwatch(inotify_);
    ::close(inotify_);
  }
}

const std::byte* ReaderCore::slot(std::uint32_t i) const noexcept {
  return map_->slots() + std::size_t{i} * layout_.slotSize;
}

const std::byte* ReaderCore::ringEntry(std::uint64_t pos) const noexcept {
  return map_->ring() + (pos & (layout_.ringSize - 1)) * layout_.ringEntrySize;
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

void ReaderCore::drainSocket() {
  // Wake-ups are coalesced, so one datagram is normally all there is; should more be
  // queued, the level-triggered loop calls again. Reading until EAGAIN would cost every
  // wake-up a second system call.
  char buf[64];
  (void)::recv(sock_, buf, sizeof buf, MSG_DONTWAIT);
}

bool ReaderCore::writerAlive() const {
  const Header* h = map_->header();
  if (h->state.load() != kStateLive) return false;
  return processAlive(h->writerPid.load());
}

void ReaderCore::tryMount() {
  if (map_) return;
  Mapping* m = mapExisting(file_, layout_, false);
  if (!m) return;
  Header* h = m->header();
  const std::int32_t pid = h->writerPid.load();
  if (h->state.load() != kStateLive || !processAlive(pid)) {
    delete m;  // a dead writer's table: wait for its successor
    return;
  }
  map_ = m;
  layout_ = h->layout;
  // Register for wake-ups.
  registryIndex_ = -1;
  sockaddr_un addr{};
  socklen_t alen = sizeof addr;
  if (sock_ >= 0 && ::getsockname(sock_, reinterpret_cast<sockaddr*>(&addr), &alen) == 0) {
    const auto nameLen =
        static_cast<std::uint32_t>(alen - static_cast<socklen_t>(offsetof(sockaddr_un, sun_path)));
    for (std::uint32_t i = 0; i < h->maxReaders && nameLen <= sizeof ReaderEntry::name; ++i) {
      ReaderEntry* e = m->reader(i);
      std::uint32_t expected = kEntryFree;
      if (!e->state.compare_exchange_strong(expected, kEntryClaiming)) continue;
      e->pid.store(::getpid());
      e->nameLen = nameLen;
      std::memcpy(e->name, addr.sun_path, nameLen);
      e->eventFd = eventFd_;
      e->signalled.store(0);
      e->state.store(kEntryActive, std::memory_order_release);
      registryIndex_ = static_cast<int>(i);
      break;
    }
  }
  if (registryIndex_ < 0) {
    FLICK_TRACE(trace(), 1, "{}: reader registry full, polling every {}s", file_, kHealthPeriod);
  }
  // The writer's exit makes its pidfd readable: prompt detection of a crash.
  pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (pidfd_ >= 0) {
    fcntl(pidfd_, F_SETFD, FD_CLOEXEC);
    loop_.watch(pidfd_, [this] { check(); });
  }
  FLICK_TRACE(trace(), 4, "{}: reader mounted generation {}", file_, h->generation.load());
}

void ReaderCore::unmount() {
  if (!map_) return;
  if (pidfd_ >= 0) {
    loop_.unwatch(pidfd_);
    ::close(pidfd_);
    pidfd_ = -1;
  }
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
  // Without a registry entry nobody wakes us: poll.
  if (map_ && registryIndex_ < 0) hooks_.wake();
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
