// pimdump: frames of every link type reach the IP packet; IP packets reach the PIM message
// or the right verdict; the committed samples are what pimsamples writes; the command line
// keeps its exit codes; and the decoded fields agree with an independent dissector (tshark).

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "Pim/PimMessage.h"
#include "tests/PimIOTestUtil.h"
#include "tools/pimdump/Capture.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using Json = nlohmann::json;
using PimDump::Bytes;
using PimDump::IpVerdict;
using PimDump::LinkType;

using Output = PimTest::CommandOutput;
Output run(const std::string& cmd, bool withStderr = true) {
  return PimTest::runCommand(cmd, withStderr);
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> v;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) v.push_back(l);
  return v;
}

struct TempDir {
  fs::path path = fs::temp_directory_path() / ("pimdump-test-" + std::to_string(::getpid()));
  TempDir() { fs::create_directories(path); }
  ~TempDir() { fs::remove_all(path); }
};

Bytes helloIp(const char* src, const char* dst) {
  const Nimo::IpGenAddr s(src), d(dst);
  return PimDump::ipPacket(s, d, PimTest::helloBytes(s, d));
}

TEST(PimDump, EveryLinkTypeLeadsToTheIpPacket) {
  const Bytes v4 = helloIp("10.0.0.1", "224.0.0.13"), v6 = helloIp("fe80::1", "ff02::d");
  const std::uint16_t none[] = {0}, one[] = {100}, two[] = {100, 200};
  struct Case {
    LinkType link;
    std::span<const std::uint16_t> vlans;
  };
  for (const Case& c : {Case{LinkType::Ethernet, {none, 0}}, Case{LinkType::Ethernet, one},
                        Case{LinkType::Ethernet, two}, Case{LinkType::LinuxSll, {none, 0}},
                        Case{LinkType::LinuxSll2, {none, 0}}, Case{LinkType::RawIp, {none, 0}}}) {
    for (const Bytes* ip : {&v4, &v6}) {
      const Bytes frame = PimDump::linkFrame(c.link, *ip, c.vlans);
      const auto got = PimDump::locateIp(c.link, frame);
      EXPECT_TRUE(std::equal(got.begin(), got.end(), ip->begin(), ip->end()))
          << "link " << static_cast<int>(c.link) << " vlans " << c.vlans.size();
      // Every strict prefix of the link header finds nothing and reads nothing beyond it.
      const std::size_t header = frame.size() - ip->size();
      for (std::size_t n = 0; n < header; ++n) {
        EXPECT_TRUE(PimDump::locateIp(c.link, std::span(frame).first(n)).empty());
      }
    }
  }
  Bytes arp = PimDump::linkFrame(LinkType::Ethernet, v4);
  arp[12] = 0x08, arp[13] = 0x06;
  EXPECT_TRUE(PimDump::locateIp(LinkType::Ethernet, arp).empty());
}

TEST(PimDump, IpPacketsReachTheMessageOrTheirVerdict) {
  struct Case {
    const char* name;
    bool v6;
    std::function<void(Bytes&)> mutate;
    IpVerdict verdict;
    std::uint32_t pimOffset;
  };
  auto ext = [](std::uint8_t type, std::uint8_t len, std::uint8_t fragFlags) {
    return [=](Bytes& b) {
      Bytes e(8u * (len + 1u), 0);
      e[0] = b[6];
      e[1] = len;
      if (type == 44) e[1] = 0, e[3] = fragFlags;
      b.insert(b.begin() + 40, e.begin(), e.end());
      b[6] = type;
      Nimo::store16(b.data() + 4, static_cast<std::uint16_t>(b.size() - 40));
    };
  };
  const Case cases[] = {
      {"IPv4", false, [](Bytes&) {}, IpVerdict::Pim, 20},
      {"IPv4 with options", false,
       [](Bytes& b) {
         b.insert(b.begin() + 20, 4, 1);  // four NOPs
         b[0] = 0x46;
         Nimo::store16(b.data() + 2, static_cast<std::uint16_t>(b.size()));
       },
       IpVerdict::Pim, 24},
      {"IPv4 padded frame", false, [](Bytes& b) { b.resize(b.size() + 6); }, IpVerdict::Pim, 20},
      {"IPv4 UDP", false, [](Bytes& b) { b[9] = 17; }, IpVerdict::NotPim, 0},
      {"IPv4 IHL 4", false, [](Bytes& b) { b[0] = 0x44; }, IpVerdict::Malformed, 0},
      {"IPv4 total below IHL", false, [](Bytes& b) { Nimo::store16(b.data() + 2, 19); },
       IpVerdict::Malformed, 0},
      {"IPv4 total beyond capture", false, [](Bytes& b) { b.pop_back(); }, IpVerdict::Truncated, 0},
      {"IPv4 header cut", false, [](Bytes& b) { b.resize(19); }, IpVerdict::Truncated, 0},
      {"IPv4 first fragment", false, [](Bytes& b) { b[6] = 0x20; }, IpVerdict::Fragment, 0},
      {"IPv4 last fragment", false, [](Bytes& b) { b[7] = 0x10; }, IpVerdict::Fragment, 0},
      {"IPv6", true, [](Bytes&) {}, IpVerdict::Pim, 40},
      {"IPv6 hop-by-hop", true, ext(0, 0, 0), IpVerdict::Pim, 48},
      {"IPv6 destination options of 16", true, ext(60, 1, 0), IpVerdict::Pim, 56},
      {"IPv6 two headers", true, [&](Bytes& b) { ext(60, 0, 0)(b), ext(0, 0, 0)(b); },
       IpVerdict::Pim, 56},
      {"IPv6 fragment", true, ext(44, 0, 1), IpVerdict::Fragment, 0},
      {"IPv6 UDP", true, [](Bytes& b) { b[6] = 17; }, IpVerdict::NotPim, 0},
      {"IPv6 jumbogram marker", true, [](Bytes& b) { Nimo::store16(b.data() + 4, 0); },
       IpVerdict::NotPim, 0},
      {"IPv6 extension past payload", true, [&](Bytes& b) { ext(60, 0, 0)(b), b[41] = 9; },
       IpVerdict::Malformed, 0},
      {"IPv6 payload beyond capture", true, [](Bytes& b) { b.pop_back(); }, IpVerdict::Truncated,
       0},
      {"not IP", false, [](Bytes& b) { b[0] = 0x55; }, IpVerdict::NotPim, 0},
  };
  for (const Case& c : cases) {
    Bytes ip = c.v6 ? helloIp("fe80::1", "ff02::d") : helloIp("10.0.0.1", "224.0.0.13");
    c.mutate(ip);
    const PimDump::LocatedPim m = PimDump::locatePim(ip);
    EXPECT_EQ(m.verdict, c.verdict) << c.name << ": " << m.note;
    if (c.verdict != IpVerdict::Pim) continue;
    EXPECT_EQ(m.pimOffset, c.pimOffset) << c.name;
    const PimDump::Decoded d = PimDump::decodePim(m, {});
    EXPECT_EQ(d.json["ok"], true) << c.name << ' ' << d.json.dump();
    EXPECT_EQ(d.json["holdtime"], 105) << c.name;
  }
}

#ifdef PIMDUMP_PATH
const std::string kPimdump = PIMDUMP_PATH;
const fs::path kSamples = PIM_SAMPLES_DIR;

TEST(PimDump, SamplesAreWhatPimsamplesWrites) {
  TempDir dir;
  ASSERT_EQ(run(std::string(PIMSAMPLES_PATH) + " " + dir.path.string()).exitCode, 0);
  std::size_t files = 0;
  for (const auto& e : fs::directory_iterator(dir.path)) {
    ++files;
    std::ifstream a(e.path(), std::ios::binary),
        b(kSamples / e.path().filename(), std::ios::binary);
    const std::string made((std::istreambuf_iterator<char>(a)), {});
    const std::string kept((std::istreambuf_iterator<char>(b)), {});
    EXPECT_TRUE(made == kept) << e.path().filename()
                              << " differs from samples/: run pimsamples samples/";
  }
  EXPECT_EQ(files, 4u);
}

TEST(PimDump, CommandLineExitCodesAndReports) {
  TempDir dir;
  const std::string garbage = (dir.path / "garbage.pcap").string();
  std::ofstream(garbage) << "this is not a capture\n";
  struct Case {
    std::string args;
    int exitCode;
    std::vector<std::string> contains;
  };
  const Case cases[] = {
      {"--help", 0, {"--interface", "--count", "--duration", "--text", "--trace", "--help"}},
      {dir.path.string() + "/missing.pcap", 2, {"missing.pcap: ", "No such file"}},
      {garbage, 2, {"garbage.pcap: unknown file format"}},
      {"--trace 12 x.pcap", 2, {"--trace takes a level from 0 to 9"}},
      {"--bogus", 2, {"unknown option --bogus"}},
      {"", 2, {"no capture file named"}},
      // The input was read: 0, whatever the messages held; skips reported on stderr.
      {(kSamples / "pim-malformed.pcap").string(),
       0,
       {":5: truncated, skipped: IPv4 packet of 80 bytes, 30 captured",
        ":7: fragment, skipped: IPv4 fragment of a PIM packet",
        ":9: fragment, skipped: IPv6 fragment", "Invalid Pim Message - Checksum - Received: ",
        "RX: Error - Invalid Pim Version - Version: 3",
        "RX: Error - Unsupported Pim Message - Type: 6",
        "RX: Error - Invalid Pim Message - Type: 12"}},
      // One bad file among good ones: every file is read, the status says one failed.
      {(kSamples / "pim-cooked.pcap").string() + " " + garbage, 2, {"\"frame\":2", "garbage"}},
      {"--text --trace 4 " + (kSamples / "pim-cooked.pcap").string(),
       0,
       {"pim-cooked.pcap:1 version=2 type=0 (Hello)", "trace Pim::Packet/4: readHeader"}},
  };
  for (const Case& c : cases) {
    const Output r = run(kPimdump + " " + c.args);
    EXPECT_EQ(r.exitCode, c.exitCode) << c.args << "\n" << r.out;
    for (const auto& s : c.contains) EXPECT_THAT(r.out, HasSubstr(s)) << c.args;
  }
  // A failing file says so in one line.
  EXPECT_EQ(lines(run(kPimdump + " " + garbage).out).size(), 1u);
}
// tshark's fields for one frame: name -> values joined by ','.
using Fields = std::map<std::string, std::string>;

// What pimdump's JSON says of a field tshark shows, per message type. In a field name "{}"
// stands for "" (IPv4) or "_ip6" (IPv6); ours() gives "-" where pimdump has no value.
enum class Take : std::uint8_t { All, Unique, Last };
struct Compared {
  const char* type;
  const char* field;
  std::function<std::string(const Json&)> ours;
  Take take = Take::All;  // tshark repeats a group per address form, an inner header's
                          // fields come after the outer ones
};

std::string str(const Json& j) { return j.is_string() ? j.get<std::string>() : j.dump(); }
std::string joined(const Json& list, const std::function<std::string(const Json&)>& f = str) {
  std::string s;
  for (const auto& v : list) s += (s.empty() ? "" : ",") + f(v);
  return s;
}
std::function<std::string(const Json&)> at(std::string path) {
  return [path](const Json& j) {
    const Json::json_pointer ptr(path);
    if (!j.contains(ptr)) return std::string("-");
    const Json& v = j[ptr];
    return v.is_null() ? std::string("-") : v.is_boolean() ? std::string(v ? "1" : "0") : str(v);
  };
}
std::string addressOf(const Json& prefix) {
  const std::string p = prefix;
  return p.substr(0, p.find('/'));
}
std::string maskOf(const Json& prefix) {
  const std::string p = prefix;
  return p.substr(p.find('/') + 1);
}
// Every source of a kind list of a Join/Prune, group after group.
std::function<std::string(const Json&)> sources(const char* list) {
  return [list](const Json& j) {
    std::string s;
    for (const auto& g : j["groups"]) {
      for (const auto& e : g[list]) s += (s.empty() ? "" : ",") + addressOf(e["source"]);
    }
    return s;
  };
}
std::function<std::string(const Json&)> perGroup(const std::function<std::string(const Json&)>& f) {
  return [f](const Json& j) { return joined(j["groups"], f); };
}

const Compared kCompared[] = {
    {"hello", "pim.holdtime", at("/holdtime")},
    {"hello", "pim.dr_priority", at("/drPriority")},
    {"hello", "pim.generation_id", at("/generationId")},
    {"hello", "pim.t", at("/lanPruneDelay/t")},
    {"hello", "pim.propagation_delay", at("/lanPruneDelay/propagationDelay")},
    {"hello", "pim.override_interval", at("/lanPruneDelay/overrideInterval")},
    {"hello", "pim.address_list{}", [](const Json& j) { return joined(j["addressList"]); }},
    // tshark shows option 31 (router id, interface id) as raw bytes.
    {"hello", "pim.optionvalue",
     [](const Json& j) {
       const Json& id = j["interfaceId"];
       return id.is_null() ? "-"
                           : fmt::format("{:08x}{:08x}", id["routerId"].get<std::uint32_t>(),
                                         id["interfaceId"].get<std::uint32_t>());
     }},
    {"register", "pim.register_flag.border", at("/border")},
    {"register", "pim.register_flag.null_register", at("/null")},
    {"register", "ip{}.src", at("/inner/src"), Take::Last},
    {"register", "ip{}.dst", at("/inner/dst"), Take::Last},
    {"register", "ip.len|ipv6.plen",
     [](const Json& j) {
       const auto n = j["inner"]["length"].get<int>();
       return std::to_string(j["af"] == 6 ? n - 40 : n);
     },
     Take::Last},
    {"register-stop", "pim.group{}", [](const Json& j) { return addressOf(j["group"]); },
     Take::Unique},
    {"register-stop", "pim.mask_len", [](const Json& j) { return maskOf(j["group"]); }},
    {"register-stop", "pim.source{}", at("/source")},
    {"join-prune", "pim.upstream_neighbor{}", at("/upstream")},
    {"join-prune", "pim.holdtime", at("/holdtime")},
    {"join-prune", "pim.numgroups",
     [](const Json& j) { return std::to_string(j["groups"].size()); }},
    {"join-prune", "pim.group{}", perGroup([](const Json& g) { return addressOf(g["group"]); }),
     Take::Unique},
    {"join-prune", "pim.numjoins",
     perGroup([](const Json& g) { return std::to_string(g["joins"].size()); })},
    {"join-prune", "pim.numprunes",
     perGroup([](const Json& g) { return std::to_string(g["prunes"].size()); })},
    {"join-prune", "pim.join_ip|pim.join_ip6", sources("joins")},
    {"join-prune", "pim.prune_ip|pim.prune_ip6", sources("prunes")},
    {"bootstrap", "pim.fragment_tag",
     [](const Json& j) { return fmt::format("0x{:04x}", j["fragmentTag"].get<unsigned>()); }},
    {"bootstrap", "pim.hash_mask_len", at("/hashMaskLen")},
    {"bootstrap", "pim.bsr_priority", at("/bsrPriority")},
    {"bootstrap", "pim.bsr{}", at("/bsr")},
    {"bootstrap", "pim.group{}", perGroup([](const Json& g) { return addressOf(g["prefix"]); }),
     Take::Unique},
    {"bootstrap", "pim.mask_len", perGroup([](const Json& g) { return maskOf(g["prefix"]); })},
    {"bootstrap", "pim.rp_count", perGroup([](const Json& g) { return str(g["rpCount"]); })},
    {"bootstrap", "pim.frp_count", perGroup([](const Json& g) { return str(g["fragRpCount"]); })},
    {"bootstrap", "pim.rp{}", perGroup([](const Json& g) {
       return joined(g["rps"], [](const Json& r) { return str(r["address"]); });
     })},
    {"bootstrap", "pim.priority", perGroup([](const Json& g) {
       return joined(g["rps"], [](const Json& r) { return str(r["priority"]); });
     })},
    {"bootstrap", "pim.holdtime", perGroup([](const Json& g) {
       return joined(g["rps"], [](const Json& r) { return str(r["holdtime"]); });
     })},
    {"assert", "pim.group{}", [](const Json& j) { return addressOf(j["group"]); }, Take::Unique},
    {"assert", "pim.mask_len", [](const Json& j) { return maskOf(j["group"]); }},
    {"assert", "pim.source{}", at("/source")},
    {"assert", "pim.rpt", at("/rpt")},
    {"assert", "pim.metric_pref", at("/metricPreference")},
    {"assert", "pim.metric", at("/metric")},
    {"crp-adv", "pim.prefix_count", at("/prefixCount")},
    {"crp-adv", "pim.priority", at("/priority")},
    {"crp-adv", "pim.holdtime", at("/holdtime")},
    {"crp-adv", "pim.rp{}", at("/rp")},
    {"crp-adv", "pim.group{}", [](const Json& j) { return joined(j["groups"], addressOf); },
     Take::Unique},
    {"crp-adv", "pim.mask_len", [](const Json& j) { return joined(j["groups"], maskOf); }},
    // Differs by design: tshark 4.0 shows no offering or winning fields of Backoff and Pass.
    {"df-election", "pim.df_elect.subtype",
     [](const Json& j) {
       const std::string t = j["subtype"];
       return std::to_string(t == "offer" ? 1 : t == "winner" ? 2 : t == "backoff" ? 3 : 4);
     }},
    {"df-election", "pim.rp{}", at("/rp")},
    {"df-election", "pim.metric_pref", at("/metricPreference")},
    {"df-election", "pim.metric", at("/metric")},
};

std::string fieldName(const char* pattern, int af) {
  std::string f = pattern;
  if (const auto bar = f.find('|'); bar != std::string::npos) {
    return af == 6 ? f.substr(bar + 1) : f.substr(0, bar);
  }
  if (f.starts_with("ip{}")) return (af == 6 ? "ipv6" : "ip") + f.substr(4);
  const auto brace = f.find("{}");
  if (brace != std::string::npos) f.replace(brace, 2, af == 6 ? "_ip6" : "");
  return f;
}

std::string take(const std::string& list, Take t) {
  std::vector<std::string> items;
  std::istringstream in(list);
  for (std::string v; std::getline(in, v, ',');) {
    if (t != Take::Unique || std::find(items.begin(), items.end(), v) == items.end()) {
      items.push_back(v);
    }
  }
  if (t == Take::Last) return items.empty() ? "" : items.back();
  std::string s;
  for (const auto& v : items) s += (s.empty() ? "" : ",") + v;
  return s;
}

TEST(PimDump, AgreesWithTsharkOnEverySample) {
  if (run("command -v tshark").exitCode != 0) GTEST_SKIP() << "tshark is not installed";
  std::vector<std::string> names = {"frame.number", "pim.cksum.status"};
  for (const auto& c : kCompared) {
    for (int af : {4, 6}) {
      const std::string f = fieldName(c.field, af);
      if (std::find(names.begin(), names.end(), f) == names.end()) names.push_back(f);
    }
  }
  std::map<std::string, std::size_t> compared;  // per type
  for (const auto& e : fs::directory_iterator(kSamples)) {
    const std::string file = e.path().string();
    std::string cmd =
        "tshark -n -r '" + file + "' -T fields -E separator='|' -E occurrence=a -E aggregator=,";
    for (const auto& n : names) cmd += " -e " + n;
    std::map<long, Fields> frames;
    for (const auto& l : lines(run(cmd, false).out)) {
      Fields f;
      std::size_t start = 0;
      for (std::size_t i = 0, end; i < names.size(); ++i, start = end + 1) {
        end = std::min(l.find('|', start), l.size());
        f[names[i]] = l.substr(start, end - start);
      }
      frames[std::stol(f["frame.number"])] = f;
    }
    ASSERT_FALSE(frames.empty()) << run(cmd).out;
    for (const auto& l : lines(run(kPimdump + " '" + file + "'", false).out)) {
      const Json ours = Json::parse(l);
      const Fields& theirs = frames[ours["frame"].get<long>()];
      const std::string where = file + ":" + str(ours["frame"]);
      const std::string type = ours["type"];
      // Differs by design: a version or type no reader handles is rejected by pimdump
      // whatever its checksum; tshark still checks the checksum.
      if (ours["version"] != 2 || type == "graft" || type == "unknown") {
        EXPECT_FALSE(ours["ok"].get<bool>()) << where;
        continue;
      }
      // A checksum tshark finds bad is one our reader rejects, with the codec's text.
      if (theirs.at("pim.cksum.status") == "0") {
        EXPECT_FALSE(ours["ok"].get<bool>()) << where;
        EXPECT_THAT(str(ours["error"]), HasSubstr("Checksum")) << where;
        continue;
      }
      ASSERT_TRUE(ours["ok"].get<bool>()) << where << ' ' << l;
      for (const auto& c : kCompared) {
        if (type != c.type) continue;
        const std::string mine = c.ours(ours);
        const std::string field = fieldName(c.field, ours["af"]);
        EXPECT_EQ(mine == "-" ? "" : mine, take(theirs.at(field), c.take)) << where << ' ' << field;
        ++compared[type];
      }
    }
  }
  // Every type was compared, in both families.
  for (const char* t : {"hello", "register", "register-stop", "join-prune", "bootstrap", "assert",
                        "crp-adv", "df-election"}) {
    EXPECT_GE(compared[t], 2u) << t;
  }
}
#endif

}  // namespace
