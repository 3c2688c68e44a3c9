// PamManager: socket, filter program, interface maps, exchange records, counters.
#include "Pim/PimPam.h"

namespace Routing::Pim::IO {

// ---------------------------------------------------------------------------------------
// MessageInfo

void MessageInfo::messageIs(const Kel::Ptr<Packet::Message>& msg) {
  KEL_ASSERT(msg);
  message_ = msg;
}

// The invariants are spelled as the system states them, so that a failed one reads so.
#define PIM_MESSAGE_INFO_KIND(name, Class, invariant)              \
  Kel::Ptr<Packet::Class> MessageInfo::name() const noexcept {     \
    return Kel::ptr_cast<Packet::Class>(message_);                 \
  }                                                                \
  void MessageInfo::name##Is(const Kel::Ptr<Packet::Class>& msg) { \
    KEL_ASSERT(invariant);                                         \
    message_ = msg;                                                \
  }
using Packet::DfElectionMessage;
PIM_MESSAGE_INFO_KIND(helloMessage, HelloMessage, msg->pimMessageType() == Nimo::pimHello())
PIM_MESSAGE_INFO_KIND(registerMessage, RegisterMessage,
                      msg->pimMessageType() == Nimo::pimRegister())
PIM_MESSAGE_INFO_KIND(registerStopMessage, RegisterStopMessage,
                      msg->pimMessageType() == Nimo::pimRegisterStop())
PIM_MESSAGE_INFO_KIND(joinPruneMessage, JoinPruneMessage,
                      msg->pimMessageType() == Nimo::pimJoinPrune())
PIM_MESSAGE_INFO_KIND(bootstrapMessage, BootstrapMessage,
                      msg->pimMessageType() == Nimo::pimBootstrap())
PIM_MESSAGE_INFO_KIND(assertMessage, AssertMessage, msg->pimMessageType() == Nimo::pimAssert())
PIM_MESSAGE_INFO_KIND(crpAdvMessage, CrpAdvMessage,
                      msg->pimMessageType() == Nimo::pimCrpAdvertisement())
PIM_MESSAGE_INFO_KIND(dfElectionMessage, DfElectionMessage,
                      msg->pimMessageType() == Nimo::pimDfElection())
PIM_MESSAGE_INFO_KIND(dfElectionOfferMessage, DfElectionOfferMessage,
                      msg->dfElectionMessageType() == DfElectionMessage::dfElectionOffer())
PIM_MESSAGE_INFO_KIND(dfElectionWinnerMessage, DfElectionWinnerMessage,
                      msg->dfElectionMessageType() == DfElectionMessage::dfElectionWinner())
PIM_MESSAGE_INFO_KIND(dfElectionBackoffMessage, DfElectionBackoffMessage,
                      msg->dfElectionMessageType() == DfElectionMessage::dfElectionBackoff())
PIM_MESSAGE_INFO_KIND(dfElectionPassMessage, DfElectionPassMessage,
                      msg->dfElectionMessageType() == DfElectionMessage::dfElectionPass())
#undef PIM_MESSAGE_INFO_KIND

// ---------------------------------------------------------------------------------------
// PamManager

PamManager::PamManager(const L3::VrfName& vrf, Nimo::AddressFamily af, Nimo::NamespaceName netNs,
                       bool overrideIpHeader)
    : Kel::Entity(Kel::Name("PamManager")),
      vrf_(vrf),
      af_(af),
      netNs_(std::move(netNs)),
      overrideIpHeader_(overrideIpHeader) {
  handlePamInit();
  handlePamCounterInit();
  handleTxMessageInfoInit();
}

std::string PamManager::prefix() const { return fmt::format("<Vrf:{}>", vrf_.name()); }

void PamManager::handlePamInit() {
  Kel::Ptr<Nimo::IpPam> p;
  switch (af_) {
    case Nimo::AddressFamily::ipv4:
      FLICK_TRACE(ioTrace(), 4, "{} Initializing Pam for IPv4", prefix());
      pam4_ = Nimo::ipPamFactory("Pim4", af_, Nimo::kIpProtoPim, netNs_);
      if (overrideIpHeader_) pam4_->optionsIs(pam4_->options() | Nimo::IpPam::kOptHeaderInclude);
      p = pam4_;
      break;
    case Nimo::AddressFamily::ipv6:
      FLICK_TRACE(ioTrace(), 4, "{} Initializing Pam for IPv6", prefix());
      if (overrideIpHeader_) {
        pam6HeaderInclude_ = Nimo::ipPamFactory("Pim6", af_, Nimo::kIpProtoPim, netNs_, true);
        p = pam6HeaderInclude_;
      } else {
        pam6_ = Nimo::ipPamFactory("Pim6", af_, Nimo::kIpProtoPim, netNs_);
        p = pam6_;
      }
      break;
    default:
      KEL_ASSERT(0 && "Unsupported address family.");
  }
  // A socket that could not be opened is no socket: the agent sees pam() empty.
  pamIs(p->ok() ? p : nullptr);
  if (!pam_) return;
  pam_->paramIs(Nimo::IpPam::kParamRxBuffer, Nimo::IpPam::kDefaultRxBuffer);
  pam_->optionsIs(pam_->options() | Nimo::IpPam::kOptRxIfIndex | Nimo::IpPam::kOptRxTos |
                  Nimo::IpPam::kOptRxTtl);
  handleTransparentIp();
}

void PamManager::pamIs(const Kel::Ptr<Nimo::IpPam>& p) {
  if (pam_ == p) return;
  pam_ = p;
  notifiees_.forEach([](NotifieeConst& n) { n.onPam(); });
}

void PamManager::transparentIpIs(bool t) {
  if (transparentIp_ == t) return;
  transparentIp_ = t;
  handleTransparentIp();
}

void PamManager::handleTransparentIp() {
  if (!pam_) return;
  const std::uint32_t o = pam_->options();
  pam_->optionsIs(transparentIp_ ? (o | Nimo::IpPam::kOptTransparent)
                                 : (o & ~Nimo::IpPam::kOptTransparent));
}

void PamManager::doResetFilter() {
  bpfLen_ = 0;
  if (pam_) pam_->rxFilterDelAll();
}

void PamManager::doAddFilterStmt(std::uint16_t code, std::uint32_t k) {
  FLICK_TRACE(ioTrace(), 8, "{} ( code={}, k={} )", prefix(), code, k);
  if (pam_) pam_->rxFilterIs(Nimo::BpfInsn{code, 0, 0, k});
  ++bpfLen_;
}

void PamManager::doAddFilterJmp(std::uint16_t code, std::uint32_t k, std::uint8_t jt,
                                std::uint8_t jf) {
  FLICK_TRACE(ioTrace(), 8,
              "{} ( code={}, k={}, jump {} statements if true else jump {} statements )", prefix(),
              code, k, jt, jf);
  if (pam_) pam_->rxFilterIs(Nimo::BpfInsn{code, jt, jf, k});
  ++bpfLen_;
}

int PamManager::doApplyFilter() { return pam_ ? pam_->applyRxFilter() : EBADF; }

const Kel::Ptr<MessageInfo>& PamManager::rxMessageInfoIs(Packet::MessageType t) {
  auto& slot = rxMessageInfo_[t & 0x0f];
  if (!slot) {
    slot = Kel::Ptr<MessageInfo>::make(Kel::Name(fmt::format("rxMessageInfo{}", t & 0x0f)));
    rxMessageInfoNotify(t);
  }
  return slot;
}

void PamManager::rxMessageInfoDel(Packet::MessageType t) {
  auto& slot = rxMessageInfo_[t & 0x0f];
  if (!slot) return;
  slot = nullptr;
  rxMessageInfoNotify(t);
}

void PamManager::rxMessageInfoNotify(Packet::MessageType t) {
  notifiees_.forEach([t](NotifieeConst& n) { n.onRxMessageInfo(t); });
}

std::uint16_t PamManager::rxMessageInfoMask() const noexcept {
  std::uint16_t m = 0;
  for (unsigned t = 0; t < 16; ++t)
    if (rxMessageInfo_[t]) m = static_cast<std::uint16_t>(m | (1u << t));
  return m;
}

void PamManager::handleTxMessageInfoInit() {
  txMessageInfo_ = Kel::Ptr<MessageInfo>::make(Kel::Name("txMessageInfo"));
  notifiees_.forEach([](NotifieeConst& n) { n.onTxMessageInfo(); });
}

void PamManager::handlePamCounterInit() {
  rxPamCounter_ = Kel::Ptr<PamCounter>::make();
  txPamCounter_ = Kel::Ptr<PamCounter>::make();
}

Kel::Ptr<PamManager> pamManagerFactory(const L3::VrfName& vrf, Nimo::AddressFamily af,
                                       const Nimo::NamespaceName& netNs, bool overrideIpHeader) {
  return Kel::Ptr<PamManager>::make(vrf, af, netNs, overrideIpHeader);
}

}  // namespace Routing::Pim::IO
