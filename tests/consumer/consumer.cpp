// A program outside the tree that uses the installed package: it writes a Hello with the
// codec, compares the bytes with a packet composed here by hand (checksum summed here
// too), and reads it back. Exit status 0 only if all three agree.
#include <Pim/PimMessage.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

using Routing::Pim::Packet::HelloMessage;

std::uint16_t onesComplementSum(const std::vector<std::uint8_t>& b) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i + 1 < b.size(); i += 2) sum += (b[i] << 8) | b[i + 1];
  if (b.size() % 2) sum += b.back() << 8;
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<std::uint16_t>(~sum);
}

}  // namespace

int main() {
  std::vector<std::uint8_t> expected = {
      0x20, 0x00, 0x00, 0x00,                          // version 2, Hello; checksum below
      0x00, 0x01, 0x00, 0x02, 0x00, 0x69,              // holdtime 105
      0x00, 0x13, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01,  // DR priority 1
      0x00, 0x14, 0x00, 0x04, 0xde, 0xad, 0xbe, 0xef,  // generation id
  };
  std::uint16_t sum = onesComplementSum(expected);
  expected[2] = static_cast<std::uint8_t>(sum >> 8);
  expected[3] = static_cast<std::uint8_t>(sum);

  auto tx = Kel::Ptr<HelloMessage>::make();
  tx->srcIpIs(Nimo::IpGenAddr("10.0.0.1"));
  tx->dstIpIs(Nimo::IpGenAddr("224.0.0.13"));
  tx->holdTimeOptionIs(true);
  tx->holdTimeIs(105);
  tx->drPriorityOptionIs(true);
  tx->drPriorityIs(1);
  tx->generationIdOptionIs(true);
  tx->generationIdIs(0xdeadbeef);
  auto pkt = Nimo::Pkt::create(1500);
  std::uint32_t n = tx->writeHelloMessage(pkt, 0);
  if (n != expected.size() || std::memcmp(pkt->data(0, n), expected.data(), n) != 0) {
    std::printf("consumer: written Hello differs (%u bytes, expected %zu)\n", n, expected.size());
    return 1;
  }

  auto rx = Kel::Ptr<HelloMessage>::make();
  rx->srcIpIs(tx->srcIp());
  rx->dstIpIs(tx->dstIp());
  pkt->sizeIs(n);
  if (rx->readHelloMessage(pkt, 0) != n || rx->holdTime() != 105 || rx->drPriority() != 1 ||
      rx->generationId() != 0xdeadbeef || !(*rx == *tx)) {
    std::printf("consumer: Hello does not read back\n");
    return 1;
  }
  std::printf("consumer: Hello of %u bytes written, checked and read back\n", n);
  return 0;
}
