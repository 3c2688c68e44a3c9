// Sample PIM traffic written by the library's own writers: pimsamples makes samples/ from
// it, the benchmark a large capture.
#pragma once

#include <vector>

#include "tools/pimdump/Capture.h"

namespace PimDump {

// A Hello from fe80::1 / 10.1.0.1 to all PIM routers: holdtime, DR priority and generation
// id, and with everyOption also LAN prune delay, bidir, an address list and interface id.
Bytes sampleHello(bool v6, bool everyOption);
// A Hello at the edges of its fields: T bit clear, the largest propagation delay, override
// interval 0, DR priority 0xfffffffe, two secondary addresses.
Bytes sampleHelloExtremes(bool v6);
// One IP packet of every message type the codec reads, in type order.
std::vector<Bytes> sampleMessages(bool v6);

}  // namespace PimDump
