#include "Pim/platform/routing/Nexthop.h"

#include <sys/stat.h>
#include <unistd.h>

namespace Routing {

namespace {

std::string_view rootOf(Nimo::AddressFamily af) {
  return af == Nimo::AddressFamily::ipv6 ? FamilyTraits<Nimo::AddressFamily::ipv6>::kRoot
                                         : FamilyTraits<Nimo::AddressFamily::ipv4>::kRoot;
}

Nimo::IpGenPrefix hostPrefix(const Nimo::IpGenAddr& a) {
  return Nimo::IpGenPrefix(a, static_cast<std::uint8_t>(a.byteLength() * 8));
}

constexpr NexthopMarkKey kMarkKey{0};

}  // namespace

std::string nexthopStatusPath(Nimo::AddressFamily af, std::string_view vrf, std::string_view rib) {
  return fmt::format("{}/nexthop/{}/{}", rootOf(af), vrf, rib);
}

std::string nexthopConfigPath(Nimo::AddressFamily af, std::string_view vrf, std::string_view rib) {
  return nexthopStatusPath(af, vrf, rib) + "/client";
}

// ---------------------------------------------------------------------------------------
// NexthopVrfConfig

Kel::Ptr<NexthopVrfConfig> NexthopVrfConfig::create(Ulm::EventLoop& loop, Nimo::AddressFamily af,
                                                    std::string_view vrf, std::string_view rib,
                                                    std::string_view client,
                                                    std::uint32_t capacity) {
  auto t = Table::create(nexthopConfigPath(af, vrf, rib),
                         Drobe::CollectionInfo{std::string(client), capacity, capacity, 0});
  if (!t) return nullptr;
  return Kel::Ptr<NexthopVrfConfig>(new NexthopVrfConfig(loop, af, std::move(t)));
}

NexthopVrfConfig::NexthopVrfConfig(Ulm::EventLoop& loop, Nimo::AddressFamily af, Kel::Ptr<Table> t)
    : af_(af), table_(std::move(t)), commitTimer_(loop.timers(), [this] { commit(); }) {
  table_->commit();  // the routing agent sees an empty client at once
}

bool NexthopVrfConfig::nexthopIs(const Nimo::IpGenAddr& a) {
  if (a.af() != af_) return false;
  if (table_->find(a)) return true;
  if (!table_->is(NexthopConfigEntry{a})) return false;
  if (!commitTimer_.armed()) commitTimer_.delayIs(0);
  notifiees_.forEach([&](NotifieeConst& n) { n.onNexthop(a); });
  return true;
}

void NexthopVrfConfig::nexthopDel(const Nimo::IpGenAddr& a) {
  if (!table_->del(a)) return;
  if (!commitTimer_.armed()) commitTimer_.delayIs(0);
  notifiees_.forEach([&](NotifieeConst& n) { n.onNexthop(a); });
}

void NexthopVrfConfig::commit() {
  commitTimer_.cancel();
  table_->commit();
}

// ---------------------------------------------------------------------------------------
// NexthopVrfStatus

Kel::Ptr<NexthopVrfStatus> NexthopVrfStatus::create(Ulm::EventLoop& loop, Nimo::AddressFamily af,
                                                    std::string_view vrf, std::string_view rib) {
  return Kel::Ptr<NexthopVrfStatus>(
      new NexthopVrfStatus(loop, af, nexthopStatusPath(af, vrf, rib)));
}

NexthopVrfStatus::NexthopVrfStatus(Ulm::EventLoop& loop, Nimo::AddressFamily af,
                                   const std::string& path)
    : af_(af),
      status_(NexthopStatusTable::create(loop, path, "status")),
      mark_(NexthopMarkTable::create(loop, path, "mark")) {
  statusReactor_.owner = this;
  markReactor_.owner = this;
  statusReactor_.notifierIs(status_);
  markReactor_.notifierIs(mark_);
}

NexthopVrfStatus::~NexthopVrfStatus() {
  statusReactor_.notifierIs(nullptr);
  markReactor_.notifierIs(nullptr);
}

void NexthopVrfStatus::handleEntry(const Nimo::IpGenAddr& a) {
  if (!synced_) return;
  notifiees_.forEach([&](NotifieeConst& n) { n.onEntry(a); });
}

void NexthopVrfStatus::handleEntryAll() {
  if (!synced_) return;
  notifiees_.forEach([](NotifieeConst& n) { n.onEntryAll(); });
}

void NexthopVrfStatus::handleMark() {
  // The status table of a new writer may mount before or after its mark: synced needs both,
  // and the mark of the writer that is mounted now.
  const auto m = mark_->find(kMarkKey);
  const bool s = status_->mounted() && m && m->synced == 1;
  if (s == synced_) return;
  synced_ = s;
  notifiees_.forEach([&](NotifieeConst& n) { n.onSynced(s); });
}

// ---------------------------------------------------------------------------------------
// NexthopVrfStatusWriter

Kel::Ptr<NexthopVrfStatusWriter> NexthopVrfStatusWriter::create(Nimo::AddressFamily af,
                                                                std::string_view vrf,
                                                                std::string_view rib,
                                                                std::uint32_t capacity) {
  const std::string path = nexthopStatusPath(af, vrf, rib);
  // The mark first: a reader that finds the new status table also finds synced 0.
  auto m = Mark::create(path, Drobe::CollectionInfo{"mark", 1, 0, 0});
  if (!m) return nullptr;
  m->is(NexthopStatusMark{kMarkKey, 0});
  m->commit();
  auto s = Status::create(path, Drobe::CollectionInfo{"status", capacity, 0, capacity * 4});
  if (!s) return nullptr;
  return Kel::Ptr<NexthopVrfStatusWriter>(
      new NexthopVrfStatusWriter(af, std::move(s), std::move(m)));
}

bool NexthopVrfStatusWriter::entryIs(const NexthopStatusEntry& e) {
  bool changed = false;
  status_->is(e, changed);
  return changed;
}

void NexthopVrfStatusWriter::syncedIs(bool s) {
  synced_ = s;
  mark_->is(NexthopStatusMark{kMarkKey, s ? 1u : 0u});
}

void NexthopVrfStatusWriter::commit() {
  status_->commit();
  mark_->commit();
}

std::uint64_t NexthopVrfStatusWriter::sharedBytes() const {
  struct stat st {};
  if (::stat(status_->file().c_str(), &st) != 0) return 0;
  return static_cast<std::uint64_t>(st.st_blocks) * 512u;
}

// ---------------------------------------------------------------------------------------
// NexthopBacklog

Kel::Ptr<NexthopBacklog> NexthopBacklog::create(Kel::Ptr<NexthopVrfStatus> status,
                                                Kel::Ptr<NexthopVrfConfig> config) {
  return Kel::Ptr<NexthopBacklog>(new NexthopBacklog(std::move(status), std::move(config)));
}

NexthopBacklog::NexthopBacklog(Kel::Ptr<NexthopVrfStatus> status, Kel::Ptr<NexthopVrfConfig> config)
    : status_(std::move(status)), config_(std::move(config)) {
  statusReactor_.owner = this;
  configReactor_.owner = this;
  statusReactor_.notifierIs(status_);
  configReactor_.notifierIs(config_);
}

NexthopBacklog::~NexthopBacklog() {
  statusReactor_.notifierIs(nullptr);
  configReactor_.notifierIs(nullptr);
}

void NexthopBacklog::backlogAdd(const Nimo::IpGenAddr& a) {
  if (!config_->nexthop(a)) return;  // only registered addresses, ever
  if (!pending_.emplace(a, nextTicket_).second) return;
  order_.emplace_back(nextTicket_++, a);
  notifiees_.forEach([](NotifieeConst& n) { n.onBacklog(); });
}

void NexthopBacklog::backlogAddAll() {
  const std::size_t before = pending_.size();
  config_->forEach([&](const Nimo::IpGenAddr& a) {
    if (pending_.emplace(a, nextTicket_).second) order_.emplace_back(nextTicket_++, a);
  });
  if (pending_.size() != before) notifiees_.forEach([](NotifieeConst& n) { n.onBacklog(); });
}

std::optional<Nimo::IpGenAddr> NexthopBacklog::backlogFront() {
  while (!order_.empty()) {
    const auto& [ticket, a] = order_.front();
    auto it = pending_.find(a);
    if (it != pending_.end() && it->second == ticket) return a;
    order_.pop_front();  // deleted, or re-added later under a newer ticket
  }
  return std::nullopt;
}

void NexthopBacklog::backlogDel(const Nimo::IpGenAddr& a) {
  if (pending_.erase(a) == 0) return;
  if (pending_.empty()) {
    order_.clear();
  } else if (order_.size() > 2 * pending_.size() + 64) {
    // Deletions out of order leave stale tickets behind: drop them so memory stays flat.
    std::erase_if(order_, [&](const auto& o) {
      auto it = pending_.find(o.second);
      return it == pending_.end() || it->second != o.first;
    });
  }
}

std::size_t NexthopBacklog::memoryBytes() const noexcept {
  return pending_.bucket_count() * sizeof(void*) +
         pending_.size() * (sizeof(Nimo::IpGenAddr) + sizeof(std::uint64_t) + 2 * sizeof(void*)) +
         order_.size() * sizeof(order_.front());
}

// ---------------------------------------------------------------------------------------
// NexthopResolverGen

template <Nimo::AddressFamily F>
Kel::Ptr<NexthopResolverGen<F>> NexthopResolverGen<F>::create(
    Ulm::TimerWheel& timers, Kel::Ptr<RouteTrie> routes, Kel::Ptr<NexthopVrfStatusWriter> out) {
  return Kel::Ptr<NexthopResolverGen>(
      new NexthopResolverGen(timers, std::move(routes), std::move(out)));
}

template <Nimo::AddressFamily F>
NexthopResolverGen<F>::NexthopResolverGen(Ulm::TimerWheel& timers, Kel::Ptr<RouteTrie> routes,
                                          Kel::Ptr<NexthopVrfStatusWriter> out)
    : routes_(std::move(routes)),
      out_(std::move(out)),
      tracked_("nexthop", F),
      commitTimer_(timers, [this] { commit(); }) {
  reactor_.owner = this;
  reactor_.notifierIs(routes_);
}

template <Nimo::AddressFamily F>
NexthopResolverGen<F>::~NexthopResolverGen() {
  reactor_.notifierIs(nullptr);
  for (auto& [name, c] : clients_) c->notifierIs(nullptr);
}

template <Nimo::AddressFamily F>
void NexthopResolverGen<F>::resolve(const Nimo::IpGenAddr& a) {
  ++resolutions_;
  NexthopStatusEntry e;
  e.addr = a;
  if (const auto* r = routes_->longestMatch(a)) {
    e.prefix = r->prefix;
    e.fecId = r->payload.fecId;
    e.metric = r->payload.metric;
    e.preference = r->payload.preference;
    e.routeType = static_cast<std::uint8_t>(r->payload.routeType);
  }
  if (out_->entryIs(e)) schedule();
}

template <Nimo::AddressFamily F>
void NexthopResolverGen<F>::trackIs(const Nimo::IpGenAddr& a) {
  if (a.af() != F) return;
  const auto p = hostPrefix(a);
  const auto* e = tracked_.find(p);
  tracked_.insert(p, e ? e->payload + 1 : 1u);
  if (!e) resolve(a);
}

template <Nimo::AddressFamily F>
void NexthopResolverGen<F>::trackDel(const Nimo::IpGenAddr& a) {
  if (a.af() != F) return;
  const auto p = hostPrefix(a);
  const auto* e = tracked_.find(p);
  if (!e) return;
  if (e->payload > 1) {
    tracked_.insert(p, e->payload - 1);
    return;
  }
  tracked_.remove(p);
  out_->entryDel(a);
  schedule();
}

template <Nimo::AddressFamily F>
void NexthopResolverGen<F>::handleRoute(const Nimo::IpGenPrefix& p) {
  resolveUnder(&p);
}

template <Nimo::AddressFamily F>
void NexthopResolverGen<F>::resolveUnder(const Nimo::IpGenPrefix* p) {
  // Collected first, then resolved with the status slot of an address a few places ahead
  // already on its way: the walk goes in address order, the slots lie in hash order.
  constexpr std::size_t kAhead = 8;
  batch_.clear();
  auto collect = [&](const auto& e) {
    batch_.push_back(e.prefix.address());
    return true;
  };
  if (p) {
    tracked_.preOrderWalk(*p, collect);
  } else {
    tracked_.preOrderWalk(collect);
  }
  for (std::size_t i = 0; i < batch_.size(); ++i) {
    if (i + kAhead < batch_.size()) out_->prefetch(batch_[i + kAhead]);
    resolve(batch_[i]);
  }
}

template <Nimo::AddressFamily F>
void NexthopResolverGen<F>::resolveAll() {
  resolveUnder(nullptr);
  routesLoaded_ = true;
  markIfReady();
  commit();
}

template <Nimo::AddressFamily F>
void NexthopResolverGen<F>::markIfReady() {
  if (out_->synced() || !routesLoaded_) return;
  for (const auto& [name, c] : clients_)
    if (!c->loaded) return;
  out_->syncedIs(true);
  schedule();
}

template <Nimo::AddressFamily F>
void NexthopResolverGen<F>::schedule() {
  if (!commitTimer_.armed()) commitTimer_.delayIs(0);
}

template <Nimo::AddressFamily F>
void NexthopResolverGen<F>::commit() {
  commitTimer_.cancel();
  out_->commit();
}

template <Nimo::AddressFamily F>
void NexthopResolverGen<F>::clientIs(Ulm::EventLoop& loop, std::string_view vrf,
                                     std::string_view rib, std::string_view name) {
  if (client(name)) return;
  auto c = std::make_unique<Client>();
  c->owner = this;
  const std::string path = nexthopConfigPath(F, vrf, rib);
  // A client without a table yet is known to track nothing: it must not hold the mark back.
  c->loaded = ::access(Drobe::collectionFile(path, name).c_str(), F_OK) != 0;
  c->table = NexthopConfigTable::create(loop, path, name);
  c->notifierIs(c->table);
  clients_.emplace(std::string(name), std::move(c));
}

template <Nimo::AddressFamily F>
void NexthopResolverGen<F>::Client::onKey(const Nimo::IpGenAddr& a) {
  const bool now = table->find(a).has_value();
  if (now == (addrs.count(a) != 0)) return;
  if (now) {
    addrs.insert(a);
    owner->trackIs(a);
  } else {
    addrs.erase(a);
    owner->trackDel(a);
  }
}

template <Nimo::AddressFamily F>
void NexthopResolverGen<F>::Client::onCollection() {
  // Resync by difference: a restarted client is re-learnt, what it dropped is forgotten.
  std::unordered_set<Nimo::IpGenAddr, AddrHash> now;
  for (const NexthopConfigEntry& e : *table) now.insert(e.addr);
  for (auto it = addrs.begin(); it != addrs.end();) {
    if (now.count(*it)) {
      ++it;
      continue;
    }
    owner->trackDel(*it);
    it = addrs.erase(it);
  }
  for (const auto& a : now)
    if (addrs.insert(a).second) owner->trackIs(a);
  loaded = true;
  owner->markIfReady();
}

template <Nimo::AddressFamily F>
void NexthopResolverGen<F>::Client::onMountStatus(bool mounted) {
  if (mounted) return;  // the onCollection that follows does the work
  for (const auto& a : addrs) owner->trackDel(a);
  addrs.clear();
  loaded = true;  // a retired client is known: it tracks nothing
  owner->markIfReady();
}

template class NexthopResolverGen<Nimo::AddressFamily::ipv4>;
template class NexthopResolverGen<Nimo::AddressFamily::ipv6>;

}  // namespace Routing
