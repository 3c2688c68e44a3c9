// pimfuzzseeds DIR: writes each fuzz target's seed inputs to DIR/<target>/seed-<n>, the
// starting corpus for scripts/test's fuzz smoke and for longer runs.
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "fuzz/FuzzInput.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
    return 2;
  }
  std::size_t total = 0;
  for (const PimFuzz::NamedTarget& t : PimFuzz::kTargets) {
    const std::string_view name = t.name;
    std::filesystem::path dir = std::filesystem::path(argv[1]) / name;
    std::filesystem::create_directories(dir);
    std::size_t i = 0;
    for (const auto& seed : PimFuzz::seeds(name)) {
      std::ofstream(dir / ("seed-" + std::to_string(i++)), std::ios::binary)
          .write(reinterpret_cast<const char*>(seed.data()),
                 static_cast<std::streamsize>(seed.size()));
    }
    total += i;
  }
  std::printf("pimfuzzseeds: %zu seeds in %s\n", total, argv[1]);
  return 0;
}
