// Next-hop tracking on a kernel's routes: ribd and nhtd run as their own processes in a
// namespace of this test; the test is the client (registrations, status, backlog, RpfTable)
// and changes routes with `ip route`. Root only; every wait is bounded.
#include <algorithm>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "Pim/RpfTable.h"
#include "tests/netns/DaemonNetns.h"

namespace {

using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
constexpr auto kV4 = Nimo::AddressFamily::ipv4;
constexpr auto kV6 = Nimo::AddressFamily::ipv6;

// The kernel's answer: the matching prefix and its next-hop count.
std::pair<std::string, std::size_t> fibmatch(const std::string& ns, const IpGenAddr& a) {
  const std::string out =
      PimTest::runCommand(fmt::format("ip -n {} route get fibmatch {}", ns, a), false).out;
  std::string prefix = out.substr(0, out.find_first_of(" \n"));
  if (prefix == "default") prefix = a.af() == kV4 ? "0.0.0.0/0" : "::/0";
  if (prefix.find('/') == std::string::npos && !prefix.empty())
    prefix += a.af() == kV4 ? "/32" : "/128";
  std::size_t hops = 0;
  for (std::size_t at = 0; (at = out.find("nexthop", at)) != std::string::npos; at += 7) ++hops;
  return {prefix, hops ? hops : 1};
}

class NhtNetnsTest : public PimTest::DaemonNetnsTest<> {
 protected:
  NhtNetnsTest() : DaemonNetnsTest("nht") {}
  void SetUp() override {
    if (!ready()) return;
    for (const char* cmd :
         {"addr add 10.77.0.11/24 dev {0}", "addr add fd77::11/64 dev {0} nodad",
          "route add 10.1.0.0/16 via 10.77.0.2", "route add 10.1.5.0/24 via 10.77.0.3",
          "route add 10.2.0.0/16 nexthop via 10.77.0.2 nexthop via 10.77.0.3",
          "route add 2001:db8:1::/48 via fd77::2",
          "route add 2001:db8:2::/48 nexthop via fd77::2 nexthop via fd77::3",
          "route add table 100 10.1.0.0/16 via 10.77.0.3"}) {
      ASSERT_EQ(ip("{}", fmt::format(fmt::runtime(cmd), pair_.vethA)), 0) << cmd;
    }
    startRibd(100);
    startNhtd();
  }
  std::set<IpGenAddr> drain(Routing::NexthopBacklog& b) {
    std::set<IpGenAddr> out;
    while (auto a = b.backlogFront()) {
      out.insert(*a);
      b.backlogDel(*a);
    }
    return out;
  }
  // Waits for the backlogs to take something and then stay still for a second; drains both.
  std::set<IpGenAddr> changed(Routing::NexthopBacklog& b4, Routing::NexthopBacklog& b6) {
    std::size_t last = 0;
    int still = 0;
    waitFor([&] {
      const std::size_t n = b4.size() + b6.size();
      still = n != 0 && n == last ? still + 1 : 0;
      last = n;
      return still == 20;
    });
    std::set<IpGenAddr> out = drain(b4);
    out.merge(drain(b6));
    return out;
  }
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
    const auto viaCount = [&](const auto& fec) -> std::uint32_t {
      auto part = fec->fecs()->find(Routing::FecKey{got.fecId, 0});
      return part ? part->viaCount : 0;
    };
    EXPECT_EQ(a.af() == kV4 ? viaCount(fec4) : viaCount(fec6), hops) << a;
    ++checked;
  }
  EXPECT_GT(checked, 600);  // two thirds of the addresses lie under a route
  drain(*backlog4);
  drain(*backlog6);

  // The tracked addresses under any of the space-separated prefixes.
  auto under = [&](const std::string& prefixes) {
    std::set<IpGenAddr> s;
    std::istringstream in(prefixes);
    for (std::string p; in >> p;)
      for (const auto& a : addrs)
        if (IpGenPrefix(p).contains(a)) s.insert(a);
    return s;
  };
  // 10,000 flaps of a route (gone and back), ending on another gateway so that every address
  // under it changes once.
  const std::string flaps = fmt::format("{}/nht-flaps", std::getenv("DROBE_ROOT"));
  {
    std::ofstream f(flaps);
    for (int i = 0; i < 10000; ++i)
      f << "route del 10.1.0.0/16\nroute add 10.1.0.0/16 via 10.77.0.3\n";
    f << "route replace 10.1.0.0/16 via 10.77.0.2\n";
  }
  // Carrier loss: the peer's end goes down, the kernel marks the next hops linkdown and
  // sends a link notice only; the routes lose their vias and resolve no more.
  const std::string peerDown = fmt::format("-n {} link set {} down", pair_.b, pair_.vethB);
  const std::string peerUp = fmt::format("-n {} link set {} up", pair_.b, pair_.vethB);
  const std::string allRoutes = "10.1.0.0/16 10.2.0.0/16 2001:db8:1::/48 2001:db8:2::/48";
  struct {
    const char* name;
    std::string cmd;
    std::string affected;
    bool burst = false;
  } const kSteps[] = {
      {"delete a more specific route", "route del 10.1.5.0/24", "10.1.5.0/24"},
      {"replace a route's gateway", "route replace 10.1.0.0/16 via 10.77.0.3", "10.1.0.0/16"},
      {"withdraw one ECMP member", "route replace 10.2.0.0/16 via 10.77.0.2", "10.2.0.0/16"},
      {"withdraw one IPv6 ECMP member", "route replace 2001:db8:2::/48 via fd77::3",
       "2001:db8:2::/48"},
      {"10,000 flaps in a burst", "-batch " + flaps, "10.1.0.0/16", true},
      {"the peer's carrier lost", peerDown, allRoutes},
      {"the peer's carrier back", peerUp, allRoutes},
  };
  const std::set<IpGenAddr> addrSet(addrs.begin(), addrs.end());
  [[maybe_unused]] const long rss[2] = {PimTest::residentKb(ribd_), PimTest::residentKb(nhtd_)};
  for (const auto& s : kSteps) {
    SCOPED_TRACE(s.name);
    const bool here = !s.cmd.starts_with("-n ");
    ASSERT_EQ(PimTest::sh(fmt::format("ip {}{}", here ? "-n " + ns_ + " " : "", s.cmd)), 0);
    // The backlog is keyed by address: a second change before the drain adds nothing.
    const auto got = changed(*backlog4, *backlog6), want = under(s.affected);
    if (!s.burst) {
      EXPECT_EQ(got, want);
      continue;
    }
    // A burst that laps the tables' change rings makes the readers resync, which may
    // re-announce addresses elsewhere; every affected one must be there all the same.
    EXPECT_TRUE(std::includes(got.begin(), got.end(), want.begin(), want.end()));
    EXPECT_TRUE(std::includes(addrSet.begin(), addrSet.end(), got.begin(), got.end()));
  }
  // Memory stays flat through the churn (a leak per flap would show as megabytes).
#ifndef __SANITIZE_ADDRESS__  // AddressSanitizer's quarantine keeps freed memory by design
  EXPECT_LT(PimTest::residentKb(ribd_) - rss[0], 2048);
  EXPECT_LT(PimTest::residentKb(nhtd_) - rss[1], 2048);
#endif

  // The multicast table answers first; without its route the unicast RIB does.
  auto ucast = Kel::Ptr<Routing::Pim::UcastRouteStatus>::make(kV4);
  ucast->uribIs({st4, fec4});
  ucast->mribIs({mst4, Drobe::Fib::ForwardingStatus::create(loop_, "default", "mrib")});
  auto table = Routing::Pim::rpfTableFactory(
      ucast, pimStatus("10.77.0.1", {"10.77.0.2", "10.77.0.3"}), nullptr, nullptr, nullptr);
  const IpGenAddr inMrib = *under("10.1.0.0/16").begin();
  ASSERT_TRUE(waitFor([&] {
    return table->doLookup(inMrib, IpGenAddr("232.1.1.1")).rpf.rib == Routing::Pim::RpfRib::M;
  }));
  ASSERT_EQ(ip("route del table 100 10.1.0.0/16"), 0);
  EXPECT_TRUE(waitFor([&] {
    return table->doLookup(inMrib, IpGenAddr("232.1.1.1")).rpf.rib == Routing::Pim::RpfRib::U;
  }));

  // nhtd killed outright and started again over unchanged routes: the client may re-read
  // every address, but no entry differs from before and none reads as deleted on the way.
  linger();
  drain(*backlog4);
  drain(*backlog6);
  auto snapshot = [&] {
    std::map<IpGenAddr, Routing::NexthopStatusEntry> m;
    for (const auto& a : addrs) {
      auto& st = a.af() == kV4 ? st4 : st6;
      if (st->synced() && st->entry(a, e) == Drobe::FindStatus::found) m[a] = e;
    }
    return m;
  };
  const auto before = snapshot();
  stop(nhtd_, SIGKILL);
  startNhtd();
  bool sawUnsynced = false, backloggedUnsynced = false;
  std::size_t reread = 0;
  ASSERT_TRUE(waitFor([&] {
    for (auto [b, st] :
         {std::pair(backlog4.ptr(), st4.ptr()), std::pair(backlog6.ptr(), st6.ptr())}) {
      sawUnsynced |= !st->synced();
      backloggedUnsynced |= b->size() != 0 && !st->synced();
      for (const auto& a : drain(*b)) {
        EXPECT_TRUE(!before.count(a) || st->entry(a, e) == Drobe::FindStatus::found) << a;
        ++reread;
      }
    }
    return (sawUnsynced || reread != 0) && snapshot() == before;
  }));
  EXPECT_FALSE(backloggedUnsynced);
}

}  // namespace
