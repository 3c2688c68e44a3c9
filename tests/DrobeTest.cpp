// Drobe: shared-memory tables in one process (writer and reader on one loop) and across
// processes (forked writers and readers: torn-free reads, a writer killed mid-update, wake-ups,
// growth, the descriptors a reader of the PIM table sets holds). Also Ledra's mounts.
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include "Pim/PimDrobe.h"
#include "Pim/PimDrobeIntf.h"
#include "Pim/platform/Drobe.h"
#include "Pim/platform/Ledra.h"
#include "tests/PimTestUtil.h"

namespace {

// A key whose hash can be forced, to build collision chains.
struct TKey {
  std::uint32_t id = 0;
  std::uint32_t h = 0;  // 0: derived from id
  std::uint32_t hash() const { return h ? h : id * 2654435761u; }
  bool operator==(const TKey&) const = default;
};

std::uint64_t mix(std::uint64_t x) {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdull;
  x ^= x >> 33;
  return x;
}

// Every field derives from (key, counter), so a torn copy fails intact().
struct TVal {
  TKey k;
  std::uint64_t counter = 0, a = 0, b = 0, check = 0;
  std::uint64_t fill[24] = {};  // widens the window in which a racing copy could tear
  TKey key() const { return k; }
  static TVal make(TKey k, std::uint64_t counter) {
    TVal v{k, counter, counter * 0x9E3779B97F4A7C15ull, ~counter ^ k.id, 0};
    v.check = mix(v.a ^ mix(v.b ^ mix(k.id ^ counter)));
    for (std::uint64_t i = 0; i < 24; ++i) v.fill[i] = mix(counter + i);
    return v;
  }
  bool intact() const { return *this == make(k, counter); }
  bool operator==(const TVal&) const = default;
};

using W = Drobe::Writer<TKey, TVal>;
using R = Drobe::Reader<TKey, TVal>;

// Mirrors a reader through its notifications only, and records what it was told.
struct Mirror : R::NotifieeConst {
  std::map<std::uint32_t, TVal> rows;
  std::vector<std::uint32_t> keys;
  int collections = 0, mounts = 0, unmounts = 0;
  std::uint64_t torn = 0, checked = 0;

  void check(const TVal& v) {
    ++checked;
    torn += !v.intact();
  }
  void take(const TVal& v) {
    check(v);
    rows[v.k.id] = v;
  }
  void onKey(const TKey& k) override {
    keys.push_back(k.id);
    if (auto v = notifier()->find(k)) {
      take(*v);
    } else {
      rows.erase(k.id);
    }
  }
  void onCollection() override {
    ++collections;
    rows.clear();
    for (const TVal& v : *notifier()) take(v);
  }
  void onMountStatus(bool m) override { ++(m ? mounts : unmounts); }
};

class DrobeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fmt::format("/dev/shm/drobetest.{}", ::getpid());
    ::setenv("DROBE_ROOT", root_.c_str(), 1);
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }
  void turn(int n = 3) {
    for (int i = 0; i < n; ++i) loop_.runOnce(0.0);
  }
  void publish(W& w) {
    w.commit();
    turn();
  }
  Kel::Ptr<R> mirrored(Mirror& m, std::string_view name = "rec") {
    auto r = R::create(loop_, kPath, name);
    m.notifierIs(r);
    turn();
    return r;
  }

  static constexpr const char* kPath = "test/status/default";
  std::string root_;
  Kel::Ptr<Kel::ManualClock> clock_ = Kel::Ptr<Kel::ManualClock>::make();
  Ulm::EventLoop loop_{clock_};
};

std::map<std::uint32_t, TVal> contents(const W& w) {
  std::map<std::uint32_t, TVal> out;
  for (const TVal& v : w) out[v.k.id] = v;
  return out;
}

// A full table refuses a new key with a trace line and a count, and still takes an
// overwrite or, after a delete, a new key: the model knows which.
TEST_F(DrobeTest, RandomOperationsMatchAModelForWriterReaderAndNotifications) {
  // 7 hashes, a tiny ring, a small table: chains, tombstones, refusals, ring overruns.
  Drobe::trace().levelIs(1);
  Flicklog::CaptureSink cap;
  std::uint64_t refusals = 0;
  auto w = W::create(kPath, {"rec", 40, 8});
  ASSERT_TRUE(w);
  Mirror m;
  auto r = mirrored(m);
  std::map<std::uint32_t, TVal> model;
  std::mt19937 rng(7);
  std::uint64_t counter = 0;
  for (int op = 0; op < 4000; ++op) {
    const auto id = static_cast<std::uint32_t>(rng() % 100);
    const TKey k{id, id % 7 + 1};
    const auto dice = static_cast<unsigned>(rng() % 100);
    if (dice < 60) {
      // Now and then the record already there: an equal write changes nothing.
      const bool same = model.count(id) && rng() % 4 == 0;
      const TVal v = same ? model[id] : TVal::make(k, ++counter);
      const bool fits = model.count(id) || model.size() < 40;
      bool changed = !fits;
      ASSERT_EQ(w->is(v, changed), fits) << "op " << op;
      ASSERT_EQ(changed, fits && !same) << "op " << op;
      if (fits) model[id] = v;
      refusals += !fits;
    } else if (dice < 98) {
      ASSERT_EQ(w->del(k), model.erase(id) == 1) << "op " << op;
    } else {
      w->delAll();
      model.clear();
    }
    if (rng() % 5 == 0) {
      w->commit();
      if (rng() % 3 == 0) turn(1);  // the reader sometimes falls behind the ring
    }
    ASSERT_EQ(contents(*w), model) << "op " << op;
    ASSERT_EQ(w->size(), model.size());
  }
  publish(*w);
  std::map<std::uint32_t, TVal> seen;
  r->forEach([&](const TVal& v) { seen[v.k.id] = v; });
  EXPECT_EQ(seen, model);
  EXPECT_EQ(m.rows, model);
  for (std::uint32_t id = 0; id < 100; ++id)
    EXPECT_EQ(r->find({id, id % 7 + 1}).has_value(), model.count(id) == 1) << id;
  EXPECT_EQ(m.torn, 0u);
  EXPECT_GT(r->overflows(), 0u);
  EXPECT_FALSE(m.keys.empty());
  EXPECT_GT(refusals, 0u);
  EXPECT_EQ(w->stats().refused, refusals);
  ASSERT_EQ(cap.lines().size(), refusals);
  EXPECT_EQ(cap.lines()[0].facility, "Drobe");
  EXPECT_NE(cap.lines()[0].text.find("table full (40 entries), insert refused"), std::string::npos);
}

TEST_F(DrobeTest, ReserveGrowsInOneStepUpToTheMaximumAndReadersKeepEveryEntry) {
  auto w = W::create(kPath, {"rec", 8, 0, 64});
  Mirror m;
  auto r = mirrored(m);
  for (std::uint32_t n : {4u, 40u, 1000u}) {
    const std::uint32_t before = w->capacity();
    ASSERT_TRUE(w->reserve(n));
    EXPECT_EQ(w->capacity(), std::max(before, std::min(n, 64u)));
    for (std::uint32_t id = 0; id < std::min(n, 40u); ++id) ASSERT_TRUE(w->is(TVal::make({id}, n)));
    EXPECT_EQ(w->capacity(), std::max(before, std::min(n, 64u)));  // no growth on the way
    publish(*w);
    EXPECT_EQ(m.rows.size(), std::min(n, 40u));
  }
  EXPECT_EQ(m.torn, 0u);
}

TEST_F(DrobeTest, DeletionKeepsProbeChainsAndTombstonesAreReusedAndReclaimed) {
  auto w = W::create(kPath, {"rec", 16, 0});
  Mirror m;
  auto r = mirrored(m);
  const TKey a{1, 5}, b{2, 5}, c{3, 5}, d{4, 5};  // one home slot
  for (const TKey& k : {a, b, c}) ASSERT_TRUE(w->is(TVal::make(k, k.id)));
  const std::uint32_t slotB = w->lookup(b).slot;
  EXPECT_EQ(w->lookup(c).slot, w->lookup(a).slot + 2);
  w->commit();
  ASSERT_TRUE(w->del(b));
  publish(*w);
  EXPECT_TRUE(r->find(c) && w->find(c));  // behind b's tombstone
  EXPECT_FALSE(r->find(b));
  ASSERT_TRUE(w->is(TVal::make(d, 4)));
  EXPECT_EQ(w->lookup(d).slot, slotB);
  // Churn far beyond the slot count: unreclaimed tombstones would fill the table.
  for (std::uint32_t i = 0; i < 2000; ++i) {
    const TKey k{100 + i, i % 3 + 1};
    ASSERT_TRUE(w->is(TVal::make(k, i))) << i;
    ASSERT_TRUE(w->del(k)) << i;
    if (i % 7 == 0) w->commit();
  }
  publish(*w);
  EXPECT_EQ(contents(*w).size(), 3u);
  EXPECT_EQ(m.rows.size(), 3u);
  EXPECT_EQ(w->refused(), 0u);
}

TEST_F(DrobeTest, ReaderSeesChangesOnlyAfterCommitAndIsToldWhichKeys) {
  auto w = W::create(kPath, {"rec", 64, 0});
  Mirror m;
  auto r = mirrored(m);
  ASSERT_TRUE(w->is(TVal::make({1}, 1)) && w->is(TVal::make({2}, 1)));
  turn();
  EXPECT_FALSE(r->find({1}));
  EXPECT_EQ(r->size(), 0u);
  EXPECT_TRUE(m.keys.empty());
  w->commit();
  EXPECT_TRUE(r->find({1}));  // visible at once; the notice waits for the loop
  turn();
  EXPECT_EQ(m.keys, (std::vector<std::uint32_t>{1, 2}));
  // Several changes before one commit announce a key once; an unchanged overwrite
  // announces nothing; notify() announces without a change.
  m.keys.clear();
  w->is(TVal::make({1}, 2));
  w->is(TVal::make({1}, 3));
  w->del({2});
  w->is(TVal::make({1}, 3));
  w->notify({9});
  w->commit();
  w->is(TVal::make({1}, 3));
  publish(*w);
  EXPECT_EQ(m.keys, (std::vector<std::uint32_t>{1, 2, 9}));
  EXPECT_EQ(m.rows.size(), 1u);
  EXPECT_EQ(m.rows.at(1).counter, 3u);
  // Commits in a burst: one loop turn delivers them all, in order.
  m.keys.clear();
  for (std::uint32_t i = 10; i < 15; ++i) {
    w->is(TVal::make({i}, i));
    w->commit();
  }
  loop_.runOnce(0.0);
  EXPECT_EQ(m.keys, (std::vector<std::uint32_t>{10, 11, 12, 13, 14}));
  const int before = m.collections;
  w->notifyCollection();
  publish(*w);
  EXPECT_EQ(m.collections, before + 1);
  w->delAll();
  publish(*w);
  EXPECT_EQ(m.collections, before + 2);
  EXPECT_TRUE(m.rows.empty());
}

TEST_F(DrobeTest, ReaderFallingBehindTheRingResyncsTheWholeCollection) {
  auto w = W::create(kPath, {"rec", 64, 8});
  Mirror m;
  auto r = mirrored(m);
  const int initial = m.collections;
  for (std::uint32_t c = 0; c < 3; ++c) {  // 12 notices into 8 ring entries, reader asleep
    for (std::uint32_t i = 0; i < 4; ++i) w->is(TVal::make({c * 4 + i}, c));
    w->commit();
  }
  turn();
  EXPECT_EQ(r->overflows(), 1u);
  EXPECT_EQ(m.collections, initial + 1);
  EXPECT_TRUE(m.keys.empty());
  EXPECT_EQ(m.rows.size(), 12u);
  // Back in step: per-key notices again. One commit larger than the ring becomes a
  // whole-collection notice from the writer itself.
  w->is(TVal::make({40}, 1));
  publish(*w);
  EXPECT_EQ(m.keys, std::vector<std::uint32_t>{40});
  for (std::uint32_t i = 0; i < 20; ++i) w->is(TVal::make({50 + i}, 1));
  publish(*w);
  EXPECT_EQ(m.collections, initial + 2);
  EXPECT_EQ(r->overflows(), 1u);
  EXPECT_EQ(m.rows.size(), 33u);
}

TEST_F(DrobeTest, CorruptSlotIsReportedCountedAndCleared) {
  Drobe::trace().levelIs(1);
  Flicklog::CaptureSink cap;
  auto w = W::create(kPath, {"rec", 64, 0});
  for (std::uint32_t id = 1; id <= 5; ++id) w->is(TVal::make({id}, id));
  w->commit();
  Mirror m;
  auto r = mirrored(m);
  const int before = m.collections;
  w->slotStateIsForTest({3}, 0x33);
  auto found = w->lookup({3});
  ASSERT_TRUE(found.corrupt());
  EXPECT_FALSE(w->find({3}));
  w->corruptionIs(found.slot);
  EXPECT_EQ(w->lookup({3}).status, Drobe::LookupStatus::Absent);
  EXPECT_EQ(w->corrupt(), 1u);
  ASSERT_EQ(cap.lines().size(), 1u);
  EXPECT_NE(cap.lines()[0].text.find("corrupt slot"), std::string::npos);
  // An insert walking over a scribbled slot clears it on its own and goes on.
  w->slotStateIsForTest({4}, 0x77);
  EXPECT_TRUE(w->is(TVal::make({4}, 44)));
  EXPECT_EQ(w->corrupt(), 2u);
  publish(*w);
  EXPECT_EQ(w->stats().corrupt, 2u);
  EXPECT_GT(m.collections, before);
  EXPECT_FALSE(r->find({3}));
  EXPECT_EQ(m.rows.size(), 4u);
  EXPECT_EQ(m.rows.at(4).counter, 44u);
}

TEST_F(DrobeTest, MountStatusFollowsTheWriterAndForeignLayoutsAreIgnored) {
  Mirror m;
  auto r = mirrored(m);
  EXPECT_FALSE(r->mounted());
  EXPECT_EQ(m.mounts, 0);
  Drobe::TableSet set(kPath, {{{"rec", 32, 0}, {"other", 4, 0}}});
  auto w = set.writer<TKey, TVal>("rec");
  ASSERT_TRUE(w);
  w->is(TVal::make({1}, 1));
  publish(*w);  // inotify sees the table appear
  EXPECT_TRUE(r->mounted());
  EXPECT_EQ(m.mounts, 1);
  EXPECT_EQ(m.rows.size(), 1u);
  w = nullptr;  // retires the table
  turn();
  EXPECT_EQ(m.unmounts, 1);
  EXPECT_FALSE(r->mounted());
  EXPECT_TRUE(m.rows.empty());
  EXPECT_FALSE(r->find({1}));
  w = set.writer<TKey, TVal>("rec");
  w->is(TVal::make({2}, 2));
  publish(*w);
  EXPECT_EQ(m.mounts, 2);
  EXPECT_EQ(m.rows.size(), 1u);
  EXPECT_EQ(m.rows.count(2), 1u);
  // A reader of another record type must not trust this table.
  struct Other {
    TKey k;
    char pad[3];
    TKey key() const { return k; }
  };
  auto foreign = Drobe::Reader<TKey, Other>::create(loop_, kPath, "rec");
  turn();
  EXPECT_FALSE(foreign->mounted());
}

// Holds an exclusive open-file-description lock on a file, as a live writer does.
struct LockHolder {
  int fd;
  explicit LockHolder(const std::string& file) : fd(::open(file.c_str(), O_RDWR | O_CLOEXEC)) {
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    EXPECT_EQ(::fcntl(fd, F_OFD_SETLK, &fl), 0) << file;
  }
  ~LockHolder() { ::close(fd); }
};

std::string fileBytes(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST_F(DrobeTest, PaddingNeverReachesSharedMemoryNorMakesANotice) {
  struct Padded {
    TKey k;
    std::uint8_t a = 0;  // three padding bytes follow
    std::uint32_t b = 0;
    TKey key() const { return k; }
    bool operator==(const Padded& o) const { return k == o.k && a == o.a && b == o.b; }
  };
  // Records built in storage full of junk, as a stack slot may be.
  alignas(Padded) unsigned char raw[2][sizeof(Padded)];
  auto padded = [&](int i, unsigned char junk) -> const Padded& {
    std::memset(raw[i], junk, sizeof raw[i]);
    auto* p = new (raw[i]) Padded;
    p->k = TKey{1};
    p->a = 1;
    p->b = 2;
    return *p;
  };
  auto w = Drobe::Writer<TKey, Padded>::create(kPath, {"padded", 8, 0});
  auto r = Drobe::Reader<TKey, Padded>::create(loop_, kPath, "padded");
  struct Keys : Drobe::Reader<TKey, Padded>::NotifieeConst {
    int keys = 0;
    void onKey(const TKey&) override { ++keys; }
  } n;
  n.notifierIs(r);
  turn();
  ASSERT_TRUE(w->is(padded(0, 0xAB)));
  w->commit();
  turn();
  ASSERT_TRUE(w->is(padded(1, 0xCD)));  // equal but for its padding: no change
  w->commit();
  turn();
  EXPECT_EQ(n.keys, 1);
  // The three padding bytes as a run: a lone junk byte may occur in the header's random id.
  const std::string bytes = fileBytes(w->file());
  EXPECT_EQ(bytes.find("\xAB\xAB\xAB"), std::string::npos);
  EXPECT_EQ(bytes.find("\xCD\xCD\xCD"), std::string::npos);
}

TEST_F(DrobeTest, HeadersThatCannotBeTrustedAreRefusedWithTheirTrace) {
  auto w = W::create(kPath, {"rec", 32, 0});
  ASSERT_TRUE(w);
  w->is(TVal::make({1}, 1));
  w->commit();
  const std::string image = fileBytes(w->file());
  const std::string bad = Drobe::collectionFile(kPath, "bad");
  // Byte offsets of header fields in page 0 of the file format.
  struct Case {
    const char* what;
    std::size_t offset, width;
    std::uint64_t value;
    const char* trace;  // empty: mounts
  };
  const std::uint64_t fileSize = image.size();
  const Case cases[] = {
      {"the writer's own file, as a control", 0, 0, 0, ""},
      {"ring size not a power of two", 40, 4, 1000, "(ring size)"},
      {"ring size beyond the bound", 40, 4, 1u << 21, "(ring size)"},
      {"more readers than the registry holds", 12, 4, 65, "(reader count)"},
      {"capacity above the slot count", 32, 4, 1000, "(slot count)"},
      {"more slots than the file holds", 36, 4, 100000, "(offsets)"},
      {"slots moved past the end of the file", 80, 8, fileSize, "(offsets)"},
      {"ring moved onto the header", 64, 8, 0, "(offsets)"},
      {"file size the file does not have", 88, 8, fileSize + 4096, "(offsets)"},
      {"file shorter than its header says", ~std::size_t{0}, 0, 4096, "(file size)"},
      {"another record layout", 48, 8, 0x1234, "written with another record layout"},
      {"another version", 8, 4, 99, "(not a table of this version)"},
  };
  Drobe::trace().levelIs(1);
  for (const Case& c : cases) {
    std::string bytes = image;
    if (c.offset == ~std::size_t{0}) {
      bytes.resize(bytes.size() - c.value);
    } else if (c.width) {
      std::memcpy(bytes.data() + c.offset, &c.value, c.width);
    }
    std::ofstream(bad, std::ios::binary | std::ios::trunc) << bytes;
    LockHolder live(bad);
    Flicklog::CaptureSink cap;
    auto r = R::create(loop_, kPath, "bad");
    turn();
    const bool refused = *c.trace != 0;
    EXPECT_EQ(r->mounted(), !refused) << c.what;
    if (refused) {
      ASSERT_FALSE(cap.lines().empty()) << c.what;
      EXPECT_NE(cap.lines()[0].text.find(c.trace), std::string::npos)
          << c.what << ": " << cap.lines()[0].text;
    } else {
      EXPECT_TRUE(r->find({1})) << c.what;
    }
  }
}

TEST_F(DrobeTest, UnsafeMountPathsAreRefusedAndReadersCreateNoDirectory) {
  Drobe::trace().levelIs(1);
  const std::pair<const char*, const char*> unsafe[] = {
      {"", "rec"},     {"a//b", "rec"}, {"a/./b", "rec"}, {"../escape", "rec"}, {"a/b/..", "rec"},
      {"/abs", "rec"}, {"a/", "rec"},   {"ok", ".."},     {"ok", "x/y"},        {"ok", ""},
  };
  for (const auto& [path, name] : unsafe) {
    Flicklog::CaptureSink cap;
    EXPECT_FALSE(W::create(path, {name, 8, 0})) << path << " " << name;
    auto r = R::create(loop_, path, name);
    turn();
    EXPECT_FALSE(r->mounted());
    ASSERT_EQ(cap.lines().size(), 2u) << path << " " << name;
    EXPECT_NE(cap.lines()[1].text.find("unsafe mount path, refused"), std::string::npos);
  }
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(root_).parent_path() / "escape"));
  // A reader of a path nobody writes leaves nothing behind; it still mounts once a writer
  // creates the directory.
  Mirror m;
  auto r = R::create(loop_, "typo/vrf", "rec");
  m.notifierIs(r);
  turn();
  EXPECT_FALSE(std::filesystem::exists(root_ + "/typo"));
  auto w = W::create("typo/vrf", {"rec", 8, 0});
  w->is(TVal::make({5}, 5));
  publish(*w);
  EXPECT_EQ(m.mounts, 1);
  EXPECT_EQ(m.rows.count(5), 1u);
}

// Across processes. Each child is forked with one end of a socket pair and reports through
// it; every wait is bounded, and the fixture kills and reaps only the children it forked.

constexpr std::uint32_t kRecords = 10000, kHot = 16, kDoneId = 0xFFFFFFFFu;
constexpr const char* kXPath = "test/xproc";

std::uint64_t digest(const std::map<std::uint32_t, TVal>& rows) {
  std::uint64_t d = 0;
  for (const auto& [id, v] : rows) d += id == kDoneId ? 0 : mix(v.check + id);
  return d;
}

// The writer's workload, ending in a record that carries the digest of the final state; w may
// be null to compute that digest only. rounds < 0: run until killed.
std::uint64_t workload(std::uint64_t seed, int rounds, W* w) {
  std::mt19937_64 rng(seed);
  std::map<std::uint32_t, TVal> model;
  std::uint64_t counter = seed << 40;
  for (int round = 0; rounds < 0 || round < rounds; ++round) {
    for (int op = 0; op < 100; ++op) {
      // Half the updates hit the hot keys, which the readers hammer.
      const TKey k{static_cast<std::uint32_t>(rng() % 2 ? rng() % kRecords : rng() % kHot)};
      if (rng() % 100 < 85) {
        model[k.id] = TVal::make(k, ++counter);
        if (w) w->is(model[k.id]);
      } else {
        model.erase(k.id);
        if (w) w->del(k);
      }
    }
    if (!w) continue;
    w->commit();
    if (round % 10 == 0) ::usleep(100);
  }
  const std::uint64_t d = digest(model);
  if (w) {
    w->is(TVal::make({kDoneId}, d));
    w->commit();
  }
  return d;
}

using PimTest::hold;
using PimTest::readable;
using PimTest::receive;
using PimTest::runUntil;
using PimTest::send;

struct ReaderResult {
  bool converged;
  std::uint64_t torn, checked, keys;
  int mounts, unmounts;
  std::uint64_t digest, generation;
};

// Scans the whole table and the hot keys between loop turns, so that reads race the writer's
// commits and a torn record has every chance to show, until the done record matches.
[[noreturn]] void readerChild(int out) {
  Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
  Mirror m;
  auto r = R::create(loop, kXPath, "rec");
  m.notifierIs(r);
  bool converged = false;
  const Kel::Time deadline = loop.clock()->now() + 120.0;
  while (!converged && loop.clock()->now() < deadline) {
    loop.runOnce(0.0);
    r->forEach([&](const TVal& v) { m.check(v); });
    for (std::uint32_t i = 0; i < 100 * kHot; ++i) {
      if (auto v = r->find({i % kHot})) m.check(*v);
    }
    auto done = m.rows.find(kDoneId);
    converged = done != m.rows.end() && digest(m.rows) == done->second.counter;
  }
  const std::uint64_t keys = m.keys.size(), d = digest(m.rows), gen = r->stats().generation;
  send(out, ReaderResult{converged, m.torn, m.checked, keys, m.mounts, m.unmounts, d, gen});
  ::_exit(0);
}

class DrobeCrossProcessTest : public DrobeTest {
 protected:
  void TearDown() override {
    children_.killAll();
    DrobeTest::TearDown();
  }
  int spawn(const std::function<void(int)>& body) { return children_.spawn(body); }
  pid_t pidOf(int fd) const { return children_.pidOf(fd); }
  int exitCode(int fd, int seconds = 30, bool killNow = false) {
    return children_.exitCode(fd, seconds, killNow);
  }
  void startReaders() {
    for (int& fd : readers_) fd = spawn(readerChild);
  }
  // The writer stays mounted until the test ends.
  int startWriter(std::uint64_t seed, int rounds) {
    return spawn([=](int fd) {
      auto w = W::create(kXPath, {"rec", kRecords + 1, 16384});
      if (!w) ::_exit(3);
      workload(seed, rounds, w.ptr());
      hold(fd);
      ::_exit(0);
    });
  }
  // Both readers' results, each checked against the digest of the writer's final state.
  std::vector<ReaderResult> readerResults(std::uint64_t expected) {
    std::vector<ReaderResult> out;
    for (int fd : readers_) {
      ReaderResult& x = out.emplace_back();
      EXPECT_TRUE(receive(fd, x, 150));
      EXPECT_TRUE(x.converged);
      EXPECT_EQ(x.digest, expected);
      EXPECT_EQ(x.torn, 0u);
      EXPECT_GT(x.checked, kRecords);
    }
    return out;
  }

  PimTest::Children children_;
  int readers_[2] = {-1, -1};
};

// Readers hammer the table through both writers' lives: no torn record, per-key notices
// for the changes, and convergence to the successor of a writer killed mid-update.
TEST_F(DrobeCrossProcessTest, ReadersSurviveAWriterKilledMidUpdateAndFollowItsSuccessor) {
  startReaders();
  const int victim = startWriter(21, -1);
  const pid_t victimPid = pidOf(victim);
  // Let the victim commit a while, then kill it between (or inside) its commits.
  auto watch = R::create(loop_, kXPath, "rec");
  for (int i = 0; i < 3000 && watch->stats().commits < 300; ++i) {
    loop_.runOnce(0.01);
    ::usleep(1000);
  }
  ASSERT_GE(watch->stats().commits, 300u);
  EXPECT_EQ(exitCode(victim, 30, true), -1);
  // The dead writer's pid now names a live process (ours): its successor must not care.
  const std::string file = Drobe::collectionFile(kXPath, "rec");
  std::string head = fileBytes(file).substr(0, 128);
  int patched = 0;
  for (std::size_t off = 0; off + 4 <= head.size(); off += 4) {
    std::int32_t v;
    std::memcpy(&v, head.data() + off, 4);
    if (v != victimPid) continue;
    const std::int32_t live = ::getpid();
    std::fstream f(file, std::ios::binary | std::ios::in | std::ios::out);
    f.seekp(static_cast<std::streamoff>(off));
    f.write(reinterpret_cast<const char*>(&live), 4);
    ++patched;
  }
  ASSERT_EQ(patched, 1);
  startWriter(22, 2000);
  for (const ReaderResult& x : readerResults(workload(22, 2000, nullptr))) {
    EXPECT_GT(x.keys, kRecords);
    EXPECT_EQ(x.mounts, 2);
    EXPECT_EQ(x.unmounts, 1);
    EXPECT_EQ(x.generation, 2u);
  }
}

// Drops one capability from this process's effective and permitted sets.
bool dropCapability(unsigned cap) {
  __user_cap_header_struct h{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct d[2] = {};
  if (::syscall(SYS_capget, &h, d) != 0) return false;
  d[cap / 32].effective &= ~(1u << (cap % 32));
  d[cap / 32].permitted &= ~(1u << (cap % 32));
  return ::syscall(SYS_capset, &h, d) == 0;
}

// A child writer commits three records 100 ms apart, its wake-ups hampered: a child reader
// must get all three, and the writer's trace (level 4) shows the path taken.
TEST_F(DrobeCrossProcessTest, ReadersConvergeWhateverBecomesOfTheirWakeUps) {
  struct Case {
    const char* what;
    bool needsRoot;
    std::function<bool()> reader, writer, afterRegistration;
    const char *expected, *absent;
  };
  const auto yes = [] { return true; };
  const Case cases[] = {
      {"the writer is out of descriptors: wake-ups fail, the reader polls", false, yes, yes,
       [] {
         const int lowest = ::open("/dev/null", O_RDONLY);
         ::close(lowest);
         const rlimit rl{static_cast<rlim_t>(lowest), static_cast<rlim_t>(lowest)};
         return ::setrlimit(RLIMIT_NOFILE, &rl) == 0;
       },
       "failed", "gone"},
      // The reader runs as nobody (in the writer's group, to open its tables). A writer with
      // CAP_SYS_PTRACE may take any process's eventfd, so it gives that up, and with it the
      // right to take another user's.
      {"the writer may not take the unprivileged reader's eventfd: datagrams", true,
       [] {
         const gid_t root = 0;
         return ::setgroups(1, &root) == 0 && ::setresgid(65534, 65534, 65534) == 0 &&
                ::setresuid(65534, 65534, 65534) == 0;
       },
       [] { return dropCapability(CAP_SYS_PTRACE); }, yes, "woken by datagram", "failed"},
  };
  for (const Case& c : cases) {
    if (c.needsRoot && ::geteuid() != 0) continue;
#ifdef __SANITIZE_ADDRESS__
    // UBSan probes memory through a pipe, which a process out of descriptors cannot make.
    if (&c == cases) continue;
#endif
    const std::string path = std::string(kXPath) + "/" + std::to_string(&c - cases);
    const int writer = spawn([&](int fd) {
      if (!c.writer()) ::_exit(3);
      auto w = W::create(path, {"rec", 64, 0});
      send(fd, 'w');  // the directories exist: the reader may start
      for (int i = 0; w && i < 10000 && w->stats().readers == 0; ++i) ::usleep(1000);
      if (!w || !c.afterRegistration()) ::_exit(4);
      Drobe::trace().levelIs(4);
      Flicklog::CaptureSink cap;
      for (std::uint32_t id = 1; id <= 3; ++id) {
        w->is(TVal::make({id}, id));
        w->commit();
        ::usleep(100000);
      }
      int expected = 0, absent = 0;
      for (const auto& l : cap.lines()) {
        expected += l.text.find(c.expected) != std::string::npos;
        absent += l.text.find(c.absent) != std::string::npos;
      }
      hold(fd);
      ::_exit(expected > 0 && absent == 0 ? 0 : 6);
    });
    char started = 0;
    ASSERT_TRUE(receive(writer, started)) << c.what;
    const int reader = spawn([&](int) {
      if (!c.reader()) ::_exit(3);
      Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
      Mirror m;
      auto r = R::create(loop, path, "rec");
      m.notifierIs(r);
      ::_exit(runUntil(loop, [&] { return m.rows.size() == 3; }) ? 0 : 7);
    });
    EXPECT_EQ(exitCode(reader, 20), 0) << c.what << ": the reader did not get all three";
    EXPECT_EQ(exitCode(writer), 0) << c.what << ": the writer's trace does not show the path";
  }
}

// A reader process registers once with a writer whatever it reads of it, a burst of commits
// on all those tables wakes it once, and its death frees the registrations.
TEST_F(DrobeCrossProcessTest, AReaderProcessIsRegisteredAndWokenOncePerWriter) {
  Drobe::TableSet set(kXPath, {{{"a", 64, 0}, {"b", 64, 0}, {"c", 64, 0}}});
  const Kel::Ptr<W> tables[] = {set.writer<TKey, TVal>("a"), set.writer<TKey, TVal>("b"),
                                set.writer<TKey, TVal>("c")};
  constexpr std::uint32_t kRounds = 3;
  const int reader = spawn([](int fd) {
    Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
    Mirror m[3];
    std::vector<Kel::Ptr<R>> rs;
    for (const char* name : {"a", "b", "c"}) {
      rs.push_back(R::create(loop, kXPath, name));
      m[rs.size() - 1].notifierIs(rs.back());
    }
    auto all = [&](std::uint32_t round) {
      return std::all_of(m, m + 3, [&](const Mirror& x) { return x.rows.count(round) == 1; });
    };
    if (!runUntil(loop, [&] { return m[0].mounts + m[1].mounts + m[2].mounts == 3; })) ::_exit(3);
    for (std::uint32_t round = 1; round <= kRounds; ++round) {
      send(fd, 'r');
      hold(fd, 30);  // the loop stands still while the writer commits
      const std::uint64_t before = rs[0]->stats().wakeUps;
      if (!runUntil(loop, [&] { return all(round); })) ::_exit(4);
      runUntil(
          loop, [] { return false; }, 0.1);  // a late second wake-up would show here
      send(fd, rs[0]->stats().wakeUps - before);
    }
    hold(fd, 30);
    ::_exit(0);
  });
  for (std::uint32_t round = 1; round <= kRounds; ++round) {
    char ready = 0;
    ASSERT_TRUE(receive(reader, ready));
    for (const auto& t : tables) EXPECT_EQ(t->stats().readers, 1u) << t->file();
    const std::uint64_t sent = tables[0]->stats().wakeUps;
    for (std::uint32_t k = 0; k < round; ++k) {  // a burst: each table committed round times
      for (const auto& t : tables) {
        t->is(TVal::make({round}, k));
        t->commit();
      }
    }
    EXPECT_EQ(tables[0]->stats().wakeUps - sent, 1u) << "round " << round;
    send(reader, 'g');
    std::uint64_t woken = 0;
    ASSERT_TRUE(receive(reader, woken)) << "round " << round;
    EXPECT_EQ(woken, 1u) << "round " << round;
  }
  // Killed after its wake-ups (each writer holds its wake-up descriptor): every writer frees
  // the dead reader's registration on a later commit.
  EXPECT_EQ(exitCode(reader, 30, true), -1);
  const auto registered = [&] {
    return tables[0]->stats().readers + tables[1]->stats().readers + tables[2]->stats().readers;
  };
  for (std::uint32_t i = 0; i < 500 && registered() > 0; ++i) {
    for (const auto& t : tables) {
      t->is(TVal::make({99}, i));
      t->commit();
    }
    ::usleep(20000);
  }
  for (const auto& t : tables) EXPECT_EQ(t->stats().readers, 0u) << t->file();
}

// Open descriptors of this process.
std::size_t openDescriptors() {
  std::size_t n = 0;
  for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) ++n;
  return n - 1;  // the iterator's own
}

TEST_F(DrobeCrossProcessTest, AReaderOfThreeTableSetsInTwoVrfsHoldsAHandfulOfDescriptors) {
  namespace D = Routing::Pim::Drobe;
  namespace N = Routing::Pim::IntfNghbr::Drobe;
  const auto v4 = Nimo::AddressFamily::ipv4;
  const L3::VrfName vrfs[] = {L3::VrfName("red"), L3::VrfName("blue")};
  const D::CounterKey counterKey(1, 0, Nimo::IntfId("Ethernet1"));
  std::vector<Kel::Ptr<D::Status>> status;
  std::vector<Kel::Ptr<D::MessageCounters>> counters;
  auto all = N::intfStatusFactory(N::IntfStatus::mountPath(v4));
  ASSERT_TRUE(all->mountWriter());
  for (const auto& vrf : vrfs) {
    status.push_back(D::statusFactory(D::Status::mountPath(v4, vrf)));
    counters.push_back(D::messageCountersFactory(D::MessageCounters::mountPath(v4, vrf, "io")));
    ASSERT_TRUE(status.back()->mountWriter() && counters.back()->mountWriter());
  }
  const std::size_t writerBefore = openDescriptors();
  const int reader = spawn([&](int fd) {
    Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
    const std::size_t before = openDescriptors();
    struct Seen : D::Status::NotifieeConst {
      int intfs = 0;
      void onPimIntf(const Nimo::IntfId&) override { ++intfs; }
    };
    std::vector<Kel::Ptr<Kel::Entity>> held;
    std::vector<Seen> seen(2);
    auto r = N::intfStatusFactory(N::IntfStatus::mountPath(v4));
    r->mountReader(loop);
    for (std::size_t i = 0; i < 2; ++i) {
      auto s = D::statusFactory(D::Status::mountPath(v4, vrfs[i]));
      auto c = D::messageCountersFactory(D::MessageCounters::mountPath(v4, vrfs[i], "io"));
      s->mountReader(loop);
      c->mountReader(loop);
      seen[i].notifierIs(s);
      held.push_back(s);
      held.push_back(c);
    }
    runUntil(
        loop, [] { return false; }, 0.2);
    send(fd, 'm');  // mounted: the writer changes an interface per VRF
    runUntil(loop, [&] { return seen[0].intfs && seen[1].intfs; });
    send(fd, static_cast<std::uint32_t>(openDescriptors() - before));
    hold(fd, 30);
    ::_exit(seen[0].intfs && seen[1].intfs ? 0 : 3);
  });
  char mounted = 0;
  ASSERT_TRUE(receive(reader, mounted));
  for (std::size_t i = 0; i < 2; ++i) {
    status[i]->pimIntfIs(D::Intf(Nimo::IntfId("Ethernet1"), Nimo::IpGenAddrWithMask()));
    status[i]->commit();
    counters[i]->msgCounterInc(counterKey, Routing::Pim::IO::MessageCounterDirection::rx,
                               Routing::Pim::IO::MessageCounterType::success);
    counters[i]->msgCounterCommit();
  }
  std::uint32_t readerFds = 0;
  ASSERT_TRUE(receive(reader, readerFds));
  const std::size_t writerAfter = openDescriptors() - 1;  // our end of the reader's pair
  EXPECT_EQ(exitCode(reader), 0) << "the reader missed a change";
  // An eventfd, a socket, an inotify instance and a pidfd for the writer.
  EXPECT_LE(readerFds, 4u);
  EXPECT_LE(writerAfter - writerBefore, 2u);
}

// Growth: small records, so that a million of them fit a test machine.
struct GKey {
  std::uint32_t id = 0;
  std::uint32_t hash() const { return id * 2654435761u; }
  bool operator==(const GKey&) const = default;
};
struct GVal {
  GKey k;
  std::uint32_t counter = 0;
  std::uint64_t check = 0;
  GKey key() const { return k; }
  static GVal make(std::uint32_t id, std::uint32_t counter) {
    return {{id}, counter, mix((std::uint64_t{id} << 32) | counter)};
  }
  bool intact() const { return check == make(k.id, counter).check; }
  bool operator==(const GVal&) const = default;
};
constexpr std::uint32_t kGrowMax = 1000000, kGrowDone = kGrowMax - 1;
std::uint32_t fold(std::uint64_t d) { return static_cast<std::uint32_t>(d ^ (d >> 32)); }

// Follows a growing table through its notices into rows[id] = counter + 1, and reports
// whether it converged to the done record's digest without a torn record.
[[noreturn]] void growthReader(int out) {
  using GR = Drobe::Reader<GKey, GVal>;
  struct Rows : GR::NotifieeConst {
    std::vector<std::uint32_t> rows = std::vector<std::uint32_t>(kGrowMax);
    std::uint64_t torn = 0, collections = 0, mounts = 0, unmounts = 0;
    void onMountStatus(bool up) override { ++(up ? mounts : unmounts); }
    void take(const GVal& v) {
      torn += !v.intact();
      rows[v.k.id % kGrowMax] = v.counter + 1;
    }
    void onKey(const GKey& k) override {
      if (auto v = notifier()->find(k)) {
        take(*v);
      } else {
        rows[k.id % kGrowMax] = 0;
      }
    }
    void onCollection() override {
      ++collections;
      std::fill(rows.begin(), rows.end(), 0);
      for (const GVal& v : *notifier()) take(v);
    }
    std::uint64_t digest() const {
      std::uint64_t d = 0;
      for (std::uint32_t id = 0; id < kGrowDone; ++id) d += rows[id] ? mix(id + rows[id]) : 0;
      return d;
    }
  };
  Ulm::EventLoop loop(Kel::Ptr<Kel::SystemClock>::make());
  Rows m;
  auto r = GR::create(loop, "test/grow", "rec");
  m.notifierIs(r);
  bool converged = false;
  const Kel::Time deadline = loop.clock()->now() + 240.0;
  while (!converged && loop.clock()->now() < deadline) {
    loop.runOnce(0.05);
    converged = m.rows[kGrowDone] != 0 && fold(m.digest()) == m.rows[kGrowDone] - 1;
  }
  const std::uint64_t res[5] = {converged, m.torn, m.collections, r->stats().capacity,
                                m.mounts * 10 + m.unmounts};
  send(out, res);
  ::_exit(0);
}

TEST_F(DrobeCrossProcessTest, ATableGrowsFrom64kToAMillionWhileTwoReadersFollow) {
  const int out[2] = {spawn(growthReader), spawn(growthReader)};
  auto w = Drobe::Writer<GKey, GVal>::create("test/grow", {"rec", 65536, 4096, kGrowMax});
  ASSERT_TRUE(w);
  // Batches of 10,000 per commit, every tenth record rewritten and every hundredth
  // deleted a batch later, so that keys change on both sides of each switch.
  std::uint64_t digest = 0;
  std::vector<std::uint32_t> counters(kGrowDone);
  for (std::uint32_t base = 0; base < kGrowDone; base += 10000) {
    for (std::uint32_t id = base; id < std::min(base + 10000, kGrowDone); ++id) {
      ASSERT_TRUE(w->is(GVal::make(id, counters[id] = id % 7 + 1)));
    }
    for (std::uint32_t id = base >= 10000 ? base - 10000 : 0; id < base; id += 10) {
      if (id % 100 == 0) {
        w->del({id});
        counters[id] = 0;
      } else {
        w->is(GVal::make(id, ++counters[id]));
      }
    }
    w->commit();
  }
  for (std::uint32_t id = 0; id < kGrowDone; ++id) {
    digest += counters[id] ? mix(id + counters[id] + 1) : 0;
  }
  // The last record, the millionth, carries the digest of the others.
  ASSERT_TRUE(w->is(GVal::make(kGrowDone, fold(digest))));
  w->commit();
  EXPECT_EQ(w->capacity(), kGrowMax);
  for (int fd : out) {
    std::uint64_t res[5] = {};
    EXPECT_TRUE(receive(fd, res, 250));
    EXPECT_EQ(res[0], 1u) << "did not converge";
    EXPECT_EQ(res[1], 0u) << "torn records";
    EXPECT_GE(res[2], 5u) << "a whole-collection notice per generation switch";
    EXPECT_EQ(res[3], kGrowMax);
    EXPECT_EQ(res[4], 10u) << "mounted once, never unmounted across the switches";
  }
}

// Ledra
template <int>
struct Thing : Kel::Entity {
  using Kel::Entity::Entity;
};
using OtherThing = Thing<1>;

TEST(LedraTest, MountsByNormalisedPathWithTypeCheckedLookup) {
  Ledra::EntityManager em;
  auto thing = Kel::Ptr<Thing<0>>::make("t");
  EXPECT_TRUE(em.mount("/routing//pim/status/default/", thing));
  EXPECT_FALSE(em.mount("routing/pim/status/default", Kel::Ptr<Thing<0>>::make("dup")));
  EXPECT_FALSE(em.mount("", thing));
  EXPECT_TRUE(em.mount("routing/pim/statusx", Kel::Ptr<OtherThing>::make("o")));
  EXPECT_EQ(em.lookup<Thing<0>>("routing/pim/status/default"), thing);
  EXPECT_FALSE(em.lookup<OtherThing>("routing/pim/status/default"));
  EXPECT_EQ(em.paths("routing/pim/status"), std::vector<std::string>{"routing/pim/status/default"});
  EXPECT_EQ(em.paths().size(), 2u);
  EXPECT_TRUE(em.unmount("routing/pim/status/default"));
  EXPECT_FALSE(em.unmount("routing/pim/status/default"));
  EXPECT_FALSE(em.mounted("routing/pim/status/default"));
  EXPECT_EQ(thing->references(), 1u);
}

}  // namespace
