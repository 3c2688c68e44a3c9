// pimdump's decoding core: finds the PIM messages in captured frames and decodes each one
// with the library's own codec, so that what it shows is what a router built on the
// library would accept or reject, and why.
//
// Layers, each usable on its own:
//   locateIp()      a frame of a given link type -> the IP packet inside it (Ethernet with
//                   any number of VLAN tags, Linux cooked SLL and SLL2, raw IP);
//   locatePim()     an IP packet -> the PIM message inside it (IPv4 options and IPv6
//                   extension headers skipped; fragments and truncated packets reported);
//   decodePim()     a located message -> one JSON object in pimdump's schema, the codec's
//                   print form, and the first error line the codec traced;
//   Dumper          a capture (file or live) -> JSON lines or text on an ostream.
//
// Threading: one thread; the codec's trace sink is process-wide, so one Dumper at a time.
//
// Usage:
//   PimDump::Dumper d(std::cout, std::cerr, {.text = false, .traceLevel = 0});
//   int rc = d.dumpFile("pim.pcapng");     // 0 read, 2 missing or not a capture
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <ostream>
#include <span>
#include <string>

#include "Pim/platform/Nimo.h"

namespace PimDump {

// ---------------------------------------------------------------------------------------
// Frames to IP packets.

enum class LinkType : std::uint8_t { Ethernet, LinuxSll, LinuxSll2, RawIp, Unsupported };
// From a pcap DLT_* value.
LinkType linkTypeOf(int dlt) noexcept;

// The IP packet inside a frame: empty when the frame carries no IPv4 or IPv6 packet.
std::span<const std::uint8_t> locateIp(LinkType link, std::span<const std::uint8_t> frame) noexcept;

// ---------------------------------------------------------------------------------------
// IP packets to PIM messages.

enum class IpVerdict : std::uint8_t {
  Pim,        // a whole PIM message: see pim
  NotPim,     // another protocol, or not IP at all
  Fragment,   // a fragment of a PIM packet (or of a packet whose protocol is unknown yet)
  Truncated,  // the capture holds fewer bytes than the IP header announces
  Malformed,  // an IP header that contradicts itself (IHL below 5, length below header)
};

struct LocatedPim {
  IpVerdict verdict = IpVerdict::NotPim;
  std::uint8_t af = 0;  // 4 or 6
  Nimo::IpGenAddr src, dst;
  // The IP packet up to the end its header announces (capture padding cut off) and the
  // offset of the PIM header in it.
  std::span<const std::uint8_t> ip;
  std::uint32_t pimOffset = 0;
  std::string note;  // for every verdict but Pim and NotPim: what was seen, for the operator
};

LocatedPim locatePim(std::span<const std::uint8_t> ip) noexcept;

// ---------------------------------------------------------------------------------------
// PIM messages to JSON.

struct Decoded {
  nlohmann::ordered_json json;  // "af", "src", "dst", "type", "typeNumber", "version", "ok", ...
  std::string text;             // the codec's print form, when the reader accepted the message
  // Set when the message never reached a reader (a version or type the library does not
  // handle), in the receive path's words; otherwise the codec's first error line applies.
  std::string error;
};

struct Options;
// Decodes one located message. The trace facility "Pim::Packet" must be at level 1 or
// more for the error line to be seen; Dumper sees to that.
Decoded decodePim(const LocatedPim& m, const Options& options);

// The schema's name for a PIM type number: "hello", ..., "unknown".
const char* typeName(unsigned typeNumber) noexcept;

// ---------------------------------------------------------------------------------------
// Captures.

struct Options {
  bool text = false;    // the codec's print form instead of JSON lines
  int traceLevel = 0;   // also show the codec's trace lines up to this level
  long maxCount = -1;   // live: stop after this many PIM messages (-1: no limit)
  double duration = 0;  // live: stop after this many seconds (0: no limit)
  bool bidir = false;   // read Join/Prunes as a bidirectional router does (else sparse mode)
};

class Dumper {
 public:
  Dumper(std::ostream& out, std::ostream& err, Options o);
  ~Dumper();
  Dumper(const Dumper&) = delete;
  Dumper& operator=(const Dumper&) = delete;

  // 0 when the file was read, whatever its messages held; 2 (with one line on err) when it
  // is missing, not a capture, or of a link type pimdump does not read.
  int dumpFile(const std::string& path);
  // Live from an interface (needs CAP_NET_RAW); 0 on a clean stop, 2 when it cannot open.
  int dumpLive(const std::string& interface);

  long messages() const noexcept { return messages_; }

 private:
  class TraceSink;
  int dump(void* pcap, const std::string& name, bool live);
  void frame(const std::string& file, long number, LinkType link,
             std::span<const std::uint8_t> bytes, std::uint32_t wireLength);

  std::ostream& out_;
  std::ostream& err_;
  Options options_;
  long messages_ = 0;
  TraceSink* sink_;
};

}  // namespace PimDump
