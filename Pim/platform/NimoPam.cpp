// Nimo::IpPam: the raw IP socket. See Nimo.h for the option mapping.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/NimoNetNs.h"

#ifndef IPV6_HDRINCL
#define IPV6_HDRINCL 36
#endif

namespace Nimo {

namespace {

// The one ancillary item a send carries (the packet-info of the family).
template <typename T>
void putControl(msghdr& msg, char* control, int level, int type, const T& value) {
  msg.msg_control = control;
  msg.msg_controllen = CMSG_SPACE(sizeof value);
  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  c->cmsg_level = level;
  c->cmsg_type = type;
  c->cmsg_len = CMSG_LEN(sizeof value);
  std::memcpy(CMSG_DATA(c), &value, sizeof value);
}

Flicklog::Facility& pamTrace() {
  static Flicklog::Facility& f = Flicklog::facility("Nimo::Pam");
  return f;
}

struct OptionMap {
  std::uint32_t bit;
  int level4, name4;
  int level6, name6;
};
constexpr OptionMap kOptions[] = {
    {IpPam::kOptHeaderInclude, IPPROTO_IP, IP_HDRINCL, -1, -1},
    {IpPam::kOptRxIfIndex, IPPROTO_IP, IP_PKTINFO, IPPROTO_IPV6, IPV6_RECVPKTINFO},
    {IpPam::kOptTransparent, IPPROTO_IP, IP_TRANSPARENT, IPPROTO_IPV6, IPV6_TRANSPARENT},
    {IpPam::kOptRxTos, IPPROTO_IP, IP_RECVTOS, IPPROTO_IPV6, IPV6_RECVTCLASS},
    {IpPam::kOptRxTtl, IPPROTO_IP, IP_RECVTTL, IPPROTO_IPV6, IPV6_RECVHOPLIMIT},
};

}  // namespace

IpPam::IpPam(Kel::Name name, AddressFamily af) : Kel::Entity(std::move(name)), af_(af) {}

IpPam::IpPam(Kel::Name name, AddressFamily af, std::uint8_t protocol, const NamespaceName& netNs,
             bool ipv6HeaderInclude)
    : Kel::Entity(std::move(name)),
      af_(af),
      protocol_(protocol),
      netNs_(netNs),
      ipv6HeaderInclude_(ipv6HeaderInclude && af == AddressFamily::ipv6),
      rxBuffer_(kMaxRxPktData + Ipv6Hdr::kSize) {
  KEL_ASSERT(af == AddressFamily::ipv4 || af == AddressFamily::ipv6);
  {
    NetNsGuard ns(netNs, pamTrace());
    if (!ns.ok()) return;
    fd_ = ::socket(af == AddressFamily::ipv4 ? AF_INET : AF_INET6,
                   SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol);
  }
  if (fd_ < 0) {
    FLICK_TRACE(pamTrace(), 1, "{}: socket - Failed - Error: {}", this->name().str(), errno);
    return;
  }
  const int on = 1;
  if (ipv6HeaderInclude_ && ::setsockopt(fd_, IPPROTO_IPV6, IPV6_HDRINCL, &on, sizeof on) != 0) {
    FLICK_TRACE(pamTrace(), 1, "{}: IPV6_HDRINCL - Failed - Error: {}", this->name().str(), errno);
    ++optionErrors_;
  }
  // Kernel queue drops are worth knowing when a burst outruns the loop.
  (void)::setsockopt(fd_, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
  // Our own multicast sends are not our input.
  const int off = 0;
  if (af == AddressFamily::ipv4) {
    (void)::setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_LOOP, &off, sizeof off);
  } else {
    (void)::setsockopt(fd_, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, &off, sizeof off);
  }
}

IpPam::~IpPam() {
  loopIs(nullptr);
  if (fd_ >= 0) ::close(fd_);
}

bool IpPam::setOption(std::uint32_t bit, bool on) {
  for (const auto& m : kOptions) {
    if (m.bit != bit) continue;
    const int level = af_ == AddressFamily::ipv4 ? m.level4 : m.level6;
    const int name = af_ == AddressFamily::ipv4 ? m.name4 : m.name6;
    // Header inclusion for IPv6 is the socket variant chosen at creation.
    if (level < 0) return on == ipv6HeaderInclude_;
    const int v = on ? 1 : 0;
    return sockOptIs(level, name, &v, sizeof v) == 0;
  }
  return !on;  // a bit without meaning can be cleared, never set
}

void IpPam::optionsIs(std::uint32_t options) {
  const std::uint32_t changed = options ^ options_;
  for (std::uint32_t bit = 1; bit != 0; bit <<= 1) {
    if (!(changed & bit)) continue;
    const bool on = (options & bit) != 0;
    if (setOption(bit, on)) {
      options_ = on ? (options_ | bit) : (options_ & ~bit);
    } else {
      ++optionErrors_;
      FLICK_TRACE(pamTrace(), 1, "{}: Option 0x{:04x} - Failed", name().str(), bit);
    }
  }
}

void IpPam::paramIs(std::uint32_t id, std::uint32_t value) {
  if (id != kParamRxBuffer) {
    ++optionErrors_;
    FLICK_TRACE(pamTrace(), 1, "{}: Unknown Param {}", name().str(), id);
    return;
  }
  const int v = static_cast<int>(value);
  // The forced size needs CAP_NET_ADMIN; the plain one is capped by rmem_max.
  if (sockOptIs(SOL_SOCKET, SO_RCVBUFFORCE, &v, sizeof v) != 0 &&
      sockOptIs(SOL_SOCKET, SO_RCVBUF, &v, sizeof v) != 0) {
    ++optionErrors_;
    return;
  }
  rxBuf_ = value;
}

int IpPam::sockOptIs(int level, int option, const void* value, std::uint32_t len) {
  if (::setsockopt(fd_, level, option, value, len) == 0) return 0;
  const int err = errno;
  FLICK_TRACE(pamTrace(), 4, "{}: setsockopt({}, {}) - Failed - Error: {}", name().str(), level,
              option, err);
  return err;
}

int IpPam::applyRxFilter() {
  static_assert(sizeof(BpfInsn) == sizeof(sock_filter));
  std::vector<sock_filter> prog(rxFilter_.size());
  for (std::size_t i = 0; i < prog.size(); ++i) {
    prog[i] = sock_filter{rxFilter_[i].code, rxFilter_[i].jt, rxFilter_[i].jf, rxFilter_[i].k};
  }
  sock_fprog fprog{static_cast<unsigned short>(prog.size()), prog.data()};
  return sockOptIs(SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof fprog);
}

void IpPam::loopIs(Ulm::EventLoop* loop) {
  if (loop_ == loop) return;
  if (loop_ && fd_ >= 0) loop_->unwatch(fd_);
  loop_ = loop;
  if (loop_ && fd_ >= 0) loop_->watch(fd_, [this] { readableCountInc(); });
}

void IpPam::readableCountInc() {
  ++readableCount_;
  notifiees_.forEach([](NotifieeConst& n) { n.onReadableCount(); });
}

void IpPam::maxRxPktDataIs(std::uint32_t n) {
  if (n == maxRxPktData_) return;
  maxRxPktData_ = n;
  rxBuffer_.resize(n + Ipv6Hdr::kSize);
}

Kel::Ptr<Pkt> IpPam::rxPkt() {
  if (fd_ < 0) return nullptr;
  const bool v6 = af_ == AddressFamily::ipv6;
  // IPv6 data lands behind room for the header written in front of it.
  const std::uint32_t at = v6 ? Ipv6Hdr::kSize : 0;
  sockaddr_in6 from{};
  alignas(cmsghdr) char control[256];
  iovec iov{rxBuffer_.data() + at, maxRxPktData_};
  msghdr msg{};
  msg.msg_name = &from;
  msg.msg_namelen = sizeof from;
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  const ssize_t n = ::recvmsg(fd_, &msg, 0);
  if (n < 0) {
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      ++rxErrors_;
      FLICK_TRACE(pamTrace(), 1, "{}: recvmsg - Failed - Error: {}", name().str(), errno);
    }
    return nullptr;
  }
  if (msg.msg_flags & MSG_TRUNC) {
    ++rxErrors_;
    return nullptr;
  }
  rxIfIndex_ = 0;
  IpGenAddr dst;
  std::uint8_t hopLimit = 0, tclass = 0;
  for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
    const void* d = CMSG_DATA(c);
    int iv = 0;
    if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_RXQ_OVFL) {
      std::uint32_t drops;
      std::memcpy(&drops, d, sizeof drops);
      rxKernelDrops_ = drops;
    } else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
      in_pktinfo pi;
      std::memcpy(&pi, d, sizeof pi);
      rxIfIndex_ = static_cast<std::uint32_t>(pi.ipi_ifindex);
    } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
      in6_pktinfo pi;
      std::memcpy(&pi, d, sizeof pi);
      rxIfIndex_ = pi.ipi6_ifindex;
      dst = IpGenAddr(AddressFamily::ipv6, pi.ipi6_addr.s6_addr);
    } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_HOPLIMIT) {
      std::memcpy(&iv, d, sizeof iv);
      hopLimit = static_cast<std::uint8_t>(iv);
    } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_TCLASS) {
      std::memcpy(&iv, d, sizeof iv);
      tclass = static_cast<std::uint8_t>(iv);
    }
  }
  std::uint32_t len = static_cast<std::uint32_t>(n);
  if (v6) {
    Ipv6Hdr(rxBuffer_.data())
        .build(tclass, static_cast<std::uint16_t>(len), protocol_, hopLimit,
               IpGenAddr(AddressFamily::ipv6, from.sin6_addr.s6_addr), dst);
    len += Ipv6Hdr::kSize;
  }
  ++rxPktCount_;
  return Pkt::copyOf(rxBuffer_.data(), len, 0);
}

bool IpPam::txPkt(const Kel::Ptr<Pkt>& pkt) {
  bool ok = false;
  if (fd_ >= 0 && pkt && txDst_.af() == af_) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo))] = {};
    msghdr msg{};
    iovec iov{const_cast<std::uint8_t*>(pkt->data(0)), pkt->size()};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    sockaddr_in to4{};
    sockaddr_in6 to6{};
    const bool withIntf = (txFlags_ & kTxFlagIfIndex) != 0;
    if (af_ == AddressFamily::ipv4) {
      to4.sin_family = AF_INET;
      std::memcpy(&to4.sin_addr, txDst_.bytes(), 4);
      msg.msg_name = &to4;
      msg.msg_namelen = sizeof to4;
      if (withIntf || txSrc_.af() == af_) {
        in_pktinfo pi{};
        pi.ipi_ifindex = withIntf ? static_cast<int>(txIfIndex_) : 0;
        if (txSrc_.af() == af_) std::memcpy(&pi.ipi_spec_dst, txSrc_.bytes(), 4);
        putControl(msg, control, IPPROTO_IP, IP_PKTINFO, pi);
      }
    } else {
      to6.sin6_family = AF_INET6;
      std::memcpy(&to6.sin6_addr, txDst_.bytes(), 16);
      msg.msg_name = &to6;
      msg.msg_namelen = sizeof to6;
      if (withIntf || txSrc_.af() == af_) {
        in6_pktinfo pi{};
        pi.ipi6_ifindex = withIntf ? txIfIndex_ : 0;
        if (txSrc_.af() == af_) std::memcpy(&pi.ipi6_addr, txSrc_.bytes(), 16);
        putControl(msg, control, IPPROTO_IPV6, IPV6_PKTINFO, pi);
      }
    }
    ok = ::sendmsg(fd_, &msg, 0) == static_cast<ssize_t>(pkt->size());
    if (!ok) {
      FLICK_TRACE(pamTrace(), 1, "{}: sendmsg - Failed - Error: {}", name().str(), errno);
    }
  }
  if (ok) {
    ++txPktCount_;
    notifiees_.forEach([](NotifieeConst& n) { n.onTxPktCount(); });
  } else {
    ++txErrors_;
    notifiees_.forEach([](NotifieeConst& n) { n.onTxErrors(); });
  }
  return ok;
}

Kel::Ptr<IpPam> ipPamFactory(const Kel::Name& name, AddressFamily af, std::uint8_t protocol,
                             const NamespaceName& netNs, bool ipv6HeaderInclude) {
  return Kel::Ptr<IpPam>::make(name, af, protocol, netNs, ipv6HeaderInclude);
}

}  // namespace Nimo
