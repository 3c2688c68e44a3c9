// FamilyAgent: what pimagent runs per address family, on the library's public API only.
//
// It creates the access manager and I/O machine of its VRF and family, mounts the status
// and counter tables ("pim" counters) for pimshow, and on the shared interface directory
// (filled from the kernel by the netlink adapter) runs PIM on the chosen interfaces:
//   interface up with an address     -> PIM interface, published, Hello at once
//   hello timer (interval)           -> Hello: holdtime, DR priority, generation id,
//                                       the interface's other addresses
//   Hello received                   -> active neighbour (refreshed; holdtime 0 removes)
//   sweep timer (1 s)                -> neighbours and downstream joins past their holdtime
//   join timer (interval)            -> one Join/Prune per upstream neighbour for the
//                                       configured joins, sent once it is a neighbour
//   Join/Prune received              -> downstream-state table, printed as it changes
//   stop()                           -> Hello with holdtime 0 on every PIM interface
// Events are printed on stdout, one line each, prefixed "pimagent[4]" or "pimagent[6]".
//
// Threading: the loop's thread only.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "Pim/PimDrobe.h"
#include "Pim/PimIO.h"
#include "Pim/platform/Ulm.h"
#include "examples/pimagent/Options.h"

namespace PimAgent {

class FamilyAgent {
 public:
  FamilyAgent(const Options& options, Nimo::AddressFamily af, Ulm::EventLoop& loop,
              Kel::Ptr<Interface::IntfStatusDir> dir);
  ~FamilyAgent();
  FamilyAgent(const FamilyAgent&) = delete;
  FamilyAgent& operator=(const FamilyAgent&) = delete;

  // False (with the reason printed) when the socket or the tables could not be had.
  bool ok() const noexcept { return ok_; }
  void start();
  // Says goodbye (Hello with holdtime 0) and prints the downstream table.
  void stop();

  void handleIntf(const Nimo::IntfId& id);
  void handleHello();
  void handleJoinPrune();

 private:
  class Reactors;
  struct PimIntf {
    Nimo::IpGenAddrWithMask primary;
    std::uint32_t generationId = 0;
  };
  // (interface, group, source; unset source: (*,G))
  using DownstreamKey = std::tuple<Nimo::IntfId, Nimo::IpGenAddr, Nimo::IpGenAddr>;
  struct Downstream {
    Nimo::IpGenAddr neighbor, upstream, rp;
    double expires = 0;
  };

  bool eligible(const Interface::IntfStatus& s) const;
  std::optional<Nimo::IpGenAddrWithMask> primaryOf(const Interface::IntfStatus& s) const;
  void sendHello(const Nimo::IntfId& id, std::uint16_t holdtime);
  void sendHellos();
  void sendJoins();
  void sweep();
  void neighborDel(const Routing::Pim::ActiveNeighborKey& k, const char* why);
  template <typename... A>
  void say(fmt::format_string<A...> f, A&&... a);

  const Options& options_;
  Nimo::AddressFamily af_;
  Ulm::EventLoop& loop_;
  Kel::Ptr<Interface::IntfStatusDir> dir_;
  L3::VrfName vrf_;
  Kel::Ptr<Routing::Pim::Status> status_;
  Kel::Ptr<Routing::Pim::ConfigColl> config_;
  Kel::Ptr<Acl::Config> acls_;
  Kel::Ptr<Acl::ServiceAclFilterSm> serviceAcl_;
  Kel::Ptr<Routing::Pim::Drobe::Status> tables_;
  Kel::Ptr<Routing::Pim::Drobe::MessageCounters> counters_;
  Kel::Ptr<Routing::Pim::IO::PamManager> mgr_;
  Kel::Ptr<Routing::Pim::IO::IOSm> io_;
  std::map<Nimo::IntfId, PimIntf> intfs_;
  std::map<Routing::Pim::ActiveNeighborKey, double> neighborExpires_;
  std::map<DownstreamKey, Downstream> downstream_;
  Ulm::Timer helloTimer_, joinTimer_, sweepTimer_;
  std::unique_ptr<Reactors> reactors_;
  bool ok_ = false;
};

}  // namespace PimAgent
