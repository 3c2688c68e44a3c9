#include "Pim/platform/System.h"

namespace Acl {

bool ServiceAclFilterSm::matchesRaw(const Nimo::Pkt& pkt, const L3::VrfName& vrf,
                                    const Nimo::IntfId&) const {
  const std::uint8_t* first = pkt.data(0, 1);
  if (!first) return false;
  const auto af = (first[0] >> 4) == 6 ? Nimo::AddressFamily::ipv6 : Nimo::AddressFamily::ipv4;
  const std::string* name = config_ ? config_->serviceAcl(vrf, af) : nullptr;
  if (!name) return true;
  const AclConfig* acl = config_->acl(*name);
  if (!acl) return true;  // named but not configured yet: the VRF is not locked out
  Nimo::IpGenAddr src, dst;
  if (af == Nimo::AddressFamily::ipv6) {
    std::uint8_t* h = const_cast<std::uint8_t*>(pkt.data(0, Nimo::Ipv6Hdr::kSize));
    if (!h) return false;
    src = Nimo::Ipv6Hdr(h).src();
    dst = Nimo::Ipv6Hdr(h).dst();
  } else {
    std::uint8_t* h = const_cast<std::uint8_t*>(pkt.data(0, Nimo::Ipv4Hdr::kMinSize));
    if (!h) return false;
    src = Nimo::Ipv4Hdr(h).src();
    dst = Nimo::Ipv4Hdr(h).dst();
  }
  return acl->match(src, dst).value_or(Action::Deny) == Action::Permit;
}

}  // namespace Acl
