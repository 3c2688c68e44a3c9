// Helpers for the message-body tests: one context per address family, framed reads,
// written bytes, and the checks every golden vector goes through.
#pragma once

#include <gmock/gmock.h>

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

// read(write(tx)) == tx, for generated messages.
template <typename M>
void roundTrip(const Family& f, M& tx, Op<M> read, Op<M> write, const std::string& what) {
  const Bytes out = written(tx, write, 4000);
  auto rx = message<M>(f);
  EXPECT_EQ(((*rx).*read)(pkt(out), 0), out.size()) << f.name() << " " << what;
  EXPECT_EQ(*rx, tx) << f.name() << " " << what;
}

// What an Assert and a Register-Stop both carry: group 239.1.2.3 (ff3e::1234) with mask
// groupMask, then source 10.0.0.5 (2001:db8::5); groupSourceHex() is their wire form,
// where the group always has a host mask.
template <typename M>
Kel::Ptr<M> groupSource(const Family& f, std::uint8_t groupMask) {
  auto m = message<M>(f);
  m->groupIs(Routing::Pim::Packet::EncodedGroupAddress(Routing::Pim::Packet::GroupAddress(
      Nimo::IpGenPrefix(Nimo::IpGenAddr(f.v6 ? "ff3e::1234" : "239.1.2.3"), groupMask), 0)));
  m->sourceIs(Routing::Pim::Packet::EncodedUnicastAddress(
      Nimo::IpGenAddr(f.v6 ? "2001:db8::5" : "10.0.0.5")));
  return m;
}
inline std::string groupSourceHex(const Family& f) {
  return f.v6 ? "02 00 00 80 ff3e 0000 0000 0000 0000 0000 0000 1234"
                "02 00 2001 0db8 0000 0000 0000 0000 0000 0005"
              : "01 00 00 20 ef010203  01 00 0a000005";
}

using Fix = std::function<Bytes(const Bytes&)>;  // makes a message's checksum right

class CodecTest : public TraceTest {
 protected:
  // One golden vector both ways: tx writes it byte for byte; read at offset 20 of a
  // larger buffer, it is taken whole into an object equal to tx, without an error line.
  // Then every strict prefix from 4 bytes on, its checksum made right by fix, reads as 0
  // unless its length is in complete (a message that ends between entries); under ASan
  // an over-read fails the test.
  template <typename M>
  void golden(const Family& f, const Bytes& g, M& tx, Op<M> read, Op<M> write, Fix fix = {},
              const std::set<std::size_t>& complete = {}) {
    SCOPED_TRACE(f.name());
    clear();
    const Bytes out = written(tx, write);
    EXPECT_EQ(out, g) << "written:\n" << toHex(out) << "\nwanted:\n" << toHex(g);
    Bytes framed(20, 0xee);
    framed.insert(framed.end(), g.begin(), g.end());
    auto rx = message<M>(f);
    EXPECT_EQ(((*rx).*read)(pkt(framed), 20), g.size());
    EXPECT_EQ(*rx, tx);
    EXPECT_THAT(errors(), ::testing::IsEmpty());
    EXPECT_THAT(warnings(), ::testing::IsEmpty());
    if (!fix) fix = [&](const Bytes& b) { return withChecksum(b, f.src, f.dst); };
    for (std::size_t n = 4; n < g.size(); ++n) {
      const Bytes part = fix(Bytes(g.begin(), g.begin() + static_cast<std::ptrdiff_t>(n)));
      EXPECT_EQ(((*message<M>(f)).*read)(pkt(part), 0), complete.count(n) ? n : 0u) << n;
    }
  }

  // golden() for a message of groupSource() that make(mask) builds: written from a /24
  // (/64) group too, it goes out the same, with mask 32 (128).
  template <typename M, typename Make>
  void groupSourceGolden(const Family& f, const Bytes& g, Make make, Op<M> read, Op<M> write) {
    golden(f, g, *make(f.v6 ? 128 : 32), read, write);
    const Bytes out = written(*make(f.v6 ? 64 : 24), write);
    EXPECT_EQ(out, g) << f.name();
    EXPECT_EQ(out.at(7), f.v6 ? 128 : 32) << f.name();
  }

  // The error lines of one read of msg (checksum made right), which must fail.
  template <typename M>
  std::vector<std::string> rejected(Op<M> read, const Bytes& msg, const Family& f = kV4) {
    clear();
    EXPECT_EQ(((*message<M>(f)).*read)(pkt(withChecksum(msg, f.src, f.dst)), 0), 0u);
    return errors();
  }

  // The error lines of one write of m into room bytes, which must fail.
  template <typename M>
  std::vector<std::string> refused(M& m, Op<M> write, std::uint32_t room = 1500) {
    clear();
    EXPECT_THAT(written(m, write, room), ::testing::IsEmpty());
    return errors();
  }
};

}  // namespace PimTest
