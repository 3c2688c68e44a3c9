// The netlink adapter in a namespace of its own: `ip link` / `ip addr` changes show in the
// interface directory, and through it in the I/O machine's group memberships.
#include <gmock/gmock.h>

#include "Pim/linux/NetlinkIntfStatus.h"
#include "tests/PimIOTestUtil.h"
#include "tests/netns/NetnsUtil.h"

namespace {

using namespace PimTest;

class NetlinkNetnsTest : public ::testing::TestWithParam<Nimo::AddressFamily> {
 protected:
  void SetUp() override {
    if (!isRoot()) GTEST_SKIP() << "needs root (network namespaces)";
    const int pid = ::getpid();
    ns = fmt::format("pimn{}", pid);
    dev = fmt::format("pv{}", pid);
    renamed = fmt::format("pw{}", pid);
    net.add(ns);
    ASSERT_TRUE(net.ok);
    rig = std::make_unique<IoRig>(GetParam(), Kel::Ptr<Kel::SystemClock>::make(), ns);
    ASSERT_TRUE(rig->mgr->pam());
    nl = Interface::netlinkIntfStatusSmFactory(rig->dir, rig->loop, ns);
    ASSERT_TRUE(nl->ok());
    rig->status->intfIs(Nimo::IntfId(dev));
    rig->start();
  }
  bool until(const std::function<bool()>& pred) { return waitLoop(rig->loop, pred); }
  bool inDir(const std::string& id) const { return rig->dir->intfStatus(Nimo::IntfId(id)); }
  bool hasAddr(const std::string& id, const char* a) const {
    const auto* s = rig->dir->intfStatus(Nimo::IntfId(id));
    if (!s) return false;
    for (const auto& x : s->addr)
      if (x.address() == Nimo::IpGenAddr(a)) return true;
    return false;
  }
  // What the kernel says about the all-PIM-routers group on a device.
  bool kernelJoined(const std::string& d) const {
    return sh(fmt::format("ip -n {} maddr show dev {} | grep -q {}", ns, d,
                          GetParam() == Nimo::AddressFamily::ipv6 ? "ff02::d" : "224.0.0.13")) == 0;
  }
  bool member(const std::string& id) const {
    return rig->io->allPimRoutersMember().count(Nimo::IntfId(id)) != 0;
  }

  DrobeRoot root;
  NetnsSet net;  // goes after the adapter and the rig
  std::string ns, dev, renamed;
  std::unique_ptr<IoRig> rig;
  Kel::Ptr<Interface::NetlinkIntfStatusSm> nl;
};

TEST_P(NetlinkNetnsTest, LinksAndAddressesFollowTheKernel) {
  const bool v6 = GetParam() == Nimo::AddressFamily::ipv6;
  const char* addr = v6 ? "fd78::1" : "10.78.0.1";
  // The namespace's loopback is there from the start, under the platform's name.
  ASSERT_TRUE(until([&] { return inDir("Loopback0"); }));
  EXPECT_EQ(rig->dir->intfStatus(Nimo::IntfId("Loopback0"))->deviceName, "lo");

  ASSERT_EQ(sh(fmt::format("ip -n {} link add {} type veth peer name q{}", ns, dev, dev)), 0);
  ASSERT_EQ(sh(fmt::format("ip -n {} link set {} up", ns, dev)), 0);
  ASSERT_TRUE(until([&] { return inDir(dev) && member(dev); }));
  EXPECT_EQ(rig->dir->intfStatus(Nimo::IntfId(dev))->ifIndex, NetnsSet::ifIndex(ns, dev));
  EXPECT_TRUE(kernelJoined(dev));

  ASSERT_EQ(sh(fmt::format("ip -n {} addr add {}/{} dev {}{}", ns, addr, v6 ? 64 : 24, dev,
                           v6 ? " nodad" : "")),
            0);
  EXPECT_TRUE(until([&] { return hasAddr(dev, addr); }));
  ASSERT_EQ(sh(fmt::format("ip -n {} addr del {}/{} dev {}", ns, addr, v6 ? 64 : 24, dev)), 0);
  EXPECT_TRUE(until([&] { return !hasAddr(dev, addr); }));

  // Renamed: a new interface, which is not PIM-enabled, so the group is left.
  ASSERT_EQ(sh(fmt::format("ip -n {} link set {} down", ns, dev)), 0);
  ASSERT_EQ(sh(fmt::format("ip -n {} link set {} name {}", ns, dev, renamed)), 0);
  ASSERT_TRUE(until([&] { return inDir(renamed) && !inDir(dev); }));
  EXPECT_FALSE(member(dev));
  EXPECT_FALSE(kernelJoined(renamed));
  rig->status->intfIs(Nimo::IntfId(renamed));
  EXPECT_TRUE(member(renamed));
  EXPECT_TRUE(kernelJoined(renamed));

  ASSERT_EQ(sh(fmt::format("ip -n {} link del {}", ns, renamed)), 0);
  EXPECT_TRUE(until([&] { return !inDir(renamed); }));
  EXPECT_FALSE(member(renamed));
}

INSTANTIATE_TEST_SUITE_P(Families, NetlinkNetnsTest,
                         ::testing::Values(Nimo::AddressFamily::ipv4, Nimo::AddressFamily::ipv6),
                         [](const auto& i) {
                           return i.param == Nimo::AddressFamily::ipv4 ? "IPv4" : "IPv6";
                         });

}  // namespace
