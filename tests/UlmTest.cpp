// Ulm: timer order, re-arming and cancelling from callbacks, ownership, fd dispatch.
#include <gtest/gtest.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Pim/platform/Ulm.h"

namespace {

class UlmTest : public ::testing::Test {
 protected:
  std::function<void()> note(char c) {
    return [this, c] { fired_ += c; };
  }
  Kel::Ptr<Kel::ManualClock> clock_ = Kel::Ptr<Kel::ManualClock>::make(100.0);
  Ulm::EventLoop loop_{clock_};
  Ulm::TimerWheel& wheel_ = loop_.timers();
  std::string fired_;
};

TEST_F(UlmTest, TimersFireInDeadlineOrderOnlyWhenDue) {
  std::deque<Ulm::Timer> timers;
  for (auto [name, delay] : {std::pair{'c', 3.0}, {'a', 1.0}, {'d', 3.0}, {'b', 2.0}, {'e', 5.0}})
    timers.emplace_back(wheel_, note(name)).delayIs(delay);
  ASSERT_EQ(wheel_.nextDeadline(), 101.0);
  // Advance by, fired so far; equal deadlines fire in arming order.
  const std::pair<double, const char*> steps[] = {{0.999, ""},   {0.001, "a"},    {1.5, "ab"},
                                                  {0.5, "abcd"}, {1.999, "abcd"}, {0.001, "abcde"}};
  for (auto [dt, expect] : steps) {
    clock_->advance(dt);
    loop_.runOnce(0.0);
    EXPECT_EQ(fired_, expect) << "at " << clock_->now();
  }
  EXPECT_FALSE(wheel_.nextDeadline());
}

// Destroyed timers never fire: one destroyed early, one by a callback in the same run.
TEST_F(UlmTest, CallbacksReArmCancelAndDestroyThemselvesAndOthers) {
  int ticks = 0;
  Ulm::Timer periodic(wheel_, {});
  periodic.callbackIs([&] {
    fired_ += 'p';
    if (++ticks < 3) periodic.delayIs(1.0);
  });
  auto victim = std::make_unique<Ulm::Timer>(wheel_, note('v'));
  auto early = std::make_unique<Ulm::Timer>(wheel_, note('o'));
  Ulm::Timer killer(wheel_, [&] {
    fired_ += 'k';
    victim.reset();
  });
  // Re-arming at "now" from its own callback must wait for the next run.
  Ulm::Timer eager(wheel_, {});
  eager.callbackIs([&] {
    fired_ += 'e';
    eager.deadlineIs(clock_->now());
  });
  periodic.delayIs(1.0);
  early->delayIs(1.0);
  killer.delayIs(2.0);
  victim->delayIs(2.0);  // same deadline, armed after the killer
  eager.delayIs(10.0);
  early.reset();
  for (int i = 0; i < 5; ++i) {
    clock_->advance(1.0);
    wheel_.runExpired();
  }
  EXPECT_EQ(fired_, "pkpp");
  EXPECT_EQ(wheel_.armedCount(), 1u);
  clock_->advance(5.0);
  EXPECT_EQ(wheel_.runExpired(), 1u);
  EXPECT_EQ(wheel_.runExpired(), 1u);
  EXPECT_EQ(fired_, "pkppee");
  eager.cancel();
  EXPECT_EQ(wheel_.runExpired(), 0u);
}

struct Pipe {
  int fd[2] = {-1, -1};
  char c = 0;
  Pipe() { EXPECT_EQ(::pipe(fd), 0); }
  ~Pipe() { ::close(fd[0]), ::close(fd[1]); }
  void put() { EXPECT_EQ(::write(fd[1], "x", 1), 1); }
  void take() { EXPECT_EQ(::read(fd[0], &c, 1), 1); }
};

TEST_F(UlmTest, FdCallbacksRunOnReadabilityNotAfterUnwatchAndRunStops) {
  Pipe a, b;
  auto reader = [this](Pipe* mine, char name, Pipe* other) {
    return [=, this] {
      mine->take();
      fired_ += name;
      loop_.unwatch(other->fd[0]);  // it may be ready in this very batch
    };
  };
  loop_.watch(a.fd[0], reader(&a, 'a', &b));
  auto watchB = std::make_unique<Ulm::FdWatch>(loop_, b.fd[0], reader(&b, 'b', &a));
  EXPECT_EQ(loop_.runOnce(0.0), 0u);
  a.put();
  b.put();
  loop_.runOnce(0.0);
  ASSERT_EQ(fired_.size(), 1u);
  EXPECT_EQ(loop_.runOnce(0.0), 0u);  // the other byte stays unread
  EXPECT_NE(loop_.watching(a.fd[0]), loop_.watching(b.fd[0]));
  watchB.reset();
  EXPECT_FALSE(loop_.watching(b.fd[0]));

  Pipe p;
  int reads = 0;
  Ulm::FdWatch w(loop_, p.fd[0], [&] {
    p.take();
    ++reads < 3 ? p.put() : loop_.stop();
  });
  p.put();
  loop_.run();  // would block forever if stop() were ignored
  EXPECT_EQ(reads, 3);
}

// The review timer: a machine asking again at the end of every run gets its runs minDelay
// apart while credits last, then maxDelay apart; an idle second buys a short delay back.
TEST_F(UlmTest, ReviewTimerSpacesRunsByCredits) {
  std::vector<double> runs;
  auto timer = std::make_unique<Ulm::ReviewTimer>(wheel_, clock_, 1.0, 4, 0.01, 0.05,
                                                  [&] { runs.push_back(clock_->now()); });
  // Steps the clock to the next deadline and runs the wheel, as the event loop would.
  auto pass = [&] {
    ASSERT_TRUE(timer->scheduled());
    clock_->nowIs(timer->deadline());
    loop_.runOnce(0.0);
  };
  timer->request();
  for (int i = 0; i < 7; ++i) {
    pass();
    timer->request();
    timer->request();  // joins the run already scheduled
  }
  const double gaps[] = {0.01, 0.01, 0.01, 0.01, 0.05, 0.05, 0.05};
  ASSERT_EQ(runs.size(), 7u);
  double t = 100.0;
  for (std::size_t i = 0; i < runs.size(); ++i) {
    t += gaps[i];
    EXPECT_NEAR(runs[i], t, 1e-9) << "run " << i;
  }
  // Idle: one credit per second comes back, so the next request is short again.
  pass();
  clock_->advance(1.0);
  timer->request();
  EXPECT_NEAR(timer->deadline() - clock_->now(), 0.01, 1e-9);
  // An immediate run fires on the next pass of the wheel, never inside the call.
  runs.clear();
  timer->requestImmediate();
  EXPECT_TRUE(runs.empty());
  loop_.runOnce(0.0);
  EXPECT_EQ(runs.size(), 1u);
  // Destroying the owner's timer cancels its run.
  timer->request();
  timer.reset();
  clock_->advance(1.0);
  EXPECT_EQ(loop_.runOnce(0.0), 0u);
  EXPECT_EQ(runs.size(), 1u);
}

}  // namespace
