// Multicast boundaries: the prefix walks behind IntfBoundary and McastBoundary.

#include "Pim/PimMcastBoundary.h"

#include "Pim/platform/Flicklog.h"

namespace Routing::Pim::Boundary {

namespace {

Flicklog::Facility& boundaryTrace() {
  static Flicklog::Facility& f = Flicklog::facility("Pim::Boundary");
  return f;
}

// The first len bits of two IPv4 addresses agree; len 0 matches everything (and must not
// be turned into a shift by 32).
bool sameV4Bits(const Nimo::IpGenAddr& a, const Nimo::IpGenAddr& b, unsigned len) noexcept {
  if (len == 0) return true;
  const std::uint32_t mask = ~std::uint32_t{0} << (32 - len);
  return ((a.v4Addr() ^ b.v4Addr()) & mask) == 0;
}

bool contains(const Nimo::IpGenPrefix& boundary, const Nimo::IpGenAddr& group) noexcept {
  if (group.af() == Nimo::AddressFamily::ipv4) {
    return sameV4Bits(boundary.address(), group, boundary.maskLen());
  }
  return boundary.contains(group);
}

bool overlaps(const Nimo::IpGenPrefix& boundary, const Nimo::IpGenPrefix& q) noexcept {
  if (q.af() == Nimo::AddressFamily::ipv4) {
    return sameV4Bits(boundary.address(), q.address(), boundary.maskLen()) ||
           sameV4Bits(boundary.address(), q.address(), q.maskLen());
  }
  return boundary.overlaps(q);
}

// The walk both queries share: the first boundary prefix of q's family that match()es.
template <typename Q, typename Match>
bool walk(const Nimo::IntfBoundaryStatus* status, const Q& q, Match match) {
  if (status == nullptr) return false;
  auto& trace = boundaryTrace();
  FLICK_TRACE(trace, 7, "Boundary Filter : checking group {}", q);
  for (const Nimo::IpGenPrefix& p : status->groupPrefix()) {
    if (p.af() != q.af()) continue;
    if (match(p, q)) {
      FLICK_TRACE(trace, 7, "Boundary Filter: prefix {}", p);
      return true;
    }
  }
  return false;
}

}  // namespace

bool IntfBoundary::filtered(const Nimo::IpGenAddr& group) const {
  FLICK_TRACE(boundaryTrace(), 8, "filtered({})", group);
  return walk(intfBoundaryStatus_.ptr(), group, contains);
}

bool IntfBoundary::filteredPrefix(const Nimo::IpGenPrefix& groupPrefix) const {
  FLICK_TRACE(boundaryTrace(), 8, "filteredPrefix({})", groupPrefix);
  return walk(intfBoundaryStatus_.ptr(), groupPrefix, overlaps);
}

Kel::Ptr<IntfBoundary> intfBoundaryFactory(
    Kel::Ptr<const Nimo::IntfBoundaryStatus> intfBoundaryStatus) {
  return Kel::Ptr<IntfBoundary>::make(std::move(intfBoundaryStatus));
}

IntfBoundary McastBoundary::intfBoundary(const Nimo::IntfId& intfId) const {
  Kel::Ptr<const Nimo::IntfBoundaryStatus> s;
  if (boundaryStatus_) s = boundaryStatus_->softwareBoundaryStatus(intfId.name());
  return IntfBoundary(std::move(s));
}

bool McastBoundary::filtered(const Nimo::IntfId& intfId, const Nimo::IpGenAddr& group) const {
  FLICK_TRACE(boundaryTrace(), 8, "filtered({}, {})", intfId, group);
  return intfBoundary(intfId).filtered(group);
}

bool McastBoundary::filteredPrefix(const Nimo::IntfId& intfId,
                                   const Nimo::IpGenPrefix& groupPrefix) const {
  FLICK_TRACE(boundaryTrace(), 8, "filteredPrefix({}, {})", intfId, groupPrefix);
  return intfBoundary(intfId).filteredPrefix(groupPrefix);
}

Kel::Ptr<McastBoundary> mcastBoundaryFactory(
    const Kel::Name& name, Kel::Ptr<const Routing::McastBoundary::Status> boundaryStatus) {
  return Kel::Ptr<McastBoundary>::make(name, std::move(boundaryStatus));
}

}  // namespace Routing::Pim::Boundary
