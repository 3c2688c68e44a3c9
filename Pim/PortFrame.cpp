// PortFrame: PORT messages on a reliable-transport association. See PortFrame.h.
#include "Pim/PortFrame.h"

#include "Pim/PimMessageWire.h"

namespace Routing::Pim::Reliable {

namespace {
constexpr char kHeaderRead[] = "Invalid Port Message - Header - Read Error - Remaining: {}";
constexpr char kLengthRead[] = "Invalid Port Message - Message Length: {} Remaining: {}";
constexpr char kJoinPruneShort[] = "Invalid Port Join/Prune - Message Length: {} Expected: {}";
constexpr char kOptionHeader[] = "Invalid Port Join/Prune - Option Header - Remaining: {}";
constexpr char kOptionLength[] =
    "Invalid Port Join/Prune - Option Type: {} Length: {} Remaining: {}";
constexpr char kUnknownType[] = "Warning: Port Message - Unknown Type: {} Length: {}";
constexpr char kUnknownOption[] = "Warning: Port Join/Prune - Unknown Option - Type: {}";
constexpr char kHeaderWrite[] = "Invalid Port Message - Unavailable Space - Remaining: {}";
constexpr char kWriteLength[] = "Invalid Port Join/Prune - Join/Prune Length: {}";
constexpr std::uint32_t kMaxValue = 0xffff;
}  // namespace

using Packet::Wire::fail;

std::uint32_t writePortJoinPrune(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset,
                                 InterfaceId interfaceId, Nimo::AddressFamily af,
                                 std::uint32_t pimLength) noexcept {
  constexpr std::uint32_t kFixed = kPortJoinPruneFixedSize + kPortOptionHeaderSize;
  // Both lengths are 16 bits; the message's is the larger.
  if (pimLength < kPortMinPimSize || pimLength > kMaxValue - kFixed) {
    return fail(kWriteLength, pimLength);
  }
  const std::uint32_t room = Packet::Wire::remainingFrom(*pkt, offset);
  if (room < kPortJoinPruneOffset + pimLength) return fail(kHeaderWrite, room);
  Packet::Wire::Writer w(*pkt, offset);
  w.u16(kPortTypeJoinPrune);
  w.u16(static_cast<std::uint16_t>(kFixed + pimLength));
  w.u32(0);  // Reserved and Exp
  w.u32(interfaceId.routerId());
  w.u32(interfaceId.localId());
  w.u16(af == Nimo::AddressFamily::ipv4 ? kPortOptionJoinPruneIpv4 : kPortOptionJoinPruneIpv6);
  w.u16(static_cast<std::uint16_t>(pimLength));
  return kPortJoinPruneOffset + pimLength;
}

std::uint32_t writePortKeepAlive(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept {
  const std::uint32_t room = Packet::Wire::remainingFrom(*pkt, offset);
  if (room < kPortHeaderSize) return fail(kHeaderWrite, room);
  Packet::Wire::Writer w(*pkt, offset);
  w.u16(kPortTypeKeepAlive);
  w.u16(0);
  return kPortHeaderSize;
}

std::uint32_t readPortMessage(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset,
                              PortMessage& m) noexcept {
  Packet::Wire::Reader r(*pkt, offset);
  const std::uint16_t type = r.u16();
  const std::uint16_t length = r.u16();
  if (!r.ok()) return fail(kHeaderRead, Packet::Wire::remainingFrom(*pkt, offset));
  if (length > r.remaining()) return fail(kLengthRead, length, r.remaining());
  m = PortMessage{};
  m.type = type;
  m.end = offset + kPortHeaderSize + length;
  if (type == kPortTypeKeepAlive) return kPortHeaderSize + length;
  if (type != kPortTypeJoinPrune) {
    Packet::Wire::warn(kUnknownType, type, length);
    return kPortHeaderSize + length;
  }
  if (length < kPortJoinPruneFixedSize) {
    return fail(kJoinPruneShort, length, kPortJoinPruneFixedSize);
  }
  // From here the reader stops at the message's end, not the packet's.
  Packet::Wire::Reader v(*pkt, r.offset(), m.end);
  (void)v.u32();  // Reserved and Exp: ignored on receipt
  const std::uint32_t routerId = v.u32();
  m.interfaceId = InterfaceId(routerId, v.u32());
  m.optionsOffset = v.offset();
  while (v.remaining() > 0) {
    if (v.remaining() < kPortOptionHeaderSize) return fail(kOptionHeader, v.remaining());
    const std::uint16_t optionType = v.u16();
    const std::uint16_t optionLength = v.u16();
    if (optionLength > v.remaining()) {
      return fail(kOptionLength, optionType, optionLength, v.remaining());
    }
    v.skip(optionLength);
    if (portOptionFamily(optionType)) {
      ++m.joinPrunes;
    } else {
      ++m.unknownOptions;
      Packet::Wire::warn(kUnknownOption, optionType);
    }
  }
  return kPortHeaderSize + length;
}

}  // namespace Routing::Pim::Reliable
