// Ulm: timer order, re-arming and cancelling from callbacks, ownership, fd dispatch.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "Pim/platform/Ulm.h"

namespace {

class UlmTest : public ::testing::Test {
 protected:
  Kel::Ptr<Kel::ManualClock> clock_ = Kel::Ptr<Kel::ManualClock>::make(100.0);
  Ulm::EventLoop loop_{clock_};
  Ulm::TimerWheel& wheel_ = loop_.timers();
  std::string fired_;
};

TEST_F(UlmTest, TimersFireInDeadlineOrderOnlyWhenDue) {
  // name, delay; equal delays fire in arming order.
  const std::vector<std::pair<char, double>> arms = {
      {'c', 3.0}, {'a', 1.0}, {'d', 3.0}, {'b', 2.0}, {'e', 5.0}};
  std::vector<std::unique_ptr<Ulm::Timer>> timers;
  for (auto [name, delay] : arms) {
    timers.push_back(std::make_unique<Ulm::Timer>(wheel_, [this, n = name] { fired_ += n; }));
    timers.back()->delayIs(delay);
  }
  ASSERT_EQ(wheel_.nextDeadline(), 101.0);
  // advance by, fired so far
  const std::vector<std::pair<double, std::string>> steps = {
      {0.999, ""}, {0.001, "a"}, {1.5, "ab"}, {0.5, "abcd"}, {1.999, "abcd"}, {0.001, "abcde"}};
  for (auto [dt, expect] : steps) {
    clock_->advance(dt);
    loop_.runOnce(0.0);
    EXPECT_EQ(fired_, expect) << "at " << clock_->now();
  }
  EXPECT_EQ(wheel_.armedCount(), 0u);
  EXPECT_FALSE(wheel_.nextDeadline());
}

TEST_F(UlmTest, CallbacksReArmAndCancelThemselvesAndOthers) {
  int ticks = 0;
  Ulm::Timer periodic(wheel_, {});
  periodic.callbackIs([&] {
    fired_ += 'p';
    if (++ticks < 3) periodic.delayIs(1.0);
  });
  Ulm::Timer victim(wheel_, [this] { fired_ += 'v'; });
  Ulm::Timer killer(wheel_, [&] {
    fired_ += 'k';
    victim.cancel();
  });
  // Re-arming at "now" from its own callback must wait for the next run.
  Ulm::Timer eager(wheel_, {});
  eager.callbackIs([&] {
    fired_ += 'e';
    eager.deadlineIs(clock_->now());
  });
  periodic.delayIs(1.0);
  killer.delayIs(2.0);
  victim.delayIs(2.0);  // same deadline, armed after the killer
  eager.delayIs(10.0);

  for (int i = 0; i < 5; ++i) {
    clock_->advance(1.0);
    wheel_.runExpired();
  }
  EXPECT_EQ(fired_, "pkpp");
  EXPECT_FALSE(periodic.armed());
  EXPECT_FALSE(victim.armed());

  clock_->advance(5.0);
  EXPECT_EQ(wheel_.runExpired(), 1u);
  EXPECT_EQ(wheel_.runExpired(), 1u);
  EXPECT_EQ(fired_, "pkppee");
  eager.cancel();
  EXPECT_EQ(wheel_.runExpired(), 0u);
}

TEST_F(UlmTest, DestroyingATimerCancelsIt) {
  auto owned = std::make_unique<Ulm::Timer>(wheel_, [this] { fired_ += 'o'; });
  auto second = std::make_unique<Ulm::Timer>(wheel_, [this] { fired_ += 's'; });
  Ulm::Timer first(wheel_, [&] {
    fired_ += 'f';
    second.reset();  // destroyed while due in the same run
  });
  owned->delayIs(1.0);
  first.delayIs(1.0);
  second->delayIs(1.0);
  owned.reset();
  EXPECT_EQ(wheel_.armedCount(), 2u);
  clock_->advance(1.0);
  wheel_.runExpired();
  EXPECT_EQ(fired_, "f");
  EXPECT_EQ(wheel_.armedCount(), 0u);
}

struct Pipe {
  int fd[2] = {-1, -1};
  Pipe() { EXPECT_EQ(::pipe(fd), 0); }
  ~Pipe() {
    ::close(fd[0]);
    ::close(fd[1]);
  }
  void put() { ASSERT_EQ(::write(fd[1], "x", 1), 1); }
  void take() {
    char c;
    ASSERT_EQ(::read(fd[0], &c, 1), 1);
  }
};

TEST_F(UlmTest, FdCallbackRunsOnReadabilityAndNotAfterUnwatch) {
  Pipe a, b;
  loop_.watch(a.fd[0], [&] {
    a.take();
    fired_ += 'a';
    loop_.unwatch(b.fd[0]);  // b may be ready in this very batch
  });
  auto watchB = std::make_unique<Ulm::FdWatch>(loop_, b.fd[0], [&] {
    b.take();
    fired_ += 'b';
    loop_.unwatch(a.fd[0]);
  });
  ASSERT_TRUE(watchB->ok());
  EXPECT_EQ(loop_.runOnce(0.0), 0u);
  a.put();
  b.put();
  loop_.runOnce(0.0);
  // Exactly one of the two ran; it unwatched the other, whose byte is still unread.
  ASSERT_EQ(fired_.size(), 1u);
  EXPECT_EQ(loop_.runOnce(0.0), 0u);
  EXPECT_NE(loop_.watching(a.fd[0]), loop_.watching(b.fd[0]));
  watchB.reset();
  EXPECT_FALSE(loop_.watching(b.fd[0]));
}

TEST_F(UlmTest, RunDispatchesUntilStopped) {
  Pipe p;
  int reads = 0;
  Ulm::FdWatch w(loop_, p.fd[0], [&] {
    p.take();
    if (++reads < 3) {
      p.put();
    } else {
      loop_.stop();
    }
  });
  p.put();
  loop_.run();  // would block forever if stop() were ignored
  EXPECT_EQ(reads, 3);
}

}  // namespace
