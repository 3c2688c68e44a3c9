// A fake behind Nimo::SctpPam's system-call seam: scripted reads, recorded calls.
//
// A notification read carries its event as 5 bytes: the state, then the association id
// (big-endian). FakeSctp is shared with the test through a Ptr, so the test keeps its
// handle while the SctpPam owns the backend.
#pragma once

#include <cerrno>
#include <deque>
#include <memory>
#include <vector>

#include "Pim/platform/Nimo.h"

namespace PimTest {

struct FakeSctp : Kel::PtrInterface {
  struct Read {
    std::vector<std::uint8_t> bytes;
    Nimo::Sctp::RecvInfo info;
    int err = 0;  // a failed read: -err
  };
  struct Sent {
    std::vector<std::uint8_t> bytes;
    Nimo::Sctp::Endpoint to;
    Nimo::Sctp::AssociationId id;
  };
  int openError = 0;
  int opened = 0;
  std::vector<Nimo::Sctp::Endpoint> binds, connects;
  std::vector<int> listens;
  std::vector<Sent> sent;
  std::deque<Read> reads;
  std::map<Nimo::Sctp::AssociationId, Nimo::Sctp::Endpoint> peers;
  std::uint32_t autoClose = 0;
  bool closed = false;

  // Queues one message in the given pieces (the last with MSG_EOR).
  void message(const std::vector<std::vector<std::uint8_t>>& pieces, Nimo::Sctp::AssociationId id,
               const Nimo::IpGenAddr& from) {
    for (std::size_t i = 0; i < pieces.size(); ++i) {
      Read r{pieces[i], {}, 0};
      r.info.endOfRecord = i + 1 == pieces.size();
      r.info.rcvInfo = true;
      r.info.assocId = id;
      r.info.from = {from, Nimo::Sctp::pimPort, 0};
      reads.push_back(r);
    }
  }
  void event(Nimo::Sctp::AssocState s, Nimo::Sctp::AssociationId id) {
    Read r{{static_cast<std::uint8_t>(s), static_cast<std::uint8_t>(id >> 24),
            static_cast<std::uint8_t>(id >> 16), static_cast<std::uint8_t>(id >> 8),
            static_cast<std::uint8_t>(id)},
           {},
           0};
    r.info.notification = true;
    r.info.endOfRecord = true;
    reads.push_back(r);
  }
};

class FakeBackend final : public Nimo::Sctp::Backend {
 public:
  explicit FakeBackend(Kel::Ptr<FakeSctp> f) : f_(std::move(f)) {}
  std::string_view kind() const noexcept override { return "fake"; }
  int open(const Nimo::NamespaceName&) override {
    ++f_->opened;
    return -f_->openError;
  }
  int autoCloseIs(std::uint32_t s) override {
    f_->autoClose = s;
    return 0;
  }
  int noDelayIs(bool) override { return 0; }
  int rtoIs(std::uint32_t, std::uint32_t, std::uint32_t) override { return 0; }
  int bind(const Nimo::Sctp::Endpoint& e) override {
    f_->binds.push_back(e);
    return 0;
  }
  int listen(int b) override {
    f_->listens.push_back(b);
    return 0;
  }
  int connect(const Nimo::Sctp::Endpoint& e) override {
    f_->connects.push_back(e);
    // What the kernel does with a link-local address and no interface.
    const auto* b = e.addr.bytes();
    if (e.addr.af() == Nimo::AddressFamily::ipv6 && b[0] == 0xfe && (b[1] & 0xc0) == 0x80 &&
        e.scopeId == 0)
      return -EINVAL;
    return 0;
  }
  long send(const std::uint8_t* p, std::size_t n, const Nimo::Sctp::Endpoint& to,
            Nimo::Sctp::AssociationId id) override {
    f_->sent.push_back({{p, p + n}, to, id});
    return static_cast<long>(n);
  }
  long recv(std::uint8_t* p, std::size_t n, Nimo::Sctp::RecvInfo& info) override {
    if (f_->reads.empty()) return -EAGAIN;
    FakeSctp::Read& r = f_->reads.front();
    if (r.err) {
      const int err = r.err;
      f_->reads.pop_front();
      return -err;
    }
    // Like the kernel: a read shorter than the message gives a piece without MSG_EOR.
    const std::size_t take = std::min(n, r.bytes.size());
    std::copy(r.bytes.begin(), r.bytes.begin() + static_cast<long>(take), p);
    info = r.info;
    if (take < r.bytes.size()) {
      info.endOfRecord = false;
      r.bytes.erase(r.bytes.begin(), r.bytes.begin() + static_cast<long>(take));
    } else {
      f_->reads.pop_front();
    }
    return static_cast<long>(take);
  }
  std::optional<Nimo::Sctp::AssocEvent> assocEvent(const std::uint8_t* p,
                                                   std::size_t n) const override {
    if (n != 5) return std::nullopt;
    return Nimo::Sctp::AssocEvent{Nimo::load32(p + 1), static_cast<Nimo::Sctp::AssocState>(p[0])};
  }
  std::optional<Nimo::Sctp::Endpoint> peer(Nimo::Sctp::AssociationId id) override {
    auto it = f_->peers.find(id);
    if (it == f_->peers.end()) return std::nullopt;
    return it->second;
  }
  void close() override { f_->closed = true; }
  void loopIs(Ulm::EventLoop*, std::function<void()>) override {}

 private:
  Kel::Ptr<FakeSctp> f_;
};

inline Nimo::SctpPam::BackendFactory fakeFactory(const Kel::Ptr<FakeSctp>& f) {
  return [f] { return std::make_unique<FakeBackend>(f); };
}

}  // namespace PimTest
