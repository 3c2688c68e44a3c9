// pimagent as a program: its command line, two agents on a veth between namespaces, and
// the agent beside FRR's pimd. Everything that runs is started here, by pid, and stopped
// by pid; namespaces and files carry the pid and are removed at the end.
#include <gmock/gmock.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/PimTestUtil.h"
#include "tests/netns/NetnsUtil.h"

namespace {

using namespace PimTest;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

// A shell command (exec'd: the pid is the program's) with its output in a file, stopped by
// its pid.
class Spawned {
 public:
  Spawned(const std::string& cmd, const std::string& out)
      : out_(out), pid_(spawn(fmt::format("exec {} >{} 2>&1", cmd, out))) {}
  ~Spawned() { stop(SIGKILL); }
  Spawned(const Spawned&) = delete;
  Spawned& operator=(const Spawned&) = delete;

  bool started() const { return pid_ > 0; }
  std::string output() const {
    std::stringstream s;
    s << std::ifstream(out_).rdbuf();
    return s.str();
  }
  // Polls the output for text, at most `seconds`.
  bool await(const std::string& text, double seconds = 10) const {
    return waitUntil([&] { return output().find(text) != std::string::npos; }, seconds);
  }
  // Sends sig and waits at most 10 s; the exit status, or -1.
  int stop(int sig = SIGTERM) {
    if (pid_ <= 0) return -1;
    ::kill(pid_, sig);
    return waitChild(std::exchange(pid_, -1), 10);
  }

 private:
  std::string out_;
  pid_t pid_;
};

// A directory of this test's own under /dev/shm, for outputs and each agent's DROBE_ROOT.
struct ScratchDir {
  explicit ScratchDir(const std::string& tag)
      : path(fmt::format("/dev/shm/pimagent-{}-{}", tag, ::getpid())) {
    fs::remove_all(path);
    fs::create_directories(path);
  }
  ~ScratchDir() { fs::remove_all(path); }
  std::string path;
};

// The tables under root as pimshow prints them in JSON.
nlohmann::json pimshow(const std::string& root, const char* af) {
  return nlohmann::json::parse(
      runCommand(fmt::format("DROBE_ROOT={} {} --af {} --json", root, PIMSHOW_PATH, af), false).out,
      nullptr, false);
}

// The tx or rx success count of (type, all interfaces); -1 without counters.
int successes(const nlohmann::json& j, int type, const char* dir) {
  if (!j.is_object() || !j.contains("msgCounter")) return -1;
  for (const auto& c : j["msgCounter"]) {
    if (c["key"]["mtype"] == type && c["key"]["stype"] == 255 && c["key"]["intfId"] == "") {
      return c[dir]["success"].get<int>();
    }
  }
  return 0;
}

TEST(PimAgentOptions, BadOptionsExitTwoWithOneLine) {
  // A group that is not multicast, no upstream, (*,G) without its RP, an IPv6 join while
  // running IPv4 only, and the rest.
  // clang-format off
  const char* bad[] = {"--af 5", "--hello-interval 0", "--holdtime 70000", "--dr-priority -1",
                       "--join 10.0.0.1,10.0.0.2@10.0.0.3", "--join 10.0.0.1,232.1.1.1",
                       "--join *,239.1.1.1@10.0.0.3", "--join fd00::1,ff3e::1@fd00::2",
                       "--trace Pim::IO", "--vrf a/b", "--duration", "--bogus", "extra"};
  // clang-format on
  for (const char* args : bad) {
    SCOPED_TRACE(args);
    const auto r = runCommand(fmt::format("{} {}", PIMAGENT_PATH, args));
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_THAT(r.out, ::testing::StartsWith("pimagent: "));
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r.out;
  }
}

// Two agents, A and B: they become neighbours, A's Join/Prune naming B as upstream reaches
// B's downstream table, the sends and receives are counted in their tables (read by
// pimshow from outside), and A's goodbye removes it from B at once.
class PimAgentNetnsTest : public ::testing::TestWithParam<Nimo::AddressFamily> {};

TEST_P(PimAgentNetnsTest, TwoAgentsBecomeNeighboursAndJoinUpstream) {
  if (!isRoot()) GTEST_SKIP() << "needs root (network namespaces, raw sockets)";
  const bool v6 = GetParam() == Nimo::AddressFamily::ipv6;
  const char* af = v6 ? "6" : "4";
  NetnsPair pair("pag");
  ASSERT_TRUE(pair.ok);
  ScratchDir dir("two");
  const std::string rootA = dir.path + "/a", rootB = dir.path + "/b";
  // B's address as A's neighbour: its link-local for IPv6.
  std::string addrB = "10.77.0.2";
  if (v6) {
    addrB =
        runCommand(fmt::format("ip -n {} -6 -o addr show dev {} scope link | awk '{{print $4}}' "
                               "| cut -d/ -f1",
                               pair.b, pair.vethB),
                   false)
            .out;
    addrB.erase(addrB.find_last_not_of("\n ") + 1);
    ASSERT_THAT(addrB, ::testing::StartsWith("fe80::"));
  }
  const std::string join = v6 ? fmt::format("2001:db8::5,ff3e::1:2@{}", addrB)
                              : fmt::format("10.9.9.9,232.1.1.2@{}", addrB);
  const auto agent = [&](const std::string& root, const std::string& ns) {
    return fmt::format("env DROBE_ROOT={} {} --netns {} --af {} --hello-interval 1 --duration 30",
                       root, PIMAGENT_PATH, ns, af);
  };
  Spawned b(agent(rootB, pair.b), dir.path + "/b.out");
  Spawned a(agent(rootA, pair.a) + " --join " + join, dir.path + "/a.out");
  ASSERT_TRUE(a.started() && b.started());

  EXPECT_TRUE(a.await(fmt::format("neighbor {} on {} up", addrB, pair.vethA))) << a.output();
  EXPECT_TRUE(b.await(fmt::format("downstream join ({}) on {} from",
                                  v6 ? "2001:db8::5,ff3e::1:2" : "10.9.9.9,232.1.1.2", pair.vethB)))
      << b.output();
  EXPECT_THAT(b.output(), HasSubstr(fmt::format("upstream {} (us)", addrB)));

  const auto tablesA = pimshow(rootA, af), tablesB = pimshow(rootB, af);
  ASSERT_TRUE(tablesA.is_object() && tablesB.is_object());
  EXPECT_GE(successes(tablesA, 0, "txMsgCounter"), 1);
  EXPECT_GE(successes(tablesA, 3, "txMsgCounter"), 1);
  EXPECT_GE(successes(tablesB, 3, "rxMsgCounter"), 1);
  EXPECT_GE(successes(tablesB, 0, "rxMsgCounter"), 1);
  ASSERT_EQ(tablesA["neighbor"].size(), 1u);
  EXPECT_EQ(tablesA["neighbor"][0]["key"]["address"], addrB);
  for (const auto& t : {tablesA, tablesB})
    for (const auto& c : t["msgCounter"]) {
      EXPECT_EQ(c["txMsgCounter"]["invalid"], 0) << c;
      EXPECT_EQ(c["rxMsgCounter"]["invalid"], 0) << c;
    }

  // SIGTERM: A says goodbye and exits 0; B drops it at once, not after the holdtime.
  EXPECT_EQ(a.stop(), 0);
  EXPECT_THAT(a.output(), HasSubstr("sent Hello with holdtime 0 on 1 interface(s)"));
  EXPECT_TRUE(b.await("on " + pair.vethB + " down (holdtime 0)", 3)) << b.output();
  EXPECT_EQ(b.stop(SIGINT), 0);
}

INSTANTIATE_TEST_SUITE_P(Families, PimAgentNetnsTest,
                         ::testing::Values(Nimo::AddressFamily::ipv4, Nimo::AddressFamily::ipv6),
                         [](const auto& i) {
                           return i.param == Nimo::AddressFamily::ipv4 ? "IPv4" : "IPv6";
                         });

// FRR's pimd in namespace A (with the zebra it needs, both as the packaged user), the
// agent in B: each lists the other as a neighbour, and B's (S,G) join naming FRR as
// upstream shows in FRR's join table.
TEST(PimAgentFrrTest, FrrAndTheAgentAreNeighboursAndFrrTakesTheJoin) {
  if (!isRoot()) GTEST_SKIP() << "needs root (network namespaces, raw sockets)";
  if (!fs::exists("/usr/lib/frr/pimd") || !fs::exists("/usr/lib/frr/zebra") ||
      ::getpwnam("frr") == nullptr || runCommand("command -v vtysh").exitCode != 0) {
    GTEST_SKIP() << "FRR is not installed (scripts/setup installs it)";
  }
  NetnsPair pair("pfr");
  ASSERT_TRUE(pair.ok);
  ScratchDir dir("frr");
  const passwd* frr = ::getpwnam("frr");
  ASSERT_EQ(::chown(dir.path.c_str(), frr->pw_uid, frr->pw_gid), 0);
  const std::string& d = dir.path;
  std::ofstream(d + "/zebra.conf") << "hostname zebra-a\n";
  std::ofstream(d + "/pimd.conf") << fmt::format(
      "hostname pimd-a\ninterface {}\n ip pim\n ip pim hello 1 3\n!\n", pair.vethA);
  for (const char* f : {"/zebra.conf", "/pimd.conf"})
    ASSERT_EQ(::chown((d + f).c_str(), frr->pw_uid, frr->pw_gid), 0);
  auto daemon = [&](const char* n) {
    return fmt::format(
        "/usr/bin/ip netns exec {0} /usr/lib/frr/{1} -u frr -g frr -f {2}/{1}.conf -i {2}/{1}.pid"
        " -z {2}/zserv.api --vty_socket {2} --log file:{2}/{1}.log",
        pair.a, n, d);
  };
  Spawned zebra(daemon("zebra"), d + "/zebra.out");
  ASSERT_TRUE(zebra.started());
  waitUntil([&] { return fs::exists(d + "/zserv.api"); }, 5);
  Spawned pimd(daemon("pimd"), d + "/pimd.out");
  ASSERT_TRUE(pimd.started());
  const std::string root = d + "/drobe";
  Spawned agent(fmt::format("env DROBE_ROOT={} {} --netns {} --hello-interval 1 --duration 30"
                            " --join 10.77.0.99,232.1.1.3@10.77.0.1",
                            root, PIMAGENT_PATH, pair.b),
                d + "/agent.out");
  ASSERT_TRUE(agent.started());

  EXPECT_TRUE(agent.await("neighbor 10.77.0.1 on " + pair.vethB + " up")) << agent.output();
  EXPECT_TRUE(agent.await("sent Join/Prune to upstream 10.77.0.1")) << agent.output();
  auto vtysh = [&](const char* cmd) {
    return nlohmann::json::parse(
        runCommand(fmt::format("vtysh --vty_socket {} -c '{}'", d, cmd), false).out, nullptr,
        false);
  };
  nlohmann::json neighbors, joins;
  waitUntil(
      [&] {
        neighbors = vtysh("show ip pim neighbor json");
        joins = vtysh("show ip pim join json");
        return neighbors.contains(pair.vethA) && joins.contains(pair.vethA) &&
               joins[pair.vethA].contains("232.1.1.3");
      },
      5);
  ASSERT_TRUE(neighbors.contains(pair.vethA)) << neighbors.dump();
  EXPECT_TRUE(neighbors[pair.vethA].contains("10.77.0.2")) << neighbors.dump();
  ASSERT_TRUE(joins.contains(pair.vethA)) << joins.dump();
  ASSERT_TRUE(joins[pair.vethA].contains("232.1.1.3")) << joins.dump();
  EXPECT_EQ(joins[pair.vethA]["232.1.1.3"]["10.77.0.99"]["channelJoinName"], "JOIN")
      << joins.dump();

  // The agent counted FRR's Hellos as received and decoded.
  EXPECT_GE(successes(pimshow(root, "4"), 0, "rxMsgCounter"), 1);
  EXPECT_EQ(agent.stop(), 0);
  // FRR's daemons end on SIGTERM with their own statuses; what counts is that they end.
  EXPECT_NE(pimd.stop(), -1);
  EXPECT_NE(zebra.stop(), -1);
}

}  // namespace
