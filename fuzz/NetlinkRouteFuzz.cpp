// Fuzz target: the kernel RIB adapter's netlink parsing (parseKernelRoute,
// parseKernelNexthop) over a receive buffer of messages (seeds: real dumps and events,
// fuzz/seeds/netlinkRoute). Nothing may be read outside a message or thrown; an accepted
// route has a masked prefix and next hops of its own family, each from a next-hop header.
#include <linux/rtnetlink.h>
#include <netlink/msg.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "Pim/linux/NetlinkRib.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::uint32_t> words((size + 3) / 4);  // aligned, as a receive buffer is
  if (size) std::memcpy(words.data(), data, size);
  Routing::KernelRoute r;
  Routing::KernelNexthopObject o;
  auto len = static_cast<int>(size);
  for (auto* h = reinterpret_cast<nlmsghdr*>(words.data()); nlmsg_ok(h, len);
       h = nlmsg_next(h, &len)) {
    if (h->nlmsg_type == RTM_NEWNEXTHOP || h->nlmsg_type == RTM_DELNEXTHOP)
      (void)Routing::parseKernelNexthop(h, &o);
    if ((h->nlmsg_type != RTM_NEWROUTE && h->nlmsg_type != RTM_DELROUTE) ||
        Routing::parseKernelRoute(h, &r) != 0)
      continue;
    if (!(r.prefix == r.prefix.masked()) || r.nhs.size() * sizeof(rtnexthop) > h->nlmsg_len)
      std::abort();
    for (const auto& nh : r.nhs)
      if (nh.gateway.isSet() && nh.gateway.af() != r.prefix.af()) std::abort();
  }
  return 0;
}
