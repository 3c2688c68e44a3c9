// Ulm: timer wheel and epoll event loop.
#include "Pim/platform/Ulm.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <vector>

#include "Pim/platform/Flicklog.h"

namespace Ulm {

namespace {

Flicklog::Facility& ulmTrace() {
  static Flicklog::Facility& f = Flicklog::facility("Ulm");
  return f;
}

constexpr int kMaxEvents = 64;

}  // namespace

// ---------------------------------------------------------------------------------------
// TimerWheel

TimerWheel::TimerWheel(Kel::Ptr<Kel::Clock> clock) : clock_(std::move(clock)) {}

TimerWheel::~TimerWheel() {
  // Timers outliving their wheel must not touch it again.
  for (const Entry& e : queue_) e.timer->armed_ = false;
}

std::size_t TimerWheel::runExpired() {
  const Kel::Time now = clock_->now();
  // Timers armed during this run carry an order at or above the fence and wait for the
  // next run, so a callback re-arming at "now" cannot spin here forever.
  const std::uint64_t fence = nextOrder_;
  std::size_t fired = 0;
  for (;;) {
    auto it = queue_.begin();
    while (it != queue_.end() && it->deadline <= now && it->order >= fence) ++it;
    if (it == queue_.end() || it->deadline > now) break;
    Timer* t = it->timer;
    queue_.erase(it);
    t->armed_ = false;
    ++fired;
    // The callback may destroy t; copy nothing from it afterwards.
    if (t->cb_) {
      Timer::Callback cb = t->cb_;
      cb();
    }
  }
  return fired;
}

std::optional<Kel::Time> TimerWheel::nextDeadline() const {
  if (queue_.empty()) return std::nullopt;
  return queue_.begin()->deadline;
}

// ---------------------------------------------------------------------------------------
// Timer

Timer::Timer(TimerWheel& wheel, Callback cb) : wheel_(wheel), cb_(std::move(cb)) {}

Timer::~Timer() { cancel(); }

void Timer::deadlineIs(Kel::Time t) {
  cancel();
  deadline_ = t;
  pos_ = wheel_.queue_.insert({t, wheel_.nextOrder_++, this}).first;
  armed_ = true;
}

void Timer::cancel() {
  if (!armed_) return;
  wheel_.queue_.erase(pos_);
  armed_ = false;
}

// ---------------------------------------------------------------------------------------
// EventLoop

EventLoop::EventLoop(Kel::Ptr<Kel::Clock> clock) : timers_(std::move(clock)) {
  epfd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epfd_ < 0) {
    FLICK_TRACE(ulmTrace(), 1, "epoll_create1 failed: {}", std::strerror(errno));
  }
}

EventLoop::~EventLoop() {
  if (epfd_ >= 0) ::close(epfd_);
}

bool EventLoop::watch(int fd, Callback cb, bool edgeTriggered) {
  auto it = fds_.find(fd);
  if (it != fds_.end()) {
    it->second.cb = std::move(cb);
    return true;
  }
  const std::uint64_t token = nextToken_++;
  epoll_event ev{};
  ev.events = EPOLLIN | (edgeTriggered ? EPOLLET : 0u);
  ev.data.u64 = (token << 32) | static_cast<std::uint32_t>(fd);
  if (epfd_ < 0 || epoll_ctl(epfd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
    FLICK_TRACE(ulmTrace(), 1, "epoll_ctl add fd {} failed: {}", fd, std::strerror(errno));
    return false;
  }
  fds_.emplace(fd, Watch{token, std::move(cb)});
  return true;
}

void EventLoop::unwatch(int fd) {
  auto it = fds_.find(fd);
  if (it == fds_.end()) return;
  // The descriptor may already be closed, which removed it from epoll; ignore the error.
  epoll_ctl(epfd_, EPOLL_CTL_DEL, fd, nullptr);
  fds_.erase(it);
}

std::size_t EventLoop::runOnce(double maxWaitSeconds) {
  double wait = std::max(0.0, maxWaitSeconds);
  if (auto next = timers_.nextDeadline()) {
    wait = std::min(wait, std::max(0.0, *next - timers_.now()));
  }
  // Round up so that a timer due in 0.3 ms is not polled for in a busy loop.
  const int timeoutMs = static_cast<int>(std::min(std::ceil(wait * 1000.0), 3.6e6));
  epoll_event events[kMaxEvents];
  int n = epfd_ < 0 ? 0 : epoll_wait(epfd_, events, kMaxEvents, timeoutMs);
  if (n < 0) {
    if (errno != EINTR) {
      FLICK_TRACE(ulmTrace(), 1, "epoll_wait failed: {}", std::strerror(errno));
    }
    n = 0;
  }
  std::size_t ran = 0;
  for (int i = 0; i < n; ++i) {
    const int fd = static_cast<int>(events[i].data.u64 & 0xffffffffu);
    const std::uint64_t token = events[i].data.u64 >> 32;
    auto it = fds_.find(fd);
    // Unwatched (or unwatched and watched again) by an earlier callback of this batch.
    if (it == fds_.end() || (it->second.token & 0xffffffffu) != token) continue;
    Callback cb = it->second.cb;  // the callback may unwatch itself
    cb();
    ++ran;
  }
  ran += timers_.runExpired();
  return ran;
}

void EventLoop::run() {
  stopped_ = false;
  while (!stopped_) runOnce(3600.0);
}

// ---------------------------------------------------------------------------------------
// ReviewTimer

ReviewTimer::ReviewTimer(TimerWheel& wheel, Kel::Ptr<const Kel::Clock> clock, double fillInterval,
                         std::uint32_t maxCredits, double minDelay, double maxDelay, Callback cb)
    : clock_(std::move(clock)),
      fillInterval_(fillInterval),
      maxCredits_(maxCredits),
      minDelay_(minDelay),
      maxDelay_(maxDelay),
      credits_(maxCredits),
      lastFill_(clock_->now()),
      cb_(std::move(cb)),
      timer_(wheel, [this] { fire(); }) {}

void ReviewTimer::refill() {
  const Kel::Time now = clock_->now();
  if (credits_ >= maxCredits_) {
    lastFill_ = now;  // a full bucket does not bank time
    return;
  }
  if (fillInterval_ <= 0) {
    credits_ = maxCredits_;
    lastFill_ = now;
    return;
  }
  const double earned = std::floor((now - lastFill_) / fillInterval_);
  if (earned < 1) return;
  const double room = maxCredits_ - credits_;
  if (earned >= room) {
    credits_ = maxCredits_;
    lastFill_ = now;
  } else {
    credits_ += static_cast<std::uint32_t>(earned);
    lastFill_ += earned * fillInterval_;
  }
}

std::uint32_t ReviewTimer::credits() {
  refill();
  return credits_;
}

void ReviewTimer::request() {
  if (timer_.armed()) return;
  refill();
  timer_.deadlineIs(clock_->now() + (credits_ > 0 ? minDelay_ : maxDelay_));
}

void ReviewTimer::requestImmediate() {
  const Kel::Time now = clock_->now();
  if (timer_.armed() && timer_.deadline() <= now) return;
  timer_.deadlineIs(now);
}

void ReviewTimer::fire() {
  refill();
  if (credits_ > 0) --credits_;
  if (cb_) cb_();
}

}  // namespace Ulm
