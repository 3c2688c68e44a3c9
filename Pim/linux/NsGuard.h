// NsGuard: enters a network namespace for the guard's life, so that netlink sockets made
// meanwhile belong to it (a socket keeps the namespace it was created in). The namespace is
// a name under /run/netns, an absolute path to a namespace file, or empty for the caller's
// own. A failure is traced and leaves ok() false. Also the adapters' trace facility.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"

namespace PimLinux {

inline Flicklog::Facility& linuxTrace() {
  static Flicklog::Facility& f = Flicklog::facility("Pim::Linux");
  return f;
}

class NsGuard {
 public:
  explicit NsGuard(const Nimo::NamespaceName& ns) {
    if (ns.empty()) {
      ok_ = true;
      return;
    }
    const std::string path = ns.front() == '/' ? ns : "/run/netns/" + ns;
    const int target = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    self_ = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    ok_ = target >= 0 && self_ >= 0 && ::setns(target, CLONE_NEWNET) == 0;
    if (target >= 0) ::close(target);
    if (!ok_) FLICK_TRACE(linuxTrace(), 1, "Namespace {} - Failed - Error: {}", path, errno);
  }
  ~NsGuard() {
    if (self_ >= 0) {
      KEL_ASSERT(::setns(self_, CLONE_NEWNET) == 0);
      ::close(self_);
    }
  }
  NsGuard(const NsGuard&) = delete;
  NsGuard& operator=(const NsGuard&) = delete;
  bool ok() const noexcept { return ok_; }

 private:
  int self_ = -1;
  bool ok_ = false;
};

}  // namespace PimLinux
