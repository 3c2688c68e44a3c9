// DF Election readers and writers: the common part and the four subtypes.

#include "Pim/PimMessage.h"
#include "tests/PimCodecTestUtil.h"

namespace {

using namespace PimTest;
using namespace Routing::Pim::Packet;
using ::testing::ElementsAre;
using Offer = DfElectionOfferMessage;
using Winner = DfElectionWinnerMessage;
using Backoff = DfElectionBackoffMessage;
using Pass = DfElectionPassMessage;
using T = DfElectionMessageType;

// RP 10.0.0.99 (2001:db8::99), sender preference 100 and metric 10; Backoff and Pass go on
// with 10.0.0.7 (2001:db8::7), preference 110, metric 20; Backoff ends with interval 200.
Bytes vector(const Family& f, T t) {
  const std::string rp = f.v6 ? "02 00 2001 0db8 0000 0000 0000 0000 0000 0099" : "01 00 0a000063";
  const std::string second =
      f.v6 ? "02 00 2001 0db8 0000 0000 0000 0000 0000 0007" : "01 00 0a000007";
  std::string s = fmt::format("2a {:x}0 0000", unsigned(t)) + rp + "00000064 0000000a";
  if (t == T::dfElectionBackoff || t == T::dfElectionPass) s += second + "0000006e 00000014";
  if (t == T::dfElectionBackoff) s += "00c8";
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

class DfElectionTest : public CodecTest {
 protected:
  // Golden vectors of both families; bytes after the last field are not read.
  template <typename M>
  void check(T t, Op<M> read, Op<M> write) {
    for (const Family* f : {&kV4, &kV6}) {
      const Bytes g = vector(*f, t);
      golden(*f, g, *dfObject<M>(*f), read, write);
      Bytes longer = g;
      longer.insert(longer.end(), {0xaa, 0xbb});
      auto rx = message<M>(*f);
      EXPECT_EQ(((*rx).*read)(pkt(withChecksum(longer, f->src, f->dst)), 0), g.size());
      EXPECT_EQ(rx->messageSubtype(), static_cast<MessageSubtype>(t));
    }
  }
  template <typename M>
  std::vector<std::string> reject(Op<M> op, T t, const std::string& body) {
    return rejected(op, hex(fmt::format("2a {:x}0 0000", unsigned(t)) + body));
  }
};

TEST_F(DfElectionTest, GoldenVectorsOfEverySubtype) {
  check<Offer>(T::dfElectionOffer, &Offer::readDfElectionOfferMessage,
               &Offer::writeDfElectionOfferMessage);
  check<Winner>(T::dfElectionWinner, &Winner::readDfElectionWinnerMessage,
                &Winner::writeDfElectionWinnerMessage);
  check<Backoff>(T::dfElectionBackoff, &Backoff::readDfElectionBackoffMessage,
                 &Backoff::writeDfElectionBackoffMessage);
  check<Pass>(T::dfElectionPass, &Pass::readDfElectionPassMessage,
              &Pass::writeDfElectionPassMessage);
}

TEST_F(DfElectionTest, ReaderChecks) {
  const std::string k = "Invalid Pim DF Election - ", start = "01 00 0a000063 00000064 0000000a";
  const auto backoff = &Backoff::readDfElectionBackoffMessage;
  const auto pass = &Pass::readDfElectionPassMessage;
  // clang-format off
  // 9 bytes after the offering address; the golden Backoff has 10.
  EXPECT_THAT(reject(backoff, T::dfElectionBackoff, start + "01 00 0a000007 0000006e 00000014 00"), ElementsAre("Invalid Pim DF Election Backoff - Offering Metric and Metric Preference Length - Remaining: 9 Expected: 10"));
  EXPECT_THAT(reject(backoff, T::dfElectionBackoff, start + "01 00 e0000001 0000006e 00000014 00c8"), ElementsAre("Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.1", "Invalid Pim DF Election Backoff - Offering Address - Invalid Address - 224.0.0.1"));
  EXPECT_THAT(reject(backoff, T::dfElectionBackoff, "01 00 0a000063 00000064 000000"), ElementsAre(k + "Metric and Metric Preference Length - Remaining: 7 Expected: 8", "Invalid Pim DF Election Backoff - Read Error"));
  // The Pass reader words an invalid winner as Backoff does.
  EXPECT_THAT(reject(pass, T::dfElectionPass, start + "01 00 e0000001 0000006e 00000014"), ElementsAre("Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.1", "Invalid Pim DF Election Backoff - New Winning Address - Invalid Address - 224.0.0.1"));
  EXPECT_THAT(reject(pass, T::dfElectionPass, start + "01 00 0a000007 0000006e 000000"), ElementsAre("Invalid Pim DF Election Pass - New Winning Metric and Metric Preference Length - Remaining: 7"));
  EXPECT_THAT(reject(pass, T::dfElectionPass, start + "02 00 2001 0db8 0000 0000 0000 0000 0000 0007"), ElementsAre("Invalid Pim DF Election Pass - New Winning Address - Invalid Family - Family: 1 New Winning Address: 2001:db8::7"));
  EXPECT_THAT(reject(pass, T::dfElectionPass, "01 00 0a00"), ElementsAre("Invalid Encoded Unicast Address - Ip Address Length - Remaining: 2 Expected: 4", k + "RP Address - Parse Error", "Invalid Pim DF Election Pass - Read Error"));
  EXPECT_THAT(reject(&Offer::readDfElectionOfferMessage, T::dfElectionOffer, "01 00 e0000063 00000064 0000000a"), ElementsAre("Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.99", k + "RP Address - Invalid Address - 224.0.0.99", "Invalid Pim DF Election Offer - Read Error"));
  EXPECT_THAT(reject(&Winner::readDfElectionWinnerMessage, T::dfElectionWinner, "02 00 2001 0db8 0000 0000 0000 0000 0000 0099 00000064 0000000a"), ElementsAre(k + "RP Address - Invalid Family - Family: 1 RP Address: 2001:db8::99", "Invalid Pim DF Election Winner - Read Error"));
  // clang-format on
}

// Rooms one byte short; where the row says so, one more byte is a whole message.
TEST_F(DfElectionTest, WriterChecks) {
  auto offer = dfObject<Offer>(kV4);
  auto backoff = dfObject<Backoff>(kV4);
  auto pass = dfObject<Pass>(kV4);
  const auto o = [&](std::uint32_t room) {
    return refused(*offer, &Offer::writeDfElectionOfferMessage, room);
  };
  const auto b = [&](std::uint32_t room) {
    return refused(*backoff, &Backoff::writeDfElectionBackoffMessage, room);
  };
  const auto p = [&](std::uint32_t room) {
    return refused(*pass, &Pass::writeDfElectionPassMessage, room);
  };
  // clang-format off
  EXPECT_THAT(o(3), ElementsAre("Invalid Pim DF Election - Header - Unavailable Space - Remaining: 3", "Invalid Pim DF Election Offer - Write Error"));
  EXPECT_THAT(o(17), ElementsAre("Invalid Pim DF Election - Metric and Metric Preference - Unavailable Space - Remaining: 7 Expected: 8", "Invalid Pim DF Election Offer - Write Error"));
  EXPECT_THAT(b(3), ElementsAre("Invalid Pim DF Election Backoff - Header - Unavailable Space - Remaining: 3"));
  EXPECT_THAT(b(17), ElementsAre("Invalid Pim DF Election Backoff - Metric and Metric Preference - Unavailable Space - Remaining: 7"));
  EXPECT_THAT(b(18), ElementsAre("Invalid Encoded Unicast Address - Family and Encoding Length - Remaining: 0 Expected: 2", "Invalid Pim DF Election Backoff - Offering Address - Write Error"));
  EXPECT_THAT(b(33), ElementsAre("Invalid Pim DF Election Backoff - Offering Metric and Metric Preference - Unavailable Space - Remaining: 9"));
  EXPECT_THAT(p(31), ElementsAre("Invalid Pim DF Election Pass - Winning Metric and Metric Preference - Unavailable Space - Remaining: 7"));
  // clang-format on
  EXPECT_EQ(offer->writeDfElectionOfferMessage(Nimo::Pkt::create(18), 0), 18u);
  EXPECT_EQ(backoff->writeDfElectionBackoffMessage(Nimo::Pkt::create(34), 0), 34u);
  EXPECT_EQ(pass->writeDfElectionPassMessage(Nimo::Pkt::create(32), 0), 32u);
  backoff->offeringAddressIs(EncodedUnicastAddress(Nimo::IpGenAddr("::7")));
  EXPECT_THAT(
      b(100),
      ElementsAre(
          "Invalid Pim DF Election Backoff - Invalid Family - Family: 1 Offering Address: ::7"));
  pass->rpAddressIs(EncodedUnicastAddress(Nimo::IpGenAddr("::9")));
  EXPECT_THAT(
      p(100),
      ElementsAre("Invalid Pim DF Election Pass - Invalid Family - Family: 1 RP Address: ::9"));
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
      roundTrip(*f, *b, &Backoff::readDfElectionBackoffMessage,
                &Backoff::writeDfElectionBackoffMessage, std::to_string(seed));
      auto p = dfObject<Pass>(*f);
      p->rpAddressIs(rp);
      p->winningMetricPrefIs({~seed, seed * 7});
      roundTrip(*f, *p, &Pass::readDfElectionPassMessage, &Pass::writeDfElectionPassMessage,
                std::to_string(seed));
      auto o = dfObject<Winner>(*f);
      o->rpAddressIs(rp);
      o->senderMetricPrefIs({~seed, seed});
      roundTrip(*f, *o, &Winner::readDfElectionWinnerMessage, &Winner::writeDfElectionWinnerMessage,
                std::to_string(seed));
    }
  }
}

TEST(DfElection, SubtypeNibbleAndPrintForms) {
  auto m = Kel::Ptr<DfElectionMessage>::make();
  m->dfElectionMessageTypeIs(T(3));
  EXPECT_EQ(m->reserved(), 0x30);
  EXPECT_EQ(m->messageSubtype(), 3);
  EXPECT_EQ(printed(T::dfElectionPass), "dfElectionPass");
  EXPECT_EQ(printed(*dfObject<Backoff>(kV4)),
            "version=2 type=10 (DF-Election) reserved=48 length=0 src=10.0.0.1 dst=224.0.0.13, "
            "rpAddress=10.0.0.99, "
            "senderMetricPreference=100, senderMetric=10, offeringAddress=10.0.0.7, "
            "offeringMetricPreference=110, "
            "offeringMetric=20, interval=200");
  EXPECT_EQ(printed(*dfObject<Pass>(kV4)),
            "version=2 type=10 (DF-Election) reserved=64 length=0 src=10.0.0.1 dst=224.0.0.13, "
            "rpAddress=10.0.0.99, "
            "senderMetricPreference=100, senderMetric=10, winningAddress=10.0.0.7, "
            "winningMetricPreference=110, "
            "winningMetric=20");
}

// A subclass operation on an object whose subtype was changed is a programming error.
TEST(DfElectionDeathTest, SubtypeMismatchAsserts) {
  const auto pkt = Nimo::Pkt::create(64);
  const auto as = [](auto m, T t) {
    m->dfElectionMessageTypeIs(t);
    return m;
  };
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
