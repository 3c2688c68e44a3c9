// Test rig for the I/O layer: an IOSm wired to hand-fed platform status, a counter table in
// a private DROBE_ROOT, and builders of codec output (PimDump::ipPacket puts the IP header
// in front).
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>

#include "Pim/PimIO.h"
#include "tests/DrobeRootUtil.h"
#include "tests/PimTestUtil.h"

namespace PimTest {

// A Hello written by the codec, with secondary addresses.
inline Bytes helloBytes(const Nimo::IpGenAddr& src, const Nimo::IpGenAddr& dst,
                        std::initializer_list<const char*> secondaries = {}) {
  Routing::Pim::Packet::HelloMessage h;
  h.srcIpIs(src);
  h.dstIpIs(dst);
  h.holdTimeOptionIs(true);
  h.holdTimeIs(105);
  for (const char* a : secondaries) h.secondaryAddrIs(Nimo::IpGenAddr(a), true);
  auto p = Nimo::Pkt::create(1500);
  const std::uint32_t n = h.writeHelloMessage(p, 0);
  return bytesOf(*p, n);
}

// A Join/Prune written by the codec: one group, one joined source, of src's family.
inline Bytes joinPruneBytes(const Nimo::IpGenAddr& src, const Nimo::IpGenAddr& dst,
                            const char* group = nullptr, int sources = 1) {
  const bool v6 = src.af() == Nimo::AddressFamily::ipv6;
  auto data = Kel::Ptr<Routing::Pim::JoinPruneData>::make();
  data->upstreamNeighborIs(Nimo::IpGenAddr(v6 ? "fe80::99" : "10.0.0.99"));
  data->holdTimeIs(210);
  auto& g = data->joinPruneGroupDataIs(
      Nimo::IpGenPrefix(group ? group : (v6 ? "ff3e::1/128" : "239.1.1.1/32")));
  for (int i = 0; i < sources; ++i) {
    std::array<std::uint8_t, 16> a{};
    a[0] = v6 ? 0x20 : 192;
    a[1] = v6 ? 0x01 : 0;
    a[v6 ? 13 : 1] = std::uint8_t(i >> 16);
    a[v6 ? 14 : 2] = std::uint8_t(i >> 8);
    a[v6 ? 15 : 3] = std::uint8_t(i);
    g.joinedSourceIs(Nimo::IpGenAddr(src.af(), a.data()));
  }
  Routing::Pim::Packet::JoinPruneMessage m;
  m.srcIpIs(src);
  m.dstIpIs(dst);
  m.joinPruneDataIs(data);
  auto p = Nimo::Pkt::create(1500);
  const std::uint32_t n = m.writeJoinPruneMessage(p, 0, nullptr);
  return bytesOf(*p, n);
}

// The platform status and the I/O machine of one VRF and family.
struct IoRig {
  explicit IoRig(Nimo::AddressFamily af, Kel::Ptr<Kel::Clock> clk,
                 const Nimo::NamespaceName& netNs = "", const std::string& counterName = "rig",
                 bool overrideIpHeader = false)
      : clock(std::move(clk)),
        loop(clock),
        vrf("default"),
        dir(Kel::Ptr<Interface::IntfStatusDir>::make("intf")),
        status(Kel::Ptr<Routing::Pim::Status>::make("pim")),
        config(Kel::Ptr<Routing::Pim::ConfigColl>::make("pimconfig")),
        acls(Kel::Ptr<Acl::Config>::make("acl")),
        svc(Kel::Ptr<Acl::ServiceAclFilterSm>::make("svc", acls)),
        counters(Routing::Pim::Drobe::messageCountersFactory(
            Routing::Pim::Drobe::MessageCounters::mountPath(af, vrf, counterName))),
        mgr(Routing::Pim::IO::pamManagerFactory(vrf, af, netNs, overrideIpHeader)),
        io(Routing::Pim::IO::iOSmFactory(vrf, loop)) {
    EXPECT_TRUE(counters->mountWriter());
  }
  ~IoRig() { counters->unmount(); }

  // Wires the inputs and initialises.
  void start() {
    io->pimPamManagerIs(mgr);
    io->pimCountersIs(counters);
    io->pimStatusIs(status);
    io->pimConfigCollIs(config);
    io->aclConfigIs(acls);
    io->ipGenIntfStatusIs(dir);
    io->kernelIntfStatusDirIs(dir);
    io->allIntfStatusDirIs(dir);
    io->serviceAclFilterSmIs(svc);
    io->initializedIs(true);
  }
  void intf(const char* id, std::uint32_t ifIndex, bool pim = true) {
    auto& s = dir->intfStatusIs(Nimo::IntfId(id));
    s.ifIndex = ifIndex;
    s.deviceName = id;
    s.operUp = true;
    dir->intfStatusNotify(Nimo::IntfId(id));
    if (pim) status->intfIs(Nimo::IntfId(id));
  }
  // Count of counter type ct, rx (or tx), at key (type, subtype, intf).
  std::uint32_t rx(std::uint8_t type, const char* intf, Routing::Pim::IO::MessageCounterType ct,
                   std::uint8_t subtype = 255) const {
    auto d =
        counters->msgCounter(Routing::Pim::Drobe::CounterKey(type, subtype, Nimo::IntfId(intf)));
    return d ? d->rxMsgCounter().count(ct) : 0;
  }
  std::uint32_t tx(std::uint8_t type, const char* intf, Routing::Pim::IO::MessageCounterType ct,
                   std::uint8_t subtype = 255) const {
    auto d =
        counters->msgCounter(Routing::Pim::Drobe::CounterKey(type, subtype, Nimo::IntfId(intf)));
    return d ? d->txMsgCounter().count(ct) : 0;
  }
  // Posts msg on the transmit record (dst unset: the type's default destination).
  void send(const Kel::Ptr<Routing::Pim::Packet::Message>& msg, const char* intf,
            const Nimo::IpGenAddr& dst = {}) {
    const auto& t = mgr->txMessageInfo();
    t->intfIdIs(Nimo::IntfId(intf));
    t->neighborAddrIs(dst);
    if (msg) {
      t->messageIs(msg);
    } else {
      t->messageDel();
    }
    t->countInc();
  }

  Kel::Ptr<Kel::Clock> clock;
  Ulm::EventLoop loop;
  L3::VrfName vrf;
  Kel::Ptr<Interface::IntfStatusDir> dir;
  Kel::Ptr<Routing::Pim::Status> status;
  Kel::Ptr<Routing::Pim::ConfigColl> config;
  Kel::Ptr<Acl::Config> acls;
  Kel::Ptr<Acl::ServiceAclFilterSm> svc;
  Kel::Ptr<Routing::Pim::Drobe::MessageCounters> counters;
  Kel::Ptr<Routing::Pim::IO::PamManager> mgr;
  Kel::Ptr<Routing::Pim::IO::IOSm> io;
};

}  // namespace PimTest
