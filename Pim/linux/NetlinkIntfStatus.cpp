// NetlinkIntfStatusSm. Input: the netlink cache manager's socket -> handleNetlink.
#include "Pim/linux/NetlinkIntfStatus.h"

#include <fcntl.h>
#include <net/if.h>
#include <netlink/addr.h>
#include <netlink/cache.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "Pim/linux/NsGuard.h"
#include "Pim/platform/Flicklog.h"

namespace Interface {

namespace {

using PimLinux::linuxTrace;

bool sameStatus(const IntfStatus& a, const IntfStatus& b) {
  return a.ifIndex == b.ifIndex && a.deviceName == b.deviceName && a.operUp == b.operUp &&
         a.addr == b.addr;
}

}  // namespace

NetlinkIntfStatusSm::NetlinkIntfStatusSm(Kel::Ptr<IntfStatusDir> dir, Ulm::EventLoop& loop,
                                         const Nimo::NamespaceName& netNs)
    : Kel::Entity(Kel::Name("NetlinkIntfStatusSm")), dir_(std::move(dir)), loop_(loop) {
  PimLinux::NsGuard ns(netNs);
  if (!ns.ok()) return;
  int err = nl_cache_mngr_alloc(nullptr, NETLINK_ROUTE, NL_AUTO_PROVIDE, &mngr_);
  if (err == 0) err = nl_cache_mngr_add(mngr_, "route/link", nullptr, nullptr, &links_);
  if (err == 0) err = nl_cache_mngr_add(mngr_, "route/addr", nullptr, nullptr, &addrs_);
  if (err != 0) {
    FLICK_TRACE(linuxTrace(), 1, "Netlink - Failed - Error: {}", nl_geterror(err));
    if (mngr_) nl_cache_mngr_free(mngr_);
    mngr_ = nullptr;
    return;
  }
  fd_ = nl_cache_mngr_get_fd(mngr_);
  loop_.watch(fd_, [this] { handleNetlink(); });
  resync();
}

NetlinkIntfStatusSm::~NetlinkIntfStatusSm() {
  if (fd_ >= 0) loop_.unwatch(fd_);
  if (mngr_) nl_cache_mngr_free(mngr_);  // frees the caches it manages
}

void NetlinkIntfStatusSm::intfIdOverrideIs(const std::string& device, const Nimo::IntfId& id) {
  override_[device] = id;
  resync();
}

void NetlinkIntfStatusSm::intfIdOverrideDel(const std::string& device) {
  if (override_.erase(device)) resync();
}

void NetlinkIntfStatusSm::handleNetlink() {
  const int err = nl_cache_mngr_data_ready(mngr_);
  if (err < 0) FLICK_TRACE(linuxTrace(), 1, "Netlink - Read Failed - Error: {}", nl_geterror(err));
  resync();
}

void NetlinkIntfStatusSm::resync() {
  if (!mngr_) return;
  // Links, in ifindex order so that loopback numbering is stable.
  struct Link {
    int ifIndex;
    std::string name;
    bool up;
    bool loopback;
  };
  std::vector<Link> links;
  for (nl_object* o = nl_cache_get_first(links_); o; o = nl_cache_get_next(o)) {
    auto* l = reinterpret_cast<rtnl_link*>(o);
    const char* name = rtnl_link_get_name(l);
    const unsigned flags = rtnl_link_get_flags(l);
    links.push_back({rtnl_link_get_ifindex(l), name ? name : "", (flags & IFF_UP) != 0,
                     (flags & IFF_LOOPBACK) != 0});
  }
  std::sort(links.begin(), links.end(),
            [](const Link& a, const Link& b) { return a.ifIndex < b.ifIndex; });

  std::map<Nimo::IntfId, IntfStatus> want;
  std::map<int, Nimo::IntfId> byIndex;
  int loopbacks = 0;
  for (const Link& l : links) {
    Nimo::IntfId id;
    try {
      auto o = override_.find(l.name);
      id = o != override_.end() ? o->second
           : l.loopback         ? Nimo::IntfId(fmt::format("Loopback{}", loopbacks++))
                                : Nimo::IntfId(l.name);
    } catch (const Kel::RangeError&) {
      continue;  // a device name longer than an IntfId can hold is not ours to name
    }
    IntfStatus& s = want[id];
    s.intfId = id;
    s.ifIndex = static_cast<std::uint32_t>(l.ifIndex);
    s.deviceName = l.name;
    s.operUp = l.up;
    byIndex[l.ifIndex] = id;
  }
  for (nl_object* o = nl_cache_get_first(addrs_); o; o = nl_cache_get_next(o)) {
    auto* a = reinterpret_cast<rtnl_addr*>(o);
    auto it = byIndex.find(rtnl_addr_get_ifindex(a));
    nl_addr* local = rtnl_addr_get_local(a);
    if (it == byIndex.end() || !local) continue;
    // An address still in duplicate detection (or failed it) cannot be sent from yet; it
    // appears when the kernel reports it usable.
    if (rtnl_addr_get_flags(a) & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) continue;
    const int family = nl_addr_get_family(local);
    const unsigned len = nl_addr_get_len(local);
    if (!((family == AF_INET && len == 4) || (family == AF_INET6 && len == 16))) continue;
    const Nimo::IpGenAddr addr(
        family == AF_INET ? Nimo::AddressFamily::ipv4 : Nimo::AddressFamily::ipv6,
        static_cast<const std::uint8_t*>(nl_addr_get_binary_addr(local)));
    want[it->second].addr.emplace_back(addr, static_cast<std::uint8_t>(rtnl_addr_get_prefixlen(a)));
  }

  // Deletions first, so that a renamed device's old id leaves before its new one arrives.
  std::vector<Nimo::IntfId> gone;
  for (const auto& [id, s] : dir_->intfStatus())
    if (!want.count(id)) gone.push_back(id);
  for (const auto& id : gone) {
    FLICK_TRACE(linuxTrace(), 5, "Interface {} gone", id);
    dir_->intfStatusDel(id);
  }
  for (auto& [id, s] : want) {
    const IntfStatus* have = dir_->intfStatus(id);
    if (have && sameStatus(*have, s)) continue;
    FLICK_TRACE(linuxTrace(), 5, "Interface {} device {} index {} up {} addresses {}", id,
                s.deviceName, s.ifIndex, s.operUp, s.addr.size());
    dir_->intfStatusIs(id) = std::move(s);
    dir_->intfStatusNotify(id);
  }
}

Kel::Ptr<NetlinkIntfStatusSm> netlinkIntfStatusSmFactory(Kel::Ptr<IntfStatusDir> dir,
                                                         Ulm::EventLoop& loop,
                                                         const Nimo::NamespaceName& netNs) {
  return Kel::Ptr<NetlinkIntfStatusSm>::make(std::move(dir), loop, netNs);
}

}  // namespace Interface
