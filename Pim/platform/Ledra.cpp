// Ledra: in-process entity manager.
#include "Pim/platform/Ledra.h"

namespace Ledra {

std::string EntityManager::normalised(std::string_view path) {
  std::string out;
  out.reserve(path.size());
  for (char c : path) {
    if (c == '/' && (out.empty() || out.back() == '/')) continue;
    out += c;
  }
  if (!out.empty() && out.back() == '/') out.pop_back();
  return out;
}

bool EntityManager::mount(std::string_view path, Kel::Ptr<Kel::Entity> entity) {
  std::string p = normalised(path);
  if (p.empty() || !entity) return false;
  return mounts_.emplace(std::move(p), std::move(entity)).second;
}

bool EntityManager::unmount(std::string_view path) {
  auto it = mounts_.find(normalised(path));
  if (it == mounts_.end()) return false;
  // Release after the erase: the entity's destructor may call back into the manager.
  Kel::Ptr<Kel::Entity> keep = std::move(it->second);
  mounts_.erase(it);
  return true;
}

Kel::Ptr<Kel::Entity> EntityManager::entity(std::string_view path) const {
  auto it = mounts_.find(normalised(path));
  return it == mounts_.end() ? nullptr : it->second;
}

std::vector<std::string> EntityManager::paths(std::string_view prefix) const {
  const std::string p = normalised(prefix);
  std::vector<std::string> out;
  for (auto it = mounts_.lower_bound(p); it != mounts_.end(); ++it) {
    const std::string& k = it->first;
    if (k.compare(0, p.size(), p) != 0) break;
    // "a/b" is under "a" but "ab" is not.
    if (p.empty() || k.size() == p.size() || k[p.size()] == '/') out.push_back(k);
  }
  return out;
}

}  // namespace Ledra
