// The status and counter containers: mount paths, the counting rule, the corruption hook,
// notifications, mounting through the state database, and the tables seen from other
// processes (forked writer and readers, a writer killed mid-update).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Pim/PimDrobe.h"
#include "Pim/PimDrobeIntf.h"

namespace {

using Nimo::AddressFamily;
using Nimo::IntfId;
using Nimo::IpGenAddr;
using Nimo::IpGenAddrWithMask;
using Routing::Pim::IO::MessageCounter;
using Routing::Pim::IO::MessageCounterDirection;
using Routing::Pim::IO::MessageCounterType;
namespace D = Routing::Pim::Drobe;
namespace N = Routing::Pim::IntfNghbr::Drobe;
namespace P = Routing::Pim;

// Every test runs on a private table root named with the pid, removed at the end.
class PrivateRoot : public ::testing::Environment {
 public:
  void SetUp() override {
    root_ = "/dev/shm/pimdrobe-test-" + std::to_string(::getpid());
    std::filesystem::create_directories(root_);
    ::setenv("DROBE_ROOT", root_.c_str(), 1);
  }
  void TearDown() override { std::filesystem::remove_all(root_); }

 private:
  std::string root_;
};
const auto* const kEnv = ::testing::AddGlobalTestEnvironment(new PrivateRoot);

// A fresh path per use, so that tests never meet each other's tables.
std::string uniquePath(std::string_view what) {
  static int n = 0;
  return "test/" + std::string(what) + "/" + std::to_string(++n);
}

// ---------------------------------------------------------------------------------------
// Mount paths.

TEST(PimDrobeMountPath, BothFamilies) {
  const L3::VrfName def("default"), red("red");
  struct Case {
    std::string path, expected;
  } cases[] = {
      {D::Status::mountPath(AddressFamily::ipv4, def), "routing/pim/status/default"},
      {D::Status::mountPath(AddressFamily::ipv6, def), "routing6/pim/status/default"},
      {D::MessageCounters::mountPath(AddressFamily::ipv4, red, "x"), "routing/pim/counters/red/x"},
      {D::MessageCounters::mountPath(AddressFamily::ipv6, red, "x"), "routing6/pim/counters/red/x"},
      {N::IntfStatus::mountPath(AddressFamily::ipv4), "routing/pim/intf/status"},
      {N::IntfStatus::mountPath(AddressFamily::ipv6), "routing6/pim/intf/status"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.path, c.expected);
}

TEST(PimDrobeMountPathDeathTest, UnsupportedFamilyAsserts) {
  const char* kText = "false && \"Unsupported address family\"";
  EXPECT_DEATH(D::Status::mountPath(AddressFamily::ipunknown, L3::VrfName("a")), kText);
  EXPECT_DEATH(D::MessageCounters::mountPath(static_cast<AddressFamily>(3), L3::VrfName("a"), "n"),
               kText);
  EXPECT_DEATH(N::IntfStatus::mountPath(static_cast<AddressFamily>(10)), kText);
}

TEST(PimDrobeMountPath, CounterWriterDeclaresOneCollectionOf7168) {
  const ::Drobe::MountInfo info = D::MessageCounters::writerMountInfo();
  ASSERT_EQ(info.collections.size(), 1u);
  EXPECT_EQ(info.collections[0].name, "msgCounter");
  EXPECT_EQ(info.collections[0].capacity, 7168u);
}

// ---------------------------------------------------------------------------------------
// The counting rule.

Kel::Ptr<D::MessageCounters> counterWriter() {
  auto c = D::messageCountersFactory(uniquePath("counters"));
  EXPECT_TRUE(c->mountWriter());
  return c;
}

TEST(PimDrobeCounting, NewKeyGetsFiveZerosAndAOne) {
  struct Case {
    MessageCounterDirection d;
    MessageCounterType t;
    MessageCounter rx, tx;
  } cases[] = {
      {MessageCounterDirection::rx, MessageCounterType::invalid, {1, 0, 0}, {}},
      {MessageCounterDirection::rx, MessageCounterType::filtered, {0, 1, 0}, {}},
      {MessageCounterDirection::rx, MessageCounterType::success, {0, 0, 1}, {}},
      {MessageCounterDirection::tx, MessageCounterType::invalid, {}, {1, 0, 0}},
      {MessageCounterDirection::tx, MessageCounterType::filtered, {}, {0, 1, 0}},
      {MessageCounterDirection::tx, MessageCounterType::success, {}, {0, 0, 1}},
  };
  auto c = counterWriter();
  std::uint8_t mtype = 0;
  for (const auto& cs : cases) {
    const D::CounterKey k(++mtype, 255, IntfId("Ethernet1"));
    ASSERT_FALSE(c->msgCounter(k));
    ASSERT_TRUE(c->msgCounterInc(k, cs.d, cs.t));
    EXPECT_EQ(c->msgCounter(k), D::MessageCounterData(k, cs.rx, cs.tx)) << int{mtype};
  }
}

TEST(PimDrobeCounting, RxAndTxCountApartAndKeysDifferingInSubtypeAreDistinct) {
  auto c = counterWriter();
  const IntfId e("Ethernet1");
  const D::CounterKey any(3, 255, e), sub0(3, 0, e), sub1(3, 1, e);
  for (int i = 0; i < 3; ++i)
    c->msgCounterInc(any, MessageCounterDirection::rx, MessageCounterType::success);
  c->msgCounterInc(any, MessageCounterDirection::tx, MessageCounterType::success);
  c->msgCounterInc(any, MessageCounterDirection::tx, MessageCounterType::filtered);
  c->msgCounterInc(sub0, MessageCounterDirection::rx, MessageCounterType::invalid);
  c->msgCounterInc(sub1, MessageCounterDirection::rx, MessageCounterType::invalid);
  c->msgCounterInc(sub1, MessageCounterDirection::rx, MessageCounterType::invalid);

  EXPECT_EQ(c->msgCounter(any), D::MessageCounterData(any, {0, 0, 3}, {0, 1, 1}));
  EXPECT_EQ(c->msgCounter(sub0), D::MessageCounterData(sub0, {1, 0, 0}, {}));
  EXPECT_EQ(c->msgCounter(sub1), D::MessageCounterData(sub1, {2, 0, 0}, {}));
  EXPECT_EQ(c->msgCounterSize(), 3u);
}

TEST(PimDrobeCounting, CorruptEntryIsReportedAndCountingRestartsFromZero) {
  Flicklog::CaptureSink capture;
  Routing::Pim::DrobeDetail::pimDrobeTrace().levelIs(1);
  auto c = counterWriter();
  const D::CounterKey k(1, 255, IntfId("Ethernet2"));
  for (int i = 0; i < 5; ++i)
    c->msgCounterInc(k, MessageCounterDirection::rx, MessageCounterType::success);
  const auto& w = c->msgCounterTable().writer();
  w->slotStateIsForTest(k, 0x77);  // scribbled state byte

  ASSERT_TRUE(c->msgCounterInc(k, MessageCounterDirection::rx, MessageCounterType::success));
  EXPECT_EQ(w->corrupt(), 1u);
  EXPECT_EQ(c->msgCounter(k), D::MessageCounterData(k, {0, 0, 1}, {}));
  bool traced = false;
  for (const auto& line : capture.lines()) {
    traced |= line.facility == "PimDrobe" && line.text.find("corrupt") != std::string::npos;
  }
  EXPECT_TRUE(traced);
}

// ---------------------------------------------------------------------------------------
// Notifications of a writer container (in-process notifiees are called synchronously).

struct Recorder : D::Status::NotifieeConst {
  using D::Status::NotifieeConst::onNeighbor;
  void onNeighbor(const D::NeighborKey& k) override { keys.push_back(k); }
  void onNeighbor() override { ++collections; }
  void onPimIntf(const IntfId& k) override { intfs.push_back(k); }
  std::vector<D::NeighborKey> keys;
  std::vector<IntfId> intfs;
  int collections = 0;
};

D::Neighbor neighbor(const D::NeighborKey& k, std::uint16_t hold) {
  return D::Neighbor(k, hold, P::DrPriorityOption(1), P::GenerationIdOption(2),
                     P::LanPruneDelayOption());
}

TEST(PimDrobeStatus, SettersNotifyOnlyOnChange) {
  auto s = D::statusFactory(uniquePath("status"));
  ASSERT_TRUE(s->mountWriter());
  Recorder r;
  r.notifierIs(s);
  const IntfId e("Ethernet1");
  const D::NeighborKey k(IpGenAddr("10.0.0.2"), e);

  EXPECT_TRUE(s->pimIntfIs(D::Intf(e, IpGenAddrWithMask("10.0.0.1/24"))));
  EXPECT_TRUE(s->neighborIs(neighbor(k, 105)));
  EXPECT_TRUE(s->neighborIs(neighbor(k, 105)));  // unchanged: no notice
  EXPECT_TRUE(s->neighborIs(neighbor(k, 90)));
  EXPECT_FALSE(s->neighborDel(D::NeighborKey(IpGenAddr("10.0.0.3"), e)));
  s->neighborNotify(k);
  EXPECT_TRUE(s->neighborDel(k));
  s->neighborIs(neighbor(k, 1));
  s->neighborDelAll();
  s->neighborDelAll();  // already empty: no notice

  EXPECT_EQ(r.intfs, std::vector<IntfId>{e});
  EXPECT_EQ(r.keys, (std::vector<D::NeighborKey>{k, k, k, k, k}));
  EXPECT_EQ(r.collections, 1);
  EXPECT_EQ(s->neighborSize(), 0u);
}

TEST(PimDrobeStatus, FullTableRefusesWithoutNotice) {
  auto s = D::statusFactory(uniquePath("status"));
  ASSERT_TRUE(s->mountWriter());
  Recorder r;
  r.notifierIs(s);
  for (std::uint32_t i = 0; i < D::Status::kPimIntfCapacity; ++i) {
    ASSERT_TRUE(s->pimIntfIs(D::Intf(IntfId("E" + std::to_string(i)), IpGenAddrWithMask())));
  }
  EXPECT_FALSE(s->pimIntfIs(D::Intf(IntfId("extra"), IpGenAddrWithMask())));
  EXPECT_EQ(r.intfs.size(), D::Status::kPimIntfCapacity);
}

TEST(PimDrobeStatus, MountInDependencyOrderCreatesTheTypedEntity) {
  Ledra::EntityManager em;
  const std::string path = uniquePath("em");
  auto e = D::mountInDependencyOrder(em, path, "Routing::Pim::Drobe::Status");
  ASSERT_TRUE(e);
  auto status = em.lookup<D::Status>(path);
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->writable());
  EXPECT_FALSE(D::mountInDependencyOrder(em, path, "Routing::Pim::Drobe::Status"));  // taken

  const std::string all = uniquePath("em");
  ASSERT_TRUE(D::mountInDependencyOrder(em, all, "Routing::Pim::IntfNghbr::Drobe::IntfStatus"));
  EXPECT_TRUE(em.lookup<N::IntfStatus>(all));
  EXPECT_FALSE(em.lookup<D::Status>(all));

  // A reader of the same set, in the same process, on a loop.
  Ledra::EntityManager readerEm;
  Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
  ASSERT_TRUE(D::mountInDependencyOrder(readerEm, path, "Routing::Pim::Drobe::Status", loop));
  auto reader = readerEm.lookup<D::Status>(path);
  ASSERT_TRUE(reader);
  EXPECT_FALSE(reader->writable());
  status->pimIntfIs(D::Intf(IntfId("Ethernet9"), IpGenAddrWithMask("10.9.0.1/16")));
  status->commit();
  for (int i = 0; i < 200 && !reader->pimIntf(IntfId("Ethernet9")); ++i) loop.runOnce(0.01);
  EXPECT_TRUE(reader->pimIntf(IntfId("Ethernet9")));
}

TEST(PimDrobeStatus, ReaderNotificationsNameTheChangedKeys) {
  const std::string path = uniquePath("notice");
  auto w = D::statusFactory(path);
  ASSERT_TRUE(w->mountWriter());
  const IntfId e("Ethernet1");
  std::vector<D::NeighborKey> keys;
  for (std::uint32_t i = 1; i <= 5; ++i) {
    keys.emplace_back(IpGenAddr::v4(0x0a000000u + i), e);
    w->neighborIs(neighbor(keys.back(), 100));
  }
  w->commit();

  Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
  auto r = D::statusFactory(path);
  r->mountReader(loop);
  struct Watch : Recorder {
    void onNeighborMountStatus(bool m) override { mounted = m; }
    bool mounted = false;
  } watch;
  watch.notifierIs(r);
  for (int i = 0; i < 200 && watch.collections == 0; ++i) loop.runOnce(0.01);
  EXPECT_TRUE(watch.mounted);
  EXPECT_EQ(r->neighborSize(), 5u);

  watch.collections = 0;
  w->neighborIs(neighbor(keys[1], 7));
  w->neighborDel(keys[3]);
  w->neighborNotify(keys[4]);
  w->commit();
  for (int i = 0; i < 200 && watch.keys.size() < 3; ++i) loop.runOnce(0.01);
  loop.runOnce(0.0);
  std::sort(watch.keys.begin(), watch.keys.end());
  EXPECT_EQ(watch.keys, (std::vector<D::NeighborKey>{keys[1], keys[3], keys[4]}));
  EXPECT_EQ(watch.collections, 0);
  EXPECT_EQ(r->neighbor(keys[1]), neighbor(keys[1], 7));
  EXPECT_FALSE(r->neighbor(keys[3]));

  w = nullptr;  // the writer retires its tables
  for (int i = 0; i < 200 && watch.mounted; ++i) loop.runOnce(0.01);
  EXPECT_FALSE(watch.mounted);
  EXPECT_EQ(r->neighborSize(), 0u);
}

TEST(PimDrobeStatusDeathTest, UnsupportedTableTypeAsserts) {
  Ledra::EntityManager em;
  EXPECT_DEATH(D::mountInDependencyOrder(em, "x/y", "Routing::Pim::Drobe::Nothing"),
               "Unsupported table type");
}

// ---------------------------------------------------------------------------------------
// Across processes. A forked writer publishes kNeighbors neighbours and keeps updating
// them in rounds; forked readers mirror the table from notifications alone and must end
// equal to the writer's final state, which every process computes from the same
// deterministic script. Records are self-checking: every field is derived from the
// neighbour's index and sequence number, so a torn copy (half of two writes) fails.

constexpr std::uint32_t kNeighbors = 10000;
constexpr std::uint32_t kIntfs = 16;
constexpr std::uint32_t kUpdatesPerRound = 300;
constexpr std::uint32_t kDeletesPerRound = 5;
const IntfId kDone("done");

std::uint32_t check(std::uint32_t i, std::uint32_t seq) {
  std::uint32_t h = i * 0x9e3779b1u ^ seq * 0x85ebca6bu;
  return h ^ (h >> 15);
}

D::NeighborKey keyOf(std::uint32_t i) {
  return D::NeighborKey(IpGenAddr::v4(0x0a000000u + i),
                        IntfId("Ethernet" + std::to_string(i % kIntfs)));
}

D::Neighbor record(std::uint32_t i, std::uint32_t seq) {
  const std::uint32_t c = check(i, seq);
  D::Neighbor n(
      keyOf(i), static_cast<std::uint16_t>(seq), P::DrPriorityOption(seq), P::GenerationIdOption(c),
      P::LanPruneDelayOption(static_cast<std::uint16_t>(c), static_cast<std::uint16_t>(c >> 16)));
  n.creationTimeIs(i);
  n.lastRefreshTimeIs(seq);
  n.portInfoIs(P::Reliable::NeighborInfo(IpGenAddr::v4(c), {}, P::Reliable::InterfaceId(~c, i)));
  return n;
}

// The index the record claims, if every field agrees with it; nullopt for a torn record.
std::optional<std::uint32_t> selfCheck(const D::Neighbor& n) {
  const std::uint32_t i = n.key().address().v4Addr() - 0x0a000000u;
  const auto seq = static_cast<std::uint32_t>(n.lastRefreshTime());
  if (i >= kNeighbors || !(record(i, seq) == n)) return std::nullopt;
  return i;
}

// The script: the initial fill, then per round some updates, a few deletions, and the
// re-insertion of the previous round's deletions. model maps index -> sequence number.
using Model = std::map<std::uint32_t, std::uint32_t>;
template <typename Put, typename Del>
void runRound(std::uint32_t r, Model& m, Put put, Del del) {
  if (r == 0) {
    for (std::uint32_t i = 0; i < kNeighbors; ++i) put(i, m[i] = 1);
    return;
  }
  for (std::uint32_t t = 0; t < kDeletesPerRound; ++t) {  // back from the last round
    const std::uint32_t i = ((r - 1) * 613 + t * 2713) % kNeighbors;
    if (!m.count(i)) put(i, m[i] = r * 1000);
  }
  for (std::uint32_t j = 0; j < kUpdatesPerRound; ++j) {
    const std::uint32_t i = (r * 7919 + j * 104729) % kNeighbors;
    if (m.count(i)) put(i, m[i] = r * 1000 + j + 1);
  }
  for (std::uint32_t t = 0; t < kDeletesPerRound; ++t) {
    const std::uint32_t i = (r * 613 + t * 2713) % kNeighbors;
    if (m.erase(i)) del(i);
  }
}

Model finalModel(std::uint32_t rounds) {
  Model m;
  for (std::uint32_t r = 0; r <= rounds; ++r)
    runRound(
        r, m, [](auto, auto) {}, [](auto) {});
  return m;
}

// Writer child: runs rounds 0..rounds1, committing each, marks "done" (drPriority =
// rounds1); then, given `go`, waits for a byte on it and runs rounds2 more rounds the same
// way. Then it waits for the parent to close `hold`. After round `tellAfter` it writes one
// byte to `tell`.
struct WriterScript {
  std::uint32_t rounds1 = 0, rounds2 = 0;
  int hold = -1, go = -1, tell = -1;
  std::uint32_t tellAfter = 0;
};

[[noreturn]] void writerChild(const std::string& path, const WriterScript& w) {
  auto s = D::statusFactory(path);
  if (!s->mountWriter()) _exit(3);
  for (std::uint32_t i = 0; i < kIntfs; ++i) {
    s->pimIntfIs(D::Intf(IntfId("Ethernet" + std::to_string(i)), IpGenAddrWithMask()));
  }
  s->commit();
  Model m;
  auto run = [&](std::uint32_t from, std::uint32_t to) {
    for (std::uint32_t r = from; r <= to; ++r) {
      runRound(
          r, m, [&](std::uint32_t i, std::uint32_t seq) { s->neighborIs(record(i, seq)); },
          [&](std::uint32_t i) { s->neighborDel(keyOf(i)); });
      s->commit();
      if (r == w.tellAfter && w.tell >= 0) (void)!::write(w.tell, "x", 1);
    }
    D::Intf done(kDone, IpGenAddrWithMask());
    done.drPriorityIs(to);
    s->pimIntfIs(done);
    s->commit();
  };
  char c;
  run(0, w.rounds1);
  if (w.go >= 0 && ::read(w.go, &c, 1) == 1) run(w.rounds1 + 1, w.rounds1 + w.rounds2);
  while (::read(w.hold, &c, 1) > 0) {
  }
  _exit(0);
}

// Reader child: mirrors neighbours from notifications. Phase 1: converge to the model of
// rounds1 after its "done" (whatever mix of key notices and resyncs it takes). With
// rounds2, it then says so on `progress` and must converge to the model of
// rounds1 + rounds2 through key notices alone: those rounds are small enough for the
// change ring, so a resync there would mean lost keys. Exit 0 on success, 1 on a torn
// or foreign record, 2 on timeout, 3 on a resync in phase 2.
class Mirror : public D::Status::NotifieeConst {
 public:
  explicit Mirror(Kel::Ptr<D::Status> s) : s_(std::move(s)) { notifierIs(s_); }
  void onNeighbor(const D::NeighborKey& k) override {
    ++keyNotices;
    take(k, s_->neighbor(k));
  }
  void onNeighbor() override {
    ++resyncs;
    mirror.clear();
    s_->neighborForEach([&](const D::Neighbor& n) { take(n.key(), n); });
  }
  void onNeighborMountStatus(bool m) override { mountChanges += m ? 1 : 100; }
  void onPimIntf(const IntfId& k) override {
    if (k == kDone) checkDone();
  }
  void onPimIntf() override { checkDone(); }
  void checkDone() {
    auto d = s_->pimIntf(kDone);
    doneRounds = d ? d->drPriority() : 0;
  }

  std::map<std::uint32_t, std::uint32_t> mirror;
  std::uint32_t doneRounds = 0;
  int bad = 0, keyNotices = 0, resyncs = 0, mountChanges = 0;

 private:
  void take(const D::NeighborKey& k, const std::optional<D::Neighbor>& n) {
    const std::uint32_t i = k.address().v4Addr() - 0x0a000000u;
    if (i >= kNeighbors || keyOf(i) != k) {
      ++bad;  // a notice for a key the writer never had
      return;
    }
    if (!n) {
      mirror.erase(i);
      return;
    }
    auto idx = selfCheck(*n);
    if (!idx || *idx != i) {
      ++bad;
      return;
    }
    mirror[i] = static_cast<std::uint32_t>(n->lastRefreshTime());
  }
  Kel::Ptr<D::Status> s_;
};

[[noreturn]] void readerChild(const std::string& path, std::uint32_t rounds1, std::uint32_t rounds2,
                              int ready, int progress) {
  Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
  auto s = D::statusFactory(path);
  s->mountReader(loop);
  Mirror m(s);
  (void)!::write(ready, "r", 1);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(150);
  auto converge = [&](std::uint32_t rounds) {
    const Model expected = finalModel(rounds);
    while (std::chrono::steady_clock::now() < deadline && !m.bad) {
      loop.runOnce(0.05);
      if (m.doneRounds == rounds && m.mirror == expected) return true;
    }
    std::fprintf(stderr, "reader %d: bad %d, keys %d, resyncs %d, mounts %d, done %u, %zu/%zu\n",
                 ::getpid(), m.bad, m.keyNotices, m.resyncs, m.mountChanges, m.doneRounds,
                 m.mirror.size(), expected.size());
    return false;
  };
  if (!converge(rounds1)) _exit(m.bad ? 1 : 2);
  if (rounds2 == 0) _exit(0);
  (void)!::write(progress, "c", 1);
  const int resyncs = m.resyncs, keys = m.keyNotices;
  if (!converge(rounds1 + rounds2)) _exit(m.bad ? 1 : 2);
  _exit(m.resyncs == resyncs && m.keyNotices > keys ? 0 : 3);
}

// Waits for pid at most `seconds`; kills it (our own child) on timeout. Returns the exit
// code, or -1 if it had to be killed or died by a signal.
int waitChild(pid_t pid, int seconds) {
  int status = 0;
  for (int i = 0; i < seconds * 100; ++i) {
    const pid_t r = ::waitpid(pid, &status, WNOHANG);
    if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, &status, 0);
  return -1;
}

struct Pipe {
  int fd[2] = {-1, -1};
  Pipe() { EXPECT_EQ(::pipe(fd), 0); }
  ~Pipe() {
    closeRead();
    closeWrite();
  }
  void closeRead() {
    if (fd[0] >= 0) ::close(fd[0]);
    fd[0] = -1;
  }
  void closeWrite() {
    if (fd[1] >= 0) ::close(fd[1]);
    fd[1] = -1;
  }
  bool readByte(int seconds) {
    ::fcntl(fd[0], F_SETFL, O_NONBLOCK);
    char c;
    for (int i = 0; i < seconds * 100; ++i) {
      if (::read(fd[0], &c, 1) == 1) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
};

template <typename F>
pid_t forkChild(F body) {
  const pid_t pid = ::fork();
  if (pid == 0) body();  // never returns
  return pid;
}

std::vector<pid_t> startReaders(const std::string& path, std::uint32_t rounds1,
                                std::uint32_t rounds2, int progress) {
  std::vector<pid_t> readers;
  for (int i = 0; i < 2; ++i) {
    Pipe ready;
    readers.push_back(
        forkChild([&] { readerChild(path, rounds1, rounds2, ready.fd[1], progress); }));
    EXPECT_TRUE(ready.readByte(30));
  }
  return readers;
}

TEST(PimDrobeCrossProcess, ReadersConvergeToTheWritersState) {
  const std::string path = uniquePath("xproc");
  Pipe hold, go, progress;
  const auto readers = startReaders(path, 40, 2, progress.fd[1]);  // before the writer
  const pid_t writer = forkChild([&] {
    hold.closeWrite();
    go.closeWrite();
    writerChild(path, {.rounds1 = 40, .rounds2 = 2, .hold = hold.fd[0], .go = go.fd[0]});
  });
  hold.closeRead();
  go.closeRead();
  // Phase 2 starts once both readers hold the phase-1 state.
  EXPECT_TRUE(progress.readByte(150) && progress.readByte(150));
  EXPECT_EQ(::write(go.fd[1], "g", 1), 1);
  for (pid_t r : readers) EXPECT_EQ(waitChild(r, 180), 0) << "reader " << r;
  hold.closeWrite();  // lets the writer go
  EXPECT_EQ(waitChild(writer, 30), 0);
}

TEST(PimDrobeCrossProcess, ReadersResyncAfterTheWriterIsKilled) {
  const std::string path = uniquePath("crash");
  constexpr std::uint32_t kFinalRounds = 7;
  Pipe hold, tell;
  // The first writer would run far longer than the test; it is killed mid-update.
  const pid_t first = forkChild([&] {
    hold.closeWrite();
    tell.closeRead();
    writerChild(path,
                {.rounds1 = 1000000, .hold = hold.fd[0], .tell = tell.fd[1], .tellAfter = 20});
  });
  tell.closeWrite();
  const auto readers = startReaders(path, kFinalRounds, 0, -1);
  ASSERT_TRUE(tell.readByte(60));
  ::kill(first, SIGKILL);
  EXPECT_EQ(waitChild(first, 30), -1);

  const pid_t second = forkChild([&] {
    hold.closeWrite();
    writerChild(path, {.rounds1 = kFinalRounds, .hold = hold.fd[0]});
  });
  hold.closeRead();
  for (pid_t r : readers) EXPECT_EQ(waitChild(r, 180), 0) << "reader " << r;
  hold.closeWrite();
  EXPECT_EQ(waitChild(second, 30), 0);
}

}  // namespace
