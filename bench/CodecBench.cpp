// CodecBench: what reading and writing a Hello, the Internet checksum and disabled tracing
// cost, each printed beside a baseline measured in the same run.
//
//   figure                         baseline
//   read/write of a typical Hello  memcpy of the same bytes (IPv4 62 B, IPv6 110 B)
//   Nimo::inetChecksum, 1500 B     a 64-bit-accumulator sum written here (and, for
//                                  context, a plain 16-bit-word loop)
//   Hello read, tracing on         the same read with the codec facility at level 0
//                                  (lines formatted into a discarding sink)
//   16 disabled trace sites        the same loop without them: what tracing off costs
//                                  per read (a Hello read passes about that many)
//
// A read includes making the message object, as the receive path does per packet. Every
// other figure runs with tracing off (level 0), so the on/off ratio says what the level
// check saves. Run from the release preset:
//   cmake --preset release && cmake --build build/release --target CodecBench
//   build/release/bench/CodecBench
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "Pim/PimMessage.h"
#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Nimo.h"
#include "bench/BenchTimes.h"

namespace {

using Routing::Pim::Packet::HelloMessage;

// Sixteen trace sites at a disabled level, with arguments that would need formatting,
// against the same loop without them.
template <bool kWithTrace>
void traceSites(benchmark::State& state) {
  auto& f = Flicklog::facility("CodecBench::Off");
  f.levelIs(0);
  const Nimo::IpGenAddr a("10.0.0.1");
  for (auto _ : state) {
    for (int i = 0; i < 16; ++i) {
      if constexpr (kWithTrace) FLICK_TRACE(f, 4, "site {} address {}", i, a);
      benchmark::ClobberMemory();
    }
  }
}

// ---------------------------------------------------------------------------------------
// Inputs

Kel::Ptr<HelloMessage> typicalHello(bool v6) {
  auto m = Kel::Ptr<HelloMessage>::make();
  m->srcIpIs(Nimo::IpGenAddr(v6 ? "fe80::1" : "10.0.0.1"));
  m->dstIpIs(Nimo::IpGenAddr(v6 ? "ff02::d" : "224.0.0.13"));
  m->holdTimeOptionIs(true);
  m->holdTimeIs(105);
  m->lanPruneDelayOptionIs(true);
  m->propagationDelayIs(HelloMessage::HelloPropagationDelay(500));
  m->overrideIntervalIs(2500);
  m->drPriorityOptionIs(true);
  m->drPriorityIs(1);
  m->generationIdOptionIs(true);
  m->generationIdIs(0x5eed1234);
  for (int i = 1; i <= 4; ++i) {
    std::string a = v6 ? "2001:db8::" + std::to_string(i) : "10.0." + std::to_string(i) + ".1";
    m->secondaryAddrIs(Nimo::IpGenAddr(a), true);
  }
  return m;
}

Kel::Ptr<Nimo::Pkt> written(const HelloMessage& m) {
  auto pkt = Nimo::Pkt::create(1500);
  std::uint32_t n = HelloMessage(m).writeHelloMessage(pkt, 0);
  if (n == 0 || !pkt->sizeIs(n)) {
    std::fprintf(stderr, "CodecBench: the typical Hello does not write\n");
    std::exit(1);
  }
  return pkt;
}

void bytesIs(benchmark::State& state, std::size_t perIteration) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(perIteration));
}

class DiscardSink final : public Flicklog::Sink {
 public:
  void write(const Flicklog::Facility&, int, std::string_view text) override {
    benchmark::DoNotOptimize(text.data());
  }
};

// ---------------------------------------------------------------------------------------
// Hello read and write, memcpy baseline

void readHello(benchmark::State& state, bool v6, int traceLevel) {
  auto pkt = written(*typicalHello(v6));
  auto src = typicalHello(v6);
  DiscardSink sink;
  Flicklog::Sink* previous = Flicklog::sinkIs(&sink);
  Routing::Pim::Packet::codecTrace().levelIs(traceLevel);
  for (auto _ : state) {
    auto m = Kel::Ptr<HelloMessage>::make();
    m->srcIpIs(src->srcIp());
    m->dstIpIs(src->dstIp());
    std::uint32_t n = m->readHelloMessage(pkt, 0);
    if (n != pkt->size()) state.SkipWithError("read failed");
    benchmark::DoNotOptimize(n);
  }
  Routing::Pim::Packet::codecTrace().levelIs(0);
  Flicklog::sinkIs(previous);
  bytesIs(state, pkt->size());
}

void writeHello(benchmark::State& state, bool v6) {
  auto m = typicalHello(v6);
  auto pkt = Nimo::Pkt::create(1500);
  for (auto _ : state) {
    std::uint32_t n = m->writeHelloMessage(pkt, 0);
    if (n == 0) state.SkipWithError("write failed");
    benchmark::DoNotOptimize(n);
    benchmark::ClobberMemory();
  }
}

void memcpyHello(benchmark::State& state, bool v6) {
  auto pkt = written(*typicalHello(v6));
  std::vector<std::uint8_t> out(pkt->size());
  const std::uint8_t* in = pkt->data(0);
  for (auto _ : state) {
    benchmark::DoNotOptimize(in);
    std::memcpy(out.data(), in, out.size());
    benchmark::ClobberMemory();
  }
  bytesIs(state, out.size());
}

// ---------------------------------------------------------------------------------------
// Checksums over 1500 bytes

// 32-bit big-endian words into a 64-bit accumulator, folded once at the end.
std::uint16_t referenceSum64(const std::uint8_t* p, std::size_t len) {
  std::uint64_t acc = 0;
  std::size_t i = 0;
  for (; i + 4 <= len; i += 4) {
    std::uint32_t w;
    std::memcpy(&w, p + i, 4);
    acc += __builtin_bswap32(w);
  }
  for (; i + 2 <= len; i += 2) acc += (std::uint32_t{p[i]} << 8) | p[i + 1];
  if (i < len) acc += std::uint32_t{p[i]} << 8;
  while (acc >> 16) acc = (acc & 0xffff) + (acc >> 16);
  return static_cast<std::uint16_t>(~acc);
}

// One 16-bit word at a time, folding as it goes: the textbook loop.
std::uint16_t referenceSum16(const std::uint8_t* p, std::size_t len) {
  std::uint32_t acc = 0;
  for (std::size_t i = 0; i + 1 < len; i += 2) {
    acc += (std::uint32_t{p[i]} << 8) | p[i + 1];
    acc = (acc & 0xffff) + (acc >> 16);
  }
  if (len % 2) acc += std::uint32_t{p[len - 1]} << 8;
  while (acc >> 16) acc = (acc & 0xffff) + (acc >> 16);
  return static_cast<std::uint16_t>(~acc);
}

const std::vector<std::uint8_t>& checksumInput() {
  static const std::vector<std::uint8_t> bytes = [] {
    std::vector<std::uint8_t> b(1500);
    std::uint32_t x = 12345;
    for (auto& v : b) v = static_cast<std::uint8_t>((x = x * 1103515245u + 12345u) >> 16);
    return b;
  }();
  return bytes;
}

template <std::uint16_t (*Sum)(const void*, std::size_t)>
void checksum(benchmark::State& state) {
  const auto& b = checksumInput();
  for (auto _ : state) {
    const std::uint8_t* p = b.data();
    benchmark::DoNotOptimize(p);
    benchmark::DoNotOptimize(Sum(p, b.size()));
  }
  bytesIs(state, b.size());
}

std::uint16_t nimoSum(const void* p, std::size_t n) { return Nimo::inetChecksum(p, n); }
std::uint16_t ref64(const void* p, std::size_t n) {
  return referenceSum64(static_cast<const std::uint8_t*>(p), n);
}
std::uint16_t ref16(const void* p, std::size_t n) {
  return referenceSum16(static_cast<const std::uint8_t*>(p), n);
}

// ---------------------------------------------------------------------------------------
// Summary: each figure over its baseline, from the times this run measured.

void printRatios(const BenchTimes::Times& t) {
  static const std::pair<const char*, const char*> kPairs[] = {
      {"ReadHello/IPv4", "MemcpyHello/IPv4"},
      {"WriteHello/IPv4", "MemcpyHello/IPv4"},
      {"ReadHello/IPv6", "MemcpyHello/IPv6"},
      {"WriteHello/IPv6", "MemcpyHello/IPv6"},
      {"Checksum1500/Nimo", "Checksum1500/Reference64"},
      {"Checksum1500/Plain16", "Checksum1500/Reference64"},
      {"ReadHello/IPv4/TraceOn", "ReadHello/IPv4"},
      {"ReadHello/IPv6/TraceOn", "ReadHello/IPv6"},
      {"Trace/16SitesOff", "Trace/16SitesAbsent"},
  };
  std::printf("\n%-26s %10s   %-26s %10s %8s\n", "figure", "ns/op", "baseline", "ns/op", "ratio");
  for (auto [figure, baseline] : kPairs) {
    const double f = t.ns(figure), b = t.ns(baseline);
    if (f <= 0 || b <= 0) continue;  // filtered out or failed
    std::printf("%-26s %10.1f   %-26s %10.1f %7.2fx\n", figure, f, baseline, b, f / b);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const auto& b = checksumInput();
  if (nimoSum(b.data(), b.size()) != ref64(b.data(), b.size()) ||
      ref16(b.data(), b.size()) != ref64(b.data(), b.size()) ||
      nimoSum(b.data(), 1499) != ref64(b.data(), 1499)) {
    std::fprintf(stderr, "CodecBench: checksum implementations disagree\n");
    return 1;
  }
  for (bool v6 : {false, true}) {
    std::string fam = v6 ? "IPv6" : "IPv4";
    benchmark::RegisterBenchmark(("ReadHello/" + fam).c_str(), readHello, v6, 0);
    benchmark::RegisterBenchmark(("WriteHello/" + fam).c_str(), writeHello, v6);
    benchmark::RegisterBenchmark(("MemcpyHello/" + fam).c_str(), memcpyHello, v6);
    benchmark::RegisterBenchmark(("ReadHello/" + fam + "/TraceOn").c_str(), readHello, v6, 9);
  }
  benchmark::RegisterBenchmark("Checksum1500/Nimo", checksum<nimoSum>);
  benchmark::RegisterBenchmark("Checksum1500/Reference64", checksum<ref64>);
  benchmark::RegisterBenchmark("Checksum1500/Plain16", checksum<ref16>);
  benchmark::RegisterBenchmark("Trace/16SitesOff", traceSites<true>);
  benchmark::RegisterBenchmark("Trace/16SitesAbsent", traceSites<false>);

  return BenchTimes::run(argc, argv, BenchTimes::Clock::Real, printRatios);
}
