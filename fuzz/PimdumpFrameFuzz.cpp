// Fuzz target: pimdump's decoding of one captured IP packet, the whole way from the IP
// header through extension headers to the message reader of the type it names and the JSON
// it prints, read as a sparse-mode and as a bidirectional router.
#include "fuzz/FuzzInput.h"
#include "tools/pimdump/PimDump.h"

std::uint32_t PimFuzz::pimdumpFrame(const std::uint8_t* data, std::size_t size) {
  const PimDump::LocatedPim m = PimDump::locatePim({data, size});
  if (m.verdict != PimDump::IpVerdict::Pim) return 0;
  check(m.pimOffset <= m.ip.size() && m.ip.size() <= size, "located message outside the packet");
  std::uint32_t accepted = 0;
  for (const bool bidir : {false, true}) {
    PimDump::Options o;
    o.bidir = bidir;
    const PimDump::Decoded d = PimDump::decodePim(m, o);
    (void)d.json.dump();  // every string the JSON holds must serialise
    accepted += d.json["ok"].get<bool>() ? 1u : 0u;
  }
  return accepted;
}
