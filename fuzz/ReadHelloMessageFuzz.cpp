// Fuzz target: HelloMessage::readHelloMessage; a Hello it accepts, if the writer takes it
// (it refuses a multicast secondary or a connection address of the other family), must
// read back equal to the first read.
#include "Pim/PimMessage.h"
#include "fuzz/ReadRoundTrip.h"

std::uint32_t PimFuzz::readHelloMessage(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::Packet::HelloMessage;
  auto in = decode(data, size);
  if (!in) return 0;
  // The rewrite may be longer than the read: repeated options collapse, absent ones do not.
  const Trip<HelloMessage> t{"Hello",
                             &HelloMessage::readHelloMessage,
                             &HelloMessage::writeHelloMessage,
                             false,
                             true,
                             in->pkt->size() + 64};
  return roundTrip(*in, t);
}
PIM_FUZZ_ENTRY(PimFuzz::readHelloMessage)
