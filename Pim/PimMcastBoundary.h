// Multicast boundaries: may PIM traffic for a group cross an interface?
//
// IntfBoundary answers for one interface from its Nimo::IntfBoundaryStatus (null: the
// interface has no boundary); McastBoundary answers for any interface from the platform's
// Routing::McastBoundary::Status, looking the interface up by name on every query. Neither
// copies the prefixes, so a query always sees the current configuration. The message
// handlers ask before they accept or send a Join/Prune entry, an Assert or a Bootstrap
// for a group, and trace the outcome in their own words.
//
// filtered(group): the group address lies in one of the boundary prefixes.
// filteredPrefix(prefix): the prefix overlaps one of them (either contains the other).
// A boundary prefix of the other family never matches.
//
// Traces go to the facility "Pim::Boundary" (level 8: the query, 7: the walk and match).
// Threading: event-loop thread only; no locks.
//
// Usage:
//   auto status = Kel::Ptr<Nimo::IntfBoundaryStatus>::make();
//   status->groupPrefixIs(Nimo::IpGenPrefix("239.0.0.0/8"));
//   auto b = Routing::Pim::Boundary::intfBoundaryFactory(status);
//   b->filtered(Nimo::IpGenAddr("239.1.2.3"));                     // true
//   b->filteredPrefix(Nimo::IpGenPrefix("224.0.0.0/4"));           // true: contains it
//   Routing::Pim::Boundary::McastBoundary all("boundary", mcastBoundaryStatus);
//   all.filtered(Nimo::IntfId("Ethernet1"), Nimo::IpGenAddr("239.1.2.3"));
#pragma once

#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/Routing.h"

namespace Routing::Pim::Boundary {

class IntfBoundary : public Kel::Entity {
 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::Boundary::IntfBoundary";

  class NotifieeConst : public Kel::BaseNotifiee<IntfBoundary, NotifieeConst> {};
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  explicit IntfBoundary(Kel::Ptr<const Nimo::IntfBoundaryStatus> intfBoundaryStatus)
      : Kel::Entity(Kel::Name()), intfBoundaryStatus_(std::move(intfBoundaryStatus)) {}

  const Kel::Ptr<const Nimo::IntfBoundaryStatus>& intfBoundaryStatus() const noexcept {
    return intfBoundaryStatus_;
  }

  bool filtered(const Nimo::IpGenAddr& group) const;
  bool filteredPrefix(const Nimo::IpGenPrefix& groupPrefix) const;

 private:
  Kel::Ptr<const Nimo::IntfBoundaryStatus> intfBoundaryStatus_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

Kel::Ptr<IntfBoundary> intfBoundaryFactory(
    Kel::Ptr<const Nimo::IntfBoundaryStatus> intfBoundaryStatus);

class McastBoundary : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<McastBoundary, NotifieeConst> {};
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  McastBoundary(Kel::Name name, Kel::Ptr<const Routing::McastBoundary::Status> boundaryStatus)
      : Kel::Entity(std::move(name)), boundaryStatus_(std::move(boundaryStatus)) {}

  const Kel::Ptr<const Routing::McastBoundary::Status>& boundaryStatus() const noexcept {
    return boundaryStatus_;
  }

  bool filtered(const Nimo::IntfId& intfId, const Nimo::IpGenAddr& group) const;
  bool filteredPrefix(const Nimo::IntfId& intfId, const Nimo::IpGenPrefix& groupPrefix) const;

 private:
  IntfBoundary intfBoundary(const Nimo::IntfId& intfId) const;
  Kel::Ptr<const Routing::McastBoundary::Status> boundaryStatus_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

Kel::Ptr<McastBoundary> mcastBoundaryFactory(
    const Kel::Name& name, Kel::Ptr<const Routing::McastBoundary::Status> boundaryStatus);

}  // namespace Routing::Pim::Boundary
