// A RIB world for RPF tests and benches: shared-memory unicast, multicast and
// multicast-specific RIBs of both families (writers in this process, read back through
// shadows), a PIM status with interfaces eth1, eth2 (IPv4) and eth6, eth7 (IPv6) and their
// neighbours, and the RPF lookup over it all. Time is a manual clock; turn() runs the loop.
#pragma once

#include <string>

#include "Pim/PimRpfTable.h"
#include "tests/DrobeRootUtil.h"
#include "tests/RibTestUtil.h"

namespace PimTest {

namespace V4 = Routing::Fib;

// PIM interfaces eth1, eth2 (IPv4) and eth6, eth7 (IPv6), and their neighbours.
inline void rpfInterfacesIs(Routing::Pim::Status& s) {
  using Nimo::IntfId, Nimo::IpGenAddr;
  for (auto [i, a] : {std::pair{"eth1", "10.0.1.1"},
                      {"eth2", "10.0.2.1"},
                      {"eth6", "fe80::100"},
                      {"eth7", "fe80::200"}})
    s.intfIs(IntfId(i), false, IpGenAddr(a));
  for (auto [i, a] : {std::pair{"eth1", "10.0.1.2"},
                      {"eth1", "10.0.1.3"},
                      {"eth2", "10.0.2.2"},
                      {"eth6", "fe80::1"},
                      {"eth7", "fe80::1"},
                      {"eth7", "fe80::2"}})
    s.activeNeighborIs({IntfId(i), IpGenAddr(a)}, 105);
}
namespace V6 = Routing6::Fib;

struct RibRig {
  using IntfId = Nimo::IntfId;
  using IpGenAddr = Nimo::IpGenAddr;
  using IpGenPrefix = Nimo::IpGenPrefix;
  using PimRpfTable = Routing::Pim::PimRpfTable;
  using PimUcastRouteStatus = Routing::Pim::PimUcastRouteStatus;
  using FecTable4 = Routing::Pim::FecTable4;
  using FecTable6 = Routing::Pim::FecTable6;

  explicit RibRig(std::uint32_t capacity = 1 << 12) {
    const std::string p4 = Routing::ribMountPath(Nimo::AddressFamily::ipv4, "default");
    const std::string p6 = Routing::ribMountPath(Nimo::AddressFamily::ipv6, "default");
    fec_ = V4::FecWriter::create(p4, "fec", capacity, clock_);
    mcFec_ = V4::FecWriter::create(p4, "mcfec", capacity, clock_);
    fec6_ = V6::FecWriter::create(p6, "fec", capacity, clock_);
    urib_ = V4::RouteWriter::create(p4, "urib", fec_, capacity);
    mrib_ = V4::RouteWriter::create(p4, "mrib", fec_, capacity);
    mcRib_ = V4::RouteWriter::create(p4, "mcrib", mcFec_, capacity);
    urib6_ = V6::RouteWriter::create(p6, "urib", fec6_, capacity);
    mrib6_ = V6::RouteWriter::create(p6, "mrib", fec6_, capacity);
    commit();
    ucast_ = Kel::Ptr<PimUcastRouteStatus>::make("ucast");
    auto s4 = [&](const char* name) { return Routing::Shadow::Status::create(loop_, p4, name); };
    ucast_->uribShadowStatusIs(s4("urib"));
    ucast_->uribStatusIs(ucast_->uribShadowStatus()->table());
    ucast_->uribFecIs(FecTable4::create(loop_, p4, "fec"));
    ucast_->mribShadowStatusIs(s4("mrib"));
    ucast_->mribStatusIs(ucast_->mribShadowStatus()->table());
    ucast_->mcRibShadowStatusIs(s4("mcrib"));
    ucast_->mcRibStatusIs(ucast_->mcRibShadowStatus()->table());
    ucast_->mcFecIs(FecTable4::create(loop_, p4, "mcfec"));
    ucast_->urib6ShadowStatusIs(Routing6::Shadow::Status::create(loop_, p6, "urib"));
    ucast_->urib6StatusIs(ucast_->urib6ShadowStatus()->table());
    ucast_->urib6FecIs(FecTable6::create(loop_, p6, "fec"));
    ucast_->mrib6ShadowStatusIs(Routing6::Shadow::Status::create(loop_, p6, "mrib"));
    ucast_->mrib6StatusIs(ucast_->mrib6ShadowStatus()->table());
    rpfInterfacesIs(*status_);
    table_ = Routing::Pim::pimRpfTableFactory(ucast_, status_, mfib_, intfDir_, boundary_);
    turn();
  }
  RibRig(const RibRig&) = delete;
  RibRig& operator=(const RibRig&) = delete;

  void nbr(const char* intf, const char* addr) {
    status_->activeNeighborIs({IntfId(intf), IpGenAddr(addr)}, 105);
  }
  void turn() {
    for (int i = 0; i < 4; ++i) loop_.runOnce(0.0);
  }
  void commit() {
    for (auto* w : {urib_.ptr(), mrib_.ptr(), mcRib_.ptr()}) w->commit();
    for (auto* w : {urib6_.ptr(), mrib6_.ptr()}) w->commit();
  }
  // Replaces the routes of each RIB with the text's ("<rib> <route line>" per line); returns
  // the lines that did not load.
  std::size_t routesAre(const std::string& text) {
    const std::size_t before = ribText_.errors();
    ribText_.load(
        text,
        [&](const std::string& rib) {
          return rib == "urib" ? urib_.ptr() : rib == "mrib" ? mrib_.ptr() : mcRib_.ptr();
        },
        [&](const std::string& rib) { return rib == "urib" ? urib6_.ptr() : mrib6_.ptr(); });
    commit();
    turn();
    return ribText_.errors() - before;
  }

  // First: set up before the tables and removed after them.
  DrobeRoot root_;
  Kel::Ptr<Kel::ManualClock> clock_ = Kel::Ptr<Kel::ManualClock>::make();
  Ulm::EventLoop loop_{clock_};
  Kel::Ptr<V4::FecWriter> fec_, mcFec_;
  Kel::Ptr<V6::FecWriter> fec6_;
  Kel::Ptr<V4::RouteWriter> urib_, mrib_, mcRib_;
  Kel::Ptr<V6::RouteWriter> urib6_, mrib6_;
  RibText ribText_;
  Kel::Ptr<PimUcastRouteStatus> ucast_;
  Kel::Ptr<Routing::Pim::Status> status_ = Kel::Ptr<Routing::Pim::Status>::make("pim");
  Kel::Ptr<Routing::Multicast::Fib::Config> mfib_ =
      Kel::Ptr<Routing::Multicast::Fib::Config>::make("mfib");
  Kel::Ptr<Interface::IntfStatusDir> intfDir_ = Kel::Ptr<Interface::IntfStatusDir>::make("intf");
  Kel::Ptr<Routing::McastBoundary::Status> boundary_ =
      Kel::Ptr<Routing::McastBoundary::Status>::make("boundary");
  Kel::Ptr<PimRpfTable> table_;
};

}  // namespace PimTest
