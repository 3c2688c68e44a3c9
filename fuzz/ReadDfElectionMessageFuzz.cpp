// Fuzz target: the DF Election readers. As the receive path does, the subtype nibble picks
// the class (Offer, Winner, Backoff, Pass; any other: the common reader); an accepted
// message must write back and read again equal.
#include "Pim/PimMessage.h"
#include "fuzz/FuzzInput.h"

namespace {

using namespace Routing::Pim::Packet;
template <typename M>
using Op = std::uint32_t (M::*)(const Kel::Ptr<Nimo::Pkt>&, std::uint32_t) noexcept;

template <typename M>
std::uint32_t roundTrip(const PimFuzz::Input& in, Op<M> read, Op<M> write) {
  auto rx = Kel::Ptr<M>::make(), again = Kel::Ptr<M>::make();
  for (auto& m : {rx, again}) m->srcIpIs(in.srcIp), m->dstIpIs(in.dstIp);
  std::uint32_t n = ((*rx).*read)(in.pkt, in.offset);
  if (n == 0) return 0;
  auto out = Nimo::Pkt::create(n);
  const std::uint32_t w = ((*rx).*write)(out, 0);
  PimFuzz::check(w == n, "accepted DF Election does not write");
  PimFuzz::check(((*again).*read)(out, 0) == n && *again == *rx, "rewritten DF Election differs");
  return n;
}

}  // namespace

std::uint32_t PimFuzz::readDfElectionMessage(const std::uint8_t* data, std::size_t size) {
  auto in = decode(data, size);
  if (!in) return 0;
  const std::uint8_t* hdr = in->pkt->data(in->offset, 2);
  switch (hdr ? hdr[1] >> 4 : 0) {
    case 1:
      return roundTrip<DfElectionOfferMessage>(
          *in, &DfElectionOfferMessage::readDfElectionOfferMessage,
          &DfElectionOfferMessage::writeDfElectionOfferMessage);
    case 2:
      return roundTrip<DfElectionWinnerMessage>(
          *in, &DfElectionWinnerMessage::readDfElectionWinnerMessage,
          &DfElectionWinnerMessage::writeDfElectionWinnerMessage);
    case 3:
      return roundTrip<DfElectionBackoffMessage>(
          *in, &DfElectionBackoffMessage::readDfElectionBackoffMessage,
          &DfElectionBackoffMessage::writeDfElectionBackoffMessage);
    case 4:
      return roundTrip<DfElectionPassMessage>(*in,
                                              &DfElectionPassMessage::readDfElectionPassMessage,
                                              &DfElectionPassMessage::writeDfElectionPassMessage);
    default:
      return roundTrip<DfElectionMessage>(*in, &DfElectionMessage::readDfElectionMessage,
                                          &DfElectionMessage::writeDfElectionMessage);
  }
}
PIM_FUZZ_ENTRY(PimFuzz::readDfElectionMessage)
