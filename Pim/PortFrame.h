// PortFrame: PIM messages framed on a reliable-transport association (RFC 6559, PORT).
//
// On a PORT association every message is a TLV. We send and accept the layout below.
// Known gap: RFC 6559's Join/Prune TLV also carries a 64-bit Interface ID and wraps the
// Join/Prune in PORT options; this layout has neither, so today it interoperates only with
// itself. To be brought to the RFC's layout before any other peer is tried.
//
//    0                   1                   2                   3
//    0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |           Type = 1            |        Message Length         |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |                           Reserved                            |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |       PIM Join/Prune message, common PIM header included      |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//
// Message Length counts the bytes after the first four (Reserved and the PIM message), so
// a reader on a byte stream finds the next TLV without decoding this one. Type 2 is the
// keep-alive a TCP connection needs; it has no PIM message and the reader steps over it.
// The PIM message runs to the end of the TLV: we append no PORT options, and a peer's
// options would make the Join/Prune fail to decode, which the caller counts as invalid.
//
// The PIM message's checksum is computed as the codec does for the family, with the
// unspecified address (0.0.0.0 or ::) as both source and destination: the receiver cannot
// know which of the sender's addresses (Hello source, connection address, a mapped form)
// the sender used, and SCTP's CRC32c already protects the bytes. portMessageAddr gives
// that address for the message's srcIp and dstIp.
//
// Convention as in the codec: bytes consumed or written, 0 and one trace line at the error
// level ("Pim::Packet") on failure. The reader never looks past offset + the TLV's length.
//
// Threading: plain functions over a packet; event-loop thread only.
//
// Usage:
//   auto pkt = Nimo::Pkt::create(1500);
//   std::uint32_t n = jp->writeJoinPruneMessage(pkt, kPortHeaderSize, nullptr);
//   n = writePortHeader(pkt, 0, kPortTypeJoinPrune, n);       // the whole frame
//   PortFrame f;
//   if (readPortFrame(pkt, 0, f) && f.type == kPortTypeJoinPrune) decode(f.pimOffset, ...);
#pragma once

#include <cstdint>

#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"

namespace Routing::Pim::Reliable {

inline constexpr std::uint16_t kPortTypeJoinPrune = 1;
inline constexpr std::uint16_t kPortTypeKeepAlive = 2;
// Type, length and reserved word in front of the PIM message.
inline constexpr std::uint32_t kPortHeaderSize = 8;
// The smallest PIM message that can follow: its common header.
inline constexpr std::uint32_t kPortMinPimSize = 4;

struct PortFrame {
  std::uint16_t type = 0;
  std::uint32_t pimOffset = 0;  // where the PIM message starts (Join/Prune only)
  std::uint32_t pimLength = 0;  // its length; 0 for a frame without one
};

inline Nimo::IpGenAddr portMessageAddr(Nimo::AddressFamily af) noexcept {
  static constexpr std::uint8_t kZero[16] = {};
  return Nimo::IpGenAddr(af, kZero);
}

// Writes the frame header at offset for a PIM message of pimLength bytes already written at
// offset + kPortHeaderSize (type 1), or for a keep-alive (type 2, pimLength 0). Returns
// the frame's whole length.
std::uint32_t writePortHeader(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset,
                              std::uint16_t type, std::uint32_t pimLength) noexcept;

// Reads one frame at offset. An unknown type fails: on a PORT association nothing else is
// defined, and skipping it would hide a peer speaking something else.
std::uint32_t readPortFrame(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset,
                            PortFrame& frame) noexcept;

}  // namespace Routing::Pim::Reliable
