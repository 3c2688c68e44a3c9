// Drobe writer's private index: the anonymous mapping that holds the writer's shadow of its
// slots, so that slots never used cost no memory. Probing and rebuilding it is typed, in
// Writer (Drobe.h).
#pragma once

#include <cstddef>

namespace Drobe::detail {

// The private copy of a writer's slots and marks: an anonymous mapping, so that pages of
// slots never used are never touched (zero-filled pages are empty slots).
class AnonBuffer {
 public:
  AnonBuffer() = default;
  ~AnonBuffer();
  // bytes of zeroes (the old contents, if any, released); false if out of address space.
  bool allocate(std::size_t bytes) noexcept;
  AnonBuffer(const AnonBuffer&) = delete;
  AnonBuffer& operator=(const AnonBuffer&) = delete;
  void* data() const noexcept { return base_; }
  // Back to all zeroes, returning the pages to the kernel.
  void clear() noexcept;

 private:
  void* base_ = nullptr;
  std::size_t bytes_ = 0;
};

}  // namespace Drobe::detail
