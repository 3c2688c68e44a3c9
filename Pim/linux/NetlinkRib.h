// NetlinkRibSm: mirrors the Linux kernel's routes of one network namespace into a VRF's
// route and FEC tables (Routing::Fib), as their one writer, and follows every change.
//
// Sources. Two netlink sockets in the namespace netNs: an event socket joined to the route,
// next-hop, link and address groups, and a dump socket. Start-up joins the groups first,
// then dumps next-hop objects and routes, then applies what arrived meanwhile. Each message
// is parsed in place with libnl's attribute functions (parseKernelRoute below, RTA_MULTIPATH
// included), translated and dropped: no libnl object or cache holds routes, since a libnl
// route object per message cost more than the rest of the ingest together.
//
// What is published (tables at Routing::ribMountPath(af, vrf), both families):
//   kernel route                                   table    route type (Fib.h codes)
//   RTN_LOCAL (own addresses, 127/8)               "urib"   receive, via (zero, interface)
//   RTN_UNICAST with a gateway                     "urib"   remote, one via per next hop
//   RTN_UNICAST, device only, proto kernel         "urib"   connected
//   RTN_UNICAST, device only, full-length prefix   "urib"   host
//   RTN_UNICAST, device only, otherwise            "urib"   attached
//   blackhole, unreachable, prohibit               "urib"   drop, no vias
// from the local and main kernel tables ("urib"), and from the kernel table mribTable, if
// set, the same way into "mrib". Broadcast, multicast, anycast, throw and NAT routes, TOS
// routes, cached IPv6 clones and other tables are skipped and counted. Preference is 0
// (the kernel has none); metric is the kernel's priority.
//
// The kernel's habits:
// - Several routes per prefix (metrics, or the local table beside main): all are kept, the
//   one the kernel uses is published (local table first, then the lowest metric with a
//   usable next hop); deleting it publishes the next.
// - Dead and linkdown next hops are not vias; a unicast route left without a via is not
//   published (the next candidate is). Link and address changes flush IPv4 routes and set
//   those flags without a route message, so each one schedules a re-dump applied as a
//   difference.
// - An IPv6 RTM_NEWROUTE without NLM_F_REPLACE adds its next hops to the route of the same
//   (table, prefix, metric); RTM_DELROUTE removes the next hops it names, and the route
//   only when none remain.
// - Next-hop objects: a route naming RTA_NH_ID is resolved through the objects (groups
//   expanded, a blackhole object gives a drop route), falling back to the expanded next
//   hops it carries; any next-hop object change re-resolves the routes that name one, since
//   with nexthop_compat_mode 0 a group change notifies no route.
// - ENOBUFS on the event socket (notices lost): counted in overflows(), then a full re-dump
//   applied as a difference. The event socket's buffer is rcvBuf (SO_RCVBUFFORCE as root).
//   Every re-dump first discards what the event socket holds (the dump covers it, and a
//   stale notice whose successor was lost would outlive it). Since the kernel may drop more
//   notices silently while the socket stays congested, a re-dump after an overflow that
//   still finds a difference is followed by another a second later, until one finds none.
// - A next hop on an interface index the directory does not name yet waits (the route is
//   not usable, counted in waiting()) until the interface appears; renames are followed.
//   Interface names come from the IntfStatusDir (e.g. filled by NetlinkIntfStatusSm), so
//   loopbacks are Loopback0, ...
//
// Memory: the kernel's candidates per prefix (next hops as index and address), plus the
// writers' tables; a re-dump holds a second copy of the candidates while it runs. Beyond a
// table's capacity a route is refused and counted by the writer, not queued.
//
// Changes are committed once per batch of messages (FEC table before routes). Notifiees
// hear onRoute(af, rib, prefix) for each prefix whose published record changed, after the
// commit, and onResync() after each re-dump.
//
// Traces: facility "Pim::Linux". Threading: event-loop thread only; the dump blocks the
// loop for the time the kernel takes to dump (this runs in its own process, tools/ribd).
//
// Usage:
//   auto dir = Kel::Ptr<Interface::IntfStatusDir>::make("intf");
//   auto intfs = Interface::netlinkIntfStatusSmFactory(dir, loop, "red");
//   Routing::NetlinkRibConfig c;
//   c.vrf = "default";
//   c.netNs = "red";
//   c.mribTable = 100;                       // `ip route add table 100 ...` is the MRIB
//   auto rib = Routing::netlinkRibSmFactory(c, dir, loop);
//   if (!rib->ok()) ...;                     // namespace, netlink or tables refused (traced)
//   loop.run();                              // tables follow `ip route`
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/System.h"
#include "Pim/platform/Ulm.h"
#include "Pim/platform/routing/Fib.h"

struct nl_sock;
struct nlmsghdr;

namespace Routing {

// One kernel route message (RTM_NEWROUTE or RTM_DELROUTE) as the adapter reads it.
struct KernelRoute {
  struct Nexthop {
    Nimo::IpGenAddr gateway;  // unset: device only
    std::uint32_t ifIndex = 0;
    std::uint32_t flags = 0;  // RTNH_F_DEAD and RTNH_F_LINKDOWN only
    friend bool operator==(const Nexthop&, const Nexthop&) = default;
    friend auto operator<=>(const Nexthop&, const Nexthop&) = default;
  };
  Nimo::IpGenPrefix prefix;  // masked
  std::uint32_t table = 0;
  std::uint32_t metric = 0;
  std::uint32_t nhId = 0;  // RTA_NH_ID; 0: none
  std::uint8_t type = 0;   // RTN_*
  std::uint8_t protocol = 0;
  std::uint8_t tos = 0;
  std::uint32_t flags = 0;  // rtm_flags
  // Sorted. Next hops through a gateway of the other family (RTA_VIA) are left out: they
  // make no via of this family.
  std::vector<Nexthop> nhs;
};

// One next-hop object message (RTM_NEWNEXTHOP or RTM_DELNEXTHOP).
struct KernelNexthopObject {
  std::uint32_t id = 0;
  KernelRoute::Nexthop nh;  // flags: nh_flags whole
  bool blackhole = false;
  std::vector<std::uint32_t> group;  // member ids; empty: a single next hop
  friend bool operator==(const KernelNexthopObject&, const KernelNexthopObject&) = default;
};

// Parse h (its nlmsg_len bytes must be readable) into *out, reusing out's storage. 0, or
// a negative libnl error code (NLE_*) when the message is malformed (a route: or of a
// family other than IPv4 and IPv6).
int parseKernelRoute(nlmsghdr* h, KernelRoute* out);
int parseKernelNexthop(nlmsghdr* h, KernelNexthopObject* out);

// Word-wise: the byte-wise IpGenAddr::hash was a tenth of the ingest.
struct PrefixHash {
  std::size_t operator()(const Nimo::IpGenPrefix& p) const noexcept {
    std::uint64_t w[2];
    std::memcpy(w, p.address().bytes(), sizeof w);
    const std::uint64_t h =
        (w[0] * 0x9e3779b97f4a7c15u) ^ (w[1] * 0xc2b2ae3d27d4eb4fu) ^ p.maskLen();
    return static_cast<std::size_t>(h ^ (h >> 32));
  }
};

// Prefix -> V in one open-addressing array (linear probing, erase by backward shift): the
// adapter's per-prefix state without a node allocation and a pointer chase per route, which
// a node-based map cost at every ingest step. Beside the entries, one byte per slot: zero
// when free, else 0x80 and seven bits of the key's hash, so that a probe passes most
// occupied slots without touching their entry (a cache miss each, which led the ingest
// profile). Inserting invalidates iterators and references; erasing moves entries.
template <typename V>
class PrefixMap {
 public:
  using value_type = std::pair<Nimo::IpGenPrefix, V>;
  class const_iterator {
   public:
    const value_type& operator*() const { return m_->slots_[i_]; }
    const value_type* operator->() const { return &m_->slots_[i_]; }
    const_iterator& operator++() {
      i_ = m_->next(i_ + 1);
      return *this;
    }
    friend bool operator==(const const_iterator&, const const_iterator&) = default;

   private:
    friend class PrefixMap;
    const_iterator(const PrefixMap* m, std::size_t i) : m_(m), i_(i) {}
    const PrefixMap* m_ = nullptr;
    std::size_t i_ = 0;
  };

  const_iterator begin() const { return {this, next(0)}; }
  const_iterator end() const { return {this, slots_.size()}; }
  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  const_iterator find(const Nimo::IpGenPrefix& k) const {
    if (size_ == 0) return end();
    const std::size_t i = probe(k, PrefixHash()(k));
    return {this, used_[i] ? i : slots_.size()};
  }
  std::size_t count(const Nimo::IpGenPrefix& k) const { return find(k) != end(); }
  V& operator[](const Nimo::IpGenPrefix& k) {
    if ((size_ + 1) * 8 > slots_.size() * 7) rehash(std::max<std::size_t>(16, slots_.size() * 2));
    const std::size_t h = PrefixHash()(k);
    const std::size_t i = probe(k, h);
    if (!used_[i]) {
      used_[i] = tag(h);
      slots_[i].first = k;
      ++size_;
    }
    return slots_[i].second;
  }
  bool erase(const Nimo::IpGenPrefix& k) {
    if (size_ == 0) return false;
    std::size_t hole = probe(k, PrefixHash()(k));
    if (!used_[hole]) return false;
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t j = (hole + 1) & mask; used_[j]; j = (j + 1) & mask) {
      // j's entry fills the hole unless its home slot lies cyclically in (hole, j].
      if (((j - bucket(PrefixHash()(slots_[j].first))) & mask) >= ((j - hole) & mask)) {
        slots_[hole] = std::move(slots_[j]);
        used_[hole] = used_[j];
        hole = j;
      }
    }
    used_[hole] = 0;
    slots_[hole] = value_type{};
    --size_;
    return true;
  }
  void reserve(std::size_t n) {
    std::size_t want = 16;
    while (want * 7 < n * 8) want *= 2;
    if (want > slots_.size()) rehash(want);
  }
  void swap(PrefixMap& o) noexcept {
    slots_.swap(o.slots_);
    used_.swap(o.used_);
    std::swap(size_, o.size_);
    std::swap(shift_, o.shift_);
  }

 private:
  std::size_t bucket(std::size_t h) const noexcept {
    return static_cast<std::size_t>((h * 0x9e3779b97f4a7c15u) >> shift_);
  }
  static std::uint8_t tag(std::size_t h) noexcept { return static_cast<std::uint8_t>(0x80 | h); }
  // k's slot, else the free slot that ends its probe path; h: k's PrefixHash.
  std::size_t probe(const Nimo::IpGenPrefix& k, std::size_t h) const noexcept {
    const std::size_t mask = slots_.size() - 1;
    const std::uint8_t t = tag(h);
    std::size_t i = bucket(h);
    while (used_[i] && !(used_[i] == t && slots_[i].first == k)) i = (i + 1) & mask;
    return i;
  }
  std::size_t next(std::size_t i) const noexcept {
    while (i < used_.size() && !used_[i]) ++i;
    return i < used_.size() ? i : slots_.size();
  }
  void rehash(std::size_t n) {  // n: a power of two
    std::vector<value_type> old;
    std::vector<std::uint8_t> oldUsed(n, 0);
    old.resize(n);
    old.swap(slots_);
    oldUsed.swap(used_);
    shift_ = 64;
    for (std::size_t s = n; s > 1; s >>= 1) --shift_;
    for (std::size_t i = 0; i < old.size(); ++i) {
      if (!oldUsed[i]) continue;
      const std::size_t at = probe(old[i].first, PrefixHash()(old[i].first));
      used_[at] = oldUsed[i];
      slots_[at] = std::move(old[i]);
    }
  }

  std::vector<value_type> slots_;
  std::vector<std::uint8_t> used_;
  std::size_t size_ = 0;
  unsigned shift_ = 64;
};

struct NetlinkRibConfig {
  std::string vrf = "default";
  Nimo::NamespaceName netNs;          // empty: the caller's namespace
  std::uint32_t mribTable = 0;        // kernel table mirrored as the multicast RIB; 0: none
  std::uint32_t maxRoutes = 1 << 21;  // per RIB and family
  std::uint32_t maxFecParts = 1 << 18;
  int rcvBuf = 64 << 20;  // event socket receive buffer, bytes
  Kel::Time fecGrace = 2.0;
};

enum class RibKind : std::uint8_t { unicast, multicast };

class NetlinkRibSm : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<NetlinkRibSm, NotifieeConst> {
   public:
    virtual void onRoute(Nimo::AddressFamily, RibKind, const Nimo::IpGenPrefix&) {}
    virtual void onResync() {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  NetlinkRibSm(const NetlinkRibConfig& config, Kel::Ptr<Interface::IntfStatusDir> dir,
               Ulm::EventLoop& loop);
  ~NetlinkRibSm() override;
  NetlinkRibSm(const NetlinkRibSm&) = delete;
  NetlinkRibSm& operator=(const NetlinkRibSm&) = delete;

  bool ok() const noexcept { return ok_; }
  const NetlinkRibConfig& config() const noexcept { return config_; }

  // The writers (null for a multicast RIB without mribTable).
  Fib::RouteWriter* urib() const noexcept { return v4_.rib[0].ptr(); }
  Fib::RouteWriter* mrib() const noexcept { return v4_.rib[1].ptr(); }
  Routing6::Fib::RouteWriter* urib6() const noexcept { return v6_.rib[0].ptr(); }
  Routing6::Fib::RouteWriter* mrib6() const noexcept { return v6_.rib[1].ptr(); }

  // Counters.
  std::uint64_t resyncs() const noexcept { return resyncs_; }      // full re-dumps done
  std::uint64_t overflows() const noexcept { return overflows_; }  // ENOBUFS seen
  std::uint64_t skipped() const noexcept { return skipped_; }      // messages not mirrored
  std::uint64_t messages() const noexcept { return messages_; }    // route/next-hop messages
  std::uint64_t refused() const noexcept;                          // writers' refusals
  // Prefixes whose only candidates wait for an interface name.
  std::size_t waiting() const noexcept { return v4_.waitingSet.size() + v6_.waitingSet.size(); }
  // Kernel routes held (every table mirrored, every candidate).
  std::size_t kernelRoutes() const noexcept;

  // Reads what the event socket holds and applies it; run by the loop.
  void handleNetlink();
  // Re-dumps the kernel's next-hop objects and routes and applies the difference.
  void resync();

 private:
  using Nh = KernelRoute::Nexthop;
  // One kernel route: a candidate for its prefix.
  struct Entry {
    std::uint32_t table = 0;
    std::uint32_t metric = 0;
    std::uint32_t nhId = 0;
    std::uint8_t type = 0;
    std::uint8_t protocol = 0;
    std::vector<Nh> nhs;
    friend bool operator==(const Entry&, const Entry&) = default;
  };
  using Slot = std::vector<Entry>;  // a prefix's candidates, a handful at most
  using Kernel = PrefixMap<Slot>;
  using NhObject = KernelNexthopObject;
  template <Nimo::AddressFamily F>
  struct Family {
    Kel::Ptr<FecWriterGen<F>> fecs;
    Kel::Ptr<RouteWriterGen<F>> rib[2];  // unicast, multicast
    Kernel kernel;
    std::unordered_set<Nimo::IpGenPrefix, PrefixHash> withNhId;    // prefixes naming an object
    std::unordered_set<Nimo::IpGenPrefix, PrefixHash> waitingSet;  // no usable candidate yet
    std::vector<ViaGen<F>> vias;                                   // scratch
    std::vector<const Entry*> order;                               // scratch
  };
  struct DirWatch : Interface::IntfStatusDir::NotifieeConst {
    NetlinkRibSm* owner = nullptr;
    void onIntfStatus(const Nimo::IntfId&) override;
  };

  bool openSockets();
  bool dump(std::uint16_t type, std::uint8_t family, const std::function<void(nlmsghdr*)>& each);
  void dispatch(nlmsghdr* h, bool fromDump);
  void applyRoute(nlmsghdr* h, bool fromDump);
  void applyNexthop(nlmsghdr* h);
  template <Nimo::AddressFamily F>
  void publish(Family<F>& fam, const Nimo::IpGenPrefix& p);
  // The same, given p's candidates (null: none).
  template <Nimo::AddressFamily F>
  void publish(Family<F>& fam, const Nimo::IpGenPrefix& p, const Slot* slot);
  template <Nimo::AddressFamily F>
  std::size_t publishAll(Family<F>& fam, const Kernel& before);
  template <Nimo::AddressFamily F>
  void republishNhRoutes(Family<F>& fam);
  template <Nimo::AddressFamily F>
  bool resolve(Family<F>& fam, const Entry& e, bool hostPrefix,
               typename FamilyTraits<F>::RouteType* type, bool* waits);
  void rebuildNames();
  void finishBatch();
  void notifyRoute(Nimo::AddressFamily af, RibKind rib, const Nimo::IpGenPrefix& p);

  NetlinkRibConfig config_;
  Kel::Ptr<Interface::IntfStatusDir> dir_;
  Ulm::EventLoop& loop_;
  nl_sock* events_ = nullptr;
  nl_sock* dumps_ = nullptr;
  std::uint32_t dumpSeq_ = 0;
  bool ok_ = false;
  Family<Nimo::AddressFamily::ipv4> v4_;
  Family<Nimo::AddressFamily::ipv6> v6_;
  std::unordered_map<std::uint32_t, NhObject> nhObjects_;
  std::unordered_map<std::uint32_t, Nimo::IntfId> names_;
  DirWatch dirWatch_;
  Ulm::Timer deferred_;  // a re-dump or a re-resolution asked for during a batch
  bool resyncWanted_ = false;
  bool renameWanted_ = false;
  bool nhChanged_ = false;
  bool recovering_ = false;  // since an overflow, until a re-dump finds no difference
  struct Changed {
    Nimo::AddressFamily af;
    RibKind rib;
    Nimo::IpGenPrefix prefix;
  };
  std::vector<Changed> changed_;
  std::vector<std::uint8_t> buf_;
  KernelRoute parsed_;  // scratch
  std::uint64_t resyncs_ = 0, overflows_ = 0, skipped_ = 0, messages_ = 0;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

Kel::Ptr<NetlinkRibSm> netlinkRibSmFactory(const NetlinkRibConfig& config,
                                           Kel::Ptr<Interface::IntfStatusDir> dir,
                                           Ulm::EventLoop& loop);

}  // namespace Routing
