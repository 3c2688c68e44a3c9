// Assert reader, writer, metric preference values and print form.

#include <gmock/gmock.h>

#include "Pim/PimMessage.h"
#include "tests/PimCodecTestUtil.h"

namespace {

using namespace PimTest;
using namespace Routing::Pim::Packet;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Pref = AssertMessage::AssertMetricPreference;

const Bytes kAssert4 =
    hex("25 00 00 00"
        "01 00 00 20 ef 01 02 03"  // group 239.1.2.3/32
        "01 00 0a 00 00 05"        // source 10.0.0.5
        "80 00 00 6e"              // R, preference 110
        "00 00 00 0a");            // metric 10
const Bytes kAssert6 =
    hex("25 00 00 00"
        "02 00 00 80 ff3e 0000 0000 0000 0000 0000 0000 1234"
        "02 00 2001 0db8 0000 0000 0000 0000 0000 0005"
        "00 00 00 78"  // no R, preference 120
        "00 00 01 00");

Kel::Ptr<AssertMessage> assertObject(const Family& f, std::uint8_t groupMask) {
  auto m = message<AssertMessage>(f);
  const Nimo::IpGenAddr g(f.v6 ? "ff3e::1234" : "239.1.2.3");
  m->groupIs(EncodedGroupAddress(GroupAddress(Nimo::IpGenPrefix(g, groupMask), 0)));
  m->sourceIs(EncodedUnicastAddress(Nimo::IpGenAddr(f.v6 ? "2001:db8::5" : "10.0.0.5")));
  m->rptIs(!f.v6);
  m->metricPreferenceIs(Pref(f.v6 ? 120 : 110));
  m->metricIs(f.v6 ? 256 : 10);
  return m;
}

class AssertTest : public TraceTest {};

TEST_F(AssertTest, GoldenBothWaysAndHostPrefixOnTheWire) {
  for (const Family* f : {&kV4, &kV6}) {
    SCOPED_TRACE(f->name());
    clear();
    const Bytes golden = withChecksum(f->v6 ? kAssert6 : kAssert4, f->src, f->dst);
    // A /24 (/64) group in the object still goes out with mask 32 (128).
    auto tx = assertObject(*f, f->v6 ? 64 : 24);
    const Bytes out = written(*tx, &AssertMessage::writeAssertMessage);
    EXPECT_EQ(out, golden) << toHex(out);
    ASSERT_GT(out.size(), 7u);
    EXPECT_EQ(out[7], f->v6 ? 128 : 32);
    auto rx = message<AssertMessage>(*f);
    ASSERT_EQ(readFramed(*rx, &AssertMessage::readAssertMessage, golden), golden.size());
    auto want = assertObject(*f, f->v6 ? 128 : 32);
    want->lengthIs(static_cast<std::uint32_t>(golden.size()));
    EXPECT_EQ(*rx, *want);
    EXPECT_EQ(rx->rpt(), !f->v6);
    EXPECT_THAT(errors(), IsEmpty());
    truncationSweep<AssertMessage>(*f, &AssertMessage::readAssertMessage, golden,
                                   [&](const Bytes& b) { return withChecksum(b, f->src, f->dst); });
  }
  EXPECT_EQ(printed(*assertObject(kV4, 32)),
            "version=2 type=5 (Assert) reserved=0 length=0 src=10.0.0.1 dst=224.0.0.13 | "
            "source=10.0.0.5, group=239.1.2.3/32, rpt=1, preference=110, metric=10");
}

TEST_F(AssertTest, ReaderChecks) {
  const std::string kAssert = "Invalid Pim Assert - ";
  const std::string group = "01 00 00 20 ef010203", source = "01 00 0a000005";
  struct Case {
    std::string body;
    std::vector<std::string> errors;
  };
  const Case cases[] = {
      {"01 00 00 18 ef010101" + source + "00000001 00000001",
       {kAssert + "Group Address - Invalid Prefix - 239.1.1.1/24"}},
      {"02 00 00 80 ff3e0000 00000000 00000000 00001234" + source + "00000001 00000001",
       {kAssert + "Group Address - Invalid Family - Family: 1 Group Address: ff3e::1234"}},
      {"01 01 00 20 ef010203",
       {"Invalid Encoded Group Address - Invalid Encoding - Value: \x01",
        kAssert + "Group Address - Parse Error"}},
      {group + "01 00 ef000001 00000001 00000001",
       {"Invalid Encoded Unicast Address - Not Unicast - Address: 239.0.0.1",
        kAssert + "Source Address - Invalid Address - 239.0.0.1"}},
      {group + "02 00 20010db8 00000000 00000000 00000005 00000001 00000001",
       {kAssert + "Source Address - Invalid Family - Family: 1 Source Address: 2001:db8::5"}},
      {group + source + "000000",
       {kAssert + "Metric Preference Length - Remaining: 3 Expected: 4"}},
      {group + source + "00000001 000000", {kAssert + "Metric Length - Remaining: 3 Expected: 4"}},
      {group + source + "00000001 00000001 00000000", {kAssert + "End of Message - Remaining: 4"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    clear();
    auto rx = message<AssertMessage>(kV4);
    const Bytes msg = withChecksum(hex("25000000" + c.body), kV4Src, kV4Dst);
    EXPECT_EQ(rx->readAssertMessage(pkt(msg), 0), 0u);
    EXPECT_EQ(errors(), c.errors);
  }
}

// A (*,G) Assert: the RP in the source field, R set, the largest preference and metric.
TEST_F(AssertTest, WildcardWithLargestValuesReadsAndWritesBack) {
  const Bytes msg = withChecksum(hex("25 00 00 00  01 00 00 20 ef010203  01 00 0a000063"
                                     "ffffffff ffffffff"),
                                 kV4Src, kV4Dst);
  auto rx = message<AssertMessage>(kV4);
  ASSERT_EQ(rx->readAssertMessage(pkt(msg), 0), msg.size());
  EXPECT_TRUE(rx->rpt());
  EXPECT_EQ(rx->metricPreference().value(), Pref::max);
  EXPECT_EQ(rx->metric(), 0xffffffffu);
  EXPECT_EQ(written(*rx, &AssertMessage::writeAssertMessage), msg);
}

TEST_F(AssertTest, WriterChecks) {
  const std::string kAssert = "Invalid Pim Assert - ";
  auto v6group = assertObject(kV4, 32);
  v6group->groupIs(EncodedGroupAddress(GroupAddress(Nimo::IpGenPrefix("ff3e::1/128"), 0)));
  auto v6source = assertObject(kV4, 32);
  v6source->sourceIs(EncodedUnicastAddress(Nimo::IpGenAddr("::5")));
  auto unicastGroup = assertObject(kV4, 32);
  unicastGroup->groupIs(EncodedGroupAddress(GroupAddress(Nimo::IpGenPrefix("10.0.0.1/32"), 0)));
  const struct {
    Kel::Ptr<AssertMessage> m;
    std::uint32_t room;
    std::vector<std::string> errors;
  } cases[] = {
      {assertObject(kV4, 32), 3, {kAssert + "Header - Unavailable Space - Remaining: 3"}},
      {v6group, 100, {kAssert + "Invalid Family - Family: 1 Group Address: ff3e::1"}},
      {v6source, 100, {kAssert + "Invalid Family - Family: 1 Source Address: ::5"}},
      {unicastGroup,
       100,
       {"Invalid Encoded Group Address - Not Multicast - Address: 10.0.0.1",
        kAssert + "Group Address - Write Error"}},
      {assertObject(kV4, 32), 25, {kAssert + "Metric - Unavailable Space - Remaining: 7"}},
  };
  for (const auto& c : cases) {
    clear();
    EXPECT_THAT(written(*c.m, &AssertMessage::writeAssertMessage, c.room), IsEmpty());
    EXPECT_EQ(errors(), c.errors);
  }
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
      const Bytes out = written(*tx, &AssertMessage::writeAssertMessage);
      auto rx = message<AssertMessage>(*f);
      ASSERT_EQ(rx->readAssertMessage(pkt(out), 0), out.size()) << seed;
      EXPECT_EQ(*rx, *tx) << f->name() << " seed " << seed;
    }
  }
}

TEST(AssertMetricPreference, RangeAndRBit) {
  auto m = Kel::Ptr<AssertMessage>::make();
  m->rptIs(true);
  m->metricPreferenceIs(Pref(2147483647));
  EXPECT_TRUE(m->rpt());
  EXPECT_EQ(m->implMetricPreferenceU32(), 0xffffffffu);
  m->metricPreferenceIs(Pref(5));
  EXPECT_EQ(m->implMetricPreference(), AssertMessage::AssertImplMetricPreference(0x80, 0, 0, 5));
  m->rptIs(false);
  EXPECT_EQ(m->metricPreference().value(), 5u);
  try {
    Pref p(2147483648u);
    FAIL() << "2147483648 accepted";
  } catch (const Kel::RangeError& e) {
    EXPECT_STREQ(e.what(),
                 "AssertMetricPreference::value < AssertMetricPreference::min or > "
                 "AssertMetricPreference::max not allowed");
  }
  const std::string text = Kel::valueToStrep(Pref(7));
  EXPECT_EQ(
      text,
      "Value('Routing::Pim::Packet::AssertMessage::AssertMetricPreference', ** {'value': 7})");
  EXPECT_EQ(Pref(text.data(), text.data() + text.size()), Pref(7));
  const std::string big =
      "Value('Routing::Pim::Packet::AssertMessage::AssertMetricPreference', ** {'value': "
      "2147483648})";
  EXPECT_THROW(Pref(big.data(), big.data() + big.size()), Kel::RangeError);
  EXPECT_EQ(Kel::valueToStrep(m->implMetricPreference()),
            "Value('Routing::Pim::Packet::AssertMessage::AssertImplMetricPreference', ** "
            "{'v0': 0, 'v1': 0, 'v2': 0, 'v3': 5})");
}

}  // namespace
