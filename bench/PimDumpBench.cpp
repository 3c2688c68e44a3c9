// PimDumpBench: pimdump's throughput on a capture of 100,000 PIM messages (every message
// type the codec reads, both families, in Ethernet frames), in messages per second, beside
// a libpcap loop that only reads the same file and touches each frame's bytes.
//
//   cmake --preset release && cmake --build build/release --target PimDumpBench
//   build/release/bench/PimDumpBench [MESSAGES]
//
// Both runs read the file from the page cache (it is read once before timing); the best of
// five runs of each is reported. pimdump's figure includes the JSON lines it writes (to a
// discarding stream) and, with --text, the print form instead.
#include <pcap/pcap.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <ostream>
#include <streambuf>

#include "tools/pimdump/Samples.h"

namespace {

class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

double bestSeconds(const std::function<void()>& run) {
  double best = 1e30;
  for (int i = 0; i < 5; ++i) {
    const auto t0 = std::chrono::steady_clock::now();
    run();
    best = std::min(best,
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
  }
  return best;
}

}  // namespace

int main(int argc, char** argv) {
  const long count = argc > 1 ? std::atol(argv[1]) : 100000;
  const auto path = std::filesystem::temp_directory_path() /
                    ("pimdumpbench-" + std::to_string(::getpid()) + ".pcap");
  std::vector<PimDump::Bytes> frames;
  for (const bool v6 : {false, true}) {
    for (const auto& ip : PimDump::sampleMessages(v6)) {
      frames.push_back(PimDump::linkFrame(PimDump::LinkType::Ethernet, ip));
    }
  }
  {
    PimDump::CaptureWriter w(path.string(), PimDump::CaptureWriter::Format::Pcap,
                             PimDump::LinkType::Ethernet);
    for (long i = 0; i < count; ++i) w.add(frames[static_cast<std::size_t>(i) % frames.size()]);
  }

  unsigned long sink = 0;
  const double bare = bestSeconds([&] {
    char err[PCAP_ERRBUF_SIZE];
    pcap_t* p = pcap_open_offline(path.c_str(), err);
    pcap_pkthdr* h;
    const u_char* d;
    while (pcap_next_ex(p, &h, &d) == 1) sink += d[h->caplen - 1];
    pcap_close(p);
  });
  NullBuffer nothing;
  std::ostream out(&nothing), err(&nothing);
  double figures[2];
  for (const bool text : {false, true}) {
    figures[text] = bestSeconds([&] {
      PimDump::Dumper d(out, err, {.text = text});
      d.dumpFile(path.string());
      sink += static_cast<unsigned long>(d.messages());
    });
  }
  std::filesystem::remove(path);

  const auto rate = [count](double s) { return static_cast<double>(count) / s; };
  std::printf("%ld messages, %zu kinds of frame, checksum %lu\n\n", count, frames.size(), sink);
  std::printf("%-24s %14s %14s %8s\n", "figure", "messages/s", "baseline/s", "ratio");
  std::printf("%-24s %14.0f %14.0f %8.3f\n", "pimdump, JSON lines", rate(figures[0]), rate(bare),
              rate(figures[0]) / rate(bare));
  std::printf("%-24s %14.0f %14.0f %8.3f\n", "pimdump --text", rate(figures[1]), rate(bare),
              rate(figures[1]) / rate(bare));
  std::printf("\nbaseline: a libpcap loop that only reads the same file\n");
  return 0;
}
