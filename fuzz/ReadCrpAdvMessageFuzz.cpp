// Fuzz target: CrpAdvMessage::readCrpAdvMessage; an accepted advertisement whose groups
// share one scope must write back and read again equal; a rejected one keeps no groups.
#include "Pim/PimMessage.h"
#include "fuzz/FuzzInput.h"

std::uint32_t PimFuzz::readCrpAdvMessage(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::Packet::CrpAdvMessage;
  using Routing::Pim::Packet::CrpAdvScope;
  auto in = decode(data, size);
  if (!in) return 0;
  auto rx = Kel::Ptr<CrpAdvMessage>::make(), again = Kel::Ptr<CrpAdvMessage>::make();
  for (auto& m : {rx, again}) m->srcIpIs(in->srcIp), m->dstIpIs(in->dstIp);
  std::uint32_t n = rx->readCrpAdvMessage(in->pkt, in->offset);
  if (n == 0) return 0;
  unsigned zoned = 0;
  for (const auto& g : rx->groupData()->groupInfo) zoned += g.second & 1;
  if (zoned != 0 && zoned != rx->groupData()->groupInfo.size()) return n;  // mixed scopes
  rx->allowedScopeIs(zoned ? CrpAdvScope::Admin : CrpAdvScope::Global);
  auto out = Nimo::Pkt::create(n);
  check(rx->writeCrpAdvMessage(out, 0) == n, "accepted C-RP-Adv does not write");
  check(again->readCrpAdvMessage(out, 0) == n && *again == *rx, "rewritten C-RP-Adv differs");
  return n;
}
PIM_FUZZ_ENTRY(PimFuzz::readCrpAdvMessage)
