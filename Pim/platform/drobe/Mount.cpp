// Drobe mounting: which paths a table may be mounted at, and mapping a table that exists.

#include "Pim/platform/drobe/Mount.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Pim/platform/Drobe.h"
#include "Pim/platform/drobe/Liveness.h"
#include "Pim/platform/drobe/Mapping.h"

namespace Drobe::detail {

namespace {

// Each component of a relative path: one or more, none empty, "." or "..".
bool safeComponents(std::string_view path, bool single) noexcept {
  if (path.empty()) return false;
  std::size_t pos = 0;
  for (;;) {
    const std::size_t slash = path.find('/', pos);
    const std::string_view c =
        path.substr(pos, slash == std::string_view::npos ? slash : slash - pos);
    if (c.empty() || c == "." || c == "..") return false;
    if (slash == std::string_view::npos) return true;
    if (single) return false;
    pos = slash + 1;
  }
}

}  // namespace

bool safeMountPath(std::string_view path) noexcept { return safeComponents(path, false); }
bool safeCollectionName(std::string_view name) noexcept { return safeComponents(name, true); }

bool mkdirs(const std::string& dir) {
  std::string cur;
  std::size_t pos = 0;
  while (pos <= dir.size()) {
    std::size_t next = dir.find('/', pos);
    if (next == std::string::npos) next = dir.size();
    cur = dir.substr(0, next);
    pos = next + 1;
    if (cur.empty()) continue;
    if (::mkdir(cur.c_str(), 0775) != 0 && errno != EEXIST) return false;
  }
  return true;
}

Mapping* mapExisting(const std::string& file, const Layout& want, Access access, bool& writerLive) {
  writerLive = false;
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat st {};
  Mapping* m = nullptr;
  if (::fstat(fd, &st) == 0 && static_cast<std::uint64_t>(st.st_size) >= 2 * kPage) {
    const auto size = static_cast<std::size_t>(st.st_size);
    void* base = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    if (base != MAP_FAILED) {
      // One copy of the header, so that a writer changing it under us cannot pass the
      // checks with one value and be used with another.
      Header h;
      std::memcpy(static_cast<void*>(&h), base, sizeof h);
      const char* problem = headerProblem(h, size, want);
      if (problem) {
        if (access == Access::Reader) {
          if (std::strcmp(problem, "record layout") == 0) {
            FLICK_TRACE(trace(), 1,
                        "{}: written with another record layout (schema {:#x}, size {}; "
                        "expected schema {:#x}, size {}), refused",
                        file, h.layout.schema, h.layout.valueSize, want.schema, want.valueSize);
          } else {
            FLICK_TRACE(trace(), 1, "{}: table header not trusted ({}), refused", file, problem);
          }
        }
        ::munmap(base, size);
      } else {
        writerLive = writerLockHeld(fd);
        m = Mapping::create(static_cast<std::byte*>(base), size, st, h);
      }
    }
  }
  ::close(fd);
  return m;
}

}  // namespace Drobe::detail
