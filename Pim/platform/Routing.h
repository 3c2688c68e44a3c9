// Routing: the routing-table side of the platform that other agents publish and the PIM
// core only reads. So far: the multicast boundary configuration.
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

#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"

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
// Unicast RIBs: route and FEC records with their writers (routing/Fib.h), the prefix trie
// (routing/Trie.h) and the readers' shadow of a RIB (routing/Shadow.h); the multicast
// forwarding configuration (Routing::Multicast::Fib::Config, in routing/Fib.h).
#include "Pim/platform/routing/Fib.h"
#include "Pim/platform/routing/Shadow.h"
#include "Pim/platform/routing/Trie.h"
