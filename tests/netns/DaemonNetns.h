// ribd (and nhtd) as their own processes over a namespace of the test, which plays the agent:
// its event loop, `ip` in the namespace, the PIM neighbours on the veth, and what is
// published to it. Root only; every wait is bounded. The test program defines RIBD_PATH (and
// NHTD_PATH when it runs nhtd).
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <functional>
#include <initializer_list>
#include <set>

#include "Pim/platform/PimCore.h"
#include "tests/DrobeRootUtil.h"
#include "tests/PimTestUtil.h"
#include "tests/RpfAgentUtil.h"
#include "tests/netns/NetnsUtil.h"

namespace PimTest {

template <typename Base = ::testing::Test>
class DaemonNetnsTest : public Base {
 protected:
  using Keys = std::set<Routing::Pim::RouteKey>;
  explicit DaemonNetnsTest(const char* tag) : pair_(tag), ns_(pair_.a) {}

  // Root and the namespaces; a derived SetUp begins with `if (!ready()) return;`.
  bool ready() {
    if (!isRoot()) [] { GTEST_SKIP() << "needs root (network namespaces)"; }();
    EXPECT_TRUE(!isRoot() || pair_.ok);
    return isRoot() && pair_.ok;
  }
  void TearDown() override {
    stop(nhtd_);
    stop(ribd_);
  }
  template <typename... A>
  int ip(fmt::format_string<A...> f, A&&... a) {
    return sh(fmt::format("ip -n {} ", ns_) + fmt::format(f, std::forward<A>(a)...));
  }
  void startRibd(int mribTable = 0) {
    const std::string mrib = mribTable ? fmt::format(" --mrib-table {}", mribTable) : "";
    ribd_ = spawn(fmt::format("exec {} --netns {}{} >/dev/null", RIBD_PATH, ns_, mrib));
  }
#ifdef NHTD_PATH
  void startNhtd() { nhtd_ = spawn(fmt::format("exec {} >/dev/null", NHTD_PATH)); }
#endif
  // SIGTERM ends our child cleanly, SIGKILL by the signal.
  void stop(pid_t& p, int sig = SIGTERM) {
    if (p <= 0) return;
    ::kill(p, sig);
    EXPECT_EQ(waitChild(p, 10), sig == SIGKILL ? -1 : 0);
    p = -1;
  }
  bool waitFor(const std::function<bool()>& done) { return waitLoop(loop_, done); }
  // Turns the loop a while longer: what arrives late (a stray notice, a second review) shows.
  void linger(double seconds = 0.5) {
    for (int i = 0; i < static_cast<int>(seconds / 0.05); ++i) loop_.runOnce(0.05);
  }
  // The veth as a PIM interface with address own, each of the neighbours active on it.
  Kel::Ptr<Routing::Pim::Status> pimStatus(const char* own,
                                           std::initializer_list<const char*> neighbours) {
    auto pim = Kel::Ptr<Routing::Pim::Status>::make("pim");
    pim->intfIs(Nimo::IntfId(pair_.vethA), false, Nimo::IpGenAddr(own));
    for (const char* n : neighbours)
      pim->activeNeighborIs({Nimo::IntfId(pair_.vethA), Nimo::IpGenAddr(n)}, 105);
    return pim;
  }
  // What is published to agent_ from now until observed() holds (bounded) and `settle`
  // seconds after, each route once; observed defaults to "something was published".
  Keys published(std::function<bool()> observed = {}, double settle = 0.5) {
    agent_.published.clear();
    if (!observed) observed = [&] { return !agent_.published.empty(); };
    EXPECT_TRUE(waitFor(observed)) << "the change was not observed";
    linger(settle);
    Keys out;
    for (const auto& [k, n] : agent_.published) {
      EXPECT_EQ(n, 1) << k;
      out.insert(k);
    }
    return out;
  }

  DrobeRoot root_;
  NetnsPair pair_;
  const std::string ns_;
  pid_t ribd_ = -1, nhtd_ = -1;
  Ulm::EventLoop loop_{Kel::Ptr<Kel::SystemClock>::make()};
  Agent agent_;
};

}  // namespace PimTest
