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
#include "tools/pimdump/Capture.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using Json = nlohmann::json;
using PimDump::Bytes;
using PimDump::IpVerdict;
using PimDump::LinkType;

struct Output {
  int exitCode = -1;
  std::string out;
};

// Runs a shell command; stdout, and stderr too when asked.
Output run(const std::string& cmd, bool withStderr = true) {
  Output r;
  FILE* p = ::popen((cmd + (withStderr ? " 2>&1" : " 2>/dev/null")).c_str(), "r");
  if (!p) return r;
  std::array<char, 4096> buf;
  while (std::size_t n = std::fread(buf.data(), 1, buf.size(), p)) r.out.append(buf.data(), n);
  const int status = ::pclose(p);
  r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
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
  Routing::Pim::Packet::HelloMessage h;
  h.srcIpIs(Nimo::IpGenAddr(src));
  h.dstIpIs(Nimo::IpGenAddr(dst));
  h.holdTimeOptionIs(true);
  h.holdTimeIs(105);
  auto pkt = Nimo::Pkt::create(100);
  const std::uint32_t n = h.writeHelloMessage(pkt, 0);
  return PimDump::ipPacket(h.srcIp(), h.dstIp(), {pkt->data(0, n), n});
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
    const PimDump::Decoded d = PimDump::decodePim(m);
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

// What pimdump's JSON says of each field tshark shows, per message type. A field is compared
// only where pimdump has a value; tshark's family-specific names are chosen by "af".
struct Compared {
  const char* type;
  const char* field;  // "{}" stands for "" (IPv4) or "_ip6" (IPv6)
  std::function<std::string(const Json&)> ours;
};

std::string str(const Json& j) { return j.is_string() ? j.get<std::string>() : j.dump(); }
std::string joined(const Json& list) {
  std::string s;
  for (const auto& v : list) s += (s.empty() ? "" : ",") + str(v);
  return s;
}
std::string boolean(const Json& j) { return j.get<bool>() ? "1" : "0"; }
std::function<std::string(const Json&)> at(const char* key) {
  return [key](const Json& j) { return j[key].is_null() ? std::string("-") : str(j[key]); };
}

const Compared kCompared[] = {
    {"hello", "pim.holdtime", at("holdtime")},
    {"hello", "pim.dr_priority", at("drPriority")},
    {"hello", "pim.generation_id", at("generationId")},
    {"hello", "pim.t",
     [](const Json& j) {
       return j["lanPruneDelay"].is_null() ? "-" : boolean(j["lanPruneDelay"]["t"]);
     }},
    {"hello", "pim.propagation_delay",
     [](const Json& j) {
       return j["lanPruneDelay"].is_null() ? "-" : str(j["lanPruneDelay"]["propagationDelay"]);
     }},
    {"hello", "pim.override_interval",
     [](const Json& j) {
       return j["lanPruneDelay"].is_null() ? "-" : str(j["lanPruneDelay"]["overrideInterval"]);
     }},
    {"hello", "pim.address_list{}", [](const Json& j) { return joined(j["addressList"]); }},
    // tshark shows option 31 (router id, interface id) as raw bytes.
    {"hello", "pim.optionvalue",
     [](const Json& j) {
       const Json& id = j["interfaceId"];
       return id.is_null() ? "-"
                           : fmt::format("{:08x}{:08x}", id["routerId"].get<std::uint32_t>(),
                                         id["interfaceId"].get<std::uint32_t>());
     }},
};

std::string fieldName(const char* pattern, int af) {
  std::string f = pattern;
  const auto brace = f.find("{}");
  if (brace != std::string::npos) f.replace(brace, 2, af == 6 ? "_ip6" : "");
  return f;
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
  std::size_t compared = 0, accepted = 0;
  for (const auto& e : fs::directory_iterator(kSamples)) {
    const std::string file = e.path().string();
    std::string cmd =
        "tshark -n -r '" + file + "' -T fields -E separator='|' -E occurrence=a -E aggregator=,";
    for (const auto& n : names) cmd += " -e " + n;
    std::map<long, Fields> frames;
    for (const auto& l : lines(run(cmd, false).out)) {
      Fields f;
      std::size_t i = 0, start = 0;
      for (std::size_t end; i < names.size(); ++i, start = end + 1) {
        end = std::min(l.find('|', start), l.size());
        f[names[i]] = l.substr(start, end - start);
      }
      frames[std::stol(f["frame.number"])] = f;
    }
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
      ++accepted;
      for (const auto& c : kCompared) {
        if (type != c.type) continue;
        const std::string mine = c.ours(ours);
        const std::string field = fieldName(c.field, ours["af"]);
        EXPECT_EQ(mine == "-" ? "" : mine, theirs.at(field)) << where << ' ' << field;
        ++compared;
      }
    }
  }
  EXPECT_GT(accepted, 4u);
  EXPECT_GT(compared, 20u);
}
#endif

}  // namespace
