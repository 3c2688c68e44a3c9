// The RP hash tables: mount paths, text forms, container notices, longest match, path
// safety, and the tables as other processes see them (pimshow, a reader's rpForGroup, a
// writer killed mid-update).
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "Pim/PimRpHashStatus.h"
#include "tests/PimTestUtil.h"

namespace {

using Nimo::AddressFamily;
using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
namespace P = Routing::Pim;
using P::RpHash;
using P::RpHashStatus;
using ::testing::HasSubstr;

const auto* const kEnv =
    ::testing::AddGlobalTestEnvironment(new PimTest::PrivateDrobeRoot("rphash"));

std::string uniquePath() {
  static int n = 0;
  return "test/rphash/" + std::to_string(++n);
}

RpHash entry(const std::string& prefix, const std::string& rp, std::uint8_t prio = 192,
             std::uint8_t hashLen = 30, bool overridden = false, P::Mode mode = P::Mode::Sparse) {
  return RpHash(IpGenPrefix(prefix), IpGenAddr(rp), P::RpPriority(prio), P::RpHashMaskLen(hashLen),
                overridden, mode);
}

using PathFn = std::string (*)(AddressFamily, const L3::VrfName&, std::string_view);
constexpr PathFn kPathFns[] = {&RpHashStatus::mountPath, &RpHashStatus::staticMountPath,
                               &RpHashStatus::bsrMountPath, &RpHashStatus::prefixMountPath,
                               &RpHashStatus::bsrPrefixMountPath};
constexpr const char* kTableNames[] = {"plain", "static", "bsr", "prefix", "bsr-prefix"};

TEST(RpHashMountPath, TenPathsPutTheNameBeforeTheVrf) {
  const L3::VrfName def("default");
  const std::string v4[] = {"routing/pim/rphash/x/default", "routing/pim/rphash/static/x/default",
                            "routing/pim/bsr/rphash/x/default",
                            "routing/pim/rpprefixhash/x/default",
                            "routing/pim/bsr/rpprefixhash/x/default"};
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(kPathFns[i](AddressFamily::ipv4, def, "x"), v4[i]);
    EXPECT_EQ(kPathFns[i](AddressFamily::ipv6, def, "x"), "routing6" + v4[i].substr(7));
  }
}

TEST(RpHashDeathTest, UnsupportedFamilyAsserts) {
  for (PathFn fn : kPathFns) {
    EXPECT_DEATH(fn(static_cast<AddressFamily>(3), L3::VrfName("a"), "x"),
                 "false && \"Unsupported address family\"");
  }
}

TEST(RpHashText, RecordsParseBackAndABrokenPieceNamesItsAttribute) {
  PimTest::expectTextForm(
      entry("239.1.0.0/16", "10.0.0.1", 7, 30, true, P::Mode::Bidir),
      "Value('Routing::Pim::RpHash', ** {'key': 239.1.0.0/16, 'rp': 10.0.0.1, 'rpPriority': 7, "
      "'rpHashMaskLen': 30, 'staticOverriden': True, 'pimMode': bidir})");
  PimTest::expectTextForm(entry("ff3e::/32", "2001:db8::1", 255, 128),
                          "Value('Routing::Pim::RpHash', ** {'key': ff3e::/32, 'rp': 2001:db8::1, "
                          "'rpPriority': 255, 'rpHashMaskLen': 128, 'staticOverriden': False, "
                          "'pimMode': sparse})");
  PimTest::expectTextForm(RpHash(), valueToStrep(RpHash()));
  PimTest::expectTextForm(
      P::GroupRp(IpGenAddr("239.1.2.3"), IpGenAddr("10.0.0.1")),
      "Value('Routing::Pim::GroupRp', ** {'group': 239.1.2.3, 'rp': 10.0.0.1})");

  const std::string good = valueToStrep(entry("239.1.0.0/16", "10.0.0.1"));
  // Each row breaks one fixed piece or value; the error names that attribute.
  struct Broken {
    std::string from, to, attribute;
  };
  const Broken broken[] = {
      {"Value('Routing::Pim::RpHash', ** {", "Value('Routing::Pim::RpHashX', ** {", "Value"},
      {"'key': ", "'key':  ", "key"},
      {", 'rp': ", ", 'rp' : ", "rp"},
      {", 'rpPriority': ", ", 'rpPriority ': ", "rpPriority"},
      {", 'rpHashMaskLen': ", ", 'rpHashMasklen': ", "rpHashMaskLen"},
      {", 'staticOverriden': ", ", 'staticOverridden': ", "staticOverriden"},
      {", 'pimMode': ", ", 'pimMode':: ", "pimMode"},
      {"})", "})x", "Value"},
      {"239.1.0.0/16", "239.1.0.0/33", "key"},
      {"10.0.0.1", "10.0.0", "rp"},
      {"192", "256", "rpPriority"},
      {"30", "129", "rpHashMaskLen"},
      {"False", "false", "staticOverriden"},
      {"sparse", "Sparse", "pimMode"},
  };
  for (const Broken& b : broken) {
    std::string text = good;
    text.replace(text.find(b.from), b.from.size(), b.to);
    PimTest::expectRangeError([&] { RpHash(text.begin(), text.end()); },
                              "Routing::Pim::RpHash::" + b.attribute + " has no parsable value");
  }
  PimTest::expectRangeError([] { P::RpHashMaskLen(129); },
                            std::string(P::RpHashMaskLen::kRangeErrorText));
  EXPECT_TRUE(!RpHash());
  EXPECT_FALSE(!entry("0.0.0.0/0", "10.0.0.1"));
  EXPECT_NE(entry("239.1.0.0/16", "10.0.0.1", 1), entry("239.1.0.0/16", "10.0.0.1", 2));
  EXPECT_NE(entry("239.1.0.0/16", "10.0.0.1", 1, 30, false, P::Mode::Sparse),
            entry("239.1.0.0/16", "10.0.0.1", 1, 30, false, P::Mode::Bidir));
}

// Records what a notifiee hears, in order.
struct Log : RpHashStatus::NotifieeConst {
  explicit Log(const Kel::Ptr<RpHashStatus>& t, std::vector<std::string>* shared = nullptr)
      : out(shared ? *shared : own) {
    notifierIs(t);
  }
  void onRpHash(const IpGenPrefix& k) override { out.push_back("key " + k.str()); }
  void onRpHash() override { out.push_back("all"); }
  void onRpHashImmediate() override { out.push_back("immediate"); }
  void onRpHashMountStatus(bool m) override { out.push_back(m ? "mounted" : "unmounted"); }
  std::vector<std::string> own;
  std::vector<std::string>& out;
};

TEST(RpHashStatusWriter, NoticesPerOperation) {
  auto t = P::rpHashStatusFactory(uniquePath());
  ASSERT_TRUE(t->mountWriter());
  Log log(t);
  const RpHash a = entry("239.1.0.0/16", "10.0.0.1"), b = entry("239.2.0.0/16", "10.0.0.2");
  const IpGenPrefix absent("239.3.0.0/16");
  using Step = std::pair<std::function<void()>, std::vector<std::string>>;
  const Step steps[] = {
      {[&] { t->rpHashIs(a); }, {"key 239.1.0.0/16"}},
      {[&] { t->rpHashIs(a); }, {}},  // unchanged
      {[&] { t->rpHashIs(b); }, {"key 239.2.0.0/16"}},
      {[&] { t->rpHashCommit(a); }, {"key 239.1.0.0/16"}},
      {[&] { EXPECT_EQ(t->rpHashDel(absent), RpHash()); }, {}},
      {[&] { EXPECT_EQ(t->rpHashDel(b.key()), b); }, {"key 239.2.0.0/16"}},
      {[&] { t->rpHashIs(b); }, {"key 239.2.0.0/16"}},
      {[&] { t->rpHashNotifyCollection(); }, {"all", "immediate"}},
      {[&] { t->rpHashDelAll(); }, {"key 239.1.0.0/16", "key 239.2.0.0/16"}},
  };
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    log.out.clear();
    steps[i].first();
    auto heard = log.out;
    std::sort(heard.begin(), heard.end());
    EXPECT_EQ(heard, steps[i].second) << "step " << i;
  }
  EXPECT_EQ(t->rpHashSize(), 0u);
}

TEST(RpHashStatusWriter, ImmediateHandlersAllRunBeforeOrdinaryOnes) {
  auto t = P::rpHashStatusFactory(uniquePath());
  ASSERT_TRUE(t->mountWriter());
  std::vector<std::string> order;
  Log first(t, &order), second(t, &order);
  t->rpHashNotifyCollection();
  EXPECT_EQ(order, (std::vector<std::string>{"immediate", "immediate", "all", "all"}));
}

TEST(RpHashStatusWriter, CorruptSlotsGoToTheHookAndTheContainerCarriesOn) {
  auto t = P::rpHashStatusFactory(uniquePath());
  ASSERT_TRUE(t->mountWriter());
  const RpHash a = entry("239.1.0.0/16", "10.0.0.1");
  const auto& w = t->rpHashTable().writer();
  using Op = std::function<void()>;
  const Op ops[] = {[&] { t->rpHashIs(entry("239.1.0.0/16", "10.0.0.9")); },
                    [&] { t->rpHashDel(a.key()); }};
  for (std::size_t i = 0; i < std::size(ops); ++i) {
    ASSERT_TRUE(t->rpHashIs(a));
    const auto before = w->corrupt();
    w->slotStateIsForTest(a.key(), 0x77);  // scribbled state byte
    ops[i]();
    EXPECT_EQ(w->corrupt(), before + 1) << "op " << i;
    EXPECT_TRUE(t->rpHashIs(entry("239.9.0.0/16", "10.0.0.3"))) << "op " << i;
    t->rpHashCommit(a);
  }
}

// The longest prefix holding g among entries, by brute force.
RpHash longestMatch(const std::vector<RpHash>& entries, const IpGenAddr& g) {
  RpHash best;
  for (const RpHash& e : entries) {
    if (e.key().contains(g) && (!best || e.key().maskLen() > best.key().maskLen())) best = e;
  }
  return best;
}

// n random network prefixes of family af with lengths drawn from `lengths`, RPs numbered.
std::vector<RpHash> randomEntries(std::mt19937& rng, AddressFamily af, std::size_t n,
                                  const std::vector<std::uint8_t>& lengths) {
  std::vector<RpHash> out;
  std::set<IpGenPrefix> seen;
  while (out.size() < n) {
    std::uint8_t b[16];
    for (auto& x : b) x = static_cast<std::uint8_t>(rng());
    b[0] = af == AddressFamily::ipv4 ? static_cast<std::uint8_t>(0xe0 | (b[0] & 1)) : 0xff;
    const std::uint8_t len = lengths[rng() % lengths.size()];
    const IpGenPrefix p = IpGenPrefix(IpGenAddr(af, b), len).masked();
    if (!seen.insert(p).second) continue;
    out.push_back(RpHash(p, IpGenAddr::v4(0x0a000000u + static_cast<std::uint32_t>(out.size())),
                         P::RpPriority(1), P::RpHashMaskLen(30), false, P::Mode::Sparse));
  }
  return out;
}

// A group inside a random entry (with random host bits), or anywhere in the family's range.
IpGenAddr randomGroup(std::mt19937& rng, const std::vector<RpHash>& entries, AddressFamily af) {
  std::uint8_t b[16];
  for (auto& x : b) x = static_cast<std::uint8_t>(rng());
  b[0] = af == AddressFamily::ipv4 ? static_cast<std::uint8_t>(0xe0 | (b[0] & 1)) : 0xff;
  if (rng() % 4 != 0) {
    const IpGenPrefix& p = entries[rng() % entries.size()].key();
    for (unsigned i = 0; i < p.maskLen(); ++i) {
      const auto bit = static_cast<std::uint8_t>(0x80u >> (i % 8));
      b[i / 8] = static_cast<std::uint8_t>((b[i / 8] & ~bit) | (p.address().bytes()[i / 8] & bit));
    }
  }
  return IpGenAddr(af, b);
}

TEST(RpHashStatusWriter, RpForGroupIsTheLongestMatchAndProbesOnlyPresentLengths) {
  std::mt19937 rng(7);
  for (AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    const std::uint8_t maxLen = af == AddressFamily::ipv4 ? 32 : 128;
    auto t = P::rpHashStatusFactory(uniquePath());
    ASSERT_TRUE(t->mountWriter());
    const auto entries = randomEntries(rng, af, 300, {8, 12, 16, 24, maxLen});
    for (const RpHash& e : entries) ASSERT_TRUE(t->rpHashIs(e));
    EXPECT_EQ(t->maskLengths(af), (std::vector<std::uint8_t>{maxLen, 24, 16, 12, 8}));
    for (int i = 0; i < 2000; ++i) {
      const IpGenAddr g = randomGroup(rng, entries, af);
      ASSERT_EQ(t->rpForGroup(g), longestMatch(entries, g)) << g;
    }
    // The last entry of a length takes the length out of the probe list.
    for (const RpHash& e : entries) {
      if (e.key().maskLen() == 12) t->rpHashDel(e.key());
    }
    EXPECT_EQ(t->maskLengths(af), (std::vector<std::uint8_t>{maxLen, 24, 16, 8}));
    t->rpHashDelAll();
    EXPECT_TRUE(t->maskLengths(af).empty());
    EXPECT_TRUE(!t->rpForGroup(entries[0].key().address()));
  }
}

TEST(RpHashStatusPaths, NamesThatWouldLeaveTheRootMakeNoFile) {
  const std::string root = ::getenv("DROBE_ROOT");
  const std::string tag = "escape" + std::to_string(::getpid());
  const std::pair<std::string, std::string> cases[] = {
      // name, VRF
      {"..", "default"},
      {"a/../../b", "default"},
      {"", "default"},
      {".", "default"},
      {"../../../../../" + tag, "default"},
      {"x", ".."},
  };
  for (const auto& [name, vrf] : cases) {
    for (PathFn fn : kPathFns) {
      auto t = P::rpHashStatusFactory(fn(AddressFamily::ipv4, L3::VrfName(vrf), name));
      EXPECT_FALSE(t->mountWriter()) << t->name().str();
      EXPECT_FALSE(t->mounted());
    }
  }
  const std::string parent = std::filesystem::path(root).parent_path();
  EXPECT_FALSE(std::filesystem::exists(parent + "/" + tag));
  EXPECT_FALSE(std::filesystem::exists(root + "/routing/pim/b"));
  EXPECT_FALSE(std::filesystem::exists(root + "/routing/pim/default"));
  EXPECT_FALSE(std::filesystem::exists(root + "/routing/pim/rphash/rpHash"));
}

// ---------------------------------------------------------------------------------------
// Other processes.

using PimTest::runUntil;

struct Table {
  AddressFamily af;
  L3::VrfName vrf;
  std::size_t kind;  // index into kPathFns
  std::string path() const { return kPathFns[kind](af, vrf, "xp"); }
  std::string args() const {
    return fmt::format("--rphash --table {} --name xp --af {} --vrf {}", kTableNames[kind],
                       af == AddressFamily::ipv4 ? 4 : 6, vrf.name());
  }
};

std::vector<Table> allTables() {
  std::vector<Table> out;
  for (AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    for (const char* vrf : {"red", "blue"}) {
      for (std::size_t k = 0; k < 5; ++k) out.push_back({af, L3::VrfName(vrf), k});
    }
  }
  return out;
}

// Three entries per table, different in every table.
std::vector<RpHash> entriesOf(std::size_t table, AddressFamily af) {
  std::vector<RpHash> out;
  for (std::uint32_t i = 0; i < 3; ++i) {
    const std::string g = af == AddressFamily::ipv4 ? fmt::format("239.{}.{}.0/24", table, i)
                                                    : fmt::format("ff3e:{}:{}::/48", table, i);
    const std::string rp = af == AddressFamily::ipv4 ? fmt::format("10.{}.0.{}", table, i + 1)
                                                     : fmt::format("2001:db8:{}::{}", table, i + 1);
    out.push_back(entry(g, rp, static_cast<std::uint8_t>(i), 30, i == 1));
  }
  return out;
}

TEST(RpHashCrossProcess, PimshowPrintsEveryTableAndWatchesPerKeyDeletions) {
  const auto tables = allTables();
  std::vector<Kel::Ptr<RpHashStatus>> writers;
  for (std::size_t i = 0; i < tables.size(); ++i) {
    writers.push_back(P::rpHashStatusFactory(tables[i].path()));
    ASSERT_TRUE(writers.back()->mountWriter()) << tables[i].path();
    for (const RpHash& e : entriesOf(i, tables[i].af)) writers.back()->rpHashIs(e);
    writers.back()->rpHashCommit(entriesOf(i, tables[i].af)[0]);
  }
  const std::string pimshow = std::string(PIMSHOW_PATH) + " ";
  for (std::size_t i = 0; i < tables.size(); ++i) {
    const auto text = PimTest::runCommand(pimshow + tables[i].args());
    const auto json = PimTest::runCommand(pimshow + tables[i].args() + " --json");
    ASSERT_EQ(text.exitCode, 0) << text.out;
    ASSERT_EQ(json.exitCode, 0) << json.out;
    EXPECT_THAT(text.out, HasSubstr("rpHash (3):"));
    for (const RpHash& e : entriesOf(i, tables[i].af)) {
      EXPECT_THAT(text.out, HasSubstr(valueToStrep(e))) << tables[i].path();
      EXPECT_THAT(json.out, HasSubstr(fmt::format(
                                "{{\"key\": \"{}\", \"rp\": \"{}\", \"rpPriority\": {}, "
                                "\"rpHashMaskLen\": 30, \"staticOverriden\": {}, \"pimMode\": "
                                "\"sparse\"}}",
                                e.key().str(), e.rp().str(), e.rpPriority().value(),
                                e.staticOverriden() ? "true" : "false")));
    }
  }
  const auto absent = PimTest::runCommand(pimshow + "--rphash --name nobody --vrf red");
  EXPECT_EQ(absent.exitCode, 2);
  EXPECT_THAT(absent.out, HasSubstr("routing/pim/rphash/nobody/red"));

  // --watch in its own process; this one deletes everything of one table.
  PimTest::Children children;
  const int out = children.spawn([&](int fd) {
    ::dup2(fd, 1);
    const std::string cmd = "exec " + pimshow + tables[7].args() + " --json --watch";
    ::execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
  });
  std::string seen;
  auto readFor = [&](const std::function<bool()>& done) {
    char buf[4096];
    for (int i = 0; i < 30 && !done(); ++i) {
      if (!PimTest::readable(out, 1)) continue;
      const ssize_t n = ::read(out, buf, sizeof buf);
      if (n <= 0) break;
      seen.append(buf, static_cast<std::size_t>(n));
    }
    return done();
  };
  EXPECT_TRUE(readFor([&] { return seen.find("\n}\n") != std::string::npos; })) << seen;
  ::usleep(200000);  // pimshow's first loop turn has passed: it now watches
  writers[7]->rpHashDelAll();
  writers[7]->rpHashCommit(RpHash());
  auto dels = [&] {
    std::size_t n = 0;
    for (std::size_t p = seen.find("\"event\": \"del\""); p != std::string::npos;
         p = seen.find("\"event\": \"del\"", p + 1))
      ++n;
    return n;
  };
  EXPECT_TRUE(readFor([&] { return dels() >= 3; })) << seen;
  EXPECT_EQ(seen.find("resync"), std::string::npos) << seen;
  for (const RpHash& e : entriesOf(7, tables[7].af)) {
    EXPECT_THAT(seen, HasSubstr("\"event\": \"del\", \"key\": \"" + e.key().str() + "\""));
  }
  ::kill(children.pidOf(out), SIGTERM);  // pimshow ends its watch cleanly
  EXPECT_EQ(children.exitCode(out, 10), 0);
}

// A reader process's rpForGroup against brute force, 10,000 groups per family, on a table
// with 1,000 prefixes of many lengths. Exit 0 when all agree.
TEST(RpHashCrossProcess, ReaderRpForGroupAgreesWithBruteForce) {
  const std::string path = uniquePath();
  std::mt19937 rng(11);
  std::vector<std::uint8_t> lengths;
  for (std::uint8_t l = 4; l <= 32; ++l) lengths.push_back(l);
  auto entries = randomEntries(rng, AddressFamily::ipv4, 1000, lengths);
  auto v6 = randomEntries(rng, AddressFamily::ipv6, 1000, {8, 16, 32, 48, 64, 96, 120, 128});
  entries.insert(entries.end(), v6.begin(), v6.end());
  auto t = P::rpHashStatusFactory(path);
  ASSERT_TRUE(t->mountWriter());
  for (const RpHash& e : entries) ASSERT_TRUE(t->rpHashIs(e));
  t->rpHashCommit(entries[0]);
  PimTest::Children children;
  const int reader = children.spawn([&](int) {
    Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
    auto r = P::rpHashStatusFactory(path);
    r->mountReader(loop);
    if (!runUntil(
            loop, [&] { return r->maskLengths(AddressFamily::ipv6).size() == 8; }, 20))
      ::_exit(2);
    std::mt19937 g(13);
    for (int i = 0; i < 10000; ++i) {
      for (AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
        const IpGenAddr group = randomGroup(g, af == AddressFamily::ipv4 ? entries : v6, af);
        if (!(r->rpForGroup(group) == longestMatch(entries, group))) ::_exit(1);
      }
    }
    ::_exit(0);
  });
  EXPECT_EQ(children.exitCode(reader, 120), 0);
}

TEST(RpHashCrossProcess, AKilledWriterLeavesTheReaderUnmountedUntilANewOneComes) {
  const std::string path = uniquePath();
  const RpHash e = entry("239.5.0.0/16", "10.0.0.5");
  // Writer child: says when it is mounted, then rewrites entries in 238/8 (apart from e)
  // without end, or once and then waits.
  PimTest::Children children;
  auto startWriter = [&](bool forever) {
    const int fd = children.spawn([&](int tell) {
      auto w = P::rpHashStatusFactory(path);
      if (!w->mountWriter()) ::_exit(1);
      w->rpHashIs(e);
      w->rpHashCommit(e);
      PimTest::send(tell, 'm');
      for (std::uint32_t i = 0; forever || i < 1; ++i) {
        w->rpHashIs(RpHash(IpGenPrefix(IpGenAddr::v4(0xee000000u | (i & 0xffff) << 8), 24),
                           IpGenAddr::v4(i), P::RpPriority(1), P::RpHashMaskLen(30), false,
                           P::Mode::Sparse));
        if (i % 1000 == 999) {
          w->rpHashDelAll();
          w->rpHashIs(e);
        }
        w->rpHashCommit(e);
      }
      PimTest::hold(tell);  // the second writer stays until the test kills it
      ::_exit(0);
    });
    char mounted = 0;
    EXPECT_TRUE(PimTest::receive(fd, mounted));
    return fd;
  };
  const int first = startWriter(true);
  Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
  auto r = P::rpHashStatusFactory(path);
  r->mountReader(loop);
  Log log(r);
  const IpGenAddr g("239.5.1.1");
  EXPECT_TRUE(runUntil(loop, [&] { return r->rpForGroup(g) == e; }));
  EXPECT_EQ(children.exitCode(first, 10, true), -1);
  EXPECT_TRUE(runUntil(
      loop, [&] { return !r->mounted(); }, 5));
  EXPECT_TRUE(!r->rpForGroup(g));
  EXPECT_TRUE(r->maskLengths(AddressFamily::ipv4).empty());
  EXPECT_NE(std::find(log.out.begin(), log.out.end(), "unmounted"), log.out.end());

  startWriter(false);
  EXPECT_TRUE(runUntil(loop, [&] { return r->mounted() && r->rpForGroup(g) == e; }));
}

}  // namespace
