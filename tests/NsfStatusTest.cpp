// Graceful-restart status: one notice per real change, by setter or by name; reflection
// refusing what it cannot parse or name; the status as another process sees it, through a
// writer's death and its successor. (The RpfStatus notifiee is tested with the RPF state
// machine that publishes into it.)

#include <gmock/gmock.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Pim/NsfStatus.h"
#include "tests/PimTestUtil.h"

namespace {

using namespace Routing::Pim::Nsf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;
using Lines = std::vector<std::string>;

const auto* const kEnv = ::testing::AddGlobalTestEnvironment(new PimTest::PrivateDrobeRoot("nsf"));
const L3::VrfName kRed("red"), kBlue("blue");

// Every notice of a collection and its entries: "vrf created|deleted", or "vrf attr value"
// with the value read when the notice arrives.
struct Recorder : NsfStatusColl::NotifieeConst {
  struct Entry : NsfStatus::NotifieeConst {
    Lines* log;
    void line(std::string_view a) {
      log->push_back(fmt::format("{} {} {}", notifier()->vrfName().name(), a,
                                 Kel::attributeText(*notifier(), a)));
    }
    void onRestarting() override { line("restarting"); }
    void onRouteRecoveryComplete() override { line("routeRecoveryComplete"); }
  };
  explicit Recorder(const Kel::Ptr<NsfStatusColl>& c) { notifierIs(c); }
  void onVrfStatus(const L3::VrfName& vrf) override {
    Kel::Ptr<NsfStatus> s = notifier()->vrfStatus(vrf);
    log.push_back(vrf.str() + (s ? " created" : " deleted"));
    if (!s) return;
    entries.push_back(std::make_unique<Entry>());
    entries.back()->log = &log;
    entries.back()->notifierIs(s);
  }
  Lines take() { return std::exchange(log, {}); }
  Lines log;
  std::vector<std::unique_ptr<Entry>> entries;
};

// The lifecycle with repeated writes: each row sets one attribute and names its notices.
struct Step {
  const char* attr;
  bool value;
  Lines notices;
};
const Step kLifecycle[] = {
    {"restarting", false, {}},  // normal already
    {"restarting", true, {"red restarting True"}},
    {"restarting", true, {}},
    {"routeRecoveryComplete", true, {"red routeRecoveryComplete True"}},
    {"routeRecoveryComplete", true, {}},
    {"restarting", false, {"red restarting False"}},  // back to normal
    {"restarting", false, {}},
    {"routeRecoveryComplete", false, {"red routeRecoveryComplete False"}},
};

class NsfLifecycle : public ::testing::TestWithParam<bool> {};

TEST_P(NsfLifecycle, OneNoticePerRealChangeAndNoneForARepeat) {
  auto coll = nsfStatusCollFactory("nsf");
  Recorder rec(coll);
  Kel::Ptr<NsfStatus> red = coll->vrfStatusIs(kRed);
  EXPECT_EQ(coll->vrfStatusIs(kRed), red);  // the existing entry, no second notice
  EXPECT_THAT(rec.take(), ElementsAre("red created"));
  for (const Step& st : kLifecycle) {
    const bool restarting = std::string_view(st.attr) == "restarting";
    if (GetParam()) {
      Kel::attributeTextIs(*red, st.attr, st.value ? "True" : "False");
    } else {
      (*red.*
       (restarting ? &NsfStatus::restartingIs : &NsfStatus::routeRecoveryCompleteIs))(st.value);
    }
    EXPECT_EQ(rec.take(), st.notices) << st.attr << " " << st.value;
    EXPECT_EQ(restarting ? red->restarting() : red->routeRecoveryComplete(), st.value);
  }
}
INSTANTIATE_TEST_SUITE_P(BySetterAndByName, NsfLifecycle, ::testing::Bool());

TEST(NsfStatusColl, DeletionNotifiesOncePerEntryPresentAndNeverForAnAbsentOne) {
  auto coll = nsfStatusCollFactory("nsf");
  Recorder rec(coll);
  EXPECT_FALSE(coll->vrfStatusDel(kRed));
  coll->vrfStatusIs(kRed)->restartingIs(true);
  coll->vrfStatusIs(kBlue);
  coll->vrfStatusNotify(kBlue);
  Kel::Ptr<NsfStatus> red = coll->vrfStatusDel(kRed);
  ASSERT_TRUE(red && red->restarting());
  EXPECT_FALSE(coll->vrfStatusDel(kRed));
  coll->vrfStatusIs(kRed);
  coll->vrfStatusDelAll();
  coll->vrfStatusDelAll();
  EXPECT_THAT(rec.take(),
              ElementsAre("red created", "red restarting True", "blue created", "blue created",
                          "red deleted", "red created", "blue deleted", "red deleted"));
}

// ---------------------------------------------------------------------------------------
// Reflection.

TEST(NsfReflection, MalformedValuesAndUnknownNamesAreErrorsThatChangeNothing) {
  auto coll = nsfStatusCollFactory("nsf");
  Kel::Ptr<NsfStatus> red = coll->vrfStatusIs(kRed);
  red->restartingIs(true);
  Recorder rec(coll);
  const std::string st = "Routing::Pim::Nsf::NsfStatus", co = "Routing::Pim::Nsf::NsfStatusColl";
  Kel::Entity plain("plain");  // a type without a table names itself by its entity name
  std::vector<std::pair<std::function<void()>, std::string>> cases = {
      {[&] { Kel::attributeText(*red, "Restarting"); }, st + " has no attribute 'Restarting'"},
      {[&] { Kel::attributeTextIs(*red, "", "True"); }, st + " has no attribute ''"},
      {[&] { Kel::attributeText(*coll, "restarting"); }, co + " has no attribute 'restarting'"},
      {[&] { Kel::collectionKeys(*coll, "vrfstatus"); }, co + " has no collection 'vrfstatus'"},
      {[&] { Kel::collectionMember(*red, "vrfStatus", "'red'"); },
       st + " has no collection 'vrfStatus'"},
      {[&] { Kel::attributeText(plain, "x"); }, "plain has no attribute 'x'"},
  };
  for (const char* bad : {"true", "Truest", "", " True", "1", "False ", "'False'"}) {
    for (const char* attr : {"restarting", "routeRecoveryComplete"}) {
      cases.push_back({[&red, attr, bad] { Kel::attributeTextIs(*red, attr, bad); },
                       st + "::" + attr + " has no parsable value"});
    }
  }
  for (const auto& [call, text] : cases) {
    try {
      call();
      ADD_FAILURE() << "no error, expected: " << text;
    } catch (const Kel::RangeError& e) {
      EXPECT_EQ(e.what(), text);
    } catch (const Kel::AttributeError& e) {
      EXPECT_EQ(e.what(), text);
    }
  }
  EXPECT_TRUE(red->restarting());
  EXPECT_FALSE(red->routeRecoveryComplete());
  EXPECT_TRUE(rec.take().empty());
}

TEST(NsfReflection, CollectionsAreListedAndReachedByKey) {
  auto coll = nsfStatusCollFactory("nsf");
  coll->vrfStatusIs(kRed);
  coll->vrfStatusIs(L3::VrfName("o'hare"));
  EXPECT_THAT(Kel::collectionKeys(*coll, "vrfStatus"), ElementsAre("'o\\'hare'", "'red'"));
  Kel::Ptr<Kel::Entity> red = Kel::collectionMember(*coll, "vrfStatus", "'red'");
  ASSERT_EQ(red.ptr(), coll->vrfStatus(kRed).ptr());
  Kel::attributeTextIs(*red, "routeRecoveryComplete", "True");
  EXPECT_TRUE(coll->vrfStatus(kRed)->routeRecoveryComplete());
  EXPECT_TRUE(Kel::collectionMember(*coll, "vrfStatus", "'o\\'hare'"));
  for (const char* absentOrMalformed : {"'green'", "red", "'red'x"})
    EXPECT_FALSE(Kel::collectionMember(*coll, "vrfStatus", absentOrMalformed));
}

// ---------------------------------------------------------------------------------------
// The mirror.

using PimTest::runUntil;

// Two flags changed in one wake-up of the mirror: for every transition between the four
// states one notice per changed flag, and none meets a "recovery complete" the writer never
// published (routeRecoveryComplete is cleared first and set last).
TEST(NsfMirror, BothFlagsInOneWakeUpNeverShowAnUnpublishedRecovery) {
  Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
  auto coll = nsfStatusCollFactory("nsf");
  auto pub = nsfStatusPublisherFactory(coll, Nimo::AddressFamily::ipv6);
  ASSERT_TRUE(pub->mounted());
  auto mirror = nsfStatusMirrorFactory(loop, Nimo::AddressFamily::ipv6);
  Kel::Ptr<NsfStatus> red = coll->vrfStatusIs(kRed);
  ASSERT_TRUE(runUntil(loop, [&] { return mirror->nsfStatusColl()->vrfStatus(kRed) != nullptr; }));
  struct Seen : NsfStatus::NotifieeConst {
    std::vector<std::pair<bool, bool>> states;
    void onRestarting() override { add(); }
    void onRouteRecoveryComplete() override { add(); }
    void add() {
      states.emplace_back(notifier()->restarting(), notifier()->routeRecoveryComplete());
    }
  } seen;
  seen.notifierIs(mirror->nsfStatusColl()->vrfStatus(kRed));
  for (int from = 0; from < 4; ++from) {
    for (int to = 0; to < 4; ++to) {
      const std::pair<bool, bool> a{from & 1, from & 2}, b{to & 1, to & 2};
      for (const auto& st : {a, b}) {
        seen.states.clear();
        red->restartingIs(st.first);
        red->routeRecoveryCompleteIs(st.second);
        runUntil(loop, [&] {
          return std::pair(seen.notifier()->restarting(),
                           seen.notifier()->routeRecoveryComplete()) == st;
        });
      }
      ASSERT_EQ(seen.states.size(), std::size_t{a.first != b.first} + (a.second != b.second))
          << from << " -> " << to;
      for (const auto& s : seen.states) EXPECT_TRUE(!s.second || s == a || s == b);
    }
  }
}

// A writer process: an agent's collection and publisher, driven over a socket by lines
// "vrf attribute True|False" (set by name) or "del vrf", each answered with one byte.
[[noreturn]] void writerProcess(int fd) {
  auto coll = nsfStatusCollFactory("nsf");
  auto pub = nsfStatusPublisherFactory(coll, Nimo::AddressFamily::ipv4);
  std::string line;
  for (char c; ::read(fd, &c, 1) == 1;) {
    if (c != '\n') {
      line += c;
      continue;
    }
    const auto sp1 = line.find(' '), sp2 = line.rfind(' ');
    const std::string a = line.substr(0, sp1), b = line.substr(sp1 + 1, sp2 - sp1 - 1);
    if (a == "del") {
      coll->vrfStatusDel(L3::VrfName(b));
    } else {
      Kel::attributeTextIs(*coll->vrfStatusIs(L3::VrfName(a)), b, line.substr(sp2 + 1));
    }
    line.clear();
    if (::write(fd, pub->mounted() ? "k" : "x", 1) != 1) break;
  }
  ::_exit(0);
}

TEST(NsfAcrossProcesses, AReaderSeesEveryFlagAndAKilledWriterIsNoWriterUntilItsSuccessor) {
  Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
  auto mirror = nsfStatusMirrorFactory(loop, Nimo::AddressFamily::ipv4);
  Recorder rec(mirror->nsfStatusColl());
  EXPECT_FALSE(mirror->writerPresent());
  PimTest::Children children;  // ours only: killed or reaped by id
  int fd = children.spawn(writerProcess);
  auto command = [&](const std::string& line) {
    const std::string l = line + "\n";
    char ack = 0;
    return ::write(fd, l.data(), l.size()) == static_cast<ssize_t>(l.size()) &&
           ::read(fd, &ack, 1) == 1 && ack == 'k';
  };
  auto pimshowNsf = [] { return PimTest::runCommand(std::string(PIMSHOW_PATH) + " --nsf"); };
  ASSERT_TRUE(command("red restarting False"));  // creates red, normal
  ASSERT_TRUE(runUntil(loop, [&] { return mirror->writerPresent() && !rec.log.empty(); }));
  EXPECT_THAT(rec.take(), ElementsAre("red created"));

  // Each change arrives once; a repeated write not at all (the next real change is the
  // first notice seen after it).
  for (const Step& st : kLifecycle) {
    ASSERT_TRUE(command(std::string("red ") + st.attr + (st.value ? " True" : " False")));
    if (st.notices.empty()) continue;
    ASSERT_TRUE(runUntil(loop, [&] { return !rec.log.empty(); }));
    loop.runOnce(0.05);  // a stray second notice would arrive with it
    EXPECT_EQ(rec.take(), st.notices) << st.attr << " " << st.value;
  }

  // Killed in the middle of a restart: no writer, and red still reads as restarting.
  ASSERT_TRUE(command("red restarting True") && command("blue restarting False"));
  ASSERT_TRUE(runUntil(loop, [&] { return rec.log.size() == 2; }));
  rec.take();
  const PimTest::CommandOutput shown = pimshowNsf();
  EXPECT_EQ(shown.exitCode, 0);
  EXPECT_THAT(shown.out, HasSubstr("vrfStatus (2):"));
  EXPECT_THAT(shown.out, HasSubstr("'red', 'restarting': True, 'routeRecoveryComplete': False"));
  EXPECT_EQ(children.exitCode(fd, 10, true), -1);
  ASSERT_TRUE(runUntil(loop, [&] { return !mirror->writerPresent(); }));
  EXPECT_TRUE(mirror->nsfStatusColl()->vrfStatus(kRed)->restarting());
  EXPECT_TRUE(rec.take().empty());
  const PimTest::CommandOutput none = pimshowNsf();
  EXPECT_EQ(none.exitCode, 2);
  EXPECT_THAT(none.out, HasSubstr("no writer"));

  // A restarted writer's state replaces the dead one's before it reads as present.
  fd = children.spawn(writerProcess);
  ASSERT_TRUE(command("blue routeRecoveryComplete True"));
  bool presentWithOldState = false;
  struct Present : NsfStatusMirror::NotifieeConst {
    std::function<void()> fn;
    void onWriterPresent() override { fn(); }
  } present;
  present.fn = [&] { presentWithOldState = mirror->nsfStatusColl()->vrfStatus(kRed) != nullptr; };
  present.notifierIs(mirror);
  ASSERT_TRUE(runUntil(loop, [&] { return mirror->writerPresent(); }));
  EXPECT_FALSE(presentWithOldState);
  EXPECT_THAT(rec.take(), UnorderedElementsAre("red deleted", "blue routeRecoveryComplete True"));
  ASSERT_TRUE(command("del blue"));
  ASSERT_TRUE(runUntil(loop, [&] { return !rec.log.empty(); }));
  EXPECT_THAT(rec.take(), ElementsAre("blue deleted"));
  EXPECT_EQ(children.exitCode(fd, 10), 0);  // the second writer ends at end of input
}

}  // namespace
