// Drobe collection file and wake-up registry: the shared header, the registry entries,
// their constants, and the geometry a layout implies; what a reader checks before it
// trusts a header.
//
// Collection file layout:
//   page 0: header (geometry written once at mount, then the commit counters)
//   page 1: change ring, then the page-use bitmap (one bit per page of slots, set by the
//           writer before it first writes a slot there; readers never touch a page whose
//           bit is clear, so unused slots cost no memory at either end), then the slots
//           from a page boundary.
// Wake-up registry: one file per writer process (wakeFile), one page of kMaxReaders
// entries, one per reader process and event loop, whatever it mounts of that writer. It is
// the one shared page readers write; they map the collections read-only.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "Pim/platform/drobe/Format.h"

namespace Drobe::detail {

inline constexpr std::uint64_t kMagic = 0x31454C4241544244ull;  // "DBTABLE1"
inline constexpr std::uint32_t kVersion = 4;  // 4: one wake-up registry per writer process
inline constexpr std::uint32_t kMaxReaders = 64;
inline constexpr std::uint32_t kStateLive = 1;
inline constexpr std::uint32_t kStateRetired = 2;
inline constexpr std::uint32_t kStateGrown = 3;  // replaced by a grown table of the same writer
inline constexpr std::uint32_t kEntryFree = 0;
inline constexpr std::uint32_t kEntryClaiming = 1;
inline constexpr std::uint32_t kEntryActive = 2;
inline constexpr std::uint64_t kPage = 4096;

struct alignas(64) Header {
  std::uint64_t magic;
  std::uint32_t version;
  std::uint32_t maxReaders;
  Layout layout;
  std::uint64_t wakeId;  // names the writer process's wake-up registry (wakeFile)
  std::uint64_t ringOffset;
  std::uint64_t bitmapOffset;
  std::uint64_t slotsOffset;
  std::uint64_t fileSize;
  std::atomic<std::uint32_t> state;
  std::atomic<std::int32_t> writerPid;
  std::atomic<std::uint64_t> generation;
  // This table's bit in a registry entry's interest mask (tables of one writer may share
  // a bit: a reader is then woken for a table it does not read, and finds nothing new).
  std::uint32_t wakeBit;
  // Written on every commit: a line of its own, away from the read-mostly geometry.
  alignas(64) std::atomic<std::uint64_t> ringHead;
  std::atomic<std::uint64_t> commits;
  std::atomic<std::uint64_t> refused;
  std::atomic<std::uint64_t> corrupt;
  std::atomic<std::uint32_t> liveCount;
};

// One reader process (one event loop of it) registered with one writer process.
struct alignas(64) ReaderEntry {
  std::atomic<std::uint32_t> state;
  std::atomic<std::int32_t> pid;
  // Set by the writer when it wakes the reader, cleared by the reader before it reads the
  // rings: one wake-up for a burst of commits on any number of tables.
  std::atomic<std::uint32_t> signalled;
  // Wake-ups the writer could not deliver, counted so that the reader notices and polls.
  std::atomic<std::uint32_t> undelivered;
  std::uint32_t nameLen;
  char name[32];         // abstract socket address, sun_path bytes
  std::int32_t eventFd;  // the reader's eventfd, by its number in the reader; -1 if none
  std::atomic<std::uint64_t> interest;  // wakeBit of every table the reader mounted
};
static_assert(sizeof(ReaderEntry) == 64);
static_assert(sizeof(ReaderEntry) * kMaxReaders == kPage);

struct FileGeometry {
  std::uint64_t ringOffset, bitmapOffset, slotsOffset, fileSize;
};

// The wake-up registry of writer process pid whose tables carry wakeId.
std::string wakeFile(std::int32_t pid, std::uint64_t wakeId);

// Where everything goes for a layout; all arithmetic in 64 bits.
FileGeometry geometryOf(const Layout& l);

// Why a header cannot be trusted with this layout, or nullptr.
const char* headerProblem(const Header& h, std::uint64_t fileSize, const Layout& want);

}  // namespace Drobe::detail
