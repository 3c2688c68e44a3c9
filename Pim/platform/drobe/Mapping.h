// Drobe mapped collection files: a mapping with the offsets it was validated with, and how
// an existing file is opened, checked and mapped (Mount.cpp).
#pragma once

#include <sys/mman.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "Pim/platform/drobe/Header.h"

namespace Drobe::detail {

// One mapped collection file, with the offsets it was validated with: nothing read from
// the shared header after mount decides where a pointer goes.
class Mapping {
 public:
  ~Mapping() {
    if (base_) munmap(base_, size_);
  }
  // Takes ownership of base (size bytes).
  static Mapping* create(std::byte* base, std::size_t size, const struct stat& st,
                         const Header& h) {
    auto* m = new Mapping;
    m->base_ = base;
    m->size_ = size;
    m->dev_ = st.st_dev;
    m->ino_ = st.st_ino;
    m->layout_ = h.layout;
    m->maxReaders_ = h.maxReaders;
    m->wakeId_ = h.wakeId;
    m->wakeBit_ = h.wakeBit % 64;
    m->ring_ = reinterpret_cast<std::uint64_t*>(base + h.ringOffset);
    m->bitmap_ = reinterpret_cast<std::uint64_t*>(base + h.bitmapOffset);
    m->slots_ = base + h.slotsOffset;
    return m;
  }
  Header* header() const noexcept { return reinterpret_cast<Header*>(base_); }
  std::uint32_t maxReaders() const noexcept { return maxReaders_; }
  std::uint64_t wakeId() const noexcept { return wakeId_; }
  std::uint64_t wakeMask() const noexcept { return std::uint64_t{1} << wakeBit_; }
  const Layout& layout() const noexcept { return layout_; }
  std::uint64_t* ringEntry(std::uint64_t pos) const noexcept {
    return ring_ + (pos & (layout_.ringSize - 1)) * (layout_.ringEntrySize / 8);
  }
  std::uint64_t* slot(std::uint32_t i) const noexcept {
    return reinterpret_cast<std::uint64_t*>(slots_ + std::size_t{i} * layout_.slotSize);
  }
  // The first and last page (relative to the slots) that slot i occupies.
  std::pair<std::uint64_t, std::uint64_t> pagesOf(std::uint32_t i) const noexcept {
    const std::uint64_t off = std::uint64_t{i} * layout_.slotSize;
    return {off / kPage, (off + layout_.slotSize - 1) / kPage};
  }
  bool pageUsed(std::uint64_t page) const noexcept {
    return (loadWord(bitmap_ + page / 64, std::memory_order_acquire) >> (page % 64)) & 1u;
  }
  void pageUse(std::uint64_t page) noexcept {
    std::uint64_t* w = bitmap_ + page / 64;
    const std::uint64_t bit = std::uint64_t{1} << (page % 64);
    const std::uint64_t old = loadWord(w, std::memory_order_relaxed);
    if (!(old & bit)) storeWord(w, old | bit, std::memory_order_release);
  }
  std::size_t size() const noexcept { return size_; }
  bool sameFile(const struct stat& st) const noexcept {
    return st.st_dev == dev_ && st.st_ino == ino_;
  }

 private:
  std::byte* base_ = nullptr;
  std::size_t size_ = 0;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
  Layout layout_;
  std::uint32_t maxReaders_ = 0;
  std::uint64_t wakeId_ = 0;
  std::uint32_t wakeBit_ = 0;
  std::uint64_t* ring_ = nullptr;
  std::uint64_t* bitmap_ = nullptr;
  std::byte* slots_ = nullptr;
};

// Creates dir and its parents as needed (writers only).
bool mkdirs(const std::string& dir);

enum class Access { Probe, Reader };

// Maps an existing collection file, read-only, if its header can be trusted with this
// layout. writerLive tells whether a writer holds the file's lock. quiet: a
// writer probing its predecessor's file does not trace foreign files.
Mapping* mapExisting(const std::string& file, const Layout& want, Access access, bool& writerLive);

}  // namespace Drobe::detail
