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

struct NamedTarget {
  std::string_view name;
  PimFuzz::Target target;
};
constexpr NamedTarget kTargets[] = {
    {"readHeader", &PimFuzz::readHeader},
    {"readUnicastAddress", &PimFuzz::readUnicastAddress},
    {"readGroupAddress", &PimFuzz::readGroupAddress},
    {"readSourceAddress", &PimFuzz::readSourceAddress},
    {"readHelloMessage", &PimFuzz::readHelloMessage},
};
static_assert(std::size(kTargets) == std::size(PimFuzz::kTargetNames));

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

class FuzzRegression : public ::testing::TestWithParam<NamedTarget> {
 protected:
  std::uint32_t run(const Bytes& in) const { return GetParam().target(in.data(), in.size()); }
};

TEST_P(FuzzRegression, RecordedInputsReplayWithinBounds) {
  std::filesystem::path dir =
      std::filesystem::path(PIM_FUZZ_REGRESSION_DIR) / std::string(GetParam().name);
  if (!std::filesystem::is_directory(dir)) GTEST_SKIP() << "no recorded inputs in " << dir;
  int replayed = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    std::ifstream f(entry.path(), std::ios::binary);
    Bytes in((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    if (in.empty()) continue;
    EXPECT_LE(run(in), available(in)) << entry.path();
    ++replayed;
  }
  if (replayed == 0) GTEST_SKIP() << "no recorded inputs in " << dir;
}

TEST_P(FuzzRegression, SeedsAreAccepted) {
  auto seeds = PimFuzz::seeds(GetParam().name);
  ASSERT_FALSE(seeds.empty());
  for (const Bytes& in : seeds) {
    std::uint32_t n = run(in);
    EXPECT_NE(n, 0u) << hex(in);
    EXPECT_LE(n, available(in)) << hex(in);
  }
}

TEST_P(FuzzRegression, TruncatedAndBitFlippedSeedsStayWithinBounds) {
  for (const Bytes& seed : PimFuzz::seeds(GetParam().name)) {
    for (std::size_t len = 1; len < seed.size(); ++len) {
      Bytes in(seed.begin(), seed.begin() + static_cast<std::ptrdiff_t>(len));
      ASSERT_LE(run(in), available(in)) << hex(in);
    }
    for (std::size_t bit = 8; bit < seed.size() * 8; ++bit) {
      Bytes in = seed;
      in[bit / 8] = static_cast<std::uint8_t>(in[bit / 8] ^ (1u << (bit % 8)));
      ASSERT_LE(run(in), available(in)) << hex(in);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzRegression, ::testing::ValuesIn(kTargets),
                         [](const auto& p) { return std::string(p.param.name); });

}  // namespace
