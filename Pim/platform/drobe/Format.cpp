// Drobe file format: slot and ring counts for a requested capacity and ring size.

#include "Pim/platform/drobe/Format.h"

#include <algorithm>
#include <bit>

#include "Pim/platform/Drobe.h"

namespace Drobe::detail {

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

}  // namespace Drobe::detail
