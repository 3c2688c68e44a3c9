// The installed Linux adapter seen from outside the tree: it fills an interface directory
// from the kernel of this process's own namespace, where the loopback device always is.
// Exit status 0 only if lo shows up under its platform name.
#include <Pim/linux/NetlinkIntfStatus.h>

#include <cstdio>

int main() {
  Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
  auto dir = Kel::Ptr<Interface::IntfStatusDir>::make("intf");
  auto nl = Interface::netlinkIntfStatusSmFactory(dir, loop, "");
  const Interface::IntfStatus* lo = dir->intfStatus(Nimo::IntfId("Loopback0"));
  if (!nl->ok() || !lo || lo->deviceName != "lo") {
    std::printf("consumer_linux: no Loopback0 for lo (netlink %s)\n", nl->ok() ? "ok" : "refused");
    return 1;
  }
  std::printf("consumer_linux: Loopback0 is lo, index %u\n", lo->ifIndex);
  return 0;
}
