// Nimo::SctpPam: the one-to-many SCTP socket over a chosen backend, and Sctp::Status.
// The backends are in NimoSctpKernel.cpp and NimoSctpUser.cpp; see Nimo.h for the mapping.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Nimo.h"

namespace Nimo {

namespace {

Flicklog::Facility& sctpTrace() {
  static Flicklog::Facility& f = Flicklog::facility("Nimo::Sctp");
  return f;
}

// Kernel first; the userland stack where the kernel has no SCTP, or where asked for.
std::unique_ptr<Sctp::Backend> defaultBackend(const NamespaceName& netNs, int& err) {
  const char* want = std::getenv("PIM_SCTP_BACKEND");
  const std::string_view forced = want ? want : "";
  if (forced != "userland") {
    auto k = Sctp::kernelBackend();
    err = -k->open(netNs);
    if (err == 0) return k;
    if (forced == "kernel") return nullptr;
  }
  auto u = Sctp::userlandBackend();
  if (!u) {
    FLICK_TRACE(sctpTrace(), 1, "Userland SCTP - Not Built In - Kernel Error: {}", err);
    if (err == 0) err = ENOTSUP;  // the kernel was not asked: still an errno to report
    return nullptr;
  }
  err = -u->open(netNs);
  return err == 0 ? std::move(u) : nullptr;
}

}  // namespace

namespace Sctp {

std::string_view assocStateName(AssocState s) noexcept {
  static constexpr std::string_view kNames[] = {"up", "restarted", "lost", "shutdown", "cantStart"};
  return kNames[static_cast<std::size_t>(s)];
}

void Status::associationIs(const Association& a) {
  auto [it, created] = assoc_.try_emplace(a.id, a);
  if (!created && it->second == a) return;
  it->second = a;
  notifiees_.forEach([&](NotifieeConst& n) { n.onAssociation(a.id); });
}

void Status::associationDel(AssociationId id) {
  if (assoc_.erase(id) != 0) notifiees_.forEach([&](NotifieeConst& n) { n.onAssociation(id); });
}

std::size_t Status::upCount() const noexcept {
  std::size_t n = 0;
  for (const auto& [id, a] : assoc_) {
    n += a.state == AssocState::Up || a.state == AssocState::Restarted;
  }
  return n;
}

}  // namespace Sctp

SctpPam::SctpPam(Kel::Name name, NamespaceName netNs, BackendFactory factory)
    : Kel::Entity(std::move(name)), netNs_(std::move(netNs)), factory_(std::move(factory)) {}

SctpPam::~SctpPam() { closeSocket(); }

std::string_view SctpPam::backendKind() const noexcept {
  return backend_ ? backend_->kind() : std::string_view();
}

bool SctpPam::closed(const char* op) {
  FLICK_TRACE(sctpTrace(), 1, "{}: {} - Failed - Socket Closed", name().str(), op);
  return false;
}

bool SctpPam::fail(const char* op, int err) {
  FLICK_TRACE(sctpTrace(), 1, "{}: {} - Failed - Error: {}", name().str(), op, err);
  return false;
}

bool SctpPam::createSocket() {
  if (backend_) return true;
  int err = 0;
  if (factory_) {
    backend_ = factory_();
    err = backend_ ? -backend_->open(netNs_) : ENOTSUP;
    if (err != 0) backend_.reset();
  } else {
    backend_ = defaultBackend(netNs_, err);
  }
  if (!backend_) {
    ++createErrors_;
    return fail("createSocket", err);
  }
  FLICK_TRACE(sctpTrace(), 4, "{}: createSocket - {} backend", name().str(), backend_->kind());
  if (autoCloseTime_ != 0) (void)backend_->autoCloseIs(autoCloseTime_);
  if (optionFlags_ & kOptNoDelay) (void)backend_->noDelayIs(true);
  backend_->pathMtuIs(pathMtu_);
  if (loop_)
    backend_->loopIs(loop_, [this] {
      ++readableCount_;
      notifiees_.forEach([](NotifieeConst& n) { n.onReadableCount(); });
    });
  return true;
}

void SctpPam::closeSocket() {
  if (!backend_) return;
  backend_->loopIs(nullptr, {});
  backend_->close();
  backend_.reset();
}

bool SctpPam::resetSocket() {
  closeSocket();
  return createSocket();
}

void SctpPam::loopIs(Ulm::EventLoop* loop) {
  loop_ = loop;
  if (!backend_) return;
  backend_->loopIs(loop_, loop_ ? std::function<void()>([this] {
                     ++readableCount_;
                     notifiees_.forEach([](NotifieeConst& n) { n.onReadableCount(); });
                   })
                                : std::function<void()>());
}

void SctpPam::autoCloseTimeIs(std::uint32_t seconds) {
  autoCloseTime_ = seconds;
  if (backend_) {
    if (int r = backend_->autoCloseIs(seconds); r < 0) fail("SCTP_AUTOCLOSE", -r);
  }
}

void SctpPam::optionFlagsIs(std::uint32_t f) {
  optionFlags_ = f;
  if (backend_) {
    if (int r = backend_->noDelayIs((f & kOptNoDelay) != 0); r < 0) fail("SCTP_NODELAY", -r);
  }
}

void SctpPam::pathMtuIs(std::uint32_t m) {
  pathMtu_ = m;
  if (backend_) backend_->pathMtuIs(m);
}

bool SctpPam::retransmitTimeoutIs(std::uint32_t initialMs, std::uint32_t minMs,
                                  std::uint32_t maxMs) {
  if (!backend_) return closed("SCTP_RTOINFO");
  const int r = backend_->rtoIs(initialMs, minMs, maxMs);
  return r == 0 || fail("SCTP_RTOINFO", -r);
}

bool SctpPam::doBind() {
  if (!backend_) return closed("doBind");
  const int r = backend_->bind(Sctp::Endpoint{srcIpAddr_, srcPort_, 0});
  return r == 0 || fail("doBind", -r);
}

bool SctpPam::doListen() {
  if (!backend_) return closed("doListen");
  const int r = backend_->listen(backlog_);
  return r == 0 || fail("doListen", -r);
}

bool SctpPam::doConnect() {
  if (!backend_) return closed("doConnect");
  if (mode_ == 0) {
    FLICK_TRACE(sctpTrace(), 1, "{}: doConnect - Refused - Disabled", name().str());
    return false;
  }
  FLICK_TRACE(sctpTrace(), 4, "{}: doConnect {} port {}", name().str(), txDstIpAddr_, txDstPort_);
  const int r = backend_->connect(Sctp::Endpoint{txDstIpAddr_, txDstPort_, txDstScopeId_});
  return r == 0 || fail("doConnect", -r);
}

bool SctpPam::createAssociation(const IpGenAddr& addr, std::uint16_t port) {
  txDstIpAddr_ = addr;
  txDstPort_ = port;
  return doConnect();
}

bool SctpPam::doSendMsg(const std::uint8_t* p, std::uint32_t n, Sctp::AssociationId id) {
  if (!backend_) return closed("doSendMsg");
  if (mode_ == 0) {
    ++txErrors_;
    FLICK_TRACE(sctpTrace(), 1, "{}: doSendMsg - Refused - Disabled", name().str());
    return false;
  }
  const long r = backend_->send(p, n, Sctp::Endpoint{txDstIpAddr_, txDstPort_, txDstScopeId_}, id);
  if (r != static_cast<long>(n)) {
    ++txErrors_;
    return fail("doSendMsg", r < 0 ? static_cast<int>(-r) : EMSGSIZE);
  }
  ++txCount_;
  txBytes_ += n;
  return true;
}

void SctpPam::handleEvent(const Sctp::AssocEvent& ev) {
  ++rxAssocEventCount_;
  FLICK_TRACE(sctpTrace(), 4, "{}: association {} {}", name().str(), ev.id,
              Sctp::assocStateName(ev.state));
  if (!status_) return;
  Sctp::Association a;
  if (const auto* old = status_->association(ev.id)) a = *old;
  a.id = ev.id;
  a.state = ev.state;
  if (!a.peerAddr.isSet()) {
    if (auto peer = backend_->peer(ev.id)) {
      a.peerAddr = peer->addr;
      a.peerPort = peer->port;
    }
  }
  status_->associationIs(a);
}

Kel::Ptr<Pkt> SctpPam::doRecvMsg() {
  if (!backend_) {
    closed("doRecvMsg");
    return nullptr;
  }
  // One message may arrive in several reads (no MSG_EOR until its last piece), and the
  // rest may not be there yet: the pieces are joined in rxBuffer_ across calls, and one
  // larger than maxRxPktData is read to its end and dropped. Bounded: every pass either
  // consumes a read or returns.
  if (rxHave_ == 0 && !rxDropping_) rxBuffer_.resize(std::size_t{maxRxPktData_} + 1);
  for (;;) {
    Sctp::RecvInfo info;
    std::uint8_t* at = rxBuffer_.data() + (rxDropping_ ? 0 : rxHave_);
    const std::size_t room = rxDropping_ ? rxBuffer_.size() : rxBuffer_.size() - rxHave_;
    const long r = backend_->recv(at, room, info);
    if (r < 0) {
      if (r != -EAGAIN && r != -EWOULDBLOCK && r != -EINTR) {
        ++rxErrors_;
        fail("doRecvMsg", static_cast<int>(-r));
      }
      return nullptr;
    }
    if (info.notification) {
      // Never a PIM message. Notifications arrive whole; a piece of one is only counted.
      if (!info.endOfRecord) {
        ++rxErrors_;
      } else if (auto ev = backend_->assocEvent(at, static_cast<std::size_t>(r))) {
        handleEvent(*ev);
      }
      continue;
    }
    if (info.rcvInfo) ++rxAncillaryCount_;
    if (!rxDropping_) {
      rxHave_ += static_cast<std::size_t>(r);
      if (rxHave_ > maxRxPktData_) rxDropping_ = true;
    }
    if (!info.endOfRecord) continue;
    const std::size_t have = rxHave_;
    const bool drop = rxDropping_;
    rxHave_ = 0;
    rxDropping_ = false;
    if (drop) {
      ++rxOversize_;
      FLICK_TRACE(sctpTrace(), 1, "{}: doRecvMsg - Message Larger Than {} Dropped", name().str(),
                  maxRxPktData_);
      continue;
    }
    rxSrcIpAddr_ = info.from.addr;
    rxSrcPort_ = info.from.port;
    rxAssociationId_ = info.assocId;
    ++rxCount_;
    return Pkt::copyOf(rxBuffer_.data(), static_cast<std::uint32_t>(have), 0);
  }
}

}  // namespace Nimo
