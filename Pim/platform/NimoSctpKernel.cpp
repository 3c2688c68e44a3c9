// The kernel backend of Nimo::SctpPam: a one-to-many SCTP socket of the kernel's stack.
// linux/sctp.h needs the socket types and fixed-width integers before it.
// clang-format off
#include <netinet/in.h>
#include <stdint.h>
#include <sys/socket.h>
#include <linux/sctp.h>
#include <unistd.h>
// clang-format on

#include <cerrno>
#include <cstring>

#include "Pim/platform/Flicklog.h"
#include "Pim/platform/NetNs.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/NimoSockAddr.h"

#ifndef MSG_NOTIFICATION
#define MSG_NOTIFICATION 0x8000  // the kernel's value; uapi headers leave it out
#endif

namespace Nimo::Sctp {

namespace {

Flicklog::Facility& kernelTrace() {
  static Flicklog::Facility& f = Flicklog::facility("Nimo::Sctp");
  return f;
}

class KernelBackend final : public Backend {
 public:
  ~KernelBackend() override { close(); }
  std::string_view kind() const noexcept override { return "kernel"; }

  int open(const NamespaceName& netNs) override {
    {
      NetNsGuard ns(netNs, kernelTrace());
      if (!ns.ok()) return -ENOENT;
      fd_ = ::socket(AF_INET6, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_SCTP);
    }
    if (fd_ < 0) return -errno;
    const int off = 0, on = 1;
    sctp_event ev{};
    ev.se_type = SCTP_ASSOC_CHANGE;
    ev.se_on = 1;
    if (::setsockopt(fd_, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) != 0 ||
        ::setsockopt(fd_, IPPROTO_SCTP, SCTP_RECVRCVINFO, &on, sizeof on) != 0 ||
        ::setsockopt(fd_, IPPROTO_SCTP, SCTP_EVENT, &ev, sizeof ev) != 0) {
      const int err = errno;
      close();
      return -err;
    }
    return 0;
  }
  int autoCloseIs(std::uint32_t seconds) override {
    return opt(SCTP_AUTOCLOSE, static_cast<int>(seconds));
  }
  int noDelayIs(bool on) override { return opt(SCTP_NODELAY, on ? 1 : 0); }
  int rtoIs(std::uint32_t initialMs, std::uint32_t minMs, std::uint32_t maxMs) override {
    const sctp_rtoinfo ri{0, initialMs, maxMs, minMs};  // assoc 0: future associations
    return ::setsockopt(fd_, IPPROTO_SCTP, SCTP_RTOINFO, &ri, sizeof ri) == 0 ? 0 : -errno;
  }
  int bind(const Endpoint& local) override {
    const sockaddr_in6 sa = toSockAddr6(local);
    return ::bind(fd_, reinterpret_cast<const sockaddr*>(&sa), sizeof sa) == 0 ? 0 : -errno;
  }
  int listen(int backlog) override { return ::listen(fd_, backlog) == 0 ? 0 : -errno; }
  int connect(const Endpoint& peer) override {
    const sockaddr_in6 sa = toSockAddr6(peer);
    if (::connect(fd_, reinterpret_cast<const sockaddr*>(&sa), sizeof sa) == 0) return 0;
    return errno == EINPROGRESS ? 0 : -errno;
  }
  long send(const std::uint8_t* p, std::size_t n, const Endpoint& to, AssociationId id) override {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(sctp_sndinfo))] = {};
    iovec iov{const_cast<std::uint8_t*>(p), n};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    sockaddr_in6 sa{};
    if (id == 0) {
      sa = toSockAddr6(to);
      msg.msg_name = &sa;
      msg.msg_namelen = sizeof sa;
    } else {
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      cmsghdr* c = CMSG_FIRSTHDR(&msg);
      c->cmsg_level = IPPROTO_SCTP;
      c->cmsg_type = SCTP_SNDINFO;
      c->cmsg_len = CMSG_LEN(sizeof(sctp_sndinfo));
      sctp_sndinfo si{};
      si.snd_assoc_id = static_cast<sctp_assoc_t>(id);
      std::memcpy(CMSG_DATA(c), &si, sizeof si);
    }
    const ssize_t r = ::sendmsg(fd_, &msg, MSG_NOSIGNAL);
    return r < 0 ? -errno : r;
  }
  long recv(std::uint8_t* p, std::size_t n, RecvInfo& info) override {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(sctp_rcvinfo)) + 64];
    sockaddr_in6 from{};
    iovec iov{p, n};
    msghdr msg{};
    msg.msg_name = &from;
    msg.msg_namelen = sizeof from;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    const ssize_t r = ::recvmsg(fd_, &msg, 0);
    if (r < 0) return -errno;
    info.notification = (msg.msg_flags & MSG_NOTIFICATION) != 0;
    info.endOfRecord = (msg.msg_flags & MSG_EOR) != 0;
    info.from = fromSockAddr(reinterpret_cast<const sockaddr*>(&from));
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level == IPPROTO_SCTP && c->cmsg_type == SCTP_RCVINFO) {
        sctp_rcvinfo ri;
        std::memcpy(&ri, CMSG_DATA(c), sizeof ri);
        info.rcvInfo = true;
        info.assocId = static_cast<AssociationId>(ri.rcv_assoc_id);
      }
    }
    return r;
  }
  std::optional<AssocEvent> assocEvent(const std::uint8_t* p, std::size_t n) const override {
    sctp_assoc_change ac;
    if (n < sizeof ac) return std::nullopt;
    std::memcpy(&ac, p, sizeof ac);
    if (ac.sac_type != SCTP_ASSOC_CHANGE) return std::nullopt;
    static constexpr unsigned kCodes[5] = {SCTP_COMM_UP, SCTP_RESTART, SCTP_COMM_LOST,
                                           SCTP_SHUTDOWN_COMP, SCTP_CANT_STR_ASSOC};
    const auto state = assocStateOf(ac.sac_state, kCodes);
    if (!state) return std::nullopt;
    return AssocEvent{static_cast<AssociationId>(ac.sac_assoc_id), *state};
  }
  std::optional<Endpoint> peer(AssociationId id) override {
    sctp_prim prim{};
    prim.ssp_assoc_id = static_cast<sctp_assoc_t>(id);
    socklen_t len = sizeof prim;
    if (::getsockopt(fd_, IPPROTO_SCTP, SCTP_PRIMARY_ADDR, &prim, &len) != 0) return std::nullopt;
    return fromSockAddr(reinterpret_cast<const sockaddr*>(&prim.ssp_addr));
  }
  void close() override {
    if (fd_ < 0) return;
    loopIs(nullptr, {});
    ::close(fd_);
    fd_ = -1;
  }
  void loopIs(Ulm::EventLoop* loop, std::function<void()> readable) override {
    if (loop_ && fd_ >= 0) loop_->unwatch(fd_);
    loop_ = loop;
    if (loop_ && fd_ >= 0) loop_->watch(fd_, std::move(readable));
  }

 private:
  int opt(int name, int v) {
    return ::setsockopt(fd_, IPPROTO_SCTP, name, &v, sizeof v) == 0 ? 0 : -errno;
  }
  int fd_ = -1;
  Ulm::EventLoop* loop_ = nullptr;
};

}  // namespace

std::unique_ptr<Backend> kernelBackend() { return std::make_unique<KernelBackend>(); }

}  // namespace Nimo::Sctp
