// PortPam: PIM over a reliable transport (RFC 6559) for one VRF: the manager of the SCTP
// packet-access object and of the message records the agent exchanges over it.
//
// PortPamManager (trace facility "Pim::Port::IO") owns a PortSctpPam (a Nimo::SctpPam
// bound to the PIM port, listening, with an `enabled` flag), the association status
// (sctpStatus) it keeps, and two MessageInfo records:
//   - txMessageInfo: the agent posts a Join/Prune with neighborAddr set; the manager finds
//     the neighbour's record in the PIM status, the association whose peer is the record's
//     connection address, writes the message with the codec, frames it as a PORT Join/Prune
//     (PortFrame.h) with the Interface ID of our interface towards the neighbour (the
//     interface record's portInterfaceId; zero without one) and sends it on that
//     association. Sent and refused messages are counted (txSuccess, txInvalid) and
//     refusals traced.
//   - rxMessageInfo: each Join/Prune option received is decoded and posted with neighborAddr
//     the association's peer and intfId the interface of the neighbour record whose Hello
//     announced the message's Interface ID (empty when none did); rxAssociationId() and
//     rxInterfaceId() tell where it came from. A PORT message that fails to frame drops the
//     rest of its SCTP message, and a Join/Prune that fails to decode is dropped alone: each
//     counted (rxInvalid) and traced; the association stays. Unknown PORT message types and
//     options are stepped over and counted (rxSkipped); keep-alives are consumed silently.
// The checksum inside a message uses the unspecified addresses (PortFrame.h).
//
// The PIM status: the record has no attribute for it, yet getPamForNeighbor and
// setupNeighborAssociation read the neighbour records (portInfo, transportProtocol) of the
// VRF's shared-memory status table, Routing::Pim::Drobe::Status. The factory takes it; a
// null status is allowed (both operations then find nothing).
//
// Lifecycle: portPamManagerFactory makes an uninitialised manager; handleInitialized()
// creates txMessageInfo, rxMessageInfo, sctpStatus and sctpPam in this order, opens the
// socket (createSocket, doBind on the PIM port, doListen; a failure is traced and counted by
// the socket object, and the manager stays initialised with no open socket), runs
// handleEnabled(), then sets initialized. enabledIs() copies `enabled` to the PortSctpPam,
// whose handleEnabled() sets the socket object's mode to 1 or 0; disabling never destroys
// the socket object or its associations.
//
// getPamForNeighbor(addr): the neighbour record with that address (any interface) and its
// transportProtocol, traced "Neighbor <addr> transport protocol <protocol>"; sctp gives
// sctpPam; no status or no record gives null. Any other protocol, `none` included, is a
// programming error ("false && \"Transport protocol not supported\""): a caller checks
// the protocol before asking for a socket.
//
// setupNeighborAssociation(intf, addr): the record (addr, intf), else nothing; a connection
// address of 0.0.0.0 or :: gives no attempt; otherwise txDstIpAddr is set to it (with the
// interface's index as scope for a link-local address) and doConnect is called once. When
// both ends connect at the same moment, SCTP's handling of crossing INITs leaves one
// association; the status keeps one entry per association id.
//
// Threading: event-loop thread only; no locks.
//
// Usage:
//   auto mgr = Routing::Pim::Reliable::portPamManagerFactory("port", "red", pimStatus);
//   mgr->loopIs(&loop);
//   mgr->enabledIs(true);
//   mgr->handleInitialized();
//   mgr->setupNeighborAssociation(Nimo::IntfId("eth1"), Nimo::IpGenAddr("10.0.0.2"));
//   mgr->txMessageInfo()->neighborAddrIs(Nimo::IpGenAddr("10.0.0.2"));
//   mgr->txMessageInfo()->joinPruneMessageIs(jp);   // framed and sent on the association
#pragma once

#include <cstdint>
#include <functional>

#include "Pim/PimDrobe.h"
#include "Pim/PimPam.h"
#include "Pim/PimReliableTypes.h"
#include "Pim/PortFrame.h"
#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"

namespace Routing::Pim::Reliable {

inline Flicklog::Facility& portTrace() noexcept {
  static Flicklog::Facility& f = Flicklog::facility("Pim::Port::IO");
  return f;
}

class PortSctpPam : public Nimo::SctpPam {
 public:
  using Nimo::SctpPam::SctpPam;
  bool enabled() const noexcept { return enabled_; }
  void enabledIs(bool e) {
    enabled_ = e;
    handleEnabled();
  }
  void handleEnabled() { modeIs(enabled_ ? 1 : 0); }

 private:
  bool enabled_ = false;
};

class PortPamManager : public Kel::Entity {
 public:
  // Most Join/Prunes drained per readable event, so that the loop gets its turn.
  static constexpr int kRxQuantum = 64;

  PortPamManager(Kel::Name name, Nimo::NamespaceName netNs,
                 Kel::Ptr<Routing::Pim::Drobe::Status> pimStatus,
                 Nimo::SctpPam::BackendFactory backend);
  ~PortPamManager() override;

  const Kel::Ptr<Nimo::Sctp::Status>& sctpStatus() const noexcept { return sctpStatus_; }
  const Kel::Ptr<PortSctpPam>& sctpPam() const noexcept { return sctpPam_; }
  const Kel::Ptr<IO::MessageInfo>& txMessageInfo() const noexcept { return txMessageInfo_; }
  const Kel::Ptr<IO::MessageInfo>& rxMessageInfo() const noexcept { return rxMessageInfo_; }
  const Kel::Ptr<Routing::Pim::Drobe::Status>& pimStatus() const noexcept { return pimStatus_; }
  bool enabled() const noexcept { return enabled_; }
  void enabledIs(bool e);
  bool initialized() const noexcept { return initialized_; }

  void handleInitialized();
  void handleEnabled();
  // The loop the socket's events run on; set before or after handleInitialized.
  void loopIs(Ulm::EventLoop* loop);

  Kel::Ptr<Nimo::SctpPam> getPamForNeighbor(const Nimo::IpGenAddr& addr) const;
  void setupNeighborAssociation(const Nimo::IntfId& intf, const Nimo::IpGenAddr& addr);
  // The interface index a link-local connection address is scoped by; default
  // if_nametoindex of the interface name inside the namespace.
  using ScopeIdOf = std::function<std::uint32_t(const Nimo::IntfId&)>;
  void scopeIdOfIs(ScopeIdOf f) { scopeIdOf_ = std::move(f); }

  // The association the last posted rxMessageInfo came on.
  Nimo::Sctp::AssociationId rxAssociationId() const noexcept { return rxAssociationId_; }
  // The sender's Interface ID in the last posted rxMessageInfo.
  InterfaceId rxInterfaceId() const noexcept { return rxInterfaceId_; }
  std::uint64_t txSuccess() const noexcept { return txSuccess_; }
  std::uint64_t txInvalid() const noexcept { return txInvalid_; }
  std::uint64_t rxSuccess() const noexcept { return rxSuccess_; }
  std::uint64_t rxInvalid() const noexcept { return rxInvalid_; }
  std::uint64_t rxSkipped() const noexcept { return rxSkipped_; }

  void handleTxMessageInfo();
  void handleReadable();

 private:
  class TxReactor;
  class RxReactor;
  std::optional<Routing::Pim::Drobe::Neighbor> neighborByAddress(const Nimo::IpGenAddr& a) const;
  void rxMessage(const Kel::Ptr<Nimo::Pkt>& pkt);
  bool rxJoinPrune(const Kel::Ptr<Nimo::Pkt>& pkt, const PortOption& o, Nimo::AddressFamily af,
                   InterfaceId ifId, const Nimo::IpGenAddr& src);
  Nimo::NamespaceName netNs_;
  Kel::Ptr<Routing::Pim::Drobe::Status> pimStatus_;
  Nimo::SctpPam::BackendFactory backend_;
  Kel::Ptr<Nimo::Sctp::Status> sctpStatus_;
  Kel::Ptr<PortSctpPam> sctpPam_;
  Kel::Ptr<IO::MessageInfo> txMessageInfo_, rxMessageInfo_;
  std::unique_ptr<TxReactor> txReactor_;
  std::unique_ptr<RxReactor> rxReactor_;
  Ulm::EventLoop* loop_ = nullptr;
  ScopeIdOf scopeIdOf_;
  bool enabled_ = false;
  bool initialized_ = false;
  Nimo::Sctp::AssociationId rxAssociationId_ = 0;
  InterfaceId rxInterfaceId_;
  std::uint64_t txSuccess_ = 0, txInvalid_ = 0, rxSuccess_ = 0, rxInvalid_ = 0, rxSkipped_ = 0;
  Kel::Ptr<Nimo::Pkt> txPkt_;
};

// backend: null for the default choice (kernel first, then userland).
Kel::Ptr<PortPamManager> portPamManagerFactory(
    const Kel::Name& name, const Nimo::NamespaceName& netNs,
    const Kel::Ptr<Routing::Pim::Drobe::Status>& pimStatus,
    Nimo::SctpPam::BackendFactory backend = {});

}  // namespace Routing::Pim::Reliable
