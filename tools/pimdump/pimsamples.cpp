// pimsamples DIR: writes the sample captures of samples/ from the library's own writers, so
// that they can be made again byte for byte (a test compares them with the committed ones).
//
//   pim-ipv4.pcap       Ethernet, every message type over IPv4
//   pim-ipv6.pcapng     Ethernet with an 802.1Q tag, every message type over IPv6
//   pim-cooked.pcap     Linux cooked capture (SLL2): plain Hellos and Hellos at the edges
//                       of their fields, both families
//   pim-malformed.pcap  raw IP: messages the readers reject, a truncated frame, a non-PIM
//                       packet, IPv4 and IPv6 fragments, IPv6 extension headers

#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>

#include "Pim/PimMessage.h"
#include "tools/pimdump/Samples.h"

namespace {

using PimDump::Bytes;
using PimDump::CaptureWriter;
using PimDump::LinkType;

// What the readers or pimdump reject, and what pimdump skips before any reader runs.
std::vector<std::pair<Bytes, std::uint32_t>> malformed() {
  std::vector<std::pair<Bytes, std::uint32_t>> out;  // frame, wire length (0: whole)
  auto add = [&](Bytes b, std::uint32_t wire = 0) { out.emplace_back(std::move(b), wire); };
  const std::size_t v4 = Nimo::Ipv4Hdr::kMinSize, v6 = Nimo::Ipv6Hdr::kSize;

  Bytes bad = PimDump::sampleHello(false, false);  // checksum off by one
  bad[v4 + 3] ^= 1;
  add(bad);
  Bytes v3 =
      PimDump::sampleHello(false, false);  // PIM version 3 (the checksum does not matter then)
  v3[v4] = 0x30;
  add(v3);
  for (const int type : {6, 12}) {  // Graft: known, not handled; 12: unknown
    Bytes t = PimDump::sampleHello(true, false);
    t[v6] = static_cast<std::uint8_t>(0x20 | type);
    PimDump::repairPimChecksum(t);
    add(t);
  }
  Bytes cut = PimDump::sampleHello(false, true);  // snap length cut the frame
  add(Bytes(cut.begin(), cut.begin() + 30), static_cast<std::uint32_t>(cut.size()));
  Bytes udp = PimDump::sampleHello(false, false);  // not PIM
  udp[9] = 17;
  add(udp);
  Bytes frag = PimDump::sampleHello(false, true);  // first IPv4 fragment (more fragments follow)
  frag[6] = 0x20;
  add(frag);
  // IPv6: a Hello behind hop-by-hop and destination-options headers is read; a fragment
  // header stops pimdump.
  for (const std::uint8_t ext : {std::uint8_t{0}, std::uint8_t{44}}) {
    Bytes h = PimDump::sampleHello(true, false);
    Bytes e = {103, 0, 0, 0, 0, 0, 0, 0};
    if (ext == 44) e[3] = 1;  // offset 0, more fragments
    h.insert(h.begin() + static_cast<std::ptrdiff_t>(v6), e.begin(), e.end());
    h[6] = ext;
    Nimo::store16(h.data() + 4, static_cast<std::uint16_t>(h.size() - v6));
    add(h);
  }
  return out;
}

void writeAll(const std::filesystem::path& dir) {
  {
    CaptureWriter w((dir / "pim-ipv4.pcap").string(), CaptureWriter::Format::Pcap,
                    LinkType::Ethernet);
    for (const Bytes& ip : PimDump::sampleMessages(false))
      w.add(PimDump::linkFrame(LinkType::Ethernet, ip));
  }
  {
    CaptureWriter w((dir / "pim-ipv6.pcapng").string(), CaptureWriter::Format::Pcapng,
                    LinkType::Ethernet);
    const std::uint16_t vlan[] = {100};
    for (const Bytes& ip : PimDump::sampleMessages(true))
      w.add(PimDump::linkFrame(LinkType::Ethernet, ip, vlan));
  }
  {
    CaptureWriter w((dir / "pim-cooked.pcap").string(), CaptureWriter::Format::Pcap,
                    LinkType::LinuxSll2);
    for (const bool v6 : {false, true}) {
      w.add(PimDump::linkFrame(LinkType::LinuxSll2, PimDump::sampleHello(v6, false)));
      w.add(PimDump::linkFrame(LinkType::LinuxSll2, PimDump::sampleHelloExtremes(v6)));
    }
  }
  {
    CaptureWriter w((dir / "pim-malformed.pcap").string(), CaptureWriter::Format::Pcap,
                    LinkType::RawIp);
    for (const auto& [frame, wire] : malformed()) w.add(frame, wire);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: pimsamples DIR\n";
    return 2;
  }
  try {
    std::filesystem::create_directories(argv[1]);
    writeAll(argv[1]);
  } catch (const std::exception& e) {
    std::cerr << "pimsamples: " << e.what() << '\n';
    return 1;
  }
  return 0;
}
