// Writing captures of PIM traffic: IP packets around messages the codec wrote, link-layer
// frames around IP packets, and pcap or pcapng files of those frames. Used to make the
// sample captures, by the tests and by the benchmark; pimdump itself only reads.
//
// Usage:
//   auto ip = PimDump::ipPacket(src, dst, pimBytes);             // IPv4 or IPv6 by src
//   PimDump::CaptureWriter w("x.pcapng", PimDump::CaptureWriter::Format::Pcapng,
//                            PimDump::LinkType::Ethernet);
//   w.add(PimDump::ethernetFrame(ip));
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

#include "Pim/platform/Nimo.h"
#include "tools/pimdump/PimDump.h"

namespace PimDump {

using Bytes = std::vector<std::uint8_t>;

// An IPv4 (20-byte header) or IPv6 (40-byte header) packet of protocol 103 around payload;
// the family is src's. TTL / hop limit 1 for link-local destinations, else 64.
Bytes ipPacket(const Nimo::IpGenAddr& src, const Nimo::IpGenAddr& dst,
               std::span<const std::uint8_t> payload);

// Recomputes the PIM checksum of an IP packet made by ipPacket over its whole PIM message
// (a Register's checksum covers only its first 8 bytes: not for those).
void repairPimChecksum(Bytes& ip);

// The frame for link around ip. Ethernet frames carry the given 802.1Q VLAN ids (outermost
// first) and the multicast MAC of a multicast destination.
Bytes linkFrame(LinkType link, std::span<const std::uint8_t> ip,
                std::span<const std::uint16_t> vlans = {});

class CaptureWriter {
 public:
  enum class Format : std::uint8_t { Pcap, Pcapng };
  // Throws std::runtime_error when the file cannot be created.
  CaptureWriter(const std::string& path, Format format, LinkType link);
  ~CaptureWriter();
  CaptureWriter(const CaptureWriter&) = delete;
  CaptureWriter& operator=(const CaptureWriter&) = delete;

  // One frame; wireLength above frame.size() records a frame cut short by the snap length.
  void add(std::span<const std::uint8_t> frame, std::uint32_t wireLength = 0);

 private:
  void put(const void* p, std::size_t n);
  std::FILE* file_;
  Format format_;
  std::uint32_t frames_ = 0;
};

}  // namespace PimDump
