// Common header, checksum and encoded addresses of the PIM codec.

#include "Pim/PimMessage.h"

#include <sstream>

#include "Pim/PimMessageWire.h"

namespace Routing::Pim::Packet {

using Wire::fail;

namespace {

// Fixed texts, in the order the code meets them.
constexpr char kMissingHeader[] = "Invalid Pim Message - Missing Pim Header - Remaining: {}";
constexpr char kRegisterChecksum[] =
    "Invalid Pim Message - Register Checksum - Received: {:#06x} Calculated: {:#06x}";
constexpr char kChecksum[] =
    "Invalid Pim Message - Checksum - Received: {:#06x} Calculated: {:#06x}";
constexpr char kInvalidFamily[] = "Invalid address family";
constexpr char kReadHeaderTrace[] =
    "readHeader: RX: <PIM version=2 type={} ({}) reserved={} checksum={:#06x} length={} "
    "remaining {}>";
constexpr char kHeaderNoSpace[] =
    "Invalid Pim Message - Header - Unavailable Space - Remaining: {}";
constexpr char kWriteHeaderTrace[] =
    "writeHeader TX: <PIM version=2 type={} ({}) reserved={} checksum={:#06x} length={}>";

constexpr char kUniFamilyEncodingLength[] =
    "Invalid Encoded Unicast Address - Family and Encoding Length - Remaining: {} Expected: 2";
constexpr char kUniInvalidEncoding[] =
    "Invalid Encoded Unicast Address - Invalid Encoding - Value: {}";
constexpr char kUniIpLength[] =
    "Invalid Encoded Unicast Address - Ip Address Length - Remaining: {} Expected: {}";
constexpr char kUniIp6Length[] =
    "Invalid Encoded Unicast Address - Ip6 Address Length - Remaining: {} Expected: {}";
constexpr char kUniReadInvalidFamily[] = "Invalid Unicast Address - Invalid Family - Value: {}";
constexpr char kUniNotUnicast[] = "Invalid Encoded Unicast Address - Not Unicast - Address: {}";
constexpr char kUniWriteInvalidFamily[] =
    "Invalid Encoded Unicast Address - Invalid Family - Value: {}";
constexpr char kUniUnsupportedFamily[] =
    "Invalid Encoded Unicast Address - Unsupported Address Family - Address Family: {}";

constexpr char kUnsupportedFamily[] = "Unsupported address family {}";

// Group and source forms differ only in their name and in what the address must be.
struct PrefixTexts {
  fmt::format_string<std::uint32_t> familyEncodingLength;
  fmt::format_string<char> invalidEncoding;
  fmt::format_string<std::uint32_t, unsigned> ipLength;
  fmt::format_string<char> invalidFamily;
  fmt::format_string<unsigned> writeInvalidFamily;
  fmt::format_string<Nimo::IpGenAddr, unsigned> prefixRange;
  fmt::format_string<Nimo::IpGenAddr> wrongKind;  // Not Multicast / Not Unicast
};

constexpr PrefixTexts kGroupTexts{
    "Invalid Encoded Group Address - Family and Encoding Length - Remaining: {} Expected: 4",
    "Invalid Encoded Group Address - Invalid Encoding - Value: {}",
    "Invalid Encoded Group Address - Ip Address Length - Remaining: {} Expected: {}",
    "Invalid Encoded Group Address - Invalid Family - Value: {}",
    "Invalid Encoded Group Address - Invalid Family - Value: {}",
    "Invalid Encoded Group Address - Incorrect Prefix Range - {}/{}",
    "Invalid Encoded Group Address - Not Multicast - Address: {}",
};
constexpr PrefixTexts kSourceTexts{
    "Invalid Encoded Source Address - Family and Encoding Length - Remaining: {} Expected: 4",
    "Invalid Encoded Source Address - Invalid Encoding - Value: {}",
    "Invalid Encoded Source Address - Ip Address Length - Remaining: {} Expected: {}",
    "Invalid Encoded Source Address - Invalid Family - Value: {}",
    "Invalid Encoded Source Address - Invalid Family - Value: {}",
    "Invalid Encoded Source Address - Incorrect Prefix Range - {}/{}",
    "Invalid Encoded Source Address - Not Unicast - Address: {}",
};

// The source class reports an unsupported family with the group class's text, on purpose:
// both share one family check in the products this interoperates with, and operators grep
// for that one line.
constexpr char kGroupUnsupportedFamily[] =
    "Invalid Encoded Group Address - Unsupported Address Family - Address Family: {}";
constexpr char kSourceAllZeros[] = "Invalid Encoded Source Address - All Zeros - Address: {}";
constexpr char kSourceNotHost[] = "Invalid Encoded Source Address - Not Host Prefix - Prefix: {}";

constexpr std::uint8_t kRegisterByte = static_cast<std::uint8_t>(Nimo::PimMessageType::pimRegister);
constexpr std::uint32_t kRegisterChecksumLength = 8;

std::string hexDump(const std::uint8_t* p, std::size_t n) {
  std::string out;
  for (std::size_t i = 0; i < n; ++i) fmt::format_to(std::back_inserter(out), "{:02x}", p[i]);
  return out;
}

// A checksum field's right value: the data summed with the field taken as zero.
std::uint16_t expectedChecksum(std::uint64_t pseudoSum, const std::uint8_t* hdr,
                               std::uint32_t len) noexcept {
  std::uint64_t acc = Nimo::checksumAdd(pseudoSum, hdr, 2);
  return Nimo::checksumFold(Nimo::checksumAdd(acc, hdr + 4, len - 4));
}

std::uint64_t pseudoHeaderSum(const Nimo::IpGenAddr& src, const Nimo::IpGenAddr& dst,
                              std::uint32_t upperLayerLength) noexcept {
  std::uint8_t pseudo[40] = {};
  std::memcpy(pseudo, src.bytes(), 16);
  std::memcpy(pseudo + 16, dst.bytes(), 16);
  Nimo::store32(pseudo + 32, upperLayerLength);
  pseudo[39] = Nimo::kIpProtoPim;
  return Nimo::checksumAdd(0, pseudo, sizeof(pseudo));
}

// Address family byte on the wire for a Nimo family, 0 for none.
std::uint8_t wireFamily(Nimo::AddressFamily af) noexcept { return static_cast<std::uint8_t>(af); }

}  // namespace

const Flicklog::LogMessage PIM_MESSAGE_INVALID_ENCODED_SOURCE{
    "PIM_MESSAGE_INVALID_ENCODED_SOURCE", 4,
    "Attempted to send %s message with a non-unicast encoded source %s",
    "A PIM message contains an S,G where the encoded source is not unicast.",
    "Collect show-tech and contact support."};
const Flicklog::LogMessage PIM_MESSAGE_INVALID_ENCODED_GROUP{
    "PIM_MESSAGE_INVALID_ENCODED_GROUP", 4,
    "Attempted to send %s message with a non-multicast encoded group %s",
    "A PIM message contains an S,G where the encoded group is not multicast.",
    "Collect show-tech and contact support."};
const Flicklog::LogMessage PIM_MESSAGE_AF_MISMATCH{
    "PIM_MESSAGE_AF_MISMATCH", 4, "Attempted to send %s %s message with %s address in the message",
    "A PIM message encountered multiple address families while sending.",
    "Collect show-tech and contact support."};
const Flicklog::LogMessage PIMBSR_CRPADV_ZONE_SET{
    "PIMBSR_CRPADV_ZONE_SET", 6,
    "Received Candidate-RP Advertisements from C-RP %s with Zone bit set",
    "This is an unusual condition for which RFC 5059 mentions BSR mechanism to log such "
    "activities. This log is only for informational purpose and is produced when a multicast "
    "boundary router is configured as a Candidate RP. This does not pose any operational "
    "issue.",
    "In order to not see this message remove Candidate-RP configuration from the multicast "
    "boundary router."};

// ---------------------------------------------------------------------------------------
// Message

std::uint8_t Message::af() const noexcept {
  return wireFamily(srcIp_.isSet() ? srcIp_.af() : dstIp_.af());
}

bool Message::headerEquals(const Message& o) const noexcept {
  return pimMessageType_ == o.pimMessageType_ && messageSubtype_ == o.messageSubtype_ &&
         reserved_ == o.reserved_ && length_ == o.length_ && srcIp_ == o.srcIp_ &&
         dstIp_ == o.dstIp_;
}

std::uint32_t Message::readHeader(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept {
  // Missing header
  const std::uint32_t remaining = Wire::remainingFrom(*pkt, offset);
  if (remaining < Nimo::PimCommonHdr::kSize) return fail(kMissingHeader, remaining);

  // Fields. A Register's checksum covers its first 8 bytes only; a shorter Register is
  // summed as far as it goes so that nothing past the packet is read.
  const std::uint8_t* p = pkt->data(offset);
  const bool isRegister = p[0] == kRegisterByte;
  reserved_ = p[1];
  length_ = isRegister ? std::min(kRegisterChecksumLength, remaining) : remaining;
  const std::uint16_t received = Nimo::load16(p + 2);
  auto& trace = codecTrace();
  FLICK_TRACE(trace, 4, " pimHdr {}", hexDump(p, Nimo::PimCommonHdr::kSize));

  // Checksum. A Register is tried a second time over the whole message: some peers sum
  // only the 8-byte header (as the RFC asks), others the inner packet too, and we accept
  // both rather than drop Registers from either kind of router.
  const std::uint8_t family = af();
  std::uint16_t computed = 0;
  bool valid = false;
  std::uint64_t pseudo = 0;
  if (family == 1) {
    computed = Nimo::inetChecksum(p, length_);
    valid = computed == 0;
    if (!valid && isRegister) {
      computed = Nimo::inetChecksum(p, remaining);
      valid = computed == 0;
    }
  } else if (family == 2) {
    // The IPv6 sum also counts 0xFFFF as good: routers differ in which of the two
    // one's-complement zeros they leave, and both are a correct sum.
    pseudo = pseudoHeaderSum(srcIp_, dstIp_, length_);
    FLICK_TRACE(trace, 4, " pseduHdr src={} dst={} length={}", srcIp_, dstIp_, length_);
    computed = Nimo::checksumFold(Nimo::checksumAdd(pseudo, p, length_));
    valid = computed == 0 || computed == 0xffff;
    if (!valid && isRegister) {
      FLICK_TRACE(trace, 4, " Recompute Ipv6 pseudoHdr Checksum length={}", remaining);
      pseudo = pseudoHeaderSum(srcIp_, dstIp_, remaining);
      computed = Nimo::checksumFold(Nimo::checksumAdd(pseudo, p, remaining));
      valid = computed == 0 || computed == 0xffff;
    }
  } else {
    return fail(kInvalidFamily);
  }
  FLICK_TRACE(trace, 4, " validChecksum {}", valid);
  if (!valid) {
    // Report the value the field should have held, for the failing (last) try.
    const std::uint32_t len = isRegister ? remaining : length_;
    const std::uint16_t expected = expectedChecksum(pseudo, p, len);
    return isRegister ? fail(kRegisterChecksum, received, expected)
                      : fail(kChecksum, received, expected);
  }

  FLICK_TRACE(trace, 4, kReadHeaderTrace, messageType(), Nimo::pimMessageTypeName(pimMessageType_),
              reserved_, received, length_, remaining);
  return Nimo::PimCommonHdr::kSize;
}

std::uint32_t Message::writeHeader(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept {
  // Space
  const std::uint32_t remaining = Wire::remainingFrom(*pkt, offset);
  if (remaining < Nimo::PimCommonHdr::kSize) return fail(kHeaderNoSpace, remaining);
  // The checksum may only cover bytes the packet holds.
  if (length_ > remaining || length_ < Nimo::PimCommonHdr::kSize) {
    return fail(kHeaderNoSpace, remaining);
  }

  // Fields, checksum zero while summing
  Nimo::PimCommonHdr hdr(pkt->writableData(offset));
  hdr.pimMessageTypeIs(pimMessageType_);
  hdr.reservedIs(reserved_);
  hdr.checksumIs(0);

  // Checksum
  const std::uint8_t family = af();
  if (family == 1) {
    hdr.checksumIs(hdr.computeChecksum(length_));
  } else if (family == 2) {
    const bool isRegister = pimMessageType_ == Nimo::PimMessageType::pimRegister;
    hdr.checksumIs(hdr.computeChecksumV6(srcIp_, dstIp_,
                                         isRegister ? kRegisterChecksumLength : length_, length_));
  } else {
    return fail(kInvalidFamily);
  }

  FLICK_TRACE(codecTrace(), 4, kWriteHeaderTrace, messageType(),
              Nimo::pimMessageTypeName(pimMessageType_), reserved_, hdr.checksum(), length_);
  return Nimo::PimCommonHdr::kSize;
}

void Message::print(std::ostream& os) const {
  os << "version=2 type=" << unsigned{messageType()} << " ("
     << Nimo::pimMessageTypeName(pimMessageType_) << ") reserved=" << unsigned{reserved_}
     << " length=" << length_ << " src=" << srcIp_ << " dst=" << dstIp_;
}

std::ostream& operator<<(std::ostream& os, const Message& m) {
  m.print(os);
  return os;
}

// ---------------------------------------------------------------------------------------
// Encoded-Unicast address

std::uint32_t EncodedUnicastAddress::readUnicastAddress(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                        std::uint32_t offset) noexcept {
  return readUnicastAddress(pkt, offset, pkt->size());
}

std::uint32_t EncodedUnicastAddress::readUnicastAddress(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                        std::uint32_t offset,
                                                        std::uint32_t end) noexcept {
  Wire::Reader in(*pkt, offset, end);
  // Family and encoding
  if (in.remaining() < 2) return fail(kUniFamilyEncodingLength, in.remaining());
  const std::uint8_t family = in.u8();
  const std::uint8_t encoding = in.u8();
  if (encoding != 0) return fail(kUniInvalidEncoding, static_cast<char>(encoding));

  // Address
  const auto af = static_cast<Nimo::AddressFamily>(family);
  const std::uint8_t n = Nimo::addressBytes(af);
  if (n == 0) return fail(kUniReadInvalidFamily, static_cast<char>(family));
  if (in.remaining() < n) {
    return af == Nimo::AddressFamily::ipv4 ? fail(kUniIpLength, in.remaining(), n)
                                           : fail(kUniIp6Length, in.remaining(), n);
  }
  address_ = Nimo::IpGenAddr(af, in.take(n));
  return 2u + n;
}

std::uint32_t EncodedUnicastAddress::writeUnicastAddress(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                         std::uint32_t offset) noexcept {
  Wire::Writer out(*pkt, offset);
  if (out.remaining() < 2) return fail(kUniFamilyEncodingLength, out.remaining());
  const std::uint8_t n = address_.byteLength();
  if (n == 0) return fail(kUniWriteInvalidFamily, unsigned{wireFamily(address_.af())});

  // Family and encoding go out before the checks below; a failed write is discarded whole.
  out.u8(wireFamily(address_.af()));
  out.u8(0);
  if (address_.isMulticast()) return fail(kUniNotUnicast, address_);
  // The writer has one length text for both families.
  if (out.remaining() < n) return fail(kUniIpLength, out.remaining(), n);
  out.bytes(address_.bytes(), n);
  return 2u + n;
}

bool EncodedUnicastAddress::valid() const noexcept {
  if (!address_.isSet()) return fail(kUniUnsupportedFamily, unsigned{wireFamily(address_.af())});
  if (address_.isMulticast()) return fail(kUniNotUnicast, address_);
  return true;
}

// ---------------------------------------------------------------------------------------
// Encoded-Group and Encoded-Source addresses

namespace {

// Reads family, encoding, flags, mask length and address into prefix/flags.
std::uint32_t readPrefixAddress(const Nimo::Pkt& pkt, std::uint32_t offset, const PrefixTexts& t,
                                Nimo::IpGenPrefix& prefix, std::uint8_t& flags) noexcept {
  Wire::Reader in(pkt, offset);
  // Family, encoding, flags, mask length
  if (in.remaining() < 4) return fail(t.familyEncodingLength, in.remaining());
  const std::uint8_t family = in.u8();
  const std::uint8_t encoding = in.u8();
  if (encoding != 0) return fail(t.invalidEncoding, static_cast<char>(encoding));
  const std::uint8_t flagsByte = in.u8();
  const std::uint8_t maskLen = in.u8();

  // Address
  const auto af = static_cast<Nimo::AddressFamily>(family);
  const std::uint8_t n = Nimo::addressBytes(af);
  if (n == 0) return fail(t.invalidFamily, static_cast<char>(family));
  if (in.remaining() < n) return fail(t.ipLength, in.remaining(), unsigned{n});
  const Nimo::IpGenAddr addr(af, in.take(n));

  // Prefix: a mask longer than the family's width is a range error of the prefix type.
  try {
    prefix = Nimo::IpGenPrefix(addr, maskLen);
  } catch (const Kel::RangeError&) {
    return fail(t.prefixRange, addr, unsigned{maskLen});
  }
  flags = flagsByte;
  return 4u + n;
}

// Writes the prefix form; wantMulticast picks the group (true) or source (false) check.
std::uint32_t writePrefixAddress(Nimo::Pkt& pkt, std::uint32_t offset, const PrefixTexts& t,
                                 const Nimo::IpGenPrefix& prefix, std::uint8_t flags,
                                 bool wantMulticast) noexcept {
  Wire::Writer out(pkt, offset);
  if (out.remaining() < 4) return fail(t.familyEncodingLength, out.remaining());
  const Nimo::IpGenAddr& addr = prefix.address();
  const std::uint8_t n = addr.byteLength();
  if (n == 0) return fail(t.writeInvalidFamily, unsigned{wireFamily(addr.af())});

  // Family, encoding and flags go out before the address check: a failed write leaves
  // these three bytes behind and the caller discards the buffer.
  out.u8(wireFamily(addr.af()));
  out.u8(0);
  out.u8(flags);
  if (addr.isMulticast() != wantMulticast) return fail(t.wrongKind, addr);
  if (out.remaining() < 1u + n) {
    return fail(t.ipLength, out.remaining() > 0 ? out.remaining() - 1 : 0, unsigned{n});
  }
  out.u8(prefix.maskLen());
  out.bytes(addr.bytes(), n);
  return 4u + n;
}

Nimo::IpGenAddr prefixAddress(const Nimo::IpGenPrefix& p) noexcept {
  if (!p.address().isSet()) {
    FLICK_TRACE(codecTrace(), 1, kUnsupportedFamily, unsigned{wireFamily(p.af())});
    KEL_ASSERT(false && "Unknown address family");
  }
  return p.address();
}

Nimo::IpGenPrefix hostPrefix(const Nimo::IpGenAddr& a) noexcept {
  // A host mask never exceeds the family's width, so this cannot throw.
  return a.isSet() ? Nimo::IpGenPrefix(a, static_cast<std::uint8_t>(a.byteLength() * 8))
                   : Nimo::IpGenPrefix();
}

}  // namespace

Nimo::IpGenAddr EncodedGroupAddress::address() const noexcept {
  return prefixAddress(value_.address);
}
void EncodedGroupAddress::addressIs(const Nimo::IpGenAddr& a) noexcept {
  value_.address = hostPrefix(a);
}

std::uint32_t EncodedGroupAddress::readGroupAddress(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                    std::uint32_t offset) noexcept {
  return readPrefixAddress(*pkt, offset, kGroupTexts, value_.address, value_.flags);
}

std::uint32_t EncodedGroupAddress::writeGroupAddress(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                     std::uint32_t offset) noexcept {
  return writePrefixAddress(*pkt, offset, kGroupTexts, value_.address, value_.flags, true);
}

bool EncodedGroupAddress::valid() const noexcept {
  const Nimo::IpGenAddr& a = value_.address.address();
  if (!a.isSet()) return fail(kGroupUnsupportedFamily, unsigned{wireFamily(a.af())});
  if (!a.isMulticast()) return fail(kGroupTexts.wrongKind, a);
  return true;
}

Nimo::IpGenAddr EncodedSourceAddress::address() const noexcept {
  return prefixAddress(value_.address);
}
void EncodedSourceAddress::addressIs(const Nimo::IpGenAddr& a) noexcept {
  value_.address = hostPrefix(a);
}

std::uint32_t EncodedSourceAddress::readSourceAddress(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                      std::uint32_t offset) noexcept {
  return readPrefixAddress(*pkt, offset, kSourceTexts, value_.address, value_.flags);
}

std::uint32_t EncodedSourceAddress::writeSourceAddress(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                       std::uint32_t offset) noexcept {
  return writePrefixAddress(*pkt, offset, kSourceTexts, value_.address, value_.flags, false);
}

bool EncodedSourceAddress::valid() const noexcept {
  const Nimo::IpGenAddr& a = value_.address.address();
  if (!a.isSet()) return fail(kGroupUnsupportedFamily, unsigned{wireFamily(a.af())});
  if (a.isMulticast()) return fail(kSourceTexts.wrongKind, a);
  if (a.isZero()) return fail(kSourceAllZeros, a);
  if (!value_.address.isHost()) return fail(kSourceNotHost, value_.address);
  return true;
}

// ---------------------------------------------------------------------------------------
// Value print forms

std::ostream& operator<<(std::ostream& os, const GroupAddress& g) {
  return os << Kel::valueToStrep(g);
}
std::ostream& operator<<(std::ostream& os, const SourceAddress& s) {
  return os << Kel::valueToStrep(s);
}

}  // namespace Routing::Pim::Packet
