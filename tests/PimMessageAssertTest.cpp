// Assert reader, writer, metric preference values and print form.

#include "Pim/PimMessage.h"
#include "tests/PimCodecTestUtil.h"

namespace {

using namespace PimTest;
using namespace Routing::Pim::Packet;
using ::testing::ElementsAre;
using Pref = AssertMessage::AssertMetricPreference;

Kel::Ptr<AssertMessage> assertObject(const Family& f, std::uint8_t groupMask) {
  auto m = groupSource<AssertMessage>(f, groupMask);
  m->rptIs(!f.v6);
  m->metricPreferenceIs(Pref(f.v6 ? 120 : 110));
  m->metricIs(f.v6 ? 256 : 10);
  return m;
}

class AssertTest : public CodecTest {};

TEST_F(AssertTest, GoldenAndHostPrefixOnTheWire) {
  for (const Family* f : {&kV4, &kV6}) {
    // R and preference 110, metric 10 (IPv6: no R, preference 120, metric 256).
    const Bytes g = withChecksum(hex("25 00 0000" + groupSourceHex(*f) +
                                     (f->v6 ? "00000078 00000100" : "8000006e 0000000a")),
                                 f->src, f->dst);
    groupSourceGolden(
        *f, g, [&](std::uint8_t mask) { return assertObject(*f, mask); },
        &AssertMessage::readAssertMessage, &AssertMessage::writeAssertMessage);
  }
  EXPECT_EQ(printed(*assertObject(kV4, 32)),
            "version=2 type=5 (Assert) reserved=0 length=0 src=10.0.0.1 dst=224.0.0.13 | "
            "source=10.0.0.5, "
            "group=239.1.2.3/32, rpt=1, preference=110, metric=10");
}

TEST_F(AssertTest, ReaderAndWriterChecks) {
  const std::string k = "Invalid Pim Assert - ", group = "01 00 00 20 ef010203",
                    source = "01 00 0a000005";
  const auto read = [&](const std::string& body) {
    return rejected(&AssertMessage::readAssertMessage, hex("25000000" + body));
  };
  // clang-format off
  EXPECT_THAT(read("01 00 00 18 ef010101" + source + "00000001 00000001"), ElementsAre(k + "Group Address - Invalid Prefix - 239.1.1.1/24"));
  EXPECT_THAT(read("02 00 00 80 ff3e0000 00000000 00000000 00001234" + source + "00000001 00000001"), ElementsAre(k + "Group Address - Invalid Family - Family: 1 Group Address: ff3e::1234"));
  EXPECT_THAT(read("01 01 00 20 ef010203"), ElementsAre("Invalid Encoded Group Address - Invalid Encoding - Value: \x01", k + "Group Address - Parse Error"));
  EXPECT_THAT(read(group + "01 00 ef000001 00000001 00000001"), ElementsAre("Invalid Encoded Unicast Address - Not Unicast - Address: 239.0.0.1", k + "Source Address - Invalid Address - 239.0.0.1"));
  EXPECT_THAT(read(group + "02 00 20010db8 00000000 00000000 00000005 00000001 00000001"), ElementsAre(k + "Source Address - Invalid Family - Family: 1 Source Address: 2001:db8::5"));
  EXPECT_THAT(read(group + source + "000000"), ElementsAre(k + "Metric Preference Length - Remaining: 3 Expected: 4"));
  EXPECT_THAT(read(group + source + "00000001 000000"), ElementsAre(k + "Metric Length - Remaining: 3 Expected: 4"));
  EXPECT_THAT(read(group + source + "00000001 00000001 00000000"), ElementsAre(k + "End of Message - Remaining: 4"));
  // clang-format on
  auto m = assertObject(kV4, 32);
  const auto write = [&](std::uint32_t room) {
    return refused(*m, &AssertMessage::writeAssertMessage, room);
  };
  EXPECT_THAT(write(3), ElementsAre(k + "Header - Unavailable Space - Remaining: 3"));
  EXPECT_THAT(write(25), ElementsAre(k + "Metric - Unavailable Space - Remaining: 7"));
  m->groupIs(EncodedGroupAddress(GroupAddress(Nimo::IpGenPrefix("10.0.0.1/32"), 0)));
  EXPECT_THAT(write(100),
              ElementsAre("Invalid Encoded Group Address - Not Multicast - Address: 10.0.0.1",
                          k + "Group Address - Write Error"));
  m->sourceIs(EncodedUnicastAddress(Nimo::IpGenAddr("::5")));
  EXPECT_THAT(write(100), ElementsAre(k + "Invalid Family - Family: 1 Source Address: ::5"));
  m->groupIs(EncodedGroupAddress(GroupAddress(Nimo::IpGenPrefix("ff3e::1/128"), 0)));
  EXPECT_THAT(write(100), ElementsAre(k + "Invalid Family - Family: 1 Group Address: ff3e::1"));
}

// A (*,G) Assert: the RP in the source field, R set, the largest preference and metric.
TEST_F(AssertTest, WildcardWithLargestValuesReadsAndWritesBack) {
  const Bytes msg = withChecksum(
      hex("25 00 0000  01 00 00 20 ef010203  01 00 0a000063  ffffffff ffffffff"), kV4Src, kV4Dst);
  auto rx = message<AssertMessage>(kV4);
  ASSERT_EQ(rx->readAssertMessage(pkt(msg), 0), msg.size());
  EXPECT_TRUE(rx->rpt());
  EXPECT_EQ(rx->metricPreference().value(), Pref::max);
  EXPECT_EQ(rx->metric(), 0xffffffffu);
  EXPECT_EQ(written(*rx, &AssertMessage::writeAssertMessage), msg);
}

TEST(AssertRoundTrip, GeneratedAsserts) {
  for (const Family* f : {&kV4, &kV6}) {
    for (std::uint32_t seed = 0; seed < 200; ++seed) {
      auto tx = assertObject(*f, f->v6 ? 128 : 32);
      tx->implMetricPreferenceU32Is(seed * 0x9e3779b9u);
      tx->metricIs(~seed * 0x85ebca6bu);
      tx->sourceIs(EncodedUnicastAddress(f->v6
                                             ? Nimo::IpGenAddr(fmt::format("2001:db8::{:x}", seed))
                                             : Nimo::IpGenAddr::v4(0x0a000000 + seed)));
      roundTrip(*f, *tx, &AssertMessage::readAssertMessage, &AssertMessage::writeAssertMessage,
                std::to_string(seed));
    }
  }
}

TEST(AssertMetricPreference, RangeAndRBit) {
  auto m = Kel::Ptr<AssertMessage>::make();
  m->rptIs(true);
  m->metricPreferenceIs(Pref(2147483647));
  EXPECT_EQ(m->implMetricPreferenceU32(), 0xffffffffu);  // R kept
  m->metricPreferenceIs(Pref(5));
  EXPECT_EQ(m->implMetricPreference(), AssertMessage::AssertImplMetricPreference(0x80, 0, 0, 5));
  m->rptIs(false);
  EXPECT_EQ(m->metricPreference().value(), 5u);
  expectRangeError([] { Pref(2147483648u); },
                   "AssertMetricPreference::value < AssertMetricPreference::min or > "
                   "AssertMetricPreference::max not allowed");
  expectTextForm(
      Pref(7),
      "Value('Routing::Pim::Packet::AssertMessage::AssertMetricPreference', ** {'value': 7})");
  expectNoParse<Pref>(
      "Value('Routing::Pim::Packet::AssertMessage::AssertMetricPreference', ** "
      "{'value': 2147483648})");
  EXPECT_EQ(Kel::valueToStrep(m->implMetricPreference()),
            "Value('Routing::Pim::Packet::AssertMessage::AssertImplMetricPreference', ** {'v0': 0, "
            "'v1': 0, 'v2': 0, 'v3': 5})");
}

}  // namespace
