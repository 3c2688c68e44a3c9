// PimReliableTypes: the values of PIM over a reliable transport (RFC 6559) that the status
// records publish per interface and per neighbour.
//
// - Protocol: the transport in use towards a neighbour (none: plain datagram PIM).
// - CapabilityFlags: which reliable transports an interface or neighbour announces in its
//   Hello (the PIM-over-TCP and PIM-over-SCTP capable options).
// - InterfaceId: the 64-bit Interface ID Hello option (RFC 6395): router ID and local
//   interface identifier; it lets a connection be matched to its interface.
// - NeighborInfo: what a neighbour's Hello announced: its connection address (where an
//   association is set up; 0.0.0.0 or :: means none), capabilities and Interface ID.
//
// All trivially copyable, for shared-memory records. Text forms are Kel value records
// ("Value('Routing::Pim::Reliable::InterfaceId', ** {'routerId': 1, 'localId': 7})"),
// Protocol prints by name ("sctp"). operator<< gives a short human form:
// CapabilityFlags "tcp|sctp" / "none", InterfaceId "1.1.1.1:7",
// NeighborInfo "{connectionAddr=10.0.0.2, capabilityFlags=sctp, interfaceId=1.1.1.1:7}".
//
// Threading: plain values, no shared state.
//
// Usage:
//   using namespace Routing::Pim::Reliable;
//   NeighborInfo info(Nimo::IpGenAddr("10.0.0.2"), CapabilityFlags(false, true),
//                     InterfaceId(0x01010101, 7));
//   if (info.capabilityFlags().sctpCapable()) { /* set up an association */ }
#pragma once

#include <cstdint>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"

namespace Routing::Pim::Reliable {

enum class Protocol : std::uint8_t { None = 0, Tcp = 1, Sctp = 2 };

inline std::span<const std::string_view> enumNames(Protocol) noexcept {
  static constexpr std::string_view kNames[] = {"none", "tcp", "sctp"};
  return kNames;
}

class CapabilityFlags {
 public:
  CapabilityFlags() noexcept = default;
  CapabilityFlags(bool tcpCapable, bool sctpCapable) noexcept
      : tcpCapable_(tcpCapable), sctpCapable_(sctpCapable) {}
  bool tcpCapable() const noexcept { return tcpCapable_; }
  bool sctpCapable() const noexcept { return sctpCapable_; }
  friend bool operator==(const CapabilityFlags&, const CapabilityFlags&) = default;

 private:
  bool tcpCapable_ = false;
  bool sctpCapable_ = false;

 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::Reliable::CapabilityFlags";
  static constexpr auto kFields =
      std::make_tuple(Kel::field("tcpCapable", &CapabilityFlags::tcpCapable_),
                      Kel::field("sctpCapable", &CapabilityFlags::sctpCapable_));
};

class InterfaceId {
 public:
  InterfaceId() noexcept = default;
  InterfaceId(std::uint32_t routerId, std::uint32_t localId) noexcept
      : routerId_(routerId), localId_(localId) {}
  std::uint32_t routerId() const noexcept { return routerId_; }
  std::uint32_t localId() const noexcept { return localId_; }
  friend bool operator==(const InterfaceId&, const InterfaceId&) = default;

 private:
  std::uint32_t routerId_ = 0;
  std::uint32_t localId_ = 0;

 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::Reliable::InterfaceId";
  static constexpr auto kFields = std::make_tuple(Kel::field("routerId", &InterfaceId::routerId_),
                                                  Kel::field("localId", &InterfaceId::localId_));
};

class NeighborInfo {
 public:
  NeighborInfo() noexcept = default;
  NeighborInfo(const Nimo::IpGenAddr& connectionAddr, CapabilityFlags capabilityFlags,
               InterfaceId interfaceId) noexcept
      : connectionAddr_(connectionAddr),
        capabilityFlags_(capabilityFlags),
        interfaceId_(interfaceId) {}
  const Nimo::IpGenAddr& connectionAddr() const noexcept { return connectionAddr_; }
  CapabilityFlags capabilityFlags() const noexcept { return capabilityFlags_; }
  InterfaceId interfaceId() const noexcept { return interfaceId_; }
  friend bool operator==(const NeighborInfo&, const NeighborInfo&) = default;

 private:
  Nimo::IpGenAddr connectionAddr_;
  CapabilityFlags capabilityFlags_;
  InterfaceId interfaceId_;

 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::Reliable::NeighborInfo";
  static constexpr auto kFields =
      std::make_tuple(Kel::field("connectionAddr", &NeighborInfo::connectionAddr_),
                      Kel::field("capabilityFlags", &NeighborInfo::capabilityFlags_),
                      Kel::field("interfaceId", &NeighborInfo::interfaceId_));
};

static_assert(std::is_trivially_copyable_v<CapabilityFlags>);
static_assert(std::is_trivially_copyable_v<InterfaceId>);
static_assert(std::is_trivially_copyable_v<NeighborInfo>);

inline std::ostream& operator<<(std::ostream& os, Protocol p) {
  std::string out;
  Kel::ValueText<Protocol>::print(out, p);
  return os << out;
}
inline std::ostream& operator<<(std::ostream& os, CapabilityFlags f) {
  if (f.tcpCapable() && f.sctpCapable()) return os << "tcp|sctp";
  if (f.tcpCapable()) return os << "tcp";
  if (f.sctpCapable()) return os << "sctp";
  return os << "none";
}
inline std::ostream& operator<<(std::ostream& os, InterfaceId i) {
  return os << Nimo::IpGenAddr::v4(i.routerId()) << ':' << i.localId();
}
inline std::ostream& operator<<(std::ostream& os, const NeighborInfo& n) {
  return os << "{connectionAddr=" << n.connectionAddr()
            << ", capabilityFlags=" << n.capabilityFlags() << ", interfaceId=" << n.interfaceId()
            << "}";
}

}  // namespace Routing::Pim::Reliable
