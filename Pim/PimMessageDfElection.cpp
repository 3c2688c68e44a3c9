// DF Election messages (Offer, Winner, Backoff, Pass) of the PIM codec.

#include "Pim/PimMessage.h"
#include "Pim/PimMessageChecks.h"
#include "Pim/PimMessageWire.h"

namespace Routing::Pim::Packet {

using Wire::fail;

namespace {

// Common part, reader then writer.
constexpr char kHeaderParse[] = "Invalid Pim DF Election - Header - Parse Error";
constexpr Wire::UnicastTexts kRpTexts{
    "Invalid Pim DF Election - RP Address - Parse Error",
    "Invalid Pim DF Election - RP Address - Invalid Family - Family: {} RP Address: {}",
    "Invalid Pim DF Election - RP Address - Invalid Address - {}"};
constexpr char kMetricLength[] =
    "Invalid Pim DF Election - Metric and Metric Preference Length - Remaining: {} Expected: 8";
constexpr char kHeaderNoSpace[] =
    "Invalid Pim DF Election - Header - Unavailable Space - Remaining: {}";
constexpr char kRpFamily[] = "Invalid Pim DF Election - Invalid Family - Family: {} RP Address: {}";
constexpr char kRpWrite[] = "Invalid Pim DF Election - RP Address - Write Error";
constexpr char kMetricNoSpace[] =
    "Invalid Pim DF Election - Metric and Metric Preference - Unavailable Space - Remaining: {} "
    "Expected: 8";
constexpr char kHeaderWrite[] = "Invalid Pim DF Election - Header - Write Error";

// Subtypes.
constexpr char kOfferRead[] = "Invalid Pim DF Election Offer - Read Error";
constexpr char kWinnerRead[] = "Invalid Pim DF Election Winner - Read Error";
constexpr char kBackoffRead[] = "Invalid Pim DF Election Backoff - Read Error";
constexpr char kPassRead[] = "Invalid Pim DF Election Pass - Read Error";
constexpr char kOfferWrite[] = "Invalid Pim DF Election Offer - Write Error";
constexpr char kWinnerWrite[] = "Invalid Pim DF Election Winner - Write Error";

constexpr Wire::UnicastTexts kOfferingTexts{
    "Invalid Pim DF Election Backoff - Offering Address - Parse Error",
    "Invalid Pim DF Election Backoff - Offering Address - Invalid Family - Family: {} Offering "
    "Address: {}",
    "Invalid Pim DF Election Backoff - Offering Address - Invalid Address - {}"};
constexpr char kOfferingLength[] =
    "Invalid Pim DF Election Backoff - Offering Metric and Metric Preference Length - Remaining: "
    "{} Expected: {}";
// The Pass reader reports an invalid winner with the Backoff wording: both readers were one
// in the routers this interoperates with, and operators' filters match that line.
constexpr Wire::UnicastTexts kWinningTexts{
    "Invalid Pim DF Election Pass - New Winning Address - Parse Error",
    "Invalid Pim DF Election Pass - New Winning Address - Invalid Family - Family: {} New "
    "Winning Address: {}",
    "Invalid Pim DF Election Backoff - New Winning Address - Invalid Address - {}"};
constexpr char kWinningLength[] =
    "Invalid Pim DF Election Pass - New Winning Metric and Metric Preference Length - "
    "Remaining: {}";

// Backoff and Pass write the whole message with their own texts.
struct WriteTexts {
  fmt::format_string<std::uint32_t> headerNoSpace;
  fmt::format_string<> rpWrite;
  fmt::format_string<std::uint32_t> metricNoSpace;
  fmt::format_string<unsigned, Nimo::IpGenAddr> rpFamily;
  fmt::format_string<unsigned, Nimo::IpGenAddr> secondFamily;
  fmt::format_string<> secondWrite;
  fmt::format_string<std::uint32_t> secondMetricNoSpace;
  fmt::format_string<> headerWrite;
};
constexpr WriteTexts kBackoffWrite{
    "Invalid Pim DF Election Backoff - Header - Unavailable Space - Remaining: {}",
    "Invalid Pim DF Election Backoff - RP Address - Write Error",
    "Invalid Pim DF Election Backoff - Metric and Metric Preference - Unavailable Space - "
    "Remaining: {}",
    "Invalid Pim DF Election Backoff - Invalid Family - Family: {} RP Address: {}",
    "Invalid Pim DF Election Backoff - Invalid Family - Family: {} Offering Address: {}",
    "Invalid Pim DF Election Backoff - Offering Address - Write Error",
    "Invalid Pim DF Election Backoff - Offering Metric and Metric Preference - Unavailable Space "
    "- Remaining: {}",
    "Invalid Pim DF Election Backoff - Header - Write Error"};
constexpr WriteTexts kPassWrite{
    "Invalid Pim DF Election Pass - Header - Unavailable Space - Remaining: {}",
    "Invalid Pim DF Election Pass - RP Address - Write Error",
    "Invalid Pim DF Election Pass - Metric and Metric Preference - Unavailable Space - "
    "Remaining: {}",
    "Invalid Pim DF Election Pass - Invalid Family - Family: {} RP Address: {}",
    "Invalid Pim DF Election Pass - Invalid Family - Family: {} Winning Address: {}",
    "Invalid Pim DF Election Pass - Winning Address - Write Error",
    "Invalid Pim DF Election Pass - Winning Metric and Metric Preference - Unavailable Space - "
    "Remaining: {}",
    "Invalid Pim DF Election Pass - Header - Write Error"};

constexpr std::uint32_t kBackoffTail = 10;  // preference, metric, interval
constexpr std::uint32_t kPassTail = 8;      // preference, metric

// The second address and its metrics: Backoff's offering or Pass's new winner.
struct Second {
  const EncodedUnicastAddress& address;
  Routing::MetricPref pref;
  const std::uint16_t* interval;  // Backoff only
};

// Writes a whole Backoff or Pass message.
std::uint32_t writeWithSecond(DfElectionMessage& m, const Kel::Ptr<Nimo::Pkt>& pkt,
                              std::uint32_t offset, const WriteTexts& t, const Second& s) {
  const std::uint32_t room = Wire::remainingFrom(*pkt, offset);
  if (room < Nimo::PimCommonHdr::kSize) return fail(t.headerNoSpace, room);
  const std::uint8_t af = m.af();
  const Nimo::IpGenAddr& rp = m.rpAddress().address();
  if (Wire::familyOf(rp) != af) return fail(t.rpFamily, unsigned{af}, rp);
  if (Wire::familyOf(s.address.address()) != af) {
    return fail(t.secondFamily, unsigned{af}, s.address.address());
  }

  std::uint32_t pos = offset + Nimo::PimCommonHdr::kSize;
  std::uint32_t n = EncodedUnicastAddress(m.rpAddress()).writeUnicastAddress(pkt, pos);
  if (n == 0) return fail(t.rpWrite);
  pos += n;
  Wire::Writer sender(*pkt, pos);
  if (sender.remaining() < 8) return fail(t.metricNoSpace, sender.remaining());
  sender.u32(m.senderMetricPreference());
  sender.u32(m.senderMetric());
  pos = sender.offset();
  n = EncodedUnicastAddress(s.address).writeUnicastAddress(pkt, pos);
  if (n == 0) return fail(t.secondWrite);
  pos += n;
  Wire::Writer out(*pkt, pos);
  if (out.remaining() < (s.interval ? kBackoffTail : kPassTail)) {
    return fail(t.secondMetricNoSpace, out.remaining());
  }
  out.u32(s.pref.preference);
  out.u32(s.pref.metric);
  if (s.interval) out.u16(*s.interval);

  m.lengthIs(out.offset() - offset);
  if (m.writeHeader(pkt, offset) == 0) return fail(t.headerWrite);
  Wire::traceMessage("TX", m);
  return m.length();
}

// Reads the second address (family af) and its metrics after a common part ending at pos;
// returns the bytes read from pos, or 0.
std::uint32_t readSecond(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t pos, std::uint8_t af,
                         const Wire::UnicastTexts& t, EncodedUnicastAddress& address,
                         Routing::MetricPref& pref, std::uint16_t* interval) noexcept {
  const std::uint32_t n = Wire::readUnicast(address, pkt, pos, af, t);
  if (n == 0) return 0;
  Wire::Reader in(*pkt, pos + n);
  const std::uint32_t need = interval ? kBackoffTail : kPassTail;
  if (in.remaining() < need) {
    return interval ? fail(kOfferingLength, in.remaining(), need)
                    : fail(kWinningLength, in.remaining());
  }
  pref.preference = in.u32();
  pref.metric = in.u32();
  if (interval) *interval = in.u16();
  return n + need;
}

}  // namespace

std::ostream& operator<<(std::ostream& os, DfElectionMessageType t) {
  switch (t) {
    case DfElectionMessageType::dfElectionUnknown:
      return os << "dfElectionUnknown";
    case DfElectionMessageType::dfElectionOffer:
      return os << "dfElectionOffer";
    case DfElectionMessageType::dfElectionWinner:
      return os << "dfElectionWinner";
    case DfElectionMessageType::dfElectionBackoff:
      return os << "dfElectionBackoff";
    case DfElectionMessageType::dfElectionPass:
      return os << "dfElectionPass";
  }
  return os << "dfElectionUnknown(" << unsigned(t) << ")";
}

// ---------------------------------------------------------------------------------------
// Common part

void DfElectionMessage::dfElectionMessageTypeIs(DfElectionMessageType t) noexcept {
  reservedIs(static_cast<std::uint8_t>(static_cast<unsigned>(t) << 4));
  messageSubtypeIs(static_cast<MessageSubtype>(t));
}

std::uint32_t DfElectionMessage::readCommon(const Kel::Ptr<Nimo::Pkt>& pkt,
                                            std::uint32_t offset) noexcept {
  if (readHeader(pkt, offset) == 0) return fail(kHeaderParse);
  messageSubtypeIs(static_cast<MessageSubtype>(reserved() >> 4));
  const std::uint32_t pos = offset + Nimo::PimCommonHdr::kSize;
  const std::uint32_t n = Wire::readUnicast(rpAddress_, pkt, pos, af(), kRpTexts);
  if (n == 0) return 0;
  Wire::Reader in(*pkt, pos + n);
  if (in.remaining() < 8) return fail(kMetricLength, in.remaining());
  senderPref_.preference = in.u32();
  senderPref_.metric = in.u32();
  return in.offset() - offset;
}

void DfElectionMessage::traceRx() const { Wire::traceMessage("RX", *this); }

std::uint32_t DfElectionMessage::readDfElectionMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                       std::uint32_t offset) noexcept {
  const std::uint32_t n = readCommon(pkt, offset);
  if (n != 0) traceRx();
  return n;
}

std::uint32_t DfElectionMessage::writeDfElectionMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                        std::uint32_t offset) noexcept {
  const std::uint32_t room = Wire::remainingFrom(*pkt, offset);
  if (room < Nimo::PimCommonHdr::kSize) return fail(kHeaderNoSpace, room);
  const Nimo::IpGenAddr& rp = rpAddress_.address();
  if (Wire::familyOf(rp) != af()) return fail(kRpFamily, unsigned{af()}, rp);
  const std::uint32_t pos = offset + Nimo::PimCommonHdr::kSize;
  const std::uint32_t n = rpAddress_.writeUnicastAddress(pkt, pos);
  if (n == 0) return fail(kRpWrite);
  Wire::Writer out(*pkt, pos + n);
  if (out.remaining() < 8) return fail(kMetricNoSpace, out.remaining());
  out.u32(senderPref_.preference);
  out.u32(senderPref_.metric);
  lengthIs(out.offset() - offset);
  if (writeHeader(pkt, offset) == 0) return fail(kHeaderWrite);
  Wire::traceMessage("TX", *this);
  return length();
}

void DfElectionMessage::print(std::ostream& os) const {
  Message::print(os);
  os << ", rpAddress=" << rpAddress_.address()
     << ", senderMetricPreference=" << senderPref_.preference
     << ", senderMetric=" << senderPref_.metric;
}

bool operator==(const DfElectionMessage& a, const DfElectionMessage& b) noexcept {
  return a.headerEquals(b) && a.rpAddress_ == b.rpAddress_ && a.senderPref_ == b.senderPref_;
}

// ---------------------------------------------------------------------------------------
// Offer and Winner: the common part only

std::uint32_t DfElectionOfferMessage::readDfElectionOfferMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                                 std::uint32_t offset) noexcept {
  KEL_ASSERT(dfElectionMessageType() == dfElectionOffer());
  const std::uint32_t n = readDfElectionMessage(pkt, offset);
  return n != 0 ? n : fail(kOfferRead);
}

std::uint32_t DfElectionOfferMessage::writeDfElectionOfferMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                                  std::uint32_t offset) noexcept {
  KEL_ASSERT(dfElectionMessageType() == dfElectionOffer());
  const std::uint32_t n = writeDfElectionMessage(pkt, offset);
  return n != 0 ? n : fail(kOfferWrite);
}

std::uint32_t DfElectionWinnerMessage::readDfElectionWinnerMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                                   std::uint32_t offset) noexcept {
  KEL_ASSERT(dfElectionMessageType() == dfElectionWinner());
  const std::uint32_t n = readDfElectionMessage(pkt, offset);
  return n != 0 ? n : fail(kWinnerRead);
}

std::uint32_t DfElectionWinnerMessage::writeDfElectionWinnerMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                                    std::uint32_t offset) noexcept {
  KEL_ASSERT(dfElectionMessageType() == dfElectionWinner());
  const std::uint32_t n = writeDfElectionMessage(pkt, offset);
  return n != 0 ? n : fail(kWinnerWrite);
}

// ---------------------------------------------------------------------------------------
// Backoff and Pass

std::uint32_t DfElectionBackoffMessage::readDfElectionBackoffMessage(
    const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept {
  KEL_ASSERT(dfElectionMessageType() == dfElectionBackoff());
  const std::uint32_t n = readCommon(pkt, offset);
  if (n == 0) return fail(kBackoffRead);
  const std::uint32_t m = readSecond(pkt, offset + n, af(), kOfferingTexts, offeringAddress_,
                                     offeringPref_, &interval_);
  if (m == 0) return 0;
  traceRx();
  return n + m;
}

std::uint32_t DfElectionBackoffMessage::writeDfElectionBackoffMessage(
    const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset) noexcept {
  KEL_ASSERT(dfElectionMessageType() == dfElectionBackoff());
  return writeWithSecond(*this, pkt, offset, kBackoffWrite,
                         Second{offeringAddress_, offeringPref_, &interval_});
}

void DfElectionBackoffMessage::print(std::ostream& os) const {
  DfElectionMessage::print(os);
  os << ", offeringAddress=" << offeringAddress_.address()
     << ", offeringMetricPreference=" << offeringPref_.preference
     << ", offeringMetric=" << offeringPref_.metric << ", interval=" << interval_;
}

bool operator==(const DfElectionBackoffMessage& a, const DfElectionBackoffMessage& b) noexcept {
  return static_cast<const DfElectionMessage&>(a) == static_cast<const DfElectionMessage&>(b) &&
         a.offeringAddress_ == b.offeringAddress_ && a.offeringPref_ == b.offeringPref_ &&
         a.interval_ == b.interval_;
}

std::uint32_t DfElectionPassMessage::readDfElectionPassMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                               std::uint32_t offset) noexcept {
  KEL_ASSERT(dfElectionMessageType() == dfElectionPass());
  const std::uint32_t n = readCommon(pkt, offset);
  if (n == 0) return fail(kPassRead);
  const std::uint32_t m =
      readSecond(pkt, offset + n, af(), kWinningTexts, winningAddress_, winningPref_, nullptr);
  if (m == 0) return 0;
  traceRx();
  return n + m;
}

std::uint32_t DfElectionPassMessage::writeDfElectionPassMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                                std::uint32_t offset) noexcept {
  KEL_ASSERT(dfElectionMessageType() == dfElectionPass());
  return writeWithSecond(*this, pkt, offset, kPassWrite,
                         Second{winningAddress_, winningPref_, nullptr});
}

void DfElectionPassMessage::print(std::ostream& os) const {
  DfElectionMessage::print(os);
  os << ", winningAddress=" << winningAddress_.address()
     << ", winningMetricPreference=" << winningPref_.preference
     << ", winningMetric=" << winningPref_.metric;
}

bool operator==(const DfElectionPassMessage& a, const DfElectionPassMessage& b) noexcept {
  return static_cast<const DfElectionMessage&>(a) == static_cast<const DfElectionMessage&>(b) &&
         a.winningAddress_ == b.winningAddress_ && a.winningPref_ == b.winningPref_;
}

}  // namespace Routing::Pim::Packet
