// Ledra: the state database's entity manager: named Kel::Entity objects mounted by path
// in-process, so that the parts of an agent find the configuration and status entities
// they work on by name ("routing/pim/status/default").
//
// Paths are normalised (no leading, trailing or doubled '/'); one entity per path; the
// manager holds a reference to each mounted entity until it is unmounted. lookup<T>()
// checks the type: an entity mounted under the path but of another type is not returned.
// Paths are not a tree: mounting "a/b" does not need or create "a".
//
// Threading: event-loop thread only; no locks.
//
// Usage:
//   Ledra::EntityManager em;
//   auto status = Kel::Ptr<Status>::make("default");
//   em.mount("routing/pim/status/default", status);        // false if the path is taken
//   Kel::Ptr<Status> s = em.lookup<Status>("routing/pim/status/default");
//   em.unmount("routing/pim/status/default");
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Pim/platform/Kel.h"

namespace Ledra {

class EntityManager : public Kel::PtrInterface {
 public:
  // Mounts entity at path; false (and nothing changes) if the path is taken, empty, or
  // the entity is null.
  bool mount(std::string_view path, Kel::Ptr<Kel::Entity> entity);
  // Unmounts path; false if nothing was mounted there.
  bool unmount(std::string_view path);
  Kel::Ptr<Kel::Entity> entity(std::string_view path) const;
  template <typename T>
  Kel::Ptr<T> lookup(std::string_view path) const {
    return Kel::ptr_cast<T>(entity(path));
  }
  bool mounted(std::string_view path) const { return entity(path) != nullptr; }
  // Mounted paths under prefix (a whole path component prefix), sorted.
  std::vector<std::string> paths(std::string_view prefix = {}) const;
  std::size_t size() const noexcept { return mounts_.size(); }

  static std::string normalised(std::string_view path);

 private:
  std::map<std::string, Kel::Ptr<Kel::Entity>, std::less<>> mounts_;
};

}  // namespace Ledra
