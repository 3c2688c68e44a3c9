// Replays fuzz inputs through the fuzz targets in the normal and the sanitizer build:
// the inputs recorded in fuzz/regression/<target>/ (each once crashed a reader or broke a
// round trip), and each target's seeds with every truncation and every single-bit flip,
// so that an over-read of a short or damaged packet fails here under ASan without a
// fuzzer. A target aborts on a broken round trip, which fails the test binary.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

using PimFuzz::kTargets;

// Packet bytes a reader may consume: after the context byte and the start offset.
std::size_t available(const Bytes& in) {
  std::size_t offset = (in[0] >> 2) & 7u;
  return in.size() - 1 > offset ? in.size() - 1 - offset : 0;
}

std::string hex(const Bytes& in) {
  std::string s;
  for (std::uint8_t b : in) s += fmt::format("{:02x}", b);
  return s;
}

TEST(FuzzRegression, RecordedInputsReplayWithinBounds) {
  int replayed = 0;
  for (const auto& [name, target] : kTargets) {
    std::filesystem::path dir = std::filesystem::path(PIM_FUZZ_REGRESSION_DIR) / std::string(name);
    if (!std::filesystem::is_directory(dir)) continue;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
      std::ifstream f(entry.path(), std::ios::binary);
      Bytes in((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
      if (in.empty()) continue;
      EXPECT_LE(target(in.data(), in.size()), available(in)) << entry.path();
      ++replayed;
    }
  }
  if (replayed == 0) GTEST_SKIP() << "no recorded inputs under " << PIM_FUZZ_REGRESSION_DIR;
}

TEST(FuzzRegression, SeedsAreAccepted) {
  for (const auto& [name, target] : kTargets) {
    SCOPED_TRACE(std::string(name));
    auto seeds = PimFuzz::seeds(name);
    ASSERT_FALSE(seeds.empty());
    for (const Bytes& in : seeds) {
      std::uint32_t n = target(in.data(), in.size());
      EXPECT_NE(n, 0u) << hex(in);
      EXPECT_LE(n, available(in)) << hex(in);
    }
  }
}

TEST(FuzzRegression, TruncatedAndBitFlippedSeedsStayWithinBounds) {
  for (const auto& [name, target] : kTargets) {
    SCOPED_TRACE(std::string(name));
    for (const Bytes& seed : PimFuzz::seeds(name)) {
      for (std::size_t len = 1; len < seed.size(); ++len) {
        Bytes in(seed.begin(), seed.begin() + static_cast<std::ptrdiff_t>(len));
        ASSERT_LE(target(in.data(), in.size()), available(in)) << hex(in);
      }
      for (std::size_t bit = 8; bit < seed.size() * 8; ++bit) {
        Bytes in = seed;
        in[bit / 8] = static_cast<std::uint8_t>(in[bit / 8] ^ (1u << (bit % 8)));
        ASSERT_LE(target(in.data(), in.size()), available(in)) << hex(in);
      }
    }
  }
}

}  // namespace
