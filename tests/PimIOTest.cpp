// The I/O machine through a fake socket: filter program, memberships, the ordered receive
// checks, the receive loop's yield rules and the unresolved queue's timers.
#include <gmock/gmock.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <deque>
#include <functional>
#include <map>

#include "fuzz/FuzzInput.h"
#include "tests/PimIOTestUtil.h"
#include "tools/pimdump/Samples.h"

namespace {

using namespace PimTest;
using PimDump::ipPacket;
using Routing::Pim::IO::MessageCounterType;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

// A socket double: packets come from a queue, options and memberships are recorded, and a
// membership request can be made to fail with a chosen errno.
class FakePam : public Nimo::IpPam {
 public:
  explicit FakePam(Nimo::AddressFamily af) : Nimo::IpPam("fake", af) {}
  Kel::Ptr<Nimo::Pkt> rxPkt() override {
    if (onRx) onRx();
    if (queue.empty()) return nullptr;
    auto [p, ifIndex] = queue.front();
    queue.pop_front();
    rxIfIndex_ = ifIndex;
    rxPktCountInc();
    return p;
  }
  int sockOptIs(int level, int option, const void* value, std::uint32_t len) override {
    if (option == IP_ADD_MEMBERSHIP || option == IPV6_ADD_MEMBERSHIP ||
        option == IP_DROP_MEMBERSHIP || option == IPV6_DROP_MEMBERSHIP) {
      std::uint32_t ifIndex = 0;
      if (level == IPPROTO_IP) {
        ifIndex = static_cast<std::uint32_t>(static_cast<const ip_mreqn*>(value)->imr_ifindex);
      } else {
        ifIndex = static_cast<const ipv6_mreq*>(value)->ipv6mr_interface;
      }
      memberships.push_back(fmt::format("{} {} {}", option, ifIndex, len));
      return membershipErrno;
    }
    if (len == sizeof(int))
      plainOptions.emplace_back(level, option, *static_cast<const int*>(value));
    return 0;
  }
  int applyRxFilter() override {
    ++applied;
    return 0;
  }
  struct Sent {
    Bytes bytes;
    Nimo::IpGenAddr src, dst;
    std::uint32_t flags, ifIndex;
  };
  bool txPkt(const Kel::Ptr<Nimo::Pkt>& p) override {
    sent.push_back({bytesOf(*p, p->size()), txSrcIpAddr(), txDstIpAddr(), txFlags(), txIfIndex()});
    return txOk;
  }
  std::vector<Sent> sent;
  std::vector<std::tuple<int, int, int>> plainOptions;  // (level, option, value)
  bool txOk = true;
  void push(const Bytes& b, std::uint32_t ifIndex) { queue.emplace_back(pkt(b), ifIndex); }

  std::deque<std::pair<Kel::Ptr<Nimo::Pkt>, std::uint32_t>> queue;
  std::vector<std::string> memberships;
  int membershipErrno = 0;
  int applied = 0;
  std::function<void()> onRx;
};

class IOSmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Routing::Pim::IO::ioTrace().levelIs(9);
    rig.mgr->pamIs(fake);
  }
  void TearDown() override { Routing::Pim::IO::ioTrace().levelIs(0); }
  // eth1 (index 7) runs PIM; eth2 (index 8) exists but does not.
  void standard() {
    rig.intf("eth1", 7);
    rig.intf("eth2", 8, false);
    rig.mgr->rxMessageInfoIs(0);
    rig.mgr->rxMessageInfoIs(3);
    rig.start();
  }
  std::vector<std::string> lines(const std::string& facility) const {
    std::vector<std::string> out;
    for (const auto& l : capture.lines())
      if (l.facility == facility) out.push_back(l.text);
    return out;
  }

  DrobeRoot root;
  Kel::Ptr<Kel::ManualClock> clock = Kel::Ptr<Kel::ManualClock>::make(100.0);
  IoRig rig{Nimo::AddressFamily::ipv4, clock};
  Kel::Ptr<FakePam> fake = Kel::Ptr<FakePam>::make(Nimo::AddressFamily::ipv4);
  Flicklog::CaptureSink capture;
};

// ---------------------------------------------------------------------------------------
// Filter program.

std::vector<Nimo::BpfInsn> prefixV4() {
  return {{0x30, 0, 0, 0}, {0x54, 0, 0, 15}, {0x64, 0, 0, 2},
          {0x07, 0, 0, 0}, {0x50, 0, 0, 0},  {0x54, 0, 0, 15}};
}

TEST_F(IOSmTest, FilterFollowsRegisteredTypes) {
  standard();
  auto expected = prefixV4();
  expected.insert(expected.end(),
                  {{0x15, 1, 0, 0}, {0x15, 0, 1, 3}, {0x06, 0, 0, 0x0FFFFFFF}, {0x06, 0, 0, 0}});
  EXPECT_THAT(fake->rxFilter(), ElementsAreArray(expected));
  EXPECT_EQ(rig.mgr->bpfLen(), 10u);
  EXPECT_EQ(fake->applied, 1);

  // A registration rebuilds it; a repeated one changes nothing.
  rig.mgr->rxMessageInfoIs(10);
  rig.mgr->rxMessageInfoIs(10);
  EXPECT_EQ(fake->applied, 2);
  ASSERT_EQ(fake->rxFilter().size(), 11u);
  EXPECT_EQ(fake->rxFilter()[6], (Nimo::BpfInsn{0x15, 2, 0, 0}));
  EXPECT_EQ(fake->rxFilter()[8], (Nimo::BpfInsn{0x15, 0, 1, 10}));

  // Nothing registered: every packet meets the reject first.
  for (std::uint8_t t : {std::uint8_t{0}, std::uint8_t{3}, std::uint8_t{10}})
    rig.mgr->rxMessageInfoDel(t);
  expected = prefixV4();
  expected.insert(expected.end(), {{0x06, 0, 0, 0}, {0x06, 0, 0, 0x0FFFFFFF}});
  EXPECT_THAT(fake->rxFilter(), ElementsAreArray(expected));
}

TEST(IOSmFilterV6, PrefixReadsTheFirstPimByte) {
  DrobeRoot root;
  IoRig rig(Nimo::AddressFamily::ipv6, Kel::Ptr<Kel::ManualClock>::make());
  auto fake = Kel::Ptr<FakePam>::make(Nimo::AddressFamily::ipv6);
  rig.mgr->pamIs(fake);
  rig.mgr->rxMessageInfoIs(0);
  rig.start();
  EXPECT_THAT(fake->rxFilter(),
              ElementsAreArray(std::vector<Nimo::BpfInsn>{{0x30, 0, 0, 0},
                                                          {0x54, 0, 0, 15},
                                                          {0x15, 0, 1, 0},
                                                          {0x06, 0, 0, 0x0FFFFFFF},
                                                          {0x06, 0, 0, 0}}));
}

// ---------------------------------------------------------------------------------------
// Memberships.

TEST_F(IOSmTest, MembershipFollowsPimAndDevice) {
  fake->membershipErrno = ENODEV;
  standard();
  // Only the PIM interface joins; the failed join is recorded all the same.
  EXPECT_THAT(fake->memberships, ElementsAreArray({fmt::format("{} 7 12", IP_ADD_MEMBERSHIP)}));
  EXPECT_EQ(rig.io->allPimRoutersMember().at(Nimo::IntfId("eth1")), 7u);
  EXPECT_THAT(capture.texts(),
              testing::Contains(HasSubstr("( Device is not ready yet ) IntfId: eth1")));

  fake->membershipErrno = 0;
  fake->memberships.clear();
  rig.status->intfIs(Nimo::IntfId("eth2"));                 // PIM comes up on eth2
  rig.dir->intfStatusIs(Nimo::IntfId("eth1")).ifIndex = 9;  // eth1's device is replaced
  rig.dir->intfStatusNotify(Nimo::IntfId("eth1"));
  rig.io->updateCounter(Routing::Pim::IO::MessageCounterDirection::rx, 0, 255, Nimo::IntfId("eth2"),
                        MessageCounterType::success);
  rig.status->intfDel(Nimo::IntfId("eth2"));  // and PIM goes again, with its counters
  EXPECT_EQ(rig.rx(0, "eth2", MessageCounterType::success), 0u);
  EXPECT_EQ(rig.rx(0, "", MessageCounterType::success), 1u);
  EXPECT_THAT(fake->memberships, ElementsAreArray({fmt::format("{} 8 12", IP_ADD_MEMBERSHIP),
                                                   fmt::format("{} 7 12", IP_DROP_MEMBERSHIP),
                                                   fmt::format("{} 9 12", IP_ADD_MEMBERSHIP),
                                                   fmt::format("{} 8 12", IP_DROP_MEMBERSHIP)}));
  EXPECT_EQ(rig.mgr->kernelIntf(9)->intfId, Nimo::IntfId("eth1"));
  EXPECT_EQ(rig.mgr->kernelIntf(7), nullptr);

  // A reopened socket gets the memberships of the moment and the filter.
  auto second = Kel::Ptr<FakePam>::make(Nimo::AddressFamily::ipv4);
  rig.mgr->pamIs(second);
  EXPECT_THAT(second->memberships, ElementsAreArray({fmt::format("{} 9 12", IP_ADD_MEMBERSHIP)}));
  EXPECT_EQ(second->applied, 1);
  EXPECT_EQ(second->rxFilter(), fake->rxFilter());
}

TEST(MessageInfoDeathTest, DfElectionKindMustMatchItsSlot) {
  Routing::Pim::IO::MessageInfo info("rx");
  auto offer = Kel::Ptr<Routing::Pim::Packet::DfElectionOfferMessage>::make();
  info.dfElectionOfferMessageIs(offer);
  offer->dfElectionMessageTypeIs(Routing::Pim::Packet::DfElectionMessage::dfElectionWinner());
  EXPECT_DEATH(info.dfElectionOfferMessageIs(offer),
               "msg->dfElectionMessageType\\(\\) == DfElectionMessage::dfElectionOffer\\(\\)");
}

TEST(PamManagerDeathTest, UnknownFamilyIsAProgrammingError) {
  EXPECT_DEATH(Routing::Pim::IO::pamManagerFactory(L3::VrfName("v"), Nimo::AddressFamily::ipunknown,
                                                   "", false),
               "0 && \"Unsupported address family.\"");
}

TEST_F(IOSmTest, TransparentIpTogglesOnlyItsBit) {
  const std::uint32_t before = fake->options();
  rig.mgr->transparentIpIs(true);
  EXPECT_EQ(fake->options(), before | 0x0200);
  rig.mgr->transparentIpIs(false);
  EXPECT_EQ(fake->options(), before);
}

// ---------------------------------------------------------------------------------------
// The ordered checks: one good Hello, one mutation per row.

struct CheckRow {
  const char* name;
  std::function<void(IoRig&, Bytes&, std::uint32_t&)> mutate;
  std::uint8_t type;   // counter key type
  const char* intf;    // counter key interface ("" all)
  int counter;         // MessageCounterType, or -1: only the PAM error counter
  const char* trace;   // substring of the error line
  const char* syslog;  // identifier, or ""
};

const Nimo::IpGenAddr kSrc("10.0.0.2");
const Nimo::IpGenAddr kAll("224.0.0.13");

void pimByte(Bytes& b, std::uint8_t v) {
  b[20] = v;
  b[22] = b[23] = 0;
  const std::uint16_t c = refChecksum(Bytes(b.begin() + 20, b.end()));
  b[22] = std::uint8_t(c >> 8);
  b[23] = std::uint8_t(c);
}

const CheckRow kChecks[] = {
    {"ihl below 5", [](IoRig&, Bytes& b, std::uint32_t&) { b[0] = 0x44; }, 0, "", -1,
     "RX: Error - Invalid Ip Header Length - Ihl: 4", ""},
    {"ihl beyond the data", [](IoRig&, Bytes& b, std::uint32_t&) { b[0] = 0x4f; }, 0, "", -1,
     "RX: Error - Missing Ip Header - Remaining: 30", ""},
    {"short ip header", [](IoRig&, Bytes& b, std::uint32_t&) { b.resize(19); }, 0, "", -1,
     "RX: Error - Missing Ip Header - Remaining: 19", ""},
    {"short pim header", [](IoRig&, Bytes& b, std::uint32_t&) { b.resize(23); }, 0, "", -1,
     "RX: Error - Missing Pim Header - Remaining: 3", ""},
    {"unknown kernel interface", [](IoRig&, Bytes&, std::uint32_t& i) { i = 99; }, 0, "",
     int(MessageCounterType::invalid), "RX: Error - Invalid Kernel Interface - Id: 99", ""},
    {"not in generic status",
     [](IoRig& r, Bytes&, std::uint32_t&) { r.io->ipGenIntfStatusIs(nullptr); }, 0, "",
     int(MessageCounterType::invalid), "RX: Error - Invalid Interface - Id: eth1", ""},
    {"service acl",
     [](IoRig& r, Bytes&, std::uint32_t&) {
       r.acls->aclIs("svc").ruleIs({Acl::Action::Deny, Nimo::IpGenPrefix("10.0.0.0/8"), {}});
       r.acls->serviceAclIs(r.vrf, Nimo::AddressFamily::ipv4, "svc");
     },
     0, "eth1", int(MessageCounterType::filtered), "RX: Filtered - packet dropped by service ACL",
     ""},
    {"not a pim interface", [](IoRig&, Bytes&, std::uint32_t& i) { i = 8; }, 0, "eth2",
     int(MessageCounterType::invalid), "RX: Error - Invalid Pim Interface - Type: 0", ""},
    {"mbr", [](IoRig& r, Bytes&, std::uint32_t&) { r.status->intfIs(Nimo::IntfId("eth1"), true); },
     0, "eth1", int(MessageCounterType::filtered), "RX: Filtered - Pim Interface has MBR - Type: 0",
     ""},
    {"neighbour filter",
     [](IoRig& r, Bytes&, std::uint32_t&) {
       r.config->intfConfigIs(Nimo::IntfId("eth1")).neighborFilter = "nbr";
       r.acls->aclIs("nbr").ruleIs({Acl::Action::Deny, Nimo::IpGenPrefix("10.0.0.2/32"), {}});
     },
     0, "eth1", int(MessageCounterType::filtered), "RX: Filtered - Type: 0 Interface: eth1", ""},
    {"hello to unicast",
     [](IoRig&, Bytes& b, std::uint32_t&) {
       b = ipPacket(kSrc, Nimo::IpGenAddr("10.0.0.1"), helloBytes(kSrc, kAll));
     },
     0, "eth1", int(MessageCounterType::invalid),
     "Destination is Not ALL-PIM-ROUTERS - Type: 0 Address: 10.0.0.1",
     "PIM_MESSAGE_INVALID_DESTINATION"},
    {"register to multicast", [](IoRig&, Bytes& b, std::uint32_t&) { pimByte(b, 0x21); }, 1, "eth1",
     int(MessageCounterType::invalid),
     "RX: Error - Invalid Pim Message - Type: 1 Destination is Multicast: 224.0.0.13", ""},
    {"df election without neighbour", [](IoRig&, Bytes& b, std::uint32_t&) { pimByte(b, 0x2a); },
     10, "eth1", int(MessageCounterType::invalid),
     "Drop DF election message  because neighborship does not exist: 10.0.0.2", ""},
    {"version 3", [](IoRig&, Bytes& b, std::uint32_t&) { pimByte(b, 0x30); }, 0, "eth1",
     int(MessageCounterType::invalid), "RX: Error - Invalid Pim Version - Version: 3",
     "PIM_MESSAGE_INVALID_VERSION"},
    {"unknown type", [](IoRig&, Bytes& b, std::uint32_t&) { pimByte(b, 0x2b); }, 11, "eth1",
     int(MessageCounterType::invalid), "RX: Error - Invalid Pim Message - Type: 11",
     "PIM_MESSAGE_INVALID_TYPE"},
    {"graft", [](IoRig&, Bytes& b, std::uint32_t&) { pimByte(b, 0x26); }, 6, "eth1",
     int(MessageCounterType::invalid), "RX: Error - Unsupported Pim Message - Type: 6", ""},
    {"bad checksum", [](IoRig&, Bytes& b, std::uint32_t&) { b[23] ^= 1; }, 0, "eth1",
     int(MessageCounterType::invalid), "RX: Error - Invalid Pim Hello - Read Error", ""},
    // Two faults at once: the interface check comes before the destination check.
    {"order",
     [](IoRig&, Bytes& b, std::uint32_t& i) {
       i = 8;
       b = ipPacket(kSrc, Nimo::IpGenAddr("10.0.0.1"), helloBytes(kSrc, kAll));
     },
     0, "eth2", int(MessageCounterType::invalid), "RX: Error - Invalid Pim Interface - Type: 0",
     ""},
};

TEST_F(IOSmTest, EachCheckDropsOnItsCounterWithItsText) {
  for (const CheckRow& row : kChecks) {
    SCOPED_TRACE(row.name);
    DrobeRoot rowRoot;
    IoRig r(Nimo::AddressFamily::ipv4, clock, "", row.name);
    auto f = Kel::Ptr<FakePam>::make(Nimo::AddressFamily::ipv4);
    r.mgr->pamIs(f);
    r.intf("eth1", 7);
    r.intf("eth2", 8, false);
    r.mgr->rxMessageInfoIs(0);
    r.start();
    Bytes b = ipPacket(kSrc, kAll, helloBytes(kSrc, kAll));
    std::uint32_t ifIndex = 7;
    row.mutate(r, b, ifIndex);
    capture.clear();
    f->push(b, ifIndex);
    r.io->rxPkt();

    EXPECT_EQ(r.mgr->rxPamCounter()->count(), 1u);
    EXPECT_EQ(r.mgr->rxPamCounter()->processed(), 0u);
    EXPECT_EQ(r.mgr->rxMessageInfo(0)->count(), 0u);
    EXPECT_THAT(lines("Pim::IO"), testing::Contains(HasSubstr(row.trace)));
    std::vector<std::string> logs = lines("syslog");
    if (*row.syslog) {
      ASSERT_EQ(logs.size(), 1u);
      EXPECT_THAT(logs[0], HasSubstr(row.syslog));
    } else {
      EXPECT_TRUE(logs.empty()) << logs[0];
    }
    // Exactly one counter moved: the row's (both keys when an interface is known).
    std::uint32_t total = 0;
    r.counters->msgCounterForEach([&](const Routing::Pim::Drobe::MessageCounterData& d) {
      for (auto ct : {MessageCounterType::invalid, MessageCounterType::filtered,
                      MessageCounterType::success}) {
        total += d.rxMsgCounter().count(ct);
      }
    });
    if (row.counter < 0) {
      EXPECT_EQ(r.mgr->rxPamCounter()->error(), 1u);
      EXPECT_EQ(total, 0u);
    } else {
      const auto ct = static_cast<MessageCounterType>(row.counter);
      EXPECT_EQ(r.rx(row.type, "", ct), 1u);
      if (*row.intf) {
        EXPECT_EQ(r.rx(row.type, row.intf, ct), 1u);
      }
      EXPECT_EQ(total, *row.intf ? 2u : 1u);
    }
  }
}

// Hostile lengths: every strict prefix and every IHL value is refused without reading past
// the packet (ASan build), and only the intact packet is posted.
TEST_F(IOSmTest, TruncationsAndHeaderLengthsNeverOverRead) {
  standard();
  const Bytes good = ipPacket(kSrc, kAll, helloBytes(kSrc, kAll));
  for (std::size_t n = 0; n <= good.size(); ++n) {
    const Bytes b(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_EQ(rig.io->processPkt(Routing::Pim::IO::rxPktContextFactory(pkt(b), 7)),
              n == good.size())
        << n;
  }
  for (std::uint8_t ihl = 0; ihl < 16; ++ihl) {
    Bytes b = good;
    b[0] = static_cast<std::uint8_t>(0x40 | ihl);
    EXPECT_EQ(rig.io->processPkt(Routing::Pim::IO::rxPktContextFactory(pkt(b), 7)), ihl == 5)
        << int{ihl};
  }
}

TEST_F(IOSmTest, GoodHelloIsPostedAndCounted) {
  standard();
  struct Watch : Routing::Pim::IO::MessageInfo::NotifieeConst {
    int n = 0;
    void onCount() override { ++n; }
  } w;
  w.notifierIs(rig.mgr->rxMessageInfo(0));
  // The same Hello twice: the agent wakes twice.
  for (int i = 0; i < 2; ++i) fake->push(ipPacket(kSrc, kAll, helloBytes(kSrc, kAll)), 7);
  rig.io->rxPkt();
  EXPECT_EQ(w.n, 2);
  const auto& info = *rig.mgr->rxMessageInfo(0);
  EXPECT_EQ(info.intfId(), Nimo::IntfId("eth1"));
  EXPECT_EQ(info.neighborAddr(), kSrc);
  ASSERT_TRUE(info.helloMessage());
  EXPECT_EQ(info.helloMessage()->holdTime(), 105);
  EXPECT_EQ(rig.rx(0, "eth1", MessageCounterType::success), 2u);
  EXPECT_EQ(rig.rx(0, "", MessageCounterType::success), 2u);
  EXPECT_EQ(rig.mgr->rxPamCounter()->processed(), 2u);
}

// Every type the dispatch handles beyond Hello and Join/Prune (tested above and below): the
// codec's own IPv4 messages (the fuzz seeds) are
// posted in their type's slot as their kind and counted, with the subtype for DF Election;
// the same message with a broken checksum gives the type's read-error text.
struct DispatchRow {
  const char* target;
  std::uint8_t type;
  bool unicast;  // sent to a unicast address
  const char* readError;
  std::function<bool(const Routing::Pim::IO::MessageInfo&)> kind;
};

const DispatchRow kDispatch[] = {
    {"readRegisterMessage", 1, true, "Invalid Pim Register - Read Error",
     [](const auto& i) { return bool(i.registerMessage()); }},
    {"readRegisterStopMessage", 2, true, "Invalid Pim Register Stop - Read Error",
     [](const auto& i) { return bool(i.registerStopMessage()); }},
    {"readBootstrapMessage", 4, false, "Invalid Pim Bootstrap - Read Error",
     [](const auto& i) { return bool(i.bootstrapMessage()); }},
    {"readAssertMessage", 5, false, "Invalid Pim Assert - Read Error",
     [](const auto& i) { return bool(i.assertMessage()); }},
    {"readCrpAdvMessage", 8, true, "Invalid Pim CrpAdv - Read Error",
     [](const auto& i) { return bool(i.crpAdvMessage()); }},
    {"readDfElectionMessage", 10, false, "Invalid Pim DF Election ",
     [](const auto& i) {
       return i.dfElectionOfferMessage() || i.dfElectionWinnerMessage() ||
              i.dfElectionBackoffMessage() || i.dfElectionPassMessage();
     }},
};

TEST_F(IOSmTest, EveryTypeIsPostedAsItsKindAndCounted) {
  standard();
  for (std::uint8_t t = 0; t < 16; ++t) rig.mgr->rxMessageInfoIs(t);
  rig.status->activeNeighborIs({Nimo::IntfId("eth1"), kSrc}, 105);
  for (const DispatchRow& row : kDispatch) {
    SCOPED_TRACE(row.target);
    int posted = 0;
    for (const Bytes& seed : PimFuzz::seeds(row.target)) {
      if ((seed[0] & 3) != 0) continue;  // IPv4 only: its checksum ignores the addresses
      const Bytes msg(seed.begin() + 1 + ((seed[0] >> 2) & 7), seed.end());
      const Nimo::IpGenAddr dst = row.unicast ? Nimo::IpGenAddr("10.0.0.1") : kAll;
      const auto subtype = static_cast<std::uint8_t>(row.type == 10 ? msg[1] >> 4 : 255);
      const std::uint32_t before = rig.mgr->rxMessageInfo(row.type)->count();
      const std::uint32_t counted = rig.rx(row.type, "eth1", MessageCounterType::success, subtype);
      ASSERT_TRUE(rig.io->processPkt(
          Routing::Pim::IO::rxPktContextFactory(pkt(ipPacket(kSrc, dst, msg)), 7)));
      const auto& info = *rig.mgr->rxMessageInfo(row.type);
      EXPECT_EQ(info.count(), before + 1);
      EXPECT_TRUE(row.kind(info));
      EXPECT_EQ(rig.rx(row.type, "eth1", MessageCounterType::success, subtype), counted + 1);
      Bytes broken = msg;
      broken[3] ^= 1;
      capture.clear();
      EXPECT_FALSE(rig.io->processPkt(
          Routing::Pim::IO::rxPktContextFactory(pkt(ipPacket(kSrc, dst, broken)), 7)));
      EXPECT_THAT(lines("Pim::IO"), testing::Contains(HasSubstr(row.readError)));
      ++posted;
    }
    EXPECT_GT(posted, 0);
  }
}

// Groups inside the interface's boundary make Join/Prune, Assert and Bootstrap filtered,
// not invalid; a DF Election of an unknown subtype is invalid on its subtype's keys.
TEST_F(IOSmTest, BoundaryFiltersAndUnknownDfSubtype) {
  standard();
  for (std::uint8_t t : {std::uint8_t{4}, std::uint8_t{5}, std::uint8_t{10}}) {
    rig.mgr->rxMessageInfoIs(t);
  }
  rig.status->activeNeighborIs({Nimo::IntfId("eth1"), kSrc}, 105);
  auto boundary = Kel::Ptr<Nimo::IntfBoundaryStatus>::make();
  boundary->groupPrefixIs(Nimo::IpGenPrefix("224.0.0.0/4"));
  auto all = Kel::Ptr<Routing::McastBoundary::Status>::make("boundary");
  all->softwareBoundaryStatusIs(Kel::Name("eth1"), boundary);
  rig.io->mcastBoundaryStatusIs(all);
  auto first = [](const char* target) {
    const Bytes seed = PimFuzz::seeds(target).front();
    return Bytes(seed.begin() + 1 + ((seed[0] >> 2) & 7), seed.end());
  };
  Bytes df = first("readDfElectionMessage");
  df[1] = 0x70;  // subtype 7
  df = withChecksum(df, kSrc, kAll);
  for (const Bytes& m : {joinPruneBytes(kSrc, kAll), first("readAssertMessage"),
                         first("readBootstrapMessage"), df}) {
    fake->push(ipPacket(kSrc, kAll, m), 7);
  }
  rig.io->rxPkt();
  EXPECT_EQ(rig.rx(3, "eth1", MessageCounterType::filtered), 1u);
  EXPECT_EQ(rig.rx(5, "eth1", MessageCounterType::filtered), 1u);
  EXPECT_EQ(rig.rx(4, "eth1", MessageCounterType::filtered), 1u);
  EXPECT_EQ(rig.rx(10, "eth1", MessageCounterType::invalid, 7), 1u);
  EXPECT_EQ(rig.mgr->rxPamCounter()->processed(), 0u);
  const auto io = lines("Pim::IO");
  for (const char* text : {"RX: Filtered - Pim Join/Prune - Zero Groups",
                           "RX: Assert: Group is Boundary filter - Packet Filtered",
                           "RX: Bootstrap: Group in Boundary Filter - Packet Filtered",
                           "RX: Error - Unsupported Pim DF Election Type"}) {
    EXPECT_THAT(io, testing::Contains(HasSubstr(text)));
  }
}

TEST_F(IOSmTest, DeniedHelloPassesOnAPermittedSecondaryAddress) {
  standard();
  rig.config->intfConfigIs(Nimo::IntfId("eth1")).neighborFilter = "nbr";
  rig.acls->aclIs("nbr")
      .ruleIs({Acl::Action::Deny, Nimo::IpGenPrefix("10.0.0.2/32"), {}})
      .ruleIs({Acl::Action::Permit, Nimo::IpGenPrefix("10.9.0.0/16"), {}});
  fake->push(ipPacket(kSrc, kAll, helloBytes(kSrc, kAll, {"10.8.0.1"})), 7);
  fake->push(ipPacket(kSrc, kAll, helloBytes(kSrc, kAll, {"10.8.0.1", "10.9.0.1"})), 7);
  rig.io->rxPkt();
  EXPECT_EQ(rig.rx(0, "eth1", MessageCounterType::filtered), 1u);
  EXPECT_EQ(rig.rx(0, "eth1", MessageCounterType::success), 1u);
  EXPECT_TRUE(
      rig.mgr->rxMessageInfo(0)->helloMessage()->secondaryAddr(Nimo::IpGenAddr("10.9.0.1")));
}

TEST_F(IOSmTest, CounterWithoutInterfaceTouchesOnlyAllInterfaceKeys) {
  standard();
  rig.io->updateCounter(Routing::Pim::IO::MessageCounterDirection::rx, 10, 2, Nimo::IntfId(),
                        MessageCounterType::success);
  rig.io->updateCounter(Routing::Pim::IO::MessageCounterDirection::rx, 0x2a, 1,
                        Nimo::IntfId("eth1"), MessageCounterType::success);
  EXPECT_EQ(rig.counters->msgCounterSize(), 5u);
  EXPECT_EQ(rig.rx(10, "", MessageCounterType::success), 2u);
  EXPECT_EQ(rig.rx(10, "", MessageCounterType::success, 2), 1u);
  EXPECT_EQ(rig.rx(10, "eth1", MessageCounterType::success, 1), 1u);
}

// ---------------------------------------------------------------------------------------
// The receive loop yields by time and by back-pressure.

TEST_F(IOSmTest, LoopStopsAtQuantumAndWhileTheAttributeLogIsClogged) {
  standard();
  for (int i = 0; i < 10; ++i) fake->push(ipPacket(kSrc, kAll, helloBytes(kSrc, kAll)), 7);
  rig.io->loopQuantumIs(0.010);
  fake->onRx = [&] { clock->advance(0.004); };  // each read costs 4 ms
  rig.io->rxPkt();
  EXPECT_EQ(rig.mgr->rxPamCounter()->count(), 3u);  // at 0, 4 and 8 ms
  fake->onRx = nullptr;

  // A collector that stops reading clogs the log: nothing is read until it catches up.
  int sv[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  auto out = Kel::NboAttrLog::socketOutSmFactory("attrlog", sv[0], 4096);
  rig.io->pimAttrLogSmIs(Routing::Pim::pimAttrLogSmFactory(out));
  const std::string value(4096, 'x');
  for (int i = 0; i < 10000 && !out->clogged(); ++i) out->attrIs("p", "a", value);
  ASSERT_TRUE(out->clogged());
  rig.io->rxPkt();
  EXPECT_EQ(rig.mgr->rxPamCounter()->count(), 3u);
  char buf[65536];
  for (int i = 0; i < 100000 && out->clogged(); ++i) {
    (void)::recv(sv[1], buf, sizeof buf, MSG_DONTWAIT);
    out->flush();
  }
  EXPECT_FALSE(out->clogged());
  EXPECT_EQ(rig.mgr->rxPamCounter()->count(), 10u);  // unclogging drained the socket
  ::close(sv[1]);
}

// ---------------------------------------------------------------------------------------
// The unresolved queue.

class UnresolvedQueueTest : public IOSmTest {
 protected:
  void SetUp() override {
    IOSmTest::SetUp();
    standard();
    agent.notifierIs(rig.mgr->rxMessageInfo(3));
  }
  void send(const Nimo::IpGenAddr& src, const char* group, std::uint32_t ifIndex = 7) {
    fake->push(ipPacket(src, kAll, joinPruneBytes(src, kAll, fmt::format("{}/32", group).c_str())),
               ifIndex);
    rig.io->rxPkt();
  }
  void tick(double seconds) {
    clock->advance(seconds);
    rig.loop.timers().runExpired();
  }
  struct Collect : Routing::Pim::IO::MessageInfo::NotifieeConst {
    std::vector<std::string> groups;
    void onCount() override {
      groups.push_back(notifier()
                           ->joinPruneMessage()
                           ->joinPruneData()
                           ->joinPruneGroupData()
                           .begin()
                           ->first.str());
    }
  } agent;
};

TEST_F(UnresolvedQueueTest, ReleasedInArrivalOrderWhenTheNeighbourAppears) {
  send(kSrc, "239.1.1.3");
  send(kSrc, "239.1.1.1");
  send(kSrc, "239.1.1.2", 8);  // eth2 is not PIM: dropped before the queue
  EXPECT_TRUE(agent.groups.empty());
  EXPECT_TRUE(rig.io->unresTimer().armed());
  tick(3.0);
  // The same address on another interface releases nothing.
  rig.status->intfIs(Nimo::IntfId("eth3"));
  rig.status->activeNeighborIs({Nimo::IntfId("eth3"), kSrc}, 105);
  EXPECT_TRUE(agent.groups.empty());
  rig.status->activeNeighborIs({Nimo::IntfId("eth1"), kSrc}, 105);
  EXPECT_THAT(agent.groups, ElementsAreArray({"239.1.1.3/32", "239.1.1.1/32"}));
  EXPECT_EQ(rig.mgr->rxMessageInfo(3)->neighborAddr(), kSrc);
  EXPECT_EQ(rig.rx(3, "eth1", MessageCounterType::success), 2u);
  EXPECT_FALSE(rig.io->unresTimer().armed());
  EXPECT_EQ(rig.io->unresBytes(), 0u);
}

TEST_F(UnresolvedQueueTest, PurgedAtTheSecondReview) {
  send(kSrc, "239.1.1.1");
  const double armedAt = clock->now();
  tick(5.0);  // first review: seen once, kept
  EXPECT_EQ(rig.io->pimUnresPktSize(), 1u);
  tick(5.0 - 1e-3);  // one tick before the second review
  EXPECT_EQ(rig.io->pimUnresPktSize(), 1u);
  tick(2e-3);  // one tick after
  EXPECT_NEAR(clock->now() - armedAt, 10.0 + 1e-3, 1e-9);
  EXPECT_EQ(rig.io->pimUnresPktSize(), 0u);
  EXPECT_EQ(rig.rx(3, "eth1", MessageCounterType::invalid), 1u);
  EXPECT_THAT(lines("Pim::IO"),
              testing::Contains(HasSubstr("Purging PIM Join/Prune packet since neighbor 10.0.0.2 "
                                          "was not discovered yet.")));
  EXPECT_FALSE(rig.io->unresTimer().armed());
  EXPECT_TRUE(agent.groups.empty());
}

TEST_F(UnresolvedQueueTest, TheDepthPlusFirstMessageIsDroppedAndLogged) {
  for (int i = 0; i < 1025; ++i) send(kSrc, "239.1.1.1");
  EXPECT_EQ(rig.io->pimUnresPkt({kSrc, Nimo::IntfId("eth1")})->size(), 1024u);
  EXPECT_EQ(rig.rx(3, "eth1", MessageCounterType::invalid), 1u);
  EXPECT_THAT(lines("syslog"),
              ElementsAreArray({HasSubstr("PIM unprocessed message queue is full for neighbor "
                                          "10.0.0.2, message type 0x23 on VRF default.")}));
}

// 100,000 spoofed sources: the queues stop at their total bound and the rest is counted.
TEST_F(UnresolvedQueueTest, FloodOfSpoofedSourcesStaysWithinTheTotalBound) {
  const std::uint64_t bound = 4u << 20;
  rig.io->unresMaxBytesIs(bound);
  Routing::Pim::IO::ioTrace().levelIs(0);
  const Bytes jp = joinPruneBytes(kSrc, kAll);
  const int n = 100000;
  [[maybe_unused]] const std::size_t heapBefore = ::mallinfo2().uordblks;
  for (int i = 0; i < n; ++i) {
    const Nimo::IpGenAddr src(Nimo::AddressFamily::ipv4,
                              std::array<std::uint8_t, 4>{10, std::uint8_t(i >> 16),
                                                          std::uint8_t(i >> 8), std::uint8_t(i)}
                                  .data());
    fake->push(ipPacket(src, kAll, withChecksum(jp, src, kAll)), 7);
    if (i % 1000 == 999) rig.io->rxPkt();
  }
  rig.io->rxPkt();
  EXPECT_LE(rig.io->unresBytes(), bound);
#if !defined(__SANITIZE_ADDRESS__)
  // The charge is an estimate; the heap itself must stay near the bound too (the
  // allocator's own bookkeeping and the counter table's few entries are the slack).
  EXPECT_LE(::mallinfo2().uordblks - heapBefore, bound + (1u << 20));
#endif
  const std::uint32_t queued = static_cast<std::uint32_t>(rig.io->pimUnresPktSize());
  EXPECT_GT(queued, 0u);
  EXPECT_EQ(queued + rig.rx(3, "eth1", MessageCounterType::invalid), std::uint32_t(n));
}

// ---------------------------------------------------------------------------------------
// Transmit path.

namespace P = Routing::Pim::Packet;

// The IP header the manager must build, field by field.
Bytes expectedHeader(const Nimo::IpGenAddr& src, const Nimo::IpGenAddr& dst, std::uint8_t ttl,
                     std::uint8_t tos, std::size_t pimLen) {
  Bytes h;
  if (src.af() == Nimo::AddressFamily::ipv4) {
    const std::size_t total = 20 + pimLen;
    h = {0x45, tos, std::uint8_t(total >> 8), std::uint8_t(total), 0, 0, 0x40, 0, ttl, 103, 0, 0};
    h.insert(h.end(), src.bytes(), src.bytes() + 4);
    h.insert(h.end(), dst.bytes(), dst.bytes() + 4);
    const std::uint16_t c = refChecksum(h);
    h[10] = std::uint8_t(c >> 8);
    h[11] = std::uint8_t(c);
  } else {
    h = {std::uint8_t(0x60 | tos >> 4), std::uint8_t(tos << 4), 0,   0,
         std::uint8_t(pimLen >> 8),     std::uint8_t(pimLen),   103, ttl};
    h.insert(h.end(), src.bytes(), src.bytes() + 16);
    h.insert(h.end(), dst.bytes(), dst.bytes() + 16);
  }
  return h;
}

struct TxRig {
  explicit TxRig(Nimo::AddressFamily af, bool overrideIpHeader = true, const char* name = "tx")
      : rig(af, Kel::Ptr<Kel::ManualClock>::make(), "", name, overrideIpHeader),
        fake(Kel::Ptr<FakePam>::make(af)) {
    rig.mgr->pamIs(fake);
    rig.intf("eth1", 7);
    for (int type : {0, 1, 2, 3, 4, 5, 8, 10}) rig.mgr->rxMessageInfoIs(std::uint8_t(type));
    rig.start();
  }
  // The message of a sample packet, as the agent receives it on eth1 (its source made a
  // neighbour first, so that nothing waits in a queue).
  Kel::Ptr<P::Message> received(const Bytes& ip) {
    const bool v6 = (ip[0] >> 4) == 6;
    Bytes h = ip;  // a view needs writable bytes
    rig.status->activeNeighborIs(
        {Nimo::IntfId("eth1"), v6 ? Nimo::Ipv6Hdr(h.data()).src() : Nimo::Ipv4Hdr(h.data()).src()},
        105);
    fake->push(ip, 7);
    rig.io->rxPkt();
    return rig.mgr->rxMessageInfo(ip[v6 ? 40 : 20] & 0x0f)->message();
  }
  DrobeRoot root;
  IoRig rig;
  Kel::Ptr<FakePam> fake;
};

// Every sample message, both families: the manager writes it back byte for byte behind
// the header it builds, with the type's destination, TTL and TOS, on the interface.
class TxSampleTest : public ::testing::TestWithParam<Nimo::AddressFamily> {};

TEST_P(TxSampleTest, EverySampleIsWrittenBehindItsHeaderAndCounted) {
  const bool v6 = GetParam() == Nimo::AddressFamily::ipv6;
  TxRig t(GetParam());
  const std::uint32_t hl = v6 ? 40 : 20;
  // TTL and TOS by type (the data Register's inner packet has TTL 1 and TOS 0xc0).
  struct Rule {
    bool unicast;
    std::uint8_t ttl, tos;
  };
  const std::map<int, Rule> rules = {
      {0, {false, 1, 192}},  {1, {true, 1, 184}},   {2, {true, 255, 192}},
      {3, {false, 1, 192}},  {4, {false, 1, 192}},  {5, {false, 1, 192}},
      {8, {true, 255, 192}}, {10, {false, 1, 192}}, {-1, {true, 255, 192}}};  // -1: Null-Register
  int expectedDf = 0;
  Kel::Ptr<P::Message> hello;
  for (const Bytes& ip : PimDump::sampleMessages(v6)) {
    auto msg = t.received(ip);
    ASSERT_TRUE(msg) << toHex(ip);
    if (msg->messageType() == 0) hello = msg;
    const Nimo::IpGenAddr src = msg->srcIp(), dst = msg->dstIp();
    const bool isNull =
        msg->messageType() == 1 && !static_cast<P::RegisterMessage&>(*msg).rcvdPkt();
    const Rule& r = rules.at(isNull ? -1 : msg->messageType());
    SCOPED_TRACE(fmt::format("type {} null {}", msg->messageType(), isNull));
    ASSERT_EQ(dst.isMulticast(), !r.unicast);
    t.fake->sent.clear();
    t.rig.send(msg, "eth1", r.unicast ? dst : Nimo::IpGenAddr());
    ASSERT_EQ(t.fake->sent.size(), 1u);
    const auto& out = t.fake->sent[0];
    const Bytes body(ip.begin() + hl, ip.end());
    Bytes expected = expectedHeader(src, dst, r.ttl, r.tos, body.size());
    expected.insert(expected.end(), body.begin(), body.end());
    EXPECT_EQ(toHex(out.bytes), toHex(expected));
    EXPECT_EQ(out.dst, dst);
    EXPECT_EQ(out.src, src);
    EXPECT_EQ(out.flags, Nimo::IpPam::kTxFlagIfIndex);
    EXPECT_EQ(out.ifIndex, 7u);
    if (msg->messageType() == 10) {
      ++expectedDf;
      EXPECT_EQ(t.rig.tx(10, "eth1", MessageCounterType::success, msg->messageSubtype()), 1u);
    }
  }
  EXPECT_EQ(t.rig.tx(1, "eth1", MessageCounterType::success), 2u);
  EXPECT_EQ(t.rig.tx(10, "", MessageCounterType::success), std::uint32_t(expectedDf));
  EXPECT_EQ(t.rig.mgr->txPamCounter()->count(), 12u);
  EXPECT_EQ(t.rig.mgr->txPamCounter()->processed(), 12u);
  EXPECT_EQ(t.rig.mgr->txPamCounter()->error(), 0u);

  // Readers get the sends' counts with one commit in the next loop turn.
  namespace D = Routing::Pim::Drobe;
  auto reader =
      D::messageCountersFactory(D::MessageCounters::mountPath(GetParam(), t.rig.vrf, "tx"));
  reader->mountReader(t.rig.loop);
  const D::CounterKey hellos(0, 255, Nimo::IntfId("eth1"));
  auto shared = [&] {
    auto d = reader->msgCounter(hellos);
    return d ? d->txMsgCounter().count(MessageCounterType::success) : 0u;
  };
  ASSERT_TRUE(hello);
  t.rig.loop.runOnce(0);
  const std::uint32_t before = shared();
  EXPECT_EQ(before, t.rig.tx(0, "eth1", MessageCounterType::success));
  t.rig.send(hello, "eth1");
  t.rig.send(hello, "eth1");
  EXPECT_EQ(t.rig.tx(0, "eth1", MessageCounterType::success), before + 2);
  EXPECT_EQ(shared(), before);
  t.rig.loop.runOnce(0);
  EXPECT_EQ(shared(), before + 2);
}

INSTANTIATE_TEST_SUITE_P(Families, TxSampleTest,
                         ::testing::Values(Nimo::AddressFamily::ipv4, Nimo::AddressFamily::ipv6),
                         [](const auto& i) {
                           return i.param == Nimo::AddressFamily::ipv4 ? "IPv4" : "IPv6";
                         });

// A message of a type without a writer.
struct GraftMessage : P::Message {
  GraftMessage() : P::Message(Nimo::PimMessageType::pimGraft) {}
  void print(std::ostream& os) const override { os << "Graft"; }
};

// The transmit rules one row each: what is sent (destination, TTL, TOS, source) or which
// counter and trace line a refusal leaves.
TEST(TxRulesTest, EachRuleSendsOrRefusesWithItsCounterAndText) {
  const auto samples = PimDump::sampleMessages(false);
  TxRig decoder(Nimo::AddressFamily::ipv4, true, "decoder");
  auto sample = [&](int type, bool null = false) {
    for (const Bytes& ip : samples) {
      auto m = decoder.received(ip);
      if (m->messageType() != type) continue;
      if (type == 1 && null != !static_cast<P::RegisterMessage&>(*m).rcvdPkt()) continue;
      return m;
    }
    return Kel::Ptr<P::Message>();
  };
  // A data Register whose inner IPv4 header carries ttl and tos.
  auto registerWith = [&](std::uint8_t ttl, std::uint8_t tos) {
    auto m = sample(1);
    auto& inner = *static_cast<P::RegisterMessage&>(*m).rcvdPkt();
    inner.writableData(0)[1] = tos;
    inner.writableData(0)[8] = ttl;
    return m;
  };
  auto unsourced = [&](int type) {
    auto m = sample(type);
    m->srcIpIs({});
    return m;
  };
  auto zeroGroups = [&] {
    auto m = Kel::Ptr<P::JoinPruneMessage>::make();
    m->joinPruneDataIs(Kel::Ptr<Routing::Pim::JoinPruneData>::make());
    return Kel::Ptr<P::Message>(m);
  };
  auto badHello = [&] {
    auto m = sample(0);
    static_cast<P::HelloMessage&>(*m).secondaryAddrIs(Nimo::IpGenAddr("fe80::9"), true);
    return m;
  };
  const Nimo::IpGenAddr none, rp("10.9.9.9"), all("224.0.0.13"), pimIntf("10.7.0.1");
  using Msg = std::function<Kel::Ptr<P::Message>()>;
  auto of = [&](int type) -> Msg { return [&sample, type] { return sample(type); }; };
  // What goes out: destination, source (unset: the message's own), TTL, TOS.
  struct Sent {
    const char* name;
    Msg msg;
    const char* intf;
    Nimo::IpGenAddr to, dst, src;
    int ttl, tos;
  };
  // clang-format off
  const Sent sentRows[] = {
      {"inner TTL 0, TOS 0xE0", [&] { return registerWith(0, 0xe0); }, "eth1", rp, rp, {}, 255, 184},
      {"inner TTL 64, TOS 0x20", [&] { return registerWith(64, 0x20); }, "eth1", rp, rp, {}, 64, 0x20},
      {"Null-Register", [&] { return sample(1, true); }, "eth1", rp, rp, {}, 255, 192},
      {"Bootstrap unicast", of(4), "eth1", rp, rp, {}, 1, 192},
      {"Bootstrap without address", of(4), "eth1", none, all, {}, 1, 192},
      {"source of the PIM interface", [&] { return unsourced(0); }, "eth1", none, all, pimIntf, 1, 192},
      {"source of the system interface", [&] { return unsourced(0); }, "eth3", none, all,
       Nimo::IpGenAddr("10.3.0.1"), 1, 192},
      {"no interface: the kernel routes", of(2), "", rp, rp, {}, 255, 192},
  };
  // What refuses to go, with the counter and trace it leaves.
  struct Refused {
    const char* name;
    Msg msg;
    const char* intf;
    Nimo::IpGenAddr to;
    MessageCounterType counter;
    const char* trace;
  };
  const auto invalid = MessageCounterType::invalid;
  const Refused refusedRows[] = {
      {"Register-Stop without address", of(2), "eth1", none, invalid, "TX: Error - Unknown Pim Destination - Type: 2"},
      {"C-RP-Adv without address", of(8), "eth1", none, invalid, "TX: Error - Unknown Pim Destination - Type: 8"},
      {"Join/Prune without groups", zeroGroups, "eth1", none, MessageCounterType::filtered,
       "TX: Filtered - Pim Join/Prune - Zero Groups"},
      {"unknown interface", of(0), "eth9", none, invalid, "TX: Error - Invalid Interface - Id: eth9"},
      {"no kernel device", of(0), "eth4", none, invalid, "TX: Error - Invalid Kernel Interface - Id: eth4"},
      {"no source anywhere", [&] { return unsourced(0); }, "eth2", none, invalid, "TX: Error - No Source Address - Type: 0"},
      {"Graft", [] { return Kel::Ptr<P::Message>(Kel::Ptr<GraftMessage>::make()); }, "eth1", rp, invalid,
       "TX: Error - Unsupported Pim Message - Type: 6"},
      {"Hello that cannot be written", badHello, "eth1", none, invalid, "TX: Error - Invalid Pim Hello - Write Error"},
      {"Assert in a boundary", of(5), "eth3", none, MessageCounterType::filtered,
       "TX: Assert group in Boundary filter - Packet Filtered"},
      {"Bootstrap in a boundary", of(4), "eth3", none, MessageCounterType::filtered,
       "TX: Bootstrap: Group in Boundary Filter - Packet Filtered"},
  };
  // clang-format on
  // Sends msg on a fresh rig: eth1 (PIM address 10.7.0.1), eth2 (no address), eth3
  // (addresses only in the system's status, a boundary on 224.0.0.0/4), eth4 (no kernel
  // device).
  auto run = [&](const Msg& make, const char* intf, const Nimo::IpGenAddr& to,
                 MessageCounterType counter, auto&& check) {
    TxRig t(Nimo::AddressFamily::ipv4);
    t.rig.status->intfIs(Nimo::IntfId("eth1"), false, pimIntf);
    t.rig.intf("eth2", 8);
    t.rig.intf("eth3", 9);
    t.rig.dir->intfStatusIs(Nimo::IntfId("eth3")).addr = {Nimo::IpGenAddrWithMask("fe80::3/64"),
                                                          Nimo::IpGenAddrWithMask("10.3.0.1/24")};
    t.rig.dir->intfStatusIs(Nimo::IntfId("eth4"));
    auto boundary = Kel::Ptr<Nimo::IntfBoundaryStatus>::make();
    boundary->groupPrefixIs(Nimo::IpGenPrefix("224.0.0.0/4"));
    auto boundaries = Kel::Ptr<Routing::McastBoundary::Status>::make("boundary");
    boundaries->softwareBoundaryStatusIs(Kel::Name("eth3"), boundary);
    t.rig.io->mcastBoundaryStatusIs(boundaries);
    Routing::Pim::IO::ioTrace().levelIs(9);
    Flicklog::CaptureSink capture;
    auto msg = make();
    ASSERT_TRUE(msg);
    t.rig.send(msg, intf, to);
    Routing::Pim::IO::ioTrace().levelIs(0);
    EXPECT_EQ(t.rig.tx(msg->messageType(), "", counter), 1u);
    EXPECT_EQ(t.rig.mgr->txPamCounter()->count(), 1u);
    check(t, *msg, capture);
  };
  for (const Sent& row : sentRows) {
    SCOPED_TRACE(row.name);
    run(row.msg, row.intf, row.to, MessageCounterType::success,
        [&](TxRig& t, const P::Message& msg, const Flicklog::CaptureSink&) {
          ASSERT_EQ(t.fake->sent.size(), 1u);
          const Bytes& b = t.fake->sent[0].bytes;
          EXPECT_EQ(t.fake->sent[0].dst, row.dst);
          EXPECT_EQ(
              toHex(Bytes(b.begin(), b.begin() + 20)),
              toHex(expectedHeader(row.src.isSet() ? row.src : msg.srcIp(), row.dst,
                                   std::uint8_t(row.ttl), std::uint8_t(row.tos), b.size() - 20)));
          EXPECT_EQ(t.fake->sent[0].flags, row.intf[0] ? Nimo::IpPam::kTxFlagIfIndex : 0u);
        });
  }
  for (const Refused& row : refusedRows) {
    SCOPED_TRACE(row.name);
    run(row.msg, row.intf, row.to, row.counter,
        [&](TxRig& t, const P::Message&, const Flicklog::CaptureSink& capture) {
          EXPECT_TRUE(t.fake->sent.empty());
          EXPECT_EQ(t.rig.mgr->txPamCounter()->error(), 1u);
          bool traced = false;
          for (const auto& l : capture.lines()) traced = traced || l.text.ends_with(row.trace);
          EXPECT_TRUE(traced) << row.trace;
        });
  }

  // No message at all: only the socket's counters know.
  TxRig t(Nimo::AddressFamily::ipv4);
  t.rig.send(nullptr, "eth1");
  EXPECT_EQ(t.rig.mgr->txPamCounter()->count(), 1u);
  EXPECT_EQ(t.rig.mgr->txPamCounter()->error(), 1u);
  EXPECT_TRUE(t.fake->sent.empty());
}

// Without header building TTL and TOS go on the socket, once per change; the multicast
// and unicast TTLs are separate options.
TEST(TxRulesTest, SocketOptionsCarryTtlAndTosWhenTheKernelBuildsTheHeader) {
  TxRig t(Nimo::AddressFamily::ipv4, false);
  const auto samples = PimDump::sampleMessages(false);
  t.rig.send(t.received(samples[0]), "eth1");                               // Hello
  t.rig.send(t.received(samples[0]), "eth1");                               // again: nothing new
  t.rig.send(t.received(samples[3]), "eth1", Nimo::IpGenAddr("10.1.0.2"));  // Register-Stop
  using O = std::tuple<int, int, int>;
  EXPECT_THAT(t.fake->plainOptions,
              ElementsAreArray({O{IPPROTO_IP, IP_TOS, 192}, O{IPPROTO_IP, IP_MULTICAST_TTL, 1},
                                O{IPPROTO_IP, IP_TTL, 255}}));
  ASSERT_EQ(t.fake->sent.size(), 3u);
  EXPECT_EQ(t.fake->sent[0].bytes[0], 0x20);  // no IP header: the PIM header first
  // A failed send is counted, and the next one goes out as usual.
  t.fake->txOk = false;
  t.rig.send(t.received(samples[0]), "eth1");
  t.fake->txOk = true;
  t.rig.send(t.received(samples[0]), "eth1");
  EXPECT_EQ(t.rig.tx(0, "eth1", MessageCounterType::invalid), 1u);
  EXPECT_EQ(t.rig.tx(0, "eth1", MessageCounterType::success), 3u);
}

}  // namespace
