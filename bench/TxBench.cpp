// TxBench: the transmit path between two network namespaces beside a bare sendmsg loop.
//
// In namespace A an I/O machine whose manager builds the IP header sends over a veth to B:
// once through txPkt (post on the transmit record, write with the codec, choose addresses,
// TTL and TOS, build the header, sendmsg, count in the shared-memory table), and once with
// a bare sendmsg loop on the same socket of the very bytes txPkt sent (header included,
// destination and interface set once). The two alternate over several rounds; it prints
// the median packets per CPU-second of both and their ratio. Kinds: a typical Hello in both
// families, and a Join/Prune filling the link's 1500 bytes. The writer drains a Join/Prune's
// data set, so each send has a fresh one, made off the clock in batches of `batch` just
// before they are sent: an agent writes a data set it has just built from its state. A
// batch as large as the round (2,000 sets, about 10 MB) measures sets that went cold in
// memory instead; both figures are worth knowing. Each batch, Hellos too, is one
// event-loop turn: its sends are counted in the shared-memory table by one commit, run
// on the clock after the batch (batch 1 commits after every message).
//
//   TxBench [packets-per-round [rounds [batch]]]       (root; default 2000, 9 and 32)
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <vector>

#include "Pim/PimIO.h"
#include "bench/BenchClock.h"
#include "tests/PimIOTestUtil.h"
#include "tests/netns/NetnsUtil.h"

namespace {

namespace P = Routing::Pim::Packet;

// CPU time of this thread, system time (the send itself, and the veth's delivery that runs
// in the sender's context) included: the machine is shared, and wall time would mostly
// measure the other tenants.
using BenchClock::median;
using BenchClock::threadCpu;

// A socket double that keeps the first packet it is given and sends nothing.
class Keep : public Nimo::IpPam {
 public:
  explicit Keep(Nimo::AddressFamily af) : Nimo::IpPam("keep", af) {}
  bool txPkt(const Kel::Ptr<Nimo::Pkt>& p) override {
    if (bytes.empty()) bytes.assign(p->data(0), p->data(0) + p->size());
    return true;
  }
  std::vector<std::uint8_t> bytes;
};

Kel::Ptr<P::Message> makeMessage(Nimo::AddressFamily af, bool joinPrune) {
  const bool v6 = af == Nimo::AddressFamily::ipv6;
  if (!joinPrune) {
    auto h = Kel::Ptr<P::HelloMessage>::make();
    h->holdTimeOptionIs(true);
    h->holdTimeIs(105);
    h->drPriorityOptionIs(true);
    h->drPriorityIs(1);
    h->generationIdOptionIs(true);
    h->generationIdIs(0x12345678);
    return h;
  }
  auto data = Kel::Ptr<Routing::Pim::JoinPruneData>::make();
  data->upstreamNeighborIs(Nimo::IpGenAddr(v6 ? "fe80::2" : "10.77.0.2"));
  data->holdTimeIs(210);
  auto& g = data->joinPruneGroupDataIs(Nimo::IpGenPrefix(v6 ? "ff3e::1/128" : "232.1.1.1/32"));
  // As many sources as fill one message to the MTU (IPv4 20 + 1474, IPv6 40 + 1450).
  for (int i = 0; i < (v6 ? 70 : 181); ++i) {
    std::uint8_t a[16] = {};
    a[0] = v6 ? 0x20 : 10;
    a[v6 ? 14 : 2] = std::uint8_t(i >> 8);
    a[v6 ? 15 : 3] = std::uint8_t(i);
    g.joinedSourceIs(Nimo::IpGenAddr(af, a));
  }
  auto m = Kel::Ptr<P::JoinPruneMessage>::make();
  m->joinPruneDataIs(data);
  return m;
}

int runKind(Nimo::AddressFamily af, bool joinPrune, int count, int rounds, int batch) {
  const bool v6 = af == Nimo::AddressFamily::ipv6;
  PimTest::NetnsPair pair("ptx");
  if (!pair.ok) {
    std::printf("TxBench: namespaces could not be made\n");
    return 1;
  }
  const Nimo::IpGenAddr src(v6 ? "fd77::1" : "10.77.0.1");
  PimTest::IoRig rig(af, Kel::Ptr<Kel::SystemClock>::make(), pair.a, "txbench", true);
  rig.intf(pair.vethA.c_str(), pair.ifIndexA);
  rig.status->intfIs(Nimo::IntfId(pair.vethA), false, src);
  rig.start();
  const auto& tx = rig.mgr->txMessageInfo();
  tx->intfIdIs(Nimo::IntfId(pair.vethA));
  tx->neighborAddrIs(Nimo::IpGenAddr());

  // The bytes txPkt sends, taken from a double, for the bare loop.
  const Kel::Ptr<Nimo::IpPam> real = rig.mgr->pam();
  auto keep = Kel::Ptr<Keep>::make(af);
  rig.mgr->pamIs(keep);
  tx->messageIs(makeMessage(af, joinPrune));
  tx->countInc();
  rig.mgr->pamIs(real);
  const std::vector<std::uint8_t> bytes = keep->bytes;

  sockaddr_in6 to6{};
  sockaddr_in to4{};
  msghdr msg{};
  iovec iov{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo))] = {};
  msg.msg_control = control;
  cmsghdr* c = reinterpret_cast<cmsghdr*>(control);
  if (v6) {
    to6.sin6_family = AF_INET6;
    std::memcpy(&to6.sin6_addr, Nimo::IpGenAddr("ff02::d").bytes(), 16);
    msg.msg_name = &to6;
    msg.msg_namelen = sizeof to6;
    in6_pktinfo pi{};
    pi.ipi6_ifindex = pair.ifIndexA;
    c->cmsg_level = IPPROTO_IPV6;
    c->cmsg_type = IPV6_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof pi);
    std::memcpy(CMSG_DATA(c), &pi, sizeof pi);
    msg.msg_controllen = CMSG_SPACE(sizeof pi);
  } else {
    to4.sin_family = AF_INET;
    to4.sin_addr.s_addr = htonl(0xE000000D);
    msg.msg_name = &to4;
    msg.msg_namelen = sizeof to4;
    in_pktinfo pi{};
    pi.ipi_ifindex = static_cast<int>(pair.ifIndexA);
    c->cmsg_level = IPPROTO_IP;
    c->cmsg_type = IP_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof pi);
    std::memcpy(CMSG_DATA(c), &pi, sizeof pi);
    msg.msg_controllen = CMSG_SPACE(sizeof pi);
  }
  const int fd = real->fd();

  const Kel::Ptr<P::Message> hello = makeMessage(af, false);
  std::vector<Kel::Ptr<P::Message>> messages;
  std::vector<double> txRate, bareRate;
  std::uint64_t bareFailed = 0;
  for (int r = 0; r < rounds; ++r) {
    const std::uint32_t errorsBefore = rig.mgr->txPamCounter()->error();
    double spent = 0;
    for (int first = 0; first < count; first += batch) {
      messages.clear();
      for (int i = first; i < std::min(count, first + batch); ++i) {
        messages.push_back(joinPrune ? makeMessage(af, true) : hello);  // one Hello serves all
      }
      const double t0 = threadCpu();
      for (const auto& m : messages) {
        tx->messageIs(m);
        tx->countInc();
      }
      // The end of the loop turn: the counts' commit, on the clock.
      rig.loop.timers().runExpired();
      spent += threadCpu() - t0;
    }
    if (rig.mgr->txPamCounter()->error() != errorsBefore) {
      std::printf("TxBench: txPkt failed to send; figures void\n");
      return 1;
    }
    txRate.push_back(count / spent);
    double t0 = threadCpu();
    for (int i = 0; i < count; ++i) {
      bareFailed += ::sendmsg(fd, &msg, 0) != static_cast<ssize_t>(bytes.size());
    }
    const double t1 = threadCpu();
    bareRate.push_back(count / (t1 - t0));
  }
  if (bareFailed) {
    std::printf("TxBench: the bare loop failed %llu sends; figures void\n",
                static_cast<unsigned long long>(bareFailed));
    return 1;
  }
  const double t = median(txRate), b = median(bareRate);
  std::printf(
      "%-26s %5zu B  txPkt %9.0f pkt/s (%6.0f ns)  bare sendmsg %9.0f pkt/s (%6.0f ns)"
      "  ratio %.2fx\n",
      fmt::format("{} {}", v6 ? "IPv6" : "IPv4", joinPrune ? "full-MTU Join/Prune" : "Hello")
          .c_str(),
      bytes.size(), t, 1e9 / t, b, 1e9 / b, t / b);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (!PimTest::isRoot()) {
    std::printf("TxBench: needs root (network namespaces, raw sockets); nothing measured\n");
    return 0;
  }
  const int count = argc > 1 ? std::max(1, std::atoi(argv[1])) : 2000;
  const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 9;
  const int batch = argc > 3 ? std::max(1, std::atoi(argv[3])) : 32;
  std::printf("TxBench: %d packets a round, %d rounds, Join/Prune data sets made %d at a time\n",
              count, rounds, batch);
  PimTest::DrobeRoot root;  // the counter table in a directory of this run's own
  int rc = 0;
  for (bool joinPrune : {false, true}) {
    for (auto af : {Nimo::AddressFamily::ipv4, Nimo::AddressFamily::ipv6}) {
      rc |= runKind(af, joinPrune, count, rounds, batch);
    }
  }
  return rc;
}
