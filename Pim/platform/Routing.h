// Routing: the routing-table side of the platform that other agents publish and the PIM
// core only reads. So far: the multicast boundary configuration, and the multicast
// forwarding hardware status (at the end of this file).
//
// - Nimo::IntfBoundaryStatus: one interface's multicast boundary, the set of group
//   prefixes (IPv4 and IPv6 mixed) whose PIM traffic must not cross the interface.
// - Routing::McastBoundary::Status: every interface's boundary, by interface name, in the
//   collection softwareBoundaryStatus. An interface without an entry has no boundary.
//
// Both are entities in the generated style (collection getters, fooIs/fooDel/fooDelAll)
// with synchronous notification of their notifiees. Readers hold them by Kel::Ptr and
// query them on every use; nothing here caches.
//
// Threading: event-loop thread only; no locks.
//
// Usage:
//   auto intf = Kel::Ptr<Nimo::IntfBoundaryStatus>::make();
//   intf->groupPrefixIs(Nimo::IpGenPrefix("239.0.0.0/8"));
//   auto all = Kel::Ptr<Routing::McastBoundary::Status>::make("boundary");
//   all->softwareBoundaryStatusIs("Ethernet1", intf);
//   bool has = all->softwareBoundaryStatus("Ethernet1") != nullptr;   // true
#pragma once

#include <map>
#include <set>

#include "Pim/platform/Drobe.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/System.h"

namespace Nimo {

class IntfBoundaryStatus : public Kel::PtrInterface {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<IntfBoundaryStatus, NotifieeConst> {
   public:
    virtual void onGroupPrefix(const IpGenPrefix&) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  // Ordered by family, address, then length: the order walks see.
  const std::set<IpGenPrefix>& groupPrefix() const noexcept { return groupPrefix_; }
  void groupPrefixIs(const IpGenPrefix& p) {
    if (groupPrefix_.insert(p).second) notify(p);
  }
  void groupPrefixDel(const IpGenPrefix& p) {
    if (groupPrefix_.erase(p) != 0) notify(p);
  }

 private:
  void notify(const IpGenPrefix& p) {
    notifiees_.forEach([&](NotifieeConst& n) { n.onGroupPrefix(p); });
  }
  std::set<IpGenPrefix> groupPrefix_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

}  // namespace Nimo

namespace Routing::McastBoundary {

class Status : public Kel::Entity {
 public:
  static constexpr std::string_view kTypeName = "Routing::McastBoundary::Status";

  class NotifieeConst : public Kel::BaseNotifiee<Status, NotifieeConst> {
   public:
    virtual void onSoftwareBoundaryStatus(const Kel::Name&) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  explicit Status(Kel::Name name) : Kel::Entity(std::move(name)) {}

  // Ordered by name; also searchable by a string_view, so that a query per RPF via does not
  // build a string.
  struct NameLess {
    using is_transparent = void;
    static std::string_view view(const Kel::Name& n) noexcept { return n.str(); }
    static std::string_view view(std::string_view s) noexcept { return s; }
    template <typename A, typename B>
    bool operator()(const A& a, const B& b) const noexcept {
      return view(a) < view(b);
    }
  };
  using BoundaryMap = std::map<Kel::Name, Kel::Ptr<Nimo::IntfBoundaryStatus>, NameLess>;

  // The interface's boundary, or null when it has none.
  Kel::Ptr<Nimo::IntfBoundaryStatus> softwareBoundaryStatus(std::string_view intf) const {
    auto it = softwareBoundaryStatus_.find(intf);
    return it == softwareBoundaryStatus_.end() ? nullptr : it->second;
  }
  Kel::Ptr<Nimo::IntfBoundaryStatus> softwareBoundaryStatus(const Kel::Name& intf) const {
    return softwareBoundaryStatus(std::string_view(intf.str()));
  }
  const BoundaryMap& softwareBoundaryStatus() const noexcept { return softwareBoundaryStatus_; }
  void softwareBoundaryStatusIs(const Kel::Name& intf, Kel::Ptr<Nimo::IntfBoundaryStatus> s) {
    auto& slot = softwareBoundaryStatus_[intf];
    if (slot == s) return;
    slot = std::move(s);
    notify(intf);
  }
  void softwareBoundaryStatusDel(const Kel::Name& intf) {
    if (softwareBoundaryStatus_.erase(intf) != 0) notify(intf);
  }

 private:
  void notify(const Kel::Name& intf) {
    notifiees_.forEach([&](NotifieeConst& n) { n.onSoftwareBoundaryStatus(intf); });
  }
  BoundaryMap softwareBoundaryStatus_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

}  // namespace Routing::McastBoundary

// ---------------------------------------------------------------------------------------
// Multicast forwarding hardware status: what the forwarding agent publishes per VRF about
// the routes it has programmed, read by the route activity monitor.
//
// - Hardware::RouteKey: (source, group); a (*,G) route has the zero address of the
//   group's family as its source.
// - Per VRF, a table set at "routing/multicast/fib/hardware/status/<vrf>" (both families
//   together) with three collections:
//     "vrf"       one VrfActivity: the VRF exists in hardware, and its activityInterval
//                 (seconds, 8 bits): a route counts as active if it forwarded that recently;
//     "route"     RouteActivity per programmed route: lastActivityTime;
//     "fastDrop"  FastDropActivity per route: lastFastDropTime, when hardware last dropped
//                 the route's packets on the fast path (say, arriving on a wrong interface),
//                 which also shows the source is live.
// - Times are seconds of CLOCK_MONOTONIC, the clock Kel::SystemClock reads. A writer on
//   another clock (wall time, a hardware tick) makes every route look live or dead to
//   every reader, so writers must convert.
// - Hardware::Status holds one VrfStatus per VRF: writers mount theirs with
//   vrfStatusWriter(vrf), readers with vrfStatusReader(loop, vrf); vrfStatus(vrf) is null
//   for a VRF never mounted here.
//
// Threading: event-loop thread only; no locks. Readers see a writer's changes at its
// commit(), as for every Drobe table.
//
// Usage (forwarding agent):
//   auto hw = Kel::Ptr<Hardware::Status>::make("hw");
//   auto red = hw->vrfStatusWriter(L3::VrfName("red"));
//   red->activityIntervalIs(10);
//   red->routeActivityIs(Hardware::RouteKey(src, grp), clock->now());
//   red->commit();
// Usage (reader): hw->vrfStatusReader(loop, L3::VrfName("red"));
//   auto t = hw->vrfStatus(L3::VrfName("red"))->lastActivityTime(key);  // optional<double>
namespace Routing::Multicast::Fib::Hardware {

class RouteKey {
 public:
  RouteKey() noexcept = default;
  RouteKey(const Nimo::IpGenAddr& source, const Nimo::IpGenAddr& group) noexcept
      : source_(source), group_(group) {}
  const Nimo::IpGenAddr& source() const noexcept { return source_; }
  const Nimo::IpGenAddr& group() const noexcept { return group_; }
  std::uint32_t hash() const noexcept {
    std::uint32_t h = source_.hash() ^ (group_.hash() * 0x9e3779b1u);
    h ^= h >> 15;
    h *= 0x85ebca6bu;
    return h ^ (h >> 13);
  }
  friend bool operator==(const RouteKey&, const RouteKey&) = default;
  friend auto operator<=>(const RouteKey&, const RouteKey&) = default;

 private:
  Nimo::IpGenAddr source_;
  Nimo::IpGenAddr group_;

 public:
  static constexpr std::string_view kTypeName = "Routing::Multicast::Fib::Hardware::RouteKey";
  static constexpr auto kFields = std::make_tuple(Kel::field("source", &RouteKey::source_),
                                                  Kel::field("group", &RouteKey::group_));
};
// "(10.0.0.1, 232.1.1.1)"; a zero source prints as "*".
std::ostream& operator<<(std::ostream& os, const RouteKey& k);

// A record of a time per route (RouteActivity, FastDropActivity); Tag names the type.
template <typename Tag>
class RouteTime {
 public:
  RouteTime() noexcept = default;
  RouteTime(const RouteKey& key, double time) noexcept : key_(key), time_(time) {}
  const RouteKey& key() const noexcept { return key_; }
  double time() const noexcept { return time_; }
  friend bool operator==(const RouteTime&, const RouteTime&) = default;

 private:
  RouteKey key_;
  double time_ = 0.0;

 public:
  static constexpr std::string_view kTypeName = Tag::kTypeName;
  static constexpr auto kFields = std::make_tuple(Kel::field("key", &RouteTime::key_),
                                                  Kel::field(Tag::kTimeName, &RouteTime::time_));
};
struct RouteActivityTag {
  static constexpr std::string_view kTypeName = "Routing::Multicast::Fib::Hardware::RouteActivity";
  static constexpr std::string_view kTimeName = "lastActivityTime";
};
struct FastDropActivityTag {
  static constexpr std::string_view kTypeName =
      "Routing::Multicast::Fib::Hardware::FastDropActivity";
  static constexpr std::string_view kTimeName = "lastFastDropTime";
};
using RouteActivity = RouteTime<RouteActivityTag>;
using FastDropActivity = RouteTime<FastDropActivityTag>;

// The "vrf" collection's one entry. Its key is a constant: the table set is the VRF's.
struct VrfActivityKey {
  std::uint32_t id = 0;
  std::uint32_t hash() const noexcept { return id; }
  friend bool operator==(const VrfActivityKey&, const VrfActivityKey&) = default;
  static constexpr std::string_view kTypeName = "Routing::Multicast::Fib::Hardware::VrfActivityKey";
  static constexpr auto kFields = std::make_tuple(Kel::field("id", &VrfActivityKey::id));
};
struct VrfActivity {
  std::uint8_t activityInterval = 0;
  VrfActivityKey key() const noexcept { return {}; }
  friend bool operator==(const VrfActivity&, const VrfActivity&) = default;
  static constexpr std::string_view kTypeName = "Routing::Multicast::Fib::Hardware::VrfActivity";
  static constexpr auto kFields =
      std::make_tuple(Kel::field("activityInterval", &VrfActivity::activityInterval));
};

// One Drobe collection, as writer or reader.
template <typename K, typename V>
struct StatusTable {
  Kel::Ptr<::Drobe::Writer<K, V>> writer;
  Kel::Ptr<::Drobe::Reader<K, V>> reader;
  std::optional<V> find(const K& k) const {
    if (writer) return writer->find(k);
    return reader ? reader->find(k) : std::nullopt;
  }
};

class VrfStatus : public Kel::PtrInterface {
 public:
  static constexpr std::uint32_t kRouteCapacity = 16384;
  static constexpr std::uint32_t kRouteMaxCapacity = 1u << 18;

  static std::string mountPath(const L3::VrfName& vrf) {
    return "routing/multicast/fib/hardware/status/" + vrf.str();
  }
  // Null (traced by Drobe) if the tables cannot be made.
  static Kel::Ptr<VrfStatus> writerFor(const L3::VrfName& vrf) {
    const ::Drobe::TableSet set(mountPath(vrf));
    Kel::Ptr<VrfStatus> s(new VrfStatus);
    s->vrf_.writer = set.writer<VrfActivityKey, VrfActivity>(::Drobe::CollectionInfo{"vrf", 1});
    s->route_.writer =
        set.writer<RouteKey, RouteActivity>({"route", kRouteCapacity, 0, kRouteMaxCapacity});
    s->fastDrop_.writer =
        set.writer<RouteKey, FastDropActivity>({"fastDrop", kRouteCapacity, 0, kRouteMaxCapacity});
    if (!s->vrf_.writer || !s->route_.writer || !s->fastDrop_.writer) return nullptr;
    return s;
  }
  static Kel::Ptr<VrfStatus> readerFor(Ulm::EventLoop& loop, const L3::VrfName& vrf) {
    const ::Drobe::TableSet set(mountPath(vrf));
    Kel::Ptr<VrfStatus> s(new VrfStatus);
    s->vrf_.reader = set.reader<VrfActivityKey, VrfActivity>(loop, "vrf");
    s->route_.reader = set.reader<RouteKey, RouteActivity>(loop, "route");
    s->fastDrop_.reader = set.reader<RouteKey, FastDropActivity>(loop, "fastDrop");
    s->vrfWatch_.notifierIs(s->vrf_.reader);
    s->vrf_.refresh();
    return s;
  }

  // The VRF is in hardware once its writer has published the "vrf" entry.
  bool exists() const noexcept { return vrf_.cached.has_value(); }
  std::uint8_t activityInterval() const noexcept {
    return vrf_.cached ? vrf_.cached->activityInterval : 0;
  }
  std::optional<double> lastActivityTime(const RouteKey& k) const {
    auto v = route_.find(k);
    return v ? std::optional<double>(v->time()) : std::nullopt;
  }
  std::optional<double> lastFastDropTime(const RouteKey& k) const {
    auto v = fastDrop_.find(k);
    return v ? std::optional<double>(v->time()) : std::nullopt;
  }

  // Writer only.
  bool activityIntervalIs(std::uint8_t seconds) {
    const bool ok = vrf_.writer->is({seconds});
    vrf_.refresh();
    return ok;
  }
  bool routeActivityIs(const RouteKey& k, double t) { return route_.writer->is({k, t}); }
  bool routeActivityDel(const RouteKey& k) { return route_.writer->del(k); }
  bool fastDropActivityIs(const RouteKey& k, double t) { return fastDrop_.writer->is({k, t}); }
  bool fastDropActivityDel(const RouteKey& k) { return fastDrop_.writer->del(k); }
  void commit() {
    route_.writer->commit();
    fastDrop_.writer->commit();
    vrf_.writer->commit();
  }

 private:
  VrfStatus() : vrfWatch_(*this) {}
  // The one "vrf" entry, read on every poll: kept here, refreshed on the reader's notices.
  struct VrfTable : StatusTable<VrfActivityKey, VrfActivity> {
    std::optional<VrfActivity> cached;
    void refresh() { cached = find({}); }
  };
  class VrfWatch : public ::Drobe::Reader<VrfActivityKey, VrfActivity>::NotifieeConst {
   public:
    explicit VrfWatch(VrfStatus& s) : s_(s) {}
    void onKey(const VrfActivityKey&) override { s_.vrf_.refresh(); }
    void onCollection() override { s_.vrf_.refresh(); }
    void onMountStatus(bool) override { s_.vrf_.refresh(); }

   private:
    VrfStatus& s_;
  };
  VrfTable vrf_;
  StatusTable<RouteKey, RouteActivity> route_;
  StatusTable<RouteKey, FastDropActivity> fastDrop_;
  VrfWatch vrfWatch_;  // last: detaches before the tables go
};

class Status : public Kel::Entity {
 public:
  static constexpr std::string_view kTypeName = "Routing::Multicast::Fib::Hardware::Status";
  explicit Status(Kel::Name name) : Kel::Entity(std::move(name)) {}

  Kel::Ptr<VrfStatus> vrfStatus(const L3::VrfName& vrf) const {
    auto it = vrfs_.find(vrf);
    return it == vrfs_.end() ? nullptr : it->second;
  }
  // Bumped whenever a VRF's status is replaced or removed: readers that keep a VrfStatus
  // look it up again when this moves.
  std::uint64_t version() const noexcept { return version_; }
  Kel::Ptr<VrfStatus> vrfStatusWriter(const L3::VrfName& vrf) {
    ++version_;
    vrfs_.erase(vrf);  // a previous writer's tables retire first
    auto s = VrfStatus::writerFor(vrf);
    if (s) vrfs_[vrf] = s;
    return s;
  }
  Kel::Ptr<VrfStatus> vrfStatusReader(Ulm::EventLoop& loop, const L3::VrfName& vrf) {
    ++version_;
    return vrfs_[vrf] = VrfStatus::readerFor(loop, vrf);
  }
  void vrfStatusDel(const L3::VrfName& vrf) {
    ++version_;
    vrfs_.erase(vrf);
  }

 private:
  std::uint64_t version_ = 0;
  std::map<L3::VrfName, Kel::Ptr<VrfStatus>> vrfs_;
};

inline std::ostream& operator<<(std::ostream& os, const RouteKey& k) {
  os << '(';
  if (k.source().isSet() && !k.source().isZero()) {
    os << k.source();
  } else {
    os << '*';
  }
  return os << ", " << k.group() << ')';
}

}  // namespace Routing::Multicast::Fib::Hardware

// Unicast RIBs: route and FEC records with their writers (routing/Fib.h), the prefix trie
// (routing/Trie.h) and the readers' shadow of a RIB (routing/Shadow.h); the multicast
// forwarding configuration (Routing::Multicast::Fib::Config, in routing/Fib.h).
#include "Pim/platform/routing/Fib.h"
#include "Pim/platform/routing/Shadow.h"
#include "Pim/platform/routing/Trie.h"

// Next-hop tracking: clients' registrations, the routing agent's resolutions with their
// restart mark, the client's backlog, a RIB's forwarding status, and the resolver.
#include "Pim/platform/routing/Nexthop.h"
