// Bootstrap and Candidate-RP Advertisement readers, writers, keys and print forms.

#include "Pim/PimMessage.h"
#include "tests/PimCodecTestUtil.h"

namespace {

using namespace PimTest;
using namespace Routing::Pim::Packet;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const Bytes kBsm4 =
    hex("24 00 0000"
        "00 2a  1e  c0"                     // fragment tag 42, hash mask 30, priority 192
        "01 00 0a 00 00 01"                 // BSR 10.0.0.1
        "01 00 00 04 e0 00 00 00"           // group 224.0.0.0/4
        "02 02 00 00"                       // RP count 2, in this fragment 2
        "01 00 0a 00 00 63  00 96 c0 00"    // RP 10.0.0.99, holdtime 150, priority 192
        "01 00 0a 00 00 64  00 96 c0 00"    // RP 10.0.0.100
        "01 00 80 08 ef 00 00 00"           // group 239.0.0.0/8, bidirectional
        "03 01 00 00"                       // RP count 3, in this fragment 1
        "01 00 0a 00 00 63  00 96 0a 00");  // RP 10.0.0.99, priority 10
const Bytes kBsm6 =
    hex("24 80 0000"  // No-Forward
        "00 07  7e  40"
        "02 00 2001 0db8 0000 0000 0000 0000 0000 0001"
        "02 00 00 08 ff00 0000 0000 0000 0000 0000 0000 0000"
        "01 01 00 00"
        "02 00 2001 0db8 0000 0000 0000 0000 0000 0099  00 96 c0 00");

void rp(BootstrapGroupData& g, const char* a, std::uint8_t priority) {
  BootstrapRpData& r = g.rpListIs(Nimo::IpGenAddr(a));
  r.rpHoldtime = 150;
  r.rpPriority = priority;
}

BootstrapGroupData& group(BootstrapMessage& m, const char* prefix, std::uint8_t rps,
                          std::uint8_t here) {
  BootstrapGroupData& g = m.groupDataIs(Nimo::IpGenPrefix(prefix));
  g.rpCount = rps;
  g.fragRpCount = here;
  return g;
}

Kel::Ptr<BootstrapMessage> bsmObject(const Family& f) {
  auto m = message<BootstrapMessage>(f);
  m->noForwardIs(f.v6);
  m->fragmentTagIs(f.v6 ? 7 : 42);
  m->hashMaskLenIs(f.v6 ? 126 : 30);
  m->bsrPriorityIs(f.v6 ? 64 : 192);
  m->bsrAddressIs(Nimo::IpGenAddr(f.v6 ? "2001:db8::1" : "10.0.0.1"));
  if (f.v6) {
    rp(group(*m, "ff00::/8", 1, 1), "2001:db8::99", 192);
    return m;
  }
  BootstrapGroupData& a = group(*m, "224.0.0.0/4", 2, 2);
  rp(a, "10.0.0.99", 192);
  rp(a, "10.0.0.100", 192);
  BootstrapGroupData& b = group(*m, "239.0.0.0/8", 3, 1);
  b.groupFlags = GroupAddress::kBidirectional;
  rp(b, "10.0.0.99", 10);
  return m;
}

class BootstrapTest : public CodecTest {};

// A message may end after the BSR address or after any group's last RP. Each group gets
// the key the BSR logic reassembles fragments by; the key's text form reads back.
TEST_F(BootstrapTest, GoldenAndFragmentKeys) {
  for (const Family* f : {&kV4, &kV6}) {
    golden(*f, withChecksum(f->v6 ? kBsm6 : kBsm4, f->src, f->dst), *bsmObject(*f),
           &BootstrapMessage::readBootstrapMessage, &BootstrapMessage::writeBootstrapMessage, {},
           f->v6 ? std::set<std::size_t>{26} : std::set<std::size_t>{14, 46});
  }
  auto rx = message<BootstrapMessage>(kV4);
  ASSERT_GT(rx->readBootstrapMessage(pkt(withChecksum(kBsm4, kV4Src, kV4Dst)), 0), 0u);
  ASSERT_EQ(rx->fragments().size(), 2u);
  const auto& [key, fragment] = *rx->fragments().rbegin();
  const std::string text = Kel::valueToStrep(key);
  EXPECT_EQ(text,
            "Value('Routing::Pim::Packet::BootstrapRpFragmentKey', ** {'prefix': 239.0.0.0/8, "
            "'bsrAddress': 10.0.0.1, "
            "'groupFlags': 128, 'noForward': False, 'fragmentTag': 42, 'hashMaskLen': 30, "
            "'bsrPriority': 192, "
            "'rpCount': 3, 'hash': 0})");
  EXPECT_EQ(BootstrapRpFragmentKey(text.data(), text.data() + text.size()), key);
  EXPECT_EQ(fragment.fragmentKey, key);
  EXPECT_EQ(fragment.rpList, rx->groupData()[1].rpList);
}

TEST_F(BootstrapTest, ReaderChecks) {
  const std::string k = "Invalid Pim Bootstrap - ", fixed = "002a 1e c0  01 00 0a000001",
                    g224 = "01 00 00 04 e0000000", rp99 = "01 00 0a000063 0096 c000";
  const auto read = [&](const std::string& body) {
    return rejected(&BootstrapMessage::readBootstrapMessage, hex("24000000" + body));
  };
  // clang-format off
  EXPECT_THAT(read(fixed + g224 + "0101 0000" + rp99 + g224 + "0101 0000" + rp99), ElementsAre(k + "Group Address - Duplicate group - 224.0.0.0/4"));
  EXPECT_THAT(read(fixed + g224 + "0000 0000  01 00 01 08 ef000000 0000 0000"), ElementsAre(k + "Zone bit set on group other than first"));
  EXPECT_THAT(read(fixed + g224 + "0102 0000" + rp99 + rp99), ElementsAre("Invalid Pim Bootstrap data - RP count 1 is less than fragRp count 2"));
  EXPECT_THAT(read(fixed + g224 + "0202 0000" + rp99), ElementsAre(k + "Parse Error - RP count remaining 1 but no more data."));
  EXPECT_THAT(read(fixed + g224 + "0202 0000" + rp99 + rp99), ElementsAre(k + "RP Address - Duplicate - RP Address: 10.0.0.99"));
  EXPECT_THAT(read(fixed + g224 + "0101 0000 01 00 e0000001 0096 c000"), ElementsAre("Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.1", k + "RP Address - Invalid Address - 224.0.0.1"));
  EXPECT_THAT(read(fixed + g224 + "0101 0000 01 00 0a00"), ElementsAre("Invalid Encoded Unicast Address - Ip Address Length - Remaining: 2 Expected: 4", k + "RP Address - Parse Error"));
  EXPECT_THAT(read(fixed + g224 + "0101 0000 01 00 0a000063 0096"), ElementsAre(k + "Parse Error"));
  EXPECT_THAT(read(fixed + g224 + "01"), ElementsAre(k + "Parse Error"));
  EXPECT_THAT(read("002a 81 c0  01 00 0a000001"), ElementsAre("BootstrapMessage::hashMaskLen < 0 or > 128 not allowed"));
  EXPECT_THAT(read("002a"), ElementsAre(k + "Parse Error"));
  EXPECT_THAT(read("002a 1e c0  01 00 e0000001"), ElementsAre("Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.1", k + "BSR Address - Invalid Address - 224.0.0.1"));
  EXPECT_THAT(read("002a 1e c0  02 00 0000 0000 0000 0000 0000 0000 0000 0001"), ElementsAre(k + "BSR Address - Invalid Family - Family: 1 BSR Address: ::1"));
  EXPECT_THAT(read(fixed + "01 00 00 08 0a000000 0000 0000"), ElementsAre("Invalid Encoded Group Address - Not Multicast - Address: 10.0.0.0", k + "Group Address - Invalid Prefix: 10.0.0.0/8"));
  EXPECT_THAT(read(fixed + "02 00 00 08 ff00 0000 0000 0000 0000 0000 0000 0000 0000 0000"), ElementsAre(k + "Group Address - Invalid Family - Family: 1 Group Address: ff00::"));
  EXPECT_THAT(read(fixed + "01 00 00 08 ef000000 0000 0000 0000"), ElementsAre(k + "End of Message - Remaining: 2"));
  // clang-format on
}

TEST_F(BootstrapTest, WriterChecks) {
  const std::string k = "Invalid Pim Bootstrap - ";
  const auto write = [&](void (*change)(BootstrapMessage&), std::uint32_t room = 200) {
    auto m = bsmObject(kV4);
    change(*m);
    return refused(*m, &BootstrapMessage::writeBootstrapMessage, room);
  };
  // clang-format off
  EXPECT_THAT(write([](BootstrapMessage&) {}, 7), ElementsAre(k + "Header - Unavailable Space - Remaining: 7"));
  EXPECT_THAT(write([](BootstrapMessage&) {}, 67), ElementsAre(k + "RP Address - Write Error"));
  EXPECT_THAT(write([](BootstrapMessage& m) { m.bsrAddressIs(Nimo::IpGenAddr("::1")); }), ElementsAre(k + "Invalid Family - Family: 1 BSR Address: ::1"));
  EXPECT_THAT(write([](BootstrapMessage& m) { m.groupData().push_back(m.groupData()[0]); }), ElementsAre(k + "Duplicate Group present"));
  EXPECT_THAT(write([](BootstrapMessage& m) { m.groupData()[0].rpCount = 1; }), ElementsAre("Invalid Pim Bootstrap data passed - RP count 1 is less than fragRp count 2"));
  EXPECT_THAT(write([](BootstrapMessage& m) { m.groupData()[1].fragRpCount = 2; }), ElementsAre("Invalid Pim Bootstrap data passed - RP count in BSM2 does not match RP records count 1"));
  EXPECT_THAT(write([](BootstrapMessage& m) { m.groupData()[1].groupFlags = 1; }), ElementsAre(k + "Zone bit set on group other than first"));
  EXPECT_THAT(write([](BootstrapMessage& m) { m.groupData()[1].prefix = Nimo::IpGenPrefix("ff00::/8"); }), ElementsAre(k + "Invalid Family - Family: 1 Group Address: ff00::"));
  EXPECT_THAT(write([](BootstrapMessage& m) { m.groupData()[1].rpList = {{Nimo::IpGenAddr("::9"), {}}}; }), ElementsAre(k + "Invalid Family - Family: 1 RP Address: ::9"));
  // clang-format on
  auto zoneFirst = bsmObject(kV4);
  zoneFirst->groupData()[0].groupFlags = GroupAddress::kAdminScopeZone;
  EXPECT_EQ(written(*zoneFirst, &BootstrapMessage::writeBootstrapMessage).size(), 68u);
}

TEST(BootstrapRoundTrip, GeneratedMessages) {
  for (const Family* f : {&kV4, &kV6}) {
    for (unsigned seed = 0; seed < 40; ++seed) {
      auto tx = bsmObject(*f);
      tx->groupDataDelAll();
      tx->noForwardIs(seed & 1);
      tx->fragmentTagIs(static_cast<std::uint16_t>(seed * 977));
      tx->hashMaskLenIs(static_cast<std::uint8_t>(seed * 3 % 129));
      for (unsigned g = 0; g < seed % 7; ++g) {
        BootstrapGroupData& gd =
            tx->groupDataIs(f->v6 ? Nimo::IpGenPrefix(fmt::format("ff3{:x}::/16", g))
                                  : Nimo::IpGenPrefix(fmt::format("239.{}.0.0/16", g)));
        gd.groupFlags =
            static_cast<std::uint8_t>(g == 0 ? seed & 0x81 : seed & 0x80);  // Z on the first only
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
      roundTrip(*f, *tx, &BootstrapMessage::readBootstrapMessage,
                &BootstrapMessage::writeBootstrapMessage, std::to_string(seed));
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
  EXPECT_THROW(
      try { m->hashMaskLenIs(200); } catch (const Kel::RangeError& e) {
        EXPECT_STREQ(e.what(), "BootstrapMessage::hashMaskLen < 0 or > 128 not allowed");
        throw;
      },
      Kel::RangeError);
  EXPECT_EQ(m->hashMaskLen(), 200);  // kept as stored
  m->groupData().pop_back();
  EXPECT_EQ(printed(*m),
            "version=2 type=4 (Bootstrap) reserved=0 length=0 src=10.0.0.1 dst=224.0.0.13 | "
            "bsrAddress=10.0.0.1 Forward=1, "
            "fragmentTag=42, hashMaskLen=200, bsrPriority=192 group=( prefix=224.0.0.0/4, "
            "rpCount=2, fragRpCount=2, RpList=[ "
            "rp=( address=10.0.0.99, Holdtime=150, Priority=192, reserved=0 ) rp=( "
            "address=10.0.0.100, Holdtime=150, "
            "Priority=192, reserved=0 ) ] )");
}

// ---------------------------------------------------------------------------------------
// Candidate-RP Advertisement

Kel::Ptr<CrpAdvMessage> crpObject(const Family& f) {
  auto m = message<CrpAdvMessage>(f);
  m->groupDataIs(Kel::Ptr<CrpGroupData>::make());
  m->prefixCountIs(f.v6 ? 1 : 2);
  m->priorityIs(f.v6 ? 10 : 192);
  m->holdtimeIs(f.v6 ? 60 : 150);
  m->rpAddressIs(Nimo::IpGenAddr(f.v6 ? "2001:db8::99" : "10.0.0.99"));
  for (const char* p : f.v6 ? std::vector<const char*>{"ff00::/8"}
                            : std::vector<const char*>{"224.0.0.0/4", "239.0.0.0/8"}) {
    m->groupData()->groupInfoIs(Nimo::IpGenPrefix(p));
  }
  return m;
}

class CrpAdvTest : public CodecTest {};

TEST_F(CrpAdvTest, GoldenAndPrintForm) {
  const Bytes crp4 =
      hex("28 00 0000"
          "02 c0 00 96"                // 2 prefixes, priority 192, holdtime 150
          "01 00 0a 00 00 63"          // RP 10.0.0.99
          "01 00 00 04 e0 00 00 00"    // 224.0.0.0/4
          "01 00 00 08 ef 00 00 00");  // 239.0.0.0/8
  const Bytes crp6 =
      hex("28 00 0000  01 0a 00 3c"
          "02 00 2001 0db8 0000 0000 0000 0000 0000 0099"
          "02 00 00 08 ff00 0000 0000 0000 0000 0000 0000 0000");
  for (const Family* f : {&kV4, &kV6}) {
    golden(*f, withChecksum(f->v6 ? crp6 : crp4, f->src, f->dst), *crpObject(*f),
           &CrpAdvMessage::readCrpAdvMessage, &CrpAdvMessage::writeCrpAdvMessage);
  }
  EXPECT_EQ(printed(*crpObject(kV4)),
            "version=2 type=8 (Candidate-RP-Advertisement) reserved=0 length=0 src=10.0.0.1 "
            "dst=224.0.0.13 prefixCount=2, "
            "priority=192, holdtime=150 | rpAddress=10.0.0.99 | GroupData=[ 224.0.0.0/4, "
            "groupFlags: 0 239.0.0.0/8, "
            "groupFlags: 0 ]");
}

// A boundary router configured as a candidate RP sends admin-scoped groups: accepted, with
// a warning that the BSR logic turns into its log message; written back only when the
// caller allows the admin scope.
TEST_F(CrpAdvTest, ZoneBitAcceptedOnReadScopeCheckedOnWrite) {
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
  EXPECT_THAT(refused(*rx, &CrpAdvMessage::writeCrpAdvMessage),
              ElementsAre("Invalid Pim CrpAdv - Invalid Scope: 239.0.0.0/8 Group Scope: Admin "
                          "Allowed Scope: global"));
  rx->allowedScopeIs(CrpAdvScope::Admin);
  EXPECT_EQ(written(*rx, &CrpAdvMessage::writeCrpAdvMessage), msg);
}

TEST_F(CrpAdvTest, ReaderAndWriterChecks) {
  const std::string k = "Invalid Pim CrpAdv - ", rp = "01 00 0a000063",
                    g224 = "01 00 00 04 e0000000";
  const auto read = [&](const std::string& body, bool cleanedUp) {
    auto errs = rejected(&CrpAdvMessage::readCrpAdvMessage, hex("28000000" + body));
    const auto debug = at(4);
    EXPECT_EQ(std::count(debug.begin(), debug.end(), "Invalid Pim CrpAdv. Cleaning Up"),
              cleanedUp ? 1 : 0)
        << body;
    return errs;
  };
  // clang-format off
  EXPECT_THAT(read("03 c0 0096" + rp + g224 + "01 00 00 08 ef000000", true), ElementsAre(k + "Group Address count mismatch -  prefixCount: 3 numGroups: 2"));
  EXPECT_THAT(read("01 c0 0096" + rp + g224 + g224, true), ElementsAre(k + "Group Address - Duplicate group - 224.0.0.0/4"));
  EXPECT_THAT(read("01 c0 0096" + rp + "01 00 00 08 0a000000", true), ElementsAre("Invalid Encoded Group Address - Not Multicast - Address: 10.0.0.0", k + "Group Address - Invalid Prefix: 10.0.0.0/8"));
  EXPECT_THAT(read("01 c0 0096" + rp + "01 00 00 04 e000", true), ElementsAre("Invalid Encoded Group Address - Ip Address Length - Remaining: 2 Expected: 4", k + "Group Address - Parse Error"));
  EXPECT_THAT(read("01 c0 0096  01 00 e0000001" + g224, false), ElementsAre("Invalid Encoded Unicast Address - Not Unicast - Address: 224.0.0.1", k + "RP Address - Invalid Address - 224.0.0.1"));
  EXPECT_THAT(read("01 c0 0096  02 00 2001 0db8 0000 0000 0000 0000 0000 0099" + g224, false), ElementsAre(k + "RP Address - Invalid Family - Family: 1 RP Address: 2001:db8::99"));
  EXPECT_THAT(read("01 c0 00", false), ElementsAre(k + "Parse Error"));
  // clang-format on
  auto m = crpObject(kV4);
  const auto write = [&](std::uint32_t room = 100) {
    return refused(*m, &CrpAdvMessage::writeCrpAdvMessage, room);
  };
  EXPECT_THAT(write(7), ElementsAre(k + "Header - Unavailable Space - Remaining: 7"));
  m->allowedScopeIs(CrpAdvScope::Admin);
  EXPECT_THAT(
      write(),
      ElementsAre(k + "Invalid Scope: 224.0.0.0/4 Group Scope: global Allowed Scope: Admin"));
  m->allowedScopeIs(CrpAdvScope::Global);
  m->groupData()->groupInfo.erase(Nimo::IpGenPrefix("239.0.0.0/8"));
  EXPECT_THAT(write(), ElementsAre(k + "Prefix Count Mismatch"));
  m->groupData()->groupInfo = {{Nimo::IpGenPrefix("ff00::/8"), 0}};
  EXPECT_THAT(write(), ElementsAre(k + "Invalid Family - Family: 1 Group Address: ff00::"));
  m->rpAddressIs(Nimo::IpGenAddr("::9"));
  EXPECT_THAT(write(), ElementsAre(k + "Invalid Family - Family: 1 RP Address: ::9"));
}

TEST(CrpAdvRoundTrip, GeneratedMessages) {
  for (const Family* f : {&kV4, &kV6}) {
    for (unsigned seed = 0; seed < 40; ++seed) {
      auto tx = crpObject(*f);
      tx->priorityIs(static_cast<std::uint8_t>(seed * 7));
      tx->holdtimeIs(static_cast<std::uint16_t>(seed * 1000));
      tx->groupDataIs(Kel::Ptr<CrpGroupData>::make());
      for (unsigned g = 0; g < seed % 9; ++g) {
        tx->groupData()->groupInfoIs(
            f->v6 ? Nimo::IpGenPrefix(fmt::format("ff3e::{:x}/{}", g, 16 + g))
                  : Nimo::IpGenPrefix(fmt::format("239.{}.0.0/{}", g, 8 + g)),
            static_cast<std::uint8_t>(seed & 0x80));
      }
      tx->prefixCountIs(static_cast<std::uint8_t>(seed % 9));
      roundTrip(*f, *tx, &CrpAdvMessage::readCrpAdvMessage, &CrpAdvMessage::writeCrpAdvMessage,
                std::to_string(seed));
    }
  }
}

}  // namespace
