// Routing::Fib / Routing6::Fib: the route and FEC records that routing agents publish in
// shared memory, their writer, and a text loader for tests and benches.
//
// Records (trivially copyable, Drobe collections):
// - Via: one next hop, (hop address, interface). IPv4 and IPv6 are distinct types.
// - Route: prefix (masked, the table key), FEC id, route type, metric, preference.
// - FecPart: a FEC is stored as parts of kViasPerPart vias keyed by (FEC id, part); every
//   part repeats the FEC's via count. A FEC holds at most kMaxVias vias, so a table can
//   carry more than any reader accepts (the RPF lookup takes 512 and refuses more).
//
// Route types: the numeric codes are the platform's and differ between the families.
//   IPv4 Routing::Fib::RouteType    IPv6 Routing6::Fib::RouteType
//     1 receive (own address)         1 receive
//     2 remote  (via a gateway)       2 remote
//     3 drop    (no vias, covers)     3 connected
//     4 receiveBcast                  4 host
//     5 connected                     5 drop
//     7 host                          7 attached
//     11 attached
// The kernel adapter (Pim/linux/NetlinkRib.h) maps the kernel's routes so: RTN_LOCAL ->
// receive; a route through a gateway -> remote; a device-only route of proto kernel ->
// connected; other device-only routes -> attached, or host when the prefix is a
// full-length host prefix; blackhole, unreachable and prohibit -> drop.
//
// Mount paths (one table set per VRF and family): "routing/rib/<vrf>" (IPv6
// "routing6/rib/<vrf>") with the collections "urib" and "mrib" (routes) sharing "fec", and
// "mcrib" with its own "mcfec".
//
// Publication rules (FibWriter, RouteWriter):
// - A FEC is committed before any route names it: RouteWriter::commit() commits its FEC
//   table first.
// - A FEC never changes. A set of vias is a FEC id, found by content (the vias sorted and
//   de-duplicated), so a million routes over a few next-hop sets share a few FECs, and a
//   route whose next hops change gets a new record (another FEC id). The id is a hash of
//   the content (the next free one on a collision), so a restarted writer publishing the
//   same routes publishes the same records.
// - A FEC that no route names any more is deleted only grace seconds after it was last
//   released (checked at each commit), so a reader between its route fetch and its FEC
//   fetch never misses it.
// - A refused insert (table at its maximum) is traced (facility "Routing", level 1) and
//   counted in refused(); the route keeps its previous record, or stays absent.
//
// Threading: event-loop thread only; no locks.
//
// Usage:
//   auto fecs = Routing::Fib::FecWriter::create("routing/rib/default", "fec", 1 << 16);
//   auto urib = Routing::Fib::RouteWriter::create("routing/rib/default", "urib", fecs, 1 << 20);
//   Routing::Fib::Via v[] = {{Nimo::IpGenAddr("192.0.2.1"), Nimo::IntfId("Ethernet1")}};
//   urib->routeIs(Nimo::IpGenPrefix("10.0.0.0/8"), Routing::Fib::RouteType::remote, 0, 1, v);
//   urib->commit();
#pragma once

#include <cstdint>
#include <istream>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Pim/platform/Drobe.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"

namespace Routing {

Flicklog::Facility& routingTrace();

// The families' route types; the tables of the header comment.
namespace Fib {
enum class RouteType : std::uint8_t {
  invalid = 0,
  receive = 1,
  remote = 2,
  drop = 3,
  receiveBcast = 4,
  connected = 5,
  host = 7,
  attached = 11,
};
}  // namespace Fib

}  // namespace Routing

namespace Routing6::Fib {
enum class RouteType : std::uint8_t {
  invalid = 0,
  receive = 1,
  remote = 2,
  connected = 3,
  host = 4,
  drop = 5,
  attached = 7,
};
}  // namespace Routing6::Fib

namespace Routing {

template <Nimo::AddressFamily F>
struct FamilyTraits;
template <>
struct FamilyTraits<Nimo::AddressFamily::ipv4> {
  using RouteType = Fib::RouteType;
  static constexpr std::uint8_t kBits = 32;
  static constexpr std::string_view kRoot = "routing";
};
template <>
struct FamilyTraits<Nimo::AddressFamily::ipv6> {
  using RouteType = Routing6::Fib::RouteType;
  static constexpr std::uint8_t kBits = 128;
  static constexpr std::string_view kRoot = "routing6";
};

template <Nimo::AddressFamily F>
struct ViaGen {
  Nimo::IpGenAddr hop;
  Nimo::IntfId intfId;

  static constexpr auto kFields =
      std::make_tuple(Kel::field("hop", &ViaGen::hop), Kel::field("intfId", &ViaGen::intfId));
  std::uint32_t hash() const noexcept { return hop.hash() * 0x9e3779b1u ^ intfId.hash(); }
  friend bool operator==(const ViaGen&, const ViaGen&) = default;
  // Hop first: the canonical order of a FEC's vias.
  friend auto operator<=>(const ViaGen& a, const ViaGen& b) noexcept {
    if (auto c = a.hop <=> b.hop; c != 0) return c;
    return a.intfId <=> b.intfId;
  }
};

template <Nimo::AddressFamily F>
struct RouteGen {
  using RouteType = typename FamilyTraits<F>::RouteType;
  Nimo::IpGenPrefix prefix;  // masked
  std::uint32_t fecId = 0;   // 0: no vias (a drop route)
  std::uint32_t metric = 0;
  std::uint8_t preference = 0;
  RouteType routeType = RouteType::invalid;

  static constexpr auto kFields = std::make_tuple(
      Kel::field("prefix", &RouteGen::prefix), Kel::field("fecId", &RouteGen::fecId),
      Kel::field("metric", &RouteGen::metric), Kel::field("preference", &RouteGen::preference),
      Kel::field("routeType", &RouteGen::routeType));
  const Nimo::IpGenPrefix& key() const noexcept { return prefix; }
  friend bool operator==(const RouteGen&, const RouteGen&) = default;
};

struct FecKey {
  std::uint32_t id = 0;
  std::uint32_t part = 0;
  static constexpr auto kFields =
      std::make_tuple(Kel::field("id", &FecKey::id), Kel::field("part", &FecKey::part));
  std::uint32_t hash() const noexcept {
    std::uint32_t h = id * 0x9e3779b1u + part * 0x85ebca6bu;
    h ^= h >> 16;
    h *= 0x7feb352du;
    return h ^ (h >> 15);
  }
  friend bool operator==(const FecKey&, const FecKey&) = default;
};

inline constexpr std::uint32_t kViasPerPart = 8;
inline constexpr std::uint32_t kMaxVias = 1024;

template <Nimo::AddressFamily F>
struct FecPartGen {
  FecKey fecKey;
  std::uint32_t viaCount = 0;  // vias of the whole FEC
  // Keeps the via array 8-aligned: g++ 12's __builtin_clear_padding (run by every Drobe
  // commit) zeroes the first via's family byte when the array starts at offset 12.
  std::uint32_t reserved = 0;
  ViaGen<F> via[kViasPerPart] = {};

  static constexpr auto kFields = std::make_tuple(
      Kel::field("fecKey", &FecPartGen::fecKey), Kel::field("viaCount", &FecPartGen::viaCount),
      Kel::field("reserved", &FecPartGen::reserved), Kel::field("via", &FecPartGen::via));
  const FecKey& key() const noexcept { return fecKey; }
  friend bool operator==(const FecPartGen& a, const FecPartGen& b) noexcept {
    return std::memcmp(&a, &b, sizeof a) == 0;
  }
};

// The mount path of a VRF's RIB tables: "routing/rib/<vrf>" or "routing6/rib/<vrf>".
std::string ribMountPath(Nimo::AddressFamily af, std::string_view vrf);

// FEC table writer: content-addressed, reference-counted, deleted after a grace period.
template <Nimo::AddressFamily F>
class FecWriterGen : public Kel::PtrInterface {
 public:
  using Via = ViaGen<F>;
  using Part = FecPartGen<F>;
  using Table = Drobe::Writer<FecKey, Part>;

  // maxVias: the table grows to hold that many vias' parts. Null if the mount fails.
  static Kel::Ptr<FecWriterGen> create(std::string_view path, std::string_view name,
                                       std::uint32_t maxParts, Kel::Ptr<Kel::Clock> clock = {},
                                       Kel::Time grace = 2.0);

  // The FEC id of this via set (sorted, de-duplicated by the caller), published if new, with
  // one reference taken; 0 when the set is empty; nullopt (traced, counted) when refused.
  std::optional<std::uint32_t> acquire(std::span<const Via> vias);
  void release(std::uint32_t id);
  // Commits the FEC table; deletes FECs whose grace has run out.
  void commit();

  const Table& table() const noexcept { return *table_; }
  std::size_t fecCount() const noexcept { return byId_.size(); }
  std::uint64_t refused() const noexcept { return refused_; }

 private:
  struct Fec {
    std::vector<Via> vias;
    std::uint32_t refs = 0;
    Kel::Time releasedAt = 0;
  };
  struct ViasHash {
    std::size_t operator()(const std::vector<Via>& v) const noexcept {
      std::size_t h = v.size();
      for (const Via& x : v) h = h * 1000003u ^ x.hash();
      return h;
    }
  };
  FecWriterGen(Kel::Ptr<Table> t, Kel::Ptr<Kel::Clock> clock, Kel::Time grace);
  void erase(std::uint32_t id);

  Kel::Ptr<Table> table_;
  Kel::Ptr<Kel::Clock> clock_;
  Kel::Time grace_;
  std::unordered_map<std::vector<Via>, std::uint32_t, ViasHash> byContent_;
  std::vector<Via> key_;  // acquire's look-up key, reused
  std::unordered_map<std::uint32_t, Fec> byId_;
  // The FEC acquire found or made last (null once erased): routes come in runs over the
  // same next hops, and a run then costs one compare per route instead of two look-ups.
  std::uint32_t lastId_ = 0;
  Fec* last_ = nullptr;
  std::vector<std::uint32_t> unreferenced_;  // ids whose refs dropped to 0, oldest first
  std::uint64_t refused_ = 0;
};

// Route table writer of one RIB over a (possibly shared) FEC writer.
template <Nimo::AddressFamily F>
class RouteWriterGen : public Kel::PtrInterface {
 public:
  using Via = ViaGen<F>;
  using Route = RouteGen<F>;
  using RouteType = typename FamilyTraits<F>::RouteType;
  using Table = Drobe::Writer<Nimo::IpGenPrefix, Route>;

  static Kel::Ptr<RouteWriterGen> create(std::string_view path, std::string_view name,
                                         Kel::Ptr<FecWriterGen<F>> fecs, std::uint32_t maxRoutes);

  // Inserts or replaces the route of prefix (masked here). False when refused; *changed
  // (if given) says whether the record differs from the one it replaced.
  bool routeIs(const Nimo::IpGenPrefix& prefix, RouteType type, std::uint32_t metric,
               std::uint8_t preference, std::span<const Via> vias, bool* changed = nullptr);
  bool routeDel(const Nimo::IpGenPrefix& prefix);
  // Room for this many routes now (a writer about to load a table it has counted).
  void reserve(std::uint32_t routes) { table_->reserve(routes); }
  // Commits the FEC table, then the routes.
  void commit();

  const Table& table() const noexcept { return *table_; }
  FecWriterGen<F>& fecs() noexcept { return *fecs_; }
  std::uint64_t refused() const noexcept { return refused_; }

 private:
  RouteWriterGen(Kel::Ptr<Table> t, Kel::Ptr<FecWriterGen<F>> fecs)
      : table_(std::move(t)), fecs_(std::move(fecs)) {}
  Kel::Ptr<Table> table_;
  Kel::Ptr<FecWriterGen<F>> fecs_;
  std::vector<Via> scratch_;
  std::uint64_t refused_ = 0;
};

// Reads routes from text into a writer, one route per line:
//   <prefix> <type> <metric> <preference> [<hop>@<interface> ...]
// type is the numeric route-type code; '#' starts a comment. Returns the routes loaded;
// malformed lines are traced and counted in *errors.
template <Nimo::AddressFamily F>
std::size_t loadRoutes(RouteWriterGen<F>& w, std::istream& in, std::size_t* errors = nullptr);

namespace Fib {
using Via = ViaGen<Nimo::AddressFamily::ipv4>;
using Route = RouteGen<Nimo::AddressFamily::ipv4>;
using FecPart = FecPartGen<Nimo::AddressFamily::ipv4>;
using FecWriter = FecWriterGen<Nimo::AddressFamily::ipv4>;
using RouteWriter = RouteWriterGen<Nimo::AddressFamily::ipv4>;
}  // namespace Fib

}  // namespace Routing

namespace Routing6::Fib {
using Via = Routing::ViaGen<Nimo::AddressFamily::ipv6>;
using Route = Routing::RouteGen<Nimo::AddressFamily::ipv6>;
using FecPart = Routing::FecPartGen<Nimo::AddressFamily::ipv6>;
using FecWriter = Routing::FecWriterGen<Nimo::AddressFamily::ipv6>;
using RouteWriter = Routing::RouteWriterGen<Nimo::AddressFamily::ipv6>;
}  // namespace Routing6::Fib

namespace Routing::Multicast::Fib {

// Multicast forwarding configuration: how the RPF lookup chooses among equal-cost vias.
class Config : public Kel::Entity {
 public:
  enum class MultipathControl : std::uint8_t { hash = 0, highestNexthop = 1 };
  class NotifieeConst : public Kel::BaseNotifiee<Config, NotifieeConst> {
   public:
    virtual void onMultipathControl() {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  explicit Config(Kel::Name name) : Kel::Entity(std::move(name)) {}
  MultipathControl multipathControl() const noexcept { return multipathControl_; }
  void multipathControlIs(MultipathControl m) {
    if (m == multipathControl_) return;
    multipathControl_ = m;
    notifiees_.forEach([](NotifieeConst& n) { n.onMultipathControl(); });
  }

 private:
  MultipathControl multipathControl_ = MultipathControl::hash;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

}  // namespace Routing::Multicast::Fib
