// NetlinkIntfStatusSm: fills an Interface::IntfStatusDir from the Linux kernel over
// netlink (libnl-route-3), and keeps it current as links and addresses change.
//
// It opens a netlink cache manager for links and addresses inside the namespace netNs
// (a name under /run/netns, an absolute path, or empty for the caller's own), watches its
// socket on the event loop, and after each batch of kernel notifications brings the
// directory in line with the caches: entries appear, change (index, device name, up,
// addresses) and disappear, each with one onIntfStatus notification.
//
// Naming: an interface's IntfId is its device name, except loopback devices, which become
// Loopback0, Loopback1, ... in ifindex order (routing logic keys on that prefix).
// intfIdOverrideIs(device, id) names a device explicitly; it wins over both rules. A
// renamed device is a new interface: the old id disappears and the new one appears.
//
// Addresses: every IPv4 and IPv6 address of the device with its prefix length, in the
// kernel's order (primary first), except those still in (or failed) duplicate address
// detection: nothing can be sent from them yet.
//
// Traces: facility "Pim::Linux". Threading: event-loop thread only.
//
// Usage:
//   auto dir = Kel::Ptr<Interface::IntfStatusDir>::make("intf");
//   auto nl = Interface::netlinkIntfStatusSmFactory(dir, loop, "red");
//   if (!nl->ok()) ...;                   // namespace or netlink refused (traced)
//   loop.run();                           // dir follows `ip link` / `ip addr`
#pragma once

#include <map>
#include <string>

#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/System.h"
#include "Pim/platform/Ulm.h"

struct nl_cache_mngr;
struct nl_cache;

namespace Interface {

class NetlinkIntfStatusSm : public Kel::Entity {
 public:
  NetlinkIntfStatusSm(Kel::Ptr<IntfStatusDir> dir, Ulm::EventLoop& loop,
                      const Nimo::NamespaceName& netNs);
  ~NetlinkIntfStatusSm() override;
  NetlinkIntfStatusSm(const NetlinkIntfStatusSm&) = delete;
  NetlinkIntfStatusSm& operator=(const NetlinkIntfStatusSm&) = delete;

  bool ok() const noexcept { return mngr_ != nullptr; }
  const Kel::Ptr<IntfStatusDir>& intfStatusDir() const noexcept { return dir_; }

  void intfIdOverrideIs(const std::string& device, const Nimo::IntfId& id);
  void intfIdOverrideDel(const std::string& device);

  // Reads what the kernel sent and updates the directory; run by the loop.
  void handleNetlink();
  // Brings the directory in line with the caches.
  void resync();

 private:
  Kel::Ptr<IntfStatusDir> dir_;
  Ulm::EventLoop& loop_;
  nl_cache_mngr* mngr_ = nullptr;
  nl_cache* links_ = nullptr;
  nl_cache* addrs_ = nullptr;
  int fd_ = -1;
  std::map<std::string, Nimo::IntfId> override_;
};

Kel::Ptr<NetlinkIntfStatusSm> netlinkIntfStatusSmFactory(Kel::Ptr<IntfStatusDir> dir,
                                                         Ulm::EventLoop& loop,
                                                         const Nimo::NamespaceName& netNs);

}  // namespace Interface
