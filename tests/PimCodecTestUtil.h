// Helpers for the message-body tests: one context per address family, framed reads,
// written bytes, and the truncation sweep every message vector goes through.
#pragma once

#include <functional>
#include <set>
#include <sstream>

#include "tests/PimTestUtil.h"

namespace PimTest {

// The carrying packet's addresses.
struct Family {
  bool v6;
  Nimo::IpGenAddr src, dst;
  const char* name() const { return v6 ? "IPv6" : "IPv4"; }
};
inline const Family kV4{false, kV4Src, kV4Dst};
inline const Family kV6{true, kV6Src, kV6Dst};

template <typename M>
Kel::Ptr<M> message(const Family& f) {
  auto m = Kel::Ptr<M>::make();
  m->srcIpIs(f.src);
  m->dstIpIs(f.dst);
  return m;
}

// A read or write operation of message class M.
template <typename M>
using Op = std::uint32_t (M::*)(const Kel::Ptr<Nimo::Pkt>&, std::uint32_t) noexcept;

// Reads bytes placed at offset 20 of a larger buffer, as the receive path hands them over.
template <typename M>
std::uint32_t readFramed(M& m, Op<M> read, const Bytes& b) {
  Bytes framed(20, 0xee);
  framed.insert(framed.end(), b.begin(), b.end());
  return (m.*read)(pkt(framed), 20);
}

// The bytes a write produced in room bytes, empty when it failed.
template <typename M>
Bytes written(M& m, Op<M> write, std::uint32_t room = 1500) {
  auto p = Nimo::Pkt::create(room);
  const std::uint32_t n = (m.*write)(p, 0);
  return n ? bytesOf(*p, n) : Bytes();
}

template <typename M>
std::string printed(const M& m) {
  std::ostringstream os;
  os << m;
  return os.str();
}

// Every strict prefix of msg from 4 bytes on, its checksum made right by fix, reads as 0
// unless its length is in complete (a message that ends on an entry boundary); under ASan
// an over-read fails the test.
template <typename M>
void truncationSweep(const Family& f, Op<M> read, const Bytes& msg,
                     const std::function<Bytes(const Bytes&)>& fix,
                     const std::set<std::size_t>& complete = {}) {
  for (std::size_t n = 4; n < msg.size(); ++n) {
    const Bytes part = fix(Bytes(msg.begin(), msg.begin() + static_cast<std::ptrdiff_t>(n)));
    auto m = message<M>(f);
    EXPECT_EQ(((*m).*read)(pkt(part), 0), complete.count(n) ? n : 0u) << f.name() << " " << n;
  }
}

}  // namespace PimTest
