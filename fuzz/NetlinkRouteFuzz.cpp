// Fuzz target: the kernel RIB adapter's netlink parsing (parseKernelRoute,
// parseKernelNexthop), which reads whatever a dump or the event socket delivers. The input is
// a receive buffer of netlink messages (seeds: real dumps and events, fuzz/seeds/netlinkRoute).
// Nothing may be read outside a message or thrown; an accepted route has a masked prefix and
// sorted next hops of its own family, each from at least a next-hop header's bytes.
#include <linux/rtnetlink.h>
#include <netlink/msg.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Pim/linux/NetlinkRib.h"

namespace {

void require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "netlinkRoute: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Aligned, as a receive buffer is.
  std::vector<std::uint32_t> words((size + 3) / 4);
  if (size) std::memcpy(words.data(), data, size);
  Routing::KernelRoute r;
  Routing::KernelNexthopObject o;
  auto len = static_cast<int>(size);
  for (auto* h = reinterpret_cast<nlmsghdr*>(words.data()); nlmsg_ok(h, len);
       h = nlmsg_next(h, &len)) {
    if (h->nlmsg_type == RTM_NEWNEXTHOP || h->nlmsg_type == RTM_DELNEXTHOP) {
      if (Routing::parseKernelNexthop(h, &o) == 0)
        require(o.group.size() * 8 <= h->nlmsg_len, "more group members than bytes");
      continue;
    }
    if ((h->nlmsg_type != RTM_NEWROUTE && h->nlmsg_type != RTM_DELROUTE) ||
        Routing::parseKernelRoute(h, &r) != 0)
      continue;
    require(r.prefix == r.prefix.masked(), "prefix keeps host bits");
    require(r.nhs.size() * sizeof(rtnexthop) <= h->nlmsg_len, "more next hops than bytes");
    for (std::size_t i = 0; i < r.nhs.size(); ++i) {
      const auto& nh = r.nhs[i];
      require(!nh.gateway.isSet() || nh.gateway.af() == r.prefix.af(), "gateway of another family");
      require((nh.flags & ~std::uint32_t{RTNH_F_DEAD | RTNH_F_LINKDOWN}) == 0, "flags kept");
      require(i == 0 || !(nh < r.nhs[i - 1]), "next hops unsorted");
    }
  }
  return 0;
}
