// System: the few platform types of other agents that the PIM core stores or keys on.
//
// - Bfd::OperState: state of a BFD session, as the BFD agent publishes it.
// - Vrf::VrfIdMap::VrfId: the platform's 32-bit VRF number (the name <-> number map itself
//   belongs to the VRF agent; only the number type is needed here).
// - L3::VrfName: a VRF's name, inline (up to 63 bytes) so that values holding it stay
//   trivially copyable; per-VRF objects and mount paths are keyed by it, so a name never
//   holds "/" or a control character.
//
// All are small, trivially copyable and have the value text forms of Kel (enums by name,
// names quoted).
//
// Threading: plain values, no shared state.
//
// Usage:
//   L3::VrfName vrf("red");  // RangeError if longer than 63, or with "/" or a control byte
//   Bfd::OperState s = Bfd::OperState::Up;          // prints as "up"
//   Vrf::VrfIdMap::VrfId id = 3;
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "Pim/platform/Kel.h"

namespace Bfd {

// Zero is "no session known", so that a default neighbour record does not claim a state;
// the others follow the BFD session states of RFC 5880. Text names are lower camel case.
enum class OperState : std::uint8_t { Unknown = 0, Down = 1, Init = 2, Up = 3, AdminDown = 4 };

inline std::span<const std::string_view> enumNames(OperState) noexcept {
  static constexpr std::string_view kNames[] = {"unknown", "down", "init", "up", "adminDown"};
  return kNames;
}
inline std::ostream& operator<<(std::ostream& os, OperState s) {
  std::string out;
  Kel::ValueText<OperState>::print(out, s);
  return os << out;
}

}  // namespace Bfd

namespace Vrf {

class VrfIdMap {
 public:
  using VrfId = std::uint32_t;
  static constexpr VrfId kDefaultVrfId = 0;
};

}  // namespace Vrf

namespace L3 {

class VrfName {
 public:
  static constexpr std::size_t kMaxLen = 63;
  static constexpr std::string_view kRangeErrorText =
      "VrfName::bytes > VrfName::maxLength not allowed";
  static constexpr std::string_view kBadByteErrorText =
      "VrfName::bytes with '/' or a control character not allowed";

  VrfName() noexcept = default;
  explicit VrfName(std::string_view name) {
    if (name.size() > kMaxLen) throw Kel::RangeError(std::string(kRangeErrorText));
    if (!validBytes(name)) throw Kel::RangeError(std::string(kBadByteErrorText));
    std::memcpy(name_.data(), name.data(), name.size());
  }
  // No "/" (the name is a path component) and no control characters (NUL included).
  static bool validBytes(std::string_view name) noexcept {
    for (char c : name) {
      const auto u = static_cast<unsigned char>(c);
      if (c == '/' || u < 0x20 || u == 0x7f) return false;
    }
    return true;
  }
  std::string_view name() const noexcept { return std::string_view(name_.data()); }
  std::string str() const { return std::string(name()); }
  bool empty() const noexcept { return name_[0] == 0; }

  friend bool operator==(const VrfName&, const VrfName&) = default;
  friend std::strong_ordering operator<=>(const VrfName& a, const VrfName& b) noexcept {
    return std::memcmp(a.name_.data(), b.name_.data(), a.name_.size()) <=> 0;
  }

 private:
  std::array<char, kMaxLen + 1> name_{};  // NUL-padded
};
inline std::ostream& operator<<(std::ostream& os, const VrfName& v) { return os << v.name(); }

static_assert(std::is_trivially_copyable_v<VrfName>);

}  // namespace L3

namespace Kel {
template <>
struct ValueText<L3::VrfName> {
  static void print(std::string& out, const L3::VrfName& v) { appendQuoted(out, v.name()); }
  static void parse(ValueParser& in, L3::VrfName& v) {
    std::string s = in.quoted();
    if (!in.ok() || s.size() > L3::VrfName::kMaxLen || !L3::VrfName::validBytes(s)) {
      return in.fail();
    }
    v = L3::VrfName(s);
  }
};
}  // namespace Kel
