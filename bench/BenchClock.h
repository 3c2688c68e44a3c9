// Clocks and the median for the benchmark programs that time loops themselves (the ones
// around raw sockets, where Google Benchmark's iteration control does not fit).
#pragma once

#include <algorithm>
#include <ctime>
#include <vector>

namespace BenchClock {

// CPU time of the calling thread, system time included.
inline double threadCpu() {
  timespec t;
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}
inline double wall() {
  timespec t;
  ::clock_gettime(CLOCK_MONOTONIC, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}
inline double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}
// The median of some runs with their range.
struct Spread {
  double median, lo, hi;
};
inline Spread spread(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return {v[v.size() / 2], v.front(), v.back()};
}

}  // namespace BenchClock
