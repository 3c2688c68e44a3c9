// The activity monitor against a real kernel multicast routing table: namespaces S, R and
// D joined by veths (S - R - D). In R the test owns the routing socket (MRT_INIT on an
// IGMP raw socket, MRT6_INIT on an ICMPv6 one), adds VIFs/MIFs and MFC entries; S sends
// UDP to the groups; the monitor polls in R on its own PIM socket.
#include <gmock/gmock.h>
#include <netinet/in.h>  // before the kernel headers, which then skip their copies
// clang-format off
#include <linux/mroute.h>
#include <linux/mroute6.h>
// clang-format on

#include <memory>

#include "Pim/PimActivityMonitor.h"
#include "tests/DrobeRootUtil.h"
#include "tests/PimTestUtil.h"
#include "tests/netns/NetnsUtil.h"

namespace {

using Nimo::AddressFamily;
using Nimo::IpGenAddr;
using PimTest::inNetns;
using PimTest::sh;
namespace P = Routing::Pim;
namespace Hw = Routing::Multicast::Fib::Hardware;

// S - R - D, named with the family and the pid; removed on destruction.
struct Chain : PimTest::NetnsSet {
  explicit Chain(char fam) {
    const int pid = ::getpid();
    for (auto [ns, c] : {std::pair{&s, 's'}, std::pair{&r, 'r'}, std::pair{&d, 'd'}}) {
      *ns = fmt::format("am{}{}{}", c, fam, pid);
      add(*ns);
    }
    // veth v<n><fam><pid>a in the first namespace, ...b in the second; subnet n.
    const auto dev = [&](int n, char end) { return fmt::format("v{}{}{}{}", n, fam, pid, end); };
    for (const auto& [x, y, n] : {std::tuple{s, r, 1}, std::tuple{r, d, 2}}) {
      link(x, dev(n, 'a'), y, dev(n, 'b'));
      addrs(x, dev(n, 'a'), fmt::format("10.81.{}.1/24", n), fmt::format("fd81:{}::1/64", n));
      addrs(y, dev(n, 'b'), fmt::format("10.81.{}.2/24", n), fmt::format("fd81:{}::2/64", n));
    }
    sIf = ifIndex(s, dev(1, 'a'));
    rsIf = ifIndex(r, dev(1, 'b'));
    rdIf = ifIndex(r, dev(2, 'a'));
    ok = ok && sIf && rsIf && rdIf;
  }

  std::string s, r, d;
  unsigned sIf = 0, rsIf = 0, rdIf = 0;
};

// The multicast routing daemon's socket in R: VIF/MIF 0 toward S, 1 toward D.
class MRouter {
 public:
  MRouter(const Chain& c, bool v6) : v6_(v6) {
    fd_ = inNetns(c.r, [&] {
      return ::socket(v6 ? AF_INET6 : AF_INET, SOCK_RAW | SOCK_CLOEXEC,
                      v6 ? int{IPPROTO_ICMPV6} : int{IPPROTO_IGMP});
    });
    const int one = 1;
    ok_ = fd_ >= 0 && opt(v6 ? MRT6_INIT : MRT_INIT, &one, sizeof one) && addIf(0, c.rsIf) &&
          addIf(1, c.rdIf);
  }
  ~MRouter() { close(); }
  MRouter(const MRouter&) = delete;
  MRouter& operator=(const MRouter&) = delete;
  bool ok() const { return ok_; }
  // The daemon dies: the kernel flushes its table.
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  // (source, group) arriving on `in`, forwarded out of the other interface.
  bool addRoute(const IpGenAddr& src, const IpGenAddr& grp, std::uint16_t in) {
    const std::uint16_t out = in ^ 1;
    if (v6_) {
      mf6cctl m{};
      m.mf6cc_origin.sin6_family = m.mf6cc_mcastgrp.sin6_family = AF_INET6;
      std::memcpy(&m.mf6cc_origin.sin6_addr, src.bytes(), 16);
      std::memcpy(&m.mf6cc_mcastgrp.sin6_addr, grp.bytes(), 16);
      m.mf6cc_parent = in;
      m.mf6cc_ifset.ifs_bits[out / 32] |= 1u << (out % 32);  // IF_SET, without its int
      return opt(MRT6_ADD_MFC, &m, sizeof m);
    }
    mfcctl m{};
    std::memcpy(&m.mfcc_origin, src.bytes(), 4);
    std::memcpy(&m.mfcc_mcastgrp, grp.bytes(), 4);
    m.mfcc_parent = in;
    m.mfcc_ttls[out] = 1;
    return opt(MRT_ADD_MFC, &m, sizeof m);
  }

 private:
  bool opt(int name, const void* v, socklen_t n) {
    return ::setsockopt(fd_, v6_ ? IPPROTO_IPV6 : IPPROTO_IP, name, v, n) == 0;
  }
  bool addIf(std::uint16_t index, unsigned ifIndex) {
    if (v6_) {
      mif6ctl m{};
      m.mif6c_mifi = index;
      m.mif6c_pifi = static_cast<std::uint16_t>(ifIndex);
      return opt(MRT6_ADD_MIF, &m, sizeof m);
    }
    vifctl v{};
    v.vifc_vifi = index;
    v.vifc_flags = VIFF_USE_IFINDEX;
    v.vifc_threshold = 1;
    v.vifc_lcl_ifindex = static_cast<int>(ifIndex);
    return opt(MRT_ADD_VIF, &v, sizeof v);
  }
  bool v6_;
  int fd_ = -1;
  bool ok_ = false;
};

// n packets from S to group (PIM bytes: the kernel counts any IP packet to the group).
bool sendFromS(const Chain& c, const IpGenAddr& group, int n) {
  PimTest::RawSender tx(c.s, group.af() == AddressFamily::ipv6 ? AF_INET6 : AF_INET, c.sIf);
  int sent = 0;
  for (int i = 0; i < n; ++i) sent += tx.ok() && tx.send(group.str(), {0x20, 0, 0, 0});
  return sent == n;
}

class ActivityMonitorNetnsTest : public ::testing::TestWithParam<AddressFamily> {
 protected:
  void SetUp() override {
    if (!PimTest::isRoot()) GTEST_SKIP() << "needs root (network namespaces, raw sockets)";
    v6 = GetParam() == AddressFamily::ipv6;
    chain = std::make_unique<Chain>(v6 ? '6' : '4');
    ASSERT_TRUE(chain->ok);
    router = std::make_unique<MRouter>(*chain, v6);
    ASSERT_TRUE(router->ok()) << "MRT_INIT or VIF/MIF setup failed: " << std::strerror(errno);
    src = IpGenAddr(v6 ? "fd81:1::1" : "10.81.1.1");
    auto pam = Nimo::ipPamFactory("pim", GetParam(), 103, chain->r);
    ASSERT_TRUE(pam->ok());
    mon = P::pimActivityMonitorSmFactory(vrf, pam, hw, clock);
    P::activityMonitorTrace().levelIs(9);
  }
  // The members go in reverse order: the monitor, the tables, the router, the namespaces.
  void TearDown() override { P::activityMonitorTrace().levelIs(0); }
  IpGenAddr group(const char* v4, const char* v6text) const { return IpGenAddr(v6 ? v6text : v4); }
  // Polls until the kernel counted `n` more packets than `last` shows, about three
  // seconds at most; the last poll's answer.
  P::PimActivityInfo pollUntil(const P::RouteKey& k, const P::PimKernelStats& last,
                               std::uint64_t n) {
    P::PimActivityInfo info;
    PimTest::waitUntil(
        [&] {
          info = mon->isActive(k, last);
          return info.kernelStats().packetCount() >= last.packetCount() + n;
        },
        3);
    return info;
  }

  bool v6 = false;
  PimTest::DrobeRoot root;
  std::unique_ptr<Chain> chain;
  std::unique_ptr<MRouter> router;
  IpGenAddr src;
  const L3::VrfName vrf{"red"};
  Kel::Ptr<Kel::SystemClock> clock = Kel::Ptr<Kel::SystemClock>::make();
  Ulm::EventLoop loop{clock};  // before hw: its readers watch this loop
  Kel::Ptr<Hw::Status> hw = Kel::Ptr<Hw::Status>::make("hw");
  Kel::Ptr<P::PimActivityMonitorSm> mon;
  Flicklog::CaptureSink capture;
};

// Packets from S are activity once, whether they come in on the route's interface or on
// another (counted as wrong-interface too); with no new packets the entry is idle again.
TEST_P(ActivityMonitorNetnsTest, PacketsFromSAreActivityOnceAndStopWithTheTraffic) {
  constexpr int kN = 25;
  const struct {
    const char *v4, *v6;
    std::uint16_t iif;  // 1: the route expects the source on D's side
    std::uint64_t wrongIf;
  } cases[] = {{"232.1.1.1", "ff3e::1:1", 0, 0}, {"232.1.1.2", "ff3e::1:2", 1, kN}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.v4);
    const P::RouteKey sg(src, group(c.v4, c.v6));
    ASSERT_TRUE(router->addRoute(src, sg.group(), c.iif));
    const P::PimActivityInfo idle = mon->isActive(sg, {});
    EXPECT_FALSE(idle.isActive()) << "a new entry with no traffic";
    ASSERT_TRUE(sendFromS(*chain, sg.group(), kN));
    const P::PimActivityInfo busy = pollUntil(sg, idle.kernelStats(), kN);
    EXPECT_TRUE(busy.isActive());
    EXPECT_EQ(busy.kernelStats().packetCount() - idle.kernelStats().packetCount(), kN);
    EXPECT_EQ(busy.kernelStats().wrongIf() - idle.kernelStats().wrongIf(), c.wrongIf);
    const P::PimActivityInfo after = mon->isActive(sg, busy.kernelStats());
    EXPECT_FALSE(after.isActive());
    EXPECT_EQ(after.kernelStats(), busy.kernelStats());
  }
  EXPECT_EQ(mon->kernelQueryErrors(), 0u);
}

TEST_P(ActivityMonitorNetnsTest, AHardwareHitFromAnotherProcessSkipsTheKernel) {
  const P::RouteKey onlyInHw(src, group("232.9.9.9", "ff3e::9:9"));
  // The writer stays until the test ends (its end of the socket closes, or it is killed).
  PimTest::Children writer;
  const int fd = writer.spawn([&](int sock) {
    Hw::Status mine("hw");
    auto v = mine.vrfStatusWriter(vrf);
    if (!v) return;
    v->activityIntervalIs(10);
    v->routeActivityIs(P::PimActivityMonitorSm::convertKey(onlyInHw), Kel::SystemClock().now());
    v->commit();
    PimTest::send(sock, 'w');
    PimTest::hold(sock);
  });
  char written = 0;
  ASSERT_TRUE(PimTest::receive(fd, written, 10));
  auto view = hw->vrfStatusReader(loop, vrf);
  for (int i = 0; i < 300 && !view->exists(); ++i) loop.runOnce(0.01);
  const std::uint64_t queries = mon->kernelQueries();
  const P::PimActivityInfo info = mon->isActive(onlyInHw, P::PimKernelStats(4, 5, 6));
  EXPECT_TRUE(info.isActive());
  EXPECT_EQ(info.kernelStats(), P::PimKernelStats(4, 5, 6));
  EXPECT_EQ(mon->kernelQueries(), queries) << "the kernel was asked";
}

TEST_P(ActivityMonitorNetnsTest, TheDaemonsDeathFlushesEntriesAndQueriesFailWith99) {
  const P::RouteKey sg(src, group("232.1.1.3", "ff3e::1:3"));
  ASSERT_TRUE(router->addRoute(src, sg.group(), 0));
  ASSERT_TRUE(sendFromS(*chain, sg.group(), 3));
  const P::PimActivityInfo before = pollUntil(sg, {}, 3);
  ASSERT_TRUE(before.isActive());
  router->close();
  capture.clear();
  const P::PimActivityInfo info = mon->isActive(sg, before.kernelStats());
  EXPECT_FALSE(info.isActive());
  EXPECT_EQ(info.kernelStats(), before.kernelStats());
  EXPECT_EQ(mon->kernelQueryErrors(), 1u);
  ASSERT_FALSE(capture.lines().empty());
  EXPECT_THAT(capture.lines().back().text,
              ::testing::HasSubstr(fmt::format("<Vrf:red> isActiveInKernel{}(), Unable to get "
                                               "stats ( error = 99 ) for route ",
                                               v6 ? 6 : 4)));
}

INSTANTIATE_TEST_SUITE_P(Families, ActivityMonitorNetnsTest,
                         ::testing::Values(AddressFamily::ipv4, AddressFamily::ipv6),
                         [](const auto& param) {
                           return param.param == AddressFamily::ipv4 ? "IPv4" : "IPv6";
                         });

}  // namespace
