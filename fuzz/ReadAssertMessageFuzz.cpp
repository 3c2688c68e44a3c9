// Fuzz target: AssertMessage::readAssertMessage; an accepted Assert must write back to the
// same body bytes.
#include "Pim/PimMessage.h"
#include "fuzz/ReadRoundTrip.h"

std::uint32_t PimFuzz::readAssertMessage(const std::uint8_t* data, std::size_t size) {
  using Routing::Pim::Packet::AssertMessage;
  auto in = decode(data, size);
  return in ? roundTrip<AssertMessage>(*in, {"Assert", &AssertMessage::readAssertMessage,
                                             &AssertMessage::writeAssertMessage, true})
            : 0;
}
PIM_FUZZ_ENTRY(PimFuzz::readAssertMessage)
