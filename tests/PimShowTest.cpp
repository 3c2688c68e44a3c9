// pimshow as another process sees the tables: it prints what a live writer published, in
// text and JSON, and says clearly when nothing is mounted.

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <string>

#include "Pim/PimDrobe.h"
#include "tests/PimTestUtil.h"

namespace {

namespace D = Routing::Pim::Drobe;
using ::testing::HasSubstr;

using Output = PimTest::CommandOutput;

// Runs pimshow with args, stdout and stderr together.
Output pimshow(const std::string& args) {
  return PimTest::runCommand(std::string(PIMSHOW_PATH) + " " + args);
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
  const Nimo::IntfId eth("Ethernet7");
  const D::Intf intf(eth, Nimo::IpGenAddrWithMask("10.7.0.1/24"));
  const D::Neighbor nbr(D::NeighborKey(Nimo::IpGenAddr("10.7.0.2"), eth), 105,
                        Routing::Pim::DrPriorityOption(5), Routing::Pim::GenerationIdOption(),
                        Routing::Pim::LanPruneDelayOption());
  ASSERT_TRUE(status->pimIntfIs(intf));
  ASSERT_TRUE(status->neighborIs(nbr));
  ASSERT_TRUE(counters->msgCounterInc(D::CounterKey(0, 255, eth),
                                      Routing::Pim::IO::MessageCounterDirection::rx,
                                      Routing::Pim::IO::MessageCounterType::success));
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

}  // namespace
