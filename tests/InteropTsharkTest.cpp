// Interop: Hellos written by our codec, decoded by Wireshark's dissector (tshark) as an
// independent peer. The packets go into a pcap file of raw IP packets (LINKTYPE_RAW) with
// IPv4/IPv6 headers built by Nimo; tshark must find the PIM checksum good and read back
// every option value we wrote. A packet with one flipped checksum bit shows that tshark
// really verifies it. Skips when tshark is not installed.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "Pim/PimMessage.h"

namespace {

using Nimo::IpGenAddr;
using Routing::Pim::Packet::HelloMessage;

// Option 31 carries the router id then the interface id; tshark shows it as raw bytes.
const char* const kFields[] = {
    "pim.cksum.status",      "pim.optiontype",        "pim.holdtime",    "pim.t",
    "pim.propagation_delay", "pim.override_interval", "pim.dr_priority", "pim.generation_id",
    "pim.address_list",      "pim.address_list_ip6",  "pim.optionvalue"};

struct Case {
  const char* name;
  IpGenAddr src, dst;
  std::function<void(HelloMessage&)> fill;
  bool corruptChecksum;
  const char* expected;  // tshark's line: kFields joined by '|', repeats joined by ','
};

Kel::Ptr<HelloMessage> everyOption(const IpGenAddr& src, const IpGenAddr& dst) {
  auto h = Kel::Ptr<HelloMessage>::make();
  h->srcIpIs(src);
  h->dstIpIs(dst);
  h->holdTimeOptionIs(true);
  h->holdTimeIs(105);
  h->lanPruneDelayOptionIs(true);
  h->tBitIs(true);
  h->propagationDelayIs(HelloMessage::HelloPropagationDelay(32767));
  h->overrideIntervalIs(2500);
  h->drPriorityOptionIs(true);
  h->drPriorityIs(0xfffffffe);
  h->generationIdOptionIs(true);
  h->generationIdIs(0xdeadbeef);
  h->bidirectionalCapableIs(true);
  h->interfaceIdOptionIs(true);
  h->routerIdIs(0x0a000001);
  h->interfaceIdIs(0x0102002a);
  return h;
}

// One raw IP packet: the Hello written at the front of a Pkt, then the IP header
// prepended into its head room.
std::vector<std::uint8_t> ipPacket(HelloMessage& h, bool corruptChecksum) {
  auto pkt = Nimo::Pkt::create(1400);
  const std::uint32_t n = h.writeHelloMessage(pkt, 0);
  if (n == 0 || !pkt->sizeIs(n)) return {};
  if (corruptChecksum) pkt->writableData(3, 1)[0] ^= 0x01;
  const bool v4 = h.srcIp().af() == Nimo::AddressFamily::ipv4;
  const std::uint32_t ipLen = v4 ? Nimo::Ipv4Hdr::kMinSize : Nimo::Ipv6Hdr::kSize;
  if (!pkt->prepend(ipLen)) return {};
  if (v4) {
    Nimo::Ipv4Hdr(pkt->writableData(0, ipLen))
        .build(0xc0, static_cast<std::uint16_t>(ipLen + n), 1, Nimo::kIpProtoPim, h.srcIp(),
               h.dstIp());
  } else {
    Nimo::Ipv6Hdr(pkt->writableData(0, ipLen))
        .build(0xc0, static_cast<std::uint16_t>(n), Nimo::kIpProtoPim, 1, h.srcIp(), h.dstIp());
  }
  const std::uint8_t* d = pkt->data(0, pkt->size());
  return {d, d + pkt->size()};
}

// A classic pcap file in host byte order (readers detect it from the magic number).
void writePcap(const std::string& path, const std::vector<std::vector<std::uint8_t>>& packets) {
  std::ofstream out(path, std::ios::binary);
  auto put32 = [&out](std::uint32_t v) { out.write(reinterpret_cast<const char*>(&v), 4); };
  auto put16 = [&out](std::uint16_t v) { out.write(reinterpret_cast<const char*>(&v), 2); };
  put32(0xa1b2c3d4);
  put16(2);
  put16(4);
  put32(0);  // time zone
  put32(0);  // accuracy
  put32(65535);
  put32(101);  // LINKTYPE_RAW
  std::uint32_t second = 0;
  for (const auto& p : packets) {
    put32(++second);
    put32(0);
    put32(static_cast<std::uint32_t>(p.size()));
    put32(static_cast<std::uint32_t>(p.size()));
    out.write(reinterpret_cast<const char*>(p.data()), static_cast<std::streamsize>(p.size()));
  }
}

std::vector<std::string> runLines(const std::string& command) {
  std::vector<std::string> lines;
  FILE* f = popen(command.c_str(), "r");
  if (!f) return lines;
  char buf[4096];
  while (std::fgets(buf, sizeof buf, f)) {
    std::string l(buf);
    while (!l.empty() && (l.back() == '\n' || l.back() == '\r')) l.pop_back();
    lines.push_back(l);
  }
  pclose(f);
  return lines;
}

struct TempDir {
  std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("pim-interop-tshark-" + std::to_string(getpid()));
  TempDir() { std::filesystem::create_directories(path); }
  ~TempDir() { std::filesystem::remove_all(path); }
};

TEST(InteropTshark, HelloOptionsAndChecksumDecodeAsWritten) {
  if (std::system("command -v tshark >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "tshark is not installed";
  }
  const IpGenAddr v4Src("10.0.0.1"), v4Dst("224.0.0.13");
  const IpGenAddr v6Src("fe80::1"), v6Dst("ff02::d");
  const Case cases[] = {
      {"IPv4, every option", v4Src, v4Dst,
       [](HelloMessage& h) {
         h.secondaryAddrIs(IpGenAddr("10.0.0.2"), true);
         h.secondaryAddrIs(IpGenAddr("192.168.255.254"), true);
       },
       false,
       "1|1,2,19,20,22,24,31|105|1|32767|2500|4294967294|3735928559|10.0.0.2,192.168.255.254||"
       "0a0000010102002a"},
      {"IPv6, every option with secondary addresses", v6Src, v6Dst,
       [](HelloMessage& h) {
         h.secondaryAddrIs(IpGenAddr("2001:db8::1"), true);
         h.secondaryAddrIs(IpGenAddr("2001:db8:ffff::fffe"), true);
       },
       false,
       "1|1,2,19,20,22,24,31|105|1|32767|2500|4294967294|3735928559||2001:db8::1,2001:db8:ffff::"
       "fffe|0a0000010102002a"},
      {"IPv4, T bit clear, holdtime only besides", v4Src, v4Dst,
       [](HelloMessage& h) {
         h.tBitIs(false);
         h.propagationDelayIs(HelloMessage::HelloPropagationDelay(1));
         h.overrideIntervalIs(0);
         h.drPriorityOptionIs(false);
         h.generationIdOptionIs(false);
         h.bidirectionalCapableIs(false);
         h.interfaceIdOptionIs(false);
       },
       false, "1|1,2|105|0|1|0|||||"},
      {"IPv6, one checksum bit flipped", v6Src, v6Dst, [](HelloMessage&) {}, true,
       "0|1,2,19,20,22,31|105|1|32767|2500|4294967294|3735928559|||0a0000010102002a"},
  };

  std::vector<std::vector<std::uint8_t>> packets;
  for (const auto& c : cases) {
    auto h = everyOption(c.src, c.dst);
    c.fill(*h);
    packets.push_back(ipPacket(*h, c.corruptChecksum));
    ASSERT_FALSE(packets.back().empty()) << c.name;
  }
  TempDir dir;
  const std::string pcap = (dir.path / "hellos.pcap").string();
  const std::string errors = (dir.path / "tshark.err").string();
  writePcap(pcap, packets);

  std::string command =
      "tshark -n -r '" + pcap + "' -T fields -E separator='|' -E occurrence=a" + " -E aggregator=,";
  for (const char* f : kFields) command += std::string(" -e ") + f;
  command += " 2>'" + errors + "'";
  const auto lines = runLines(command);
  std::ifstream err(errors);
  const std::string stderrText((std::istreambuf_iterator<char>(err)), {});
  ASSERT_EQ(lines.size(), std::size(cases)) << command << "\n" << stderrText;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i], cases[i].expected) << cases[i].name;
  }
}

}  // namespace

namespace {

// Join/Prunes written by our codec, one per family: two groups, every kind of entry.
TEST(InteropTshark, JoinPruneDecodesAsWritten) {
  if (std::system("command -v tshark >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "tshark is not installed";
  }
  std::vector<std::vector<std::uint8_t>> packets;
  for (bool v6 : {false, true}) {
    auto a = [v6](const char* v4, const char* v6Text) { return IpGenAddr(v6 ? v6Text : v4); };
    auto data = Kel::Ptr<Routing::Pim::JoinPruneData>::make();
    data->upstreamNeighborIs(a("10.0.0.2", "fe80::2"));
    data->holdTimeIs(210);
    const auto width = static_cast<std::uint8_t>(v6 ? 128 : 32);
    auto& g1 = data->joinPruneGroupDataIs(Nimo::IpGenPrefix(a("239.1.1.1", "ff3e::1"), width));
    g1.joinedSourceIs(a("10.1.1.1", "2001:db8::1"));
    g1.wcSourceDataIs(Routing::Pim::WcSourceData(a("10.9.9.9", "2001:db8::99"), true));
    g1.prunedRptSourceIs(a("10.2.2.2", "2001:db8::2"));
    auto& g2 = data->joinPruneGroupDataIs(Nimo::IpGenPrefix(a("232.1.1.1", "ff3e::2"), width));
    g2.joinedRptSourceIs(a("10.3.3.3", "2001:db8::3"));
    g2.prunedSourceIs(a("10.4.4.4", "2001:db8::4"));
    Routing::Pim::Packet::JoinPruneMessage m;
    m.srcIpIs(a("10.0.0.1", "fe80::1"));
    m.dstIpIs(a("224.0.0.13", "ff02::d"));
    m.joinPruneDataIs(data);
    auto pkt = Nimo::Pkt::create(1500);
    const std::uint32_t n = m.writeJoinPruneMessage(pkt, 0, nullptr);  // trims pkt to n
    const std::uint32_t ipLen = v6 ? Nimo::Ipv6Hdr::kSize : Nimo::Ipv4Hdr::kMinSize;
    ASSERT_TRUE(n != 0 && pkt->prepend(ipLen));
    if (v6) {
      Nimo::Ipv6Hdr(pkt->writableData(0, ipLen))
          .build(0xc0, static_cast<std::uint16_t>(n), Nimo::kIpProtoPim, 1, m.srcIp(), m.dstIp());
    } else {
      Nimo::Ipv4Hdr(pkt->writableData(0, ipLen))
          .build(0xc0, static_cast<std::uint16_t>(ipLen + n), 1, Nimo::kIpProtoPim, m.srcIp(),
                 m.dstIp());
    }
    packets.emplace_back(pkt->data(0), pkt->data(0) + pkt->size());
  }
  TempDir dir;
  const std::string pcap = (dir.path / "joinprunes.pcap").string();
  writePcap(pcap, packets);
  std::string command =
      "tshark -n -r '" + pcap + "' -T fields -E separator='|' -E occurrence=a -E aggregator=,";
  for (const char* f :
       {"pim.cksum.status", "pim.upstream_neighbor", "pim.upstream_neighbor_ip6", "pim.holdtime",
        "pim.numgroups", "pim.group", "pim.group_ip6", "pim.numjoins", "pim.numprunes",
        "pim.join_ip", "pim.join_ip6", "pim.prune_ip", "pim.prune_ip6", "pim.source_addr.flags"}) {
    command += std::string(" -e ") + f;
  }
  const auto lines = runLines(command + " 2>/dev/null");
  ASSERT_EQ(lines.size(), 2u) << command;
  // Groups in address order, each shown twice; flags per source in the order written:
  // (S,G) 0x04, (S,G,rpt) 0x05, (*,G) 0x07.
  EXPECT_EQ(lines[0],
            "1|10.0.0.2||210|2|232.1.1.1,232.1.1.1,239.1.1.1,239.1.1.1||1,2|1,1|"
            "10.3.3.3,10.1.1.1,10.9.9.9||10.4.4.4,10.2.2.2||0x05,0x04,0x04,0x07,0x05");
  EXPECT_EQ(
      lines[1],
      "1||fe80::2|210|2||ff3e::1,ff3e::1,ff3e::2,ff3e::2|2,1|1,1||"
      "2001:db8::1,2001:db8::99,2001:db8::3||2001:db8::2,2001:db8::4|0x04,0x07,0x05,0x05,0x04");
}

}  // namespace
