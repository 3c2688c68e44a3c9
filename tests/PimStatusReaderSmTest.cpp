// Status readers and mode filters: the mirror of a table set in this process (edge cases
// with their traces, the mode table), VRF life through the global reader, and other
// processes: a churning writer with 2,000 interfaces and 10,000 neighbours, a reader
// started before or after it, and a writer killed and restarted.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <sstream>
#include <type_traits>

#include "Pim/PimDrobe.h"
#include "Pim/PimStatusReaderSm.h"
#include "Pim/platform/Ledra.h"
#include "tests/PimTestUtil.h"

namespace {

namespace P = Routing::Pim;
namespace D = Routing::Pim::Drobe;
using Nimo::IntfId;
using Nimo::IpGenAddr;
using P::Mode;

const auto* const kEnv = ::testing::AddGlobalTestEnvironment(new PimTest::PrivateDrobeRoot("psr"));

// ---------------------------------------------------------------------------------------
// Digests: one canonical text per interface and neighbour, hashed (FNV-1a).

struct Digest {
  std::uint64_t h = 1469598103934665603ull;
  void add(std::string_view s) {
    for (char c : s) h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    h = (h ^ '\n') * 1099511628211ull;
  }
};

// Every published attribute of an interface record or a mirrored interface (same getters).
template <typename I>
std::string intfText(const IntfId& id, const I& i) {
  std::ostringstream os;
  os << "I " << id.name();
#define PIM_TEST_PUT(T, name, Name) os << ' ' << i.name();
  PIM_INTF_ATTRIBUTES(PIM_TEST_PUT)
#undef PIM_TEST_PUT
  return os.str();
}
std::string nbrText(const IntfId& id, const IpGenAddr& a, std::uint16_t hold, bool active,
                    bool inactive, const std::set<IpGenAddr>& sec) {
  std::string s = fmt::format("N {} {} {} {} {}", id, a, hold, active, inactive);
  for (const auto& x : sec) s += fmt::format(" {}", x);
  return s;
}

// The mirror, skipping the writer's end marker.
std::uint64_t digestOf(const P::AllStatus& all) {
  Digest d;
  for (const auto& [id, i] : all.pimIntf()) {
    if (id.name() == "done") continue;
    d.add(intfText(id, *i));
    for (const auto& a : i->secondaryAddress()) d.add(fmt::format("S {}", a));
    for (const auto& p : i->secondaryPrefix()) d.add(fmt::format("P {}", p));
    for (const auto& [a, n] : i->neighbor()) {
      d.add(nbrText(id, a, n.holdTime, i->activeNeighbor(a), i->inactiveBfdNeighbor(a),
                    n.secondaryAddress));
    }
  }
  return d.h;
}
std::uint64_t digestOf(const P::Status& st) {
  Digest d;
  for (const auto& [id, i] : st.intf()) {
    if (id.name() != "done") d.add(fmt::format("I {} {} {}", id, i.mbr, i.primaryAddr));
  }
  for (const auto& [k, hold] : st.activeNeighbor()) {
    d.add(fmt::format("A {} {} {}", k.intfId, k.address, hold));
  }
  return d.h;
}

// What the sparse-mode filter takes, written out rather than computed: per interface mode
// (none, sparse, bidir, both), without and with borderRouter.
constexpr bool kSparseTakes[4][2] = {{false, true}, {true, true}, {false, true}, {true, true}};

// ---------------------------------------------------------------------------------------
// The writer's own model of what it published, and its churn.

struct NbrModel {
  D::Neighbor rec;
  bool inactive = false;
  std::set<IpGenAddr> sec;
};
struct IntfModel {
  D::Intf rec;
  std::set<IpGenAddr> sec;
  std::set<Nimo::IpGenPrefix> pfx;
  std::map<IpGenAddr, NbrModel> nbr;
};

class Publisher {
 public:
  Publisher(Kel::Ptr<D::Status> st, std::uint64_t seed) : st_(std::move(st)), rng_(seed) {}

  // n interfaces of `per` neighbours each, a fifth of them inactive, each with a secondary.
  void populate(int n, int per) {
    for (int i = 0; i < n; ++i) {
      addIntf(i);
      for (int j = 0; j < per; ++j) addNbr(i, j);
    }
    st_->commit();
  }
  // Batches of removals (dependants committed first) or of additions and updates
  // (committed in dependency order).
  void churn(int batches, int intfs, int per) {
    for (int b = 0; b < batches; ++b) {
      const bool removal = rng_() % 3 == 0;
      for (int k = 0; k < 20; ++k) step(removal, intfs, per);
      if (removal) {
        st_->neighborSecondaryAddressCommit();
        st_->intfSecondaryPrefixCommit();
        st_->intfSecondaryAddressCommit();
        st_->inactiveNeighborCommit();
        st_->neighborCommit();
      }
      st_->commit();
    }
  }
  // The end marker: an interface whose attributes carry both expected digests.
  void finish() {
    const std::uint64_t all = allDigest(), sparse = sparseDigest();
    D::Intf done(IntfId("done"), Nimo::IpGenAddrWithMask("10.255.255.1/32"));
    done.assertTimeoutIs(static_cast<std::uint32_t>(all));
    done.helloDelayIs(static_cast<std::uint32_t>(all >> 32));
    done.generationIdIs(static_cast<std::uint32_t>(sparse));
    done.drPriorityIs(static_cast<std::uint32_t>(sparse >> 32));
    done.triggeredHelloCountIs(static_cast<std::uint32_t>(neighbors()));
    st_->pimIntfIs(done);
    st_->commit();
  }

  std::uint64_t allDigest() const {
    Digest d;
    for (const auto& [id, m] : model_) {
      d.add(intfText(id, m.rec));
      for (const auto& a : m.sec) d.add(fmt::format("S {}", a));
      for (const auto& p : m.pfx) d.add(fmt::format("P {}", p));
      for (const auto& [a, n] : m.nbr) {
        d.add(nbrText(id, a, n.rec.holdTime(), !n.inactive, n.inactive, n.sec));
      }
    }
    return d.h;
  }
  std::uint64_t sparseDigest() const {
    Digest d;
    std::vector<std::string> nbrs;
    for (const auto& [id, m] : model_) {
      if (!kSparseTakes[static_cast<int>(m.rec.mode())][m.rec.borderRouter()]) continue;
      d.add(fmt::format("I {} {} {}", id, m.rec.borderRouter(), m.rec.addressWithMask().address()));
      for (const auto& [a, n] : m.nbr) {
        if (!n.inactive) nbrs.push_back(fmt::format("A {} {} {}", id, a, n.rec.holdTime()));
      }
    }
    for (const auto& s : nbrs) d.add(s);
    return d.h;
  }
  std::size_t neighbors() const {
    std::size_t n = 0;
    for (const auto& [id, m] : model_) n += m.nbr.size();
    return n;
  }

 private:
  static IntfId intfId(int i) { return IntfId(fmt::format("Ethernet{}", i)); }
  static IpGenAddr nbrAddr(int i, int j) {
    return IpGenAddr(fmt::format("10.{}.{}.{}", i / 200, i % 200, j + 2));
  }
  void addIntf(int i) {
    const IntfId id = intfId(i);
    D::Intf r(id, Nimo::IpGenAddrWithMask(fmt::format("10.{}.{}.1/24", i / 200, i % 200)));
    r.modeIs(static_cast<Mode>(rng_() % 4));
    r.borderRouterIs(rng_() % 5 == 0);
    r.helloPeriodIs(30);
    IntfModel& m = model_[id];
    m.rec = r;
    ok(st_->pimIntfIs(r));
    const IpGenAddr sec(fmt::format("172.{}.{}.1", i / 200, i % 200));
    m.sec.insert(sec);
    ok(st_->intfSecondaryAddressIs(D::IntfSecondaryAddress({id, sec})));
  }
  void addNbr(int i, int j) {
    auto it = model_.find(intfId(i));
    if (it == model_.end()) return;
    const D::NeighborKey k(nbrAddr(i, j), it->first);
    NbrModel& n = it->second.nbr[k.address()];
    n.rec = D::Neighbor(k, static_cast<std::uint16_t>(90 + rng_() % 30), P::DrPriorityOption(1),
                        P::GenerationIdOption(static_cast<std::uint32_t>(rng_())),
                        P::LanPruneDelayOption());
    ok(st_->neighborIs(n.rec));
    if (rng_() % 5 == 0) setInactive(k, n, true);
  }
  void setInactive(const D::NeighborKey& k, NbrModel& n, bool on) {
    n.inactive = on;
    if (on) {
      ok(st_->inactiveNeighborIs(D::NeighborRef(k)));
    } else {
      st_->inactiveNeighborDel(k);
    }
  }
  void delNbr(IntfModel& m, const IpGenAddr& a) {
    const D::NeighborKey k(a, m.rec.key());
    for (const auto& s : m.nbr[a].sec) st_->neighborSecondaryAddressDel({k, s});
    st_->inactiveNeighborDel(k);
    st_->neighborDel(k);
    m.nbr.erase(a);
  }
  void delIntf(const IntfId& id) {
    IntfModel& m = model_[id];
    while (!m.nbr.empty()) delNbr(m, m.nbr.begin()->first);
    for (const auto& s : m.sec) st_->intfSecondaryAddressDel({id, s});
    for (const auto& p : m.pfx) st_->intfSecondaryPrefixDel({id, p});
    st_->pimIntfDel(id);
    model_.erase(id);
  }
  void step(bool removal, int intfs, int per) {
    const int i = static_cast<int>(rng_() % static_cast<unsigned>(intfs));
    const int j = static_cast<int>(rng_() % static_cast<unsigned>(per + 2));
    auto it = model_.find(intfId(i));
    const unsigned what = rng_() % 4;
    if (it == model_.end()) {
      if (!removal) addIntf(i);
      return;
    }
    IntfModel& m = it->second;
    const IpGenAddr a = nbrAddr(i, j);
    auto n = m.nbr.find(a);
    if (removal) {
      if (what == 0) return delIntf(it->first);
      if (n != m.nbr.end() && what == 1) return delNbr(m, a);
      if (!m.sec.empty() && what == 2) {
        st_->intfSecondaryAddressDel({it->first, *m.sec.begin()});
        m.sec.erase(m.sec.begin());
      } else if (!m.pfx.empty()) {
        st_->intfSecondaryPrefixDel({it->first, *m.pfx.begin()});
        m.pfx.erase(m.pfx.begin());
      }
      return;
    }
    switch (what) {
      case 0:  // mode, border router, hello period
        m.rec.modeIs(static_cast<Mode>(rng_() % 4));
        m.rec.borderRouterIs(rng_() % 5 == 0);
        m.rec.helloPeriodIs(static_cast<std::uint16_t>(rng_() % 60));
        ok(st_->pimIntfIs(m.rec));
        return;
      case 1:
        if (n == m.nbr.end()) return addNbr(i, j);
        return setInactive(D::NeighborKey(a, it->first), n->second, !n->second.inactive);
      case 2: {
        const Nimo::IpGenPrefix p(fmt::format("192.{}.{}.0/24", j, i % 200));
        m.pfx.insert(p);
        ok(st_->intfSecondaryPrefixIs(D::IntfSecondaryPrefix({it->first, p})));
        return;
      }
      default:
        if (n == m.nbr.end()) return;
        const IpGenAddr s(fmt::format("11.{}.{}.{}", i / 200, i % 200, j));
        n->second.sec.insert(s);
        ok(st_->neighborSecondaryAddressIs(
            D::NeighborSecondaryAddress({D::NeighborKey(a, it->first), s})));
        return;
    }
  }
  static void ok(bool b) {
    if (!b) ::_exit(4);  // a full table: the test's sizes are wrong
  }

  Kel::Ptr<D::Status> st_;
  std::mt19937_64 rng_;
  std::map<IntfId, IntfModel> model_;
};

// ---------------------------------------------------------------------------------------
// Other processes.

constexpr int kIntfs = 2000;
constexpr int kPer = 5;  // 10,000 neighbours
const L3::VrfName kVrf("blue");

struct ReaderReport {
  bool converged = false;
  bool emptied = false;  // the mirror went empty after it had filled
  std::uint64_t all = 0, sparse = 0, wantAll = 0, wantSparse = 0;
  std::size_t neighbors = 0, wantNeighbors = 0, removedIntfTraces = 0;
};

// A reader process: the global reader and a sparse-mode filter, until the writer's end
// marker carries the digests of what the mirror and the filter hold (or the time is up).
[[noreturn]] void readerProcess(int fd) {
  auto clock = Kel::Ptr<Kel::SystemClock>::make();
  Ulm::EventLoop loop(clock);
  Ledra::EntityManager em;
  Flicklog::CaptureSink capture;
  P::statusReaderTrace().levelIs(4);
  auto global = Kel::Ptr<P::GlobalStatus>::make("global");
  auto all = Kel::Ptr<P::AllStatusColl>::make("all");
  auto sparse = Kel::Ptr<P::StatusColl>::make("sparse");
  auto reader =
      D::globalStatusReaderSmFactory(Nimo::AddressFamily::ipv4, global, all, true, clock, em, loop);
  auto filter = P::globalStatusModeFilterSmFactory(all, sparse, Mode::Sparse);
  global->pimEnabledSparseModeVrfIs(kVrf);
  PimTest::send(fd, 'r');
  ReaderReport r;
  bool filled = false;
  const Kel::Time deadline = clock->now() + 150.0;
  while (!r.converged && clock->now() < deadline) {
    loop.runOnce(0.05);
    const auto& mirror = *all->vrfStatus(kVrf);
    if (!filled && mirror.pimIntf().size() > 100) {
      filled = true;
      PimTest::send(fd, 'f');  // a writer may be killed now
    }
    if (!r.emptied && filled && mirror.pimIntf().empty()) {
      r.emptied = true;
      PimTest::send(fd, 'e');  // a successor may start
    }
    Kel::Ptr<P::Intf> done = mirror.pimIntf(IntfId("done"));
    if (!done) continue;
    r.wantAll = std::uint64_t{done->helloDelay()} << 32 | done->assertTimeout();
    r.wantSparse = std::uint64_t{done->drPriority()} << 32 | done->generationId();
    r.wantNeighbors = done->triggeredHelloCount();
    r.all = digestOf(mirror);
    r.sparse = digestOf(*sparse->vrfStatus(kVrf));
    r.converged = r.all == r.wantAll && r.sparse == r.wantSparse;
  }
  for (const auto& [id, i] : all->vrfStatus(kVrf)->pimIntf()) r.neighbors += i->neighbor().size();
  for (const auto& l : capture.lines()) {
    r.removedIntfTraces += l.text.find("(), Removing interface ") != std::string::npos;
  }
  PimTest::send(fd, r);
  ::_exit(0);
}

// A writer process: populates, churns, marks the end, and stays until told to go; with
// batches < 0 it churns until killed.
std::function<void(int)> writerProcess(std::uint64_t seed, int batches) {
  return [=](int fd) {
    auto st = D::statusFactory(D::Status::mountPath(Nimo::AddressFamily::ipv4, kVrf));
    if (!st->mountWriter()) ::_exit(3);
    Publisher pub(st, seed);
    pub.populate(kIntfs, kPer);
    PimTest::send(fd, pub.neighbors());
    if (batches < 0) {
      for (;;) pub.churn(1, kIntfs, kPer);
    }
    pub.churn(batches, kIntfs, kPer);
    pub.finish();
    PimTest::hold(fd);
    ::_exit(0);
  };
}

class StatusReaderCrossProcessTest : public ::testing::Test {
 protected:
  // The reader's report; `filled` is false when its fill notice was taken already.
  ReaderReport report(int reader, bool filled = true) {
    char f = 0;
    if (filled) {
      EXPECT_TRUE(PimTest::receive(reader, f, 160) && f == 'f');
    }
    ReaderReport r;
    EXPECT_TRUE(PimTest::receive(reader, r, 160));
    EXPECT_TRUE(r.converged);
    EXPECT_EQ(r.all, r.wantAll);
    EXPECT_EQ(r.sparse, r.wantSparse);
    EXPECT_EQ(r.neighbors, r.wantNeighbors);
    EXPECT_GT(r.wantNeighbors, 5000u);
    return r;
  }
  int startReader() {
    const int fd = children_.spawn(readerProcess);
    char c = 0;
    EXPECT_TRUE(PimTest::receive(fd, c, 30));
    return fd;
  }
  int startWriter(std::uint64_t seed, int batches) {
    const int fd = children_.spawn(writerProcess(seed, batches));
    std::size_t n = 0;
    EXPECT_TRUE(PimTest::receive(fd, n, 60));
    EXPECT_EQ(n, std::size_t{kIntfs * kPer});
    return fd;
  }
  PimTest::Children children_;
};

TEST_F(StatusReaderCrossProcessTest, AReaderStartedFirstConvergesThroughChurn) {
  const int reader = startReader();
  startWriter(1, 400);
  report(reader);
}

TEST_F(StatusReaderCrossProcessTest, AReaderStartedLateConvergesWithNoNeighbourLost) {
  startWriter(2, 400);
  report(startReader());
}

TEST_F(StatusReaderCrossProcessTest, AKilledWriterEmptiesTheMirrorAndItsSuccessorRefillsIt) {
  const int reader = startReader();
  const int victim = startWriter(3, -1);
  char filled = 0;
  ASSERT_TRUE(PimTest::receive(reader, filled, 60));
  EXPECT_EQ(filled, 'f');
  ::usleep(300000);  // churning: the kill lands between or inside commits
  EXPECT_EQ(children_.exitCode(victim, 30, true), -1);
  char emptied = 0;
  ASSERT_TRUE(PimTest::receive(reader, emptied, 30));
  EXPECT_EQ(emptied, 'e');
  startWriter(4, 200);
  const ReaderReport r = report(reader, false);
  EXPECT_TRUE(r.emptied);
  EXPECT_GE(r.removedIntfTraces, std::size_t{kIntfs});
}

// ---------------------------------------------------------------------------------------
// In this process: a writer's synchronous notices drive the reader directly.

class StatusReaderTest : public PimTest::TraceTest {
 public:
  void SetUp() override {
    TraceTest::SetUp();
    P::statusReaderTrace().levelIs(9);
    reset();
  }
  // Empty tables, an empty mirror and a fresh reader.
  void reset() {
    sm_ = nullptr;
    st_->unmount();
    ASSERT_TRUE(st_->mountWriter());
    all_->pimIntfDelAll();
    sm_ = D::statusReaderSmFactory(L3::VrfName("inproc"), all_, st_);
    sm_->enabledIs(true);
    clear();
  }
  void TearDown() override {
    P::statusReaderTrace().levelIs(0);
    TraceTest::TearDown();
  }
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    for (const auto& l : capture_.lines()) out.push_back(l.text);
    return out;
  }
  void intf(const char* id, Mode m = Mode::Sparse, bool border = false) {
    D::Intf r(IntfId(id), Nimo::IpGenAddrWithMask("10.0.0.1/24"));
    r.modeIs(m);
    r.borderRouterIs(border);
    ASSERT_TRUE(st_->pimIntfIs(r));
  }
  static D::NeighborKey nk(const char* a, const char* id) {
    return D::NeighborKey(IpGenAddr(a), IntfId(id));
  }
  void nbr(const char* a, const char* id) {
    ASSERT_TRUE(st_->neighborIs(D::Neighbor(nk(a, id), 105, P::DrPriorityOption(),
                                            P::GenerationIdOption(), P::LanPruneDelayOption())));
  }
  Kel::Ptr<P::Intf> mirror(const char* id) { return all_->pimIntf(IntfId(id)); }
  // Writes steps "op args" separated by ';'. Ops: intf I, nbr A I, inactive A I, nsec A I S,
  // sec I S, pfx I P; a leading '-' deletes (-intf I, -nbr A I, -inactive A I, -sec I S).
  void script(const std::string& text) {
    std::istringstream steps(text);
    for (std::string step; std::getline(steps, step, ';');) {
      std::istringstream in(step);
      std::string op, x, y, z;
      in >> op >> x >> y >> z;
      const bool del = op[0] == '-';
      if (del) op.erase(0, 1);
      auto k = [&] { return D::NeighborKey(IpGenAddr(x), IntfId(y)); };
      const D::IntfSecondaryAddressKey sec(IntfId(x), IpGenAddr(op == "sec" ? y : "0.0.0.0"));
      if (op == "intf") {
        del ? void(st_->pimIntfDel(IntfId(x))) : intf(x.c_str());
      } else if (op == "nbr") {
        del ? void(st_->neighborDel(k())) : nbr(x.c_str(), y.c_str());
      } else if (op == "inactive") {
        del ? void(st_->inactiveNeighborDel(k()))
            : void(st_->inactiveNeighborIs(D::NeighborRef(k())));
      } else if (op == "nsec") {
        st_->neighborSecondaryAddressIs(D::NeighborSecondaryAddress({k(), IpGenAddr(z)}));
      } else if (op == "sec") {
        del ? void(st_->intfSecondaryAddressDel(sec))
            : void(st_->intfSecondaryAddressIs(D::IntfSecondaryAddress(sec)));
      } else {
        ASSERT_EQ(op, "pfx");
        st_->intfSecondaryPrefixIs(D::IntfSecondaryPrefix({IntfId(x), Nimo::IpGenPrefix(y)}));
      }
    }
  }

  Kel::Ptr<D::Status> st_ = D::statusFactory("routing/pim/status/inproc");
  Kel::Ptr<P::AllStatus> all_ = Kel::Ptr<P::AllStatus>::make("inproc");
  Kel::Ptr<D::StatusReaderSm> sm_;
};

// A distinct non-default value of each attribute's type, so that a copy from the wrong
// field shows.
template <typename T>
T distinct(unsigned n) {
  if constexpr (std::is_same_v<T, bool>) {
    return true;
  } else if constexpr (std::is_arithmetic_v<T>) {
    return static_cast<T>(n);
  } else if constexpr (std::is_same_v<T, Mode>) {
    return Mode::Bidir;
  } else if constexpr (std::is_same_v<T, Nimo::IpGenAddrWithMask>) {
    return Nimo::IpGenAddrWithMask(fmt::format("10.1.0.{}/24", n));
  } else if constexpr (std::is_same_v<T, IpGenAddr>) {
    return IpGenAddr(fmt::format("10.1.1.{}", n));
  } else if constexpr (std::is_same_v<T, P::Reliable::CapabilityFlags>) {
    return P::Reliable::CapabilityFlags(true, false);
  } else {
    return P::Reliable::InterfaceId(n, n + 1);
  }
}

TEST_F(StatusReaderTest, EveryPublishedAttributeReachesTheMirror) {
  D::Intf r(IntfId("eth1"), Nimo::IpGenAddrWithMask("10.1.0.1/24"));
  unsigned n = 1;
#define PIM_TEST_SET(T, name, Name) r.name##Is(distinct<T>(++n));
  PIM_INTF_ATTRIBUTES(PIM_TEST_SET)
#undef PIM_TEST_SET
  ASSERT_TRUE(st_->pimIntfIs(r));
  Kel::Ptr<P::Intf> m = mirror("eth1");
  ASSERT_TRUE(m);
#define PIM_TEST_CHECK(T, name, Name)      \
  EXPECT_EQ(m->name(), r.name()) << #name; \
  EXPECT_NE(m->name(), T{}) << #name;
  PIM_INTF_ATTRIBUTES(PIM_TEST_CHECK)
#undef PIM_TEST_CHECK
  EXPECT_EQ(n, 31u);
}

// A reader process takes the collections' notices in whatever order its wake-ups give.
TEST_F(StatusReaderTest, NoNeighbourIsLostToTheOrderInWhichCollectionsArrive) {
  Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
  auto rd = D::statusFactory("routing/pim/status/inproc");
  rd->mountReader(loop);
  script(
      "intf eth1; nbr 10.0.0.2 eth1; nbr 10.0.0.3 eth1; inactive 10.0.0.3 eth1; "
      "nsec 10.0.0.2 eth1 2.2.2.2");
  st_->commit();
  // Started after the writer: one pass in dependency order.
  auto late = Kel::Ptr<P::AllStatus>::make("late");
  auto lateSm = D::statusReaderSmFactory(L3::VrfName("inproc"), late, rd);
  lateSm->enabledIs(true);
  EXPECT_EQ(lateSm->fullPasses(), 1u);
  // Running before: the neighbour's notice comes ahead of its interface's.
  auto early = Kel::Ptr<P::AllStatus>::make("early");
  st_->pimIntfDel(IntfId("eth1"));
  st_->commit();
  auto earlySm = D::statusReaderSmFactory(L3::VrfName("inproc"), early, rd);
  earlySm->enabledIs(true);
  intf("eth1");
  st_->commit();
  earlySm->handleNeighborSecondaryAddress({nk("10.0.0.2", "eth1"), IpGenAddr("2.2.2.2")});
  earlySm->handleInactiveNeighbor(nk("10.0.0.3", "eth1"));
  for (const auto& all : {late, early}) {
    Kel::Ptr<P::Intf> i = all->pimIntf(IntfId("eth1"));
    ASSERT_TRUE(i) << all->name().str();
    EXPECT_EQ(i->neighbor().size(), 2u) << all->name().str();
    EXPECT_EQ(i->activeNeighbor(), std::set<IpGenAddr>{IpGenAddr("10.0.0.2")});
    EXPECT_EQ(i->inactiveBfdNeighbor(), std::set<IpGenAddr>{IpGenAddr("10.0.0.3")});
    ASSERT_TRUE(i->neighbor(IpGenAddr("10.0.0.2")));
    EXPECT_EQ(i->neighbor(IpGenAddr("10.0.0.2"))->secondaryAddress.size(), 1u);
  }
  // A full pass takes what the table gained and drops what it lost while no notice came
  // (the loop does not run here).
  const D::IntfSecondaryAddressKey sec(IntfId("eth1"), IpGenAddr("1.1.1.1"));
  for (bool present : {true, false}) {
    present ? st_->intfSecondaryAddressIs(D::IntfSecondaryAddress(sec))
            : st_->intfSecondaryAddressDel(sec);
    st_->commit();
    lateSm->enabledIs(false);
    lateSm->enabledIs(true);
    EXPECT_EQ(late->pimIntf(IntfId("eth1"))->secondaryAddress().size(), present ? 1u : 0u);
  }
}

TEST_F(StatusReaderTest, EdgeCasesWithTheirTraces) {
  struct Row {
    const char* what;
    const char* script;
    std::vector<std::string> traces;  // expected among the lines, in order
    std::function<bool(StatusReaderTest&)> holds;
  };
  const std::string h = "StatusReaderSm::handle";
  const Row rows[] = {
      {"a neighbour of an unknown interface is dropped; the interface does not replay it",
       "nbr 10.0.0.9 eth9; intf eth9",
       {h + "Neighbor(), Unable to update neighbor 10.0.0.9.  Did not create interface eth9"},
       [](auto& t) { return t.mirror("eth9") && t.mirror("eth9")->neighbor().empty(); }},
      {"an inactive entry for an unknown interface",
       "inactive 10.0.0.3 eth8",
       {h + "InactiveNeighbor(), Unable to update inactive neighbor 10.0.0.3.  Did not create "
            "interface eth8"},
       nullptr},
      {"an inactive entry for an unknown neighbour",
       "intf eth1; inactive 10.0.0.3 eth1",
       {h + "InactiveNeighbor(), Unable to update inactive neighbor 10.0.0.3.  Did not create "
            "neighbor 10.0.0.3"},
       [](auto& t) { return t.mirror("eth1")->inactiveBfdNeighbor().empty(); }},
      {"a secondary address of an unknown interface",
       "sec eth7 1.1.1.1",
       {h + "IntfSecondaryAddress(), Unable to update secondary address 1.1.1.1.  No interface "
            "in drobe eth7"},
       nullptr},
      {"an inactive neighbour leaves the active set; its entry's removal restores it",
       "intf eth1; nbr 10.0.0.2 eth1; inactive 10.0.0.2 eth1; -inactive 10.0.0.2 eth1",
       {h + "Neighbor(), Adding neighbor 10.0.0.2 to interface eth1",
        h + "InactiveNeighbor(), Adding inactive neighbor 10.0.0.2 to interface eth1",
        h + "InactiveNeighbor(), Removing inactive neighbor 10.0.0.2 from interface eth1"},
       [](auto& t) {
         auto i = t.mirror("eth1");
         return i->activeNeighbor(IpGenAddr("10.0.0.2")) && i->inactiveBfdNeighbor().empty();
       }},
      {"an inactive neighbour then removed ends in no set",
       "intf eth1; nbr 10.0.0.2 eth1; inactive 10.0.0.2 eth1; -nbr 10.0.0.2 eth1; "
       "-inactive 10.0.0.2 eth1",
       {h + "Neighbor(), Removing neighbor 10.0.0.2 from interface eth1",
        h + "InactiveNeighbor(), Unable to update inactive neighbor 10.0.0.2.  Did not create "
            "neighbor 10.0.0.2"},
       [](auto& t) {
         auto i = t.mirror("eth1");
         return i->activeNeighbor().empty() && i->inactiveBfdNeighbor().empty() &&
                i->neighbor().empty();
       }},
      {"a removed interface takes its neighbours",
       "intf eth1; nbr 10.0.0.2 eth1; -intf eth1",
       {h + "Intf(), Removing interface eth1"},
       [](auto& t) { return t.all_->pimIntf().empty(); }},
      {"secondary addresses and prefixes come and go",
       "intf eth1; nbr 10.0.0.2 eth1; sec eth1 1.1.1.1; pfx eth1 9.9.0.0/16; "
       "nsec 10.0.0.2 eth1 2.2.2.2; -sec eth1 1.1.1.1",
       {h + "IntfSecondaryAddress(), Adding secondary address 1.1.1.1 to interface eth1",
        h + "IntfSecondaryAddress(), Removing secondary address 1.1.1.1 from interface eth1"},
       [](auto& t) {
         auto i = t.mirror("eth1");
         return i->secondaryAddress().empty() && i->secondaryPrefix().size() == 1 &&
                i->neighbor(IpGenAddr("10.0.0.2"))->secondaryAddress ==
                    std::set<IpGenAddr>{IpGenAddr("2.2.2.2")};
       }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    reset();
    script(row.script);
    const std::vector<std::string> got = lines();
    auto at = got.begin();
    for (const std::string& t : row.traces) {
      at = std::find(at, got.end(), t);
      EXPECT_NE(at, got.end()) << "missing or out of order: " << t;
    }
    if (row.holds) {
      EXPECT_TRUE(row.holds(*this));
    }
  }
}

TEST_F(StatusReaderTest, TheModeFilterTakesExactlyItsInterfacesAndFollowsModeChanges) {
  // Filter mode, then per interface mode 0-3 without and with borderRouter.
  const std::pair<Mode, std::array<bool, 8>> table[] = {
      {Mode::None, {0, 0, 0, 0, 0, 0, 0, 0}},
      {Mode::Sparse, {0, 1, 1, 1, 0, 1, 1, 1}},  // border router passes mode 1
      {Mode::Bidir, {0, 0, 0, 0, 1, 1, 1, 1}},   // and does not matter under 2
      {Mode::SparseBidir, {1, 1, 1, 1, 1, 1, 1, 1}},
  };
  for (int m = 0; m < 4; ++m) {
    for (int b = 0; b < 2; ++b) intf(fmt::format("e{}{}", m, b).c_str(), Mode(m), b);
  }
  for (int m = 0; m < 4; ++m) {
    for (int b = 0; b < 2; ++b) nbr("10.0.0.2", fmt::format("e{}{}", m, b).c_str());
  }
  for (const auto& [mode, want] : table) {
    SCOPED_TRACE(static_cast<int>(mode));
    auto out = Kel::Ptr<P::Status>::make("out");
    auto f = P::statusModeFilterSmFactory(L3::VrfName("inproc"), all_, out, mode);
    for (int m = 0; m < 4; ++m) {
      for (int b = 0; b < 2; ++b) {
        const IntfId id(fmt::format("e{}{}", m, b));
        EXPECT_EQ(out->intf(id) != nullptr, want[static_cast<std::size_t>(m * 2 + b)]) << id;
        EXPECT_EQ(out->activeNeighbor({id, IpGenAddr("10.0.0.2")}), out->intf(id) != nullptr);
      }
    }
  }
  // Under sparse mode, e10 switched to bidir leaves with its neighbour and comes back.
  auto out = Kel::Ptr<P::Status>::make("out");
  auto f = P::statusModeFilterSmFactory(L3::VrfName("inproc"), all_, out, Mode::Sparse);
  const P::ActiveNeighborKey k{IntfId("e10"), IpGenAddr("10.0.0.2")};
  clear();
  intf("e10", Mode::Bidir);
  EXPECT_FALSE(out->intf(k.intfId));
  EXPECT_FALSE(out->activeNeighbor(k));
  EXPECT_EQ(lines().back(), "StatusModeFilterSm::doMaybeUpdate( e10 ), Filtered out interface");
  script("inactive 10.0.0.2 e10; -inactive 10.0.0.2 e10");
  EXPECT_EQ(lines().back(),
            "StatusModeFilterSm::handleActiveNeighbor( e10, 10.0.0.2 ), Filtered out");
  intf("e10", Mode::Sparse);
  EXPECT_TRUE(out->intf(k.intfId));
  EXPECT_TRUE(out->activeNeighbor(k));
  // An inactive neighbour leaves the output; deleting the filter empties it.
  script("inactive 10.0.0.2 e10");
  EXPECT_FALSE(out->activeNeighbor(k));
  f = nullptr;
  EXPECT_TRUE(out->intf().empty());
  EXPECT_TRUE(out->activeNeighbor().empty());
}

TEST(StatusReaderVrfTest, AVrfHasAReaderWhileEnabledInEitherMode) {
  Flicklog::CaptureSink capture;
  P::statusReaderTrace().levelIs(4);
  auto clock = Kel::Ptr<Kel::SystemClock>::make();
  Ulm::EventLoop loop(clock);
  Ledra::EntityManager em;
  auto global = Kel::Ptr<P::GlobalStatus>::make("global");
  const L3::VrfName red("red"), green("green");
  global->pimEnabledBidirVrfIs(green);  // enabled before the reader: handled once at start
  auto all = Kel::Ptr<P::AllStatusColl>::make("all");
  auto reader =
      D::globalStatusReaderSmFactory(Nimo::AddressFamily::ipv6, global, all, true, clock, em, loop);
  auto out = Kel::Ptr<P::StatusColl>::make("out");
  auto filter = P::globalStatusModeFilterSmFactory(all, out, Mode::SparseBidir);
  EXPECT_TRUE(reader->statusReaderSm().count(green));
  EXPECT_TRUE(out->vrfStatus(green));
  const struct {
    std::function<void()> act;
    bool hasReader;
  } steps[] = {
      {[&] { global->pimEnabledSparseModeVrfIs(red); }, true},
      {[&] { global->pimEnabledBidirVrfIs(red); }, true},
      {[&] { global->pimEnabledSparseModeVrfDel(red); }, true},  // still bidir
      {[&] { global->pimEnabledBidirVrfDel(red); }, false},
  };
  for (const auto& s : steps) {
    s.act();
    EXPECT_EQ(reader->statusReaderSm().count(red) != 0, s.hasReader);
    EXPECT_EQ(all->vrfStatus(red) != nullptr, s.hasReader);
    EXPECT_EQ(out->vrfStatus(red) != nullptr, s.hasReader);
    EXPECT_EQ(em.mounted(D::Status::mountPath(Nimo::AddressFamily::ipv6, red)), s.hasReader);
  }
  std::vector<std::string> texts;
  for (const auto& l : capture.lines()) {
    if (l.text.find("Vrf( red )") != std::string::npos) texts.push_back(l.text);
  }
  const std::string h = "GlobalStatusReaderSm::handlePimEnabledVrf( red ), ";
  EXPECT_EQ(texts,
            (std::vector<std::string>{h + "Creating PIM status", h + "Mounted for reading",
                                      h + "Deleting PIM status", h + "Unmounted from reading"}));
  P::statusReaderTrace().levelIs(0);
}

}  // namespace
