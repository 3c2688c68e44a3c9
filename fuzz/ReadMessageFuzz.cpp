// Fuzz targets of the message and encoded-address readers that share one property: what a
// reader accepts is written back and either reads again equal or gives the same bytes.
// Each target names its class, its reader and writer, and what it knows the writer refuses.
#include <cstring>
#include <string>

#include "Pim/PimMessage.h"
#include "fuzz/FuzzInput.h"

namespace PimFuzz {
namespace {

using namespace Routing::Pim::Packet;

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

void checkThat(bool ok, const char* name, const char* what) {
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
template <typename M>
std::uint32_t roundTrip(const std::uint8_t* data, std::size_t size, const Trip<M>& t) {
  auto in = decode(data, size);
  return in ? roundTrip(*in, t) : 0;
}

// An encoded address: read, and if the writer takes it (it refuses a multicast unicast or
// source address, a unicast group), the same bytes again.
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

}  // namespace

std::uint32_t readUnicastAddress(const std::uint8_t* data, std::size_t size) {
  return addressRoundTrip<EncodedUnicastAddress>(data, size,
                                                 &EncodedUnicastAddress::readUnicastAddress,
                                                 &EncodedUnicastAddress::writeUnicastAddress);
}

std::uint32_t readGroupAddress(const std::uint8_t* data, std::size_t size) {
  return addressRoundTrip<EncodedGroupAddress>(data, size, &EncodedGroupAddress::readGroupAddress,
                                               &EncodedGroupAddress::writeGroupAddress);
}

std::uint32_t readSourceAddress(const std::uint8_t* data, std::size_t size) {
  return addressRoundTrip<EncodedSourceAddress>(data, size,
                                                &EncodedSourceAddress::readSourceAddress,
                                                &EncodedSourceAddress::writeSourceAddress);
}

// The writer refuses a multicast secondary or a connection address of the other family; the
// rewrite may be longer than the read (repeated options collapse, absent ones do not).
std::uint32_t readHelloMessage(const std::uint8_t* data, std::size_t size) {
  auto in = decode(data, size);
  return in ? roundTrip(*in, Trip<HelloMessage>{"Hello", &HelloMessage::readHelloMessage,
                                                &HelloMessage::writeHelloMessage, false, true,
                                                in->pkt->size() + 64})
            : 0;
}

// Written back (data: its inner packet copied; null: a fresh dummy header). A data
// Register's inner packet must be the tail of what was read, in place. The writer refuses
// e.g. an inner length it finds insane.
std::uint32_t readRegisterMessage(const std::uint8_t* data, std::size_t size) {
  auto in = decode(data, size);
  if (!in) return 0;
  const std::uint32_t before = in->pkt->size();
  const Trip<RegisterMessage> t{"Register",
                                &RegisterMessage::readRegisterMessage,
                                &RegisterMessage::writeRegisterMessage,
                                false,
                                true,
                                64};
  return roundTrip(*in, t, [&](const RegisterMessage& rx) {
    check(rx.nullFlag() || (rx.rcvdPkt() == in->pkt && before - in->offset - 8 == in->pkt->size()),
          "data Register not handed on in place");
    return true;
  });
}

std::uint32_t readRegisterStopMessage(const std::uint8_t* data, std::size_t size) {
  return roundTrip<RegisterStopMessage>(
      data, size,
      {"Register-Stop", &RegisterStopMessage::readRegisterStopMessage,
       &RegisterStopMessage::writeRegisterStopMessage, true});
}

std::uint32_t readAssertMessage(const std::uint8_t* data, std::size_t size) {
  return roundTrip<AssertMessage>(
      data, size,
      {"Assert", &AssertMessage::readAssertMessage, &AssertMessage::writeAssertMessage, true});
}

// One fragment key per group.
std::uint32_t readBootstrapMessage(const std::uint8_t* data, std::size_t size) {
  auto in = decode(data, size);
  if (!in) return 0;
  const Trip<BootstrapMessage> t{"Bootstrap", &BootstrapMessage::readBootstrapMessage,
                                 &BootstrapMessage::writeBootstrapMessage};
  return roundTrip(*in, t, [](const BootstrapMessage& rx) {
    check(rx.fragments().size() == rx.groupData().size(), "a group without its fragment key");
    return true;
  });
}

// Only an advertisement whose groups share one scope can be written back.
std::uint32_t readCrpAdvMessage(const std::uint8_t* data, std::size_t size) {
  auto in = decode(data, size);
  if (!in) return 0;
  const Trip<CrpAdvMessage> t{"C-RP-Adv", &CrpAdvMessage::readCrpAdvMessage,
                              &CrpAdvMessage::writeCrpAdvMessage};
  return roundTrip(*in, t, [](CrpAdvMessage& rx) {
    unsigned zoned = 0;
    for (const auto& g : rx.groupData()->groupInfo) zoned += g.second & 1;
    if (zoned != 0 && zoned != rx.groupData()->groupInfo.size()) return false;  // mixed scopes
    rx.allowedScopeIs(zoned ? CrpAdvScope::Admin : CrpAdvScope::Global);
    return true;
  });
}

// As the receive path does, the subtype nibble picks the class (Offer, Winner, Backoff,
// Pass; any other: the common reader).
std::uint32_t readDfElectionMessage(const std::uint8_t* data, std::size_t size) {
  auto in = decode(data, size);
  if (!in) return 0;
  const std::uint8_t* hdr = in->pkt->data(in->offset, 2);
  switch (hdr ? hdr[1] >> 4 : 0) {
    case 1:
      return roundTrip<DfElectionOfferMessage>(
          *in, {"DF Offer", &DfElectionOfferMessage::readDfElectionOfferMessage,
                &DfElectionOfferMessage::writeDfElectionOfferMessage});
    case 2:
      return roundTrip<DfElectionWinnerMessage>(
          *in, {"DF Winner", &DfElectionWinnerMessage::readDfElectionWinnerMessage,
                &DfElectionWinnerMessage::writeDfElectionWinnerMessage});
    case 3:
      return roundTrip<DfElectionBackoffMessage>(
          *in, {"DF Backoff", &DfElectionBackoffMessage::readDfElectionBackoffMessage,
                &DfElectionBackoffMessage::writeDfElectionBackoffMessage});
    case 4:
      return roundTrip<DfElectionPassMessage>(
          *in, {"DF Pass", &DfElectionPassMessage::readDfElectionPassMessage,
                &DfElectionPassMessage::writeDfElectionPassMessage});
    default:
      return roundTrip<DfElectionMessage>(*in,
                                          {"DF Election", &DfElectionMessage::readDfElectionMessage,
                                           &DfElectionMessage::writeDfElectionMessage});
  }
}

}  // namespace PimFuzz
