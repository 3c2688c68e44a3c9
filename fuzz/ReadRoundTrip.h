// The round trip most reader targets check: what a reader accepts is written back and
// either reads again equal or gives the same bytes.
#pragma once

#include <cstring>
#include <string>

#include "fuzz/FuzzInput.h"

namespace PimFuzz {

template <typename M>
using Op = std::uint32_t (M::*)(const Kel::Ptr<Nimo::Pkt>&, std::uint32_t) noexcept;

// How one message class goes round.
template <typename M>
struct Trip {
  const char* name;
  Op<M> read, write;
  bool sameBytes = false;   // compare the body bytes instead of reading the copy again
  bool mayRefuse = false;   // the writer refuses some things the reader takes
  std::uint32_t slack = 0;  // room beyond the read length (the writer may add options)
};

inline void checkThat(bool ok, const char* name, const char* what) {
  if (!ok) check(false, (std::string(name) + " " + what).c_str());
}

// Reads an M at in.offset; keep(rx) false skips the write (a message the writer is known to
// refuse). Returns what the read took.
template <typename M, typename Keep>
std::uint32_t roundTrip(const Input& in, const Trip<M>& t, Keep keep) {
  auto rx = Kel::Ptr<M>::make(), again = Kel::Ptr<M>::make();
  for (auto& m : {rx, again}) m->srcIpIs(in.srcIp), m->dstIpIs(in.dstIp);
  const std::uint32_t n = ((*rx).*t.read)(in.pkt, in.offset);
  if (n == 0 || !keep(*rx)) return n;
  auto out = Nimo::Pkt::create(n + t.slack);
  const std::uint32_t w = ((*rx).*t.write)(out, 0);
  if (w == 0 && t.mayRefuse) return n;
  checkThat(t.mayRefuse || w == n, t.name, "accepted but does not write");
  if (t.sameBytes) {
    checkThat(std::memcmp(out->data(4, n - 4), in.pkt->data(in.offset + 4, n - 4), n - 4) == 0,
              t.name, "rewritten differs");
  } else {
    checkThat(out->sizeIs(w) && ((*again).*t.read)(out, 0) == w, t.name, "rewritten does not read");
    checkThat(*again == *rx, t.name, "rewritten reads back different");
  }
  return n;
}

template <typename M>
std::uint32_t roundTrip(const Input& in, const Trip<M>& t) {
  return roundTrip(in, t, [](const M&) { return true; });
}
// An encoded address: read, and if the writer takes it, the same bytes again.
template <typename A>
std::uint32_t addressRoundTrip(const std::uint8_t* data, std::size_t size, Op<A> read,
                               Op<A> write) {
  auto in = decode(data, size);
  if (!in) return 0;
  A a;
  const std::uint32_t n = (a.*read)(in->pkt, in->offset);
  if (n == 0) return 0;
  (void)a.valid();
  auto out = Nimo::Pkt::create(n);
  if ((a.*write)(out, 0) == 0) return n;
  check(std::memcmp(out->data(0, n), in->pkt->data(in->offset, n), n) == 0, "rewrite differs");
  return n;
}

}  // namespace PimFuzz
