// Fuzz target: Message::readHeader; a header it accepts, written back over the same body,
// must read again with the same fields.
#include "Pim/PimMessage.h"
#include "fuzz/FuzzInput.h"

std::uint32_t PimFuzz::readHeader(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::Packet::Message;
  auto in = decode(data, size);
  if (!in) return 0;
  const std::uint8_t* first = in->pkt->data(in->offset, 1);
  auto type = Nimo::PimMessageType{first ? *first : std::uint8_t{0x20}};
  auto rx = Kel::Ptr<Message>::make(type), again = Kel::Ptr<Message>::make(type);
  for (auto& m : {rx, again}) m->srcIpIs(in->srcIp), m->dstIpIs(in->dstIp);
  std::uint32_t n = rx->readHeader(in->pkt, in->offset);
  // A Register shorter than its 8 checksummed bytes is refused by the Register reader;
  // its header alone has no round trip (the IPv6 writer always declares 8).
  if (n == 0 || (type == Nimo::PimMessageType::pimRegister && rx->length() < 8)) return n;
  auto copy = Nimo::Pkt::copyOf(in->pkt->data(0), in->pkt->size());
  check(rx->writeHeader(copy, in->offset) == 4, "accepted header does not write");
  check(again->readHeader(copy, in->offset) == 4, "rewritten header does not read");
  check(again->reserved() == rx->reserved() && again->length() == rx->length(),
        "rewritten header reads back different");
  return n;
}
