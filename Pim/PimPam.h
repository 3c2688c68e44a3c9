// PimPam: the packet access manager of one VRF and address family.
//
// PamManager owns the raw PIM socket (pam, one of pam4 / pam6 / pam6HeaderInclude), the
// kernel filter program built on it, the two interface maps the I/O layer uses (intf:
// platform id -> kernel index; kernelIntf: the reverse, which names the interface of a
// received packet), the per-type exchange records with the agent (rxMessageInfo[0..15],
// txMessageInfo) and the socket's packet counters. The I/O state machine (PimIO.h) watches
// it: a new socket (onPam), a change of the registered receive types (onRxMessageInfo,
// which rebuilds the filter) and the transmit record (onTxMessageInfo).
//
// Socket options: handlePamInit asks the access layer for option bits 0x0008, 0x0800 and
// 0x1000 and parameter 6, which Nimo::IpPam maps to IP_PKTINFO / IPV6_RECVPKTINFO (the
// receiving interface of each packet, and for IPv6 its destination), IP_RECVTOS /
// IPV6_RECVTCLASS and IP_RECVTTL / IPV6_RECVHOPLIMIT (the rest of the IPv6 header the
// access layer writes in front of each IPv6 packet), and a 4 MiB receive buffer. With
// overrideIpHeader, bit 0x0002 (IP_HDRINCL) for IPv4, and for IPv6 the socket variant
// created with IPV6_HDRINCL. transparentIp maps to bit 0x0200 (IP_TRANSPARENT).
//
// MessageInfo: one slot per message type and direction. The setter of each message kind
// asserts that the message has that type; count is bumped on every post so that the
// agent's reactors fire even when two posts carry equal contents.
//
// Traces: facility "Pim::IO", lines prefixed "<Vrf:<name>>". Threading: event-loop thread
// only; no locks.
//
// Usage:
//   auto mgr = Routing::Pim::IO::pamManagerFactory(L3::VrfName("default"),
//                                                  Nimo::AddressFamily::ipv4, "red", false);
//   mgr->rxMessageInfoIs(0);                    // the agent wants Hellos
//   struct R : MessageInfo::NotifieeConst { void onCount() override; } r;
//   r.notifierIs(mgr->rxMessageInfo(0));        // wakes on every received Hello
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>

#include "Pim/PimMessage.h"
#include "Pim/PimTypesDrobe.h"
#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/System.h"

namespace Routing::Pim::IO {

// The I/O layer's trace facility, "Pim::IO".
inline Flicklog::Facility& ioTrace() noexcept {
  static Flicklog::Facility& f = Flicklog::facility("Pim::IO");
  return f;
}

// Classic BPF codes used by the receive filter.
namespace Bpf {
constexpr std::uint16_t kLdB = 0x30;     // A = pkt[k]
constexpr std::uint16_t kAndK = 0x54;    // A &= k
constexpr std::uint16_t kLshK = 0x64;    // A <<= k
constexpr std::uint16_t kTax = 0x07;     // X = A
constexpr std::uint16_t kLdBInd = 0x50;  // A = pkt[X + k]
constexpr std::uint16_t kJeqK = 0x15;    // A == k ? skip jt : skip jf
constexpr std::uint16_t kRetK = 0x06;    // return k bytes (0: drop)
}  // namespace Bpf

class PamCounter : public Kel::PtrInterface {
 public:
  std::uint32_t count() const noexcept { return count_; }
  void countIs(std::uint32_t v) noexcept { count_ = v; }
  void countInc() noexcept { ++count_; }
  std::uint32_t error() const noexcept { return error_; }
  void errorIs(std::uint32_t v) noexcept { error_ = v; }
  void errorInc() noexcept { ++error_; }
  std::uint32_t processed() const noexcept { return processed_; }
  void processedIs(std::uint32_t v) noexcept { processed_ = v; }
  void processedInc() noexcept { ++processed_; }

 private:
  std::uint32_t count_ = 0;
  std::uint32_t error_ = 0;
  std::uint32_t processed_ = 0;
};

struct Intf {
  Nimo::IntfId intfId;
  std::uint32_t ifIndex = 0;
};
struct KernelIntf {
  std::uint32_t ifIndex = 0;
  Nimo::IntfId intfId;
};

class MessageInfo : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<MessageInfo, NotifieeConst> {
   public:
    virtual void onCount() {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  explicit MessageInfo(Kel::Name name) : Kel::Entity(std::move(name)) {}

  const Nimo::IntfId& intfId() const noexcept { return intfId_; }
  void intfIdIs(const Nimo::IntfId& i) noexcept { intfId_ = i; }
  const Nimo::IpGenAddr& neighborAddr() const noexcept { return neighborAddr_; }
  void neighborAddrIs(const Nimo::IpGenAddr& a) noexcept { neighborAddr_ = a; }
  std::uint32_t count() const noexcept { return count_; }
  void countIs(std::uint32_t c) {
    if (c == count_) return;
    count_ = c;
    notifiees_.forEach([](NotifieeConst& n) { n.onCount(); });
  }
  void countInc() { countIs(count_ + 1); }

  // The message held, whatever its kind.
  const Kel::Ptr<Packet::Message>& message() const noexcept { return message_; }
  void messageDel() noexcept { message_ = nullptr; }
  // Any kind, checked against its type: the receive path and the queue post through this.
  void messageIs(const Kel::Ptr<Packet::Message>& msg);

  // One getter and setter per kind; a getter is null when the message is of another kind,
  // a setter asserts the kind.
#define PIM_MESSAGE_INFO_KIND(name, Class)       \
  Kel::Ptr<Packet::Class> name() const noexcept; \
  void name##Is(const Kel::Ptr<Packet::Class>& msg);
  PIM_MESSAGE_INFO_KIND(helloMessage, HelloMessage)
  PIM_MESSAGE_INFO_KIND(registerMessage, RegisterMessage)
  PIM_MESSAGE_INFO_KIND(registerStopMessage, RegisterStopMessage)
  PIM_MESSAGE_INFO_KIND(joinPruneMessage, JoinPruneMessage)
  PIM_MESSAGE_INFO_KIND(bootstrapMessage, BootstrapMessage)
  PIM_MESSAGE_INFO_KIND(assertMessage, AssertMessage)
  PIM_MESSAGE_INFO_KIND(crpAdvMessage, CrpAdvMessage)
  PIM_MESSAGE_INFO_KIND(dfElectionMessage, DfElectionMessage)
  PIM_MESSAGE_INFO_KIND(dfElectionOfferMessage, DfElectionOfferMessage)
  PIM_MESSAGE_INFO_KIND(dfElectionWinnerMessage, DfElectionWinnerMessage)
  PIM_MESSAGE_INFO_KIND(dfElectionBackoffMessage, DfElectionBackoffMessage)
  PIM_MESSAGE_INFO_KIND(dfElectionPassMessage, DfElectionPassMessage)
#undef PIM_MESSAGE_INFO_KIND

 private:
  Nimo::IntfId intfId_;
  Nimo::IpGenAddr neighborAddr_;
  std::uint32_t count_ = 0;
  Kel::Ptr<Packet::Message> message_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

class PamManager : public Kel::Entity {
 public:
  static constexpr std::uint32_t kFilterAccept = 0x0FFFFFFF;

  class NotifieeConst : public Kel::BaseNotifiee<PamManager, NotifieeConst> {
   public:
    virtual void onPam() {}
    virtual void onRxMessageInfo(Packet::MessageType) {}
    virtual void onTxMessageInfo() {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  // Opens the socket (handlePamInit) and creates the counters and transmit record.
  PamManager(const L3::VrfName& vrf, Nimo::AddressFamily af, Nimo::NamespaceName netNs,
             bool overrideIpHeader);

  const L3::VrfName& vrf() const noexcept { return vrf_; }
  Nimo::AddressFamily af() const noexcept { return af_; }
  const Nimo::NamespaceName& netNs() const noexcept { return netNs_; }
  bool overrideIpHeader() const noexcept { return overrideIpHeader_; }

  const Kel::Ptr<Nimo::IpPam>& pam4() const noexcept { return pam4_; }
  const Kel::Ptr<Nimo::IpPam>& pam6() const noexcept { return pam6_; }
  const Kel::Ptr<Nimo::IpPam>& pam6HeaderInclude() const noexcept { return pam6HeaderInclude_; }
  const Kel::Ptr<Nimo::IpPam>& pam() const noexcept { return pam_; }
  void pamIs(const Kel::Ptr<Nimo::IpPam>& p);
  void handlePamInit();

  bool transparentIp() const noexcept { return transparentIp_; }
  void transparentIpIs(bool t);
  void handleTransparentIp();

  // The filter program.
  std::uint32_t bpfLen() const noexcept { return bpfLen_; }
  void doResetFilter();
  void doAddFilterStmt(std::uint16_t code, std::uint32_t k);
  void doAddFilterJmp(std::uint16_t code, std::uint32_t k, std::uint8_t jt, std::uint8_t jf);
  int doApplyFilter();

  // Interface maps.
  const Intf* intf(const Nimo::IntfId& id) const {
    auto it = intf_.find(id);
    return it == intf_.end() ? nullptr : &it->second;
  }
  void intfIs(const Nimo::IntfId& id, std::uint32_t ifIndex) { intf_[id] = Intf{id, ifIndex}; }
  void intfDel(const Nimo::IntfId& id) { intf_.erase(id); }
  const KernelIntf* kernelIntf(std::uint32_t ifIndex) const {
    auto it = kernelIntf_.find(ifIndex);
    return it == kernelIntf_.end() ? nullptr : &it->second;
  }
  void kernelIntfIs(std::uint32_t ifIndex, const Nimo::IntfId& id) {
    kernelIntf_[ifIndex] = KernelIntf{ifIndex, id};
  }
  void kernelIntfDel(std::uint32_t ifIndex) { kernelIntf_.erase(ifIndex); }

  // Receive records: present entries are the types the agent wants.
  const Kel::Ptr<MessageInfo>& rxMessageInfo(Packet::MessageType t) const noexcept {
    return rxMessageInfo_[t & 0x0f];
  }
  // Registers type t (creates its record); notifies when that changes the set.
  const Kel::Ptr<MessageInfo>& rxMessageInfoIs(Packet::MessageType t);
  void rxMessageInfoDel(Packet::MessageType t);
  void rxMessageInfoNotify(Packet::MessageType t);
  // Bit t set for each registered type.
  std::uint16_t rxMessageInfoMask() const noexcept;

  const Kel::Ptr<MessageInfo>& txMessageInfo() const noexcept { return txMessageInfo_; }
  void handleTxMessageInfoInit();

  const Kel::Ptr<PamCounter>& rxPamCounter() const noexcept { return rxPamCounter_; }
  const Kel::Ptr<PamCounter>& txPamCounter() const noexcept { return txPamCounter_; }
  void handlePamCounterInit();

 private:
  std::string prefix() const;
  L3::VrfName vrf_;
  Nimo::AddressFamily af_;
  Nimo::NamespaceName netNs_;
  bool overrideIpHeader_;
  Kel::Ptr<Nimo::IpPam> pam4_, pam6_, pam6HeaderInclude_, pam_;
  bool transparentIp_ = false;
  std::uint32_t bpfLen_ = 0;
  std::map<Nimo::IntfId, Intf> intf_;
  std::map<std::uint32_t, KernelIntf> kernelIntf_;
  std::array<Kel::Ptr<MessageInfo>, 16> rxMessageInfo_;
  Kel::Ptr<MessageInfo> txMessageInfo_;
  Kel::Ptr<PamCounter> rxPamCounter_, txPamCounter_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

Kel::Ptr<PamManager> pamManagerFactory(const L3::VrfName& vrf, Nimo::AddressFamily af,
                                       const Nimo::NamespaceName& netNs, bool overrideIpHeader);

}  // namespace Routing::Pim::IO
