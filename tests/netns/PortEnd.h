// One PIM-over-SCTP router for the namespace tests and the benchmark: a PortPamManager in
// a namespace, with a neighbour record (connection address = the peer's address) for the
// other end, its own event loop, and small retransmission times.
#pragma once

#include <fmt/format.h>
#include <unistd.h>

#include <string>

#include "Pim/PortPam.h"

namespace PimTest {

namespace D = Routing::Pim::Drobe;
using Nimo::IpGenAddr;
using namespace Routing::Pim::Reliable;

// One router: a manager in its namespace with a neighbour record for the other end.
struct PortEnd {
  PortEnd(const std::string& ns, const std::string& intf, unsigned ifIndex, const char* peer) {
    status = D::statusFactory(fmt::format("test/portnetns/{}/{}", ::getpid(), ns));
    ok = status->mountWriter();
    D::Neighbor nb(D::NeighborKey(IpGenAddr(peer), Nimo::IntfId(intf)), 105, {}, {}, {});
    nb.portInfoIs(NeighborInfo(IpGenAddr(peer), CapabilityFlags(false, true), {}));
    nb.transportProtocolIs(Protocol::Sctp);
    status->neighborIs(nb);
    status->neighborCommit();
    mgr = portPamManagerFactory("port", ns, status);
    mgr->scopeIdOfIs([ifIndex](const Nimo::IntfId&) { return ifIndex; });
    mgr->loopIs(&loop);
    mgr->enabledIs(true);
    mgr->handleInitialized();
    // Small retransmission times: lost packets and a lost peer are noticed in a bounded time.
    ok = ok && mgr->sctpPam()->retransmitTimeoutIs(100, 50, 400);
    intfId = Nimo::IntfId(intf);
    peerAddr = IpGenAddr(peer);
  }
  void connect() { mgr->setupNeighborAssociation(intfId, peerAddr); }
  // Runs the loop until done() or the bound; true if done.
  template <typename F>
  bool runUntil(F done, double seconds) {
    for (int i = 0; i < static_cast<int>(seconds * 200); ++i) {
      if (done()) return true;
      loop.runOnce(0.005);
    }
    return done();
  }
  // The Join/Prune that send(holdTime) posts: one group of the peer's family and `sources`
  // sources (10.1.x.y or 2001:db8::x:y).
  static Kel::Ptr<Routing::Pim::Packet::JoinPruneMessage> joinPrune(const IpGenAddr& peer,
                                                                    std::uint16_t holdTime,
                                                                    int sources = 1) {
    auto data = Kel::Ptr<Routing::Pim::JoinPruneData>::make();
    data->upstreamNeighborIs(peer);
    data->holdTimeIs(holdTime);
    const bool v4 = peer.af() == Nimo::AddressFamily::ipv4;
    auto& group = data->joinPruneGroupDataIs(
        Nimo::IpGenPrefix(IpGenAddr(v4 ? "232.1.1.1" : "ff3e::1"), v4 ? 32 : 128));
    for (int i = 1; i <= sources; ++i) {
      group.joinedSourceIs(IpGenAddr(v4 ? fmt::format("10.1.{}.{}", i / 256, i % 256).c_str()
                                        : fmt::format("2001:db8::{:x}", i).c_str()));
    }
    auto jp = Kel::Ptr<Routing::Pim::Packet::JoinPruneMessage>::make();
    jp->joinPruneDataIs(data);
    return jp;
  }
  bool send(std::uint16_t holdTime, int sources = 1) {
    const auto jp = joinPrune(peerAddr, holdTime, sources);
    const auto before = mgr->txSuccess();
    mgr->txMessageInfo()->neighborAddrIs(peerAddr);
    mgr->txMessageInfo()->joinPruneMessageIs(jp);
    mgr->txMessageInfo()->countInc();
    return mgr->txSuccess() > before;
  }
  bool ok = false;
  Kel::Ptr<D::Status> status;
  Ulm::EventLoop loop{Kel::Ptr<Kel::SystemClock>::make()};
  Kel::Ptr<PortPamManager> mgr;
  Nimo::IntfId intfId;
  IpGenAddr peerAddr;
};

}  // namespace PimTest
