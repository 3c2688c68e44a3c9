// System: the few platform types of other agents that the PIM core stores or keys on.
//
// - Bfd::OperState: state of a BFD session, as the BFD agent publishes it.
// - Vrf::VrfIdMap::VrfId: the platform's 32-bit VRF number (the name <-> number map itself
//   belongs to the VRF agent; only the number type is needed here).
// - L3::VrfName: a VRF's name, inline (up to 63 bytes) so that values holding it stay
//   trivially copyable; per-VRF objects and mount paths are keyed by it, so a name never
//   holds "/" or a control character.
//
// All are small, trivially copyable and have the value text forms of Kel (enums by name,
// names quoted).
//
// Threading: plain values, no shared state.
//
// Usage:
//   L3::VrfName vrf("red");  // RangeError if longer than 63, or with "/" or a control byte
//   Bfd::OperState s = Bfd::OperState::Up;          // prints as "up"
//   Vrf::VrfIdMap::VrfId id = 3;
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"

namespace Bfd {

// Zero is "no session known", so that a default neighbour record does not claim a state;
// the others follow the BFD session states of RFC 5880. Text names are lower camel case.
enum class OperState : std::uint8_t { Unknown = 0, Down = 1, Init = 2, Up = 3, AdminDown = 4 };

inline std::span<const std::string_view> enumNames(OperState) noexcept {
  static constexpr std::string_view kNames[] = {"unknown", "down", "init", "up", "adminDown"};
  return kNames;
}
inline std::ostream& operator<<(std::ostream& os, OperState s) {
  std::string out;
  Kel::ValueText<OperState>::print(out, s);
  return os << out;
}

}  // namespace Bfd

namespace Vrf {

class VrfIdMap {
 public:
  using VrfId = std::uint32_t;
  static constexpr VrfId kDefaultVrfId = 0;
};

}  // namespace Vrf

namespace L3 {

class VrfName {
 public:
  static constexpr std::size_t kMaxLen = 63;
  static constexpr std::string_view kRangeErrorText =
      "VrfName::bytes > VrfName::maxLength not allowed";
  static constexpr std::string_view kBadByteErrorText =
      "VrfName::bytes with '/' or a control character not allowed";

  VrfName() noexcept = default;
  explicit VrfName(std::string_view name) {
    if (name.size() > kMaxLen) throw Kel::RangeError(std::string(kRangeErrorText));
    if (!validBytes(name)) throw Kel::RangeError(std::string(kBadByteErrorText));
    std::memcpy(name_.data(), name.data(), name.size());
  }
  // No "/" (the name is a path component) and no control characters (NUL included).
  static bool validBytes(std::string_view name) noexcept {
    for (char c : name) {
      const auto u = static_cast<unsigned char>(c);
      if (c == '/' || u < 0x20 || u == 0x7f) return false;
    }
    return true;
  }
  std::string_view name() const noexcept { return std::string_view(name_.data()); }
  std::string str() const { return std::string(name()); }
  bool empty() const noexcept { return name_[0] == 0; }
  // FNV-1a over the name's bytes, for shared-memory tables keyed by VRF.
  std::uint32_t hash() const noexcept {
    std::uint32_t h = 2166136261u;
    for (char c : name()) h = (h ^ static_cast<unsigned char>(c)) * 16777619u;
    return h;
  }

  friend bool operator==(const VrfName&, const VrfName&) = default;
  friend std::strong_ordering operator<=>(const VrfName& a, const VrfName& b) noexcept {
    return std::memcmp(a.name_.data(), b.name_.data(), a.name_.size()) <=> 0;
  }

 private:
  std::array<char, kMaxLen + 1> name_{};  // NUL-padded
};
inline std::ostream& operator<<(std::ostream& os, const VrfName& v) { return os << v.name(); }

static_assert(std::is_trivially_copyable_v<VrfName>);

}  // namespace L3

namespace Kel {
template <>
struct ValueText<L3::VrfName> {
  static void print(std::string& out, const L3::VrfName& v) { appendQuoted(out, v.name()); }
  static void parse(ValueParser& in, L3::VrfName& v) {
    std::string s = in.quoted();
    if (!in.ok() || s.size() > L3::VrfName::kMaxLen || !L3::VrfName::validBytes(s)) {
      return in.fail();
    }
    v = L3::VrfName(s);
  }
};
}  // namespace Kel

// ---------------------------------------------------------------------------------------
// Interface status and access lists: what the I/O layer reads about the host's interfaces
// and the operator's filters. On a plain Linux box the netlink adapter (Pim/linux/) fills
// the interface directory; tests and agents with their own publishers fill it by hand.
//
// - Interface::IntfStatus: one interface: its platform id, the kernel device (ifIndex,
//   deviceName; index 0 and an empty name while the kernel has no device for it), whether
//   it is up, and its addresses of both families in the order they were added (the first
//   of a family is the primary one).
// - Interface::IntfStatusDir: the directory of all interfaces by IntfId. Notifiees get
//   onIntfStatus(id) when an interface appears, changes (device, state, address) or goes.
//   The I/O layer keeps three references (device view, generic IP view, all interfaces)
//   because a platform may publish them separately; on Linux one directory serves all three.
// - Acl::AclConfig: an ordered list of permit/deny rules on source (and optionally
//   destination) prefixes, of one family. Acl::Config: ACLs by name, plus the service ACL
//   of each VRF (the one that screens packets sent to the router itself).
// - Acl::ServiceAclFilterSm: matchesRaw(packet, vrf, intf) applies the VRF's service ACL to
//   a raw IP packet (header at offset 0): no service ACL permits; the first rule whose
//   prefixes match decides; no matching rule denies, as does a header too short to read.
//
// Usage:
//   auto dir = Kel::Ptr<Interface::IntfStatusDir>::make("intf");
//   auto& s = dir->intfStatusIs(Nimo::IntfId("eth1"));
//   s.ifIndex = 7; s.deviceName = "eth1"; dir->intfStatusNotify(Nimo::IntfId("eth1"));
//   auto acls = Kel::Ptr<Acl::Config>::make("acl");
//   acls->aclIs("nbrs").ruleIs({Acl::Action::Deny, Nimo::IpGenPrefix("10.0.0.9/32")});
namespace Interface {

struct IntfStatus {
  Nimo::IntfId intfId;
  std::uint32_t ifIndex = 0;
  std::string deviceName;
  bool operUp = false;
  std::vector<Nimo::IpGenAddrWithMask> addr;

  bool hasDevice() const noexcept { return ifIndex != 0 && !deviceName.empty(); }
  // The first address of the family, unset if none.
  Nimo::IpGenAddr primaryAddr(Nimo::AddressFamily af) const noexcept {
    for (const auto& a : addr)
      if (a.address().af() == af) return a.address();
    return Nimo::IpGenAddr();
  }
};

class IntfStatusDir : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::BaseNotifiee<IntfStatusDir, NotifieeConst> {
   public:
    virtual void onIntfStatus(const Nimo::IntfId&) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  explicit IntfStatusDir(Kel::Name name) : Kel::Entity(std::move(name)) {}

  const IntfStatus* intfStatus(const Nimo::IntfId& id) const {
    auto it = intf_.find(id);
    return it == intf_.end() ? nullptr : &it->second;
  }
  const std::map<Nimo::IntfId, IntfStatus>& intfStatus() const noexcept { return intf_; }
  // The entry, created empty if absent; call intfStatusNotify after changing it.
  IntfStatus& intfStatusIs(const Nimo::IntfId& id) {
    auto [it, created] = intf_.try_emplace(id);
    if (created) it->second.intfId = id;
    return it->second;
  }
  void intfStatusNotify(const Nimo::IntfId& id) {
    notifiees_.forEach([&](NotifieeConst& n) { n.onIntfStatus(id); });
  }
  void intfStatusDel(const Nimo::IntfId& id) {
    if (intf_.erase(id) != 0) intfStatusNotify(id);
  }
  // The interface whose device has this kernel index, or null.
  const IntfStatus* intfStatusByIfIndex(std::uint32_t ifIndex) const {
    for (const auto& [id, s] : intf_)
      if (s.ifIndex == ifIndex) return &s;
    return nullptr;
  }

 private:
  std::map<Nimo::IntfId, IntfStatus> intf_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

}  // namespace Interface

namespace Acl {

enum class Action : std::uint8_t { Permit, Deny };

struct Rule {
  Action action = Action::Permit;
  Nimo::IpGenPrefix source;       // length 0: any source of the family
  Nimo::IpGenPrefix destination;  // unset: any destination
};

class AclConfig {
 public:
  AclConfig() = default;
  explicit AclConfig(Nimo::AddressFamily af) : af_(af) {}
  Nimo::AddressFamily af() const noexcept { return af_; }
  const std::vector<Rule>& rule() const noexcept { return rules_; }
  AclConfig& ruleIs(const Rule& r) {
    rules_.push_back(r);
    return *this;
  }
  // The action of the first rule matching (source, destination), or none.
  std::optional<Action> match(const Nimo::IpGenAddr& src, const Nimo::IpGenAddr& dst) const {
    for (const auto& r : rules_) {
      if (r.source.af() != src.af() || !r.source.contains(src)) continue;
      if (r.destination.address().isSet() && !r.destination.contains(dst)) continue;
      return r.action;
    }
    return std::nullopt;
  }

 private:
  Nimo::AddressFamily af_ = Nimo::AddressFamily::ipv4;
  std::vector<Rule> rules_;
};

class Config : public Kel::Entity {
 public:
  explicit Config(Kel::Name name) : Kel::Entity(std::move(name)) {}
  const AclConfig* acl(std::string_view name) const {
    auto it = acl_.find(name);
    return it == acl_.end() ? nullptr : &it->second;
  }
  AclConfig& aclIs(const std::string& name, Nimo::AddressFamily af = Nimo::AddressFamily::ipv4) {
    return acl_.try_emplace(name, af).first->second;
  }
  void aclDel(const std::string& name) { acl_.erase(name); }
  // The service ACL of a VRF and family; null: none. Read for every received packet, so
  // the lookup allocates nothing.
  const std::string* serviceAcl(const L3::VrfName& vrf, Nimo::AddressFamily af) const {
    if (serviceAcl_.empty()) return nullptr;
    auto it = serviceAcl_.find({vrf, af});
    return it == serviceAcl_.end() || it->second.empty() ? nullptr : &it->second;
  }
  void serviceAclIs(const L3::VrfName& vrf, Nimo::AddressFamily af, const std::string& acl) {
    serviceAcl_[{vrf, af}] = acl;
  }

 private:
  std::map<std::string, AclConfig, std::less<>> acl_;
  std::map<std::pair<L3::VrfName, Nimo::AddressFamily>, std::string> serviceAcl_;
};

class ServiceAclFilterSm : public Kel::Entity {
 public:
  ServiceAclFilterSm(Kel::Name name, Kel::Ptr<const Config> config)
      : Kel::Entity(std::move(name)), config_(std::move(config)) {}
  const Kel::Ptr<const Config>& config() const noexcept { return config_; }

  // True when the VRF's service ACL lets the packet through.
  bool matchesRaw(const Nimo::Pkt& pkt, const L3::VrfName& vrf, const Nimo::IntfId& intf) const;

 private:
  Kel::Ptr<const Config> config_;
};

}  // namespace Acl
