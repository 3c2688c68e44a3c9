// Graceful-restart status: one notice per real change whether set by setter or by name,
// reflection refusing what it cannot parse or name, and the status as another process
// sees it, through a writer's death and its successor.
// (The RpfStatus notifiee is built with the RPF state machine and tested there.)

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "Pim/NsfStatus.h"
#include "Pim/PimAttrLogSm.h"
#include "tests/PimTestUtil.h"

namespace {

using namespace Routing::Pim::Nsf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;

const auto* const kEnv = ::testing::AddGlobalTestEnvironment(new PimTest::PrivateDrobeRoot("nsf"));

const L3::VrfName kRed("red");
const L3::VrfName kBlue("blue");

// Every notice of a collection and of its entries, as "vrf attribute value" lines (the
// value read when the notice arrives); "vrf created" / "vrf deleted" for the collection.
class Recorder : public NsfStatusColl::NotifieeConst {
 public:
  explicit Recorder(const Kel::Ptr<NsfStatusColl>& c) {
    notifierIs(c);
    for (const auto& [vrf, s] : c->vrfStatusMap()) watch(s);
  }
  void onVrfStatus(const L3::VrfName& vrf) override {
    Kel::Ptr<NsfStatus> s = notifier()->vrfStatus(vrf);
    log.push_back(vrf.str() + (s ? " created" : " deleted"));
    if (s) watch(s);
  }
  std::vector<std::string> take() { return std::exchange(log, {}); }
  std::vector<std::string> log;

 private:
  struct Entry : NsfStatus::NotifieeConst {
    Recorder* r = nullptr;
    void line(std::string_view attr) {
      r->log.push_back(notifier()->vrfName().str() + " " + std::string(attr) + " " +
                       Kel::attributeText(*notifier(), attr));
    }
    void onRestarting() override { line("restarting"); }
    void onRouteRecoveryComplete() override { line("routeRecoveryComplete"); }
  };
  void watch(const Kel::Ptr<NsfStatus>& s) {
    entries_.push_back(std::make_unique<Entry>());
    entries_.back()->r = this;
    entries_.back()->notifierIs(s);
  }
  std::vector<std::unique_ptr<Entry>> entries_;
};

// The lifecycle with repeated writes: each row sets one attribute and names the notices
// it must cause (none for a value already held).
struct Step {
  const char* attr;
  bool value;
  std::vector<std::string> notices;
};
const std::vector<Step> kLifecycle = {
    {"restarting", false, {}},  // normal: both false already
    {"restarting", true, {"red restarting True"}},
    {"restarting", true, {}},
    {"routeRecoveryComplete", true, {"red routeRecoveryComplete True"}},
    {"routeRecoveryComplete", true, {}},
    {"restarting", false, {"red restarting False"}},  // back to normal
    {"restarting", false, {}},
    {"routeRecoveryComplete", false, {"red routeRecoveryComplete False"}},
};

void set(NsfStatus& s, std::string_view attr, bool v, bool byName) {
  if (byName) {
    Kel::attributeTextIs(s, attr, v ? "True" : "False");
  } else if (attr == "restarting") {
    s.restartingIs(v);
  } else {
    s.routeRecoveryCompleteIs(v);
  }
}

class NsfLifecycle : public ::testing::TestWithParam<bool> {};

TEST_P(NsfLifecycle, OneNoticePerRealChangeAndNoneForARepeat) {
  auto coll = nsfStatusCollFactory("nsf");
  Recorder rec(coll);
  Kel::Ptr<NsfStatus> red = coll->vrfStatusIs(kRed);
  EXPECT_FALSE(red->restarting());
  EXPECT_FALSE(red->routeRecoveryComplete());
  EXPECT_EQ(coll->vrfStatusIs(kRed), red);  // existing entry, no second notice
  EXPECT_THAT(rec.take(), ElementsAre("red created"));
  for (std::size_t i = 0; i < kLifecycle.size(); ++i) {
    const Step& st = kLifecycle[i];
    set(*red, st.attr, st.value, GetParam());
    EXPECT_EQ(rec.take(), st.notices) << "step " << i;
    EXPECT_EQ(Kel::attributeText(*red, st.attr), st.value ? "True" : "False") << "step " << i;
  }
}
INSTANTIATE_TEST_SUITE_P(BySetterAndByName, NsfLifecycle, ::testing::Bool());

TEST(NsfStatusColl, DeletionNotifiesOncePerEntryPresentAndNeverForAnAbsentOne) {
  auto coll = nsfStatusCollFactory("nsf");
  Recorder rec(coll);
  EXPECT_FALSE(coll->vrfStatusDel(kRed));
  coll->vrfStatusIs(kRed)->restartingIs(true);
  coll->vrfStatusIs(kBlue);
  rec.take();
  Kel::Ptr<NsfStatus> red = coll->vrfStatusDel(kRed);
  ASSERT_TRUE(red);
  EXPECT_TRUE(red->restarting());
  EXPECT_FALSE(coll->vrfStatusDel(kRed));
  coll->vrfStatusNotify(kBlue);
  EXPECT_THAT(rec.take(), ElementsAre("red deleted", "blue created"));  // notify: still there
  coll->vrfStatusIs(kRed);
  rec.take();
  coll->vrfStatusDelAll();
  EXPECT_THAT(rec.take(), ElementsAre("blue deleted", "red deleted"));
  EXPECT_EQ(coll->vrfStatusSize(), 0u);
  coll->vrfStatusDelAll();
  EXPECT_TRUE(rec.take().empty());
}

// ---------------------------------------------------------------------------------------
// Reflection.

TEST(NsfReflection, MalformedValuesRaiseTheRangeErrorAndChangeNothing) {
  auto coll = nsfStatusCollFactory("nsf");
  Kel::Ptr<NsfStatus> red = coll->vrfStatusIs(kRed);
  red->restartingIs(true);
  Recorder rec(coll);
  for (const char* bad : {"true", "Truest", "", " True", "1", "False ", "'False'"}) {
    for (const char* attr : {"restarting", "routeRecoveryComplete"}) {
      PimTest::expectRangeError(
          [&] { Kel::attributeTextIs(*red, attr, bad); },
          std::string("Routing::Pim::Nsf::NsfStatus::") + attr + " has no parsable value");
    }
  }
  EXPECT_TRUE(red->restarting());
  EXPECT_FALSE(red->routeRecoveryComplete());
  EXPECT_TRUE(rec.take().empty());
}

TEST(NsfReflection, UnknownNamesAreClearErrors) {
  auto coll = nsfStatusCollFactory("nsf");
  Kel::Ptr<NsfStatus> red = coll->vrfStatusIs(kRed);
  auto expectError = [](const std::function<void()>& f, const std::string& text) {
    try {
      f();
      ADD_FAILURE() << "no error, expected: " << text;
    } catch (const Kel::AttributeError& e) {
      EXPECT_EQ(e.what(), text);
    }
  };
  const std::string status = "Routing::Pim::Nsf::NsfStatus";
  expectError([&] { Kel::attributeText(*red, "Restarting"); },
              status + " has no attribute 'Restarting'");
  expectError([&] { Kel::attributeTextIs(*red, "", "True"); }, status + " has no attribute ''");
  expectError([&] { Kel::attributeText(*coll, "restarting"); },
              "Routing::Pim::Nsf::NsfStatusColl has no attribute 'restarting'");
  expectError([&] { Kel::collectionKeys(*coll, "vrfstatus"); },
              "Routing::Pim::Nsf::NsfStatusColl has no collection 'vrfstatus'");
  expectError([&] { Kel::collectionKeys(*red, "vrfStatus"); },
              status + " has no collection 'vrfStatus'");
  // An entity type without a table names itself by its entity name.
  Kel::Entity plain("plain");
  expectError([&] { Kel::attributeText(plain, "x"); }, "plain has no attribute 'x'");
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
  EXPECT_FALSE(Kel::collectionMember(*coll, "vrfStatus", "'green'"));
  EXPECT_FALSE(Kel::collectionMember(*coll, "vrfStatus", "red"));  // not a text form
  EXPECT_FALSE(Kel::collectionMember(*coll, "vrfStatus", "'red'x"));
}

TEST(NsfReflection, TheAttributeLogOutputIsReachedByNameAndReadOnly) {
  int sv[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  auto out = Kel::NboAttrLog::socketOutSmFactory("attrlog", sv[0], 1024);
  auto sm = Routing::Pim::pimAttrLogSmFactory(out);
  EXPECT_EQ(Kel::attributeObject(*sm, "nboAttrLogOutSm").ptr(), out.ptr());
  EXPECT_EQ(Kel::attributeText(*sm, "nboAttrLogOutSm"), "Kel::NboAttrLog::SocketOutSm('attrlog')");
  EXPECT_THROW(Kel::attributeTextIs(*sm, "nboAttrLogOutSm", "None"), Kel::AttributeError);
  EXPECT_EQ(sm->nboAttrLogOutSm(), out);
  EXPECT_THROW(Kel::attributeObject(*sm, "nboAttrLogOutSM"), Kel::AttributeError);
  EXPECT_EQ(Kel::attributeText(*Routing::Pim::pimAttrLogSmFactory(nullptr), "nboAttrLogOutSm"),
            "None");
  ::close(sv[1]);
}

// ---------------------------------------------------------------------------------------
// Another process.

// A writer process: an agent's NsfStatusColl and its publisher, driven over a socket by
// lines "vrf attribute True|False" (set by name), "del vrf"; it answers each with one byte.
pid_t startWriter(int& fd) {
  int sv[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return -1;
  const pid_t pid = ::fork();
  if (pid != 0) {
    ::close(sv[1]);
    fd = sv[0];
    return pid;
  }
  ::close(sv[0]);
  auto coll = nsfStatusCollFactory("nsf");
  auto pub = nsfStatusPublisherFactory(coll, Nimo::AddressFamily::ipv4);
  std::string buf;
  char c;
  while (::read(sv[1], &c, 1) == 1) {
    if (c != '\n') {
      buf += c;
      continue;
    }
    const auto sp1 = buf.find(' '), sp2 = buf.rfind(' ');
    const std::string a = buf.substr(0, sp1), b = buf.substr(sp1 + 1, sp2 - sp1 - 1);
    if (a == "del") {
      coll->vrfStatusDel(L3::VrfName(buf.substr(sp1 + 1)));
    } else {
      Kel::attributeTextIs(*coll->vrfStatusIs(L3::VrfName(a)), b, buf.substr(sp2 + 1));
    }
    buf.clear();
    const char ack = pub->mounted() ? 'k' : 'x';
    if (::write(sv[1], &ack, 1) != 1) break;
  }
  ::_exit(0);
}

// Two flags that change in one wake-up of the mirror: every transition between the four
// states gives one notice per changed flag, and no notice meets a "recovery complete" the
// writer never published (routeRecoveryComplete is cleared first and set last).
TEST(NsfMirror, BothFlagsInOneWakeUpNeverShowAnUnpublishedRecovery) {
  Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
  auto coll = nsfStatusCollFactory("nsf");
  auto pub = nsfStatusPublisherFactory(coll, Nimo::AddressFamily::ipv6);
  ASSERT_TRUE(pub->mounted());
  auto mirror = nsfStatusMirrorFactory(loop, Nimo::AddressFamily::ipv6);
  Kel::Ptr<NsfStatus> red = coll->vrfStatusIs(kRed);
  for (int i = 0; i < 100 && !mirror->nsfStatusColl()->vrfStatus(kRed); ++i) loop.runOnce(0.01);
  ASSERT_TRUE(mirror->nsfStatusColl()->vrfStatus(kRed));
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
        red->restartingIs(st.first);
        red->routeRecoveryCompleteIs(st.second);
        for (int i = 0; i < 100 && seen.notifier()->restarting() != st.first; ++i) {
          loop.runOnce(0.01);
        }
        for (int i = 0; i < 100 && seen.notifier()->routeRecoveryComplete() != st.second; ++i) {
          loop.runOnce(0.01);
        }
        if (st == a) seen.states.clear();
      }
      const std::size_t changed =
          std::size_t{a.first != b.first} + std::size_t{a.second != b.second};
      ASSERT_EQ(seen.states.size(), changed) << from << " -> " << to;
      for (const auto& s : seen.states) {
        EXPECT_TRUE(!s.second || s == a || s == b) << from << " -> " << to;
      }
    }
  }
}

class NsfAcrossProcesses : public ::testing::Test {
 protected:
  void TearDown() override {
    for (pid_t p : children_) {
      ::kill(p, SIGKILL);
      ::waitpid(p, nullptr, 0);
    }
  }
  pid_t writer() {
    const pid_t p = startWriter(fd_);
    if (p > 0) children_.push_back(p);
    return p;
  }
  void kill(pid_t p) {
    ::kill(p, SIGKILL);
    ::waitpid(p, nullptr, 0);
    std::erase(children_, p);
    ::close(fd_);
  }
  // Sends one command to the current writer and waits for its answer.
  void command(const std::string& line) {
    const std::string l = line + "\n";
    ASSERT_EQ(::write(fd_, l.data(), l.size()), static_cast<ssize_t>(l.size()));
    char ack = 0;
    ASSERT_EQ(::read(fd_, &ack, 1), 1);
    ASSERT_EQ(ack, 'k') << "the writer could not mount the table";
  }
  // Runs the loop until pred holds; bounded (10 s).
  template <typename P>
  bool runUntil(P&& pred) {
    for (int i = 0; i < 1000 && !pred(); ++i) loop_.runOnce(0.01);
    return pred();
  }

  Ulm::EventLoop loop_{Kel::Ptr<Kel::Clock>(new Kel::SystemClock)};
  std::vector<pid_t> children_;
  int fd_ = -1;
};

TEST_F(NsfAcrossProcesses, AReaderSeesEveryFlagAndAKilledWriterIsNoWriterUntilItsSuccessor) {
  auto mirror = nsfStatusMirrorFactory(loop_, Nimo::AddressFamily::ipv4);
  Recorder rec(mirror->nsfStatusColl());
  EXPECT_FALSE(mirror->writerPresent());
  const pid_t first = writer();
  ASSERT_GT(first, 0);
  command("red restarting False");  // creates red, normal
  ASSERT_TRUE(runUntil([&] { return mirror->writerPresent() && rec.log.size() == 1; }));
  EXPECT_THAT(rec.take(), ElementsAre("red created"));

  // Each change of the writer arrives once; a repeated write arrives not at all (the next
  // real change is the first notice seen after it).
  for (std::size_t i = 0; i < kLifecycle.size(); ++i) {
    const Step& st = kLifecycle[i];
    command(std::string("red ") + st.attr + (st.value ? " True" : " False"));
    if (st.notices.empty()) continue;
    ASSERT_TRUE(runUntil([&] { return !rec.log.empty(); })) << "step " << i;
    loop_.runOnce(0.05);  // a stray second notice would arrive with it
    EXPECT_EQ(rec.take(), st.notices) << "step " << i;
  }

  // Killed in the middle of a restart: no writer, and red still reads as restarting.
  command("red restarting True");
  command("blue restarting False");
  ASSERT_TRUE(runUntil([&] { return rec.log.size() == 2; }));
  rec.take();
  const PimTest::CommandOutput shown = PimTest::runCommand(std::string(PIMSHOW_PATH) + " --nsf");
  EXPECT_EQ(shown.exitCode, 0);
  EXPECT_THAT(shown.out, HasSubstr("vrfStatus (2):"));
  EXPECT_THAT(shown.out, HasSubstr("'vrfName': 'red', 'restarting': True, "
                                   "'routeRecoveryComplete': False"));
  kill(first);
  ASSERT_TRUE(runUntil([&] { return !mirror->writerPresent(); }));
  EXPECT_TRUE(mirror->nsfStatusColl()->vrfStatus(kRed)->restarting());
  EXPECT_TRUE(rec.take().empty());
  const PimTest::CommandOutput none = PimTest::runCommand(std::string(PIMSHOW_PATH) + " --nsf");
  EXPECT_EQ(none.exitCode, 2);
  EXPECT_THAT(none.out, HasSubstr("no writer"));

  // A restarted writer's state replaces the dead one's before it reads as present.
  const pid_t second = writer();
  ASSERT_GT(second, 0);
  command("blue routeRecoveryComplete True");
  bool presentWithOldState = false;
  struct Present : NsfStatusMirror::NotifieeConst {
    std::function<void()> fn;
    void onWriterPresent() override { fn(); }
  } present;
  present.fn = [&] { presentWithOldState = mirror->nsfStatusColl()->vrfStatus(kRed) != nullptr; };
  present.notifierIs(mirror);
  ASSERT_TRUE(runUntil([&] { return mirror->writerPresent(); }));
  EXPECT_FALSE(presentWithOldState);
  EXPECT_THAT(rec.take(), UnorderedElementsAre("red deleted", "blue routeRecoveryComplete True"));
  EXPECT_FALSE(mirror->nsfStatusColl()->vrfStatus(kBlue)->restarting());
  command("del blue");
  ASSERT_TRUE(runUntil([&] { return !rec.log.empty(); }));
  EXPECT_THAT(rec.take(), ElementsAre("blue deleted"));
}

}  // namespace
