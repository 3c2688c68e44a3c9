// Fuzz target: a reader mounting a neighbour table that a writer built and the input then
// damaged, before the reader maps it and while it is mapped. The reader must refuse the
// file, or give a view in which every record it lists is found again under its own key;
// anything it reads outside the file faults under ASan or as a SEGV.
//
// Input: byte 0 cuts (byte & 0x7f) * 256 bytes off the file's end (bit 7 clear) or leaves
// it whole; then patches of [offset high, offset low, length | 0x80 if applied after the
// mount, bytes...], offsets taken modulo the file size. Patches after the mount reach the
// reader through its shared mapping (ring head and ring entries included) before it syncs.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Pim/PimTypesDrobe.h"
#include "Pim/platform/Drobe.h"

namespace {

namespace D = Routing::Pim::Drobe;
using Reader = Drobe::Reader<D::NeighborKey, D::Neighbor>;
constexpr const char* kPath = "fuzz/reader";

void require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "drobeReader: %s\n", what);
  std::abort();
}

// Calls find() on every key it is told about, as a mirroring reader would.
struct Follower : Reader::NotifieeConst {
  void onKey(const D::NeighborKey& k) override {
    if (auto v = notifier()->find(k)) require(v->key() == k, "find returned another key");
  }
  void onCollection() override {
    for (const D::Neighbor& n : *notifier()) {
      auto again = notifier()->find(n.key());
      if (again) require(again->key() == n.key(), "find returned another key");
    }
  }
};

struct World {
  std::string root = "/dev/shm/pimfuzz-drobe." + std::to_string(::getpid());
  std::string image;  // a writer's file: ten neighbours, two deleted, one overwritten
  Ulm::EventLoop loop{Kel::Ptr<Kel::Clock>(new Kel::SystemClock)};
  World() {
    ::setenv("DROBE_ROOT", root.c_str(), 1);
    auto w = Drobe::Writer<D::NeighborKey, D::Neighbor>::create("fuzz/writer", {"neighbor", 12, 8});
    require(w != nullptr, "no writer");
    for (std::uint32_t i = 0; i < 10; ++i) {
      D::NeighborKey k(Nimo::IpGenAddr::v4(0x0a000000u + i),
                       Nimo::IntfId("Ethernet" + std::to_string(i % 3)));
      w->is(D::Neighbor(k, static_cast<std::uint16_t>(i), Routing::Pim::DrPriorityOption(i),
                        Routing::Pim::GenerationIdOption(i * 77),
                        Routing::Pim::LanPruneDelayOption(1, 2)));
      if (i % 4 == 3) w->del(k);
      w->commit();
    }
    std::ifstream in(w->file(), std::ios::binary);
    image.assign(std::istreambuf_iterator<char>(in), {});
    std::filesystem::create_directories(Drobe::mountDir(kPath));
  }
  ~World() {
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static World world;
  std::string bytes = world.image;
  std::size_t at = 0;
  if (size > 0) {
    if (!(data[0] & 0x80))
      bytes.resize(bytes.size() - std::min<std::size_t>(bytes.size(), std::size_t{data[0]} * 256));
    at = 1;
  }
  struct Patch {
    std::size_t offset;
    std::string bytes;
  };
  std::vector<Patch> later;
  while (!bytes.empty() && at + 3 <= size) {
    const std::size_t offset = (std::size_t{data[at]} << 8 | data[at + 1]) % bytes.size();
    const std::size_t len = std::min<std::size_t>(data[at + 2] & 0x7f, size - at - 3);
    const bool after = data[at + 2] & 0x80;
    std::string p(reinterpret_cast<const char*>(data + at + 3), len);
    at += 3 + len;
    p.resize(std::min(p.size(), bytes.size() - offset));
    if (after) {
      later.push_back({offset, p});
    } else {
      bytes.replace(offset, p.size(), p);
    }
  }
  const std::string file = Drobe::collectionFile(kPath, "neighbor");
  { std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes; }
  // A live writer, as far as the reader can tell: its lock is held.
  const int lockFd = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
  require(lockFd >= 0, "cannot open the table file");
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  require(::fcntl(lockFd, F_OFD_SETLK, &fl) == 0, "cannot lock the table file");
  {
    auto r = Reader::create(world.loop, kPath, "neighbor");
    Follower f;
    f.notifierIs(r);
    world.loop.runOnce(0.0);
    for (const Patch& p : later) {
      require(::pwrite(lockFd, p.bytes.data(), p.bytes.size(), static_cast<off_t>(p.offset)) ==
                  static_cast<ssize_t>(p.bytes.size()),
              "cannot patch the table file");
    }
    r->sync();
    std::uint64_t n = 0;
    for (const D::Neighbor& v : *r) {
      ++n;
      (void)v;
    }
    require(n <= r->stats().slots, "more records than slots");
    (void)r->size();
  }
  ::close(lockFd);
  ::unlink(file.c_str());
  return 0;
}
