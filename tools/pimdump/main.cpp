// pimdump: decode the PIM messages of capture files or of a live interface with the
// library's own codec. See usage() and tools/pimdump/PimDump.h.

#include <getopt.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "tools/pimdump/PimDump.h"

namespace {

void usage(std::ostream& os) {
  os << "usage: pimdump [options] FILE...\n"
        "       pimdump [options] -i IFACE\n"
        "\n"
        "Decodes every PIM message (IP protocol 103, IPv4 and IPv6) in pcap or pcapng files\n"
        "(Ethernet with VLAN tags, Linux cooked SLL/SLL2, raw IP) or live from an interface,\n"
        "with the PIM library's own readers: what it shows is what a router built on the\n"
        "library accepts or rejects, and why. One JSON object per message by default.\n"
        "\n"
        "  -i, --interface IFACE  capture live from IFACE (needs root or CAP_NET_RAW)\n"
        "  -c, --count N          live: stop after N PIM messages\n"
        "      --duration S       live: stop after S seconds\n"
        "      --bidir            read Join/Prunes as a bidirectional-mode router (default:\n"
        "                         sparse mode; each drops the other mode's groups)\n"
        "      --text             print the codec's own print form, one line per message\n"
        "      --trace LEVEL      also show the codec's trace lines up to LEVEL (1-9) on stderr\n"
        "  -h, --help             this text\n"
        "\n"
        "Fragments, truncated and malformed IP packets are reported on stderr and skipped.\n"
        "Exit status: 0 when the input was read, whatever the messages held; 2 when a file is\n"
        "missing or not a capture, an interface cannot be opened, or the options are wrong.\n";
}

int fail(const std::string& what) {
  std::cerr << "pimdump: " << what << " (pimdump --help lists the options)\n";
  return 2;
}

bool number(const char* text, double lo, double hi, double& out) {
  char* end = nullptr;
  out = std::strtod(text, &end);
  return end != text && *end == '\0' && out >= lo && out <= hi;
}

}  // namespace

int main(int argc, char** argv) {
  enum { kText = 256, kTrace, kDuration, kBidir };
  static const option kOptions[] = {{"interface", required_argument, nullptr, 'i'},
                                    {"count", required_argument, nullptr, 'c'},
                                    {"duration", required_argument, nullptr, kDuration},
                                    {"text", no_argument, nullptr, kText},
                                    {"trace", required_argument, nullptr, kTrace},
                                    {"help", no_argument, nullptr, 'h'},
                                    {"bidir", no_argument, nullptr, kBidir},
                                    {nullptr, 0, nullptr, 0}};
  PimDump::Options options;
  std::string interface;
  opterr = 0;
  for (int c; (c = getopt_long(argc, argv, ":i:c:h", kOptions, nullptr)) != -1;) {
    double v = 0;
    switch (c) {
      case 'i':
        interface = optarg;
        break;
      case 'c':
        if (!number(optarg, 0, 1e12, v)) return fail("--count takes a whole number");
        options.maxCount = static_cast<long>(v);
        break;
      case kDuration:
        if (!number(optarg, 0.001, 1e9, v)) return fail("--duration takes seconds above 0");
        options.duration = v;
        break;
      case kText:
        options.text = true;
        break;
      case kTrace:
        if (!number(optarg, 0, 9, v)) return fail("--trace takes a level from 0 to 9");
        options.traceLevel = static_cast<int>(v);
        break;
      case 'h':
        usage(std::cout);
        return 0;
      case ':':
        return fail(std::string("option ") + argv[optind - 1] + " needs a value");
      default:
        return fail(std::string("unknown option ") + argv[optind - 1]);
    }
  }
  const std::vector<std::string> files(argv + optind, argv + argc);
  if (interface.empty() == files.empty()) {
    return fail(interface.empty() ? "no capture file named" : "give either -i or files, not both");
  }
  std::ios::sync_with_stdio(false);
  PimDump::Dumper dumper(std::cout, std::cerr, options);
  if (!interface.empty()) return dumper.dumpLive(interface);
  int rc = 0;
  for (const auto& f : files) rc = std::max(rc, dumper.dumpFile(f));
  std::cout.flush();
  return rc;
}
