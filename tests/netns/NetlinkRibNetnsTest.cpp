// The kernel RIB adapter in a namespace of its own: after each scripted `ip` step the
// published route and FEC tables equal what `ip -j route show table all` says the kernel
// uses, read and mapped here independently of the adapter's netlink code.
#include <gmock/gmock.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <sstream>

#include "Pim/linux/NetlinkIntfStatus.h"
#include "Pim/linux/NetlinkRib.h"
#include "Pim/platform/Drobe.h"
#include "tests/PimTestUtil.h"
#include "tests/netns/NetnsUtil.h"

namespace {

using namespace PimTest;
using nlohmann::json;

const auto* const kEnv = ::testing::AddGlobalTestEnvironment(new PrivateDrobeRoot("ribnl"));

constexpr std::uint32_t kMribTable = 100;

// A published route as text, comparable between the two readings: type code, metric and
// the sorted vias "hop@interface".
struct Published {
  int type = 0;
  std::uint32_t metric = 0;
  std::set<std::string> vias;
  friend bool operator==(const Published&, const Published&) = default;
};
using RibView = std::map<std::string, Published>;  // prefix text -> route

std::ostream& operator<<(std::ostream& os, const RibView& v) {
  for (const auto& [p, r] : v) {
    os << "\n  " << p << " type " << r.type << " metric " << r.metric;
    for (const auto& x : r.vias) os << " " << x;
  }
  return os;
}

// Routes and FEC parts from any view of the tables (the writer's, or a reader's in
// another process): forEach(fn) calls fn(route); part(key) finds a FEC part.
template <typename ForEach, typename Part>
RibView toView(ForEach&& forEach, Part&& part) {
  RibView out;
  forEach([&](const auto& r) {
    Published p;
    p.type = static_cast<int>(r.routeType);
    p.metric = r.metric;
    for (std::uint32_t n = 0; r.fecId != 0; ++n) {
      auto fp = part(Routing::FecKey{r.fecId, n});
      if (!fp) break;
      for (std::uint32_t i = 0; i < Routing::kViasPerPart && n * 8 + i < fp->viaCount; ++i)
        p.vias.insert(fmt::format("{}@{}", fp->via[i].hop, fp->via[i].intfId));
    }
    std::ostringstream key;
    key << r.prefix;
    out[key.str()] = p;
  });
  return out;
}

template <Nimo::AddressFamily F>
RibView readTables(Routing::RouteWriterGen<F>* w) {
  if (!w) return {};
  return toView(
      [&](const auto& fn) {
        for (const auto& r : w->table()) fn(r);
      },
      [&](const Routing::FecKey& k) { return w->fecs().table().find(k); });
}

// The kernel's own account, mapped by the rules the adapter documents: local table first,
// then the lowest metric with a next hop that is neither dead nor linkdown.
struct KernelView {
  RibView urib, mrib;
};

KernelView readKernel(const std::string& ns, bool v6) {
  const auto routes = json::parse(
      runCommand(fmt::format("ip -n {} -j -{} route show table all", ns, v6 ? 6 : 4), false).out);
  const auto objects =
      json::parse(runCommand(fmt::format("ip -n {} -j nexthop show", ns), false).out);
  std::map<int, json> byId;
  for (const auto& o : objects) byId[o["id"].get<int>()] = o;
  const auto intf = [](const std::string& dev) { return dev == "lo" ? "Loopback0" : dev; };
  const auto usable = [](const json& nh) {
    for (const auto& f : nh.value("flags", json::array()))
      if (f == "dead" || f == "linkdown") return false;
    return true;
  };
  // (rib, prefix) -> candidates (local?, metric, route record or absent when unusable).
  struct Candidate {
    bool local;
    std::uint32_t metric;
    std::optional<Published> record;
  };
  std::map<std::pair<int, std::string>, std::vector<Candidate>> all;
  // IPv6 routes of one (table, prefix, metric) are one route with the next hops of all.
  std::map<std::tuple<std::string, std::string, std::uint32_t>, std::set<std::string>> merged;
  for (const auto& r : routes) {
    const std::string table = r.value("table", "main");
    const int rib = table == "main" || table == "local"   ? 0
                    : table == std::to_string(kMribTable) ? 1
                                                          : -1;
    const std::string type = r.value("type", "unicast");
    const bool drop = type == "blackhole" || type == "unreachable" || type == "prohibit";
    if (rib < 0 || !(drop || type == "unicast" || type == "local")) continue;
    std::string dst = r["dst"];
    if (dst == "default") dst = v6 ? "::/0" : "0.0.0.0/0";
    if (dst.find('/') == std::string::npos) dst += v6 ? "/128" : "/32";
    const auto metric = r.value("metric", 0u);
    json hops = json::array();
    if (r.contains("nexthops")) {
      hops = r["nexthops"];
    } else if (r.contains("nhid") && !r.contains("dev")) {
      const json& o = byId[r["nhid"].get<int>()];
      if (o.contains("blackhole")) hops = json::array();
      for (const auto& m : o.value("group", json::array())) hops.push_back(byId[m["id"]]);
      if (!o.contains("group") && !o.contains("blackhole")) hops.push_back(o);
    } else {
      hops.push_back(r);
    }
    Published p;
    p.metric = metric;
    bool gateway = false;
    for (const auto& nh : hops) {
      if (!usable(nh) || !nh.contains("dev")) continue;
      gateway = gateway || nh.contains("gateway");
      p.vias.insert(fmt::format("{}@{}", nh.value("gateway", v6 ? "::" : "0.0.0.0"),
                                intf(nh["dev"].get<std::string>())));
    }
    if (v6 && !drop) {
      auto& m = merged[{table, dst, metric}];
      m.insert(p.vias.begin(), p.vias.end());
      p.vias = m;
    }
    const bool host = dst.ends_with(v6 ? "/128" : "/32");
    // Type codes: IPv4 receive 1, remote 2, drop 3, connected 5, host 7, attached 11;
    // IPv6 receive 1, remote 2, connected 3, host 4, drop 5, attached 7.
    p.type = type == "local"                       ? 1
             : drop                                ? (v6 ? 5 : 3)
             : gateway                             ? 2
             : r.value("protocol", "") == "kernel" ? (v6 ? 3 : 5)
             : host                                ? (v6 ? 4 : 7)
                                                   : (v6 ? 7 : 11);
    if (drop) p.vias.clear();
    auto& c = all[{rib, dst}];
    auto same = std::find_if(c.begin(), c.end(), [&](const Candidate& x) {
      return x.local == (table == "local") && x.metric == metric;
    });
    std::optional<Published> record;
    if (drop || !p.vias.empty()) record = p;
    if (same != c.end()) {
      if (v6) same->record = record;
    } else {
      c.push_back({table == "local", metric, record});
    }
  }
  KernelView out;
  for (auto& [key, c] : all) {
    std::sort(c.begin(), c.end(), [](const Candidate& a, const Candidate& b) {
      return a.local != b.local ? a.local : a.metric < b.metric;
    });
    for (const auto& x : c) {
      if (!x.record) continue;
      (key.first == 0 ? out.urib : out.mrib)[key.second] = *x.record;
      break;
    }
  }
  return out;
}

class NetlinkRibNetnsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!isRoot()) GTEST_SKIP() << "needs root (network namespaces)";
    const int pid = ::getpid();
    ns = fmt::format("ribn{}", pid);
    a = fmt::format("ra{}", pid);
    c = fmt::format("rc{}", pid);
    // Two links whose peers stay in the namespace: a (10.9/24, fd09::/64) and c (10.8/24,
    // fd08::/64); taking c's peer down makes c's next hops linkdown.
    net.add(ns);
    for (const auto& [dev, n] : {std::pair{a, 9}, std::pair{c, 8}}) {
      net.link(ns, dev, ns, "p" + dev);
      net.addrs(ns, dev, fmt::format("10.{}.0.1/24", n), fmt::format("fd0{}::1/64", n));
    }
    ASSERT_TRUE(net.ok);
  }
  void TearDown() override {
    rib = nullptr;
    intfs = nullptr;
    for (const auto& f : files) std::remove(f.c_str());
  }
  // An `ip -batch` file of these lines, removed at the end of the test.
  std::string batchFile(const std::string& lines) {
    files.push_back(fmt::format("/tmp/ribn-{}-{}", ::getpid(), files.size()));
    std::ofstream(files.back()) << lines;
    return files.back();
  }
  // n /24 routes from 10.<second>.0.0 on, over `gateways` gateways from 10.9.0.2.
  static std::string routeLines(int n, int second, int gateways) {
    std::string out;
    for (int i = 0; i < n; ++i)
      out += fmt::format("route add 10.{}.{}.0/24 via 10.9.0.{}\n", second + i / 256, i % 256,
                         2 + i % gateways);
    return out;
  }
  void start(int rcvBuf = 64 << 20) {
    intfs = Interface::netlinkIntfStatusSmFactory(dir, loop, ns);
    ASSERT_TRUE(intfs->ok());
    Routing::NetlinkRibConfig config;
    config.vrf = ns;
    config.netNs = ns;
    config.mribTable = kMribTable;
    config.rcvBuf = rcvBuf;
    rib = Routing::netlinkRibSmFactory(config, dir, loop);
    ASSERT_TRUE(rib->ok());
  }
  void run(double seconds) {
    for (int i = 0; i < static_cast<int>(seconds / 0.01); ++i) loop.runOnce(0.01);
  }
  // Runs the loop until the tables equal the kernel's account (at most about 10 s);
  // returns the last difference, empty when equal.
  // Tables as published: (IPv6?, multicast RIB?) -> view.
  using Source = std::function<RibView(bool, bool)>;
  Source own() {
    return [this](bool v6, bool m) {
      return v6 ? readTables(m ? rib->mrib6() : rib->urib6())
                : readTables(m ? rib->mrib() : rib->urib());
    };
  }
  std::string converge(Source source = {}) {
    if (!source) source = own();
    std::string diff;
    for (int attempt = 0; attempt < 50; ++attempt) {
      run(0.2);
      diff.clear();
      for (bool v6 : {false, true}) {
        const KernelView k = readKernel(ns, v6);
        for (bool m : {false, true}) {
          const RibView got = source(v6, m), &want = m ? k.mrib : k.urib;
          if (got == want) continue;
          std::ostringstream os;
          os << (m ? "mrib" : "urib") << (v6 ? "6" : "") << " published:" << got
             << "\nkernel:" << want << "\n";
          diff += os.str();
        }
      }
      if (diff.empty()) return diff;
    }
    return diff;
  }
  template <Nimo::AddressFamily F>
  static std::optional<Published> route(Routing::RouteWriterGen<F>* w, const char* p) {
    const RibView v = readTables(w);
    auto it = v.find(p);
    return it == v.end() ? std::nullopt : std::optional<Published>(it->second);
  }

  std::string ns, a, c;
  std::vector<std::string> files;
  PimTest::NetnsSet net;
  Ulm::EventLoop loop{Kel::Ptr<Kel::SystemClock>::make()};
  Kel::Ptr<Interface::IntfStatusDir> dir = Kel::Ptr<Interface::IntfStatusDir>::make("intf");
  Kel::Ptr<Interface::NetlinkIntfStatusSm> intfs;
  Kel::Ptr<Routing::NetlinkRibSm> rib;
};

// One scripted step: `ip -n <ns>` commands separated by ";" ({a}, {c} substituted; sysctl
// runs in the namespace), then equality with the kernel, then one prefix checked by hand
// (type code and via count; type 0: absent).
struct Step {
  const char *name, *commands, *prefix;
  int type;
  std::size_t vias;
};

TEST_F(NetlinkRibNetnsTest, TablesFollowTheKernelStepByStep) {
  start();
  const Step steps[] = {
      {"ECMP add",
       "route add 10.1.0.0/16 nexthop via 10.9.0.2 nexthop via 10.8.0.2;"
       "-6 route add fd01::/64 nexthop via fd09::2 nexthop via fd08::2",
       "10.1.0.0/16", 2, 2},
      {"IPv6 append", "-6 route append fd01::/64 via fd09::3", "fd01::/64", 2, 3},
      {"IPv6 delete of one next hop", "-6 route del fd01::/64 via fd09::2", "fd01::/64", 2, 2},
      {"replace", "route replace 10.1.0.0/16 via 10.9.0.4;-6 route replace fd01::/64 via fd09::4",
       "fd01::/64", 2, 1},
      {"two metrics",
       "route add 10.2.0.0/16 via 10.9.0.2 metric 10;route add 10.2.0.0/16 via 10.8.0.2 metric 20;"
       "-6 route add fd02::/64 via fd09::2 metric 10;-6 route add fd02::/64 via fd08::2 metric 20",
       "10.2.0.0/16", 2, 1},
      {"removal of the better metric",
       "route del 10.2.0.0/16 metric 10;-6 route del fd02::/64 metric 10", "fd02::/64", 2, 1},
      {"blackhole, unreachable, prohibit",
       "route add blackhole 10.3.0.0/16;route add unreachable 10.4.0.0/16;"
       "-6 route add blackhole fd03::/64;-6 route add prohibit fd04::/64",
       "10.4.0.0/16", 3, 0},
      {"loopback RP and local addresses",
       "addr add 10.99.0.1/32 dev lo;addr add fd99::1/128 dev lo", "10.99.0.1/32", 1, 1},
      {"device route", "route add 10.7.0.0/16 dev {a}", "10.7.0.0/16", 11, 1},
      {"link down: c's next hops linkdown", "link set p{c} down", "10.8.0.0/24", 0, 0},
      {"link up", "link set p{c} up", "10.8.0.0/24", 5, 1},
      {"address removal flushes IPv4 routes silently",
       "route add 10.5.0.0/16 via 10.8.0.3;addr del 10.8.0.1/24 dev {c}", "10.5.0.0/16", 0, 0},
      {"nexthop objects with compat mode 0",
       "sysctl -qw net.ipv4.nexthop_compat_mode=0;nexthop add id 1 via 10.9.0.5 dev {a};"
       "nexthop add id 2 via 10.9.0.6 dev {a};nexthop add id 10 group 1/2;"
       "route add 10.6.0.0/16 nhid 10",
       "10.6.0.0/16", 2, 2},
      {"nexthop group replace notifies no route", "nexthop replace id 10 group 1", "10.6.0.0/16", 2,
       1},
      {"multicast RIB table",
       "route add 10.1.0.0/16 via 10.9.0.7 table 100;-6 route add fd01::/64 via fd09::7 table 100",
       "10.1.0.0/16", 2, 1},
  };
  ASSERT_EQ(converge(), "") << "start-up";
  for (const Step& s : steps) {
    SCOPED_TRACE(s.name);
    std::istringstream commands(
        fmt::format(fmt::runtime(s.commands), fmt::arg("a", a), fmt::arg("c", c)));
    for (std::string cmd; std::getline(commands, cmd, ';');) {
      const bool sysctl = cmd.starts_with("sysctl");
      ASSERT_EQ(sh(fmt::format("ip {} {} {}", sysctl ? "netns exec" : "-n", ns, cmd)), 0) << cmd;
    }
    EXPECT_EQ(converge(), "");
    const auto r = std::string_view(s.prefix).find(':') != std::string_view::npos
                       ? route(rib->urib6(), s.prefix)
                       : route(rib->urib(), s.prefix);
    EXPECT_EQ(r ? r->type : 0, s.type) << s.prefix;
    EXPECT_EQ(r ? r->vias.size() : 0u, s.vias) << s.prefix;
  }
  // The loopback address is a receive route on the platform's loopback name.
  EXPECT_EQ(route(rib->urib6(), "fd99::1/128")->vias, std::set<std::string>{"::@Loopback0"});
  EXPECT_EQ(rib->refused(), 0u);
  EXPECT_EQ(rib->waiting(), 0u);
}

// Interface names come from the directory: with none known every route waits, and each
// is published once its interface is named (also the path a rename takes).
TEST_F(NetlinkRibNetnsTest, RoutesWaitForTheirInterfaceName) {
  ASSERT_EQ(sh(fmt::format("ip -n {} route add 10.1.0.0/16 via 10.9.0.2", ns)), 0);
  Routing::NetlinkRibConfig config;
  config.vrf = ns;
  config.netNs = ns;
  rib = Routing::netlinkRibSmFactory(config, dir, loop);
  ASSERT_TRUE(rib->ok());
  run(0.2);
  EXPECT_GT(rib->waiting(), 0u);
  EXPECT_FALSE(route(rib->urib(), "10.1.0.0/16"));
  intfs = Interface::netlinkIntfStatusSmFactory(dir, loop, ns);
  ASSERT_TRUE(intfs->ok());
  EXPECT_EQ(converge(), "");
  EXPECT_EQ(rib->waiting(), 0u);
  EXPECT_EQ(route(rib->urib(), "10.1.0.0/16")->vias, std::set<std::string>{"10.9.0.2@" + a});
}

// Lost notices: a small event buffer, the adapter not reading while 10,000 routes arrive.
TEST_F(NetlinkRibNetnsTest, OverflowIsCountedAndResynchronised) {
  start(4096);
  ASSERT_EQ(converge(), "");
  const std::uint64_t resyncs = rib->resyncs();
  ASSERT_EQ(sh(fmt::format("ip -n {} -force -batch {}", ns, batchFile(routeLines(10000, 100, 2)))),
            0);
  EXPECT_EQ(converge(), "");
  EXPECT_GE(rib->overflows(), 1u);
  EXPECT_GT(rib->resyncs(), resyncs);
  EXPECT_EQ(readTables(rib->urib()).size(), readKernel(ns, false).urib.size());
}

// ribd as its own process, started while a script is still adding routes; the test reads
// its tables as any agent would, through readers of the shared tables.
TEST_F(NetlinkRibNetnsTest, RibdStartedWhileRoutesAreAddedPublishesTheKernelsTables) {
  const pid_t adder =
      spawn(fmt::format("ip -n {} -batch {}", ns, batchFile(routeLines(3000, 100, 3))));
  const pid_t ribd = spawn(fmt::format("exec {} --netns {} --vrf {} --mrib-table {} >/dev/null",
                                       RIBD_PATH, ns, ns, kMribTable));
  EXPECT_EQ(waitChild(adder, 60), 0);
  // Readers of one family's tables, mounted as an agent would.
  const auto readers = [&]<typename Route, typename Part>(Nimo::AddressFamily af) {
    const std::string path = Routing::ribMountPath(af, ns);
    using Routes = Drobe::Reader<Nimo::IpGenPrefix, Route>;
    return std::tuple{Routes::create(loop, path, "urib"), Routes::create(loop, path, "mrib"),
                      Drobe::Reader<Routing::FecKey, Part>::create(loop, path, "fec")};
  };
  auto [urib, mrib, fec] =
      readers.operator()<Routing::Fib::Route, Routing::Fib::FecPart>(Nimo::AddressFamily::ipv4);
  auto [urib6, mrib6, fec6] =
      readers.operator()<Routing6::Fib::Route, Routing6::Fib::FecPart>(Nimo::AddressFamily::ipv6);
  const auto view = [](auto& routes, auto& fecs) {
    return toView([&](const auto& fn) { routes->forEach(fn); },
                  [&](const Routing::FecKey& k) { return fecs->find(k); });
  };
  EXPECT_EQ(converge([&](bool v6, bool m) {
              return v6 ? view(m ? mrib6 : urib6, fec6) : view(m ? mrib : urib, fec);
            }),
            "");
  EXPECT_GE(urib->size(), 3000u);
  ::kill(ribd, SIGTERM);
  EXPECT_EQ(waitChild(ribd, 10), 0);
}

// A 10-second storm of adds and deletes ends in equality, with the adapter holding what
// it held before.
TEST_F(NetlinkRibNetnsTest, StormEndsInEqualityWithMemoryBack) {
  start();
  ASSERT_EQ(converge(), "");
  const std::size_t held = rib->kernelRoutes();
  const long before = residentKb(::getpid());
  std::string adds, dels;
  for (int i = 0; i < 1000; ++i) {
    const std::string p = fmt::format("10.{}.{}.0/24", 200 + i / 256, i % 256);
    adds += fmt::format("route add {} nexthop via 10.9.0.2 nexthop via 10.8.0.{}\n", p, 2 + i % 4);
    dels += "route del " + p + "\n";
  }
  const std::string add = batchFile(adds), del = batchFile(dels);
  const pid_t storm = spawn(
      fmt::format("end=$(( $(date +%s) + 10 )); while [ $(date +%s) -lt $end ]; do "
                  "ip -n {0} -force -batch {1}; ip -n {0} -force -batch {2}; done 2>/dev/null",
                  ns, add, del));
  // The loop runs while the storm lasts (bounded: the script stops after 10 s).
  int status = -1;
  for (int i = 0; i < 3000 && ::waitpid(storm, &status, WNOHANG) == 0; ++i) loop.runOnce(0.01);
  if (status == -1)
    EXPECT_EQ(waitChild(storm, 30), 0);  // not reaped yet: reap it
  else
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(converge(), "");
  // What the adapter holds is what a fresh dump gives, and the storm's routes are gone
  // (the namespace's own few may have grown by an IPv6 link-local route or two).
  const std::size_t incremental = rib->kernelRoutes();
  rib->resync();
  EXPECT_EQ(rib->kernelRoutes(), incremental);
  EXPECT_LT(incremental, held + 10);
  // Memory: freed pages may stay with the allocator, but 1,000 routes' worth of growth per
  // round would show as megabytes.
  const long after = residentKb(::getpid());
  std::printf("storm: resident %ld kB before, %ld kB after, resyncs %llu, overflows %llu\n", before,
              after, static_cast<unsigned long long>(rib->resyncs()),
              static_cast<unsigned long long>(rib->overflows()));
#ifndef __SANITIZE_ADDRESS__  // AddressSanitizer's quarantine keeps freed memory by design
  EXPECT_LT(after - before, 4096);
#endif
}

// The published unicast RIB against the kernel's own lookup: for 1,000 random targets in a
// namespace with 5,000 routes, the longest match in the tables is the route that
// `ip route get fibmatch` names, with the same next hops; blackholed, unreachable and
// unrouted targets, which the kernel refuses, match a drop route or nothing.
TEST_F(NetlinkRibNetnsTest, LongestMatchAgreesWithTheKernelsFibMatch) {
  std::mt19937 rng(12);  // 32-bit results: the casts below lose nothing
  std::vector<Nimo::IpGenPrefix> stored;
  std::string lines;
  for (int i = 0; i < 20; ++i) lines += fmt::format("address add 10.250.0.{}/32 dev lo\n", i + 1);
  for (int i = 0; i < 5000; ++i) {
    const auto len = static_cast<std::uint8_t>(8 + rng() % 23);
    // Nothing inside the gateways' subnets (10.8/16, 10.9/16) or the local addresses.
    auto addr = static_cast<std::uint32_t>(0x0a000000u | (rng() & 0x00ffffffu));
    if (const auto second = (addr >> 16) & 0xff; second == 8 || second == 9 || second == 250)
      addr = (addr & 0xff00ffffu) | 0x00070000u;
    const Nimo::IpGenPrefix p = Nimo::IpGenPrefix(Nimo::IpGenAddr::v4(addr), len).masked();
    stored.push_back(p);
    const auto kind = static_cast<unsigned>(rng() % 10);
    lines += (kind == 0   ? fmt::format("route replace blackhole {}\n", p)
              : kind == 1 ? fmt::format("route replace unreachable {}\n", p)
              : kind < 5  ? fmt::format("route replace {} nexthop via 10.9.0.2 nexthop via "
                                         "10.8.0.{}\n",
                                        p, 2 + rng() % 3)
                          : fmt::format("route replace {} via 10.9.0.{}\n", p, 2 + rng() % 5));
  }
  ASSERT_EQ(sh(fmt::format("ip -n {} -force -batch {}", ns, batchFile(lines))), 0);
  start();
  ASSERT_EQ(converge(), "");
  const RibView published = readTables(rib->urib());

  // Each target's answer is followed by a marker answer (127.0.0.1's local route), since a
  // refused target prints nothing.
  std::vector<Nimo::IpGenAddr> targets;
  lines.clear();
  for (int i = 0; i < 1000; ++i) {
    const std::uint32_t base =
        i % 2 ? stored[rng() % stored.size()].address().v4Addr() : 0x0a000000u;
    const auto low = static_cast<std::uint32_t>(rng() & (i % 2 ? 0xffu : 0x00ffffffu));
    targets.push_back(Nimo::IpGenAddr::v4(base | low));
    lines += fmt::format("route get fibmatch {}\nroute get fibmatch 127.0.0.1\n", targets.back());
  }
  std::istringstream out(
      runCommand(fmt::format("ip -n {} -j -force -batch {}", ns, batchFile(lines)), false).out);
  const auto longest = [&](const Nimo::IpGenAddr& t) -> std::optional<std::string> {
    for (int len = 32; len >= 0; --len) {
      std::ostringstream key;
      key << Nimo::IpGenPrefix(t, static_cast<std::uint8_t>(len)).masked();
      if (published.count(key.str())) return key.str();
    }
    return std::nullopt;
  };
  std::size_t answered = 0, refused = 0;
  std::string line;
  for (const auto& t : targets) {
    SCOPED_TRACE(fmt::format("target {}", t));
    std::optional<json> answer;
    while (std::getline(out, line)) {
      const json j = json::parse(line);
      if (j.at(0).value("dst", "") == "127.0.0.1") break;
      answer = j.at(0);
    }
    const auto match = longest(t);
    if (!answer) {
      ++refused;
      EXPECT_TRUE(!match || published.at(*match).vias.empty()) << *match;
      continue;
    }
    ++answered;
    ASSERT_TRUE(match);
    std::string dst = (*answer)["dst"];
    if (dst.find('/') == std::string::npos) dst += "/32";
    EXPECT_EQ(*match, dst);
    std::set<std::string> vias;
    const json hops = answer->contains("nexthops") ? (*answer)["nexthops"] : json::array({*answer});
    for (const auto& nh : hops)
      vias.insert(
          fmt::format("{}@{}", nh.value("gateway", "0.0.0.0"), nh["dev"].get<std::string>()));
    EXPECT_EQ(published.at(*match).vias, vias);
  }
  std::printf("fibmatch: %zu answered, %zu refused\n", answered, refused);
  EXPECT_GT(answered, 300u);
  EXPECT_GT(refused, 50u);
}

}  // namespace
