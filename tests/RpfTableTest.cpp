// RpfTable over next-hop tracking: the RIB order and its traces in both families, bad status
// and FEC input, validRpf, and agreement with the trie engine (PimRpfTable) on the same
// routes. Routes go into real shared-memory RIB tables; resolvers publish the status.
#include <gtest/gtest.h>

#include <random>

#include "Pim/RpfTable.h"
#include "tests/RpfAgentUtil.h"
#include "tests/RpfTestUtil.h"

namespace {

using Nimo::IntfId;
using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
using namespace Routing::Pim;
constexpr auto kV4 = Nimo::AddressFamily::ipv4;
constexpr auto kV6 = Nimo::AddressFamily::ipv6;

// One family's RIBs as written, as the trie engine reads them, and as resolved.
template <Nimo::AddressFamily F>
struct Ribs {
  using Writer = Routing::RouteWriterGen<F>;
  using Shadow = Routing::Shadow::StatusGen<F>;
  Kel::Ptr<Routing::FecWriterGen<F>> fec;
  Kel::Ptr<Writer> urib, mrib;
  Kel::Ptr<Shadow> uribShadow, mribShadow;
  Kel::Ptr<Routing::NexthopResolverGen<F>> uribNht, mribNht;

  Ribs(Ulm::EventLoop& loop, const Kel::Ptr<Kel::Clock>& clock) {
    const std::string p = Routing::ribMountPath(F, "default");
    fec = Routing::FecWriterGen<F>::create(p, "fec", 1 << 14, clock);
    urib = Writer::create(p, "urib", fec, 1 << 14);
    mrib = Writer::create(p, "mrib", fec, 1 << 14);
    commit();
    uribShadow = Shadow::create(loop, p, "urib");
    mribShadow = Shadow::create(loop, p, "mrib");
    uribNht = Routing::NexthopResolverGen<F>::create(
        loop.timers(), uribShadow->trie(),
        Routing::NexthopVrfStatusWriter::create(F, "default", "unicast"));
    mribNht = Routing::NexthopResolverGen<F>::create(
        loop.timers(), mribShadow->trie(),
        Routing::NexthopVrfStatusWriter::create(F, "default", "multicast"));
  }
  bool resyncing() const { return uribShadow->resyncing() || mribShadow->resyncing(); }
  void commit() {
    urib->commit();
    mrib->commit();
  }
  void track(const IpGenAddr& a) {
    uribNht->trackIs(a);
    mribNht->trackIs(a);
  }
  RibInfoGen<::Drobe::ForwardingStatusGen<F>> info(Ulm::EventLoop& loop, const char* rib,
                                                   const char* nht) {
    return {Routing::NexthopVrfStatus::create(loop, F, "default", nht),
            ::Drobe::ForwardingStatusGen<F>::create(loop, "default", rib)};
  }
};

class RpfTableTest : public ::testing::Test {
 public:
  void turnForTest() { turn(); }
  const Kel::Ptr<RpfTable>& table() const { return table_; }

 protected:
  void SetUp() override {
    ucast_->uribIs(v4_.info(loop_, "urib", "unicast"));
    ucast_->mribIs(v4_.info(loop_, "mrib", "multicast"));
    ucast_->urib6Is(v6_.info(loop_, "urib", "unicast"));
    ucast_->mrib6Is(v6_.info(loop_, "mrib", "multicast"));
    PimTest::rpfInterfacesIs(*status_);
    table_ = rpfTableFactory(ucast_, status_, mfib_, nullptr, nullptr);
    turn();
  }
  void TearDown() override {
    for (const char* f : {"RpfTable", "PimRpfTable"}) Flicklog::facility(f).levelIs(0);
  }
  void traceOn() {
    for (const char* f : {"RpfTable", "PimRpfTable"}) Flicklog::facility(f).levelIs(8);
    capture_.clear();
  }
  // Until every shadow has finished its sliced load or resync (bounded), then the commits.
  void turn() {
    for (int i = 0; i < 6; ++i) loop_.runOnce(0.0);  // the notices start the resyncs
    for (int i = 0; i < 100000 && (v4_.resyncing() || v6_.resyncing()); ++i) loop_.runOnce(0.0);
    for (int i = 0; i < 6; ++i) loop_.runOnce(0.0);
  }
  // "<rib> <route line>" per line, replacing what the previous call loaded.
  void routesAre(const std::string& text) {
    ribText_.load(
        text,
        [&](const std::string& rib) { return rib == "urib" ? v4_.urib.ptr() : v4_.mrib.ptr(); },
        [&](const std::string& rib) { return rib == "urib" ? v6_.urib.ptr() : v6_.mrib.ptr(); });
    v4_.commit();
    v6_.commit();
    turn();
  }
  void track(const IpGenAddr& a) {
    if (a.af() == kV4) {
      v4_.track(a);
    } else {
      v6_.track(a);
    }
    turn();
  }
  bool traced(std::string_view text) const { return PimTest::traced(capture_, text); }

  PimTest::DrobeRoot root_;
  Kel::Ptr<Kel::ManualClock> clock_ = Kel::Ptr<Kel::ManualClock>::make();
  Ulm::EventLoop loop_{clock_};
  Ribs<kV4> v4_{loop_, clock_};
  Ribs<kV6> v6_{loop_, clock_};
  PimTest::RibText ribText_;
  Kel::Ptr<UcastRouteStatus> ucast_ = Kel::Ptr<UcastRouteStatus>::make(kV4);
  Kel::Ptr<Routing::Pim::Status> status_ = Kel::Ptr<Routing::Pim::Status>::make("pim");
  Kel::Ptr<Routing::Multicast::Fib::Config> mfib_ =
      Kel::Ptr<Routing::Multicast::Fib::Config>::make("mfib");
  Kel::Ptr<RpfTable> table_;
  Flicklog::CaptureSink capture_;
};

struct Case {
  const char* name;
  const char* routes;
  const char* target;
  // Expected: interface ("" for empty), neighbour, RIB, backup interface, traces in order of
  // importance (each must appear).
  const char* intf;
  const char* neighbor;
  RpfRib rib;
  const char* frrIntf;
  std::vector<const char*> traces;
};

// clang-format off
const Case kCases[] = {
    {"both RIBs: the multicast answer, M",
     "urib 10.5.0.0/16 2 0 0 10.0.1.2@eth1\nmrib 10.5.0.0/16 2 0 0 10.0.2.2@eth2", "10.5.0.1",
     "eth2", "10.0.2.2", RpfRib::M, "", {": rpf "}},
    {"unicast only: U", "urib 10.5.0.0/16 2 0 0 10.0.1.2@eth1", "10.5.0.1", "eth1", "10.0.1.2",
     RpfRib::U, "", {"doLookup4(), Source: 10.5.0.1, Group: 232.1.1.1, No route found in mrib", ": rpf "}},
    {"multicast vias all invalid: the unicast answer",
     "urib 10.5.0.0/16 2 0 0 10.0.1.2@eth1\nmrib 10.5.0.0/16 2 0 0 10.0.2.9@eth2 10.0.3.2@eth3",
     "10.5.0.1", "eth1", "10.0.1.2", RpfRib::U, "", {" is not a valid via.", ": No valid RPF information found "}},
    {"neither RIB", "urib 10.6.0.0/16 2 0 0 10.0.1.2@eth1", "10.5.0.1", "", "", RpfRib::none, "",
     {"No route found in mrib", "No route found in urib"}},
    {"attached: no backup", "urib 10.0.1.0/24 5 0 0 10.0.1.1@eth1", "10.0.1.9", "eth1", "10.0.1.9",
     RpfRib::U, "", {": No need for rpfFrr if rpfAttached "}},
    {"backup on the other interface", "mrib 10.5.0.0/16 2 0 0 10.0.1.2@eth1 10.0.1.3@eth1 10.0.2.2@eth2",
     "10.5.0.1", "eth1", "10.0.1.3", RpfRib::M, "eth2", {": rpfFrr "}},
    {"IPv6: the multicast RIB is used",
     "urib 2001:db8::/32 2 0 0 fe80::1@eth6\nmrib 2001:db8::/48 2 0 0 fe80::2@eth7", "2001:db8::1",
     "eth7", "fe80::2", RpfRib::M, "", {": rpf "}},
    {"IPv6 unicast only: U", "urib 2001:db8::/32 2 0 0 fe80::1@eth6", "2001:db8::1", "eth6", "fe80::1",
     RpfRib::U, "", {"doLookup6(), Source: 2001:db8::1, Group: ff3e::1, No route found in mrib6"}},
    {"IPv6 multicast vias invalid: unicast",
     "urib 2001:db8::/32 2 0 0 fe80::1@eth6\nmrib 2001:db8::/48 2 0 0 fe80::9@eth7", "2001:db8::1",
     "eth6", "fe80::1", RpfRib::U, "", {": No valid RPF information found "}},
};
// clang-format on

TEST_F(RpfTableTest, RibOrderAndTraces) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    const IpGenAddr target(c.target);
    const IpGenAddr group(target.af() == kV4 ? "232.1.1.1" : "ff3e::1");
    track(target);
    routesAre(c.routes);
    traceOn();
    const RpfInfo info = table_->doLookup(target, group);
    for (const char* t : c.traces) EXPECT_TRUE(traced(t)) << t;
    EXPECT_EQ(info.rpf.rpfIntf, IntfId(c.intf)) << info;
    if (!*c.intf) continue;
    EXPECT_EQ(info.rpf.rpfNeighbor, IpGenAddr(c.neighbor));
    EXPECT_EQ(info.rpf.rib, c.rib);
    EXPECT_EQ(info.rpf.target, target);
    EXPECT_EQ(info.rpfFrr.rpfIntf, IntfId(c.frrIntf));
  }
}

// The status of a RIB written by hand: entries the resolver would never write.
TEST_F(RpfTableTest, BadStatusAndFecInputFallsBackOrEmpties) {
  auto bad = Routing::NexthopVrfStatusWriter::create(kV4, "bad", "multicast");
  ucast_->mribIs(RibInfo(Routing::NexthopVrfStatus::create(loop_, kV4, "bad", "multicast"),
                         ucast_->mrib().forwardingStatus));
  std::vector<Routing::Fib::Via> many;
  for (std::uint32_t i = 0; i < 513; ++i) many.push_back({IpGenAddr::v4(0x0b000000u + i), {}});
  many[0].intfId = IntfId("eth1");
  ASSERT_TRUE(
      v4_.mrib->routeIs(IpGenPrefix("10.9.0.0/16"), Routing::Fib::RouteType::remote, 0, 0, many));
  routesAre("urib 10.5.0.0/16 2 0 0 10.0.1.2@eth1\nmrib 10.8.0.0/16 2 0 0 10.0.2.2@eth99");
  const std::uint32_t bigFec = v4_.mrib->table().find(IpGenPrefix("10.9.0.0/16"))->fecId;
  const std::uint32_t unknownIntfFec = v4_.mrib->table().find(IpGenPrefix("10.8.0.0/16"))->fecId;
  auto entry = [](const char* addr, const char* prefix, std::uint32_t fec) {
    Routing::NexthopStatusEntry e;
    e.addr = IpGenAddr(addr);
    e.prefix = IpGenPrefix(prefix);
    e.fecId = fec;
    e.routeType = 2;
    return e;
  };
  struct {
    const char* name;
    Routing::NexthopStatusEntry e;
    bool unicastAnswer;
    const char* trace;
  } const kRows[] = {
      {"FEC not in the forwarding status", entry("10.5.0.1", "10.5.0.0/16", 0xdead), true,
       ": FEC missing from its table: "},
      {"entry of the other family", entry("10.5.0.2", "2001:db8::/32", unknownIntfFec), true,
       ": status entry of another family or prefix: 2001:db8::/32"},
      {"entry that does not cover its address", entry("10.5.0.3", "10.8.0.0/16", unknownIntfFec),
       true, ": status entry of another family or prefix: "},
      {"via on an unknown interface", entry("10.5.0.4", "10.5.0.0/16", unknownIntfFec), true,
       " is not a valid via."},
      {"513 vias: the range error, an empty answer", entry("10.5.0.5", "10.5.0.0/16", bigFec),
       false, "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed"},
  };
  for (const auto& r : kRows) bad->entryIs(r.e);
  bad->syncedIs(true);
  bad->commit();
  turn();
  for (const auto& r : kRows) {
    SCOPED_TRACE(r.name);
    track(r.e.addr);
    traceOn();
    const RpfInfo info = table_->doLookup(r.e.addr, IpGenAddr("232.1.1.1"));
    EXPECT_TRUE(traced(r.trace)) << r.trace;
    EXPECT_EQ(info.rpf.rib, r.unicastAnswer ? RpfRib::U : RpfRib::none) << info;
  }
  EXPECT_EQ(table_->fecErrors(), 1u);
  EXPECT_TRUE(traced("PodArray::set expected size <= 512, got 513"));
  // A missing RibInfo is a RIB without routes.
  ucast_->mribIs(RibInfo());
  EXPECT_EQ(table_->doLookup(IpGenAddr("10.5.0.5"), IpGenAddr("232.1.1.1")).rpf.rib, RpfRib::U);
  // An unknown family is empty.
  EXPECT_TRUE(!table_->doLookup(IpGenAddr(), IpGenAddr()));
}

TEST_F(RpfTableTest, ValidRpfFollowsTheResolution) {
  const IpGenAddr s("10.5.0.1"), g("232.1.1.1");
  track(s);
  routesAre("urib 10.5.0.0/16 2 0 0 10.0.1.2@eth1 10.0.2.2@eth2");
  const RpfInfo u = table_->doLookup(s, g);
  ASSERT_EQ(u.rpf.rib, RpfRib::U);
  EXPECT_TRUE(table_->validRpf(u.rpf, s));
  struct {
    const char* name;
    const char* routes;
    bool valid;
    const char* trace;
  } const kSteps[] = {
      {"another member withdrawn: the held one stays", "urib 10.5.0.0/16 2 0 0 %s", true, ""},
      {"a longer prefix resolves it", "urib 10.5.0.0/16 2 0 0 %s\nurib 10.5.0.0/24 2 0 0 %s", false,
       "Incorrect rpf prefix. Returning"},
      {"the held via withdrawn", "urib 10.5.0.0/16 2 0 0 10.0.1.3@eth1", false,
       ", RPF invalid, no valid via towards the neighbour"},
      {"the multicast RIB now answers", "urib 10.5.0.0/16 2 0 0 %s\nmrib 10.5.0.0/16 2 0 0 %s",
       false, ", RPF invalid, the multicast RIB answers"},
      {"no route at all", "", false, "No route. Returning"},
  };
  const std::string held = fmt::format("{}@{}", u.rpf.rpfNeighbor, u.rpf.rpfIntf);
  for (const auto& st : kSteps) {
    SCOPED_TRACE(st.name);
    std::string text = st.routes;
    for (std::size_t at; (at = text.find("%s")) != std::string::npos;) text.replace(at, 2, held);
    routesAre(text);
    traceOn();
    EXPECT_EQ(table_->validRpf(u.rpf, s), st.valid);
    if (*st.trace) {
      EXPECT_TRUE(traced(st.trace)) << st.trace;
    }
  }
  Rpf noIntf = u.rpf;
  noIntf.rpfIntf = IntfId();
  EXPECT_FALSE(table_->validRpf(noIntf, s));
}

// The trie engine and this one, on the same routes, for random targets and groups.
template <Nimo::AddressFamily F>
void agree(RpfTableTest& t, Ribs<F>& ribs, Kel::Ptr<PimRpfTable> trie, bool withMrib,
           std::uint32_t seed) {
  std::mt19937 rng(seed);
  using Via = Routing::ViaGen<F>;
  const bool v4 = F == kV4;
  const std::vector<Via> pool =
      v4 ? std::vector<Via>{{IpGenAddr("10.0.1.2"), IntfId("eth1")},
                            {IpGenAddr("10.0.1.3"), IntfId("eth1")},
                            {IpGenAddr("10.0.2.2"), IntfId("eth2")},
                            {IpGenAddr("10.0.1.9"), IntfId("eth1")},  // no neighbour
                            {IpGenAddr("10.0.3.2"), IntfId("eth3")}}  // not PIM
         : std::vector<Via>{{IpGenAddr("fe80::1"), IntfId("eth6")},
                            {IpGenAddr("fe80::1"), IntfId("eth7")},
                            {IpGenAddr("fe80::2"), IntfId("eth7")},
                            {IpGenAddr("fe80::9"), IntfId("eth6")}};
  auto randomAddr = [&] {
    std::uint8_t b[16] = {};
    for (auto& x : b) x = static_cast<std::uint8_t>(rng());
    if (v4) {
      b[0] = 10;
      b[1] &= 0x0f;  // dense enough that targets meet routes
    } else {
      b[0] = 0x20, b[1] = 0x01, b[2] = 0x0d, b[3] = 0xb8, b[4] &= 0x0f;
    }
    return IpGenAddr(F, b);
  };
  std::vector<IpGenPrefix> prefixes;
  for (int i = 0; i < 3000; ++i) {
    const auto len = static_cast<std::uint8_t>(v4 ? 8 + rng() % 25 : 32 + rng() % 97);
    const IpGenPrefix p = IpGenPrefix(randomAddr(), len).masked();
    std::vector<Via> vias;
    for (int n = static_cast<int>(rng() % 4); n > 0; --n) vias.push_back(pool[rng() % pool.size()]);
    std::sort(vias.begin(), vias.end());
    vias.erase(std::unique(vias.begin(), vias.end()), vias.end());
    using RT = typename Routing::FamilyTraits<F>::RouteType;
    const RT types[] = {RT::remote, RT::remote, RT::connected, RT::drop};
    auto& w = withMrib && rng() % 4 == 0 ? ribs.mrib : ribs.urib;
    w->routeIs(p, types[rng() % 4], static_cast<std::uint32_t>(rng() % 3),
               static_cast<std::uint8_t>(rng() % 2), vias);
    prefixes.push_back(p);
  }
  ribs.commit();
  std::vector<std::pair<IpGenAddr, IpGenAddr>> lookups;
  for (int i = 0; i < 10000; ++i) {
    IpGenAddr a = randomAddr();
    if (i % 2) {  // half inside a route: keep its prefix bits
      const IpGenPrefix& p = prefixes[rng() % prefixes.size()];
      std::uint8_t b[16];
      std::memcpy(b, a.bytes(), a.byteLength());
      for (int bit = 0; bit < p.maskLen(); ++bit) {
        const std::uint8_t m = static_cast<std::uint8_t>(0x80u >> (bit % 8));
        b[bit / 8] =
            static_cast<std::uint8_t>((b[bit / 8] & ~m) | (p.address().bytes()[bit / 8] & m));
      }
      a = IpGenAddr(F, b);
    }
    ribs.track(a);
    lookups.emplace_back(
        a, v4 ? IpGenAddr::v4(0xe8000000u | (rng() & 0xffffff)) : IpGenAddr("ff3e::8000:1"));
  }
  t.turnForTest();
  int answered = 0, differ = 0;
  for (const auto& [a, g] : lookups) {
    const RpfInfo want = trie->doLookup(a, g);
    const RpfInfo got = t.table()->doLookup(a, g);
    answered += !!want;
    if (want != got && ++differ <= 3) ADD_FAILURE() << a << " " << g << "\n" << want << "\n" << got;
  }
  EXPECT_EQ(differ, 0);
  EXPECT_GT(answered, 2000);  // not vacuous: many targets resolve
}

TEST_F(RpfTableTest, AgreesWithTheTrieEngine) {
  auto ucast = Kel::Ptr<PimUcastRouteStatus>::make("trie");
  ucast->uribShadowStatusIs(v4_.uribShadow);
  ucast->uribStatusIs(v4_.uribShadow->table());
  ucast->uribFecIs(FecTable4::create(loop_, Routing::ribMountPath(kV4, "default"), "fec"));
  ucast->mribShadowStatusIs(v4_.mribShadow);
  ucast->mribStatusIs(v4_.mribShadow->table());
  ucast->urib6ShadowStatusIs(v6_.uribShadow);
  ucast->urib6StatusIs(v6_.uribShadow->table());
  ucast->urib6FecIs(FecTable6::create(loop_, Routing::ribMountPath(kV6, "default"), "fec"));
  auto trie = pimRpfTableFactory(ucast, status_, mfib_, nullptr, nullptr);
  turn();
  {
    SCOPED_TRACE("IPv4, unicast and multicast RIBs");
    agree<kV4>(*this, v4_, trie, true, 1);
  }
  {
    SCOPED_TRACE("IPv6, unicast RIB (the trie engine reads no IPv6 multicast RIB)");
    agree<kV6>(*this, v6_, trie, false, 2);
  }
}

}  // namespace
