// Fuzz target: RegisterStopMessage::readRegisterStopMessage; an accepted Register-Stop must
// write back to the same body bytes.
#include "Pim/PimMessage.h"
#include "fuzz/ReadRoundTrip.h"

std::uint32_t PimFuzz::readRegisterStopMessage(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::Packet::RegisterStopMessage;
  auto in = decode(data, size);
  return in ? roundTrip<RegisterStopMessage>(
                  *in, {"Register-Stop", &RegisterStopMessage::readRegisterStopMessage,
                        &RegisterStopMessage::writeRegisterStopMessage, true})
            : 0;
}
PIM_FUZZ_ENTRY(PimFuzz::readRegisterStopMessage)
