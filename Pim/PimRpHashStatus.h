// PimRpHashStatus: the group-to-RP mapping the PIM agents publish in shared memory, one
// RpHash entry per group prefix, so that forwarding agents and show commands find the RP
// of a group without asking the agent.
//
// - RpHash: key (group prefix), rp, rpPriority, rpHashMaskLen, staticOverriden (one d: the
//   name readers look the field up by), pimMode. Text form
//     Value('Routing::Pim::RpHash', ** {'key': 239.1.0.0/16, 'rp': 10.0.0.1,
//           'rpPriority': 192, 'rpHashMaskLen': 30, 'staticOverriden': False,
//           'pimMode': sparse})
//   parsed back by the (begin, end) constructor, which raises Kel::RangeError naming the
//   first attribute that does not match ("Routing::Pim::RpHash::rp has no parsable value").
// - RpPriority: 0-255, lower is preferred (the Candidate-RP priority of the bootstrap
//   mechanism); prints as its number.
// - RpHashMaskLen: 0-128 as the Bootstrap reader accepts; a larger value is the range error
//   kRangeErrorText; prints as its number.
// - GroupRp: a group and its RP (the RPF route machinery keys on it).
// - RpHashStatus: the table container. One collection "rpHash" of RpHash by group prefix,
//   mounted at one of five paths per family, VRF and writer-chosen name:
//     mountPath           routing/pim/rphash/<name>/<vrf>
//     staticMountPath     routing/pim/rphash/static/<name>/<vrf>
//     bsrMountPath        routing/pim/bsr/rphash/<name>/<vrf>
//     prefixMountPath     routing/pim/rpprefixhash/<name>/<vrf>
//     bsrPrefixMountPath  routing/pim/bsr/rpprefixhash/<name>/<vrf>
//   ("routing6/..." for IPv6). The name comes before the VRF here, unlike the counters
//   path: readers in other processes compose these exact strings. A name or VRF that is
//   empty, "." or ".." makes a path the table library refuses (traced, no file), so no
//   name places a table outside the shared-memory root.
//
// Container semantics beyond the status containers' (PimDrobe.h):
// - rpHashDel(prefix) returns the removed entry, or the default entry (and notifies
//   nothing) when the prefix was absent.
// - rpHashDelAll() deletes key by key: notifiees and readers get one onRpHash(prefix) per
//   entry, not a whole-collection notice (up to kRpHashCapacity entries in one commit:
//   the change ring is as large as the table).
// - rpHashCommit(entry) publishes every pending write of the table, not only entry's (the
//   table library commits a collection at a time), then notifies onRpHash(entry.key()).
// - rpHashIs of an entry equal to the stored one notifies nothing.
// - Corruption the table reports on a write or delete goes to its corruption hook (the
//   slot is cleared, readers resync) and the operation carries on. (Its commit copies the
//   writer's own slots and reports nothing: the lookups of the writes find scribbles.)
// - rpForGroup(group): the entry of the longest prefix that holds the group, the default
//   entry if none. It probes only the mask lengths present in the table (counted per
//   family from the container's own notices, on the writer and on readers alike), longest
//   first, one hash lookup each. Keys are expected to be network prefixes (host bits
//   clear), which is what the agents publish; an entry with host bits set is stored and
//   listed but never matched.
// Capacity: 8192 entries per table (group ranges of a large deployment are a few hundred).
//
// Threading: the owning process's event-loop thread; readers are notified from the
// Ulm::EventLoop given to mountReader. No locks.
//
// Usage (agent):
//   auto t = rpHashStatusFactory(RpHashStatus::bsrMountPath(Nimo::AddressFamily::ipv4,
//                                                           L3::VrfName("default"), "sm"));
//   t->mountWriter();
//   RpHash e(Nimo::IpGenPrefix("239.0.0.0/8"), Nimo::IpGenAddr("10.0.0.1"), RpPriority(192),
//            RpHashMaskLen(30), false, Mode::Sparse);
//   t->rpHashIs(e);
//   t->rpHashCommit(e);
// Usage (reader process):
//   auto t = rpHashStatusFactory(same path);  t->mountReader(loop);
//   RpHash rp = t->rpForGroup(Nimo::IpGenAddr("239.1.2.3"));   // !rp when none matches
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "Pim/PimDrobe.h"
#include "Pim/PimTypesDrobe.h"
#include "Pim/platform/Drobe.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/PimCore.h"
#include "Pim/platform/System.h"
#include "Pim/platform/Ulm.h"

namespace Routing::Pim {

class RpPriority {
 public:
  constexpr RpPriority() noexcept = default;
  constexpr explicit RpPriority(std::uint8_t value) noexcept : value_(value) {}
  constexpr std::uint8_t value() const noexcept { return value_; }
  friend bool operator==(const RpPriority&, const RpPriority&) = default;
  friend auto operator<=>(const RpPriority&, const RpPriority&) = default;

 private:
  std::uint8_t value_ = 0;
};

class RpHashMaskLen {
 public:
  static constexpr std::uint8_t kMax = 128;
  static constexpr std::string_view kRangeErrorText =
      "RpHashMaskLen::value < 0 or > 128 not allowed";
  constexpr RpHashMaskLen() noexcept = default;
  explicit RpHashMaskLen(std::uint8_t value) : value_(value) {
    if (value > kMax) throw Kel::RangeError(std::string(kRangeErrorText));
  }
  constexpr std::uint8_t value() const noexcept { return value_; }
  friend bool operator==(const RpHashMaskLen&, const RpHashMaskLen&) = default;

 private:
  std::uint8_t value_ = 0;
};

}  // namespace Routing::Pim

// The wrappers print as their numbers inside records.
namespace Kel {
template <>
struct ValueText<Routing::Pim::RpPriority> {
  static void print(std::string& out, Routing::Pim::RpPriority v) {
    ValueText<std::uint8_t>::print(out, v.value());
  }
  static void parse(ValueParser& in, Routing::Pim::RpPriority& v) {
    std::uint8_t n = 0;
    in.integer(n);
    v = Routing::Pim::RpPriority(n);
  }
};
template <>
struct ValueText<Routing::Pim::RpHashMaskLen> {
  static void print(std::string& out, Routing::Pim::RpHashMaskLen v) {
    ValueText<std::uint8_t>::print(out, v.value());
  }
  static void parse(ValueParser& in, Routing::Pim::RpHashMaskLen& v) {
    std::uint8_t n = 0;
    in.integer(n);
    if (!in.ok() || n > Routing::Pim::RpHashMaskLen::kMax) return in.fail();
    v = Routing::Pim::RpHashMaskLen(n);
  }
};
}  // namespace Kel

namespace Routing::Pim {

class RpHash {
 public:
  RpHash() noexcept = default;
  RpHash(const Nimo::IpGenPrefix& key, const Nimo::IpGenAddr& rp, RpPriority rpPriority,
         RpHashMaskLen rpHashMaskLen, bool staticOverriden, Mode pimMode) noexcept
      : key_(key),
        rp_(rp),
        rpPriority_(rpPriority),
        rpHashMaskLen_(rpHashMaskLen),
        staticOverriden_(staticOverriden),
        pimMode_(pimMode) {}
  template <DrobeDetail::TextIterator It>
  RpHash(It begin, It end) {
    DrobeDetail::parseText(begin, end, *this);
  }

  const Nimo::IpGenPrefix& key() const noexcept { return key_; }
  const Nimo::IpGenAddr& rp() const noexcept { return rp_; }
  void rpIs(const Nimo::IpGenAddr& v) noexcept { rp_ = v; }
  RpPriority rpPriority() const noexcept { return rpPriority_; }
  void rpPriorityIs(RpPriority v) noexcept { rpPriority_ = v; }
  RpHashMaskLen rpHashMaskLen() const noexcept { return rpHashMaskLen_; }
  void rpHashMaskLenIs(RpHashMaskLen v) noexcept { rpHashMaskLen_ = v; }
  bool staticOverriden() const noexcept { return staticOverriden_; }
  void staticOverridenIs(bool v) noexcept { staticOverriden_ = v; }
  Mode pimMode() const noexcept { return pimMode_; }
  void pimModeIs(Mode v) noexcept { pimMode_ = v; }

  bool operator!() const noexcept { return key_ == Nimo::IpGenPrefix(); }
  friend bool operator==(const RpHash&, const RpHash&) = default;

 private:
  Nimo::IpGenPrefix key_;
  Nimo::IpGenAddr rp_;
  RpPriority rpPriority_;
  RpHashMaskLen rpHashMaskLen_;
  bool staticOverriden_ = false;
  Mode pimMode_ = Mode::None;

 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::RpHash";
  static constexpr auto kFields =
      std::make_tuple(Kel::field("key", &RpHash::key_), Kel::field("rp", &RpHash::rp_),
                      Kel::field("rpPriority", &RpHash::rpPriority_),
                      Kel::field("rpHashMaskLen", &RpHash::rpHashMaskLen_),
                      Kel::field("staticOverriden", &RpHash::staticOverriden_),
                      Kel::field("pimMode", &RpHash::pimMode_));
};
static_assert(std::is_trivially_copyable_v<RpHash>);

class GroupRp {
 public:
  GroupRp() noexcept = default;
  GroupRp(const Nimo::IpGenAddr& group, const Nimo::IpGenAddr& rp) noexcept
      : group_(group), rp_(rp) {}
  template <DrobeDetail::TextIterator It>
  GroupRp(It begin, It end) {
    DrobeDetail::parseText(begin, end, *this);
  }
  const Nimo::IpGenAddr& group() const noexcept { return group_; }
  const Nimo::IpGenAddr& rp() const noexcept { return rp_; }
  friend bool operator==(const GroupRp&, const GroupRp&) = default;
  friend auto operator<=>(const GroupRp&, const GroupRp&) = default;

 private:
  Nimo::IpGenAddr group_;
  Nimo::IpGenAddr rp_;

 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::GroupRp";
  static constexpr auto kFields =
      std::make_tuple(Kel::field("group", &GroupRp::group_), Kel::field("rp", &GroupRp::rp_));
};

std::string valueToStrep(const RpHash& v);
std::string valueToStrep(const GroupRp& v);
std::ostream& operator<<(std::ostream& os, const RpHash& v);
std::ostream& operator<<(std::ostream& os, const GroupRp& v);

class RpHashStatus : public Kel::Entity {
 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::RpHashStatus";
  static constexpr std::uint32_t kRpHashCapacity = 8192;

  static std::string mountPath(Nimo::AddressFamily af, const L3::VrfName& vrf,
                               std::string_view name);
  static std::string staticMountPath(Nimo::AddressFamily af, const L3::VrfName& vrf,
                                     std::string_view name);
  static std::string bsrMountPath(Nimo::AddressFamily af, const L3::VrfName& vrf,
                                  std::string_view name);
  static std::string prefixMountPath(Nimo::AddressFamily af, const L3::VrfName& vrf,
                                     std::string_view name);
  static std::string bsrPrefixMountPath(Nimo::AddressFamily af, const L3::VrfName& vrf,
                                        std::string_view name);
  // The one collection "rpHash", its change ring as large as the table.
  static ::Drobe::MountInfo writerMountInfo();

  class NotifieeConst : public Kel::BaseNotifiee<RpHashStatus, NotifieeConst> {
   public:
    virtual void onRpHash(const Nimo::IpGenPrefix&) {}
    virtual void onRpHash() {}
    // See Kel.h, "Immediate handlers".
    virtual void onRpHashImmediate() {}
    virtual void onRpHashMountStatus(bool) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  // The name is the mount path.
  explicit RpHashStatus(Kel::Name name);

  // False (nothing mounted, traced by the table library) if the path is refused or another
  // live process writes it.
  bool mountWriter();
  void mountReader(Ulm::EventLoop& loop);
  void unmount() { rpHash_.unmount(); }
  bool writable() const noexcept { return rpHash_.writable(); }
  bool mounted() const noexcept { return rpHash_.mounted(); }

  std::optional<RpHash> rpHash(const Nimo::IpGenPrefix& k) const { return rpHash_.find(k); }
  // False if the table refused the entry (full).
  bool rpHashIs(const RpHash& v);
  RpHash rpHashDel(const Nimo::IpGenPrefix& k);
  void rpHashDelAll();
  void rpHashCommit(const RpHash& entry);
  void rpHashNotify(const Nimo::IpGenPrefix& k) { rpHash_.notify(k); }
  void rpHashNotifyCollection() { rpHash_.notifyCollection(); }
  template <typename F>
  void rpHashForEach(F&& fn) const {
    rpHash_.forEach(std::forward<F>(fn));
  }
  std::uint32_t rpHashSize() const { return rpHash_.size(); }
  // The table's control data: generation, commits, refusals, corruption, geometry.
  ::Drobe::CollectionStats rpHashControl() const { return rpHash_.stats(); }
  const DrobeDetail::Collection<Nimo::IpGenPrefix, RpHash>& rpHashTable() const noexcept {
    return rpHash_;
  }

  RpHash rpForGroup(const Nimo::IpGenAddr& group) const;
  // Mask lengths with at least one entry, longest first.
  const std::vector<std::uint8_t>& maskLengths(Nimo::AddressFamily af) const;

 private:
  void handleKey(const Nimo::IpGenPrefix& k);
  void corruptionIs(std::uint32_t slot);
  void handleCollection();
  void indexRebuild();
  void lengthCountAdd(const Nimo::IpGenPrefix& k, int delta);
  struct PrefixHash {
    std::size_t operator()(const Nimo::IpGenPrefix& p) const noexcept { return p.hash(); }
  };

  Kel::NotifieeList<NotifieeConst> notifiees_;
  DrobeDetail::Collection<Nimo::IpGenPrefix, RpHash> rpHash_;
  // The keys the table is known to hold, and per family the entries per mask length.
  std::unordered_set<Nimo::IpGenPrefix, PrefixHash> keys_;
  std::array<std::array<std::uint32_t, 129>, 2> lengthCount_{};
  std::array<std::vector<std::uint8_t>, 2> lengths_;
};

Kel::Ptr<RpHashStatus> rpHashStatusFactory(const Kel::Name& name);

}  // namespace Routing::Pim

extern template class ::Drobe::Writer<Nimo::IpGenPrefix, Routing::Pim::RpHash>;
extern template class ::Drobe::Reader<Nimo::IpGenPrefix, Routing::Pim::RpHash>;
