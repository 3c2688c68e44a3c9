// Two network namespaces joined by a veth pair, named with the process id, removed on
// destruction. Root only: tests skip themselves otherwise.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "Pim/platform/Ulm.h"

namespace PimTest {

inline bool isRoot() { return ::geteuid() == 0; }

inline int sh(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()); }

// Starts cmd under sh (use exec in it so that the pid is the program's); the caller stops and reaps
// it.
inline pid_t spawn(const std::string& cmd) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  return pid;
}

// Resident kilobytes of process pid, -1 if it cannot be read.
inline long residentKb(pid_t pid) {
  std::ifstream f(fmt::format("/proc/{}/status", pid));
  for (std::string line; std::getline(f, line);)
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  return -1;
}

// Turns loop until done() holds, 20 s at most; done()'s last answer.
template <typename Fn>
bool waitLoop(Ulm::EventLoop& loop, Fn&& done) {
  for (int i = 0; i < 400; ++i) {
    if (done()) return true;
    loop.runOnce(0.05);
  }
  return done();
}

// Sleeps until done() holds, about `seconds` at most; done()'s last answer. For waits on
// other processes, where no loop of ours turns.
template <typename Fn>
bool waitUntil(Fn&& done, double seconds = 10) {
  for (int i = 0; i < static_cast<int>(seconds * 50); ++i) {
    if (done()) return true;
    ::usleep(20000);
  }
  return done();
}

// Runs fn inside namespace ns (a name under /run/netns) and comes back.
template <typename F>
auto inNetns(const std::string& ns, F&& fn) {
  const int self = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  const int target = ::open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
  if (target >= 0) (void)::setns(target, CLONE_NEWNET);
  struct Back {
    int self, target;
    ~Back() {
      if (self >= 0) (void)::setns(self, CLONE_NEWNET);
      if (self >= 0) ::close(self);
      if (target >= 0) ::close(target);
    }
  } back{self, target};
  return fn();
}

// Namespaces and veth links between them, removed on destruction; ok while every step
// has worked.
class NetnsSet {
 public:
  NetnsSet() = default;
  ~NetnsSet() {
    for (const auto& ns : made_) sh("ip netns del " + ns);
  }
  NetnsSet(const NetnsSet&) = delete;
  NetnsSet& operator=(const NetnsSet&) = delete;

  // Namespace ns with its loopback up.
  void add(const std::string& ns) {
    ok = ok && sh("ip netns add " + ns) == 0;
    if (ok) made_.push_back(ns);
    ok = ok && sh(fmt::format("ip -n {} link set lo up", ns)) == 0;
  }
  // A veth pair, devA in nsA and devB in nsB (which may be the same), both up.
  void link(const std::string& nsA, const std::string& devA, const std::string& nsB,
            const std::string& devB) {
    ok = ok && sh(fmt::format("ip link add {} netns {} type veth peer name {} netns {}", devA, nsA,
                              devB, nsB)) == 0;
    ok = ok && sh(fmt::format("ip -n {} link set {} up", nsA, devA)) == 0 &&
         sh(fmt::format("ip -n {} link set {} up", nsB, devB)) == 0;
  }
  // Addresses on dev ("10.77.0.1/24", "fd77::1/64"; the IPv6 one without DAD).
  void addrs(const std::string& ns, const std::string& dev, const std::string& v4,
             const std::string& v6) {
    ok = ok && sh(fmt::format("ip -n {} addr add {} dev {}", ns, v4, dev)) == 0 &&
         sh(fmt::format("ip -n {} addr add {} dev {} nodad", ns, v6, dev)) == 0;
  }
  static unsigned ifIndex(const std::string& ns, const std::string& dev) {
    return inNetns(ns, [&] { return ::if_nametoindex(dev.c_str()); });
  }

  bool ok = true;

 private:
  std::vector<std::string> made_;
};

class NetnsPair : public NetnsSet {
 public:
  // Namespaces "<tag>a<pid>" and "<tag>b<pid>", veth "<tag>a<pid>" in a and "<tag>b<pid>"
  // in b, up, with 10.77.0.1/24, fd77::1/64 on a and .2 / ::2 on b.
  explicit NetnsPair(const std::string& tag = "pim")
      : a(fmt::format("{}a{}", tag, ::getpid())),
        b(fmt::format("{}b{}", tag, ::getpid())),
        vethA(a),
        vethB(b) {
    add(a);
    add(b);
    link(a, vethA, b, vethB);
    addrs(a, vethA, "10.77.0.1/24", "fd77::1/64");
    addrs(b, vethB, "10.77.0.2/24", "fd77::2/64");
    if (ok) {
      ifIndexA = ifIndex(a, vethA);
      ifIndexB = ifIndex(b, vethB);
    }
  }

  std::string a, b, vethA, vethB;
  unsigned ifIndexA = 0, ifIndexB = 0;
};

// A plain raw PIM socket in namespace ns, sending on ifIndex; the kernel builds the IP
// header.
class RawSender {
 public:
  RawSender(const std::string& ns, int family, unsigned ifIndex) : family_(family) {
    fd_ = inNetns(ns, [&] { return ::socket(family, SOCK_RAW | SOCK_CLOEXEC, 103); });
    if (fd_ < 0) return;
    if (family == AF_INET) {
      ip_mreqn m{};
      m.imr_ifindex = static_cast<int>(ifIndex);
      ::setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_IF, &m, sizeof m);
    } else {
      ::setsockopt(fd_, IPPROTO_IPV6, IPV6_MULTICAST_IF, &ifIndex, sizeof ifIndex);
    }
  }
  ~RawSender() {
    if (fd_ >= 0) ::close(fd_);
  }
  RawSender(const RawSender&) = delete;
  RawSender& operator=(const RawSender&) = delete;
  bool ok() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  // Sends the PIM bytes to dst ("224.0.0.13", "ff02::d", ...).
  bool send(const std::string& dst, const std::vector<std::uint8_t>& pim) {
    sockaddr_storage ss{};
    socklen_t len;
    if (family_ == AF_INET) {
      auto* s = reinterpret_cast<sockaddr_in*>(&ss);
      s->sin_family = AF_INET;
      ::inet_pton(AF_INET, dst.c_str(), &s->sin_addr);
      len = sizeof *s;
    } else {
      auto* s = reinterpret_cast<sockaddr_in6*>(&ss);
      s->sin6_family = AF_INET6;
      ::inet_pton(AF_INET6, dst.c_str(), &s->sin6_addr);
      len = sizeof *s;
    }
    return ::sendto(fd_, pim.data(), pim.size(), 0, reinterpret_cast<sockaddr*>(&ss), len) ==
           static_cast<ssize_t>(pim.size());
  }

 private:
  int family_;
  int fd_ = -1;
};

}  // namespace PimTest
