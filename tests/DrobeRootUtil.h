// A private shared-memory root (DROBE_ROOT under /dev/shm, named with the pid) for one test
// or bench object's lifetime; removed at the end. No gtest: benches use it too.
#pragma once

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace PimTest {

class DrobeRoot {
 public:
  DrobeRoot() : root_(fmt::format("/dev/shm/pimiotest.{}", ::getpid())) {
    ::setenv("DROBE_ROOT", root_.c_str(), 1);
  }
  ~DrobeRoot() {
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }

 private:
  std::string root_;
};

}  // namespace PimTest
