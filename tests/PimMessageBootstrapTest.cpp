// Bootstrap and Candidate-RP Advertisement readers, writers, keys and print forms.

#include <gmock/gmock.h>

#include "Pim/PimMessage.h"
#include "tests/PimCodecTestUtil.h"

namespace {

using namespace PimTest;
using namespace Routing::Pim::Packet;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const Bytes kBsm4 =
    hex("24 00 00 00"
        "00 2a  1e  c0"                     // fragment tag 42, hash mask 30, priority 192
        "01 00 0a 00 00 01"                 // BSR 10.0.0.1
        "01 00 00 04 e0 00 00 00"           // group 224.0.0.0/4
        "02 02 00 00"                       // RP count 2, fragment RP count 2
        "01 00 0a 00 00 63  00 96 c0 00"    // RP 10.0.0.99, holdtime 150, priority 192
        "01 00 0a 00 00 64  00 96 c0 00"    // RP 10.0.0.100
        "01 00 80 08 ef 00 00 00"           // group 239.0.0.0/8, bidirectional
        "03 01 00 00"                       // RP count 3, this fragment 1
        "01 00 0a 00 00 63  00 96 0a 00");  // RP 10.0.0.99, priority 10
const Bytes kBsm6 =
    hex("24 80 00 00"  // No-Forward
        "00 07  7e  40"
        "02 00 2001 0db8 0000 0000 0000 0000 0000 0001"
        "02 00 00 08 ff00 0000 0000 0000 0000 0000 0000 0000"
        "01 01 00 00"
        "02 00 2001 0db8 0000 0000 0000 0000 0000 0099  00 96 c0 00");

Kel::Ptr<BootstrapMessage> bsmObject(const Family& f) {
  auto m = message<BootstrapMessage>(f);
  const auto rp = [](BootstrapGroupData& g, const char* a, std::uint8_t priority) {
    BootstrapRpData& r = g.rpListIs(Nimo::IpGenAddr(a));
    r.rpHoldtime = 150;
    r.rpPriority = priority;
  };
  if (f.v6) {
    m->noForwardIs(true);
    m->fragmentTagIs(7);
    m->hashMaskLenIs(126);
    m->bsrPriorityIs(64);
    m->bsrAddressIs(Nimo::IpGenAddr("2001:db8::1"));
    BootstrapGroupData& g = m->groupDataIs(Nimo::IpGenPrefix("ff00::/8"));
    g.rpCount = g.fragRpCount = 1;
    rp(g, "2001:db8::99", 192);
    return m;
  }
  m->fragmentTagIs(42);
  m->hashMaskLenIs(30);
  m->bsrPriorityIs(192);
  m->bsrAddressIs(Nimo::IpGenAddr("10.0.0.1"));
  BootstrapGroupData& a = m->groupDataIs(Nimo::IpGenPrefix("224.0.0.0/4"));
  a.rpCount = a.fragRpCount = 2;
  rp(a, "10.0.0.99", 192);
  rp(a, "10.0.0.100", 192);
  BootstrapGroupData& b = m->groupDataIs(Nimo::IpGenPrefix("239.0.0.0/8"));
  b.groupFlags = GroupAddress::kBidirectional;
  b.rpCount = 3;
  b.fragRpCount = 1;
  rp(b, "10.0.0.99", 10);
  return m;
}

class BootstrapTest : public TraceTest {};

TEST_F(BootstrapTest, GoldenBothWays) {
  for (const Family* f : {&kV4, &kV6}) {
    SCOPED_TRACE(f->name());
    clear();
    const Bytes golden = withChecksum(f->v6 ? kBsm6 : kBsm4, f->src, f->dst);
    auto tx = bsmObject(*f);
    const Bytes out = written(*tx, &BootstrapMessage::writeBootstrapMessage);
    EXPECT_EQ(out, golden) << "written:\n" << toHex(out) << "\nwanted:\n" << toHex(golden);
    auto rx = message<BootstrapMessage>(*f);
    ASSERT_EQ(readFramed(*rx, &BootstrapMessage::readBootstrapMessage, golden), golden.size());
    EXPECT_EQ(*rx, *tx);
    EXPECT_EQ(rx->noForward(), f->v6);
    EXPECT_THAT(errors(), IsEmpty());
    // A message may end after the BSR address or after any group's last RP.
    truncationSweep<BootstrapMessage>(
        *f, &BootstrapMessage::readBootstrapMessage, golden,
        [&](const Bytes& b) { return withChecksum(b, f->src, f->dst); },
        f->v6 ? std::set<std::size_t>{26} : std::set<std::size_t>{14, 46});
  }
}

// Each group gets the key the BSR logic reassembles by; the key's text form reads back.
TEST_F(BootstrapTest, FragmentKeys) {
  auto rx = message<BootstrapMessage>(kV4);
  ASSERT_GT(rx->readBootstrapMessage(pkt(withChecksum(kBsm4, kV4Src, kV4Dst)), 0), 0u);
  ASSERT_EQ(rx->fragments().size(), 2u);
  const auto& [key, fragment] = *rx->fragments().rbegin();
  const std::string text = Kel::valueToStrep(key);
  EXPECT_EQ(text,
            "Value('Routing::Pim::Packet::BootstrapRpFragmentKey', ** {'prefix': 239.0.0.0/8, "
            "'bsrAddress': 10.0.0.1, 'groupFlags': 128, 'noForward': False, 'fragmentTag': 42, "
            "'hashMaskLen': 30, 'bsrPriority': 192, 'rpCount': 3, 'hash': 0})");
  EXPECT_EQ(BootstrapRpFragmentKey(text.data(), text.data() + text.size()), key);
  EXPECT_EQ(fragment.fragmentKey, key);
  EXPECT_EQ(fragment.rpList, rx->groupData()[1].rpList);
}

TEST_F(BootstrapTest, ReaderChecks) {
  const std::string kBsm = "Invalid Pim Bootstrap - ";
  const std::string fixed = "002a 1e c0  01 00 0a000001", g224 = "01 00 00 04 e0000000",
                    g239 = "01 00 00 08 ef000000", rp99 = "01 00 0a000063 0096 c000";
  struct Case {
    std::string body;
    std::vector<std::string> errors;
  };
  const Case cases[] = {
      {fixed + g224 + "0101 0000" + rp99 + g224 + "0101 0000" + rp99,
       {kBsm + "Group Address - Duplicate group - 224.0.0.0/4"}},
      {fixed + g224 + "0000 0000 01 00 01 08 ef000000 0000 0000",
       {kBsm + "Zone bit set on group other than first"}},
      {fixed + g224 + "0102 0000" + rp99 + rp99,
       {"Invalid Pim Bootstrap data - RP count 1 is less than fragRp count 2"}},
      {fixed + g224 + "0202 0000" + rp99,
       {kBsm + "Parse Error - RP count remaining 1 but no more data."}},
      {fixed + g224 + "0202 0000" + rp99 + rp99,
       {kBsm + "RP Address - Duplicate - RP Address: 10.0.0.99"}},
      {fixed + g224 + "0101 0000 01 00 e0000001 0096 c000",
       {"Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.1",
        kBsm + "RP Address - Invalid Address - 224.0.0.1"}},
      {fixed + g224 + "0101 0000 01 00 0a00",
       {"Invalid Encoded Unicast Address - Ip Address Length - Remaining: 2 Expected: 4",
        kBsm + "RP Address - Parse Error"}},
      {fixed + g224 + "0101 0000 01 00 0a000063 0096", {kBsm + "Parse Error"}},
      {fixed + g224 + "01", {kBsm + "Parse Error"}},
      {"002a 81 c0  01 00 0a000001", {"BootstrapMessage::hashMaskLen < 0 or > 128 not allowed"}},
      {"002a", {kBsm + "Parse Error"}},
      {"002a 1e c0  01 00 e0000001",
       {"Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.1",
        kBsm + "BSR Address - Invalid Address - 224.0.0.1"}},
      {"002a 1e c0  02 00 0000 0000 0000 0000 0000 0000 0000 0001",
       {kBsm + "BSR Address - Invalid Family - Family: 1 BSR Address: ::1"}},
      {fixed + "01 00 00 08 0a000000 0000 0000",
       {"Invalid Encoded Group Address - Not Multicast - Address: 10.0.0.0",
        kBsm + "Group Address - Invalid Prefix: 10.0.0.0/8"}},
      {fixed + "02 00 00 08 ff00 0000 0000 0000 0000 0000 0000 0000 0000 0000",
       {kBsm + "Group Address - Invalid Family - Family: 1 Group Address: ff00::"}},
      {fixed + g239 + "0000 0000 0000", {kBsm + "End of Message - Remaining: 2"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    clear();
    auto rx = message<BootstrapMessage>(kV4);
    EXPECT_EQ(
        rx->readBootstrapMessage(pkt(withChecksum(hex("24000000" + c.body), kV4Src, kV4Dst)), 0),
        0u);
    EXPECT_EQ(errors(), c.errors);
  }
}

TEST_F(BootstrapTest, WriterChecks) {
  const std::string kBsm = "Invalid Pim Bootstrap - ";
  struct Case {
    const char* name;
    void (*change)(BootstrapMessage&);
    std::uint32_t room;
    std::vector<std::string> errors;
  };
  const Case cases[] = {
      {"header room",
       [](BootstrapMessage&) {},
       7,
       {kBsm + "Header - Unavailable Space - Remaining: 7"}},
      {"BSR family",
       [](BootstrapMessage& m) { m.bsrAddressIs(Nimo::IpGenAddr("::1")); },
       100,
       {kBsm + "Invalid Family - Family: 1 BSR Address: ::1"}},
      {"duplicate group",
       [](BootstrapMessage& m) { m.groupData().push_back(m.groupData()[0]); },
       200,
       {kBsm + "Duplicate Group present"}},
      {"RP count below fragment count",
       [](BootstrapMessage& m) { m.groupData()[0].rpCount = 1; },
       200,
       {"Invalid Pim Bootstrap data passed - RP count 1 is less than fragRp count 2"}},
      {"fragment count not the RPs given",
       [](BootstrapMessage& m) { m.groupData()[1].fragRpCount = 2; },
       200,
       {"Invalid Pim Bootstrap data passed - RP count in BSM2 does not match RP records count 1"}},
      {"zone bit on the second group",
       [](BootstrapMessage& m) { m.groupData()[1].groupFlags = 1; },
       200,
       {kBsm + "Zone bit set on group other than first"}},
      {"zone bit on the first group is fine",
       [](BootstrapMessage& m) { m.groupData()[0].groupFlags = 1; },
       200,
       {}},
      {"group family",
       [](BootstrapMessage& m) { m.groupData()[1].prefix = Nimo::IpGenPrefix("ff00::/8"); },
       200,
       {kBsm + "Invalid Family - Family: 1 Group Address: ff00::"}},
      {"RP family",
       [](BootstrapMessage& m) {
         m.groupData()[1].rpList = {{Nimo::IpGenAddr("::9"), {}}};
       },
       200,
       {kBsm + "Invalid Family - Family: 1 RP Address: ::9"}},
      {"RP trailer room", [](BootstrapMessage&) {}, 67, {kBsm + "RP Address - Write Error"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto m = bsmObject(kV4);
    c.change(*m);
    clear();
    EXPECT_EQ(written(*m, &BootstrapMessage::writeBootstrapMessage, c.room).empty(),
              !c.errors.empty());
    EXPECT_EQ(errors(), c.errors);
  }
}

TEST(BootstrapRoundTrip, GeneratedMessages) {
  for (const Family* f : {&kV4, &kV6}) {
    for (unsigned seed = 0; seed < 40; ++seed) {
      auto tx = message<BootstrapMessage>(*f);
      tx->noForwardIs(seed & 1);
      tx->fragmentTagIs(static_cast<std::uint16_t>(seed * 977));
      tx->hashMaskLenIs(static_cast<std::uint8_t>(seed * 3 % 129));
      tx->bsrPriorityIs(static_cast<std::uint8_t>(seed * 37));
      tx->bsrAddressIs(f->v6 ? Nimo::IpGenAddr("2001:db8::1") : Nimo::IpGenAddr("10.0.0.1"));
      for (unsigned g = 0; g < seed % 7; ++g) {
        const auto prefix = f->v6 ? Nimo::IpGenPrefix(fmt::format("ff3{:x}::/16", g))
                                  : Nimo::IpGenPrefix(fmt::format("239.{}.0.0/16", g));
        BootstrapGroupData& gd = tx->groupDataIs(prefix);
        gd.groupFlags = static_cast<std::uint8_t>(g == 0 ? seed & 0x81 : seed & 0x80);
        gd.fragRpCount = static_cast<std::uint8_t>((seed + g) % 5);
        gd.rpCount = static_cast<std::uint8_t>(gd.fragRpCount + g);
        for (unsigned r = 0; r < gd.fragRpCount; ++r) {
          BootstrapRpData& rp =
              gd.rpListIs(f->v6 ? Nimo::IpGenAddr(fmt::format("2001:db8::{:x}", r + 1))
                                : Nimo::IpGenAddr::v4(0x0a000001 + r));
          rp.rpHoldtime = static_cast<std::uint16_t>(seed * 100 + r);
          rp.rpPriority = static_cast<std::uint8_t>(r * 50);
          rp.reserved = static_cast<std::uint8_t>(seed);
        }
      }
      const Bytes out = written(*tx, &BootstrapMessage::writeBootstrapMessage);
      auto rx = message<BootstrapMessage>(*f);
      ASSERT_EQ(rx->readBootstrapMessage(pkt(out), 0), out.size()) << seed;
      EXPECT_EQ(*rx, *tx) << f->name() << " seed " << seed;
      EXPECT_EQ(rx->fragments().size(), tx->groupData().size());
    }
  }
}

TEST(BootstrapAttributes, NoForwardHashMaskLenAndPrintForm) {
  auto m = bsmObject(kV4);
  m->reservedIs(0x7f);
  m->noForwardIs(true);
  EXPECT_EQ(m->reserved(), 0x80);  // the whole byte, not only its top bit
  m->forwardIs(true);
  EXPECT_EQ(m->reserved(), 0);
  try {
    m->hashMaskLenIs(200);
    FAIL() << "200 accepted";
  } catch (const Kel::RangeError& e) {
    EXPECT_STREQ(e.what(), "BootstrapMessage::hashMaskLen < 0 or > 128 not allowed");
  }
  EXPECT_EQ(m->hashMaskLen(), 200);  // kept as stored
  m->hashMaskLenIs(30);
  m->groupData().pop_back();
  EXPECT_EQ(
      printed(*m),
      "version=2 type=4 (Bootstrap) reserved=0 length=0 src=10.0.0.1 dst=224.0.0.13 | "
      "bsrAddress=10.0.0.1 Forward=1, fragmentTag=42, hashMaskLen=30, bsrPriority=192 "
      "group=( prefix=224.0.0.0/4, rpCount=2, fragRpCount=2, RpList=[ rp=( address=10.0.0.99, "
      "Holdtime=150, Priority=192, reserved=0 ) rp=( address=10.0.0.100, Holdtime=150, "
      "Priority=192, reserved=0 ) ] )");
}

// ---------------------------------------------------------------------------------------
// Candidate-RP Advertisement

const Bytes kCrp4 =
    hex("28 00 00 00"
        "02 c0 00 96"                // 2 prefixes, priority 192, holdtime 150
        "01 00 0a 00 00 63"          // RP 10.0.0.99
        "01 00 00 04 e0 00 00 00"    // 224.0.0.0/4
        "01 00 00 08 ef 00 00 00");  // 239.0.0.0/8
const Bytes kCrp6 =
    hex("28 00 00 00"
        "01 0a 00 3c"
        "02 00 2001 0db8 0000 0000 0000 0000 0000 0099"
        "02 00 00 08 ff00 0000 0000 0000 0000 0000 0000 0000");

Kel::Ptr<CrpAdvMessage> crpObject(const Family& f) {
  auto m = message<CrpAdvMessage>(f);
  auto groups = Kel::Ptr<CrpGroupData>::make();
  m->groupDataIs(groups);
  if (f.v6) {
    m->prefixCountIs(1);
    m->priorityIs(10);
    m->holdtimeIs(60);
    m->rpAddressIs(Nimo::IpGenAddr("2001:db8::99"));
    groups->groupInfoIs(Nimo::IpGenPrefix("ff00::/8"));
    return m;
  }
  m->prefixCountIs(2);
  m->priorityIs(192);
  m->holdtimeIs(150);
  m->rpAddressIs(Nimo::IpGenAddr("10.0.0.99"));
  groups->groupInfoIs(Nimo::IpGenPrefix("224.0.0.0/4"));
  groups->groupInfoIs(Nimo::IpGenPrefix("239.0.0.0/8"));
  return m;
}

class CrpAdvTest : public TraceTest {};

TEST_F(CrpAdvTest, GoldenBothWays) {
  for (const Family* f : {&kV4, &kV6}) {
    SCOPED_TRACE(f->name());
    clear();
    const Bytes golden = withChecksum(f->v6 ? kCrp6 : kCrp4, f->src, f->dst);
    auto tx = crpObject(*f);
    const Bytes out = written(*tx, &CrpAdvMessage::writeCrpAdvMessage);
    EXPECT_EQ(out, golden) << toHex(out);
    auto rx = message<CrpAdvMessage>(*f);
    ASSERT_EQ(readFramed(*rx, &CrpAdvMessage::readCrpAdvMessage, golden), golden.size());
    EXPECT_EQ(*rx, *tx);
    EXPECT_THAT(errors(), IsEmpty());
    truncationSweep<CrpAdvMessage>(*f, &CrpAdvMessage::readCrpAdvMessage, golden,
                                   [&](const Bytes& b) { return withChecksum(b, f->src, f->dst); });
  }
  EXPECT_EQ(
      printed(*crpObject(kV4)),
      "version=2 type=8 (Candidate-RP-Advertisement) reserved=0 length=0 src=10.0.0.1 "
      "dst=224.0.0.13 "
      "prefixCount=2, priority=192, holdtime=150 | rpAddress=10.0.0.99 | GroupData=[ 224.0.0.0/4, "
      "groupFlags: 0 239.0.0.0/8, groupFlags: 0 ]");
}

// A boundary router configured as a candidate RP sends admin-scoped groups: accepted, with
// a warning that the BSR logic turns into its log message.
TEST_F(CrpAdvTest, ZoneBitAcceptedWithAWarning) {
  const Bytes msg = withChecksum(hex("28000000 01 c0 0096  01 00 0a000063  01 00 01 08 ef000000"),
                                 kV4Src, kV4Dst);
  auto rx = message<CrpAdvMessage>(kV4);
  ASSERT_EQ(rx->readCrpAdvMessage(pkt(msg), 0), msg.size());
  EXPECT_EQ(rx->groupData()->groupInfo.at(Nimo::IpGenPrefix("239.0.0.0/8")),
            GroupAddress::kAdminScopeZone);
  EXPECT_THAT(
      warnings(),
      ElementsAre(
          "Valid Pim CrpAdv - Group Address has Zone flag set - Group: 239.0.0.0/8 RP: 10.0.0.99"));
  rx->allowedScopeIs(CrpAdvScope::Admin);
  EXPECT_EQ(written(*rx, &CrpAdvMessage::writeCrpAdvMessage), msg);
}

TEST_F(CrpAdvTest, ReaderChecks) {
  const std::string kCrp = "Invalid Pim CrpAdv - ";
  const std::string rp = "01 00 0a000063", g224 = "01 00 00 04 e0000000";
  struct Case {
    std::string body;
    std::vector<std::string> errors;
    bool cleanedUp;
  };
  const Case cases[] = {
      {"03 c0 0096" + rp + g224 + "01 00 00 08 ef000000",
       {kCrp + "Group Address count mismatch -  prefixCount: 3 numGroups: 2"},
       true},
      {"01 c0 0096" + rp + g224 + g224,
       {kCrp + "Group Address - Duplicate group - 224.0.0.0/4"},
       true},
      {"01 c0 0096" + rp + "01 00 00 08 0a000000",
       {"Invalid Encoded Group Address - Not Multicast - Address: 10.0.0.0",
        kCrp + "Group Address - Invalid Prefix: 10.0.0.0/8"},
       true},
      {"01 c0 0096" + rp + "01 00 00 04 e000",
       {"Invalid Encoded Group Address - Ip Address Length - Remaining: 2 Expected: 4",
        kCrp + "Group Address - Parse Error"},
       true},
      {"01 c0 0096  01 00 e0000001" + g224,
       {"Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.1",
        kCrp + "RP Address - Invalid Address - 224.0.0.1"},
       false},
      {"01 c0 0096  02 00 2001 0db8 0000 0000 0000 0000 0000 0099" + g224,
       {kCrp + "RP Address - Invalid Family - Family: 1 RP Address: 2001:db8::99"},
       false},
      {"01 c0 00", {kCrp + "Parse Error"}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    clear();
    auto rx = message<CrpAdvMessage>(kV4);
    EXPECT_EQ(rx->readCrpAdvMessage(pkt(withChecksum(hex("28000000" + c.body), kV4Src, kV4Dst)), 0),
              0u);
    EXPECT_EQ(errors(), c.errors);
    EXPECT_FALSE(rx->groupData());
    const auto debug = at(4);
    EXPECT_EQ(std::count(debug.begin(), debug.end(), "Invalid Pim CrpAdv. Cleaning Up"),
              c.cleanedUp ? 1 : 0);
  }
}

TEST_F(CrpAdvTest, WriterChecks) {
  const std::string kCrp = "Invalid Pim CrpAdv - ";
  struct Case {
    const char* name;
    void (*change)(CrpAdvMessage&);
    std::uint32_t room;
    std::string error;
  };
  const Case cases[] = {
      {"header room", [](CrpAdvMessage&) {}, 7, kCrp + "Header - Unavailable Space - Remaining: 7"},
      {"RP family", [](CrpAdvMessage& m) { m.rpAddressIs(Nimo::IpGenAddr("::9")); }, 100,
       kCrp + "Invalid Family - Family: 1 RP Address: ::9"},
      {"zone group, global allowed",
       [](CrpAdvMessage& m) { m.groupData()->groupInfoIs(Nimo::IpGenPrefix("239.0.0.0/8"), 1); },
       100, kCrp + "Invalid Scope: 239.0.0.0/8 Group Scope: Admin Allowed Scope: global"},
      {"global group, admin allowed",
       [](CrpAdvMessage& m) { m.allowedScopeIs(CrpAdvScope::Admin); }, 100,
       kCrp + "Invalid Scope: 224.0.0.0/4 Group Scope: global Allowed Scope: Admin"},
      {"group family",
       [](CrpAdvMessage& m) {
         m.groupData()->groupInfo = {{Nimo::IpGenPrefix("ff00::/8"), 0}};
       },
       100, kCrp + "Invalid Family - Family: 1 Group Address: ff00::"},
      {"prefix count",
       [](CrpAdvMessage& m) { m.groupData()->groupInfo.erase(Nimo::IpGenPrefix("239.0.0.0/8")); },
       100, kCrp + "Prefix Count Mismatch"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto m = crpObject(kV4);
    c.change(*m);
    clear();
    EXPECT_THAT(written(*m, &CrpAdvMessage::writeCrpAdvMessage, c.room), IsEmpty());
    EXPECT_EQ(errors().back(), c.error);
  }
}

TEST(CrpAdvRoundTrip, GeneratedMessages) {
  for (const Family* f : {&kV4, &kV6}) {
    for (unsigned seed = 0; seed < 40; ++seed) {
      auto tx = message<CrpAdvMessage>(*f);
      tx->priorityIs(static_cast<std::uint8_t>(seed * 7));
      tx->holdtimeIs(static_cast<std::uint16_t>(seed * 1000));
      tx->rpAddressIs(f->v6 ? Nimo::IpGenAddr("2001:db8::99") : Nimo::IpGenAddr("10.0.0.99"));
      tx->groupDataIs(Kel::Ptr<CrpGroupData>::make());
      for (unsigned g = 0; g < seed % 9; ++g) {
        tx->groupData()->groupInfoIs(
            f->v6 ? Nimo::IpGenPrefix(fmt::format("ff3e::{:x}/{}", g, 16 + g))
                  : Nimo::IpGenPrefix(fmt::format("239.{}.0.0/{}", g, 8 + g)),
            static_cast<std::uint8_t>(seed & 0x80));
      }
      tx->prefixCountIs(static_cast<std::uint8_t>(seed % 9));
      const Bytes out = written(*tx, &CrpAdvMessage::writeCrpAdvMessage);
      auto rx = message<CrpAdvMessage>(*f);
      ASSERT_EQ(rx->readCrpAdvMessage(pkt(out), 0), out.size()) << seed;
      EXPECT_EQ(*rx, *tx) << f->name() << " seed " << seed;
    }
  }
}

}  // namespace
