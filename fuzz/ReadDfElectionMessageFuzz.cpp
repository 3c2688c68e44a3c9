// Fuzz target: the DF Election readers. As the receive path does, the subtype nibble picks
// the class (Offer, Winner, Backoff, Pass; any other: the common reader); an accepted
// message must write back and read again equal.
#include "Pim/PimMessage.h"
#include "fuzz/ReadRoundTrip.h"

std::uint32_t PimFuzz::readDfElectionMessage(const std::uint8_t* data, std::size_t size) {
  using namespace Routing::Pim::Packet;
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
PIM_FUZZ_ENTRY(PimFuzz::readDfElectionMessage)
