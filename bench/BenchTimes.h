// What every benchmark program here shares: a console reporter that also keeps each
// benchmark's time from this run (the median of repetitions when aggregates are reported,
// else the median of its plain runs), so that a summary can print figures beside their
// baselines measured in the same run.
//
// Usage:
//   int main(int argc, char** argv) {
//     benchmark::RegisterBenchmark("Read", read);
//     return BenchTimes::run(argc, argv, BenchTimes::Clock::Real, [](const BenchTimes::Times& t) {
//       std::printf("%.2fx\n", t.ns("Read") / t.ns("Memcpy"));
//     });
//   }
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace BenchTimes {

enum class Clock { Real, Cpu };

class Times : public benchmark::ConsoleReporter {
 public:
  Times(OutputOptions o, Clock c) : ConsoleReporter(o), clock_(c) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.error_occurred) continue;
      const double t = clock_ == Clock::Cpu ? r.GetAdjustedCPUTime() : r.GetAdjustedRealTime();
      if (r.run_type == Run::RT_Iteration) {
        samples_[r.run_name.str()].push_back(t);
      } else if (r.aggregate_name == "median") {
        median_[r.run_name.str()] = t;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // The benchmark's time in ns, 0 when it did not run (filtered out or failed).
  double ns(const std::string& name) const {
    if (auto m = median_.find(name); m != median_.end()) return m->second;
    auto s = samples_.find(name);
    if (s == samples_.end() || s->second.empty()) return 0;
    std::vector<double> v = s->second;
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2), v.end());
    return v[v.size() / 2];
  }
  // Every benchmark that ran, by name.
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const auto& [n, v] : samples_) out.push_back(n);
    for (const auto& [n, v] : median_) {
      if (!samples_.count(n)) out.push_back(n);
    }
    return out;
  }

 private:
  Clock clock_;
  std::map<std::string, std::vector<double>> samples_;
  std::map<std::string, double> median_;
};

// Runs the registered benchmarks, then the summary; colour only on a terminal.
inline int run(int& argc, char** argv, Clock clock,
               const std::function<void(const Times&)>& summary) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Times times(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_Color
                                    : benchmark::ConsoleReporter::OO_None,
              clock);
  benchmark::RunSpecifiedBenchmarks(&times);
  summary(times);
  benchmark::Shutdown();
  return 0;
}

}  // namespace BenchTimes
