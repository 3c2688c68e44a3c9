// Drobe slots and the change ring: the shared word access, the slot and ring-entry layout,
// the seqlock that copies a slot between writer and readers, and the linear-probe steps.
// Everything here is typed on the record and inlined; the file around it is in Format.h.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Drobe {

// Attempts at a consistent copy of a slot before a reader treats it as changing.
inline constexpr int kReadRetries = 64;

}  // namespace Drobe

namespace Drobe::detail {

// Slot states. Distinct non-zero patterns so that a scribbled byte is unlikely to pass; zero
// is empty, so that a never-written (zero-filled) page is a run of empty slots.
inline constexpr std::uint8_t kSlotEmpty = 0x00;
inline constexpr std::uint8_t kSlotLive = 0xA5;
inline constexpr std::uint8_t kSlotTomb = 0x5A;

inline constexpr std::uint64_t kRingKey = 1;
inline constexpr std::uint64_t kRingCollection = 2;
inline constexpr std::uint64_t kRingWriting = ~std::uint64_t{0};

// Shared memory is only ever touched as 8-byte words through std::atomic_ref, by writer and
// readers alike: a seqlock reader's copy races the writer by design, and with plain loads
// that race would be undefined behaviour. Relaxed word loads are ordinary moves on every
// target we build for.
inline std::uint64_t loadWord(const std::uint64_t* p, std::memory_order o) noexcept {
  // atomic_ref wants a non-const object; a load does not write (readers map read-only).
  return std::atomic_ref<std::uint64_t>(*const_cast<std::uint64_t*>(p)).load(o);
}
inline void storeWord(std::uint64_t* p, std::uint64_t v, std::memory_order o) noexcept {
  std::atomic_ref<std::uint64_t>(*p).store(v, o);
}

// Zeroes the padding bytes of x, so that no stale stack bytes reach shared memory.
template <typename T>
void clearPadding(T& x) noexcept {
#if defined(__has_builtin)
#if __has_builtin(__builtin_clear_padding)
  __builtin_clear_padding(&x);
#else
  (void)x;
#endif
#else
  (void)x;
#endif
}

// One slot's body as the writer keeps it privately and copies it under the slot's sequence
// word. Aligned to 8 so that it is a whole number of words.
template <typename V>
struct alignas(8) SlotBody {
  std::uint8_t state = kSlotEmpty;
  std::uint8_t pad[3]{};
  std::uint32_t hash = 0;
  V value{};
};

// A shared slot is the sequence word (odd while the writer copies) and the body's words.
template <typename V>
inline constexpr std::size_t kBodyWords = sizeof(SlotBody<V>) / 8;
template <typename V>
inline constexpr std::uint32_t kSlotSize = static_cast<std::uint32_t>(8 * (1 + kBodyWords<V>));

// A ring entry is its position + 1 (0: never written, kRingWriting: being written), the
// kind, and the key's words.
template <typename K>
inline constexpr std::size_t kKeyWords = (sizeof(K) + 7) / 8;
template <typename K>
inline constexpr std::uint32_t kRingEntrySize = static_cast<std::uint32_t>(8 * (2 + kKeyWords<K>));

inline void cpuRelax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// The seqlock, race-free: every shared word is read and written through atomic_ref. The
// writer makes the sequence odd, issues a release fence, stores the words (relaxed), then
// stores the even sequence with release. A reader loads the sequence (acquire), the words
// (relaxed), issues an acquire fence and reloads the sequence. If any word it read came from
// a later copy, the fences make that copy's odd sequence visible to the reload, so an
// unchanged even sequence proves the words are one copy's. The copy goes through a local
// buffer so that `out` only ever holds a whole record.
template <typename V>
bool readSlot(const std::uint64_t* s, SlotBody<V>& out) noexcept {
  if (!s) {
    out = SlotBody<V>{};
    return true;
  }
  std::uint64_t buf[kBodyWords<V>];
  for (int i = 0; i < kReadRetries; ++i) {
    const std::uint64_t s1 = loadWord(s, std::memory_order_acquire);
    if (s1 & 1u) {
      cpuRelax();
      continue;
    }
    for (std::size_t w = 0; w < kBodyWords<V>; ++w) {
      buf[w] = loadWord(s + 1 + w, std::memory_order_relaxed);
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (loadWord(s, std::memory_order_relaxed) == s1) {
      std::memcpy(static_cast<void*>(&out), buf, sizeof out);
      return true;
    }
  }
  return false;
}

// Copies in (whose padding the caller has cleared: see clearPadding) into slot s.
template <typename V>
void writeSlot(std::uint64_t* s, const SlotBody<V>& in) noexcept {
  const auto* bytes = reinterpret_cast<const unsigned char*>(&in);
  const std::uint64_t seq = loadWord(s, std::memory_order_relaxed);
  storeWord(s, seq + 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  for (std::size_t w = 0; w < kBodyWords<V>; ++w) {
    std::uint64_t word;
    std::memcpy(&word, bytes + 8 * w, 8);
    storeWord(s + 1 + w, word, std::memory_order_relaxed);
  }
  storeWord(s, seq + 2, std::memory_order_release);
}

// Home slot of a hash among n slots (multiply-shift: any n, no division), and the next and
// previous slot of a linear probe.
inline std::uint32_t homeSlot(std::uint32_t h, std::uint32_t n) noexcept {
  return static_cast<std::uint32_t>((std::uint64_t{h} * n) >> 32);
}
inline std::uint32_t nextSlot(std::uint32_t i, std::uint32_t n) noexcept {
  return i + 1 == n ? 0 : i + 1;
}
inline std::uint32_t prevSlot(std::uint32_t i, std::uint32_t n) noexcept {
  return i == 0 ? n - 1 : i - 1;
}

}  // namespace Drobe::detail
