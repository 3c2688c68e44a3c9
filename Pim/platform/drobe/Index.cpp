// Drobe writer's private index: the anonymous mapping behind the writer's shadow slots.

#include "Pim/platform/drobe/Index.h"

#include <sys/mman.h>

#include <algorithm>

namespace Drobe::detail {

AnonBuffer::~AnonBuffer() {
  if (base_) ::munmap(base_, bytes_);
}

bool AnonBuffer::allocate(std::size_t bytes) noexcept {
  if (base_) ::munmap(base_, bytes_);
  base_ = nullptr;
  bytes_ = std::max<std::size_t>(bytes, 1);
  void* p = ::mmap(nullptr, bytes_, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (p == MAP_FAILED) return false;
  base_ = p;
  return true;
}

void AnonBuffer::clear() noexcept {
  // Private anonymous pages read back as zeroes once dropped.
  if (base_) ::madvise(base_, bytes_, MADV_DONTNEED);
}

}  // namespace Drobe::detail
