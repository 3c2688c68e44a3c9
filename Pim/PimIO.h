// PimIO: the I/O state machine of one VRF and address family, receive side.
//
// IOSm joins the all-PIM-routers group on every PIM interface whose kernel device is known,
// keeps the socket's filter program in step with the message types the agent registered,
// drains the socket when it becomes readable, runs each packet through the checks below,
// decodes it with the codec, counts it in the shared-memory counter table and posts it in
// the manager's rxMessageInfo slot of its type. Messages that need a neighbour from an
// address that is not one yet wait in a per-(interface, address) queue until the address
// becomes an active neighbour or the queue's timer purges them.
//
// Inputs (each an attribute the agent sets before initializedIs(true)):
//   pimPamManager        socket, maps, exchange records      onPam, onRxMessageInfo
//   kernelIntfStatusDir  kernel index and device per intf    onIntfStatus -> handleInterface(id)
//   allIntfStatusDir     device status for memberships
//   ipGenIntfStatus      the generic IP view (receive check 2)
//   pimStatus            PIM interfaces, active neighbours    onIntf -> handlePimInterface,
//                                                             onActiveNeighbor -> handleNewNeighbor
//   pimConfigColl, aclConfig   neighbour filter per interface and its ACL
//   serviceAclFilterSm   the VRF's service ACL
//   pimCounters          the message counter table (a Drobe writer)
//   pimAttrLogSm         attribute-log output                 onClogged -> handleAttrLogClogged
//   mcastBoundaryStatus  boundaries for Join/Prune, Assert, Bootstrap groups
// Timer: unresTimer on the loop's wheel -> handleUnresolvedPackets.
// Socket: the pam's readableCount -> rxPkt.
//
// Receive checks, in order (the first failure drops the packet, traces it and counts it):
// IP header, PIM header, interface (kernel index, generic status, service ACL, PIM enabled,
// MBR flag, neighbour filter), destination by type, source by type (neighbour needed for
// Join/Prune, Bootstrap, Assert, DF Election), version and type, then decoding.
//
// Decisions:
// - Counters: drops before the PIM type is known (IP header, PIM header) count only the
//   PAM error counter; version and unknown-type drops count rx/invalid and the PAM error
//   counter. A subtype below 255 adds the two subtype keys; 255 means "no subtype".
// - An IPv4 header whose IHL is below 5 is dropped as "RX: Error - Invalid Ip Header Length -
//   Ihl: "; one that claims more bytes than were received as "Missing Ip Header".
// - A neighbour-filter ACL of the wrong family denies (the operator configured a filter;
//   it must not silently open).
// - A Hello decoded by the neighbour filter is not decoded again by the dispatch.
// - Messages released from the queue count rx/success when posted; purged ones rx/invalid.
// - Beyond the per-neighbour depth, all queues together are bounded by unresMaxBytes
//   (default 64 MiB). A queued message is charged four times its wire length (the decoded
//   form's containers) plus a fixed overhead, and a new queue its own overhead; a message
//   that would pass the bound is dropped, traced and counted rx/invalid.
// - loopQuantum defaults to 10 ms.
// - A Join/Prune left without groups, on the wire or after the boundary dropped them all,
//   is "RX: Filtered - Pim Join/Prune - Zero Groups".
// - With no registered message type the filter is the prefix, reject, accept: everything
//   is rejected.
//
// Transmit (PimIOTx.cpp): the agent fills the manager's txMessageInfo (interface,
// optional neighborAddr, message) and bumps its count; txPkt writes the message, picks
// destination (neighborAddr, else all-PIM-routers for Hello, Join/Prune, Bootstrap, Assert
// and DF Election), source (message, PIM interface, system interface), TTL and TOS by
// type, builds the IP header when overrideIpHeader is set (IPv4 with DF) or sets TTL/TOS
// as socket options, and sends on the interface's kernel index.
// Transmit decisions:
// - An empty interface id names no interface: no interface checks, the kernel routes.
// - A source from the system's interface status is, for IPv6, its first link-local
//   address. With no source at all, IPv6 and header-building sends fail ("TX: Error - No
//   Source Address - Type: "): the checksum or the header needs it.
// - The chosen addresses are written into the message (srcIp/dstIp) before the writer
//   runs, so that the IPv6 checksum covers the addresses the packet leaves with.
// - A send the socket refuses counts tx/invalid (not success) and the PAM error counter.
// - A Join/Prune is drained into as many packets as its MTU needs; one whose groups the
//   boundary took entirely is filtered like one without groups.
// - A message whose class is not the one its type names is "Invalid Pim Message".
// - Socket TTL/TOS are set only when they change (multicast and unicast TTL apart).
// - One transmit buffer of the receive maximum is reused; only the bytes used are cleared.
//
// Traces: facility "Pim::IO", lines "<Vrf:<name>> RX: ..." and "TX: ...". Threading:
// event-loop thread only; no locks.
//
// Usage:
//   auto mgr = pamManagerFactory(vrf, Nimo::AddressFamily::ipv4, "", false);
//   auto io = iOSmFactory(vrf, loop);
//   io->pimPamManagerIs(mgr); io->pimCountersIs(counters); io->pimStatusIs(status);
//   io->kernelIntfStatusDirIs(dir); io->allIntfStatusDirIs(dir); io->ipGenIntfStatusIs(dir);
//   io->pimConfigCollIs(cfg); io->aclConfigIs(acls); io->serviceAclFilterSmIs(svc);
//   mgr->rxMessageInfoIs(0);
//   io->initializedIs(true);     // memberships, filter, receive reactor
//   loop.run();
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>

#include "Pim/PimAttrLogSm.h"
#include "Pim/PimDrobe.h"
#include "Pim/PimMcastBoundary.h"
#include "Pim/PimMessage.h"
#include "Pim/PimPam.h"
#include "Pim/platform/PimCore.h"
#include "Pim/platform/System.h"
#include "Pim/platform/Ulm.h"

namespace Routing::Pim::IO {

extern const Flicklog::LogMessage PIM_MESSAGE_INVALID_VERSION;
extern const Flicklog::LogMessage PIM_MESSAGE_INVALID_TYPE;
extern const Flicklog::LogMessage PIM_MESSAGE_INVALID_DESTINATION;
extern const Flicklog::LogMessage PIM_MESSAGE_UNPROCESSQ_FULL;

// The all-PIM-routers group of the family: 224.0.0.13 or ff02::d.
const Nimo::IpGenAddr& allPimRouters(Nimo::AddressFamily af);

// The fields of a received IP header that the checks use.
struct IpHeader {
  Nimo::AddressFamily af = Nimo::AddressFamily::ipunknown;
  std::uint32_t headerLength = 0;
  std::uint8_t tos = 0;
  std::uint8_t ttl = 0;
  std::uint8_t protocol = 0;
  Nimo::IpGenAddr src;
  Nimo::IpGenAddr dst;
};

struct PimHeader {
  std::uint8_t typeOctet = 0;  // version in the high nibble, type in the low
  std::uint8_t version() const noexcept { return typeOctet >> 4; }
  Packet::MessageType type() const noexcept { return typeOctet & 0x0f; }
};

class RxPktContext : public Kel::PtrInterface {
 public:
  explicit RxPktContext(Kel::Ptr<Nimo::Pkt> pkt, std::uint32_t ifIndex = 0)
      : pkt_(std::move(pkt)), ifIndex_(ifIndex) {}

  const Kel::Ptr<Nimo::Pkt>& pkt() const noexcept { return pkt_; }
  // The kernel index of the receiving interface, from the socket.
  std::uint32_t ifIndex() const noexcept { return ifIndex_; }
  const IpHeader& ipHdr() const noexcept { return ipHdr_; }
  void ipHdrIs(const IpHeader& h) noexcept { ipHdr_ = h; }
  const PimHeader& pimHdr() const noexcept { return pimHdr_; }
  void pimHdrIs(const PimHeader& h) noexcept { pimHdr_ = h; }
  std::uint32_t remaining() const noexcept { return remaining_; }
  void remainingIs(std::uint32_t r) noexcept { remaining_ = r; }
  const Nimo::IntfId& intfId() const noexcept { return intfId_; }
  void intfIdIs(const Nimo::IntfId& i) noexcept { intfId_ = i; }
  const std::optional<KernelIntf>& kIntf() const noexcept { return kIntf_; }
  void kIntfIs(const KernelIntf& k) noexcept { kIntf_ = k; }
  // Valid while the packet is processed.
  const Interface::IntfStatus* pIntf() const noexcept { return pIntf_; }
  void pIntfIs(const Interface::IntfStatus* p) noexcept { pIntf_ = p; }
  const Routing::Pim::StatusIntf* pimIntf() const noexcept { return pimIntf_; }
  void pimIntfIs(const Routing::Pim::StatusIntf* p) noexcept { pimIntf_ = p; }
  bool enqueueMessage() const noexcept { return enqueueMessage_; }
  void enqueueMessageIs(bool e) noexcept { enqueueMessage_ = e; }
  bool initialized() const noexcept { return initialized_; }
  void initializedIs(bool i) noexcept { initialized_ = i; }
  // A Hello the neighbour filter already decoded.
  const Kel::Ptr<Packet::HelloMessage>& hello() const noexcept { return hello_; }
  void helloIs(const Kel::Ptr<Packet::HelloMessage>& h) noexcept { hello_ = h; }

 private:
  Kel::Ptr<Nimo::Pkt> pkt_;
  std::uint32_t ifIndex_;
  IpHeader ipHdr_;
  PimHeader pimHdr_;
  std::uint32_t remaining_ = 0;
  Nimo::IntfId intfId_;
  std::optional<KernelIntf> kIntf_;
  const Interface::IntfStatus* pIntf_ = nullptr;
  const Routing::Pim::StatusIntf* pimIntf_ = nullptr;
  bool enqueueMessage_ = false;
  bool initialized_ = false;
  Kel::Ptr<Packet::HelloMessage> hello_;
};

Kel::Ptr<RxPktContext> rxPktContextFactory(Kel::Ptr<Nimo::Pkt> pkt, std::uint32_t ifIndex = 0);

// One message waiting for its neighbour.
struct PimPacket {
  Packet::MessageType mType = 0;
  Kel::Ptr<Packet::Message> message;
  Nimo::IntfId intfId;
  std::uint32_t visitCount = 0;
  std::uint64_t charge = 0;  // bytes charged against unresMaxBytes
};

// The FIFO of one neighbour key, indexed by sequence number.
class PimUnresolvedPackets : public Kel::PtrInterface {
 public:
  struct Metadata {
    std::uint32_t headSeq = 0;  // sequence number of the front message
    std::uint32_t nextSeq = 0;  // sequence number the next message gets
  };
  std::uint32_t size() const noexcept { return static_cast<std::uint32_t>(pkt_.size()); }
  bool empty() const noexcept { return pkt_.empty(); }
  const Metadata& pktMetadata() const noexcept { return meta_; }
  const PimPacket* pkt(std::uint32_t seq) const noexcept {
    const std::uint32_t i = seq - meta_.headSeq;
    return i < pkt_.size() ? &pkt_[i] : nullptr;
  }
  PimPacket* pkt(std::uint32_t seq) noexcept {
    return const_cast<PimPacket*>(std::as_const(*this).pkt(seq));
  }
  std::uint32_t pktEnq(PimPacket p) {
    pkt_.push_back(std::move(p));
    return meta_.nextSeq++;
  }
  PimPacket pktDeq() {
    PimPacket p = std::move(pkt_.front());
    pkt_.pop_front();
    ++meta_.headSeq;
    return p;
  }
  void pktDelAll() noexcept {
    pkt_.clear();
    meta_.headSeq = meta_.nextSeq;
  }
  // Keeps the messages for which keep(p) is true, in order.
  template <typename F>
  void pktDelIf(F&& del) {
    std::deque<PimPacket> kept;
    for (auto& p : pkt_)
      if (!del(p)) kept.push_back(std::move(p));
    pkt_.swap(kept);
    meta_.headSeq = meta_.nextSeq - static_cast<std::uint32_t>(pkt_.size());
  }

 private:
  std::deque<PimPacket> pkt_;
  Metadata meta_;
};

class IOSm : public Kel::Entity {
 public:
  static constexpr std::uint32_t unresQDepthDefault = 1024;
  static constexpr double unresTimeoutDefault = 5.0;
  static constexpr std::uint64_t unresMaxBytesDefault = 64ull << 20;
  static constexpr double loopQuantumDefault = 0.010;
  // The socket's maxRxPktData from the start: any IP packet.
  static constexpr std::uint32_t kMaxRxPktData = 65535;
  // Charges against unresMaxBytes beyond four bytes per wire byte.
  static constexpr std::uint64_t kQueuedMessageOverhead = 256;
  static constexpr std::uint64_t kQueueOverhead = 1024;  // map node, queue, first deque block

  using NeighborKey = Routing::Pim::Drobe::NeighborKey;

  IOSm(const L3::VrfName& vrf, Ulm::EventLoop& loop);
  ~IOSm() override;
  IOSm(const IOSm&) = delete;
  IOSm& operator=(const IOSm&) = delete;

  const L3::VrfName& vrf() const noexcept { return vrf_; }

  // Inputs.
  const Kel::Ptr<PamManager>& pimPamManager() const noexcept { return pimPamManager_; }
  void pimPamManagerIs(const Kel::Ptr<PamManager>& m);
  void pimPamManagerDel() { pimPamManagerIs(nullptr); }
  const Kel::Ptr<Routing::Pim::Drobe::MessageCounters>& pimCounters() const noexcept {
    return pimCounters_;
  }
  void pimCountersIs(const Kel::Ptr<Routing::Pim::Drobe::MessageCounters>& c);
  const Kel::Ptr<Routing::Pim::Status>& pimStatus() const noexcept { return pimStatus_; }
  void pimStatusIs(const Kel::Ptr<Routing::Pim::Status>& s);
  void pimConfigCollIs(const Kel::Ptr<const Routing::Pim::ConfigColl>& c) { pimConfigColl_ = c; }
  void aclConfigIs(const Kel::Ptr<const Acl::Config>& c) { aclConfig_ = c; }
  void ipGenIntfStatusIs(const Kel::Ptr<const Interface::IntfStatusDir>& d) {
    ipGenIntfStatus_ = d;
  }
  void kernelIntfStatusDirIs(const Kel::Ptr<Interface::IntfStatusDir>& d);
  void allIntfStatusDirIs(const Kel::Ptr<const Interface::IntfStatusDir>& d) {
    allIntfStatusDir_ = d;
  }
  void serviceAclFilterSmIs(const Kel::Ptr<const Acl::ServiceAclFilterSm>& s) {
    serviceAclFilterSm_ = s;
  }

  bool initialized() const noexcept { return initialized_; }
  void initializedIs(bool i);
  void handleInitialized();

  double loopQuantum() const noexcept { return loopQuantum_; }
  void loopQuantumIs(double s) noexcept { loopQuantum_ = s; }
  std::uint32_t unresQDepth() const noexcept { return unresQDepth_; }
  void unresQDepthIs(std::uint32_t d) noexcept { unresQDepth_ = d; }
  double unresTimeout() const noexcept { return unresTimeout_; }
  void unresTimeoutIs(double s) noexcept { unresTimeout_ = s; }
  std::uint64_t unresMaxBytes() const noexcept { return unresMaxBytes_; }
  void unresMaxBytesIs(std::uint64_t b) noexcept { unresMaxBytes_ = b; }
  // Bytes charged by the queues now.
  std::uint64_t unresBytes() const noexcept { return unresBytes_; }
  // The attribute log's output: while it is clogged the receive loop reads nothing and the
  // socket is not watched (its packets wait in the kernel); unclogging drains it again.
  const Kel::Ptr<Routing::Pim::PimAttrLogSm>& pimAttrLogSm() const noexcept {
    return pimAttrLogSm_;
  }
  void pimAttrLogSmIs(const Kel::Ptr<Routing::Pim::PimAttrLogSm>& a);
  void handleAttrLogClogged();
  bool isAttrLogOutClogged() const noexcept;
  // Multicast boundaries: the platform's status, and the view built on it at
  // initialisation that the message handlers ask.
  const Kel::Ptr<const Routing::McastBoundary::Status>& mcastBoundaryStatus() const noexcept {
    return mcastBoundaryStatus_;
  }
  void mcastBoundaryStatusIs(const Kel::Ptr<const Routing::McastBoundary::Status>& s);
  const Kel::Ptr<Routing::Pim::Boundary::McastBoundary>& mcastBoundary() const noexcept {
    return mcastBoundary_;
  }

  // Memberships: interface -> kernel index used.
  const std::map<Nimo::IntfId, std::uint32_t>& allPimRoutersMember() const noexcept {
    return allPimRoutersMember_;
  }
  void allPimRoutersMemberDelAll() noexcept { allPimRoutersMember_.clear(); }

  // A new socket from the manager: watched, joined and filtered like the first.
  void handlePam();
  void handleInterface();
  void handleInterface(const Nimo::IntfId& id);
  void handlePimInterface(const Nimo::IntfId& id);
  void addPimRoutersMembership(const Nimo::IntfId& id, std::uint32_t ifIndex);
  void dropPimRoutersMembership(const Nimo::IntfId& id, std::uint32_t ifIndex);
  void doMaybeUpdatePimRoutersMembership(const Nimo::IntfId& id, std::uint32_t ifIndex);
  void handlePamFilter();

  // Receive path.
  void rxPkt();
  bool processPkt(const Kel::Ptr<RxPktContext>& ctx);
  bool readIpHeader(RxPktContext& ctx);
  bool peekPimHeader(RxPktContext& ctx);
  bool validateRxInterface(RxPktContext& ctx);
  bool validateRxDstAddress(RxPktContext& ctx);
  bool validateRxSrcAddress(RxPktContext& ctx);
  bool processHelloMessage(RxPktContext& ctx);
  bool processRegisterMessage(RxPktContext& ctx);
  bool processRegisterStopMessage(RxPktContext& ctx);
  bool processJoinPruneMessage(RxPktContext& ctx);
  bool processBootstrapMessage(RxPktContext& ctx);
  bool processAssertMessage(RxPktContext& ctx);
  bool processCrpAdvMessage(RxPktContext& ctx);
  bool processDfElectionMessage(RxPktContext& ctx);
  bool neighborFiltered(Packet::MessageType type, const Nimo::IpGenAddr& src,
                        const Nimo::IntfId& intf);
  // subtype 255 (or any value outside 0-254) means none.
  void updateCounter(MessageCounterDirection dir, Packet::MessageType type, int subtype,
                     const Nimo::IntfId& intf, MessageCounterType ct);
  void incCounter(MessageCounterDirection dir, MessageCounterType ct,
                  const Routing::Pim::Drobe::CounterKey& key);

  // Transmit path (PimIOTx.cpp). txPkt runs on each change of the transmit record's count.
  void txPkt();
  void handleTxSuccess();
  void handleTxError();
  void doAddIpHeader(const Kel::Ptr<Nimo::Pkt>& pkt, const Nimo::IpGenAddr& src,
                     const Nimo::IpGenAddr& dst, std::uint8_t ttl, std::uint8_t tos);
  void doAddIpv4Header(const Kel::Ptr<Nimo::Pkt>& pkt, const Nimo::IpGenAddr& src,
                       const Nimo::IpGenAddr& dst, std::uint8_t ttl, std::uint8_t tos);
  void doAddIpv6Header(const Kel::Ptr<Nimo::Pkt>& pkt, const Nimo::IpGenAddr& src,
                       const Nimo::IpGenAddr& dst, std::uint8_t ttl, std::uint8_t tos);

  // Unresolved queue.
  const PimUnresolvedPackets* pimUnresPkt(const NeighborKey& k) const {
    auto it = pimUnresPkt_.find(k);
    return it == pimUnresPkt_.end() ? nullptr : it->second.ptr();
  }
  std::size_t pimUnresPktSize() const noexcept { return pimUnresPkt_.size(); }
  void pimUnresPktDel(const NeighborKey& k);
  const Ulm::Timer& unresTimer() const noexcept { return unresTimer_; }
  void handleNewNeighbor(const Nimo::IntfId& intf, const Nimo::IpGenAddr& address);
  void handleUnresolvedPackets();

 private:
  class PamManagerReactor;
  class PamReactor;
  class IntfDirReactor;
  class StatusReactor;
  class AttrLogReactor;
  class TxReactor;
  struct TxState;

  std::string prefix() const;
  bool drop(const RxPktContext& ctx, MessageCounterType ct, int subtype = 255);
  // Transmit helpers (PimIOTx.cpp).
  bool txFail(TxState& tx, MessageCounterType ct);
  void txCounted();
  void txCommit();
  bool txResolveIntf(TxState& tx);
  bool txChooseAddresses(TxState& tx);
  bool txWriteAndSend(TxState& tx);
  bool txSend(TxState& tx, std::uint32_t len);
  bool txSocketOption(bool tos, std::uint8_t value, bool multicast);
  Kel::Ptr<Nimo::Pkt> txBuffer();

  // Posts msg in its type's slot; false (traced, counted) if the slot is missing.
  bool post(Packet::MessageType type, int subtype, const Kel::Ptr<Packet::Message>& msg,
            const Nimo::IntfId& intf, const Nimo::IpGenAddr& src);
  // Posts, or queues when the context says so.
  bool deliver(RxPktContext& ctx, int subtype, const Kel::Ptr<Packet::Message>& msg);
  bool enqueue(RxPktContext& ctx, const Kel::Ptr<Packet::Message>& msg);
  // Makes M with the packet's addresses and reads it with read; traces text and counts
  // rx/invalid on failure (null).
  template <typename M, typename Read>
  Kel::Ptr<M> readBody(RxPktContext& ctx, Read read, std::string_view text, int subtype = 255);
  void armUnresTimer(std::string_view text);
  bool wantMembership(const Nimo::IntfId& id) const;

  L3::VrfName vrf_;
  Ulm::EventLoop& loop_;
  Kel::Ptr<PamManager> pimPamManager_;
  Kel::Ptr<Routing::Pim::Drobe::MessageCounters> pimCounters_;
  Kel::Ptr<Routing::Pim::Status> pimStatus_;
  Kel::Ptr<const Routing::Pim::ConfigColl> pimConfigColl_;
  Kel::Ptr<const Acl::Config> aclConfig_;
  Kel::Ptr<const Interface::IntfStatusDir> ipGenIntfStatus_;
  Kel::Ptr<Interface::IntfStatusDir> kernelIntfStatusDir_;
  Kel::Ptr<const Interface::IntfStatusDir> allIntfStatusDir_;
  Kel::Ptr<const Acl::ServiceAclFilterSm> serviceAclFilterSm_;
  Kel::Ptr<Routing::Pim::PimAttrLogSm> pimAttrLogSm_;
  Kel::Ptr<const Routing::McastBoundary::Status> mcastBoundaryStatus_;
  Kel::Ptr<Routing::Pim::Boundary::McastBoundary> mcastBoundary_;

  bool initialized_ = false;
  double loopQuantum_ = loopQuantumDefault;
  std::uint32_t unresQDepth_ = unresQDepthDefault;
  double unresTimeout_ = unresTimeoutDefault;
  std::uint64_t unresMaxBytes_ = unresMaxBytesDefault;
  std::uint64_t unresBytes_ = 0;
  std::map<Nimo::IntfId, std::uint32_t> allPimRoutersMember_;
  std::optional<std::uint16_t> filterMask_;  // the types the installed program accepts
  std::map<NeighborKey, Kel::Ptr<PimUnresolvedPackets>> pimUnresPkt_;
  Ulm::Timer unresTimer_;

  std::unique_ptr<PamManagerReactor> pamManagerReactor_;
  std::unique_ptr<PamReactor> pamReactor_;
  std::unique_ptr<IntfDirReactor> intfDirReactor_;
  std::unique_ptr<StatusReactor> statusReactor_;
  std::unique_ptr<AttrLogReactor> attrLogReactor_;

  // Transmit state: the reused buffer, the TTL and TOS last set on the socket (header
  // not built here) and the last send's description for the outcome traces.
  std::unique_ptr<TxReactor> txReactor_;
  Kel::Ptr<Nimo::Pkt> txBuf_;
  std::optional<std::uint8_t> txSockTos_, txSockTtl_;
  bool txSockTtlMulticast_ = false;
  std::string txLast_;
  Ulm::Timer txCommitTimer_;  // the sends' counts go out once per loop turn (txCounted)
};

Kel::Ptr<IOSm> iOSmFactory(const L3::VrfName& vrf, Ulm::EventLoop& loop);

}  // namespace Routing::Pim::IO
