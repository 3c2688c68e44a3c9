// The status and counter containers: mount paths, counting rule, corruption hook, notices,
// mounting by type and footprint. Other processes' views are in DrobeTest.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "Pim/PimDrobe.h"
#include "Pim/PimDrobeIntf.h"
#include "tests/PimTestUtil.h"

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

const auto* const kEnv =
    ::testing::AddGlobalTestEnvironment(new PimTest::PrivateDrobeRoot("pimdrobe"));

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

TEST(PimDrobeStatus, SettersNotifyOnlyOnChangeAndAFullTableRefusesOnlyAtItsMaximum) {
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
  // The declared size is where the table starts: it grows to 16 times that, then refuses.
  const std::uint32_t max = D::Status::kPimIntfCapacity * P::DrobeDetail::kMaxGrowth;
  for (std::uint32_t i = 1; i < max; ++i) {
    ASSERT_TRUE(s->pimIntfIs(D::Intf(IntfId("E" + std::to_string(i)), IpGenAddrWithMask())));
  }
  EXPECT_EQ(s->pimIntfTable().writer()->capacity(), max);
  EXPECT_FALSE(s->pimIntfIs(D::Intf(IntfId("extra"), IpGenAddrWithMask())));
  EXPECT_EQ(r.intfs.size(), max);
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

}  // namespace
