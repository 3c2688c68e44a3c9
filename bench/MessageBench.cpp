// MessageBench: what reading and writing each message after Hello costs (Register data and
// null, Register-Stop, Assert, Bootstrap, C-RP-Adv, DF Election Offer/Backoff/Pass, and a
// Bootstrap of 50 groups with 4 RPs each), IPv4 and IPv6, each beside a memcpy of the
// same bytes measured in the same run.
//
// A read includes making the message object, as the receive path does per packet; a data
// Register read also takes a fresh view of the packet (Pkt::share, no byte copy), because
// the reader moves the packet's head to the inner header. Tracing is off (level 0).
//   cmake --preset release && cmake --build build/release --target MessageBench
//   build/release/bench/MessageBench [--benchmark_repetitions=3
//   --benchmark_report_aggregates_only=true]
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Pim/PimMessage.h"

namespace {

using namespace Routing::Pim::Packet;

template <typename M>
using Op = std::uint32_t (M::*)(const Kel::Ptr<Nimo::Pkt>&, std::uint32_t) noexcept;

Nimo::IpGenAddr addr(bool v6, const char* a4, const char* a6) {
  return Nimo::IpGenAddr(v6 ? a6 : a4);
}

template <typename M>
Kel::Ptr<M> make(bool v6) {
  auto m = Kel::Ptr<M>::make();
  m->srcIpIs(addr(v6, "10.0.0.1", "fe80::1"));
  m->dstIpIs(addr(v6, "224.0.0.13", "ff02::d"));
  return m;
}

EncodedGroupAddress group(bool v6) {
  EncodedGroupAddress g;
  g.addressIs(addr(v6, "239.1.2.3", "ff3e::1234"));
  return g;
}

// A 100-byte UDP datagram to the group, the payload of a data Register.
Kel::Ptr<Nimo::Pkt> datagram(bool v6) {
  auto p = Nimo::Pkt::create(100);
  std::uint8_t* h = p->writableData(0);
  if (v6) {
    Nimo::Ipv6Hdr(h).build(0, 60, 17, 64, addr(v6, "", "2001:db8::5"), addr(v6, "", "ff3e::1234"));
  } else {
    Nimo::Ipv4Hdr(h).build(0, 100, 64, 17, addr(v6, "10.0.0.5", ""), addr(v6, "239.1.2.3", ""));
  }
  return p;
}

Kel::Ptr<BootstrapMessage> bootstrap(bool v6, int groups, int rps) {
  auto m = make<BootstrapMessage>(v6);
  m->fragmentTagIs(42);
  m->hashMaskLenIs(v6 ? 126 : 30);
  m->bsrAddressIs(addr(v6, "10.0.0.1", "2001:db8::1"));
  for (int g = 0; g < groups; ++g) {
    BootstrapGroupData& gd = m->groupDataIs(
        Nimo::IpGenPrefix(v6 ? fmt::format("ff3e:{:x}::/32", g) : fmt::format("239.{}.0.0/16", g)));
    gd.rpCount = gd.fragRpCount = static_cast<std::uint8_t>(rps);
    for (int r = 0; r < rps; ++r) {
      gd.rpListIs(v6 ? Nimo::IpGenAddr(fmt::format("2001:db8::{:x}", r + 1))
                     : Nimo::IpGenAddr::v4(0x0a000001u + unsigned(r)))
          .rpHoldtime = 150;
    }
  }
  return m;
}

template <typename M>
void fillDf(M& m, bool v6) {
  m.rpAddressIs(EncodedUnicastAddress(addr(v6, "10.0.0.99", "2001:db8::99")));
  m.senderMetricPrefIs({100, 10});
  if constexpr (std::is_same_v<M, DfElectionBackoffMessage>) {
    m.offeringAddressIs(EncodedUnicastAddress(addr(v6, "10.0.0.7", "2001:db8::7")));
    m.intervalIs(200);
  }
  if constexpr (std::is_same_v<M, DfElectionPassMessage>) {
    m.winningAddressIs(EncodedUnicastAddress(addr(v6, "10.0.0.7", "2001:db8::7")));
  }
}

// One message type: how to make a filled message, its read and write operations.
template <typename M>
struct Case {
  std::function<Kel::Ptr<M>(bool v6)> filled;
  Op<M> read;
  Op<M> write;
  bool fresh = false;  // the read consumes its packet's head: give it a new view each time
};

template <typename M>
Kel::Ptr<Nimo::Pkt> written(const Case<M>& c, bool v6) {
  auto m = c.filled(v6);
  auto p = Nimo::Pkt::create(9000);
  const std::uint32_t n = ((*m).*c.write)(p, 0);
  if (n == 0 || !p->sizeIs(n)) {
    std::fprintf(stderr, "MessageBench: a message does not write\n");
    std::exit(1);
  }
  return p;
}

template <typename M>
void registerCase(const std::string& name, const Case<M>& c) {
  for (bool v6 : {false, true}) {
    const std::string fam = v6 ? "/IPv6" : "/IPv4";
    auto pkt = written(c, v6);
    benchmark::RegisterBenchmark(("Read/" + name + fam).c_str(), [c, v6, pkt](benchmark::State& s) {
      auto proto = make<M>(v6);
      for (auto _ : s) {
        auto m = Kel::Ptr<M>::make();
        m->srcIpIs(proto->srcIp());
        m->dstIpIs(proto->dstIp());
        const std::uint32_t n = ((*m).*c.read)(c.fresh ? pkt->share() : pkt, 0);
        if (n == 0) s.SkipWithError("read failed");
        benchmark::DoNotOptimize(n);
      }
    });
    benchmark::RegisterBenchmark(("Write/" + name + fam).c_str(), [c, v6](benchmark::State& s) {
      auto m = c.filled(v6);
      auto out = Nimo::Pkt::create(9000);
      for (auto _ : s) {
        const std::uint32_t n = ((*m).*c.write)(out, 0);
        if (n == 0) s.SkipWithError("write failed");
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
      }
    });
    benchmark::RegisterBenchmark(("Memcpy/" + name + fam).c_str(), [pkt](benchmark::State& s) {
      std::vector<std::uint8_t> out(pkt->size());
      const std::uint8_t* in = pkt->data(0);
      for (auto _ : s) {
        benchmark::DoNotOptimize(in);
        std::memcpy(out.data(), in, out.size());
        benchmark::ClobberMemory();
      }
    });
  }
}

void registerAll() {
  registerCase<RegisterMessage>("RegisterData100B", {[](bool v6) {
                                                       auto m = make<RegisterMessage>(v6);
                                                       m->rcvdPktIs(datagram(v6));
                                                       return m;
                                                     },
                                                     &RegisterMessage::readRegisterMessage,
                                                     &RegisterMessage::writeRegisterMessage, true});
  registerCase<RegisterMessage>("RegisterNull", {[](bool v6) {
                                                   auto m = make<RegisterMessage>(v6);
                                                   m->nullFlagIs(true);
                                                   m->rcvdPktIs(datagram(v6));
                                                   return m;
                                                 },
                                                 &RegisterMessage::readRegisterMessage,
                                                 &RegisterMessage::writeRegisterMessage});
  registerCase<RegisterStopMessage>(
      "RegisterStop", {[](bool v6) {
                         auto m = make<RegisterStopMessage>(v6);
                         m->groupIs(group(v6));
                         m->sourceIs(EncodedUnicastAddress(addr(v6, "10.0.0.5", "2001:db8::5")));
                         return m;
                       },
                       &RegisterStopMessage::readRegisterStopMessage,
                       &RegisterStopMessage::writeRegisterStopMessage});
  registerCase<AssertMessage>(
      "Assert", {[](bool v6) {
                   auto m = make<AssertMessage>(v6);
                   m->groupIs(group(v6));
                   m->sourceIs(EncodedUnicastAddress(addr(v6, "10.0.0.5", "2001:db8::5")));
                   m->metricPreferenceIs(AssertMessage::AssertMetricPreference(110));
                   m->metricIs(10);
                   return m;
                 },
                 &AssertMessage::readAssertMessage, &AssertMessage::writeAssertMessage});
  registerCase<BootstrapMessage>("Bootstrap2x2", {[](bool v6) { return bootstrap(v6, 2, 2); },
                                                  &BootstrapMessage::readBootstrapMessage,
                                                  &BootstrapMessage::writeBootstrapMessage});
  registerCase<BootstrapMessage>("Bootstrap50x4", {[](bool v6) { return bootstrap(v6, 50, 4); },
                                                   &BootstrapMessage::readBootstrapMessage,
                                                   &BootstrapMessage::writeBootstrapMessage});
  registerCase<CrpAdvMessage>(
      "CrpAdv4", {[](bool v6) {
                    auto m = make<CrpAdvMessage>(v6);
                    m->prefixCountIs(4);
                    m->rpAddressIs(addr(v6, "10.0.0.99", "2001:db8::99"));
                    m->groupDataIs(Kel::Ptr<CrpGroupData>::make());
                    for (int g = 0; g < 4; ++g) {
                      m->groupData()->groupInfoIs(Nimo::IpGenPrefix(
                          v6 ? fmt::format("ff3e:{:x}::/32", g) : fmt::format("239.{}.0.0/16", g)));
                    }
                    return m;
                  },
                  &CrpAdvMessage::readCrpAdvMessage, &CrpAdvMessage::writeCrpAdvMessage});
  registerCase<DfElectionOfferMessage>("DfOffer",
                                       {[](bool v6) {
                                          auto m = make<DfElectionOfferMessage>(v6);
                                          fillDf(*m, v6);
                                          return m;
                                        },
                                        &DfElectionOfferMessage::readDfElectionOfferMessage,
                                        &DfElectionOfferMessage::writeDfElectionOfferMessage});
  registerCase<DfElectionBackoffMessage>(
      "DfBackoff", {[](bool v6) {
                      auto m = make<DfElectionBackoffMessage>(v6);
                      fillDf(*m, v6);
                      return m;
                    },
                    &DfElectionBackoffMessage::readDfElectionBackoffMessage,
                    &DfElectionBackoffMessage::writeDfElectionBackoffMessage});
  registerCase<DfElectionPassMessage>("DfPass",
                                      {[](bool v6) {
                                         auto m = make<DfElectionPassMessage>(v6);
                                         fillDf(*m, v6);
                                         return m;
                                       },
                                       &DfElectionPassMessage::readDfElectionPassMessage,
                                       &DfElectionPassMessage::writeDfElectionPassMessage});
}

// Prints each read and write beside the memcpy of its bytes, from this run's times: the
// median of repetitions when aggregates are reported, else the median of plain runs.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(OutputOptions o) : ConsoleReporter(o) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.error_occurred) continue;
      if (r.run_type == Run::RT_Iteration) {
        samples_[r.run_name.str()].push_back(r.GetAdjustedRealTime());
      } else if (r.aggregate_name == "median") {
        median_[r.run_name.str()] = r.GetAdjustedRealTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void printRatios() const {
    std::printf("\n%-30s %10s %12s %8s\n", "figure", "ns/op", "memcpy ns", "ratio");
    for (const auto& [name, unused] : samples_.empty() ? median_ : medianOfSamples()) {
      if (name.rfind("Memcpy/", 0) == 0) continue;
      const std::string base = "Memcpy/" + name.substr(name.find('/') + 1);
      const double f = ns(name), b = ns(base);
      if (f > 0 && b > 0) std::printf("%-30s %10.1f %12.1f %7.1fx\n", name.c_str(), f, b, f / b);
    }
  }

 private:
  std::map<std::string, double> medianOfSamples() const {
    std::map<std::string, double> out;
    for (const auto& [name, v] : samples_) out[name] = 0;
    for (const auto& [name, v] : median_) out[name] = 0;
    return out;
  }
  double ns(const std::string& name) const {
    if (auto m = median_.find(name); m != median_.end()) return m->second;
    auto s = samples_.find(name);
    if (s == samples_.end() || s->second.empty()) return 0;
    std::vector<double> v = s->second;
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2), v.end());
    return v[v.size() / 2];
  }
  std::map<std::string, std::vector<double>> samples_;
  std::map<std::string, double> median_;
};

}  // namespace

int main(int argc, char** argv) {
  registerAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_Color
                                               : benchmark::ConsoleReporter::OO_None);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios();
  benchmark::Shutdown();
  return 0;
}
