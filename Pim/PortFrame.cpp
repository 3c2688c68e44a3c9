// PortFrame: the TLV around each PIM message on a PORT association. See PortFrame.h.
#include "Pim/PortFrame.h"

#include "Pim/PimMessageWire.h"

namespace Routing::Pim::Reliable {

namespace {
constexpr char kHeaderRead[] = "Invalid Port Frame - Header - Read Error - Remaining: {}";
constexpr char kLengthRead[] = "Invalid Port Frame - Message Length: {} Remaining: {}";
constexpr char kJoinPruneShort[] = "Invalid Port Frame - Join/Prune Length: {} Expected: {}";
constexpr char kKeepAliveLength[] = "Invalid Port Frame - Keep-Alive Length: {} Expected: 4";
constexpr char kUnknownType[] = "Invalid Port Frame - Unknown Type: {}";
constexpr char kHeaderWrite[] = "Invalid Port Frame - Header - Unavailable Space - Remaining: {}";
constexpr char kWriteType[] = "Invalid Port Frame - Cannot Write Type: {} Length: {}";
constexpr std::uint32_t kMaxValue = 0xffff;
}  // namespace

using Packet::Wire::fail;

std::uint32_t writePortHeader(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset,
                              std::uint16_t type, std::uint32_t pimLength) noexcept {
  const bool jp = type == kPortTypeJoinPrune && pimLength >= kPortMinPimSize;
  const bool ka = type == kPortTypeKeepAlive && pimLength == 0;
  // The length field counts the reserved word and the message.
  if ((!jp && !ka) || pimLength > kMaxValue - 4) {
    return fail(kWriteType, type, pimLength);
  }
  const std::uint32_t room = Packet::Wire::remainingFrom(*pkt, offset);
  if (room < kPortHeaderSize + pimLength) return fail(kHeaderWrite, room);
  Packet::Wire::Writer w(*pkt, offset);
  w.u16(type);
  w.u16(static_cast<std::uint16_t>(4 + pimLength));
  w.u32(0);
  return kPortHeaderSize + pimLength;
}

std::uint32_t readPortFrame(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset,
                            PortFrame& frame) noexcept {
  Packet::Wire::Reader r(*pkt, offset);
  const std::uint16_t type = r.u16();
  const std::uint16_t length = r.u16();
  if (!r.ok()) return fail(kHeaderRead, Packet::Wire::remainingFrom(*pkt, offset));
  if (length > r.remaining()) return fail(kLengthRead, length, r.remaining());
  frame = PortFrame{type, 0, 0};
  switch (type) {
    case kPortTypeJoinPrune:
      if (length < 4 + kPortMinPimSize) {
        return fail(kJoinPruneShort, length, 4 + kPortMinPimSize);
      }
      frame.pimOffset = offset + kPortHeaderSize;
      frame.pimLength = length - 4u;
      break;
    case kPortTypeKeepAlive:
      if (length != 4) return fail(kKeepAliveLength, length);
      break;
    default:
      return fail(kUnknownType, type);
  }
  return 4u + length;
}

}  // namespace Routing::Pim::Reliable
