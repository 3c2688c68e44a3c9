// PIM over SCTP between two namespaces with real associations: a PortPamManager in each
// (the userland backend here, the kernel's where it has SCTP), one end per process since a
// userland stack is one per process. B runs in a child and reports on a pipe; A runs here.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "Pim/PortPam.h"
#include "tests/PimTestUtil.h"
#include "tests/netns/NetnsUtil.h"
#include "tests/netns/PortEnd.h"

namespace {

using namespace Routing::Pim::Reliable;
namespace D = Routing::Pim::Drobe;
using Nimo::IpGenAddr;

[[maybe_unused]] auto* const kRoot =
    ::testing::AddGlobalTestEnvironment(new PimTest::PrivateDrobeRoot("portnetns"));

struct Family {
  const char* name;
  const char* a;  // A's address (the PIM and connection address alike)
  const char* b;
};
const Family kFamilies[] = {
    {"ipv4", "10.77.0.1", "10.77.0.2"},
    {"ipv6", "fd77::1", "fd77::2"},
    {"link-local", "fe80::77:1", "fe80::77:2"},
};

// What one end saw, sent back to the parent.
struct Report {
  std::uint64_t received = 0, invalid = 0, outOfOrder = 0, sent = 0;
  std::uint32_t assocId = 0, lastAssocId = 0;
  std::size_t assocs = 0, up = 0, upAtPeak = 0;
  bool cameUp = false, endSeen = false;
  double lostAfter = 0;
  char src[64] = {};
  char backend[16] = {};
};

// One end in a child process of its own: a userland stack is per process, and a child
// forked from a parent that never started one begins clean. Its report comes back on the
// child's socket; every wait is bounded.
template <typename F>
int child(PimTest::Children& kids, F body) {
  return kids.spawn([body](int fd) { PimTest::send(fd, body()); });
}
bool report(PimTest::Children& kids, int fd, Report& r, int seconds) {
  return PimTest::receive(fd, r, seconds) && kids.exitCode(fd, 10) == 5;
}

void sendAll(PimTest::PortEnd& a, int count, Report& r) {
  for (int i = 1; i <= count; ++i) {
    // A full send buffer refuses; the loop drains it and the same message goes again.
    bool sent = false;
    a.runUntil([&] { return sent || (sent = a.send(static_cast<std::uint16_t>(i))); }, 10);
    r.sent += sent;
  }
}

// B: counts Join/Prunes (in order by hold time) until `expect` or the bound, stays `linger`
// seconds more, then reports; its manager goes with the child.
Report receiver(PimTest::PortEnd& b, int expect, bool connectToo, double linger = 0.3) {
  Report r;
  if (connectToo) b.connect();
  std::uint16_t last = 0;
  struct Rx : Routing::Pim::IO::MessageInfo::NotifieeConst {
    std::function<void()> fn;
    void onCount() override { fn(); }
  } rx;
  rx.fn = [&] {
    const std::uint16_t h = b.mgr->rxMessageInfo()->joinPruneMessage()->joinPruneData()->holdTime();
    r.outOfOrder += h != last + 1;
    last = h;
  };
  rx.notifierIs(b.mgr->rxMessageInfo());
  b.runUntil(
      [&] {
        r.upAtPeak = std::max(r.upAtPeak, b.mgr->sctpStatus()->upCount());
        return b.mgr->rxSuccess() >= static_cast<std::uint64_t>(expect);
      },
      60);
  b.runUntil([] { return false; }, linger);  // A's last acknowledgements
  r.received = b.mgr->rxSuccess();
  r.invalid = b.mgr->rxInvalid();
  r.assocId = b.mgr->rxAssociationId();
  r.assocs = b.mgr->sctpStatus()->association().size();
  r.up = b.mgr->sctpStatus()->upCount();
  if (!b.mgr->sctpStatus()->association().empty())
    r.lastAssocId = b.mgr->sctpStatus()->association().begin()->first;
  fmt::format_to_n(r.src, sizeof r.src - 1, "{}", b.mgr->rxMessageInfo()->neighborAddr());
  return r;
}

// A: sets up, sends garbage then `count` Join/Prunes, and waits for B's end to be seen.
Report sender(PimTest::PortEnd& a, int count, bool garbage, double upWait) {
  Report r;
  fmt::format_to_n(r.backend, sizeof r.backend - 1, "{}", a.mgr->sctpPam()->backendKind());
  a.connect();
  r.cameUp = a.runUntil([&] { return a.mgr->sctpStatus()->upCount() >= 1; }, upWait);
  if (!r.cameUp) return r;
  a.runUntil(
      [&] {
        r.upAtPeak = std::max(r.upAtPeak, a.mgr->sctpStatus()->upCount());
        return false;
      },
      0.5);  // a second association would be up by now
  const auto id = a.mgr->sctpStatus()->association().begin()->first;
  if (garbage) {
    const std::uint8_t junk[] = {0, 1, 0, 8, 0, 0, 0, 0, 0x23, 0, 0, 0};
    a.mgr->sctpPam()->doSendMsg(junk, sizeof junk, id);
  }
  sendAll(a, count, r);
  r.endSeen = a.runUntil([&] { return a.mgr->sctpStatus()->upCount() == 0; }, 70);
  const auto* assoc = a.mgr->sctpStatus()->association(id);
  r.endSeen = r.endSeen && assoc &&
              (assoc->state == Nimo::Sctp::AssocState::Lost ||
               assoc->state == Nimo::Sctp::AssocState::ShutDown);
  r.assocs = a.mgr->sctpStatus()->association().size();
  return r;
}

class PortPamNetnsTest : public ::testing::Test {
 public:
  void SetUp() override {
    if (!PimTest::isRoot()) GTEST_SKIP() << "needs root (network namespaces, raw sockets)";
    ::setenv("PIM_SCTP_BACKEND", "userland", 1);
    net = std::make_unique<PimTest::NetnsPair>("sctp");
    ASSERT_TRUE(net->ok);
    for (const auto& [ns, dev, n] : {std::tuple{net->a, net->vethA, 1}, {net->b, net->vethB, 2}}) {
      ASSERT_EQ(
          PimTest::sh(fmt::format("ip -n {} addr add fe80::77:{}/64 dev {} nodad", ns, n, dev)), 0);
    }
  }
  // B's body and A's body, each on an end of its own in its child, the ends' peers at
  // family f's addresses; both reports within `seconds`.
  template <typename FB, typename FA>
  void run(const Family& f, FB bodyB, FA bodyA, Report& a, Report& b, int seconds = 90) {
    PimTest::Children kids;
    const int fb = child(kids, [&] {
      PimTest::PortEnd end(net->b, net->vethB, net->ifIndexB, f.a);
      return bodyB(end);
    });
    const int fa = child(kids, [&] {
      PimTest::PortEnd end(net->a, net->vethA, net->ifIndexA, f.b);
      return bodyA(end);
    });
    EXPECT_TRUE(report(kids, fb, b, seconds)) << f.a;
    EXPECT_TRUE(report(kids, fa, a, seconds)) << f.a;
  }
  // B receiving and A sending `count` Join/Prunes.
  void exchange(const Family& f, int count, bool garbage, bool bothConnect, Report& a, Report& b) {
    run(
        f, [&](auto& end) { return receiver(end, count, bothConnect); },
        [&](auto& end) { return sender(end, count, garbage, 10); }, a, b);
  }
  // Every family on the backend the environment names: 100 Join/Prunes after one garbage
  // message arrive in order with A's address and the association's id, the garbage is
  // counted with the association kept, and B's manager going ends A's association.
  void deliversInEveryFamily(const std::string& backend) {
    for (const auto& f : kFamilies) {
      SCOPED_TRACE(f.name);
      Report a, b;
      exchange(f, 100, true, false, a, b);
      EXPECT_EQ(std::string(a.backend), backend);
      ASSERT_TRUE(a.cameUp);
      EXPECT_EQ(a.sent, 100u);
      EXPECT_EQ(b.received, 100u);
      EXPECT_EQ(b.outOfOrder, 0u);
      EXPECT_EQ(b.invalid, 1u);  // the garbage, with the association kept
      EXPECT_EQ(b.up, 1u);
      EXPECT_EQ(b.assocs, 1u);
      EXPECT_NE(b.assocId, 0u);
      EXPECT_EQ(b.assocId, b.lastAssocId);
      EXPECT_EQ(std::string(b.src), f.a);
      EXPECT_TRUE(a.endSeen);  // B's manager went: A's association ended
    }
  }
  std::unique_ptr<PimTest::NetnsPair> net;
};

TEST_F(PortPamNetnsTest, JoinPrunesArriveWithSourceAndAssociationThenTheEndIsSeen) {
  deliversInEveryFamily("userland");
}

TEST_F(PortPamNetnsTest, SetupFromBothEndsAtOnceGivesOneAssociation) {
  Report a, b;
  exchange(kFamilies[0], 1, false, true, a, b);
  ASSERT_TRUE(a.cameUp);
  EXPECT_EQ(a.upAtPeak, 1u);
  EXPECT_EQ(a.assocs, 1u);
  EXPECT_EQ(b.received, 1u);
  EXPECT_EQ(b.upAtPeak, 1u);
  EXPECT_EQ(b.assocs, 1u);
}

TEST_F(PortPamNetnsTest, ThousandJoinPrunesThroughFivePercentLossAllArriveInOrder) {
  if (PimTest::sh("command -v nft") != 0) GTEST_SKIP() << "nft (nftables) is not installed";
  const std::string rule = fmt::format(
      "ip netns exec {} nft add table inet loss && "
      "ip netns exec {} nft add chain inet loss in '{{ type filter hook input priority 0; }}' && "
      "ip netns exec {} nft add rule inet loss in meta l4proto 132 numgen random mod 100 '<' 5 "
      "drop",
      net->b, net->b, net->b);
  if (PimTest::sh(rule) != 0) GTEST_SKIP() << "the kernel refuses the nftables loss rule";
  Report a, b;
  exchange(kFamilies[0], 1000, false, false, a, b);
  ASSERT_TRUE(a.cameUp);
  EXPECT_EQ(a.sent, 1000u);
  EXPECT_EQ(b.received, 1000u);
  EXPECT_EQ(b.outOfOrder, 0u);
  EXPECT_EQ(b.up, 1u);
  // The rule dropped something: the counter of the rule is not zero.
  const auto out = PimTest::runCommand("ip netns exec " + net->b + " nft list table inet loss");
  EXPECT_EQ(out.out.find("packets 0 "), std::string::npos) << out.out;
}

// tshark does not dissect PORT, but it dissects SCTP: captured on A's veth, the association
// runs between the PIM ports with good CRC32c, no ICMP, and A's DATA chunks carry, in TSN
// order and with payload protocol 0, exactly the PORT messages A wrote.
TEST_F(PortPamNetnsTest, TsharkSeesThePortMessagesInOrderOnTheWire) {
  if (PimTest::sh("command -v tshark >/dev/null") != 0) GTEST_SKIP() << "tshark is not installed";
  const std::string file = fmt::format("/tmp/portpam-{}.pcapng", ::getpid());
  const std::string log = file + ".log";
  struct Remove {
    std::string a, b;
    ~Remove() { std::remove(a.c_str()), std::remove(b.c_str()); }
  } remove{file, log};
  const pid_t cap = PimTest::spawn(
      fmt::format("exec ip netns exec {} tshark -n -i {} -f 'sctp or icmp or icmp6' -w {} >{} 2>&1",
                  net->a, net->vethA, file, log));
  const auto logText = [&] {
    std::ifstream in(log);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  const bool capturing =
      PimTest::waitUntil([&] { return logText().find("Capturing on") != std::string::npos; }, 15);
  if (!capturing) {
    ::kill(cap, SIGKILL);
    PimTest::waitChild(cap, 20);
    FAIL() << "tshark did not start: " << logText();
  }
  constexpr int kCount = 20;
  Report a, b;
  exchange(kFamilies[0], kCount, false, false, a, b);
  ::kill(cap, SIGINT);
  EXPECT_EQ(PimTest::waitChild(cap, 20), 0) << logText();
  ASSERT_EQ(b.received, static_cast<std::uint64_t>(kCount));
  // What A wrote: the manager's framing of each Join/Prune (no interface record: Interface
  // ID zero).
  std::vector<std::string> wrote;
  for (std::uint16_t i = 1; i <= kCount; ++i) {
    const auto jp = PimTest::PortEnd::joinPrune(IpGenAddr(kFamilies[0].b), i);
    jp->srcIpIs(portMessageAddr(Nimo::AddressFamily::ipv4));
    jp->dstIpIs(jp->srcIp());
    auto pkt = Nimo::Pkt::create(1500);
    const std::uint32_t n = jp->writeJoinPruneMessage(pkt, kPortJoinPruneOffset, nullptr);
    const std::uint32_t len = writePortJoinPrune(pkt, 0, {}, Nimo::AddressFamily::ipv4, n);
    std::string hex = PimTest::toHex(PimTest::bytesOf(*pkt, len));  // tshark's: no spaces
    std::erase_if(hex, [](char c) { return std::isspace(static_cast<unsigned char>(c)); });
    wrote.push_back(hex);
  }
  const auto fields = PimTest::runCommand(
      "tshark -n -r '" + file +
          "' -o sctp.checksum:crc-32c -Y sctp -T fields -E separator='|' -E occurrence=a"
          " -E aggregator=, -e ip.src -e sctp.srcport -e sctp.dstport -e sctp.checksum.status"
          " -e sctp.data_tsn -e sctp.data_payload_proto_id -e data.data",
      false);
  ASSERT_EQ(fields.exitCode, 0) << fields.out;
  const auto split = [](const std::string& s, char sep) {
    std::vector<std::string> out;
    std::stringstream in(s);
    for (std::string f; std::getline(in, f, sep);) out.push_back(f);
    return out;
  };
  // By TSN: a chunk sent again (the stack's minimum retransmission timeout here is below
  // the peer's delayed acknowledgement) carries the same TSN, and tshark shows no payload
  // for it.
  std::map<unsigned long, std::string> byTsn;
  for (const auto& line : split(fields.out, '\n')) {
    auto f = split(line, '|');
    f.resize(7);
    EXPECT_EQ(f[1], "8471") << line;
    EXPECT_EQ(f[2], "8471") << line;
    EXPECT_EQ(f[3], "1") << line;  // checksum good
    if (f[0] != kFamilies[0].a || f[4].empty()) continue;
    const auto tsn = split(f[4], ','), ppid = split(f[5], ','), data = split(f[6], ',');
    for (std::size_t i = 0; i < tsn.size(); ++i) {
      EXPECT_EQ(ppid.at(i), "0") << line;
      const auto [at, first] = byTsn.emplace(std::stoul(tsn[i]), "");
      if (data.size() == tsn.size()) {
        if (at->second.empty()) at->second = data[i];
        EXPECT_EQ(at->second, data[i]) << "TSN " << at->first << " sent twice, differently";
      } else {
        EXPECT_TRUE(data.empty() && !first) << "a first sending without its payload: " << line;
      }
    }
  }
  ASSERT_EQ(byTsn.size(), wrote.size()) << fields.out;
  std::size_t i = 0;
  for (const auto& [tsn, payload] : byTsn) {
    EXPECT_EQ(tsn, byTsn.begin()->first + i) << "TSNs not consecutive";
    EXPECT_EQ(payload, wrote[i]) << "TSN " << tsn;
    ++i;
  }
  const auto icmp = PimTest::runCommand(
      "tshark -n -r '" + file + "' -Y 'icmp or (icmpv6 and icmpv6.type < 128)'", false);
  EXPECT_EQ(icmp.exitCode, 0);
  EXPECT_EQ(icmp.out, "");  // no error of either ICMP (neighbour discovery is not one)
}

// A's veth taken down under a live association: A's status shows it lost, not shut down,
// within the wait's bound of 15 s. PortEnd caps the retransmission timeout at 400 ms, so
// with the stack's 10 retransmissions of a DATA chunk it gives up after about 4.4 s.
TEST_F(PortPamNetnsTest, LinkDownLosesTheAssociationWithinABound) {
  // B is gone only after A's link is down.
  const auto b3 = [](auto& end) { return receiver(end, 1, false, 3); };
  const auto a2 = [&](PimTest::PortEnd& end) {
    Report r;
    end.connect();
    r.cameUp = end.runUntil([&] { return end.mgr->sctpStatus()->upCount() == 1; }, 10);
    if (!r.cameUp) return r;
    const auto id = end.mgr->sctpStatus()->association().begin()->first;
    r.sent += end.send(1);
    end.runUntil([] { return false; }, 0.5);  // delivered and acknowledged
    if (PimTest::sh(fmt::format("ip -n {} link set {} down", net->a, net->vethA)) != 0) return r;
    const auto t0 = std::chrono::steady_clock::now();
    r.sent += end.send(2);  // data outstanding: retransmissions start at once
    r.endSeen = end.runUntil(
        [&] {
          const auto* s = end.mgr->sctpStatus()->association(id);
          return s && s->state == Nimo::Sctp::AssocState::Lost;
        },
        15);
    r.lostAfter = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    return r;
  };
  Report a, b;
  run(kFamilies[0], b3, a2, a, b, 30);
  ASSERT_TRUE(a.cameUp);
  EXPECT_EQ(a.sent, 2u);
  EXPECT_EQ(b.received, 1u);
  EXPECT_TRUE(a.endSeen) << "not lost within 15 s";
  std::printf("association lost %.2f s after the link went down\n", a.lostAfter);
}

// Both veths at 1280 bytes: a Join/Prune of 300 sources (about 2.4 KB over IPv4, 5.5 KB
// over IPv6) arrives, and no SCTP packet larger than the link leaves A (an nftables
// counter after routing, before the kernel would fragment it), in either family.
TEST_F(PortPamNetnsTest, PathMtuFollowsTheLink) {
  if (PimTest::sh("command -v nft") != 0) GTEST_SKIP() << "nft (nftables) is not installed";
  const std::string setup = fmt::format(
      "ip -n {0} link set {1} mtu 1280 && ip -n {2} link set {3} mtu 1280 && "
      "ip netns exec {0} nft add table inet mtu && "
      "ip netns exec {0} nft add chain inet mtu out '{{ type filter hook postrouting priority 0; "
      "}}' && ip netns exec {0} nft add rule inet mtu out meta nfproto ipv4 meta l4proto 132 "
      "meta length gt 1280 counter && ip netns exec {0} nft add rule inet mtu out "
      "meta nfproto ipv6 meta l4proto 132 meta length gt 1280 counter",
      net->a, net->vethA, net->b, net->vethB);
  if (PimTest::sh(setup) != 0) GTEST_SKIP() << "the kernel refuses the MTU or the nftables rule";
  for (const Family& f : {kFamilies[0], kFamilies[1]}) {
    const auto b1 = [](auto& end) { return receiver(end, 1, false); };
    const auto a300 = [](PimTest::PortEnd& end) {
      Report r;
      end.connect();
      r.cameUp = end.runUntil([&] { return end.mgr->sctpStatus()->upCount() == 1; }, 10);
      if (r.cameUp) r.sent += end.send(1, 300);
      end.runUntil([&] { return end.mgr->sctpStatus()->upCount() == 0; }, 20);
      return r;
    };
    Report a, b;
    run(f, b1, a300, a, b, 40);
    EXPECT_TRUE(a.cameUp) << f.a;
    EXPECT_EQ(a.sent, 1u) << f.a;
    EXPECT_EQ(b.received, 1u) << f.a;
  }
  const auto out = PimTest::runCommand("ip netns exec " + net->a + " nft list table inet mtu");
  std::size_t clean = 0;  // one counter per family
  for (auto at = out.out.find("packets 0 "); at != std::string::npos;
       at = out.out.find("packets 0 ", at + 1)) {
    ++clean;
  }
  EXPECT_EQ(clean, 2u) << out.out;
}

TEST_F(PortPamNetnsTest, KernelSocketsWhereTheKernelHasSctp) {
  const int fd = ::socket(AF_INET6, SOCK_SEQPACKET, IPPROTO_SCTP);
  if (fd < 0) {
    const int err = errno;
    GTEST_SKIP() << "the kernel has no SCTP: socket(AF_INET6, SOCK_SEQPACKET, IPPROTO_SCTP) fails"
                 << " with errno " << err << " (" << std::strerror(err) << ")";
  }
  ::close(fd);
  ::setenv("PIM_SCTP_BACKEND", "kernel", 1);
  deliversInEveryFamily("kernel");
}

// Without kernel SCTP and without the privilege for raw sockets, neither backend opens: one
// trace line with the errno, one count, and the manager still initialises. Run as nobody.
TEST_F(PortPamNetnsTest, NoBackendWithoutPrivilegeInitialisesClosed) {
  ::unsetenv("PIM_SCTP_BACKEND");
  PimTest::Children kids;
  const int fd = child(kids, [] {
    Report r;
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) return r;
    Flicklog::facility("Nimo::Sctp").levelIs(1);
    Flicklog::CaptureSink capture;
    auto mgr = portPamManagerFactory("port", "", nullptr);
    mgr->handleInitialized();
    r.cameUp = mgr->initialized() && !mgr->sctpPam()->ok();
    r.invalid = mgr->sctpPam()->createErrors();
    r.received = capture.lines().size();
    fmt::format_to_n(r.src, sizeof r.src - 1, "{}",
                     capture.lines().empty() ? "" : capture.lines().back().text);
    return r;
  });
  Report r;
  ASSERT_TRUE(report(kids, fd, r, 20));
  EXPECT_TRUE(r.cameUp);
  EXPECT_EQ(r.invalid, 1u);
  EXPECT_EQ(r.received, 1u);  // one trace line
  // The kernel's refusal, then the userland stack's: EPERM for its raw socket.
  EXPECT_EQ(std::string(r.src), "port.sctp: createSocket - Failed - Error: 1");
}

}  // namespace
