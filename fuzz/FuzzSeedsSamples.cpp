// Seeds taken from the sample captures' messages (tools/pimdump/Samples.h): each reader
// target gets the samples of its message type, readHeader all of them, and pimdumpFrame
// every sample IP packet whole.
#include <map>

#include "fuzz/FuzzInput.h"
#include "tools/pimdump/Samples.h"

namespace PimFuzz {

std::vector<std::vector<std::uint8_t>> sampleSeeds(std::string_view target) {
  static const std::map<unsigned, std::string_view> kReaderOfType = {
      {0, "readHelloMessage"},     {1, "readRegisterMessage"},   {2, "readRegisterStopMessage"},
      {3, "readJoinPruneMessage"}, {4, "readBootstrapMessage"},  {5, "readAssertMessage"},
      {8, "readCrpAdvMessage"},    {10, "readDfElectionMessage"}};
  std::vector<std::vector<std::uint8_t>> out;
  for (const bool v6 : {false, true}) {
    for (const auto& ip : PimDump::sampleMessages(v6)) {
      if (target == "pimdumpFrame") {
        out.push_back(ip);
        continue;
      }
      if (target == "processPkt") {
        // The family's socket, the PIM interface.
        out.push_back(ip);
        out.back().insert(out.back().begin(), v6 ? 1 : 0);
        continue;
      }
      const std::size_t at = v6 ? Nimo::Ipv6Hdr::kSize : Nimo::Ipv4Hdr::kMinSize;
      const auto reader = kReaderOfType.find(ip[at] & 0x0fu);
      if (target == "readHeader" || (reader != kReaderOfType.end() && reader->second == target)) {
        // The fuzz context's addresses are not the sample's: decode() redoes the checksum.
        out.push_back(
            encode(v6 ? Family::Ipv6 : Family::Ipv4, 0, true,
                   std::vector<std::uint8_t>(ip.begin() + static_cast<long>(at), ip.end())));
      }
    }
  }
  return out;
}

}  // namespace PimFuzz
