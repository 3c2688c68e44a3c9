// The PIM version 2 message codec.
//
// Message objects and their read/write operations for every PIM message, IPv4 and IPv6.
// All operations share one convention:
//   std::uint32_t readX(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
//   std::uint32_t writeX(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
// The result counts the bytes read or written from offset; 0 means failure, and exactly one
// error line has then been written to the trace facility "Pim::Packet" (level 1 errors,
// 4 debug, 5 warnings, 9 notes). Nothing is thrown out of a read or write: range errors of
// value types are caught at this boundary. A failed read leaves the object partly filled
// and a failed write leaves the buffer partly written; the caller discards either.
//
// Receiving: construct the message of the type the first header byte names, set srcIp and
// dstIp (they choose the family and feed the IPv6 checksum), then call its read operation,
// which checks the common header first. Sending: fill the object, set srcIp/dstIp, size the
// packet to the room available, call the write operation; it encodes the body at
// offset + 4, sets length, and writes the header last so the checksum covers the body.
//
// Threading: event-loop thread only; message objects are not shared between threads.
//
// Usage:
//   auto hello = Kel::Ptr<Routing::Pim::Packet::HelloMessage>::make();
//   hello->srcIpIs(Nimo::IpGenAddr("10.0.0.1"));
//   hello->dstIpIs(Nimo::IpGenAddr("224.0.0.13"));
//   hello->holdTimeOptionIs(true);
//   hello->holdTimeIs(105);
//   auto pkt = Nimo::Pkt::create(1500);
//   std::uint32_t n = hello->writeHelloMessage(pkt, 0);   // 10 bytes
//   pkt->sizeIs(n);
//   auto rx = Kel::Ptr<Routing::Pim::Packet::HelloMessage>::make();
//   rx->srcIpIs(hello->srcIp()); rx->dstIpIs(hello->dstIp());
//   bool same = rx->readHelloMessage(pkt, 0) == n && *rx == *hello;
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <set>
#include <string>

#include "Pim/PimMcastBoundary.h"
#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/PimCore.h"

namespace Routing::Pim::Packet {

using MessageType = std::uint8_t;     // the PIM type number, low nibble of the first byte
using MessageSubtype = std::uint8_t;  // subtype of the types that have one; 255: none

// The codec's trace facility, "Pim::Packet". Inline: every trace site tests its level.
inline Flicklog::Facility& codecTrace() noexcept {
  static Flicklog::Facility& f = Flicklog::facility("Pim::Packet");
  return f;
}

// System log messages defined with the codec; the I/O layer and the bootstrap-router logic
// emit them with Flicklog::logMessage(msg, args...).
extern const Flicklog::LogMessage PIM_MESSAGE_INVALID_ENCODED_SOURCE;
extern const Flicklog::LogMessage PIM_MESSAGE_INVALID_ENCODED_GROUP;
extern const Flicklog::LogMessage PIM_MESSAGE_AF_MISMATCH;
extern const Flicklog::LogMessage PIMBSR_CRPADV_ZONE_SET;

// ---------------------------------------------------------------------------------------
// Message: the common header (RFC 7761 4.9)
//
//    0                   1                   2                   3
//    0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |PIM Ver| Type  |   Reserved    |           Checksum            |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+

class Message : public Kel::PtrInterface {
 public:
  explicit Message(Nimo::PimMessageType type) noexcept : pimMessageType_(type) {}

  Nimo::PimMessageType pimMessageType() const noexcept { return pimMessageType_; }
  MessageType messageType() const noexcept {
    return static_cast<MessageType>(static_cast<std::uint8_t>(pimMessageType_) & 0x0f);
  }
  MessageSubtype messageSubtype() const noexcept { return messageSubtype_; }
  void messageSubtypeIs(MessageSubtype s) noexcept { messageSubtype_ = s; }
  // The whole second header byte, as received or to be sent.
  std::uint8_t reserved() const noexcept { return reserved_; }
  void reservedIs(std::uint8_t r) noexcept { reserved_ = r; }
  // Bytes the checksum covers: the whole message, but only the first 8 of a Register.
  std::uint32_t length() const noexcept { return length_; }
  void lengthIs(std::uint32_t l) noexcept { length_ = l; }
  const Nimo::IpGenAddr& srcIp() const noexcept { return srcIp_; }
  void srcIpIs(const Nimo::IpGenAddr& a) noexcept { srcIp_ = a; }
  const Nimo::IpGenAddr& dstIp() const noexcept { return dstIp_; }
  void dstIpIs(const Nimo::IpGenAddr& a) noexcept { dstIp_ = a; }
  // Family of srcIp, else of dstIp: 0 none, 1 IPv4, 2 IPv6.
  std::uint8_t af() const noexcept;

  std::uint32_t readHeader(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
  std::uint32_t writeHeader(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;

  // The print form: header fields here; each message class appends its body.
  virtual void print(std::ostream& os) const;

 protected:
  bool headerEquals(const Message& o) const noexcept;

 private:
  Nimo::PimMessageType pimMessageType_;
  MessageSubtype messageSubtype_ = 255;
  std::uint8_t reserved_ = 0;
  std::uint32_t length_ = 0;
  Nimo::IpGenAddr srcIp_;
  Nimo::IpGenAddr dstIp_;
};
std::ostream& operator<<(std::ostream& os, const Message& m);

// ---------------------------------------------------------------------------------------
// Encoded-Unicast address (RFC 7761 4.9.1)
//
//   | Addr Family  | Encoding Type |     Unicast Address (4 or 16 bytes) ...
//
// Total 6 (IPv4) or 18 (IPv6) bytes. Reading does not call valid(): callers that need a
// unicast address call it themselves.

class EncodedUnicastAddress {
 public:
  EncodedUnicastAddress() noexcept = default;
  explicit EncodedUnicastAddress(const Nimo::IpGenAddr& a) noexcept : address_(a) {}

  const Nimo::IpGenAddr& address() const noexcept { return address_; }
  void addressIs(const Nimo::IpGenAddr& a) noexcept { address_ = a; }

  std::uint32_t readUnicastAddress(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
  std::uint32_t writeUnicastAddress(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
  bool valid() const noexcept;

  // Reading bounded by end (an offset no larger than the packet size) instead of the
  // packet's end: for addresses inside an option whose declared length must not be
  // overrun.
  std::uint32_t readUnicastAddress(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset,
                                   std::uint32_t end) noexcept;

  friend bool operator==(const EncodedUnicastAddress&, const EncodedUnicastAddress&) = default;

 private:
  Nimo::IpGenAddr address_;
};

// ---------------------------------------------------------------------------------------
// Group and source address values: a prefix and the flags byte kept whole.

struct GroupAddress {
  static constexpr std::string_view kTypeName = "Routing::Pim::Packet::GroupAddress";
  static constexpr std::uint8_t kBidirectional = 0x80;   // B (RFC 5015)
  static constexpr std::uint8_t kAdminScopeZone = 0x01;  // Z (RFC 7761)

  GroupAddress() noexcept = default;
  GroupAddress(const Nimo::IpGenPrefix& a, std::uint8_t f) noexcept : address(a), flags(f) {}
  GroupAddress(const char* begin, const char* end) { Kel::parseValue(begin, end, *this); }

  Nimo::IpGenPrefix address;
  std::uint8_t flags = 0;

  static constexpr auto kFields = std::make_tuple(Kel::field("address", &GroupAddress::address),
                                                  Kel::field("flags", &GroupAddress::flags));
  friend bool operator==(const GroupAddress&, const GroupAddress&) = default;
  friend auto operator<=>(const GroupAddress&, const GroupAddress&) = default;
};
std::ostream& operator<<(std::ostream& os, const GroupAddress& g);

struct SourceAddress {
  static constexpr std::string_view kTypeName = "Routing::Pim::Packet::SourceAddress";
  static constexpr std::uint8_t kSparse = 0x04;    // S
  static constexpr std::uint8_t kWildcard = 0x02;  // W
  static constexpr std::uint8_t kRpt = 0x01;       // R

  SourceAddress() noexcept = default;
  SourceAddress(const Nimo::IpGenPrefix& a, std::uint8_t f) noexcept : address(a), flags(f) {}
  SourceAddress(const char* begin, const char* end) { Kel::parseValue(begin, end, *this); }

  Nimo::IpGenPrefix address;
  std::uint8_t flags = 0;

  static constexpr auto kFields = std::make_tuple(Kel::field("address", &SourceAddress::address),
                                                  Kel::field("flags", &SourceAddress::flags));
  friend bool operator==(const SourceAddress&, const SourceAddress&) = default;
  friend auto operator<=>(const SourceAddress&, const SourceAddress&) = default;
};
std::ostream& operator<<(std::ostream& os, const SourceAddress& s);

// ---------------------------------------------------------------------------------------
// Encoded-Group address (RFC 7761 4.9.1, flags from RFC 5015 / RFC 7761)
//
//   | Addr Family  | Encoding Type |B| Reserved  |Z|  Mask Len     |
//   |                Group multicast Address (4 or 16 bytes) ...
//
// Encoded-Source address: the same layout with the flags |Rsrvd|S|W|R|.
// Total 8 (IPv4) or 20 (IPv6) bytes each.

class EncodedGroupAddress {
 public:
  EncodedGroupAddress() noexcept = default;
  explicit EncodedGroupAddress(const GroupAddress& g) noexcept : value_(g) {}

  // The prefix's address; a value of unknown family is a programming error.
  Nimo::IpGenAddr address() const noexcept;
  void addressIs(const Nimo::IpGenAddr& a) noexcept;  // as a host prefix
  const GroupAddress& groupAddress() const noexcept { return value_; }
  void groupAddressIs(const GroupAddress& g) noexcept { value_ = g; }
  std::uint8_t flags() const noexcept { return value_.flags; }
  void flagsIs(std::uint8_t f) noexcept { value_.flags = f; }
  bool isHostPrefix() const noexcept { return value_.address.isHost(); }

  std::uint32_t readGroupAddress(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
  std::uint32_t writeGroupAddress(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
  bool valid() const noexcept;

  friend bool operator==(const EncodedGroupAddress&, const EncodedGroupAddress&) = default;

 private:
  GroupAddress value_;
};

class EncodedSourceAddress {
 public:
  EncodedSourceAddress() noexcept = default;
  explicit EncodedSourceAddress(const SourceAddress& s) noexcept : value_(s) {}

  Nimo::IpGenAddr address() const noexcept;
  void addressIs(const Nimo::IpGenAddr& a) noexcept;
  const SourceAddress& sourceAddress() const noexcept { return value_; }
  void sourceAddressIs(const SourceAddress& s) noexcept { value_ = s; }
  std::uint8_t flags() const noexcept { return value_.flags; }
  void flagsIs(std::uint8_t f) noexcept { value_.flags = f; }
  bool isHostPrefix() const noexcept { return value_.address.isHost(); }

  std::uint32_t readSourceAddress(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
  std::uint32_t writeSourceAddress(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
  bool valid() const noexcept;

  friend bool operator==(const EncodedSourceAddress&, const EncodedSourceAddress&) = default;

 private:
  SourceAddress value_;
};

// ---------------------------------------------------------------------------------------
// Hello (RFC 7761 4.9.2; options 21-24 RFC 5015 / RFC 7761, 27-28 RFC 6559, 31 RFC 6395)
//
//   |PIM Ver| Type  |   Reserved    |           Checksum            |
//   |        OptionType             |         OptionLength          |
//   |                          OptionValue ...                      |
//   |        OptionType             |         OptionLength          |  ...
//
// Options the reader does not know are skipped by their declared length with a warning;
// a Hello without a holdtime is accepted (the consumer applies its default).

struct HelloOptionTypeConstants {
  static constexpr std::uint16_t helloHoldTime = 1;
  static constexpr std::uint16_t helloLanPruneDelay = 2;
  static constexpr std::uint16_t helloDrPriority = 19;
  static constexpr std::uint16_t helloGenerationId = 20;
  static constexpr std::uint16_t helloBidirectionalCapable = 22;
  static constexpr std::uint16_t helloAddressList = 24;
  static constexpr std::uint16_t helloPimOverTcpCapable = 27;
  static constexpr std::uint16_t helloPimOverSctpCapable = 28;
  static constexpr std::uint16_t helloInterfaceIdentifier = 31;
};

struct HelloOptionHeader {
  static constexpr std::uint32_t kSize = 4;
  std::uint16_t helloType = 0;
  std::uint16_t length = 0;
};

class HelloMessage : public Message {
 public:
  // The LAN prune delay's propagation delay: 15 bits.
  class HelloPropagationDelay {
   public:
    static constexpr std::string_view kTypeName =
        "Routing::Pim::Packet::HelloMessage::HelloPropagationDelay";
    static constexpr std::uint16_t min = 0;
    static constexpr std::uint16_t max = 32767;
    static constexpr std::string_view kRangeErrorText =
        "HelloPropagationDelay::value < HelloPropagationDelay::min or > "
        "HelloPropagationDelay::max not allowed";

    HelloPropagationDelay() noexcept = default;
    explicit HelloPropagationDelay(std::uint16_t v);  // Kel::RangeError above max
    HelloPropagationDelay(const char* begin, const char* end);
    std::uint16_t value() const noexcept { return value_; }

    static constexpr auto fields() {
      return std::make_tuple(Kel::field("value", &HelloPropagationDelay::value_));
    }
    friend bool operator==(const HelloPropagationDelay&, const HelloPropagationDelay&) = default;

   private:
    std::uint16_t value_ = 0;
  };

  // The first word of the LAN prune delay option as two raw bytes in wire order: the T bit
  // and the propagation delay.
  struct HelloImplPropagationDelay {
    static constexpr std::string_view kTypeName =
        "Routing::Pim::Packet::HelloMessage::HelloImplPropagationDelay";
    HelloImplPropagationDelay() noexcept = default;
    HelloImplPropagationDelay(std::uint8_t a, std::uint8_t b) noexcept : v0(a), v1(b) {}
    HelloImplPropagationDelay(const char* begin, const char* end) {
      Kel::parseValue(begin, end, *this);
    }
    std::uint8_t v0 = 0;
    std::uint8_t v1 = 0;
    static constexpr auto fields() {
      return std::make_tuple(Kel::field("v0", &HelloImplPropagationDelay::v0),
                             Kel::field("v1", &HelloImplPropagationDelay::v1));
    }
    friend bool operator==(const HelloImplPropagationDelay&,
                           const HelloImplPropagationDelay&) = default;
  };

  HelloMessage() noexcept : Message(Nimo::PimMessageType::pimHello) {}

  bool holdTimeOption() const noexcept { return holdTimeOption_; }
  void holdTimeOptionIs(bool b) noexcept { holdTimeOption_ = b; }
  std::uint16_t holdTime() const noexcept { return holdTime_; }
  void holdTimeIs(std::uint16_t v) noexcept { holdTime_ = v; }

  bool lanPruneDelayOption() const noexcept { return lanPruneDelayOption_; }
  void lanPruneDelayOptionIs(bool b) noexcept { lanPruneDelayOption_ = b; }
  HelloImplPropagationDelay implPropagationDelay() const noexcept { return impl_; }
  void implPropagationDelayIs(HelloImplPropagationDelay v) noexcept { impl_ = v; }
  std::uint16_t overrideInterval() const noexcept { return overrideInterval_; }
  void overrideIntervalIs(std::uint16_t v) noexcept { overrideInterval_ = v; }
  bool tBit() const noexcept { return (impl_.v0 & 0x80) != 0; }
  void tBitIs(bool b) noexcept;
  HelloPropagationDelay propagationDelay() const noexcept;
  void propagationDelayIs(HelloPropagationDelay d) noexcept;

  bool drPriorityOption() const noexcept { return drPriorityOption_; }
  void drPriorityOptionIs(bool b) noexcept { drPriorityOption_ = b; }
  std::uint32_t drPriority() const noexcept { return drPriority_; }
  void drPriorityIs(std::uint32_t v) noexcept { drPriority_ = v; }

  bool generationIdOption() const noexcept { return generationIdOption_; }
  void generationIdOptionIs(bool b) noexcept { generationIdOption_ = b; }
  std::uint32_t generationId() const noexcept { return generationId_; }
  void generationIdIs(std::uint32_t v) noexcept { generationId_ = v; }

  bool bidirectionalCapable() const noexcept { return bidirectionalCapable_; }
  void bidirectionalCapableIs(bool b) noexcept { bidirectionalCapable_ = b; }

  const std::set<Nimo::IpGenAddr>& secondaryAddr() const noexcept { return secondaryAddr_; }
  bool secondaryAddr(const Nimo::IpGenAddr& a) const { return secondaryAddr_.count(a) != 0; }
  void secondaryAddrIs(const Nimo::IpGenAddr& a, bool present);
  void secondaryAddrDelAll() noexcept { secondaryAddr_.clear(); }

  bool tcpConnectionOption() const noexcept { return tcpConnectionOption_; }
  void tcpConnectionOptionIs(bool b) noexcept { tcpConnectionOption_ = b; }
  const Nimo::IpGenAddr& tcpConnectionId() const noexcept { return tcpConnectionId_; }
  void tcpConnectionIdIs(const Nimo::IpGenAddr& a) noexcept { tcpConnectionId_ = a; }

  bool sctpConnectionOption() const noexcept { return sctpConnectionOption_; }
  void sctpConnectionOptionIs(bool b) noexcept { sctpConnectionOption_ = b; }
  const Nimo::IpGenAddr& sctpConnectionId() const noexcept { return sctpConnectionId_; }
  void sctpConnectionIdIs(const Nimo::IpGenAddr& a) noexcept { sctpConnectionId_ = a; }

  bool interfaceIdOption() const noexcept { return interfaceIdOption_; }
  void interfaceIdOptionIs(bool b) noexcept { interfaceIdOption_ = b; }
  std::uint32_t interfaceId() const noexcept { return interfaceId_; }
  void interfaceIdIs(std::uint32_t v) noexcept { interfaceId_ = v; }
  std::uint32_t routerId() const noexcept { return routerId_; }
  void routerIdIs(std::uint32_t v) noexcept { routerId_ = v; }

  // Returns the message length from offset to the end of the packet, or 0.
  std::uint32_t readHelloMessage(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
  // Returns the bytes written (header included), or 0.
  std::uint32_t writeHelloMessage(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;

  void print(std::ostream& os) const override;
  // Every attribute, header fields included.
  friend bool operator==(const HelloMessage& a, const HelloMessage& b) noexcept;

 private:
  bool holdTimeOption_ = false;
  std::uint16_t holdTime_ = 0;
  bool lanPruneDelayOption_ = false;
  HelloImplPropagationDelay impl_;
  std::uint16_t overrideInterval_ = 0;
  bool drPriorityOption_ = false;
  std::uint32_t drPriority_ = 0;
  bool generationIdOption_ = false;
  std::uint32_t generationId_ = 0;
  bool bidirectionalCapable_ = false;
  std::set<Nimo::IpGenAddr> secondaryAddr_;
  bool tcpConnectionOption_ = false;
  Nimo::IpGenAddr tcpConnectionId_;
  bool sctpConnectionOption_ = false;
  Nimo::IpGenAddr sctpConnectionId_;
  bool interfaceIdOption_ = false;
  std::uint32_t interfaceId_ = 0;
  std::uint32_t routerId_ = 0;
};
std::ostream& operator<<(std::ostream& os, const HelloMessage::HelloPropagationDelay& d);
std::ostream& operator<<(std::ostream& os, const HelloMessage::HelloImplPropagationDelay& d);

// ---------------------------------------------------------------------------------------
// Join/Prune (RFC 7761 4.9.5)
//
//   |PIM Ver| Type  |   Reserved    |           Checksum            |
//   |        Upstream Neighbor Address (Encoded-Unicast format)     |
//   |  Reserved     | Num groups    |          Holdtime             |
//   |         Multicast Group Address 1 (Encoded-Group format)      |
//   |   Number of Joined Sources    |   Number of Pruned Sources    |
//   |        Joined Source Address 1 (Encoded-Source format)  ...   |
//   |        Pruned Source Address 1 (Encoded-Source format)  ...   |
//   |         Multicast Group Address m ...                         |
//
// The message is a view on a Routing::Pim::JoinPruneData (upstream neighbour, holdtime and
// groups live there). Reading fills it, resolving entries that contradict each other and
// dropping groups of the wrong family, outside the receiving interface's boundary or
// of the other mode (bidirectional or not) than the message; `report` counts entries.
// Writing drains it: every entry the writer passes is deleted, written or not, and what
// does not fit in `mtu` - 20 bytes (room for an IPv4 header) is left for the next call,
// which resumes at the bookmark the first one left. A sender therefore calls the writer
// with a fresh packet until the data set is empty; a call that writes nothing returns 0.
//
// Units: report counts source entries, the (*,G) entry included. Writing: processed =
// written, suppressed = suppressed joins dropped, filtered = entries of groups a filter
// dropped plus entries of the wrong family; the three add up to the entries drained.
// Reading adds up over reads: processed = entries accepted (before contradictions are
// resolved), filtered = entries of groups the boundary or mode filter dropped.
//
// Usage:
//   auto m = Kel::Ptr<JoinPruneMessage>::make();
//   m->srcIpIs(...); m->dstIpIs(...); m->joinPruneDataIs(data); m->mtuIs(1500);
//   while (!data->empty()) {
//     auto pkt = Nimo::Pkt::create(1500);
//     if (std::uint32_t n = m->writeJoinPruneMessage(pkt, 0, boundary)) send(pkt);  // pkt is n
//     bytes
//   }

class JoinPruneMessage : public Message {
 public:
  struct Report {
    static constexpr std::string_view kTypeName = "Routing::Pim::Packet::JoinPruneMessage::Report";
    std::uint32_t processed = 0;
    std::uint32_t suppressed = 0;
    std::uint32_t filtered = 0;
    std::uint32_t skipped() const noexcept { return suppressed + filtered; }
    static constexpr auto fields() {
      return std::make_tuple(Kel::field("processed", &Report::processed),
                             Kel::field("suppressed", &Report::suppressed),
                             Kel::field("filtered", &Report::filtered));
    }
    friend bool operator==(const Report&, const Report&) = default;
  };

  static constexpr std::uint32_t kDefaultMtu = 1500;
  // The budget leaves room for an IPv4 header without options, for both families.
  static constexpr std::uint32_t kIpHeaderAllowance = 20;
  static constexpr std::uint32_t kMaxGroups = 255;

  JoinPruneMessage() noexcept : Message(Nimo::PimMessageType::pimJoinPrune) {}

  const Kel::Ptr<JoinPruneData>& joinPruneData() const noexcept { return joinPruneData_; }
  void joinPruneDataIs(const Kel::Ptr<JoinPruneData>& d) noexcept { joinPruneData_ = d; }
  std::uint32_t mtu() const noexcept { return mtu_; }
  void mtuIs(std::uint32_t m) noexcept { mtu_ = m; }
  bool bidir() const noexcept { return bidir_; }
  void bidirIs(bool b) noexcept { bidir_ = b; }
  const Report& report() const noexcept { return report_; }

  // Fills joinPruneData (made if null); returns the message length or 0.
  std::uint32_t readJoinPruneMessage(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset,
                                     const Kel::Ptr<Boundary::IntfBoundary>& intfBoundary) noexcept;
  // Drains joinPruneData into one message, trimming pkt to its end; returns its length or 0.
  std::uint32_t writeJoinPruneMessage(
      const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset,
      const Kel::Ptr<Boundary::IntfBoundary>& intfBoundary) noexcept;

  void print(std::ostream& os) const override;

 private:
  Kel::Ptr<JoinPruneData> joinPruneData_;
  std::uint32_t mtu_ = kDefaultMtu;
  bool bidir_ = false;
  Report report_;
};
std::ostream& operator<<(std::ostream& os, const JoinPruneMessage::Report& r);

}  // namespace Routing::Pim::Packet

// =======================================================================================
// Register, Register-Stop, Assert, Bootstrap, Candidate-RP Advertisement, DF Election.
// Their implementations are in PimMessageRegister.cpp, PimMessageAssert.cpp,
// PimMessageBootstrap.cpp and PimMessageDfElection.cpp.
//
// Usage (receive side of a data Register, whose inner packet is forwarded in place):
//   auto reg = Kel::Ptr<Routing::Pim::Packet::RegisterMessage>::make();
//   reg->srcIpIs(outerSrc);
//   reg->dstIpIs(outerDst);
//   if (reg->readRegisterMessage(pkt, offset) != 0 && !reg->nullFlag()) {
//     decapsulate(reg->rcvdPkt());  // pkt itself, now beginning at the inner IP header
//   }

#include <map>
#include <vector>

namespace Routing {

// A route's metric preference and metric, compared as a pair (RFC 7761 4.6.3 / RFC 5015).
struct MetricPref {
  std::uint32_t preference = 0;
  std::uint32_t metric = 0;
  friend bool operator==(const MetricPref&, const MetricPref&) = default;
  friend auto operator<=>(const MetricPref&, const MetricPref&) = default;
};

}  // namespace Routing

namespace Routing::Pim::Packet {

// ---------------------------------------------------------------------------------------
// Register (RFC 7761 4.9.3)
//
//   |PIM Ver| Type  |   Reserved    |           Checksum            |
//   |B|N|                       Reserved2                           |
//   .                     Multicast data packet                     .
//
// The checksum covers the first 8 bytes (the reader also accepts a sum over the whole
// message, see Message::readHeader). The inner IPv4 or IPv6 header is checked here. A data
// Register is handed on without a copy: on success the reader removes everything ahead of
// the inner IP header from the head of the (shared) packet and keeps that packet in
// rcvdPkt. A Null-Register carries only a dummy inner header; the writer builds one that
// declares its own length (IPv4 total length 20, IPv6 payload length 0), which is what
// the reader requires of a Null-Register, and its IPv4 header checksum is always filled in.
// The inner source and group and the inner TOS/traffic class (reserved2) and TTL/hop
// limit are kept for printing and for writing the dummy header when rcvdPkt is not set.
//
// messageSubtype follows the N bit (1 data, 0 null) from construction on; a change of the
// flags word re-derives it and notifies the NotifieeConst observers.

class RegisterMessage : public Message {
 public:
  struct RegisterImplFlags {
    static constexpr std::string_view kTypeName =
        "Routing::Pim::Packet::RegisterMessage::RegisterImplFlags";
    RegisterImplFlags() noexcept = default;
    RegisterImplFlags(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) noexcept
        : v0(a), v1(b), v2(c), v3(d) {}
    RegisterImplFlags(const char* begin, const char* end) { Kel::parseValue(begin, end, *this); }
    std::uint8_t v0 = 0, v1 = 0, v2 = 0, v3 = 0;
    static constexpr auto fields() {
      return std::make_tuple(
          Kel::field("v0", &RegisterImplFlags::v0), Kel::field("v1", &RegisterImplFlags::v1),
          Kel::field("v2", &RegisterImplFlags::v2), Kel::field("v3", &RegisterImplFlags::v3));
    }
    friend bool operator==(const RegisterImplFlags&, const RegisterImplFlags&) = default;
  };

  static constexpr std::uint32_t kBorderBit = 0x80000000u;
  static constexpr std::uint32_t kNullBit = 0x40000000u;
  static constexpr MessageSubtype kDataSubtype = 1;
  static constexpr MessageSubtype kNullSubtype = 0;

  class NotifieeConst {
   public:
    virtual ~NotifieeConst() = default;
    virtual void onImplRegisterFlags() {}
  };

  RegisterMessage() noexcept : Message(Nimo::PimMessageType::pimRegister) {
    messageSubtypeIs(kDataSubtype);
  }

  RegisterImplFlags implRegisterFlags() const noexcept { return flags_; }
  void implRegisterFlagsIs(RegisterImplFlags f);
  std::uint32_t implRegisterFlagsU32() const noexcept;
  void implRegisterFlagsU32Is(std::uint32_t v);
  bool borderFlag() const noexcept { return (implRegisterFlagsU32() & kBorderBit) != 0; }
  void borderFlagIs(bool b);
  bool nullFlag() const noexcept { return (implRegisterFlagsU32() & kNullBit) != 0; }
  void nullFlagIs(bool b);
  // Derives messageSubtype from the N bit and notifies; runs on every real flags change.
  void handleMessageSubtype();

  std::uint8_t reserved2() const noexcept { return reserved2_; }
  void reserved2Is(std::uint8_t v) noexcept { reserved2_ = v; }
  std::uint8_t hopLimit() const noexcept { return hopLimit_; }
  void hopLimitIs(std::uint8_t v) noexcept { hopLimit_ = v; }
  const Kel::Ptr<Nimo::Pkt>& rcvdPkt() const noexcept { return rcvdPkt_; }
  void rcvdPktIs(const Kel::Ptr<Nimo::Pkt>& p) noexcept { rcvdPkt_ = p; }
  const Nimo::IpGenAddr& innerSource() const noexcept { return innerSource_; }
  void innerSourceIs(const Nimo::IpGenAddr& a) noexcept { innerSource_ = a; }
  const Nimo::IpGenAddr& innerGroup() const noexcept { return innerGroup_; }
  void innerGroupIs(const Nimo::IpGenAddr& a) noexcept { innerGroup_ = a; }

  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  std::uint32_t readRegisterMessage(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
  std::uint32_t writeRegisterMessage(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;

  void print(std::ostream& os) const override;
  // Header fields, flags, inner fields, and the bytes (not the identity) of rcvdPkt.
  friend bool operator==(const RegisterMessage& a, const RegisterMessage& b) noexcept;

 private:
  // Observers belong to one object: a copy starts without any.
  struct Notifiees : Kel::NotifieeList<NotifieeConst> {
    Notifiees() = default;
    Notifiees(const Notifiees&) {}
    Notifiees& operator=(const Notifiees&) { return *this; }
  };

  RegisterImplFlags flags_;
  std::uint8_t reserved2_ = 0;
  std::uint8_t hopLimit_ = 0;
  Kel::Ptr<Nimo::Pkt> rcvdPkt_;
  Nimo::IpGenAddr innerSource_;
  Nimo::IpGenAddr innerGroup_;
  Notifiees notifiees_;
};
std::ostream& operator<<(std::ostream& os, const RegisterMessage::RegisterImplFlags& f);

// ---------------------------------------------------------------------------------------
// Register-Stop (RFC 7761 4.9.4)
//
//   |PIM Ver| Type  |   Reserved    |           Checksum            |
//   |             Group Address (Encoded-Group format)              |
//   |            Source Address (Encoded-Unicast format)            |
//
// The group always goes out as a host prefix (/32, /128), whatever mask the object holds.

class RegisterStopMessage : public Message {
 public:
  RegisterStopMessage() noexcept : Message(Nimo::PimMessageType::pimRegisterStop) {}

  const EncodedGroupAddress& group() const noexcept { return group_; }
  void groupIs(const EncodedGroupAddress& g) noexcept { group_ = g; }
  const EncodedUnicastAddress& source() const noexcept { return source_; }
  void sourceIs(const EncodedUnicastAddress& s) noexcept { source_ = s; }

  std::uint32_t readRegisterStopMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                        std::uint32_t offset) noexcept;
  std::uint32_t writeRegisterStopMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                         std::uint32_t offset) noexcept;

  void print(std::ostream& os) const override;
  friend bool operator==(const RegisterStopMessage& a, const RegisterStopMessage& b) noexcept;

 private:
  EncodedGroupAddress group_;
  EncodedUnicastAddress source_;
};

// ---------------------------------------------------------------------------------------
// Assert (RFC 7761 4.9.6)
//
//   |PIM Ver| Type  |   Reserved    |           Checksum            |
//   |             Group Address (Encoded-Group format)              |
//   |            Source Address (Encoded-Unicast format)            |
//   |R|                     Metric Preference                       |
//   |                             Metric                            |
//
// For a (*,G) Assert the source field holds the RP address. The group always goes out as
// a host prefix; the reader refuses any other mask.

class AssertMessage : public Message {
 public:
  // The 31-bit metric preference.
  class AssertMetricPreference {
   public:
    static constexpr std::string_view kTypeName =
        "Routing::Pim::Packet::AssertMessage::AssertMetricPreference";
    static constexpr std::uint32_t min = 0;
    static constexpr std::uint32_t max = 2147483647;
    static constexpr std::string_view kRangeErrorText =
        "AssertMetricPreference::value < AssertMetricPreference::min or > "
        "AssertMetricPreference::max not allowed";

    AssertMetricPreference() noexcept = default;
    explicit AssertMetricPreference(std::uint32_t v);  // Kel::RangeError above max
    AssertMetricPreference(const char* begin, const char* end);
    std::uint32_t value() const noexcept { return value_; }

    static constexpr auto fields() {
      return std::make_tuple(Kel::field("value", &AssertMetricPreference::value_));
    }
    friend bool operator==(const AssertMetricPreference&, const AssertMetricPreference&) = default;

   private:
    std::uint32_t value_ = 0;
  };

  // The R bit and the preference as the four bytes of the wire word.
  struct AssertImplMetricPreference {
    static constexpr std::string_view kTypeName =
        "Routing::Pim::Packet::AssertMessage::AssertImplMetricPreference";
    AssertImplMetricPreference() noexcept = default;
    AssertImplMetricPreference(std::uint8_t a, std::uint8_t b, std::uint8_t c,
                               std::uint8_t d) noexcept
        : v0(a), v1(b), v2(c), v3(d) {}
    AssertImplMetricPreference(const char* begin, const char* end) {
      Kel::parseValue(begin, end, *this);
    }
    std::uint8_t v0 = 0, v1 = 0, v2 = 0, v3 = 0;
    static constexpr auto fields() {
      return std::make_tuple(Kel::field("v0", &AssertImplMetricPreference::v0),
                             Kel::field("v1", &AssertImplMetricPreference::v1),
                             Kel::field("v2", &AssertImplMetricPreference::v2),
                             Kel::field("v3", &AssertImplMetricPreference::v3));
    }
    friend bool operator==(const AssertImplMetricPreference&,
                           const AssertImplMetricPreference&) = default;
  };

  AssertMessage() noexcept : Message(Nimo::PimMessageType::pimAssert) {}

  const EncodedGroupAddress& group() const noexcept { return group_; }
  void groupIs(const EncodedGroupAddress& g) noexcept { group_ = g; }
  const EncodedUnicastAddress& source() const noexcept { return source_; }
  void sourceIs(const EncodedUnicastAddress& s) noexcept { source_ = s; }
  AssertImplMetricPreference implMetricPreference() const noexcept { return impl_; }
  void implMetricPreferenceIs(AssertImplMetricPreference v) noexcept { impl_ = v; }
  std::uint32_t implMetricPreferenceU32() const noexcept;
  void implMetricPreferenceU32Is(std::uint32_t v) noexcept;
  bool rpt() const noexcept { return (impl_.v0 & 0x80) != 0; }
  void rptIs(bool b) noexcept;
  AssertMetricPreference metricPreference() const noexcept;
  void metricPreferenceIs(AssertMetricPreference p) noexcept;  // keeps R
  std::uint32_t metric() const noexcept { return metric_; }
  void metricIs(std::uint32_t m) noexcept { metric_ = m; }

  std::uint32_t readAssertMessage(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
  std::uint32_t writeAssertMessage(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;

  void print(std::ostream& os) const override;
  friend bool operator==(const AssertMessage& a, const AssertMessage& b) noexcept;

 private:
  EncodedGroupAddress group_;
  EncodedUnicastAddress source_;
  AssertImplMetricPreference impl_;
  std::uint32_t metric_ = 0;
};
std::ostream& operator<<(std::ostream& os, const AssertMessage::AssertMetricPreference& p);
std::ostream& operator<<(std::ostream& os, const AssertMessage::AssertImplMetricPreference& p);

// ---------------------------------------------------------------------------------------
// Bootstrap (RFC 5059 4.1)
//
//   |PIM Ver| Type  |N|  Reserved   |           Checksum            |
//   |         Fragment Tag          | Hash Mask Len | BSR Priority  |
//   |             BSR Address (Encoded-Unicast format)              |
//   |         Group Address 1 (Encoded-Group format)                |
//   | RP Count 1    | Frag RP Cnt 1 |         Reserved              |
//   |             RP Address 1 (Encoded-Unicast format)             |
//   |          RP1 Holdtime         | RP1 Priority  |   Reserved    |
//   .                 ... more RPs, more groups ...                 .
//
// The reader fills groupData in wire order and, per group, one entry of fragments with
// the key the BSR logic reassembles by (hash is left 0: computing it is that logic's job).
// Equality compares everything but fragments, which the reader derives from groupData.

struct BootstrapRpData {
  BootstrapRpData() noexcept = default;
  explicit BootstrapRpData(const Nimo::IpGenAddr& a) noexcept : rpAddress(a) {}
  Nimo::IpGenAddr rpAddress;
  std::uint16_t rpHoldtime = 0;
  std::uint8_t rpPriority = 0;
  std::uint8_t reserved = 0;
  friend bool operator==(const BootstrapRpData&, const BootstrapRpData&) = default;
};

using BootstrapRpList = std::map<Nimo::IpGenAddr, BootstrapRpData>;

struct BootstrapGroupData {
  BootstrapGroupData() noexcept = default;
  explicit BootstrapGroupData(const Nimo::IpGenPrefix& p) noexcept : prefix(p) {}
  // The entry for an RP address, made on first use.
  BootstrapRpData& rpListIs(const Nimo::IpGenAddr& a) {
    return rpList.try_emplace(a, a).first->second;
  }
  Nimo::IpGenPrefix prefix;
  std::uint8_t groupFlags = 0;  // the Encoded-Group flags byte
  std::uint8_t rpCount = 0;
  std::uint8_t fragRpCount = 0;
  BootstrapRpList rpList;
  friend bool operator==(const BootstrapGroupData&, const BootstrapGroupData&) = default;
};

// The group entries of one message, in wire order.
using BootstrapOptionalData = std::vector<BootstrapGroupData>;

struct BootstrapRpFragmentKey {
  static constexpr std::string_view kTypeName = "Routing::Pim::Packet::BootstrapRpFragmentKey";
  BootstrapRpFragmentKey() noexcept = default;
  BootstrapRpFragmentKey(const char* begin, const char* end) { Kel::parseValue(begin, end, *this); }

  Nimo::IpGenPrefix prefix;
  Nimo::IpGenAddr bsrAddress;
  std::uint8_t groupFlags = 0;
  bool noForward = false;
  std::uint16_t fragmentTag = 0;
  std::uint8_t hashMaskLen = 0;
  std::uint8_t bsrPriority = 0;
  std::uint8_t rpCount = 0;
  std::uint32_t hash = 0;

  static constexpr auto kFields =
      std::make_tuple(Kel::field("prefix", &BootstrapRpFragmentKey::prefix),
                      Kel::field("bsrAddress", &BootstrapRpFragmentKey::bsrAddress),
                      Kel::field("groupFlags", &BootstrapRpFragmentKey::groupFlags),
                      Kel::field("noForward", &BootstrapRpFragmentKey::noForward),
                      Kel::field("fragmentTag", &BootstrapRpFragmentKey::fragmentTag),
                      Kel::field("hashMaskLen", &BootstrapRpFragmentKey::hashMaskLen),
                      Kel::field("bsrPriority", &BootstrapRpFragmentKey::bsrPriority),
                      Kel::field("rpCount", &BootstrapRpFragmentKey::rpCount),
                      Kel::field("hash", &BootstrapRpFragmentKey::hash));
  friend bool operator==(const BootstrapRpFragmentKey&, const BootstrapRpFragmentKey&) = default;
  friend auto operator<=>(const BootstrapRpFragmentKey&, const BootstrapRpFragmentKey&) = default;
};
std::ostream& operator<<(std::ostream& os, const BootstrapRpFragmentKey& k);

struct BootstrapRpFragment {
  BootstrapRpFragmentKey fragmentKey;
  BootstrapRpList rpList;
  friend bool operator==(const BootstrapRpFragment&, const BootstrapRpFragment&) = default;
};

class BootstrapMessage : public Message {
 public:
  static constexpr std::string_view kHashMaskLenRangeErrorText =
      "BootstrapMessage::hashMaskLen < 0 or > 128 not allowed";
  static constexpr std::uint8_t kNoForwardBit = 0x80;

  BootstrapMessage() noexcept : Message(Nimo::PimMessageType::pimBootstrap) {}

  std::uint16_t fragmentTag() const noexcept { return fragmentTag_; }
  void fragmentTagIs(std::uint16_t v) noexcept { fragmentTag_ = v; }
  std::uint8_t hashMaskLen() const noexcept { return hashMaskLen_; }
  // Stores n, then throws Kel::RangeError if n exceeds 128; the value stays stored.
  void hashMaskLenIs(std::uint8_t n);
  std::uint8_t bsrPriority() const noexcept { return bsrPriority_; }
  void bsrPriorityIs(std::uint8_t v) noexcept { bsrPriority_ = v; }
  const Nimo::IpGenAddr& bsrAddress() const noexcept { return bsrAddress_; }
  void bsrAddressIs(const Nimo::IpGenAddr& a) noexcept { bsrAddress_ = a; }

  // The No-Forward bit. Setting it overwrites the whole reserved byte (0x80 or 0): the
  // other bits have no meaning in a Bootstrap and are sent as zero.
  bool noForward() const noexcept { return (reserved() & kNoForwardBit) != 0; }
  void noForwardIs(bool b) noexcept { reservedIs(b ? kNoForwardBit : 0); }
  bool forward() const noexcept { return !noForward(); }
  void forwardIs(bool b) noexcept { noForwardIs(!b); }

  const BootstrapOptionalData& groupData() const noexcept { return groupData_; }
  BootstrapOptionalData& groupData() noexcept { return groupData_; }
  // Appends a group entry and returns it.
  BootstrapGroupData& groupDataIs(const Nimo::IpGenPrefix& prefix);
  void groupDataDelAll() noexcept { groupData_.clear(); }
  const std::map<BootstrapRpFragmentKey, BootstrapRpFragment>& fragments() const noexcept {
    return fragments_;
  }

  std::uint32_t readBootstrapMessage(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
  std::uint32_t writeBootstrapMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                      std::uint32_t offset) noexcept;

  void print(std::ostream& os) const override;
  friend bool operator==(const BootstrapMessage& a, const BootstrapMessage& b) noexcept;

 private:
  std::uint16_t fragmentTag_ = 0;
  std::uint8_t hashMaskLen_ = 0;
  std::uint8_t bsrPriority_ = 0;
  Nimo::IpGenAddr bsrAddress_;
  BootstrapOptionalData groupData_;
  std::map<BootstrapRpFragmentKey, BootstrapRpFragment> fragments_;
};

// ---------------------------------------------------------------------------------------
// Candidate-RP Advertisement (RFC 5059 4.2)
//
//   |PIM Ver| Type  |   Reserved    |           Checksum            |
//   | Prefix Count  |   Priority    |          Holdtime             |
//   |              RP Address (Encoded-Unicast format)              |
//   |         Group Address 1 (Encoded-Group format)                |  ...
//
// Groups are kept by prefix with their flags byte. A group with the admin-scope zone bit
// is accepted on read with a warning (the BSR logic logs PIMBSR_CRPADV_ZONE_SET); on write
// every group's scope (Admin when Z is set, else global) must be the allowedScope the
// caller configured.

struct CrpGroupData : Kel::PtrInterface {
  // Group prefix -> Encoded-Group flags byte.
  std::map<Nimo::IpGenPrefix, std::uint8_t> groupInfo;
  void groupInfoIs(const Nimo::IpGenPrefix& p, std::uint8_t flags = 0) { groupInfo[p] = flags; }
};

enum class CrpAdvScope : std::uint8_t { Global, Admin };

class CrpAdvMessage : public Message {
 public:
  CrpAdvMessage() noexcept : Message(Nimo::PimMessageType::pimCrpAdv) {}

  std::uint8_t prefixCount() const noexcept { return prefixCount_; }
  void prefixCountIs(std::uint8_t v) noexcept { prefixCount_ = v; }
  std::uint8_t priority() const noexcept { return priority_; }
  void priorityIs(std::uint8_t v) noexcept { priority_ = v; }
  std::uint16_t holdtime() const noexcept { return holdtime_; }
  void holdtimeIs(std::uint16_t v) noexcept { holdtime_ = v; }
  const Nimo::IpGenAddr& rpAddress() const noexcept { return rpAddress_; }
  void rpAddressIs(const Nimo::IpGenAddr& a) noexcept { rpAddress_ = a; }
  // Null until a reader allocates it or a caller sets it; a failed read discards it.
  const Kel::Ptr<CrpGroupData>& groupData() const noexcept { return groupData_; }
  void groupDataIs(const Kel::Ptr<CrpGroupData>& g) noexcept { groupData_ = g; }
  CrpAdvScope allowedScope() const noexcept { return allowedScope_; }
  void allowedScopeIs(CrpAdvScope s) noexcept { allowedScope_ = s; }

  std::uint32_t readCrpAdvMessage(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
  std::uint32_t writeCrpAdvMessage(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;

  void print(std::ostream& os) const override;
  // Wire fields and group contents (a null groupData equals an empty one); not the scope.
  friend bool operator==(const CrpAdvMessage& a, const CrpAdvMessage& b) noexcept;

 private:
  std::uint8_t prefixCount_ = 0;
  std::uint8_t priority_ = 0;
  std::uint16_t holdtime_ = 0;
  Nimo::IpGenAddr rpAddress_;
  Kel::Ptr<CrpGroupData> groupData_;
  CrpAdvScope allowedScope_ = CrpAdvScope::Global;
};

// ---------------------------------------------------------------------------------------
// DF Election (RFC 5015 3.7)
//
//   |PIM Ver| Type  |Subtype| Rsvd  |           Checksum            |
//   |              RP Address (Encoded-Unicast format)              |
//   |                   Sender Metric Preference                    |
//   |                         Sender Metric                         |
// Backoff and Pass go on with
//   |  Offering (Backoff) / New Winner (Pass) Address (Encoded-Unicast) |
//   |             Offering / Winner Metric Preference               |
//   |                  Offering / Winner Metric                     |
//   |            Interval (Backoff only, 16 bits)                   |
//
// The subtype lives in the high nibble of the reserved byte. Each subclass fixes its
// subtype at construction; calling a subclass's read or write on an object whose subtype
// was changed to another is a programming error. A read keeps the reserved byte as
// received. Bytes after the last field are not examined; the result counts those read.

enum class DfElectionMessageType : std::uint8_t {
  dfElectionUnknown = 0,
  dfElectionOffer = 1,
  dfElectionWinner = 2,
  dfElectionBackoff = 3,
  dfElectionPass = 4,
};
std::ostream& operator<<(std::ostream& os, DfElectionMessageType t);

class DfElectionMessage : public Message {
 public:
  static constexpr DfElectionMessageType dfElectionOffer() noexcept {
    return DfElectionMessageType::dfElectionOffer;
  }
  static constexpr DfElectionMessageType dfElectionWinner() noexcept {
    return DfElectionMessageType::dfElectionWinner;
  }
  static constexpr DfElectionMessageType dfElectionBackoff() noexcept {
    return DfElectionMessageType::dfElectionBackoff;
  }
  static constexpr DfElectionMessageType dfElectionPass() noexcept {
    return DfElectionMessageType::dfElectionPass;
  }

  DfElectionMessage() noexcept : Message(Nimo::PimMessageType::pimDfElection) {}

  DfElectionMessageType dfElectionMessageType() const noexcept {
    return DfElectionMessageType(reserved() >> 4);
  }
  // Sets reserved to t << 4 (low nibble 0) and messageSubtype to t.
  void dfElectionMessageTypeIs(DfElectionMessageType t) noexcept;

  const EncodedUnicastAddress& rpAddress() const noexcept { return rpAddress_; }
  void rpAddressIs(const EncodedUnicastAddress& a) noexcept { rpAddress_ = a; }
  std::uint32_t senderMetricPreference() const noexcept { return senderPref_.preference; }
  void senderMetricPreferenceIs(std::uint32_t v) noexcept { senderPref_.preference = v; }
  std::uint32_t senderMetric() const noexcept { return senderPref_.metric; }
  void senderMetricIs(std::uint32_t v) noexcept { senderPref_.metric = v; }
  Routing::MetricPref senderMetricPref() const noexcept { return senderPref_; }
  void senderMetricPrefIs(Routing::MetricPref m) noexcept { senderPref_ = m; }

  // The common part: header, RP address, sender metric preference and metric.
  std::uint32_t readDfElectionMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                      std::uint32_t offset) noexcept;
  std::uint32_t writeDfElectionMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                       std::uint32_t offset) noexcept;

  void print(std::ostream& os) const override;
  friend bool operator==(const DfElectionMessage& a, const DfElectionMessage& b) noexcept;

 protected:
  // Without the trace line, for the subclasses that go on reading.
  std::uint32_t readCommon(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept;
  void traceRx() const;

 private:
  EncodedUnicastAddress rpAddress_;
  Routing::MetricPref senderPref_;
};

class DfElectionOfferMessage : public DfElectionMessage {
 public:
  DfElectionOfferMessage() noexcept { initDfElectionOfferMessage(); }
  void initDfElectionOfferMessage() noexcept { dfElectionMessageTypeIs(dfElectionOffer()); }
  std::uint32_t readDfElectionOfferMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                           std::uint32_t offset) noexcept;
  std::uint32_t writeDfElectionOfferMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                            std::uint32_t offset) noexcept;
};

class DfElectionWinnerMessage : public DfElectionMessage {
 public:
  DfElectionWinnerMessage() noexcept { initDfElectionWinnerMessage(); }
  void initDfElectionWinnerMessage() noexcept { dfElectionMessageTypeIs(dfElectionWinner()); }
  std::uint32_t readDfElectionWinnerMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                            std::uint32_t offset) noexcept;
  std::uint32_t writeDfElectionWinnerMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                             std::uint32_t offset) noexcept;
};

class DfElectionBackoffMessage : public DfElectionMessage {
 public:
  DfElectionBackoffMessage() noexcept { initDfElectionBackoffMessage(); }
  void initDfElectionBackoffMessage() noexcept { dfElectionMessageTypeIs(dfElectionBackoff()); }

  const EncodedUnicastAddress& offeringAddress() const noexcept { return offeringAddress_; }
  void offeringAddressIs(const EncodedUnicastAddress& a) noexcept { offeringAddress_ = a; }
  std::uint32_t offeringMetricPreference() const noexcept { return offeringPref_.preference; }
  void offeringMetricPreferenceIs(std::uint32_t v) noexcept { offeringPref_.preference = v; }
  std::uint32_t offeringMetric() const noexcept { return offeringPref_.metric; }
  void offeringMetricIs(std::uint32_t v) noexcept { offeringPref_.metric = v; }
  Routing::MetricPref offeringMetricPref() const noexcept { return offeringPref_; }
  void offeringMetricPrefIs(Routing::MetricPref m) noexcept { offeringPref_ = m; }
  std::uint16_t interval() const noexcept { return interval_; }
  void intervalIs(std::uint16_t v) noexcept { interval_ = v; }

  std::uint32_t readDfElectionBackoffMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                             std::uint32_t offset) noexcept;
  std::uint32_t writeDfElectionBackoffMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                              std::uint32_t offset) noexcept;

  void print(std::ostream& os) const override;
  friend bool operator==(const DfElectionBackoffMessage& a,
                         const DfElectionBackoffMessage& b) noexcept;

 private:
  EncodedUnicastAddress offeringAddress_;
  Routing::MetricPref offeringPref_;
  std::uint16_t interval_ = 0;
};

class DfElectionPassMessage : public DfElectionMessage {
 public:
  DfElectionPassMessage() noexcept { initDfElectionPassMessage(); }
  void initDfElectionPassMessage() noexcept { dfElectionMessageTypeIs(dfElectionPass()); }

  const EncodedUnicastAddress& winningAddress() const noexcept { return winningAddress_; }
  void winningAddressIs(const EncodedUnicastAddress& a) noexcept { winningAddress_ = a; }
  std::uint32_t winningMetricPreference() const noexcept { return winningPref_.preference; }
  void winningMetricPreferenceIs(std::uint32_t v) noexcept { winningPref_.preference = v; }
  std::uint32_t winningMetric() const noexcept { return winningPref_.metric; }
  void winningMetricIs(std::uint32_t v) noexcept { winningPref_.metric = v; }
  Routing::MetricPref winningMetricPref() const noexcept { return winningPref_; }
  void winningMetricPrefIs(Routing::MetricPref m) noexcept { winningPref_ = m; }

  std::uint32_t readDfElectionPassMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                          std::uint32_t offset) noexcept;
  std::uint32_t writeDfElectionPassMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                           std::uint32_t offset) noexcept;

  void print(std::ostream& os) const override;
  friend bool operator==(const DfElectionPassMessage& a, const DfElectionPassMessage& b) noexcept;

 private:
  EncodedUnicastAddress winningAddress_;
  Routing::MetricPref winningPref_;
};

}  // namespace Routing::Pim::Packet
