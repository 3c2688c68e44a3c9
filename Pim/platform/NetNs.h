// Nimo::NetNsGuard: enters the network namespace netNs (a name under /run/netns, an absolute
// path to a namespace file, or empty for "stay where we are") for the life of the guard,
// and restores the calling thread's own on destruction. Sockets made meanwhile belong to
// the namespace they were created in. A failure is traced on the caller's facility
// (level 1) and leaves ok() false.
//
// Usage:
//   { Nimo::NetNsGuard ns("red", trace); if (!ns.ok()) return; fd = ::socket(...); }
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"

namespace Nimo {

class NetNsGuard {
 public:
  NetNsGuard(const NamespaceName& netNs, Flicklog::Facility& trace) : trace_(trace) {
    if (netNs.empty()) {
      ok_ = true;
      return;
    }
    const std::string path = netNs.front() == '/' ? netNs : "/run/netns/" + netNs;
    const int target = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (target < 0) {
      fail("open " + path);
      return;
    }
    self_ = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (self_ < 0 || ::setns(target, CLONE_NEWNET) != 0) {
      ::close(target);
      fail("setns " + path);
      return;
    }
    ::close(target);
    ok_ = true;
  }
  ~NetNsGuard() {
    if (self_ >= 0) {
      // Failing to come back would leave the thread in another namespace.
      KEL_ASSERT(::setns(self_, CLONE_NEWNET) == 0);
      ::close(self_);
    }
  }
  NetNsGuard(const NetNsGuard&) = delete;
  NetNsGuard& operator=(const NetNsGuard&) = delete;
  bool ok() const noexcept { return ok_; }

 private:
  void fail(const std::string& what) {
    FLICK_TRACE(trace_, 1, "Namespace - Failed - {} - Error: {}", what, errno);
  }
  Flicklog::Facility& trace_;
  int self_ = -1;
  bool ok_ = false;
};

}  // namespace Nimo
