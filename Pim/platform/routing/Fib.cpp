#include "Pim/platform/routing/Fib.h"

#include <algorithm>
#include <sstream>

namespace Routing {

namespace {
constexpr std::string_view kRefusedFecText = "FEC table full, route refused: ";
constexpr std::string_view kRefusedRouteText = "route table full, route refused: ";
constexpr std::string_view kBadLineText = "route text line not loaded: ";
}  // namespace

Flicklog::Facility& routingTrace() {
  static Flicklog::Facility& f = Flicklog::facility("Routing");
  return f;
}

std::string ribMountPath(Nimo::AddressFamily af, std::string_view vrf) {
  std::string p(af == Nimo::AddressFamily::ipv6 ? "routing6" : "routing");
  p += "/rib/";
  p += vrf;
  return p;
}

// --- FecWriterGen ------------------------------------------------------------------------

template <Nimo::AddressFamily F>
Kel::Ptr<FecWriterGen<F>> FecWriterGen<F>::create(std::string_view path, std::string_view name,
                                                  std::uint32_t maxParts,
                                                  Kel::Ptr<Kel::Clock> clock, Kel::Time grace) {
  auto t = Table::create(
      path, Drobe::CollectionInfo{std::string(name), std::min(maxParts, 4096u), 0, maxParts});
  if (!t) return nullptr;
  if (!clock) clock = Kel::Ptr<Kel::SystemClock>::make();
  return Kel::Ptr<FecWriterGen>(new FecWriterGen(std::move(t), std::move(clock), grace));
}

template <Nimo::AddressFamily F>
FecWriterGen<F>::FecWriterGen(Kel::Ptr<Table> t, Kel::Ptr<Kel::Clock> clock, Kel::Time grace)
    : table_(std::move(t)), clock_(std::move(clock)), grace_(grace) {}

template <Nimo::AddressFamily F>
std::optional<std::uint32_t> FecWriterGen<F>::acquire(std::span<const Via> vias) {
  if (vias.empty()) return 0u;
  if (vias.size() > kMaxVias) {
    ++refused_;
    FLICK_TRACE(routingTrace(), 1, "{}{} vias", kRefusedFecText, vias.size());
    return std::nullopt;
  }
  if (last_ && std::equal(vias.begin(), vias.end(), last_->vias.begin(), last_->vias.end())) {
    ++last_->refs;
    return lastId_;
  }
  key_.assign(vias.begin(), vias.end());
  if (auto it = byContent_.find(key_); it != byContent_.end()) {
    lastId_ = it->second;
    last_ = &byId_[lastId_];
    ++last_->refs;
    return lastId_;
  }
  std::vector<Via> key = key_;
  // The id comes from the content, so that a restarted writer republishing the same routes
  // gives them the same records (its readers resync without a notice per route).
  auto id = static_cast<std::uint32_t>(ViasHash()(key));
  while (id == 0 || byId_.count(id)) ++id;
  const auto count = static_cast<std::uint32_t>(vias.size());
  const std::uint32_t parts = (count + kViasPerPart - 1) / kViasPerPart;
  for (std::uint32_t p = 0; p < parts; ++p) {
    Part part;
    part.fecKey = FecKey{id, p};
    part.viaCount = count;
    for (std::uint32_t i = 0; i < kViasPerPart && p * kViasPerPart + i < count; ++i) {
      part.via[i] = vias[p * kViasPerPart + i];
    }
    if (!table_->is(part)) {
      for (std::uint32_t q = 0; q < p; ++q) table_->del(FecKey{id, q});
      ++refused_;
      FLICK_TRACE(routingTrace(), 1, "{}{} vias", kRefusedFecText, count);
      return std::nullopt;
    }
  }
  byContent_.emplace(key, id);
  lastId_ = id;
  last_ = &byId_.emplace(id, Fec{std::move(key), 1, 0}).first->second;
  return id;
}

template <Nimo::AddressFamily F>
void FecWriterGen<F>::release(std::uint32_t id) {
  auto it = byId_.find(id);
  if (it == byId_.end() || it->second.refs == 0) return;
  if (--it->second.refs == 0) {
    it->second.releasedAt = clock_->now();
    unreferenced_.push_back(id);
  }
}

template <Nimo::AddressFamily F>
void FecWriterGen<F>::erase(std::uint32_t id) {
  auto it = byId_.find(id);
  const auto parts =
      static_cast<std::uint32_t>((it->second.vias.size() + kViasPerPart - 1) / kViasPerPart);
  for (std::uint32_t p = 0; p < parts; ++p) table_->del(FecKey{id, p});
  byContent_.erase(it->second.vias);
  if (last_ == &it->second) last_ = nullptr;
  byId_.erase(it);
}

template <Nimo::AddressFamily F>
void FecWriterGen<F>::commit() {
  const Kel::Time now = clock_->now();
  std::size_t kept = 0;
  for (std::size_t i = 0; i < unreferenced_.size(); ++i) {
    const std::uint32_t id = unreferenced_[i];
    auto it = byId_.find(id);
    // Re-acquired since, or already gone: no longer a candidate.
    if (it == byId_.end() || it->second.refs != 0) continue;
    if (now - it->second.releasedAt >= grace_) {
      erase(id);
    } else {
      unreferenced_[kept++] = id;
    }
  }
  unreferenced_.resize(kept);
  table_->commit();
}

// --- RouteWriterGen ----------------------------------------------------------------------

template <Nimo::AddressFamily F>
Kel::Ptr<RouteWriterGen<F>> RouteWriterGen<F>::create(std::string_view path, std::string_view name,
                                                      Kel::Ptr<FecWriterGen<F>> fecs,
                                                      std::uint32_t maxRoutes) {
  if (!fecs) return nullptr;
  auto t = Table::create(
      path, Drobe::CollectionInfo{std::string(name), std::min(maxRoutes, 4096u), 0, maxRoutes});
  if (!t) return nullptr;
  return Kel::Ptr<RouteWriterGen>(new RouteWriterGen(std::move(t), std::move(fecs)));
}

template <Nimo::AddressFamily F>
bool RouteWriterGen<F>::routeIs(const Nimo::IpGenPrefix& prefix, RouteType type,
                                std::uint32_t metric, std::uint8_t preference,
                                std::span<const Via> vias, bool* changed) {
  if (changed) *changed = false;
  scratch_.assign(vias.begin(), vias.end());
  std::sort(scratch_.begin(), scratch_.end());
  scratch_.erase(std::unique(scratch_.begin(), scratch_.end()), scratch_.end());
  Route r;
  r.prefix = prefix.masked();
  r.metric = metric;
  r.preference = preference;
  r.routeType = type;
  const auto fec = fecs_->acquire(scratch_);
  if (!fec) {
    ++refused_;
    return false;
  }
  r.fecId = *fec;
  const std::optional<Route> old = table_->find(r.prefix);
  if (old && *old == r) {
    fecs_->release(r.fecId);  // the old record still holds it
    return true;
  }
  if (!table_->is(r)) {
    fecs_->release(r.fecId);
    ++refused_;
    FLICK_TRACE(routingTrace(), 1, "{}{}", kRefusedRouteText, r.prefix);
    return false;
  }
  if (old) fecs_->release(old->fecId);
  if (changed) *changed = true;
  return true;
}

template <Nimo::AddressFamily F>
bool RouteWriterGen<F>::routeDel(const Nimo::IpGenPrefix& prefix) {
  const Nimo::IpGenPrefix p = prefix.masked();
  const std::optional<Route> old = table_->find(p);
  if (!old) return false;
  table_->del(p);
  fecs_->release(old->fecId);
  return true;
}

template <Nimo::AddressFamily F>
void RouteWriterGen<F>::commit() {
  fecs_->commit();
  table_->commit();
}

// --- Text loader -------------------------------------------------------------------------

template <Nimo::AddressFamily F>
std::size_t loadRoutes(RouteWriterGen<F>& w, std::istream& in, std::size_t* errors) {
  std::size_t loaded = 0, bad = 0;
  std::string line;
  std::vector<ViaGen<F>> vias;
  while (std::getline(in, line)) {
    if (auto hash = line.find('#'); hash != std::string::npos) line.resize(hash);
    std::istringstream fields(line);
    std::string prefix;
    if (!(fields >> prefix)) continue;
    unsigned type = 0, metric = 0, pref = 0;
    bool ok = static_cast<bool>(fields >> type >> metric >> pref) && pref <= 255 && type <= 255;
    std::optional<Nimo::IpGenPrefix> p;
    if (ok) {
      try {
        p = Nimo::IpGenPrefix(prefix);
      } catch (const Kel::RangeError&) {
      }
      ok = p && p->af() == F;
    }
    vias.clear();
    for (std::string v; ok && fields >> v;) {
      const auto at = v.find('@');
      auto hop = Nimo::IpGenAddr::parse(v.substr(0, at));
      ok = at != std::string::npos && hop && hop->af() == F && v.size() - at - 1 <= 31;
      if (ok) vias.push_back({*hop, Nimo::IntfId(std::string_view(v).substr(at + 1))});
    }
    if (ok && w.routeIs(*p, static_cast<typename RouteWriterGen<F>::RouteType>(type), metric,
                        static_cast<std::uint8_t>(pref), vias)) {
      ++loaded;
    } else {
      ++bad;
      FLICK_TRACE(routingTrace(), 1, "{}{}", kBadLineText, line);
    }
  }
  if (errors) *errors = bad;
  return loaded;
}

template class FecWriterGen<Nimo::AddressFamily::ipv4>;
template class FecWriterGen<Nimo::AddressFamily::ipv6>;
template class RouteWriterGen<Nimo::AddressFamily::ipv4>;
template class RouteWriterGen<Nimo::AddressFamily::ipv6>;
template std::size_t loadRoutes(RouteWriterGen<Nimo::AddressFamily::ipv4>&, std::istream&,
                                std::size_t*);
template std::size_t loadRoutes(RouteWriterGen<Nimo::AddressFamily::ipv6>&, std::istream&,
                                std::size_t*);

}  // namespace Routing
