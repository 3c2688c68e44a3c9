// PortPamManager and PortSctpPam. See PortPam.h.
//
// Inputs: txMessageInfo's count (TxReactor -> handleTxMessageInfo), the socket's readable
// events (RxReactor -> handleReadable). Outputs: rxMessageInfo, the association status
// (kept by the socket object), counters.
#include "Pim/PortPam.h"

#include <net/if.h>

#include "Pim/PortFrame.h"

namespace Routing::Pim::Reliable {

namespace D = Routing::Pim::Drobe;

class PortPamManager::TxReactor : public IO::MessageInfo::NotifieeConst {
 public:
  explicit TxReactor(PortPamManager& m) : m_(m) {}
  void onCount() override { m_.handleTxMessageInfo(); }

 private:
  PortPamManager& m_;
};

class PortPamManager::RxReactor : public Nimo::SctpPam::NotifieeConst {
 public:
  explicit RxReactor(PortPamManager& m) : m_(m) {}
  void onReadableCount() override { m_.handleReadable(); }

 private:
  PortPamManager& m_;
};

PortPamManager::PortPamManager(Kel::Name name, Nimo::NamespaceName netNs,
                               Kel::Ptr<D::Status> pimStatus, Nimo::SctpPam::BackendFactory backend)
    : Kel::Entity(std::move(name)),
      netNs_(std::move(netNs)),
      pimStatus_(std::move(pimStatus)),
      backend_(std::move(backend)),
      txPkt_(Nimo::Pkt::create(Nimo::SctpPam::kDefaultMaxRxPktData)) {
  scopeIdOf_ = [](const Nimo::IntfId& i) {
    return static_cast<std::uint32_t>(::if_nametoindex(std::string(i.name()).c_str()));
  };
}

PortPamManager::~PortPamManager() {
  txReactor_.reset();
  rxReactor_.reset();
  if (sctpPam_) sctpPam_->closeSocket();
}

void PortPamManager::handleInitialized() {
  if (initialized_) return;
  const std::string n = name().str();
  txMessageInfo_ = Kel::Ptr<IO::MessageInfo>::make(n + ".tx");
  FLICK_TRACE(portTrace(), 4, "{}: handleInitialized - txMessageInfo", n);
  rxMessageInfo_ = Kel::Ptr<IO::MessageInfo>::make(n + ".rx");
  FLICK_TRACE(portTrace(), 4, "{}: handleInitialized - rxMessageInfo", n);
  sctpStatus_ = Kel::Ptr<Nimo::Sctp::Status>::make(n + ".sctpStatus");
  FLICK_TRACE(portTrace(), 4, "{}: handleInitialized - sctpStatus", n);
  sctpPam_ = Kel::Ptr<PortSctpPam>::make(n + ".sctp", netNs_, backend_);
  FLICK_TRACE(portTrace(), 4, "{}: handleInitialized - sctpPam", n);
  sctpPam_->statusIs(sctpStatus_);
  txReactor_ = std::make_unique<TxReactor>(*this);
  txReactor_->notifierIs(txMessageInfo_);
  rxReactor_ = std::make_unique<RxReactor>(*this);
  rxReactor_->notifierIs(Kel::Ptr<Nimo::SctpPam>(sctpPam_));
  sctpPam_->loopIs(loop_);
  if (sctpPam_->createSocket()) {
    (void)(sctpPam_->doBind() && sctpPam_->doListen());
  }
  handleEnabled();
  initialized_ = true;
}

void PortPamManager::enabledIs(bool e) {
  if (enabled_ == e) return;
  enabled_ = e;
  if (sctpPam_) handleEnabled();
}

void PortPamManager::handleEnabled() {
  if (sctpPam_) sctpPam_->enabledIs(enabled_);
}

void PortPamManager::loopIs(Ulm::EventLoop* loop) {
  loop_ = loop;
  if (sctpPam_) sctpPam_->loopIs(loop);
}

std::optional<D::Neighbor> PortPamManager::neighborByAddress(const Nimo::IpGenAddr& a) const {
  std::optional<D::Neighbor> found;
  if (!pimStatus_) return found;
  pimStatus_->neighborForEach([&](const D::Neighbor& n) {
    if (!found && n.key().address() == a) found = n;
  });
  return found;
}

Kel::Ptr<Nimo::SctpPam> PortPamManager::getPamForNeighbor(const Nimo::IpGenAddr& addr) const {
  const auto n = neighborByAddress(addr);
  if (!n) return nullptr;
  std::string proto;
  Kel::ValueText<Protocol>::print(proto, n->transportProtocol());
  FLICK_TRACE(portTrace(), 4, "Neighbor {} transport protocol {}", addr, proto);
  // Callers check the protocol before asking for a socket; TCP has no socket object here.
  if (n->transportProtocol() != Protocol::Sctp) {
    KEL_ASSERT(false && "Transport protocol not supported");
  }
  return sctpPam_;
}

void PortPamManager::setupNeighborAssociation(const Nimo::IntfId& intf,
                                              const Nimo::IpGenAddr& addr) {
  if (!pimStatus_ || !sctpPam_) return;
  const auto n = pimStatus_->neighbor(D::NeighborKey(addr, intf));
  if (!n) return;
  const Nimo::IpGenAddr& conn = n->portInfo().connectionAddr();
  if (!conn.isSet() || conn.isZero()) {
    FLICK_TRACE(portTrace(), 4, "{}: Neighbor {} - No Connection Address", name().str(), addr);
    return;
  }
  const auto* b = conn.bytes();
  const bool linkLocal =
      conn.af() == Nimo::AddressFamily::ipv6 && b[0] == 0xfe && (b[1] & 0xc0) == 0x80;
  sctpPam_->txDstScopeIdIs(linkLocal ? scopeIdOf_(intf) : 0);
  sctpPam_->txDstIpAddrIs(conn);
  sctpPam_->txDstPortIs(Nimo::Sctp::pimPort);
  sctpPam_->doConnect();
}

void PortPamManager::handleTxMessageInfo() {
  const auto jp = txMessageInfo_->joinPruneMessage();
  const Nimo::IpGenAddr& nbr = txMessageInfo_->neighborAddr();
  const auto refuse = [&](const char* why) {
    ++txInvalid_;
    FLICK_TRACE(portTrace(), 1, "{}: TX: <PIM Join/Prune> to {} - {}", name().str(), nbr, why);
  };
  if (!jp) return refuse("Not A Join/Prune");
  const auto n = neighborByAddress(nbr);
  if (!n) return refuse("No Neighbor");
  const Nimo::IpGenAddr& conn = n->portInfo().connectionAddr();
  Nimo::Sctp::AssociationId id = 0;
  for (const auto& [aid, a] : sctpStatus_->association()) {
    if (a.peerAddr == conn &&
        (a.state == Nimo::Sctp::AssocState::Up || a.state == Nimo::Sctp::AssocState::Restarted)) {
      id = aid;
    }
  }
  if (id == 0) return refuse("No Association");
  jp->srcIpIs(portMessageAddr(nbr.af()));
  jp->dstIpIs(portMessageAddr(nbr.af()));
  // The Interface ID of our interface towards the neighbour, as our Hello announces it.
  InterfaceId ifId;
  if (const auto intf = pimStatus_->pimIntf(n->key().intfId())) ifId = intf->portInterfaceId();
  txPkt_->sizeIsUncleared(Nimo::SctpPam::kDefaultMaxRxPktData);
  const std::uint32_t len = jp->writeJoinPruneMessage(txPkt_, kPortJoinPruneOffset, nullptr);
  const std::uint32_t frame = len ? writePortJoinPrune(txPkt_, 0, ifId, nbr.af(), len) : 0;
  if (frame == 0) return refuse("Write Error");
  if (!sctpPam_->doSendMsg(txPkt_->data(0), frame, id)) return refuse("Send Error");
  ++txSuccess_;
}

void PortPamManager::handleReadable() {
  for (int i = 0; i < kRxQuantum; ++i) {
    auto pkt = sctpPam_->doRecvMsg();
    if (!pkt) return;
    rxMessage(pkt);
  }
}

void PortPamManager::rxMessage(const Kel::Ptr<Nimo::Pkt>& pkt) {
  const Nimo::IpGenAddr src = sctpPam_->rxSrcIpAddr();
  const auto invalid = [&](const char* what) {
    ++rxInvalid_;
    FLICK_TRACE(portTrace(), 1, "{}: RX: Invalid {} From {} - Association {}", name().str(), what,
                src, sctpPam_->rxAssociationId());
  };
  // Bounded: every message read consumes at least its 4-byte header.
  for (std::uint32_t at = 0; at < pkt->size();) {
    PortMessage m;
    const std::uint32_t n = readPortMessage(pkt, at, m);
    // The rest of this SCTP message cannot be framed; the next one starts afresh.
    if (n == 0) return invalid("Port Message");
    at += n;
    rxSkipped_ += m.unknownOptions + (m.known() ? 0u : 1u);
    if (m.type != kPortTypeJoinPrune) continue;
    forEachPortOption(*pkt, m, [&](const PortOption& o) {
      const auto af = portOptionFamily(o.type);
      if (af && !rxJoinPrune(pkt, o, *af, m.interfaceId, src)) invalid("Join/Prune");
    });
  }
}

bool PortPamManager::rxJoinPrune(const Kel::Ptr<Nimo::Pkt>& pkt, const PortOption& o,
                                 Nimo::AddressFamily af, InterfaceId ifId,
                                 const Nimo::IpGenAddr& src) {
  auto jp = Kel::Ptr<Packet::JoinPruneMessage>::make();
  jp->srcIpIs(portMessageAddr(af));
  jp->dstIpIs(portMessageAddr(af));
  // A copy ending with the option: the decoder reads to the end of its packet.
  if (jp->readJoinPruneMessage(Nimo::Pkt::copyOf(pkt->data(o.offset), o.length, 0), 0, nullptr) ==
      0) {
    return false;
  }
  // The sender's Interface ID names the interface of ours its Hello came on; a zero one
  // names nothing. A walk of the neighbours per message: an index is for when it shows.
  Nimo::IntfId intf;
  if (pimStatus_ && ifId != InterfaceId{}) {
    pimStatus_->neighborForEach([&](const D::Neighbor& nb) {
      if (nb.portInfo().interfaceId() == ifId) intf = nb.key().intfId();
    });
  }
  ++rxSuccess_;
  rxAssociationId_ = sctpPam_->rxAssociationId();
  rxInterfaceId_ = ifId;
  rxMessageInfo_->intfIdIs(intf);
  rxMessageInfo_->neighborAddrIs(src);
  rxMessageInfo_->joinPruneMessageIs(jp);
  rxMessageInfo_->countInc();
  return true;
}

Kel::Ptr<PortPamManager> portPamManagerFactory(const Kel::Name& name,
                                               const Nimo::NamespaceName& netNs,
                                               const Kel::Ptr<D::Status>& pimStatus,
                                               Nimo::SctpPam::BackendFactory backend) {
  return Kel::Ptr<PortPamManager>::make(name, netNs, pimStatus, std::move(backend));
}

}  // namespace Routing::Pim::Reliable
