// Fuzz target: the receive path (IOSm::processPkt) on arbitrary packets, so that every
// check and every message reader sees hostile lengths and values behind a hostile IP
// header. Byte 0 picks the context, the rest is the packet as the socket hands it over:
//   bit 0     family of the socket: 0 IPv4, 1 IPv6
//   bits 1-2  receiving interface: 0-1 a PIM interface, 2 a non-PIM one, 3 an unknown index
//   bit 3     tracing on at level 9 into a discarding sink
// The sources 10.0.0.2 and fe80::2, and the two routers of the sample captures (whose
// packets are the seeds), are neighbours on the PIM interface, so that messages that
// need one are decoded and posted; others go to the (bounded) unresolved queue. The
// result is 1 when the path accepted the packet, else 0.
#include <cstddef>
#include <cstdint>

#include "Pim/PimIO.h"
#include "fuzz/FuzzInput.h"

namespace {

struct Rig {
  explicit Rig(Nimo::AddressFamily af)
      : clock(Kel::Ptr<Kel::ManualClock>::make()),
        loop(clock),
        dir(Kel::Ptr<Interface::IntfStatusDir>::make("intf")),
        status(Kel::Ptr<Routing::Pim::Status>::make("pim")),
        acls(Kel::Ptr<Acl::Config>::make("acl")),
        mgr(Routing::Pim::IO::pamManagerFactory(L3::VrfName("fuzz"), af, "", false)),
        io(Routing::Pim::IO::iOSmFactory(L3::VrfName("fuzz"), loop)) {
    mgr->pamIs(nullptr);  // no socket: packets come from the fuzzer
    for (auto [name, index] : {std::pair{"eth1", 7u}, std::pair{"eth2", 8u}}) {
      auto& s = dir->intfStatusIs(Nimo::IntfId(name));
      s.ifIndex = index;
      s.deviceName = name;
    }
    status->intfIs(Nimo::IntfId("eth1"));
    for (const char* n : {"10.0.0.2", "10.1.0.1", "10.1.0.2", "fe80::1", "fe80::2"}) {
      status->activeNeighborIs({Nimo::IntfId("eth1"), Nimo::IpGenAddr(n)}, 105);
    }
    io->pimPamManagerIs(mgr);
    io->pimStatusIs(status);
    io->pimConfigCollIs(Kel::Ptr<Routing::Pim::ConfigColl>::make("cfg"));
    io->aclConfigIs(acls);
    io->ipGenIntfStatusIs(dir);
    io->kernelIntfStatusDirIs(dir);
    io->allIntfStatusDirIs(dir);
    io->serviceAclFilterSmIs(Kel::Ptr<Acl::ServiceAclFilterSm>::make("svc", acls));
    io->unresMaxBytesIs(8u << 20);
    for (std::uint8_t t = 0; t < 16; ++t) mgr->rxMessageInfoIs(t);
    io->initializedIs(true);
  }
  Kel::Ptr<Kel::ManualClock> clock;
  Ulm::EventLoop loop;
  Kel::Ptr<Interface::IntfStatusDir> dir;
  Kel::Ptr<Routing::Pim::Status> status;
  Kel::Ptr<Acl::Config> acls;
  Kel::Ptr<Routing::Pim::IO::PamManager> mgr;
  Kel::Ptr<Routing::Pim::IO::IOSm> io;
};

}  // namespace

std::uint32_t PimFuzz::processPkt(const std::uint8_t* data, std::size_t size) {
  if (size < 1 || size > 65535) return 0;
  static Rig v4(Nimo::AddressFamily::ipv4), v6(Nimo::AddressFamily::ipv6);
  Rig& rig = (data[0] & 1) ? v6 : v4;
  const std::uint32_t ifIndex = ((data[0] >> 1) & 3) < 2 ? 7 : ((data[0] >> 1) & 3) == 2 ? 8 : 99;
  traceIs((data[0] & 8) != 0);
  auto pkt = Nimo::Pkt::copyOf(data + 1, static_cast<std::uint32_t>(size - 1));
  const bool accepted = rig.io->processPkt(Routing::Pim::IO::rxPktContextFactory(pkt, ifIndex));
  traceIs(false);
  return accepted ? 1 : 0;
}
