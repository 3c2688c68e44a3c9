// Drobe file format: slot and ring counts for a requested capacity and ring size, where
// everything goes in a file, and the checks of a header against them.

#include "Pim/platform/drobe/Format.h"

#include <algorithm>
#include <bit>

#include "Pim/platform/Drobe.h"
#include "Pim/platform/drobe/Header.h"

namespace Drobe::detail {

namespace {

std::uint64_t roundUp64(std::uint64_t n) { return (n + 63) & ~std::uint64_t{63}; }
std::uint64_t roundUpPage(std::uint64_t n) { return (n + kPage - 1) & ~(kPage - 1); }

}  // namespace

std::uint32_t slotCountFor(std::uint32_t capacity) {
  // At most 3/4 of the slots live keeps linear probes short, and leaves empty slots to
  // end every probe.
  return static_cast<std::uint32_t>(
      std::max<std::uint64_t>(8, (std::uint64_t{capacity} * 4 + 2) / 3));
}

std::uint32_t ringSizeFor(std::uint32_t requested) {
  const std::uint32_t r = requested == 0 ? kDefaultRingSize : requested;
  return std::bit_ceil(std::clamp<std::uint32_t>(r, 4, kMaxRingSize));
}

// Where everything goes for a layout; all arithmetic in 64 bits.
FileGeometry geometryOf(const Layout& l) {
  FileGeometry g{};
  g.ringOffset = kPage;
  g.bitmapOffset = roundUp64(g.ringOffset + std::uint64_t{l.ringSize} * l.ringEntrySize);
  const std::uint64_t slotBytes = std::uint64_t{l.slotCount} * l.slotSize;
  const std::uint64_t pages = (slotBytes + kPage - 1) / kPage;
  g.slotsOffset = roundUpPage(g.bitmapOffset + (pages + 63) / 64 * 8);
  g.fileSize = roundUpPage(g.slotsOffset + slotBytes);
  return g;
}

// Why a header cannot be trusted with this layout, or nullptr. Checked: every size against
// the record types, every bound, and every offset against the geometry the sizes imply
// (which the file size must match), so that no index a reader computes leaves the file.
const char* headerProblem(const Header& h, std::uint64_t fileSize, const Layout& want) {
  if (h.magic != kMagic || h.version != kVersion) return "not a table of this version";
  const Layout& l = h.layout;
  if (l.keySize != want.keySize || l.valueSize != want.valueSize || l.slotSize != want.slotSize ||
      l.ringEntrySize != want.ringEntrySize || l.schema != want.schema) {
    return "record layout";
  }
  if (h.maxReaders > kMaxReaders) return "reader count";
  if (l.ringSize < 4 || l.ringSize > kMaxRingSize || !std::has_single_bit(l.ringSize)) {
    return "ring size";
  }
  if (l.slotCount < 8 || l.slotCount > slotCountFor(kMaxCapacity) || l.capacity > l.slotCount) {
    return "slot count";
  }
  const FileGeometry g = geometryOf(l);
  if (h.ringOffset != g.ringOffset || h.bitmapOffset != g.bitmapOffset ||
      h.slotsOffset != g.slotsOffset || h.fileSize != g.fileSize) {
    return "offsets";
  }
  if (h.fileSize != fileSize) return "file size";
  return nullptr;
}

}  // namespace Drobe::detail
