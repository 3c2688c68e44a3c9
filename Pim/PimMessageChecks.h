// Internals shared by the message bodies that carry addresses (Register-Stop, Assert,
// Bootstrap, C-RP-Adv, DF Election): reading an address that must have the message's
// family and pass its validity test, each failure reported with the caller's own texts,
// and the print form used by the RX/TX trace lines.
//
// Threading: event-loop thread only.
#pragma once

#include <sstream>
#include <string>

#include "Pim/PimMessage.h"
#include "Pim/PimMessageWire.h"

namespace Routing::Pim::Packet::Wire {

inline unsigned familyOf(const Nimo::IpGenAddr& a) noexcept {
  return static_cast<unsigned>(a.af());
}

inline std::string printed(const Message& m) {
  std::ostringstream os;
  m.print(os);
  return os.str();
}

// Trace line of a finished read or write at the debug level.
inline void traceMessage(const char* direction, const Message& m) {
  auto& trace = codecTrace();
  if (trace.enabled(4))
    Flicklog::emit(trace, 4, fmt::format("{}: <PIM {}>", direction, printed(m)));
}

struct UnicastTexts {
  fmt::format_string<> parseError;
  fmt::format_string<unsigned, Nimo::IpGenAddr> invalidFamily;  // message family, address
  fmt::format_string<Nimo::IpGenAddr> invalidAddress;
};

// An Encoded-Unicast address of family af that passes valid(); bytes read or 0.
inline std::uint32_t readUnicast(EncodedUnicastAddress& a, const Kel::Ptr<Nimo::Pkt>& pkt,
                                 std::uint32_t offset, std::uint8_t af,
                                 const UnicastTexts& t) noexcept {
  const std::uint32_t n = a.readUnicastAddress(pkt, offset);
  if (n == 0) return fail(t.parseError);
  if (familyOf(a.address()) != af) return fail(t.invalidFamily, unsigned{af}, a.address());
  if (!a.valid()) return fail(t.invalidAddress, a.address());
  return n;
}

struct GroupTexts {
  fmt::format_string<> parseError;
  fmt::format_string<unsigned, Nimo::IpGenAddr> invalidFamily;  // message family, address
  fmt::format_string<Nimo::IpGenPrefix> invalidPrefix;
};

// An Encoded-Group address of family af that passes valid() and, when hostOnly, is a host
// prefix; bytes read or 0.
inline std::uint32_t readGroup(EncodedGroupAddress& g, const Kel::Ptr<Nimo::Pkt>& pkt,
                               std::uint32_t offset, std::uint8_t af, const GroupTexts& t,
                               bool hostOnly) noexcept {
  const std::uint32_t n = g.readGroupAddress(pkt, offset);
  if (n == 0) return fail(t.parseError);
  const Nimo::IpGenPrefix& prefix = g.groupAddress().address;
  if (familyOf(prefix.address()) != af)
    return fail(t.invalidFamily, unsigned{af}, prefix.address());
  if (!g.valid() || (hostOnly && !g.isHostPrefix())) return fail(t.invalidPrefix, prefix);
  return n;
}

// The group as it goes out in a Register-Stop or Assert: its address as a host prefix.
inline EncodedGroupAddress hostGroup(const EncodedGroupAddress& g) noexcept {
  EncodedGroupAddress out = g;
  out.addressIs(g.groupAddress().address.address());
  return out;
}

}  // namespace Routing::Pim::Packet::Wire
