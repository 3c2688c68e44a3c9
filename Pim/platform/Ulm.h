// Ulm: timers and the event loop.
//
// - TimerWheel: the timers of one event loop, ordered by deadline on a Kel::Clock. It never
//   reads the wall clock itself: runExpired() fires every timer whose deadline is at or
//   before clock->now(), earliest first (ties in arming order). With a Kel::ManualClock a
//   test advances the clock and calls runExpired(): fully deterministic, no sleeping.
//   A callback may re-arm or cancel itself or any other timer, or destroy other timers.
//   A timer (re-)armed during a run for a deadline that has already passed fires on the
//   next run, not the current one, so a timer re-arming itself at "now" cannot livelock.
//   Despite the name it is an ordered set (O(log n) arm/cancel): deadlines are doubles and
//   the tables here hold hundreds of timers, not millions, so buckets would buy nothing.
// - Timer: one timer; ownership is registration. Destroying a Timer cancels it, so a
//   machine that owns its timers as members can never be called back after it is gone.
// - EventLoop: epoll over file descriptors (readable events, level- or edge-triggered) plus
//   a TimerWheel. runOnce() waits at most until the next deadline (or maxWaitSeconds), runs
//   the callbacks of the ready descriptors, then the expired timers. A callback may unwatch any
//   descriptor, including one whose event is pending in the same batch: it is not called
//   afterwards.
// - FdWatch: owned registration of a descriptor on a loop; unwatches on destruction.
//
// Threading: one thread, the loop's. No locks.
//
// Usage:
//   Kel::Ptr<Kel::ManualClock> clock = Kel::Ptr<Kel::ManualClock>::make();
//   Ulm::EventLoop loop(clock);
//   Ulm::Timer purge(loop.timers(), [&] { purgeQueue(); });
//   purge.deadlineIs(clock->now() + 10.0);
//   Ulm::FdWatch rx(loop, sock, [&] { readAll(sock); });
//   clock->advance(10.0);
//   loop.runOnce(0.0);  // reads the socket if readable, then fires purge
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>

#include "Pim/platform/Kel.h"

namespace Ulm {

class Timer;

class TimerWheel {
 public:
  explicit TimerWheel(Kel::Ptr<Kel::Clock> clock);
  ~TimerWheel();
  TimerWheel(const TimerWheel&) = delete;
  TimerWheel& operator=(const TimerWheel&) = delete;

  const Kel::Ptr<Kel::Clock>& clock() const noexcept { return clock_; }
  Kel::Time now() const noexcept { return clock_->now(); }

  // Fires the timers due at clock->now(); returns how many fired.
  std::size_t runExpired();
  // Deadline of the earliest armed timer.
  std::optional<Kel::Time> nextDeadline() const;
  std::size_t armedCount() const noexcept { return queue_.size(); }

 private:
  friend class Timer;
  struct Entry {
    Kel::Time deadline;
    std::uint64_t order;  // arming order, breaks ties and fences a run
    Timer* timer;
    bool operator<(const Entry& o) const noexcept {
      return deadline < o.deadline || (deadline == o.deadline && order < o.order);
    }
  };
  using Queue = std::set<Entry>;

  Kel::Ptr<Kel::Clock> clock_;
  Queue queue_;
  std::uint64_t nextOrder_ = 1;
};

class Timer {
 public:
  using Callback = std::function<void()>;

  Timer(TimerWheel& wheel, Callback cb);
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Arms (or re-arms) the timer for the absolute time t.
  void deadlineIs(Kel::Time t);
  // Arms the timer for now + seconds.
  void delayIs(Kel::Time seconds) { deadlineIs(wheel_.now() + seconds); }
  void cancel();
  bool armed() const noexcept { return armed_; }
  // The deadline of the armed timer; meaningless when not armed.
  Kel::Time deadline() const noexcept { return deadline_; }
  void callbackIs(Callback cb) { cb_ = std::move(cb); }

 private:
  friend class TimerWheel;
  TimerWheel& wheel_;
  Callback cb_;
  TimerWheel::Queue::iterator pos_;
  Kel::Time deadline_ = 0.0;
  bool armed_ = false;
};

class EventLoop {
 public:
  using Callback = std::function<void()>;

  explicit EventLoop(Kel::Ptr<Kel::Clock> clock);
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  TimerWheel& timers() noexcept { return timers_; }
  const Kel::Ptr<Kel::Clock>& clock() const noexcept { return timers_.clock(); }

  // Calls cb whenever fd is readable (level-triggered), or with edgeTriggered once each
  // time it is made readable, which lets a callback skip draining a counter such as an
  // eventfd's. Returns false (traced) if epoll refuses the descriptor. Watching an fd again
  // replaces its callback (the trigger mode stays).
  bool watch(int fd, Callback cb, bool edgeTriggered = false);
  void unwatch(int fd);
  bool watching(int fd) const { return fds_.count(fd) != 0; }

  // Waits for at most maxWaitSeconds (0: poll), or less if a timer is due sooner, then
  // dispatches ready descriptors and expired timers. Returns the number of callbacks run.
  std::size_t runOnce(double maxWaitSeconds);
  // Runs until stop() is called from a callback.
  void run();
  void stop() noexcept { stopped_ = true; }

 private:
  struct Watch {
    std::uint64_t token;
    Callback cb;
  };
  int epfd_ = -1;
  TimerWheel timers_;
  std::unordered_map<int, Watch> fds_;
  std::uint64_t nextToken_ = 1;
  bool stopped_ = false;
};

// Owned watch of one descriptor: unwatches when destroyed. Does not own the descriptor.
class FdWatch {
 public:
  FdWatch(EventLoop& loop, int fd, EventLoop::Callback cb) : loop_(&loop), fd_(fd) {
    if (!loop_->watch(fd_, std::move(cb))) fd_ = -1;
  }
  ~FdWatch() {
    if (fd_ >= 0) loop_->unwatch(fd_);
  }
  FdWatch(const FdWatch&) = delete;
  FdWatch& operator=(const FdWatch&) = delete;
  bool ok() const noexcept { return fd_ >= 0; }
  int fd() const noexcept { return fd_; }

 private:
  EventLoop* loop_;
  int fd_;
};

// ---------------------------------------------------------------------------------------
// ReviewTimer: the credit-based scheduler of sliced reviews (the RPF machines). The owner
// calls request() when it has work and at the end of a slice that left work over; the
// timer calls back on the wheel. Its rules:
// - a request while a run is scheduled joins that run (nothing moves);
// - otherwise the run is scheduled minDelay ahead when a credit is available, maxDelay
//   ahead when not, so no request waits longer than maxDelay;
// - a run that starts uses a credit if there is one;
// - credits come back one per fill interval, up to maxCredits (full at construction);
// - requestImmediate() moves the run to the next pass of the wheel (now, never inside the
//   caller's stack: the wheel fences timers armed during a pass to the next one).
// So a long review runs its slices minDelay apart maxCredits times, then maxDelay apart,
// and after an idle fill interval a request gets minDelay again. Credits and deadlines are
// read from `clock`, which must be the wheel's clock (or run in step with it). The timer is
// a member of its machine: destroying it cancels the run.
class ReviewTimer {
 public:
  using Callback = std::function<void()>;
  ReviewTimer(TimerWheel& wheel, Kel::Ptr<const Kel::Clock> clock, double fillInterval,
              std::uint32_t maxCredits, double minDelay, double maxDelay, Callback cb);

  void request();
  void requestImmediate();
  void cancel() { timer_.cancel(); }
  bool scheduled() const noexcept { return timer_.armed(); }
  Kel::Time deadline() const noexcept { return timer_.deadline(); }
  // Credits now (refilled up to the clock's time).
  std::uint32_t credits();
  double minDelay() const noexcept { return minDelay_; }
  double maxDelay() const noexcept { return maxDelay_; }

 private:
  void refill();
  void fire();
  Kel::Ptr<const Kel::Clock> clock_;
  double fillInterval_;
  std::uint32_t maxCredits_;
  double minDelay_;
  double maxDelay_;
  std::uint32_t credits_;
  Kel::Time lastFill_;
  Callback cb_;
  Timer timer_;
};

}  // namespace Ulm
