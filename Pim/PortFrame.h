// PortFrame: the PORT messages of PIM over a reliable transport (RFC 6559) that carry PIM
// Join/Prunes on an association, and the keep-alive.
//
// Every PORT message is a TLV; a Join/Prune message carries the sender's Interface ID and
// then PORT options, each a TLV, one per PIM Join/Prune:
//
//    0                   1                   2                   3
//    0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |           Type = 1            |        Message Length         |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |                  Reserved                     |      Exp      |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |                 Interface ID: router id                       |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |                 Interface ID: local interface id              |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |       PORT Option Type        |      Option Value Length      |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |      Value: PIM Join/Prune, common PIM header included  ...   |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |                  more PORT options ...                        |
//
// Where each field comes from, and how sure we are:
// - Message TLV (16-bit Type, 16-bit Message Length), Join/Prune = Type 1, keep-alive =
//   Type 2, then for a Join/Prune one 32-bit word holding Reserved and Exp, a 64-bit
//   Interface ID, then PORT options of 16-bit type, 16-bit value length and value: a public
//   slide deck presenting draft-ietf-pim-port-06, the draft that became RFC 6559.
// - Interface ID: RFC 6395's, as in the Hello option 31 (router id 32 bits, then the
//   local interface id 32 bits), the same 8 bytes as InterfaceId (PimReliableTypes.h).
// - NOT confirmed against the RFC's or the draft's own text (only the opening pages of
//   the stored copies could be read here, twice):
//   * SCTP port 8471 ("pim-port") as the RFC's IANA assignment (Nimo::Sctp::pimPort);
//   * how the 32-bit word splits between Reserved and Exp: we write all 32 bits zero and
//     ignore them on receipt, so the split cannot matter to us;
//   * Message Length and Option Value Length counting the bytes after their own 4-byte
//     header (as in PIM Hello options), which is what the figure's layout suggests;
//   * the option type numbers: 1 for an IPv4 Join/Prune and 2 for an IPv6 one, as we
//     remember the RFC's registry of PORT option types; any other option type is
//     stepped over and counted, so a third kind would cost nothing but that count;
//   * the PIM common header being part of the option value; we include it (the codec's
//     Join/Prune starts with it), with the checksum of PIM over the unspecified address
//     (0.0.0.0 or ::) in the IPv6 pseudo-header: the receiver cannot know which address
//     the sender used, and SCTP's CRC32c protects the bytes already. IPv4 has no
//     pseudo-header, so only IPv6 depends on this choice;
//   * the keep-alive's body: we send none (Message Length 0) and skip any we receive;
//   * the SCTP payload protocol identifier: we send 0 (unspecified), which the RFC's
//     IANA section would have to override.
//
// Reader (readPortMessage): bounded by the packet and by each Message Length; never reads
// past offset + 4 + Message Length. A message type it does not know is stepped over by
// its length with one warning line, and so is an option type it does not know (counted in
// PortMessage::unknownOptions). A length that runs past the bytes there are, a Join/Prune
// message shorter than its 12 fixed bytes and an option header cut short make the whole
// message fail: 0 and one error line. The caller decides what a failure costs; the
// association's receive path drops the rest of that SCTP message, counts it invalid and
// keeps the association.
//
// Writer: writePortJoinPrune frames one PIM Join/Prune already written by the codec at
// offset + kPortJoinPruneOffset; writePortKeepAlive writes a keep-alive. Both return the
// message's whole length, or 0 and one error line.
//
// Threading: plain functions over a packet; event-loop thread only.
//
// Usage:
//   auto pkt = Nimo::Pkt::create(1500);
//   std::uint32_t n = jp->writeJoinPruneMessage(pkt, kPortJoinPruneOffset, nullptr);
//   n = writePortJoinPrune(pkt, 0, InterfaceId(routerId, ifIndex), af, n);
//   PortMessage m;
//   if (readPortMessage(pkt, 0, m) && m.type == kPortTypeJoinPrune)
//     forEachPortOption(*pkt, m, [&](const PortOption& o) { /* decode o.offset, o.length */ });
#pragma once

#include <cstdint>
#include <optional>

#include "Pim/PimReliableTypes.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"

namespace Routing::Pim::Reliable {

inline constexpr std::uint16_t kPortTypeJoinPrune = 1;
inline constexpr std::uint16_t kPortTypeKeepAlive = 2;
inline constexpr std::uint16_t kPortOptionJoinPruneIpv4 = 1;
inline constexpr std::uint16_t kPortOptionJoinPruneIpv6 = 2;
// Type and Message Length.
inline constexpr std::uint32_t kPortHeaderSize = 4;
// Reserved and Exp, Interface ID: the fixed part of a Join/Prune message's value.
inline constexpr std::uint32_t kPortJoinPruneFixedSize = 12;
inline constexpr std::uint32_t kPortOptionHeaderSize = 4;
// Where writePortJoinPrune expects the PIM Join/Prune: after the fixed part and one option
// header.
inline constexpr std::uint32_t kPortJoinPruneOffset =
    kPortHeaderSize + kPortJoinPruneFixedSize + kPortOptionHeaderSize;
// The smallest PIM message an option can carry: its common header.
inline constexpr std::uint32_t kPortMinPimSize = 4;

struct PortOption {
  std::uint16_t type = 0;
  std::uint32_t offset = 0;  // of the value, in the packet
  std::uint32_t length = 0;  // of the value
};

struct PortMessage {
  std::uint16_t type = 0;
  std::uint32_t end = 0;            // offset just past the message
  InterfaceId interfaceId;          // Join/Prune only
  std::uint32_t optionsOffset = 0;  // Join/Prune only: the first option
  std::uint16_t joinPrunes = 0;     // options carrying a PIM Join/Prune of either family
  std::uint16_t unknownOptions = 0;
  bool known() const noexcept { return type == kPortTypeJoinPrune || type == kPortTypeKeepAlive; }
};

// The address family of a Join/Prune option, or none for other option types.
inline std::optional<Nimo::AddressFamily> portOptionFamily(std::uint16_t optionType) noexcept {
  if (optionType == kPortOptionJoinPruneIpv4) return Nimo::AddressFamily::ipv4;
  if (optionType == kPortOptionJoinPruneIpv6) return Nimo::AddressFamily::ipv6;
  return std::nullopt;
}

inline Nimo::IpGenAddr portMessageAddr(Nimo::AddressFamily af) noexcept {
  static constexpr std::uint8_t kZero[16] = {};
  return Nimo::IpGenAddr(af, kZero);
}

std::uint32_t writePortJoinPrune(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset,
                                 InterfaceId interfaceId, Nimo::AddressFamily af,
                                 std::uint32_t pimLength) noexcept;
std::uint32_t writePortKeepAlive(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;

std::uint32_t readPortMessage(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset,
                              PortMessage& message) noexcept;

// Calls fn(const PortOption&) for each option of a Join/Prune message that readPortMessage
// accepted from the same packet, in order.
template <typename F>
void forEachPortOption(const Nimo::Pkt& pkt, const PortMessage& m, F&& fn) {
  for (std::uint32_t at = m.optionsOffset; at + kPortOptionHeaderSize <= m.end;) {
    const std::uint8_t* h = pkt.data(at);
    const PortOption o{Nimo::load16(h), at + kPortOptionHeaderSize, Nimo::load16(h + 2)};
    fn(o);
    at = o.offset + o.length;
  }
}

}  // namespace Routing::Pim::Reliable
