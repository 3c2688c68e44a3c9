// PimTypesDrobe: the records of the PIM status tables in shared memory, their keys, and
// the message counter values of the I/O layer.
//
// Two generations of the records live side by side:
// - Routing::Pim::Drobe: one table set per VRF and address family, interfaces keyed by
//   Nimo::IntfId; also the message counters (CounterKey, MessageCounterData).
// - Routing::Pim::IntfNghbr::Drobe: one table set per address family for all VRFs,
//   interfaces keyed by IntfVrfKey (interface and VRF number).
// Intf, Neighbor and the key-only records (NeighborRef, NeighborSecondaryAddress,
// IntfSecondaryAddress, IntfSecondaryPrefix) are the same in both; they are written once
// as templates over the key type (DrobeDetail) and named in each namespace by aliases.
// The two-field keys (all but CounterKey) derive from one template, DrobeDetail::KeyPair,
// which holds the fields, their text names, the order and the hash; each names its getters.
//
// Every key and record:
// - is a plain, trivially copyable value (it is copied byte-wise into shared memory);
//   the default value has every field zero, false, empty or unset, and a record whose key
//   is the default is null (operator! is true);
// - compares with == (all fields); keys also order field by field in field order
//   (CounterKey: mtype, stype, intfId) and hash with hash():
//     h = rotl32(first, 8) ^ rotl32(second, 16), then Thomas Wang's 32-bit shift mix;
// - prints with valueToStrep / operator<< as
//     Value('Routing::Pim::Drobe::NeighborKey', ** {'address': 10.0.0.2, 'intfId': 'Ethernet1'})
//   and parses back from the same text with its (begin, end) constructor, which raises
//   Kel::RangeError naming the attribute that does not parse ("...::holdTime has no
//   parsable value"). Texts of the field values: numbers in decimal, bools True/False,
//   unset addresses None, interface ids quoted, enums by name, absent Hello options None.
// Intf, Neighbor and MessageCounterData also have drobeString(), the one-line human form
// of show commands; it prints interface ids bare and an IntfVrfKey as "Ethernet1 (vrf 3)".
//
// Threading: plain values, no shared state.
//
// Usage:
//   using namespace Routing::Pim::Drobe;
//   NeighborKey k(Nimo::IpGenAddr("10.0.0.2"), Nimo::IntfId("Ethernet1"));
//   Neighbor n(k, 105, DrPriorityOption(1), GenerationIdOption(0x1234), LanPruneDelayOption());
//   n.creationTimeIs(clock->now());
//   std::string text = valueToStrep(n);
//   Neighbor back(text.begin(), text.end());        // back == n
//   std::uint32_t bucket = k.hash() % buckets;
#pragma once

#include <algorithm>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <ostream>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Pim/PimReliableTypes.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/PimCore.h"
#include "Pim/platform/System.h"

// The codec's 8-bit header values; the same aliases as the codec header declares.
namespace Routing::Pim::Packet {
using MessageType = std::uint8_t;
using MessageSubtype = std::uint8_t;
}  // namespace Routing::Pim::Packet

// ---------------------------------------------------------------------------------------
// Message counter values of the I/O layer.

namespace Routing::Pim::IO {

enum class MessageCounterType : std::uint8_t { invalid = 0, filtered = 1, success = 2 };
enum class MessageCounterDirection : std::uint8_t { tx = 0, rx = 1 };

inline std::span<const std::string_view> enumNames(MessageCounterType) noexcept {
  static constexpr std::string_view kNames[] = {"invalid", "filtered", "success"};
  return kNames;
}
inline std::span<const std::string_view> enumNames(MessageCounterDirection) noexcept {
  static constexpr std::string_view kNames[] = {"tx", "rx"};
  return kNames;
}

// Three counts, one per MessageCounterType. Counts wrap at 2^32 like interface counters.
class MessageCounter {
 public:
  MessageCounter() noexcept = default;
  MessageCounter(std::uint32_t invalid, std::uint32_t filtered, std::uint32_t success) noexcept
      : invalid_(invalid), filtered_(filtered), success_(success) {}

  std::uint32_t invalid() const noexcept { return invalid_; }
  std::uint32_t filtered() const noexcept { return filtered_; }
  std::uint32_t success() const noexcept { return success_; }
  std::uint32_t count(MessageCounterType t) const noexcept {
    switch (t) {
      case MessageCounterType::invalid:
        return invalid_;
      case MessageCounterType::filtered:
        return filtered_;
      case MessageCounterType::success:
        return success_;
    }
    return 0;
  }
  void countInc(MessageCounterType t) noexcept {
    switch (t) {
      case MessageCounterType::invalid:
        ++invalid_;
        break;
      case MessageCounterType::filtered:
        ++filtered_;
        break;
      case MessageCounterType::success:
        ++success_;
        break;
    }
  }
  friend bool operator==(const MessageCounter&, const MessageCounter&) = default;

 private:
  std::uint32_t invalid_ = 0;
  std::uint32_t filtered_ = 0;
  std::uint32_t success_ = 0;

 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::IO::MessageCounter";
  static constexpr auto kFields =
      std::make_tuple(Kel::field("invalid", &MessageCounter::invalid_),
                      Kel::field("filtered", &MessageCounter::filtered_),
                      Kel::field("success", &MessageCounter::success_));
};
static_assert(std::is_trivially_copyable_v<MessageCounter>);

std::ostream& operator<<(std::ostream& os, MessageCounterType t);
std::ostream& operator<<(std::ostream& os, MessageCounterDirection d);
// Human form: "{invalid=0, filtered=0, success=1}".
std::ostream& operator<<(std::ostream& os, const MessageCounter& c);

}  // namespace Routing::Pim::IO

// ---------------------------------------------------------------------------------------
// What both generations share.

namespace Routing::Pim::DrobeDetail {

// Thomas Wang's 32-bit integer shift hash.
constexpr std::uint32_t wangMix(std::uint32_t h) noexcept {
  h = h * 32767u - 1u;
  h = (h ^ (h >> 12)) * 5u;
  h = (h ^ (h >> 4)) * 2057u;
  return h ^ (h >> 16);
}
// The hash of every two-part key.
constexpr std::uint32_t keyHash(std::uint32_t first, std::uint32_t second) noexcept {
  return wangMix(std::rotl(first, 8) ^ std::rotl(second, 16));
}
// A field's part in a key's hash: its own hash(), or the number itself.
template <typename F>
constexpr std::uint32_t fieldHash(const F& f) noexcept {
  if constexpr (std::is_integral_v<F>) {
    return static_cast<std::uint32_t>(f);
  } else {
    return f.hash();
  }
}

// A record's full type name as a template argument, so that one template serves both
// namespaces under their own names.
template <std::size_t N>
struct TypeName {
  char text[N]{};
  constexpr TypeName(const char (&s)[N]) noexcept { std::copy_n(s, N, text); }  // NOLINT
  constexpr std::string_view view() const noexcept { return std::string_view(text, N - 1); }
};

template <typename It>
concept TextIterator =
    std::contiguous_iterator<It> && std::same_as < std::remove_cv_t<std::iter_value_t<It>>,
char > ;

template <typename T, TextIterator It>
void parseText(It begin, It end, T& v) {
  const char* b = std::to_address(begin);
  Kel::parseValue(b, b + (end - begin), v);
}

// The records of the status tables (and only they) print as their value text.
template <typename T>
concept StatusValue = Kel::ValueRecord<T> &&
    (T::kTypeName.starts_with("Routing::Pim::Drobe::") ||
     T::kTypeName.starts_with("Routing::Pim::IntfNghbr::Drobe::"));

template <StatusValue T>
std::string valueToStrep(const T& v) {
  return Kel::valueToStrep(v);
}
template <StatusValue T>
std::ostream& operator<<(std::ostream& os, const T& v) {
  return os << Kel::valueToStrep(v);
}

// Pieces of the human forms (drobeString): the value texts, interface ids bare.
void appendHuman(std::string& out, bool v);
void appendHuman(std::string& out, double v);
void appendHuman(std::string& out, std::uint32_t v);
void appendHuman(std::string& out, const Nimo::IntfId& v);
template <typename T>
void appendStreamed(std::string& out, const T& v);
template <typename T>
void appendHuman(std::string& out, const T& v) {
  if constexpr (std::is_integral_v<T>) {
    appendHuman(out, static_cast<std::uint32_t>(v));
  } else if constexpr (std::is_enum_v<T>) {
    Kel::ValueText<T>::print(out, v);
  } else {
    appendStreamed(out, v);
  }
}

// A key of two fields, printed and parsed under the names FirstName and SecondName. Each
// key class derives from it and names the two getters. Keys order field by field and hash as
// keyHash of the fields' hashes, a number being its own hash.
template <typename First, typename Second, TypeName Name, TypeName FirstName, TypeName SecondName>
class KeyPair {
 public:
  KeyPair() noexcept = default;
  KeyPair(const First& a, const Second& b) noexcept : first_(a), second_(b) {}
  template <TextIterator It>
  KeyPair(It begin, It end) {
    parseText(begin, end, *this);
  }

  std::uint32_t hash() const noexcept { return keyHash(fieldHash(first_), fieldHash(second_)); }
  bool operator!() const noexcept { return *this == KeyPair(); }
  friend bool operator==(const KeyPair&, const KeyPair&) = default;
  friend auto operator<=>(const KeyPair&, const KeyPair&) = default;

 protected:
  const First& first() const noexcept { return first_; }
  const Second& second() const noexcept { return second_; }

 private:
  First first_{};
  Second second_{};

 public:
  static constexpr std::string_view kTypeName = Name.view();
  static constexpr auto kFields = std::make_tuple(Kel::field(FirstName.view(), &KeyPair::first_),
                                                  Kel::field(SecondName.view(), &KeyPair::second_));
};

// Key-only record: a table of them is a set.
template <typename Key, TypeName Name>
class KeyRecord {
 public:
  KeyRecord() noexcept = default;
  explicit KeyRecord(const Key& key) noexcept : key_(key) {}
  template <TextIterator It>
  KeyRecord(It begin, It end) {
    parseText(begin, end, *this);
  }

  const Key& key() const noexcept { return key_; }
  bool operator!() const noexcept { return key_ == Key{}; }
  friend bool operator==(const KeyRecord&, const KeyRecord&) = default;

 private:
  Key key_{};

 public:
  static constexpr std::string_view kTypeName = Name.view();
  static constexpr auto kFields = std::make_tuple(Kel::field("key", &KeyRecord::key_));
};

// One PIM-enabled interface.
template <typename Key, TypeName Name>
class IntfT {
 public:
  IntfT() noexcept = default;
  IntfT(const Key& key, const Nimo::IpGenAddrWithMask& addressWithMask) noexcept
      : key_(key), addressWithMask_(addressWithMask) {}
  template <TextIterator It>
  IntfT(It begin, It end) {
    parseText(begin, end, *this);
  }

  const Key& key() const noexcept { return key_; }
  const Nimo::IpGenAddrWithMask& addressWithMask() const noexcept { return addressWithMask_; }
  void addressWithMaskIs(const Nimo::IpGenAddrWithMask& v) noexcept { addressWithMask_ = v; }
  std::uint8_t maskLength() const noexcept { return maskLength_; }
  void maskLengthIs(std::uint8_t v) noexcept { maskLength_ = v; }
  const Nimo::IpGenAddrWithMask& usedAddressWithMask() const noexcept {
    return usedAddressWithMask_;
  }
  void usedAddressWithMaskIs(const Nimo::IpGenAddrWithMask& v) noexcept {
    usedAddressWithMask_ = v;
  }
  Routing::Pim::Mode mode() const noexcept { return mode_; }
  void modeIs(Routing::Pim::Mode v) noexcept { mode_ = v; }
  bool borderRouter() const noexcept { return borderRouter_; }
  void borderRouterIs(bool v) noexcept { borderRouter_ = v; }
  bool enabled() const noexcept { return enabled_; }
  void enabledIs(bool v) noexcept { enabled_ = v; }
  bool sourceInject() const noexcept { return sourceInject_; }
  void sourceInjectIs(bool v) noexcept { sourceInject_ = v; }
  std::uint32_t assertTimeout() const noexcept { return assertTimeout_; }
  void assertTimeoutIs(std::uint32_t v) noexcept { assertTimeout_ = v; }
  std::uint32_t assertOverrideInterval() const noexcept { return assertOverrideInterval_; }
  void assertOverrideIntervalIs(std::uint32_t v) noexcept { assertOverrideInterval_ = v; }
  std::uint16_t helloPeriod() const noexcept { return helloPeriod_; }
  void helloPeriodIs(std::uint16_t v) noexcept { helloPeriod_ = v; }
  std::uint16_t helloHoldTime() const noexcept { return helloHoldTime_; }
  void helloHoldTimeIs(std::uint16_t v) noexcept { helloHoldTime_ = v; }
  bool triggeredHello() const noexcept { return triggeredHello_; }
  void triggeredHelloIs(bool v) noexcept { triggeredHello_ = v; }
  std::uint32_t triggeredHelloCount() const noexcept { return triggeredHelloCount_; }
  void triggeredHelloCountIs(std::uint32_t v) noexcept { triggeredHelloCount_ = v; }
  double lastHelloTime() const noexcept { return lastHelloTime_; }
  void lastHelloTimeIs(double v) noexcept { lastHelloTime_ = v; }
  std::uint32_t helloDelay() const noexcept { return helloDelay_; }
  void helloDelayIs(std::uint32_t v) noexcept { helloDelay_ = v; }
  std::uint16_t joinPrunePeriod() const noexcept { return joinPrunePeriod_; }
  void joinPrunePeriodIs(std::uint16_t v) noexcept { joinPrunePeriod_ = v; }
  std::uint16_t joinPruneHoldTime() const noexcept { return joinPruneHoldTime_; }
  void joinPruneHoldTimeIs(std::uint16_t v) noexcept { joinPruneHoldTime_ = v; }
  std::uint16_t propagationDelay() const noexcept { return propagationDelay_; }
  void propagationDelayIs(std::uint16_t v) noexcept { propagationDelay_ = v; }
  std::uint16_t usedPropagationDelay() const noexcept { return usedPropagationDelay_; }
  void usedPropagationDelayIs(std::uint16_t v) noexcept { usedPropagationDelay_ = v; }
  std::uint16_t overrideInterval() const noexcept { return overrideInterval_; }
  void overrideIntervalIs(std::uint16_t v) noexcept { overrideInterval_ = v; }
  std::uint16_t usedOverrideInterval() const noexcept { return usedOverrideInterval_; }
  void usedOverrideIntervalIs(std::uint16_t v) noexcept { usedOverrideInterval_ = v; }
  bool tBit() const noexcept { return tBit_; }
  void tBitIs(bool v) noexcept { tBit_ = v; }
  bool usedTBit() const noexcept { return usedTBit_; }
  void usedTBitIs(bool v) noexcept { usedTBit_ = v; }
  std::uint32_t drPriority() const noexcept { return drPriority_; }
  void drPriorityIs(std::uint32_t v) noexcept { drPriority_ = v; }
  const Nimo::IpGenAddr& usedDr() const noexcept { return usedDr_; }
  void usedDrIs(const Nimo::IpGenAddr& v) noexcept { usedDr_ = v; }
  std::uint32_t usedDrPriority() const noexcept { return usedDrPriority_; }
  void usedDrPriorityIs(std::uint32_t v) noexcept { usedDrPriority_ = v; }
  std::uint32_t generationId() const noexcept { return generationId_; }
  void generationIdIs(std::uint32_t v) noexcept { generationId_ = v; }
  bool bfdEnabled() const noexcept { return bfdEnabled_; }
  void bfdEnabledIs(bool v) noexcept { bfdEnabled_ = v; }
  Reliable::CapabilityFlags portCapabilityFlags() const noexcept { return portCapabilityFlags_; }
  void portCapabilityFlagsIs(Reliable::CapabilityFlags v) noexcept { portCapabilityFlags_ = v; }
  Reliable::InterfaceId portInterfaceId() const noexcept { return portInterfaceId_; }
  void portInterfaceIdIs(Reliable::InterfaceId v) noexcept { portInterfaceId_ = v; }
  bool fastFailover() const noexcept { return fastFailover_; }
  void fastFailoverIs(bool v) noexcept { fastFailover_ = v; }

  bool operator!() const noexcept { return key_ == Key{}; }
  friend bool operator==(const IntfT&, const IntfT&) = default;

  // "[intId=Ethernet1, addressWithMask=10.0.0.1/24, ..., fast failover=False]"; leaves out
  // maskLength, sourceInject, helloHoldTime and joinPruneHoldTime, as show output always has.
  std::string drobeString() const;

 private:
  Key key_{};
  Nimo::IpGenAddrWithMask addressWithMask_{};
  std::uint8_t maskLength_{};
  Nimo::IpGenAddrWithMask usedAddressWithMask_{};
  Routing::Pim::Mode mode_{};
  bool borderRouter_{};
  bool enabled_{};
  bool sourceInject_{};
  std::uint32_t assertTimeout_{};
  std::uint32_t assertOverrideInterval_{};
  std::uint16_t helloPeriod_{};
  std::uint16_t helloHoldTime_{};
  bool triggeredHello_{};
  std::uint32_t triggeredHelloCount_{};
  double lastHelloTime_{};
  std::uint32_t helloDelay_{};
  std::uint16_t joinPrunePeriod_{};
  std::uint16_t joinPruneHoldTime_{};
  std::uint16_t propagationDelay_{};
  std::uint16_t usedPropagationDelay_{};
  std::uint16_t overrideInterval_{};
  std::uint16_t usedOverrideInterval_{};
  bool tBit_{};
  bool usedTBit_{};
  std::uint32_t drPriority_{};
  Nimo::IpGenAddr usedDr_{};
  std::uint32_t usedDrPriority_{};
  std::uint32_t generationId_{};
  bool bfdEnabled_{};
  Reliable::CapabilityFlags portCapabilityFlags_{};
  Reliable::InterfaceId portInterfaceId_{};
  bool fastFailover_{};

 public:
  static constexpr std::string_view kTypeName = Name.view();
  static constexpr auto kFields = std::make_tuple(
      Kel::field("key", &IntfT::key_), Kel::field("addressWithMask", &IntfT::addressWithMask_),
      Kel::field("maskLength", &IntfT::maskLength_),
      Kel::field("usedAddressWithMask", &IntfT::usedAddressWithMask_),
      Kel::field("mode", &IntfT::mode_), Kel::field("borderRouter", &IntfT::borderRouter_),
      Kel::field("enabled", &IntfT::enabled_), Kel::field("sourceInject", &IntfT::sourceInject_),
      Kel::field("assertTimeout", &IntfT::assertTimeout_),
      Kel::field("assertOverrideInterval", &IntfT::assertOverrideInterval_),
      Kel::field("helloPeriod", &IntfT::helloPeriod_),
      Kel::field("helloHoldTime", &IntfT::helloHoldTime_),
      Kel::field("triggeredHello", &IntfT::triggeredHello_),
      Kel::field("triggeredHelloCount", &IntfT::triggeredHelloCount_),
      Kel::field("lastHelloTime", &IntfT::lastHelloTime_),
      Kel::field("helloDelay", &IntfT::helloDelay_),
      Kel::field("joinPrunePeriod", &IntfT::joinPrunePeriod_),
      Kel::field("joinPruneHoldTime", &IntfT::joinPruneHoldTime_),
      Kel::field("propagationDelay", &IntfT::propagationDelay_),
      Kel::field("usedPropagationDelay", &IntfT::usedPropagationDelay_),
      Kel::field("overrideInterval", &IntfT::overrideInterval_),
      Kel::field("usedOverrideInterval", &IntfT::usedOverrideInterval_),
      Kel::field("tBit", &IntfT::tBit_), Kel::field("usedTBit", &IntfT::usedTBit_),
      Kel::field("drPriority", &IntfT::drPriority_), Kel::field("usedDr", &IntfT::usedDr_),
      Kel::field("usedDrPriority", &IntfT::usedDrPriority_),
      Kel::field("generationId", &IntfT::generationId_),
      Kel::field("bfdEnabled", &IntfT::bfdEnabled_),
      Kel::field("portCapabilityFlags", &IntfT::portCapabilityFlags_),
      Kel::field("portInterfaceId", &IntfT::portInterfaceId_),
      Kel::field("fastFailover", &IntfT::fastFailover_));
};

// One PIM neighbour.
template <typename Key, TypeName Name>
class NeighborT {
 public:
  NeighborT() noexcept = default;
  // The writer fills the times afterwards.
  NeighborT(const Key& key, std::uint16_t holdTime, const DrPriorityOption& drPriorityOption,
            const GenerationIdOption& generationIdOption,
            const LanPruneDelayOption& lanPruneDelayOption) noexcept
      : key_(key),
        holdTime_(holdTime),
        drPriorityOption_(drPriorityOption),
        generationIdOption_(generationIdOption),
        lanPruneDelayOption_(lanPruneDelayOption) {}
  template <TextIterator It>
  NeighborT(It begin, It end) {
    parseText(begin, end, *this);
  }

  const Key& key() const noexcept { return key_; }
  double creationTime() const noexcept { return creationTime_; }
  void creationTimeIs(double v) noexcept { creationTime_ = v; }
  double lastRefreshTime() const noexcept { return lastRefreshTime_; }
  void lastRefreshTimeIs(double v) noexcept { lastRefreshTime_ = v; }
  std::uint16_t holdTime() const noexcept { return holdTime_; }
  void holdTimeIs(std::uint16_t v) noexcept { holdTime_ = v; }
  DrPriorityOption drPriorityOption() const noexcept { return drPriorityOption_; }
  void drPriorityOptionIs(DrPriorityOption v) noexcept { drPriorityOption_ = v; }
  GenerationIdOption generationIdOption() const noexcept { return generationIdOption_; }
  void generationIdOptionIs(GenerationIdOption v) noexcept { generationIdOption_ = v; }
  LanPruneDelayOption lanPruneDelayOption() const noexcept { return lanPruneDelayOption_; }
  void lanPruneDelayOptionIs(LanPruneDelayOption v) noexcept { lanPruneDelayOption_ = v; }
  Bfd::OperState bfdState() const noexcept { return bfdState_; }
  void bfdStateIs(Bfd::OperState v) noexcept { bfdState_ = v; }
  const Reliable::NeighborInfo& portInfo() const noexcept { return portInfo_; }
  void portInfoIs(const Reliable::NeighborInfo& v) noexcept { portInfo_ = v; }
  Reliable::Protocol transportProtocol() const noexcept { return transportProtocol_; }
  void transportProtocolIs(Reliable::Protocol v) noexcept { transportProtocol_ = v; }

  bool operator!() const noexcept { return key_ == Key{}; }
  friend bool operator==(const NeighborT&, const NeighborT&) = default;

  // "[neighbor address=10.0.0.2, neighbor interface=Ethernet1, creation time=..., ...,
  // connectionStatus=sctp]".
  std::string drobeString() const;

 private:
  Key key_{};
  double creationTime_{};
  double lastRefreshTime_{};
  std::uint16_t holdTime_{};
  DrPriorityOption drPriorityOption_{};
  GenerationIdOption generationIdOption_{};
  LanPruneDelayOption lanPruneDelayOption_{};
  Bfd::OperState bfdState_{};
  Reliable::NeighborInfo portInfo_{};
  Reliable::Protocol transportProtocol_{};

 public:
  static constexpr std::string_view kTypeName = Name.view();
  static constexpr auto kFields = std::make_tuple(
      Kel::field("key", &NeighborT::key_), Kel::field("creationTime", &NeighborT::creationTime_),
      Kel::field("lastRefreshTime", &NeighborT::lastRefreshTime_),
      Kel::field("holdTime", &NeighborT::holdTime_),
      Kel::field("drPriorityOption", &NeighborT::drPriorityOption_),
      Kel::field("generationIdOption", &NeighborT::generationIdOption_),
      Kel::field("lanPruneDelayOption", &NeighborT::lanPruneDelayOption_),
      Kel::field("bfdState", &NeighborT::bfdState_), Kel::field("portInfo", &NeighborT::portInfo_),
      Kel::field("transportProtocol", &NeighborT::transportProtocol_));
};

// The key type of a record.
template <typename R>
using KeyOf = std::remove_cvref_t<decltype(std::declval<const R&>().key())>;

// One generation's status records and their keys, as the status containers (PimDrobe.h)
// take them; the records are checked here to be copyable byte-wise into shared memory.
template <typename IntfR, typename NeighborR, typename NeighborRefR, typename IntfSecondaryAddressR,
          typename IntfSecondaryPrefixR, typename NeighborSecondaryAddressR>
struct StatusTypes {
  using Intf = IntfR;
  using IntfKey = KeyOf<Intf>;
  using Neighbor = NeighborR;
  using NeighborKey = KeyOf<Neighbor>;
  using NeighborRef = NeighborRefR;
  using IntfSecondaryAddress = IntfSecondaryAddressR;
  using IntfSecondaryAddressKey = KeyOf<IntfSecondaryAddress>;
  using IntfSecondaryPrefix = IntfSecondaryPrefixR;
  using IntfSecondaryPrefixKey = KeyOf<IntfSecondaryPrefix>;
  using NeighborSecondaryAddress = NeighborSecondaryAddressR;
  using NeighborSecondaryAddressKey = KeyOf<NeighborSecondaryAddress>;
  static_assert(std::is_trivially_copyable_v<Intf> && std::is_trivially_copyable_v<Neighbor> &&
                std::is_trivially_copyable_v<NeighborRef> &&
                std::is_trivially_copyable_v<IntfSecondaryAddress> &&
                std::is_trivially_copyable_v<IntfSecondaryPrefix> &&
                std::is_trivially_copyable_v<NeighborSecondaryAddress>);
};

}  // namespace Routing::Pim::DrobeDetail

// ---------------------------------------------------------------------------------------
// Per-VRF generation.

namespace Routing::Pim::Drobe {

using DrobeDetail::operator<<;
using DrobeDetail::valueToStrep;

// Keys of the per-VRF tables: interfaces by Nimo::IntfId.
class NeighborKey
    : public DrobeDetail::KeyPair<Nimo::IpGenAddr, Nimo::IntfId, "Routing::Pim::Drobe::NeighborKey",
                                  "address", "intfId"> {
 public:
  using KeyPair::KeyPair;
  const Nimo::IpGenAddr& address() const noexcept { return first(); }
  const Nimo::IntfId& intfId() const noexcept { return second(); }
};

class NeighborSecondaryAddressKey
    : public DrobeDetail::KeyPair<NeighborKey, Nimo::IpGenAddr,
                                  "Routing::Pim::Drobe::NeighborSecondaryAddressKey", "neighbor",
                                  "secondaryAddress"> {
 public:
  using KeyPair::KeyPair;
  const NeighborKey& neighbor() const noexcept { return first(); }
  const Nimo::IpGenAddr& secondaryAddress() const noexcept { return second(); }
};

class IntfSecondaryAddressKey
    : public DrobeDetail::KeyPair<Nimo::IntfId, Nimo::IpGenAddr,
                                  "Routing::Pim::Drobe::IntfSecondaryAddressKey", "intfId",
                                  "secondaryAddress"> {
 public:
  using KeyPair::KeyPair;
  const Nimo::IntfId& intfId() const noexcept { return first(); }
  const Nimo::IpGenAddr& secondaryAddress() const noexcept { return second(); }
};

class IntfSecondaryPrefixKey
    : public DrobeDetail::KeyPair<Nimo::IntfId, Nimo::IpGenPrefix,
                                  "Routing::Pim::Drobe::IntfSecondaryPrefixKey", "intfId",
                                  "secondaryPrefix"> {
 public:
  using KeyPair::KeyPair;
  const Nimo::IntfId& intfId() const noexcept { return first(); }
  const Nimo::IpGenPrefix& secondaryPrefix() const noexcept { return second(); }
};

// A message counter's key. The empty intfId counts all interfaces; stype 255 "any subtype".
class CounterKey {
 public:
  CounterKey() noexcept = default;
  CounterKey(Packet::MessageType mtype, Packet::MessageSubtype stype,
             const Nimo::IntfId& intfId) noexcept
      : mtype_(mtype), stype_(stype), intfId_(intfId) {}
  template <DrobeDetail::TextIterator It>
  CounterKey(It begin, It end) {
    DrobeDetail::parseText(begin, end, *this);
  }

  Packet::MessageType mtype() const noexcept { return mtype_; }
  Packet::MessageSubtype stype() const noexcept { return stype_; }
  const Nimo::IntfId& intfId() const noexcept { return intfId_; }
  std::uint32_t hash() const noexcept {
    return DrobeDetail::keyHash(static_cast<std::uint32_t>((stype_ << 8) | mtype_), intfId_.hash());
  }
  bool operator!() const noexcept { return *this == CounterKey(); }
  friend bool operator==(const CounterKey&, const CounterKey&) = default;
  friend auto operator<=>(const CounterKey&, const CounterKey&) = default;  // mtype, stype, intf

 private:
  Packet::MessageType mtype_ = 0;
  Packet::MessageSubtype stype_ = 0;
  Nimo::IntfId intfId_;

 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::Drobe::CounterKey";
  static constexpr auto kFields = std::make_tuple(Kel::field("mtype", &CounterKey::mtype_),
                                                  Kel::field("stype", &CounterKey::stype_),
                                                  Kel::field("intfId", &CounterKey::intfId_));
};

// The interface part of a neighbour key, for the human forms.
inline const Nimo::IntfId& neighborIntf(const NeighborKey& k) noexcept { return k.intfId(); }

using Intf = DrobeDetail::IntfT<Nimo::IntfId, "Routing::Pim::Drobe::Intf">;
using Neighbor = DrobeDetail::NeighborT<NeighborKey, "Routing::Pim::Drobe::Neighbor">;
using NeighborRef = DrobeDetail::KeyRecord<NeighborKey, "Routing::Pim::Drobe::NeighborRef">;
using NeighborSecondaryAddress =
    DrobeDetail::KeyRecord<NeighborSecondaryAddressKey,
                           "Routing::Pim::Drobe::NeighborSecondaryAddress">;
using IntfSecondaryAddress =
    DrobeDetail::KeyRecord<IntfSecondaryAddressKey, "Routing::Pim::Drobe::IntfSecondaryAddress">;
using IntfSecondaryPrefix =
    DrobeDetail::KeyRecord<IntfSecondaryPrefixKey, "Routing::Pim::Drobe::IntfSecondaryPrefix">;

// The value of the message counter table.
class MessageCounterData {
 public:
  MessageCounterData() noexcept = default;
  explicit MessageCounterData(const CounterKey& key) noexcept : key_(key) {}
  MessageCounterData(const CounterKey& key, const IO::MessageCounter& rxMsgCounter,
                     const IO::MessageCounter& txMsgCounter) noexcept
      : key_(key), rxMsgCounter_(rxMsgCounter), txMsgCounter_(txMsgCounter) {}
  template <DrobeDetail::TextIterator It>
  MessageCounterData(It begin, It end) {
    DrobeDetail::parseText(begin, end, *this);
  }

  const CounterKey& key() const noexcept { return key_; }
  const IO::MessageCounter& rxMsgCounter() const noexcept { return rxMsgCounter_; }
  void rxMsgCounterIs(const IO::MessageCounter& c) noexcept { rxMsgCounter_ = c; }
  const IO::MessageCounter& txMsgCounter() const noexcept { return txMsgCounter_; }
  void txMsgCounterIs(const IO::MessageCounter& c) noexcept { txMsgCounter_ = c; }
  // Adds one to the count of type t in the direction's counter.
  void countInc(IO::MessageCounterDirection d, IO::MessageCounterType t) noexcept {
    (d == IO::MessageCounterDirection::rx ? rxMsgCounter_ : txMsgCounter_).countInc(t);
  }

  bool operator!() const noexcept { return !key_; }
  friend bool operator==(const MessageCounterData&, const MessageCounterData&) = default;

  // "[key: (MessageType=3, MessageSubtype=255, Interface=\"Ethernet1\")), rx: {...}, tx: {...}]"
  // The key's closing parenthesis shows twice; show-command parsers rely on that text.
  std::string drobeString() const;

 private:
  CounterKey key_;
  IO::MessageCounter rxMsgCounter_;
  IO::MessageCounter txMsgCounter_;

 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::Drobe::MessageCounterData";
  static constexpr auto kFields =
      std::make_tuple(Kel::field("key", &MessageCounterData::key_),
                      Kel::field("rxMsgCounter", &MessageCounterData::rxMsgCounter_),
                      Kel::field("txMsgCounter", &MessageCounterData::txMsgCounter_));
};

using StatusTypes = DrobeDetail::StatusTypes<Intf, Neighbor, NeighborRef, IntfSecondaryAddress,
                                             IntfSecondaryPrefix, NeighborSecondaryAddress>;
static_assert(std::is_trivially_copyable_v<MessageCounterData>);

}  // namespace Routing::Pim::Drobe

// ---------------------------------------------------------------------------------------
// All-VRF generation.

namespace Routing::Pim::IntfNghbr::Drobe {

using DrobeDetail::operator<<;
using DrobeDetail::valueToStrep;

// Keys of the all-VRF tables: interfaces by IntfVrfKey.
class IntfVrfKey
    : public DrobeDetail::KeyPair<Nimo::IntfId, Vrf::VrfIdMap::VrfId,
                                  "Routing::Pim::IntfNghbr::Drobe::IntfVrfKey", "intfId", "vrfId"> {
 public:
  using KeyPair::KeyPair;
  const Nimo::IntfId& intfId() const noexcept { return first(); }
  Vrf::VrfIdMap::VrfId vrfId() const noexcept { return second(); }
};

class NeighborKey : public DrobeDetail::KeyPair<Nimo::IpGenAddr, IntfVrfKey,
                                                "Routing::Pim::IntfNghbr::Drobe::NeighborKey",
                                                "address", "intfVrfKey"> {
 public:
  using KeyPair::KeyPair;
  const Nimo::IpGenAddr& address() const noexcept { return first(); }
  const IntfVrfKey& intfVrfKey() const noexcept { return second(); }
};

class NeighborSecondaryAddressKey
    : public DrobeDetail::KeyPair<NeighborKey, Nimo::IpGenAddr,
                                  "Routing::Pim::IntfNghbr::Drobe::NeighborSecondaryAddressKey",
                                  "neighbor", "secondaryAddress"> {
 public:
  using KeyPair::KeyPair;
  const NeighborKey& neighbor() const noexcept { return first(); }
  const Nimo::IpGenAddr& secondaryAddress() const noexcept { return second(); }
};

class IntfSecondaryAddressKey
    : public DrobeDetail::KeyPair<IntfVrfKey, Nimo::IpGenAddr,
                                  "Routing::Pim::IntfNghbr::Drobe::IntfSecondaryAddressKey",
                                  "intfVrfKey", "secondaryAddress"> {
 public:
  using KeyPair::KeyPair;
  const IntfVrfKey& intfVrfKey() const noexcept { return first(); }
  const Nimo::IpGenAddr& secondaryAddress() const noexcept { return second(); }
};

class IntfSecondaryPrefixKey
    : public DrobeDetail::KeyPair<IntfVrfKey, Nimo::IpGenPrefix,
                                  "Routing::Pim::IntfNghbr::Drobe::IntfSecondaryPrefixKey",
                                  "intfVrfKey", "secondaryPrefix"> {
 public:
  using KeyPair::KeyPair;
  const IntfVrfKey& intfVrfKey() const noexcept { return first(); }
  const Nimo::IpGenPrefix& secondaryPrefix() const noexcept { return second(); }
};

// Human forms: "Ethernet1 (vrf 3)".
void appendHuman(std::string& out, const IntfVrfKey& k);
inline const IntfVrfKey& neighborIntf(const NeighborKey& k) noexcept { return k.intfVrfKey(); }

using Intf = DrobeDetail::IntfT<IntfVrfKey, "Routing::Pim::IntfNghbr::Drobe::Intf">;
using Neighbor = DrobeDetail::NeighborT<NeighborKey, "Routing::Pim::IntfNghbr::Drobe::Neighbor">;
using NeighborRef =
    DrobeDetail::KeyRecord<NeighborKey, "Routing::Pim::IntfNghbr::Drobe::NeighborRef">;
using NeighborSecondaryAddress =
    DrobeDetail::KeyRecord<NeighborSecondaryAddressKey,
                           "Routing::Pim::IntfNghbr::Drobe::NeighborSecondaryAddress">;
using IntfSecondaryAddress =
    DrobeDetail::KeyRecord<IntfSecondaryAddressKey,
                           "Routing::Pim::IntfNghbr::Drobe::IntfSecondaryAddress">;
using IntfSecondaryPrefix =
    DrobeDetail::KeyRecord<IntfSecondaryPrefixKey,
                           "Routing::Pim::IntfNghbr::Drobe::IntfSecondaryPrefix">;

using StatusTypes = DrobeDetail::StatusTypes<Intf, Neighbor, NeighborRef, IntfSecondaryAddress,
                                             IntfSecondaryPrefix, NeighborSecondaryAddress>;

}  // namespace Routing::Pim::IntfNghbr::Drobe

// ---------------------------------------------------------------------------------------
// Human forms of the templated records.

namespace Routing::Pim::DrobeDetail {

template <typename T>
void appendStreamed(std::string& out, const T& v) {
  std::ostringstream os;
  os << v;
  out += os.str();
}

template <typename Key, TypeName Name>
std::string IntfT<Key, Name>::drobeString() const {
  std::string out = "[intId=";
  appendHuman(out, key_);
  auto put = [&out](std::string_view label, const auto& v) {
    out += label;
    appendHuman(out, v);
  };
  put(", addressWithMask=", addressWithMask_);
  put(", usedAddressWithMask=", usedAddressWithMask_);
  put(", mode=", mode_);
  put(", borderRouter=", borderRouter_);
  put(", enabled=", enabled_);
  put(", assertTimeout=", assertTimeout_);
  put(", assertOverrideInterval=", assertOverrideInterval_);
  put(", helloPeriod=", helloPeriod_);
  put(", triggeredHello=", triggeredHello_);
  put(", triggeredHelloCount=", triggeredHelloCount_);
  put(", lastHelloTime=", lastHelloTime_);
  put(", helloDelay=", helloDelay_);
  put(", joinPrunePeriod=", joinPrunePeriod_);
  put(", propagationDelay=", propagationDelay_);
  put(", usedPropagationDelay=", usedPropagationDelay_);
  put(", overrideInterval=", overrideInterval_);
  put(", usedOverrideInterval=", usedOverrideInterval_);
  put(", tBit=", tBit_);
  put(", usedTBit=", usedTBit_);
  put(", drPriority=", drPriority_);
  put(", usedDr=", usedDr_);
  put(", usedDrPriority=", usedDrPriority_);
  put(", generationId=", generationId_);
  put(", bfdEnabled=", bfdEnabled_);
  put(", portCapabilityFlags=", portCapabilityFlags_);
  put(", portInterfaceId=", portInterfaceId_);
  put(", fast failover=", fastFailover_);
  out += "]";
  return out;
}

template <typename Key, TypeName Name>
std::string NeighborT<Key, Name>::drobeString() const {
  std::string out = "[neighbor address=";
  appendHuman(out, key_.address());
  auto put = [&out](std::string_view label, const auto& v) {
    out += label;
    appendHuman(out, v);
  };
  put(", neighbor interface=", neighborIntf(key_));
  put(", creation time=", creationTime_);
  put(", last refresh time=", lastRefreshTime_);
  put(", hello holdtime=", holdTime_);
  put(", dr priority option=", drPriorityOption_);
  put(", generation id option=", generationIdOption_);
  put(", lan prune delay option=", lanPruneDelayOption_);
  put(", bfd state=", bfdState_);
  put(", portInfo=", portInfo_);
  put(", connectionStatus=", transportProtocol_);
  out += "]";
  return out;
}

}  // namespace Routing::Pim::DrobeDetail
