// Nimo: the networking types of the platform.
//
// - IpGenAddr, IpGenPrefix, IpGenAddrWithMask: IPv4 or IPv6 values with their family.
//   All are trivially copyable so that they can live in shared-memory records.
// - IntfId: the platform's interface name, inline (up to 31 bytes), ordered and hashed by
//   its bytes; the empty id means "all interfaces".
// - Pkt: a reference-counted packet: a view (head..tail) on a shared contiguous buffer
//   with head room and tail room. Several Pkts may share one buffer; writing through a
//   shared Pkt first takes a private copy, removing data only moves the view.
// - PimMessageType, PimCommonHdr: the first PIM header byte and a view of the 4-byte
//   common header with the checksum operations the codec needs.
// - Ipv4Hdr, Ipv6Hdr: views of IP headers (big-endian loads and stores, no overlaying).
// - inetChecksum: RFC 1071 one's-complement sum, with and without the IPv6 pseudo-header.
// - IpPam: the raw IP socket of one family and protocol (see its section below).
//
// Threading: event-loop thread only.
//
// Usage:
//   auto pkt = Nimo::Pkt::create(1500);
//   Nimo::IpGenAddr a("10.0.0.1");                  // or IpGenAddr::parse() -> optional
//   Nimo::IpGenPrefix p(Nimo::IpGenAddr("ff02::d"), 128);
//   std::uint16_t c = Nimo::inetChecksum(pkt->data(0), pkt->size());
//   Nimo::PimCommonHdr hdr(pkt->writableData(0));
//   hdr.pimMessageTypeIs(Nimo::PimMessageType::pimHello);
#pragma once

#include <fmt/format.h>
#include <sys/uio.h>

#include <array>
#include <bit>
#include <compare>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "Pim/platform/Kel.h"
#include "Pim/platform/Ulm.h"

namespace Nimo {

// ---------------------------------------------------------------------------------------
// Big-endian loads and stores through memcpy: the codec never lays a struct over bytes.

inline std::uint16_t load16(const std::uint8_t* p) noexcept {
  return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}
inline std::uint32_t load32(const std::uint8_t* p) noexcept {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
         std::uint32_t{p[3]};
}
inline void store16(std::uint8_t* p, std::uint16_t v) noexcept {
  p[0] = static_cast<std::uint8_t>(v >> 8);
  p[1] = static_cast<std::uint8_t>(v);
}
inline void store32(std::uint8_t* p, std::uint32_t v) noexcept {
  p[0] = static_cast<std::uint8_t>(v >> 24);
  p[1] = static_cast<std::uint8_t>(v >> 16);
  p[2] = static_cast<std::uint8_t>(v >> 8);
  p[3] = static_cast<std::uint8_t>(v);
}

// ---------------------------------------------------------------------------------------
// Addresses.

enum class AddressFamily : std::uint8_t { ipunknown = 0, ipv4 = 1, ipv6 = 2 };

// Number of address bytes of a family: 4, 16, or 0 for ipunknown.
constexpr std::uint8_t addressBytes(AddressFamily af) noexcept {
  return af == AddressFamily::ipv4 ? 4 : af == AddressFamily::ipv6 ? 16 : 0;
}

class IpGenAddr {
 public:
  IpGenAddr() noexcept = default;  // unset: family ipunknown
  // Parses dotted-quad or IPv6 text; a malformed text is a RangeError.
  explicit IpGenAddr(std::string_view text);
  // From bytes in network order; af must be ipv4 or ipv6.
  IpGenAddr(AddressFamily af, const std::uint8_t* bytes) noexcept;
  // IPv4 from a host-order number.
  static IpGenAddr v4(std::uint32_t hostOrder) noexcept;
  static std::optional<IpGenAddr> parse(std::string_view text) noexcept;

  AddressFamily af() const noexcept { return af_; }
  bool isSet() const noexcept { return af_ != AddressFamily::ipunknown; }
  const std::uint8_t* bytes() const noexcept { return bytes_.data(); }
  std::uint8_t byteLength() const noexcept { return addressBytes(af_); }
  std::uint32_t v4Addr() const noexcept { return load32(bytes_.data()); }  // host order

  bool isMulticast() const noexcept;
  bool isLinkLocal() const noexcept;  // IPv6 fe80::/10
  bool isZero() const noexcept;       // set, and every byte zero
  std::string str() const;            // "None" when unset
  std::uint32_t hash() const noexcept;

  // Two 64-bit words rather than a memcmp call: addresses are compared on every route
  // and table probe, and the call costs more than the comparison.
  friend bool operator==(const IpGenAddr& a, const IpGenAddr& b) noexcept {
    std::uint64_t x[2], y[2];
    std::memcpy(x, a.bytes_.data(), sizeof x);
    std::memcpy(y, b.bytes_.data(), sizeof y);
    return a.af_ == b.af_ && ((x[0] ^ y[0]) | (x[1] ^ y[1])) == 0;
  }
  // Family, then the bytes in network order (big-endian words compare as the bytes do).
  friend std::strong_ordering operator<=>(const IpGenAddr& a, const IpGenAddr& b) noexcept {
    if (auto c = a.af_ <=> b.af_; c != 0) return c;
    const std::uint64_t x0 = a.word(0), y0 = b.word(0);
    if (x0 != y0) return x0 <=> y0;
    return a.word(1) <=> b.word(1);
  }

 private:
  std::uint64_t word(int i) const noexcept {
    std::uint64_t w;
    std::memcpy(&w, bytes_.data() + 8 * i, sizeof w);
    if constexpr (std::endian::native == std::endian::little) w = __builtin_bswap64(w);
    return w;
  }

  AddressFamily af_ = AddressFamily::ipunknown;
  std::array<std::uint8_t, 16> bytes_{};
};
std::ostream& operator<<(std::ostream& os, const IpGenAddr& a);

// Address with a mask length. The address is kept as given (host bits included), because
// the codec must write back exactly what it read; masked() gives the network.
class IpGenPrefix {
 public:
  static constexpr std::string_view kRangeErrorText =
      "IpGenPrefix::maskLen < IpGenPrefix::min or > IpGenPrefix::max not allowed";

  IpGenPrefix() noexcept = default;
  // Throws Kel::RangeError when maskLen exceeds the family's width (32 or 128).
  IpGenPrefix(const IpGenAddr& addr, std::uint8_t maskLen);
  // "10.0.0.0/8" or "ff00::/8"; throws Kel::RangeError on malformed text.
  explicit IpGenPrefix(std::string_view text);

  const IpGenAddr& address() const noexcept { return addr_; }
  std::uint8_t maskLen() const noexcept { return len_; }
  AddressFamily af() const noexcept { return addr_.af(); }
  bool isHost() const noexcept { return addr_.isSet() && len_ == addr_.byteLength() * 8; }
  IpGenPrefix masked() const noexcept;
  bool contains(const IpGenAddr& a) const noexcept;
  // Same family, and one prefix contains the other.
  bool overlaps(const IpGenPrefix& o) const noexcept;
  std::string str() const;
  std::uint32_t hash() const noexcept;

  friend bool operator==(const IpGenPrefix&, const IpGenPrefix&) = default;
  friend auto operator<=>(const IpGenPrefix&, const IpGenPrefix&) = default;

 private:
  IpGenAddr addr_;
  std::uint8_t len_ = 0;
};
std::ostream& operator<<(std::ostream& os, const IpGenPrefix& p);

// An interface address: the address and the mask length of its subnet.
class IpGenAddrWithMask {
 public:
  IpGenAddrWithMask() noexcept = default;
  IpGenAddrWithMask(const IpGenAddr& addr, std::uint8_t maskLen);  // RangeError as prefix
  explicit IpGenAddrWithMask(std::string_view text);
  const IpGenAddr& address() const noexcept { return addr_; }
  std::uint8_t maskLen() const noexcept { return len_; }
  IpGenPrefix subnet() const { return IpGenPrefix(addr_, len_).masked(); }
  std::string str() const;

  friend bool operator==(const IpGenAddrWithMask&, const IpGenAddrWithMask&) = default;
  friend auto operator<=>(const IpGenAddrWithMask&, const IpGenAddrWithMask&) = default;

 private:
  IpGenAddr addr_;
  std::uint8_t len_ = 0;
};
std::ostream& operator<<(std::ostream& os, const IpGenAddrWithMask& a);

// ---------------------------------------------------------------------------------------
// Interface identifiers.

class IntfId {
 public:
  static constexpr std::size_t kMaxLen = 31;
  static constexpr std::string_view kRangeErrorText = "IntfId::name longer than 31 not allowed";

  IntfId() noexcept = default;             // empty: all interfaces
  explicit IntfId(std::string_view name);  // RangeError if longer than kMaxLen

  std::string_view name() const noexcept { return std::string_view(name_.data()); }
  bool empty() const noexcept { return name_[0] == 0; }
  // Multiplicative hash of the four 64-bit words of the NUL-padded name (little-endian
  // loads), each word by its own odd constant so the four multiplies run in parallel:
  // every status and counter key hashes an interface id, so this sits on the hot path.
  std::uint32_t hash() const noexcept {
    std::uint64_t w[4];
    std::memcpy(w, name_.data(), sizeof w);
    const std::uint64_t h = (w[0] * 0x9e3779b97f4a7c15u) ^ (w[1] * 0xc2b2ae3d27d4eb4fu) ^
                            (w[2] * 0x165667b19e3779f9u) ^ (w[3] * 0xd6e8feb86659fd93u);
    return static_cast<std::uint32_t>(h ^ (h >> 32));
  }

  // Word-wise: ids are compared on every table probe, and a 32-byte memcmp call costs more
  // than the comparison itself.
  friend bool operator==(const IntfId& a, const IntfId& b) noexcept {
    std::uint64_t x[4], y[4];
    std::memcpy(x, a.name_.data(), sizeof x);
    std::memcpy(y, b.name_.data(), sizeof y);
    return ((x[0] ^ y[0]) | (x[1] ^ y[1]) | (x[2] ^ y[2]) | (x[3] ^ y[3])) == 0;
  }
  friend std::strong_ordering operator<=>(const IntfId& a, const IntfId& b) noexcept {
    return std::memcmp(a.name_.data(), b.name_.data(), a.name_.size()) <=> 0;
  }

 private:
  std::array<char, kMaxLen + 1> name_{};  // NUL-padded, so memcmp orders by name
  static_assert(sizeof(name_) == 32, "compared as four 64-bit words");
};
std::ostream& operator<<(std::ostream& os, const IntfId& i);

// ---------------------------------------------------------------------------------------
// Packets.

class Pkt : public Kel::PtrInterface {
 public:
  static constexpr std::uint32_t kDefaultHeadroom = 64;
  // One contiguous segment: the codec needs every message in one buffer.
  static constexpr std::size_t maxIovecs_ = 1;

  // A zero-filled packet of size bytes with the given room before and after it.
  static Kel::Ptr<Pkt> create(std::uint32_t size, std::uint32_t headroom = kDefaultHeadroom,
                              std::uint32_t tailroom = 0);
  static Kel::Ptr<Pkt> copyOf(const void* bytes, std::uint32_t size,
                              std::uint32_t headroom = kDefaultHeadroom,
                              std::uint32_t tailroom = 0);
  // A second Pkt over the same buffer (no copy).
  Kel::Ptr<Pkt> share() const;

  std::uint32_t size() const noexcept { return tail_ - head_; }
  std::uint32_t headroom() const noexcept { return head_; }
  std::uint32_t tailroom() const noexcept { return capacity() - tail_; }
  bool isShared() const noexcept;

  // Contiguous bytes [offset, offset + len) or nullptr if they are not all in the packet.
  const std::uint8_t* data(std::uint32_t offset, std::uint32_t len = 0) const noexcept;
  // The same for writing; takes a private copy of a shared buffer first.
  std::uint8_t* writableData(std::uint32_t offset, std::uint32_t len = 0);

  // Grows or shrinks the packet at its tail (growth uses tail room, zero-filled).
  bool sizeIs(std::uint32_t size);
  // As sizeIs, but growth does not clear the bytes grown over: for a reused buffer whose
  // owner keeps them clear itself (a shared buffer is still copied first, and cleared).
  bool sizeIsUncleared(std::uint32_t size);
  // Grows the packet at its head by n bytes of head room; false if there is too little.
  bool prepend(std::uint32_t n);

  // Removal from a buffer that other Pkts may share: only this view moves.
  void delSharedHeadData(std::uint32_t n);
  void delSharedTailData(std::uint32_t n);
  // Refreshes the scatter/gather view after head or tail moved.
  void updateSharedIovec();
  const iovec* iovecs() const noexcept { return iov_.data(); }
  std::size_t iovecCount() const noexcept { return maxIovecs_ - firstIoVec_; }

  // Test hooks: Pkts in the states the removal assertions guard against, which no public
  // factory produces (no buffer at all; a buffer whose scatter/gather view was never set).
  static Kel::Ptr<Pkt> withoutBufferForTest();
  static Kel::Ptr<Pkt> withoutIovecForTest(std::uint32_t size);

 private:
  // The bytes follow the object in one allocation: a received packet costs one fewer.
  struct Buffer : Kel::PtrInterface {
    // Unzeroed for a caller that writes every byte at once (a copy).
    static Kel::Ptr<Buffer> make(std::uint32_t cap, bool zeroed);
    static void operator delete(void* p) noexcept { ::operator delete(p); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    std::uint8_t* bytes;
    std::uint32_t capacity;

   private:
    explicit Buffer(std::uint32_t cap) noexcept
        : bytes(reinterpret_cast<std::uint8_t*>(this + 1)), capacity(cap) {}
  };
  Pkt() = default;
  static Kel::Ptr<Pkt> make(std::uint32_t size, std::uint32_t headroom, std::uint32_t tailroom,
                            bool zeroed);
  std::uint32_t capacity() const noexcept { return sharedBuffer_ ? sharedBuffer_->capacity : 0; }
  void unshare();

  Kel::Ptr<Buffer> sharedBuffer_;
  std::uint32_t head_ = 0;
  std::uint32_t tail_ = 0;
  std::array<iovec, maxIovecs_> iov_{};
  std::size_t firstIoVec_ = maxIovecs_;  // maxIovecs_: no segment
};

// ---------------------------------------------------------------------------------------
// Checksums (RFC 1071). The result is in host order, ready for store16().

// Partial one's-complement sum, to chain several ranges (each range but the last must
// have an even length).
std::uint64_t checksumAdd(std::uint64_t acc, const void* data, std::size_t len) noexcept;
std::uint16_t checksumFold(std::uint64_t acc) noexcept;  // complemented, host order

std::uint16_t inetChecksum(const void* data, std::size_t len) noexcept;
// IPv6 upper-layer checksum: the RFC 8200 pseudo-header (source, destination, 32-bit
// upper-layer length, three zero bytes, next header) followed by len bytes of data.
std::uint16_t inetChecksumV6(const IpGenAddr& src, const IpGenAddr& dst,
                             std::uint32_t upperLayerLength, std::uint8_t nextHeader,
                             const void* data, std::size_t len) noexcept;

// ---------------------------------------------------------------------------------------
// PIM common header.

// The whole first byte of the PIM header: version 2 in the high nibble, type in the low.
enum class PimMessageType : std::uint8_t {
  pimHello = 0x20,
  pimRegister = 0x21,
  pimRegisterStop = 0x22,
  pimJoinPrune = 0x23,
  pimBootstrap = 0x24,
  pimAssert = 0x25,
  pimGraft = 0x26,
  pimGraftAck = 0x27,
  pimCrpAdv = 0x28,
  pimStateRefresh = 0x29,
  pimDfElection = 0x2A,
};
// The message types by name, as the exchange records' invariants spell them.
constexpr PimMessageType pimHello() noexcept { return PimMessageType::pimHello; }
constexpr PimMessageType pimRegister() noexcept { return PimMessageType::pimRegister; }
constexpr PimMessageType pimRegisterStop() noexcept { return PimMessageType::pimRegisterStop; }
constexpr PimMessageType pimJoinPrune() noexcept { return PimMessageType::pimJoinPrune; }
constexpr PimMessageType pimBootstrap() noexcept { return PimMessageType::pimBootstrap; }
constexpr PimMessageType pimAssert() noexcept { return PimMessageType::pimAssert; }
constexpr PimMessageType pimCrpAdvertisement() noexcept { return PimMessageType::pimCrpAdv; }
constexpr PimMessageType pimDfElection() noexcept { return PimMessageType::pimDfElection; }
std::string_view pimMessageTypeName(PimMessageType t) noexcept;  // "Hello", "Unknown", ...
std::ostream& operator<<(std::ostream& os, PimMessageType t);

constexpr std::uint8_t kIpProtoPim = 103;

// A view of the 4-byte PIM common header at p (at least 4 bytes must be there).
class PimCommonHdr {
 public:
  static constexpr std::uint32_t kSize = 4;
  explicit PimCommonHdr(std::uint8_t* p) noexcept : p_(p) {}

  PimMessageType pimMessageType() const noexcept { return PimMessageType{p_[0]}; }
  void pimMessageTypeIs(PimMessageType t) noexcept { p_[0] = static_cast<std::uint8_t>(t); }
  std::uint8_t version() const noexcept { return p_[0] >> 4; }
  std::uint8_t type() const noexcept { return p_[0] & 0x0f; }
  std::uint8_t reserved() const noexcept { return p_[1]; }
  void reservedIs(std::uint8_t r) noexcept { p_[1] = r; }
  std::uint16_t checksum() const noexcept { return load16(p_ + 2); }
  void checksumIs(std::uint16_t c) noexcept { store16(p_ + 2, c); }

  // Checksum over len bytes from the header's start, checksum field as it stands.
  std::uint16_t computeChecksum(std::uint32_t len) const noexcept { return inetChecksum(p_, len); }
  // The same preceded by the IPv6 pseudo-header (next header 103).
  std::uint16_t computeChecksumV6(const IpGenAddr& src, const IpGenAddr& dst,
                                  std::uint32_t upperLayerLength,
                                  std::uint32_t len) const noexcept {
    return inetChecksumV6(src, dst, upperLayerLength, kIpProtoPim, p_, len);
  }

 private:
  std::uint8_t* p_;
};

// ---------------------------------------------------------------------------------------
// IP header views.

class Ipv4Hdr {
 public:
  static constexpr std::uint32_t kMinSize = 20;
  explicit Ipv4Hdr(std::uint8_t* p) noexcept : p_(p) {}
  std::uint8_t version() const noexcept { return p_[0] >> 4; }
  std::uint32_t headerLength() const noexcept { return (p_[0] & 0x0fu) * 4u; }
  std::uint8_t tos() const noexcept { return p_[1]; }
  std::uint16_t totalLength() const noexcept { return load16(p_ + 2); }
  std::uint8_t ttl() const noexcept { return p_[8]; }
  std::uint8_t protocol() const noexcept { return p_[9]; }
  std::uint16_t checksum() const noexcept { return load16(p_ + 10); }
  IpGenAddr src() const noexcept { return IpGenAddr(AddressFamily::ipv4, p_ + 12); }
  IpGenAddr dst() const noexcept { return IpGenAddr(AddressFamily::ipv4, p_ + 16); }

  // Writes a 20-byte header without options, checksum included.
  void build(std::uint8_t tos, std::uint16_t totalLength, std::uint8_t ttl, std::uint8_t protocol,
             const IpGenAddr& src, const IpGenAddr& dst) noexcept;

 private:
  std::uint8_t* p_;
};

class Ipv6Hdr {
 public:
  static constexpr std::uint32_t kSize = 40;
  explicit Ipv6Hdr(std::uint8_t* p) noexcept : p_(p) {}
  std::uint8_t version() const noexcept { return p_[0] >> 4; }
  std::uint8_t trafficClass() const noexcept {
    return static_cast<std::uint8_t>(((p_[0] & 0x0f) << 4) | (p_[1] >> 4));
  }
  std::uint16_t payloadLength() const noexcept { return load16(p_ + 4); }
  std::uint8_t nextHeader() const noexcept { return p_[6]; }
  std::uint8_t hopLimit() const noexcept { return p_[7]; }
  IpGenAddr src() const noexcept { return IpGenAddr(AddressFamily::ipv6, p_ + 8); }
  IpGenAddr dst() const noexcept { return IpGenAddr(AddressFamily::ipv6, p_ + 24); }

  void build(std::uint8_t trafficClass, std::uint16_t payloadLength, std::uint8_t nextHeader,
             std::uint8_t hopLimit, const IpGenAddr& src, const IpGenAddr& dst) noexcept;

 private:
  std::uint8_t* p_;
};

// ---------------------------------------------------------------------------------------
// Packet access: the raw IP socket.
//
// IpPam is one raw socket of one family and IP protocol, opened inside a network
// namespace (NamespaceName: a name under /run/netns, an absolute path to a namespace file,
// or empty for the caller's own namespace; the thread enters it only while the socket is
// created). It is non-blocking; once watched on an event loop (loopIs) each readable event
// bumps readableCount, whose notifiees drain it with rxPkt().
//
// Received packets always begin with an IP header, so that the receive path treats both
// families alike: IPv4 raw sockets deliver the kernel's header, and for IPv6, whose raw
// sockets deliver only the payload, rxPkt() writes a 40-byte header in front of it from the
// sender's address and the ancillary data (destination, hop limit, traffic class). The
// receiving interface's kernel index comes with every packet (rxIfIndex()).
//
// The option word (optionsIs) and the numbered parameters (paramIs) map to socket options:
//   0x0002 kOptHeaderInclude   IP_HDRINCL; for IPv6 the ipv6HeaderInclude variant sets
//                              IPV6_HDRINCL at creation (a full IPv6 header is sent)
//   0x0008 kOptRxIfIndex       IP_PKTINFO / IPV6_RECVPKTINFO: interface index and
//                              destination of each packet
//   0x0200 kOptTransparent     IP_TRANSPARENT / IPV6_TRANSPARENT: send from an address
//                              the host does not own
//   0x0800 kOptRxTos           IP_RECVTOS / IPV6_RECVTCLASS
//   0x1000 kOptRxTtl           IP_RECVTTL / IPV6_RECVHOPLIMIT
//   parameter 6 kParamRxBuffer SO_RCVBUFFORCE (SO_RCVBUF when not privileged), in bytes;
//                              the access manager asks for kDefaultRxBuffer so that a
//                              burst of full-size Join/Prunes waits in the kernel while
//                              the loop yields.
// A bit whose option the kernel refuses is traced and counted in optionErrors() and stays
// clear in options().
//
// The receive filter is a classic BPF program built instruction by instruction
// (rxFilterIs appends) and installed by applyRxFilter (SO_ATTACH_FILTER). Memberships and
// any other option go through sockOptIs, which returns 0 or the errno.
//
// Sending: txSrcIpAddrIs, txDstIpAddrIs, txFlagsIs (kTxFlagIfIndex: leave by
// txIfIndex), then txPkt(pkt). The source and interface travel as IP_PKTINFO /
// IPV6_PKTINFO ancillary data, so no bind is needed. txPktCount and txErrors count the
// outcomes and notify.
//
// Counters: rxPktCount (packets handed out), rxErrors (recvmsg failures other than
// EAGAIN, truncated packets), rxKernelDrops (drops for a full socket queue, from
// SO_RXQ_OVFL), txPktCount, txErrors. Packets the filter rejects never reach user space
// and are counted nowhere here.
//
// Trace facility "Nimo::Pam". Threading: event-loop thread only.
//
// Usage:
//   auto pam = Nimo::ipPamFactory("Pim4", Nimo::AddressFamily::ipv4, Nimo::kIpProtoPim, "");
//   pam->optionsIs(Nimo::IpPam::kOptRxIfIndex);
//   pam->loopIs(&loop);                 // readableCount now follows the socket
//   while (auto pkt = pam->rxPkt()) handle(pkt, pam->rxIfIndex());

using NamespaceName = std::string;

// One classic BPF instruction (the kernel's struct sock_filter).
struct BpfInsn {
  std::uint16_t code = 0;
  std::uint8_t jt = 0;
  std::uint8_t jf = 0;
  std::uint32_t k = 0;
  friend bool operator==(const BpfInsn&, const BpfInsn&) = default;
};

class IpPam : public Kel::Entity {
 public:
  static constexpr std::uint32_t kOptHeaderInclude = 0x0002;
  static constexpr std::uint32_t kOptRxIfIndex = 0x0008;
  static constexpr std::uint32_t kOptTransparent = 0x0200;
  static constexpr std::uint32_t kOptRxTos = 0x0800;
  static constexpr std::uint32_t kOptRxTtl = 0x1000;
  static constexpr std::uint32_t kParamRxBuffer = 6;
  static constexpr std::uint32_t kDefaultRxBuffer = 4u << 20;
  static constexpr std::uint32_t kTxFlagIfIndex = 4;
  static constexpr std::uint32_t kMaxRxPktData = 65535;

  class NotifieeConst : public Kel::BaseNotifiee<IpPam, NotifieeConst> {
   public:
    virtual void onReadableCount() {}
    virtual void onTxPktCount() {}
    virtual void onTxErrors() {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  // Opens the socket; fd() < 0 (traced with errno) if the namespace or socket failed.
  IpPam(Kel::Name name, AddressFamily af, std::uint8_t protocol, const NamespaceName& netNs,
        bool ipv6HeaderInclude = false);
  ~IpPam() override;
  IpPam(const IpPam&) = delete;
  IpPam& operator=(const IpPam&) = delete;

  AddressFamily af() const noexcept { return af_; }
  std::uint8_t protocol() const noexcept { return protocol_; }
  const NamespaceName& netNs() const noexcept { return netNs_; }
  bool ipv6HeaderInclude() const noexcept { return ipv6HeaderInclude_; }
  int fd() const noexcept { return fd_; }
  bool ok() const noexcept { return fd_ >= 0; }

  std::uint32_t options() const noexcept { return options_; }
  virtual void optionsIs(std::uint32_t options);
  std::uint32_t param(std::uint32_t id) const noexcept { return id == kParamRxBuffer ? rxBuf_ : 0; }
  virtual void paramIs(std::uint32_t id, std::uint32_t value);
  // setsockopt; 0 or the errno (traced).
  virtual int sockOptIs(int level, int option, const void* value, std::uint32_t len);

  // Receive filter.
  const std::vector<BpfInsn>& rxFilter() const noexcept { return rxFilter_; }
  void rxFilterIs(const BpfInsn& insn) { rxFilter_.push_back(insn); }
  void rxFilterDelAll() noexcept { rxFilter_.clear(); }
  // Installs rxFilter(); 0 or the errno.
  virtual int applyRxFilter();

  // Readable events.
  void loopIs(Ulm::EventLoop* loop);
  std::uint64_t readableCount() const noexcept { return readableCount_; }
  void readableCountInc();

  // The largest packet rxPkt() takes (for IPv4 with its header, for IPv6 without the one
  // rxPkt() adds); a longer one is dropped and counted in rxErrors().
  std::uint32_t maxRxPktData() const noexcept { return maxRxPktData_; }
  void maxRxPktDataIs(std::uint32_t n);

  // The next packet, or null when none is waiting (or on error, counted).
  virtual Kel::Ptr<Pkt> rxPkt();
  std::uint32_t rxIfIndex() const noexcept { return rxIfIndex_; }

  // Sending.
  void txSrcIpAddrIs(const IpGenAddr& a) noexcept { txSrc_ = a; }
  void txDstIpAddrIs(const IpGenAddr& a) noexcept { txDst_ = a; }
  void txFlagsIs(std::uint32_t f) noexcept { txFlags_ = f; }
  void txIfIndexIs(std::uint32_t i) noexcept { txIfIndex_ = i; }
  const IpGenAddr& txSrcIpAddr() const noexcept { return txSrc_; }
  const IpGenAddr& txDstIpAddr() const noexcept { return txDst_; }
  std::uint32_t txFlags() const noexcept { return txFlags_; }
  std::uint32_t txIfIndex() const noexcept { return txIfIndex_; }
  // Sends pkt (with an IP header when header inclusion is on); false on error.
  virtual bool txPkt(const Kel::Ptr<Pkt>& pkt);

  std::uint64_t rxPktCount() const noexcept { return rxPktCount_; }
  std::uint64_t rxErrors() const noexcept { return rxErrors_; }
  std::uint64_t rxKernelDrops() const noexcept { return rxKernelDrops_; }
  std::uint64_t txPktCount() const noexcept { return txPktCount_; }
  std::uint64_t txErrors() const noexcept { return txErrors_; }
  std::uint64_t optionErrors() const noexcept { return optionErrors_; }

 protected:
  // No socket: for test doubles that override the virtual operations.
  IpPam(Kel::Name name, AddressFamily af);
  void rxPktCountInc() noexcept { ++rxPktCount_; }
  std::uint32_t rxIfIndex_ = 0;

 private:
  bool setOption(std::uint32_t bit, bool on);
  AddressFamily af_;
  std::uint8_t protocol_ = 0;
  NamespaceName netNs_;
  bool ipv6HeaderInclude_ = false;
  int fd_ = -1;
  std::uint32_t options_ = 0;
  std::uint32_t rxBuf_ = 0;
  std::vector<BpfInsn> rxFilter_;
  Ulm::EventLoop* loop_ = nullptr;
  std::uint64_t readableCount_ = 0;
  std::uint32_t maxRxPktData_ = kMaxRxPktData;
  std::vector<std::uint8_t> rxBuffer_;
  IpGenAddr txSrc_;
  IpGenAddr txDst_;
  std::uint32_t txFlags_ = 0;
  std::uint32_t txIfIndex_ = 0;
  std::uint64_t rxPktCount_ = 0;
  std::uint64_t rxErrors_ = 0;
  std::uint64_t rxKernelDrops_ = 0;
  std::uint64_t txPktCount_ = 0;
  std::uint64_t txErrors_ = 0;
  std::uint64_t optionErrors_ = 0;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

Kel::Ptr<IpPam> ipPamFactory(const Kel::Name& name, AddressFamily af, std::uint8_t protocol,
                             const NamespaceName& netNs, bool ipv6HeaderInclude = false);

// ---------------------------------------------------------------------------------------
// Packet access: SCTP (PIM over a reliable transport, RFC 6559).
//
// SctpPam is one one-to-many SCTP socket (SOCK_SEQPACKET) per VRF, created inside the
// VRF's namespace (netNs, as IpPam), non-blocking, its readable events through
// Ulm::EventLoop (loopIs). It is an AF_INET6 socket with IPV6_V6ONLY off: IPv6 peers use
// their own addresses, IPv4 peers arrive and are reached as IPv4-mapped addresses
// (::ffff:a.b.c.d), which this object maps in both directions, so its users see plain
// IPv4 addresses. One socket therefore serves both families.
//
// Two backends behind one interface (Sctp::Backend, also the seam tests fake), chosen by
// createSocket: the kernel's SCTP where socket(AF_INET6, SOCK_SEQPACKET, IPPROTO_SCTP)
// succeeds, otherwise the userland stack (libusrsctp) when it was built in
// (Sctp::userlandAvailable()). The environment variable PIM_SCTP_BACKEND=userland (or
// =kernel) forces one. The userland backend:
//   - runs usrsctp without its threads (usrsctp_init_nothreads): SCTP packets travel over
//     our own non-blocking raw sockets of IP protocol 132 (both families) watched on the
//     event loop, and a 10 ms loop timer drives usrsctp_handle_timers. The library still
//     starts one idle iterator thread when it initialises; we use none of the features
//     that give it work (send-to-all, automatic address reconfiguration).
//   - is one stack per process and per namespace: a second stack in the same namespace
//     receives a copy of every packet and aborts the first's associations, so never run it
//     where the kernel has SCTP, and create one userland SctpPam per process.
//   - keeps its raw sockets open for the object's life; closing them makes the kernel
//     answer SCTP with ICMP protocol-unreachable and kills the peers' associations.
//   - has no path-MTU discovery: each association's path MTU is set when it is made, with
//     PMTUD disabled, from the route's MTU towards the peer (the link's, read once per
//     peer address through a connected UDP socket) less 32 for IPv4 and 52 for IPv6 (IP
//     and SCTP headers), or from pathMtu where one is set.
//
// Attributes and operations, and the socket call each maps to:
//   createSocket()   socket(AF_INET6, SOCK_SEQPACKET, IPPROTO_SCTP), O_NONBLOCK,
//                    IPV6_V6ONLY 0, SCTP_RECVRCVINFO 1, SCTP_EVENT for SCTP_ASSOC_CHANGE,
//                    SCTP_AUTOCLOSE from autoCloseTime. Fails (false) with the errno in
//                    one trace line and createErrors counted; the object stays closed and
//                    every later operation fails with its own trace. Nothing retries.
//   closeSocket()    close(); resetSocket() closeSocket() then createSocket().
//   doBind()         bind(srcIpAddr (unset: the wildcard ::), srcPort).
//   doListen()       listen(backlog).
//   doConnect()      connect(txDstIpAddr, txDstPort) on the non-blocking socket: creates an
//                    association without waiting (EINPROGRESS is success); its completion
//                    arrives as an association event. An IPv6 link-local txDstIpAddr needs
//                    txDstScopeId (the interface index) or the call fails with EINVAL.
//   createAssociation(addr, port)  txDstIpAddr/txDstPort then doConnect().
//   doSendMsg(pkt, id) sendmsg with SCTP_SNDINFO naming association id (0: txDstIpAddr
//                    and txDstPort address the message), one message, MSG_EOR implied;
//                    txCount and txBytes count successes, txErrors failures.
//   doRecvMsg()      recvmsg until a whole message (MSG_EOR) is in: pieces are joined up to
//                    maxRxPktData, beyond that the message is dropped (traced, counted in
//                    rxOversize) and never decoded. SCTP_RCVINFO ancillary data gives
//                    rxAssociationId (rxAncillaryCount counts reads carrying it), the
//                    source address gives rxSrcIpAddr and rxSrcPort. A read flagged
//                    MSG_NOTIFICATION is an association event, never a message: it updates
//                    the Sctp::Status handed to statusIs and counts rxAssocEventCount.
//                    Returns the message, or null when none is waiting.
//   mode             1 enabled, 0 disabled: a disabled object opens nothing new (doConnect
//                    and doSendMsg refuse, traced) but keeps its socket.
//   optionFlags      kOptNoDelay (SCTP_NODELAY) is the one flag.
//   autoCloseTime    SCTP_AUTOCLOSE seconds (0: never), applied at createSocket and on change.
//   retransmitTimeoutIs  SCTP_RTOINFO (initial, min, max) for new associations: how fast a
//                    lost peer is noticed and a lost packet resent.
//
// Trace facility "Nimo::Sctp". Threading: event-loop thread only (the userland library's
// idle thread never calls back into us).
//
// Usage:
//   auto st = Kel::Ptr<Nimo::Sctp::Status>::make("sctp");
//   auto sp = Kel::Ptr<Nimo::SctpPam>::make("Port", "");
//   sp->statusIs(st); sp->loopIs(&loop);
//   if (sp->createSocket() && sp->doBind() && sp->doListen()) sp->createAssociation(peer, 8471);
//   while (auto m = sp->doRecvMsg()) use(m, sp->rxSrcIpAddr(), sp->rxAssociationId());

namespace Sctp {

using AssociationId = std::uint32_t;

// RFC 6559's port (IANA: pim-port, 8471, TCP and SCTP).
inline constexpr std::uint16_t pimPort = 8471;

enum class AssocState : std::uint8_t { Up, Restarted, Lost, ShutDown, CantStart };
std::string_view assocStateName(AssocState s) noexcept;

struct Association {
  AssociationId id = 0;
  IpGenAddr peerAddr;
  std::uint16_t peerPort = 0;
  AssocState state = AssocState::Up;
  friend bool operator==(const Association&, const Association&) = default;
};

// The associations of one socket, by id, with their last state.
class Status : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<Status, NotifieeConst> {
   public:
    virtual void onAssociation(AssociationId) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }
  explicit Status(Kel::Name name) : Kel::Entity(std::move(name)) {}

  const Association* association(AssociationId id) const {
    auto it = assoc_.find(id);
    return it == assoc_.end() ? nullptr : &it->second;
  }
  const std::map<AssociationId, Association>& association() const noexcept { return assoc_; }
  void associationIs(const Association& a);
  void associationDel(AssociationId id);
  // Associations in state Up or Restarted.
  std::size_t upCount() const noexcept;

 private:
  std::map<AssociationId, Association> assoc_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

// An endpoint as the backends take and give it; scopeId for IPv6 link-local only.
struct Endpoint {
  IpGenAddr addr;  // unset: the wildcard
  std::uint16_t port = 0;
  std::uint32_t scopeId = 0;
};

// What one read returned besides the bytes.
struct RecvInfo {
  bool notification = false;  // MSG_NOTIFICATION
  bool endOfRecord = false;   // MSG_EOR: this read ends a message
  bool rcvInfo = false;       // SCTP_RCVINFO ancillary data was present
  AssociationId assocId = 0;
  Endpoint from;
};

struct AssocEvent {
  AssociationId id = 0;
  AssocState state = AssocState::Up;
};

// The system-call seam: one one-to-many socket. Results are 0 / byte counts, or a negative
// errno. Implementations: the kernel's sockets, libusrsctp, and the tests' fake.
class Backend {
 public:
  virtual ~Backend() = default;
  virtual std::string_view kind() const noexcept = 0;
  // Opens the socket (IPv6 with mapped IPv4, non-blocking, receive info and association
  // events on) inside netNs.
  virtual int open(const NamespaceName& netNs) = 0;
  virtual int autoCloseIs(std::uint32_t seconds) = 0;
  virtual int noDelayIs(bool on) = 0;
  virtual int bind(const Endpoint& local) = 0;
  virtual int listen(int backlog) = 0;
  virtual int connect(const Endpoint& peer) = 0;  // EINPROGRESS reported as 0
  virtual long send(const std::uint8_t* p, std::size_t n, const Endpoint& to, AssociationId id) = 0;
  virtual long recv(std::uint8_t* p, std::size_t n, RecvInfo& info) = 0;  // -EAGAIN: none
  // The association event a notification read carries, if it is one we follow.
  virtual std::optional<AssocEvent> assocEvent(const std::uint8_t* p, std::size_t n) const = 0;
  // The association's primary peer address.
  virtual std::optional<Endpoint> peer(AssociationId id) = 0;
  virtual void close() = 0;
  // Calls readable (on the loop) whenever the socket may have something to read.
  virtual void loopIs(Ulm::EventLoop* loop, std::function<void()> readable) = 0;
  // The path MTU each new association gets (userland: no PMTU discovery); 0: each peer's
  // from the link towards it.
  virtual void pathMtuIs(std::uint32_t) {}
  // Retransmission timeout bounds of new associations, in milliseconds (SCTP_RTOINFO).
  virtual int rtoIs(std::uint32_t initialMs, std::uint32_t minMs, std::uint32_t maxMs) = 0;
};

bool userlandAvailable() noexcept;
// The backend the environment asks for, or null for "kernel first".
std::unique_ptr<Backend> kernelBackend();
std::unique_ptr<Backend> userlandBackend();  // null when not built in

}  // namespace Sctp

class SctpPam : public Kel::Entity {
 public:
  static constexpr std::uint32_t kOptNoDelay = 0x0001;
  static constexpr std::uint32_t kDefaultMaxRxPktData = 65535;
  static constexpr int kDefaultBacklog = 16;

  class NotifieeConst : public Kel::BaseNotifiee<SctpPam, NotifieeConst> {
   public:
    virtual void onReadableCount() {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  // Makes the backend createSocket uses (tests hand in a fake); default: kernel first.
  using BackendFactory = std::function<std::unique_ptr<Sctp::Backend>()>;
  SctpPam(Kel::Name name, NamespaceName netNs, BackendFactory factory = {});
  ~SctpPam() override;
  SctpPam(const SctpPam&) = delete;
  SctpPam& operator=(const SctpPam&) = delete;

  const NamespaceName& netNs() const noexcept { return netNs_; }
  std::uint16_t pimPort() const noexcept { return Sctp::pimPort; }
  // "kernel", "userland" or the fake's name while open; empty when closed.
  std::string_view backendKind() const noexcept;
  bool ok() const noexcept { return backend_ != nullptr; }

  std::uint8_t mode() const noexcept { return mode_; }
  void modeIs(std::uint8_t m) noexcept { mode_ = m; }
  const IpGenAddr& srcIpAddr() const noexcept { return srcIpAddr_; }
  void srcIpAddrIs(const IpGenAddr& a) noexcept { srcIpAddr_ = a; }
  std::uint16_t srcPort() const noexcept { return srcPort_; }
  void srcPortIs(std::uint16_t p) noexcept { srcPort_ = p; }
  const IpGenAddr& txDstIpAddr() const noexcept { return txDstIpAddr_; }
  void txDstIpAddrIs(const IpGenAddr& a) noexcept { txDstIpAddr_ = a; }
  std::uint16_t txDstPort() const noexcept { return txDstPort_; }
  void txDstPortIs(std::uint16_t p) noexcept { txDstPort_ = p; }
  std::uint32_t txDstScopeId() const noexcept { return txDstScopeId_; }
  void txDstScopeIdIs(std::uint32_t s) noexcept { txDstScopeId_ = s; }
  std::uint32_t maxRxPktData() const noexcept { return maxRxPktData_; }
  void maxRxPktDataIs(std::uint32_t n) noexcept { maxRxPktData_ = n; }
  std::uint32_t autoCloseTime() const noexcept { return autoCloseTime_; }
  void autoCloseTimeIs(std::uint32_t seconds);
  std::uint32_t optionFlags() const noexcept { return optionFlags_; }
  void optionFlagsIs(std::uint32_t f);
  int backlog() const noexcept { return backlog_; }
  void backlogIs(int b) noexcept { backlog_ = b; }
  std::uint32_t pathMtu() const noexcept { return pathMtu_; }
  void pathMtuIs(std::uint32_t m);
  // SCTP_RTOINFO for associations made from now on (milliseconds); false when refused.
  bool retransmitTimeoutIs(std::uint32_t initialMs, std::uint32_t minMs, std::uint32_t maxMs);

  const Kel::Ptr<Sctp::Status>& status() const noexcept { return status_; }
  void statusIs(const Kel::Ptr<Sctp::Status>& s) noexcept { status_ = s; }

  // Received message's source and association.
  const IpGenAddr& rxSrcIpAddr() const noexcept { return rxSrcIpAddr_; }
  std::uint16_t rxSrcPort() const noexcept { return rxSrcPort_; }
  Sctp::AssociationId rxAssociationId() const noexcept { return rxAssociationId_; }

  bool createSocket();
  void closeSocket();
  bool resetSocket();
  bool doBind();
  bool doListen();
  bool doConnect();
  bool createAssociation(const IpGenAddr& addr, std::uint16_t port);
  bool doSendMsg(const std::uint8_t* p, std::uint32_t n, Sctp::AssociationId id);
  Kel::Ptr<Pkt> doRecvMsg();

  void loopIs(Ulm::EventLoop* loop);
  std::uint64_t readableCount() const noexcept { return readableCount_; }

  std::uint64_t txCount() const noexcept { return txCount_; }
  std::uint64_t txBytes() const noexcept { return txBytes_; }
  std::uint64_t txErrors() const noexcept { return txErrors_; }
  std::uint64_t rxCount() const noexcept { return rxCount_; }
  std::uint64_t rxAssocEventCount() const noexcept { return rxAssocEventCount_; }
  std::uint64_t rxAncillaryCount() const noexcept { return rxAncillaryCount_; }
  std::uint64_t rxOversize() const noexcept { return rxOversize_; }
  std::uint64_t rxErrors() const noexcept { return rxErrors_; }
  std::uint64_t createErrors() const noexcept { return createErrors_; }

 private:
  bool closed(const char* op);
  bool fail(const char* op, int err);
  void handleEvent(const Sctp::AssocEvent& ev);
  NamespaceName netNs_;
  BackendFactory factory_;
  std::unique_ptr<Sctp::Backend> backend_;
  Ulm::EventLoop* loop_ = nullptr;
  std::uint8_t mode_ = 0;
  IpGenAddr srcIpAddr_;
  std::uint16_t srcPort_ = Sctp::pimPort;
  IpGenAddr txDstIpAddr_;
  std::uint16_t txDstPort_ = Sctp::pimPort;
  std::uint32_t txDstScopeId_ = 0;
  std::uint32_t maxRxPktData_ = kDefaultMaxRxPktData;
  std::uint32_t autoCloseTime_ = 0;
  std::uint32_t optionFlags_ = 0;
  int backlog_ = kDefaultBacklog;
  std::uint32_t pathMtu_ = 0;  // 0: from the link (userland); the kernel discovers its own
  Kel::Ptr<Sctp::Status> status_;
  IpGenAddr rxSrcIpAddr_;
  std::uint16_t rxSrcPort_ = 0;
  Sctp::AssociationId rxAssociationId_ = 0;
  std::vector<std::uint8_t> rxBuffer_;
  std::size_t rxHave_ = 0;   // bytes of a message whose end has not come yet
  bool rxDropping_ = false;  // that message is over maxRxPktData
  std::uint64_t readableCount_ = 0;
  std::uint64_t txCount_ = 0, txBytes_ = 0, txErrors_ = 0;
  std::uint64_t rxCount_ = 0, rxAssocEventCount_ = 0, rxAncillaryCount_ = 0;
  std::uint64_t rxOversize_ = 0, rxErrors_ = 0, createErrors_ = 0;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

}  // namespace Nimo

// Text forms of the networking types inside value records: addresses and prefixes bare
// ("10.0.0.1", "ff00::/8", "None" when unset), interface ids quoted ('Ethernet1').
namespace Kel {
template <>
struct ValueText<Nimo::IpGenAddr> {
  static void print(std::string& out, const Nimo::IpGenAddr& v) { out += v.str(); }
  static void parse(ValueParser& in, Nimo::IpGenAddr& v);
};
template <>
struct ValueText<Nimo::IpGenPrefix> {
  static void print(std::string& out, const Nimo::IpGenPrefix& v) { out += v.str(); }
  static void parse(ValueParser& in, Nimo::IpGenPrefix& v);
};
template <>
struct ValueText<Nimo::IpGenAddrWithMask> {
  static void print(std::string& out, const Nimo::IpGenAddrWithMask& v) { out += v.str(); }
  static void parse(ValueParser& in, Nimo::IpGenAddrWithMask& v);
};
template <>
struct ValueText<Nimo::IntfId> {
  static void print(std::string& out, const Nimo::IntfId& v) { appendQuoted(out, v.name()); }
  static void parse(ValueParser& in, Nimo::IntfId& v);
};
}  // namespace Kel

// Networking types format in trace lines through their text form: fmt::format("{}", addr).
template <>
struct fmt::formatter<Nimo::IpGenAddr> : fmt::formatter<std::string_view> {
  auto format(const Nimo::IpGenAddr& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.str(), ctx);
  }
};
template <>
struct fmt::formatter<Nimo::IpGenPrefix> : fmt::formatter<std::string_view> {
  auto format(const Nimo::IpGenPrefix& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.str(), ctx);
  }
};
template <>
struct fmt::formatter<Nimo::IpGenAddrWithMask> : fmt::formatter<std::string_view> {
  auto format(const Nimo::IpGenAddrWithMask& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.str(), ctx);
  }
};
template <>
struct fmt::formatter<Nimo::IntfId> : fmt::formatter<std::string_view> {
  auto format(const Nimo::IntfId& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.name(), ctx);
  }
};
