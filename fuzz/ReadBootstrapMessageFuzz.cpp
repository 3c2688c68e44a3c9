// Fuzz target: BootstrapMessage::readBootstrapMessage; an accepted Bootstrap must write
// back and read again equal, with one fragment key per group.
#include "Pim/PimMessage.h"
#include "fuzz/ReadRoundTrip.h"

std::uint32_t PimFuzz::readBootstrapMessage(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::Packet::BootstrapMessage;
  auto in = decode(data, size);
  if (!in) return 0;
  const Trip<BootstrapMessage> t{"Bootstrap", &BootstrapMessage::readBootstrapMessage,
                                 &BootstrapMessage::writeBootstrapMessage};
  return roundTrip(*in, t, [](const BootstrapMessage& rx) {
    check(rx.fragments().size() == rx.groupData().size(), "a group without its fragment key");
    return true;
  });
}
PIM_FUZZ_ENTRY(PimFuzz::readBootstrapMessage)
