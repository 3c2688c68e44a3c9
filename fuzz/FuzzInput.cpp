// Fuzz harness support: input decoding, seeds. See FuzzInput.h.
#include "fuzz/FuzzInput.h"

#include <array>
#include <cstdio>
#include <cstdlib>

#include "Pim/PimMessage.h"
#include "Pim/platform/Flicklog.h"

namespace PimFuzz {
namespace {

using Routing::Pim::Packet::EncodedGroupAddress;
using Routing::Pim::Packet::EncodedSourceAddress;
using Routing::Pim::Packet::EncodedUnicastAddress;
using Routing::Pim::Packet::GroupAddress;
using Routing::Pim::Packet::HelloMessage;
using Routing::Pim::Packet::SourceAddress;

constexpr std::size_t kMaxPacket = 65535;

class DiscardSink final : public Flicklog::Sink {
 public:
  void write(const Flicklog::Facility&, int, std::string_view text) override {
    bytes_ += text.size();  // keep the formatted text observable, not optimised away
  }
  std::size_t bytes_ = 0;
};

Nimo::IpGenAddr addr(const char* text) { return Nimo::IpGenAddr(text); }

void contextIs(HelloMessage& m, Family f) {
  if (f == Family::Ipv4) {
    m.srcIpIs(addr("10.0.0.1"));
    m.dstIpIs(addr("224.0.0.13"));
  } else {
    m.srcIpIs(addr("fe80::1"));
    m.dstIpIs(addr("ff02::d"));
  }
}

// A Hello written by the codec: the seeds then track the writer's layout.
std::vector<std::uint8_t> writtenHello(Family f, bool everyOption) {
  auto m = Kel::Ptr<HelloMessage>::make();
  contextIs(*m, f);
  m->holdTimeOptionIs(true);
  m->holdTimeIs(105);
  if (everyOption) {
    bool v4 = f == Family::Ipv4;
    m->lanPruneDelayOptionIs(true);
    m->tBitIs(true);
    m->propagationDelayIs(HelloMessage::HelloPropagationDelay(500));
    m->overrideIntervalIs(2500);
    m->drPriorityOptionIs(true);
    m->drPriorityIs(7);
    m->generationIdOptionIs(true);
    m->generationIdIs(0x1234abcd);
    m->bidirectionalCapableIs(true);
    for (const char* a : {"10.1.1.1", "10.1.2.1", "2001:db8::1", "2001:db8::2"}) {
      Nimo::IpGenAddr ip = addr(a);
      if ((ip.af() == Nimo::AddressFamily::ipv4) == v4) m->secondaryAddrIs(ip, true);
    }
    m->tcpConnectionOptionIs(true);
    m->tcpConnectionIdIs(addr(v4 ? "10.0.0.1" : "2001:db8::10"));
    m->sctpConnectionOptionIs(true);
    m->sctpConnectionIdIs(addr(v4 ? "10.0.0.2" : "2001:db8::11"));
    m->interfaceIdOptionIs(true);
    m->routerIdIs(0x0a000001);
    m->interfaceIdIs(3);
  }
  auto pkt = Nimo::Pkt::create(1500);
  std::uint32_t n = m->writeHelloMessage(pkt, 0);
  check(n != 0, "seed Hello does not write");
  const std::uint8_t* p = pkt->data(0, n);
  return std::vector<std::uint8_t>(p, p + n);
}

// A Join/Prune written by the codec: three groups, every kind of entry; bidir marks the
// groups bidirectional (the filtered seeds), and one group lies in the fuzz boundary.
std::vector<std::uint8_t> writtenJoinPrune(Family f, bool bidir) {
  const bool v4 = f == Family::Ipv4;
  auto data = Kel::Ptr<Routing::Pim::JoinPruneData>::make();
  data->upstreamNeighborIs(addr(v4 ? "10.0.0.2" : "fe80::2"));
  data->holdTimeIs(210);
  const char* groups[] = {"239.1.1.1", "239.200.1.1",  "232.1.1.1",
                          "ff3e::1:1", "ff3e::8000:1", "ff3e::2:1"};
  for (int g = 0; g < 3; ++g) {
    auto& gd =
        data->joinPruneGroupDataIs(Nimo::IpGenPrefix(addr(groups[v4 ? g : g + 3]), v4 ? 32 : 128));
    gd.groupFlagsIs(bidir ? 0x80 : 0);
    for (int i = 1; i <= 3; ++i) {
      gd.joinedSourceIs(addr(
          (v4 ? fmt::format("10.{}.0.{}", g, i) : fmt::format("2001:db8:{}::{}", g, i)).c_str()));
      gd.prunedRptSourceIs(addr(
          (v4 ? fmt::format("10.{}.1.{}", g, i) : fmt::format("2001:db8:{}::1:{}", g, i)).c_str()));
    }
    gd.wcSourceDataIs(Routing::Pim::WcSourceData(addr(v4 ? "10.9.9.9" : "2001:db8::99"), g != 1));
  }
  Routing::Pim::Packet::JoinPruneMessage m;
  m.srcIpIs(addr(v4 ? "10.0.0.1" : "fe80::1"));
  m.dstIpIs(addr(v4 ? "224.0.0.13" : "ff02::d"));
  m.bidirIs(bidir);
  m.joinPruneDataIs(data);
  auto pkt = Nimo::Pkt::create(1500);
  std::uint32_t n = m.writeJoinPruneMessage(pkt, 0, nullptr);
  check(n != 0, "seed Join/Prune does not write");
  const std::uint8_t* p = pkt->data(0, n);
  return std::vector<std::uint8_t>(p, p + n);
}

template <typename Encoded, typename Write>
std::vector<std::uint8_t> written(const Encoded& e, Write write) {
  auto pkt = Nimo::Pkt::create(64);
  Encoded copy = e;
  std::uint32_t n = (copy.*write)(pkt, 0);
  check(n != 0, "seed address does not write");
  const std::uint8_t* p = pkt->data(0, n);
  return std::vector<std::uint8_t>(p, p + n);
}

}  // namespace

void traceIs(bool on) {
  static DiscardSink sink;
  static bool installed = false;
  if (on && !installed) {
    Flicklog::sinkIs(&sink);
    installed = true;
  }
  Flicklog::allLevelsIs(on ? 9 : 0);
}

std::optional<Input> decode(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size - 1 > kMaxPacket) return std::nullopt;
  std::uint8_t context = data[0];
  Input in;
  in.pkt = Nimo::Pkt::copyOf(data + 1, static_cast<std::uint32_t>(size - 1));
  in.offset = (context >> 2) & 7u;
  switch (context & 3u) {
    case 0:
      in.srcIp = addr("10.0.0.1");
      in.dstIp = addr("224.0.0.13");
      break;
    case 1:
      in.srcIp = addr("fe80::1");
      in.dstIp = addr("ff02::d");
      break;
    default:
      break;
  }
  std::uint32_t total = in.pkt->size();
  if ((context & 0x20) && total >= in.offset + 4 && in.srcIp.isSet()) {
    std::uint32_t len = total - in.offset;
    std::uint8_t* p = in.pkt->writableData(in.offset, len);
    Nimo::store16(p + 2, 0);
    std::uint16_t sum =
        in.srcIp.af() == Nimo::AddressFamily::ipv4
            ? Nimo::inetChecksum(p, len)
            : Nimo::inetChecksumV6(in.srcIp, in.dstIp, len, Nimo::kIpProtoPim, p, len);
    Nimo::store16(p + 2, sum);
  }
  traceIs((context & 0x40) != 0);
  return in;
}

std::vector<std::uint8_t> encode(Family family, std::uint8_t offset, bool repairChecksum,
                                 const std::vector<std::uint8_t>& message) {
  auto context = static_cast<std::uint8_t>(static_cast<unsigned>(family) | (offset & 7u) << 2 |
                                           (repairChecksum ? 0x20u : 0u));
  std::vector<std::uint8_t> out{context};
  out.insert(out.end(), offset & 7u, 0xee);
  out.insert(out.end(), message.begin(), message.end());
  return out;
}

void check(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "fuzz property failed: %s\n", what);
  std::abort();
}

std::vector<std::vector<std::uint8_t>> seeds(std::string_view target) {
  std::vector<std::vector<std::uint8_t>> out;
  if (target == "readHeader" || target == "readHelloMessage") {
    for (Family f : {Family::Ipv4, Family::Ipv6}) {
      out.push_back(encode(f, 0, false, writtenHello(f, true)));
      out.push_back(encode(f, 3, false, writtenHello(f, false)));
      // Header only, and an option of a type nobody knows (65001, 6 bytes): the
      // checksum is left for decode() to repair.
      out.push_back(encode(f, 0, true, {0x20, 0x00, 0x00, 0x00}));
      out.push_back(encode(f, 1, true, {0x20, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x02, 0x00, 0x69,
                                        0xfd, 0xe9, 0x00, 0x06, 1,    2,    3,    4,    5,    6}));
    }
  }
  if (target == "readHeader") {
    // A Register: 8-byte header checksum, an inner IPv4 packet after it.
    for (Family f : {Family::Ipv4, Family::Ipv6}) {
      out.push_back(encode(f, 0, true, {0x21, 0x00, 0x00, 0x00, 0x40, 0x00, 0x00, 0x00, 0x45, 0x00,
                                        0x00, 0x14, 0x00, 0x00, 0x00, 0x00, 0x40, 0x11, 0x00, 0x00,
                                        10,   0,    0,    1,    239,  1,    1,    1}));
    }
  }
  if (target == "readUnicastAddress") {
    for (const char* a : {"10.1.2.3", "2001:db8::1"}) {
      EncodedUnicastAddress e(addr(a));
      out.push_back(
          encode(Family::Ipv4, 0, false, written(e, &EncodedUnicastAddress::writeUnicastAddress)));
    }
  }
  if (target == "readGroupAddress") {
    for (auto [a, len, flags] :
         {std::tuple{"239.1.2.3", 32, 0x00}, {"224.0.0.0", 4, 0x80}, {"ff3e::8000:1", 128, 0x01}}) {
      EncodedGroupAddress e(GroupAddress(Nimo::IpGenPrefix(addr(a), static_cast<std::uint8_t>(len)),
                                         static_cast<std::uint8_t>(flags)));
      out.push_back(
          encode(Family::Ipv4, 0, false, written(e, &EncodedGroupAddress::writeGroupAddress)));
    }
  }
  if (target == "readSourceAddress") {
    for (auto [a, len, flags] :
         {std::tuple{"10.0.0.1", 32, 0x04}, {"10.0.0.0", 8, 0x07}, {"2001:db8::5", 128, 0x06}}) {
      EncodedSourceAddress e(
          SourceAddress(Nimo::IpGenPrefix(addr(a), static_cast<std::uint8_t>(len)),
                        static_cast<std::uint8_t>(flags)));
      out.push_back(
          encode(Family::Ipv4, 0, false, written(e, &EncodedSourceAddress::writeSourceAddress)));
    }
  }
  if (target == "readJoinPruneMessage") {
    for (Family f : {Family::Ipv4, Family::Ipv6}) {
      out.push_back(encode(f, 0, false, writtenJoinPrune(f, false)));
      out.push_back(encode(f, 5, false, writtenJoinPrune(f, true)));
      out.back()[0] |= 0x80;  // with the boundary and bidirectional filters
    }
  }
  if (target == "readPortFrame") {
    // A PORT Join/Prune per family (the IPv4 checksum has no pseudo-header, so it decodes),
    // one with an unknown option after its Join/Prune, a keep-alive and an unknown type.
    const auto be16 = [](std::size_t v) {
      return std::array<std::uint8_t, 2>{static_cast<std::uint8_t>(v >> 8),
                                         static_cast<std::uint8_t>(v)};
    };
    for (Family f : {Family::Ipv4, Family::Ipv6}) {
      auto jp = writtenJoinPrune(f, false);
      const auto n = be16(jp.size()), total = be16(jp.size() + 16);
      jp.insert(
          jp.begin(),
          {0,    1,   total[0], total[1], 0, 0,
           0,    0,   1,        1,        1, 1,
           0,    0,   0,        7,        0, f == Family::Ipv4 ? std::uint8_t{1} : std::uint8_t{2},
           n[0], n[1]});
      out.push_back(encode(f, 0, false, jp));
    }
    auto extra = out.back();  // after the context byte, Message Length at 3 and 4
    extra.insert(extra.end(), {0, 9, 0, 2, 0xab, 0xcd});
    const auto longer = be16(static_cast<std::size_t>(extra[3] << 8 | extra[4]) + 6);
    extra[3] = longer[0];
    extra[4] = longer[1];
    out.push_back(extra);
    out.push_back(encode(Family::Ipv4, 2, false, {0, 2, 0, 0, 0, 7, 0, 2, 0, 0}));
  }
  for (auto& seed : sampleSeeds(target)) out.push_back(std::move(seed));
  return out;
}

}  // namespace PimFuzz
