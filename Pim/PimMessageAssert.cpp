// Assert message of the PIM codec.

#include "Pim/PimMessage.h"
#include "Pim/PimMessageChecks.h"
#include "Pim/PimMessageWire.h"

namespace Routing::Pim::Packet {

using Wire::fail;

namespace {

// Reader, in the order the code meets them.
constexpr char kHeaderParse[] = "Invalid Pim Assert - Header - Parse Error";
constexpr Wire::GroupTexts kGroupTexts{
    "Invalid Pim Assert - Group Address - Parse Error",
    "Invalid Pim Assert - Group Address - Invalid Family - Family: {} Group Address: {}",
    "Invalid Pim Assert - Group Address - Invalid Prefix - {}"};
constexpr Wire::UnicastTexts kSourceTexts{
    "Invalid Pim Assert - Source Address - Parse Error",
    "Invalid Pim Assert - Source Address - Invalid Family - Family: {} Source Address: {}",
    "Invalid Pim Assert - Source Address - Invalid Address - {}"};
constexpr char kPreferenceLength[] =
    "Invalid Pim Assert - Metric Preference Length - Remaining: {} Expected: 4";
constexpr char kMetricLength[] = "Invalid Pim Assert - Metric Length - Remaining: {} Expected: 4";
constexpr char kEnd[] = "Invalid Pim Assert - End of Message - Remaining: {}";

// Writer.
constexpr char kHeaderNoSpace[] = "Invalid Pim Assert - Header - Unavailable Space - Remaining: {}";
constexpr char kFamilyGroup[] =
    "Invalid Pim Assert - Invalid Family - Family: {} Group Address: {}";
constexpr char kFamilySource[] =
    "Invalid Pim Assert - Invalid Family - Family: {} Source Address: {}";
constexpr char kGroupWrite[] = "Invalid Pim Assert - Group Address - Write Error";
constexpr char kSourceWrite[] = "Invalid Pim Assert - Source Address - Write Error";
constexpr char kMetricNoSpace[] = "Invalid Pim Assert - Metric - Unavailable Space - Remaining: {}";
constexpr char kHeaderWrite[] = "Invalid Pim Assert - Header - Write Error";

constexpr std::uint32_t kRptBit = 0x80000000u;

}  // namespace

AssertMessage::AssertMetricPreference::AssertMetricPreference(std::uint32_t v) : value_(v) {
  if (value_ > max) throw Kel::RangeError(std::string(kRangeErrorText));
}

AssertMessage::AssertMetricPreference::AssertMetricPreference(const char* begin, const char* end) {
  Kel::parseValue(begin, end, *this);
  if (value_ > max) throw Kel::RangeError(std::string(kRangeErrorText));
}

std::ostream& operator<<(std::ostream& os, const AssertMessage::AssertMetricPreference& p) {
  return os << Kel::valueToStrep(p);
}
std::ostream& operator<<(std::ostream& os, const AssertMessage::AssertImplMetricPreference& p) {
  return os << Kel::valueToStrep(p);
}

std::uint32_t AssertMessage::implMetricPreferenceU32() const noexcept {
  const std::uint8_t b[4] = {impl_.v0, impl_.v1, impl_.v2, impl_.v3};
  return Nimo::load32(b);
}

void AssertMessage::implMetricPreferenceU32Is(std::uint32_t v) noexcept {
  std::uint8_t b[4];
  Nimo::store32(b, v);
  impl_ = AssertImplMetricPreference(b[0], b[1], b[2], b[3]);
}

void AssertMessage::rptIs(bool b) noexcept {
  const std::uint32_t v = implMetricPreferenceU32();
  implMetricPreferenceU32Is(b ? v | kRptBit : v & ~kRptBit);
}

AssertMessage::AssertMetricPreference AssertMessage::metricPreference() const noexcept {
  // 31 bits never exceed max, so this cannot throw.
  return AssertMetricPreference(implMetricPreferenceU32() & ~kRptBit);
}

void AssertMessage::metricPreferenceIs(AssertMetricPreference p) noexcept {
  implMetricPreferenceU32Is((implMetricPreferenceU32() & kRptBit) | p.value());
}

std::uint32_t AssertMessage::readAssertMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                               std::uint32_t offset) noexcept {
  // Header, group, source
  if (readHeader(pkt, offset) == 0) return fail(kHeaderParse);
  std::uint32_t pos = offset + Nimo::PimCommonHdr::kSize;
  std::uint32_t n = Wire::readGroup(group_, pkt, pos, af(), kGroupTexts, true);
  if (n == 0) return 0;
  pos += n;
  n = Wire::readUnicast(source_, pkt, pos, af(), kSourceTexts);
  if (n == 0) return 0;
  pos += n;

  // Preference word and metric: exactly 8 bytes
  Wire::Reader in(*pkt, pos);
  if (in.remaining() < 4) return fail(kPreferenceLength, in.remaining());
  const std::uint32_t preference = in.u32();
  if (in.remaining() < 4) return fail(kMetricLength, in.remaining());
  const std::uint32_t metric = in.u32();
  if (in.remaining() != 0) return fail(kEnd, in.remaining());
  implMetricPreferenceU32Is(preference);
  metric_ = metric;
  Wire::traceMessage("RX", *this);
  return in.offset() - offset;
}

std::uint32_t AssertMessage::writeAssertMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                std::uint32_t offset) noexcept {
  const std::uint32_t room = Wire::remainingFrom(*pkt, offset);
  if (room < Nimo::PimCommonHdr::kSize) return fail(kHeaderNoSpace, room);
  const Nimo::IpGenAddr& group = group_.groupAddress().address.address();
  if (Wire::familyOf(group) != af()) return fail(kFamilyGroup, unsigned{af()}, group);
  if (Wire::familyOf(source_.address()) != af()) {
    return fail(kFamilySource, unsigned{af()}, source_.address());
  }

  std::uint32_t pos = offset + Nimo::PimCommonHdr::kSize;
  std::uint32_t n = Wire::hostGroup(group_).writeGroupAddress(pkt, pos);
  if (n == 0) return fail(kGroupWrite);
  pos += n;
  n = source_.writeUnicastAddress(pkt, pos);
  if (n == 0) return fail(kSourceWrite);
  pos += n;
  Wire::Writer out(*pkt, pos);
  if (out.remaining() < 8) return fail(kMetricNoSpace, out.remaining());
  out.u32(implMetricPreferenceU32());
  out.u32(metric_);

  lengthIs(out.offset() - offset);
  if (writeHeader(pkt, offset) == 0) return fail(kHeaderWrite);
  Wire::traceMessage("TX", *this);
  return length();
}

void AssertMessage::print(std::ostream& os) const {
  Message::print(os);
  os << " | source=" << source_.address() << ", group=" << group_.groupAddress().address
     << ", rpt=" << rpt() << ", preference=" << metricPreference().value()
     << ", metric=" << metric_;
}

bool operator==(const AssertMessage& a, const AssertMessage& b) noexcept {
  return a.headerEquals(b) && a.group_ == b.group_ && a.source_ == b.source_ &&
         a.impl_ == b.impl_ && a.metric_ == b.metric_;
}

}  // namespace Routing::Pim::Packet
