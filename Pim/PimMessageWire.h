// Internals shared by the codec's translation units: a bounded byte cursor with sticky
// failure for reading and one for writing, and the one-line failure path.
//
// The cursors load and store big-endian fields through byte copies, never by laying a
// struct over the buffer. After one short read (or write) every later one fails too, so a
// chain of field accesses needs one check at its end. Bounds are checked for the whole
// field being accessed, not only where it starts.
//
// Threading: event-loop thread only.
#pragma once

#include <cstdint>
#include <cstring>

#include "Pim/PimMessage.h"

namespace Routing::Pim::Packet::Wire {

class Reader {
 public:
  // Reads [offset, end); end is clamped to the packet size and offset to end.
  Reader(const Nimo::Pkt& pkt, std::uint32_t offset, std::uint32_t end) noexcept
      : base_(pkt.data(0)),
        end_(end < pkt.size() ? end : pkt.size()),
        pos_(offset < end_ ? offset : end_) {}
  Reader(const Nimo::Pkt& pkt, std::uint32_t offset) noexcept : Reader(pkt, offset, pkt.size()) {}

  bool ok() const noexcept { return ok_; }
  std::uint32_t offset() const noexcept { return pos_; }
  std::uint32_t remaining() const noexcept { return end_ - pos_; }

  std::uint8_t u8() noexcept {
    const std::uint8_t* p = take(1);
    return p ? p[0] : 0;
  }
  std::uint16_t u16() noexcept {
    const std::uint8_t* p = take(2);
    return p ? Nimo::load16(p) : 0;
  }
  std::uint32_t u32() noexcept {
    const std::uint8_t* p = take(4);
    return p ? Nimo::load32(p) : 0;
  }
  // The next n bytes in place, or nullptr.
  const std::uint8_t* take(std::uint32_t n) noexcept {
    if (!ok_ || n > remaining()) {
      ok_ = false;
      return nullptr;
    }
    const std::uint8_t* p = base_ + pos_;
    pos_ += n;
    return p;
  }
  void skip(std::uint32_t n) noexcept { take(n); }

 private:
  const std::uint8_t* base_;
  std::uint32_t end_;
  std::uint32_t pos_;
  bool ok_ = true;
};

class Writer {
 public:
  Writer(Nimo::Pkt& pkt, std::uint32_t offset) noexcept
      : base_(pkt.writableData(0)), end_(pkt.size()), pos_(offset < end_ ? offset : end_) {}

  bool ok() const noexcept { return ok_; }
  std::uint32_t offset() const noexcept { return pos_; }
  std::uint32_t remaining() const noexcept { return end_ - pos_; }

  void u8(std::uint8_t v) noexcept {
    if (std::uint8_t* p = put(1)) p[0] = v;
  }
  void u16(std::uint16_t v) noexcept {
    if (std::uint8_t* p = put(2)) Nimo::store16(p, v);
  }
  void u32(std::uint32_t v) noexcept {
    if (std::uint8_t* p = put(4)) Nimo::store32(p, v);
  }
  void bytes(const std::uint8_t* src, std::uint32_t n) noexcept {
    if (std::uint8_t* p = put(n)) std::memcpy(p, src, n);
  }
  // Room for n bytes at the cursor, which moves past them; nullptr if there is none.
  std::uint8_t* put(std::uint32_t n) noexcept {
    if (!ok_ || base_ == nullptr || n > remaining()) {
      ok_ = false;
      return nullptr;
    }
    std::uint8_t* p = base_ + pos_;
    pos_ += n;
    return p;
  }

 private:
  std::uint8_t* base_;
  std::uint32_t end_;
  std::uint32_t pos_;
  bool ok_ = true;
};

// size - offset, or 0 for an offset past the end.
inline std::uint32_t remainingFrom(const Nimo::Pkt& pkt, std::uint32_t offset) noexcept {
  return offset < pkt.size() ? pkt.size() - offset : 0;
}

// The one failure path: one trace line at the error level, result 0. The text is checked
// against the arguments at the call site; formatting happens only when the level is on.
template <typename... Args>
std::uint32_t fail(fmt::format_string<Args...> text, Args... args) noexcept {
  auto& trace = codecTrace();
  if (trace.enabled(1)) {
    Flicklog::emit(trace, 1, fmt::vformat(fmt::string_view(text), fmt::make_format_args(args...)));
  }
  return 0;
}

template <typename... Args>
void warn(fmt::format_string<Args...> text, Args... args) noexcept {
  auto& trace = codecTrace();
  if (trace.enabled(5)) {
    Flicklog::emit(trace, 5, fmt::vformat(fmt::string_view(text), fmt::make_format_args(args...)));
  }
}

}  // namespace Routing::Pim::Packet::Wire
