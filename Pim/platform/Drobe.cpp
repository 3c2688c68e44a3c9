// Drobe: the untyped writer and reader halves declared in drobe/Mount.h: creating, growing
// and retiring a writer's file, and a reader's mounting, remounting and health checks.
// The rooms around them, under drobe/: Format (geometry, schema, header checks), Header
// (the shared header, registry entries), Slots (seqlock slots and the change ring, typed),
// Index (the writer's private copy), Mapping (a mapped file), Wake (wake-ups), Liveness
// (the writer's lock).

#include "Pim/platform/Drobe.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "Pim/platform/drobe/Header.h"
#include "Pim/platform/drobe/Liveness.h"
#include "Pim/platform/drobe/Mapping.h"
#include "Pim/platform/drobe/Wake.h"

namespace Drobe {

namespace detail {

namespace {

constexpr double kHealthPeriod = 1.0;
// How often a reader whose wake-ups are failing polls instead (until they work again).
constexpr double kFailingPollPeriod = 0.05;

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

namespace {

// A table's bit in the readers' interest masks: from its file name, so that a grown table
// keeps its predecessor's.
std::uint32_t wakeBitOf(const std::string& file) {
  return static_cast<std::uint32_t>(std::hash<std::string>{}(file) % 64);
}

}  // namespace

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
  wake_ = WakeRegistry::acquire();
  if (!wake_) {
    ::munmap(base, g.fileSize);
    ::close(fd);
    ::unlink(tmp_.c_str());
    return false;
  }
  wakeBit_ = wakeBitOf(file_);
  lockFd_ = fd;
  auto* h = new (base) Header{};
  h->magic = kMagic;
  h->version = kVersion;
  h->maxReaders = kMaxReaders;
  h->layout = layout_;
  h->wakeId = wake_->id();
  h->wakeBit = wakeBit_;
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
  // The ring, the bitmap and the slots stay as ftruncate left them: zeroes, untouched.
  map_ = Mapping::create(static_cast<std::byte*>(base), g.fileSize, st, *h);
  h->state.store(kStateLive, std::memory_order_release);
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
  if (wake_) wake_->release();
}

void WriterCore::signalReaders() { wake_->signal(map_->wakeMask(), file_); }
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

void WriterCore::refusedInc() { map_->header()->refused.fetch_add(1, std::memory_order_relaxed); }
void WriterCore::corruptInc() { map_->header()->corrupt.fetch_add(1, std::memory_order_relaxed); }

namespace {

CollectionStats statsOf(const Mapping* m, const Registration* reg) {
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
  for (std::uint32_t i = 0; reg && i < reg->count; ++i) {
    const ReaderEntry& e = reg->entries[i];
    s.readers += e.state.load() == kEntryActive && (e.interest.load() & m->wakeMask()) != 0;
  }
  s.bytes = m->size();
  return s;
}

}  // namespace

CollectionStats WriterCore::stats() const {
  CollectionStats s = statsOf(map_, nullptr);
  if (map_) {
    s.readers = wake_->readers(map_->wakeMask());
    s.wakeUps = wake_->sent();
  }
  return s;
}

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
    delete map_;
  }
  if (hub_) {
    hub_->withdraw(reg_);
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

std::uint64_t ReaderCore::publishedHead() const noexcept {
  return map_ ? map_->header()->ringHead.load(std::memory_order_seq_cst) : 0;
}

CollectionStats ReaderCore::stats() const {
  CollectionStats s = statsOf(map_, reg_);
  if (hub_) s.wakeUps = hub_->wakeUps();
  return s;
}

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
  registerForWakeUps(pid);
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
  delete map_;
  map_ = m;
  layout_ = m->layout();
  // The same writer's registry: enrolled again before the old hold goes, so the entry stays.
  Registration* old = reg_;
  registerForWakeUps(h->writerPid.load());
  hub_->withdraw(old);
  FLICK_TRACE(trace(), 4, "{}: reader moved to the grown table, capacity {}", file_,
              layout_.capacity);
  return true;
}

void ReaderCore::registerForWakeUps(std::int32_t writerPid) {
  reg_ = hub_->enrol(*map_, writerPid);
  if (reg_) undelivered_ = reg_->entry->undelivered.load();
}

void ReaderCore::unmount() {
  if (!map_) return;
  hub_->unwatchWriter(this);
  hub_->withdraw(reg_);
  reg_ = nullptr;
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
  failing_ = reg_ == nullptr;
  if (reg_) {
    const std::uint32_t n = reg_->entry->undelivered.load();
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
