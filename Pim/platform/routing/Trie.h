// Routing::TrieGen: a prefix table with longest-prefix match, for IPv4 or IPv6 (chosen at
// construction), each prefix carrying a payload (the RPF trie stores the route record
// itself, so a match leads straight to it).
//
// Structure: a multibit trie of stride 8 with prefix expansion. A node covers one address
// byte and has 256 slots; a prefix of length L lives in the node at depth (L-1)/8 (the root
// for /0), expanded over the 2^(8(d+1)-L) slots it covers, a slot keeping the longest prefix
// of that node that covers it. A slot that also has a child node keeps its prefix in the
// child's header, so a slot is one 32-bit word. A lookup reads one word per address byte
// until a slot without a child: at most 4 dependent reads for IPv4, 16 for IPv6 (6 for a
// /48). Beside it an open-addressing index (prefix -> entry) serves exact find, and the
// entry array holds prefix and payload.
//
// Costs. A node is 1 KB. IPv4 tables of Internet shape keep one node per /16 that has longer
// prefixes and one per /24 that has /25-/32s: about 75-100 bytes per route at a million
// routes, plus the entry (prefix and payload) and 8 bytes of index. A change rewrites at most
// the 128 slots of one node (a /0 or /8 change costs no more than a /24 one, never the
// table), plus up to 7 index probes on delete for the next shorter prefix of that node.
// IPv6 pays one node per distinct 8-bit step on the way to each prefix: sparse /48s cost a
// few KB each.
//
// Notices: onChangedRoute(prefix, change) after the trie reflects each net change (added,
// updated payload, deleted), exactly one per change; none while quiet (bulk loads), which
// end with one onChangedAll().
//
// Threading: event-loop thread only; no locks.
//
// Usage:
//   Routing::TrieGen<int> t("rpf", Nimo::AddressFamily::ipv4);
//   t.insert(Nimo::IpGenPrefix("10.0.0.0/8"), 1);
//   t.insert(Nimo::IpGenPrefix("10.1.0.0/16"), 2);
//   t.longestMatch(Nimo::IpGenAddr("10.1.2.3"))->payload;            // 2
//   t.findParent(Nimo::IpGenPrefix("10.1.0.0/16"))->prefix;          // 10.0.0.0/8
//   t.preOrderWalk([](const auto& e) { return e.prefix.maskLen() < 16; });
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"

namespace Routing {

enum class TrieChange : std::uint8_t { added, updated, deleted };

// A growable array in fixed chunks: growth never moves what is there, so a big table grows
// without a long copy inside one event-loop callback, and holds at most one spare chunk.
template <typename T, std::uint32_t kChunkBits>
class ChunkVec {
 public:
  static constexpr std::uint32_t kChunk = 1u << kChunkBits;
  T& operator[](std::uint32_t i) noexcept { return chunks_[i >> kChunkBits][i & (kChunk - 1)]; }
  const T& operator[](std::uint32_t i) const noexcept {
    return chunks_[i >> kChunkBits][i & (kChunk - 1)];
  }
  std::uint32_t size() const noexcept { return size_; }
  std::size_t capacity() const noexcept { return chunks_.size() * std::size_t{kChunk}; }
  void push_back(const T& v) {
    if (size_ == capacity()) chunks_.emplace_back(new T[kChunk]());
    (*this)[size_++] = v;
  }
  void clear() {
    chunks_.clear();
    size_ = 0;
  }

 private:
  std::vector<std::unique_ptr<T[]>> chunks_;
  std::uint32_t size_ = 0;
};

template <typename Payload>
class TrieGen : public Kel::Entity {
 public:
  struct Entry {
    Nimo::IpGenPrefix prefix;
    Payload payload;
  };
  class NotifieeConst : public Kel::BaseNotifiee<TrieGen, NotifieeConst> {
   public:
    virtual void onChangedRoute(const Nimo::IpGenPrefix&, TrieChange) {}
    virtual void onChangedAll() {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  TrieGen(Kel::Name name, Nimo::AddressFamily af);

  Nimo::AddressFamily af() const noexcept { return af_; }
  std::size_t size() const noexcept { return live_; }
  // Bytes held by nodes, entries and index.
  std::size_t memoryBytes() const noexcept;

  // Inserts or updates (the prefix is masked). The change made, or nullopt when the prefix
  // was present with an equal payload, or is of the other family.
  // *id (when given) receives the entry's id.
  std::optional<TrieChange> insert(const Nimo::IpGenPrefix& prefix, const Payload& payload,
                                   std::uint32_t* id = nullptr);
  bool remove(const Nimo::IpGenPrefix& prefix);
  void clear();

  const Entry* find(const Nimo::IpGenPrefix& prefix) const;
  const Entry* longestMatch(const Nimo::IpGenAddr& addr) const;
  // The longest entry that covers prefix (itself included).
  const Entry* longestMatch(const Nimo::IpGenPrefix& prefix) const;
  // The nearest strictly shorter entry that covers prefix.
  const Entry* findParent(const Nimo::IpGenPrefix& prefix) const;
  // prefix itself, or any longer entry under it, is present.
  bool longerRoutePresent(const Nimo::IpGenPrefix& prefix) const;
  // Entries in pre-order (address, then shorter first); fn(const Entry&) returns whether to
  // descend below that entry. The second form visits only entries inside `under`.
  template <typename Fn>
  void preOrderWalk(Fn&& fn) const {
    walkNode(0, 0, 0, 256, fn);
  }
  template <typename Fn>
  void preOrderWalk(const Nimo::IpGenPrefix& under, Fn&& fn) const;

  // Quiet mode: no per-prefix notices; leaving it sends one onChangedAll().
  void quietIs(bool q);
  bool quiet() const noexcept { return quiet_; }

  // Entry ids are stable while the prefix is present, below entryIdEnd().
  std::uint32_t entryIdEnd() const noexcept { return static_cast<std::uint32_t>(entries_.size()); }
  // The entry of that id, or null if free.
  const Entry* entry(std::uint32_t id) const noexcept {
    return id < entries_.size() && used_[id] ? &entries_[id] : nullptr;
  }

 private:
  static constexpr std::uint32_t kChild = 0x80000000u;
  struct Node {
    std::uint32_t slot[256];
    std::uint32_t inherit;      // the parent slot's prefix (entry id + 1), 0 for none
    std::uint64_t occupied[4];  // non-zero slots: a walk visits only these
  };
  static std::uint32_t depthOf(std::uint8_t len) noexcept { return len == 0 ? 0 : (len - 1u) / 8; }
  std::uint32_t leafOf(std::uint32_t n, std::uint32_t s) const noexcept {
    const std::uint32_t e = nodes_[n].slot[s];
    return (e & kChild) ? nodes_[e & ~kChild].inherit : e;
  }
  // Every slot write goes through here, so that the occupancy bits stay exact.
  void slotIs(std::uint32_t n, std::uint32_t s, std::uint32_t v) noexcept {
    Node& x = nodes_[n];
    x.slot[s] = v;
    const std::uint64_t bit = std::uint64_t{1} << (s & 63);
    x.occupied[s >> 6] = v ? (x.occupied[s >> 6] | bit) : (x.occupied[s >> 6] & ~bit);
  }
  bool nodeEmpty(std::uint32_t n) const noexcept {
    const Node& x = nodes_[n];
    return (x.occupied[0] | x.occupied[1] | x.occupied[2] | x.occupied[3]) == 0;
  }
  void setLeaf(std::uint32_t n, std::uint32_t s, std::uint32_t v) noexcept;
  std::uint32_t allocNode(std::uint32_t inherit);
  // The node that holds masked prefix p (or would), ~0u when its path stops above it.
  std::uint32_t nodeOf(const Nimo::IpGenPrefix& p) const noexcept {
    const std::uint8_t* b = p.address().bytes();
    std::uint32_t n = 0;
    for (std::uint32_t k = 0, d = depthOf(p.maskLen()); k < d; ++k) {
      const std::uint32_t e = nodes_[n].slot[b[k]];
      if (!(e & kChild)) return ~0u;
      n = e & ~kChild;
    }
    return n;
  }
  std::uint8_t lenOf(std::uint32_t v) const noexcept { return entries_[v - 1].prefix.maskLen(); }
  // The slot range of a prefix in its node.
  static void spanOf(const Nimo::IpGenPrefix& p, std::uint32_t& base, std::uint32_t& span);
  std::uint32_t indexFind(const Nimo::IpGenPrefix& p) const noexcept;  // slot or ~0
  void indexInsert(std::uint32_t id);
  void indexErase(std::uint32_t slot);
  const Entry* coverWalk(const Nimo::IpGenPrefix& p, int maxLen) const;
  // The longest entry (id + 1, or 0) for p's address with a length in [lo, hi]; lengths
  // that hold no entry at all cost nothing (a table of host routes probes none).
  std::uint32_t probeDown(const Nimo::IpGenPrefix& p, int hi, int lo) const noexcept {
    for (int l = hi; l >= lo; --l) {
      if (lenCount_[l] == 0) continue;
      const std::uint32_t r =
          indexFind(Nimo::IpGenPrefix(p.address(), static_cast<std::uint8_t>(l)).masked());
      if (r != ~0u) return index_[r];
    }
    return 0;
  }
  void notify(const Nimo::IpGenPrefix& p, TrieChange c) {
    if (!quiet_) notifiees_.forEach([&](NotifieeConst& n) { n.onChangedRoute(p, c); });
  }
  template <typename Fn>
  void walkNode(std::uint32_t n, std::uint32_t depth, std::uint32_t lo, std::uint32_t hi,
                Fn& fn) const;
  // A walk's per-node lists, kept across nodes and walks; one set per nesting level, since a
  // handler may walk again.
  struct WalkItem {
    std::uint32_t byte;
    std::uint32_t len;
    std::uint32_t ref;  // entry id + 1, or node | kChild
  };
  struct WalkBuf {
    std::vector<WalkItem> items;
    std::vector<std::uint32_t> seen;
  };
  mutable std::vector<std::unique_ptr<WalkBuf>> walkBufs_;
  mutable std::uint32_t walkLevel_ = 0;

  Nimo::AddressFamily af_;
  std::uint32_t levels_;
  ChunkVec<Node, 6> nodes_;
  std::vector<std::uint32_t> freeNodes_;
  ChunkVec<Entry, 10> entries_;
  std::vector<std::uint8_t> used_;
  std::vector<std::uint32_t> freeEntries_;
  std::vector<std::uint32_t> index_;  // entry id + 1, 0 empty; size a power of two
  std::size_t live_ = 0;
  std::uint32_t lenCount_[129] = {};  // entries per prefix length
  bool quiet_ = false;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

// --- Implementation ----------------------------------------------------------------------

template <typename P>
TrieGen<P>::TrieGen(Kel::Name name, Nimo::AddressFamily af)
    : Kel::Entity(std::move(name)), af_(af), levels_(Nimo::addressBytes(af)) {
  KEL_ASSERT(levels_ != 0 && "TrieGen of an unknown address family");
  clear();
}

template <typename P>
void TrieGen<P>::clear() {
  nodes_.clear();
  nodes_.push_back(Node{});
  freeNodes_.clear();
  entries_.clear();
  used_.clear();
  freeEntries_.clear();
  index_.assign(64, 0);
  live_ = 0;
  std::fill(std::begin(lenCount_), std::end(lenCount_), 0u);
}

template <typename P>
std::size_t TrieGen<P>::memoryBytes() const noexcept {
  return nodes_.capacity() * sizeof(Node) + entries_.capacity() * sizeof(Entry) + used_.capacity() +
         index_.capacity() * sizeof(std::uint32_t) +
         (freeNodes_.capacity() + freeEntries_.capacity()) * sizeof(std::uint32_t);
}

template <typename P>
void TrieGen<P>::setLeaf(std::uint32_t n, std::uint32_t s, std::uint32_t v) noexcept {
  const std::uint32_t e = nodes_[n].slot[s];
  if (e & kChild) {
    nodes_[e & ~kChild].inherit = v;
    return;
  }
  slotIs(n, s, v);
}

template <typename P>
std::uint32_t TrieGen<P>::allocNode(std::uint32_t inherit) {
  std::uint32_t c;
  if (!freeNodes_.empty()) {
    c = freeNodes_.back();
    freeNodes_.pop_back();
    nodes_[c] = Node{};
  } else {
    c = static_cast<std::uint32_t>(nodes_.size());
    nodes_.push_back(Node{});
  }
  nodes_[c].inherit = inherit;
  return c;
}

template <typename P>
void TrieGen<P>::spanOf(const Nimo::IpGenPrefix& p, std::uint32_t& base, std::uint32_t& span) {
  const std::uint8_t len = p.maskLen();
  if (len == 0) {
    base = 0;
    span = 256;
    return;
  }
  const std::uint32_t d = depthOf(len);
  span = 1u << (8 * (d + 1) - len);
  base = p.address().bytes()[d] & ~(span - 1);
}

template <typename P>
std::uint32_t TrieGen<P>::indexFind(const Nimo::IpGenPrefix& p) const noexcept {
  const std::size_t mask = index_.size() - 1;
  for (std::size_t i = p.hash() & mask;; i = (i + 1) & mask) {
    const std::uint32_t v = index_[i];
    if (v == 0) return ~0u;
    if (entries_[v - 1].prefix == p) return static_cast<std::uint32_t>(i);
  }
}

template <typename P>
void TrieGen<P>::indexInsert(std::uint32_t id) {
  if ((live_ + 1) * 2 > index_.size()) {
    std::vector<std::uint32_t> old(index_.size() * 2, 0);
    old.swap(index_);
    const std::size_t mask = index_.size() - 1;
    for (std::uint32_t v : old) {
      if (v == 0) continue;
      std::size_t i = entries_[v - 1].prefix.hash() & mask;
      while (index_[i] != 0) i = (i + 1) & mask;
      index_[i] = v;
    }
  }
  const std::size_t mask = index_.size() - 1;
  std::size_t i = entries_[id].prefix.hash() & mask;
  while (index_[i] != 0) i = (i + 1) & mask;
  index_[i] = id + 1;
}

template <typename P>
void TrieGen<P>::indexErase(std::uint32_t slot) {
  // Backward-shift deletion: no tombstones, probe chains stay short.
  const std::size_t mask = index_.size() - 1;
  std::size_t hole = slot;
  for (std::size_t j = (hole + 1) & mask; index_[j] != 0; j = (j + 1) & mask) {
    const std::size_t home = entries_[index_[j] - 1].prefix.hash() & mask;
    // Move j into the hole unless its home lies cyclically in (hole, j].
    const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
    if (!stays) {
      index_[hole] = index_[j];
      hole = j;
    }
  }
  index_[hole] = 0;
}

template <typename P>
std::optional<TrieChange> TrieGen<P>::insert(const Nimo::IpGenPrefix& prefix, const P& payload,
                                             std::uint32_t* idOut) {
  if (prefix.af() != af_) return std::nullopt;
  const Nimo::IpGenPrefix p = prefix.masked();
  if (const std::uint32_t at = indexFind(p); at != ~0u) {
    Entry& e = entries_[index_[at] - 1];
    if (idOut) *idOut = index_[at] - 1;
    if (e.payload == payload) return std::nullopt;
    e.payload = payload;
    notify(p, TrieChange::updated);
    return TrieChange::updated;
  }
  std::uint32_t id;
  if (!freeEntries_.empty()) {
    id = freeEntries_.back();
    freeEntries_.pop_back();
    entries_[id] = Entry{p, payload};
    used_[id] = 1;
  } else {
    id = static_cast<std::uint32_t>(entries_.size());
    entries_.push_back(Entry{p, payload});
    used_.push_back(1);
  }
  indexInsert(id);
  ++live_;
  ++lenCount_[p.maskLen()];
  if (idOut) *idOut = id;
  const std::uint32_t v = id + 1;
  const std::uint8_t len = p.maskLen();
  const std::uint8_t* b = p.address().bytes();
  const std::uint32_t d = depthOf(len);
  std::uint32_t n = 0;
  for (std::uint32_t k = 0; k < d; ++k) {
    const std::uint32_t e = nodes_[n].slot[b[k]];
    if (e & kChild) {
      n = e & ~kChild;
      continue;
    }
    const std::uint32_t c = allocNode(e);
    slotIs(n, b[k], kChild | c);
    n = c;
  }
  std::uint32_t base, span;
  spanOf(p, base, span);
  for (std::uint32_t s = base; s < base + span; ++s) {
    const std::uint32_t cur = leafOf(n, s);
    if (cur == 0 || lenOf(cur) <= len) setLeaf(n, s, v);
  }
  notify(p, TrieChange::added);
  return TrieChange::added;
}

template <typename P>
bool TrieGen<P>::remove(const Nimo::IpGenPrefix& prefix) {
  if (prefix.af() != af_) return false;
  const Nimo::IpGenPrefix p = prefix.masked();
  const std::uint32_t at = indexFind(p);
  if (at == ~0u) return false;
  const std::uint32_t v = index_[at];
  indexErase(at);
  const std::uint8_t len = p.maskLen();
  --lenCount_[len];
  const std::uint32_t d = depthOf(len);
  // The next shorter prefix of the same node takes over its slots.
  const std::uint32_t repl = probeDown(p, len - 1, d == 0 ? 0 : static_cast<int>(8 * d + 1));
  const std::uint8_t* b = p.address().bytes();
  std::uint32_t path[16];
  std::uint32_t n = 0;
  for (std::uint32_t k = 0; k < d; ++k) {
    path[k] = n;
    n = nodes_[n].slot[b[k]] & ~kChild;
  }
  std::uint32_t base, span;
  spanOf(p, base, span);
  for (std::uint32_t s = base; s < base + span; ++s) {
    if (leafOf(n, s) == v) setLeaf(n, s, repl);
  }
  // Empty nodes go; their parent slot gets back the prefix the node inherited.
  for (std::uint32_t k = d; k > 0 && nodeEmpty(n); --k) {
    const std::uint32_t parent = path[k - 1];
    slotIs(parent, b[k - 1], nodes_[n].inherit);
    freeNodes_.push_back(n);
    n = parent;
  }
  const std::uint32_t id = v - 1;
  used_[id] = 0;
  freeEntries_.push_back(id);
  --live_;
  const Nimo::IpGenPrefix gone = entries_[id].prefix;
  notify(gone, TrieChange::deleted);
  return true;
}

template <typename P>
const typename TrieGen<P>::Entry* TrieGen<P>::find(const Nimo::IpGenPrefix& prefix) const {
  if (prefix.af() != af_) return nullptr;
  const std::uint32_t at = indexFind(prefix.masked());
  return at == ~0u ? nullptr : &entries_[index_[at] - 1];
}

template <typename P>
const typename TrieGen<P>::Entry* TrieGen<P>::longestMatch(const Nimo::IpGenAddr& addr) const {
  if (addr.af() != af_) return nullptr;
  const std::uint8_t* b = addr.bytes();
  // One dependent read per level: a child's header (the parent slot's prefix, on another
  // cache line) is read only when no deeper slot answers, walking back up.
  std::uint32_t path[16];
  std::uint32_t depth = 0, n = 0, e = 0;
  while (depth < levels_) {
    e = nodes_[n].slot[b[depth]];
    if (!(e & kChild)) break;
    n = e & ~kChild;
    path[depth++] = n;
  }
  if (!(e & kChild) && e) return &entries_[e - 1];
  while (depth > 0) {
    const std::uint32_t inherit = nodes_[path[--depth]].inherit;
    if (inherit) return &entries_[inherit - 1];
  }
  return nullptr;
}

template <typename P>
const typename TrieGen<P>::Entry* TrieGen<P>::coverWalk(const Nimo::IpGenPrefix& p,
                                                        int maxLen) const {
  if (maxLen < 0 || p.af() != af_) return nullptr;
  const std::uint32_t d = depthOf(static_cast<std::uint8_t>(maxLen));
  if (const std::uint32_t r = probeDown(p, maxLen, d == 0 ? 0 : static_cast<int>(8 * d + 1)))
    return &entries_[r - 1];
  const std::uint8_t* b = p.address().bytes();
  std::uint32_t best = 0, n = 0;
  for (std::uint32_t k = 0; k < d; ++k) {
    const std::uint32_t e = nodes_[n].slot[b[k]];
    if (!(e & kChild)) {
      if (e) best = e;
      break;
    }
    n = e & ~kChild;
    if (nodes_[n].inherit) best = nodes_[n].inherit;
  }
  return best ? &entries_[best - 1] : nullptr;
}

template <typename P>
const typename TrieGen<P>::Entry* TrieGen<P>::longestMatch(const Nimo::IpGenPrefix& p) const {
  return coverWalk(p, p.maskLen());
}

template <typename P>
const typename TrieGen<P>::Entry* TrieGen<P>::findParent(const Nimo::IpGenPrefix& p) const {
  return coverWalk(p, static_cast<int>(p.maskLen()) - 1);
}

template <typename P>
bool TrieGen<P>::longerRoutePresent(const Nimo::IpGenPrefix& prefix) const {
  if (prefix.af() != af_) return false;
  const Nimo::IpGenPrefix p = prefix.masked();
  const std::uint32_t n = nodeOf(p);
  if (n == ~0u) return false;
  std::uint32_t base, span;
  spanOf(p, base, span);
  for (std::uint32_t s = base; s < base + span; ++s) {
    const std::uint32_t e = nodes_[n].slot[s];
    if (e & kChild) return true;  // nodes exist only while they hold longer prefixes
    if (e && lenOf(e) >= p.maskLen()) return true;
  }
  return false;
}

template <typename P>
template <typename Fn>
void TrieGen<P>::walkNode(std::uint32_t n, std::uint32_t depth, std::uint32_t lo, std::uint32_t hi,
                          Fn& fn) const {
  // Items of this node in pre-order: its prefixes by (byte, length), each child after the
  // prefixes that start at its slot.
  if (walkLevel_ == walkBufs_.size()) walkBufs_.push_back(std::make_unique<WalkBuf>());
  WalkBuf& buf = *walkBufs_[walkLevel_];
  struct Level {
    std::uint32_t& l;
    ~Level() { --l; }
  } level{++walkLevel_};
  std::vector<WalkItem>& items = buf.items;
  std::vector<std::uint32_t>& seen = buf.seen;
  items.clear();
  seen.clear();
  const Node& node = nodes_[n];
  for (std::uint32_t w = lo >> 6; w < (hi + 63) >> 6; ++w) {
    std::uint64_t bits = node.occupied[w];
    const std::uint32_t first = w * 64;
    if (lo > first) bits &= ~std::uint64_t{0} << (lo - first);
    if (hi < first + 64) bits &= (std::uint64_t{1} << (hi - first)) - 1;
    for (; bits; bits &= bits - 1) {
      const std::uint32_t s = first + static_cast<std::uint32_t>(__builtin_ctzll(bits));
      const std::uint32_t e = node.slot[s];
      if (e & kChild) {
        // The children's headers are fetched together rather than one miss after another.
        __builtin_prefetch(&nodes_[e & ~kChild].inherit);
        items.push_back({s, 8 * (depth + 1) + 1, e});
      } else if (seen.empty() || seen.back() != e) {
        seen.push_back(e);
      }
    }
  }
  for (const WalkItem& it : items) {
    const Node& c = nodes_[it.ref & ~kChild];
    if (c.inherit) seen.push_back(c.inherit);
    // So is the first slot line each child's own walk reads.
    for (std::uint32_t w = 0; w < 4; ++w) {
      if (c.occupied[w]) {
        __builtin_prefetch(
            &c.slot[w * 64 + static_cast<std::uint32_t>(__builtin_ctzll(c.occupied[w]))]);
        break;
      }
    }
  }
  std::sort(seen.begin(), seen.end());
  seen.erase(std::unique(seen.begin(), seen.end()), seen.end());
  // A prefix whose slots are all taken by longer ones of this node shows in no slot; it is
  // an ancestor of one that does. Only lengths of this node that hold entries are probed.
  const int shortest = depth == 0 ? 0 : static_cast<int>(8 * depth + 1);
  bool hidden = false;
  for (int l = shortest; l <= static_cast<int>(8 * (depth + 1)) - 1 && l <= 128; ++l)
    hidden |= lenCount_[l] != 0;
  if (hidden) {
    for (std::size_t i = 0, visible = seen.size(); i < visible; ++i) {
      const Nimo::IpGenPrefix& p = entries_[seen[i] - 1].prefix;
      for (int l = p.maskLen() - 1; l >= shortest; --l) {
        if (lenCount_[l] == 0) continue;
        const std::uint32_t r =
            indexFind(Nimo::IpGenPrefix(p.address(), static_cast<std::uint8_t>(l)).masked());
        if (r != ~0u) seen.push_back(index_[r]);
      }
    }
    std::sort(seen.begin(), seen.end());
    seen.erase(std::unique(seen.begin(), seen.end()), seen.end());
  }
  for (std::uint32_t v : seen) {
    const Nimo::IpGenPrefix& p = entries_[v - 1].prefix;
    std::uint32_t base, span;
    spanOf(p, base, span);
    // A prefix reaching in from outside [lo, hi) is not inside the walked range.
    if (base < lo || base + span > hi) continue;
    items.push_back({base, p.maskLen(), v});
  }
  std::sort(items.begin(), items.end(), [](const WalkItem& a, const WalkItem& b) {
    return a.byte != b.byte ? a.byte < b.byte : a.len < b.len;
  });
  std::uint32_t skipEnd = 0;
  for (const WalkItem& it : items) {
    if (it.byte < skipEnd) continue;
    if (it.ref & kChild) {
      walkNode(it.ref & ~kChild, depth + 1, 0, 256, fn);
      continue;
    }
    if (!fn(entries_[it.ref - 1])) {
      std::uint32_t base, span;
      spanOf(entries_[it.ref - 1].prefix, base, span);
      skipEnd = base + span;
    }
  }
}

template <typename P>
template <typename Fn>
void TrieGen<P>::preOrderWalk(const Nimo::IpGenPrefix& under, Fn&& fn) const {
  if (under.af() != af_) return;
  const Nimo::IpGenPrefix p = under.masked();
  const std::uint32_t n = nodeOf(p);
  if (n == ~0u) return;
  std::uint32_t base, span;
  spanOf(p, base, span);
  walkNode(n, depthOf(p.maskLen()), base, base + span, fn);
}

template <typename P>
void TrieGen<P>::quietIs(bool q) {
  if (q == quiet_) return;
  quiet_ = q;
  if (!q) notifiees_.forEach([](NotifieeConst& n) { n.onChangedAll(); });
}

}  // namespace Routing
