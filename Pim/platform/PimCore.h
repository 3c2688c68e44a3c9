// PimCore: the agent-side PIM types that the core library stores in its status records.
//
// - Routing::Pim::Mode: PIM mode of an interface or group range. 1 sparse, 2 bidirectional,
//   3 both (an interface may run both), 0 none.
// - JoinPruneData: what a Join/Prune carries for one upstream neighbour, group by group
//   (JoinPruneGroupData, whose pruned (S,G,rpt) part is RptPrunedGroupData), with the
//   Bookmark where a writer stopped and SourceFlags, the kind of an encoded source. See
//   the section's own comment below.
// - DrPriorityOption, GenerationIdOption, LanPruneDelayOption: Hello option values as a
//   neighbour sent them, with their presence (a Hello may omit any option, RFC 7761 4.9.2).
//   LanPruneDelayOption keeps the option's first 16-bit word raw (T bit and propagation
//   delay) because that is how the codec carries it; tBit() and propagationDelay() split it.
//
// All are trivially copyable. Text forms inside value records: Mode by name ("sparse");
// an absent option prints "None"; a present DR priority or generation ID prints its number;
// a present LAN prune delay prints
//   Value('Routing::Pim::LanPruneDelayOption', ** {'tBit': True, 'propagationDelay': 500,
//         'overrideInterval': 2500})
// operator<< gives the short human form used by show commands ("None", "5",
// "{tBit=True, propagationDelay=500, overrideInterval=2500}").
//
// Threading: plain values, no shared state.
//
// Usage:
//   Routing::Pim::DrPriorityOption dr(5);           // present, priority 5
//   Routing::Pim::GenerationIdOption none;          // absent
//   Routing::Pim::LanPruneDelayOption lpd = Routing::Pim::LanPruneDelayOption::fromParts(
//       true, 500, 2500);                           // lpd.implPropagationDelay() == 0x81f4
#pragma once

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <ostream>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Pim/PimReliableTypes.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/System.h"

namespace Routing::Pim {

enum class Mode : std::uint8_t { None = 0, Sparse = 1, Bidir = 2, SparseBidir = 3 };

inline std::span<const std::string_view> enumNames(Mode) noexcept {
  static constexpr std::string_view kNames[] = {"none", "sparse", "bidir", "sparseBidir"};
  return kNames;
}
inline std::ostream& operator<<(std::ostream& os, Mode m) {
  std::string out;
  Kel::ValueText<Mode>::print(out, m);
  return os << out;
}

class DrPriorityOption {
 public:
  DrPriorityOption() noexcept = default;  // absent
  explicit DrPriorityOption(std::uint32_t drPriority) noexcept
      : present_(true), drPriority_(drPriority) {}
  bool present() const noexcept { return present_; }
  std::uint32_t drPriority() const noexcept { return drPriority_; }
  friend bool operator==(const DrPriorityOption&, const DrPriorityOption&) = default;

 private:
  bool present_ = false;
  std::uint32_t drPriority_ = 0;
};

class GenerationIdOption {
 public:
  GenerationIdOption() noexcept = default;  // absent
  explicit GenerationIdOption(std::uint32_t generationId) noexcept
      : present_(true), generationId_(generationId) {}
  bool present() const noexcept { return present_; }
  std::uint32_t generationId() const noexcept { return generationId_; }
  friend bool operator==(const GenerationIdOption&, const GenerationIdOption&) = default;

 private:
  bool present_ = false;
  std::uint32_t generationId_ = 0;
};

class LanPruneDelayOption {
 public:
  static constexpr std::uint16_t kTBit = 0x8000;

  LanPruneDelayOption() noexcept = default;  // absent
  LanPruneDelayOption(std::uint16_t implPropagationDelay, std::uint16_t overrideInterval) noexcept
      : present_(true),
        implPropagationDelay_(implPropagationDelay),
        overrideInterval_(overrideInterval) {}
  // propagationDelay is 15 bits; a larger value is a Kel::RangeError.
  static LanPruneDelayOption fromParts(bool tBit, std::uint16_t propagationDelay,
                                       std::uint16_t overrideInterval) {
    if (propagationDelay & kTBit) {
      throw Kel::RangeError("LanPruneDelayOption::propagationDelay > 32767 not allowed");
    }
    return LanPruneDelayOption(static_cast<std::uint16_t>((tBit ? kTBit : 0) | propagationDelay),
                               overrideInterval);
  }

  bool present() const noexcept { return present_; }
  std::uint16_t implPropagationDelay() const noexcept { return implPropagationDelay_; }
  bool tBit() const noexcept { return (implPropagationDelay_ & kTBit) != 0; }
  std::uint16_t propagationDelay() const noexcept {
    return static_cast<std::uint16_t>(implPropagationDelay_ & ~kTBit);
  }
  std::uint16_t overrideInterval() const noexcept { return overrideInterval_; }
  friend bool operator==(const LanPruneDelayOption&, const LanPruneDelayOption&) = default;

 private:
  bool present_ = false;
  std::uint16_t implPropagationDelay_ = 0;
  std::uint16_t overrideInterval_ = 0;
};

static_assert(std::is_trivially_copyable_v<DrPriorityOption>);
static_assert(std::is_trivially_copyable_v<GenerationIdOption>);
static_assert(std::is_trivially_copyable_v<LanPruneDelayOption>);

namespace Detail {
// The present LAN prune delay as it appears in text: split into its meaningful parts.
struct LanPruneDelayText {
  bool tBit = false;
  std::uint16_t propagationDelay = 0;
  std::uint16_t overrideInterval = 0;
  static constexpr std::string_view kTypeName = "Routing::Pim::LanPruneDelayOption";
  static constexpr auto kFields =
      std::make_tuple(Kel::field("tBit", &LanPruneDelayText::tBit),
                      Kel::field("propagationDelay", &LanPruneDelayText::propagationDelay),
                      Kel::field("overrideInterval", &LanPruneDelayText::overrideInterval));
};

// "None" or a number: the text of the two single-valued options.
template <typename Opt, typename Get>
void printOptionalNumber(std::string& out, const Opt& o, Get get) {
  if (!o.present()) {
    out += "None";
  } else {
    Kel::ValueText<std::uint32_t>::print(out, get(o));
  }
}
template <typename Opt>
void parseOptionalNumber(Kel::ValueParser& in, Opt& o) {
  std::string_view t = in.token();
  if (t == "None") {
    o = Opt();
    return;
  }
  std::uint32_t n = 0;
  auto [p, ec] = std::from_chars(t.data(), t.data() + t.size(), n);
  if (t.empty() || ec != std::errc() || p != t.data() + t.size()) return in.fail();
  o = Opt(n);
}
}  // namespace Detail

inline std::ostream& operator<<(std::ostream& os, const DrPriorityOption& o) {
  std::string out;
  Detail::printOptionalNumber(out, o, [](const auto& x) { return x.drPriority(); });
  return os << out;
}
inline std::ostream& operator<<(std::ostream& os, const GenerationIdOption& o) {
  std::string out;
  Detail::printOptionalNumber(out, o, [](const auto& x) { return x.generationId(); });
  return os << out;
}
inline std::ostream& operator<<(std::ostream& os, const LanPruneDelayOption& o) {
  if (!o.present()) return os << "None";
  return os << "{tBit=" << (o.tBit() ? "True" : "False")
            << ", propagationDelay=" << o.propagationDelay()
            << ", overrideInterval=" << o.overrideInterval() << "}";
}

// ---------------------------------------------------------------------------------------
// Join/prune data: the groups and sources one Join/Prune carries to one upstream
// neighbour, as the agent fills it for sending and as the codec fills it on receipt.
//
// Per group there are four source collections, (S,G) joins, (S,G,rpt) joins, (S,G) prunes
// and (S,G,rpt) prunes, and at most one (*,G) entry (its RP, join or prune). Joins carry a
// suppression mark that the agent's join suppression sets; the writer drops marked joins.
//
// Containers: each source collection is a SourceSet, sorted flat arrays per family of
// the sources' wire form (8 bytes an IPv4 source, 20 an IPv6 one). A message is read in
// wire order; when that is ascending (our writer's order), inserting is an append after
// one comparison, otherwise an append and one sort at the next lookup. The writer copies
// a run out as it stands and drains it in one erase. A node per source
// would cost more than parsing the source. Groups are a std::map by prefix: one node per
// group is small beside its sources, and the writer needs their order to resume from a
// bookmark.
//
// Usage:
//   auto jp = Kel::Ptr<Routing::Pim::JoinPruneData>::make();
//   jp->holdTimeIs(210);
//   auto& g = jp->joinPruneGroupDataIs(Nimo::IpGenPrefix("239.1.1.1/32"));
//   g.joinedSourceIs(Nimo::IpGenAddr("10.0.0.5"));
//   g.wcSourceDataIs(Routing::Pim::WcSourceData(Nimo::IpGenAddr("10.0.0.100"), true));
//   g.joinSuppressSourceIs(Nimo::IpGenAddr("10.0.0.5"));  // the writer will skip it

// The flags byte of an Encoded-Source address: S (sparse), W (wildcard), R (RPT).
class SourceFlags {
 public:
  static constexpr std::uint8_t kSparse = 0x04;
  static constexpr std::uint8_t kWildcard = 0x02;
  static constexpr std::uint8_t kRpt = 0x01;

  constexpr SourceFlags() noexcept = default;
  constexpr explicit SourceFlags(std::uint8_t v) noexcept : value_(v) {}
  // What a sparse-mode sender puts on the wire for each kind.
  static constexpr SourceFlags sg() noexcept { return SourceFlags(kSparse); }
  static constexpr SourceFlags sgRpt() noexcept { return SourceFlags(kSparse | kRpt); }
  static constexpr SourceFlags starG() noexcept { return SourceFlags(kSparse | kWildcard | kRpt); }

  constexpr std::uint8_t value() const noexcept { return value_; }
  constexpr bool isStarG() const noexcept { return (value_ & kWcRpt) == kWcRpt; }
  constexpr bool isSgRpt() const noexcept { return (value_ & kWcRpt) == kRpt; }
  constexpr bool isSg() const noexcept { return (value_ & kWcRpt) == 0; }
  // W without R names nothing.
  constexpr bool isInvalid() const noexcept { return (value_ & kWcRpt) == kWildcard; }

 private:
  static constexpr std::uint8_t kWcRpt = kWildcard | kRpt;
  std::uint8_t value_ = 0;
};

// One source of a set as the set hands it out: the address and its suppression mark.
class SourceEntry {
 public:
  SourceEntry() noexcept = default;
  SourceEntry(const Nimo::IpGenAddr& a, bool suppressed) noexcept
      : address_(a), suppressed_(suppressed) {}
  const Nimo::IpGenAddr& address() const noexcept { return address_; }
  Nimo::AddressFamily af() const noexcept { return address_.af(); }
  bool suppressed() const noexcept { return suppressed_; }
  friend bool operator==(const SourceEntry&, const SourceEntry&) = default;

 private:
  Nimo::IpGenAddr address_;
  bool suppressed_ = false;
};

// An allocator whose resize leaves new elements of a trivial type unwritten: the receive
// path fills them straight after, and zeroing them first would cost as much again.
template <typename T>
struct UninitAllocator : std::allocator<T> {
  template <typename U>
  struct rebind {
    using other = UninitAllocator<U>;
  };
  UninitAllocator() noexcept = default;
  template <typename U>
  UninitAllocator(const UninitAllocator<U>&) noexcept {}
  template <typename U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <typename U, typename... A>
  void construct(U* p, A&&... a) {
    ::new (static_cast<void*>(p)) U(std::forward<A>(a)...);
  }
};

// A set of sources, kept per family as sorted arrays of their Encoded-Source form (family,
// encoding 0, flags, host mask length, address: 8 bytes for IPv4, 20 for IPv6), so that a
// writer copies a run out as it stands and sets only the flags byte. While stored, that
// byte holds nothing but the suppression mark. An unset address sorts first, kept apart.
// Order: family, then the address as a big-endian number (IpGenAddr's order). An
// insertion out of order is appended and the array sorted (repeats dropped, the first
// kept) on the next lookup or walk: a message whose sources come in descending order then
// costs one sort, not a move per source.
class SourceSet {
 public:
  struct Wire6 {
    std::uint8_t b[20];
    friend bool operator==(const Wire6&, const Wire6&) = default;
  };
  // The suppression mark, in a stored flags byte.
  static constexpr std::uint8_t kMarked = 0x80;

  // Hands out entries by value: the set holds no SourceEntry to point at.
  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = SourceEntry;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = SourceEntry;
    const_iterator() noexcept = default;
    const_iterator(const SourceSet* s, std::size_t i) noexcept : set_(s), i_(i) {}
    SourceEntry operator*() const noexcept { return (*set_)[i_]; }
    const_iterator& operator++() noexcept {
      ++i_;
      return *this;
    }
    const_iterator operator++(int) noexcept {
      const_iterator t = *this;
      ++i_;
      return t;
    }
    friend bool operator==(const const_iterator& a, const const_iterator& b) noexcept {
      return a.i_ == b.i_;
    }

   private:
    const SourceSet* set_ = nullptr;
    std::size_t i_ = 0;
  };

  std::size_t size() const noexcept {
    settle();
    return std::size_t{unset_} + v4_.size() + v6_.size();
  }
  bool empty() const noexcept { return !unset_ && v4_.empty() && v6_.empty(); }
  const_iterator begin() const noexcept { return {this, 0}; }
  const_iterator end() const noexcept { return {this, size()}; }
  SourceEntry operator[](std::size_t i) const noexcept {
    settle();
    if (unset_) {
      if (i == 0) return SourceEntry(Nimo::IpGenAddr(), unsetMarked_);
      --i;
    }
    if (i < v4_.size()) {
      std::uint8_t b[8];
      std::memcpy(b, &v4_[i], 8);
      return SourceEntry(Nimo::IpGenAddr(Nimo::AddressFamily::ipv4, b + 4), b[2] & kMarked);
    }
    const Wire6& r = v6_[i - v4_.size()];
    return SourceEntry(Nimo::IpGenAddr(Nimo::AddressFamily::ipv6, r.b + 4), r.b[2] & kMarked);
  }
  void reserve(Nimo::AddressFamily af, std::size_t n) {
    if (af == Nimo::AddressFamily::ipv4) v4_.reserve(n);
    if (af == Nimo::AddressFamily::ipv6) v6_.reserve(n);
  }

  // The writer's view: the index of the first entry of a family, and each family's
  // records in order (flags byte: the mark only).
  std::size_t familyBegin(Nimo::AddressFamily af) const noexcept {
    settle();
    if (af == Nimo::AddressFamily::ipunknown) return 0;
    return std::size_t{unset_} + (af == Nimo::AddressFamily::ipv6 ? v4_.size() : 0);
  }
  std::span<const std::uint64_t> wire4() const noexcept {
    settle();
    return {v4_.data(), v4_.size()};
  }
  std::span<const Wire6> wire6() const noexcept {
    settle();
    return {v6_.data(), v6_.size()};
  }
  // True when no entry is multicast or marked, so that records may be copied without
  // looking at each. False may be stale: it clears only when the set empties.
  bool plain() const noexcept { return !odd_; }

  // An address already there stays as it is (suppression mark included).
  void insert(const Nimo::IpGenAddr& a) {
    const std::uint8_t* p = a.bytes();
    if (a.af() == Nimo::AddressFamily::ipv4) {
      odd_ |= (p[0] & 0xf0) == 0xe0;
      append4(kHead4 | addrBits4(p));
    } else if (a.af() == Nimo::AddressFamily::ipv6) {
      odd_ |= p[0] == 0xff;
      Wire6 r{{2, 0, 0, 128}};
      std::memcpy(r.b + 4, p, 16);
      append6(r);
    } else {
      unset_ = true;
    }
  }
  // Appends count Encoded-Source records of family af that lie every stride bytes from
  // first, with the outcome of as many insert() calls: the receive path's form. The caller
  // has checked each record's head (family, encoding, host mask) and that its address is
  // unicast; the flags byte is not kept. Each address is compared with the one before it
  // on the wire rather than with the entry just stored (reading that back would wait on
  // the store): a repeat dropped there equals the one before it.
  void insertWire(Nimo::AddressFamily af, const std::uint8_t* first, std::size_t count,
                  std::size_t stride) {
    if (count == 0) return;
    if (af == Nimo::AddressFamily::ipv4) {
      insertWire4(first, count, stride);
    } else if (af == Nimo::AddressFamily::ipv6) {
      insertWire6(first, count, stride);
    }
  }
  bool erase(const Nimo::IpGenAddr& a) noexcept {
    const std::size_t i = lowerBound(a);
    if (!holds(i, a)) return false;
    eraseRange(i, i + 1);
    return true;
  }
  // Removes the entries [first, last) by index.
  void eraseRange(std::size_t first, std::size_t last) noexcept {
    settle();
    if (first >= last) return;
    if (unset_) {
      if (first == 0) unset_ = unsetMarked_ = false;
      first = first == 0 ? 0 : first - 1;
      --last;
    }
    const std::size_t n4 = v4_.size();
    v4_.erase(v4_.begin() + static_cast<std::ptrdiff_t>(std::min(first, n4)),
              v4_.begin() + static_cast<std::ptrdiff_t>(std::min(last, n4)));
    v6_.erase(v6_.begin() + static_cast<std::ptrdiff_t>(std::max(first, n4) - n4),
              v6_.begin() + static_cast<std::ptrdiff_t>(std::max(last, n4) - n4));
    if (empty()) odd_ = false;
  }
  void clear() noexcept {
    v4_.clear();
    v6_.clear();
    unset_ = unsetMarked_ = odd_ = false;
    sorted4_ = sorted6_ = true;
  }
  bool contains(const Nimo::IpGenAddr& a) const noexcept { return holds(lowerBound(a), a); }
  // Index of the first entry not below a.
  std::size_t lowerBound(const Nimo::IpGenAddr& a) const noexcept {
    settle();
    const std::size_t base = familyBegin(a.af());
    if (a.af() == Nimo::AddressFamily::ipv4) {
      const std::uint32_t k = Nimo::load32(a.bytes());
      return base + static_cast<std::size_t>(std::lower_bound(v4_.begin(), v4_.end(), k,
                                                              [](std::uint64_t w, std::uint32_t x) {
                                                                return key4(w) < x;
                                                              }) -
                                             v4_.begin());
    }
    if (a.af() == Nimo::AddressFamily::ipv6) {
      const Key6 k = key6(a.bytes());
      return base + static_cast<std::size_t>(std::lower_bound(v6_.begin(), v6_.end(), k,
                                                              [](const Wire6& r, const Key6& x) {
                                                                return key6(r.b + 4) < x;
                                                              }) -
                                             v6_.begin());
    }
    return 0;
  }
  bool suppressedIs(const Nimo::IpGenAddr& a, bool s) noexcept {
    const std::size_t i = lowerBound(a);
    if (!holds(i, a)) return false;
    if (a.af() == Nimo::AddressFamily::ipv4) {
      std::uint8_t b[8];
      std::memcpy(b, &v4_[i - familyBegin(a.af())], 8);
      b[2] = s ? kMarked : 0;
      std::memcpy(&v4_[i - familyBegin(a.af())], b, 8);
    } else if (a.af() == Nimo::AddressFamily::ipv6) {
      v6_[i - familyBegin(a.af())].b[2] = s ? kMarked : 0;
    } else {
      unsetMarked_ = s;
    }
    odd_ |= s;
    return true;
  }
  friend bool operator==(const SourceSet& a, const SourceSet& b) noexcept {
    a.settle();
    b.settle();
    return a.unset_ == b.unset_ && a.unsetMarked_ == b.unsetMarked_ && a.v4_ == b.v4_ &&
           a.v6_ == b.v6_;
  }

 private:
  using Key6 = std::pair<std::uint64_t, std::uint64_t>;
  static_assert(std::endian::native == std::endian::little);
  // An IPv4 record as a word read in the machine's order: the head in the low half.
  static constexpr std::uint64_t kHead4 = 0x20000001u;  // family 1, encoding 0, flags 0, /32
  static constexpr std::uint64_t kMark4 = std::uint64_t{kMarked} << 16;
  static std::uint64_t addrBits4(const std::uint8_t* a) noexcept {
    std::uint32_t v;
    std::memcpy(&v, a, 4);
    return std::uint64_t{v} << 32;
  }
  static std::uint32_t key4(std::uint64_t w) noexcept {
    return __builtin_bswap32(static_cast<std::uint32_t>(w >> 32));
  }
  static Key6 key6(const std::uint8_t* a) noexcept {
    std::uint64_t x[2];
    std::memcpy(x, a, 16);
    return {__builtin_bswap64(x[0]), __builtin_bswap64(x[1])};
  }
  // Whether the entry at index i is a.
  bool holds(std::size_t i, const Nimo::IpGenAddr& a) const noexcept {
    if (i >= size()) return false;
    const std::size_t j = i - familyBegin(a.af());
    if (a.af() == Nimo::AddressFamily::ipv4)
      return j < v4_.size() && key4(v4_[j]) == Nimo::load32(a.bytes());
    if (a.af() == Nimo::AddressFamily::ipv6) {
      return j < v6_.size() && std::memcmp(v6_[j].b + 4, a.bytes(), 16) == 0;
    }
    return unset_ && i == 0;
  }
  void append4(std::uint64_t w) {
    if (!v4_.empty()) {
      const std::uint32_t last = key4(v4_.back()), k = key4(w);
      if (last == k) return;
      if (k < last) sorted4_ = false;
    }
    v4_.push_back(w);
  }
  void append6(const Wire6& r) {
    if (!v6_.empty()) {
      const Key6 last = key6(v6_.back().b + 4), k = key6(r.b + 4);
      if (last == k) return;
      if (k < last) sorted6_ = false;
    }
    v6_.push_back(r);
  }
  // Written through a pointer into slots made beforehand: a vector's own append would
  // reload its end after every store, which may alias it. A repeat is stored and then
  // written over, so that the loop has no branch per source.
  void insertWire4(const std::uint8_t* p, std::size_t count, std::size_t stride) {
    const std::size_t old = v4_.size();
    v4_.resize(old + count);
    std::uint64_t* out = v4_.data() + old;
    bool sorted = sorted4_;
    std::uint64_t w = kHead4 | addrBits4(p + 4);
    std::uint32_t prev = key4(w);
    if (old == 0 || key4(out[-1]) != prev) {
      if (old != 0 && prev < key4(out[-1])) sorted = false;
      *out++ = w;
    }
    for (std::size_t i = 1; i < count; ++i) {
      p += stride;
      w = kHead4 | addrBits4(p + 4);
      const std::uint32_t k = key4(w);
      *out = w;
      out += k != prev;
      sorted &= prev <= k;
      prev = k;
    }
    v4_.resize(static_cast<std::size_t>(out - v4_.data()));
    sorted4_ = sorted;
  }
  void insertWire6(const std::uint8_t* p, std::size_t count, std::size_t stride) {
    const std::size_t old = v6_.size();
    v6_.resize(old + count);
    Wire6* out = v6_.data() + old;
    bool sorted = sorted6_;
    Key6 prev = key6(p + 4);
    if (old == 0 || key6(out[-1].b + 4) != prev) {
      if (old != 0 && prev < key6(out[-1].b + 4)) sorted = false;
      std::memcpy(out->b + 4, p + 4, 16);
      ++out;
    }
    for (std::size_t i = 1; i < count; ++i) {
      p += stride;
      const Key6 k = key6(p + 4);
      std::memcpy(out->b + 4, p + 4, 16);
      out += k != prev;
      sorted &= prev <= k;
      prev = k;
    }
    for (Wire6* r = v6_.data() + old; r != out; ++r) std::memcpy(r->b, kHead6, 4);
    v6_.resize(static_cast<std::size_t>(out - v6_.data()));
    sorted6_ = sorted;
  }
  static constexpr std::uint8_t kHead6[4] = {2, 0, 0, 128};
  // Sorts without allocating. Of equal addresses the first is kept, and it carries the
  // suppression mark if any does: appended repeats are never marked, so that is the mark
  // of the entry that was there first.
  void settle() const noexcept {
    if (!sorted4_) {
      std::sort(v4_.begin(), v4_.end(), [](std::uint64_t x, std::uint64_t y) {
        if (key4(x) != key4(y)) return key4(x) < key4(y);
        return (x & kMark4) > (y & kMark4);
      });
      v4_.erase(std::unique(v4_.begin(), v4_.end(),
                            [](std::uint64_t x, std::uint64_t y) { return key4(x) == key4(y); }),
                v4_.end());
      sorted4_ = true;
    }
    if (!sorted6_) {
      std::sort(v6_.begin(), v6_.end(), [](const Wire6& x, const Wire6& y) {
        const Key6 a = key6(x.b + 4), b = key6(y.b + 4);
        if (a != b) return a < b;
        return (x.b[2] & kMarked) > (y.b[2] & kMarked);
      });
      v6_.erase(std::unique(v6_.begin(), v6_.end(),
                            [](const Wire6& x, const Wire6& y) {
                              return std::memcmp(x.b + 4, y.b + 4, 16) == 0;
                            }),
                v6_.end());
      sorted6_ = true;
    }
  }
  // Mutable: sorting a pending tail changes no value, only its order in memory.
  mutable std::vector<std::uint64_t, UninitAllocator<std::uint64_t>> v4_;
  mutable std::vector<Wire6, UninitAllocator<Wire6>> v6_;
  mutable bool sorted4_ = true;
  mutable bool sorted6_ = true;
  bool unset_ = false;
  bool unsetMarked_ = false;
  bool odd_ = false;  // may hold a multicast or marked entry
};

// The (*,G) entry of a group: the RP, joined or pruned.
class WcSourceData {
 public:
  WcSourceData() noexcept = default;
  WcSourceData(const Nimo::IpGenAddr& rp, bool join) noexcept : rp_(rp), join_(join) {}
  const Nimo::IpGenAddr& rp() const noexcept { return rp_; }
  bool join() const noexcept { return join_; }
  bool wcSuppressed() const noexcept { return wcSuppressed_; }
  void wcSuppressedIs(bool s) noexcept { wcSuppressed_ = s; }
  friend bool operator==(const WcSourceData&, const WcSourceData&) = default;

 private:
  Nimo::IpGenAddr rp_;
  bool join_ = true;
  bool wcSuppressed_ = false;
};

// The four source collections, in the order a writer packs them (the (*,G) entry goes
// between the joins and the prunes).
enum class SourceCollection : std::uint8_t { JoinedRpt = 0, Joined = 1, PrunedRpt = 2, Pruned = 3 };

// A group's pruned (S,G,rpt) sources: the part of a group that RPT-prune state shares.
class RptPrunedGroupData {
 public:
  const SourceSet& prunedRptSource() const noexcept { return prunedRpt_; }
  void prunedRptSourceIs(const Nimo::IpGenAddr& s) { prunedRpt_.insert(s); }
  bool prunedRptSourceDel(const Nimo::IpGenAddr& s) { return prunedRpt_.erase(s); }
  void prunedRptSourceDelAll() noexcept { prunedRpt_.clear(); }
  friend bool operator==(const RptPrunedGroupData&, const RptPrunedGroupData&) = default;

 protected:
  SourceSet prunedRpt_;
};

class JoinPruneGroupData : public RptPrunedGroupData {
 public:
  // The Encoded-Group flags byte (B, Z) as received or to be sent.
  std::uint8_t groupFlags() const noexcept { return groupFlags_; }
  void groupFlagsIs(std::uint8_t f) noexcept { groupFlags_ = f; }

  const SourceSet& joinedSource() const noexcept { return joined_; }
  void joinedSourceIs(const Nimo::IpGenAddr& s) { joined_.insert(s); }
  bool joinedSourceDel(const Nimo::IpGenAddr& s) { return joined_.erase(s); }
  void joinedSourceDelAll() noexcept { joined_.clear(); }

  const SourceSet& joinedRptSource() const noexcept { return joinedRpt_; }
  void joinedRptSourceIs(const Nimo::IpGenAddr& s) { joinedRpt_.insert(s); }
  bool joinedRptSourceDel(const Nimo::IpGenAddr& s) { return joinedRpt_.erase(s); }
  void joinedRptSourceDelAll() noexcept { joinedRpt_.clear(); }

  const SourceSet& prunedSource() const noexcept { return pruned_; }
  void prunedSourceIs(const Nimo::IpGenAddr& s) { pruned_.insert(s); }
  bool prunedSourceDel(const Nimo::IpGenAddr& s) { return pruned_.erase(s); }
  void prunedSourceDelAll() noexcept { pruned_.clear(); }

  const std::optional<WcSourceData>& wcSourceData() const noexcept { return wc_; }
  void wcSourceDataIs(const WcSourceData& w) noexcept { wc_ = w; }
  void wcSourceDataDel() noexcept { wc_.reset(); }
  void wcSuppressedIs(bool s) noexcept {
    if (wc_) wc_->wcSuppressedIs(s);
  }

  // Join suppression: marks (or unmarks) the (S,G) and (S,G,rpt) joins of s. False when
  // s has neither.
  bool joinSuppressSourceIs(const Nimo::IpGenAddr& s) noexcept { return suppress(s, true); }
  bool joinSuppressSourceDel(const Nimo::IpGenAddr& s) noexcept { return suppress(s, false); }

  bool empty() const noexcept {
    return joined_.empty() && joinedRpt_.empty() && pruned_.empty() && prunedRpt_.empty() && !wc_;
  }
  // Number of entries, the (*,G) one included.
  std::size_t routes() const noexcept {
    return joined_.size() + joinedRpt_.size() + pruned_.size() + prunedRpt_.size() + (wc_ ? 1 : 0);
  }

  SourceSet& sourceSet(SourceCollection c) noexcept {
    switch (c) {
      case SourceCollection::JoinedRpt:
        return joinedRpt_;
      case SourceCollection::Joined:
        return joined_;
      case SourceCollection::PrunedRpt:
        return prunedRpt_;
      case SourceCollection::Pruned:
        break;
    }
    return pruned_;
  }
  const SourceSet& sourceSet(SourceCollection c) const noexcept {
    return const_cast<JoinPruneGroupData*>(this)->sourceSet(c);
  }

  friend bool operator==(const JoinPruneGroupData&, const JoinPruneGroupData&) = default;

 private:
  bool suppress(const Nimo::IpGenAddr& s, bool on) noexcept {
    const bool a = joined_.suppressedIs(s, on);
    const bool b = joinedRpt_.suppressedIs(s, on);
    return a || b;
  }
  std::uint8_t groupFlags_ = 0;
  SourceSet joined_;
  SourceSet joinedRpt_;
  SourceSet pruned_;
  std::optional<WcSourceData> wc_;
};

class JoinPruneData : public Kel::PtrInterface {
 public:
  // Where a writer stopped: the entry that did not fit.
  class Bookmark {
   public:
    enum class Collection : std::uint8_t { StarG, SgRpt, Sg, Unknown };
    enum class Type : std::uint8_t { Join, Prune };

    Bookmark() noexcept = default;
    Bookmark(const Nimo::IpGenPrefix& group, const Nimo::IpGenAddr& source, Collection c,
             Type t) noexcept
        : group_(group), source_(source), collection_(c), type_(t) {}
    const Nimo::IpGenPrefix& group() const noexcept { return group_; }
    const Nimo::IpGenAddr& source() const noexcept { return source_; }
    Collection collection() const noexcept { return collection_; }
    Type type() const noexcept { return type_; }
    friend bool operator==(const Bookmark&, const Bookmark&) = default;

   private:
    Nimo::IpGenPrefix group_;
    Nimo::IpGenAddr source_;
    Collection collection_ = Collection::Unknown;
    Type type_ = Type::Join;
  };
  using GroupMap = std::map<Nimo::IpGenPrefix, JoinPruneGroupData>;

  // The neighbour the message is addressed to (its Upstream Neighbor Address field).
  const Nimo::IpGenAddr& upstreamNeighbor() const noexcept { return upstreamNeighbor_; }
  void upstreamNeighborIs(const Nimo::IpGenAddr& a) noexcept { upstreamNeighbor_ = a; }
  std::uint16_t holdTime() const noexcept { return holdTime_; }
  void holdTimeIs(std::uint16_t h) noexcept { holdTime_ = h; }
  // The byte after the upstream address, kept as received.
  std::uint8_t reserved2() const noexcept { return reserved2_; }
  void reserved2Is(std::uint8_t r) noexcept { reserved2_ = r; }
  // A periodic refresh, as opposed to a triggered message; a (*,G) prune has no place in one.
  bool periodic() const noexcept { return periodic_; }
  void periodicIs(bool p) noexcept { periodic_ = p; }

  const GroupMap& joinPruneGroupData() const noexcept { return groups_; }
  GroupMap& joinPruneGroupData() noexcept { return groups_; }
  const JoinPruneGroupData* joinPruneGroupData(const Nimo::IpGenPrefix& g) const noexcept {
    auto it = groups_.find(g);
    return it == groups_.end() ? nullptr : &it->second;
  }
  // The group's data, created empty if absent.
  JoinPruneGroupData& joinPruneGroupDataIs(const Nimo::IpGenPrefix& g) { return groups_[g]; }
  void joinPruneGroupDataDel(const Nimo::IpGenPrefix& g) { groups_.erase(g); }

  const std::optional<Bookmark>& bookmark() const noexcept { return bookmark_; }
  void bookmarkIs(const Bookmark& b) noexcept { bookmark_ = b; }
  void bookmarkDel() noexcept { bookmark_.reset(); }

  bool empty() const noexcept { return groups_.empty(); }
  std::size_t routes() const noexcept {
    std::size_t n = 0;
    for (const auto& [g, d] : groups_) n += d.routes();
    return n;
  }

  friend bool operator==(const JoinPruneData& a, const JoinPruneData& b) noexcept {
    return a.upstreamNeighbor_ == b.upstreamNeighbor_ && a.holdTime_ == b.holdTime_ &&
           a.reserved2_ == b.reserved2_ && a.periodic_ == b.periodic_ && a.groups_ == b.groups_ &&
           a.bookmark_ == b.bookmark_;
  }

 private:
  Nimo::IpGenAddr upstreamNeighbor_;
  std::uint16_t holdTime_ = 0;
  std::uint8_t reserved2_ = 0;
  bool periodic_ = false;
  GroupMap groups_;
  std::optional<Bookmark> bookmark_;
};

// "Bookmark: (239.1.1.1/32, 10.0.0.5) Collection: (S,G) Type: join"
std::ostream& operator<<(std::ostream& os, const JoinPruneData::Bookmark& b);

}  // namespace Routing::Pim

namespace Kel {
template <>
struct ValueText<Routing::Pim::DrPriorityOption> {
  static void print(std::string& out, const Routing::Pim::DrPriorityOption& v) {
    Routing::Pim::Detail::printOptionalNumber(out, v, [](const auto& x) { return x.drPriority(); });
  }
  static void parse(ValueParser& in, Routing::Pim::DrPriorityOption& v) {
    Routing::Pim::Detail::parseOptionalNumber(in, v);
  }
};
template <>
struct ValueText<Routing::Pim::GenerationIdOption> {
  static void print(std::string& out, const Routing::Pim::GenerationIdOption& v) {
    Routing::Pim::Detail::printOptionalNumber(out, v,
                                              [](const auto& x) { return x.generationId(); });
  }
  static void parse(ValueParser& in, Routing::Pim::GenerationIdOption& v) {
    Routing::Pim::Detail::parseOptionalNumber(in, v);
  }
};
template <>
struct ValueText<Routing::Pim::LanPruneDelayOption> {
  static void print(std::string& out, const Routing::Pim::LanPruneDelayOption& v) {
    if (!v.present()) {
      out += "None";
      return;
    }
    appendValue(out, Routing::Pim::Detail::LanPruneDelayText{v.tBit(), v.propagationDelay(),
                                                             v.overrideInterval()});
  }
  static void parse(ValueParser& in, Routing::Pim::LanPruneDelayOption& v) {
    if (in.accept("None")) {
      v = Routing::Pim::LanPruneDelayOption();
      return;
    }
    // Neither form: the error names this field rather than the nested record.
    if (!in.rest().starts_with("Value('")) return in.fail();
    Routing::Pim::Detail::LanPruneDelayText t;
    parseValueInto(in, t);
    if (t.propagationDelay & Routing::Pim::LanPruneDelayOption::kTBit) return in.fail();
    v = Routing::Pim::LanPruneDelayOption::fromParts(t.tBit, t.propagationDelay,
                                                     t.overrideInterval);
  }
};
}  // namespace Kel

// ---------------------------------------------------------------------------------------
// The agent's PIM status and configuration as the I/O layer reads them.
//
// - Routing::Pim::StatusIntf: a PIM-enabled interface as the I/O layer sees it: its id, the
//   MBR flag (a multicast border router interface, whose packets are not processed) and its
//   primary address. (Routing::Pim::Intf, below, is the full mirrored interface; the mode
//   filter writes one into a Status with pimIntfIs.)
// - Routing::Pim::Status: the agent's PIM interfaces (intf) and the neighbours that are
//   active on each (activeNeighbor, keyed by interface and address, valued by the
//   neighbour's hold time). Notifiees get onIntf(id) and onActiveNeighbor(key) on change.
// - Routing::Pim::IntfConfig / ConfigColl: per-interface configuration; the I/O layer
//   reads the neighbour-filter ACL name (empty: no filter).
//
// Usage:
//   auto st = Kel::Ptr<Routing::Pim::Status>::make("pim");
//   st->intfIs(Nimo::IntfId("eth1"));
//   st->activeNeighborIs({Nimo::IntfId("eth1"), Nimo::IpGenAddr("10.0.0.2")}, 105);
namespace Routing::Pim {

struct StatusIntf {
  Nimo::IntfId intfId;
  bool mbr = false;
  Nimo::IpGenAddr primaryAddr;
};

struct ActiveNeighborKey {
  Nimo::IntfId intfId;
  Nimo::IpGenAddr address;
  friend auto operator<=>(const ActiveNeighborKey&, const ActiveNeighborKey&) = default;
  friend bool operator==(const ActiveNeighborKey&, const ActiveNeighborKey&) = default;
};

class Intf;

class Status : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<Status, NotifieeConst> {
   public:
    virtual void onIntf(const Nimo::IntfId&) {}
    virtual void onActiveNeighbor(const ActiveNeighborKey&) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  explicit Status(Kel::Name name) : Kel::Entity(std::move(name)) {}

  const StatusIntf* intf(const Nimo::IntfId& id) const {
    auto it = intfIndex_.find(id);
    return it == intfIndex_.end() ? nullptr : &it->second;
  }
  const std::map<Nimo::IntfId, StatusIntf>& intf() const noexcept { return intf_; }
  void intfIs(const Nimo::IntfId& id, bool mbr = false, Nimo::IpGenAddr primary = {}) {
    StatusIntf& i = intf_[id];
    i.intfId = id;
    i.mbr = mbr;
    i.primaryAddr = primary;
    intfIndex_[id] = i;
    notifiees_.forEach([&](NotifieeConst& n) { n.onIntf(id); });
  }
  void intfDel(const Nimo::IntfId& id) {
    intfIndex_.erase(id);
    if (intf_.erase(id) != 0) notifiees_.forEach([&](NotifieeConst& n) { n.onIntf(id); });
  }
  // The mode filter's write: the interface as the I/O layer needs it (MBR flag from
  // borderRouter, primary address from addressWithMask). Unchanged: no notice.
  void pimIntfIs(const Intf& i);

  bool activeNeighbor(const ActiveNeighborKey& k) const { return neighborIndex_.count(k) != 0; }
  const std::map<ActiveNeighborKey, std::uint16_t>& activeNeighbor() const noexcept {
    return neighbor_;
  }
  void activeNeighborIs(const ActiveNeighborKey& k, std::uint16_t holdTime) {
    auto [it, created] = neighbor_.try_emplace(k, holdTime);
    if (!created && it->second == holdTime) return;
    it->second = holdTime;
    neighborIndex_.insert(k);
    notifiees_.forEach([&](NotifieeConst& n) { n.onActiveNeighbor(k); });
  }
  void activeNeighborDel(const ActiveNeighborKey& k) {
    neighborIndex_.erase(k);
    if (neighbor_.erase(k) != 0)
      notifiees_.forEach([&](NotifieeConst& n) { n.onActiveNeighbor(k); });
  }

  // Neighbour secondary addresses (Hello Address List): (interface, secondary) -> the
  // neighbour's primary address. Next hops learned from routing may name a secondary.
  const Nimo::IpGenAddr* neighborSecondary(const ActiveNeighborKey& k) const {
    if (secondary_.empty()) return nullptr;  // the common case costs no hash
    auto it = secondary_.find(k);
    return it == secondary_.end() ? nullptr : &it->second;
  }
  void neighborSecondaryIs(const ActiveNeighborKey& k, const Nimo::IpGenAddr& primary) {
    secondary_[k] = primary;
  }
  void neighborSecondaryDel(const ActiveNeighborKey& k) { secondary_.erase(k); }

 private:
  struct KeyHash {
    std::size_t operator()(const Nimo::IntfId& i) const noexcept { return i.hash(); }
    std::size_t operator()(const ActiveNeighborKey& k) const noexcept {
      return k.intfId.hash() ^ (std::size_t{k.address.hash()} * 0x9e3779b97f4a7c15u);
    }
  };
  std::map<Nimo::IntfId, StatusIntf> intf_;
  std::map<ActiveNeighborKey, std::uint16_t> neighbor_;
  // The RPF lookup asks these for every via: hashed beside the ordered maps that the
  // accessors hand out (an ordered search compares 32-byte ids several times).
  std::unordered_map<Nimo::IntfId, StatusIntf, KeyHash> intfIndex_;
  std::unordered_set<ActiveNeighborKey, KeyHash> neighborIndex_;
  std::unordered_map<ActiveNeighborKey, Nimo::IpGenAddr, KeyHash> secondary_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

struct IntfConfig {
  std::string neighborFilter;  // ACL name; empty: no filter
};

class ConfigColl : public Kel::Entity {
 public:
  explicit ConfigColl(Kel::Name name) : Kel::Entity(std::move(name)) {}
  const IntfConfig* intfConfig(const Nimo::IntfId& id) const {
    auto it = intf_.find(id);
    return it == intf_.end() ? nullptr : &it->second;
  }
  IntfConfig& intfConfigIs(const Nimo::IntfId& id) { return intf_[id]; }
  void intfConfigDel(const Nimo::IntfId& id) { intf_.erase(id); }

 private:
  std::map<Nimo::IntfId, IntfConfig> intf_;
};

}  // namespace Routing::Pim

// ---------------------------------------------------------------------------------------
// The PIM core's in-process status: what the status readers mirror from shared memory and
// what the mode filters hand each agent.
//
// - Neighbor: one PIM neighbour of an interface, with its secondary addresses.
// - Intf: one PIM interface: its 30 published attributes (each with its getter, its setter
//   fooIs and its notice onFoo; a setter that changes nothing notifies nothing), its
//   neighbours, the active ones, the inactive BFD ones (known, BFD down), and its own
//   secondary addresses and prefixes.
// - AllStatus: one VRF's interfaces (pimIntf), as a reader mirrors them.
// - AllStatusColl / StatusColl: per VRF an AllStatus (the mirror) or a Status (a mode
//   filter's output, what an agent's I/O layer reads), with onVrfStatus(vrf).
// - GlobalStatus: the VRFs with PIM enabled in sparse mode and in bidirectional mode.
//
// Threading: the owning process's event-loop thread only; no locks.
//
// Usage:
//   auto all = Kel::Ptr<Routing::Pim::AllStatus>::make("default");
//   Kel::Ptr<Routing::Pim::Intf> i = all->pimIntfIs(Nimo::IntfId("eth1"));
//   i->modeIs(Routing::Pim::Mode::Sparse);          // onMode() to i's notifiees
//   i->neighborIs(Routing::Pim::Neighbor(Nimo::IpGenAddr("10.0.0.2")));
//   i->activeNeighborIs(Nimo::IpGenAddr("10.0.0.2"));  // onActiveNeighbor(addr)
namespace Routing::Pim {

struct Neighbor {
  Neighbor() = default;
  explicit Neighbor(const Nimo::IpGenAddr& a) : address(a) {}
  Nimo::IpGenAddr address;
  Kel::Time creationTime = 0;
  Kel::Time lastRefreshTime = 0;
  std::uint16_t holdTime = 0;
  DrPriorityOption drPriorityOption;
  GenerationIdOption generationIdOption;
  LanPruneDelayOption lanPruneDelayOption;
  Bfd::OperState bfdState = Bfd::OperState::Unknown;
  Reliable::NeighborInfo portInfo;
  Reliable::Protocol transportProtocol = Reliable::Protocol::None;
  std::set<Nimo::IpGenAddr> secondaryAddress;
  friend bool operator==(const Neighbor&, const Neighbor&) = default;
};

// X(type, name, Name) for each published attribute of an interface, in record order.
#define PIM_INTF_ATTRIBUTES(X)                                                         \
  X(Nimo::IpGenAddrWithMask, addressWithMask, AddressWithMask)                         \
  X(Nimo::IpGenAddrWithMask, usedAddressWithMask, UsedAddressWithMask)                 \
  X(Routing::Pim::Mode, mode, Mode)                                                    \
  X(bool, borderRouter, BorderRouter)                                                  \
  X(bool, enabled, Enabled)                                                            \
  X(bool, sourceInject, SourceInject)                                                  \
  X(std::uint32_t, assertTimeout, AssertTimeout)                                       \
  X(std::uint32_t, assertOverrideInterval, AssertOverrideInterval)                     \
  X(std::uint16_t, helloPeriod, HelloPeriod)                                           \
  X(std::uint16_t, helloHoldTime, HelloHoldTime)                                       \
  X(bool, triggeredHello, TriggeredHello)                                              \
  X(std::uint32_t, triggeredHelloCount, TriggeredHelloCount)                           \
  X(double, lastHelloTime, LastHelloTime)                                              \
  X(std::uint32_t, helloDelay, HelloDelay)                                             \
  X(std::uint16_t, joinPrunePeriod, JoinPrunePeriod)                                   \
  X(std::uint16_t, joinPruneHoldTime, JoinPruneHoldTime)                               \
  X(std::uint16_t, propagationDelay, PropagationDelay)                                 \
  X(std::uint16_t, usedPropagationDelay, UsedPropagationDelay)                         \
  X(std::uint16_t, overrideInterval, OverrideInterval)                                 \
  X(std::uint16_t, usedOverrideInterval, UsedOverrideInterval)                         \
  X(bool, tBit, TBit)                                                                  \
  X(bool, usedTBit, UsedTBit)                                                          \
  X(std::uint32_t, drPriority, DrPriority)                                             \
  X(Nimo::IpGenAddr, usedDr, UsedDr)                                                   \
  X(std::uint32_t, usedDrPriority, UsedDrPriority)                                     \
  X(std::uint32_t, generationId, GenerationId)                                         \
  X(bool, bfdEnabled, BfdEnabled)                                                      \
  X(Routing::Pim::Reliable::CapabilityFlags, portCapabilityFlags, PortCapabilityFlags) \
  X(Routing::Pim::Reliable::InterfaceId, portInterfaceId, PortInterfaceId)             \
  X(bool, fastFailover, FastFailover)

class Intf : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<Intf, NotifieeConst> {
   public:
#define PIM_INTF_HANDLER(T, name, Name) \
  virtual void on##Name() {}
    PIM_INTF_ATTRIBUTES(PIM_INTF_HANDLER)
#undef PIM_INTF_HANDLER
    virtual void onNeighbor(const Nimo::IpGenAddr&) {}
    virtual void onActiveNeighbor(const Nimo::IpGenAddr&) {}
    virtual void onInactiveBfdNeighbor(const Nimo::IpGenAddr&) {}
    virtual void onSecondaryAddress(const Nimo::IpGenAddr&) {}
    virtual void onSecondaryPrefix(const Nimo::IpGenPrefix&) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  explicit Intf(const Nimo::IntfId& id) : Kel::Entity(std::string(id.name())), intfId_(id) {}
  const Nimo::IntfId& intfId() const noexcept { return intfId_; }

#define PIM_INTF_ACCESSORS(T, name, Name)                       \
  const T& name() const noexcept { return name##_; }            \
  void name##Is(const T& v) {                                   \
    if (name##_ == v) return;                                   \
    name##_ = v;                                                \
    notifiees_.forEach([](NotifieeConst& n) { n.on##Name(); }); \
  }
  PIM_INTF_ATTRIBUTES(PIM_INTF_ACCESSORS)
#undef PIM_INTF_ACCESSORS

  // Neighbours by address; neighborIs replaces a neighbour whole (secondary addresses
  // included) and notifies only a change.
  const std::map<Nimo::IpGenAddr, Neighbor>& neighbor() const noexcept { return neighbor_; }
  const Neighbor* neighbor(const Nimo::IpGenAddr& a) const {
    auto it = neighbor_.find(a);
    return it == neighbor_.end() ? nullptr : &it->second;
  }
  void neighborIs(const Neighbor& n) {
    auto [it, created] = neighbor_.try_emplace(n.address, n);
    if (!created) {
      if (it->second == n) return;
      it->second = n;
    }
    notifiees_.forEach([&](NotifieeConst& w) { w.onNeighbor(n.address); });
  }
  void neighborDel(const Nimo::IpGenAddr& a) {
    if (neighbor_.erase(a) == 0) return;
    notifiees_.forEach([&](NotifieeConst& w) { w.onNeighbor(a); });
  }
  // A neighbour's secondary address; false if the neighbour is unknown.
  bool neighborSecondaryAddressIs(const Nimo::IpGenAddr& n, const Nimo::IpGenAddr& a, bool on) {
    auto it = neighbor_.find(n);
    if (it == neighbor_.end()) return false;
    const bool changed = on ? it->second.secondaryAddress.insert(a).second
                            : it->second.secondaryAddress.erase(a) != 0;
    if (changed) notifiees_.forEach([&](NotifieeConst& w) { w.onNeighbor(n); });
    return true;
  }

  const std::set<Nimo::IpGenAddr>& activeNeighbor() const noexcept { return active_; }
  bool activeNeighbor(const Nimo::IpGenAddr& a) const { return active_.count(a) != 0; }
  void activeNeighborIs(const Nimo::IpGenAddr& a) {
    setIs(active_, a, true, &NotifieeConst::onActiveNeighbor);
  }
  void activeNeighborDel(const Nimo::IpGenAddr& a) {
    setIs(active_, a, false, &NotifieeConst::onActiveNeighbor);
  }

  const std::set<Nimo::IpGenAddr>& inactiveBfdNeighbor() const noexcept { return inactive_; }
  bool inactiveBfdNeighbor(const Nimo::IpGenAddr& a) const { return inactive_.count(a) != 0; }
  void inactiveBfdNeighborIs(const Nimo::IpGenAddr& a) {
    setIs(inactive_, a, true, &NotifieeConst::onInactiveBfdNeighbor);
  }
  void inactiveBfdNeighborDel(const Nimo::IpGenAddr& a) {
    setIs(inactive_, a, false, &NotifieeConst::onInactiveBfdNeighbor);
  }

  const std::set<Nimo::IpGenAddr>& secondaryAddress() const noexcept { return secondary_; }
  void secondaryAddressIs(const Nimo::IpGenAddr& a) {
    setIs(secondary_, a, true, &NotifieeConst::onSecondaryAddress);
  }
  void secondaryAddressDel(const Nimo::IpGenAddr& a) {
    setIs(secondary_, a, false, &NotifieeConst::onSecondaryAddress);
  }
  const std::set<Nimo::IpGenPrefix>& secondaryPrefix() const noexcept { return prefix_; }
  void secondaryPrefixIs(const Nimo::IpGenPrefix& p) {
    setIs(prefix_, p, true, &NotifieeConst::onSecondaryPrefix);
  }
  void secondaryPrefixDel(const Nimo::IpGenPrefix& p) {
    setIs(prefix_, p, false, &NotifieeConst::onSecondaryPrefix);
  }

 private:
  template <typename V>
  void setIs(std::set<V>& s, const V& v, bool on, void (NotifieeConst::*notice)(const V&)) {
    const bool changed = on ? s.insert(v).second : s.erase(v) != 0;
    if (changed) notifiees_.forEach([&](NotifieeConst& w) { (w.*notice)(v); });
  }

  Nimo::IntfId intfId_;
#define PIM_INTF_MEMBER(T, name, Name) T name##_{};
  PIM_INTF_ATTRIBUTES(PIM_INTF_MEMBER)
#undef PIM_INTF_MEMBER
  std::map<Nimo::IpGenAddr, Neighbor> neighbor_;
  std::set<Nimo::IpGenAddr> active_;
  std::set<Nimo::IpGenAddr> inactive_;
  std::set<Nimo::IpGenAddr> secondary_;
  std::set<Nimo::IpGenPrefix> prefix_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

inline void Status::pimIntfIs(const Intf& i) {
  const StatusIntf* old = intf(i.intfId());
  const Nimo::IpGenAddr primary = i.addressWithMask().address();
  if (old && old->mbr == i.borderRouter() && old->primaryAddr == primary) return;
  intfIs(i.intfId(), i.borderRouter(), primary);
}

// One VRF's mirrored interfaces.
class AllStatus : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<AllStatus, NotifieeConst> {
   public:
    virtual void onPimIntf(const Nimo::IntfId&) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  explicit AllStatus(Kel::Name name) : Kel::Entity(std::move(name)) {}

  const std::map<Nimo::IntfId, Kel::Ptr<Intf>>& pimIntf() const noexcept { return intf_; }
  Kel::Ptr<Intf> pimIntf(const Nimo::IntfId& id) const {
    auto it = intf_.find(id);
    return it == intf_.end() ? nullptr : it->second;
  }
  // The interface, created (and announced) if absent.
  Kel::Ptr<Intf> pimIntfIs(const Nimo::IntfId& id) {
    auto [it, created] = intf_.try_emplace(id);
    if (created) {
      it->second = Kel::Ptr<Intf>::make(id);
      notifiees_.forEach([&](NotifieeConst& n) { n.onPimIntf(id); });
    }
    return it->second;
  }
  // Adds an interface built beforehand (its attributes set before anyone watches it);
  // an interface of the same id is replaced.
  void pimIntfIs(const Kel::Ptr<Intf>& i) {
    intf_[i->intfId()] = i;
    notifiees_.forEach([&](NotifieeConst& n) { n.onPimIntf(i->intfId()); });
  }
  // By value: a caller may pass the key of the very entry being erased.
  void pimIntfDel(Nimo::IntfId id) {
    if (intf_.erase(id) == 0) return;
    notifiees_.forEach([&](NotifieeConst& n) { n.onPimIntf(id); });
  }
  void pimIntfDelAll() {
    while (!intf_.empty()) pimIntfDel(intf_.begin()->first);
  }

 private:
  std::map<Nimo::IntfId, Kel::Ptr<Intf>> intf_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

// Per VRF one T (AllStatus or Status), named after the VRF.
template <typename T>
class VrfStatusColl : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<VrfStatusColl, NotifieeConst> {
   public:
    virtual void onVrfStatus(const L3::VrfName&) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  explicit VrfStatusColl(Kel::Name name) : Kel::Entity(std::move(name)) {}

  const std::map<L3::VrfName, Kel::Ptr<T>>& vrfStatus() const noexcept { return vrf_; }
  Kel::Ptr<T> vrfStatus(const L3::VrfName& v) const {
    auto it = vrf_.find(v);
    return it == vrf_.end() ? nullptr : it->second;
  }
  // The VRF's status, created (and announced) if absent.
  Kel::Ptr<T> vrfStatusIs(const L3::VrfName& v) {
    auto [it, created] = vrf_.try_emplace(v);
    if (created) {
      it->second = Kel::Ptr<T>::make(Kel::Name(v.str()));
      notifiees_.forEach([&](NotifieeConst& n) { n.onVrfStatus(v); });
    }
    return it->second;
  }
  void vrfStatusDel(const L3::VrfName& v) {
    if (vrf_.erase(v) == 0) return;
    notifiees_.forEach([&](NotifieeConst& n) { n.onVrfStatus(v); });
  }

 private:
  std::map<L3::VrfName, Kel::Ptr<T>> vrf_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};
using AllStatusColl = VrfStatusColl<AllStatus>;
using StatusColl = VrfStatusColl<Status>;

// The VRFs with PIM enabled, per mode.
class GlobalStatus : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<GlobalStatus, NotifieeConst> {
   public:
    virtual void onPimEnabledSparseModeVrf(const L3::VrfName&) {}
    virtual void onPimEnabledBidirVrf(const L3::VrfName&) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  explicit GlobalStatus(Kel::Name name) : Kel::Entity(std::move(name)) {}

  const std::set<L3::VrfName>& pimEnabledSparseModeVrf() const noexcept { return sparse_; }
  bool pimEnabledSparseModeVrf(const L3::VrfName& v) const { return sparse_.count(v) != 0; }
  void pimEnabledSparseModeVrfIs(const L3::VrfName& v) {
    setIs(sparse_, v, true, &NotifieeConst::onPimEnabledSparseModeVrf);
  }
  void pimEnabledSparseModeVrfDel(const L3::VrfName& v) {
    setIs(sparse_, v, false, &NotifieeConst::onPimEnabledSparseModeVrf);
  }
  const std::set<L3::VrfName>& pimEnabledBidirVrf() const noexcept { return bidir_; }
  bool pimEnabledBidirVrf(const L3::VrfName& v) const { return bidir_.count(v) != 0; }
  void pimEnabledBidirVrfIs(const L3::VrfName& v) {
    setIs(bidir_, v, true, &NotifieeConst::onPimEnabledBidirVrf);
  }
  void pimEnabledBidirVrfDel(const L3::VrfName& v) {
    setIs(bidir_, v, false, &NotifieeConst::onPimEnabledBidirVrf);
  }
  // PIM enabled in either mode.
  bool pimEnabled(const L3::VrfName& v) const {
    return pimEnabledSparseModeVrf(v) || pimEnabledBidirVrf(v);
  }

 private:
  void setIs(std::set<L3::VrfName>& s, const L3::VrfName& v, bool on,
             void (NotifieeConst::*notice)(const L3::VrfName&)) {
    const bool changed = on ? s.insert(v).second : s.erase(v) != 0;
    if (changed) notifiees_.forEach([&](NotifieeConst& n) { (n.*notice)(v); });
  }
  std::set<L3::VrfName> sparse_;
  std::set<L3::VrfName> bidir_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

}  // namespace Routing::Pim

// ---------------------------------------------------------------------------------------
// RouteKey: one multicast route of the agent, (S,G) or (*,G); a (*,G) key has no source
// (unset address). Prints "(10.0.0.1, 232.1.1.1)" or "(*, 239.1.1.1)".
namespace Routing::Pim {

class RouteKey {
 public:
  RouteKey() noexcept = default;
  // A zero source is stored as none: one (*,G) key, however it was written.
  RouteKey(const Nimo::IpGenAddr& source, const Nimo::IpGenAddr& group) noexcept
      : group_(group), source_(source.isSet() && !source.isZero() ? source : Nimo::IpGenAddr()) {}
  // (*,G)
  explicit RouteKey(const Nimo::IpGenAddr& group) noexcept : group_(group) {}
  const Nimo::IpGenAddr& source() const noexcept { return source_; }
  const Nimo::IpGenAddr& group() const noexcept { return group_; }
  bool isStarG() const noexcept { return !source_.isSet(); }
  Nimo::AddressFamily af() const noexcept { return group_.af(); }
  // The fixed order, which sliced reviews resume by: family, group, (*,G) before (S,G),
  // source. Member order gives it: the group first, and an unset source (family unknown)
  // sorts before every set one.
  friend bool operator==(const RouteKey&, const RouteKey&) = default;
  friend std::strong_ordering operator<=>(const RouteKey&, const RouteKey&) = default;
  std::uint32_t hash() const noexcept {
    return group_.hash() * 0x9e3779b1u ^ (isStarG() ? 0u : source_.hash());
  }

 private:
  Nimo::IpGenAddr group_;
  Nimo::IpGenAddr source_;
};

inline std::ostream& operator<<(std::ostream& os, const RouteKey& k) {
  os << '(';
  if (k.isStarG()) {
    os << '*';
  } else {
    os << k.source();
  }
  return os << ", " << k.group() << ')';
}

}  // namespace Routing::Pim

// RPF records exchanged between the RPF engines and the agents.
//
// - RpfRib: the RIB an answer came from (unicast U, multicast M; the multicast-specific
//   RIB answers as M too).
// - Rpf: interface, neighbour, matched prefix, metric, preference, target, RIB. An empty
//   Rpf has preference 1.
// Text form: Value('Routing::Pim::Rpf', ** {'rpfIntf': ..., ...}), parsed back by the
// (begin, end) constructor.
namespace Routing::Pim {

enum class RpfRib : std::uint8_t { none = 0, U = 1, M = 2 };
inline std::span<const std::string_view> enumNames(RpfRib) noexcept {
  static constexpr std::string_view kNames[] = {"none", "U", "M"};
  return kNames;
}

struct Rpf {
  static constexpr std::string_view kTypeName = "Routing::Pim::Rpf";
  Nimo::IntfId rpfIntf;
  Nimo::IpGenAddr rpfNeighbor;
  Nimo::IpGenPrefix prefix;
  std::uint32_t metric = 0;
  std::uint8_t preference = 1;
  Nimo::IpGenAddr target;
  RpfRib rib = RpfRib::none;

  static constexpr auto kFields = std::make_tuple(
      Kel::field("rpfIntf", &Rpf::rpfIntf), Kel::field("rpfNeighbor", &Rpf::rpfNeighbor),
      Kel::field("prefix", &Rpf::prefix), Kel::field("metric", &Rpf::metric),
      Kel::field("preference", &Rpf::preference), Kel::field("target", &Rpf::target),
      Kel::field("rib", &Rpf::rib));
  Rpf() = default;
  Rpf(const char* begin, const char* end) { Kel::parseValue(begin, end, *this); }
  friend bool operator==(const Rpf&, const Rpf&) = default;
};
inline std::ostream& operator<<(std::ostream& os, const Rpf& r) {
  return os << Kel::valueToStrep(r);
}

}  // namespace Routing::Pim

// ---------------------------------------------------------------------------------------
// RPF records of the agent and what the RPF state machines publish to it.
//
// - RouteKeyHash: RouteKey's hash for unordered containers.
// - RpfConfig: the agent's Rpf per multicast route, `rpfConfigInfo` (RouteKey to
//   RpfConfigInfo). The agent records the target it looked up (the source, or the RP of a
//   (*,G)) in the Rpf even when the lookup found nothing; an Rpf without an interface is the
//   empty Rpf: the route has no RPF. Notices: onRpfConfigInfo(key) per key written or
//   deleted (a write of the value already there notifies nothing), onRpfConfigInfo() after
//   rpfConfigInfoDelAll.
// - RpfStatus: what the machines publish.
//   - unresolvedRoute / unresolvedWcRoute: the (S,G) / (*,G) routes without an RPF, each
//     mapped to the address it needs (source or RP). A map, not a set: the unresolved-route
//     machine indexes a (*,G) by its RP, which the key does not hold, and a new RP for a
//     route that stays unresolved is a change that notifies.
//   - rpfRouteChanged: the routes whose RPF the agent must look up again. Publishing a key
//     already in the set notifies nothing: the agent drains the set with rpfRouteChangedDel
//     after recomputing, and a key it has not drained yet is not announced twice.
//   - rpfRouteChangedCount: every publication counted, drained or not.
//   Handlers (NotifieeConst, and Notifiee for watchers that write back): onX(key) for a
//   change of one key (written, changed, deleted: read the collection to tell which),
//   onX() for a change of the whole collection (DelAll, or a count set outright).
//   rpfRouteChangedCountInc(key) counts the publication of that key and calls the keyed
//   onRpfRouteChangedCount(key); rpfRouteChangedCountIs(n) calls the plain one.
//   The two unresolved collections also have onUnresolvedRouteImmediate() and
//   onUnresolvedWcRouteImmediate(): every notice is synchronous, and "immediate" means
//   order (Kel.h): for one whole-collection change, every notifiee's immediate handler runs
//   before any notifiee's plain one, so an index kept beside the collection is rebuilt
//   before ordinary watchers read through it.
namespace Routing::Pim {

struct RouteKeyHash {
  std::size_t operator()(const RouteKey& k) const noexcept { return k.hash(); }
};

struct RpfConfigInfo {
  static constexpr std::string_view kTypeName = "Routing::Pim::RpfConfigInfo";
  Rpf rpf;
  static constexpr auto kFields = std::make_tuple(Kel::field("rpf", &RpfConfigInfo::rpf));
  RpfConfigInfo() = default;
  explicit RpfConfigInfo(const Rpf& r) : rpf(r) {}
  RpfConfigInfo(const char* begin, const char* end) { Kel::parseValue(begin, end, *this); }
  friend bool operator==(const RpfConfigInfo&, const RpfConfigInfo&) = default;
};
inline std::ostream& operator<<(std::ostream& os, const RpfConfigInfo& r) {
  return os << Kel::valueToStrep(r);
}

class RpfConfig : public Kel::Entity {
 public:
  using Map = std::unordered_map<RouteKey, RpfConfigInfo, RouteKeyHash>;
  class NotifieeConst : public Kel::BaseNotifiee<const RpfConfig, NotifieeConst> {
   public:
    virtual void onRpfConfigInfo(const RouteKey&) {}
    virtual void onRpfConfigInfo() {}
  };
  void notifieeAdd(NotifieeConst* n) const { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) const { notifiees_.remove(n); }

  explicit RpfConfig(Kel::Name name) : Kel::Entity(std::move(name)) {}
  const Map& rpfConfigInfo() const noexcept { return info_; }
  // The record of key, or null.
  const RpfConfigInfo* rpfConfigInfo(const RouteKey& k) const {
    auto it = info_.find(k);
    return it == info_.end() ? nullptr : &it->second;
  }
  void rpfConfigInfoIs(const RouteKey& k, const RpfConfigInfo& v);
  void rpfConfigInfoDel(const RouteKey& k);
  void rpfConfigInfoDelAll();
  void rpfConfigInfoNotify(const RouteKey& k) const {
    notifiees_.forEach([&](NotifieeConst& n) { n.onRpfConfigInfo(k); });
  }

 private:
  Map info_;
  mutable Kel::NotifieeList<NotifieeConst> notifiees_;
};

class RpfStatus : public Kel::Entity {
 public:
  using AddrMap = std::map<RouteKey, Nimo::IpGenAddr>;  // ordered: reviews resume by key
  using KeySet = std::unordered_set<RouteKey, RouteKeyHash>;
  class NotifieeConst : public Kel::BaseNotifiee<const RpfStatus, NotifieeConst> {
   public:
    virtual void onUnresolvedRoute(const RouteKey&) {}
    virtual void onUnresolvedRoute() {}
    virtual void onUnresolvedRouteImmediate() {}
    virtual void onUnresolvedWcRoute(const RouteKey&) {}
    virtual void onUnresolvedWcRoute() {}
    virtual void onUnresolvedWcRouteImmediate() {}
    virtual void onRpfRouteChanged(const RouteKey&) {}
    virtual void onRpfRouteChanged() {}
    virtual void onRpfRouteChangedCount(const RouteKey&) {}
    virtual void onRpfRouteChangedCount() {}
  };
  // The writable form: the same handlers, for watchers holding the status to write it
  // (an agent draining rpfRouteChanged from its handler).
  class Notifiee : public NotifieeConst {
   public:
    const Kel::Ptr<RpfStatus>& notifierWritable() const noexcept { return writable_; }
    void notifierIs(const Kel::Ptr<RpfStatus>& s) {
      writable_ = s;
      NotifieeConst::notifierIs(s);
    }

   private:
    Kel::Ptr<RpfStatus> writable_;
  };
  void notifieeAdd(NotifieeConst* n) const { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) const { notifiees_.remove(n); }

  explicit RpfStatus(Kel::Name name) : Kel::Entity(std::move(name)) {}

  const AddrMap& unresolvedRoute() const noexcept { return unresolved_; }
  void unresolvedRouteIs(const RouteKey& k, const Nimo::IpGenAddr& target);
  void unresolvedRouteDel(const RouteKey& k);
  void unresolvedRouteDelAll();
  const AddrMap& unresolvedWcRoute() const noexcept { return unresolvedWc_; }
  void unresolvedWcRouteIs(const RouteKey& k, const Nimo::IpGenAddr& rp);
  void unresolvedWcRouteDel(const RouteKey& k);
  void unresolvedWcRouteDelAll();

  const KeySet& rpfRouteChanged() const noexcept { return changed_; }
  bool rpfRouteChangedHas(const RouteKey& k) const { return changed_.count(k) != 0; }
  void rpfRouteChangedIs(const RouteKey& k);
  void rpfRouteChangedDel(const RouteKey& k);
  void rpfRouteChangedDelAll();

  std::uint64_t rpfRouteChangedCount() const noexcept { return count_; }
  void rpfRouteChangedCountInc(const RouteKey& k, std::uint64_t n = 1);
  void rpfRouteChangedCountIs(std::uint64_t n);

 private:
  void addrIs(AddrMap& m, const RouteKey& k, const Nimo::IpGenAddr& a, bool wc);
  void addrDel(AddrMap& m, const RouteKey& k, bool wc);
  void addrDelAll(AddrMap& m, bool wc);
  AddrMap unresolved_;
  AddrMap unresolvedWc_;
  KeySet changed_;
  std::uint64_t count_ = 0;
  mutable Kel::NotifieeList<NotifieeConst> notifiees_;
};

}  // namespace Routing::Pim
