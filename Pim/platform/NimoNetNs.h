// NetNsGuard: the calling thread inside a network namespace for one scope, for the packet
// access objects that open their sockets in a VRF's namespace (IpPam, SctpPam).
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

// Enters the namespace named by netNs for the life of the guard; the calling thread's own
// namespace is restored on destruction. An empty name means "stay where we are".
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
      // Failing to come back would leave the agent's thread in the VRF's namespace.
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
