// Fuzz target: BootstrapMessage::readBootstrapMessage; an accepted Bootstrap must write
// back and read again equal, with one fragment key per group.
#include "Pim/PimMessage.h"
#include "fuzz/FuzzInput.h"

std::uint32_t PimFuzz::readBootstrapMessage(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::Packet::BootstrapMessage;
  auto in = decode(data, size);
  if (!in) return 0;
  auto rx = Kel::Ptr<BootstrapMessage>::make(), again = Kel::Ptr<BootstrapMessage>::make();
  for (auto& m : {rx, again}) m->srcIpIs(in->srcIp), m->dstIpIs(in->dstIp);
  std::uint32_t n = rx->readBootstrapMessage(in->pkt, in->offset);
  if (n == 0) return 0;
  check(rx->fragments().size() == rx->groupData().size(), "a group without its fragment key");
  auto out = Nimo::Pkt::create(n);
  check(rx->writeBootstrapMessage(out, 0) == n, "accepted Bootstrap does not write");
  check(again->readBootstrapMessage(out, 0) == n && *again == *rx, "rewritten Bootstrap differs");
  return n;
}
PIM_FUZZ_ENTRY(PimFuzz::readBootstrapMessage)
