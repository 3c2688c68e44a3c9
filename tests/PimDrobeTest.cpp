// The status and counter containers: mount paths, counting rule, corruption hook, notices,
// mounting by type, and the tables seen from other processes (a writer killed mid-update).
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Pim/PimDrobe.h"
#include "Pim/PimDrobeIntf.h"

namespace {

using Nimo::AddressFamily;
using Nimo::IntfId;
using Nimo::IpGenAddr;
using Nimo::IpGenAddrWithMask;
namespace D = Routing::Pim::Drobe;
namespace N = Routing::Pim::IntfNghbr::Drobe;
namespace P = Routing::Pim;
using enum P::IO::MessageCounterDirection;  // rx, tx
using enum P::IO::MessageCounterType;       // invalid, filtered, success

// Every test runs on a private table root named with the pid, removed at the end.
struct PrivateRoot : ::testing::Environment {
  const std::string root = "/dev/shm/pimdrobe-test-" + std::to_string(::getpid());
  void SetUp() override {
    std::filesystem::create_directories(root);
    ::setenv("DROBE_ROOT", root.c_str(), 1);
  }
  void TearDown() override { std::filesystem::remove_all(root); }
};
const auto* const kEnv = ::testing::AddGlobalTestEnvironment(new PrivateRoot);

// A fresh path per use, so that tests never meet each other's tables.
std::string uniquePath(std::string_view what) {
  static int n = 0;
  return "test/" + std::string(what) + "/" + std::to_string(++n);
}

// Records derived from an index and a sequence number in every field, so that a torn copy
// (half of two writes) differs from the record of its own index and sequence number.
constexpr std::uint32_t kNeighbors = 10000;

D::NeighborKey keyOf(std::uint32_t i) {
  return D::NeighborKey(IpGenAddr::v4(0x0a000000u + i),
                        IntfId("Ethernet" + std::to_string(i % 16)));
}

D::Neighbor record(std::uint32_t i, std::uint32_t seq) {
  std::uint32_t c = i * 0x9e3779b1u ^ seq * 0x85ebca6bu;
  c ^= c >> 15;
  D::Neighbor n(
      keyOf(i), static_cast<std::uint16_t>(seq), P::DrPriorityOption(seq), P::GenerationIdOption(c),
      P::LanPruneDelayOption(static_cast<std::uint16_t>(c), static_cast<std::uint16_t>(c >> 16)));
  n.creationTimeIs(i);
  n.lastRefreshTimeIs(seq);
  n.portInfoIs(P::Reliable::NeighborInfo(IpGenAddr::v4(c), {}, P::Reliable::InterfaceId(~c, i)));
  return n;
}

TEST(PimDrobeMountPath, BothFamiliesAndVrfBeforeName) {
  const L3::VrfName def("default"), red("red");
  const auto v4 = AddressFamily::ipv4, v6 = AddressFamily::ipv6;
  EXPECT_EQ(D::Status::mountPath(v4, def), "routing/pim/status/default");
  EXPECT_EQ(D::Status::mountPath(v6, def), "routing6/pim/status/default");
  EXPECT_EQ(D::MessageCounters::mountPath(v4, red, "x"), "routing/pim/counters/red/x");
  EXPECT_EQ(D::MessageCounters::mountPath(v6, red, "x"), "routing6/pim/counters/red/x");
  EXPECT_EQ(N::IntfStatus::mountPath(v4), "routing/pim/intf/status");
  EXPECT_EQ(N::IntfStatus::mountPath(v6), "routing6/pim/intf/status");
}

TEST(PimDrobeMountPath, VrfNamesThatCouldLeaveTheTableRootAreRefused) {
  const std::pair<std::string, std::string_view> bad[] = {
      {std::string(64, 'v'), L3::VrfName::kRangeErrorText},
      {"a/b", L3::VrfName::kBadByteErrorText},
      {"/", L3::VrfName::kBadByteErrorText},
      {"tab\there", L3::VrfName::kBadByteErrorText},
      {"del\x7f", L3::VrfName::kBadByteErrorText},
  };
  for (const auto& [name, text] : bad) {
    try {
      L3::VrfName v(name);
      ADD_FAILURE() << "accepted " << name;
    } catch (const Kel::RangeError& e) {
      EXPECT_EQ(e.what(), text);
    }
  }
  EXPECT_EQ(L3::VrfName(std::string(63, 'v')).name().size(), 63u);
  // ".." is a name like any other, but not a place to mount tables.
  auto s = D::statusFactory(D::Status::mountPath(AddressFamily::ipv4, L3::VrfName("..")));
  EXPECT_FALSE(s->mountWriter());
}

TEST(PimDrobeDeathTest, UnsupportedFamilyOrTableTypeAsserts) {
  const char* kText = "false && \"Unsupported address family\"";
  const L3::VrfName a("a");
  EXPECT_DEATH(D::Status::mountPath(AddressFamily::ipunknown, a), kText);
  EXPECT_DEATH(D::MessageCounters::mountPath(static_cast<AddressFamily>(3), a, "n"), kText);
  EXPECT_DEATH(N::IntfStatus::mountPath(static_cast<AddressFamily>(10)), kText);
  Ledra::EntityManager em;
  EXPECT_DEATH(D::mountInDependencyOrder(em, "x/y", "Routing::Pim::Drobe::Nothing"),
               "Unsupported table type");
}

TEST(PimDrobeCounting, NewKeyGetsFiveZerosAndAOneRxTxAndSubtypesApart) {
  auto c = D::messageCountersFactory(uniquePath("counters"));
  ASSERT_TRUE(c->mountWriter());
  const IntfId e("Ethernet1");
  std::uint8_t mtype = 10;
  for (auto d : {rx, tx}) {
    for (auto t : {invalid, filtered, success}) {
      const D::CounterKey k(++mtype, 255, e);
      ASSERT_FALSE(c->msgCounter(k));
      ASSERT_TRUE(c->msgCounterInc(k, d, t));
      const P::IO::MessageCounter one(t == invalid, t == filtered, t == success), zero;
      EXPECT_EQ(c->msgCounter(k),
                D::MessageCounterData(k, d == rx ? one : zero, d == tx ? one : zero));
    }
  }
  const D::CounterKey any(3, 255, e), sub0(3, 0, e), sub1(3, 1, e);
  for (int i = 0; i < 3; ++i) c->msgCounterInc(any, rx, success);
  c->msgCounterInc(any, tx, success);
  c->msgCounterInc(any, tx, filtered);
  c->msgCounterInc(sub0, rx, invalid);
  c->msgCounterInc(sub1, rx, invalid);
  c->msgCounterInc(sub1, rx, invalid);
  EXPECT_EQ(c->msgCounter(any), D::MessageCounterData(any, {0, 0, 3}, {0, 1, 1}));
  EXPECT_EQ(c->msgCounter(sub0), D::MessageCounterData(sub0, {1, 0, 0}, {}));
  EXPECT_EQ(c->msgCounter(sub1), D::MessageCounterData(sub1, {2, 0, 0}, {}));
  EXPECT_EQ(c->msgCounterSize(), 9u);
}

TEST(PimDrobeCounting, CorruptEntryIsReportedAndCountingRestartsFromZero) {
  Flicklog::CaptureSink capture;
  P::DrobeDetail::pimDrobeTrace().levelIs(1);
  auto c = D::messageCountersFactory(uniquePath("counters"));
  ASSERT_TRUE(c->mountWriter());
  const D::CounterKey k(1, 255, IntfId("Ethernet2"));
  for (int i = 0; i < 5; ++i) c->msgCounterInc(k, rx, success);
  const auto& w = c->msgCounterTable().writer();
  w->slotStateIsForTest(k, 0x77);  // scribbled state byte
  ASSERT_TRUE(c->msgCounterInc(k, rx, success));
  EXPECT_EQ(w->corrupt(), 1u);
  EXPECT_EQ(c->msgCounter(k), D::MessageCounterData(k, {0, 0, 1}, {}));
  EXPECT_TRUE(std::ranges::any_of(capture.lines(), [](const auto& line) {
    return line.facility == "PimDrobe" && line.text.find("corrupt") != std::string::npos;
  }));
}

struct Recorder : D::Status::NotifieeConst {
  void onNeighbor(const D::NeighborKey& k) override { keys.push_back(k); }
  void onNeighbor() override { ++collections; }
  void onNeighborMountStatus(bool m) override { mounted = m; }
  void onPimIntf(const IntfId& k) override { intfs.push_back(k); }
  std::vector<D::NeighborKey> keys;
  std::vector<IntfId> intfs;
  int collections = 0;
  bool mounted = false;
};

TEST(PimDrobeStatus, SettersNotifyOnlyOnChangeAndAFullTableRefusesWithoutNotice) {
  auto s = D::statusFactory(uniquePath("status"));
  ASSERT_TRUE(s->mountWriter());
  Recorder r;
  r.notifierIs(s);
  const IntfId e("Ethernet1");
  const D::NeighborKey k = keyOf(2);
  EXPECT_TRUE(s->pimIntfIs(D::Intf(e, IpGenAddrWithMask("10.0.0.1/24"))));
  EXPECT_TRUE(s->neighborIs(record(2, 105)));
  EXPECT_TRUE(s->neighborIs(record(2, 105)));  // unchanged: no notice
  EXPECT_TRUE(s->neighborIs(record(2, 90)));
  EXPECT_FALSE(s->neighborDel(keyOf(3)));
  s->neighborNotify(k);
  EXPECT_TRUE(s->neighborDel(k));
  s->neighborIs(record(2, 1));
  s->neighborDelAll();
  s->neighborDelAll();  // already empty: no notice
  EXPECT_EQ(r.intfs, std::vector<IntfId>{e});
  EXPECT_EQ(r.keys, (std::vector<D::NeighborKey>{k, k, k, k, k}));
  EXPECT_EQ(r.collections, 1);
  EXPECT_EQ(s->neighborSize(), 0u);
  for (std::uint32_t i = 1; i < D::Status::kPimIntfCapacity; ++i) {
    ASSERT_TRUE(s->pimIntfIs(D::Intf(IntfId("E" + std::to_string(i)), IpGenAddrWithMask())));
  }
  EXPECT_FALSE(s->pimIntfIs(D::Intf(IntfId("extra"), IpGenAddrWithMask())));
  EXPECT_EQ(r.intfs.size(), D::Status::kPimIntfCapacity);
}

TEST(PimDrobeStatus, MountInDependencyOrderCreatesTheTypedEntity) {
  Ledra::EntityManager em;
  const std::string path = uniquePath("em");
  ASSERT_TRUE(D::mountInDependencyOrder(em, path, "Routing::Pim::Drobe::Status"));
  ASSERT_TRUE(em.lookup<D::Status>(path));
  EXPECT_TRUE(em.lookup<D::Status>(path)->writable());
  EXPECT_FALSE(D::mountInDependencyOrder(em, path, "Routing::Pim::Drobe::Status"));  // taken
  const std::string all = uniquePath("em");
  ASSERT_TRUE(D::mountInDependencyOrder(em, all, "Routing::Pim::IntfNghbr::Drobe::IntfStatus"));
  EXPECT_TRUE(em.lookup<N::IntfStatus>(all));
  EXPECT_FALSE(em.lookup<D::Status>(all));
}

TEST(PimDrobeStatus, RecordsOfTheSameSizeButAnotherLayoutAreRefused) {
  static_assert(sizeof(D::NeighborRef) == sizeof(D::IntfSecondaryAddress));
  const std::string path = uniquePath("layout");
  auto w = D::statusFactory(path);
  ASSERT_TRUE(w->mountWriter());
  Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
  ::Drobe::trace().levelIs(1);
  Flicklog::CaptureSink cap;
  auto wrong = ::Drobe::Reader<D::IntfSecondaryAddressKey, D::IntfSecondaryAddress>::create(
      loop, path, "inactiveNeighbor");
  auto right =
      ::Drobe::Reader<D::NeighborKey, D::NeighborRef>::create(loop, path, "inactiveNeighbor");
  EXPECT_FALSE(wrong->mounted());
  EXPECT_TRUE(right->mounted());
  ASSERT_EQ(cap.lines().size(), 1u);
  EXPECT_NE(cap.lines()[0].text.find("inactiveNeighbor: written with another record layout"),
            std::string::npos)
      << cap.lines()[0].text;
}

// Resident bytes of this process (shared pages it touched included).
std::uint64_t residentBytes() {
  std::ifstream in("/proc/self/smaps_rollup");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("Rss:", 0) == 0) return std::stoull(line.substr(4)) * 1024;
  }
  return 0;
}

TEST(PimDrobeStatus, AnEmptySetCostsKilobytesAndEntriesCostTheirPages) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "resident bytes under ASan count its own shadow and allocator pages";
#endif
  const std::uint64_t before = residentBytes();
  auto s = D::statusFactory(uniquePath("footprint"));
  ASSERT_TRUE(s->mountWriter());
  s->commit();
  const std::uint64_t empty = residentBytes() - before;
  for (std::uint32_t i = 0; i < 1000; ++i) ASSERT_TRUE(s->neighborIs(record(i, 1)));
  s->commit();
  const std::uint64_t thousand = residentBytes() - before;
  std::printf("resident: empty Status set %llu bytes, with 1000 neighbours %llu bytes\n",
              static_cast<unsigned long long>(empty), static_cast<unsigned long long>(thousand));
  // Slots constructed at mount cost about 32 MB here, empty or not.
  EXPECT_LT(empty, 1u << 20);
  EXPECT_LT(thousand, 16u << 20);
}

TEST(PimDrobeStatus, ReaderNotificationsNameTheChangedKeys) {
  const std::string path = uniquePath("notice");
  auto w = D::statusFactory(path);
  ASSERT_TRUE(w->mountWriter());
  for (std::uint32_t i = 0; i < 5; ++i) w->neighborIs(record(i, 100));
  w->commit();
  Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
  Ledra::EntityManager em;  // a reader of the same set, mounted by type on the loop
  ASSERT_TRUE(D::mountInDependencyOrder(em, path, "Routing::Pim::Drobe::Status", loop));
  auto r = em.lookup<D::Status>(path);
  ASSERT_TRUE(r);
  EXPECT_FALSE(r->writable());
  Recorder watch;
  watch.notifierIs(r);
  for (int i = 0; i < 200 && watch.collections == 0; ++i) loop.runOnce(0.01);
  EXPECT_TRUE(watch.mounted);
  EXPECT_EQ(r->neighborSize(), 5u);
  watch.collections = 0;
  w->neighborIs(record(1, 7));
  w->neighborDel(keyOf(3));
  w->neighborNotify(keyOf(4));
  w->commit();
  for (int i = 0; i < 200 && watch.keys.size() < 3; ++i) loop.runOnce(0.01);
  loop.runOnce(0.0);
  std::sort(watch.keys.begin(), watch.keys.end());
  EXPECT_EQ(watch.keys, (std::vector<D::NeighborKey>{keyOf(1), keyOf(3), keyOf(4)}));
  EXPECT_EQ(watch.collections, 0);
  EXPECT_EQ(r->neighbor(keyOf(1)), record(1, 7));
  EXPECT_FALSE(r->neighbor(keyOf(3)));
  w = nullptr;  // the writer retires its tables
  for (int i = 0; i < 200 && watch.mounted; ++i) loop.runOnce(0.01);
  EXPECT_FALSE(watch.mounted);
  EXPECT_EQ(r->neighborSize(), 0u);
}

// Across processes: readers mirror kNeighbors neighbours from notifications alone and must
// reach the model that every process computes from one script, never seeing a torn record.
// Round 0 fills the table; later ones re-insert the last round's 5 deletions, update up to
// 300 neighbours and delete 5. m: index -> sequence number; s, if given, gets the same.
using Model = std::map<std::uint32_t, std::uint32_t>;
const IntfId kDone("done");
void runRound(std::uint32_t r, Model& m, D::Status* s = nullptr) {
  auto put = [&](std::uint32_t i, std::uint32_t seq) {
    m[i] = seq;
    if (s) s->neighborIs(record(i, seq));
  };
  auto deleted = [](std::uint32_t q, std::uint32_t t) { return (q * 613 + t * 2713) % kNeighbors; };
  if (r == 0) {
    for (std::uint32_t i = 0; i < kNeighbors; ++i) put(i, 1);
    return;
  }
  for (std::uint32_t t = 0; t < 5; ++t)
    if (const auto i = deleted(r - 1, t); !m.count(i)) put(i, r * 1000);
  for (std::uint32_t j = 0; j < 300; ++j)
    if (const auto i = (r * 7919 + j * 104729) % kNeighbors; m.count(i)) put(i, r * 1000 + j + 1);
  for (std::uint32_t t = 0; t < 5; ++t)
    if (const auto i = deleted(r, t); m.erase(i) && s) s->neighborDel(keyOf(i));
}

Model finalModel(std::uint32_t rounds) {
  Model m;
  for (std::uint32_t r = 0; r <= rounds; ++r) runRound(r, m);
  return m;
}

// Blocks until a byte arrives on fd, at most `seconds`; false on timeout or end of file.
bool waitByte(int fd, int seconds) {
  pollfd p{fd, POLLIN, 0};
  char c;
  return fd >= 0 && ::poll(&p, 1, seconds * 1000) == 1 && ::read(fd, &c, 1) == 1;
}
void sendByte(int fd) { (void)!::write(fd, "x", 1); }

// Rounds from..to on s, each committed, then "done" with the last; a byte to `tell` after 20.
void writeRounds(D::Status& s, Model& m, std::uint32_t from, std::uint32_t to, int tell = -1) {
  for (std::uint32_t r = from; r <= to; ++r) {
    runRound(r, m, &s);
    s.commit();
    if (r == 20) sendByte(tell);
  }
  D::Intf done(kDone, IpGenAddrWithMask());
  done.drPriorityIs(to);
  s.pimIntfIs(done);
  s.commit();
}

// A reader's copy of the neighbours, kept from notifications alone; `bad` counts keys the
// writer never had and torn records.
struct Mirror : D::Status::NotifieeConst {
  explicit Mirror(Kel::Ptr<D::Status> status) : s(std::move(status)) { notifierIs(s); }
  void onNeighbor(const D::NeighborKey& k) override { take(k, s->neighbor(k)); }
  void onNeighbor() override {
    ++resyncs;
    mirror.clear();
    s->neighborForEach([&](const D::Neighbor& n) { take(n.key(), n); });
  }
  // "done" comes from its notice like the rest: read from the table, it could be seen before
  // the reader caught up with the ring, and phase 2 then met a resync now and then.
  void onPimIntf(const IntfId&) override { onPimIntf(); }
  void onPimIntf() override {
    const auto d = s->pimIntf(kDone);
    done = d ? d->drPriority() : 0;
  }
  void take(const D::NeighborKey& k, const std::optional<D::Neighbor>& n) {
    const std::uint32_t i = k.address().v4Addr() - 0x0a000000u;
    const auto seq = n ? static_cast<std::uint32_t>(n->lastRefreshTime()) : 0u;
    const bool ok = i < kNeighbors && keyOf(i) == k && (!n || record(i, seq) == *n);
    bad += !ok;
    if (ok && n) mirror[i] = seq;
    if (ok && !n) mirror.erase(i);
  }
  Kel::Ptr<D::Status> s;
  Model mirror;
  int bad = 0, resyncs = 0;
  std::uint32_t done = 0;
};

// Reader child. Phase 1: reach the model of round kRounds and its "done" by any mix of key
// notices and resyncs; say so on `progress`. Phase 2: two rounds more with no resync (they
// fit the change ring, so a resync would mean lost keys). Exit 0 on success, 1 on a bad
// record, 2 on timeout, 3 on a resync in phase 2.
constexpr std::uint32_t kRounds = 40;
[[noreturn]] void readerChild(const std::string& path, int ready, int progress) {
  Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
  auto s = D::statusFactory(path);
  s->mountReader(loop);
  Mirror m(s);
  sendByte(ready);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(150);
  auto converge = [&](std::uint32_t rounds) {
    const Model expected = finalModel(rounds);
    while (std::chrono::steady_clock::now() < deadline && !m.bad) {
      loop.runOnce(0.05);
      if (m.done == rounds && m.mirror == expected) return true;
    }
    std::fprintf(stderr, "reader %d: bad %d, resyncs %d, %zu/%zu\n", ::getpid(), m.bad, m.resyncs,
                 m.mirror.size(), expected.size());
    return false;
  };
  if (!converge(kRounds)) _exit(m.bad ? 1 : 2);
  sendByte(progress);
  const int resyncs = m.resyncs;
  if (!converge(kRounds + 2)) _exit(m.bad ? 1 : 2);
  _exit(m.resyncs == resyncs ? 0 : 3);
}

// The exit code of our child pid within `seconds`; -1 if a signal ended it or we had to.
int waitChild(pid_t pid, int seconds) {
  int status = 0;
  for (int i = 0; i < seconds * 100; ++i) {
    if (::waitpid(pid, &status, WNOHANG) == pid)
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    ::usleep(10000);
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, &status, 0);
  return -1;
}

struct Pipe {
  int fd[2] = {-1, -1};
  Pipe() { EXPECT_EQ(::pipe(fd), 0); }
  ~Pipe() {
    for (int f : fd) ::close(f);
  }
};

// Two forked readers start first. With `crash`, a forked writer on a script far longer than
// the test is killed mid-update, after round 20. Then this process writes the script from
// round 0 on the same tables, and two rounds more once both readers hold its state.
void readersFollowTheWriter(bool crash) {
  const std::string path = uniquePath("xproc");
  Pipe progress, tell;
  std::vector<pid_t> readers;
  for (int i = 0; i < 2; ++i) {
    Pipe ready;
    readers.push_back(::fork());
    if (readers.back() == 0) readerChild(path, ready.fd[1], progress.fd[1]);
    EXPECT_TRUE(waitByte(ready.fd[0], 30));
  }
  if (crash) {
    const pid_t first = ::fork();
    if (first == 0) {
      Model m;
      auto s = D::statusFactory(path);
      if (s->mountWriter()) writeRounds(*s, m, 0, 1000000, tell.fd[1]);
      _exit(0);
    }
    EXPECT_TRUE(waitByte(tell.fd[0], 60));
    ::kill(first, SIGKILL);
    EXPECT_EQ(waitChild(first, 30), -1);
  }
  Model m;
  auto s = D::statusFactory(path);
  ASSERT_TRUE(s->mountWriter());  // on failure the readers give up by themselves
  writeRounds(*s, m, 0, kRounds);
  EXPECT_TRUE(waitByte(progress.fd[0], 150) && waitByte(progress.fd[0], 150));
  writeRounds(*s, m, kRounds + 1, kRounds + 2);
  for (pid_t r : readers) EXPECT_EQ(waitChild(r, 180), 0) << "reader " << r;
}

TEST(PimDrobeCrossProcess, ReadersConvergeToTheWritersState) { readersFollowTheWriter(false); }
TEST(PimDrobeCrossProcess, ReadersResyncAfterTheWriterIsKilled) { readersFollowTheWriter(true); }

// Open descriptors of this process.
std::size_t openDescriptors() {
  std::size_t n = 0;
  for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) ++n;
  return n - 1;  // the iterator's own
}

TEST(PimDrobeCrossProcess, AReaderOfThreeTableSetsInTwoVrfsHoldsAHandfulOfDescriptors) {
  const L3::VrfName vrfs[] = {L3::VrfName("red"), L3::VrfName("blue")};
  std::vector<Kel::Ptr<D::Status>> status;
  std::vector<Kel::Ptr<D::MessageCounters>> counters;
  auto all = N::intfStatusFactory(N::IntfStatus::mountPath(AddressFamily::ipv4));
  ASSERT_TRUE(all->mountWriter());
  for (const auto& vrf : vrfs) {
    status.push_back(D::statusFactory(D::Status::mountPath(AddressFamily::ipv4, vrf)));
    counters.push_back(
        D::messageCountersFactory(D::MessageCounters::mountPath(AddressFamily::ipv4, vrf, "io")));
    ASSERT_TRUE(status.back()->mountWriter() && counters.back()->mountWriter());
  }
  int toParent[2], toChild[2];
  ASSERT_EQ(::pipe(toParent), 0);
  ASSERT_EQ(::pipe(toChild), 0);
  const std::size_t writerBefore = openDescriptors() - 2;  // the child's ends, closed below
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(toParent[0]);
    ::close(toChild[1]);
    Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
    const std::size_t before = openDescriptors();
    struct Seen : D::Status::NotifieeConst {
      int keys = 0;
      void onNeighbor(const D::NeighborKey&) override { ++keys; }
    };
    std::vector<Kel::Ptr<Kel::Entity>> held;
    std::vector<Seen> seen(2);
    auto r = N::intfStatusFactory(N::IntfStatus::mountPath(AddressFamily::ipv4));
    r->mountReader(loop);
    for (int i = 0; i < 2; ++i) {
      auto s = D::statusFactory(D::Status::mountPath(AddressFamily::ipv4, vrfs[i]));
      auto c = D::messageCountersFactory(
          D::MessageCounters::mountPath(AddressFamily::ipv4, vrfs[i], "io"));
      s->mountReader(loop);
      c->mountReader(loop);
      seen[static_cast<std::size_t>(i)].notifierIs(s);
      held.push_back(s);
      held.push_back(c);
    }
    for (int i = 0; i < 20; ++i) loop.runOnce(0.01);
    (void)!::write(toParent[1], "m", 1);  // mounted: the writer changes a neighbour per VRF
    for (int i = 0; i < 1000 && (seen[0].keys == 0 || seen[1].keys == 0); ++i) loop.runOnce(0.01);
    const auto n = static_cast<std::uint32_t>(openDescriptors() - before);
    (void)!::write(toParent[1], &n, sizeof n);
    waitByte(toChild[0], 30);
    ::_exit(seen[0].keys && seen[1].keys ? 0 : 3);
  }
  ::close(toParent[1]);
  ::close(toChild[0]);
  ASSERT_TRUE(waitByte(toParent[0], 30));
  for (std::size_t i = 0; i < 2; ++i) {
    status[i]->neighborIs(record(static_cast<std::uint32_t>(i), 1));
    status[i]->commit();
    counters[i]->msgCounterInc(D::CounterKey(1, 0, IntfId("Ethernet1")), rx, success);
    counters[i]->msgCounterCommit();
  }
  std::uint32_t readerFds = 0;
  pollfd p{toParent[0], POLLIN, 0};
  ASSERT_TRUE(::poll(&p, 1, 30000) == 1 &&
              ::read(toParent[0], &readerFds, sizeof readerFds) == sizeof readerFds);
  const std::size_t writerAfter = openDescriptors();
  ::close(toChild[1]);
  EXPECT_EQ(waitChild(child, 30), 0) << "the reader missed a change";
  ::close(toParent[0]);
  // An eventfd, a socket, an inotify instance and a pidfd for the writer.
  EXPECT_LE(readerFds, 4u);
  EXPECT_LE(writerAfter - writerBefore, 2u);
}

}  // namespace
