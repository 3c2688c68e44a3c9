// The userland backend of Nimo::SctpPam: libusrsctp without its threads, over our own raw
// sockets of IP protocol 132. See Nimo.h for why it is built this way.
//
// Inputs: the two raw sockets (readable on the event loop: each packet goes to
// usrsctp_conninput under the registered address of its sender), a 10 ms loop timer
// (usrsctp_handle_timers), and the stack's output callback (each packet leaves through the
// raw socket of the peer's family). Peers are registered addresses: one Peer object per
// (address, scope), whose pointer is the AF_CONN address the stack knows it by.
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>
#include <unistd.h>
#include <usrsctp.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "Pim/platform/Flicklog.h"
#include "Pim/platform/NetNs.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/NimoSockAddr.h"

namespace Nimo::Sctp {

namespace {

Flicklog::Facility& userTrace() {
  static Flicklog::Facility& f = Flicklog::facility("Nimo::Sctp");
  return f;
}

constexpr int kIpProtoSctp = 132;
constexpr double kTimerPeriod = 0.010;

struct Peer {
  IpGenAddr addr;
  std::uint32_t scopeId = 0;
  std::uint32_t pathMtu = 0;  // from the link towards it, less the IP and SCTP headers
};

class UserBackend;
// The process's one stack and the backend using it (usrsctp is process-global).
UserBackend* gOwner = nullptr;
bool gInitialised = false;

int output(void* addr, void* buffer, std::size_t length, std::uint8_t tos, std::uint8_t setDf);

class UserBackend final : public Backend {
 public:
  ~UserBackend() override { close(); }
  std::string_view kind() const noexcept override { return "userland"; }

  int open(const NamespaceName& netNs) override {
    if (gOwner) return -EBUSY;  // one stack per process
    {
      NetNsGuard ns(netNs, userTrace());
      if (!ns.ok()) return -ENOENT;
      raw4_ = ::socket(AF_INET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, kIpProtoSctp);
      // Never sent on: connected to a peer, they tell the route's MTU towards it.
      probe4_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      probe6_ = ::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      if (raw4_ < 0) return fail();
      raw6_ = ::socket(AF_INET6, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, kIpProtoSctp);
      if (raw6_ < 0) return fail();
    }
    if (!gInitialised) {
      usrsctp_init_nothreads(0, output, nullptr);
      // Neither the stack's own PMTU discovery nor its address scanning reaches our
      // sockets; the path MTU is set per peer instead (pathMtuBefore).
      usrsctp_sysctl_set_sctp_auto_asconf(0);
      gInitialised = true;
    }
    gOwner = this;
    so_ = usrsctp_socket(AF_CONN, SOCK_SEQPACKET, IPPROTO_SCTP, nullptr, nullptr, 0, nullptr);
    if (!so_) return fail();
    usrsctp_set_non_blocking(so_, 1);
    usrsctp_set_upcall(so_, &UserBackend::upcall, this);
    const int on = 1;
    sctp_event ev{};
    ev.se_assoc_id = SCTP_FUTURE_ASSOC;
    ev.se_type = SCTP_ASSOC_CHANGE;
    ev.se_on = 1;
    if (usrsctp_setsockopt(so_, IPPROTO_SCTP, SCTP_RECVRCVINFO, &on, sizeof on) != 0 ||
        usrsctp_setsockopt(so_, IPPROTO_SCTP, SCTP_EVENT, &ev, sizeof ev) != 0) {
      return fail();
    }
    pathMtuIs(pathMtu_);
    last_ = std::chrono::steady_clock::now();
    return 0;
  }
  int autoCloseIs(std::uint32_t seconds) override {
    return opt(SCTP_AUTOCLOSE, static_cast<int>(seconds));
  }
  int noDelayIs(bool on) override { return opt(SCTP_NODELAY, on ? 1 : 0); }
  int rtoIs(std::uint32_t initialMs, std::uint32_t minMs, std::uint32_t maxMs) override {
    const sctp_rtoinfo ri{SCTP_FUTURE_ASSOC, initialMs, maxMs, minMs};
    return usrsctp_setsockopt(so_, IPPROTO_SCTP, SCTP_RTOINFO, &ri, sizeof ri) == 0 ? 0 : -errno;
  }
  int bind(const Endpoint& local) override {
    // Bound to every registered address: the stack's addresses are its peers' handles.
    sockaddr_conn sc = conn(nullptr, local.port);
    return usrsctp_bind(so_, reinterpret_cast<sockaddr*>(&sc), sizeof sc) == 0 ? 0 : -errno;
  }
  int listen(int backlog) override { return usrsctp_listen(so_, backlog) == 0 ? 0 : -errno; }
  int connect(const Endpoint& peerEp) override {
    if (isLinkLocal(peerEp.addr) && peerEp.scopeId == 0) return -EINVAL;
    Peer* peerP = peerFor(peerEp.addr, peerEp.scopeId);
    pathMtuBefore(*peerP);
    sockaddr_conn sc = conn(peerP, peerEp.port);
    if (usrsctp_connect(so_, reinterpret_cast<sockaddr*>(&sc), sizeof sc) == 0) return 0;
    const int err = errno;
    flush();
    return err == EINPROGRESS ? 0 : -err;
  }
  long send(const std::uint8_t* p, std::size_t n, const Endpoint& to, AssociationId id) override {
    sctp_sndinfo si{};
    si.snd_assoc_id = id;
    sockaddr_conn sc{};
    sockaddr* dst = nullptr;
    int count = 0;
    if (id == 0) {
      Peer* peerP = peerFor(to.addr, to.scopeId);
      pathMtuBefore(*peerP);  // this send may start an association
      sc = conn(peerP, to.port);
      dst = reinterpret_cast<sockaddr*>(&sc);
      count = 1;
    }
    const ssize_t r = usrsctp_sendv(so_, p, n, dst, count, &si, sizeof si, SCTP_SENDV_SNDINFO, 0);
    const int err = errno;
    flush();
    return r < 0 ? -err : r;
  }
  long recv(std::uint8_t* p, std::size_t n, RecvInfo& info) override {
    sockaddr_conn from{};
    socklen_t fromLen = sizeof from;
    sctp_rcvinfo ri{};
    socklen_t infoLen = sizeof ri;
    unsigned int infoType = 0;
    int flags = 0;
    const ssize_t r = usrsctp_recvv(so_, p, n, reinterpret_cast<sockaddr*>(&from), &fromLen, &ri,
                                    &infoLen, &infoType, &flags);
    if (r < 0) return -errno;
    info.notification = (flags & MSG_NOTIFICATION) != 0;
    info.endOfRecord = (flags & MSG_EOR) != 0;
    if (infoType == SCTP_RECVV_RCVINFO) {
      info.rcvInfo = true;
      info.assocId = ri.rcv_assoc_id;
    }
    if (from.sconn_family == AF_CONN && from.sconn_addr) {
      const auto* peerP = static_cast<const Peer*>(from.sconn_addr);
      info.from = Endpoint{peerP->addr, ntohs(from.sconn_port), peerP->scopeId};
    }
    return r;
  }
  std::optional<AssocEvent> assocEvent(const std::uint8_t* p, std::size_t n) const override {
    sctp_assoc_change ac;
    if (n < offsetof(sctp_assoc_change, sac_info)) return std::nullopt;
    std::memcpy(&ac, p, offsetof(sctp_assoc_change, sac_info));
    if (ac.sac_type != SCTP_ASSOC_CHANGE) return std::nullopt;
    static constexpr unsigned kCodes[5] = {SCTP_COMM_UP, SCTP_RESTART, SCTP_COMM_LOST,
                                           SCTP_SHUTDOWN_COMP, SCTP_CANT_STR_ASSOC};
    const auto state = assocStateOf(ac.sac_state, kCodes);
    if (!state) return std::nullopt;
    return AssocEvent{ac.sac_assoc_id, *state};
  }
  std::optional<Endpoint> peer(AssociationId id) override {
    sockaddr* addrs = nullptr;
    const int n = usrsctp_getpaddrs(so_, id, &addrs);
    if (n <= 0 || !addrs) return std::nullopt;
    sockaddr_conn sc;
    std::memcpy(&sc, addrs, sizeof sc);
    usrsctp_freepaddrs(addrs);
    if (sc.sconn_family != AF_CONN || !sc.sconn_addr) return std::nullopt;
    const auto* peerP = static_cast<const Peer*>(sc.sconn_addr);
    return Endpoint{peerP->addr, ntohs(sc.sconn_port), peerP->scopeId};
  }
  void close() override {
    loopIs(nullptr, {});
    if (so_) {
      // Abort rather than shut down: once we are gone nothing would run the stack to finish
      // a graceful shutdown, and the peers would wait out their retransmissions.
      const linger abortive{1, 0};
      (void)usrsctp_setsockopt(so_, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
      usrsctp_close(so_);
      so_ = nullptr;
      // Let the stack send its ABORTs or SHUTDOWNs before the raw sockets go.
      usrsctp_handle_timers(0);
    }
    for (auto& [k, peerP] : peers_) usrsctp_deregister_address(peerP.get());
    peers_.clear();
    if (raw4_ >= 0) ::close(raw4_);
    if (raw6_ >= 0) ::close(raw6_);
    raw4_ = raw6_ = -1;
    for (int fd : {probe4_, probe6_})
      if (fd >= 0) ::close(fd);
    probe4_ = probe6_ = -1;
    futureMtu_ = 0;
    if (gOwner == this) gOwner = nullptr;
  }
  void loopIs(Ulm::EventLoop* loop, std::function<void()> readable) override {
    if (loop_) {
      for (int fd : {raw4_, raw6_})
        if (fd >= 0) loop_->unwatch(fd);
      timer_.reset();
    }
    loop_ = loop;
    readable_ = std::move(readable);
    if (!loop_) return;
    for (int fd : {raw4_, raw6_})
      if (fd >= 0) loop_->watch(fd, [this, fd] { rawReadable(fd); });
    timer_ = std::make_unique<Ulm::Timer>(loop_->timers(), [this] { tick(); });
    timer_->delayIs(kTimerPeriod);
  }
  void pathMtuIs(std::uint32_t mtu) override {
    pathMtu_ = mtu;
    if (mtu) futureMtuIs(mtu);
  }

  // The stack's output: one SCTP packet to the peer behind addr.
  int emit(const Peer& peerP, const void* buffer, std::size_t length) {
    const bool v4 = peerP.addr.af() == AddressFamily::ipv4;
    ssize_t r;
    if (v4) {
      sockaddr_in to{};
      to.sin_family = AF_INET;
      std::memcpy(&to.sin_addr, peerP.addr.bytes(), 4);
      r = ::sendto(raw4_, buffer, length, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    } else {
      sockaddr_in6 to = toSockAddr6(Endpoint{peerP.addr, 0, peerP.scopeId});
      r = ::sendto(raw6_, buffer, length, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    }
    if (r < 0) {
      FLICK_TRACE(userTrace(), 4, "Userland SCTP - sendto {} - Failed - Error: {}", peerP.addr,
                  errno);
      return errno;
    }
    return 0;
  }

 private:
  static void upcall(struct socket*, void* arg, int) {
    static_cast<UserBackend*>(arg)->pending_ = true;
  }
  static bool isLinkLocal(const IpGenAddr& a) {
    return a.af() == AddressFamily::ipv6 && a.bytes()[0] == 0xfe && (a.bytes()[1] & 0xc0) == 0x80;
  }
  static sockaddr_conn conn(void* addr, std::uint16_t port) {
    sockaddr_conn sc{};
    sc.sconn_family = AF_CONN;
    sc.sconn_port = htons(port);
    sc.sconn_addr = addr;
    return sc;
  }
  int fail() {
    const int err = errno ? errno : EIO;
    close();
    return -err;
  }
  int opt(int name, int v) {
    return usrsctp_setsockopt(so_, IPPROTO_SCTP, name, &v, sizeof v) == 0 ? 0 : -errno;
  }
  Peer* peerFor(const IpGenAddr& addr, std::uint32_t scopeId) {
    const std::uint32_t scope = isLinkLocal(addr) ? scopeId : 0;
    auto& slot = peers_[{addr, scope}];
    if (!slot) {
      slot = std::make_unique<Peer>(Peer{addr, scope, linkPathMtu(addr, scope)});
      usrsctp_register_address(slot.get());
    }
    return slot.get();
  }
  // The route's MTU towards addr (the link's, unless a route says less) less the IP and
  // SCTP headers: what the stack may put in one packet without the kernel fragmenting it.
  // Without a route, the least any IPv6 link carries.
  std::uint32_t linkPathMtu(const IpGenAddr& addr, std::uint32_t scope) const {
    const bool v4 = addr.af() == AddressFamily::ipv4;
    const std::uint32_t headers = v4 ? 20 + 12 : 40 + 12;
    const int fd = v4 ? probe4_ : probe6_;
    int mtu = 0;
    socklen_t len = sizeof mtu;
    sockaddr_in to4{};
    sockaddr_in6 to6 = toSockAddr6(Endpoint{addr, 9, scope});
    to4.sin_family = AF_INET;
    to4.sin_port = htons(9);
    if (v4) std::memcpy(&to4.sin_addr, addr.bytes(), 4);
    const auto* to =
        v4 ? reinterpret_cast<const sockaddr*>(&to4) : reinterpret_cast<const sockaddr*>(&to6);
    if (fd < 0 || ::connect(fd, to, v4 ? sizeof to4 : sizeof to6) != 0 ||
        ::getsockopt(fd, v4 ? IPPROTO_IP : IPPROTO_IPV6, v4 ? IP_MTU : IPV6_MTU, &mtu, &len) != 0 ||
        static_cast<std::uint32_t>(mtu) <= headers) {
      mtu = 1280;
    }
    sockaddr none{};
    none.sa_family = AF_UNSPEC;
    if (fd >= 0) (void)::connect(fd, &none, sizeof none);
    FLICK_TRACE(userTrace(), 5, "Userland SCTP - Peer {} - Path MTU {}", addr,
                static_cast<std::uint32_t>(mtu) - headers);
    return static_cast<std::uint32_t>(mtu) - headers;
  }
  // Associations take the stack's default path MTU when they are made, so the default is
  // the peer's before anything that may make one with it; a set pathMtu wins.
  void pathMtuBefore(const Peer& peerP) { futureMtuIs(pathMtu_ ? pathMtu_ : peerP.pathMtu); }
  void futureMtuIs(std::uint32_t mtu) {
    if (!so_ || mtu == futureMtu_) return;
    sctp_paddrparams pp{};
    pp.spp_assoc_id = SCTP_FUTURE_ASSOC;
    pp.spp_pathmtu = mtu;
    pp.spp_flags = SPP_PMTUD_DISABLE;
    if (usrsctp_setsockopt(so_, IPPROTO_SCTP, SCTP_PEER_ADDR_PARAMS, &pp, sizeof pp) != 0) {
      FLICK_TRACE(userTrace(), 1, "Userland SCTP - Path MTU {} - Failed - Error: {}", mtu, errno);
      return;
    }
    futureMtu_ = mtu;
  }
  // The stack asked for a read while it ran: tell the owner now that it has returned.
  void flush() {
    if (!pending_) return;
    pending_ = false;
    if (readable_) readable_();
  }
  void rawReadable(int fd) {
    // Bounded: at most 64 packets per event, the rest on the next (level-triggered) one.
    for (int i = 0; i < 64; ++i) {
      sockaddr_in6 from{};
      socklen_t fromLen = sizeof from;
      const ssize_t n =
          ::recvfrom(fd, buf_, sizeof buf_, 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
      if (n <= 0) break;
      std::size_t at = 0;
      if (fd == raw4_) {
        // IPv4 raw sockets deliver the IP header; the stack wants the SCTP packet.
        at = std::size_t{buf_[0] & 0x0fu} * 4;
        if (static_cast<std::size_t>(n) <= at) continue;
      }
      const Endpoint src = fromSockAddr(reinterpret_cast<const sockaddr*>(&from));
      Peer* peerP = peerFor(src.addr, src.scopeId);
      pathMtuBefore(*peerP);  // this packet may complete an association
      usrsctp_conninput(peerP, buf_ + at, static_cast<std::size_t>(n) - at, 0);
    }
    flush();
  }
  void tick() {
    const auto now = std::chrono::steady_clock::now();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now - last_).count();
    if (ms > 0) {
      last_ += std::chrono::milliseconds(ms);
      usrsctp_handle_timers(static_cast<std::uint32_t>(ms));
    }
    if (timer_) timer_->delayIs(kTimerPeriod);
    // Readable is level-like, as a kernel socket's: a reader that stopped at its quantum
    // with messages left is called again here, not only when the next packet arrives.
    if (so_ && (usrsctp_get_events(so_) & SCTP_EVENT_READ)) pending_ = true;
    flush();
  }

  struct socket* so_ = nullptr;
  int raw4_ = -1;
  int raw6_ = -1;
  std::map<std::pair<IpGenAddr, std::uint32_t>, std::unique_ptr<Peer>> peers_;
  Ulm::EventLoop* loop_ = nullptr;
  std::function<void()> readable_;
  std::unique_ptr<Ulm::Timer> timer_;
  std::chrono::steady_clock::time_point last_;
  int probe4_ = -1;
  int probe6_ = -1;
  std::uint32_t pathMtu_ = 0;    // set by the owner; 0: each peer's from its link
  std::uint32_t futureMtu_ = 0;  // the stack's default for new associations now
  bool pending_ = false;
  std::uint8_t buf_[65536];
};

int output(void* addr, void* buffer, std::size_t length, std::uint8_t, std::uint8_t) {
  if (!gOwner || !addr) return EHOSTUNREACH;
  return gOwner->emit(*static_cast<const Peer*>(addr), buffer, length);
}

}  // namespace

bool userlandAvailable() noexcept { return true; }
std::unique_ptr<Backend> userlandBackend() { return std::make_unique<UserBackend>(); }

}  // namespace Nimo::Sctp
