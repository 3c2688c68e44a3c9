// Fuzz target: HelloMessage::readHelloMessage; a Hello it accepts, if the writer takes it
// (it refuses a multicast secondary or a connection address of the other family), must
// read back equal to the first read.
#include "Pim/PimMessage.h"
#include "fuzz/FuzzInput.h"

std::uint32_t PimFuzz::readHelloMessage(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::Packet::HelloMessage;
  auto in = decode(data, size);
  if (!in) return 0;
  auto rx = Kel::Ptr<HelloMessage>::make(), again = Kel::Ptr<HelloMessage>::make();
  for (auto& m : {rx, again}) m->srcIpIs(in->srcIp), m->dstIpIs(in->dstIp);
  std::uint32_t n = rx->readHelloMessage(in->pkt, in->offset);
  if (n == 0) return 0;
  auto out = Nimo::Pkt::create(2 * n + 64);
  std::uint32_t w = rx->writeHelloMessage(out, 0);  // sets rx's length to w
  if (w == 0) return n;
  check(out->sizeIs(w) && again->readHelloMessage(out, 0) == w, "rewritten Hello does not read");
  check(*again == *rx, "rewritten Hello reads back different");
  return n;
}
PIM_FUZZ_ENTRY(PimFuzz::readHelloMessage)
