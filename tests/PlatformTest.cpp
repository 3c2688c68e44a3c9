// Platform core: Kel (references, notification, value text form), Nimo (addresses,
// prefixes, interface ids, packets, checksums, IP headers) and Flicklog (levels, sinks,
// system log). Checksums are compared with a plain reference written here.

#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Pim/PimMessage.h"
#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"

namespace {

using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;

// ---------------------------------------------------------------------------------------
// Kel::Ptr

struct Counted : Kel::PtrInterface {
  explicit Counted(int* deaths) : deaths_(deaths) {}
  ~Counted() override { ++*deaths_; }
  int* deaths_;
};

TEST(KelPtr, DeletesExactlyWhenTheLastReferenceGoes) {
  int deaths = 0;
  {
    auto a = Kel::Ptr<Counted>::make(&deaths);
    Kel::Ptr<Counted> b = a;
    Kel::Ptr<Kel::PtrInterface> base = a;
    EXPECT_EQ(a->references(), 3u);
    Kel::Ptr<Counted> c = std::move(b);  // a move adds no reference
    EXPECT_EQ(c->references(), 3u);
    Kel::Ptr<Counted> d = Kel::ptr_cast<Counted>(base);
    EXPECT_EQ(d->references(), 4u);
    a = a;
    d = nullptr;
    base = nullptr;
    a = nullptr;
    EXPECT_EQ(deaths, 0);
    EXPECT_EQ(c->references(), 1u);
    c = Kel::Ptr<Counted>::make(&deaths);  // overwriting the last reference frees the first
    EXPECT_EQ(deaths, 1);
  }
  EXPECT_EQ(deaths, 2);
}

// ---------------------------------------------------------------------------------------
// Kel::NotifieeList: notifiees change the list while it dispatches.

struct Dispatch;
struct Reactor {
  char name;
  Dispatch* d;
  std::function<void()> once;  // runs on the first call only
  void fire();
};
struct Dispatch {
  Kel::NotifieeList<Reactor> list;
  std::vector<std::unique_ptr<Reactor>> all;
  std::string log;
  Reactor* r(char name) {
    for (auto& x : all)
      if (x->name == name) return x.get();
    all.push_back(std::make_unique<Reactor>(Reactor{name, this, nullptr}));
    return all.back().get();
  }
  void run() {
    list.forEach([](Reactor& x) { x.fire(); });
  }
};
void Reactor::fire() {
  d->log += name;
  if (auto f = std::exchange(once, nullptr)) f();
}

TEST(KelNotifieeList, DispatchSurvivesChangesMadeByNotifiees) {
  struct Case {
    const char* what;
    char actor;
    std::function<void(Dispatch&)> action;
    const char* first;   // who the dispatch that runs the action calls
    const char* second;  // who the next dispatch calls
  };
  const Case cases[] = {
      {"detaches itself", 'B', [](Dispatch& d) { d.list.remove(d.r('B')); }, "ABC", "AC"},
      {"detaches one not yet called", 'A', [](Dispatch& d) { d.list.remove(d.r('C')); }, "AB",
       "AB"},
      {"detaches one already called", 'C', [](Dispatch& d) { d.list.remove(d.r('A')); }, "ABC",
       "BC"},
      {"attaches a new one", 'A', [](Dispatch& d) { d.list.add(d.r('D')); }, "ABC", "ABCD"},
      {"nested dispatch in which a later one detaches itself", 'B',
       [](Dispatch& d) {
         d.r('C')->once = [&d] { d.list.remove(d.r('C')); };
         d.run();
       },
       "ABABC", "AB"},
      {"nested dispatch after detaching an earlier one", 'B',
       [](Dispatch& d) {
         d.list.remove(d.r('A'));
         d.run();
       },
       "ABBCC", "BC"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Dispatch d;
    for (char n : {'A', 'B', 'C'}) d.list.add(d.r(n));
    d.r(c.actor)->once = [&d, &c] { c.action(d); };
    d.run();
    EXPECT_EQ(d.log, c.first);
    d.log.clear();
    d.run();
    EXPECT_EQ(d.log, c.second);
    EXPECT_EQ(d.list.size(), std::string(c.second).size());
  }
}

// Ownership is registration: a reactor destroyed during dispatch (itself, or another one)
// detaches in its destructor, and the dispatch never touches it again (ASan checks).
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

TEST(KelNotifieeList, ReactorDestroyedDuringDispatchIsNotCalled) {
  auto w = Kel::Ptr<Watched>::make();
  std::unique_ptr<Watched::Notifiee> r[3];
  std::string log;
  for (int i = 0; i < 3; ++i) {
    r[i] = std::make_unique<Watched::Notifiee>();
    r[i]->notifierIs(w);
    r[i]->onChange = [&log, i] { log += static_cast<char>('0' + i); };
  }
  r[0]->onChange = [&] {
    log += '0';
    r[2].reset();
    r[0].reset();  // last: this lambda lives in *r[0]
  };
  w->change();
  EXPECT_EQ(log, "01");
  w->change();
  EXPECT_EQ(log, "011");
  EXPECT_EQ(w->list.size(), 1u);
}

// ---------------------------------------------------------------------------------------
// Value text form

struct Inner {
  static constexpr std::string_view kTypeName = "Test::Inner";
  IpGenAddr addr;
  std::string label;
  static constexpr auto kFields =
      std::make_tuple(Kel::field("addr", &Inner::addr), Kel::field("label", &Inner::label));
  friend bool operator==(const Inner&, const Inner&) = default;
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

TEST(KelValueText, PrintsTheFixedForm) {
  Outer o{200,
          true,
          0.1,
          {IpGenAddr("10.0.0.1"), "it's a \\ test"},
          IpGenPrefix("ff00::/8"),
          Nimo::IntfId("Ethernet1"),
          -7};
  EXPECT_EQ(Kel::valueToStrep(o),
            "Value('Test::Outer', ** {'small': 200, 'flag': True, 'ratio': 0.1, 'inner': "
            "Value('Test::Inner', ** {'addr': 10.0.0.1, 'label': 'it\\'s a \\\\ test'}), "
            "'prefix': ff00::/8, 'intf': 'Ethernet1', 'delta': -7})");
}

TEST(KelValueText, RoundTripsExactly) {
  const double doubles[] = {0.1,
                            1.0 / 3,
                            -0.0,
                            5e-324,
                            DBL_MAX,
                            1e-300,
                            123456789.123456789,
                            std::numeric_limits<double>::infinity()};
  const char* labels[] = {"", "'", "\\", "a'b\\'c", "}) , 'x': ", "two  blanks"};
  const IpGenAddr addrs[] = {IpGenAddr(), IpGenAddr("0.0.0.0"), IpGenAddr("2001:db8::1")};
  int i = 0;
  for (double r : doubles) {
    for (const char* l : labels) {
      Outer o{static_cast<std::uint8_t>(i * 37),
              i % 2 == 0,
              r,
              {addrs[i % 3], l},
              i % 2 ? IpGenPrefix() : IpGenPrefix("10.1.0.0/16"),
              Nimo::IntfId(i % 2 ? "" : "Vlan1"),
              -i * 1000};
      ++i;
      const std::string text = Kel::valueToStrep(o);
      SCOPED_TRACE(text);
      Outer back = parseOuter(text);
      EXPECT_EQ(std::bit_cast<std::uint64_t>(back.ratio), std::bit_cast<std::uint64_t>(r));
      EXPECT_EQ(back.small, o.small);
      EXPECT_EQ(back.flag, o.flag);
      EXPECT_EQ(back.inner, o.inner);
      EXPECT_EQ(back.prefix, o.prefix);
      EXPECT_EQ(back.intf, o.intf);
      EXPECT_EQ(back.delta, o.delta);
    }
  }
}

TEST(KelValueText, ParseErrorsNameTheAttribute) {
  const std::string good =
      "Value('Test::Outer', ** {'small': 200, 'flag': True, 'ratio': 0.5, 'inner': "
      "Value('Test::Inner', ** {'addr': None, 'label': 'x'}), 'prefix': None, 'intf': 'e1', "
      "'delta': 3})";
  ASSERT_NO_THROW(parseOuter(good));
  struct Case {
    const char* from;
    const char* to;
    const char* error;
  };
  const Case cases[] = {
      {"200", "256", "Test::Outer::small"},
      {"200", "-1", "Test::Outer::small"},
      {"200", "0x10", "Test::Outer::small"},
      {"True", "true", "Test::Outer::flag"},
      {"True", "Truest", "Test::Outer::flag"},
      {"0.5", "0.5.1", "Test::Outer::ratio"},
      {"None,", "10.0.0.256,", "Test::Inner::addr"},
      {"'x'", "'x", "Test::Inner::label"},
      {"'x'", "'x'y", "Test::Inner::label"},
      {"Test::Inner', ** {'addr'", "Test::Inner', ** {'adr'", "Test::Inner::addr"},
      {"'prefix': None", "'prefix': 10.0.0.0/33", "Test::Outer::prefix"},
      {"'prefix': None", "'prefix': ff00::/129", "Test::Outer::prefix"},
      {"'e1'", "'abcdefghijklmnopqrstuvwxyz0123456'", "Test::Outer::intf"},
      {"'delta': 3", "'delta': 3.0", "Test::Outer::delta"},
      {", 'delta': 3", "", "Test::Outer::delta"},
      {"3})", "3}) ", "Test::Outer::Value"},
      {"3})", "3})x", "Test::Outer::Value"},
      {"Test::Outer'", "Test::Other'", "Test::Outer::Value"},
  };
  for (const auto& c : cases) {
    std::string text = good;
    text.replace(text.find(c.from), std::strlen(c.from), c.to);
    SCOPED_TRACE(text);
    try {
      parseOuter(text);
      ADD_FAILURE() << "parsed";
    } catch (const Kel::RangeError& e) {
      EXPECT_EQ(e.what(), std::string(c.error) + " has no parsable value");
    }
  }
}

// ---------------------------------------------------------------------------------------
// Nimo addresses, prefixes, interface ids

TEST(NimoIpGenAddr, ParsesPrintsAndClassifies) {
  struct Case {
    const char* text;
    Nimo::AddressFamily af;
    bool multicast, zero;
    const char* printed;
  };
  using AF = Nimo::AddressFamily;
  const Case cases[] = {
      {"10.0.0.1", AF::ipv4, false, false, "10.0.0.1"},
      {"0.0.0.0", AF::ipv4, false, true, "0.0.0.0"},
      {"223.255.255.255", AF::ipv4, false, false, "223.255.255.255"},
      {"224.0.0.0", AF::ipv4, true, false, "224.0.0.0"},
      {"239.255.255.255", AF::ipv4, true, false, "239.255.255.255"},
      {"240.0.0.1", AF::ipv4, false, false, "240.0.0.1"},
      {"::", AF::ipv6, false, true, "::"},
      {"ff02::d", AF::ipv6, true, false, "ff02::d"},
      {"fe80::1", AF::ipv6, false, false, "fe80::1"},
      {"2001:DB8:0:0:0:0:0:1", AF::ipv6, false, false, "2001:db8::1"},
      {"::ffff:10.0.0.1", AF::ipv6, false, false, "::ffff:10.0.0.1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    IpGenAddr a(c.text);
    EXPECT_EQ(a.af(), c.af);
    EXPECT_EQ(a.isMulticast(), c.multicast);
    EXPECT_EQ(a.isZero(), c.zero);
    EXPECT_EQ(a.str(), c.printed);
    EXPECT_EQ(IpGenAddr::parse(a.str()), a);
  }
  for (const char* bad : {"", "1.2.3", "1.2.3.256", "10.0.0.1 ", "ff02::d::1", "None",
                          "0000:0000:0000:0000:0000:0000:0000:0000:0000:0000"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(IpGenAddr::parse(bad));
    EXPECT_THROW(IpGenAddr{bad}, Kel::RangeError);
  }
  IpGenAddr unset;
  EXPECT_FALSE(unset.isZero());
  EXPECT_FALSE(unset.isMulticast());
  EXPECT_EQ(unset.str(), "None");
  EXPECT_EQ(IpGenAddr::v4(0x0a000001), IpGenAddr("10.0.0.1"));
}

TEST(NimoIpGenAddr, OrdersByFamilyThenBytes) {
  const std::vector<IpGenAddr> ascending = {
      IpGenAddr(),           IpGenAddr("0.0.0.0"),  IpGenAddr("9.255.255.255"),
      IpGenAddr("10.0.0.0"), IpGenAddr("10.0.0.1"), IpGenAddr("255.255.255.255"),
      IpGenAddr("::"),       IpGenAddr("::1"),      IpGenAddr("ff02::d")};
  for (std::size_t i = 0; i + 1 < ascending.size(); ++i) {
    SCOPED_TRACE(ascending[i].str());
    EXPECT_LT(ascending[i], ascending[i + 1]);
  }
}

TEST(NimoIpGenPrefix, MaskLengthRange) {
  const std::string text(IpGenPrefix::kRangeErrorText);
  EXPECT_EQ(text, "IpGenPrefix::maskLen < IpGenPrefix::min or > IpGenPrefix::max not allowed");
  struct Case {
    const char* addr;
    std::uint8_t len;
    bool ok;
  };
  const Case cases[] = {{"10.0.0.0", 0, true},    {"10.0.0.0", 32, true}, {"10.0.0.0", 33, false},
                        {"10.0.0.0", 128, false}, {"::", 128, true},      {"::", 129, false},
                        {"::", 255, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(fmt::format("{}/{}", c.addr, c.len));
    const std::string asText = fmt::format("{}/{}", c.addr, c.len);
    if (c.ok) {
      EXPECT_EQ(IpGenPrefix(IpGenAddr(c.addr), c.len).maskLen(), c.len);
      EXPECT_EQ(IpGenPrefix(asText).str(), asText);
      continue;
    }
    for (auto make : std::initializer_list<std::function<void()>>{
             [&] { IpGenPrefix(IpGenAddr(c.addr), c.len); }, [&] { IpGenPrefix{asText}; },
             [&] { Nimo::IpGenAddrWithMask(IpGenAddr(c.addr), c.len); }}) {
      try {
        make();
        ADD_FAILURE() << "accepted";
      } catch (const Kel::RangeError& e) {
        EXPECT_EQ(e.what(), text);
      }
    }
  }
}

TEST(NimoIpGenPrefix, MaskedAndContains) {
  struct Case {
    const char* prefix;
    const char* network;  // masked()
    const char* inside;
    const char* outside;
  };
  const Case cases[] = {
      {"10.1.2.3/8", "10.0.0.0/8", "10.255.255.255", "11.0.0.0"},
      {"10.1.2.3/0", "0.0.0.0/0", "255.1.1.1", "::"},
      {"10.1.2.255/25", "10.1.2.128/25", "10.1.2.128", "10.1.2.127"},
      {"10.0.0.2/31", "10.0.0.2/31", "10.0.0.3", "10.0.0.4"},
      {"10.1.2.3/32", "10.1.2.3/32", "10.1.2.3", "10.1.2.2"},
      {"2001:db8:ffff::1/33", "2001:db8:8000::/33", "2001:db8:ffff::", "2001:db8:7fff::"},
      {"::/0", "::/0", "ff02::d", "10.0.0.1"},
      {"ff02::d/128", "ff02::d/128", "ff02::d", "ff02::e"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.prefix);
    const IpGenPrefix p(c.prefix);
    EXPECT_EQ(p.masked(), IpGenPrefix(c.network));
    EXPECT_TRUE(p.contains(IpGenAddr(c.inside)));
    EXPECT_FALSE(p.contains(IpGenAddr(c.outside)));
  }
}

TEST(NimoIntfId, LengthLimitAndByteOrder) {
  const std::string longest(31, 'x');
  EXPECT_EQ(Nimo::IntfId(longest).name(), longest);
  for (const std::string& bad : {std::string(32, 'x'), std::string("eth\0x", 5)}) {
    try {
      Nimo::IntfId{bad};
      ADD_FAILURE() << "accepted " << bad.size() << " bytes";
    } catch (const Kel::RangeError& e) {
      EXPECT_STREQ(e.what(), "IntfId::name longer than 31 not allowed");
    }
  }
  const char* ascending[] = {"", "Ethernet", "Ethernet1", "Ethernet10", "Ethernet2", "Vlan1", "a"};
  for (std::size_t i = 0; i + 1 < std::size(ascending); ++i) {
    EXPECT_LT(Nimo::IntfId(ascending[i]), Nimo::IntfId(ascending[i + 1])) << ascending[i];
  }
}

// ---------------------------------------------------------------------------------------
// Nimo::Pkt

std::vector<std::uint8_t> bytesOf(const Nimo::Pkt& p) {
  const std::uint8_t* d = p.data(0, p.size());
  return {d, d + p.size()};
}

TEST(NimoPkt, CreateCopyAndCopyOnWrite) {
  auto z = Nimo::Pkt::create(5, 3, 2);
  EXPECT_EQ(bytesOf(*z), std::vector<std::uint8_t>(5, 0));
  EXPECT_EQ(z->headroom(), 3u);
  EXPECT_EQ(z->tailroom(), 2u);

  const std::uint8_t src[] = {1, 2, 3, 4, 5, 6, 7, 8};
  auto a = Nimo::Pkt::copyOf(src, 8, 4, 4);
  auto b = a->share();
  EXPECT_EQ(a->data(0), b->data(0));  // no copy yet
  EXPECT_TRUE(a->isShared());
  b->writableData(2, 1)[0] = 0xee;
  EXPECT_EQ(a->data(2)[0], 3);
  EXPECT_EQ(b->data(2)[0], 0xee);
  EXPECT_FALSE(a->isShared());
  EXPECT_FALSE(b->isShared());

  // Growing or prepending a shared view zero-fills bytes that the other Pkt still shows.
  auto c = a->share();
  c->delSharedTailData(3);
  ASSERT_TRUE(c->sizeIs(8));
  EXPECT_EQ(bytesOf(*c), (std::vector<std::uint8_t>{1, 2, 3, 4, 5, 0, 0, 0}));
  EXPECT_EQ(bytesOf(*a), std::vector<std::uint8_t>(src, src + 8));
  auto e = a->share();
  e->delSharedHeadData(2);
  ASSERT_TRUE(e->prepend(2));
  EXPECT_EQ(bytesOf(*e), (std::vector<std::uint8_t>{0, 0, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(bytesOf(*a), std::vector<std::uint8_t>(src, src + 8));
}

TEST(NimoPkt, SizeAndPrependLimits) {
  auto p = Nimo::Pkt::create(4, 2, 3);
  p->writableData(3, 1)[0] = 0xaa;
  EXPECT_FALSE(p->sizeIs(8));
  EXPECT_EQ(p->size(), 4u);
  ASSERT_TRUE(p->sizeIs(3));
  ASSERT_TRUE(p->sizeIs(7));  // regrown bytes are zero, not the old 0xaa
  EXPECT_EQ(bytesOf(*p), std::vector<std::uint8_t>(7, 0));
  EXPECT_EQ(p->tailroom(), 0u);
  EXPECT_FALSE(p->prepend(3));
  EXPECT_EQ(p->size(), 7u);
  ASSERT_TRUE(p->prepend(2));
  EXPECT_EQ(p->size(), 9u);
  EXPECT_EQ(p->headroom(), 0u);
  EXPECT_FALSE(p->sizeIs(std::numeric_limits<std::uint32_t>::max()));
}

TEST(NimoPkt, SharedRemovalMovesOnlyTheView) {
  const std::uint8_t src[] = {10, 11, 12, 13, 14, 15, 16, 17, 18, 19};
  auto a = Nimo::Pkt::copyOf(src, 10);
  auto b = a->share();
  b->delSharedHeadData(3);
  b->delSharedTailData(2);
  EXPECT_EQ(b->size(), 5u);
  EXPECT_EQ(b->data(0), a->data(3));  // same buffer, nothing copied
  EXPECT_EQ(a->size(), 10u);
  ASSERT_EQ(b->iovecCount(), 1u);
  EXPECT_EQ(b->iovecs()[0].iov_base, b->data(0));
  EXPECT_EQ(b->iovecs()[0].iov_len, 5u);
  b->delSharedHeadData(100);  // clamped
  EXPECT_EQ(b->size(), 0u);
  b = a->share();
  b->delSharedTailData(100);
  EXPECT_EQ(b->size(), 0u);
  EXPECT_EQ(bytesOf(*a), std::vector<std::uint8_t>(src, src + 10));
}

TEST(NimoPkt, DataBoundsNeverWrap) {
  constexpr std::uint32_t kMax = std::numeric_limits<std::uint32_t>::max();
  auto p = Nimo::Pkt::create(16);
  struct Case {
    std::uint32_t offset, len;
    bool inside;
  };
  const Case cases[] = {{0, 16, true},    {15, 1, true},         {0, 17, false},
                        {15, 2, false},   {16, 1, false},        {17, 0, false},
                        {kMax, 1, false}, {1, kMax, false},      {kMax, kMax, false},
                        {kMax, 0, false}, {kMax - 14, 16, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(fmt::format("offset {} len {}", c.offset, c.len));
    EXPECT_EQ(p->data(c.offset, c.len) != nullptr, c.inside);
    EXPECT_EQ(p->writableData(c.offset, c.len) != nullptr, c.inside);
    if (c.inside) {
      EXPECT_EQ(p->data(c.offset, c.len), p->data(0) + c.offset);
    }
  }
}

TEST(NimoPktDeathTest, SharedRemovalAssertsItsPreconditions) {
  EXPECT_DEATH(Nimo::Pkt::withoutBufferForTest()->delSharedHeadData(1), "sharedBuffer_ != 0");
  EXPECT_DEATH(Nimo::Pkt::withoutBufferForTest()->delSharedTailData(1), "sharedBuffer_ != 0");
  EXPECT_DEATH(Nimo::Pkt::withoutIovecForTest(8)->delSharedHeadData(1),
               "firstIoVec_ != maxIovecs_");
  EXPECT_DEATH(Nimo::Pkt::withoutIovecForTest(8)->delSharedTailData(1),
               "firstIoVec_ != maxIovecs_");
}

// ---------------------------------------------------------------------------------------
// Checksums and IP headers, against a plain big-endian reference.

std::vector<std::uint8_t> hex(std::string_view text) {
  std::string digits;
  for (char c : text) digits += c == ' ' ? "" : std::string(1, c);
  std::vector<std::uint8_t> out;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    out.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return out;
}

std::uint16_t refChecksum(const std::uint8_t* p, std::size_t n) {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i + 1 < n; i += 2) sum += (p[i] << 8) | p[i + 1];
  if (n % 2) sum += p[n - 1] << 8;
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<std::uint16_t>(~sum & 0xffff);
}

TEST(NimoChecksum, MatchesReferenceAtEveryLengthAndAlignment) {
  std::mt19937 rng(7);
  std::vector<std::uint8_t> buf(130 + 8);
  for (std::size_t len = 0; len <= 130; ++len) {
    for (std::size_t align = 0; align < 8; ++align) {
      for (auto& b : buf) b = static_cast<std::uint8_t>(rng());
      const std::uint8_t* p = buf.data() + align;
      ASSERT_EQ(Nimo::inetChecksum(p, len), refChecksum(p, len)) << len << "@" << align;
      const std::size_t half = len / 2 & ~std::size_t{1};  // chained: even range first
      const auto acc = Nimo::checksumAdd(Nimo::checksumAdd(0, p, half), p + half, len - half);
      ASSERT_EQ(Nimo::checksumFold(acc), refChecksum(p, len)) << len << "@" << align;
    }
  }
  // Many carries: long runs of 0xff bytes.
  std::vector<std::uint8_t> ones(65535, 0xff);
  for (std::size_t len : {65535u, 65534u, 4097u, 33u}) {
    EXPECT_EQ(Nimo::inetChecksum(ones.data(), len), refChecksum(ones.data(), len)) << len;
  }
}

TEST(NimoChecksum, ClassicIpv4HeaderExample) {
  auto h = hex("4500 0073 0000 4000 4011 0000 c0a8 0001 c0a8 00c7");
  EXPECT_EQ(Nimo::inetChecksum(h.data(), h.size()), 0xb861);
  Nimo::store16(h.data() + 10, 0xb861);
  EXPECT_EQ(Nimo::inetChecksum(h.data(), h.size()), 0);
}

TEST(NimoChecksum, Ipv6PseudoHeader) {
  std::mt19937 rng(11);
  const IpGenAddr src("fe80::1:2:3:4"), dst("ff02::d");
  for (std::uint32_t len : {0u, 1u, 4u, 7u, 38u, 101u}) {
    for (std::uint32_t upperLen : {len, 8u, 0x12345u}) {
      std::vector<std::uint8_t> all(40 + len);
      std::memcpy(all.data(), src.bytes(), 16);
      std::memcpy(all.data() + 16, dst.bytes(), 16);
      Nimo::store32(all.data() + 32, upperLen);
      all[39] = Nimo::kIpProtoPim;
      for (std::size_t i = 40; i < all.size(); ++i) all[i] = static_cast<std::uint8_t>(rng());
      EXPECT_EQ(Nimo::inetChecksumV6(src, dst, upperLen, Nimo::kIpProtoPim, all.data() + 40, len),
                refChecksum(all.data(), all.size()))
          << len << " " << upperLen;
      Nimo::PimCommonHdr hdr(all.data() + 40);
      if (len >= 4) {
        EXPECT_EQ(hdr.computeChecksumV6(src, dst, upperLen, len),
                  refChecksum(all.data(), all.size()));
      }
    }
  }
}

TEST(NimoIpHdr, BuildWritesEveryByte) {
  std::vector<std::uint8_t> b4(20, 0x5a), b6(40, 0x5a);  // stale bytes must not survive
  Nimo::Ipv4Hdr(b4.data()).build(0xc0, 0x0123, 1, Nimo::kIpProtoPim, IpGenAddr("10.0.0.1"),
                                 IpGenAddr("224.0.0.13"));
  EXPECT_EQ(refChecksum(b4.data(), 20), 0);
  b4[10] = b4[11] = 0;
  EXPECT_EQ(b4, hex("45c0 0123 0000 0000 0167 0000 0a00 0001 e000 000d"));
  Nimo::Ipv6Hdr(b6.data()).build(0xb8, 0x0456, Nimo::kIpProtoPim, 1, IpGenAddr("fe80::1"),
                                 IpGenAddr("ff02::d"));
  EXPECT_EQ(b6, hex("6b80 0000 0456 6701 fe80 0000 0000 0000 0000 0000 0000 0001"
                    "ff02 0000 0000 0000 0000 0000 0000 000d"));
}

// ---------------------------------------------------------------------------------------
// Flicklog

int formatCalls = 0;
struct CountsFormatting {};

}  // namespace

template <>
struct fmt::formatter<CountsFormatting> : fmt::formatter<std::string_view> {
  auto format(CountsFormatting, fmt::format_context& ctx) const {
    ++formatCalls;
    return fmt::formatter<std::string_view>::format("counted", ctx);
  }
};

namespace {

TEST(Flicklog, FormatsOnlyWhenTheLevelIsOn) {
  struct Case {
    int facilityLevel, lineLevel;
    bool emitted;
  };
  const Case cases[] = {{0, 0, false}, {0, 1, false}, {3, 1, true},   {3, 3, true},
                        {3, 4, false}, {9, 9, true},  {9, 10, false}, {9, -1, false}};
  Flicklog::Facility& f = Flicklog::facility("PlatformTest.Levels");
  for (const auto& c : cases) {
    SCOPED_TRACE(fmt::format("facility {} line {}", c.facilityLevel, c.lineLevel));
    Flicklog::CaptureSink cap;
    f.levelIs(c.facilityLevel);
    formatCalls = 0;
    FLICK_TRACE(f, c.lineLevel, "value {}", CountsFormatting{});
    EXPECT_EQ(formatCalls, c.emitted ? 1 : 0);
    ASSERT_EQ(cap.lines().size(), c.emitted ? 1u : 0u);
    if (c.emitted) {
      EXPECT_EQ(cap.lines()[0].facility, "PlatformTest.Levels");
      EXPECT_EQ(cap.lines()[0].level, c.lineLevel);
      EXPECT_EQ(cap.lines()[0].text, "value counted");
    }
  }
}

// The environment is read once, when the first facility is made, so the check runs in a
// freshly started copy of this program.
TEST(FlicklogDeathTest, LevelsFromTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        setenv("FLICKLOG", "PlatformTest.Named=7,*=2,Garbage,PlatformTest.Late=4", 1);
        int named = Flicklog::facility("PlatformTest.Named").level();
        int other = Flicklog::facility("PlatformTest.Other").level();
        int late = Flicklog::facility("PlatformTest.Late").level();
        std::fprintf(stderr, "levels %d %d %d\n", named, other, late);
        std::exit(named == 7 && other == 2 && late == 4 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "levels 7 2 4");
}

TEST(Flicklog, LogMessageFormatsIntoTheCapture) {
  namespace P = Routing::Pim::Packet;
  Flicklog::CaptureSink outer;
  {
    Flicklog::CaptureSink cap;
    Flicklog::logMessage(P::PIM_MESSAGE_AF_MISMATCH, "Join/Prune", "IPv4", "IPv6");
    Flicklog::logMessage(P::PIM_MESSAGE_INVALID_ENCODED_GROUP, "Join/Prune", "10.0.0.1/32");
    Flicklog::logMessage(P::PIMBSR_CRPADV_ZONE_SET, IpGenAddr("10.1.1.1").str());
    ASSERT_EQ(cap.lines().size(), 3u);
    EXPECT_EQ(cap.lines()[0].facility, "syslog");
    EXPECT_EQ(cap.lines()[0].level, 4);
    EXPECT_EQ(cap.lines()[0].text,
              "%PIM_MESSAGE_AF_MISMATCH: Attempted to send Join/Prune IPv4 message with IPv6 "
              "address in the message");
    EXPECT_EQ(cap.lines()[1].text,
              "%PIM_MESSAGE_INVALID_ENCODED_GROUP: Attempted to send Join/Prune message with a "
              "non-multicast encoded group 10.0.0.1/32");
    EXPECT_EQ(cap.lines()[2].level, 6);
    EXPECT_EQ(cap.lines()[2].text,
              "%PIMBSR_CRPADV_ZONE_SET: Received Candidate-RP Advertisements from C-RP 10.1.1.1 "
              "with Zone bit set");
  }
  // The outer capture is current again, for trace lines and system-log lines alike.
  Flicklog::logMessage(Routing::Pim::Packet::PIM_MESSAGE_INVALID_ENCODED_SOURCE, "Assert",
                       "224.0.0.1");
  Flicklog::Facility& f = Flicklog::facility("PlatformTest.Nested");
  f.levelIs(1);
  FLICK_TRACE(f, 1, "after");
  ASSERT_EQ(outer.texts().size(), 2u);
  EXPECT_EQ(outer.texts()[0],
            "%PIM_MESSAGE_INVALID_ENCODED_SOURCE: Attempted to send Assert message with a "
            "non-unicast encoded source 224.0.0.1");
  EXPECT_EQ(outer.texts()[1], "after");
}

}  // namespace
