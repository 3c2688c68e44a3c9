// Hello message of the PIM codec: option reader, option writer, print form.

#include <sstream>

#include "Pim/PimMessage.h"
#include "Pim/PimMessageWire.h"

namespace Routing::Pim::Packet {

using Wire::fail;
using Wire::warn;
using Opt = HelloOptionTypeConstants;

namespace {

// Fixed texts of the reader, in the order the code meets them.
constexpr char kHeaderReadError[] = "Invalid Pim Hello - Header - Read Error";
constexpr char kOptionLength[] =
    "Invalid Pim Hello - Hello Option Length - Remaining: {} Expected: {}";
constexpr char kBidirSize[] =
    "Invalid Pim Hello - Non-zero Bidirectional Capable Option Size - Received Value: {}";
constexpr char kAddrListLength[] =
    "Invalid Pim Hello - Address List Option Length - Remaining: {} Expected: {}";
constexpr char kAddrListParse[] =
    "Invalid Pim Hello - Address List Option - Unicast Address - Parse Error";
constexpr char kAddrListOtherFamily[] =
    "Warning: Pim Hello - Address List Option - Family: {} Skipping Address: {}";
constexpr char kAddrListInvalid[] =
    "Warning: Pim Hello - Address List Option - Skipping Invalid Address: {}";
constexpr char kInterfaceIdSize[] =
    "Invalid Pim Hello - Interface Identifier Option Size - Received Value: {}";
constexpr char kUnsupportedOption[] = "Warning: Pim Hello - Unsupport Hello Option - Type: {}";
constexpr char kNoHoldtime[] = "Invalid Pim Hello - No Holdtime Option";
constexpr char kRxTrace[] = "RX: <PIM {}>";

// Fixed-size options: the size check, then the bytes-left check.
struct FixedOption {
  std::uint16_t length;
  fmt::format_string<unsigned> sizeText;
  fmt::format_string<std::int64_t, unsigned> lengthText;
};
constexpr FixedOption kHoldTimeOpt{
    2, "Invalid Pim Hello - Holdtime Option Size - Received Value: {}",
    "Invalid Pim Hello - Holdtime Option Length - Remaining: {} Expected: {}"};
constexpr FixedOption kLanPruneDelayOpt{
    4, "Invalid Pim Hello - Lan Prune Delay Option Size - Received Value: {}",
    "Invalid Pim Hello - Lan Prune Delay Option Length - Remaining: {} Expected: {}"};
constexpr FixedOption kDrPriorityOpt{
    4, "Invalid Pim Hello - Dr Priority Option Size - Received Value: {}",
    "Invalid Pim Hello - Dr Priority Option Length - Remaining: {} Expected: {}"};
constexpr FixedOption kGenerationIdOpt{
    4, "Invalid Pim Hello - Generation Id Option Size - Received Value: {}",
    "Invalid Pim Hello - Generation Id Option Length - Remaining: {} Expected: {}"};

// PIM over TCP / SCTP connection options share their layout and their texts' shape.
struct ConnectionOption {
  fmt::format_string<unsigned> sizeText;
  fmt::format_string<unsigned> v4LengthText;
  fmt::format_string<unsigned> v6LengthText;
  fmt::format_string<unsigned, unsigned> familyText;
};
constexpr ConnectionOption kTcpOpt{
    "Invalid Pim Hello - Pim over Tcp Option Size - Received Value: {}",
    "Invalid Pim Hello - Pim over Tcp Option - IPv4 address family has unexpected length {}",
    "Invalid Pim Hello - Pim over Tcp Option - IPv6 address family has unexpected length {}",
    "Invalid Pim Hello - Pim over Tcp Option - Invalid address family {} with length {}"};
constexpr ConnectionOption kSctpOpt{
    "Invalid Pim Hello - Pim over Sctp Option Size - Received Value: {}",
    "Invalid Pim Hello - Pim over Sctp Option - IPv4 address family has unexpected length {}",
    "Invalid Pim Hello - Pim over Sctp Option - IPv6 address family has unexpected length {}",
    "Invalid Pim Hello - Pim over Sctp Option - Invalid address family {} with length {}"};

// Fixed texts of the writer, in the order the code meets them.
constexpr char kHeaderNoSpace[] = "Invalid Pim Hello - Header - Unavailable Space - Remaining: {}";
constexpr char kHoldTimeNoSpace[] =
    "Invalid Pim Hello - Holdtime Option - Unavailable Space - Remaining: {} Expected: {}";
constexpr char kLanPruneDelayNoSpace[] =
    "Invalid Pim Hello - Lan Prune Delay Option - Unavailable Space - Remaining: {}";
constexpr char kDrPriorityNoSpace[] =
    "Invalid Pim Hello - Dr Priority Option - Unavailable Space - Remaining: {}";
// The address list reuses this text when its option header does not fit; operators'
// scripts match it, so it stays.
constexpr char kGenerationIdNoSpace[] =
    "Invalid Pim Hello - Generation Id Option - Unavailable Space - Remaining: {}";
constexpr char kBidirNoSpace[] =
    "Invalid Pim Hello - Bidirectional Capable Option - Unavailable Space - Remaining: {}";
constexpr char kAddrListFamily[] =
    "Invalid Pim Hello - Address List Option - Family: {} Address: {}";
constexpr char kAddrListWrite[] =
    "Invalid Pim Hello - Address List Option - Unicast Address - Write Error";
constexpr char kInterfaceIdNoSpace[] =
    "Invalid Pim Hello - InterfaceId Option - Unavailable Space - Remaining: {} Expected: {}";
constexpr char kHeaderWriteError[] = "Invalid Pim Hello - Header - Write Error";
constexpr char kTxTrace[] = "TX: <PIM {}>";

struct ConnectionWriteTexts {
  fmt::format_string<unsigned> familyText;
  fmt::format_string<unsigned> invalidFamilyText;
  fmt::format_string<std::uint32_t> noSpaceText;
};
// The double blank and the "STCP" spelling are in lines that operators already match.
constexpr ConnectionWriteTexts kTcpWrite{
    "Invalid Pim Hello - tcpConnectionId Option - Family: {}",
    "Invalid Pim Hello - TCP capable Option - Invalid address family {}",
    "Invalid Pim Hello - TCP capable  Option - Unavailable Space - Remaining: {}"};
constexpr ConnectionWriteTexts kSctpWrite{
    "Invalid Pim Hello - sctpConnectionId Option - Family: {}",
    "Invalid Pim Hello - SCTP capable Option - Invalid address family {}",
    "Invalid Pim Hello - STCP capable  Option - Unavailable Space - Remaining: {}"};
constexpr char kSctpV6Trace[] = " write v6 sctpConnectionId with size {}";

std::string printed(const HelloMessage& m) {
  std::ostringstream os;
  m.print(os);
  return os.str();
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Value types

HelloMessage::HelloPropagationDelay::HelloPropagationDelay(std::uint16_t v) : value_(v) {
  if (value_ > max) throw Kel::RangeError(std::string(kRangeErrorText));
}

HelloMessage::HelloPropagationDelay::HelloPropagationDelay(const char* begin, const char* end) {
  Kel::parseValue(begin, end, *this);
  if (value_ > max) throw Kel::RangeError(std::string(kRangeErrorText));
}

std::ostream& operator<<(std::ostream& os, const HelloMessage::HelloPropagationDelay& d) {
  return os << Kel::valueToStrep(d);
}
std::ostream& operator<<(std::ostream& os, const HelloMessage::HelloImplPropagationDelay& d) {
  return os << Kel::valueToStrep(d);
}

void HelloMessage::tBitIs(bool b) noexcept {
  impl_.v0 = static_cast<std::uint8_t>(b ? (impl_.v0 | 0x80) : (impl_.v0 & 0x7f));
}

HelloMessage::HelloPropagationDelay HelloMessage::propagationDelay() const noexcept {
  // 15 bits never exceed max, so this cannot throw.
  return HelloPropagationDelay(static_cast<std::uint16_t>(((impl_.v0 & 0x7f) << 8) | impl_.v1));
}

void HelloMessage::propagationDelayIs(HelloPropagationDelay d) noexcept {
  impl_.v0 = static_cast<std::uint8_t>((impl_.v0 & 0x80) | ((d.value() >> 8) & 0x7f));
  impl_.v1 = static_cast<std::uint8_t>(d.value());
}

void HelloMessage::secondaryAddrIs(const Nimo::IpGenAddr& a, bool present) {
  if (present) {
    secondaryAddr_.insert(a);
  } else {
    secondaryAddr_.erase(a);
  }
}

bool operator==(const HelloMessage& a, const HelloMessage& b) noexcept {
  return a.headerEquals(b) && a.holdTimeOption_ == b.holdTimeOption_ &&
         a.holdTime_ == b.holdTime_ && a.lanPruneDelayOption_ == b.lanPruneDelayOption_ &&
         a.impl_ == b.impl_ && a.overrideInterval_ == b.overrideInterval_ &&
         a.drPriorityOption_ == b.drPriorityOption_ && a.drPriority_ == b.drPriority_ &&
         a.generationIdOption_ == b.generationIdOption_ && a.generationId_ == b.generationId_ &&
         a.bidirectionalCapable_ == b.bidirectionalCapable_ &&
         a.secondaryAddr_ == b.secondaryAddr_ && a.tcpConnectionOption_ == b.tcpConnectionOption_ &&
         a.tcpConnectionId_ == b.tcpConnectionId_ &&
         a.sctpConnectionOption_ == b.sctpConnectionOption_ &&
         a.sctpConnectionId_ == b.sctpConnectionId_ &&
         a.interfaceIdOption_ == b.interfaceIdOption_ && a.interfaceId_ == b.interfaceId_ &&
         a.routerId_ == b.routerId_;
}

// ---------------------------------------------------------------------------------------
// Reading

namespace {

// Checks a fixed-size option's declared length and the bytes after its header; on success
// the caller reads the value.
bool fixedOptionFits(const FixedOption& o, std::uint16_t declared,
                     std::int64_t afterHeader) noexcept {
  if (declared != o.length) return fail(o.sizeText, unsigned{declared});
  if (afterHeader < o.length) return fail(o.lengthText, afterHeader, unsigned{o.length});
  return true;
}

// PIM over TCP/SCTP (RFC 6559): family(16) reserved(16) address. A malformed option is
// skipped, not fatal; returns false only for a fatal size error.
bool readConnectionOption(const ConnectionOption& o, Wire::Reader value, std::uint16_t declared,
                          bool& present, Nimo::IpGenAddr& addr) noexcept {
  if (declared < 5) return fail(o.sizeText, unsigned{declared});
  const std::uint16_t family = value.u16();
  value.skip(2);
  const unsigned addrLen = declared - 4u;
  if (family == 1 && addrLen != 4) {
    fail(o.v4LengthText, addrLen);
  } else if (family == 2 && addrLen != 16) {
    fail(o.v6LengthText, addrLen);
  } else if (family != 1 && family != 2) {
    fail(o.familyText, unsigned{family}, addrLen);
  } else if (const std::uint8_t* p = value.take(addrLen)) {
    addr = Nimo::IpGenAddr(static_cast<Nimo::AddressFamily>(family), p);
    present = true;
  }
  return true;
}

}  // namespace

std::uint32_t HelloMessage::readHelloMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                             std::uint32_t offset) noexcept {
  // Header
  if (readHeader(pkt, offset) == 0) return fail(kHeaderReadError);
  const std::uint32_t total = Wire::remainingFrom(*pkt, offset);

  // Options. remaining may go negative when an option claims more than is left; that
  // ends the loop and fails below.
  std::int64_t remaining = std::int64_t{total} - HelloOptionHeader::kSize;
  std::uint32_t pos = offset + HelloOptionHeader::kSize;
  while (remaining >= HelloOptionHeader::kSize) {
    Wire::Reader hdr(*pkt, pos);
    const HelloOptionHeader opt{hdr.u16(), hdr.u16()};
    const std::int64_t afterHeader = remaining - HelloOptionHeader::kSize;
    const std::uint32_t valuePos = pos + HelloOptionHeader::kSize;
    // The value, bounded by its declared length and the packet.
    Wire::Reader value(*pkt, valuePos,
                       static_cast<std::uint32_t>(std::min<std::int64_t>(
                           std::int64_t{valuePos} + opt.length, pkt->size())));

    switch (opt.helloType) {
      case Opt::helloHoldTime:
        if (!fixedOptionFits(kHoldTimeOpt, opt.length, afterHeader)) return 0;
        holdTime_ = value.u16();
        holdTimeOption_ = true;
        break;
      case Opt::helloLanPruneDelay:
        if (!fixedOptionFits(kLanPruneDelayOpt, opt.length, afterHeader)) return 0;
        impl_.v0 = value.u8();
        impl_.v1 = value.u8();
        overrideInterval_ = value.u16();
        lanPruneDelayOption_ = true;
        break;
      case Opt::helloDrPriority:
        if (!fixedOptionFits(kDrPriorityOpt, opt.length, afterHeader)) return 0;
        drPriority_ = value.u32();
        drPriorityOption_ = true;
        break;
      case Opt::helloGenerationId:
        if (!fixedOptionFits(kGenerationIdOpt, opt.length, afterHeader)) return 0;
        generationId_ = value.u32();
        generationIdOption_ = true;
        break;
      case Opt::helloBidirectionalCapable:
        if (opt.length != 0) return fail(kBidirSize, unsigned{opt.length});
        bidirectionalCapable_ = true;
        break;
      case Opt::helloAddressList: {
        if (opt.length > afterHeader) return fail(kAddrListLength, afterHeader, opt.length);
        const std::uint32_t end = valuePos + opt.length;
        for (std::uint32_t at = valuePos; at < end;) {
          EncodedUnicastAddress ea;
          const std::uint32_t n = ea.readUnicastAddress(pkt, at, end);
          if (n == 0) return fail(kAddrListParse);
          at += n;
          const Nimo::IpGenAddr& a = ea.address();
          if (static_cast<std::uint8_t>(a.af()) != af()) {
            warn(kAddrListOtherFamily, unsigned{static_cast<std::uint8_t>(a.af())}, a);
            continue;
          }
          // Kept even when invalid: the warning is informational, and neighbours' address
          // lists are published as received.
          secondaryAddr_.insert(a);
          if (!ea.valid()) warn(kAddrListInvalid, a);
        }
        break;
      }
      case Opt::helloPimOverTcpCapable:
      case Opt::helloPimOverSctpCapable: {
        // Past the end: left to the length check below, which fails the message.
        if (opt.length > afterHeader) break;
        const bool tcp = opt.helloType == Opt::helloPimOverTcpCapable;
        if (!readConnectionOption(tcp ? kTcpOpt : kSctpOpt, value, opt.length,
                                  tcp ? tcpConnectionOption_ : sctpConnectionOption_,
                                  tcp ? tcpConnectionId_ : sctpConnectionId_)) {
          return 0;
        }
        break;
      }
      case Opt::helloInterfaceIdentifier:
        if (opt.length != 8) return fail(kInterfaceIdSize, unsigned{opt.length});
        if (afterHeader < 8) break;  // past the end: fails below
        routerId_ = value.u32();
        interfaceId_ = value.u32();
        interfaceIdOption_ = true;
        break;
      default:
        warn(kUnsupportedOption, unsigned{opt.helloType});
        break;
    }
    remaining -= HelloOptionHeader::kSize + std::int64_t{opt.length};
    pos = valuePos + opt.length;
  }
  if (remaining != 0) return fail(kOptionLength, remaining, 4u);

  // Done
  auto& trace = codecTrace();
  if (!holdTimeOption_) FLICK_TRACE(trace, 9, kNoHoldtime);
  FLICK_TRACE(trace, 4, kRxTrace, printed(*this));
  return total;
}

// ---------------------------------------------------------------------------------------
// Writing

namespace {

std::uint32_t writeConnectionOption(Wire::Writer& out, std::uint16_t type,
                                    const ConnectionWriteTexts& t, const Nimo::IpGenAddr& addr,
                                    std::uint8_t messageAf) noexcept {
  const auto family = static_cast<std::uint8_t>(addr.af());
  if (family != messageAf) return fail(t.familyText, unsigned{family});
  const std::uint8_t n = addr.byteLength();
  if (n == 0) return fail(t.invalidFamilyText, unsigned{family});
  const std::uint32_t need = HelloOptionHeader::kSize + 4u + n;
  if (out.remaining() < need) return fail(t.noSpaceText, out.remaining());
  if (n == 16 && type == Opt::helloPimOverSctpCapable) {
    FLICK_TRACE(codecTrace(), 4, kSctpV6Trace, need);
  }
  out.u16(type);
  out.u16(static_cast<std::uint16_t>(4u + n));
  out.u16(family);
  out.u16(0);
  out.bytes(addr.bytes(), n);
  return need;
}

}  // namespace

std::uint32_t HelloMessage::writeHelloMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                              std::uint32_t offset) noexcept {
  Wire::Writer out(*pkt, offset);
  // Header space; the header itself goes last.
  if (out.remaining() < HelloOptionHeader::kSize) return fail(kHeaderNoSpace, out.remaining());
  out.put(HelloOptionHeader::kSize);

  if (holdTimeOption_) {
    if (out.remaining() < 6) return fail(kHoldTimeNoSpace, out.remaining(), 6u);
    out.u16(Opt::helloHoldTime);
    out.u16(2);
    out.u16(holdTime_);
  }
  if (lanPruneDelayOption_) {
    if (out.remaining() < 8) return fail(kLanPruneDelayNoSpace, out.remaining());
    out.u16(Opt::helloLanPruneDelay);
    out.u16(4);
    out.u8(impl_.v0);
    out.u8(impl_.v1);
    out.u16(overrideInterval_);
  }
  if (drPriorityOption_) {
    if (out.remaining() < 8) return fail(kDrPriorityNoSpace, out.remaining());
    out.u16(Opt::helloDrPriority);
    out.u16(4);
    out.u32(drPriority_);
  }
  if (generationIdOption_) {
    if (out.remaining() < 8) return fail(kGenerationIdNoSpace, out.remaining());
    out.u16(Opt::helloGenerationId);
    out.u16(4);
    out.u32(generationId_);
  }
  if (bidirectionalCapable_) {
    if (out.remaining() < 4) return fail(kBidirNoSpace, out.remaining());
    out.u16(Opt::helloBidirectionalCapable);
    out.u16(0);
  }
  if (!secondaryAddr_.empty()) {
    if (out.remaining() < HelloOptionHeader::kSize) {
      return fail(kGenerationIdNoSpace, out.remaining());
    }
    std::uint8_t* optHdr = out.put(HelloOptionHeader::kSize);
    std::uint32_t listLen = 0;
    for (const Nimo::IpGenAddr& a : secondaryAddr_) {
      const auto family = static_cast<std::uint8_t>(a.af());
      if (family != af()) return fail(kAddrListFamily, unsigned{family}, a);
      EncodedUnicastAddress ea(a);
      const std::uint32_t n = ea.writeUnicastAddress(pkt, out.offset());
      if (n == 0) return fail(kAddrListWrite);
      out.put(n);
      listLen += n;
    }
    if (listLen > 0xffff) return fail(kAddrListWrite);
    Nimo::store16(optHdr, Opt::helloAddressList);
    Nimo::store16(optHdr + 2, static_cast<std::uint16_t>(listLen));
  }
  if (tcpConnectionOption_ && writeConnectionOption(out, Opt::helloPimOverTcpCapable, kTcpWrite,
                                                    tcpConnectionId_, af()) == 0) {
    return 0;
  }
  if (sctpConnectionOption_ && writeConnectionOption(out, Opt::helloPimOverSctpCapable, kSctpWrite,
                                                     sctpConnectionId_, af()) == 0) {
    return 0;
  }
  if (interfaceIdOption_) {
    if (out.remaining() < 12) return fail(kInterfaceIdNoSpace, out.remaining(), 12u);
    out.u16(Opt::helloInterfaceIdentifier);
    out.u16(8);
    out.u32(routerId_);
    out.u32(interfaceId_);
  }

  // Header, summing the finished body
  lengthIs(out.offset() - offset);
  if (writeHeader(pkt, offset) == 0) return fail(kHeaderWriteError);
  auto& trace = codecTrace();
  FLICK_TRACE(trace, 4, kTxTrace, printed(*this));
  return length();
}

// ---------------------------------------------------------------------------------------
// Print form

void HelloMessage::print(std::ostream& os) const {
  Message::print(os);
  if (holdTimeOption_) os << " | Option: holdtime=" << holdTime_;
  if (lanPruneDelayOption_) {
    os << " | Option: tbit=" << tBit() << ", propagationDelay=" << propagationDelay().value()
       << ", override=" << overrideInterval_;
  }
  if (drPriorityOption_) os << " | Option: drPriority=" << drPriority_;
  if (generationIdOption_) os << " | Option: generationId=" << generationId_;
  if (!secondaryAddr_.empty()) {
    os << " | Option: secondary address=[ ";
    for (const auto& a : secondaryAddr_) os << a << ' ';
    os << "]";
  }
  if (bidirectionalCapable_) os << " | Option: bidirectional capable";
  // Both connection labels say sctp: tools that parse this line expect exactly that.
  if (tcpConnectionOption_) os << " | Option: sctpConnectionId = " << tcpConnectionId_;
  if (sctpConnectionOption_) os << " | Option: sctpConnectionId=" << sctpConnectionId_;
  if (interfaceIdOption_) {
    os << " | Option: [ RouterId :" << routerId_ << " InterfaceId:" << interfaceId_ << "]";
  }
}

}  // namespace Routing::Pim::Packet
