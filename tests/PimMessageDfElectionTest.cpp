// DF Election readers and writers: the common part and the four subtypes.

#include <gmock/gmock.h>

#include "Pim/PimMessage.h"
#include "tests/PimCodecTestUtil.h"

namespace {

using namespace PimTest;
using namespace Routing::Pim::Packet;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Offer = DfElectionOfferMessage;
using Winner = DfElectionWinnerMessage;
using Backoff = DfElectionBackoffMessage;
using Pass = DfElectionPassMessage;

// Body after the subtype byte: RP, sender preference 100 and metric 10, and for Backoff
// and Pass the second address (10.0.0.7 / 2001:db8::7), preference 110, metric 20, and for
// Backoff the interval 200.
Bytes vector(const Family& f, DfElectionMessageType t) {
  const std::string rp = f.v6 ? "02 00 2001 0db8 0000 0000 0000 0000 0000 0099" : "01 00 0a000063";
  const std::string second =
      f.v6 ? "02 00 2001 0db8 0000 0000 0000 0000 0000 0007" : "01 00 0a000007";
  std::string s = fmt::format("2a {:x}0 0000", unsigned(t)) + rp + "00000064 0000000a";
  if (t == DfElectionMessageType::dfElectionBackoff || t == DfElectionMessageType::dfElectionPass) {
    s += second + "0000006e 00000014";
  }
  if (t == DfElectionMessageType::dfElectionBackoff) s += "00c8";
  return withChecksum(hex(s), f.src, f.dst);
}

template <typename M>
Kel::Ptr<M> dfObject(const Family& f) {
  auto m = message<M>(f);
  m->rpAddressIs(EncodedUnicastAddress(Nimo::IpGenAddr(f.v6 ? "2001:db8::99" : "10.0.0.99")));
  m->senderMetricPrefIs({100, 10});
  const EncodedUnicastAddress second(Nimo::IpGenAddr(f.v6 ? "2001:db8::7" : "10.0.0.7"));
  if constexpr (std::is_same_v<M, Backoff>) {
    m->offeringAddressIs(second);
    m->offeringMetricPrefIs({110, 20});
    m->intervalIs(200);
  }
  if constexpr (std::is_same_v<M, Pass>) {
    m->winningAddressIs(second);
    m->winningMetricPrefIs({110, 20});
  }
  return m;
}

class DfElectionTest : public TraceTest {
 protected:
  // Golden vector both ways, truncation sweep, trailing bytes ignored.
  template <typename M>
  void golden(DfElectionMessageType t, Op<M> read, Op<M> write) {
    for (const Family* f : {&kV4, &kV6}) {
      SCOPED_TRACE(f->name());
      clear();
      const Bytes g = vector(*f, t);
      auto tx = dfObject<M>(*f);
      const Bytes out = written(*tx, write);
      EXPECT_EQ(out, g) << "written:\n" << toHex(out) << "\nwanted:\n" << toHex(g);
      auto rx = message<M>(*f);
      ASSERT_EQ(readFramed(*rx, read, g), g.size());
      EXPECT_EQ(*rx, *tx);
      EXPECT_EQ(rx->messageSubtype(), static_cast<MessageSubtype>(t));
      EXPECT_THAT(errors(), IsEmpty());
      truncationSweep<M>(*f, read, g,
                         [&](const Bytes& b) { return withChecksum(b, f->src, f->dst); });
      Bytes longer = g;
      longer.insert(longer.end(), {0xaa, 0xbb});
      EXPECT_EQ(((*message<M>(*f)).*read)(pkt(withChecksum(longer, f->src, f->dst)), 0), g.size());
    }
  }
};

TEST_F(DfElectionTest, Offer) {
  golden<Offer>(DfElectionMessageType::dfElectionOffer, &Offer::readDfElectionOfferMessage,
                &Offer::writeDfElectionOfferMessage);
}
TEST_F(DfElectionTest, Winner) {
  golden<Winner>(DfElectionMessageType::dfElectionWinner, &Winner::readDfElectionWinnerMessage,
                 &Winner::writeDfElectionWinnerMessage);
}
TEST_F(DfElectionTest, Backoff) {
  golden<Backoff>(DfElectionMessageType::dfElectionBackoff, &Backoff::readDfElectionBackoffMessage,
                  &Backoff::writeDfElectionBackoffMessage);
}
TEST_F(DfElectionTest, Pass) {
  golden<Pass>(DfElectionMessageType::dfElectionPass, &Pass::readDfElectionPassMessage,
               &Pass::writeDfElectionPassMessage);
}

TEST_F(DfElectionTest, ReaderChecks) {
  const std::string kDf = "Invalid Pim DF Election - ";
  const std::string rp = "01 00 0a000063", metrics = "00000064 0000000a";
  struct Case {
    DfElectionMessageType type;
    std::string body;  // after the header
    bool ok;
    std::vector<std::string> errors;
  };
  using T = DfElectionMessageType;
  const Case cases[] = {
      {T::dfElectionBackoff,
       rp + metrics + "01 00 0a000007 0000006e 00000014 00",
       false,
       {"Invalid Pim DF Election Backoff - Offering Metric and Metric Preference Length - "
        "Remaining: 9 Expected: 10"}},
      {T::dfElectionBackoff, rp + metrics + "01 00 0a000007 0000006e 00000014 00c8", true, {}},
      {T::dfElectionPass,
       rp + metrics + "01 00 e0000001 0000006e 00000014",
       false,
       {"Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.1",
        "Invalid Pim DF Election Backoff - New Winning Address - Invalid Address - 224.0.0.1"}},
      {T::dfElectionPass,
       rp + metrics + "01 00 0a000007 0000006e 000000",
       false,
       {"Invalid Pim DF Election Pass - New Winning Metric and Metric Preference Length - "
        "Remaining: 7"}},
      {T::dfElectionPass,
       rp + metrics + "02 00 2001 0db8 0000 0000 0000 0000 0000 0007",
       false,
       {"Invalid Pim DF Election Pass - New Winning Address - Invalid Family - Family: 1 New "
        "Winning "
        "Address: 2001:db8::7"}},
      {T::dfElectionBackoff,
       rp + metrics + "01 00 e0000001 0000006e 00000014 00c8",
       false,
       {"Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.1",
        "Invalid Pim DF Election Backoff - Offering Address - Invalid Address - 224.0.0.1"}},
      {T::dfElectionBackoff,
       rp + "00000064 000000",
       false,
       {kDf + "Metric and Metric Preference Length - Remaining: 7 Expected: 8",
        "Invalid Pim DF Election Backoff - Read Error"}},
      {T::dfElectionOffer,
       "01 00 e0000063" + metrics,
       false,
       {"Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.99",
        kDf + "RP Address - Invalid Address - 224.0.0.99",
        "Invalid Pim DF Election Offer - Read Error"}},
      {T::dfElectionWinner,
       "02 00 2001 0db8 0000 0000 0000 0000 0000 0099" + metrics,
       false,
       {kDf + "RP Address - Invalid Family - Family: 1 RP Address: 2001:db8::99",
        "Invalid Pim DF Election Winner - Read Error"}},
      {T::dfElectionPass,
       "01 00 0a00",
       false,
       {"Invalid Encoded Unicast Address - Ip Address Length - Remaining: 2 Expected: 4",
        kDf + "RP Address - Parse Error", "Invalid Pim DF Election Pass - Read Error"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    clear();
    const Bytes msg =
        withChecksum(hex(fmt::format("2a {:x}0 0000", unsigned(c.type)) + c.body), kV4Src, kV4Dst);
    std::uint32_t n = 0;
    switch (c.type) {
      case T::dfElectionOffer:
        n = message<Offer>(kV4)->readDfElectionOfferMessage(pkt(msg), 0);
        break;
      case T::dfElectionWinner:
        n = message<Winner>(kV4)->readDfElectionWinnerMessage(pkt(msg), 0);
        break;
      case T::dfElectionBackoff:
        n = message<Backoff>(kV4)->readDfElectionBackoffMessage(pkt(msg), 0);
        break;
      default:
        n = message<Pass>(kV4)->readDfElectionPassMessage(pkt(msg), 0);
        break;
    }
    EXPECT_EQ(n, c.ok ? msg.size() : 0u);
    EXPECT_EQ(errors(), c.errors);
  }
}

TEST_F(DfElectionTest, WriterChecks) {
  struct Case {
    const char* name;
    std::function<std::uint32_t(std::uint32_t room)> write;
    std::uint32_t room;
    std::vector<std::string> errors;
  };
  auto offer = dfObject<Offer>(kV4);
  auto backoff = dfObject<Backoff>(kV4);
  auto pass = dfObject<Pass>(kV4);
  auto v6offering = dfObject<Backoff>(kV4);
  v6offering->offeringAddressIs(EncodedUnicastAddress(Nimo::IpGenAddr("::7")));
  const auto w = [](auto m, auto op) {
    return [m, op](std::uint32_t room) { return ((*m).*op)(Nimo::Pkt::create(room), 0); };
  };
  const Case cases[] = {
      {"offer, header",
       w(offer, &Offer::writeDfElectionOfferMessage),
       3,
       {"Invalid Pim DF Election - Header - Unavailable Space - Remaining: 3",
        "Invalid Pim DF Election Offer - Write Error"}},
      {"offer, metrics",
       w(offer, &Offer::writeDfElectionOfferMessage),
       17,
       {"Invalid Pim DF Election - Metric and Metric Preference - Unavailable Space - Remaining: 7 "
        "Expected: 8",
        "Invalid Pim DF Election Offer - Write Error"}},
      {"backoff, header",
       w(backoff, &Backoff::writeDfElectionBackoffMessage),
       3,
       {"Invalid Pim DF Election Backoff - Header - Unavailable Space - Remaining: 3"}},
      {"backoff, offering family",
       w(v6offering, &Backoff::writeDfElectionBackoffMessage),
       100,
       {"Invalid Pim DF Election Backoff - Invalid Family - Family: 1 Offering Address: ::7"}},
      {"backoff, sender metrics",
       w(backoff, &Backoff::writeDfElectionBackoffMessage),
       17,
       {"Invalid Pim DF Election Backoff - Metric and Metric Preference - Unavailable Space - "
        "Remaining: 7"}},
      {"backoff, offering address",
       w(backoff, &Backoff::writeDfElectionBackoffMessage),
       18,
       {"Invalid Encoded Unicast Address - Family and Encoding Length - Remaining: 0 Expected: 2",
        "Invalid Pim DF Election Backoff - Offering Address - Write Error"}},
      {"backoff, offering metrics",
       w(backoff, &Backoff::writeDfElectionBackoffMessage),
       33,
       {"Invalid Pim DF Election Backoff - Offering Metric and Metric Preference - Unavailable "
        "Space - "
        "Remaining: 9"}},
      {"pass, winning metrics",
       w(pass, &Pass::writeDfElectionPassMessage),
       31,
       {"Invalid Pim DF Election Pass - Winning Metric and Metric Preference - Unavailable Space - "
        "Remaining: 7"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    clear();
    EXPECT_EQ(c.write(c.room), 0u);
    EXPECT_EQ(errors(), c.errors);
    // One byte short of a whole message: one more and it fits.
    if (std::string(c.name) == "offer, metrics" || c.room == 31 || c.room == 33) {
      EXPECT_EQ(c.write(c.room + 1), c.room + 1);
    }
  }
}

TEST(DfElectionRoundTrip, GeneratedMessages) {
  for (const Family* f : {&kV4, &kV6}) {
    for (std::uint32_t seed = 0; seed < 100; ++seed) {
      const EncodedUnicastAddress rp(f->v6 ? Nimo::IpGenAddr(fmt::format("2001:db8::{:x}", seed))
                                           : Nimo::IpGenAddr::v4(0x0a000000 + seed));
      auto b = dfObject<Backoff>(*f);
      b->rpAddressIs(rp);
      b->senderMetricPrefIs({seed * 0x9e3779b9u, ~seed});
      b->offeringMetricPrefIs({seed, seed * 0x85ebca6bu});
      b->intervalIs(static_cast<std::uint16_t>(seed * 331));
      Bytes out = written(*b, &Backoff::writeDfElectionBackoffMessage);
      auto rb = message<Backoff>(*f);
      ASSERT_EQ(rb->readDfElectionBackoffMessage(pkt(out), 0), out.size());
      EXPECT_EQ(*rb, *b) << seed;
      auto p = dfObject<Pass>(*f);
      p->rpAddressIs(rp);
      p->winningMetricPrefIs({~seed, seed * 7});
      out = written(*p, &Pass::writeDfElectionPassMessage);
      auto rp2 = message<Pass>(*f);
      ASSERT_EQ(rp2->readDfElectionPassMessage(pkt(out), 0), out.size());
      EXPECT_EQ(*rp2, *p) << seed;
    }
  }
}

TEST(DfElection, SubtypeNibbleAndPrintForms) {
  auto m = Kel::Ptr<DfElectionMessage>::make();
  m->dfElectionMessageTypeIs(DfElectionMessageType(3));
  EXPECT_EQ(m->reserved(), 0x30);
  EXPECT_EQ(m->messageSubtype(), 3);
  EXPECT_EQ(printed(DfElectionMessageType::dfElectionPass), "dfElectionPass");
  EXPECT_EQ(
      printed(*dfObject<Backoff>(kV4)),
      "version=2 type=10 (DF-Election) reserved=48 length=0 src=10.0.0.1 dst=224.0.0.13, "
      "rpAddress=10.0.0.99, senderMetricPreference=100, senderMetric=10, offeringAddress=10.0.0.7, "
      "offeringMetricPreference=110, offeringMetric=20, interval=200");
  EXPECT_EQ(
      printed(*dfObject<Pass>(kV4)),
      "version=2 type=10 (DF-Election) reserved=64 length=0 src=10.0.0.1 dst=224.0.0.13, "
      "rpAddress=10.0.0.99, senderMetricPreference=100, senderMetric=10, winningAddress=10.0.0.7, "
      "winningMetricPreference=110, winningMetric=20");
}

// A subclass operation on an object whose subtype was changed is a programming error.
TEST(DfElectionDeathTest, SubtypeMismatchAsserts) {
  const auto pkt = Nimo::Pkt::create(64);
  const auto as = [](auto m, DfElectionMessageType t) {
    m->dfElectionMessageTypeIs(t);
    return m;
  };
  using T = DfElectionMessageType;
  EXPECT_DEATH(as(message<Offer>(kV4), T::dfElectionPass)->readDfElectionOfferMessage(pkt, 0),
               "dfElectionMessageType\\(\\) == dfElectionOffer\\(\\)");
  EXPECT_DEATH(as(message<Winner>(kV4), T::dfElectionOffer)->writeDfElectionWinnerMessage(pkt, 0),
               "dfElectionMessageType\\(\\) == dfElectionWinner\\(\\)");
  EXPECT_DEATH(
      as(message<Backoff>(kV4), T::dfElectionUnknown)->readDfElectionBackoffMessage(pkt, 0),
      "dfElectionMessageType\\(\\) == dfElectionBackoff\\(\\)");
  EXPECT_DEATH(as(message<Pass>(kV4), T::dfElectionBackoff)->writeDfElectionPassMessage(pkt, 0),
               "dfElectionMessageType\\(\\) == dfElectionPass\\(\\)");
}

}  // namespace
