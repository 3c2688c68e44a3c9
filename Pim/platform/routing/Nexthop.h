// Next-hop tracking: clients (the PIM agents) register the addresses whose resolution they
// depend on; a routing agent resolves each by longest match in one RIB and publishes the
// answer and its changes; the client drains a backlog of changed addresses.
//
// Tables, one writer each, per VRF, family and RIB (rib is "unicast" or "multicast"; root is
// "routing", IPv6 "routing6"):
// - NexthopVrfConfig: "<root>/nexthop/<vrf>/<rib>/client", collection <client name>; the
//   addresses one client tracks, written by that client. Each client has its own table, so
//   the sparse and bidirectional agents register independently; the routing agent tracks
//   the union and forgets a client whose table is retired.
// - NexthopVrfStatus: "<root>/nexthop/<vrf>/<rib>", collections "status" (one
//   NexthopStatusEntry per tracked address) and "mark" (one NexthopStatusMark); written by
//   the routing agent (NexthopVrfStatusWriter).
// - Drobe::Fib::ForwardingStatus / Drobe::Fib6::ForwardingStatus: the routes and FECs of
//   one RIB, the RIB tables of routing/Fib.h read as they are ("<root>/rib/<vrf>",
//   "urib" or "mrib" with "fec").
//
// NexthopStatusEntry fields: addr (the key); prefix, the resolving route's prefix (unset
// when no route covers addr: the entry stays, so "unresolved" and "not tracked" differ);
// fecId, metric, preference and routeType copied from that route. FEC ids are content
// addressed (routing/Fib.h), so a change of the resolving FEC's vias, an ECMP member
// withdrawn say, is a new fecId and therefore a changed entry: no version field is needed.
//
// Restart. A routing agent that restarts mounts an empty status table. The mark's synced
// field stays 0 until its first full pass has published every tracked address; until a
// client sees synced, its backlog takes nothing from the status table, so the empty table
// never reads as "every route deleted". When synced turns 1 every registered address enters
// the backlog once (the client re-reads them; equal answers are harmless). Lookups made in
// that window read the empty table and find no route.
//
// NexthopBacklog invariants (the RPF route machine relies on them):
// - it holds only registered addresses: a notice for another address is dropped, and
//   NexthopVrfConfig::nexthopDel removes the address from it;
// - one entry per address, however often it changed before the drain;
// - a whole-collection notice puts every registered address in once.
//
// NexthopResolverGen (the routing agent's side): resolves tracked addresses against a RIB
// trie (a Routing::Shadow or the agent's own mirror), keeps them in a trie of their own, and
// on a route notice re-resolves only those under the changed prefix; an unchanged answer
// writes nothing.
//
// Threading: event-loop thread only; no locks.
//
// Usage (client):
//   auto cfg = Routing::NexthopVrfConfig::create(loop, af, "default", "unicast", "pim-sm");
//   auto st = Routing::NexthopVrfStatus::create(loop, af, "default", "unicast");
//   auto backlog = Routing::NexthopBacklog::create(st, cfg);
//   cfg->nexthopIs(Nimo::IpGenAddr("10.1.1.1"));
//   while (auto a = backlog->backlogFront()) { ...; backlog->backlogDel(*a); }
// Usage (routing agent):
//   auto out = Routing::NexthopVrfStatusWriter::create(af, "default", "unicast", 1 << 16);
//   auto r = Routing::NexthopResolver::create(loop.timers(), shadow->trie(), out);
//   r->clientIs(loop, "pim-sm");
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "Pim/platform/Drobe.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/Ulm.h"
#include "Pim/platform/routing/Fib.h"
#include "Pim/platform/routing/Trie.h"

namespace Routing {

struct AddrHash {
  std::size_t operator()(const Nimo::IpGenAddr& a) const noexcept { return a.hash(); }
};

// The mount paths of the header comment.
std::string nexthopStatusPath(Nimo::AddressFamily af, std::string_view vrf, std::string_view rib);
std::string nexthopConfigPath(Nimo::AddressFamily af, std::string_view vrf, std::string_view rib);

struct NexthopStatusEntry {
  std::uint32_t fecId = 0;
  std::uint32_t metric = 0;
  Nimo::IpGenAddr addr;
  Nimo::IpGenPrefix prefix;
  std::uint8_t preference = 0;
  std::uint8_t routeType = 0;

  static constexpr auto kFields =
      std::make_tuple(Kel::field("fecId", &NexthopStatusEntry::fecId),
                      Kel::field("metric", &NexthopStatusEntry::metric),
                      Kel::field("addr", &NexthopStatusEntry::addr),
                      Kel::field("prefix", &NexthopStatusEntry::prefix),
                      Kel::field("preference", &NexthopStatusEntry::preference),
                      Kel::field("routeType", &NexthopStatusEntry::routeType));
  const Nimo::IpGenAddr& key() const noexcept { return addr; }
  bool resolved() const noexcept { return prefix.address().isSet(); }
  friend bool operator==(const NexthopStatusEntry&, const NexthopStatusEntry&) = default;
};

struct NexthopMarkKey {
  std::uint32_t id = 0;
  static constexpr auto kFields = std::make_tuple(Kel::field("id", &NexthopMarkKey::id));
  std::uint32_t hash() const noexcept { return id * 0x9e3779b1u; }
  friend bool operator==(const NexthopMarkKey&, const NexthopMarkKey&) = default;
};

struct NexthopStatusMark {
  NexthopMarkKey id;
  std::uint32_t synced = 0;  // 1 once the writer's first full pass is published
  static constexpr auto kFields = std::make_tuple(Kel::field("id", &NexthopStatusMark::id),
                                                  Kel::field("synced", &NexthopStatusMark::synced));
  const NexthopMarkKey& key() const noexcept { return id; }
  friend bool operator==(const NexthopStatusMark&, const NexthopStatusMark&) = default;
};

// One record per tracked address in a client's config table.
struct NexthopConfigEntry {
  Nimo::IpGenAddr addr;
  static constexpr auto kFields = std::make_tuple(Kel::field("addr", &NexthopConfigEntry::addr));
  const Nimo::IpGenAddr& key() const noexcept { return addr; }
  friend bool operator==(const NexthopConfigEntry&, const NexthopConfigEntry&) = default;
};

using NexthopStatusTable = Drobe::Reader<Nimo::IpGenAddr, NexthopStatusEntry>;
using NexthopMarkTable = Drobe::Reader<NexthopMarkKey, NexthopStatusMark>;
using NexthopConfigTable = Drobe::Reader<Nimo::IpGenAddr, NexthopConfigEntry>;

// The client's registrations, committed on the next event-loop turn (one commit however many
// changes a turn makes).
class NexthopVrfConfig : public Kel::PtrInterface {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<NexthopVrfConfig, NotifieeConst> {
   public:
    virtual void onNexthop(const Nimo::IpGenAddr&) {}  // registered or unregistered
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  // Null (traced by Drobe) if the table cannot be mounted.
  static Kel::Ptr<NexthopVrfConfig> create(Ulm::EventLoop& loop, Nimo::AddressFamily af,
                                           std::string_view vrf, std::string_view rib,
                                           std::string_view client,
                                           std::uint32_t capacity = 1 << 16);
  Nimo::AddressFamily af() const noexcept { return af_; }
  // False when refused (table full) or of the other family.
  bool nexthopIs(const Nimo::IpGenAddr& a);
  void nexthopDel(const Nimo::IpGenAddr& a);
  bool nexthop(const Nimo::IpGenAddr& a) const { return table_->find(a).has_value(); }
  std::uint32_t size() const noexcept { return table_->size(); }
  template <typename Fn>
  void forEach(Fn&& fn) const {
    for (const NexthopConfigEntry& e : *table_) fn(e.addr);
  }
  void commit();

 private:
  using Table = Drobe::Writer<Nimo::IpGenAddr, NexthopConfigEntry>;
  NexthopVrfConfig(Ulm::EventLoop& loop, Nimo::AddressFamily af, Kel::Ptr<Table> t);
  Nimo::AddressFamily af_;
  Kel::Ptr<Table> table_;
  Ulm::Timer commitTimer_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

// The client's view of one RIB's resolutions.
class NexthopVrfStatus : public Kel::PtrInterface {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<NexthopVrfStatus, NotifieeConst> {
   public:
    virtual void onEntry(const Nimo::IpGenAddr&) {}  // only while synced
    virtual void onEntryAll() {}                     // a whole-table change while synced
    virtual void onSynced(bool) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  static Kel::Ptr<NexthopVrfStatus> create(Ulm::EventLoop& loop, Nimo::AddressFamily af,
                                           std::string_view vrf, std::string_view rib);
  ~NexthopVrfStatus() override;
  Nimo::AddressFamily af() const noexcept { return af_; }
  // The writer is mounted and has finished its first full pass.
  bool synced() const noexcept { return synced_; }
  // found only for a resolved entry; changing for a slot being rewritten.
  Drobe::FindStatus entry(const Nimo::IpGenAddr& a, NexthopStatusEntry& out) const {
    const Drobe::FindStatus s = status_->findStatus(a, out);
    return s == Drobe::FindStatus::found && !out.resolved() ? Drobe::FindStatus::absent : s;
  }
  void prefetch(const Nimo::IpGenAddr& a) const noexcept { status_->prefetch(a); }
  const Kel::Ptr<NexthopStatusTable>& table() const noexcept { return status_; }

 private:
  struct StatusReactor : NexthopStatusTable::NotifieeConst {
    NexthopVrfStatus* owner = nullptr;
    void onKey(const Nimo::IpGenAddr& a) override { owner->handleEntry(a); }
    void onCollection() override { owner->handleEntryAll(); }
    // Before the empty table's onCollection: a retired writer is unsynced at once.
    void onMountStatus(bool) override { owner->handleMark(); }
  };
  struct MarkReactor : NexthopMarkTable::NotifieeConst {
    NexthopVrfStatus* owner = nullptr;
    void onKey(const NexthopMarkKey&) override { owner->handleMark(); }
    void onCollection() override { owner->handleMark(); }
    void onMountStatus(bool) override { owner->handleMark(); }
  };
  NexthopVrfStatus(Ulm::EventLoop& loop, Nimo::AddressFamily af, const std::string& path);
  void handleEntry(const Nimo::IpGenAddr& a);
  void handleEntryAll();
  void handleMark();

  Nimo::AddressFamily af_;
  Kel::Ptr<NexthopStatusTable> status_;
  Kel::Ptr<NexthopMarkTable> mark_;
  StatusReactor statusReactor_;
  MarkReactor markReactor_;
  bool synced_ = false;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

// The routing agent's writer of one RIB's resolutions and the mark.
class NexthopVrfStatusWriter : public Kel::PtrInterface {
 public:
  static Kel::Ptr<NexthopVrfStatusWriter> create(Nimo::AddressFamily af, std::string_view vrf,
                                                 std::string_view rib,
                                                 std::uint32_t capacity = 1 << 16);
  Nimo::AddressFamily af() const noexcept { return af_; }
  // Writes e unless equal to what is there; true when it changed something.
  bool entryIs(const NexthopStatusEntry& e);
  void entryDel(const Nimo::IpGenAddr& a) { status_->del(a); }
  void prefetch(const Nimo::IpGenAddr& a) const noexcept { status_->prefetch(a); }
  std::optional<NexthopStatusEntry> entry(const Nimo::IpGenAddr& a) const {
    return status_->find(a);
  }
  std::uint32_t size() const noexcept { return status_->size(); }
  // Published with the next commit, after the entries of that commit.
  void syncedIs(bool s);
  bool synced() const noexcept { return synced_; }
  void commit();
  std::uint64_t refused() const noexcept { return status_->refused(); }
  // Shared-memory bytes of the status table (file size).
  std::uint64_t sharedBytes() const;

 private:
  using Status = Drobe::Writer<Nimo::IpGenAddr, NexthopStatusEntry>;
  using Mark = Drobe::Writer<NexthopMarkKey, NexthopStatusMark>;
  NexthopVrfStatusWriter(Nimo::AddressFamily af, Kel::Ptr<Status> s, Kel::Ptr<Mark> m)
      : af_(af), status_(std::move(s)), mark_(std::move(m)) {}
  Nimo::AddressFamily af_;
  Kel::Ptr<Status> status_;
  Kel::Ptr<Mark> mark_;
  bool synced_ = false;
};

// Changed registered addresses, waiting for the client to drain them.
class NexthopBacklog : public Kel::PtrInterface {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<NexthopBacklog, NotifieeConst> {
   public:
    virtual void onBacklog() {}  // something was added
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  static Kel::Ptr<NexthopBacklog> create(Kel::Ptr<NexthopVrfStatus> status,
                                         Kel::Ptr<NexthopVrfConfig> config);
  ~NexthopBacklog() override;
  std::size_t size() const noexcept { return pending_.size(); }
  bool backlogHas(const Nimo::IpGenAddr& a) const { return pending_.count(a) != 0; }
  // The oldest pending address.
  std::optional<Nimo::IpGenAddr> backlogFront();
  void backlogDel(const Nimo::IpGenAddr& a);
  // Bytes held by the backlog's containers (flat under churn).
  std::size_t memoryBytes() const noexcept;

 private:
  struct StatusReactor : NexthopVrfStatus::NotifieeConst {
    NexthopBacklog* owner = nullptr;
    void onEntry(const Nimo::IpGenAddr& a) override { owner->backlogAdd(a); }
    void onEntryAll() override { owner->backlogAddAll(); }
    void onSynced(bool s) override {
      if (s) owner->backlogAddAll();
    }
  };
  struct ConfigReactor : NexthopVrfConfig::NotifieeConst {
    NexthopBacklog* owner = nullptr;
    void onNexthop(const Nimo::IpGenAddr& a) override {
      if (!notifier()->nexthop(a)) owner->backlogDel(a);
    }
  };
  NexthopBacklog(Kel::Ptr<NexthopVrfStatus> status, Kel::Ptr<NexthopVrfConfig> config);
  void backlogAdd(const Nimo::IpGenAddr& a);
  void backlogAddAll();

  Kel::Ptr<NexthopVrfStatus> status_;
  Kel::Ptr<NexthopVrfConfig> config_;
  StatusReactor statusReactor_;
  ConfigReactor configReactor_;
  // pending_ maps an address to its ticket; order_ keeps (ticket, address) in arrival
  // order, with stale tickets skipped and compacted away.
  std::unordered_map<Nimo::IpGenAddr, std::uint64_t, AddrHash> pending_;
  std::deque<std::pair<std::uint64_t, Nimo::IpGenAddr>> order_;
  std::uint64_t nextTicket_ = 0;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

// Resolves tracked addresses against a route trie and publishes them in a status writer.
template <Nimo::AddressFamily F>
class NexthopResolverGen : public Kel::PtrInterface {
 public:
  using Route = RouteGen<F>;
  using RouteTrie = TrieGen<Route>;

  static Kel::Ptr<NexthopResolverGen> create(Ulm::TimerWheel& timers, Kel::Ptr<RouteTrie> routes,
                                             Kel::Ptr<NexthopVrfStatusWriter> out);
  ~NexthopResolverGen() override;

  // Reference-counted tracking: one count per client that registered the address.
  void trackIs(const Nimo::IpGenAddr& a);
  void trackDel(const Nimo::IpGenAddr& a);
  std::size_t tracked() const noexcept { return tracked_.size(); }
  // Follows one client's config table (created under the status path's VRF and RIB); its
  // addresses are tracked while the table lives and forgotten when it is retired.
  void clientIs(Ulm::EventLoop& loop, std::string_view vrf, std::string_view rib,
                std::string_view client);
  bool client(std::string_view name) const { return clients_.count(std::string(name)) != 0; }
  // Re-resolves every tracked address and commits. A route trie's onChangedAll runs it; an
  // agent whose trie was loaded before the resolver existed calls it once. The mark is set
  // once this has run and every client followed so far has been read once, since a mark set
  // before the clients are known would announce their addresses as unresolved.
  void resolveAll();
  // Addresses re-resolved so far (each route notice costs only those under its prefix).
  std::uint64_t resolutions() const noexcept { return resolutions_; }
  // Publishes pending changes now (otherwise on the next turn of the timer wheel).
  void commit();

 private:
  struct RouteReactor : RouteTrie::NotifieeConst {
    NexthopResolverGen* owner = nullptr;
    void onChangedRoute(const Nimo::IpGenPrefix& p, TrieChange) override { owner->handleRoute(p); }
    void onChangedAll() override { owner->resolveAll(); }
  };
  struct Client : NexthopConfigTable::NotifieeConst {
    NexthopResolverGen* owner = nullptr;
    Kel::Ptr<NexthopConfigTable> table;
    std::unordered_set<Nimo::IpGenAddr, AddrHash> addrs;
    bool loaded = false;  // its first whole-table read is done
    void onKey(const Nimo::IpGenAddr& a) override;
    void onCollection() override;
    void onMountStatus(bool mounted) override;
  };
  NexthopResolverGen(Ulm::TimerWheel& timers, Kel::Ptr<RouteTrie> routes,
                     Kel::Ptr<NexthopVrfStatusWriter> out);
  void handleRoute(const Nimo::IpGenPrefix& p);
  // Resolves the tracked addresses under p, or every one when p is null.
  void resolveUnder(const Nimo::IpGenPrefix* p);
  void resolve(const Nimo::IpGenAddr& a);
  void schedule();
  void markIfReady();

  Kel::Ptr<RouteTrie> routes_;
  Kel::Ptr<NexthopVrfStatusWriter> out_;
  RouteReactor reactor_;
  TrieGen<std::uint32_t> tracked_;      // host prefixes; payload: registration count
  std::vector<Nimo::IpGenAddr> batch_;  // one walk's addresses, kept between walks
  std::map<std::string, std::unique_ptr<Client>, std::less<>> clients_;
  Ulm::Timer commitTimer_;
  std::uint64_t resolutions_ = 0;
  bool routesLoaded_ = false;
};

using NexthopResolver = NexthopResolverGen<Nimo::AddressFamily::ipv4>;
using Nexthop6Resolver = NexthopResolverGen<Nimo::AddressFamily::ipv6>;

}  // namespace Routing

namespace Drobe {

// The routes and FECs of one RIB, as the RPF table reads them.
template <Nimo::AddressFamily F>
class ForwardingStatusGen : public Kel::PtrInterface {
 public:
  using Routes = Drobe::Reader<Nimo::IpGenPrefix, Routing::RouteGen<F>>;
  using Fecs = Drobe::Reader<Routing::FecKey, Routing::FecPartGen<F>>;
  // rib: "urib" or "mrib" under Routing::ribMountPath(F, vrf); both name FECs of "fec".
  static Kel::Ptr<ForwardingStatusGen> create(Ulm::EventLoop& loop, std::string_view vrf,
                                              std::string_view rib) {
    const std::string path = Routing::ribMountPath(F, vrf);
    return Kel::Ptr<ForwardingStatusGen>(
        new ForwardingStatusGen(Routes::create(loop, path, rib), Fecs::create(loop, path, "fec")));
  }
  const Kel::Ptr<Routes>& routes() const noexcept { return routes_; }
  const Kel::Ptr<Fecs>& fecs() const noexcept { return fecs_; }

 private:
  ForwardingStatusGen(Kel::Ptr<Routes> r, Kel::Ptr<Fecs> f)
      : routes_(std::move(r)), fecs_(std::move(f)) {}
  Kel::Ptr<Routes> routes_;
  Kel::Ptr<Fecs> fecs_;
};

namespace Fib {
using ForwardingStatus = ForwardingStatusGen<Nimo::AddressFamily::ipv4>;
}
namespace Fib6 {
using ForwardingStatus = ForwardingStatusGen<Nimo::AddressFamily::ipv6>;
}

}  // namespace Drobe
