// pimdump -i on a real interface: in a namespace of its own it decodes the IPv4 and IPv6
// Hellos a peer namespace sends over a veth, then stops by itself after --count messages.

#include <gmock/gmock.h>
#include <netinet/in.h>

#include <filesystem>
#include <fstream>

#include "tests/PimTestUtil.h"
#include "tests/netns/NetnsUtil.h"
#include "tools/pimdump/Samples.h"

namespace {

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}

TEST(PimDumpLive, DecodesWhatAPeerSendsAndStopsAfterCount) {
  if (!PimTest::isRoot()) GTEST_SKIP() << "needs root for namespaces and a live capture";
  PimTest::NetnsPair net("pdl");
  ASSERT_TRUE(net.ok);
  const std::string dir = fmt::format("/tmp/pimdump-live-{}", ::getpid());
  std::filesystem::create_directories(dir);
  const pid_t dump = PimTest::spawn(
      fmt::format("exec ip netns exec {} {} -i {} -c 2 --duration 20 >{}/out 2>{}/err", net.b,
                  PIMDUMP_PATH, net.vethB, dir, dir));
  PimTest::RawSender v4(net.a, AF_INET, net.ifIndexA), v6(net.a, AF_INET6, net.ifIndexA);
  ASSERT_TRUE(v4.ok() && v6.ok());
  const int offset = 2;  // the kernel fills in the IPv6 checksum for the real source
  ASSERT_EQ(::setsockopt(v6.fd(), IPPROTO_IPV6, IPV6_CHECKSUM, &offset, sizeof offset), 0);
  auto pim = [](bool ipv6) {
    const PimDump::Bytes ip = PimDump::sampleHello(ipv6, false);
    return std::vector<std::uint8_t>(ip.begin() + (ipv6 ? 40 : 20), ip.end());
  };
  // Until pimdump has its two messages: it may start capturing after the first sends.
  std::string out;
  PimTest::waitUntil([&] {
    v4.send("224.0.0.13", pim(false));
    v6.send("ff02::d", pim(true));
    out = slurp(dir + "/out");
    return std::count(out.begin(), out.end(), '\n') >= 2;
  });
  const int exit = PimTest::waitChild(dump, 5);
  std::filesystem::remove_all(dir);
  EXPECT_EQ(exit, 0) << "pimdump did not stop after --count 2";
  EXPECT_THAT(
      out, ::testing::HasSubstr(R"("af":4,"src":"10.77.0.1","dst":"224.0.0.13","type":"hello")"));
  EXPECT_THAT(out, ::testing::HasSubstr(R"("dst":"ff02::d","type":"hello")"));
  EXPECT_THAT(out, ::testing::Not(::testing::HasSubstr(R"("ok":false)"))) << out;
}

}  // namespace
