// RouteKeyReview, UnresolvedSets, publishRpfChange and TargetIndex: the pending set with its
// sliced review, the unresolved sets, and the index of route keys by the address they need.
#include "Pim/RpfReview.h"

#include <algorithm>

namespace Routing::Pim {

RouteKeyReview::RouteKeyReview(Ulm::TimerWheel& wheel, Kel::Ptr<const Kel::Clock> clock,
                               Flicklog::Facility& trace, ReviewTexts texts, Publish publish)
    : trace_(trace),
      texts_(texts),
      publish_(std::move(publish)),
      deadlineClock_(Kel::Ptr<Kel::SystemClock>::make()),
      timer_(wheel, std::move(clock), kReviewFillInterval, kReviewCredits, kReviewMinDelay,
             kReviewMaxDelay, [this] { doReview(); }) {}

void RouteKeyReview::mark(const RouteKey& k) {
  insert(k);
  timer_.request();
}

void RouteKeyReview::mark(std::vector<RouteKey>& keys) {
  if (keys.empty()) return;
  std::sort(keys.begin(), keys.end());
  for (const RouteKey& k : keys) insert(k);
  timer_.request();
}

void RouteKeyReview::clear() {
  pending_.clear();
  removed();
  bookmark_.reset();
  timer_.cancel();
}

void RouteKeyReview::doReview() {
  if (pending_.empty()) {
    bookmark_.reset();
    return;
  }
  FLICK_TRACE(trace_, 4, "{}{}", texts_.machine, texts_.starting);
  ++stats_.runs;
  const Kel::Time start = deadlineClock_->now();
  const Kel::Time deadline = start + quantum_;
  Kel::Time last = start;
  std::uint64_t done = 0;
  auto it = bookmark_ ? pending_.lower_bound(*bookmark_) : pending_.begin();
  while (it != pending_.end()) {
    if (done > 0 && (last = deadlineClock_->now()) >= deadline) break;
    const RouteKey k = *it;
    const auto next = pending_.erase(it);
    removed();
    const std::uint64_t changes = changes_;
    publish_(k);
    ++done;
    // A publication that marked or unmarked keys may have put one before the next or taken
    // the next away: look it up afresh then.
    it = changes_ == changes ? next : pending_.upper_bound(k);
  }
  stats_.published += done;
  if (it != pending_.end()) {
    stats_.longestSlice = std::max(stats_.longestSlice, last - start);
    bookmark_ = *it;
    FLICK_TRACE(trace_, 4, "{}{}{} published, {} pending", texts_.machine, texts_.suspending, done,
                pending_.size());
    timer_.request();
    return;
  }
  stats_.longestSlice = std::max(stats_.longestSlice, deadlineClock_->now() - start);
  bookmark_.reset();
  FLICK_TRACE(trace_, 4, "{}{}", texts_.machine, texts_.finished);
  // Keys marked behind the bookmark while the review was suspended.
  if (!pending_.empty()) timer_.request();
}

namespace {
std::string_view collName(const RouteKey& k) {
  return k.isStarG() ? "unresolvedWcRoute" : "unresolvedRoute";
}
std::string_view kindName(const RouteKey& k) { return k.isStarG() ? "(*,G) routes" : "routes"; }
}  // namespace

void UnresolvedSets::add(const RouteKey& k, const Nimo::IpGenAddr& target) {
  FLICK_TRACE(trace_, 4, "{}: RPF changed, adding {} to unresolved {}", machine_, fmt::streamed(k),
              kindName(k));
  FLICK_TRACE(trace_, 4, " Adding to {} key {}", collName(k), fmt::streamed(k));
  if (k.isStarG()) {
    status_->unresolvedWcRouteIs(k, target);
  } else {
    status_->unresolvedRouteIs(k, target);
  }
}

void UnresolvedSets::resolved(const RouteKey& k) {
  FLICK_TRACE(trace_, 4, "{}: RPF changed, removing {} from unresolved {}", machine_,
              fmt::streamed(k), kindName(k));
  del(k);
}

void UnresolvedSets::deleted(const RouteKey& k) {
  FLICK_TRACE(trace_, 4, "{}: Route deleted, deleting from {} {}", machine_, collName(k),
              fmt::streamed(k));
  del(k);
}

void UnresolvedSets::del(const RouteKey& k) {
  FLICK_TRACE(trace_, 4, "{}: Deleting from {} key {}", machine_, collName(k), fmt::streamed(k));
  if (k.isStarG()) {
    status_->unresolvedWcRouteDel(k);
  } else {
    status_->unresolvedRouteDel(k);
  }
}

bool UnresolvedSets::has(const RouteKey& k) const {
  const auto& coll = k.isStarG() ? status_->unresolvedWcRoute() : status_->unresolvedRoute();
  return coll.count(k) != 0;
}

Nimo::IpGenAddr rpfTarget(const RouteKey& k, const Rpf& rpf) {
  if (rpf.target.isSet()) return rpf.target;
  if (!k.isStarG()) return k.source();
  return rpf.prefix.address();
}

bool publishRpfChange(const RpfConfig& config, RpfStatus& status, const RouteKey& k,
                      Flicklog::Facility& trace, std::string_view machine) {
  if (!config.rpfConfigInfo(k)) {
    FLICK_TRACE(trace, 4, "{}: {} has been deleted", machine, fmt::streamed(k));
    return false;
  }
  publishRpfChange(status, k);
  return true;
}

void TargetIndex::keyIs(const RouteKey& k, const Nimo::IpGenAddr& addr) {
  auto it = addr_.find(k);
  if (it != addr_.end()) {
    if (it->second == addr) return;
    keyDel(k);
  }
  if (!addr.isSet() || addr.af() != trie_.af()) return;
  addr_.emplace(k, addr);
  if (users_[addr]++ == 0) trie_.insert(hostOf(addr), 1);
  peak_ = std::max(peak_, users_.size());
}

void TargetIndex::keyDel(const RouteKey& k) {
  auto it = addr_.find(k);
  if (it == addr_.end()) return;
  const Nimo::IpGenAddr a = it->second;
  addr_.erase(it);
  auto u = users_.find(a);
  if (--u->second == 0) {
    users_.erase(u);
    trie_.remove(hostOf(a));
    if (peak_ > 1024 && users_.size() * 4 < peak_) compact();
  }
}

void TargetIndex::compact() {
  trie_.clear();
  for (const auto& [a, n] : users_) trie_.insert(hostOf(a), 1);
  users_.rehash(0);
  addr_.rehash(0);
  peak_ = users_.size();
}

void TargetIndex::clear() {
  trie_.clear();
  users_.clear();
  addr_.clear();
  peak_ = 0;
}

std::string TargetIndex::checkForTest() const {
  if (trie_.size() != users_.size()) return "trie and users differ in size";
  std::unordered_map<Nimo::IpGenAddr, std::uint32_t, AddrHash> count;
  for (const auto& [k, a] : addr_) ++count[a];
  if (count != users_) return "user counts differ from the keys";
  for (const auto& [a, n] : users_)
    if (!trie_.find(hostOf(a))) return "target missing from the trie: " + a.str();
  return "";
}

std::size_t TargetIndex::memoryBytes() const noexcept {
  // Hash nodes: the value, a next pointer and the cached hash; buckets one pointer each.
  constexpr std::size_t kNode = 2 * sizeof(void*);
  return trie_.memoryBytes() +
         users_.size() * (sizeof(Nimo::IpGenAddr) + sizeof(std::uint32_t) + kNode) +
         users_.bucket_count() * sizeof(void*) +
         addr_.size() * (sizeof(RouteKey) + sizeof(Nimo::IpGenAddr) + kNode) +
         addr_.bucket_count() * sizeof(void*);
}

}  // namespace Routing::Pim
