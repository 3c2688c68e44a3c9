// Register and Register-Stop messages of the PIM codec.

#include <exception>

#include "Pim/PimMessage.h"
#include "Pim/PimMessageChecks.h"
#include "Pim/PimMessageWire.h"

namespace Routing::Pim::Packet {

using Wire::fail;

namespace {

// Register reader, in the order the code meets them.
constexpr char kHeaderParse[] = "Invalid Pim Register - Header - Parse Error";
constexpr char kFlagsLength[] = "Invalid Pim Register - Flags Length - Remaining: {}";
constexpr char kUnknownVersion[] = "Invalid Pim Register - Inner Ip Header - Unknown Version";
constexpr char kInnerFamily[] =
    "Invalid Pim Register - Inner Ip Header - Family: {} Inner Family: {}";
constexpr char kNotMulticast6[] =
    "Invalid Pim Register - Inner Ip6 Header - Not Multicast - Destination: {}";
constexpr char kNullLength6[] =
    "Invalid Pim Register - Null Register - Invalid Inner Ip6 Length - Length: {} Remaining: {}";
constexpr char kRxDummy6[] =
    "RX6: Dummy Header: <IP version={} hdl={} trafficClass={} plen={} proto={} hopLimit={} "
    "src={} dst={} tc={} fl={}>";
constexpr char kNotMulticast[] =
    "Invalid Pim Register - Inner Ip Header - Not Multicast - Destination: {}";
constexpr char kRxDummy[] =
    "RX: Dummy Header: <IP version={} ihl={} tos={} len={} id={} moreFrag={} dontFrag={} "
    "reservedFragFlag={} frag={} ttl={} proto={} chksum={:#06x} computed chksum={:#06x}>";
constexpr char kNullChecksum[] = "Invalid Pim Register - Null Register - Invalid Inner Ip Checksum";
constexpr char kNullLength[] =
    "Invalid Pim Register - Null Register - Invalid Inner Ip Length - Length: {}";
// Also used when the inner IP header itself is cut short.
constexpr char kEncapLength[] =
    "Invalid Pim Register - Encapsulated Data Length - Remaining: {} Expected: {}";
constexpr char kHeadBytes[] = "readRegisterMessage: headBytes {}, Remaining: {}";
constexpr char kUnexpected[] = "Invalid Pim Register {}";

// Register writer.
constexpr char kHeaderNoSpace[] =
    "Invalid Pim Register - Header - Unavailable Space - Remaining: {}";
constexpr char kFlagsNoSpace[] =
    "Invalid Pim Register - Flags - Unavailable Space - Remaining: {} Expected: 4";
constexpr char kInvalidFamily[] = "Invalid Pim Register - Invalid Family - Family: {}";
constexpr char kNoRcvdPkt[] = "Invalid Pim Register - No Rcvd Pkt";
constexpr char kEncapLengthWrite[] = "Invalid Pim Register - Encapsulated Data Length - Length: {}";
constexpr char kEncapNoSpace[] =
    "Invalid Pim Register - Encapsulated Data - Unavailable Space - Remaining: {}";
constexpr char kUsingEncapFields[] =
    "Invalid Pim Register - Null Register - Using Encapsulated Data Fields";
constexpr char kNullNoSpace[] =
    "Invalid Pim Register - Null Header - Unavailable Space - Remaining: {}";
constexpr char kTxDummy[] =
    "TX: Dummy Header: <IP version={} ihl={} tos={} len={} id={} frag={:#06x} ttl={} proto={} "
    "chksum={:#06x}>";
constexpr char kTxDummy6[] =
    "TX6: Dummy Header: <IP6 version={} payloadLen={} hopLimit={} tc= {} fl= {}>";
constexpr char kHeaderWriteError[] = "Invalid Pim Register - Header - Write Error";

// Register-Stop.
constexpr char kRsHeaderParse[] = "Invalid Pim Register Stop - Header - Parse Error";
constexpr Wire::GroupTexts kRsGroupTexts{
    "Invalid Pim Register Stop - Group Address - Parse Error",
    "Invalid Pim Register Stop - Group Address - Invalid Family - Family: {} Group Address: {}",
    "Invalid Pim Register Stop - Group Address - Invalid Prefix - {}"};
constexpr Wire::UnicastTexts kRsSourceTexts{
    "Invalid Pim Register Stop - Source Address - Parse Error",
    "Invalid Pim Register Stop - Source Address - Invalid Family - Family: {} Address: {}",
    "Invalid Pim Register Stop - Source Address - Invalid Address: {}"};
constexpr char kRsEnd[] = "Invalid Pim Register Stop - End of Message - Remaining: {}";
constexpr char kRsHeaderNoSpace[] =
    "Invalid Pim Register Stop - Header - Unavailable Space - Remaining: {}";
constexpr char kRsFamilyGroup[] =
    "Invalid Pim Register Stop - Invalid Family - Family: {} Group Address: {}";
constexpr char kRsFamilySource[] =
    "Invalid Pim Register Stop - Invalid Family - Family: {} Source Address: {}";
constexpr char kRsGroupWrite[] = "Invalid Pim Register Stop - Group Address - Write Error";
constexpr char kRsSourceWrite[] = "Invalid Pim Register Stop - Source Address - Write Error";
constexpr char kRsHeaderWrite[] = "Invalid Pim Register Stop - Header - Write Error";

constexpr std::uint32_t kFlagsEnd = 8;  // header and flags word
constexpr std::uint32_t kIp4HeaderSize = Nimo::Ipv4Hdr::kMinSize;
constexpr std::uint32_t kIp6HeaderSize = Nimo::Ipv6Hdr::kSize;
constexpr std::uint8_t kNoNextHeader = 59;  // IPv6: nothing follows the dummy header

std::uint32_t headerSize(std::uint8_t af) noexcept {
  return af == 2 ? kIp6HeaderSize : kIp4HeaderSize;
}

// Family of an inner header by its version nibble. 0 counts as IPv4: some senders zero
// the first byte of a Null-Register's dummy header, and dropping those would stop the RP
// from learning the source.
std::uint8_t innerFamily(std::uint8_t firstByte) noexcept {
  const unsigned version = firstByte >> 4;
  return version == 4 || version == 0 ? 1 : version == 6 ? 2 : 0;
}

// An IPv4 header's length from its IHL, at least the 20-byte fixed part: a dummy header
// with a zeroed first byte means one without options.
std::uint32_t ip4HeaderLength(const std::uint8_t* p) noexcept {
  const std::uint32_t ihl = (p[0] & 0x0fu) * 4u;
  return ihl < kIp4HeaderSize ? kIp4HeaderSize : ihl;
}

// The value an IPv4 header's checksum field should hold.
std::uint16_t ip4HeaderChecksum(const std::uint8_t* p, std::uint32_t len) noexcept {
  return Nimo::checksumFold(Nimo::checksumAdd(Nimo::checksumAdd(0, p, 10), p + 12, len - 12));
}

// The fields of an inner IP header the message keeps.
struct Inner {
  Nimo::IpGenAddr src, dst;
  std::uint8_t tos = 0;  // IPv4 TOS, IPv6 traffic class
  std::uint8_t ttl = 0;  // IPv4 TTL, IPv6 hop limit
  std::uint8_t protocol = 0;
  std::uint16_t id = 0, frag = 0;  // IPv4 only
  std::uint32_t flowLabel = 0;     // IPv6 only
  std::uint32_t declared = 0;      // whole inner packet length its header declares
};

// p holds at least headerSize(af) bytes.
Inner parseInner(std::uint8_t af, const std::uint8_t* p) noexcept {
  Inner i;
  if (af == 2) {
    i.tos = static_cast<std::uint8_t>((p[0] & 0x0f) << 4 | p[1] >> 4);
    i.flowLabel = (std::uint32_t{p[1]} & 0x0f) << 16 | Nimo::load16(p + 2);
    i.declared = kIp6HeaderSize + Nimo::load16(p + 4);
    i.protocol = p[6];
    i.ttl = p[7];
    i.src = Nimo::IpGenAddr(Nimo::AddressFamily::ipv6, p + 8);
    i.dst = Nimo::IpGenAddr(Nimo::AddressFamily::ipv6, p + 24);
  } else {
    i.tos = p[1];
    i.declared = Nimo::load16(p + 2);
    i.id = Nimo::load16(p + 4);
    i.frag = Nimo::load16(p + 6);
    i.ttl = p[8];
    i.protocol = p[9];
    i.src = Nimo::IpGenAddr(Nimo::AddressFamily::ipv4, p + 12);
    i.dst = Nimo::IpGenAddr(Nimo::AddressFamily::ipv4, p + 16);
  }
  return i;
}

void keepInner(RegisterMessage& m, const Inner& i) noexcept {
  m.innerSourceIs(i.src);
  m.innerGroupIs(i.dst);
  m.reserved2Is(i.tos);
  m.hopLimitIs(i.ttl);
}

std::uint32_t readRegister(RegisterMessage& m, const Kel::Ptr<Nimo::Pkt>& pkt,
                           std::uint32_t offset) {
  // Header and flags word
  if (m.readHeader(pkt, offset) == 0) return fail(kHeaderParse);
  const std::uint32_t total = Wire::remainingFrom(*pkt, offset);
  Wire::Reader in(*pkt, offset + Nimo::PimCommonHdr::kSize);
  if (in.remaining() < 4) return fail(kFlagsLength, in.remaining());
  m.implRegisterFlagsU32Is(in.u32());

  // Inner IP header: version, family, then enough bytes for its fixed part
  const std::uint8_t af = m.af();
  const std::uint32_t innerLen = in.remaining();
  if (innerLen == 0) return fail(kEncapLength, 0u, headerSize(af));
  const std::uint8_t* p = in.take(innerLen);
  const std::uint8_t family = innerFamily(p[0]);
  if (family == 0) return fail(kUnknownVersion);
  if (family != af) return fail(kInnerFamily, unsigned{af}, unsigned{family});
  const std::uint32_t hdrLen = family == 2 ? kIp6HeaderSize : ip4HeaderLength(p);
  if (innerLen < hdrLen) return fail(kEncapLength, innerLen, hdrLen);
  const Inner inner = parseInner(family, p);
  auto& trace = codecTrace();

  if (family == 2) {
    if (!inner.dst.isMulticast()) return fail(kNotMulticast6, inner.dst);
    keepInner(m, inner);
    if (m.nullFlag()) {
      FLICK_TRACE(trace, 4, kRxDummy6, p[0] >> 4, kIp6HeaderSize, inner.tos,
                  inner.declared - kIp6HeaderSize, inner.protocol, inner.ttl, inner.src, inner.dst,
                  inner.tos, inner.flowLabel);
      if (innerLen != inner.declared) return fail(kNullLength6, inner.declared, innerLen);
    }
  } else {
    if (!inner.dst.isMulticast()) return fail(kNotMulticast, inner.dst);
    keepInner(m, inner);
    if (m.nullFlag()) {
      const std::uint16_t received = Nimo::load16(p + 10);
      FLICK_TRACE(trace, 4, kRxDummy, p[0] >> 4, hdrLen, inner.tos, inner.declared, inner.id,
                  (inner.frag & 0x2000) != 0, (inner.frag & 0x4000) != 0,
                  (inner.frag & 0x8000) != 0, inner.frag & 0x1fff, inner.ttl, inner.protocol,
                  received, ip4HeaderChecksum(p, hdrLen));
      // The dummy header must be a real one: a receiver that forwards on the RP tree
      // builds from it.
      if (Nimo::inetChecksum(p, hdrLen) != 0) return fail(kNullChecksum);
      if (inner.declared != innerLen) return fail(kNullLength, inner.declared);
    }
  }

  if (m.nullFlag()) {
    m.rcvdPktIs(nullptr);
  } else {
    // Data Register: hand the inner packet on in place, without copying it.
    if (innerLen < inner.declared) return fail(kEncapLength, innerLen, inner.declared);
    const std::uint32_t head = offset + kFlagsEnd;
    pkt->delSharedHeadData(head);
    m.rcvdPktIs(pkt);
    FLICK_TRACE(trace, 4, kHeadBytes, head, pkt->size());
  }
  Wire::traceMessage(af == 2 ? "RX6" : "RX", m);
  return total;
}

// Writes the inner packet of a data Register.
std::uint32_t writeData(RegisterMessage& m, Wire::Writer& out, std::uint8_t af) {
  if (!m.rcvdPkt()) return fail(kNoRcvdPkt);
  const Nimo::Pkt& data = *m.rcvdPkt();
  const std::uint32_t size = data.size();
  const std::uint8_t* p = data.data(0, size);
  if (p == nullptr || size == 0) return fail(kEncapLengthWrite, size);
  const std::uint8_t family = innerFamily(p[0]);
  if (family != af) return fail(kInvalidFamily, unsigned{family});
  if (size < headerSize(af)) return fail(kEncapLengthWrite, size);
  const Inner inner = parseInner(af, p);
  if (!inner.dst.isMulticast()) {
    return af == 2 ? fail(kNotMulticast6, inner.dst) : fail(kNotMulticast, inner.dst);
  }
  if (inner.declared < headerSize(af) || inner.declared > size) {
    return fail(kEncapLengthWrite, inner.declared);
  }
  if (out.remaining() < size) return fail(kEncapNoSpace, out.remaining());
  out.bytes(p, size);
  keepInner(m, inner);
  return size;
}

// Writes a Null-Register's dummy header from rcvdPkt's header when there is one, else
// from the message's inner fields.
std::uint32_t writeDummy(RegisterMessage& m, Wire::Writer& out, std::uint8_t af) {
  auto& trace = codecTrace();
  Inner inner;
  const Nimo::Pkt* data = m.rcvdPkt().ptr();
  const std::uint8_t* p = data ? data->data(0, headerSize(af)) : nullptr;
  if (p != nullptr && innerFamily(p[0]) == af) {
    FLICK_TRACE(trace, 4, kUsingEncapFields);
    inner = parseInner(af, p);
    keepInner(m, inner);
  } else {
    inner.src = m.innerSource();
    inner.dst = m.innerGroup();
    inner.tos = m.reserved2();
    inner.ttl = m.hopLimit();
    inner.protocol = af == 2 ? kNoNextHeader : 0;
  }
  if (Wire::familyOf(inner.src) != af) return fail(kInvalidFamily, Wire::familyOf(inner.src));
  if (Wire::familyOf(inner.dst) != af) return fail(kInvalidFamily, Wire::familyOf(inner.dst));
  if (!inner.dst.isMulticast()) {
    return af == 2 ? fail(kNotMulticast6, inner.dst) : fail(kNotMulticast, inner.dst);
  }
  const std::uint32_t need = headerSize(af);
  if (out.remaining() < need) return fail(kNullNoSpace, out.remaining());
  std::uint8_t* h = out.put(need);
  if (af == 2) {
    h[0] = static_cast<std::uint8_t>(0x60 | inner.tos >> 4);
    h[1] = static_cast<std::uint8_t>((inner.tos & 0x0fu) << 4 | ((inner.flowLabel >> 16) & 0x0fu));
    Nimo::store16(h + 2, static_cast<std::uint16_t>(inner.flowLabel));
    Nimo::store16(h + 4, 0);  // payload length: nothing follows
    h[6] = inner.protocol;
    h[7] = inner.ttl;
    std::memcpy(h + 8, inner.src.bytes(), 16);
    std::memcpy(h + 24, inner.dst.bytes(), 16);
    FLICK_TRACE(trace, 4, kTxDummy6, 6, 0, inner.ttl, inner.tos, inner.flowLabel);
  } else {
    h[0] = 0x45;
    h[1] = inner.tos;
    Nimo::store16(h + 2, kIp4HeaderSize);  // total length: the dummy header alone
    Nimo::store16(h + 4, inner.id);
    Nimo::store16(h + 6, inner.frag);
    h[8] = inner.ttl;
    h[9] = inner.protocol;
    Nimo::store16(h + 10, 0);
    std::memcpy(h + 12, inner.src.bytes(), 4);
    std::memcpy(h + 16, inner.dst.bytes(), 4);
    Nimo::store16(h + 10, Nimo::inetChecksum(h, kIp4HeaderSize));
    FLICK_TRACE(trace, 4, kTxDummy, 4, 5, inner.tos, kIp4HeaderSize, inner.id, inner.frag,
                inner.ttl, inner.protocol, Nimo::load16(h + 10));
  }
  return need;
}

std::uint32_t writeRegister(RegisterMessage& m, const Kel::Ptr<Nimo::Pkt>& pkt,
                            std::uint32_t offset) {
  // Header space (the header goes last) and flags word
  Wire::Writer out(*pkt, offset);
  if (out.remaining() < Nimo::PimCommonHdr::kSize) return fail(kHeaderNoSpace, out.remaining());
  out.put(Nimo::PimCommonHdr::kSize);
  if (out.remaining() < 4) return fail(kFlagsNoSpace, out.remaining());
  out.u32(m.implRegisterFlagsU32());
  const std::uint8_t af = m.af();
  if (af != 1 && af != 2) return fail(kInvalidFamily, unsigned{af});

  // Inner packet or dummy header
  if ((m.nullFlag() ? writeDummy(m, out, af) : writeData(m, out, af)) == 0) return 0;

  // Header: the checksum covers the header and flags word only
  m.lengthIs(kFlagsEnd);
  if (m.writeHeader(pkt, offset) == 0) return fail(kHeaderWriteError);
  Wire::traceMessage("TX", m);
  return out.offset() - offset;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Register

void RegisterMessage::implRegisterFlagsIs(RegisterImplFlags f) {
  if (f == flags_) return;
  flags_ = f;
  handleMessageSubtype();
}

std::uint32_t RegisterMessage::implRegisterFlagsU32() const noexcept {
  const std::uint8_t b[4] = {flags_.v0, flags_.v1, flags_.v2, flags_.v3};
  return Nimo::load32(b);
}

void RegisterMessage::implRegisterFlagsU32Is(std::uint32_t v) {
  std::uint8_t b[4];
  Nimo::store32(b, v);
  implRegisterFlagsIs(RegisterImplFlags(b[0], b[1], b[2], b[3]));
}

void RegisterMessage::borderFlagIs(bool b) {
  const std::uint32_t v = implRegisterFlagsU32();
  implRegisterFlagsU32Is(b ? v | kBorderBit : v & ~kBorderBit);
}

void RegisterMessage::nullFlagIs(bool b) {
  const std::uint32_t v = implRegisterFlagsU32();
  implRegisterFlagsU32Is(b ? v | kNullBit : v & ~kNullBit);
}

void RegisterMessage::handleMessageSubtype() {
  messageSubtypeIs(nullFlag() ? kNullSubtype : kDataSubtype);
  notifiees_.forEach([](NotifieeConst& n) { n.onImplRegisterFlags(); });
}

std::uint32_t RegisterMessage::readRegisterMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                   std::uint32_t offset) noexcept {
  try {
    return readRegister(*this, pkt, offset);
  } catch (const std::exception& e) {
    // A flags observer that throws, or memory running out while tracing.
    return fail(kUnexpected, e.what());
  }
}

std::uint32_t RegisterMessage::writeRegisterMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                    std::uint32_t offset) noexcept {
  try {
    return writeRegister(*this, pkt, offset);
  } catch (const std::exception& e) {
    return fail(kUnexpected, e.what());
  }
}

void RegisterMessage::print(std::ostream& os) const {
  Message::print(os);
  os << " | null bit=" << nullFlag() << ", border bit=" << borderFlag()
     << " | Encapsulated src=" << innerSource_ << " group=" << innerGroup_
     << " outer src=" << srcIp() << " outer dst=" << dstIp();
}

bool operator==(const RegisterMessage& a, const RegisterMessage& b) noexcept {
  const auto bytes = [](const Kel::Ptr<Nimo::Pkt>& p) {
    return p ? std::string_view(reinterpret_cast<const char*>(p->data(0)), p->size())
             : std::string_view();
  };
  return a.headerEquals(b) && a.flags_ == b.flags_ && a.reserved2_ == b.reserved2_ &&
         a.hopLimit_ == b.hopLimit_ && a.innerSource_ == b.innerSource_ &&
         a.innerGroup_ == b.innerGroup_ && bool(a.rcvdPkt_) == bool(b.rcvdPkt_) &&
         bytes(a.rcvdPkt_) == bytes(b.rcvdPkt_);
}

std::ostream& operator<<(std::ostream& os, const RegisterMessage::RegisterImplFlags& f) {
  return os << Kel::valueToStrep(f);
}

// ---------------------------------------------------------------------------------------
// Register-Stop

std::uint32_t RegisterStopMessage::readRegisterStopMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                           std::uint32_t offset) noexcept {
  if (readHeader(pkt, offset) == 0) return fail(kRsHeaderParse);
  std::uint32_t pos = offset + Nimo::PimCommonHdr::kSize;
  std::uint32_t n = Wire::readGroup(group_, pkt, pos, af(), kRsGroupTexts, true);
  if (n == 0) return 0;
  pos += n;
  n = Wire::readUnicast(source_, pkt, pos, af(), kRsSourceTexts);
  if (n == 0) return 0;
  pos += n;
  if (const std::uint32_t rest = Wire::remainingFrom(*pkt, pos); rest != 0) {
    return fail(kRsEnd, rest);
  }
  Wire::traceMessage("RX", *this);
  return pos - offset;
}

std::uint32_t RegisterStopMessage::writeRegisterStopMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                            std::uint32_t offset) noexcept {
  const std::uint32_t room = Wire::remainingFrom(*pkt, offset);
  if (room < Nimo::PimCommonHdr::kSize) return fail(kRsHeaderNoSpace, room);
  const Nimo::IpGenAddr& group = group_.groupAddress().address.address();
  if (Wire::familyOf(group) != af()) return fail(kRsFamilyGroup, unsigned{af()}, group);
  if (Wire::familyOf(source_.address()) != af()) {
    return fail(kRsFamilySource, unsigned{af()}, source_.address());
  }
  std::uint32_t pos = offset + Nimo::PimCommonHdr::kSize;
  std::uint32_t n = Wire::hostGroup(group_).writeGroupAddress(pkt, pos);
  if (n == 0) return fail(kRsGroupWrite);
  pos += n;
  n = source_.writeUnicastAddress(pkt, pos);
  if (n == 0) return fail(kRsSourceWrite);
  pos += n;
  lengthIs(pos - offset);
  if (writeHeader(pkt, offset) == 0) return fail(kRsHeaderWrite);
  Wire::traceMessage("TX", *this);
  return length();
}

void RegisterStopMessage::print(std::ostream& os) const {
  Message::print(os);
  os << " | source=" << source_.address() << ", group=( address=" << group_.groupAddress().address
     << " )";
}

bool operator==(const RegisterStopMessage& a, const RegisterStopMessage& b) noexcept {
  return a.headerEquals(b) && a.group_ == b.group_ && a.source_ == b.source_;
}

}  // namespace Routing::Pim::Packet
