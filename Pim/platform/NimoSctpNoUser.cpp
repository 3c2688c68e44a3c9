// Built without libusrsctp: SctpPam has only the kernel backend.
#include "Pim/platform/Nimo.h"

namespace Nimo::Sctp {
bool userlandAvailable() noexcept { return false; }
std::unique_ptr<Backend> userlandBackend() { return nullptr; }
}  // namespace Nimo::Sctp
