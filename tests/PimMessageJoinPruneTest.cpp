// Join/Prune reader, draining writer and print form.

#include <fmt/ostream.h>
#include <gmock/gmock.h>

#include <map>
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
using ::testing::IsEmpty;
using Bookmark = JoinPruneData::Bookmark;

// ---------------------------------------------------------------------------------------
// Test vectors, assembled here from the RFC 7761 layout (independently of the codec).

struct Src {
  const char* addr;
  std::uint8_t flags = 0x04;  // S; 0x05 (S,G,rpt), 0x07 (*,G)
  std::uint8_t len = 0;       // 0: host
};
struct Grp {
  const char* prefix;
  std::uint8_t flags;
  std::vector<Src> joins;
  std::vector<Src> prunes;
};

void put(Bytes& b, const Nimo::IpGenAddr& a) {
  b.push_back(static_cast<std::uint8_t>(a.af()));
  b.push_back(0);
}
void putPrefix(Bytes& b, const char* addr, std::uint8_t flags, std::uint8_t len) {
  const Nimo::IpGenAddr a(addr);
  put(b, a);
  b.push_back(flags);
  b.push_back(len ? len : static_cast<std::uint8_t>(a.byteLength() * 8));
  b.insert(b.end(), a.bytes(), a.bytes() + a.byteLength());
}

Bytes encode(bool v6, const char* upstream, const std::vector<Grp>& groups, int numGroups = -1) {
  Bytes b = {0x23, 0, 0, 0};
  const Nimo::IpGenAddr up(upstream);
  put(b, up);
  b.insert(b.end(), up.bytes(), up.bytes() + up.byteLength());
  b.push_back(0);  // reserved
  b.push_back(static_cast<std::uint8_t>(numGroups < 0 ? groups.size() : unsigned(numGroups)));
  b.insert(b.end(), {0x00, 0xd2});  // holdtime 210
  for (const Grp& g : groups) {
    const std::string p(g.prefix);
    const auto slash = p.find('/');
    putPrefix(b, p.substr(0, slash).c_str(), g.flags,
              static_cast<std::uint8_t>(std::stoi(p.substr(slash + 1))));
    for (std::size_t n : {g.joins.size(), g.prunes.size()}) {
      b.insert(b.end(), {static_cast<std::uint8_t>(n >> 8), static_cast<std::uint8_t>(n)});
    }
    for (const auto* list : {&g.joins, &g.prunes}) {
      for (const Src& s : *list) putPrefix(b, s.addr, s.flags, s.len);
    }
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

// A data set in one line, entries in packing order:
//   "<group>[b] +R<rpt join> +S<join> +*<rp> -*<rp> -R<rpt prune> -S<prune>; <group> ..."
// with "~" after a suppressed join.
std::string describe(const JoinPruneData& d) {
  std::string out;
  for (const auto& [g, gd] : d.joinPruneGroupData()) {
    if (!out.empty()) out += "; ";
    out += g.str() + (gd.groupFlags() & 0x80 ? "b" : "");
    auto list = [&](const char* tag, const Routing::Pim::SourceSet& set) {
      for (const auto& e : set)
        out += fmt::format(" {}{}{}", tag, e.address(), e.suppressed() ? "~" : "");
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

// The inverse, for building data sets in tables.
Kel::Ptr<JoinPruneData> dataSet(const std::string& text, const char* upstream = "10.0.0.2") {
  auto d = Kel::Ptr<JoinPruneData>::make();
  d->upstreamNeighborIs(Nimo::IpGenAddr(upstream));
  d->holdTimeIs(210);
  Routing::Pim::JoinPruneGroupData* gd = nullptr;
  std::istringstream in(text);
  for (std::string tok; in >> tok;) {
    if (tok.back() == ';') tok.pop_back();
    if (tok[0] != '+' && tok[0] != '-') {
      const bool bidir = tok.back() == 'b';
      if (bidir) tok.pop_back();
      gd = &d->joinPruneGroupDataIs(Nimo::IpGenPrefix(tok));
      gd->groupFlagsIs(bidir ? 0x80 : 0);
      continue;
    }
    const bool suppressed = tok.back() == '~';
    if (suppressed) tok.pop_back();
    const Nimo::IpGenAddr a(tok.substr(2));
    const bool join = tok[0] == '+';
    switch (tok[1]) {
      case 'R':
        join ? gd->joinedRptSourceIs(a) : gd->prunedRptSourceIs(a);
        break;
      case 'S':
        join ? gd->joinedSourceIs(a) : gd->prunedSourceIs(a);
        break;
      default:
        gd->wcSourceDataIs(WcSourceData(a, join));
        gd->wcSuppressedIs(suppressed);
    }
    if (suppressed) gd->joinSuppressSourceIs(a);
  }
  return d;
}

Kel::Ptr<Routing::Pim::Boundary::IntfBoundary> boundary(std::vector<const char*> prefixes) {
  auto s = Kel::Ptr<Nimo::IntfBoundaryStatus>::make();
  for (const char* p : prefixes) s->groupPrefixIs(Nimo::IpGenPrefix(p));
  return Routing::Pim::Boundary::intfBoundaryFactory(s);
}

// ---------------------------------------------------------------------------------------
// Golden messages: one per family drives both directions.

const std::vector<Grp> kGoldenV4 = {
    {"224.1.1.1/32", 0x00, {{"10.0.0.100", 0x07}}, {{"10.1.1.1", 0x05}, {"10.1.1.2", 0x05}}},
    {"232.1.1.1/32", 0x00, {{"10.2.2.2"}, {"10.2.2.3"}}, {{"10.2.2.4"}}},
    {"239.0.0.0/8", 0x00, {{"10.3.3.3", 0x05}}, {{"10.0.0.101", 0x07}}},
};
const std::vector<Grp> kGoldenV6 = {
    {"ff3e::1/128", 0x00, {{"2001:db8::100", 0x07}}, {{"2001:db8::1:1", 0x05}}},
    {"ff3e::2/128", 0x00, {{"2001:db8::2:2"}}, {{"2001:db8::2:4"}}},
};
constexpr const char* kGoldenV4Text =
    "224.1.1.1/32 +*10.0.0.100 -R10.1.1.1 -R10.1.1.2; 232.1.1.1/32 +S10.2.2.2 +S10.2.2.3 "
    "-S10.2.2.4; 239.0.0.0/8 +R10.3.3.3 -*10.0.0.101";
constexpr const char* kGoldenV6Text =
    "ff3e::1/128 +*2001:db8::100 -R2001:db8::1:1; ff3e::2/128 +S2001:db8::2:2 -S2001:db8::2:4";

class JoinPruneGolden : public TraceTest, public ::testing::WithParamInterface<bool> {};

TEST_P(JoinPruneGolden, ReadsIntoTheDataSetThatWritesTheSameBytes) {
  const bool v6 = GetParam();
  const Bytes golden = encode(v6, v6 ? "fe80::2" : "10.0.0.2", v6 ? kGoldenV6 : kGoldenV4);
  const char* text = v6 ? kGoldenV6Text : kGoldenV4Text;

  auto rx = message(v6);
  ASSERT_EQ(rx->readJoinPruneMessage(pkt(golden), 0, nullptr), golden.size()) << errors()[0];
  EXPECT_EQ(describe(*rx->joinPruneData()), text);
  EXPECT_EQ(rx->joinPruneData()->holdTime(), 210);
  EXPECT_EQ(rx->joinPruneData()->upstreamNeighbor(), Nimo::IpGenAddr(v6 ? "fe80::2" : "10.0.0.2"));
  EXPECT_THAT(warnings(), IsEmpty());

  auto data = dataSet(text, v6 ? "fe80::2" : "10.0.0.2");
  EXPECT_EQ(*data, *rx->joinPruneData());
  auto tx = message(v6, data);
  auto p = Nimo::Pkt::create(1500);
  ASSERT_EQ(tx->writeJoinPruneMessage(p, 0, nullptr), golden.size());
  EXPECT_EQ(toHex(bytesOf(*p, p->size())), toHex(golden));
  EXPECT_TRUE(data->empty());
  EXPECT_EQ(tx->report(), (JoinPruneMessage::Report{v6 ? 4u : 8u, 0, 0}));
}

TEST_P(JoinPruneGolden, EveryTruncationFails) {
  const bool v6 = GetParam();
  const Bytes golden = encode(v6, v6 ? "fe80::2" : "10.0.0.2", v6 ? kGoldenV6 : kGoldenV4);
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
// Reader: contradictions, skips and filters. Each row is one IPv4 message; the data set
// read and the warnings (level 5) it must produce.

struct ReadCase {
  const char* name;
  std::vector<Grp> groups;
  const char* expected;
  std::vector<std::string> warnings;
};

const ReadCase kReadCases[] = {
    {"JoinAndPruneSg",
     {{"239.1.1.1/32", 0, {{"10.0.0.1"}}, {{"10.0.0.1"}}}},
     "239.1.1.1/32 -S10.0.0.1",
     {"Invalid Pim Join/Prune Source - Source 10.0.0.1 is both joined and pruned (S,G) source.  "
      "Only processing  it as a pruned (S,G) source."}},
    {"JoinAndPruneRpt",
     {{"239.1.1.1/32", 0, {{"10.0.0.1", 0x05}}, {{"10.0.0.1", 0x05}}}},
     "239.1.1.1/32 -R10.0.0.1",
     {"Invalid Pim Join/Prune Source - Source 10.0.0.1 is both joined and pruned (S,G,rpt) "
      "source.  Only processing it as a pruned (S,G,rpt) source."}},
    {"SgJoinWinsOverRptPrune",
     {{"239.1.1.1/32", 0, {{"10.0.0.1"}}, {{"10.0.0.1", 0x05}}}},
     "239.1.1.1/32 +S10.0.0.1",
     {"Invalid Pim Join/Prune Source - Source 10.0.0.1 is both joined (S,G) source and pruned "
      "(S,G,rpt) source. Only processing it as a (S,G) source."}},
    {"SecondStarGJoinWins",
     {{"239.1.1.1/32", 0, {{"10.9.9.1", 0x07}, {"10.9.9.2", 0x07}}, {}}},
     "239.1.1.1/32 +*10.9.9.2",
     {"Invalid Pim Join/Prune Source - Received multiple (*,G) join sources. Removing [RP: "
      "10.9.9.1] and using [RP: 10.9.9.2"}},
    {"StarGJoinCoversRptJoinsBeforeAndAfter",
     {{"239.1.1.1/32",
       0,
       {{"10.0.0.1", 0x05}, {"10.9.9.1", 0x07}, {"10.0.0.2", 0x05}, {"10.0.0.3"}},
       {}}},
     "239.1.1.1/32 +S10.0.0.3 +*10.9.9.1",
     {}},
    {"StarGPruneOverridesJoinAndClearsRpt",
     {{"239.1.1.1/32",
       0,
       {{"10.0.0.1", 0x05}, {"10.9.9.1", 0x07}, {"10.0.0.5"}},
       {{"10.0.0.2", 0x05}, {"10.9.9.2", 0x07}, {"10.0.0.3", 0x05}}}},
     "239.1.1.1/32 +S10.0.0.5 -*10.9.9.2",
     {"Invalid Pim Join/Prune Source - Received (*,G) join and prune source. Removing (*,G) join "
      "[RP: 10.9.9.1] and using (*,G) prune [RP: 10.9.9.2"}},
    {"StarGPruneAloneKeepsRptPrunes",
     {{"239.1.1.1/32", 0, {}, {{"10.9.9.2", 0x07}, {"10.0.0.3", 0x05}}}},
     "239.1.1.1/32 -*10.9.9.2 -R10.0.0.3",
     {}},
    {"GroupListedTwicePrunesFirst",
     {{"239.1.1.1/32", 0, {}, {{"10.0.0.1"}, {"10.0.0.2", 0x05}, {"10.0.0.3", 0x05}}},
      {"239.1.1.1/32", 0, {{"10.0.0.1"}, {"10.0.0.2"}, {"10.0.0.3", 0x05}}, {}}},
     "239.1.1.1/32 +S10.0.0.2 -R10.0.0.3 -S10.0.0.1",
     {"Invalid Pim Join/Prune Source - Source 10.0.0.1 is both joined and pruned (S,G) source.  "
      "Only processing  it as a pruned (S,G) source.",
      "Invalid Pim Join/Prune Source - Source 10.0.0.2 is both joined (S,G) source and pruned "
      "(S,G,rpt) source. Only processing it as a (S,G) source.",
      "Invalid Pim Join/Prune Source - Source 10.0.0.3 is both joined and pruned (S,G,rpt) "
      "source.  Only processing it as a pruned (S,G,rpt) source."}},
    {"GroupListedTwiceStarGJoinThenRptJoin",
     {{"239.1.1.1/32", 0, {{"10.9.9.1", 0x07}}, {}},
      {"239.1.1.1/32", 0, {{"10.0.0.1", 0x05}}, {{"10.9.9.2", 0x07}}}},
     "239.1.1.1/32 -*10.9.9.2",
     {"Invalid Pim Join/Prune Source - Received (*,G) join and prune source. Removing (*,G) join "
      "[RP: 10.9.9.1] and using (*,G) prune [RP: 10.9.9.2"}},
    {"DuplicatesAndUnsortedCollapse",
     {{"239.1.1.1/32", 0, {{"10.0.0.9"}, {"10.0.0.1"}, {"10.0.0.9"}, {"10.0.0.5"}}, {}}},
     "239.1.1.1/32 +S10.0.0.1 +S10.0.0.5 +S10.0.0.9",
     {}},
    {"InvalidSourcesSkipped",
     {{"239.1.1.1/32",
       0,
       {{"10.0.0.0", 0x04, 24}, {"0.0.0.0"}, {"10.0.0.1"}},
       {{"239.9.9.9"}, {"2001:db8::1"}}}},
     "239.1.1.1/32 +S10.0.0.1",
     {"Warning: Pim Join/Prune - Joined Source Address - Skipping Invalid Address: 10.0.0.0/24",
      "Warning: Pim Join/Prune - Joined Source Address - Skipping Invalid Address: 0.0.0.0/32",
      "Warning: Pim Join/Prune - Pruned Source Address - Skipping Invalid Address: 239.9.9.9/32",
      "Warning: Pim Join/Prune - Source Address - Mismatch in Address Family: 2"}},
    {"InvalidAndForeignGroupsSkipped",
     {{"10.1.1.1/32", 0, {{"10.0.0.1"}}, {}},
      {"ff3e::1/128", 0, {{"2001:db8::1"}}, {}},
      {"239.1.1.1/32", 0, {{"10.0.0.2"}}, {}}},
     "239.1.1.1/32 +S10.0.0.2",
     {"Warning: Pim Join/Prune - Group Address - Skipping Invalid Prefix: 10.1.1.1/32",
      "Warning: Pim Join/Prune - Group Address - Mismatch in Address Family: 2"}},
    {"BoundaryFiltersGroup",
     {{"239.255.1.1/32", 0, {{"10.0.0.1"}, {"10.0.0.2"}}, {{"10.0.0.3"}}},
      {"232.1.1.1/32", 0, {{"10.0.0.1"}}, {}}},
     "232.1.1.1/32 +S10.0.0.1",
     {"Filtered: Pim Join/Prune - Multicast Boundary - Filtered Group Address: 239.255.1.1/32"}},
    {"BidirGroupFilteredBySparseMessage",
     {{"239.1.1.1/32", 0x80, {{"10.0.0.1"}}, {}}, {"239.1.1.2/32", 0, {{"10.0.0.1"}}, {}}},
     "239.1.1.2/32 +S10.0.0.1",
     {"Pim Join/Prune - Bidirectional Filter - Filtered Group Address: 239.1.1.1/32 "
      "Bidirectional: 1 Msg Bidirectional Support: 0"}},
    {"GroupLeftEmptyIsRemoved",
     {{"239.1.1.1/32", 0, {{"0.0.0.0"}}, {}}, {"239.1.1.2/32", 0, {{"10.0.0.1"}}, {}}},
     "239.1.1.2/32 +S10.0.0.1",
     {"Warning: Pim Join/Prune - Joined Source Address - Skipping Invalid Address: 0.0.0.0/32",
      "Invalid Pim Join/Prune - Zero Num Sources In Group 239.1.1.1/32"}},
};

class JoinPruneRead : public TraceTest, public ::testing::WithParamInterface<ReadCase> {};

TEST_P(JoinPruneRead, ResolvesAsWritten) {
  const ReadCase& c = GetParam();
  const Bytes b = encode(false, "10.0.0.2", c.groups);
  auto m = message(false);
  ASSERT_EQ(m->readJoinPruneMessage(pkt(b), 0, boundary({"239.255.0.0/16"})), b.size())
      << ::testing::PrintToString(errors());
  EXPECT_EQ(describe(*m->joinPruneData()), c.expected);
  EXPECT_THAT(warnings(), ElementsAreArray(c.warnings));
}

INSTANTIATE_TEST_SUITE_P(Rules, JoinPruneRead, ::testing::ValuesIn(kReadCases),
                         [](const auto& i) { return std::string(i.param.name); });

TEST_F(TraceTest, JoinPruneReadCountsFilteredEntries) {
  const Bytes b = encode(false, "10.0.0.2",
                         {{"239.255.1.1/32", 0, {{"10.0.0.1"}, {"10.0.0.2"}}, {{"10.0.0.3"}}},
                          {"239.1.1.1/32", 0, {{"10.0.0.1", 0x05}}, {}},
                          {"232.1.1.1/32", 0x80, {{"10.0.0.1"}}, {{"10.0.0.4"}}}});
  auto m = message(false);
  m->bidirIs(true);
  ASSERT_EQ(m->readJoinPruneMessage(pkt(b), 0, boundary({"239.255.0.0/16"})), b.size());
  EXPECT_EQ(describe(*m->joinPruneData()), "232.1.1.1/32b +S10.0.0.1 -S10.0.0.4");
  EXPECT_EQ(m->report(), (JoinPruneMessage::Report{2, 0, 4}));
  EXPECT_EQ(m->report().skipped(), 4u);
}

// Messages the reader refuses, each with its one error line.
struct FailCase {
  const char* name;
  Bytes bytes;
  const char* error;
};

Bytes withoutChecksum(Bytes b) { return withChecksum(std::move(b), kV4Src, kV4Dst); }
Bytes tail(Bytes b, std::initializer_list<std::uint8_t> more) {
  b.insert(b.end(), more);
  return withoutChecksum(b);
}

TEST_F(TraceTest, JoinPruneReadFailures) {
  const Grp one{"239.1.1.1/32", 0, {{"10.0.0.1"}}, {}};
  const FailCase cases[] = {
      {"BadChecksum", hex("23 00 00 01"), "Invalid Pim Join/Prune - Header - Parse Error"},
      {"NoUpstream", withoutChecksum(hex("23 00 00 00 01")),
       "Invalid Pim Join/Prune - Upstream Neighbor Address - Parse Error"},
      {"UpstreamV6", encode(false, "2001:db8::1", {one}),
       "Invalid Pim Join/Prune - Upstream Neighbor Address - Invalid Family - Family: 2"},
      {"UpstreamMulticast", encode(false, "224.0.0.1", {one}),
       "Invalid Pim Join/Prune - Upstream Neighbor Address - Invalid Address: 224.0.0.1"},
      {"NoJpInfo", withoutChecksum(hex("23 00 00 00 01 00 0a 00 00 02 00 01 00")),
       "Invalid Pim Join/Prune - J/P Info Length - Remaining: 3"},
      {"NoSourceCounts",
       withoutChecksum(hex("23 00 00 00 01 00 0a 00 00 02 00 01 00 d2 01 00 00 20 ef 01 01 01 00")),
       "Invalid Pim Join/Prune - Number of Sources - Remaining: 1"},
      {"GroupMissing", encode(false, "10.0.0.2", {{"239.1.1.1/32", 0, {}, {{"10.0.0.1"}}}}, 2),
       "Invalid Pim Join/Prune - Group Address - Parse Error"},
      {"WcWithoutRpt", encode(false, "10.0.0.2", {{"239.1.1.1/32", 0, {{"10.0.0.1", 0x06}}, {}}}),
       "Invalid Pim Join/Prune - WC set, RPT cleared"},
      {"PrunedWcWithoutRpt",
       encode(false, "10.0.0.2", {{"239.1.1.1/32", 0, {}, {{"10.0.0.1", 0x02}}}}),
       "Invalid Pim Join/Prune - WC set, RPT cleared"},
      {"BytesAfterLastGroup", tail(encode(false, "10.0.0.2", {one}), {0, 0}),
       "Invalid Pim Join/Prune - End of Message - Remaining: 2"},
      {"NoGroups", encode(false, "10.0.0.2", {}), "Invalid Pim Join/Prune - Zero Valid Num Groups"},
      {"OnlyFilteredGroups",
       encode(false, "10.0.0.2", {{"239.1.1.1/32", 0x80, {{"10.0.0.1"}}, {}}}),
       "Invalid Pim Join/Prune - Zero Valid Num Groups"},
  };
  for (const FailCase& c : cases) {
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

std::string sgJoins(const char* group, unsigned first, unsigned count) {
  std::string s = group;
  for (unsigned i = first; i < first + count; ++i)
    s += fmt::format(" +S10.0.{}.{}", i / 250, i % 250 + 1);
  return s;
}

TEST_F(TraceTest, JoinPruneWriteStarGJoinAfter254SgJoinsIsNotLost) {
  auto data = dataSet(sgJoins("239.1.1.1/32", 0, 254) + " +*10.9.9.9");
  auto m = message(false);
  // 1480 bytes: 14 of header, 12 of group header, room for 181 sources.
  EXPECT_THAT(drain(*m, data), ElementsAre(sgJoins("239.1.1.1/32", 0, 181),
                                           sgJoins("239.1.1.1/32", 181, 73) + " +*10.9.9.9"));
}

TEST_F(TraceTest, JoinPruneWriteGroupLargerThanAMessageContinues) {
  // 300 joins and 100 prunes in one group; then a second group.
  std::string text = sgJoins("239.1.1.1/32", 0, 300);
  for (unsigned i = 0; i < 100; ++i) text += fmt::format(" -S10.1.0.{}", i + 1);
  text += "; 239.1.1.2/32 -R10.2.0.1";
  auto data = dataSet(text);
  auto m = message(false);
  m->mtuIs(576);  // 556 bytes: 66 sources in the first message
  const auto msgs = drain(*m, data);
  ASSERT_EQ(msgs.size(), 7u);
  std::size_t entries = 0;  // each entry is one '+' or '-'
  for (const auto& s : msgs)
    entries += static_cast<std::size_t>(
        std::count_if(s.begin(), s.end(), [](char ch) { return ch == '+' || ch == '-'; }));
  EXPECT_EQ(entries, 401u);
  EXPECT_EQ(msgs[0], sgJoins("239.1.1.1/32", 0, 66));
  EXPECT_TRUE(msgs.back().ends_with("; 239.1.1.2/32 -R10.2.0.1")) << msgs.back();
}

TEST_F(TraceTest, JoinPruneWriteClosesAt255Groups) {
  std::string text;
  for (unsigned i = 0; i < 256; ++i)
    text += fmt::format("239.2.{}.{}/32 +S10.0.0.1; ", i / 200, i % 200);
  auto data = dataSet(text);
  auto m = message(false, data);
  m->mtuIs(9000);
  auto p = Nimo::Pkt::create(9000);
  const std::uint32_t n = m->writeJoinPruneMessage(p, 0, nullptr);
  ASSERT_EQ(n, 4u + 6 + 4 + 255 * 20) << ::testing::PrintToString(errors());
  EXPECT_EQ(p->data(0)[11], 255);
  EXPECT_EQ(describe(*data), "239.2.1.55/32 +S10.0.0.1");
  ASSERT_TRUE(data->bookmark());
  EXPECT_EQ(data->bookmark()->group(), Nimo::IpGenPrefix("239.2.1.55/32"));
  EXPECT_EQ(m->writeJoinPruneMessage(Nimo::Pkt::create(9000), 0, nullptr), 4u + 6 + 4 + 20);
  EXPECT_TRUE(data->empty());
}

TEST_F(TraceTest, JoinPruneWriteBookmarkResumesAndIsDeleted) {
  auto data = dataSet(sgJoins("239.1.1.1/32", 0, 200) + "; 239.1.1.2/32 +S10.5.0.1");
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

TEST_F(TraceTest, JoinPruneWriteBookmarkOfOtherFamilyIsIgnoredAndDeleted) {
  auto data = dataSet("239.1.1.1/32 +S10.0.0.1 +S10.0.0.2");
  data->bookmarkIs(Bookmark(Nimo::IpGenPrefix("ff3e::1/128"), Nimo::IpGenAddr("2001:db8::1"),
                            Bookmark::Collection::Sg, Bookmark::Type::Join));
  auto m = message(false, data);
  ASSERT_NE(m->writeJoinPruneMessage(Nimo::Pkt::create(1500), 0, nullptr), 0u);
  EXPECT_FALSE(data->bookmark());
  EXPECT_TRUE(data->empty());
  EXPECT_THAT(warnings(), ElementsAre("Invalid bookmark in Pim Join/Prune - Group Address Family: "
                                      "2 - Ignoring and Deleting Bookmark"));
}

TEST(JoinPruneWriteDeath, BookmarkOfUnknownCollectionIsAProgrammingError) {
  auto data = dataSet("239.1.1.1/32 +S10.0.0.1");
  data->bookmarkIs(Bookmark(Nimo::IpGenPrefix("239.1.1.1/32"), Nimo::IpGenAddr("10.0.0.1"),
                            Bookmark::Collection::Unknown, Bookmark::Type::Join));
  auto m = message(false, data);
  EXPECT_DEATH(m->writeJoinPruneMessage(Nimo::Pkt::create(1500), 0, nullptr),
               "Invalid bookmark collection");
}

TEST_F(TraceTest, JoinPruneWriteSuppressionAndFilters) {
  auto data = dataSet(
      "239.1.1.1/32 +S10.0.0.1~ +*10.9.9.9~; 239.1.1.2/32 +S10.0.0.1~ +S10.0.0.2 -S10.0.0.3; "
      "239.255.0.1/32 +S10.0.0.1 -S10.0.0.2; 239.1.1.3/32b +S10.0.0.1");
  auto m = message(false);
  EXPECT_THAT(drain(*m, data, boundary({"239.255.0.0/16"})),
              ElementsAre("239.1.1.2/32 +S10.0.0.2 -S10.0.0.3"));
  EXPECT_EQ(m->report(), (JoinPruneMessage::Report{2, 3, 3}));
  EXPECT_THAT(warnings(),
              ElementsAre("Pim Join/Prune - Zero Num Sources In Group 239.1.1.1/32 - Probably Due "
                          "to Suppressed Joins",
                          "Pim Join/Prune - Bidirectional Filter - Filtered Group Address: "
                          "239.1.1.3/32 Bidirectional: 1 Msg Bidirectional Support: 0",
                          "Pim Join/Prune - Multicast Boundary - Filtered Group Address: "
                          "239.255.0.1/32"));
}

// Writes the writer refuses, each with its one error line.
TEST_F(TraceTest, JoinPruneWriteFailures) {
  struct Case {
    const char* name;
    const char* data;
    const char* upstream;
    std::uint32_t mtu;
    std::uint32_t buffer;
    const char* error;
  };
  const Case cases[] = {
      {"BufferBelowMtu", "239.1.1.1/32 +S10.0.0.1", "10.0.0.2", 1500, 1479,
       "Invalid Pim Join/Prune - MTU is bigger than buffer - MTU: 1480 Buffer: 1479"},
      {"UpstreamOtherFamily", "239.1.1.1/32 +S10.0.0.1", "fe80::2", 1500, 1500,
       "Invalid Pim Join/Prune - Invalid Family - Family: 2 Upstream Address: fe80::2"},
      {"UpstreamMulticast", "239.1.1.1/32 +S10.0.0.1", "224.0.0.2", 1500, 1500,
       "Invalid Pim Join/Prune - Upstream Neighbor Address - Write Error"},
      {"NoRoomForHeader", "239.1.1.1/32 +S10.0.0.1", "10.0.0.2", 29, 29,
       "Invalid Pim Join/Prune - Header - Unavailable Space - Remaining: 9"},
      {"NoRoomForInfo", "239.1.1.1/32 +S10.0.0.1", "10.0.0.2", 33, 33,
       "Invalid Pim Join/Prune - J/P Info - Unavailable Space - Remaining: 3"},
      {"NoRoomForAGroup", "239.1.1.1/32 +S10.0.0.1", "10.0.0.2", 53, 53,
       "Invalid Pim Join/Prune - Insufficient MTU Size - Remaining: 19 Minimum Expected: 20"},
      {"OnlySuppressed", "239.1.1.1/32 +S10.0.0.1~", "10.0.0.2", 1500, 1500,
       "Invalid Pim Join/Prune - Zero Num Groups"},
      {"MulticastSource", "239.1.1.1/32 +S239.0.0.1", "10.0.0.2", 1500, 1500,
       "Invalid Pim Join/Prune - Joined (S,G) Source Address - Write Error"},
  };
  for (const Case& c : cases) {
    clear();
    auto m = message(false, dataSet(c.data, c.upstream));
    m->mtuIs(c.mtu);
    EXPECT_EQ(m->writeJoinPruneMessage(Nimo::Pkt::create(c.buffer), 0, nullptr), 0u) << c.name;
    ASSERT_FALSE(errors().empty()) << c.name;
    EXPECT_EQ(errors().back(), c.error) << c.name;
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

// ---------------------------------------------------------------------------------------
// Draining property: random data sets, both families, two MTUs, many seeds.

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
  const std::uint32_t budget = mtu - 20;
  auto bnd = boundary({"239.128.0.0/9", "ff3e::8000:0/97"});
  for (unsigned seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    auto pick = [&](unsigned n) { return static_cast<unsigned>(rng() % n); };
    const bool bidir = seed % 3 == 0;
    auto data = Kel::Ptr<JoinPruneData>::make();
    data->upstreamNeighborIs(Nimo::IpGenAddr(v6 ? "fe80::2" : "10.0.0.2"));
    data->holdTimeIs(210);
    std::set<Entry> expected;
    std::uint32_t suppressed = 0, filtered = 0, total = 0;
    const unsigned groups = 1 + pick(300);
    const unsigned entries = seed % 5 == 0 ? 10000 : pick(3000);
    for (unsigned g = 0; g < groups; ++g) {
      // The boundary filters about half: hi >= 128.
      const unsigned hi = pick(256);
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
      const unsigned wc = pick(4);  // 0 none, 1 join, 2 suppressed join, 3 prune
      if (wc != 0) {
        gd.wcSourceDataIs(WcSourceData(source(4095), wc != 3));
        gd.wcSuppressedIs(wc == 2);
        ++total;
        if (drop) {
          ++filtered;
        } else if (wc == 2) {
          ++suppressed;
        } else {
          expected.insert(Entry{prefix.str(), wc == 1 ? '*' : '.', source(4095).str()});
        }
      }
      const unsigned n = std::min(4000u, pick(2 * entries / groups + 1));
      for (unsigned i = 0; i < n; ++i) {
        // A (*,G) join carries no (S,G,rpt) joins: the reader would fold them into it.
        const char kind = "SsrR"[pick(wc == 1 || wc == 2 ? 3 : 4)];
        const Nimo::IpGenAddr s = source(i);
        const bool sup = (kind == 'S' || kind == 'R') && pick(8) == 0;
        if (kind == 'S') gd.joinedSourceIs(s);
        if (kind == 's') gd.prunedSourceIs(s);
        if (kind == 'r') gd.prunedRptSourceIs(s);
        if (kind == 'R') gd.joinedRptSourceIs(s);
        if (sup) gd.joinSuppressSourceIs(s);
        ++total;
        if (drop) {
          ++filtered;
        } else if (sup) {
          ++suppressed;
        } else {
          expected.insert(Entry{prefix.str(), kind, s.str()});
        }
      }
    }
    ASSERT_EQ(data->routes(), total);

    auto m = message(v6, data);
    m->mtuIs(mtu);
    m->bidirIs(bidir);
    std::set<Entry> sent;
    bool twice = false;
    JoinPruneMessage::Report sum;
    for (unsigned calls = 0; !data->empty(); ++calls) {
      ASSERT_LT(calls, total + 2) << "no progress";
      const std::size_t before = data->routes();
      auto p = Nimo::Pkt::create(mtu + 64);
      const std::uint32_t n = m->writeJoinPruneMessage(p, 0, bnd);
      sum.processed += m->report().processed;
      sum.suppressed += m->report().suppressed;
      sum.filtered += m->report().filtered;
      ASSERT_LT(data->routes(), before);
      if (n == 0) continue;  // only suppressed or filtered entries were left
      ASSERT_LE(n, budget);
      ASSERT_EQ(p->size(), n);
      const std::uint32_t groupCountAt = v6 ? 4 + 18 + 1 : 4 + 6 + 1;
      ASSERT_LE(p->data(0)[groupCountAt], 255);
      auto rx = message(v6);
      rx->bidirIs(bidir);
      ASSERT_EQ(rx->readJoinPruneMessage(p, 0, nullptr), n);
      collect(*rx->joinPruneData(), sent, twice);
    }
    EXPECT_FALSE(twice);
    EXPECT_TRUE(sent == expected) << sent.size() << " sent, " << expected.size() << " expected";
    EXPECT_EQ(sum, (JoinPruneMessage::Report{static_cast<std::uint32_t>(expected.size()),
                                             suppressed, filtered}));
  }
}

INSTANTIATE_TEST_SUITE_P(FamilyMtu, JoinPruneDrain,
                         ::testing::Combine(::testing::Bool(), ::testing::Values(1500u, 576u)),
                         [](const auto& i) {
                           return fmt::format("{}_{}", std::get<0>(i.param) ? "IPv6" : "IPv4",
                                              std::get<1>(i.param));
                         });

}  // namespace
