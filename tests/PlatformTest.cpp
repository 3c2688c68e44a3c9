// Platform core: Kel (references, notification, value text form), Nimo (addresses,
// prefixes, interface ids, packets, checksums, IP headers) and Flicklog (levels, sinks,
// system log). Checksums are compared with the test helpers' plain reference.

#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "Pim/PimMessage.h"
#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/PimCore.h"
#include "tests/PimTestUtil.h"

namespace {

using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
using PimTest::Bytes;
using PimTest::expectRangeError;
using PimTest::hex;

struct Counted : Kel::PtrInterface {
  explicit Counted(int* deaths) : deaths_(deaths) {}
  ~Counted() override { ++*deaths_; }
  int* deaths_;
};

TEST(KelPtr, DeletesExactlyWhenTheLastReferenceGoes) {
  int deaths = 0;
  auto a = Kel::Ptr<Counted>::make(&deaths);
  Kel::Ptr<Kel::PtrInterface> base = a;
  Kel::Ptr<Counted> b = a;
  Kel::Ptr<Counted> c = std::move(a);  // a move adds no reference
  Kel::Ptr<Counted> d = Kel::ptr_cast<Counted>(base);
  EXPECT_EQ(c->references(), 4u);
  c = c;
  b = d = nullptr;
  base = nullptr;
  EXPECT_EQ(c->references(), 1u);
  c = Kel::Ptr<Counted>::make(&deaths);  // overwriting the last reference frees the first
  EXPECT_EQ(deaths, 1);
  c = nullptr;
  EXPECT_EQ(deaths, 2);
}

// Notifiees A, B, C (and a spare D) that change the list while it dispatches. Each logs its
// name; the actor also runs its one-shot action. A notifiee is detached by its destructor.
struct Watched : Kel::Entity {
  struct Notifiee : Kel::BaseNotifiee<Watched, Notifiee> {
    std::function<void()> onChange;
  };
  Watched() : Kel::Entity("watched") {}
  void notifieeAdd(Notifiee* n) { list.add(n); }
  void notifieeRemove(Notifiee* n) { list.remove(n); }
  void change() {
    list.forEach([](Notifiee& n) { n.onChange(); });
  }
  Kel::NotifieeList<Notifiee> list;
};

struct Dispatch {
  Kel::Ptr<Watched> w = Kel::Ptr<Watched>::make();
  std::unique_ptr<Watched::Notifiee> n[4];
  std::function<void()> once[4];
  std::string log;
  void attach(int i) {
    n[i] = std::make_unique<Watched::Notifiee>();
    n[i]->notifierIs(w);
    n[i]->onChange = [this, i] {
      log += static_cast<char>('A' + i);
      if (auto f = std::exchange(once[i], nullptr)) f();
    };
  }
  void detach(int i) { n[i]->notifierIs(nullptr); }
};

TEST(KelNotifieeList, DispatchSurvivesChangesMadeByNotifiees) {
  using D = Dispatch;
  // What the actor does; who the dispatch running it calls; who the next dispatch calls.
  const std::tuple<const char*, int, std::function<void(D&)>, const char*, const char*> cases[] = {
      {"detaches itself", 1, [](D& d) { d.detach(1); }, "ABC", "AC"},
      {"detaches one not yet called", 0, [](D& d) { d.detach(2); }, "AB", "AB"},
      {"detaches one already called", 2, [](D& d) { d.detach(0); }, "ABC", "BC"},
      {"attaches a new one", 0, [](D& d) { d.attach(3); }, "ABC", "ABCD"},
      {"nested dispatch in which a later one detaches itself", 1,
       [](D& d) { d.once[2] = [&d] { d.detach(2); }, d.w->change(); }, "ABABC", "AB"},
      {"nested dispatch after detaching an earlier one", 1,
       [](D& d) { d.detach(0), d.w->change(); }, "ABBCC", "BC"},
      // Never touched again (ASan checks); the running action lives in *n[0], so it goes last.
      {"destroys a later one and itself", 0, [](D& d) { d.n[2].reset(), d.n[0].reset(); }, "AB",
       "B"},
  };
  for (const auto& [what, actor, action, first, second] : cases) {
    SCOPED_TRACE(what);
    Dispatch d;
    for (int i : {0, 1, 2}) d.attach(i);
    d.once[actor] = [&d, &action = action] { action(d); };
    d.w->change();
    EXPECT_EQ(d.log, first);
    d.log.clear();
    d.w->change();
    EXPECT_EQ(d.log, second);
    EXPECT_EQ(d.w->list.size(), std::strlen(second));
  }
}

struct Inner {
  static constexpr std::string_view kTypeName = "Test::Inner";
  IpGenAddr addr;
  std::string label;
  static constexpr auto kFields =
      std::make_tuple(Kel::field("addr", &Inner::addr), Kel::field("label", &Inner::label));
};
struct Outer {
  static constexpr std::string_view kTypeName = "Test::Outer";
  std::uint8_t small = 0;
  bool flag = false;
  double ratio = 0;
  Inner inner;
  IpGenPrefix prefix;
  Nimo::IntfId intf;
  std::int32_t delta = 0;
  static constexpr auto kFields =
      std::make_tuple(Kel::field("small", &Outer::small), Kel::field("flag", &Outer::flag),
                      Kel::field("ratio", &Outer::ratio), Kel::field("inner", &Outer::inner),
                      Kel::field("prefix", &Outer::prefix), Kel::field("intf", &Outer::intf),
                      Kel::field("delta", &Outer::delta));
};

Outer parseOuter(const std::string& s) {
  Outer o;
  Kel::parseValue(s.data(), s.data() + s.size(), o);
  return o;
}

TEST(KelValueText, PrintsTheFixedFormAndRoundTripsExactly) {
  const Inner in{IpGenAddr("10.0.0.1"), "it's a \\ test"};
  Outer o{200, true, 0.1, in, IpGenPrefix("ff00::/8"), Nimo::IntfId("Ethernet1"), -7};
  EXPECT_EQ(Kel::valueToStrep(o),
            "Value('Test::Outer', ** {'small': 200, 'flag': True, 'ratio': 0.1, 'inner': "
            "Value('Test::Inner', ** {'addr': 10.0.0.1, 'label': 'it\\'s a \\\\ test'}), "
            "'prefix': ff00::/8, 'intf': 'Ethernet1', 'delta': -7})");
  const IpGenAddr addrs[] = {IpGenAddr(), IpGenAddr("0.0.0.0"), IpGenAddr("2001:db8::1")};
  int i = 0;
  for (double r : {1.0 / 3, -0.0, 5e-324, DBL_MAX, std::numeric_limits<double>::infinity()}) {
    for (const char* l : {"", "a'b\\'c", "}) , 'x': "}) {
      o.ratio = r;
      o.inner = {addrs[i % 3], l};
      o.prefix = i % 2 ? IpGenPrefix() : IpGenPrefix("10.1.0.0/16");
      o.intf = Nimo::IntfId(i++ % 2 ? "" : "Vlan1");
      // The double bit for bit too: a lossy print would survive the text comparison.
      const std::string text = Kel::valueToStrep(o);
      const Outer back = parseOuter(text);
      EXPECT_EQ(std::bit_cast<std::uint64_t>(back.ratio), std::bit_cast<std::uint64_t>(r)) << text;
      EXPECT_EQ(Kel::valueToStrep(back), text);
    }
  }
}

TEST(KelValueText, ParseErrorsNameTheAttribute) {
  const std::string good =
      "Value('Test::Outer', ** {'small': 200, 'flag': True, 'ratio': 0.5, 'inner': "
      "Value('Test::Inner', ** {'addr': None, 'label': 'x'}), 'prefix': None, 'intf': 'e1', "
      "'delta': 3})";
  ASSERT_EQ(parseOuter(good).inner.label, "x");
  const std::tuple<const char*, const char*, const char*> cases[] = {
      // from, to, attribute
      {"200", "256", "Test::Outer::small"},
      {"True", "Truest", "Test::Outer::flag"},
      {"0.5", "0.5.1", "Test::Outer::ratio"},
      {"None,", "10.0.0.256,", "Test::Inner::addr"},
      {"'x'", "'x", "Test::Inner::label"},
      {"Test::Inner', ** {'addr'", "Test::Inner', ** {'adr'", "Test::Inner::addr"},
      {"'prefix': None", "'prefix': 10.0.0.0/33", "Test::Outer::prefix"},
      {"'e1'", "'abcdefghijklmnopqrstuvwxyz0123456'", "Test::Outer::intf"},
      {"'delta': 3", "'delta': 3.0", "Test::Outer::delta"},
      {", 'delta': 3", "", "Test::Outer::delta"},
      {"3})", "3})x", "Test::Outer::Value"},
      {"Test::Outer'", "Test::Other'", "Test::Outer::Value"},
  };
  for (auto [from, to, attribute] : cases) {
    std::string text = good;
    text.replace(text.find(from), std::strlen(from), to);
    SCOPED_TRACE(text);
    expectRangeError([&] { parseOuter(text); }, std::string(attribute) + " has no parsable value");
  }
}

// Nimo addresses, prefixes, interface ids, packets

TEST(NimoIpGenAddr, ParsesPrintsClassifiesAndOrders) {
  using AF = Nimo::AddressFamily;
  // In ascending order: by family, then bytes (a little-endian compare would misplace 240/8).
  const std::tuple<const char*, AF, bool, bool> cases[] = {
      // text, family, multicast, zero
      {"0.0.0.0", AF::ipv4, false, true},          {"223.255.255.255", AF::ipv4, false, false},
      {"224.0.0.0", AF::ipv4, true, false},        {"239.255.255.255", AF::ipv4, true, false},
      {"240.0.0.1", AF::ipv4, false, false},       {"::", AF::ipv6, false, true},
      {"::ffff:10.0.0.1", AF::ipv6, false, false}, {"ff02::d", AF::ipv6, true, false}};
  IpGenAddr previous;  // unset sorts first
  for (auto [text, af, multicast, zero] : cases) {
    SCOPED_TRACE(text);
    const IpGenAddr a(text);
    EXPECT_EQ(a.af(), af);
    EXPECT_EQ(a.isMulticast(), multicast);
    EXPECT_EQ(a.isZero(), zero);
    EXPECT_EQ(a.str(), text);
    EXPECT_LT(previous, a);
    previous = a;
  }
  EXPECT_EQ(IpGenAddr("2001:DB8:0:0:0:0:0:1").str(), "2001:db8::1");
  EXPECT_EQ(IpGenAddr::v4(0x0a000001), IpGenAddr("10.0.0.1"));
  for (const char* bad : {"", "1.2.3", "1.2.3.256", "10.0.0.1 ", "ff02::d::1", "None",
                          "0000:0000:0000:0000:0000:0000:0000:0000:0000:0000"}) {
    EXPECT_FALSE(IpGenAddr::parse(bad)) << bad;
    EXPECT_THROW(IpGenAddr{bad}, Kel::RangeError) << bad;
  }
  const IpGenAddr unset;
  EXPECT_FALSE(unset.isZero() || unset.isMulticast());
  EXPECT_EQ(unset.str(), "None");
}

TEST(NimoIpGenPrefix, MaskLengthRange) {
  const std::string text(IpGenPrefix::kRangeErrorText);
  EXPECT_EQ(text, "IpGenPrefix::maskLen < IpGenPrefix::min or > IpGenPrefix::max not allowed");
  for (auto [addr, len] : {std::pair{"10.0.0.0", 0}, {"10.0.0.0", 32}, {"::", 128}}) {
    const std::string asText = fmt::format("{}/{}", addr, len);
    EXPECT_EQ(IpGenPrefix(IpGenAddr(addr), static_cast<std::uint8_t>(len)).maskLen(), len);
    EXPECT_EQ(IpGenPrefix(asText).str(), asText);
  }
  for (auto [addr, len] : {std::pair{"10.0.0.0", 33}, {"::", 129}}) {
    const IpGenAddr a(addr);
    const auto l = static_cast<std::uint8_t>(len);
    const std::string asText = fmt::format("{}/{}", addr, len);
    SCOPED_TRACE(asText);
    expectRangeError([&] { IpGenPrefix(a, l); }, text);
    expectRangeError([&] { IpGenPrefix{asText}; }, text);
    expectRangeError([&] { Nimo::IpGenAddrWithMask(a, l); }, text);
  }
}

TEST(NimoIpGenPrefix, MaskedAndContains) {
  const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
      // prefix, masked(), an address inside, one outside
      {"10.1.2.3/8", "10.0.0.0/8", "10.255.255.255", "11.0.0.0"},
      {"10.1.2.3/0", "0.0.0.0/0", "255.1.1.1", "::"},
      {"10.1.2.255/25", "10.1.2.128/25", "10.1.2.128", "10.1.2.127"},
      {"10.1.2.3/32", "10.1.2.3/32", "10.1.2.3", "10.1.2.2"},
      {"2001:db8:ffff::1/33", "2001:db8:8000::/33", "2001:db8:ffff::", "2001:db8:7fff::"},
      {"ff02::d/128", "ff02::d/128", "ff02::d", "ff02::e"},
      {"2001:db8:1:2:ffff::1/65", "2001:db8:1:2:8000::/65",
       "2001:db8:1:2:8000::", "2001:db8:1:2::"},
      {"2001:db8:1:2:ffff::1/64", "2001:db8:1:2::/64", "2001:db8:1:2::", "2001:db8:1:3::"},
  };
  for (auto [prefix, network, inside, outside] : cases) {
    const IpGenPrefix p(prefix);
    EXPECT_EQ(p.masked(), IpGenPrefix(network)) << prefix;
    EXPECT_TRUE(p.contains(IpGenAddr(inside))) << prefix;
    EXPECT_FALSE(p.contains(IpGenAddr(outside))) << prefix;
  }
}

TEST(NimoIntfId, LengthLimitAndByteOrder) {
  const std::string longest(31, 'x');
  EXPECT_EQ(Nimo::IntfId(longest).name(), longest);
  for (const std::string& bad : {std::string(32, 'x'), std::string("eth\0x", 5)})
    expectRangeError([&] { Nimo::IntfId{bad}; }, "IntfId::name longer than 31 not allowed");
  const char* ascending[] = {"", "Ethernet", "Ethernet1", "Ethernet10", "Ethernet2", "Vlan1", "a"};
  for (std::size_t i = 0; i + 1 < std::size(ascending); ++i)
    EXPECT_LT(Nimo::IntfId(ascending[i]), Nimo::IntfId(ascending[i + 1])) << ascending[i];
}

Bytes bytesOf(const Nimo::Pkt& p) { return PimTest::bytesOf(p, p.size()); }

TEST(NimoPkt, CopyOnWriteAndSharedViews) {
  const std::uint8_t src[] = {1, 2, 3, 4, 5, 6, 7, 8};
  const Bytes all(src, src + 8);
  auto a = Nimo::Pkt::copyOf(src, 8, 4, 4);
  auto b = a->share();
  EXPECT_EQ(a->data(0), b->data(0));  // no copy yet
  EXPECT_TRUE(a->isShared());
  b->writableData(2, 1)[0] = 0xee;
  EXPECT_EQ(b->data(2)[0], 0xee);
  EXPECT_EQ(bytesOf(*a), all);
  EXPECT_FALSE(a->isShared());

  // Shared removal moves only the view; growing it back zero-fills what the other Pkt shows.
  b = a->share();
  b->delSharedHeadData(3);
  b->delSharedTailData(2);
  EXPECT_EQ(b->data(0), a->data(3));
  ASSERT_EQ(b->iovecCount(), 1u);
  EXPECT_EQ(b->iovecs()[0].iov_base, b->data(0));
  EXPECT_EQ(b->iovecs()[0].iov_len, 3u);
  ASSERT_TRUE(b->prepend(3));
  EXPECT_EQ(bytesOf(*b), (Bytes{0, 0, 0, 4, 5, 6}));
  b = a->share();
  b->delSharedTailData(3);
  ASSERT_TRUE(b->sizeIs(8));
  EXPECT_EQ(bytesOf(*b), (Bytes{1, 2, 3, 4, 5, 0, 0, 0}));
  b->delSharedHeadData(100);  // clamped
  EXPECT_EQ(b->size(), 0u);
  b = a->share();
  b->delSharedTailData(100);
  EXPECT_EQ(b->size(), 0u);
  EXPECT_EQ(bytesOf(*a), all);
}

TEST(NimoPkt, SizePrependAndDataBoundsNeverWrap) {
  constexpr std::uint32_t kMax = std::numeric_limits<std::uint32_t>::max();
  auto p = Nimo::Pkt::create(4, 2, 3);
  EXPECT_EQ(bytesOf(*p), Bytes(4, 0));
  p->writableData(3, 1)[0] = 0xaa;
  EXPECT_FALSE(p->sizeIs(8));
  ASSERT_TRUE(p->sizeIs(3));
  ASSERT_TRUE(p->sizeIs(7));  // regrown bytes are zero, not the old 0xaa
  EXPECT_EQ(bytesOf(*p), Bytes(7, 0));
  EXPECT_FALSE(p->prepend(3));
  ASSERT_TRUE(p->prepend(2));
  EXPECT_EQ(p->size(), 9u);
  EXPECT_FALSE(p->sizeIs(kMax));
  p = Nimo::Pkt::create(16);
  const std::tuple<std::uint32_t, std::uint32_t, bool> cases[] = {
      // offset, length, inside
      {0, 16, true},    {15, 1, true},    {15, 2, false},        {17, 0, false},
      {kMax, 1, false}, {1, kMax, false}, {kMax - 14, 16, false}};
  for (auto [offset, len, inside] : cases) {
    const std::uint8_t* expected = inside ? p->data(0) + offset : nullptr;
    EXPECT_EQ(p->data(offset, len), expected) << offset << " " << len;
    EXPECT_EQ(p->writableData(offset, len), expected) << offset << " " << len;
  }
}

TEST(NimoPktDeathTest, SharedRemovalAssertsItsPreconditions) {
  for (auto del : {&Nimo::Pkt::delSharedHeadData, &Nimo::Pkt::delSharedTailData}) {
    EXPECT_DEATH((*Nimo::Pkt::withoutBufferForTest().*del)(1), "sharedBuffer_ != 0");
    EXPECT_DEATH((*Nimo::Pkt::withoutIovecForTest(8).*del)(1), "firstIoVec_ != maxIovecs_");
  }
}

// Checksums and IP headers, against a plain big-endian reference.

std::uint16_t refChecksum(const std::uint8_t* p, std::size_t n) {
  return PimTest::refChecksum(Bytes(p, p + n));
}

TEST(NimoChecksum, MatchesReferenceAtEveryLengthAndAlignment) {
  std::mt19937 rng(7);
  Bytes buf(1500 + 8);
  // Every length to 130, then in steps of 137 up to a full MTU of 1500 (the wide path).
  for (std::size_t len = 0; len <= 1500; len += len < 130 ? 1 : 137) {
    for (std::size_t align = 0; align < 8; ++align) {
      for (auto& b : buf) b = static_cast<std::uint8_t>(rng());
      const std::uint8_t* p = buf.data() + align;
      ASSERT_EQ(Nimo::inetChecksum(p, len), refChecksum(p, len)) << len << "@" << align;
      const std::size_t half = len / 2 & ~std::size_t{1};  // chained: even range first
      const auto acc = Nimo::checksumAdd(Nimo::checksumAdd(0, p, half), p + half, len - half);
      ASSERT_EQ(Nimo::checksumFold(acc), refChecksum(p, len)) << len << "@" << align;
    }
  }
  const Bytes ones(65535, 0xff);  // many carries
  EXPECT_EQ(Nimo::inetChecksum(ones.data(), ones.size()), refChecksum(ones.data(), ones.size()));
  auto h = hex("4500 0073 0000 4000 4011 0000 c0a8 0001 c0a8 00c7");  // a classic example
  EXPECT_EQ(Nimo::inetChecksum(h.data(), h.size()), 0xb861);
}

TEST(NimoChecksum, Ipv6PseudoHeader) {
  std::mt19937 rng(11);
  const IpGenAddr src("fe80::1:2:3:4"), dst("ff02::d");
  for (std::uint32_t len : {0u, 1u, 4u, 7u, 38u}) {
    for (std::uint32_t upperLen : {len, 0x12345u}) {  // the length field has 32 bits
      Bytes all(40 + len);                            // pseudo-header, then the message
      std::memcpy(all.data(), src.bytes(), 16);
      std::memcpy(all.data() + 16, dst.bytes(), 16);
      Nimo::store32(all.data() + 32, upperLen);
      all[39] = Nimo::kIpProtoPim;
      for (std::size_t i = 40; i < all.size(); ++i) all[i] = static_cast<std::uint8_t>(rng());
      const std::uint16_t ref = refChecksum(all.data(), all.size());
      std::uint8_t* msg = all.data() + 40;
      EXPECT_EQ(Nimo::inetChecksumV6(src, dst, upperLen, Nimo::kIpProtoPim, msg, len), ref)
          << len << " " << upperLen;
      if (len >= 4) {
        EXPECT_EQ(Nimo::PimCommonHdr(msg).computeChecksumV6(src, dst, upperLen, len), ref);
      }
    }
  }
}

TEST(NimoIpHdr, BuildWritesEveryByte) {
  Bytes b4(20, 0x5a), b6(40, 0x5a);  // stale bytes must not survive
  Nimo::Ipv4Hdr(b4.data()).build(0xc0, 0x0123, 1, Nimo::kIpProtoPim, IpGenAddr("10.0.0.1"),
                                 IpGenAddr("224.0.0.13"));
  EXPECT_EQ(refChecksum(b4.data(), 20), 0);
  b4[10] = b4[11] = 0;
  EXPECT_EQ(b4, hex("45c0 0123 0000 0000 0167 0000 0a00 0001 e000 000d"));
  Nimo::Ipv6Hdr(b6.data()).build(0xb8, 0x0456, Nimo::kIpProtoPim, 1, IpGenAddr("fe80::1"),
                                 IpGenAddr("ff02::d"));
  EXPECT_EQ(b6, hex("6b80 0000 0456 6701 fe80 0000 0000 0000 0000 0000 0000 0001 "
                    "ff02 0000 0000 0000 0000 0000 0000 000d"));
}

// Flicklog

int formatCalls = 0;
enum class CountsFormatting {};
int format_as(CountsFormatting) { return ++formatCalls, 7; }

// A capture's lines as "facility level: text", one per line.
std::string shown(const Flicklog::CaptureSink& cap) {
  std::string out;
  for (const auto& l : cap.lines()) out += fmt::format("{} {}: {}\n", l.facility, l.level, l.text);
  return out;
}

TEST(Flicklog, FormatsOnlyWhenTheLevelIsOn) {
  Flicklog::Facility& f = Flicklog::facility("PlatformTest.Levels");
  // Facility level, line level, emitted.
  const std::tuple<int, int, bool> cases[] = {{0, 0, false},  {0, 1, false}, {3, 1, true},
                                              {3, 3, true},   {3, 4, false}, {9, 9, true},
                                              {9, 10, false}, {9, -1, false}};
  for (auto [facilityLevel, lineLevel, emitted] : cases) {
    SCOPED_TRACE(fmt::format("facility {} line {}", facilityLevel, lineLevel));
    Flicklog::CaptureSink cap;
    f.levelIs(facilityLevel);
    formatCalls = 0;
    FLICK_TRACE(f, lineLevel, "value {}", CountsFormatting{});
    EXPECT_EQ(formatCalls, emitted ? 1 : 0);
    EXPECT_EQ(shown(cap),
              emitted ? fmt::format("PlatformTest.Levels {}: value 7\n", lineLevel) : "");
  }
}

// The environment is read when the first facility is made: check it in a fresh process.
TEST(FlicklogDeathTest, LevelsFromTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        setenv("FLICKLOG", "PlatformTest.Named=7,*=2,Garbage,PlatformTest.Late=4", 1);
        std::fprintf(stderr, "levels %d %d %d\n", Flicklog::facility("PlatformTest.Named").level(),
                     Flicklog::facility("PlatformTest.Other").level(),
                     Flicklog::facility("PlatformTest.Late").level());
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "levels 7 2 4");
}

TEST(Flicklog, LogMessageFormatsIntoTheCapture) {
  namespace P = Routing::Pim::Packet;
  Flicklog::CaptureSink outer;
  {
    Flicklog::CaptureSink cap;
    Flicklog::logMessage(P::PIM_MESSAGE_AF_MISMATCH, "Join/Prune", "IPv4", "IPv6");
    Flicklog::logMessage(P::PIMBSR_CRPADV_ZONE_SET, IpGenAddr("10.1.1.1").str());
    EXPECT_EQ(shown(cap),
              "syslog 4: %PIM_MESSAGE_AF_MISMATCH: Attempted to send Join/Prune IPv4 message "
              "with IPv6 address in the message\n"
              "syslog 6: %PIMBSR_CRPADV_ZONE_SET: Received Candidate-RP Advertisements from "
              "C-RP 10.1.1.1 with Zone bit set\n");
  }
  // The outer capture is current again, for trace lines and system-log lines alike.
  Flicklog::logMessage(P::PIM_MESSAGE_INVALID_ENCODED_SOURCE, "Assert", "224.0.0.1");
  Flicklog::Facility& f = Flicklog::facility("PlatformTest.Nested");
  f.levelIs(1);
  FLICK_TRACE(f, 1, "after");
  EXPECT_EQ(outer.texts(), (std::vector<std::string>{
                               "%PIM_MESSAGE_INVALID_ENCODED_SOURCE: Attempted to send Assert "
                               "message with a non-unicast encoded source 224.0.0.1",
                               "after"}));
}

// Routing::Pim::Status answers point look-ups from hashed copies of its ordered maps: after
// any mix of writes and deletes, both must say the same.
TEST(PimStatusTest, PointLookupsAgreeWithTheOrderedMapsAfterRandomChanges) {
  using Routing::Pim::ActiveNeighborKey;
  Routing::Pim::Status st("pim");
  const Nimo::IntfId ids[] = {Nimo::IntfId("eth1"), Nimo::IntfId("eth2"), Nimo::IntfId("Loopback0"),
                              Nimo::IntfId("a-rather-long-name.100")};
  std::map<ActiveNeighborKey, Nimo::IpGenAddr> secondary;
  std::mt19937 rng(3);
  auto key = [&] {
    return ActiveNeighborKey{
        ids[rng() % 4], Nimo::IpGenAddr::v4(0x0a000001u + static_cast<std::uint32_t>(rng() % 6))};
  };
  for (int step = 0; step < 2000; ++step) {
    const ActiveNeighborKey k = key();
    switch (rng() % 6) {
      case 0:
        st.intfIs(k.intfId, rng() % 2 == 1, k.address);
        break;
      case 1:
        st.intfDel(k.intfId);
        break;
      case 2:
        st.activeNeighborIs(k, static_cast<std::uint16_t>(rng() % 3));
        break;
      case 3:
        st.activeNeighborDel(k);
        break;
      case 4:
        st.neighborSecondaryIs(k, Nimo::IpGenAddr::v4(static_cast<std::uint32_t>(rng() % 5)));
        secondary[k] = *st.neighborSecondary(k);
        break;
      default:
        st.neighborSecondaryDel(k);
        secondary.erase(k);
    }
    for (int q = 0; q < 8; ++q) {
      const ActiveNeighborKey c = key();
      const auto it = st.intf().find(c.intfId);
      const Routing::Pim::StatusIntf* got = st.intf(c.intfId);
      ASSERT_EQ(got != nullptr, it != st.intf().end()) << step;
      if (got) {
        EXPECT_EQ(got->mbr, it->second.mbr) << step;
        EXPECT_EQ(got->primaryAddr, it->second.primaryAddr) << step;
      }
      ASSERT_EQ(st.activeNeighbor(c), st.activeNeighbor().count(c) == 1) << step;
      const Nimo::IpGenAddr* sec = st.neighborSecondary(c);
      ASSERT_EQ(sec != nullptr, secondary.count(c) == 1) << step;
      if (sec) {
        EXPECT_EQ(*sec, secondary.at(c)) << step;
      }
    }
  }
}

}  // namespace
