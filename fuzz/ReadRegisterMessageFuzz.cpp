// Fuzz target: RegisterMessage::readRegisterMessage; a Register it accepts, written back
// (data: its inner packet copied; null: a fresh dummy header), must read back equal. A data
// Register's inner packet must be the tail of what was read, in place.
#include "Pim/PimMessage.h"
#include "fuzz/ReadRoundTrip.h"

std::uint32_t PimFuzz::readRegisterMessage(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::Packet::RegisterMessage;
  auto in = decode(data, size);
  if (!in) return 0;
  const std::uint32_t before = in->pkt->size();
  // The writer refuses e.g. an inner length it finds insane.
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
PIM_FUZZ_ENTRY(PimFuzz::readRegisterMessage)
