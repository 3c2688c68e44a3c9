#include "examples/pimagent/Agent.h"

#include <cstdio>
#include <random>

namespace PimAgent {

namespace {

namespace D = Routing::Pim::Drobe;
namespace P = Routing::Pim::Packet;

constexpr double kSweepSeconds = 1.0;
constexpr std::uint16_t kDefaultNeighborHoldtime = 105;  // a Hello without the option

}  // namespace

class FamilyAgent::Reactors {
 public:
  struct Dir : Interface::IntfStatusDir::NotifieeConst {
    FamilyAgent* a;
    void onIntfStatus(const Nimo::IntfId& id) override { a->handleIntf(id); }
  };
  struct Hello : Routing::Pim::IO::MessageInfo::NotifieeConst {
    FamilyAgent* a;
    void onCount() override { a->handleHello(); }
  };
  struct JoinPrune : Routing::Pim::IO::MessageInfo::NotifieeConst {
    FamilyAgent* a;
    void onCount() override { a->handleJoinPrune(); }
  };
  Dir dir;
  Hello hello;
  JoinPrune joinPrune;
};

template <typename... A>
void FamilyAgent::say(fmt::format_string<A...> f, A&&... a) {
  std::printf("pimagent[%c] %s\n", af_ == Nimo::AddressFamily::ipv4 ? '4' : '6',
              fmt::format(f, std::forward<A>(a)...).c_str());
  std::fflush(stdout);
}

FamilyAgent::FamilyAgent(const Options& options, Nimo::AddressFamily af, Ulm::EventLoop& loop,
                         Kel::Ptr<Interface::IntfStatusDir> dir)
    : options_(options),
      af_(af),
      loop_(loop),
      dir_(std::move(dir)),
      vrf_(options.vrf),
      status_(Kel::Ptr<Routing::Pim::Status>::make("pim")),
      config_(Kel::Ptr<Routing::Pim::ConfigColl>::make("pimconfig")),
      acls_(Kel::Ptr<Acl::Config>::make("acl")),
      serviceAcl_(Kel::Ptr<Acl::ServiceAclFilterSm>::make("svc", acls_)),
      tables_(D::statusFactory(D::Status::mountPath(af, vrf_))),
      counters_(D::messageCountersFactory(D::MessageCounters::mountPath(af, vrf_, "pim"))),
      helloTimer_(loop.timers(), [this] { sendHellos(); }),
      joinTimer_(loop.timers(), [this] { sendJoins(); }),
      sweepTimer_(loop.timers(), [this] { sweep(); }),
      reactors_(std::make_unique<Reactors>()) {
  if (!tables_->mountWriter() || !counters_->mountWriter()) {
    say("cannot mount the status tables of VRF {} (another agent writes them?)", vrf_.name());
    return;
  }
  // The manager builds the IP header itself: its sends carry DF and the exact TTL/TOS.
  mgr_ = Routing::Pim::IO::pamManagerFactory(vrf_, af, options.netns, true);
  if (!mgr_->pam() || !mgr_->pam()->ok()) {
    say("cannot open the raw PIM socket{}", options.netns.empty() ? "" : " in " + options.netns);
    return;
  }
  io_ = Routing::Pim::IO::iOSmFactory(vrf_, loop);
  io_->pimPamManagerIs(mgr_);
  io_->pimCountersIs(counters_);
  io_->pimStatusIs(status_);
  io_->pimConfigCollIs(config_);
  io_->aclConfigIs(acls_);
  io_->ipGenIntfStatusIs(dir_);
  io_->kernelIntfStatusDirIs(dir_);
  io_->allIntfStatusDirIs(dir_);
  io_->serviceAclFilterSmIs(serviceAcl_);
  reactors_->dir.a = reactors_->hello.a = reactors_->joinPrune.a = this;
  reactors_->hello.notifierIs(mgr_->rxMessageInfoIs(0));
  reactors_->joinPrune.notifierIs(mgr_->rxMessageInfoIs(3));
  ok_ = true;
}

FamilyAgent::~FamilyAgent() {
  reactors_.reset();
  io_ = nullptr;
  mgr_ = nullptr;
  tables_->unmount();
  counters_->unmount();
}

void FamilyAgent::start() {
  io_->initializedIs(true);
  reactors_->dir.notifierIs(dir_);
  for (const auto& [id, s] : dir_->intfStatus()) handleIntf(id);
  helloTimer_.delayIs(options_.helloInterval);
  joinTimer_.delayIs(std::min(1.0, options_.helloInterval));
  sweepTimer_.delayIs(kSweepSeconds);
}

void FamilyAgent::stop() {
  for (const auto& [id, i] : intfs_) sendHello(id, 0);
  say("stopped: sent Hello with holdtime 0 on {} interface(s)", intfs_.size());
  say("downstream state: {} entr{}", downstream_.size(), downstream_.size() == 1 ? "y" : "ies");
  for (const auto& [k, d] : downstream_) {
    const auto& [intf, group, source] = k;
    say("  ({},{}) on {} from {} upstream {}", source.isSet() ? source.str() : "*", group, intf,
        d.neighbor, d.upstream);
  }
}

// ---------------------------------------------------------------------------------------
// Interfaces.

bool FamilyAgent::eligible(const Interface::IntfStatus& s) const {
  if (!s.operUp || !s.hasDevice()) return false;
  if (options_.intfs.empty()) {
    return s.deviceName != "lo" && !s.intfId.name().starts_with("Loopback");
  }
  for (const auto& name : options_.intfs)
    if (name == s.deviceName || name == s.intfId.name()) return true;
  return false;
}

// IPv4: the first address; IPv6: the first link-local one (PIM neighbours speak
// link-local).
std::optional<Nimo::IpGenAddrWithMask> FamilyAgent::primaryOf(
    const Interface::IntfStatus& s) const {
  for (const auto& a : s.addr) {
    if (a.address().af() != af_) continue;
    if (af_ == Nimo::AddressFamily::ipv6 && !a.address().isLinkLocal()) continue;
    return a;
  }
  return std::nullopt;
}

void FamilyAgent::handleIntf(const Nimo::IntfId& id) {
  const Interface::IntfStatus* s = dir_->intfStatus(id);
  const auto primary = s && eligible(*s) ? primaryOf(*s) : std::nullopt;
  auto it = intfs_.find(id);
  if (!primary) {
    if (it == intfs_.end()) return;
    for (auto n = status_->activeNeighbor().begin(); n != status_->activeNeighbor().end();) {
      const auto k = (n++)->first;
      if (k.intfId == id) neighborDel(k, "interface down");
    }
    intfs_.erase(it);
    status_->intfDel(id);
    tables_->pimIntfDel(id);
    tables_->commit();
    say("interface {} down", id);
    return;
  }
  if (it != intfs_.end() && it->second.primary == *primary) return;
  const bool fresh = it == intfs_.end();
  PimIntf& p = intfs_[id];
  p.primary = *primary;
  if (fresh) p.generationId = std::random_device{}();
  status_->intfIs(id, false, primary->address());
  D::Intf rec(id, *primary);
  rec.enabledIs(true);
  rec.helloPeriodIs(static_cast<std::uint16_t>(options_.helloInterval));
  rec.helloHoldTimeIs(static_cast<std::uint16_t>(options_.holdtime));
  rec.drPriorityIs(options_.drPriority);
  rec.generationIdIs(p.generationId);
  tables_->pimIntfIs(rec);
  tables_->commit();
  say("interface {} up, address {}", id, primary->address());
  sendHello(id, static_cast<std::uint16_t>(options_.holdtime));
}

// ---------------------------------------------------------------------------------------
// Hellos and neighbours.

void FamilyAgent::sendHello(const Nimo::IntfId& id, std::uint16_t holdtime) {
  auto it = intfs_.find(id);
  const Interface::IntfStatus* s = dir_->intfStatus(id);
  if (it == intfs_.end() || !s) return;
  auto h = Kel::Ptr<P::HelloMessage>::make();
  // Always with a holdtime: a peer may read a Hello without one as holdtime 0.
  h->holdTimeOptionIs(true);
  h->holdTimeIs(holdtime);
  h->drPriorityOptionIs(true);
  h->drPriorityIs(options_.drPriority);
  h->generationIdOptionIs(true);
  h->generationIdIs(it->second.generationId);
  for (const auto& a : s->addr) {
    if (a.address().af() == af_ && a.address() != it->second.primary.address() &&
        !a.address().isLinkLocal()) {
      h->secondaryAddrIs(a.address(), true);
    }
  }
  const auto& tx = mgr_->txMessageInfo();
  tx->intfIdIs(id);
  tx->neighborAddrIs(Nimo::IpGenAddr());
  tx->helloMessageIs(h);
  tx->countInc();
}

void FamilyAgent::sendHellos() {
  for (const auto& [id, i] : intfs_) sendHello(id, static_cast<std::uint16_t>(options_.holdtime));
  helloTimer_.delayIs(options_.helloInterval);
}

void FamilyAgent::handleHello() {
  const auto& info = mgr_->rxMessageInfo(0);
  const auto h = info->helloMessage();
  if (!h || !intfs_.count(info->intfId())) return;
  const Routing::Pim::ActiveNeighborKey k{info->intfId(), info->neighborAddr()};
  const std::uint16_t holdtime = h->holdTimeOption() ? h->holdTime() : kDefaultNeighborHoldtime;
  if (holdtime == 0) {
    if (status_->activeNeighbor(k)) neighborDel(k, "holdtime 0");
    return;
  }
  const bool fresh = !status_->activeNeighbor(k);
  const double now = loop_.clock()->now();
  status_->activeNeighborIs(k, holdtime);
  neighborExpires_[k] = now + holdtime;
  D::Neighbor n(D::NeighborKey(k.address, k.intfId), holdtime,
                h->drPriorityOption() ? Routing::Pim::DrPriorityOption(h->drPriority())
                                      : Routing::Pim::DrPriorityOption(),
                h->generationIdOption() ? Routing::Pim::GenerationIdOption(h->generationId())
                                        : Routing::Pim::GenerationIdOption(),
                Routing::Pim::LanPruneDelayOption());
  const auto old = tables_->neighbor(n.key());
  n.creationTimeIs(old ? old->creationTime() : now);
  n.lastRefreshTimeIs(now);
  tables_->neighborIs(n);
  tables_->commit();
  if (fresh) {
    say("neighbor {} on {} up, holdtime {}, dr-priority {}, generation id {:#x}", k.address,
        k.intfId, holdtime, h->drPriority(), h->generationId());
  }
}

void FamilyAgent::neighborDel(const Routing::Pim::ActiveNeighborKey& k, const char* why) {
  status_->activeNeighborDel(k);
  neighborExpires_.erase(k);
  tables_->neighborDel(D::NeighborKey(k.address, k.intfId));
  tables_->commit();
  say("neighbor {} on {} down ({})", k.address, k.intfId, why);
}

void FamilyAgent::sweep() {
  const double now = loop_.clock()->now();
  for (auto it = neighborExpires_.begin(); it != neighborExpires_.end();) {
    const auto k = it->first;
    const bool expired = it->second <= now;
    ++it;
    if (expired) neighborDel(k, "holdtime expired");
  }
  for (auto it = downstream_.begin(); it != downstream_.end();) {
    if (it->second.expires <= now) {
      const auto& [intf, group, source] = it->first;
      say("downstream ({},{}) on {} expired", source.isSet() ? source.str() : "*", group, intf);
      it = downstream_.erase(it);
    } else {
      ++it;
    }
  }
  sweepTimer_.delayIs(kSweepSeconds);
}

// ---------------------------------------------------------------------------------------
// Join/Prune.

void FamilyAgent::sendJoins() {
  // Per upstream neighbour: the interface it is a neighbour on, and its joins.
  std::map<Routing::Pim::ActiveNeighborKey, Kel::Ptr<Routing::Pim::JoinPruneData>> out;
  const auto holdtime = static_cast<std::uint16_t>(
      std::min(65535.0, std::floor(3.5 * std::max(options_.helloInterval, 1.0))));
  for (const Join& j : options_.joins) {
    if (j.af() != af_) continue;
    for (const auto& [k, h] : status_->activeNeighbor()) {
      if (k.address != j.upstream) continue;
      auto& data = out[k];
      if (!data) {
        data = Kel::Ptr<Routing::Pim::JoinPruneData>::make();
        data->upstreamNeighborIs(j.upstream);
        data->holdTimeIs(holdtime);
      }
      const std::uint8_t host = af_ == Nimo::AddressFamily::ipv4 ? 32 : 128;
      auto& g = data->joinPruneGroupDataIs(Nimo::IpGenPrefix(j.group, host));
      if (j.source) {
        g.joinedSourceIs(*j.source);
      } else {
        g.wcSourceDataIs(Routing::Pim::WcSourceData(j.rp, true));
      }
      break;
    }
  }
  for (const auto& [k, data] : out) {
    const std::size_t groups = data->joinPruneGroupData().size();
    auto m = Kel::Ptr<P::JoinPruneMessage>::make();
    m->joinPruneDataIs(data);
    const auto& tx = mgr_->txMessageInfo();
    tx->intfIdIs(k.intfId);
    tx->neighborAddrIs(Nimo::IpGenAddr());
    tx->joinPruneMessageIs(m);
    tx->countInc();
    say("sent Join/Prune to upstream {} on {}: {} group(s)", k.address, k.intfId, groups);
  }
  joinTimer_.delayIs(options_.helloInterval);
}

void FamilyAgent::handleJoinPrune() {
  const auto& info = mgr_->rxMessageInfo(3);
  const auto m = info->joinPruneMessage();
  if (!m || !m->joinPruneData()) return;
  const auto& data = *m->joinPruneData();
  bool forUs = false;
  for (const auto& [id, i] : intfs_)
    forUs = forUs || i.primary.address() == data.upstreamNeighbor();
  const double expires = loop_.clock()->now() + data.holdTime();
  for (const auto& [prefix, g] : data.joinPruneGroupData()) {
    // A named copy: clang 14 cannot capture a structured binding.
    const Nimo::IpGenAddr group = prefix.address();
    auto record = [&](const Nimo::IpGenAddr& source, const Nimo::IpGenAddr& rp, bool join) {
      const DownstreamKey key{info->intfId(), group, source};
      const char* what = join ? "join" : "prune";
      const std::string name = source.isSet() ? source.str() : "*";
      if (!join || data.holdTime() == 0) {
        if (downstream_.erase(key))
          say("downstream {} ({},{}) on {}", what, name, group, info->intfId());
        return;
      }
      const bool fresh = !downstream_.count(key);
      downstream_[key] = Downstream{info->neighborAddr(), data.upstreamNeighbor(), rp, expires};
      if (fresh) {
        say("downstream {} ({},{}) on {} from {}, upstream {}{}", what, name, group, info->intfId(),
            info->neighborAddr(), data.upstreamNeighbor(), forUs ? " (us)" : "");
      }
    };
    if (g.wcSourceData()) record({}, g.wcSourceData()->rp(), g.wcSourceData()->join());
    for (const auto& s : g.joinedSource()) record(s.address(), {}, true);
    for (const auto& s : g.prunedSource()) record(s.address(), {}, false);
  }
}

}  // namespace PimAgent
