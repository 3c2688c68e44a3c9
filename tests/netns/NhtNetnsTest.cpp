// Next-hop tracking on a kernel's routes: ribd and nhtd run as their own processes in a
// namespace of this test; the test is the client (registrations, status, backlog, RpfTable)
// and changes routes with `ip route`. Root only; every wait is bounded.
#include <gtest/gtest.h>
#include <signal.h>

#include <random>
#include <set>

#include "Pim/RpfTable.h"
#include "tests/PimIOTestUtil.h"
#include "tests/PimTestUtil.h"
#include "tests/netns/NetnsUtil.h"

namespace {

using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
constexpr auto kV4 = Nimo::AddressFamily::ipv4;
constexpr auto kV6 = Nimo::AddressFamily::ipv6;

// The kernel's answer: the matching prefix and its next-hop count.
std::pair<std::string, std::size_t> fibmatch(const std::string& ns, const IpGenAddr& a) {
  const std::string out =
      PimTest::run(fmt::format("ip -n {} route get fibmatch {} 2>/dev/null", ns, a));
  std::string prefix = out.substr(0, out.find_first_of(" \n"));
  if (prefix == "default") prefix = a.af() == kV4 ? "0.0.0.0/0" : "::/0";
  if (prefix.find('/') == std::string::npos && !prefix.empty())
    prefix += a.af() == kV4 ? "/32" : "/128";
  std::size_t hops = 0;
  for (std::size_t at = 0; (at = out.find("nexthop", at)) != std::string::npos; at += 7) ++hops;
  return {prefix, hops ? hops : 1};
}

class NhtNetnsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!PimTest::isRoot()) GTEST_SKIP() << "needs root (network namespaces)";
    ASSERT_TRUE(pair_.ok);
    ns_ = pair_.a;
    for (const char* cmd :
         {"addr add 10.77.0.11/24 dev {0}", "addr add fd77::11/64 dev {0} nodad",
          "route add 10.1.0.0/16 via 10.77.0.2", "route add 10.1.5.0/24 via 10.77.0.3",
          "route add 10.2.0.0/16 nexthop via 10.77.0.2 nexthop via 10.77.0.3",
          "route add 2001:db8:1::/48 via fd77::2",
          "route add 2001:db8:2::/48 nexthop via fd77::2 nexthop via fd77::3",
          "route add table 100 10.1.0.0/16 via 10.77.0.3"}) {
      ASSERT_EQ(
          PimTest::sh(fmt::format("ip -n {} ", ns_) + fmt::format(fmt::runtime(cmd), pair_.vethA)),
          0)
          << cmd;
    }
    ribd_ = PimTest::spawn(
        fmt::format("exec {} --netns {} --mrib-table 100 >/dev/null", RIBD_PATH, ns_));
    nhtd_ = PimTest::spawn(fmt::format("exec {} >/dev/null", NHTD_PATH));
  }
  void TearDown() override {
    for (pid_t p : {nhtd_, ribd_}) {
      if (p <= 0) continue;
      ::kill(p, SIGTERM);
      EXPECT_EQ(PimTest::waitChild(p, 10), 0);
    }
  }
  // Runs the loop until done() or 20 s.
  template <typename Fn>
  bool waitFor(Fn&& done) {
    for (int i = 0; i < 400; ++i) {
      if (done()) return true;
      loop_.runOnce(0.05);
    }
    return done();
  }
  std::set<IpGenAddr> drain(Routing::NexthopBacklog& b) {
    std::set<IpGenAddr> out;
    while (auto a = b.backlogFront()) {
      out.insert(*a);
      b.backlogDel(*a);
    }
    return out;
  }
  // Waits for the backlog to take something, lets the rest of the change arrive, drains.
  std::set<IpGenAddr> changed(Routing::NexthopBacklog& b) {
    waitFor([&] { return b.size() != 0; });
    for (int i = 0; i < 10; ++i) loop_.runOnce(0.05);
    return drain(b);
  }

  PimTest::DrobeRoot root_;
  PimTest::NetnsPair pair_{"nht"};
  std::string ns_;
  pid_t ribd_ = -1, nhtd_ = -1;
  Ulm::EventLoop loop_{Kel::Ptr<Kel::SystemClock>::make()};
};

TEST_F(NhtNetnsTest, StatusFollowsTheKernelAndBacklogsExactlyTheAffectedAddresses) {
  auto cfg4 = Routing::NexthopVrfConfig::create(loop_, kV4, "default", "unicast", "sm");
  auto cfg6 = Routing::NexthopVrfConfig::create(loop_, kV6, "default", "unicast", "sm");
  auto mcfg4 = Routing::NexthopVrfConfig::create(loop_, kV4, "default", "multicast", "sm");
  auto st4 = Routing::NexthopVrfStatus::create(loop_, kV4, "default", "unicast");
  auto st6 = Routing::NexthopVrfStatus::create(loop_, kV6, "default", "unicast");
  auto mst4 = Routing::NexthopVrfStatus::create(loop_, kV4, "default", "multicast");
  auto backlog4 = Routing::NexthopBacklog::create(st4, cfg4);
  auto backlog6 = Routing::NexthopBacklog::create(st6, cfg6);
  std::mt19937 rng(11);
  std::vector<IpGenAddr> addrs;
  for (int i = 0; i < 1000; ++i) {
    const std::uint32_t r = static_cast<std::uint32_t>(rng());
    if (i % 4 == 3) {
      addrs.push_back(IpGenAddr(fmt::format("2001:db8:{}::{:x}", 1 + r % 3, r >> 16)));
      cfg6->nexthopIs(addrs.back());
    } else {
      addrs.push_back(IpGenAddr::v4(0x0a000000u | ((1 + r % 3) << 16) | (r >> 16)));
      cfg4->nexthopIs(addrs.back());
      mcfg4->nexthopIs(addrs.back());
    }
  }
  Routing::NexthopStatusEntry e;
  auto resolvedAll = [&] {
    for (const auto& a : addrs) {
      auto& st = a.af() == kV4 ? st4 : st6;
      if (!st->synced() || st->table()->findStatus(a, e) != Drobe::FindStatus::found) return false;
    }
    return mst4->synced();
  };
  ASSERT_TRUE(waitFor(resolvedAll));
  auto fec4 = Drobe::Fib::ForwardingStatus::create(loop_, "default", "urib");
  auto fec6 = Drobe::Fib6::ForwardingStatus::create(loop_, "default", "urib");
  loop_.runOnce(0.1);
  int checked = 0;
  for (const auto& a : addrs) {
    const auto [prefix, hops] = fibmatch(ns_, a);
    auto& st = a.af() == kV4 ? st4 : st6;
    Routing::NexthopStatusEntry got;
    ASSERT_EQ(st->entry(a, got),
              prefix.empty() ? Drobe::FindStatus::absent : Drobe::FindStatus::found)
        << a;
    if (prefix.empty()) continue;
    EXPECT_EQ(got.prefix, IpGenPrefix(prefix)) << a;
    std::uint32_t count = 0;
    if (a.af() == kV4) {
      auto part = fec4->fecs()->find(Routing::FecKey{got.fecId, 0});
      count = part ? part->viaCount : 0;
    } else {
      auto part = fec6->fecs()->find(Routing::FecKey{got.fecId, 0});
      count = part ? part->viaCount : 0;
    }
    EXPECT_EQ(count, hops) << a;
    ++checked;
  }
  EXPECT_GT(checked, 600);  // two thirds of the addresses lie under a route
  drain(*backlog4);
  drain(*backlog6);

  auto under = [&](const char* p) {
    std::set<IpGenAddr> s;
    for (const auto& a : addrs)
      if (IpGenPrefix(p).contains(a)) s.insert(a);
    return s;
  };
  struct {
    const char* name;
    const char* cmd;
    const char* affected;
    bool v6;
  } const kSteps[] = {
      {"delete a more specific route", "route del 10.1.5.0/24", "10.1.5.0/24", false},
      {"replace a route's gateway", "route replace 10.1.0.0/16 via 10.77.0.3", "10.1.0.0/16",
       false},
      {"withdraw one ECMP member", "route replace 10.2.0.0/16 via 10.77.0.2", "10.2.0.0/16", false},
      {"withdraw one IPv6 ECMP member", "route replace 2001:db8:2::/48 via fd77::3",
       "2001:db8:2::/48", true},
  };
  for (const auto& s : kSteps) {
    SCOPED_TRACE(s.name);
    ASSERT_EQ(PimTest::sh(fmt::format("ip -n {} {}", ns_, s.cmd)), 0);
    EXPECT_EQ(changed(s.v6 ? *backlog6 : *backlog4), under(s.affected));
  }

  // The multicast table answers first; without its route the unicast RIB does.
  auto status = Kel::Ptr<Routing::Pim::Status>::make("pim");
  status->intfIs(Nimo::IntfId(pair_.vethA), false, IpGenAddr("10.77.0.1"));
  for (const char* n : {"10.77.0.2", "10.77.0.3"})
    status->activeNeighborIs({Nimo::IntfId(pair_.vethA), IpGenAddr(n)}, 105);
  auto ucast = Kel::Ptr<Routing::Pim::UcastRouteStatus>::make(kV4);
  ucast->uribIs({st4, fec4});
  ucast->mribIs({mst4, Drobe::Fib::ForwardingStatus::create(loop_, "default", "mrib")});
  auto table = Routing::Pim::rpfTableFactory(ucast, status, nullptr, nullptr, nullptr);
  const IpGenAddr inMrib = *under("10.1.0.0/16").begin();
  ASSERT_TRUE(waitFor([&] {
    return table->doLookup(inMrib, IpGenAddr("232.1.1.1")).rpf.rib == Routing::Pim::RpfRib::M;
  }));
  ASSERT_EQ(PimTest::sh(fmt::format("ip -n {} route del table 100 10.1.0.0/16", ns_)), 0);
  EXPECT_TRUE(waitFor([&] {
    return table->doLookup(inMrib, IpGenAddr("232.1.1.1")).rpf.rib == Routing::Pim::RpfRib::U;
  }));
}

}  // namespace
