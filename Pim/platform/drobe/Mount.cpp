// Drobe mounting: which paths a table may be mounted at.

#include "Pim/platform/drobe/Mount.h"

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

}  // namespace Drobe::detail
