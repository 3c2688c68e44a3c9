// Bootstrap and Candidate-RP Advertisement messages of the PIM codec.

#include <new>

#include "Pim/PimMessage.h"
#include "Pim/PimMessageChecks.h"
#include "Pim/PimMessageWire.h"

namespace Routing::Pim::Packet {

using Wire::fail;

namespace {

// Bootstrap reader, in the order the code meets them.
constexpr char kHeaderParse[] = "Invalid Pim Bootstrap - Header - Parse Error";
constexpr char kParse[] = "Invalid Pim Bootstrap - Parse Error";
constexpr Wire::UnicastTexts kBsrTexts{
    "Invalid Pim Bootstrap - BSR Address - Parse Error",
    "Invalid Pim Bootstrap - BSR Address - Invalid Family - Family: {} BSR Address: {}",
    "Invalid Pim Bootstrap - BSR Address - Invalid Address - {}"};
constexpr Wire::GroupTexts kGroupTexts{
    "Invalid Pim Bootstrap - Group Address - Parse Error",
    "Invalid Pim Bootstrap - Group Address - Invalid Family - Family: {} Group Address: {}",
    "Invalid Pim Bootstrap - Group Address - Invalid Prefix: {}"};
constexpr char kDuplicateGroup[] = "Invalid Pim Bootstrap - Group Address - Duplicate group - {}";
constexpr char kZoneNotFirst[] = "Invalid Pim Bootstrap - Zone bit set on group other than first";
constexpr char kRpCountBelowFrag[] =
    "Invalid Pim Bootstrap data - RP count {} is less than fragRp count {}";
constexpr char kRpMissing[] =
    "Invalid Pim Bootstrap - Parse Error - RP count remaining {} but no more data.";
constexpr char kRpParse[] = "Invalid Pim Bootstrap - RP Address - Parse Error";
constexpr char kRpInvalid[] = "Invalid Pim Bootstrap - RP Address - Invalid Address - {}";
constexpr char kRpDuplicate[] = "Invalid Pim Bootstrap - RP Address - Duplicate - RP Address: {}";
constexpr char kEnd[] = "Invalid Pim Bootstrap - End of Message - Remaining: {}";
constexpr char kMalloc[] = "BootstrapOptionsData - Malloc Failure";

// Bootstrap writer.
constexpr char kHeaderNoSpace[] =
    "Invalid Pim Bootstrap - Header - Unavailable Space - Remaining: {}";
constexpr char kFamilyBsr[] = "Invalid Pim Bootstrap - Invalid Family - Family: {} BSR Address: {}";
constexpr char kBsrWrite[] = "Invalid Pim Bootstrap - BSR Address - Write Error";
constexpr char kDuplicatePresent[] = "Invalid Pim Bootstrap - Duplicate Group present";
constexpr char kPassedRpCountBelowFrag[] =
    "Invalid Pim Bootstrap data passed - RP count {} is less than fragRp count {}";
constexpr char kRpRecords[] =
    "Invalid Pim Bootstrap data passed - RP count in BSM{} does not match RP records count {}";
constexpr char kFamilyGroup[] =
    "Invalid Pim Bootstrap - Invalid Family - Family: {} Group Address: {}";
constexpr char kGroupWrite[] = "Invalid Pim Bootstrap - Group Address - Write Error";
constexpr char kFamilyRp[] = "Invalid Pim Bootstrap - Invalid Family - Family: {} RP Address: {}";
constexpr char kRpWrite[] = "Invalid Pim Bootstrap - RP Address - Write Error";
// The C-RP-Adv writer reports its header failure with this text too.
constexpr char kHeaderWrite[] = "Invalid Pim Bootstrap - Header - Write Error";

// C-RP-Adv reader.
constexpr char kCrpHeaderParse[] = "Invalid Pim CrpAdv - Header - Parse Error";
constexpr char kCrpParse[] = "Invalid Pim CrpAdv - Parse Error";
constexpr Wire::UnicastTexts kCrpRpTexts{
    "Invalid Pim CrpAdv - RP Address - Parse Error",
    "Invalid Pim CrpAdv - RP Address - Invalid Family - Family: {} RP Address: {}",
    "Invalid Pim CrpAdv - RP Address - Invalid Address - {}"};
constexpr Wire::GroupTexts kCrpGroupTexts{
    "Invalid Pim CrpAdv - Group Address - Parse Error",
    "Invalid Pim CrpAdv - Group Address - Invalid Family - Family: {} Group Address: {}",
    "Invalid Pim CrpAdv - Group Address - Invalid Prefix: {}"};
constexpr char kCrpDuplicate[] = "Invalid Pim CrpAdv - Group Address - Duplicate group - {}";
constexpr char kCrpZone[] = "Valid Pim CrpAdv - Group Address has Zone flag set - Group: {} RP: {}";
constexpr char kCrpCount[] =
    "Invalid Pim CrpAdv - Group Address count mismatch -  prefixCount: {} numGroups: {}";
constexpr char kCrpCleaningUp[] = "Invalid Pim CrpAdv. Cleaning Up";
constexpr char kCrpMalloc[] = "CrpGroupData - Malloc Failure";

// C-RP-Adv writer.
constexpr char kCrpHeaderNoSpace[] =
    "Invalid Pim CrpAdv - Header - Unavailable Space - Remaining: {}";
constexpr char kCrpFamilyRp[] = "Invalid Pim CrpAdv - Invalid Family - Family: {} RP Address: {}";
constexpr char kCrpRpWrite[] = "Invalid Pim CrpAdv - RP Address - Write Error";
constexpr char kCrpFamilyGroup[] =
    "Invalid Pim CrpAdv - Invalid Family - Family: {} Group Address: {}";
constexpr char kCrpScope[] =
    "Invalid Pim CrpAdv - Invalid Scope: {} Group Scope: {} Allowed Scope: {}";
constexpr char kCrpGroupWrite[] = "Invalid Pim CrpAdv - Group Address - Write Error";
constexpr char kCrpPrefixCount[] = "Invalid Pim CrpAdv - Prefix Count {}";  // above 255 groups
constexpr char kCrpPrefixMismatch[] = "Invalid Pim CrpAdv - Prefix Count Mismatch";

constexpr std::uint32_t kFixedPart = 4;      // tag, mask, priority / count, priority, holdtime
constexpr std::uint32_t kGroupCounts = 4;    // RP count, fragment RP count, reserved
constexpr std::uint32_t kRpTrailer = 4;      // holdtime, priority, reserved
constexpr std::uint32_t kMinGroupBytes = 4;  // fewer cannot start an Encoded-Group address

const char* scopeName(CrpAdvScope s) noexcept {
  return s == CrpAdvScope::Admin ? "Admin" : "global";
}

bool hasGroup(const BootstrapOptionalData& groups, const Nimo::IpGenPrefix& p,
              std::size_t before) noexcept {
  for (std::size_t i = 0; i < before; ++i)
    if (groups[i].prefix == p) return true;
  return false;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Bootstrap

void BootstrapMessage::hashMaskLenIs(std::uint8_t n) {
  hashMaskLen_ = n;
  if (n > 128) throw Kel::RangeError(std::string(kHashMaskLenRangeErrorText));
}

BootstrapGroupData& BootstrapMessage::groupDataIs(const Nimo::IpGenPrefix& prefix) {
  return groupData_.emplace_back(prefix);
}

std::uint32_t BootstrapMessage::readBootstrapMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                     std::uint32_t offset) noexcept try {
  // Header, fixed fields, BSR address
  if (readHeader(pkt, offset) == 0) return fail(kHeaderParse);
  groupData_.clear();
  fragments_.clear();
  Wire::Reader in(*pkt, offset + Nimo::PimCommonHdr::kSize);
  if (in.remaining() < kFixedPart) return fail(kParse);
  fragmentTag_ = in.u16();
  try {
    hashMaskLenIs(in.u8());
  } catch (const Kel::RangeError& e) {
    return fail("{}", e.what());
  }
  bsrPriority_ = in.u8();
  EncodedUnicastAddress bsr;
  std::uint32_t pos = in.offset();
  std::uint32_t n = Wire::readUnicast(bsr, pkt, pos, af(), kBsrTexts);
  if (n == 0) return 0;
  bsrAddress_ = bsr.address();
  pos += n;

  // Group entries to the end of the message
  while (Wire::remainingFrom(*pkt, pos) >= kMinGroupBytes) {
    EncodedGroupAddress g;
    n = Wire::readGroup(g, pkt, pos, af(), kGroupTexts, false);
    if (n == 0) return 0;
    pos += n;
    const Nimo::IpGenPrefix& prefix = g.groupAddress().address;
    // Groups read so far are keys of fragments_, which order by prefix first: a probe with
    // every other field at its least finds them in log time.
    BootstrapRpFragmentKey probe;
    probe.prefix = prefix;
    const auto seen = fragments_.lower_bound(probe);
    if (seen != fragments_.end() && seen->first.prefix == prefix) {
      return fail(kDuplicateGroup, prefix);
    }
    if (!groupData_.empty() && (g.flags() & GroupAddress::kAdminScopeZone)) {
      return fail(kZoneNotFirst);
    }
    Wire::Reader counts(*pkt, pos);
    if (counts.remaining() < kGroupCounts) return fail(kParse);
    const std::uint8_t rpCount = counts.u8();
    const std::uint8_t fragRpCount = counts.u8();
    if (rpCount < fragRpCount) return fail(kRpCountBelowFrag, rpCount, fragRpCount);
    pos += kGroupCounts;
    BootstrapGroupData& group = groupDataIs(prefix);
    group.groupFlags = g.flags();
    group.rpCount = rpCount;
    group.fragRpCount = fragRpCount;

    // RP entries of this fragment
    for (unsigned left = fragRpCount; left > 0; --left) {
      if (Wire::remainingFrom(*pkt, pos) == 0) return fail(kRpMissing, left);
      EncodedUnicastAddress rp;
      n = rp.readUnicastAddress(pkt, pos);
      if (n == 0) return fail(kRpParse);
      if (Wire::familyOf(rp.address()) != af() || !rp.valid()) {
        return fail(kRpInvalid, rp.address());
      }
      pos += n;
      Wire::Reader trailer(*pkt, pos);
      if (trailer.remaining() < kRpTrailer) return fail(kParse);
      pos += kRpTrailer;
      if (group.rpList.count(rp.address())) return fail(kRpDuplicate, rp.address());
      BootstrapRpData& entry = group.rpListIs(rp.address());
      entry.rpHoldtime = trailer.u16();
      entry.rpPriority = trailer.u8();
      entry.reserved = trailer.u8();
    }

    // The key the BSR logic reassembles this group's fragments by
    BootstrapRpFragmentKey key;
    key.prefix = prefix;
    key.bsrAddress = bsrAddress_;
    key.groupFlags = group.groupFlags;
    key.noForward = noForward();
    key.fragmentTag = fragmentTag_;
    key.hashMaskLen = hashMaskLen_;
    key.bsrPriority = bsrPriority_;
    key.rpCount = rpCount;
    fragments_[key] = BootstrapRpFragment{key, group.rpList};
  }
  if (const std::uint32_t rest = Wire::remainingFrom(*pkt, pos); rest != 0) {
    return fail(kEnd, rest);
  }
  Wire::traceMessage("RX", *this);
  return pos - offset;
} catch (const std::bad_alloc&) {
  return fail(kMalloc);
}

std::uint32_t BootstrapMessage::writeBootstrapMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                      std::uint32_t offset) noexcept {
  // Header space (the header goes last), fixed fields, BSR address
  const std::uint32_t room = Wire::remainingFrom(*pkt, offset);
  if (room < Nimo::PimCommonHdr::kSize + kFixedPart) return fail(kHeaderNoSpace, room);
  if (Wire::familyOf(bsrAddress_) != af()) return fail(kFamilyBsr, unsigned{af()}, bsrAddress_);
  std::uint32_t pos = offset + Nimo::PimCommonHdr::kSize;
  Wire::Writer fixed(*pkt, pos);
  fixed.u16(fragmentTag_);
  fixed.u8(hashMaskLen_);
  fixed.u8(bsrPriority_);
  pos += kFixedPart;
  std::uint32_t n = EncodedUnicastAddress(bsrAddress_).writeUnicastAddress(pkt, pos);
  if (n == 0) return fail(kBsrWrite);
  pos += n;

  // Group entries and their RPs
  for (std::size_t i = 0; i < groupData_.size(); ++i) {
    const BootstrapGroupData& g = groupData_[i];
    if (hasGroup(groupData_, g.prefix, i)) return fail(kDuplicatePresent);
    if (g.rpCount < g.fragRpCount) return fail(kPassedRpCountBelowFrag, g.rpCount, g.fragRpCount);
    if (g.fragRpCount != g.rpList.size()) return fail(kRpRecords, g.fragRpCount, g.rpList.size());
    if (i > 0 && (g.groupFlags & GroupAddress::kAdminScopeZone)) return fail(kZoneNotFirst);
    if (Wire::familyOf(g.prefix.address()) != af()) {
      return fail(kFamilyGroup, unsigned{af()}, g.prefix.address());
    }
    n = EncodedGroupAddress(GroupAddress(g.prefix, g.groupFlags)).writeGroupAddress(pkt, pos);
    if (n == 0) return fail(kGroupWrite);
    pos += n;
    Wire::Writer counts(*pkt, pos);
    if (counts.remaining() < kGroupCounts) return fail(kGroupWrite);
    counts.u8(g.rpCount);
    counts.u8(g.fragRpCount);
    counts.u16(0);
    pos += kGroupCounts;
    for (const auto& [address, rp] : g.rpList) {
      if (Wire::familyOf(address) != af()) return fail(kFamilyRp, unsigned{af()}, address);
      n = EncodedUnicastAddress(address).writeUnicastAddress(pkt, pos);
      if (n == 0) return fail(kRpWrite);
      pos += n;
      Wire::Writer trailer(*pkt, pos);
      if (trailer.remaining() < kRpTrailer) return fail(kRpWrite);
      trailer.u16(rp.rpHoldtime);
      trailer.u8(rp.rpPriority);
      trailer.u8(rp.reserved);
      pos += kRpTrailer;
    }
  }

  lengthIs(pos - offset);
  if (writeHeader(pkt, offset) == 0) return fail(kHeaderWrite);
  Wire::traceMessage("TX", *this);
  return length();
}

void BootstrapMessage::print(std::ostream& os) const {
  Message::print(os);
  os << " | bsrAddress=" << bsrAddress_ << " Forward=" << forward()
     << ", fragmentTag=" << fragmentTag_ << ", hashMaskLen=" << unsigned{hashMaskLen_}
     << ", bsrPriority=" << unsigned{bsrPriority_};
  for (const BootstrapGroupData& g : groupData_) {
    os << " group=( prefix=" << g.prefix << ", rpCount=" << unsigned{g.rpCount}
       << ", fragRpCount=" << unsigned{g.fragRpCount} << ", RpList=[ ";
    for (const auto& [address, rp] : g.rpList) {
      os << "rp=( address=" << address << ", Holdtime=" << rp.rpHoldtime
         << ", Priority=" << unsigned{rp.rpPriority} << ", reserved=" << unsigned{rp.reserved}
         << " ) ";
    }
    os << "] )";
  }
}

bool operator==(const BootstrapMessage& a, const BootstrapMessage& b) noexcept {
  return a.headerEquals(b) && a.fragmentTag_ == b.fragmentTag_ &&
         a.hashMaskLen_ == b.hashMaskLen_ && a.bsrPriority_ == b.bsrPriority_ &&
         a.bsrAddress_ == b.bsrAddress_ && a.groupData_ == b.groupData_;
}

std::ostream& operator<<(std::ostream& os, const BootstrapRpFragmentKey& k) {
  return os << Kel::valueToStrep(k);
}

// ---------------------------------------------------------------------------------------
// Candidate-RP Advertisement

std::uint32_t CrpAdvMessage::readCrpAdvMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                               std::uint32_t offset) noexcept try {
  // Header, fixed fields, RP address
  if (readHeader(pkt, offset) == 0) return fail(kCrpHeaderParse);
  Wire::Reader in(*pkt, offset + Nimo::PimCommonHdr::kSize);
  if (in.remaining() < kFixedPart) return fail(kCrpParse);
  prefixCount_ = in.u8();
  priority_ = in.u8();
  holdtime_ = in.u16();
  EncodedUnicastAddress rp;
  std::uint32_t pos = in.offset();
  std::uint32_t n = Wire::readUnicast(rp, pkt, pos, af(), kCrpRpTexts);
  if (n == 0) return 0;
  rpAddress_ = rp.address();
  pos += n;

  // Groups to the end of the message; any failure from here on discards the group data
  groupData_ = Kel::Ptr<CrpGroupData>::make();
  const auto discard = [this] {
    FLICK_TRACE(codecTrace(), 4, kCrpCleaningUp);
    groupData_ = nullptr;
    return 0u;
  };
  unsigned groups = 0;
  while (Wire::remainingFrom(*pkt, pos) > 0) {
    EncodedGroupAddress g;
    n = Wire::readGroup(g, pkt, pos, af(), kCrpGroupTexts, false);
    if (n == 0) return discard();
    pos += n;
    const Nimo::IpGenPrefix& prefix = g.groupAddress().address;
    if (groupData_->groupInfo.count(prefix)) {
      fail(kCrpDuplicate, prefix);
      return discard();
    }
    // Accepted: a boundary router configured as a candidate RP sends these, and the BSR
    // logic logs them.
    if (g.flags() & GroupAddress::kAdminScopeZone) Wire::warn(kCrpZone, prefix, rpAddress_);
    groupData_->groupInfoIs(prefix, g.flags());
    ++groups;
  }
  if (groups != prefixCount_) {
    fail(kCrpCount, unsigned{prefixCount_}, groups);
    return discard();
  }
  Wire::traceMessage("RX", *this);
  return pos - offset;
} catch (const std::bad_alloc&) {
  groupData_ = nullptr;
  return fail(kCrpMalloc);
}

std::uint32_t CrpAdvMessage::writeCrpAdvMessage(const Kel::Ptr<Nimo::Pkt>& pkt,
                                                std::uint32_t offset) noexcept {
  // Header space (the header goes last), fixed fields, RP address
  const std::uint32_t room = Wire::remainingFrom(*pkt, offset);
  if (room < Nimo::PimCommonHdr::kSize + kFixedPart) return fail(kCrpHeaderNoSpace, room);
  if (Wire::familyOf(rpAddress_) != af()) return fail(kCrpFamilyRp, unsigned{af()}, rpAddress_);
  std::uint32_t pos = offset + Nimo::PimCommonHdr::kSize;
  Wire::Writer fixed(*pkt, pos);
  fixed.u8(prefixCount_);
  fixed.u8(priority_);
  fixed.u16(holdtime_);
  pos += kFixedPart;
  std::uint32_t n = EncodedUnicastAddress(rpAddress_).writeUnicastAddress(pkt, pos);
  if (n == 0) return fail(kCrpRpWrite);
  pos += n;

  // Groups, each of the message's family and of the scope the caller allows
  std::size_t groups = 0;
  if (groupData_) {
    for (const auto& [prefix, flags] : groupData_->groupInfo) {
      if (Wire::familyOf(prefix.address()) != af()) {
        return fail(kCrpFamilyGroup, unsigned{af()}, prefix.address());
      }
      const CrpAdvScope scope =
          flags & GroupAddress::kAdminScopeZone ? CrpAdvScope::Admin : CrpAdvScope::Global;
      if (scope != allowedScope_) {
        return fail(kCrpScope, prefix, scopeName(scope), scopeName(allowedScope_));
      }
      n = EncodedGroupAddress(GroupAddress(prefix, flags)).writeGroupAddress(pkt, pos);
      if (n == 0) return fail(kCrpGroupWrite);
      pos += n;
      ++groups;
    }
  }
  if (groups > 255) return fail(kCrpPrefixCount, groups);
  if (groups != prefixCount_) return fail(kCrpPrefixMismatch);

  lengthIs(pos - offset);
  if (writeHeader(pkt, offset) == 0) return fail(kHeaderWrite);
  Wire::traceMessage("TX", *this);
  return length();
}

void CrpAdvMessage::print(std::ostream& os) const {
  Message::print(os);
  os << " prefixCount=" << unsigned{prefixCount_} << ", priority=" << unsigned{priority_}
     << ", holdtime=" << holdtime_ << " | rpAddress=" << rpAddress_ << " | GroupData=[ ";
  if (groupData_) {
    for (const auto& [prefix, flags] : groupData_->groupInfo) {
      os << prefix << ", groupFlags: " << unsigned{flags} << ' ';
    }
  }
  os << "]";
}

bool operator==(const CrpAdvMessage& a, const CrpAdvMessage& b) noexcept {
  static const std::map<Nimo::IpGenPrefix, std::uint8_t> kNone;
  const auto& ga = a.groupData_ ? a.groupData_->groupInfo : kNone;
  const auto& gb = b.groupData_ ? b.groupData_->groupInfo : kNone;
  return a.headerEquals(b) && a.prefixCount_ == b.prefixCount_ && a.priority_ == b.priority_ &&
         a.holdtime_ == b.holdtime_ && a.rpAddress_ == b.rpAddress_ && ga == gb;
}

}  // namespace Routing::Pim::Packet
