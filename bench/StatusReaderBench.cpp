// The status reader against its baselines, measured in the same run, with a writer in
// another process (2,000 interfaces, 10,000 neighbours):
// - the first full pass of a StatusReaderSm, against a plain copy of the same records out
//   of the same tables into vectors (aim: copy / pass >= 0.2x);
// - one neighbour change from the writer's commit to the mirror updated, against the bare
//   table notice for the same change (aim: median <= 1.3x);
// - flipping the mode of an interface with 1,000 active neighbours and back under a
//   sparse-mode filter (reported).
//
//   StatusReaderBench [repetitions (7)] [changes (300)]
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "Pim/PimDrobe.h"
#include "Pim/PimStatusReaderSm.h"
#include "tests/PimTestUtil.h"

namespace {

namespace P = Routing::Pim;
namespace D = Routing::Pim::Drobe;

constexpr int kIntfs = 2000;
constexpr int kPer = 5;
const L3::VrfName kVrf("bench");

double monotonic() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double median(std::vector<double> v) {
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2), v.end());
  return v[v.size() / 2];
}

D::NeighborKey nbrKey(int i, int j) {
  return D::NeighborKey(Nimo::IpGenAddr(fmt::format("10.{}.{}.{}", i / 200, i % 200, j + 2)),
                        Nimo::IntfId(fmt::format("Ethernet{}", i)));
}

// The writer: publishes, then changes neighbour 0 of interface 0 once per byte received,
// stamping lastRefreshTime with the monotonic time just before its commit.
[[noreturn]] void writer(int fd) {
  auto st = D::statusFactory(D::Status::mountPath(Nimo::AddressFamily::ipv4, kVrf));
  if (!st->mountWriter()) ::_exit(3);
  for (int i = 0; i < kIntfs; ++i) {
    D::Intf r(Nimo::IntfId(fmt::format("Ethernet{}", i)),
              Nimo::IpGenAddrWithMask(fmt::format("10.{}.{}.1/24", i / 200, i % 200)));
    r.modeIs(P::Mode::Sparse);
    st->pimIntfIs(r);
    st->intfSecondaryAddressIs(D::IntfSecondaryAddress(
        {r.key(), Nimo::IpGenAddr(fmt::format("172.{}.{}.1", i / 200, i % 200))}));
    for (int j = 0; j < kPer; ++j) {
      st->neighborIs(D::Neighbor(nbrKey(i, j), 105, P::DrPriorityOption(1),
                                 P::GenerationIdOption(7), P::LanPruneDelayOption()));
      if (j == 0) st->inactiveNeighborIs(D::NeighborRef(nbrKey(i, j)));
    }
  }
  st->commit();
  PimTest::send(fd, 'p');
  D::Neighbor n(nbrKey(0, 1), 105, P::DrPriorityOption(1), P::GenerationIdOption(7),
                P::LanPruneDelayOption());
  char c = 0;
  while (PimTest::receive(fd, c, 60) && c == 'c') {
    n.lastRefreshTimeIs(monotonic());
    st->neighborIs(n);
    st->neighborCommit();
  }
  ::_exit(0);
}

// Waits (bounded) for one change's notice; the latency from the writer's stamp.
struct Latency : D::Status::NotifieeConst, P::Intf::NotifieeConst {
  double seen = 0;
  Kel::Ptr<D::Status> st;
  Kel::Ptr<P::Intf> mirrored;
  void onNeighbor(const D::NeighborKey& k) override {
    if (auto n = st->neighbor(k)) seen = monotonic() - n->lastRefreshTime();
  }
  void onNeighbor(const Nimo::IpGenAddr& a) override {
    if (const P::Neighbor* n = mirrored->neighbor(a)) seen = monotonic() - n->lastRefreshTime;
  }
};

std::vector<double> latencies(Ulm::EventLoop& loop, int fd, Latency& l, int changes) {
  std::vector<double> out;
  for (int i = 0; i < changes; ++i) {
    l.seen = 0;
    PimTest::send(fd, 'c');
    for (int turns = 0; l.seen == 0 && turns < 1000; ++turns) loop.runOnce(0.01);
    if (l.seen > 0) out.push_back(l.seen);
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  const int reps = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
  const int changes = argc > 2 ? std::max(1, std::atoi(argv[2])) : 300;
  const std::string root = fmt::format("/dev/shm/statusbench-{}", ::getpid());
  std::filesystem::create_directories(root);
  ::setenv("DROBE_ROOT", root.c_str(), 1);
  PimTest::Children children;
  const int fd = children.spawn(writer);
  char ready = 0;
  if (!PimTest::receive(fd, ready, 120)) {
    std::fprintf(stderr, "writer did not publish\n");
    return 1;
  }
  Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
  auto st = D::statusFactory(D::Status::mountPath(Nimo::AddressFamily::ipv4, kVrf));
  st->mountReader(loop);
  for (int i = 0; i < 100 && st->neighborSize() < kIntfs * kPer; ++i) loop.runOnce(0.05);

  // First full pass against a plain copy.
  std::vector<double> copy, pass;
  for (int r = 0; r < reps; ++r) {
    const double t0 = monotonic();
    std::vector<D::Intf> intfs;
    std::vector<D::Neighbor> nbrs;
    std::vector<D::NeighborRef> inactive;
    std::vector<D::IntfSecondaryAddress> secondary;
    st->pimIntfForEach([&](const D::Intf& v) { intfs.push_back(v); });
    st->neighborForEach([&](const D::Neighbor& v) { nbrs.push_back(v); });
    st->inactiveNeighborForEach([&](const D::NeighborRef& v) { inactive.push_back(v); });
    st->intfSecondaryAddressForEach(
        [&](const D::IntfSecondaryAddress& v) { secondary.push_back(v); });
    const double t1 = monotonic();
    copy.push_back(t1 - t0);
    auto all = Kel::Ptr<P::AllStatus>::make("bench");
    auto sm = D::statusReaderSmFactory(kVrf, all, st);
    const double t2 = monotonic();
    sm->enabledIs(true);
    pass.push_back(monotonic() - t2);
    if (nbrs.size() != std::size_t{kIntfs * kPer} || all->pimIntf().size() != kIntfs) {
      std::fprintf(stderr, "incomplete: %zu neighbours copied, %zu interfaces mirrored\n",
                   nbrs.size(), all->pimIntf().size());
      return 1;
    }
  }
  const double c = median(copy), p = median(pass);
  std::printf(
      "first full pass, %d interfaces, %d neighbours: %.2f ms; plain copy: %.2f ms; "
      "copy/pass %.2fx (aim >= 0.2x)\n",
      kIntfs, kIntfs * kPer, p * 1e3, c * 1e3, c / p);

  // One change: bare notice, then through the mirror.
  Latency bare;
  bare.st = st;
  static_cast<D::Status::NotifieeConst&>(bare).notifierIs(st);
  const std::vector<double> b = latencies(loop, fd, bare, changes);
  static_cast<D::Status::NotifieeConst&>(bare).notifierIs(nullptr);
  auto all = Kel::Ptr<P::AllStatus>::make("bench");
  auto sm = D::statusReaderSmFactory(kVrf, all, st);
  sm->enabledIs(true);
  Latency mirror;
  mirror.mirrored = all->pimIntf(Nimo::IntfId("Ethernet0"));
  static_cast<P::Intf::NotifieeConst&>(mirror).notifierIs(mirror.mirrored);
  const std::vector<double> m = latencies(loop, fd, mirror, changes);
  if (b.empty() || m.empty()) {
    std::fprintf(stderr, "no change arrived\n");
    return 1;
  }
  std::printf(
      "one neighbour change, commit to notice: mirror %.1f us (%zu), bare table %.1f us "
      "(%zu); mirror/bare %.2fx (aim <= 1.3x)\n",
      median(m) * 1e6, m.size(), median(b) * 1e6, b.size(), median(m) / median(b));
  PimTest::send(fd, 'q');
  children.exitCode(fd, 10);

  // Mode flip under a sparse-mode filter.
  auto in = Kel::Ptr<P::AllStatus>::make("flip");
  auto intf = Kel::Ptr<P::Intf>::make(Nimo::IntfId("Ethernet1"));
  intf->modeIs(P::Mode::Sparse);
  for (int j = 0; j < 1000; ++j) {
    const Nimo::IpGenAddr a(fmt::format("10.1.{}.{}", j / 250, j % 250 + 2));
    intf->neighborIs(P::Neighbor(a));
    intf->activeNeighborIs(a);
  }
  in->pimIntfIs(intf);
  auto out = Kel::Ptr<P::Status>::make("out");
  auto filter = P::statusModeFilterSmFactory(kVrf, in, out, P::Mode::Sparse);
  std::vector<double> flips;
  for (int r = 0; r < reps * 10; ++r) {
    const double t0 = monotonic();
    intf->modeIs(P::Mode::Bidir);
    intf->modeIs(P::Mode::Sparse);
    flips.push_back(monotonic() - t0);
  }
  std::printf(
      "mode flip of an interface with 1000 active neighbours and back: %.1f us "
      "(output %zu neighbours)\n",
      median(flips) * 1e6, out->activeNeighbor().size());
  std::filesystem::remove_all(root);
  return 0;
}
