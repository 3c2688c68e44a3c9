// Join/Prune reader, draining writer and print form.

#include <fmt/ostream.h>
#include <gmock/gmock.h>

#include <optional>
#include <random>
#include <set>
#include <tuple>

#include "Pim/PimMcastBoundary.h"
#include "Pim/PimMessage.h"
#include "tests/PimTestUtil.h"

namespace {

using namespace PimTest;
using namespace Routing::Pim::Packet;
using Routing::Pim::JoinPruneData;
using Routing::Pim::WcSourceData;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using Bookmark = JoinPruneData::Bookmark;

// ---------------------------------------------------------------------------------------
// Data sets and messages in one line of text. Groups are separated by ';', a group is its
// prefix (with "b" when bidirectional) and its entries: "+" joins, "-" prunes, then S
// (S,G), R (S,G,rpt), * (*,G, the RP), and the address:
//   "239.1.1.1/32 +S10.0.0.1 +*10.9.9.9 -R10.0.0.2; 232.1.1.1/32b -S10.0.0.3"
// describe() prints a data set so, entries in the writer's packing order, "~" after a
// suppressed join; dataSet() builds one from it. encode() assembles a message from the
// RFC 7761 layout, independently of the codec, entries in the order given; there "W"
// (WC without RPT) and a "/len" after the address make the malformed kinds.

std::string describeSet(const Routing::Pim::SourceSet& set, const char* tag = "") {
  std::string out;
  for (const auto& e : set)
    out += fmt::format(" {}{}{}", tag, e.address(), e.suppressed() ? "~" : "");
  return out;
}

std::string describe(const JoinPruneData& d) {
  std::string out;
  for (const auto& [g, gd] : d.joinPruneGroupData()) {
    out += (out.empty() ? "" : "; ") + g.str() + (gd.groupFlags() & 0x80 ? "b" : "");
    auto list = [&](const char* tag, const Routing::Pim::SourceSet& set) {
      out += describeSet(set, tag);
    };
    list("+R", gd.joinedRptSource());
    list("+S", gd.joinedSource());
    if (const auto& wc = gd.wcSourceData()) {
      out +=
          fmt::format(" {}{}{}", wc->join() ? "+*" : "-*", wc->rp(), wc->wcSuppressed() ? "~" : "");
    }
    list("-R", gd.prunedRptSource());
    list("-S", gd.prunedSource());
  }
  return out;
}

// Calls group(prefix, flags) and entry(join, kind, address, suppressed) per token.
template <typename G, typename E>
void parseText(const std::string& text, G group, E entry) {
  std::istringstream in(text);
  for (std::string tok; in >> tok;) {
    if (tok.back() == ';') tok.pop_back();
    const bool marked = tok.back() == '~' || tok.back() == 'b';
    if (marked) tok.pop_back();
    if (tok[0] != '+' && tok[0] != '-') {
      group(Nimo::IpGenPrefix(tok), marked ? 0x80 : 0);
    } else {
      entry(tok[0] == '+', tok[1], tok.substr(2), marked);
    }
  }
}

Kel::Ptr<JoinPruneData> dataSet(const std::string& text, const char* upstream = "10.0.0.2") {
  auto d = Kel::Ptr<JoinPruneData>::make();
  d->upstreamNeighborIs(Nimo::IpGenAddr(upstream));
  d->holdTimeIs(210);
  Routing::Pim::JoinPruneGroupData* gd = nullptr;
  parseText(
      text,
      [&](const Nimo::IpGenPrefix& g, std::uint8_t flags) {
        gd = &d->joinPruneGroupDataIs(g);
        gd->groupFlagsIs(flags);
      },
      [&](bool join, char kind, const std::string& addr, bool suppressed) {
        const Nimo::IpGenAddr a(addr);
        if (kind == '*') {
          gd->wcSourceDataIs(WcSourceData(a, join));
          gd->wcSuppressedIs(suppressed);
        } else if (kind == 'R') {
          join ? gd->joinedRptSourceIs(a) : gd->prunedRptSourceIs(a);
        } else {
          join ? gd->joinedSourceIs(a) : gd->prunedSourceIs(a);
        }
        if (suppressed) gd->joinSuppressSourceIs(a);
      });
  return d;
}

// Family, encoding 0, flags, mask length (host unless given), address.
void putEncoded(Bytes& b, const std::string& text, std::uint8_t flags) {
  const auto slash = text.find('/');
  const Nimo::IpGenAddr a(text.substr(0, slash));
  const int len =
      slash == std::string::npos ? a.byteLength() * 8 : std::stoi(text.substr(slash + 1));
  b.insert(b.end(), {static_cast<std::uint8_t>(a.af()), 0, flags, static_cast<std::uint8_t>(len)});
  b.insert(b.end(), a.bytes(), a.bytes() + a.byteLength());
}

Bytes encode(bool v6, const char* upstream, const std::string& text, int numGroups = -1) {
  struct Group {
    Bytes header, joins, prunes;
    unsigned nj = 0, np = 0;
  };
  std::vector<Group> groups;
  parseText(
      text,
      [&](const Nimo::IpGenPrefix& g, std::uint8_t flags) {
        groups.emplace_back();
        putEncoded(groups.back().header, g.str(), flags);
      },
      [&](bool join, char kind, const std::string& addr, bool) {
        const std::uint8_t flags = kind == 'S'   ? 0x04
                                   : kind == 'R' ? 0x05
                                   : kind == '*' ? 0x07
                                                 : 0x06;
        putEncoded(join ? groups.back().joins : groups.back().prunes, addr, flags);
        ++(join ? groups.back().nj : groups.back().np);
      });
  Bytes b = {0x23, 0, 0, 0};
  const Nimo::IpGenAddr up(upstream);
  b.insert(b.end(), {static_cast<std::uint8_t>(up.af()), 0});
  b.insert(b.end(), up.bytes(), up.bytes() + up.byteLength());
  b.insert(b.end(),
           {0, static_cast<std::uint8_t>(numGroups < 0 ? groups.size() : unsigned(numGroups)), 0x00,
            0xd2});
  for (const Group& g : groups) {
    b.insert(b.end(), g.header.begin(), g.header.end());
    b.insert(b.end(), {std::uint8_t(g.nj >> 8), std::uint8_t(g.nj), std::uint8_t(g.np >> 8),
                       std::uint8_t(g.np)});
    b.insert(b.end(), g.joins.begin(), g.joins.end());
    b.insert(b.end(), g.prunes.begin(), g.prunes.end());
  }
  return withChecksum(b, v6 ? kV6Src : kV4Src, v6 ? kV6Dst : kV4Dst);
}

Kel::Ptr<JoinPruneMessage> message(bool v6, Kel::Ptr<JoinPruneData> data = nullptr) {
  auto m = Kel::Ptr<JoinPruneMessage>::make();
  m->srcIpIs(v6 ? kV6Src : kV4Src);
  m->dstIpIs(v6 ? kV6Dst : kV4Dst);
  m->joinPruneDataIs(data);
  return m;
}

Kel::Ptr<Routing::Pim::Boundary::IntfBoundary> boundary(std::vector<const char*> prefixes) {
  auto s = Kel::Ptr<Nimo::IntfBoundaryStatus>::make();
  for (const char* p : prefixes) s->groupPrefixIs(Nimo::IpGenPrefix(p));
  return Routing::Pim::Boundary::intfBoundaryFactory(s);
}

// ---------------------------------------------------------------------------------------
// Golden messages: one per family drives both directions. The IPv4 one is also written
// out byte by byte (checksum summed with the RFC 1071 loop), which pins encode() itself.

const Bytes kGoldenV4Bytes =
    hex("23 00 86 ee  01 00 0a 00 00 02  00 03 00 d2"         // upstream 10.0.0.2, 3 groups, 210 s
        "01 00 00 20 e0 01 01 01  00 01 00 02"                // 224.1.1.1/32: 1 join, 2 prunes
        "01 00 07 20 0a 00 00 64"                             //   (*,G) join, RP 10.0.0.100
        "01 00 05 20 0a 01 01 01  01 00 05 20 0a 01 01 02"    // (S,G,rpt) prunes
        "01 00 00 20 e8 01 01 01  00 02 00 01"                // 232.1.1.1/32
        "01 00 04 20 0a 02 02 02  01 00 04 20 0a 02 02 03"    //   (S,G) joins
        "01 00 04 20 0a 02 02 04"                             //   (S,G) prune
        "01 00 00 08 ef 00 00 00  00 01 00 01"                // 239.0.0.0/8
        "01 00 05 20 0a 03 03 03  01 00 07 20 0a 00 00 65");  // (S,G,rpt) join, (*,G) prune
constexpr const char* kGolden[] = {
    "224.1.1.1/32 +*10.0.0.100 -R10.1.1.1 -R10.1.1.2; 232.1.1.1/32 +S10.2.2.2 +S10.2.2.3 "
    "-S10.2.2.4; 239.0.0.0/8 +R10.3.3.3 -*10.0.0.101",
    "ff3e::1/128 +*2001:db8::100 -R2001:db8::1:1; ff3e::2/128 +S2001:db8::2:2 -S2001:db8::2:4"};

class JoinPruneGolden : public TraceTest, public ::testing::WithParamInterface<bool> {};

// Read into the data set that writes the same bytes back; every strict prefix fails.
TEST_P(JoinPruneGolden, ReadsIntoTheDataSetThatWritesTheSameBytesAndNoPrefixReads) {
  const bool v6 = GetParam();
  const char* upstream = v6 ? "fe80::2" : "10.0.0.2";
  const Bytes golden = encode(v6, upstream, kGolden[v6]);
  if (!v6) {
    ASSERT_EQ(toHex(golden), toHex(kGoldenV4Bytes));
  }
  auto rx = message(v6);
  ASSERT_EQ(rx->readJoinPruneMessage(pkt(golden), 0, nullptr), golden.size()) << errors()[0];
  auto data = dataSet(kGolden[v6], upstream);
  EXPECT_EQ(*rx->joinPruneData(), *data) << describe(*rx->joinPruneData());  // holdtime too
  EXPECT_EQ(rx->report(), (JoinPruneMessage::Report{v6 ? 4u : 8u, 0, 0}));

  auto tx = message(v6, data);
  auto p = Nimo::Pkt::create(1500);
  ASSERT_EQ(tx->writeJoinPruneMessage(p, 0, nullptr), golden.size());
  EXPECT_EQ(toHex(bytesOf(*p, p->size())), toHex(golden));
  EXPECT_TRUE(data->empty());
  for (std::size_t len = 0; len < golden.size(); ++len) {
    Bytes cut(golden.begin(), golden.begin() + static_cast<std::ptrdiff_t>(len));
    // Past the header the checksum is repaired, so that the body's checks are reached.
    if (len >= 4) cut = withChecksum(cut, v6 ? kV6Src : kV4Src, v6 ? kV6Dst : kV4Dst);
    EXPECT_EQ(message(v6)->readJoinPruneMessage(pkt(cut), 0, nullptr), 0u) << len;
  }
}

INSTANTIATE_TEST_SUITE_P(Family, JoinPruneGolden, ::testing::Bool(),
                         [](const auto& i) { return i.param ? "IPv6" : "IPv4"; });

// ---------------------------------------------------------------------------------------
// Reader: contradictions, skips and filters. Each row is one IPv4 message (a boundary on
// 239.255.0.0/16, sparse mode); the data set read and the warnings (level 5) it produces.

std::string bothSg(const char* s) {
  return fmt::format(
      "Invalid Pim Join/Prune Source - Source {} is both joined and pruned (S,G) "
      "source.  Only processing  it as a pruned (S,G) source.",
      s);
}
std::string bothRpt(const char* s) {
  return fmt::format(
      "Invalid Pim Join/Prune Source - Source {} is both joined and pruned "
      "(S,G,rpt) source.  Only processing it as a pruned (S,G,rpt) source.",
      s);
}
std::string sgAndRpt(const char* s) {
  return fmt::format(
      "Invalid Pim Join/Prune Source - Source {} is both joined (S,G) source and "
      "pruned (S,G,rpt) source. Only processing it as a (S,G) source.",
      s);
}
const std::string kStarGJoinAndPrune =
    "Invalid Pim Join/Prune Source - Received (*,G) join and prune source. Removing (*,G) join "
    "[RP: 10.9.9.1] and using (*,G) prune [RP: 10.9.9.2";

struct ReadCase {
  const char* name;
  const char* wire;
  const char* expected;
  std::vector<std::string> warnings;
  std::uint32_t filtered = 0;  // report: entries of dropped groups
};

const ReadCase kReadCases[] = {
    {"JoinAndPruneSg",
     "239.1.1.1/32 +S10.0.0.1 -S10.0.0.1",
     "239.1.1.1/32 -S10.0.0.1",
     {bothSg("10.0.0.1")}},
    {"JoinAndPruneRpt",
     "239.1.1.1/32 +R10.0.0.1 -R10.0.0.1",
     "239.1.1.1/32 -R10.0.0.1",
     {bothRpt("10.0.0.1")}},
    {"SgJoinWinsOverRptPrune",
     "239.1.1.1/32 +S10.0.0.1 -R10.0.0.1",
     "239.1.1.1/32 +S10.0.0.1",
     {sgAndRpt("10.0.0.1")}},
    {"SecondStarGJoinWins",
     "239.1.1.1/32 +*10.9.9.1 +*10.9.9.2",
     "239.1.1.1/32 +*10.9.9.2",
     {"Invalid Pim Join/Prune Source - Received multiple (*,G) join sources. Removing [RP: "
      "10.9.9.1] and using [RP: 10.9.9.2"}},
    {"StarGJoinCoversRptJoinsBeforeAndAfter",
     "239.1.1.1/32 +R10.0.0.1 +*10.9.9.1 +R10.0.0.2 +S10.0.0.3",
     "239.1.1.1/32 +S10.0.0.3 +*10.9.9.1",
     {}},
    {"StarGPruneOverridesJoinAndClearsRpt",
     "239.1.1.1/32 +R10.0.0.1 +*10.9.9.1 +S10.0.0.5 -R10.0.0.2 -*10.9.9.2 -R10.0.0.3",
     "239.1.1.1/32 +S10.0.0.5 -*10.9.9.2",
     {kStarGJoinAndPrune}},
    {"StarGPruneAloneKeepsRptPrunes",
     "239.1.1.1/32 -*10.9.9.2 -R10.0.0.3",
     "239.1.1.1/32 -*10.9.9.2 -R10.0.0.3",
     {}},
    {"GroupListedTwicePrunesFirst",
     "239.1.1.1/32 -S10.0.0.1 -R10.0.0.2 -R10.0.0.3; 239.1.1.1/32 +S10.0.0.1 +S10.0.0.2 +R10.0.0.3",
     "239.1.1.1/32 +S10.0.0.2 -R10.0.0.3 -S10.0.0.1",
     {bothSg("10.0.0.1"), sgAndRpt("10.0.0.2"), bothRpt("10.0.0.3")}},
    {"GroupListedTwiceJoinsOfOneKindMeetPrunes",
     "239.1.1.1/32 -S10.0.0.1 -S10.0.0.4; 239.1.1.1/32 +S10.0.0.1 +S10.0.0.2; "
     "239.1.1.2/32 -R10.0.0.3 -R10.0.0.6; 239.1.1.2/32 +R10.0.0.3 +R10.0.0.5; "
     "239.1.1.3/32 -R10.0.0.7 -R10.0.0.8; 239.1.1.3/32 +S10.0.0.7 +S10.0.0.9",
     "239.1.1.1/32 +S10.0.0.2 -S10.0.0.1 -S10.0.0.4; 239.1.1.2/32 +R10.0.0.5 -R10.0.0.3 "
     "-R10.0.0.6; 239.1.1.3/32 +S10.0.0.7 +S10.0.0.9 -R10.0.0.8",
     {bothSg("10.0.0.1"), bothRpt("10.0.0.3"), sgAndRpt("10.0.0.7")}},
    {"GroupListedTwiceStarGJoinThenRptJoin",
     "239.1.1.1/32 +*10.9.9.1; 239.1.1.1/32 +R10.0.0.1 -*10.9.9.2",
     "239.1.1.1/32 -*10.9.9.2",
     {kStarGJoinAndPrune}},
    {"DuplicatesAndUnsortedCollapse",
     "239.1.1.1/32 +S10.0.0.9 +S10.0.0.1 +S10.0.0.9 +S10.0.0.5",
     "239.1.1.1/32 +S10.0.0.1 +S10.0.0.5 +S10.0.0.9",
     {}},
    {"InvalidSourcesSkipped",
     "239.1.1.1/32 +S10.0.0.0/24 +S0.0.0.0 +S10.0.0.1 -S239.9.9.9 -S2001:db8::1",
     "239.1.1.1/32 +S10.0.0.1",
     {"Warning: Pim Join/Prune - Joined Source Address - Skipping Invalid Address: 10.0.0.0/24",
      "Warning: Pim Join/Prune - Joined Source Address - Skipping Invalid Address: 0.0.0.0/32",
      "Warning: Pim Join/Prune - Pruned Source Address - Skipping Invalid Address: 239.9.9.9/32",
      "Warning: Pim Join/Prune - Source Address - Mismatch in Address Family: 2"}},
    {"ZeroAndMulticastAmongPlainSources",
     "239.1.1.1/32 +S10.0.0.1 +S0.0.0.0; 239.1.1.2/32 -S10.0.0.2 -S239.9.9.9",
     "239.1.1.1/32 +S10.0.0.1; 239.1.1.2/32 -S10.0.0.2",
     {"Warning: Pim Join/Prune - Joined Source Address - Skipping Invalid Address: 0.0.0.0/32",
      "Warning: Pim Join/Prune - Pruned Source Address - Skipping Invalid Address: 239.9.9.9/32"}},
    {"InvalidAndForeignGroupsSkipped",
     "10.1.1.1/32 +S10.0.0.1; ff3e::1/128 +S2001:db8::1; 239.1.1.1/32 +S10.0.0.2",
     "239.1.1.1/32 +S10.0.0.2",
     {"Warning: Pim Join/Prune - Group Address - Skipping Invalid Prefix: 10.1.1.1/32",
      "Warning: Pim Join/Prune - Group Address - Mismatch in Address Family: 2"}},
    {"BoundaryFiltersGroup",
     "239.255.1.1/32 +S10.0.0.1 -S10.0.0.3; 232.1.1.1/32 +S10.0.0.1",
     "232.1.1.1/32 +S10.0.0.1",
     {"Filtered: Pim Join/Prune - Multicast Boundary - Filtered Group Address: 239.255.1.1/32"},
     2},
    {"BidirGroupFilteredBySparseMessage",
     "239.1.1.1/32b +S10.0.0.1; 239.1.1.2/32 +S10.0.0.1",
     "239.1.1.2/32 +S10.0.0.1",
     {"Pim Join/Prune - Bidirectional Filter - Filtered Group Address: 239.1.1.1/32 "
      "Bidirectional: 1 Msg Bidirectional Support: 0"},
     1},
    {"GroupLeftEmptyIsRemoved",
     "239.1.1.1/32 +S0.0.0.0; 239.1.1.2/32 +S10.0.0.1",
     "239.1.1.2/32 +S10.0.0.1",
     {"Warning: Pim Join/Prune - Joined Source Address - Skipping Invalid Address: 0.0.0.0/32",
      "Invalid Pim Join/Prune - Zero Num Sources In Group 239.1.1.1/32"}},
};

void PrintTo(const ReadCase& c, std::ostream* os) { *os << c.name; }

class JoinPruneRead : public TraceTest, public ::testing::WithParamInterface<ReadCase> {};

TEST_P(JoinPruneRead, ResolvesAsWritten) {
  const ReadCase& c = GetParam();
  const Bytes b = encode(false, "10.0.0.2", c.wire);
  auto m = message(false);
  ASSERT_EQ(m->readJoinPruneMessage(pkt(b), 0, boundary({"239.255.0.0/16"})), b.size())
      << ::testing::PrintToString(errors());
  EXPECT_EQ(describe(*m->joinPruneData()), c.expected);
  EXPECT_THAT(warnings(), ElementsAreArray(c.warnings));
  EXPECT_EQ(m->report().filtered, c.filtered);
}

INSTANTIATE_TEST_SUITE_P(Rules, JoinPruneRead, ::testing::ValuesIn(kReadCases),
                         [](const auto& i) { return std::string(i.param.name); });

// Messages the reader refuses, each with its one error line (the last error traced).
TEST_F(TraceTest, JoinPruneReadFailures) {
  const auto v4 = [](const char* wire, int numGroups = -1) {
    return encode(false, "10.0.0.2", wire, numGroups);
  };
  const auto raw = [](const char* h) { return withChecksum(hex(h), kV4Src, kV4Dst); };
  const struct {
    const char* name;
    Bytes bytes;
    const char* error;
  } cases[] = {
      {"BadChecksum", hex("23 00 00 01"), "Invalid Pim Join/Prune - Header - Parse Error"},
      {"NoUpstream", raw("23 00 00 00 01"),
       "Invalid Pim Join/Prune - Upstream Neighbor Address - Parse Error"},
      {"UpstreamV6", encode(false, "2001:db8::1", "239.1.1.1/32 +S10.0.0.1"),
       "Invalid Pim Join/Prune - Upstream Neighbor Address - Invalid Family - Family: 2"},
      {"UpstreamMulticast", encode(false, "224.0.0.1", "239.1.1.1/32 +S10.0.0.1"),
       "Invalid Pim Join/Prune - Upstream Neighbor Address - Invalid Address: 224.0.0.1"},
      {"NoJpInfo", raw("23 00 00 00 01 00 0a 00 00 02 00 01 00"),
       "Invalid Pim Join/Prune - J/P Info Length - Remaining: 3"},
      {"NoSourceCounts",
       raw("23 00 00 00 01 00 0a 00 00 02 00 01 00 d2 01 00 00 20 ef 01 01 01 00"),
       "Invalid Pim Join/Prune - Number of Sources - Remaining: 1"},
      {"GroupMissing", v4("239.1.1.1/32 -S10.0.0.1", 2),
       "Invalid Pim Join/Prune - Group Address - Parse Error"},
      {"SourceMissing",
       raw("23 00 00 00 01 00 0a 00 00 02 00 01 00 d2 01 00 00 20 ef 01 01 01 00 01 00 00"),
       "Invalid Pim Join/Prune - Joined Source Address - Parse Error"},
      {"WcWithoutRpt", v4("239.1.1.1/32 +W10.0.0.1"),
       "Invalid Pim Join/Prune - WC set, RPT cleared"},
      {"PrunedWcWithoutRpt", v4("239.1.1.1/32 -W10.0.0.1"),
       "Invalid Pim Join/Prune - WC set, RPT cleared"},
      {"BytesAfterLastGroup", raw("23 00 00 00 01 00 0a 00 00 02 00 00 00 d2 00 00"),
       "Invalid Pim Join/Prune - End of Message - Remaining: 2"},
      {"NoGroups", v4(""), "Invalid Pim Join/Prune - Zero Valid Num Groups"},
      {"OnlyFilteredGroups", v4("239.1.1.1/32b +S10.0.0.1"),
       "Invalid Pim Join/Prune - Zero Valid Num Groups"},
  };
  for (const auto& c : cases) {
    clear();
    EXPECT_EQ(message(false)->readJoinPruneMessage(pkt(c.bytes), 0, nullptr), 0u) << c.name;
    ASSERT_FALSE(errors().empty()) << c.name;
    EXPECT_EQ(errors().back(), c.error) << c.name;
  }
}

// ---------------------------------------------------------------------------------------
// Writer

// Drains data through m into messages of m's mtu, reading each back (same bidir, no
// boundary); returns the messages' data sets described, one per message.
std::vector<std::string> drain(JoinPruneMessage& m, const Kel::Ptr<JoinPruneData>& data,
                               const Kel::Ptr<Routing::Pim::Boundary::IntfBoundary>& b = nullptr) {
  std::vector<std::string> out;
  m.joinPruneDataIs(data);
  for (int guard = 0; !data->empty() && guard < 100; ++guard) {
    auto p = Nimo::Pkt::create(m.mtu());
    const std::uint32_t n = m.writeJoinPruneMessage(p, 0, b);
    if (n == 0) break;
    auto rx = message(m.af() == 2);
    rx->bidirIs(m.bidir());
    EXPECT_EQ(rx->readJoinPruneMessage(p, 0, nullptr), n);
    out.push_back(describe(*rx->joinPruneData()));
  }
  return out;
}

// count entries tagged tag ("+S", "-S", ...) from 10.net.0.1 on, the first-th onwards.
std::string seq(const char* tag, unsigned net, unsigned first, unsigned count) {
  std::string s;
  for (unsigned i = first; i < first + count; ++i) {
    s += fmt::format(" {}10.{}.{}.{}", tag, net, i / 250, i % 250 + 1);
  }
  return s;
}

// Data sets drained into as many messages as they take: what each message carries.
TEST_F(TraceTest, JoinPruneWriteDrains) {
  const std::string g = "239.1.1.1/32";
  auto groups = [](unsigned first, unsigned count) {  // one join each
    std::string s;
    for (unsigned i = first; i < first + count; ++i) {
      s += fmt::format("{}239.2.{}.{}/32 +S10.0.0.1", s.empty() ? "" : "; ", i / 200, i % 200);
    }
    return s;
  };
  struct Case {
    const char* name;
    std::string data;
    std::uint32_t mtu;
    std::vector<std::string> messages;
    std::vector<std::string> warnings;
    std::optional<Bookmark> bookmark = std::nullopt;  // left by an earlier drain
  };
  const Case cases[] = {
      // 1480 bytes: 14 of header, 12 of group header, room for 181 sources.
      {"StarGJoinAfter254SgJoins",
       g + seq("+S", 0, 0, 254) + " +*10.9.9.9",
       1500,
       {g + seq("+S", 0, 0, 181), g + seq("+S", 0, 181, 73) + " +*10.9.9.9"},
       {}},
      // 556 bytes: 66 sources a message; the group continues across seven.
      {"GroupLargerThanAMessage",
       g + seq("+S", 0, 0, 300) + seq("-S", 1, 0, 100) + "; 239.1.1.2/32 -R10.2.0.1",
       576,
       {g + seq("+S", 0, 0, 66), g + seq("+S", 0, 66, 66), g + seq("+S", 0, 132, 66),
        g + seq("+S", 0, 198, 66), g + seq("+S", 0, 264, 36) + seq("-S", 1, 0, 30),
        g + seq("-S", 1, 30, 66), g + seq("-S", 1, 96, 4) + "; 239.1.1.2/32 -R10.2.0.1"},
       {}},
      // 9000 bytes would hold 448 such groups: the count byte allows 255.
      {"Group256InTheNextMessage", groups(0, 256), 9000, {groups(0, 255), groups(255, 1)}, {}},
      // Added again out of order, a suppressed join stays suppressed.
      {"RepeatKeepsSuppression",
       g + " +S10.0.0.2 +S10.0.0.1~ +S10.0.0.1",
       1500,
       {g + " +S10.0.0.2"},
       {}},
      {"BookmarkOfOtherFamilyIgnored",
       g + " +S10.0.0.1 +S10.0.0.2",
       1500,
       {g + " +S10.0.0.1 +S10.0.0.2"},
       {"Invalid bookmark in Pim Join/Prune - Group Address Family: 2 - Ignoring and Deleting "
        "Bookmark"},
       Bookmark(Nimo::IpGenPrefix("ff3e::1/128"), Nimo::IpGenAddr("2001:db8::1"),
                Bookmark::Collection::Sg, Bookmark::Type::Join)},
      {"SuppressedAndFiltered",
       "239.1.1.1/32 +S10.0.0.1~ +*10.9.9.9~; 239.1.1.2/32 +S10.0.0.1~ +S10.0.0.2 -S10.0.0.3; "
       "239.255.0.1/32 +S10.0.0.1 -S10.0.0.2; 239.1.1.3/32b +S10.0.0.1",
       1500,
       {"239.1.1.2/32 +S10.0.0.2 -S10.0.0.3"},
       {"Pim Join/Prune - Zero Num Sources In Group 239.1.1.1/32 - Probably Due to Suppressed "
        "Joins",
        "Pim Join/Prune - Bidirectional Filter - Filtered Group Address: 239.1.1.3/32 "
        "Bidirectional: 1 Msg Bidirectional Support: 0",
        "Pim Join/Prune - Multicast Boundary - Filtered Group Address: 239.255.0.1/32"}},
  };
  for (const Case& c : cases) {
    clear();
    auto m = message(false);
    m->mtuIs(c.mtu);
    auto data = dataSet(c.data);
    if (c.bookmark) data->bookmarkIs(*c.bookmark);
    EXPECT_EQ(drain(*m, data, boundary({"239.255.0.0/16"})), c.messages) << c.name;
    EXPECT_EQ(warnings(), c.warnings) << c.name;
    EXPECT_FALSE(data->bookmark()) << c.name;
  }
}

TEST_F(TraceTest, JoinPruneWriteBookmarkResumesAndIsDeleted) {
  auto data = dataSet("239.1.1.1/32" + seq("+S", 0, 0, 200) + "; 239.1.1.2/32 +S10.5.0.1");
  auto m = message(false, data);
  ASSERT_NE(m->writeJoinPruneMessage(Nimo::Pkt::create(1500), 0, nullptr), 0u);
  ASSERT_TRUE(data->bookmark());
  EXPECT_EQ(fmt::format("{}", fmt::streamed(*data->bookmark())),
            "Bookmark: (239.1.1.1/32, 10.0.0.182) Collection: (S,G) Type: join");
  // Joins added meanwhile below the bookmark wait for the next pass.
  data->joinPruneGroupDataIs(Nimo::IpGenPrefix("239.1.1.1/32"))
      .joinedSourceIs(Nimo::IpGenAddr("10.0.0.0"));
  clear();
  ASSERT_NE(m->writeJoinPruneMessage(Nimo::Pkt::create(1500), 0, nullptr), 0u);
  EXPECT_FALSE(data->bookmark());
  EXPECT_THAT(at(4),
              ::testing::Contains(::testing::StartsWith("Bookmark processed and deleted. ")));
  EXPECT_EQ(describe(*data), "239.1.1.1/32 +S10.0.0.0");
}

TEST(JoinPruneWriteDeath, BookmarkOfUnknownCollectionIsAProgrammingError) {
  auto data = dataSet("239.1.1.1/32 +S10.0.0.1");
  data->bookmarkIs(Bookmark(Nimo::IpGenPrefix("239.1.1.1/32"), Nimo::IpGenAddr("10.0.0.1"),
                            Bookmark::Collection::Unknown, Bookmark::Type::Join));
  auto m = message(false, data);
  EXPECT_DEATH(m->writeJoinPruneMessage(Nimo::Pkt::create(1500), 0, nullptr),
               "Invalid bookmark collection");
}

// Writes the writer refuses, each with its one error line, entry by entry (every trace
// line on) and through the bulk copy (per-entry lines off).
TEST_F(TraceTest, JoinPruneWriteFailures) {
  struct Case {
    const char* name;
    const char* data;
    const char* upstream;
    std::uint32_t mtu;
    std::uint32_t buffer;
    const char* error;
  };
  // clang-format off
  const Case cases[] = {
      {"BufferBelowMtu", "239.1.1.1/32 +S10.0.0.1", "10.0.0.2", 1500, 1479, "Invalid Pim Join/Prune - MTU is bigger than buffer - MTU: 1480 Buffer: 1479"},
      {"UpstreamOtherFamily", "239.1.1.1/32 +S10.0.0.1", "fe80::2", 1500, 1500, "Invalid Pim Join/Prune - Invalid Family - Family: 2 Upstream Address: fe80::2"},
      {"UpstreamMulticast", "239.1.1.1/32 +S10.0.0.1", "224.0.0.2", 1500, 1500, "Invalid Pim Join/Prune - Upstream Neighbor Address - Write Error"},
      {"NoRoomForHeader", "239.1.1.1/32 +S10.0.0.1", "10.0.0.2", 29, 29, "Invalid Pim Join/Prune - Header - Unavailable Space - Remaining: 9"},
      {"NoRoomForInfo", "239.1.1.1/32 +S10.0.0.1", "10.0.0.2", 33, 33, "Invalid Pim Join/Prune - J/P Info - Unavailable Space - Remaining: 3"},
      {"NoRoomForAGroup", "239.1.1.1/32 +S10.0.0.1", "10.0.0.2", 53, 53, "Invalid Pim Join/Prune - Insufficient MTU Size - Remaining: 19 Minimum Expected: 20"},
      {"OnlySuppressed", "239.1.1.1/32 +S10.0.0.1~", "10.0.0.2", 1500, 1500, "Invalid Pim Join/Prune - Zero Num Groups"},
      {"MulticastSource", "239.1.1.1/32 +S239.0.0.1", "10.0.0.2", 1500, 1500, "Invalid Pim Join/Prune - Joined (S,G) Source Address - Write Error"},
  };
  // clang-format on
  for (const int level : {9, 4}) {
    codecTrace().levelIs(level);
    for (const Case& c : cases) {
      clear();
      auto m = message(false, dataSet(c.data, c.upstream));
      m->mtuIs(c.mtu);
      EXPECT_EQ(m->writeJoinPruneMessage(Nimo::Pkt::create(c.buffer), 0, nullptr), 0u) << c.name;
      ASSERT_FALSE(errors().empty()) << c.name;
      EXPECT_EQ(errors().back(), c.error) << c.name << " at level " << level;
    }
  }
  clear();
  auto none = message(false);
  none->srcIpIs(Nimo::IpGenAddr());
  none->dstIpIs(Nimo::IpGenAddr());
  EXPECT_EQ(none->writeJoinPruneMessage(Nimo::Pkt::create(1500), 0, nullptr), 0u);
  EXPECT_THAT(errors(), ElementsAre("Invalid Pim Join/Prune - Unsupported Address Family - Af: 0"));
}

TEST_F(TraceTest, JoinPruneWriteTracesTheMessageReadBack) {
  auto data = dataSet("239.1.1.1/32 +S10.0.0.1 -*10.9.9.9");
  data->periodicIs(true);
  auto m = message(false, data);
  ASSERT_NE(m->writeJoinPruneMessage(Nimo::Pkt::create(1500), 0, nullptr), 0u);
  EXPECT_THAT(errors(), ElementsAre("Invalid Pim Join/Prune - Periodic (*,G)-Prune"));
  const auto debug = at(4);
  ASSERT_GE(debug.size(), 2u);
  EXPECT_EQ(debug.back(), "Message contains 2 sources.");
  EXPECT_EQ(debug[debug.size() - 2],
            "TX: <PIM version=2 type=3 (Join/Prune) reserved=0 length=42 src=10.0.0.1 "
            "dst=224.0.0.13 | upstream=10.0.0.2, holdtime=210, numGroups=1, groups=[ \n"
            "\tgroup=( address=239.1.1.1/32, flags=0 )\n\t\tjoin=10.0.0.1, (S,G)\n"
            "\t\tprune= 10.9.9.9, (*,G)\n\tGroup 239.1.1.1/32 has 1 joined sources and 1 pruned "
            "sources. ]>");
}

// insertWire leaves a set as inserting the same addresses one by one does: repeats, any
// order, a set already holding entries (one marked), both families, records padded apart,
// flags bytes not kept.
TEST(SourceSet, InsertWireMatchesInsertingOneByOne) {
  for (unsigned seed = 1; seed <= 600; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 gen(seed);
    auto rng = [&](unsigned n) { return static_cast<unsigned>(gen() % n); };
    const bool v6 = seed % 2 == 0;
    const auto af = v6 ? Nimo::AddressFamily::ipv6 : Nimo::AddressFamily::ipv4;
    const std::size_t len = v6 ? 16 : 4, stride = len + 4 + seed % 5;
    auto address = [&](unsigned v, std::uint8_t* out) {  // in both words of an IPv6 one
      std::fill(out, out + len, 0);
      out[v6 ? 7 : 2] = static_cast<std::uint8_t>(v >> 3);
      out[len - 1] = static_cast<std::uint8_t>(v & 7);
    };
    Routing::Pim::SourceSet one, whole;
    std::uint8_t a[16];
    for (unsigned i = rng(3); i > 0; --i) {
      address(rng(24), a);
      one.insert(Nimo::IpGenAddr(af, a));
      whole.insert(Nimo::IpGenAddr(af, a));
    }
    if (!one.empty()) one.suppressedIs(one[0].address(), true);
    if (!whole.empty()) whole.suppressedIs(whole[0].address(), true);
    std::vector<unsigned> values(rng(12));
    for (unsigned& v : values) v = rng(24);
    if (seed % 3 == 1) std::sort(values.begin(), values.end());
    if (seed % 3 == 2) std::sort(values.rbegin(), values.rend());
    Bytes wire(values.size() * stride + 1);
    for (std::size_t i = 0; i < values.size(); ++i) {
      std::uint8_t* r = wire.data() + i * stride;
      const std::uint8_t head[4] = {std::uint8_t(af), 0, std::uint8_t(0x80 | values[i]),
                                    std::uint8_t(len * 8)};
      std::copy(head, head + 4, r);
      address(values[i], r + 4);
      one.insert(Nimo::IpGenAddr(af, r + 4));
    }
    whole.insertWire(af, wire.data(), values.size(), stride);
    EXPECT_EQ(whole, one) << describeSet(whole) << " /" << describeSet(one);
  }
}

// ---------------------------------------------------------------------------------------
// Draining property: random data sets, both families, three MTUs (9000 reaches the
// 255-group limit), many seeds.

struct Entry {
  std::string group;
  char kind;  // R S * r s * (upper case joins)
  std::string source;
  auto operator<=>(const Entry&) const = default;
};

void collect(const JoinPruneData& d, std::set<Entry>& into, bool& twice) {
  for (const auto& [g, gd] : d.joinPruneGroupData()) {
    auto add = [&](char k, const Nimo::IpGenAddr& a) {
      twice |= !into.insert(Entry{g.str(), k, a.str()}).second;
    };
    for (const auto& e : gd.joinedRptSource()) add('R', e.address());
    for (const auto& e : gd.joinedSource()) add('S', e.address());
    if (const auto& wc = gd.wcSourceData()) add(wc->join() ? '*' : '.', wc->rp());
    for (const auto& e : gd.prunedRptSource()) add('r', e.address());
    for (const auto& e : gd.prunedSource()) add('s', e.address());
  }
}

class JoinPruneDrain : public ::testing::TestWithParam<std::tuple<bool, std::uint32_t>> {};

TEST_P(JoinPruneDrain, EveryEntrySentOnceWithinBudget) {
  const auto [v6, mtu] = GetParam();
  auto bnd = boundary({"239.128.0.0/9", "ff3e::8000:0/97"});
  for (unsigned seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    auto pick = [&](unsigned n) { return static_cast<unsigned>(rng() % n); };
    const bool bidir = seed % 3 == 0;
    auto data = dataSet("", v6 ? "fe80::2" : "10.0.0.2");
    std::set<Entry> expected;
    JoinPruneMessage::Report want;  // what the writer must report, summed over its calls
    const unsigned groups = 1 + pick(mtu > 1500 ? 1200 : 300);  // 9000: IPv4 reaches 255
    const unsigned entries = seed % 5 == 0 ? 10000 : pick(mtu > 1500 ? 1500 : 3000);
    for (unsigned g = 0; g < groups; ++g) {
      const unsigned hi = pick(256);  // the boundary filters hi >= 128
      const Nimo::IpGenAddr group = v6 ? Nimo::IpGenAddr(fmt::format("ff3e::{:x}:{:x}", hi << 8, g))
                                       : Nimo::IpGenAddr::v4((239u << 24) | (hi << 16) | g);
      const Nimo::IpGenPrefix prefix(group, v6 ? 128 : 32);
      auto& gd = data->joinPruneGroupDataIs(prefix);
      gd.groupFlagsIs(pick(10) == 0 ? 0x80 : 0);
      const bool drop = bnd->filtered(group) || ((gd.groupFlags() & 0x80) != 0) != bidir;
      auto source = [&](unsigned i) {
        return v6 ? Nimo::IpGenAddr(fmt::format("2001:db8::{:x}:{:x}", g, i + 1))
                  : Nimo::IpGenAddr::v4((10u << 24) | (g << 12) | (i + 1));
      };
      // A source of the other family is dropped as filtered, unless a suppressed join.
      auto account = [&](char kind, const Nimo::IpGenAddr& s, bool suppressed) {
        const bool foreign = (s.af() == Nimo::AddressFamily::ipv6) != v6;
        ++(drop || (foreign && !suppressed) ? want.filtered
           : suppressed                     ? want.suppressed
                                            : want.processed);
        if (!drop && !suppressed && !foreign) expected.insert(Entry{prefix.str(), kind, s.str()});
      };
      const unsigned wc = pick(4);  // none, join, suppressed join, prune
      if (wc != 0) {
        gd.wcSourceDataIs(WcSourceData(source(4095), wc != 3));
        gd.wcSuppressedIs(wc == 2);
        account(wc == 3 ? '.' : '*', source(4095), wc == 2);
      }
      for (unsigned i = 0, n = std::min(4000u, pick(2 * entries / groups + 1)); i < n; ++i) {
        // A (*,G) join carries no (S,G,rpt) joins: the reader would fold them into it.
        const char kind = "SsrR"[pick(wc == 1 || wc == 2 ? 3 : 4)];
        const Nimo::IpGenAddr s = pick(40) != 0 ? source(i)
                                  : v6          ? Nimo::IpGenAddr::v4((10u << 24) | i)
                                                : Nimo::IpGenAddr(fmt::format("2001:db8::{:x}", i));
        kind == 'S'   ? gd.joinedSourceIs(s)
        : kind == 's' ? gd.prunedSourceIs(s)
        : kind == 'r' ? gd.prunedRptSourceIs(s)
                      : gd.joinedRptSourceIs(s);
        const bool sup = (kind == 'S' || kind == 'R') && pick(8) == 0;
        if (sup) gd.joinSuppressSourceIs(s);
        account(kind, s, sup);
      }
    }

    // Drained with tracing off (the writer's bulk path) and, for a third of the seeds,
    // again from a copy with every trace line on (entry by entry): the same bytes.
    const auto traced = seed % 3 == 1 ? Kel::Ptr<JoinPruneData>::make(*data) : nullptr;
    auto m = message(v6, data);
    m->mtuIs(mtu);
    m->bidirIs(bidir);
    std::set<Entry> sent;
    bool twice = false;
    JoinPruneMessage::Report sum;
    std::vector<std::vector<std::uint8_t>> wire;
    for (std::size_t calls = 0, total = data->routes(); !data->empty(); ++calls) {
      ASSERT_LE(calls, total) << "no progress";
      const std::size_t before = data->routes();
      auto p = Nimo::Pkt::create(mtu + 64);
      const std::uint32_t n = m->writeJoinPruneMessage(p, 0, bnd);
      sum.processed += m->report().processed;
      sum.suppressed += m->report().suppressed;
      sum.filtered += m->report().filtered;
      ASSERT_LT(data->routes(), before);
      wire.emplace_back(p->data(0), p->data(0) + n);
      if (n == 0) continue;  // only suppressed or filtered entries were left
      ASSERT_LE(n, mtu - 20);
      ASSERT_EQ(p->size(), n);
      auto rx = message(v6);
      rx->bidirIs(bidir);
      ASSERT_EQ(rx->readJoinPruneMessage(p, 0, nullptr), n);
      // Each group once per message: as many as the count byte says, 255 at most.
      const std::size_t inMessage = rx->joinPruneData()->joinPruneGroupData().size();
      ASSERT_LE(inMessage, 255u);
      ASSERT_EQ(inMessage, p->data(0)[v6 ? 4 + 18 + 1 : 4 + 6 + 1]);
      collect(*rx->joinPruneData(), sent, twice);
    }
    EXPECT_FALSE(twice);
    EXPECT_TRUE(sent == expected) << sent.size() << " sent, " << expected.size() << " expected";
    EXPECT_EQ(sum, want);
    if (traced) {
      Flicklog::CaptureSink sink;
      const int level = codecTrace().level();
      codecTrace().levelIs(9);
      auto t = message(v6, traced);
      t->mtuIs(mtu);
      t->bidirIs(bidir);
      for (std::size_t i = 0; i < wire.size(); ++i) {
        auto p = Nimo::Pkt::create(mtu + 64);
        const std::uint32_t n = t->writeJoinPruneMessage(p, 0, bnd);
        const bool same = std::equal(wire[i].begin(), wire[i].end(), p->data(0), p->data(0) + n);
        EXPECT_TRUE(same) << "message " << i;
        sink.clear();
        if (!same) break;
      }
      codecTrace().levelIs(level);
      EXPECT_TRUE(HasFailure() || traced->empty());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(FamilyMtu, JoinPruneDrain,
                         ::testing::Combine(::testing::Bool(),
                                            ::testing::Values(1500u, 576u, 9000u)),
                         [](const auto& i) {
                           return fmt::format("{}_{}", std::get<0>(i.param) ? "IPv6" : "IPv4",
                                              std::get<1>(i.param));
                         });

}  // namespace
