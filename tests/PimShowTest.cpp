// pimshow as another process sees the tables: it prints what a live writer published, in
// text and JSON, and says clearly when nothing is mounted.

#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <string>

#include "Pim/PimDrobe.h"
#include "Pim/platform/Drobe.h"
#include "tests/PimTestUtil.h"

namespace {

namespace P = Routing::Pim;
namespace D = Routing::Pim::Drobe;
using Nimo::IntfId;
using Nimo::IpGenAddr;
using Nimo::IpGenAddrWithMask;
using ::testing::HasSubstr;
using ::testing::Not;

using Output = PimTest::CommandOutput;

// Runs pimshow with args, stdout and stderr together.
Output pimshow(const std::string& args) {
  return PimTest::runCommand(std::string(PIMSHOW_PATH) + " " + args);
}

D::Neighbor neighbor(const D::NeighborKey& k) {
  return D::Neighbor(k, 105, P::DrPriorityOption(5), P::GenerationIdOption(),
                     P::LanPruneDelayOption());
}

class PimShowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("DROBE_ROOT", root_.c_str(), 1);
    std::filesystem::create_directories(root_);
  }
  void TearDown() override { std::filesystem::remove_all(root_); }
  const std::string root_ = "/dev/shm/pimshow-test-" + std::to_string(::getpid());
};

TEST_F(PimShowTest, NotMountedExitsTwo) {
  const Output r = pimshow("--vrf red --af 6");
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_THAT(r.out, HasSubstr("not mounted"));
  EXPECT_THAT(r.out, HasSubstr("routing6/pim/status/red"));
}

TEST_F(PimShowTest, PrintsWhatTheWriterPublished) {
  const L3::VrfName vrf("blue");
  auto status = D::statusFactory(D::Status::mountPath(Nimo::AddressFamily::ipv4, vrf));
  auto counters = D::messageCountersFactory(
      D::MessageCounters::mountPath(Nimo::AddressFamily::ipv4, vrf, "pim"));
  ASSERT_TRUE(status->mountWriter());
  ASSERT_TRUE(counters->mountWriter());
  const IntfId eth("Ethernet7");
  const D::Intf intf(eth, IpGenAddrWithMask("10.7.0.1/24"));
  const D::Neighbor nbr = neighbor(D::NeighborKey(IpGenAddr("10.7.0.2"), eth));
  ASSERT_TRUE(status->pimIntfIs(intf));
  ASSERT_TRUE(status->neighborIs(nbr));
  ASSERT_TRUE(counters->msgCounterInc(D::CounterKey(0, 255, eth),
                                      P::IO::MessageCounterDirection::rx,
                                      P::IO::MessageCounterType::success));
  status->commit();
  counters->msgCounterCommit();

  const Output text = pimshow("--vrf blue");
  ASSERT_EQ(text.exitCode, 0) << text.out;
  EXPECT_THAT(text.out, HasSubstr(intf.drobeString()));
  EXPECT_THAT(text.out, HasSubstr(nbr.drobeString()));
  EXPECT_THAT(
      text.out,
      HasSubstr(D::MessageCounterData(D::CounterKey(0, 255, eth)).drobeString().substr(0, 20)));
  EXPECT_THAT(text.out,
              HasSubstr("Interface=\"Ethernet7\")), rx: {invalid=0, filtered=0, success=1}"));

  const Output json = pimshow("--vrf blue --json");
  ASSERT_EQ(json.exitCode, 0) << json.out;
  EXPECT_THAT(json.out, HasSubstr("\"neighbor\""));
  EXPECT_THAT(json.out, HasSubstr("\"10.7.0.2\""));
  EXPECT_THAT(json.out, HasSubstr("\"msgCounter\""));
}

// One VRF's tables: Ethernet7 sparse, Ethernet8 bidirectional, each with an active
// neighbour, and on Ethernet7 an inactive one.
class PimShowMirrorTest : public PimShowTest {
 protected:
  void SetUp() override {
    PimShowTest::SetUp();
    ASSERT_TRUE(status_->mountWriter());
    publish("Ethernet7", P::Mode::Sparse, "10.7.0.2");
    publish("Ethernet8", P::Mode::Bidir, "10.8.0.2");
    const D::NeighborKey off(IpGenAddr("10.7.0.3"), IntfId("Ethernet7"));
    ASSERT_TRUE(status_->neighborIs(neighbor(off)));
    ASSERT_TRUE(status_->inactiveNeighborIs(D::NeighborRef(off)));
    status_->commit();
  }
  void publish(const char* id, P::Mode m, const char* nbr) {
    D::Intf i(IntfId(id), IpGenAddrWithMask("10.7.0.1/24"));
    i.modeIs(m);
    ASSERT_TRUE(status_->pimIntfIs(i));
    ASSERT_TRUE(status_->neighborIs(neighbor(D::NeighborKey(IpGenAddr(nbr), i.key()))));
  }
  Kel::Ptr<D::Status> status_ =
      D::statusFactory(D::Status::mountPath(Nimo::AddressFamily::ipv4, L3::VrfName("blue")));
};

TEST_F(PimShowMirrorTest, AModeShowsWhatThatAgentSees) {
  const struct {
    const char* mode;
    std::vector<std::string> shown, hidden;
  } rows[] = {
      {"sparse",
       {"intId=Ethernet7", "neighbor address=10.7.0.2"},
       {"intId=Ethernet8", "10.8.0.2", "10.7.0.3", "inactiveNeighbor"}},
      {"bidir", {"intId=Ethernet8", "neighbor address=10.8.0.2"}, {"intId=Ethernet7", "10.7.0.2"}},
      {"all", {"intId=Ethernet7", "intId=Ethernet8", "10.8.0.2", "10.7.0.2"}, {"10.7.0.3"}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.mode);
    const Output o = pimshow(std::string("--vrf blue --mode ") + r.mode);
    ASSERT_EQ(o.exitCode, 0) << o.out;
    for (const auto& s : r.shown) EXPECT_THAT(o.out, HasSubstr(s));
    for (const auto& s : r.hidden) EXPECT_THAT(o.out, Not(HasSubstr(s)));
  }
  // Without a mode, the whole mirror: the inactive neighbour too.
  const Output whole = pimshow("--vrf blue");
  EXPECT_THAT(whole.out, HasSubstr("inactiveNeighbor (1):"));
  EXPECT_THAT(whole.out, HasSubstr("neighbor (3):"));
}

TEST_F(PimShowMirrorTest, AllShowsEveryVrfWithTablesAndRefusesBadNames) {
  auto red = D::statusFactory(D::Status::mountPath(Nimo::AddressFamily::ipv4, L3::VrfName("red")));
  ASSERT_TRUE(red->mountWriter());
  ASSERT_TRUE(red->pimIntfIs(D::Intf(IntfId("Ethernet9"), IpGenAddrWithMask("10.9.0.1/24"))));
  red->commit();
  const std::string longName(64, 'v');
  std::filesystem::create_directories(root_ + "/routing/pim/status/" + longName);
  const Output o = pimshow("--all");
  ASSERT_EQ(o.exitCode, 0) << o.out;
  EXPECT_THAT(o.out, HasSubstr("vrf blue:\npimIntf (2):"));
  EXPECT_THAT(o.out, HasSubstr("vrf red:\npimIntf (1):\n  [intId=Ethernet9"));
  const std::string rangeError = "VrfName::bytes > VrfName::maxLength not allowed";
  EXPECT_THAT(o.out, HasSubstr(longName + ": " + rangeError));
  const Output json = pimshow("--all --json");
  EXPECT_THAT(json.out, HasSubstr("\"red\": {"));
  const Output given = pimshow("--vrf " + longName);
  EXPECT_EQ(given.exitCode, 1);
  EXPECT_THAT(given.out, HasSubstr("pimshow: " + rangeError));
}

// A record with another layout under the interface collection's name.
struct OtherIntf {
  IntfId id;
  std::uint64_t extra = 0;
  IntfId key() const { return id; }
  friend bool operator==(const OtherIntf&, const OtherIntf&) = default;
  static constexpr auto kFields =
      std::make_tuple(Kel::field("key", &OtherIntf::id), Kel::field("extra", &OtherIntf::extra));
};

TEST_F(PimShowTest, ATableOfAnotherLayoutIsRefusedAndSaidSo) {
  const std::string path = D::Status::mountPath(Nimo::AddressFamily::ipv4, L3::VrfName("odd"));
  auto w = ::Drobe::Writer<IntfId, OtherIntf>::create(path, {"pimIntf", 16});
  ASSERT_TRUE(w);
  ASSERT_TRUE(w->is(OtherIntf{IntfId("Ethernet1"), 7}));
  w->commit();
  const Output o = pimshow("--vrf odd");
  EXPECT_EQ(o.exitCode, 2);
  EXPECT_THAT(o.out, HasSubstr("refused"));
  EXPECT_THAT(o.out, HasSubstr("were refused (another record layout"));
}

TEST_F(PimShowMirrorTest, WatchPrintsTheMirrorsChanges) {
  FILE* p = ::popen(
      (std::string("timeout -s INT 5 ") + PIMSHOW_PATH + " --vrf blue --watch --mode sparse 2>&1")
          .c_str(),
      "r");
  ASSERT_TRUE(p);
  ::usleep(1500000);  // lets pimshow print and start watching; not a timing check
  ASSERT_TRUE(
      status_->neighborIs(neighbor(D::NeighborKey(IpGenAddr("10.7.0.9"), IntfId("Ethernet7")))));
  ASSERT_TRUE(
      status_->neighborIs(neighbor(D::NeighborKey(IpGenAddr("10.8.0.9"), IntfId("Ethernet8")))));
  ASSERT_TRUE(
      status_->inactiveNeighborDel(D::NeighborKey(IpGenAddr("10.7.0.3"), IntfId("Ethernet7"))));
  status_->commit();
  std::string out;
  std::array<char, 4096> buf;
  while (std::size_t n = std::fread(buf.data(), 1, buf.size(), p)) out.append(buf.data(), n);
  ::pclose(p);
  EXPECT_THAT(out, HasSubstr("neighbor set: [neighbor address=10.7.0.9"));
  EXPECT_THAT(out, HasSubstr("neighbor set: [neighbor address=10.7.0.3"));  // active again
  EXPECT_THAT(out, Not(HasSubstr("10.8.0.9")));  // a bidirectional interface's
}

}  // namespace
