// The route activity monitor through its seams: the hardware decision table on a real
// hardware status table, and the kernel branches through a fake of the counter ioctl.
#include <gtest/gtest.h>
#include <netinet/in.h>  // before the kernel headers, which then skip their copies
// clang-format off
#include <linux/mroute.h>
#include <linux/mroute6.h>
// clang-format on

#include <optional>
#include <string>
#include <vector>

#include "Pim/PimActivityMonitor.h"
#include "tests/PimTestUtil.h"

namespace {

using Nimo::IpGenAddr;
namespace P = Routing::Pim;
namespace Hw = Routing::Multicast::Fib::Hardware;

const auto* const kEnv =
    ::testing::AddGlobalTestEnvironment(new PimTest::PrivateDrobeRoot("actmon"));

const L3::VrfName kVrf("red");
const P::RouteKey kSg(IpGenAddr("10.0.0.1"), IpGenAddr("232.1.1.1"));

// A monitor on a manual clock whose kernel query is a fake: it records the requests and
// answers `err`, or fills in `stats`.
class MonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = P::activityMonitorTrace().level();
    P::activityMonitorTrace().levelIs(9);
    mon_ = P::pimActivityMonitorSmFactory(kVrf, nullptr, hw_, clock_);
    mon_->sgCountQueryIs([this](int, unsigned long request, void* arg) {
      requests_.push_back(request);
      // Both requests have one number (the socket's family tells the kernel apart).
      auto answer = [this](auto* r, auto& seen) {
        seen = *r;
        r->pktcnt = stats_.packetCount();
        r->bytecnt = stats_.byteCount();
        r->wrong_if = stats_.wrongIf();
      };
      if (v6_) {
        answer(static_cast<sioc_sg_req6*>(arg), v6Req_);
      } else {
        answer(static_cast<sioc_sg_req*>(arg), v4Req_);
      }
      return err_;
    });
  }
  void TearDown() override { P::activityMonitorTrace().levelIs(saved_); }

  std::vector<std::string> traces() const {
    std::vector<std::string> out;
    for (const auto& l : capture_.lines())
      if (l.facility == "PimActivityMonitor") out.push_back(l.text);
    return out;
  }

  Kel::Ptr<Kel::ManualClock> clock_ = Kel::Ptr<Kel::ManualClock>::make(1000.0);
  Kel::Ptr<Hw::Status> hw_ = Kel::Ptr<Hw::Status>::make("hw");
  Kel::Ptr<P::PimActivityMonitorSm> mon_;
  Flicklog::CaptureSink capture_;
  std::vector<unsigned long> requests_;
  P::PimKernelStats stats_;
  int err_ = 0;
  bool v6_ = false;  // the request's structure
  sioc_sg_req v4Req_{};
  sioc_sg_req6 v6Req_{};
  int saved_ = 0;
};

TEST_F(MonitorTest, HardwareDecisionTable) {
  struct Row {
    const char* what;
    bool vrf;                        // the VRF's tables exist
    bool vrfEntry;                   // and its "vrf" entry was written
    std::optional<double> activity;  // seconds before now of the route's last activity
    std::optional<double> fastDrop;  // and of its last fast drop
    bool active;
    const char* text;
  };
  const Row rows[] = {
      {"no VRF", false, false, 1, 1, false, ", vrf status does not exist in hardware"},
      {"VRF not published", true, false, 1, 1, false, ", vrf status does not exist in hardware"},
      {"no route", true, true, {}, 1, false, " does not exist in hardware"},
      {"fresh", true, true, 3, {}, true, " has hardware activity"},
      {"at the interval", true, true, 10, {}, true, " has hardware activity"},
      {"stale, fresh fast drop", true, true, 10.5, 10, true,
       " has hardware activity due to fastdrop activity"},
      {"stale, stale fast drop", true, true, 10.5, 10.5, false, " has no hardware activity"},
      {"stale, no fast drop", true, true, 10.5, {}, false, " has no hardware activity"},
  };
  const Hw::RouteKey hk = P::PimActivityMonitorSm::convertKey(kSg);
  const P::PimKernelStats last(7, 700, 1);
  stats_ = last;  // the kernel saw nothing new: only hardware can say active
  for (const Row& r : rows) {
    hw_->vrfStatusDel(kVrf);
    if (r.vrf) {
      auto v = hw_->vrfStatusWriter(kVrf);
      ASSERT_TRUE(v);
      if (r.vrfEntry) v->activityIntervalIs(10);
      if (r.activity) v->routeActivityIs(hk, clock_->now() - *r.activity);
      if (r.fastDrop) v->fastDropActivityIs(hk, clock_->now() - *r.fastDrop);
    }
    capture_.clear();
    requests_.clear();
    const P::PimActivityInfo info = mon_->isActive(kSg, last);
    EXPECT_EQ(info.isActive(), r.active) << r.what;
    EXPECT_EQ(info.kernelStats(), last) << r.what;
    EXPECT_EQ(info.timeStamp(), clock_->now()) << r.what;
    EXPECT_EQ(requests_.size(), r.active ? 0u : 1u) << r.what;
    ASSERT_FALSE(traces().empty()) << r.what;
    EXPECT_EQ(traces()[0],
              std::string("<Vrf:red> isActiveInHw(), route (10.0.0.1, 232.1.1.1)") + r.text)
        << r.what;
  }
}

TEST_F(MonitorTest, InactivityIntervalFollowsExpiryTime) {
  EXPECT_TRUE(mon_->initialized());
  EXPECT_EQ(mon_->inactivityInterval(), 15.0);  // the default 210 s
  const std::pair<std::uint32_t, double> rows[] = {{150, 10.0}, {151, 15.0}, {0, 10.0},
                                                   {149, 10.0}, {300, 15.0}, {150, 10.0}};
  for (const auto& [expiry, interval] : rows) {
    mon_->expiryTimeIs(expiry);
    EXPECT_EQ(mon_->inactivityInterval(), interval) << expiry;
  }
}

TEST_F(MonitorTest, KernelBranches) {
  struct Row {
    const char* what;
    P::PimKernelStats last, now;
    int err;
    bool active;
    const char* text;
  };
  const P::PimKernelStats s(10, 1000, 0);
  const char* const kHas = "isActiveInKernel4(), route (10.0.0.1, 232.1.1.1) has kernel activity.";
  // clang-format off
  const Row rows[] = {
      {"unchanged", s, s, 0, false, "isActiveInKernel4(), route (10.0.0.1, 232.1.1.1) has no kernel activity."},
      {"grew", s, {12, 1200, 0}, 0, true, kHas},
      {"restarted from zero", s, {3, 300, 0}, 0, true, kHas},
      {"wrong interface only", s, {11, 1100, 1}, 0, true, kHas},
      {"no entry", s, {}, 99, false, "isActiveInKernel4(), Unable to get stats ( error = 99 ) for route (10.0.0.1, 232.1.1.1)"},
  };
  // clang-format on
  for (const Row& r : rows) {
    capture_.clear();
    stats_ = r.now;
    err_ = r.err;
    clock_->advance(5);
    const P::PimActivityInfo info = mon_->isActive(kSg, r.last);
    EXPECT_EQ(info.isActive(), r.active) << r.what;
    // A failed query keeps the previous counters.
    EXPECT_EQ(info.kernelStats(), r.err ? r.last : r.now) << r.what;
    EXPECT_EQ(info.timeStamp(), clock_->now()) << r.what;
    EXPECT_EQ(traces().back(), std::string("<Vrf:red> ") + r.text) << r.what;
  }
  EXPECT_EQ(mon_->kernelQueries(), std::size(rows));
  EXPECT_EQ(mon_->kernelQueryErrors(), 1u);
}

TEST_F(MonitorTest, KernelRequestsCarryTheRouteForBothFamiliesAndStarG) {
  using Kr = std::pair<P::RouteKey, const char*>;
  const Kr v4[] = {{kSg, "10.0.0.1"}, {P::RouteKey(IpGenAddr("239.1.1.1")), "0.0.0.0"}};
  for (const auto& [key, src] : v4) {
    requests_.clear();
    mon_->isActive(key, {});
    ASSERT_EQ(requests_, std::vector<unsigned long>{SIOCGETSGCNT});
    EXPECT_EQ(
        IpGenAddr(Nimo::AddressFamily::ipv4, reinterpret_cast<const std::uint8_t*>(&v4Req_.src)),
        IpGenAddr(src));
    EXPECT_EQ(
        IpGenAddr(Nimo::AddressFamily::ipv4, reinterpret_cast<const std::uint8_t*>(&v4Req_.grp)),
        key.group());
  }
  const Kr v6[] = {{P::RouteKey(IpGenAddr("2001:db8::5"), IpGenAddr("ff3e::1:2")), "2001:db8::5"},
                   {P::RouteKey(IpGenAddr("ff3e::9")), "::"}};
  v6_ = true;
  for (const auto& [key, src] : v6) {
    requests_.clear();
    capture_.clear();
    mon_->isActive(key, {});
    ASSERT_EQ(requests_, std::vector<unsigned long>{SIOCGETSGCNT_IN6});
    EXPECT_EQ(v6Req_.src.sin6_family, AF_INET6);
    EXPECT_EQ(v6Req_.grp.sin6_family, AF_INET6);
    EXPECT_EQ(IpGenAddr(Nimo::AddressFamily::ipv6, v6Req_.src.sin6_addr.s6_addr), IpGenAddr(src));
    EXPECT_EQ(IpGenAddr(Nimo::AddressFamily::ipv6, v6Req_.grp.sin6_addr.s6_addr), key.group());
    EXPECT_NE(traces().back().find("isActiveInKernel6()"), std::string::npos);
  }
  EXPECT_EQ(P::PimActivityMonitorSm::convertKey(P::RouteKey(IpGenAddr("ff3e::9"))),
            Hw::RouteKey(IpGenAddr("::"), IpGenAddr("ff3e::9")));
}

TEST(PimActivityInfoText, NestsTheKernelStats) {
  const P::PimActivityInfo info(P::PimKernelStats(3, 300, 1), true, 12.5);
  EXPECT_EQ(valueToStrep(info),
            "Value('Routing::Pim::PimActivityInfo', ** {'kernelStats': "
            "Value('Routing::Pim::PimKernelStats', ** {'packetCount': 3, 'byteCount': 300, "
            "'wrongIf': 1}), 'isActive': True, 'timeStamp': 12.5})");
}

}  // namespace
