// Kel::NboAttrLog::SocketOutSm: the attribute log's socket output. See Kel.h.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Kel.h"

namespace Kel::NboAttrLog {

namespace {

Flicklog::Facility& trace() {
  static Flicklog::Facility& f = Flicklog::facility("Kel::NboAttrLog");
  return f;
}

void put16(std::vector<char>& b, std::size_t v) {
  b.push_back(static_cast<char>(v >> 8));
  b.push_back(static_cast<char>(v));
}
void put32(std::vector<char>& b, std::size_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) b.push_back(static_cast<char>(v >> shift));
}

}  // namespace

SocketOutSm::SocketOutSm(Name name, int fd, std::size_t highWater)
    : Entity(std::move(name)), fd_(fd), highWater_(highWater) {
  const int flags = ::fcntl(fd_, F_GETFL);
  if (flags < 0 || ::fcntl(fd_, F_SETFL, flags | O_NONBLOCK) < 0) {
    FLICK_TRACE(trace(), 1, "SocketOutSm: fcntl O_NONBLOCK failed: {}", std::strerror(errno));
    ++sendErrors_;
    failed_ = true;
  }
}

SocketOutSm::~SocketOutSm() {
  if (fd_ >= 0) ::close(fd_);
}

void SocketOutSm::attrIs(std::string_view path, std::string_view attribute,
                         std::string_view value) noexcept {
  // Lengths beyond the fields' widths cannot be framed; such a record is a caller's bug,
  // dropped like one sent to a dead collector.
  if (failed_ || path.size() > 0xffff || attribute.size() > 0xffff || value.size() > 0xffff0000u) {
    ++recordsDropped_;
    return;
  }
  try {
    const std::size_t len = 4 + 2 + path.size() + 2 + attribute.size() + 4 + value.size();
    put32(buf_, len);
    put16(buf_, path.size());
    buf_.insert(buf_.end(), path.begin(), path.end());
    put16(buf_, attribute.size());
    buf_.insert(buf_.end(), attribute.begin(), attribute.end());
    put32(buf_, value.size());
    buf_.insert(buf_.end(), value.begin(), value.end());
  } catch (const std::bad_alloc&) {
    ++recordsDropped_;
    return;
  }
  ++records_;
  flush();
}

std::size_t SocketOutSm::flush() noexcept {
  std::size_t sent = 0;
  while (!failed_ && unsentBytes() > 0) {
    const ssize_t n = ::send(fd_, buf_.data() + head_, unsentBytes(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      head_ += static_cast<std::size_t>(n);
      sent += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    FLICK_TRACE(trace(), 1, "SocketOutSm {}: send failed: {}, dropping {} bytes", name().str(),
                std::strerror(errno), unsentBytes());
    ++sendErrors_;
    failed_ = true;
    buf_.clear();
    head_ = 0;
  }
  // Keep the buffer from creeping: move the unsent tail to the front once half is sent.
  if (head_ == buf_.size()) {
    buf_.clear();
    head_ = 0;
  } else if (head_ > buf_.size() / 2) {
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(head_));
    head_ = 0;
  }
  cloggedIs(!failed_ && unsentBytes() > highWater_);
  return sent;
}

void SocketOutSm::cloggedIs(bool c) {
  if (c == clogged_) return;
  clogged_ = c;
  FLICK_TRACE(trace(), 5, "SocketOutSm {}: {} ({} bytes unsent)", name().str(),
              c ? "clogged" : "unclogged", unsentBytes());
  notifiees_.forEach([](NotifieeConst& n) { n.onClogged(); });
}

Ptr<SocketOutSm> socketOutSmFactory(const Name& name, int fd, std::size_t highWater) {
  return Ptr<SocketOutSm>::make(name, fd, highWater);
}

}  // namespace Kel::NboAttrLog
