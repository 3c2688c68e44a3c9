// Frames, IP packets and captures. The per-message JSON lives in PimDumpMessages.cpp.

#include "tools/pimdump/PimDump.h"

#include <fmt/format.h>
#include <pcap/pcap.h>

#include <chrono>
#include <csignal>

#include "Pim/PimMessage.h"
#include "Pim/platform/Flicklog.h"

namespace PimDump {

namespace {

constexpr std::uint8_t kPimProtocol = 103;

std::uint16_t be16(const std::uint8_t* p) noexcept { return Nimo::load16(p); }

// Ethernet II types pimdump follows; any number of 802.1Q / 802.1ad / QinQ tags is skipped.
constexpr std::uint16_t kEtherIpv4 = 0x0800;
constexpr std::uint16_t kEtherIpv6 = 0x86dd;
bool isVlanTag(std::uint16_t t) noexcept { return t == 0x8100 || t == 0x88a8 || t == 0x9100; }

std::span<const std::uint8_t> ipAfterEtherType(std::span<const std::uint8_t> frame,
                                               std::size_t typeAt, std::size_t payloadAt) noexcept {
  if (frame.size() < typeAt + 2 || frame.size() < payloadAt) return {};
  const std::uint16_t t = be16(frame.data() + typeAt);
  if (t != kEtherIpv4 && t != kEtherIpv6) return {};
  return frame.subspan(payloadAt);
}

// IPv6 extension headers that may stand between the fixed header and PIM.
constexpr std::uint8_t kHopByHop = 0, kRouting = 43, kFragment = 44, kAuth = 51, kDestOpts = 60;

LocatedPim verdict(IpVerdict v, std::string note) {
  LocatedPim r;
  r.verdict = v;
  r.note = std::move(note);
  return r;
}

LocatedPim locateIpv4(std::span<const std::uint8_t> ip) {
  if (ip.size() < Nimo::Ipv4Hdr::kMinSize) {
    return verdict(IpVerdict::Truncated, fmt::format("IPv4 header cut short: {} bytes", ip.size()));
  }
  const std::uint8_t* p = ip.data();
  const std::uint32_t ihl = (p[0] & 0x0fu) * 4u;
  const std::uint32_t total = be16(p + 2);
  if (ihl < Nimo::Ipv4Hdr::kMinSize || total < ihl) {
    return verdict(IpVerdict::Malformed,
                   fmt::format("IPv4 header length {} with total length {}", ihl, total));
  }
  if (p[9] != kPimProtocol) return verdict(IpVerdict::NotPim, {});
  LocatedPim r;
  r.af = 4;
  r.src = Nimo::IpGenAddr(Nimo::AddressFamily::ipv4, p + 12);
  r.dst = Nimo::IpGenAddr(Nimo::AddressFamily::ipv4, p + 16);
  const std::uint16_t frag = be16(p + 6);
  if ((frag & 0x2000) != 0 || (frag & 0x1fff) != 0) {
    r.verdict = IpVerdict::Fragment;
    r.note = fmt::format("IPv4 fragment of a PIM packet, id {} offset {}{}", be16(p + 4),
                         (frag & 0x1fff) * 8, (frag & 0x2000) ? " (more follow)" : "");
    return r;
  }
  if (total > ip.size()) {
    r.verdict = IpVerdict::Truncated;
    r.note = fmt::format("IPv4 packet of {} bytes, {} captured", total, ip.size());
    return r;
  }
  r.verdict = IpVerdict::Pim;
  r.ip = ip.first(total);
  r.pimOffset = ihl;
  return r;
}

LocatedPim locateIpv6(std::span<const std::uint8_t> ip) {
  if (ip.size() < Nimo::Ipv6Hdr::kSize) {
    return verdict(IpVerdict::Truncated, fmt::format("IPv6 header cut short: {} bytes", ip.size()));
  }
  const std::uint8_t* p = ip.data();
  const std::uint32_t payload = be16(p + 4);
  const std::uint32_t total = Nimo::Ipv6Hdr::kSize + payload;
  LocatedPim r;
  r.af = 6;
  r.src = Nimo::IpGenAddr(Nimo::AddressFamily::ipv6, p + 8);
  r.dst = Nimo::IpGenAddr(Nimo::AddressFamily::ipv6, p + 24);
  if (payload == 0) {
    // Zero is the jumbogram marker (RFC 2675); no PIM message is carried that way.
    r.verdict = IpVerdict::NotPim;
    return r;
  }
  // Extension headers are walked within what was captured; a chain that runs past the
  // capture is a truncated packet, one that runs past the payload is malformed.
  const std::uint32_t end = std::min<std::uint32_t>(total, static_cast<std::uint32_t>(ip.size()));
  std::uint8_t next = p[6];
  std::uint32_t at = Nimo::Ipv6Hdr::kSize;
  for (int hops = 0; hops < 32; ++hops) {
    if (next == kPimProtocol) break;
    if (next != kHopByHop && next != kRouting && next != kFragment && next != kAuth &&
        next != kDestOpts) {
      r.verdict = IpVerdict::NotPim;
      return r;
    }
    if (at + 8 > end) {
      r.verdict = total > ip.size() ? IpVerdict::Truncated : IpVerdict::Malformed;
      r.note = fmt::format("IPv6 extension header {} at offset {} runs past the packet", next, at);
      return r;
    }
    if (next == kFragment) {
      const std::uint16_t off = be16(p + at + 2);
      r.verdict = IpVerdict::Fragment;
      r.note = fmt::format("IPv6 fragment, id {} offset {}{}{}", Nimo::load32(p + at + 4),
                           off & 0xfff8, (off & 1) ? " (more follow)" : "",
                           p[at] == kPimProtocol ? " of a PIM packet" : "");
      return r;
    }
    const std::uint32_t len = next == kAuth ? (p[at + 1] + 2u) * 4u : (p[at + 1] + 1u) * 8u;
    next = p[at];
    at += len;
  }
  if (next != kPimProtocol) {
    r.verdict = IpVerdict::Malformed;
    r.note = "IPv6 extension header chain longer than 32 headers";
    return r;
  }
  if (total > ip.size()) {
    r.verdict = IpVerdict::Truncated;
    r.note = fmt::format("IPv6 packet of {} bytes, {} captured", total, ip.size());
    return r;
  }
  if (at > total) {
    r.verdict = IpVerdict::Malformed;
    r.note = fmt::format("IPv6 extension headers end at {}, past the packet's {} bytes", at, total);
    return r;
  }
  r.verdict = IpVerdict::Pim;
  r.ip = ip.first(total);
  r.pimOffset = at;
  return r;
}

volatile std::sig_atomic_t stopRequested = 0;
void requestStop(int) { stopRequested = 1; }

}  // namespace

LinkType linkTypeOf(int dlt) noexcept {
  switch (dlt) {
    case DLT_EN10MB:
      return LinkType::Ethernet;
    case DLT_LINUX_SLL:
      return LinkType::LinuxSll;
    case DLT_LINUX_SLL2:
      return LinkType::LinuxSll2;
    case DLT_RAW:
    case DLT_IPV4:
    case DLT_IPV6:
      return LinkType::RawIp;
    default:
      return LinkType::Unsupported;
  }
}

std::span<const std::uint8_t> locateIp(LinkType link,
                                       std::span<const std::uint8_t> frame) noexcept {
  switch (link) {
    case LinkType::Ethernet: {
      std::size_t typeAt = 12;
      while (frame.size() >= typeAt + 2 && isVlanTag(be16(frame.data() + typeAt))) typeAt += 4;
      return ipAfterEtherType(frame, typeAt, typeAt + 2);
    }
    case LinkType::LinuxSll:
      return ipAfterEtherType(frame, 14, 16);
    case LinkType::LinuxSll2:
      return ipAfterEtherType(frame, 0, 20);
    case LinkType::RawIp:
      return frame;
    case LinkType::Unsupported:
      break;
  }
  return {};
}

LocatedPim locatePim(std::span<const std::uint8_t> ip) noexcept {
  if (ip.empty()) return {};
  try {
    switch (ip[0] >> 4) {
      case 4:
        return locateIpv4(ip);
      case 6:
        return locateIpv6(ip);
      default:
        return {};
    }
  } catch (const std::exception& e) {  // only fmt's allocation can throw here
    return verdict(IpVerdict::Malformed, e.what());
  }
}

// ---------------------------------------------------------------------------------------
// The codec's trace lines: the first error of each message is kept for its "error" field,
// and with --trace every line is shown too.

class Dumper::TraceSink final : public Flicklog::Sink {
 public:
  TraceSink(std::ostream& err, int showLevel) : err_(err), showLevel_(showLevel) {
    previous_ = Flicklog::sinkIs(this);
  }
  ~TraceSink() override { Flicklog::sinkIs(previous_); }
  TraceSink(const TraceSink&) = delete;
  TraceSink& operator=(const TraceSink&) = delete;

  void write(const Flicklog::Facility& f, int level, std::string_view text) override {
    if (level == 1 && firstError_.empty()) firstError_ = text;
    if (level <= showLevel_) err_ << "trace " << f.name() << '/' << level << ": " << text << '\n';
  }
  void reset() { firstError_.clear(); }
  const std::string& firstError() const noexcept { return firstError_; }

 private:
  std::ostream& err_;
  int showLevel_;
  std::string firstError_;
  Flicklog::Sink* previous_;
};

Dumper::Dumper(std::ostream& out, std::ostream& err, Options o)
    : out_(out), err_(err), options_(o), sink_(new TraceSink(err, o.traceLevel)) {
  // Errors (level 1) are always needed for the "error" field.
  Routing::Pim::Packet::codecTrace().levelIs(std::max(1, o.traceLevel));
}

Dumper::~Dumper() { delete sink_; }

void Dumper::frame(const std::string& file, long number, LinkType link,
                   std::span<const std::uint8_t> bytes, std::uint32_t wireLength) {
  const LocatedPim m = locatePim(locateIp(link, bytes));
  switch (m.verdict) {
    case IpVerdict::NotPim:
      return;
    case IpVerdict::Pim:
      break;
    case IpVerdict::Fragment:
    case IpVerdict::Truncated:
    case IpVerdict::Malformed: {
      static constexpr const char* kWhat[] = {"", "", "fragment", "truncated", "malformed"};
      err_ << file << ':' << number << ": " << kWhat[static_cast<int>(m.verdict)]
           << ", skipped: " << m.note;
      if (m.verdict == IpVerdict::Truncated && bytes.size() < wireLength) {
        err_ << " (frame of " << wireLength << " bytes captured to " << bytes.size() << ')';
      }
      err_ << '\n';
      return;
    }
  }
  sink_->reset();
  Decoded d = decodePim(m, options_);
  ++messages_;
  const bool ok = d.json.value("ok", false);
  const std::string& error = d.error.empty() ? sink_->firstError() : d.error;
  if (options_.text) {
    out_ << file << ':' << number << ' ';
    if (ok) {
      out_ << d.text << '\n';
    } else {
      out_ << "IPv" << unsigned{m.af} << ' ' << m.src << " > " << m.dst << " PIM type "
           << d.json.value("typeNumber", 0u) << " (" << d.json.value("type", "")
           << ") rejected: " << error << '\n';
    }
    return;
  }
  nlohmann::ordered_json line;
  line["file"] = file;
  line["frame"] = number;
  line.update(d.json);
  if (!ok) line["error"] = error;
  out_ << line.dump() << '\n';
}

int Dumper::dump(void* handle, const std::string& name, bool live) {
  auto* pcap = static_cast<pcap_t*>(handle);
  const LinkType link = linkTypeOf(pcap_datalink(pcap));
  if (link == LinkType::Unsupported) {
    err_ << "pimdump: " << name << ": unsupported link type "
         << (pcap_datalink_val_to_name(pcap_datalink(pcap)) ?: "?") << '\n';
    return 2;
  }
  const auto started = std::chrono::steady_clock::now();
  const long before = messages_;
  long number = 0;
  stopRequested = 0;
  for (;;) {
    if (live) {
      if (stopRequested) return 0;
      if (options_.maxCount >= 0 && messages_ - before >= options_.maxCount) return 0;
      if (options_.duration > 0 &&
          std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count() >=
              options_.duration) {
        return 0;
      }
    }
    pcap_pkthdr* hdr = nullptr;
    const std::uint8_t* data = nullptr;
    const int rc = pcap_next_ex(pcap, &hdr, &data);
    if (rc == 0) continue;  // live read timeout: look at the stop conditions again
    if (rc == PCAP_ERROR_BREAK) return 0;
    if (rc != 1) {
      err_ << "pimdump: " << name << ": " << pcap_geterr(pcap) << " (after frame " << number
           << ")\n";
      return 2;
    }
    ++number;
    frame(name, number, link, {data, hdr->caplen}, hdr->len);
  }
}

int Dumper::dumpFile(const std::string& path) {
  char errbuf[PCAP_ERRBUF_SIZE] = {};
  pcap_t* pcap = pcap_open_offline(path.c_str(), errbuf);
  if (pcap == nullptr) {
    // libpcap names the file itself in some of its messages.
    std::string_view why(errbuf);
    if (why.starts_with(path + ": ")) why.remove_prefix(path.size() + 2);
    err_ << "pimdump: " << path << ": " << why << '\n';
    return 2;
  }
  const int rc = dump(pcap, path, false);
  pcap_close(pcap);
  return rc;
}

int Dumper::dumpLive(const std::string& interface) {
  char errbuf[PCAP_ERRBUF_SIZE] = {};
  pcap_t* pcap = pcap_create(interface.c_str(), errbuf);
  if (pcap == nullptr) {
    err_ << "pimdump: " << interface << ": " << errbuf << '\n';
    return 2;
  }
  pcap_set_snaplen(pcap, 65535);
  pcap_set_timeout(pcap, 100);  // wake up to check --count, --duration and signals
  pcap_set_immediate_mode(pcap, 1);
  bpf_program filter{};
  // IPv6 is not narrowed in the kernel: PIM may sit behind extension headers.
  if (pcap_activate(pcap) < 0 ||
      pcap_compile(pcap, &filter, "ip proto 103 or ip6", 1, PCAP_NETMASK_UNKNOWN) != 0 ||
      pcap_setfilter(pcap, &filter) != 0) {
    err_ << "pimdump: " << interface << ": " << pcap_geterr(pcap) << '\n';
    pcap_freecode(&filter);
    pcap_close(pcap);
    return 2;
  }
  pcap_freecode(&filter);
  struct sigaction sa {};
  sa.sa_handler = requestStop;
  ::sigaction(SIGINT, &sa, nullptr);
  ::sigaction(SIGTERM, &sa, nullptr);
  const int rc = dump(pcap, interface, true);
  pcap_close(pcap);
  return rc;
}

}  // namespace PimDump
