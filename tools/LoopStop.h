// How the daemons under tools/ end: SIGINT or SIGTERM, or an optional run time, both as
// events of the agent's loop. The signals are blocked and read from a signalfd, so a stop
// never lands in the middle of a handler.
#pragma once

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "Pim/platform/Ulm.h"

namespace Tools {

class LoopStop {
 public:
  // duration <= 0: run until a signal.
  LoopStop(Ulm::EventLoop& loop, double duration)
      : loop_(loop),
        fd_(blockedSignalFd()),
        signals_(loop, fd_, [this] { loop_.stop(); }),
        end_(loop.timers(), [this] { loop_.stop(); }) {
    if (duration > 0) end_.delayIs(duration);
  }
  ~LoopStop() {
    if (fd_ >= 0) ::close(fd_);
  }
  LoopStop(const LoopStop&) = delete;
  LoopStop& operator=(const LoopStop&) = delete;

 private:
  static int blockedSignalFd() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    return signalfd(-1, &stop, SFD_NONBLOCK | SFD_CLOEXEC);
  }
  Ulm::EventLoop& loop_;
  int fd_;
  Ulm::FdWatch signals_;
  Ulm::Timer end_;
};

}  // namespace Tools
