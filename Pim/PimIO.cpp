// IOSm, receive side.
//
// Inputs: PamManager (onPam, onRxMessageInfo), the pam (onReadableCount), the kernel
// interface directory (onIntfStatus), the PIM status (onIntf, onActiveNeighbor);
// timer unresTimer -> handleUnresolvedPackets.
#include "Pim/PimIO.h"

#include <netinet/in.h>

#include <cerrno>
#include <cstring>

namespace Routing::Pim::IO {

const Flicklog::LogMessage PIM_MESSAGE_INVALID_VERSION{
    "PIM_MESSAGE_INVALID_VERSION", 4, "Invalid PIM version %d received from source %s.",
    "The version sent by the peer PIM router is not supported.",
    "Capture the packet using tcpdump and contact support."};
const Flicklog::LogMessage PIM_MESSAGE_INVALID_TYPE{
    "PIM_MESSAGE_INVALID_TYPE", 4, "Invalid PIM type %d received from source %s.",
    "The PIM type is not recognized.", "Capture the packet using tcpdump and contact support."};
const Flicklog::LogMessage PIM_MESSAGE_INVALID_DESTINATION{
    "PIM_MESSAGE_INVALID_DESTINATION", 4,
    "Invalid PIM destination %s for PIM type %d received from source %s.",
    "The IP destination sent by the peer PIM router is not correct.",
    "Capture the packet using tcpdump and contact support."};
const Flicklog::LogMessage PIM_MESSAGE_UNPROCESSQ_FULL{
    "PIM_MESSAGE_UNPROCESSQ_FULL", 4,
    "PIM unprocessed message queue is full for neighbor %s, message type 0x%x on VRF %s.",
    "Delayed protocol convergence is expected.", "No action is required."};

namespace {

using Packet::MessageType;

// Trace texts, in the order the receive path meets them.
constexpr std::string_view kUnknownAf = ": Unknown address family ";
constexpr std::string_view kMissingIpHeader = "RX: Error - Missing Ip Header - Remaining: ";
constexpr std::string_view kBadIhl = "RX: Error - Invalid Ip Header Length - Ihl: ";
constexpr std::string_view kMissingPimHeader = "RX: Error - Missing Pim Header - Remaining: ";
constexpr std::string_view kBadKernelIntf = "RX: Error - Invalid Kernel Interface - Id: ";
constexpr std::string_view kBadIntf = "RX: Error - Invalid Interface - Id: ";
constexpr std::string_view kServiceAcl = "RX: Filtered - packet dropped by service ACL";
constexpr std::string_view kBadPimIntf = "RX: Error - Invalid Pim Interface - Type: ";
constexpr std::string_view kMbr = "RX: Filtered - Pim Interface has MBR - Type: ";
constexpr std::string_view kNbrFiltered = "RX: Filtered - Type: ";
constexpr std::string_view kNotAllPimRouters =
    "RX: Error - Invalid Pim Message - Destination is Not ALL-PIM-ROUTERS - Type: ";
constexpr std::string_view kDstMulticast = "RX: Error - Invalid Pim Message - Type: ";
constexpr std::string_view kDfNoNeighbor =
    "RX: Error - Invalid Pim Message - Drop DF election message  because neighborship does not "
    "exist: ";
constexpr std::string_view kQueueFull =
    "RX: Error - Invalid Pim Message - Neighbor Queue Full - Type: ";
constexpr std::string_view kQueuesFull =
    "RX: Error - Invalid Pim Message - Unresolved Queues Full - Type: ";
constexpr std::string_view kBadVersion = "RX: Error - Invalid Pim Version - Version: ";
constexpr std::string_view kBadType = "RX: Error - Invalid Pim Message - Type: ";
constexpr std::string_view kUnsupported = "RX: Error - Unsupported Pim Message - Type: ";
constexpr std::string_view kNoMessageInfo = "RX: Error - No Message Info - Type: ";
constexpr std::string_view kHelloReadError = "RX: Error - Invalid Pim Hello - Read Error";
constexpr std::string_view kRegisterReadError = "RX: Error - Invalid Pim Register - Read Error";
constexpr std::string_view kRegisterStopReadError =
    "RX: Error - Invalid Pim Register Stop - Read Error";
constexpr std::string_view kJoinPruneReadError = "RX: Error - Invalid Pim Join/Prune - Read Error";
constexpr std::string_view kJoinPruneZeroGroups = "RX: Filtered - Pim Join/Prune - Zero Groups";
constexpr std::string_view kBootstrapReadError = "RX: Error - Invalid Pim Bootstrap - Read Error";
constexpr std::string_view kBootstrapFrom = "RX: Bootstrap Message from ";
constexpr std::string_view kBootstrapBoundary =
    "RX: Bootstrap: Group in Boundary Filter - Packet Filtered";
constexpr std::string_view kAssertReadError = "RX: Error - Invalid Pim Assert - Read Error";
constexpr std::string_view kAssertBoundary =
    "RX: Assert: Group is Boundary filter - Packet Filtered";
constexpr std::string_view kCrpAdvReadError = "RX: Error - Invalid Pim CrpAdv - Read Error";
constexpr std::string_view kDfOfferReadError =
    "RX: Error - Invalid Pim DF Election Offer - Read Error";
constexpr std::string_view kDfWinnerReadError =
    "RX: Error - Invalid Pim DF Election Winner - Read Error";
constexpr std::string_view kDfBackoffReadError =
    "RX: Error - Invalid Pim DF Election Backoff - Read Error";
constexpr std::string_view kDfPassReadError =
    "RX: Error - Invalid Pim DF Election Pass - Read Error";
constexpr std::string_view kDfUnsupported = "RX: Error - Unsupported Pim DF Election Type";

constexpr std::uint8_t kMessageSubtypeNone = 255;

bool isHandled(MessageType t) {
  switch (t) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4:
    case 5:
    case 8:
    case 10:
      return true;
    default:
      return false;
  }
}
// Known to PIM but not processed here: Graft, Graft-Ack (dense mode), State Refresh.
bool isKnownUnhandled(MessageType t) { return t == 6 || t == 7 || t == 9; }

}  // namespace

const Nimo::IpGenAddr& allPimRouters(Nimo::AddressFamily af) {
  static const Nimo::IpGenAddr v4("224.0.0.13"), v6("ff02::d");
  return af == Nimo::AddressFamily::ipv4 ? v4 : v6;
}

Kel::Ptr<RxPktContext> rxPktContextFactory(Kel::Ptr<Nimo::Pkt> pkt, std::uint32_t ifIndex) {
  return Kel::Ptr<RxPktContext>::make(std::move(pkt), ifIndex);
}

// ---------------------------------------------------------------------------------------
// Reactors.

class IOSm::PamReactor : public Nimo::IpPam::NotifieeConst {
 public:
  explicit PamReactor(IOSm& o) : owner_(o) {}
  void onReadableCount() override {
    if (owner_.initialized_) owner_.rxPkt();
  }
  void onTxPktCount() override { owner_.handleTxSuccess(); }
  void onTxErrors() override { owner_.handleTxError(); }

 private:
  IOSm& owner_;
};

class IOSm::PamManagerReactor : public PamManager::NotifieeConst {
 public:
  explicit PamManagerReactor(IOSm& o) : owner_(o) {}
  void onPam() override { owner_.handlePam(); }
  void onRxMessageInfo(MessageType) override {
    if (owner_.initialized_) owner_.handlePamFilter();
  }

 private:
  IOSm& owner_;
};

class IOSm::IntfDirReactor : public Interface::IntfStatusDir::NotifieeConst {
 public:
  explicit IntfDirReactor(IOSm& o) : owner_(o) {}
  void onIntfStatus(const Nimo::IntfId& id) override {
    if (owner_.initialized_) owner_.handleInterface(id);
  }

 private:
  IOSm& owner_;
};

class IOSm::StatusReactor : public Routing::Pim::Status::NotifieeConst {
 public:
  explicit StatusReactor(IOSm& o) : owner_(o) {}
  void onIntf(const Nimo::IntfId& id) override {
    if (owner_.initialized_) owner_.handlePimInterface(id);
  }
  void onActiveNeighbor(const Routing::Pim::ActiveNeighborKey& k) override {
    if (notifier()->activeNeighbor(k)) owner_.handleNewNeighbor(k.intfId, k.address);
  }

 private:
  IOSm& owner_;
};

class IOSm::TxReactor : public MessageInfo::NotifieeConst {
 public:
  explicit TxReactor(IOSm& o) : owner_(o) {}
  void onCount() override {
    if (owner_.initialized_) owner_.txPkt();
  }

 private:
  IOSm& owner_;
};

class IOSm::AttrLogReactor : public Kel::NboAttrLog::SocketOutSm::NotifieeConst {
 public:
  explicit AttrLogReactor(IOSm& o) : owner_(o) {}
  void onClogged() override { owner_.handleAttrLogClogged(); }

 private:
  IOSm& owner_;
};

// ---------------------------------------------------------------------------------------
// Construction and inputs.

IOSm::IOSm(const L3::VrfName& vrf, Ulm::EventLoop& loop)
    : Kel::Entity(Kel::Name("IOSm")),
      vrf_(vrf),
      loop_(loop),
      unresTimer_(loop.timers(), [this] { handleUnresolvedPackets(); }),
      pamManagerReactor_(std::make_unique<PamManagerReactor>(*this)),
      pamReactor_(std::make_unique<PamReactor>(*this)),
      intfDirReactor_(std::make_unique<IntfDirReactor>(*this)),
      statusReactor_(std::make_unique<StatusReactor>(*this)),
      attrLogReactor_(std::make_unique<AttrLogReactor>(*this)),
      txReactor_(std::make_unique<TxReactor>(*this)),
      txCommitTimer_(loop.timers(), [this] { txCommit(); }) {}

IOSm::~IOSm() {
  if (pimPamManager_ && pimPamManager_->pam()) pimPamManager_->pam()->loopIs(nullptr);
  if (txCommitTimer_.armed()) txCommit();
}

void IOSm::pimCountersIs(const Kel::Ptr<Routing::Pim::Drobe::MessageCounters>& c) {
  if (c == pimCounters_) return;
  if (txCommitTimer_.armed()) txCommit();  // the old table's counts go out first
  pimCounters_ = c;
}

std::string IOSm::prefix() const { return fmt::format("<Vrf:{}>", vrf_.name()); }

void IOSm::pimPamManagerIs(const Kel::Ptr<PamManager>& m) {
  if (pimPamManager_ == m) return;
  if (pimPamManager_ && pimPamManager_->pam()) pimPamManager_->pam()->loopIs(nullptr);
  pimPamManager_ = m;
  pamManagerReactor_->notifierIs(m);
  pamReactor_->notifierIs(m ? m->pam() : nullptr);
  txReactor_->notifierIs(m ? m->txMessageInfo() : nullptr);
  txSockTos_.reset();
  txSockTtl_.reset();
}

void IOSm::handlePam() {
  const auto& pam = pimPamManager_->pam();
  pamReactor_->notifierIs(pam);
  txSockTos_.reset();  // a new socket has the kernel's defaults
  txSockTtl_.reset();
  if (!initialized_ || !pam) return;
  // A new socket has neither the memberships nor the filter of the old one.
  allPimRoutersMember_.clear();
  filterMask_.reset();
  handleInterface();
  handlePamFilter();
  pam->loopIs(&loop_);
}

void IOSm::pimAttrLogSmIs(const Kel::Ptr<Routing::Pim::PimAttrLogSm>& a) {
  pimAttrLogSm_ = a;
  attrLogReactor_->notifierIs(a ? a->nboAttrLogOutSm() : nullptr);
}

bool IOSm::isAttrLogOutClogged() const noexcept {
  return pimAttrLogSm_ && pimAttrLogSm_->nboAttrLogOutSm() &&
         pimAttrLogSm_->nboAttrLogOutSm()->clogged();
}

void IOSm::handleAttrLogClogged() {
  if (!initialized_ || !pimPamManager_ || !pimPamManager_->pam()) return;
  if (isAttrLogOutClogged()) return;  // the receive loop unwatches when it meets the clog
  pimPamManager_->pam()->loopIs(&loop_);
  rxPkt();
}

void IOSm::mcastBoundaryStatusIs(const Kel::Ptr<const Routing::McastBoundary::Status>& s) {
  mcastBoundaryStatus_ = s;
  mcastBoundary_ = s ? Routing::Pim::Boundary::mcastBoundaryFactory(name(), s) : nullptr;
}

void IOSm::pimStatusIs(const Kel::Ptr<Routing::Pim::Status>& s) {
  pimStatus_ = s;
  statusReactor_->notifierIs(s);
}

void IOSm::kernelIntfStatusDirIs(const Kel::Ptr<Interface::IntfStatusDir>& d) {
  kernelIntfStatusDir_ = d;
  intfDirReactor_->notifierIs(d);
}

void IOSm::initializedIs(bool i) {
  if (initialized_ == i) return;
  if (i) {
    handleInitialized();
  } else {
    initialized_ = false;
  }
}

void IOSm::handleInitialized() {
  KEL_ASSERT(pimPamManager_);
  if (pimPamManager_->pam()) pimPamManager_->pam()->maxRxPktDataIs(kMaxRxPktData);
  FLICK_TRACE(ioTrace(), 4, "{} Enabling Pam {}", prefix(), vrf_.name());
  handleInterface();
  mcastBoundaryStatusIs(mcastBoundaryStatus_);
  initialized_ = true;
  handlePamFilter();
  if (pimPamManager_->pam()) pimPamManager_->pam()->loopIs(&loop_);
}

// ---------------------------------------------------------------------------------------
// Interfaces and memberships.

void IOSm::handleInterface() {
  if (!kernelIntfStatusDir_) return;
  for (const auto& [id, s] : kernelIntfStatusDir_->intfStatus()) handleInterface(id);
}

void IOSm::handleInterface(const Nimo::IntfId& id) {
  KEL_ASSERT(pimPamManager_);
  const Interface::IntfStatus* s =
      kernelIntfStatusDir_ ? kernelIntfStatusDir_->intfStatus(id) : nullptr;
  const Intf* known = pimPamManager_->intf(id);
  // A device that went away or changed its index leaves the maps and the group first.
  if (known && (!s || !s->hasDevice() || s->ifIndex != known->ifIndex)) {
    const std::uint32_t old = known->ifIndex;
    if (allPimRoutersMember_.count(id)) dropPimRoutersMembership(id, old);
    pimPamManager_->kernelIntfDel(old);
    pimPamManager_->intfDel(id);
  }
  if (!s || !s->hasDevice()) return;
  pimPamManager_->intfIs(id, s->ifIndex);
  pimPamManager_->kernelIntfIs(s->ifIndex, id);
  doMaybeUpdatePimRoutersMembership(id, s->ifIndex);
}

void IOSm::handlePimInterface(const Nimo::IntfId& id) {
  const Intf* known = pimPamManager_ ? pimPamManager_->intf(id) : nullptr;
  auto member = allPimRoutersMember_.find(id);
  if (known) {
    doMaybeUpdatePimRoutersMembership(id, known->ifIndex);
  } else if (member != allPimRoutersMember_.end()) {
    dropPimRoutersMembership(id, member->second);
  }
  if (pimStatus_ && !pimStatus_->intf(id) && pimCounters_ && pimCounters_->writable()) {
    // The interface's counters go with it.
    std::vector<Routing::Pim::Drobe::CounterKey> keys;
    pimCounters_->msgCounterForEach([&](const Routing::Pim::Drobe::MessageCounterData& d) {
      if (d.key().intfId() == id) keys.push_back(d.key());
    });
    for (const auto& k : keys) pimCounters_->msgCounterDel(k);
    pimCounters_->msgCounterCommit();
  }
}

bool IOSm::wantMembership(const Nimo::IntfId& id) const {
  if (!pimStatus_ || !pimStatus_->intf(id)) return false;
  const Interface::IntfStatusDir* dir =
      allIntfStatusDir_ ? allIntfStatusDir_.ptr() : kernelIntfStatusDir_.ptr();
  const Interface::IntfStatus* s = dir ? dir->intfStatus(id) : nullptr;
  return s && s->hasDevice();
}

void IOSm::doMaybeUpdatePimRoutersMembership(const Nimo::IntfId& id, std::uint32_t ifIndex) {
  auto member = allPimRoutersMember_.find(id);
  if (wantMembership(id)) {
    if (member != allPimRoutersMember_.end() && member->second == ifIndex) return;
    if (member != allPimRoutersMember_.end()) dropPimRoutersMembership(id, member->second);
    addPimRoutersMembership(id, ifIndex);
  } else if (member != allPimRoutersMember_.end()) {
    dropPimRoutersMembership(id, member->second);
  }
}

void IOSm::addPimRoutersMembership(const Nimo::IntfId& id, std::uint32_t ifIndex) {
  FLICK_TRACE(ioTrace(), 4, "{} Add ALL-PIM-ROUTERS Group Membership - IntfId: {} IfIndex: {}",
              prefix(), id, ifIndex);
  const auto& pam = pimPamManager_->pam();
  int err = EBADF;
  switch (pimPamManager_->af()) {
    case Nimo::AddressFamily::ipv4: {
      ip_mreqn req{};
      req.imr_multiaddr.s_addr = htonl(0xE000000D);
      req.imr_ifindex = static_cast<int>(ifIndex);
      static_assert(sizeof req == 12);
      if (pam) err = pam->sockOptIs(IPPROTO_IP, IP_ADD_MEMBERSHIP, &req, sizeof req);
      if (err) {
        FLICK_TRACE(ioTrace(), 1, "{} Add ALL-PIM-ROUTERS Group Membership - Failed - Error: {}",
                    prefix(), err);
      }
      break;
    }
    case Nimo::AddressFamily::ipv6: {
      ipv6_mreq req{};
      std::memcpy(&req.ipv6mr_multiaddr, allPimRouters(Nimo::AddressFamily::ipv6).bytes(), 16);
      req.ipv6mr_interface = ifIndex;
      static_assert(sizeof req == 20);
      if (pam) err = pam->sockOptIs(IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &req, sizeof req);
      if (err) {
        FLICK_TRACE(ioTrace(), 1, "{} Add ALL-PIMV6-ROUTERS Group Membership - Failed - Error: {}",
                    prefix(), err);
      }
      break;
    }
    default:
      FLICK_TRACE(ioTrace(), 1, "{} Unsupported address family {}", prefix(),
                  static_cast<int>(pimPamManager_->af()));
      return;
  }
  if (err == ENODEV) {
    FLICK_TRACE(ioTrace(), 1, "{} ( Device is not ready yet ) IntfId: {}", prefix(), id);
  }
  // Recorded whatever the outcome: the next change of the interface re-evaluates it.
  allPimRoutersMember_[id] = ifIndex;
}

void IOSm::dropPimRoutersMembership(const Nimo::IntfId& id, std::uint32_t ifIndex) {
  const auto& pam = pimPamManager_->pam();
  int err = EBADF;
  if (pimPamManager_->af() == Nimo::AddressFamily::ipv4) {
    FLICK_TRACE(ioTrace(), 4, "{} Drop ALL-PIM-ROUTERS Group Membership - IntfId: {}", prefix(),
                id);
    ip_mreqn req{};
    req.imr_multiaddr.s_addr = htonl(0xE000000D);
    req.imr_ifindex = static_cast<int>(ifIndex);
    if (pam) err = pam->sockOptIs(IPPROTO_IP, IP_DROP_MEMBERSHIP, &req, sizeof req);
    if (err) {
      FLICK_TRACE(ioTrace(), 1, "{} Drop ALL-PIM-ROUTERS Group Membership - Failed - Error: {}",
                  prefix(), err);
    }
  } else if (pimPamManager_->af() == Nimo::AddressFamily::ipv6) {
    FLICK_TRACE(ioTrace(), 4, "{} Drop ALL-PIMV6-ROUTERS Group Membership - IntfId: {}", prefix(),
                id);
    ipv6_mreq req{};
    std::memcpy(&req.ipv6mr_multiaddr, allPimRouters(Nimo::AddressFamily::ipv6).bytes(), 16);
    req.ipv6mr_interface = ifIndex;
    if (pam) err = pam->sockOptIs(IPPROTO_IPV6, IPV6_DROP_MEMBERSHIP, &req, sizeof req);
    if (err) {
      FLICK_TRACE(ioTrace(), 1, "{} Drop ALL-PIMV6-ROUTERS Group Membership - Failed - Error: {}",
                  prefix(), err);
    }
  }
  allPimRoutersMember_.erase(id);
}

// ---------------------------------------------------------------------------------------
// Filter program.

void IOSm::handlePamFilter() {
  PamManager& m = *pimPamManager_;
  const std::uint16_t mask = m.rxMessageInfoMask();
  if (filterMask_ == mask) return;
  m.doResetFilter();
  switch (m.af()) {
    case Nimo::AddressFamily::ipv4:
      // The version/type octet sits behind an IPv4 header of any length.
      m.doAddFilterStmt(Bpf::kLdB, 0);
      m.doAddFilterStmt(Bpf::kAndK, 15);
      m.doAddFilterStmt(Bpf::kLshK, 2);
      m.doAddFilterStmt(Bpf::kTax, 0);
      m.doAddFilterStmt(Bpf::kLdBInd, 0);
      m.doAddFilterStmt(Bpf::kAndK, 15);
      break;
    case Nimo::AddressFamily::ipv6:
      m.doAddFilterStmt(Bpf::kLdB, 0);
      m.doAddFilterStmt(Bpf::kAndK, 15);
      break;
    default:
      KEL_ASSERT(0 && "Unknown Address family");
  }
  int jumps = 0;
  for (unsigned t = 0; t < 16; ++t) jumps += (mask >> t) & 1;
  for (unsigned t = 0; t < 16; ++t) {
    if (!((mask >> t) & 1)) continue;
    --jumps;
    m.doAddFilterJmp(Bpf::kJeqK, t, static_cast<std::uint8_t>(jumps), jumps == 0 ? 1 : 0);
  }
  if (mask == 0) {
    // Nothing registered: the first return reached is the reject.
    m.doAddFilterStmt(Bpf::kRetK, 0);
    m.doAddFilterStmt(Bpf::kRetK, PamManager::kFilterAccept);
  } else {
    m.doAddFilterStmt(Bpf::kRetK, PamManager::kFilterAccept);
    m.doAddFilterStmt(Bpf::kRetK, 0);
  }
  if (m.pam()) {
    if (int err = m.doApplyFilter()) {
      FLICK_TRACE(ioTrace(), 1, "{} Apply Filter - Failed - Error: {}", prefix(), err);
      return;  // filterMask_ unchanged: the next change tries again
    }
  }
  filterMask_ = mask;
}

// ---------------------------------------------------------------------------------------
// Counting.

void IOSm::incCounter(MessageCounterDirection dir, MessageCounterType ct,
                      const Routing::Pim::Drobe::CounterKey& key) {
  pimCounters_->msgCounterInc(key, dir, ct);
}

void IOSm::updateCounter(MessageCounterDirection dir, MessageType type, int subtype,
                         const Nimo::IntfId& intf, MessageCounterType ct) {
  if (!pimCounters_) return;
  using Routing::Pim::Drobe::CounterKey;
  const MessageType t = type & 0x0f;
  const Nimo::IntfId all;
  incCounter(dir, ct, CounterKey(t, kMessageSubtypeNone, all));
  if (!intf.empty()) incCounter(dir, ct, CounterKey(t, kMessageSubtypeNone, intf));
  if (subtype >= 0 && subtype < kMessageSubtypeNone) {
    const auto s = static_cast<Packet::MessageSubtype>(subtype);
    incCounter(dir, ct, CounterKey(t, s, all));
    if (!intf.empty()) incCounter(dir, ct, CounterKey(t, s, intf));
  }
}

bool IOSm::drop(const RxPktContext& ctx, MessageCounterType ct, int subtype) {
  updateCounter(MessageCounterDirection::rx, ctx.pimHdr().type(), subtype, ctx.intfId(), ct);
  return false;
}

// ---------------------------------------------------------------------------------------
// Receive loop.

void IOSm::rxPkt() {
  if (!pimPamManager_ || !pimPamManager_->pam()) return;
  Nimo::IpPam& pam = *pimPamManager_->pam();
  PamCounter& counter = *pimPamManager_->rxPamCounter();
  const Kel::Clock& clock = *loop_.clock();
  const Kel::Time start = clock.now();
  while (clock.now() - start < loopQuantum_) {
    if (isAttrLogOutClogged()) {
      // Level-triggered: a watched socket would wake the loop at once, again and again.
      pam.loopIs(nullptr);
      break;
    }
    Kel::Ptr<Nimo::Pkt> pkt = pam.rxPkt();
    if (!pkt) break;
    counter.countInc();
    if (processPkt(rxPktContextFactory(std::move(pkt), pam.rxIfIndex()))) counter.processedInc();
  }
  if (pimCounters_ && pimCounters_->writable()) pimCounters_->msgCounterCommit();
}

bool IOSm::processPkt(const Kel::Ptr<RxPktContext>& c) {
  RxPktContext& ctx = *c;
  ctx.remainingIs(ctx.pkt()->size());
  if (!readIpHeader(ctx) || !peekPimHeader(ctx) || !validateRxInterface(ctx)) return false;
  FLICK_TRACE(ioTrace(), 7, "{} RX: Intf: {}", prefix(), ctx.intfId());
  if (!validateRxDstAddress(ctx) || !validateRxSrcAddress(ctx)) return false;

  const PimHeader& h = ctx.pimHdr();
  const Nimo::IpGenAddr& src = ctx.ipHdr().src;
  if (h.version() != 2) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kBadVersion, h.version());
    Flicklog::logMessage(PIM_MESSAGE_INVALID_VERSION, int{h.version()}, src.str());
    pimPamManager_->rxPamCounter()->errorInc();
    return drop(ctx, MessageCounterType::invalid);
  }
  if (isKnownUnhandled(h.type())) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kUnsupported, h.type());
    pimPamManager_->rxPamCounter()->errorInc();
    return drop(ctx, MessageCounterType::invalid);
  }
  if (!isHandled(h.type())) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kBadType, h.type());
    Flicklog::logMessage(PIM_MESSAGE_INVALID_TYPE, int{h.type()}, src.str());
    pimPamManager_->rxPamCounter()->errorInc();
    return drop(ctx, MessageCounterType::invalid);
  }
  switch (h.type()) {
    case 0:
      return processHelloMessage(ctx);
    case 1:
      return processRegisterMessage(ctx);
    case 2:
      return processRegisterStopMessage(ctx);
    case 3:
      return processJoinPruneMessage(ctx);
    case 4:
      return processBootstrapMessage(ctx);
    case 5:
      return processAssertMessage(ctx);
    case 8:
      return processCrpAdvMessage(ctx);
    default:  // 10, the last type isHandled admits
      return processDfElectionMessage(ctx);
  }
}

bool IOSm::readIpHeader(RxPktContext& ctx) {
  IpHeader ip;
  ip.af = pimPamManager_->af();
  const std::uint32_t have = ctx.remaining();
  auto missing = [&] {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kMissingIpHeader, have);
    pimPamManager_->rxPamCounter()->errorInc();
    return false;
  };
  if (ip.af == Nimo::AddressFamily::ipv4) {
    if (have < Nimo::Ipv4Hdr::kMinSize) return missing();
    // Read-only use of the view: the buffer is never written here.
    Nimo::Ipv4Hdr v4(const_cast<std::uint8_t*>(ctx.pkt()->data(0, Nimo::Ipv4Hdr::kMinSize)));
    ip.headerLength = v4.headerLength();
    if (ip.headerLength < Nimo::Ipv4Hdr::kMinSize) {
      FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kBadIhl, ip.headerLength / 4);
      pimPamManager_->rxPamCounter()->errorInc();
      return false;
    }
    if (have < ip.headerLength) return missing();
    ip.tos = v4.tos();
    ip.ttl = v4.ttl();
    ip.protocol = v4.protocol();
    ip.src = v4.src();
    ip.dst = v4.dst();
    if (ioTrace().enabled(9)) {
      const std::uint8_t* p = ctx.pkt()->data(0);
      const std::uint16_t frag = Nimo::load16(p + 6);
      FLICK_TRACE(ioTrace(), 9,
                  "{} RX: <IP version={} ihl={} tos={} len={} id={} frag={} dontFrag={} "
                  "moreFrag={} reservedFragFlag={} ttl={} proto={} chksum={} computed chksum={} "
                  "src={} dst={}> Length: {}",
                  prefix(), v4.version(), ip.headerLength / 4, ip.tos, v4.totalLength(),
                  Nimo::load16(p + 4), frag & 0x1fff, (frag >> 14) & 1, (frag >> 13) & 1,
                  frag >> 15, ip.ttl, ip.protocol, v4.checksum(),
                  Nimo::inetChecksum(p, ip.headerLength), ip.src, ip.dst, have);
    }
  } else if (ip.af == Nimo::AddressFamily::ipv6) {
    if (have < Nimo::Ipv6Hdr::kSize) return missing();
    Nimo::Ipv6Hdr v6(const_cast<std::uint8_t*>(ctx.pkt()->data(0, Nimo::Ipv6Hdr::kSize)));
    ip.headerLength = Nimo::Ipv6Hdr::kSize;
    ip.tos = v6.trafficClass();
    ip.ttl = v6.hopLimit();
    ip.protocol = v6.nextHeader();
    ip.src = v6.src();
    ip.dst = v6.dst();
    FLICK_TRACE(ioTrace(), 9,
                "{} RX: <IP version=6 tos={} len={} ttl={} proto={} src={} dst={}> Length: {}",
                prefix(), ip.tos, v6.payloadLength(), ip.ttl, ip.protocol, ip.src, ip.dst, have);
  } else {
    FLICK_TRACE(ioTrace(), 1, "{}{}{}", prefix(), kUnknownAf, static_cast<int>(ip.af));
    return false;
  }
  ctx.ipHdrIs(ip);
  ctx.remainingIs(have - ip.headerLength);
  return true;
}

bool IOSm::peekPimHeader(RxPktContext& ctx) {
  if (ctx.remaining() < Nimo::PimCommonHdr::kSize) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kMissingPimHeader, ctx.remaining());
    pimPamManager_->rxPamCounter()->errorInc();
    return false;
  }
  ctx.pimHdrIs(PimHeader{*ctx.pkt()->data(ctx.ipHdr().headerLength)});
  return true;
}

bool IOSm::validateRxInterface(RxPktContext& ctx) {
  const MessageType t = ctx.pimHdr().type();
  const KernelIntf* k = pimPamManager_->kernelIntf(ctx.ifIndex());
  if (!k) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kBadKernelIntf, ctx.ifIndex());
    return drop(ctx, MessageCounterType::invalid);
  }
  const Interface::IntfStatus* p =
      ipGenIntfStatus_ ? ipGenIntfStatus_->intfStatus(k->intfId) : nullptr;
  if (!p) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kBadIntf, k->intfId);
    return drop(ctx, MessageCounterType::invalid);
  }
  // Counted on the interface from here on.
  ctx.intfIdIs(k->intfId);
  if (serviceAclFilterSm_ && !serviceAclFilterSm_->matchesRaw(*ctx.pkt(), vrf_, k->intfId)) {
    FLICK_TRACE(ioTrace(), 5, "{} {}", prefix(), kServiceAcl);
    return drop(ctx, MessageCounterType::filtered);
  }
  const Routing::Pim::StatusIntf* pim = pimStatus_ ? pimStatus_->intf(k->intfId) : nullptr;
  if (!pim) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kBadPimIntf, t);
    return drop(ctx, MessageCounterType::invalid);
  }
  if (pim->mbr) {
    FLICK_TRACE(ioTrace(), 5, "{} {}{}", prefix(), kMbr, t);
    return drop(ctx, MessageCounterType::filtered);
  }
  const Nimo::IpGenAddr& src = ctx.ipHdr().src;
  if (neighborFiltered(t, src, k->intfId)) {
    bool pass = false;
    if (t == 0) {
      // A denied Hello still passes when one of its secondary addresses is permitted.
      ctx.intfIdIs(k->intfId);
      auto hello = Kel::Ptr<Packet::HelloMessage>::make();
      hello->srcIpIs(src);
      hello->dstIpIs(ctx.ipHdr().dst);
      if (!hello->readHelloMessage(ctx.pkt(), ctx.ipHdr().headerLength)) {
        FLICK_TRACE(ioTrace(), 1, "{} {}", prefix(), kHelloReadError);
        return drop(ctx, MessageCounterType::invalid);
      }
      for (const auto& a : hello->secondaryAddr()) {
        if (!neighborFiltered(t, a, k->intfId)) {
          pass = true;
          break;
        }
      }
      ctx.helloIs(hello);
    }
    if (!pass) {
      FLICK_TRACE(ioTrace(), 5, "{} {}{} Interface: {}", prefix(), kNbrFiltered, t, k->intfId);
      return drop(ctx, MessageCounterType::filtered);
    }
  }
  ctx.kIntfIs(*k);
  ctx.pIntfIs(p);
  ctx.pimIntfIs(pim);
  return true;
}

bool IOSm::validateRxDstAddress(RxPktContext& ctx) {
  const MessageType t = ctx.pimHdr().type();
  const Nimo::IpGenAddr& dst = ctx.ipHdr().dst;
  switch (t) {
    case 0:
    case 3:
    case 5:
    case 10:
      if (dst != allPimRouters(ctx.ipHdr().af)) {
        FLICK_TRACE(ioTrace(), 1, "{} {}{} Address: {}", prefix(), kNotAllPimRouters, t, dst);
        Flicklog::logMessage(PIM_MESSAGE_INVALID_DESTINATION, dst.str(), int{t},
                             ctx.ipHdr().src.str());
        return drop(ctx, MessageCounterType::invalid);
      }
      return true;
    case 1:
    case 2:
    case 8:
      if (dst.isMulticast()) {
        FLICK_TRACE(ioTrace(), 1, "{} {}{} Destination is Multicast: {} Address: {}", prefix(),
                    kDstMulticast, t, dst, ctx.ipHdr().src);
        return drop(ctx, MessageCounterType::invalid);
      }
      return true;
    default:
      return true;
  }
}

bool IOSm::validateRxSrcAddress(RxPktContext& ctx) {
  const MessageType t = ctx.pimHdr().type();
  if (t != 3 && t != 4 && t != 5 && t != 10) return true;
  const Nimo::IpGenAddr& src = ctx.ipHdr().src;
  if (pimStatus_->activeNeighbor({ctx.intfId(), src})) return true;
  if (ctx.pimHdr().typeOctet == static_cast<std::uint8_t>(Nimo::PimMessageType::pimDfElection)) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kDfNoNeighbor, src);
    return drop(ctx, MessageCounterType::invalid);
  }
  const PimUnresolvedPackets* q = pimUnresPkt(NeighborKey(src, ctx.intfId()));
  if (q && q->size() >= unresQDepth_) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{} Address: {}", prefix(), kQueueFull, t, src);
    Flicklog::logMessage(PIM_MESSAGE_UNPROCESSQ_FULL, src.str(), unsigned{ctx.pimHdr().typeOctet},
                         std::string(vrf_.name()));
    return drop(ctx, MessageCounterType::invalid);
  }
  ctx.enqueueMessageIs(true);
  return true;
}

// ---------------------------------------------------------------------------------------
// Dispatch.

bool IOSm::post(MessageType type, int subtype, const Kel::Ptr<Packet::Message>& msg,
                const Nimo::IntfId& intf, const Nimo::IpGenAddr& src) {
  const Kel::Ptr<MessageInfo>& info = pimPamManager_->rxMessageInfo(type);
  if (!info) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kNoMessageInfo, type);
    updateCounter(MessageCounterDirection::rx, type, subtype, intf, MessageCounterType::invalid);
    return false;
  }
  info->intfIdIs(intf);
  info->neighborAddrIs(src);
  info->messageIs(msg);
  // Counted before the agent runs, so that what it reads already includes this message.
  updateCounter(MessageCounterDirection::rx, type, subtype, intf, MessageCounterType::success);
  info->countInc();
  pimPamManager_->rxMessageInfoNotify(type);
  return true;
}

bool IOSm::deliver(RxPktContext& ctx, int subtype, const Kel::Ptr<Packet::Message>& msg) {
  if (ctx.enqueueMessage()) return enqueue(ctx, msg);
  return post(ctx.pimHdr().type(), subtype, msg, ctx.intfId(), ctx.ipHdr().src);
}

bool IOSm::processHelloMessage(RxPktContext& ctx) {
  Kel::Ptr<Packet::HelloMessage> hello = ctx.hello();
  if (!hello) {
    hello = Kel::Ptr<Packet::HelloMessage>::make();
    hello->srcIpIs(ctx.ipHdr().src);
    hello->dstIpIs(ctx.ipHdr().dst);
    if (!hello->readHelloMessage(ctx.pkt(), ctx.ipHdr().headerLength)) {
      FLICK_TRACE(ioTrace(), 1, "{} {}", prefix(), kHelloReadError);
      return drop(ctx, MessageCounterType::invalid);
    }
  }
  ctx.remainingIs(0);
  return deliver(ctx, kMessageSubtypeNone, hello);
}

bool IOSm::processJoinPruneMessage(RxPktContext& ctx) {
  auto jp = Kel::Ptr<Packet::JoinPruneMessage>::make();
  jp->srcIpIs(ctx.ipHdr().src);
  jp->dstIpIs(ctx.ipHdr().dst);
  Kel::Ptr<Routing::Pim::Boundary::IntfBoundary> boundary;
  if (mcastBoundaryStatus_) {
    auto s =
        mcastBoundaryStatus_->softwareBoundaryStatus(Kel::Name(std::string(ctx.intfId().name())));
    if (s) boundary = Routing::Pim::Boundary::intfBoundaryFactory(s);
  }
  const bool read = jp->readJoinPruneMessage(ctx.pkt(), ctx.ipHdr().headerLength, boundary) != 0;
  // The reader refuses a message that keeps no group; that is a filter's verdict when the
  // wire has no group or when filters dropped every entry, and bad input otherwise.
  const std::uint32_t numGroupsAt = ctx.ipHdr().headerLength + Nimo::PimCommonHdr::kSize + 2 +
                                    Nimo::addressBytes(ctx.ipHdr().af) + 1;
  const std::uint8_t* numGroups = ctx.pkt()->data(numGroupsAt, 1);
  // (The data exists only once the header and upstream address have read well.)
  const bool noGroups = jp->joinPruneData() && jp->joinPruneData()->empty() &&
                        (read || (numGroups && *numGroups == 0) || jp->report().filtered > 0);
  if (!read && !noGroups) {
    FLICK_TRACE(ioTrace(), 1, "{} {}", prefix(), kJoinPruneReadError);
    return drop(ctx, MessageCounterType::invalid);
  }
  ctx.remainingIs(0);
  if (noGroups) {
    FLICK_TRACE(ioTrace(), 5, "{} {}", prefix(), kJoinPruneZeroGroups);
    return drop(ctx, MessageCounterType::filtered);
  }
  return deliver(ctx, kMessageSubtypeNone, jp);
}

template <typename M, typename Read>
Kel::Ptr<M> IOSm::readBody(RxPktContext& ctx, Read read, std::string_view text, int subtype) {
  auto m = Kel::Ptr<M>::make();
  m->srcIpIs(ctx.ipHdr().src);
  m->dstIpIs(ctx.ipHdr().dst);
  if (!((*m).*read)(ctx.pkt(), ctx.ipHdr().headerLength)) {
    FLICK_TRACE(ioTrace(), 1, "{} {}", prefix(), text);
    drop(ctx, MessageCounterType::invalid, subtype);
    return nullptr;
  }
  ctx.remainingIs(0);
  return m;
}

bool IOSm::processRegisterMessage(RxPktContext& ctx) {
  auto m = readBody<Packet::RegisterMessage>(ctx, &Packet::RegisterMessage::readRegisterMessage,
                                             kRegisterReadError);
  return m && deliver(ctx, kMessageSubtypeNone, m);
}

bool IOSm::processRegisterStopMessage(RxPktContext& ctx) {
  auto m = readBody<Packet::RegisterStopMessage>(
      ctx, &Packet::RegisterStopMessage::readRegisterStopMessage, kRegisterStopReadError);
  return m && deliver(ctx, kMessageSubtypeNone, m);
}

bool IOSm::processBootstrapMessage(RxPktContext& ctx) {
  FLICK_TRACE(ioTrace(), 7, "{} {}{}", prefix(), kBootstrapFrom, ctx.ipHdr().src);
  auto m = readBody<Packet::BootstrapMessage>(ctx, &Packet::BootstrapMessage::readBootstrapMessage,
                                              kBootstrapReadError);
  if (!m) return false;
  if (mcastBoundary_) {
    for (const auto& g : m->groupData()) {
      if (mcastBoundary_->filteredPrefix(ctx.intfId(), g.prefix)) {
        FLICK_TRACE(ioTrace(), 5, "{} {}", prefix(), kBootstrapBoundary);
        return drop(ctx, MessageCounterType::filtered);
      }
    }
  }
  return deliver(ctx, kMessageSubtypeNone, m);
}

bool IOSm::processAssertMessage(RxPktContext& ctx) {
  auto m = readBody<Packet::AssertMessage>(ctx, &Packet::AssertMessage::readAssertMessage,
                                           kAssertReadError);
  if (!m) return false;
  if (mcastBoundary_ && mcastBoundary_->filtered(ctx.intfId(), m->group().address())) {
    FLICK_TRACE(ioTrace(), 5, "{} {}", prefix(), kAssertBoundary);
    return drop(ctx, MessageCounterType::filtered);
  }
  return deliver(ctx, kMessageSubtypeNone, m);
}

bool IOSm::processCrpAdvMessage(RxPktContext& ctx) {
  auto m = readBody<Packet::CrpAdvMessage>(ctx, &Packet::CrpAdvMessage::readCrpAdvMessage,
                                           kCrpAdvReadError);
  return m && deliver(ctx, kMessageSubtypeNone, m);
}

bool IOSm::processDfElectionMessage(RxPktContext& ctx) {
  using DF = Packet::DfElectionMessage;
  // The subtype is the high nibble of the header's second byte (present: the PIM header
  // was peeked).
  const std::uint8_t subtype = *ctx.pkt()->data(ctx.ipHdr().headerLength + 1) >> 4;
  Kel::Ptr<DF> m;
  switch (static_cast<Packet::DfElectionMessageType>(subtype)) {
    case DF::dfElectionOffer():
      m = readBody<Packet::DfElectionOfferMessage>(
          ctx, &Packet::DfElectionOfferMessage::readDfElectionOfferMessage, kDfOfferReadError,
          subtype);
      break;
    case DF::dfElectionWinner():
      m = readBody<Packet::DfElectionWinnerMessage>(
          ctx, &Packet::DfElectionWinnerMessage::readDfElectionWinnerMessage, kDfWinnerReadError,
          subtype);
      break;
    case DF::dfElectionBackoff():
      m = readBody<Packet::DfElectionBackoffMessage>(
          ctx, &Packet::DfElectionBackoffMessage::readDfElectionBackoffMessage, kDfBackoffReadError,
          subtype);
      break;
    case DF::dfElectionPass():
      m = readBody<Packet::DfElectionPassMessage>(
          ctx, &Packet::DfElectionPassMessage::readDfElectionPassMessage, kDfPassReadError,
          subtype);
      break;
    default:
      FLICK_TRACE(ioTrace(), 1, "{} {}", prefix(), kDfUnsupported);
      return drop(ctx, MessageCounterType::invalid, subtype);
  }
  return m && deliver(ctx, subtype, m);
}

bool IOSm::neighborFiltered(MessageType, const Nimo::IpGenAddr& src, const Nimo::IntfId& intf) {
  const Routing::Pim::IntfConfig* c = pimConfigColl_ ? pimConfigColl_->intfConfig(intf) : nullptr;
  if (!c || c->neighborFilter.empty()) return false;
  const std::string& name = c->neighborFilter;
  const Acl::AclConfig* acl = aclConfig_ ? aclConfig_->acl(name) : nullptr;
  if (!acl) {
    FLICK_TRACE(ioTrace(), 5, "{} Neighbor Filter - No Config For ACL - Name: {}", prefix(), name);
    return false;
  }
  if (acl->af() != src.af()) {
    if (src.af() == Nimo::AddressFamily::ipv6) {
      FLICK_TRACE(ioTrace(), 5, "{} Neighbor Filter Ipv6 - Invalid ACL Type - Name: {}", prefix(),
                  name);
    } else {
      FLICK_TRACE(ioTrace(), 5, "{} Neighbor Filter - Invalid ACL Type - Name: {}", prefix(), name);
    }
    return true;
  }
  const auto action = acl->match(src, Nimo::IpGenAddr());
  if (!action) {
    FLICK_TRACE(ioTrace(), 5, "{} Neighbor Filter - No Rule Match - Deny - Name: {}", prefix(),
                name);
    return true;
  }
  if (*action == Acl::Action::Deny) {
    FLICK_TRACE(ioTrace(), 5, "{} Neighbor Filter - Rule Match - Deny - Name: {}", prefix(), name);
    return true;
  }
  FLICK_TRACE(ioTrace(), 7, "{} Neighbor Filter - Rule Match - Permit - Name: {}", prefix(), name);
  return false;
}

// ---------------------------------------------------------------------------------------
// Unresolved queue.

void IOSm::armUnresTimer(std::string_view text) {
  FLICK_TRACE(ioTrace(), 5, "{} {}", prefix(), text);
  unresTimer_.delayIs(unresTimeout_);
}

bool IOSm::enqueue(RxPktContext& ctx, const Kel::Ptr<Packet::Message>& msg) {
  const MessageType t = ctx.pimHdr().type();
  const Nimo::IpGenAddr& src = ctx.ipHdr().src;
  const NeighborKey key(src, ctx.intfId());
  auto it = pimUnresPkt_.find(key);
  const std::uint64_t charge =
      4ull * (ctx.pkt()->size() - ctx.ipHdr().headerLength) + kQueuedMessageOverhead;
  const std::uint64_t total = charge + (it == pimUnresPkt_.end() ? kQueueOverhead : 0);
  if (unresBytes_ + total > unresMaxBytes_) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{} Address: {}", prefix(), kQueuesFull, t, src);
    return drop(ctx, MessageCounterType::invalid);
  }
  if (it == pimUnresPkt_.end()) {
    it = pimUnresPkt_.emplace(key, Kel::Ptr<PimUnresolvedPackets>::make()).first;
  }
  it->second->pktEnq(PimPacket{t, msg, ctx.intfId(), 0, charge});
  unresBytes_ += total;
  FLICK_TRACE(ioTrace(), 5,
              "{} RX: queuing PIM {} packet for processing when neighbor {} shows up on "
              "interface {}",
              prefix(), Nimo::pimMessageTypeName(msg->pimMessageType()), src, ctx.intfId());
  if (!unresTimer_.armed()) armUnresTimer("RX: There are unresolved packets.  Enabling timer.");
  return true;
}

void IOSm::pimUnresPktDel(const NeighborKey& k) {
  auto it = pimUnresPkt_.find(k);
  if (it == pimUnresPkt_.end()) return;
  for (std::uint32_t s = it->second->pktMetadata().headSeq; s != it->second->pktMetadata().nextSeq;
       ++s) {
    unresBytes_ -= it->second->pkt(s)->charge;
  }
  unresBytes_ -= kQueueOverhead;
  pimUnresPkt_.erase(it);
}

void IOSm::handleNewNeighbor(const Nimo::IntfId& intf, const Nimo::IpGenAddr& address) {
  const NeighborKey key(address, intf);
  auto it = pimUnresPkt_.find(key);
  if (it == pimUnresPkt_.end()) {
    FLICK_TRACE(ioTrace(), 7, "{} No unresolved packets for neighbor {}", prefix(), address);
    return;
  }
  // Held while the agent runs: its reactors may change the queues.
  Kel::Ptr<PimUnresolvedPackets> q = it->second;
  while (!q->empty()) {
    PimPacket p = q->pktDeq();
    unresBytes_ -= p.charge;
    post(p.mType, p.message->messageSubtype(), p.message, p.intfId, address);
  }
  FLICK_TRACE(ioTrace(), 5, "{} Processed all queued packets for neighbor {}", prefix(), address);
  it = pimUnresPkt_.find(key);
  if (it != pimUnresPkt_.end() && it->second == q) {
    unresBytes_ -= kQueueOverhead;
    pimUnresPkt_.erase(it);
  }
  if (pimUnresPkt_.empty()) {
    FLICK_TRACE(ioTrace(), 5, "{} There are no unresolved packets.  Disabling timer.", prefix());
    unresTimer_.cancel();
  }
  if (pimCounters_ && pimCounters_->writable()) pimCounters_->msgCounterCommit();
}

void IOSm::handleUnresolvedPackets() {
  FLICK_TRACE(ioTrace(), 5, "{} Start review of Pim packets", prefix());
  std::uint32_t reviewed = 0, purgeCount = 0;
  for (auto it = pimUnresPkt_.begin(); it != pimUnresPkt_.end();) {
    const Nimo::IpGenAddr addr = it->first.address();
    it->second->pktDelIf([&](PimPacket& p) {
      ++reviewed;
      if (++p.visitCount < 2) return false;
      FLICK_TRACE(ioTrace(), 5,
                  "{} Purging PIM {} packet since neighbor {} was not discovered yet.", prefix(),
                  Nimo::pimMessageTypeName(p.message->pimMessageType()), addr);
      updateCounter(MessageCounterDirection::rx, p.mType, p.message->messageSubtype(), p.intfId,
                    MessageCounterType::invalid);
      unresBytes_ -= p.charge;
      ++purgeCount;
      return true;
    });
    if (it->second->empty()) {
      FLICK_TRACE(ioTrace(), 5, "{} Purged all queued packets for neighbor {}", prefix(), addr);
      unresBytes_ -= kQueueOverhead;
      it = pimUnresPkt_.erase(it);
    } else {
      ++it;
    }
  }
  FLICK_TRACE(ioTrace(), 5, "{} Processed {} messages.", prefix(), purgeCount);
  FLICK_TRACE(ioTrace(), 5, "{} Finished reviewing {} Pim messages", prefix(), reviewed);
  if (!pimUnresPkt_.empty()) {
    armUnresTimer("There are unresolved packets.  Re-enabling timer.");
  }
  if (pimCounters_ && pimCounters_->writable()) pimCounters_->msgCounterCommit();
}

Kel::Ptr<IOSm> iOSmFactory(const L3::VrfName& vrf, Ulm::EventLoop& loop) {
  return Kel::Ptr<IOSm>::make(vrf, loop);
}

}  // namespace Routing::Pim::IO
