// Fuzz target: CrpAdvMessage::readCrpAdvMessage; an accepted advertisement whose groups
// share one scope must write back and read again equal.
#include "Pim/PimMessage.h"
#include "fuzz/ReadRoundTrip.h"

std::uint32_t PimFuzz::readCrpAdvMessage(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::Packet::CrpAdvMessage;
  using Routing::Pim::Packet::CrpAdvScope;
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
PIM_FUZZ_ENTRY(PimFuzz::readCrpAdvMessage)
