// NetlinkRibSm. Inputs: the event socket -> handleNetlink; the interface directory ->
// DirWatch (interface names); deferred_ (timer at "now") -> a re-dump or re-resolution
// asked for while a batch ran.
#include "Pim/linux/NetlinkRib.h"

#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Pim/linux/LinuxTrace.h"
#include "Pim/platform/NetNs.h"

namespace Routing {

namespace {

using PimLinux::linuxTrace;

constexpr std::string_view kNetlinkFailedText = "RIB Netlink - Failed - Error: ";
constexpr std::string_view kTablesFailedText = "RIB Tables - Mount Failed - Path: ";
constexpr std::string_view kDumpFailedText = "RIB Dump - Failed - Error: ";
constexpr std::string_view kOverflowText = "RIB Events - Overflow - Resync";
constexpr std::string_view kParseFailedText = "RIB Route - Parse Failed - Error: ";

constexpr std::uint32_t kUnusable = RTNH_F_DEAD | RTNH_F_LINKDOWN;
constexpr std::size_t kRecvBuffer = 1 << 20;
// Event-socket reads per loop turn: the loop stays responsive under a burst, and the
// level-triggered watch brings us back for the rest.
constexpr int kReadsPerTurn = 256;
// Bounds the discarding read before a re-dump (a socket buffer's worth and more).
constexpr int kDrainReads = 1 << 16;

// An optional 32-bit attribute into *v; false when present but too short to hold one.
bool u32(const nlattr* a, std::uint32_t* v) {
  if (!a) return true;
  if (nla_len(a) < 4) return false;
  *v = nla_get_u32(a);
  return true;
}

// RTNH_ALIGN without its signed mask.
constexpr std::size_t align4(std::size_t n) { return (n + 3) & ~std::size_t{3}; }

template <Nimo::AddressFamily F>
Nimo::IpGenAddr zeroAddr() {
  static const std::uint8_t zeros[16] = {};
  return Nimo::IpGenAddr(F, zeros);
}

std::optional<Nimo::IpGenAddr> addrOf(int family, const void* data, std::size_t len) {
  if (family == AF_INET && len == 4)
    return Nimo::IpGenAddr(Nimo::AddressFamily::ipv4, static_cast<const std::uint8_t*>(data));
  if (family == AF_INET6 && len == 16)
    return Nimo::IpGenAddr(Nimo::AddressFamily::ipv6, static_cast<const std::uint8_t*>(data));
  return std::nullopt;
}

// The kernel uses the local table before main, then the lowest metric.
bool before(std::uint32_t tableA, std::uint32_t metricA, std::uint32_t tableB,
            std::uint32_t metricB) {
  const bool localA = tableA == RT_TABLE_LOCAL, localB = tableB == RT_TABLE_LOCAL;
  if (localA != localB) return localA;
  return metricA < metricB;
}

}  // namespace

NetlinkRibSm::NetlinkRibSm(const NetlinkRibConfig& config, Kel::Ptr<Interface::IntfStatusDir> dir,
                           Ulm::EventLoop& loop)
    : Kel::Entity(Kel::Name("NetlinkRibSm")),
      config_(config),
      dir_(std::move(dir)),
      loop_(loop),
      deferred_(loop.timers(), [this] {
        if (resyncWanted_) {
          resync();
        } else if (renameWanted_) {
          renameWanted_ = false;
          publishAll(v4_, v4_.kernel);
          publishAll(v6_, v6_.kernel);
          finishBatch();
        }
      }) {
  buf_.resize(kRecvBuffer);
  {
    Nimo::NetNsGuard ns(config_.netNs, linuxTrace());
    if (!ns.ok() || !openSockets()) return;
  }
  const auto mount = [&](auto& fam, Nimo::AddressFamily af) {
    using FecW = std::remove_pointer_t<decltype(fam.fecs.ptr())>;
    using RouteW = std::remove_pointer_t<decltype(fam.rib[0].ptr())>;
    const std::string path = ribMountPath(af, config_.vrf);
    fam.fecs = FecW::create(path, "fec", config_.maxFecParts, loop_.clock(), config_.fecGrace);
    if (fam.fecs) fam.rib[0] = RouteW::create(path, "urib", fam.fecs, config_.maxRoutes);
    if (fam.fecs && config_.mribTable != 0)
      fam.rib[1] = RouteW::create(path, "mrib", fam.fecs, config_.maxRoutes);
    const bool mounted = fam.rib[0] && (config_.mribTable == 0 || fam.rib[1]);
    if (!mounted) FLICK_TRACE(linuxTrace(), 1, "{}{}", kTablesFailedText, path);
    return mounted;
  };
  if (!mount(v4_, Nimo::AddressFamily::ipv4) || !mount(v6_, Nimo::AddressFamily::ipv6)) return;
  rebuildNames();
  dirWatch_.owner = this;
  dirWatch_.notifierIs(dir_);
  loop_.watch(nl_socket_get_fd(events_), [this] { handleNetlink(); });
  ok_ = true;
  resync();
}

NetlinkRibSm::~NetlinkRibSm() {
  if (events_) {
    loop_.unwatch(nl_socket_get_fd(events_));
    nl_socket_free(events_);
  }
  if (dumps_) nl_socket_free(dumps_);
}

bool NetlinkRibSm::openSockets() {
  events_ = nl_socket_alloc();
  dumps_ = nl_socket_alloc();
  int err = events_ && dumps_ ? 0 : -NLE_NOMEM;
  if (err == 0) err = nl_connect(events_, NETLINK_ROUTE);
  if (err == 0) err = nl_connect(dumps_, NETLINK_ROUTE);
  // The groups are joined before the first dump, so nothing between the two is missed.
  if (err == 0)
    err =
        nl_socket_add_memberships(events_, RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE, RTNLGRP_NEXTHOP,
                                  RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR, 0);
  if (err == 0) err = nl_socket_set_nonblocking(events_);
  if (err != 0) {
    FLICK_TRACE(linuxTrace(), 1, "{}{}", kNetlinkFailedText, nl_geterror(err));
    return false;
  }
  // A large buffer makes overflow rare; SO_RCVBUFFORCE passes rmem_max as root.
  const int fd = nl_socket_get_fd(events_);
  if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &config_.rcvBuf, sizeof config_.rcvBuf) != 0)
    (void)::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &config_.rcvBuf, sizeof config_.rcvBuf);
  // A dump that stalls must not hang the loop for ever.
  const timeval timeout{5, 0};
  (void)::setsockopt(nl_socket_get_fd(dumps_), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  return true;
}

std::uint64_t NetlinkRibSm::refused() const noexcept {
  std::uint64_t n = 0;
  for (const auto& w : v4_.rib)
    if (w) n += w->refused();
  for (const auto& w : v6_.rib)
    if (w) n += w->refused();
  if (v4_.fecs) n += v4_.fecs->refused();
  if (v6_.fecs) n += v6_.fecs->refused();
  return n;
}

std::size_t NetlinkRibSm::kernelRoutes() const noexcept {
  std::size_t n = 0;
  for (const auto& [p, slot] : v4_.kernel) n += slot.size();
  for (const auto& [p, slot] : v6_.kernel) n += slot.size();
  return n;
}

// --- Reading -----------------------------------------------------------------------------

bool NetlinkRibSm::dump(std::uint16_t type, std::uint8_t family,
                        const std::function<void(nlmsghdr*)>& each) {
  struct {
    nlmsghdr h;
    union {
      rtmsg r;
      nhmsg n;
    };
  } req{};
  // The kernel checks the header length of each request type.
  const std::size_t size = NLMSG_LENGTH(type == RTM_GETNEXTHOP ? sizeof(nhmsg) : sizeof(rtmsg));
  req.h.nlmsg_len = static_cast<std::uint32_t>(size);
  req.h.nlmsg_type = type;
  req.h.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  req.h.nlmsg_seq = ++dumpSeq_;
  req.r.rtm_family = family;  // the first byte of either header
  const int fd = nl_socket_get_fd(dumps_);
  if (::send(fd, &req, size, 0) != static_cast<ssize_t>(size)) {
    FLICK_TRACE(linuxTrace(), 1, "{}{}", kDumpFailedText, errno);
    return false;
  }
  // Bounded by the kernel's NLMSG_DONE, or by the receive timeout.
  for (;;) {
    const ssize_t n = ::recv(fd, buf_.data(), buf_.size(), 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      FLICK_TRACE(linuxTrace(), 1, "{}{}", kDumpFailedText, errno);
      return false;
    }
    auto len = static_cast<int>(n);
    for (auto* h = reinterpret_cast<nlmsghdr*>(buf_.data()); nlmsg_ok(h, len);
         h = nlmsg_next(h, &len)) {
      if (h->nlmsg_seq != dumpSeq_) continue;  // a late answer to an abandoned dump
      if (h->nlmsg_type == NLMSG_DONE) return true;
      if (h->nlmsg_type == NLMSG_ERROR) {
        const auto* e = static_cast<const nlmsgerr*>(nlmsg_data(h));
        FLICK_TRACE(linuxTrace(), 1, "{}{}", kDumpFailedText, -e->error);
        return false;
      }
      each(h);
    }
  }
}

void NetlinkRibSm::handleNetlink() {
  const int fd = nl_socket_get_fd(events_);
  for (int i = 0; i < kReadsPerTurn; ++i) {
    const ssize_t n = ::recv(fd, buf_.data(), buf_.size(), MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == ENOBUFS) {
        // Notices were lost: only a full re-read can tell what changed.
        ++overflows_;
        resyncWanted_ = recovering_ = true;
        FLICK_TRACE(linuxTrace(), 2, "{}", kOverflowText);
        continue;
      }
      break;  // EAGAIN: drained
    }
    auto len = static_cast<int>(n);
    for (auto* h = reinterpret_cast<nlmsghdr*>(buf_.data()); nlmsg_ok(h, len);
         h = nlmsg_next(h, &len))
      dispatch(h, false);
  }
  finishBatch();
}

void NetlinkRibSm::dispatch(nlmsghdr* h, bool fromDump) {
  switch (h->nlmsg_type) {
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
      ++messages_;
      applyRoute(h, fromDump);
      break;
    case RTM_NEWNEXTHOP:
    case RTM_DELNEXTHOP:
      ++messages_;
      applyNexthop(h);
      break;
    case RTM_NEWLINK:
    case RTM_DELLINK:
    case RTM_NEWADDR:
    case RTM_DELADDR:
      // The kernel flushes routes and marks next hops dead or linkdown on these without a
      // route message.
      resyncWanted_ = true;
      break;
    default:
      break;
  }
}

int parseKernelRoute(nlmsghdr* h, KernelRoute* out) {
  if (h->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return -NLE_MSG_TOOSHORT;
  const auto* rtm = static_cast<const rtmsg*>(nlmsg_data(h));
  const bool v6 = rtm->rtm_family == AF_INET6;
  if (!v6 && rtm->rtm_family != AF_INET) return -NLE_AF_NOSUPPORT;
  const auto af = v6 ? Nimo::AddressFamily::ipv6 : Nimo::AddressFamily::ipv4;
  const std::size_t addrLen = v6 ? 16 : 4;
  nlattr* tb[RTA_MAX + 1] = {};
  if (const int err = nlmsg_parse(h, sizeof(rtmsg), tb, RTA_MAX, nullptr); err < 0) return err;
  out->table = rtm->rtm_table;
  out->metric = out->nhId = 0;
  std::uint32_t oif = 0;
  if (!u32(tb[RTA_TABLE], &out->table) || !u32(tb[RTA_PRIORITY], &out->metric) ||
      !u32(tb[RTA_NH_ID], &out->nhId) || !u32(tb[RTA_OIF], &oif))
    return -NLE_INVAL;
  // The default route carries no RTA_DST.
  std::uint8_t dst[16] = {};
  if (rtm->rtm_dst_len > addrLen * 8) return -NLE_INVAL;
  if (tb[RTA_DST]) {
    if (static_cast<std::size_t>(nla_len(tb[RTA_DST])) != addrLen) return -NLE_INVAL;
    std::memcpy(dst, nla_data(tb[RTA_DST]), addrLen);
  }
  out->prefix = Nimo::IpGenPrefix(Nimo::IpGenAddr(af, dst), rtm->rtm_dst_len).masked();
  out->type = rtm->rtm_type;
  out->protocol = rtm->rtm_protocol;
  out->tos = rtm->rtm_tos;
  out->flags = rtm->rtm_flags;
  out->nhs.clear();
  // One next hop from a gateway attribute and an interface; false: none of this family.
  const auto add = [&](nlattr* gateway, nlattr* via, std::uint32_t ifIndex, std::uint32_t flags) {
    KernelRoute::Nexthop nh;
    nh.ifIndex = ifIndex;
    nh.flags = flags & kUnusable;
    if (gateway) {
      // An IPv4 route through an IPv6 gateway comes as RTA_VIA; a gateway attribute of
      // another length is malformed.
      if (static_cast<std::size_t>(nla_len(gateway)) != addrLen) return false;
      nh.gateway = Nimo::IpGenAddr(af, static_cast<const std::uint8_t*>(nla_data(gateway)));
    } else if (via) {
      return true;
    }
    out->nhs.push_back(nh);
    return true;
  };
  if (nlattr* mp = tb[RTA_MULTIPATH]) {
    auto* at = static_cast<std::uint8_t*>(nla_data(mp));
    auto rem = static_cast<std::size_t>(nla_len(mp));
    while (rem >= sizeof(rtnexthop)) {
      const auto* rtnh = reinterpret_cast<const rtnexthop*>(at);
      if (rtnh->rtnh_len < sizeof(rtnexthop) || rtnh->rtnh_len > rem) return -NLE_INVAL;
      nlattr* ntb[RTA_MAX + 1] = {};
      const int attrLen = rtnh->rtnh_len - static_cast<int>(align4(sizeof(rtnexthop)));
      if (attrLen > 0 &&
          nla_parse(ntb, RTA_MAX, reinterpret_cast<nlattr*>(at + align4(sizeof(rtnexthop))),
                    attrLen, nullptr) < 0)
        return -NLE_INVAL;
      if (!add(ntb[RTA_GATEWAY], ntb[RTA_VIA], static_cast<std::uint32_t>(rtnh->rtnh_ifindex),
               rtnh->rtnh_flags))
        return -NLE_INVAL;
      const std::size_t step = align4(rtnh->rtnh_len);
      if (step >= rem) break;
      at += step;
      rem -= step;
    }
  } else if (oif != 0 || tb[RTA_GATEWAY] || tb[RTA_VIA]) {
    // A single next hop's flags travel in the route header.
    if (!add(tb[RTA_GATEWAY], tb[RTA_VIA], oif, rtm->rtm_flags)) return -NLE_INVAL;
  }
  std::sort(out->nhs.begin(), out->nhs.end());
  return 0;
}

void NetlinkRibSm::applyRoute(nlmsghdr* h, bool fromDump) {
  KernelRoute& r = parsed_;
  if (const int err = parseKernelRoute(h, &r); err < 0) {
    ++skipped_;
    // Another family is no error: the route groups carry no others, but a dump may.
    if (err != -NLE_AF_NOSUPPORT)
      FLICK_TRACE(linuxTrace(), 1, "{}{}", kParseFailedText, nl_geterror(err));
    return;
  }
  const bool v6 = r.prefix.af() == Nimo::AddressFamily::ipv6;
  const bool mirrored = r.table == RT_TABLE_MAIN || r.table == RT_TABLE_LOCAL ||
                        (config_.mribTable != 0 && r.table == config_.mribTable);
  const bool typeKept = r.type == RTN_UNICAST || r.type == RTN_LOCAL || r.type == RTN_BLACKHOLE ||
                        r.type == RTN_UNREACHABLE || r.type == RTN_PROHIBIT;
  if (!mirrored || !typeKept || r.tos != 0 || (r.flags & RTM_F_CLONED)) {
    ++skipped_;
    return;
  }
  const Nimo::IpGenPrefix& prefix = r.prefix;
  Entry e;
  e.table = r.table;
  e.metric = r.metric;
  e.type = r.type;
  e.protocol = r.protocol;
  e.nhId = r.nhId;
  e.nhs = r.nhs;

  // Next hops are one by (gateway, interface); flags are their state. Nh's order sorts by
  // these two first, so this order agrees with it.
  const auto sameHop = [](const Nh& a, const Nh& b) {
    return std::tie(a.gateway, a.ifIndex) < std::tie(b.gateway, b.ifIndex);
  };
  const auto apply = [&](auto& fam) {
    auto& slot = fam.kernel[prefix];
    auto it = std::find_if(slot.begin(), slot.end(), [&](const Entry& x) {
      return x.table == e.table && x.metric == e.metric;
    });
    const bool isNew = h->nlmsg_type == RTM_NEWROUTE;
    if (isNew && it == slot.end()) {
      slot.push_back(std::move(e));
    } else if (isNew && v6 && !(h->nlmsg_flags & NLM_F_REPLACE) && it->type == e.type) {
      // IPv6 appends (and dumps list same-metric device routes one by one): merge.
      // The message's copy of a next hop wins: its flags are the current ones.
      std::vector<Nh> merged;
      std::set_union(e.nhs.begin(), e.nhs.end(), it->nhs.begin(), it->nhs.end(),
                     std::back_inserter(merged), sameHop);
      it->nhs = std::move(merged);
      it->nhId = e.nhId;
    } else if (isNew && !v6 && (fromDump || (h->nlmsg_flags & NLM_F_APPEND))) {
      // A second IPv4 alias of the same key: the kernel keeps using the first.
    } else if (isNew) {
      *it = std::move(e);
    } else if (it != slot.end()) {
      if (v6 && !e.nhs.empty()) {
        // An IPv6 delete may name one next hop of a multipath route.
        std::vector<Nh> rest;
        std::set_difference(it->nhs.begin(), it->nhs.end(), e.nhs.begin(), e.nhs.end(),
                            std::back_inserter(rest), sameHop);
        it->nhs = std::move(rest);
      }
      if (!v6 || e.nhs.empty() || it->nhs.empty()) slot.erase(it);
    }
    const bool namesObject =
        std::any_of(slot.begin(), slot.end(), [](const Entry& x) { return x.nhId != 0; });
    if (namesObject) fam.withNhId.insert(prefix);
    const bool gone = slot.empty();
    if (gone) fam.kernel.erase(prefix);
    if (!fromDump) publish(fam, prefix, gone ? nullptr : &slot);
  };
  if (v6) {
    apply(v6_);
  } else {
    apply(v4_);
  }
}

int parseKernelNexthop(nlmsghdr* h, KernelNexthopObject* out) {
  nlattr* tb[NHA_MAX + 1] = {};
  if (const int err = nlmsg_parse(h, sizeof(nhmsg), tb, NHA_MAX, nullptr); err < 0) return err;
  out->id = 0;
  out->nh = {};
  if (!tb[NHA_ID] || !u32(tb[NHA_ID], &out->id) || !u32(tb[NHA_OIF], &out->nh.ifIndex))
    return -NLE_INVAL;
  const auto* nhm = static_cast<const nhmsg*>(nlmsg_data(h));
  out->nh.flags = nhm->nh_flags;
  out->blackhole = tb[NHA_BLACKHOLE] != nullptr;
  if (tb[NHA_GATEWAY]) {
    auto a = addrOf(nhm->nh_family, nla_data(tb[NHA_GATEWAY]),
                    static_cast<std::size_t>(nla_len(tb[NHA_GATEWAY])));
    if (!a) return -NLE_INVAL;
    out->nh.gateway = *a;
  }
  out->group.clear();
  if (tb[NHA_GROUP]) {
    const auto n = static_cast<std::size_t>(nla_len(tb[NHA_GROUP])) / sizeof(nexthop_grp);
    const auto* g = static_cast<const std::uint8_t*>(nla_data(tb[NHA_GROUP]));
    for (std::size_t i = 0; i < n; ++i) {
      nexthop_grp m;
      std::memcpy(&m, g + i * sizeof m, sizeof m);
      out->group.push_back(m.id);
    }
  }
  return 0;
}

void NetlinkRibSm::applyNexthop(nlmsghdr* h) {
  NhObject o;
  if (const int err = parseKernelNexthop(h, &o); err < 0) {
    ++skipped_;
    FLICK_TRACE(linuxTrace(), 1, "{}{}", kParseFailedText, nl_geterror(err));
    return;
  }
  nhChanged_ = true;
  if (h->nlmsg_type == RTM_DELNEXTHOP) {
    nhObjects_.erase(o.id);
    return;
  }
  nhObjects_[o.id] = std::move(o);
}

// --- Publishing --------------------------------------------------------------------------

template <Nimo::AddressFamily F>
bool NetlinkRibSm::resolve(Family<F>& fam, const Entry& e, bool hostPrefix,
                           typename FamilyTraits<F>::RouteType* type, bool* waits) {
  using RouteType = typename FamilyTraits<F>::RouteType;
  fam.vias.clear();
  if (e.type == RTN_BLACKHOLE || e.type == RTN_UNREACHABLE || e.type == RTN_PROHIBIT) {
    *type = RouteType::drop;
    return true;
  }
  // Next-hop objects win over the expanded copy a route may carry (compat mode 1), since a
  // group change re-resolves from the objects.
  std::vector<Nh> fromObjects;
  const std::vector<Nh>* nhs = &e.nhs;
  if (e.nhId != 0) {
    if (auto o = nhObjects_.find(e.nhId); o != nhObjects_.end()) {
      if (o->second.blackhole) {
        *type = RouteType::drop;
        return true;
      }
      if (o->second.group.empty()) fromObjects.push_back(o->second.nh);
      for (std::uint32_t member : o->second.group)
        if (auto m = nhObjects_.find(member); m != nhObjects_.end() && !m->second.blackhole)
          fromObjects.push_back(m->second.nh);
      nhs = &fromObjects;
    }
  }
  bool gateway = false;
  for (const Nh& nh : *nhs) {
    if (nh.flags & kUnusable) continue;
    auto name = names_.find(nh.ifIndex);
    if (name == names_.end()) {
      *waits = true;
      continue;
    }
    gateway = gateway || nh.gateway.isSet();
    fam.vias.push_back({nh.gateway.isSet() ? nh.gateway : zeroAddr<F>(), name->second});
  }
  if (fam.vias.empty()) return false;
  if (e.type == RTN_LOCAL) {
    *type = RouteType::receive;
  } else if (gateway) {
    *type = RouteType::remote;
  } else if (e.protocol == RTPROT_KERNEL) {
    *type = RouteType::connected;
  } else if (hostPrefix) {
    *type = RouteType::host;
  } else {
    *type = RouteType::attached;
  }
  return true;
}

template <Nimo::AddressFamily F>
void NetlinkRibSm::publish(Family<F>& fam, const Nimo::IpGenPrefix& p) {
  auto it = fam.kernel.find(p);
  publish(fam, p, it == fam.kernel.end() ? nullptr : &it->second);
}

template <Nimo::AddressFamily F>
void NetlinkRibSm::publish(Family<F>& fam, const Nimo::IpGenPrefix& p, const Slot* slot) {
  using RouteType = typename FamilyTraits<F>::RouteType;
  for (std::size_t rib = 0; rib < 2; ++rib) {
    RouteWriterGen<F>* w = fam.rib[rib].ptr();
    if (!w) continue;
    // Candidates in the kernel's order; the first usable one is published.
    const Entry* best = nullptr;
    RouteType type = RouteType::invalid;
    bool waits = false;
    if (slot) {
      auto& order = fam.order;
      order.clear();
      for (const Entry& e : *slot) {
        const bool inRib = rib == 0 ? e.table == RT_TABLE_MAIN || e.table == RT_TABLE_LOCAL
                                    : e.table == config_.mribTable;
        if (inRib) order.push_back(&e);
      }
      if (order.size() > 1)
        std::sort(order.begin(), order.end(), [](const Entry* a, const Entry* b) {
          return before(a->table, a->metric, b->table, b->metric);
        });
      for (const Entry* e : order) {
        if (resolve(fam, *e, p.maskLen() == FamilyTraits<F>::kBits, &type, &waits)) {
          best = e;
          break;
        }
      }
    }
    bool changed = false;
    if (best) {
      w->routeIs(p, type, best->metric, 0, fam.vias, &changed);
    } else {
      changed = w->routeDel(p);
    }
    // Nobody to tell (ribd): a start-up ingest records nothing.
    if (changed && !notifiees_.empty()) changed_.push_back({F, static_cast<RibKind>(rib), p});
    if (rib == 0) {
      if (waits && !best) {
        fam.waitingSet.insert(p);
      } else if (!fam.waitingSet.empty()) {
        fam.waitingSet.erase(p);
      }
    }
  }
}

template <Nimo::AddressFamily F>
std::size_t NetlinkRibSm::publishAll(Family<F>& fam, const Kernel& before) {
  const bool all = renameWanted_ || &before == &fam.kernel;
  std::size_t differ = 0;
  const bool fresh = before.empty();  // the first dump: nothing to compare with
  for (const auto& [p, slot] : fam.kernel) {
    auto old = fresh ? before.end() : before.find(p);
    const bool differs = old == before.end() || old->second != slot;
    differ += differs;
    if (all || differs) publish(fam, p, &slot);
  }
  if (&before == &fam.kernel) return 0;
  for (const auto& [p, slot] : before) {
    if (!fam.kernel.count(p)) {
      ++differ;
      publish(fam, p);
    }
  }
  return differ;
}

template <Nimo::AddressFamily F>
void NetlinkRibSm::republishNhRoutes(Family<F>& fam) {
  for (auto it = fam.withNhId.begin(); it != fam.withNhId.end();) {
    auto slot = fam.kernel.find(*it);
    const bool names =
        slot != fam.kernel.end() && std::any_of(slot->second.begin(), slot->second.end(),
                                                [](const Entry& x) { return x.nhId != 0; });
    publish(fam, *it);
    it = names ? std::next(it) : fam.withNhId.erase(it);
  }
}

void NetlinkRibSm::resync() {
  if (!ok_) return;
  resyncWanted_ = false;
  ++resyncs_;
  std::unordered_map<std::uint32_t, NhObject> objects;
  objects.swap(nhObjects_);
  Kernel before4, before6;
  before4.swap(v4_.kernel);
  before6.swap(v6_.kernel);
  v4_.kernel.reserve(before4.size());
  v6_.kernel.reserve(before6.size());
  v4_.withNhId.clear();
  v6_.withNhId.clear();
  // What the event socket holds now predates the dump, which covers it; and after lost
  // notices, an old "added" applied after the dump could outlive its lost "deleted".
  // What arrives from here on is applied after the dump, in order, which converges.
  const int events = nl_socket_get_fd(events_);
  for (int i = 0; i < kDrainReads; ++i) {
    const ssize_t n = ::recv(events, buf_.data(), buf_.size(), MSG_DONTWAIT);
    if (n < 0 && errno != ENOBUFS && errno != EINTR) break;
  }
  const auto each = [this](nlmsghdr* h) { dispatch(h, true); };
  // A kernel without next-hop objects refuses their dump: there are none to resolve.
  (void)dump(RTM_GETNEXTHOP, AF_UNSPEC, each);
  if (!dump(RTM_GETROUTE, AF_INET, each) || !dump(RTM_GETROUTE, AF_INET6, each)) {
    // Keep what was published, and try again on the next turn.
    nhObjects_.swap(objects);
    v4_.kernel.swap(before4);
    v6_.kernel.swap(before6);
    // Over-approximated: republishNhRoutes drops the prefixes that name no object.
    for (const auto& [p, slot] : v4_.kernel) v4_.withNhId.insert(p);
    for (const auto& [p, slot] : v6_.kernel) v6_.withNhId.insert(p);
    resyncWanted_ = true;
    deferred_.delayIs(1.0);
    return;
  }
  nhChanged_ = false;  // every route is resolved against the fresh objects below
  if (objects != nhObjects_) renameWanted_ = true;
  // Grown once rather than by doubling (the start-up ingest). The unicast table is sized for
  // every mirrored prefix, which over-counts by the multicast RIB's own prefixes.
  v4_.rib[0]->reserve(static_cast<std::uint32_t>(v4_.kernel.size()));
  v6_.rib[0]->reserve(static_cast<std::uint32_t>(v6_.kernel.size()));
  const std::size_t differ = publishAll(v4_, before4) + publishAll(v6_, before6);
  renameWanted_ = false;
  // After lost notices the kernel may drop more without a second ENOBUFS while the socket
  // stays congested (seen under a 10-second add/delete storm): a re-dump that still finds
  // a difference is followed by another, until one finds none.
  if (recovering_ && differ != 0) {
    resyncWanted_ = true;
    deferred_.delayIs(1.0);
  } else {
    recovering_ = false;
  }
  finishBatch();
  notifiees_.forEach([](NotifieeConst& n) { n.onResync(); });
}

void NetlinkRibSm::rebuildNames() {
  std::unordered_map<std::uint32_t, Nimo::IntfId> names;
  for (const auto& [id, s] : dir_->intfStatus())
    if (s.ifIndex != 0) names.emplace(s.ifIndex, id);
  if (names == names_) return;
  names_.swap(names);
  renameWanted_ = true;
  if (ok_) deferred_.deadlineIs(loop_.clock()->now());
}

void NetlinkRibSm::DirWatch::onIntfStatus(const Nimo::IntfId&) { owner->rebuildNames(); }

void NetlinkRibSm::finishBatch() {
  if (nhChanged_) {
    nhChanged_ = false;
    republishNhRoutes(v4_);
    republishNhRoutes(v6_);
  }
  for (auto& w : v4_.rib)
    if (w) w->commit();
  for (auto& w : v6_.rib)
    if (w) w->commit();
  if ((resyncWanted_ || renameWanted_) && !deferred_.armed())
    deferred_.deadlineIs(loop_.clock()->now());
  if (changed_.empty()) return;
  std::vector<Changed> changed;
  changed.swap(changed_);
  for (const Changed& c : changed)
    notifiees_.forEach([&](NotifieeConst& n) { n.onRoute(c.af, c.rib, c.prefix); });
}

Kel::Ptr<NetlinkRibSm> netlinkRibSmFactory(const NetlinkRibConfig& config,
                                           Kel::Ptr<Interface::IntfStatusDir> dir,
                                           Ulm::EventLoop& loop) {
  return Kel::Ptr<NetlinkRibSm>::make(config, std::move(dir), loop);
}

}  // namespace Routing
