// Join/Prune message of the PIM codec: reader with its contradiction rules and filters,
// draining writer with bookmarks, print form.

#include <fmt/ostream.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <sstream>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "Pim/PimMessage.h"
#include "Pim/PimMessageWire.h"

namespace Routing::Pim::Packet {

using Wire::fail;
using Wire::warn;
using Bookmark = JoinPruneData::Bookmark;

namespace {

// Fixed texts of the reader, in the order the code meets them.
constexpr char kHeaderParse[] = "Invalid Pim Join/Prune - Header - Parse Error";
constexpr char kUpstreamParse[] =
    "Invalid Pim Join/Prune - Upstream Neighbor Address - Parse Error";
constexpr char kUpstreamFamily[] =
    "Invalid Pim Join/Prune - Upstream Neighbor Address - Invalid Family - Family: {}";
constexpr char kUpstreamInvalid[] =
    "Invalid Pim Join/Prune - Upstream Neighbor Address - Invalid Address: {}";
constexpr char kJpInfoLength[] = "Invalid Pim Join/Prune - J/P Info Length - Remaining: {}";
constexpr char kMallocFailure[] = "Invalid Pim Join/Prune - Join Prune Data - Malloc Failure";
constexpr char kGroupParse[] = "Invalid Pim Join/Prune - Group Address - Parse Error";
constexpr char kNumSources[] = "Invalid Pim Join/Prune - Number of Sources - Remaining: {}";
constexpr char kGroupFamily[] =
    "Warning: Pim Join/Prune - Group Address - Mismatch in Address Family: {}";
constexpr char kGroupInvalid[] =
    "Warning: Pim Join/Prune - Group Address - Skipping Invalid Prefix: {}";
constexpr char kRxBoundaryFiltered[] =
    "Filtered: Pim Join/Prune - Multicast Boundary - Filtered Group Address: {}";
// Shared by reader and writer.
constexpr char kBidirFiltered[] =
    "Pim Join/Prune - Bidirectional Filter - Filtered Group Address: {} Bidirectional: {} Msg "
    "Bidirectional Support: {}";
constexpr char kJoinedParse[] = "Invalid Pim Join/Prune - Joined Source Address - Parse Error";
constexpr char kJoinedInvalid[] =
    "Warning: Pim Join/Prune - Joined Source Address - Skipping Invalid Address: {}";
constexpr char kSourceFamily[] =
    "Warning: Pim Join/Prune - Source Address - Mismatch in Address Family: {}";
constexpr char kWcRptCleared[] = "Invalid Pim Join/Prune - WC set, RPT cleared";
// The RP texts end without a closing bracket, and the double blanks in the contradiction
// texts below stay: operators' scripts match these lines character for character.
constexpr char kMultipleStarG[] =
    "Invalid Pim Join/Prune Source - Received multiple (*,G) join sources. Removing [RP: {}] and "
    "using [RP: {}";
constexpr char kPrunedParse[] = "Invalid Pim Join/Prune - Pruned Source Address - Parse Error";
constexpr char kPrunedInvalid[] =
    "Warning: Pim Join/Prune - Pruned Source Address - Skipping Invalid Address: {}";
constexpr char kBothSg[] =
    "Invalid Pim Join/Prune Source - Source {} is both joined and pruned (S,G) source.  Only "
    "processing  it as a pruned (S,G) source.";
constexpr char kBothRpt[] =
    "Invalid Pim Join/Prune Source - Source {} is both joined and pruned (S,G,rpt) source.  Only "
    "processing it as a pruned (S,G,rpt) source.";
constexpr char kSgAndRpt[] =
    "Invalid Pim Join/Prune Source - Source {} is both joined (S,G) source and pruned (S,G,rpt) "
    "source. Only processing it as a (S,G) source.";
constexpr char kStarGJoinAndPrune[] =
    "Invalid Pim Join/Prune Source - Received (*,G) join and prune source. Removing (*,G) join "
    "[RP: {}] and using (*,G) prune [RP: {}";
constexpr char kZeroSources[] = "Invalid Pim Join/Prune - Zero Num Sources In Group {}";
constexpr char kEndOfMessage[] = "Invalid Pim Join/Prune - End of Message - Remaining: {}";
constexpr char kZeroValidGroups[] = "Invalid Pim Join/Prune - Zero Valid Num Groups";
constexpr char kRxTrace[] = "RX: <PIM {}>";

// Fixed texts of the writer, in the order the code meets them.
constexpr char kMtuBigger[] =
    "Invalid Pim Join/Prune - MTU is bigger than buffer - MTU: {} Buffer: {}";
constexpr char kUnsupportedAf[] = "Invalid Pim Join/Prune - Unsupported Address Family - Af: {}";
constexpr char kHeaderNoSpace[] =
    "Invalid Pim Join/Prune - Header - Unavailable Space - Remaining: {}";
constexpr char kUpstreamWrongFamily[] =
    "Invalid Pim Join/Prune - Invalid Family - Family: {} Upstream Address: {}";
constexpr char kUpstreamWrite[] =
    "Invalid Pim Join/Prune - Upstream Neighbor Address - Write Error";
constexpr char kJpInfoNoSpace[] =
    "Invalid Pim Join/Prune - J/P Info - Unavailable Space - Remaining: {}";
constexpr char kInvalidBookmark[] =
    "Invalid bookmark in Pim Join/Prune - Group Address Family: {} - Ignoring and Deleting "
    "Bookmark";
constexpr char kBookmarkProcessed[] = "Bookmark processed and deleted. {}";
constexpr char kMessageFull[] = "Pim Join/Prune - Reached Max Mtu or Max Group of 255";
constexpr char kProcessingGroup[] = "Processing Group {}";
constexpr char kGroupWrongFamily[] =
    "Pim Join/Prune - Invalid Family - Family: {} Group Address: {}";
constexpr char kTxBoundaryFiltered[] =
    "Pim Join/Prune - Multicast Boundary - Filtered Group Address: {}";
constexpr char kNoSources[] = "Pim Join/Prune - No Sources In Group - Address: {}";
constexpr char kGroupFit[] = " expected Grpsize {}, srcSize {}, GrpHeader {}";
constexpr char kInsufficientMtu[] =
    "Invalid Pim Join/Prune - Insufficient MTU Size - Remaining: {} Minimum Expected: {}";
constexpr char kGroupWrite[] = "Pim Join/Prune - Group Address - Write Error";
constexpr char kJoinSuppressed[] = "Joined Source Suppressed - Group: {} Source: {}";
constexpr char kStarGSuppressed[] = "(*,G) Source Suppressed - Group: {} RP: {}";
constexpr char kEntryWrongFamily[] =
    "Pim Join/Prune - Invalid Family - Family: {} Source Address: {}";
constexpr char kPeriodicStarGPrune[] = "Invalid Pim Join/Prune - Periodic (*,G)-Prune";
constexpr char kSettingBookmark[] = "Setting bookmark. Group: {} Source: {}";
constexpr char kBookmarkSet[] = "Bookmark set. {}";
constexpr char kRptPrunesPacked[] =
    "Packed as many (S,G,rpt) prunes as possible.  Reached max buffer size.";
constexpr char kSuppressedGroup[] =
    "Pim Join/Prune - Zero Num Sources In Group {} - Probably Due to Suppressed Joins";
constexpr char kZeroGroups[] = "Invalid Pim Join/Prune - Zero Num Groups";
constexpr char kHeaderWrite[] = "Invalid Pim Join/Prune - Header - Write Error";
constexpr char kDebugRead[] = "Invalid Pim Join/Prune - Debug Error - Read Error On TX Packet";
constexpr char kTxTrace[] = "TX: <PIM {}>";
constexpr char kSourceCount[] = "Message contains {} sources.";

// The writer's five phases, in packing order: what each takes from a group, how it flags
// the entries, and its texts.
struct Phase {
  bool join;
  std::optional<SourceCollection> collection;  // none: the (*,G) entry
  Bookmark::Collection bookmark;
  SourceFlags flags;
  // Views, so that naming one as a format costs no strlen per entry.
  std::string_view processing;
  std::string_view deleting;  // format: source, group
  std::string_view writeError;
};
constexpr std::size_t kStarGPhase = 2;
const Phase kPhases[] = {
    {true, SourceCollection::JoinedRpt, Bookmark::Collection::SgRpt, SourceFlags::sgRpt(),
     "Processing (S,G,rpt) Joined Collection.", "Deleting (S,G,rpt) Joined Source {} - Group: {}",
     "Invalid Pim Join/Prune - Joined (S,G,rpt) Source Address - Write Error"},
    {true, SourceCollection::Joined, Bookmark::Collection::Sg, SourceFlags::sg(),
     "Processing (S,G) Joined Collection.", "Deleting (S,G) Joined Source {} - Group: {}",
     "Invalid Pim Join/Prune - Joined (S,G) Source Address - Write Error"},
    {true, std::nullopt, Bookmark::Collection::StarG, SourceFlags::starG(), "Processing (*,G).",
     "Deleting (*,G) Source {} - Group: {}",
     "Invalid Pim Join/Prune - (*,G) Source Address - Write Error"},
    {false, SourceCollection::PrunedRpt, Bookmark::Collection::SgRpt, SourceFlags::sgRpt(),
     "Processing (S,G,rpt) Pruned Collection.", "Deleting (S,G,rpt) Pruned Source {} - Group: {}",
     "Invalid Pim Join/Prune - Pruned (S,G,rpt) Source Address - Write Error"},
    {false, SourceCollection::Pruned, Bookmark::Collection::Sg, SourceFlags::sg(),
     "Processing (S,G) Pruned Collection.", "Deleting (S,G) Pruned Source {} - Group: {}",
     "Invalid Pim Join/Prune - Pruned (S,G) Source Address - Write Error"},
};

std::uint8_t familyOf(const Nimo::IpGenAddr& a) noexcept {
  return static_cast<std::uint8_t>(a.af());
}

bool isBidir(std::uint8_t groupFlags) noexcept {
  return (groupFlags & GroupAddress::kBidirectional) != 0;
}

// The phase a bookmark resumes in; an unknown collection is a programming error: only the
// writer sets bookmarks, always with one of the three.
std::size_t phaseOf(const Bookmark& b) noexcept {
  const bool join = b.type() == Bookmark::Type::Join;
  switch (b.collection()) {
    case Bookmark::Collection::SgRpt:
      return join ? 0 : 3;
    case Bookmark::Collection::Sg:
      return join ? 1 : 4;
    case Bookmark::Collection::StarG:
      return kStarGPhase;
    default:
      break;
  }
  KEL_ASSERT(false && "Invalid bookmark collection");
}

Nimo::IpGenPrefix hostPrefix(const Nimo::IpGenAddr& a) noexcept {
  // A host mask never exceeds the family's width, so this cannot throw.
  return Nimo::IpGenPrefix(a, static_cast<std::uint8_t>(a.byteLength() * 8));
}

template <typename... Args>
void note(int level, fmt::format_string<Args...> text, Args&&... args) {
  auto& trace = codecTrace();
  if (trace.enabled(level)) {
    Flicklog::emit(trace, level, fmt::format(text, std::forward<Args>(args)...));
  }
}

enum class SourceRead { Keep, Skip, Fatal };

// Writes one source at pos of the packet whose bytes start at base. The common source is
// stored directly (a third of the encoder's cost); a multicast one goes through the
// encoder, which refuses it with its own text.
std::uint32_t writeSource(const Kel::Ptr<Nimo::Pkt>& pkt, std::uint8_t* base, std::uint32_t pos,
                          const Nimo::IpGenAddr& a, SourceFlags flags) noexcept {
  if (a.isSet() && !a.isMulticast()) {
    const std::uint8_t n = a.byteLength();
    std::uint8_t* p = base + pos;
    p[0] = familyOf(a);
    p[1] = 0;
    p[2] = flags.value();
    p[3] = static_cast<std::uint8_t>(n * 8);
    std::memcpy(p + 4, a.bytes(), n);
    return 4u + n;
  }
  EncodedSourceAddress es(SourceAddress(hostPrefix(a), flags.value()));
  return es.writeSourceAddress(pkt, pos);
}

// What the entry loop below does for entries [i, end) of set, while tracing is below the
// level of its per-entry lines, for as long as each entry is the common kind: entries of
// other families counted filtered, suppressed joins counted and passed, unicast sources
// of this family (N address bytes) copied from the set's records with the phase's flags.
// Stops at the first entry it leaves to the loop (a multicast source, which the encoder
// refuses with its text, or one that no longer fits in room entries) and returns its
// index. A set that holds neither multicast nor marked entries is copied without a look
// at each; in IPv4 two records to an SSE2 store.
template <std::size_t N>
std::size_t packPlain(const SourceSet& set, std::size_t i, std::size_t end, bool join,
                      SourceFlags flags, std::uint8_t*& out, std::uint32_t room,
                      std::uint32_t& written, JoinPruneMessage::Report& report) noexcept {
  constexpr auto family = N == 4 ? Nimo::AddressFamily::ipv4 : Nimo::AddressFamily::ipv6;
  constexpr std::size_t kSize = 4 + N;
  const auto* records = N == 4 ? reinterpret_cast<const std::uint8_t*>(set.wire4().data())
                               : reinterpret_cast<const std::uint8_t*>(set.wire6().data());
  const std::size_t lo = set.familyBegin(family);
  const std::size_t hi = lo + (N == 4 ? set.wire4().size() : set.wire6().size());
  // Entries of other families: the unset address and IPv4 ones ahead of an IPv6 run, IPv6
  // ones after an IPv4 run. A marked join among them counts as suppressed, as in the loop.
  auto pass = [&](std::size_t to) {
    std::uint32_t marked = 0;
    if (join && !set.plain()) {
      for (std::size_t k = i; k < to; ++k) marked += set[k].suppressed();
    }
    report.suppressed += marked;
    report.filtered += static_cast<std::uint32_t>(to - i) - marked;
    i = to;
  };
  if (i < lo) pass(std::min(lo, end));
  const std::size_t stop = std::min(hi, end);
  if (i < stop) {
    const std::uint8_t* p = records + (i - lo) * kSize;
    std::uint32_t n = 0;
    if (set.plain()) {
      n = static_cast<std::uint32_t>(std::min<std::size_t>(stop - i, room));
      if constexpr (N == 4) {
        const std::uint64_t f = std::uint64_t{flags.value()} << 16;
        std::uint32_t k = 0;
#if defined(__SSE2__)
        const __m128i fv = _mm_set1_epi64x(static_cast<long long>(f));
        for (; k + 2 <= n; k += 2) {
          const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8 * k));
          _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 8 * k), _mm_or_si128(x, fv));
        }
#endif
        for (; k < n; ++k) {
          std::uint64_t x;
          std::memcpy(&x, p + 8 * k, 8);
          x |= f;
          std::memcpy(out + 8 * k, &x, 8);
        }
      } else {
        for (std::uint32_t k = 0; k < n; ++k) {
          std::memcpy(out + kSize * k, p + kSize * k, kSize);
          out[kSize * k + 2] = flags.value();
        }
      }
      out += kSize * n;
      i += n;
    } else {
      std::uint32_t suppressed = 0;
      for (; i < stop; ++i, p += kSize) {
        if (join && (p[2] & SourceSet::kMarked)) {
          ++suppressed;
          continue;
        }
        const bool multicast = N == 4 ? (p[4] & 0xf0) == 0xe0 : p[4] == 0xff;
        if (multicast || n == room) break;
        std::memcpy(out, p, kSize);
        out[2] = flags.value();
        out += kSize;
        ++n;
      }
      report.suppressed += suppressed;
    }
    written += n;
    report.processed += n;
    if (i < stop) return i;
  }
  if (i < end) pass(end);
  return i;
}

bool isZero(const std::uint8_t* p, std::uint8_t n) noexcept {
  std::uint8_t any = 0;
  for (std::uint8_t i = 0; i < n; ++i) any |= p[i];
  return any == 0;
}

// The W and R bits shared by count sources from p when every one of them has the form
// the reader takes straight from the bytes (this family, native encoding, host mask,
// unicast, not zero); -1 otherwise. One pass without a branch per source; an IPv4 source
// is one 8-byte word (read in the machine's order, as the source sets compare them),
// and with SSE2 two of them are checked at once as four 32-bit words, heads and addresses
// in alternate lanes.
static_assert(std::endian::native == std::endian::little);
template <std::size_t N>
int commonKind(const std::uint8_t* p, std::size_t count, std::uint8_t family) noexcept {
  constexpr unsigned kWcRpt = SourceFlags::kWildcard | SourceFlags::kRpt;
  const std::uint32_t head = family | std::uint32_t{N * 8} << 24;
  std::uint64_t bad = 0, any = 0, all = ~std::uint64_t{0};
#if defined(__SSE2__)
  if constexpr (N == 4) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i headMask = _mm_set_epi32(0, int(0xff00ffff), 0, int(0xff00ffff));
    const __m128i headWant = _mm_set_epi32(0, int(head), 0, int(head));
    // The high nibble of an address's first byte, 0xe for multicast; never equal in a head lane.
    const __m128i topMask = _mm_set_epi32(0xf0, 0, 0xf0, 0);
    const __m128i topMulticast = _mm_set_epi32(0xe0, -1, 0xe0, -1);
    __m128i vbad = zero, vany = zero, vall = _mm_cmpeq_epi32(zero, zero);
    for (; count >= 2; count -= 2, p += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
      vbad = _mm_or_si128(vbad, _mm_xor_si128(_mm_and_si128(v, headMask), headWant));
      // A zero head lane is a bad head already, so the whole word may be compared.
      vbad = _mm_or_si128(vbad, _mm_cmpeq_epi32(v, zero));
      vbad = _mm_or_si128(vbad, _mm_cmpeq_epi32(_mm_and_si128(v, topMask), topMulticast));
      vany = _mm_or_si128(vany, v);
      vall = _mm_and_si128(vall, v);
    }
    bad = _mm_movemask_epi8(_mm_cmpeq_epi8(vbad, zero)) != 0xffff;
    // Heads in lanes 0 and 2.
    any = std::uint32_t(_mm_cvtsi128_si32(vany) | _mm_cvtsi128_si32(_mm_srli_si128(vany, 8)));
    all = ~std::uint64_t{0xffffffffu} |
          std::uint32_t(_mm_cvtsi128_si32(vall) & _mm_cvtsi128_si32(_mm_srli_si128(vall, 8)));
  }
#endif
  for (std::size_t i = 0; i < count; ++i, p += 4 + N) {
    // Low to high byte: family, encoding, flags, mask length, then the address.
    std::uint64_t x;
    std::memcpy(&x, p, 8);
    bad |= (x & 0xff00ffffu) ^ head;
    if constexpr (N == 4) {
      bad |= std::uint64_t((x >> 32) == 0) | std::uint64_t(((x >> 36) & 0xf) == 0xe);
    } else {
      std::uint64_t a[2];
      std::memcpy(a, p + 4, 16);
      bad |= std::uint64_t((a[0] | a[1]) == 0) | std::uint64_t(p[4] == 0xff);
    }
    any |= x;
    all &= x;
  }
  const unsigned anyKind = static_cast<unsigned>(any >> 16) & kWcRpt;
  if (bad != 0 || anyKind != (static_cast<unsigned>(all >> 16) & kWcRpt)) return -1;
  return static_cast<int>(anyKind);
}

std::string printed(const JoinPruneMessage& m) {
  std::ostringstream os;
  m.print(os);
  return os.str();
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const JoinPruneMessage::Report& r) {
  return os << Kel::valueToStrep(r);
}

// ---------------------------------------------------------------------------------------
// Reading

std::uint32_t JoinPruneMessage::readJoinPruneMessage(
    const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset,
    const Kel::Ptr<Boundary::IntfBoundary>& intfBoundary) noexcept {
  // Header
  if (readHeader(pkt, offset) == 0) return fail(kHeaderParse);
  const std::uint32_t total = Wire::remainingFrom(*pkt, offset);
  const std::uint32_t end = offset + total;
  std::uint32_t pos = offset + Nimo::PimCommonHdr::kSize;
  const std::uint8_t family = af();

  // Upstream neighbour
  EncodedUnicastAddress upstream;
  std::uint32_t n = upstream.readUnicastAddress(pkt, pos);
  if (n == 0) return fail(kUpstreamParse);
  if (familyOf(upstream.address()) != family) {
    return fail(kUpstreamFamily, unsigned{familyOf(upstream.address())});
  }
  if (!upstream.valid()) return fail(kUpstreamInvalid, upstream.address());
  pos += n;

  // J/P info
  Wire::Reader info(*pkt, pos);
  if (info.remaining() < 4) return fail(kJpInfoLength, info.remaining());
  const std::uint8_t reserved2 = info.u8();
  const std::uint8_t numGroups = info.u8();
  const std::uint16_t holdTime = info.u16();
  pos += 4;
  try {
    if (!joinPruneData_) joinPruneData_ = Kel::Ptr<JoinPruneData>::make();
  } catch (const std::bad_alloc&) {
    return fail(kMallocFailure);
  }
  JoinPruneData& data = *joinPruneData_;
  data.upstreamNeighborIs(upstream.address());
  data.reserved2Is(reserved2);
  data.holdTimeIs(holdTime);

  // One source of either list. The common source (this family, encoding 0, host mask,
  // unicast, not zero) is taken straight from the bytes: it is what valid() would accept,
  // and the general path costs twice as much per source. Anything else goes through
  // EncodedSourceAddress, whose checks and texts decide.
  const std::uint8_t* base = pkt->data(0);
  const std::uint8_t addrLen = family == 1 ? 4 : 16;
  const std::uint32_t sourceSize = 4u + addrLen;
  const auto af = static_cast<Nimo::AddressFamily>(family);
  auto checkedFlags = [&](SourceFlags f) noexcept {
    if (f.isInvalid()) {
      fail(kWcRptCleared);
      return SourceRead::Fatal;
    }
    ++report_.processed;
    return SourceRead::Keep;
  };
  auto readEntry = [&](bool joinedList, Nimo::IpGenAddr& s,
                       SourceFlags& flags) noexcept -> SourceRead {
    const std::uint8_t* p = base + pos;
    if (end - pos >= sourceSize && p[0] == family && p[1] == 0 && p[3] == addrLen * 8 &&
        !isZero(p + 4, addrLen) && !(addrLen == 4 ? (p[4] & 0xf0) == 0xe0 : p[4] == 0xff)) {
      s = Nimo::IpGenAddr(af, p + 4);
      flags = SourceFlags(p[2]);
      pos += sourceSize;
      return checkedFlags(flags);
    }
    EncodedSourceAddress es;
    const std::uint32_t sn = es.readSourceAddress(pkt, pos);
    if (sn == 0) {
      joinedList ? fail(kJoinedParse) : fail(kPrunedParse);
      return SourceRead::Fatal;
    }
    pos += sn;
    if (!es.valid()) {
      joinedList ? warn(kJoinedInvalid, es.sourceAddress().address)
                 : warn(kPrunedInvalid, es.sourceAddress().address);
      return SourceRead::Skip;
    }
    s = es.sourceAddress().address.address();
    if (familyOf(s) != family) {
      warn(kSourceFamily, unsigned{familyOf(s)});
      return SourceRead::Skip;
    }
    flags = SourceFlags(es.flags());
    return checkedFlags(flags);
  };

  std::uint32_t kept = 0;
  try {
    for (unsigned g = 0; g < numGroups; ++g) {
      // Group address and source counts
      EncodedGroupAddress eg;
      n = eg.readGroupAddress(pkt, pos);
      if (n == 0) return fail(kGroupParse);
      pos += n;
      Wire::Reader counts(*pkt, pos);
      if (counts.remaining() < 4) return fail(kNumSources, counts.remaining());
      const std::uint16_t numJoined = counts.u16();
      const std::uint16_t numPruned = counts.u16();
      pos += 4;
      const GroupAddress& group = eg.groupAddress();
      const Nimo::IpGenAddr& groupAddr = group.address.address();

      // Filters: a dropped group's sources are still parsed, to find the next group.
      bool keep = false;
      if (familyOf(groupAddr) != family) {
        warn(kGroupFamily, unsigned{familyOf(groupAddr)});
      } else if (!eg.valid()) {
        warn(kGroupInvalid, group.address);
      } else if (intfBoundary && intfBoundary->filtered(groupAddr)) {
        warn(kRxBoundaryFiltered, group.address);
        report_.filtered += std::uint32_t{numJoined} + numPruned;
      } else if (isBidir(group.flags) != bidir_) {
        warn(kBidirFiltered, group.address, int{isBidir(group.flags)}, int{bidir_});
        report_.filtered += std::uint32_t{numJoined} + numPruned;
      } else {
        keep = true;
      }
      if (!keep) {
        for (unsigned i = 0; i < std::uint32_t{numJoined} + numPruned; ++i) {
          EncodedSourceAddress es;
          n = es.readSourceAddress(pkt, pos);
          if (n == 0) return i < numJoined ? fail(kJoinedParse) : fail(kPrunedParse);
          pos += n;
        }
        continue;
      }

      JoinPruneGroupData& gd = data.joinPruneGroupDataIs(group.address);
      gd.groupFlagsIs(group.flags);

      // Joined sources. The contradiction rules below hold whichever of the two entries
      // came first: a group may be listed twice, its prunes before its joins.
      auto& joined = gd.sourceSet(SourceCollection::Joined);
      auto& joinedRpt = gd.sourceSet(SourceCollection::JoinedRpt);
      auto& pruned = gd.sourceSet(SourceCollection::Pruned);
      auto& prunedRpt = gd.sourceSet(SourceCollection::PrunedRpt);
      bool starGJoinPruned = false;
      // A list of one kind in the common form that no entry of the group contradicts is
      // appended whole: the outcome of the per-source rules, at a fraction of their cost.
      auto appendedWhole = [&](std::uint16_t count, bool joinedList) {
        if (count == 0 || end - pos < count * sourceSize) return false;
        const std::uint8_t* first = base + pos;
        const int kind = addrLen == 4 ? commonKind<4>(first, count, family)
                                      : commonKind<16>(first, count, family);
        SourceSet* to = nullptr;
        if (kind == 0) {
          if (joinedList && pruned.empty() && prunedRpt.empty()) to = &joined;
          if (!joinedList && joined.empty()) to = &pruned;
        } else if (kind == SourceFlags::kRpt) {
          if (joinedList && prunedRpt.empty()) to = &joinedRpt;
          if (!joinedList && joined.empty() && joinedRpt.empty()) to = &prunedRpt;
        }
        if (!to) return false;
        to->insertWire(af, first, count, sourceSize);
        report_.processed += count;
        pos += count * sourceSize;
        return true;
      };
      Nimo::IpGenAddr s;
      SourceFlags flags;
      const unsigned joinsLeft = appendedWhole(numJoined, true) ? 0 : numJoined;
      if (joinsLeft != 0) joined.reserve(af, joined.size() + joinsLeft);
      for (unsigned i = 0; i < joinsLeft; ++i) {
        const SourceRead r = readEntry(true, s, flags);
        if (r == SourceRead::Fatal) return 0;
        if (r == SourceRead::Skip) continue;
        const auto& wc = gd.wcSourceData();
        if (flags.isSg()) {
          if (pruned.contains(s)) {
            warn(kBothSg, s);
            continue;
          }
          if (prunedRpt.erase(s)) warn(kSgAndRpt, s);
          joined.insert(s);
        } else if (flags.isSgRpt()) {
          if (prunedRpt.contains(s)) {
            warn(kBothRpt, s);
            continue;
          }
          joinedRpt.insert(s);
        } else if (wc && !wc->join()) {
          warn(kStarGJoinAndPrune, s, wc->rp());
          starGJoinPruned = true;
        } else {
          if (wc) warn(kMultipleStarG, wc->rp(), s);
          gd.wcSourceDataIs(WcSourceData(s, true));
        }
      }
      // A (*,G) join covers the group's (S,G,rpt) joins, wherever they stood.
      if (gd.wcSourceData() && gd.wcSourceData()->join()) joinedRpt.clear();

      // Pruned sources, resolving contradictions with the joins
      const unsigned prunesLeft = appendedWhole(numPruned, false) ? 0 : numPruned;
      for (unsigned i = 0; i < prunesLeft; ++i) {
        const SourceRead r = readEntry(false, s, flags);
        if (r == SourceRead::Fatal) return 0;
        if (r == SourceRead::Skip) continue;
        if (flags.isSg()) {
          if (joined.erase(s)) warn(kBothSg, s);
          pruned.insert(s);
        } else if (flags.isSgRpt()) {
          if (joinedRpt.erase(s)) warn(kBothRpt, s);
          if (joined.contains(s)) {
            warn(kSgAndRpt, s);
          } else {
            prunedRpt.insert(s);
          }
        } else {
          if (gd.wcSourceData() && gd.wcSourceData()->join()) {
            warn(kStarGJoinAndPrune, gd.wcSourceData()->rp(), s);
            starGJoinPruned = true;
          }
          gd.wcSourceDataIs(WcSourceData(s, false));
        }
      }
      // A (*,G) prune that met a (*,G) join takes the group's (S,G,rpt) state with it,
      // entries listed after it included.
      if (starGJoinPruned) {
        joinedRpt.clear();
        prunedRpt.clear();
      }

      if (gd.empty()) {
        warn(kZeroSources, group.address);
        data.joinPruneGroupDataDel(group.address);
      } else {
        ++kept;
      }
    }
  } catch (const std::bad_alloc&) {
    return fail(kMallocFailure);
  }

  // Done
  if (pos != end) return fail(kEndOfMessage, end - pos);
  if (kept == 0) return fail(kZeroValidGroups);
  FLICK_TRACE(codecTrace(), 4, kRxTrace, printed(*this));
  return total;
}

// ---------------------------------------------------------------------------------------
// Writing

std::uint32_t JoinPruneMessage::writeJoinPruneMessage(
    const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t offset,
    const Kel::Ptr<Boundary::IntfBoundary>& intfBoundary) noexcept {
  report_ = Report{};
  // Budget
  const std::uint32_t budget = mtu_ > kIpHeaderAllowance ? mtu_ - kIpHeaderAllowance : 0;
  const std::uint32_t bytes = Wire::remainingFrom(*pkt, offset);
  if (bytes < budget) return fail(kMtuBigger, budget, bytes);
  const std::uint8_t family = af();
  std::uint32_t groupSize = 0;
  std::uint32_t sourceSize = 0;
  if (family == 1) {
    groupSize = sourceSize = 8;
  } else if (family == 2) {
    groupSize = sourceSize = 20;
  } else {
    return fail(kUnsupportedAf, unsigned{family});
  }
  const std::uint32_t groupHeader = groupSize + 4;
  const std::uint32_t end = offset + budget;
  // Taken once: the packet is private from here on, so the encoders below write here too.
  std::uint8_t* const base = pkt->writableData(0);
  std::uint32_t pos = offset;
  auto left = [&] { return end - pos; };

  // Header, upstream neighbour, J/P info
  JoinPruneData none;  // no data set: written as an empty one
  JoinPruneData& data = joinPruneData_ ? *joinPruneData_ : none;
  const Nimo::IpGenAddr& upstreamAddr = data.upstreamNeighbor();
  const std::uint32_t upstreamSize = 2u + upstreamAddr.byteLength();
  if (left() < Nimo::PimCommonHdr::kSize + upstreamSize) return fail(kHeaderNoSpace, left());
  pos += Nimo::PimCommonHdr::kSize;
  if (familyOf(upstreamAddr) != family) {
    return fail(kUpstreamWrongFamily, unsigned{familyOf(upstreamAddr)}, upstreamAddr);
  }
  EncodedUnicastAddress upstream(upstreamAddr);
  const std::uint32_t n = upstream.writeUnicastAddress(pkt, pos);
  if (n == 0) return fail(kUpstreamWrite);
  pos += n;
  if (left() < 4) return fail(kJpInfoNoSpace, left());
  const std::uint32_t infoPos = pos;
  pos += 4;

  // Bookmark: where the previous message stopped
  auto& groups = data.joinPruneGroupData();
  auto it = groups.begin();
  std::size_t startPhase = 0;
  Nimo::IpGenAddr startSource;
  if (const auto& bm = data.bookmark()) {
    if (familyOf(bm->group().address()) != family) {
      warn(kInvalidBookmark, unsigned{familyOf(bm->group().address())});
    } else {
      const std::size_t phase = phaseOf(*bm);
      it = groups.lower_bound(bm->group());
      if (it != groups.end() && it->first == bm->group()) {
        startPhase = phase;
        startSource = bm->source();
      }
      note(4, kBookmarkProcessed, fmt::streamed(*bm));
    }
    data.bookmarkDel();
  }

  // Groups; with no per-entry trace line wanted, entries go through packPlain
  const bool quiet = !codecTrace().enabled(5);
  std::uint32_t numGroups = 0;
  std::uint32_t sources = 0;
  bool full = false;
  for (; it != groups.end() && !full; startPhase = 0, startSource = Nimo::IpGenAddr()) {
    const Nimo::IpGenPrefix& group = it->first;
    JoinPruneGroupData& gd = it->second;
    if (numGroups == kMaxGroups) {
      data.bookmarkIs(
          Bookmark(group, Nimo::IpGenAddr(), Bookmark::Collection::SgRpt, Bookmark::Type::Join));
      note(4, kMessageFull);
      break;
    }
    note(9, kProcessingGroup, group);

    // Filters and empty groups: drained without a trace on the wire
    bool drop = true;
    if (familyOf(group.address()) != family) {
      note(5, kGroupWrongFamily, unsigned{familyOf(group.address())}, group);
      report_.filtered += static_cast<std::uint32_t>(gd.routes());
    } else if (intfBoundary && intfBoundary->filtered(group.address())) {
      note(5, kTxBoundaryFiltered, group);
      report_.filtered += static_cast<std::uint32_t>(gd.routes());
    } else if (isBidir(gd.groupFlags()) != bidir_) {
      note(5, kBidirFiltered, group, int{isBidir(gd.groupFlags())}, int{bidir_});
      report_.filtered += static_cast<std::uint32_t>(gd.routes());
    } else if (gd.empty()) {
      note(5, kNoSources, group);
    } else {
      drop = false;
    }
    if (drop) {
      it = groups.erase(it);
      continue;
    }

    // Group header and at least one source
    note(9, kGroupFit, groupHeader + sourceSize, sourceSize, groupHeader);
    if (left() < groupHeader + sourceSize) {
      if (numGroups == 0) return fail(kInsufficientMtu, left(), groupHeader + sourceSize);
      data.bookmarkIs(
          Bookmark(group, startSource, kPhases[startPhase].bookmark,
                   kPhases[startPhase].join ? Bookmark::Type::Join : Bookmark::Type::Prune));
      note(4, kMessageFull);
      break;
    }
    const std::uint32_t groupStart = pos;
    EncodedGroupAddress eg(GroupAddress(group, gd.groupFlags()));
    const std::uint32_t gn = eg.writeGroupAddress(pkt, pos);
    if (gn == 0) return fail(kGroupWrite);
    pos += gn;
    const std::uint32_t countsPos = pos;
    pos += 4;

    // Entries, phase by phase; each one passed is deleted
    std::uint32_t count[2] = {0, 0};  // pruned, joined
    for (std::size_t p = startPhase; p < std::size(kPhases) && !full; ++p) {
      const Phase& phase = kPhases[p];
      std::uint32_t& c = count[phase.join];
      note(9, "{}", phase.processing);
      // Stops the message at an entry: the next call starts with it.
      auto stopAt = [&](const Nimo::IpGenAddr& s) {
        note(9, kSettingBookmark, group, s);
        data.bookmarkIs(Bookmark(group, s, phase.bookmark,
                                 phase.join ? Bookmark::Type::Join : Bookmark::Type::Prune));
        note(4, kBookmarkSet, fmt::streamed(*data.bookmark()));
        if (phase.collection == SourceCollection::PrunedRpt) note(4, kRptPrunesPacked);
        note(4, kMessageFull);
        full = true;
      };
      auto fits = [&] { return left() >= sourceSize && c < 0xffff; };

      if (!phase.collection) {
        // The (*,G) entry
        const auto& wc = gd.wcSourceData();
        if (!wc) continue;
        const Nimo::IpGenAddr rp = wc->rp();
        if (wc->join() && wc->wcSuppressed()) {
          note(9, kStarGSuppressed, group, rp);
          ++report_.suppressed;
        } else if (familyOf(rp) != family) {
          note(5, kEntryWrongFamily, unsigned{familyOf(rp)}, rp);
          ++report_.filtered;
        } else if (!fits()) {
          stopAt(rp);
          break;
        } else {
          if (!wc->join() && data.periodic()) fail(kPeriodicStarGPrune);
          const std::uint32_t sn = writeSource(pkt, base, pos, rp, phase.flags);
          if (sn == 0) return fail(fmt::runtime(phase.writeError));
          pos += sn;
          ++count[wc->join()];
          ++report_.processed;
        }
        note(9, fmt::runtime(phase.deleting), rp, group);
        gd.wcSourceDataDel();
        continue;
      }

      SourceSet& set = gd.sourceSet(*phase.collection);
      const std::size_t first = p == startPhase ? set.lowerBound(startSource) : 0;
      const std::size_t size = set.size();
      std::size_t i = first;
      for (; i < size; ++i) {
        if (quiet) {
          std::uint8_t* out = base + pos;
          const std::uint32_t room = std::min((end - pos) / sourceSize, 0xffffu - c);
          i = family == 1
                  ? packPlain<4>(set, i, size, phase.join, phase.flags, out, room, c, report_)
                  : packPlain<16>(set, i, size, phase.join, phase.flags, out, room, c, report_);
          pos = static_cast<std::uint32_t>(out - base);
          if (i == size) break;
        }
        const SourceEntry e = set[i];
        const Nimo::IpGenAddr a = e.address();
        if (phase.join && e.suppressed()) {
          note(9, kJoinSuppressed, group, a);
          ++report_.suppressed;
        } else if (familyOf(a) != family) {
          note(5, kEntryWrongFamily, unsigned{familyOf(a)}, a);
          ++report_.filtered;
        } else if (!fits()) {
          stopAt(a);
          break;
        } else {
          const std::uint32_t sn = writeSource(pkt, base, pos, a, phase.flags);
          if (sn == 0) return fail(fmt::runtime(phase.writeError));
          pos += sn;
          ++c;
          ++report_.processed;
        }
        note(9, fmt::runtime(phase.deleting), a, group);
      }
      set.eraseRange(first, i);
    }

    // Close the group; one left without entries (all suppressed) is taken back out.
    if (count[0] + count[1] == 0) {
      note(5, kSuppressedGroup, group);
      pos = groupStart;
    } else {
      std::uint8_t* c = pkt->writableData(countsPos, 4);
      Nimo::store16(c, static_cast<std::uint16_t>(count[1]));
      Nimo::store16(c + 2, static_cast<std::uint16_t>(count[0]));
      ++numGroups;
      sources += count[0] + count[1];
    }
    if (gd.empty()) {
      it = groups.erase(it);
    } else {
      ++it;
    }
  }
  if (numGroups == 0) return fail(kZeroGroups);

  // J/P info, trim, header over the finished body
  std::uint8_t* info = pkt->writableData(infoPos, 4);
  info[0] = data.reserved2();
  info[1] = static_cast<std::uint8_t>(numGroups);
  Nimo::store16(info + 2, data.holdTime());
  const std::uint32_t length = pos - offset;
  pkt->delSharedTailData(pkt->size() - (offset + length));
  lengthIs(length);
  if (writeHeader(pkt, offset) == 0) return fail(kHeaderWrite);

  // Debug: what went out, read back
  auto& trace = codecTrace();
  if (trace.enabled(4)) {
    JoinPruneMessage scratch;
    scratch.srcIpIs(srcIp());
    scratch.dstIpIs(dstIp());
    scratch.bidirIs(bidir_);
    if (scratch.readJoinPruneMessage(pkt, offset, nullptr) == 0) {
      fail(kDebugRead);
    } else {
      FLICK_TRACE(trace, 4, kTxTrace, printed(scratch));
    }
    FLICK_TRACE(trace, 4, kSourceCount, sources);
  }
  return length;
}

// ---------------------------------------------------------------------------------------
// Print form

void JoinPruneMessage::print(std::ostream& os) const {
  Message::print(os);
  if (!joinPruneData_) return;
  const JoinPruneData& d = *joinPruneData_;
  os << " | upstream=" << d.upstreamNeighbor() << ", holdtime=" << d.holdTime()
     << ", numGroups=" << d.joinPruneGroupData().size() << ", groups=[ ";
  for (const auto& [group, gd] : d.joinPruneGroupData()) {
    os << "\n\tgroup=( address=" << group << ", flags=" << unsigned{gd.groupFlags()} << " )";
    for (const auto& e : gd.joinedRptSource()) os << "\n\t\tjoin=" << e.address() << ", (S,G,rpt)";
    for (const auto& e : gd.joinedSource()) os << "\n\t\tjoin=" << e.address() << ", (S,G)";
    const auto& wc = gd.wcSourceData();
    if (wc) os << (wc->join() ? "\n\t\tjoin= " : "\n\t\tprune= ") << wc->rp() << ", (*,G)";
    for (const auto& e : gd.prunedRptSource()) os << "\n\t\tprune=" << e.address() << ", (S,G,rpt)";
    for (const auto& e : gd.prunedSource()) os << "\n\t\tprune=" << e.address() << ", (S,G)";
    const std::size_t joins =
        gd.joinedRptSource().size() + gd.joinedSource().size() + (wc && wc->join() ? 1 : 0);
    os << "\n\tGroup " << group << " has " << joins << " joined sources and " << gd.routes() - joins
       << " pruned sources.";
  }
  os << " ]";
}

}  // namespace Routing::Pim::Packet
