// IOSm, transmit side.
//
// Inputs: the manager's transmit record (onCount -> txPkt); the socket's transmit
// counters (onTxPktCount -> handleTxSuccess, onTxErrors -> handleTxError).
//
// One send: message -> interface -> destination -> source -> body, TTL and TOS by type ->
// socket addresses -> IP header (or socket options) -> interface index -> sendmsg. The
// first failure ends the send; it is traced and counted tx/invalid (tx/filtered for the
// filters) on the message's type and subtype.
#include <netinet/in.h>

#include <algorithm>

#include "Pim/PimIO.h"

namespace Routing::Pim::IO {

namespace {

using Packet::MessageType;

// Trace texts, in the order a send meets them.
constexpr std::string_view kNoMessage = "TX: Error - No Message";
constexpr std::string_view kNoBuffer = "TX: Error - Packet Buffer Unavailable";
constexpr std::string_view kBadIntf = "TX: Error - Invalid Interface - Id: ";
constexpr std::string_view kBadKernelIntf = "TX: Error - Invalid Kernel Interface - Id: ";
constexpr std::string_view kBadSystemIntf = "TX: Error - Invalid System Interface - Id: ";
constexpr std::string_view kUnknownDst = "TX: Error - Unknown Pim Destination - Type: ";
constexpr std::string_view kNoSource = "TX: Error - No Source Address - Type: ";
constexpr std::string_view kHelloWriteError = "TX: Error - Invalid Pim Hello - Write Error";
constexpr std::string_view kRegisterWriteError = "TX: Error - Invalid Pim Register - Write Error";
constexpr std::string_view kRegisterStopWriteError =
    "TX: Error - Invalid Pim Register Stop - Write Error";
constexpr std::string_view kJoinPruneWriteError = "TX: Error - Pim Join/Prune - Write Error";
constexpr std::string_view kJoinPruneZeroGroups = "TX: Filtered - Pim Join/Prune - Zero Groups";
constexpr std::string_view kBootstrapWriteError = "TX: Error - Invalid Pim Bootstrap - Write Error";
constexpr std::string_view kBootstrapBoundary =
    "TX: Bootstrap: Group in Boundary Filter - Packet Filtered";
constexpr std::string_view kAssertWriteError = "TX: Error - Invalid Pim Assert - Write Error";
constexpr std::string_view kAssertBoundary =
    "TX: Assert group in Boundary filter - Packet Filtered";
constexpr std::string_view kCrpAdvWriteError = "TX: Error - Invalid Pim CrpAdv - Write Error";
constexpr std::string_view kDfOfferWriteError =
    "TX: Error - Invalid Pim DF Election Offer - Write Error";
constexpr std::string_view kDfWinnerWriteError =
    "TX: Error - Invalid Pim DF Election Winner - Write Error";
constexpr std::string_view kDfBackoffWriteError =
    "TX: Error - Invalid Pim DF Election Backoff - Write Error";
constexpr std::string_view kDfPassWriteError =
    "TX: Error - Invalid Pim DF Election Pass - Write Error";
constexpr std::string_view kDfBadType = "TX: Error - Invalid Pim DF Election Type";
constexpr std::string_view kUnsupported = "TX: Error - Unsupported Pim Message - Type: ";
constexpr std::string_view kBadType = "TX: Error - Invalid Pim Message - Type: ";
constexpr std::string_view kSetTosFailed = "Set TOS Failed - Error: ";
constexpr std::string_view kSetTtlFailed = "Set TTL Failed - Error: ";

constexpr std::uint8_t kDefaultTtl = 1;
constexpr std::uint8_t kDefaultTos = 192;
constexpr std::uint8_t kRouterTtl = 255;  // unicast to a router that may be hops away
constexpr std::uint8_t kMaxRegisterTos = 184;
constexpr int kNoSubtype = 255;

// The interface's own address to send from: for IPv6 its first link-local address (PIM
// over IPv6 speaks link-local, RFC 7761 4.9), for IPv4 its primary address.
Nimo::IpGenAddr systemSource(const Interface::IntfStatus& s, Nimo::AddressFamily af) {
  if (af == Nimo::AddressFamily::ipv6) {
    for (const auto& a : s.addr)
      if (a.address().isLinkLocal()) return a.address();
  }
  return s.primaryAddr(af);
}

// TTL and TOS of a data Register follow the packet it carries; a Null-Register is the
// router's own control traffic.
std::pair<std::uint8_t, std::uint8_t> registerTtlTos(const Packet::RegisterMessage& m) {
  if (m.nullFlag()) return {kRouterTtl, kDefaultTos};
  std::uint8_t ttl = m.hopLimit(), tos = m.reserved2();
  if (const auto& inner = m.rcvdPkt(); inner && inner->size() >= 1) {
    const std::uint8_t* p = inner->data(0);
    if ((p[0] >> 4) == 6 && inner->size() >= Nimo::Ipv6Hdr::kSize) {
      Nimo::Ipv6Hdr h(const_cast<std::uint8_t*>(p));
      ttl = h.hopLimit();
      tos = h.trafficClass();
    } else if (inner->size() >= Nimo::Ipv4Hdr::kMinSize) {
      Nimo::Ipv4Hdr h(const_cast<std::uint8_t*>(p));
      ttl = h.ttl();
      tos = h.tos();
    }
  }
  return {ttl == 0 ? kRouterTtl : ttl, std::min(tos, kMaxRegisterTos)};
}

template <typename M>
bool is(const Packet::Message& m) {
  return dynamic_cast<const M*>(&m) != nullptr;
}

// The record holds any Message; the writer chosen by its type octet needs that class.
bool classMatches(const Packet::Message& m) {
  namespace P = Packet;
  using DF = P::DfElectionMessage;
  switch (m.messageType()) {
    case 0:
      return is<P::HelloMessage>(m);
    case 1:
      return is<P::RegisterMessage>(m);
    case 2:
      return is<P::RegisterStopMessage>(m);
    case 3:
      return is<P::JoinPruneMessage>(m);
    case 4:
      return is<P::BootstrapMessage>(m);
    case 5:
      return is<P::AssertMessage>(m);
    case 8:
      return is<P::CrpAdvMessage>(m);
    case 10:
      if (!is<DF>(m)) return false;
      switch (static_cast<const DF&>(m).dfElectionMessageType()) {
        case DF::dfElectionOffer():
          return is<P::DfElectionOfferMessage>(m);
        case DF::dfElectionWinner():
          return is<P::DfElectionWinnerMessage>(m);
        case DF::dfElectionBackoff():
          return is<P::DfElectionBackoffMessage>(m);
        case DF::dfElectionPass():
          return is<P::DfElectionPassMessage>(m);
        default:
          return true;  // reported as an unknown subtype
      }
    default:
      return true;  // no writer: reported by type
  }
}

}  // namespace

struct IOSm::TxState {
  Kel::Ptr<Packet::Message> msg;
  MessageType type = 0;
  int subtype = kNoSubtype;
  Nimo::IntfId intf;
  std::uint32_t ifIndex = 0;
  Nimo::IpGenAddr src, dst;
  std::uint8_t ttl = kDefaultTtl, tos = kDefaultTos;
  Kel::Ptr<Nimo::Pkt> pkt;
  std::uint32_t touched = 0;  // bytes a writer may have written beyond what it kept
};

Kel::Ptr<Nimo::Pkt> IOSm::txBuffer() {
  // One buffer, reused while nobody else holds it: a send needs the receive maximum of
  // room, and allocating (and clearing) that much per message would cost more than the
  // send. Only the bytes a message used are cleared afterwards (txSend).
  if (!txBuf_ || txBuf_->isShared() || txBuf_->size() != kMaxRxPktData ||
      txBuf_->headroom() < Nimo::Ipv6Hdr::kSize) {
    txBuf_ = Nimo::Pkt::create(kMaxRxPktData, Nimo::Pkt::kDefaultHeadroom);
  }
  return txBuf_;
}

bool IOSm::txFail(TxState& tx, MessageCounterType ct) {
  pimPamManager_->txPamCounter()->errorInc();
  updateCounter(MessageCounterDirection::tx, tx.type, tx.subtype, tx.intf, ct);
  txCounted();
  return false;
}

// A send's count reaches the shared table with the next commit, made once in the next
// loop turn for every send of this one (the rhythm the tables are made for; the receive
// path commits once per drain). Per message, the commit and its wake-up scan would cost
// more than the rest of the counting. The writer's own view is updated at once.
void IOSm::txCounted() {
  if (!txCommitTimer_.armed() && pimCounters_ && pimCounters_->writable()) {
    txCommitTimer_.deadlineIs(loop_.timers().now());
  }
}

void IOSm::txCommit() {
  txCommitTimer_.cancel();
  if (pimCounters_ && pimCounters_->writable()) pimCounters_->msgCounterCommit();
}

void IOSm::txPkt() {
  KEL_ASSERT(pimPamManager_);
  PamManager& m = *pimPamManager_;
  m.txPamCounter()->countInc();
  const MessageInfo& info = *m.txMessageInfo();
  TxState tx;
  tx.msg = info.message();
  if (!tx.msg) {
    FLICK_TRACE(ioTrace(), 1, "{} {}", prefix(), kNoMessage);
    m.txPamCounter()->errorInc();
    return;
  }
  tx.type = tx.msg->messageType();
  if (tx.type == 10) tx.subtype = tx.msg->messageSubtype();
  tx.intf = info.intfId();
  tx.pkt = txBuffer();
  if (!tx.pkt) {
    FLICK_TRACE(ioTrace(), 1, "{} {}", prefix(), kNoBuffer);
    txFail(tx, MessageCounterType::invalid);
    return;
  }
  KEL_ASSERT(tx.pkt->size() >= kMaxRxPktData);
  if (!txResolveIntf(tx) || !txChooseAddresses(tx)) return;
  FLICK_TRACE(ioTrace(), 4, "{} {}: <IP src={} dst={}><PIM {}> intfId={} ifIndex={}", prefix(),
              m.af() == Nimo::AddressFamily::ipv6 ? "TX6" : "TX", tx.src, tx.dst,
              Nimo::pimMessageTypeName(tx.msg->pimMessageType()), tx.intf, tx.ifIndex);
  txWriteAndSend(tx);
}

// An empty interface id names no interface: the kernel routes the (unicast) packet.
bool IOSm::txResolveIntf(TxState& tx) {
  if (tx.intf.empty()) return true;
  if (!ipGenIntfStatus_ || !ipGenIntfStatus_->intfStatus(tx.intf)) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kBadIntf, tx.intf);
    return txFail(tx, MessageCounterType::invalid);
  }
  const Intf* k = pimPamManager_->intf(tx.intf);
  if (!k) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kBadKernelIntf, tx.intf);
    return txFail(tx, MessageCounterType::invalid);
  }
  const Interface::IntfStatusDir* sys =
      allIntfStatusDir_ ? allIntfStatusDir_.ptr() : kernelIntfStatusDir_.ptr();
  if (!sys || !sys->intfStatus(tx.intf)) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kBadSystemIntf, tx.intf);
    return txFail(tx, MessageCounterType::invalid);
  }
  tx.ifIndex = k->ifIndex;
  return true;
}

bool IOSm::txChooseAddresses(TxState& tx) {
  const Nimo::AddressFamily af = pimPamManager_->af();
  const Nimo::IpGenAddr& nbr = pimPamManager_->txMessageInfo()->neighborAddr();
  if (nbr.isSet()) {
    tx.dst = nbr;
  } else if (tx.type == 0 || tx.type == 3 || tx.type == 4 || tx.type == 5 || tx.type == 10) {
    tx.dst = allPimRouters(af);
  } else {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kUnknownDst, tx.type);
    return txFail(tx, MessageCounterType::invalid);
  }

  if (tx.msg->srcIp().isSet()) {
    tx.src = tx.msg->srcIp();
    FLICK_TRACE(ioTrace(), 7, "{} Source IP set to {} from message header.", prefix(), tx.src);
  } else if (const Routing::Pim::StatusIntf* p =
                 pimStatus_ && !tx.intf.empty() ? pimStatus_->intf(tx.intf) : nullptr;
             p && p->primaryAddr.af() == af) {
    tx.src = p->primaryAddr;
    FLICK_TRACE(ioTrace(), 7, "{} Source IP set to {} from Pim interface.", prefix(), tx.src);
  } else if (const Interface::IntfStatus* s = tx.intf.empty() || !allIntfStatusDir_
                                                  ? nullptr
                                                  : allIntfStatusDir_->intfStatus(tx.intf);
             s && systemSource(*s, af).isSet()) {
    tx.src = systemSource(*s, af);
    FLICK_TRACE(ioTrace(), 7, "{} Source IP set to {} from system interface.", prefix(), tx.src);
  } else if (af == Nimo::AddressFamily::ipv6 || pimPamManager_->overrideIpHeader()) {
    // The IPv6 checksum covers the source, and a header we build needs one.
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kNoSource, tx.type);
    return txFail(tx, MessageCounterType::invalid);
  }
  // The codec writes against these (the IPv6 checksum's pseudo-header): they must be the
  // addresses the packet leaves with.
  tx.msg->srcIpIs(tx.src);
  tx.msg->dstIpIs(tx.dst);
  return true;
}

bool IOSm::txWriteAndSend(TxState& tx) {
  using DF = Packet::DfElectionMessage;
  const Kel::Ptr<Nimo::Pkt>& pkt = tx.pkt;
  std::string_view writeError;
  std::uint32_t len = 0;
  Packet::Message& msg = *tx.msg;
  if (!classMatches(msg)) {
    FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kBadType, tx.type);
    return txFail(tx, MessageCounterType::invalid);
  }
  switch (tx.type) {
    case 0:
      len = static_cast<Packet::HelloMessage&>(msg).writeHelloMessage(pkt, 0);
      writeError = kHelloWriteError;
      break;
    case 1: {
      auto& reg = static_cast<Packet::RegisterMessage&>(msg);
      std::tie(tx.ttl, tx.tos) = registerTtlTos(reg);
      len = reg.writeRegisterMessage(pkt, 0);
      writeError = kRegisterWriteError;
      break;
    }
    case 2:
      tx.ttl = kRouterTtl;
      len = static_cast<Packet::RegisterStopMessage&>(msg).writeRegisterStopMessage(pkt, 0);
      writeError = kRegisterStopWriteError;
      break;
    case 3: {
      // The writer drains the data set into as many messages as the MTU needs.
      auto& jp = static_cast<Packet::JoinPruneMessage&>(msg);
      const auto& data = jp.joinPruneData();
      if (!data || data->empty()) {
        FLICK_TRACE(ioTrace(), 5, "{} {}", prefix(), kJoinPruneZeroGroups);
        return txFail(tx, MessageCounterType::filtered);
      }
      Kel::Ptr<Routing::Pim::Boundary::IntfBoundary> boundary;
      if (mcastBoundaryStatus_ && !tx.intf.empty()) {
        auto s =
            mcastBoundaryStatus_->softwareBoundaryStatus(Kel::Name(std::string(tx.intf.name())));
        if (s) boundary = Routing::Pim::Boundary::intfBoundaryFactory(s);
      }
      bool sent = false;
      // The writer leaves room for an IPv4 header; an IPv6 one is 20 bytes longer.
      const std::uint32_t mtu = jp.mtu();
      const std::uint32_t extra = Nimo::Ipv6Hdr::kSize - Nimo::Ipv4Hdr::kMinSize;
      if (pimPamManager_->af() == Nimo::AddressFamily::ipv6 && mtu > extra) jp.mtuIs(mtu - extra);
      tx.touched = mtu;
      // Each pass drains at least one entry (or writes nothing and stops).
      while (!data->empty()) {
        tx.pkt = txBuffer();
        const std::uint32_t n = jp.writeJoinPruneMessage(tx.pkt, 0, boundary);
        if (n == 0) break;
        sent = txSend(tx, n) || sent;
      }
      jp.mtuIs(mtu);
      if (sent) return true;
      if (!data->empty()) {
        FLICK_TRACE(ioTrace(), 1, "{} {}", prefix(), kJoinPruneWriteError);
        return txFail(tx, MessageCounterType::invalid);
      }
      if (!jp.report().filtered) return false;  // every send failed: counted by txSend
      // The boundary took every group.
      FLICK_TRACE(ioTrace(), 5, "{} {}", prefix(), kJoinPruneZeroGroups);
      return txFail(tx, MessageCounterType::filtered);
    }
    case 4: {
      auto& bsr = static_cast<Packet::BootstrapMessage&>(msg);
      if (mcastBoundary_ && !tx.intf.empty()) {
        for (const auto& g : bsr.groupData()) {
          if (mcastBoundary_->filteredPrefix(tx.intf, g.prefix)) {
            FLICK_TRACE(ioTrace(), 5, "{} {}", prefix(), kBootstrapBoundary);
            return txFail(tx, MessageCounterType::filtered);
          }
        }
      }
      len = bsr.writeBootstrapMessage(pkt, 0);
      writeError = kBootstrapWriteError;
      break;
    }
    case 5: {
      auto& as = static_cast<Packet::AssertMessage&>(msg);
      if (mcastBoundary_ && !tx.intf.empty() &&
          mcastBoundary_->filtered(tx.intf, as.group().address())) {
        FLICK_TRACE(ioTrace(), 5, "{} {}", prefix(), kAssertBoundary);
        return txFail(tx, MessageCounterType::filtered);
      }
      len = as.writeAssertMessage(pkt, 0);
      writeError = kAssertWriteError;
      break;
    }
    case 8:
      tx.ttl = kRouterTtl;
      len = static_cast<Packet::CrpAdvMessage&>(msg).writeCrpAdvMessage(pkt, 0);
      writeError = kCrpAdvWriteError;
      break;
    case 10:
      switch (static_cast<DF&>(msg).dfElectionMessageType()) {
        case DF::dfElectionOffer():
          len =
              static_cast<Packet::DfElectionOfferMessage&>(msg).writeDfElectionOfferMessage(pkt, 0);
          writeError = kDfOfferWriteError;
          break;
        case DF::dfElectionWinner():
          len = static_cast<Packet::DfElectionWinnerMessage&>(msg).writeDfElectionWinnerMessage(pkt,
                                                                                                0);
          writeError = kDfWinnerWriteError;
          break;
        case DF::dfElectionBackoff():
          len = static_cast<Packet::DfElectionBackoffMessage&>(msg).writeDfElectionBackoffMessage(
              pkt, 0);
          writeError = kDfBackoffWriteError;
          break;
        case DF::dfElectionPass():
          len = static_cast<Packet::DfElectionPassMessage&>(msg).writeDfElectionPassMessage(pkt, 0);
          writeError = kDfPassWriteError;
          break;
        default:
          FLICK_TRACE(ioTrace(), 1, "{} {}", prefix(), kDfBadType);
          return txFail(tx, MessageCounterType::invalid);
      }
      break;
    case 6:
    case 7:
      FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kUnsupported, tx.type);
      return txFail(tx, MessageCounterType::invalid);
    default:
      FLICK_TRACE(ioTrace(), 1, "{} {}{}", prefix(), kBadType, tx.type);
      return txFail(tx, MessageCounterType::invalid);
  }
  if (len == 0) {
    FLICK_TRACE(ioTrace(), 1, "{} {}", prefix(), writeError);
    // A failed writer may have left bytes behind; the buffer starts clean next time.
    txBuf_ = nullptr;
    return txFail(tx, MessageCounterType::invalid);
  }
  return txSend(tx, len);
}

// Sends the len bytes at the head of tx.pkt.
bool IOSm::txSend(TxState& tx, std::uint32_t len) {
  PamManager& m = *pimPamManager_;
  Nimo::IpPam& pam = *m.pam();
  Nimo::Pkt& pkt = *tx.pkt;
  // The writer left the buffer at its full size, or (Join/Prune) trimmed to the message.
  const std::uint32_t room = kMaxRxPktData;
  pkt.delSharedTailData(pkt.size() - len);
  pam.txSrcIpAddrIs(tx.src);
  pam.txDstIpAddrIs(tx.dst);
  std::uint32_t header = 0;
  if (m.overrideIpHeader()) {
    doAddIpHeader(tx.pkt, tx.src, tx.dst, tx.ttl, tx.tos);
    header = pkt.size() - len;
  } else {
    const bool multicast = tx.dst.isMulticast();
    if (!txSocketOption(true, tx.tos, multicast) || !txSocketOption(false, tx.ttl, multicast)) {
      txBuf_ = nullptr;
      return txFail(tx, MessageCounterType::invalid);
    }
  }
  if (tx.ifIndex == 0) {
    pam.txFlagsIs(0);
    pam.txIfIndexIs(0);
  } else {
    pam.txFlagsIs(Nimo::IpPam::kTxFlagIfIndex);
    pam.txIfIndexIs(tx.ifIndex);
  }
  if (ioTrace().enabled(4)) {
    txLast_ = fmt::format("TX: <PIM {}> to {} on {}",
                          Nimo::pimMessageTypeName(tx.msg->pimMessageType()), tx.dst, tx.intf);
  }
  const bool ok = pam.txPkt(tx.pkt);
  // Back to an all-clear buffer of the full size for the next message: clear only what
  // this one may have touched (a Join/Prune writer works within its MTU, then trims).
  if (txBuf_ == tx.pkt && !pkt.isShared()) {
    const std::uint32_t used = std::min(room + header, std::max(pkt.size(), tx.touched + header));
    pkt.sizeIsUncleared(used);
    std::memset(pkt.writableData(0, used), 0, used);
    pkt.delSharedHeadData(header);
    pkt.sizeIsUncleared(room);
  } else {
    txBuf_ = nullptr;
  }
  if (!ok) {
    m.txPamCounter()->errorInc();
    updateCounter(MessageCounterDirection::tx, tx.type, tx.subtype, tx.intf,
                  MessageCounterType::invalid);
  } else {
    m.txPamCounter()->processedInc();
    updateCounter(MessageCounterDirection::tx, tx.type, tx.subtype, tx.intf,
                  MessageCounterType::success);
  }
  txCounted();
  return ok;
}

bool IOSm::txSocketOption(bool tos, std::uint8_t value, bool multicast) {
  std::optional<std::uint8_t>& cached = tos ? txSockTos_ : txSockTtl_;
  if (cached == value && (tos || txSockTtlMulticast_ == multicast)) return true;
  const bool v6 = pimPamManager_->af() == Nimo::AddressFamily::ipv6;
  const int v = value;
  int err = 0;
  if (tos) {
    FLICK_TRACE(ioTrace(), 7, "{} Setting TOS to {}", prefix(), value);
    err = v6 ? pimPamManager_->pam()->sockOptIs(IPPROTO_IPV6, IPV6_TCLASS, &v, sizeof v)
             : pimPamManager_->pam()->sockOptIs(IPPROTO_IP, IP_TOS, &v, sizeof v);
    if (err) {
      FLICK_TRACE(ioTrace(), 1, "{} {}{} TOS Value: {}", prefix(), kSetTosFailed, err, value);
    }
  } else {
    FLICK_TRACE(ioTrace(), 7, "{} Setting TTL to {} ttl {}", prefix(), value,
                multicast ? "multicast" : "unicast");
    // Multicast and unicast sends take their TTL from different options.
    const int option = v6 ? (multicast ? IPV6_MULTICAST_HOPS : IPV6_UNICAST_HOPS)
                          : (multicast ? IP_MULTICAST_TTL : IP_TTL);
    err = pimPamManager_->pam()->sockOptIs(v6 ? IPPROTO_IPV6 : IPPROTO_IP, option, &v, sizeof v);
    if (err) {
      FLICK_TRACE(ioTrace(), 1, "{} {}{} TTL Value: {}", prefix(), kSetTtlFailed, err, value);
    }
  }
  if (err) {
    cached.reset();
    return false;
  }
  cached = value;
  if (!tos) txSockTtlMulticast_ = multicast;
  return true;
}

void IOSm::doAddIpHeader(const Kel::Ptr<Nimo::Pkt>& pkt, const Nimo::IpGenAddr& src,
                         const Nimo::IpGenAddr& dst, std::uint8_t ttl, std::uint8_t tos) {
  FLICK_TRACE(ioTrace(), 7, "{} Adding Packet header ", prefix());
  switch (pimPamManager_->af()) {
    case Nimo::AddressFamily::ipv4:
      doAddIpv4Header(pkt, src, dst, ttl, tos);
      break;
    case Nimo::AddressFamily::ipv6:
      doAddIpv6Header(pkt, src, dst, ttl, tos);
      break;
    default:
      KEL_ASSERT(false && "Unkown Af");
  }
}

void IOSm::doAddIpv4Header(const Kel::Ptr<Nimo::Pkt>& pkt, const Nimo::IpGenAddr& src,
                           const Nimo::IpGenAddr& dst, std::uint8_t ttl, std::uint8_t tos) {
  constexpr std::uint32_t hl = Nimo::Ipv4Hdr::kMinSize;
  // txBuffer keeps the head room for either header.
  const bool room = pkt->prepend(hl);
  KEL_ASSERT(room);
  std::uint8_t* p = pkt->writableData(0, hl);
  const std::uint32_t total = pkt->size();
  Nimo::Ipv4Hdr(p).build(tos, static_cast<std::uint16_t>(std::min<std::uint32_t>(total, 0xffff)),
                         ttl, Nimo::kIpProtoPim, src, dst);
  // Don't fragment: a Register too large for the link must fail here, not be split.
  p[6] = 0x40;
  Nimo::store16(p + 10, 0);
  Nimo::store16(p + 10, Nimo::inetChecksum(p, hl));
  FLICK_TRACE(ioTrace(), 7,
              "{} TX: <IP version=4 ihl=5 tos={} len={} id=0 frag=0 dontFrag=1 moreFrag=0 "
              "reservedFragFlag=0 ttl={} proto={} chksum={} src={} dst={}>",
              prefix(), tos, total, ttl, Nimo::kIpProtoPim, Nimo::load16(p + 10), src, dst);
}

void IOSm::doAddIpv6Header(const Kel::Ptr<Nimo::Pkt>& pkt, const Nimo::IpGenAddr& src,
                           const Nimo::IpGenAddr& dst, std::uint8_t ttl, std::uint8_t tos) {
  constexpr std::uint32_t hl = Nimo::Ipv6Hdr::kSize;
  const bool room = pkt->prepend(hl);
  KEL_ASSERT(room);
  std::uint8_t* p = pkt->writableData(0, hl);
  const std::uint32_t payload = pkt->size() - hl;
  // A payload beyond 16 bits cannot be stated; the kernel refuses the packet anyway.
  const std::uint16_t payloadLength =
      payload > 0xffff ? std::uint16_t{65496} : static_cast<std::uint16_t>(payload);
  Nimo::Ipv6Hdr(p).build(tos, payloadLength, Nimo::kIpProtoPim, ttl, src, dst);
  FLICK_TRACE(ioTrace(), 7,
              "{} TX: <IP version=6 tclass={} flow=0 payloadLen={} nextHdr={} hopLimit={} srcIp "
              "{} dstIp {}>",
              prefix(), tos, payloadLength, Nimo::kIpProtoPim, ttl, src, dst);
}

void IOSm::handleTxSuccess() {
  FLICK_TRACE(ioTrace(), 4, "{} {} successfully sent.", prefix(), txLast_);
}

void IOSm::handleTxError() {
  FLICK_TRACE(ioTrace(), 1, "{} {} failed to send.", prefix(), txLast_);
}

}  // namespace Routing::Pim::IO
