// PimCore: the agent-side PIM types that the core library stores in its status records.
//
// - Routing::Pim::Mode: PIM mode of an interface or group range. 1 sparse, 2 bidirectional,
//   3 both (an interface may run both), 0 none.
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

#include <charconv>
#include <cstdint>
#include <map>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"

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
// - Routing::Pim::Intf: a PIM-enabled interface: its id, the MBR flag (a multicast border
//   router interface, whose packets are not processed) and its primary address.
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

struct Intf {
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

  const Intf* intf(const Nimo::IntfId& id) const {
    auto it = intf_.find(id);
    return it == intf_.end() ? nullptr : &it->second;
  }
  const std::map<Nimo::IntfId, Intf>& intf() const noexcept { return intf_; }
  void intfIs(const Nimo::IntfId& id, bool mbr = false, Nimo::IpGenAddr primary = {}) {
    Intf& i = intf_[id];
    i.intfId = id;
    i.mbr = mbr;
    i.primaryAddr = primary;
    notifiees_.forEach([&](NotifieeConst& n) { n.onIntf(id); });
  }
  void intfDel(const Nimo::IntfId& id) {
    if (intf_.erase(id) != 0) notifiees_.forEach([&](NotifieeConst& n) { n.onIntf(id); });
  }

  bool activeNeighbor(const ActiveNeighborKey& k) const { return neighbor_.count(k) != 0; }
  const std::map<ActiveNeighborKey, std::uint16_t>& activeNeighbor() const noexcept {
    return neighbor_;
  }
  void activeNeighborIs(const ActiveNeighborKey& k, std::uint16_t holdTime) {
    auto [it, created] = neighbor_.try_emplace(k, holdTime);
    if (!created && it->second == holdTime) return;
    it->second = holdTime;
    notifiees_.forEach([&](NotifieeConst& n) { n.onActiveNeighbor(k); });
  }
  void activeNeighborDel(const ActiveNeighborKey& k) {
    if (neighbor_.erase(k) != 0)
      notifiees_.forEach([&](NotifieeConst& n) { n.onActiveNeighbor(k); });
  }

 private:
  std::map<Nimo::IntfId, Intf> intf_;
  std::map<ActiveNeighborKey, std::uint16_t> neighbor_;
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
