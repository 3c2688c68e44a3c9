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
// Containers: each source collection is a sorted flat vector (SourceSet), 24 bytes a
// source. A message is read in wire order; when that is ascending (our writer's order),
// inserting is an append after one comparison, otherwise a binary search and a move. The
// writer drains a collection from a position onwards in one erase. A node per source
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

// One source of a set. The address is kept as 16 bytes ahead of its family, so that the
// next insertion compares against exactly what the last one stored (an IpGenAddr there
// would put the bytes at an odd offset, and reading them back stalls on every source).
class SourceEntry {
 public:
  // A slot for insertWire to fill, left unwritten: zeroing it first would cost as much
  // again as filling it.
  SourceEntry() noexcept {}
  SourceEntry(const Nimo::IpGenAddr& a, bool suppressed) noexcept
      : af_(a.af()), suppressed_(suppressed) {
    std::memcpy(bytes_, a.bytes(), sizeof bytes_);
  }
  // From N address bytes in network order, unmarked.
  template <std::size_t N>
  SourceEntry(Nimo::AddressFamily af, const std::uint8_t* wire,
              std::integral_constant<std::size_t, N>) noexcept
      : af_(af), suppressed_(false) {
    // Whole words, so that no narrower store overlaps a wider one.
    std::uint64_t w[2] = {0, 0};
    if constexpr (N == 4) {
      std::uint32_t v;
      std::memcpy(&v, wire, 4);
      w[0] = v;
    } else {
      std::memcpy(w, wire, 16);
    }
    std::memcpy(bytes_, w, 16);
  }
  Nimo::IpGenAddr address() const noexcept { return Nimo::IpGenAddr(af_, bytes_); }
  // The address without making an IpGenAddr: 16 bytes, zero past the family's width.
  Nimo::AddressFamily af() const noexcept { return af_; }
  const std::uint8_t* bytes() const noexcept { return bytes_; }
  bool suppressed() const noexcept { return suppressed_; }
  friend bool operator==(const SourceEntry& a, const SourceEntry& b) noexcept {
    return a.af_ == b.af_ && a.suppressed_ == b.suppressed_ &&
           std::memcmp(a.bytes_, b.bytes_, sizeof a.bytes_) == 0;
  }

 private:
  friend class SourceSet;
  // Family, then bytes as a big-endian number: IpGenAddr's order.
  static bool less(Nimo::AddressFamily af, const std::uint8_t* b, Nimo::AddressFamily otherAf,
                   const std::uint8_t* other) noexcept {
    if (af != otherAf) return af < otherAf;
    std::uint64_t x[2], y[2];
    std::memcpy(x, b, 16);
    std::memcpy(y, other, 16);
    const std::uint64_t x0 = __builtin_bswap64(x[0]), y0 = __builtin_bswap64(y[0]);
    if (x0 != y0) return x0 < y0;
    return __builtin_bswap64(x[1]) < __builtin_bswap64(y[1]);
  }
  bool less(const Nimo::IpGenAddr& a) const noexcept {
    return less(af_, bytes_, a.af(), a.bytes());
  }
  bool less(const SourceEntry& o) const noexcept { return less(af_, bytes_, o.af_, o.bytes_); }
  bool is(const Nimo::IpGenAddr& a) const noexcept {
    return af_ == a.af() && std::memcmp(bytes_, a.bytes(), sizeof bytes_) == 0;
  }
  bool is(const SourceEntry& o) const noexcept {
    return af_ == o.af_ && std::memcmp(bytes_, o.bytes_, sizeof bytes_) == 0;
  }
  alignas(8) std::uint8_t bytes_[16];
  Nimo::AddressFamily af_;
  bool suppressed_;
};

// A set of sources kept as a sorted vector. An insertion out of order is appended and the
// vector sorted (duplicates dropped, the first kept) on the next lookup or walk: a message
// whose sources come in descending order then costs one sort, not a move per source.
class SourceSet {
 public:
  using const_iterator = std::vector<SourceEntry>::const_iterator;

  std::size_t size() const noexcept { return settled().size(); }
  bool empty() const noexcept { return v_.empty(); }
  const_iterator begin() const noexcept { return settled().begin(); }
  const_iterator end() const noexcept { return settled().end(); }
  const SourceEntry& operator[](std::size_t i) const noexcept { return settled()[i]; }
  void reserve(std::size_t n) { v_.reserve(n); }

  // An address already there stays as it is (suppression mark included).
  void insert(const Nimo::IpGenAddr& a) {
    if (!v_.empty()) {
      if (v_.back().is(a)) return;
      if (!v_.back().less(a)) sorted_ = false;
    }
    v_.push_back(SourceEntry(a, false));
  }
  // Appends count addresses of family af that lie every stride bytes from first, in
  // network order, with the outcome of as many insert() calls: the receive path's form,
  // which compares each address with the one before it on the wire rather than with the
  // entry just stored (reading that back would wait on the store).
  void insertWire(Nimo::AddressFamily af, const std::uint8_t* first, std::size_t count,
                  std::size_t stride) {
    if (af == Nimo::AddressFamily::ipv4) {
      insertWire<4>(af, first, count, stride);
    } else {
      insertWire<16>(af, first, count, stride);
    }
  }
  bool erase(const Nimo::IpGenAddr& a) noexcept {
    if (v_.empty()) return false;
    auto it = lower(a);
    if (it == v_.end() || !it->is(a)) return false;
    v_.erase(it);
    return true;
  }
  // Removes the entries [first, last) by index.
  void eraseRange(std::size_t first, std::size_t last) noexcept {
    settled();
    v_.erase(v_.begin() + static_cast<std::ptrdiff_t>(first),
             v_.begin() + static_cast<std::ptrdiff_t>(last));
  }
  void clear() noexcept {
    v_.clear();
    sorted_ = true;
  }
  bool contains(const Nimo::IpGenAddr& a) const noexcept { return find(a) != nullptr; }
  const SourceEntry* find(const Nimo::IpGenAddr& a) const noexcept {
    if (v_.empty()) return nullptr;
    auto it = const_cast<SourceSet*>(this)->lower(a);
    return it != v_.end() && it->is(a) ? &*it : nullptr;
  }
  // Index of the first entry not below a.
  std::size_t lowerBound(const Nimo::IpGenAddr& a) const noexcept {
    return static_cast<std::size_t>(const_cast<SourceSet*>(this)->lower(a) - v_.begin());
  }
  bool suppressedIs(const Nimo::IpGenAddr& a, bool s) noexcept {
    auto it = lower(a);
    if (it == v_.end() || !it->is(a)) return false;
    it->suppressed_ = s;
    return true;
  }
  friend bool operator==(const SourceSet& a, const SourceSet& b) noexcept {
    return a.settled() == b.settled();
  }

 private:
  // Sorts without allocating. Of equal addresses the first is kept, and it carries the
  // suppression mark if any does: appended repeats are never marked, so that is the mark
  // of the entry that was there first.
  const std::vector<SourceEntry>& settled() const noexcept {
    if (!sorted_) {
      std::sort(v_.begin(), v_.end(), [](const SourceEntry& x, const SourceEntry& y) {
        if (x.is(y)) return x.suppressed_ && !y.suppressed_;
        return x.less(y);
      });
      v_.erase(std::unique(v_.begin(), v_.end(),
                           [](const SourceEntry& x, const SourceEntry& y) { return x.is(y); }),
               v_.end());
      sorted_ = true;
    }
    return v_;
  }
  // A wire address as a number that orders like its bytes.
  template <std::size_t N>
  static std::pair<std::uint64_t, std::uint64_t> wireKey(const std::uint8_t* p) noexcept {
    if constexpr (N == 4) {
      return {Nimo::load32(p), 0};
    } else {
      std::uint64_t x[2];
      std::memcpy(x, p, 16);
      return {__builtin_bswap64(x[0]), __builtin_bswap64(x[1])};
    }
  }
  // Written through a pointer into slots made beforehand: a vector's own append would
  // reload its end after every byte store, which may alias it.
  template <std::size_t N>
  void insertWire(Nimo::AddressFamily af, const std::uint8_t* p, std::size_t count,
                  std::size_t stride) {
    if (count == 0) return;
    const std::size_t old = v_.size();
    v_.resize(old + count);
    SourceEntry* out = v_.data() + old;
    // The first meets the entry stored last; after it, an address dropped as a repeat
    // equals the one before it, so the wire address before stands for the last entry.
    const SourceEntry first(af, p, std::integral_constant<std::size_t, N>());
    bool sorted = sorted_;
    if (old == 0 || !out[-1].is(first)) {
      if (old != 0 && !out[-1].less(first)) sorted = false;
      *out++ = first;
    }
    auto prev = wireKey<N>(p);
    for (std::size_t i = 1; i < count; ++i) {
      p += stride;
      const auto key = wireKey<N>(p);
      if (key == prev) continue;
      sorted &= prev < key;
      *out++ = SourceEntry(af, p, std::integral_constant<std::size_t, N>());
      prev = key;
    }
    v_.resize(static_cast<std::size_t>(out - v_.data()));
    sorted_ = sorted;
  }
  std::vector<SourceEntry>::iterator lower(const Nimo::IpGenAddr& a) noexcept {
    settled();
    return std::lower_bound(
        v_.begin(), v_.end(), a,
        [](const SourceEntry& e, const Nimo::IpGenAddr& x) { return e.less(x); });
  }
  // Mutable: sorting a pending tail changes no value, only its order in memory.
  mutable std::vector<SourceEntry> v_;
  mutable bool sorted_ = true;
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
