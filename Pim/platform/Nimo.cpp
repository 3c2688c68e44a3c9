#include "Pim/platform/Nimo.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <new>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace Nimo {

// ---------------------------------------------------------------------------------------
// IpGenAddr

IpGenAddr::IpGenAddr(std::string_view text) {
  auto a = parse(text);
  if (!a) throw Kel::RangeError(fmt::format("IpGenAddr::address '{}' not parsable", text));
  *this = *a;
}

IpGenAddr::IpGenAddr(AddressFamily af, const std::uint8_t* bytes) noexcept : af_(af) {
  std::memcpy(bytes_.data(), bytes, addressBytes(af));
}

IpGenAddr IpGenAddr::v4(std::uint32_t hostOrder) noexcept {
  std::uint8_t b[4];
  store32(b, hostOrder);
  return IpGenAddr(AddressFamily::ipv4, b);
}

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view text) noexcept {
  char buf[INET6_ADDRSTRLEN + 1];
  if (text.empty() || text.size() >= sizeof(buf)) return std::nullopt;
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = 0;
  std::uint8_t b[16];
  if (inet_pton(AF_INET, buf, b) == 1) return IpGenAddr(AddressFamily::ipv4, b);
  if (inet_pton(AF_INET6, buf, b) == 1) return IpGenAddr(AddressFamily::ipv6, b);
  return std::nullopt;
}

bool IpGenAddr::isLinkLocal() const noexcept {
  return af_ == AddressFamily::ipv6 && bytes_[0] == 0xfe && (bytes_[1] & 0xc0) == 0x80;
}

bool IpGenAddr::isMulticast() const noexcept {
  switch (af_) {
    case AddressFamily::ipv4:
      return (bytes_[0] & 0xf0) == 0xe0;
    case AddressFamily::ipv6:
      return bytes_[0] == 0xff;
    default:
      return false;
  }
}

bool IpGenAddr::isZero() const noexcept {
  if (!isSet()) return false;
  return std::all_of(bytes_.begin(), bytes_.begin() + byteLength(),
                     [](std::uint8_t b) { return b == 0; });
}

std::string IpGenAddr::str() const {
  char buf[INET6_ADDRSTRLEN];
  switch (af_) {
    case AddressFamily::ipv4:
      return inet_ntop(AF_INET, bytes_.data(), buf, sizeof(buf));
    case AddressFamily::ipv6:
      return inet_ntop(AF_INET6, bytes_.data(), buf, sizeof(buf));
    default:
      return "None";
  }
}

std::uint32_t IpGenAddr::hash() const noexcept {
  // FNV-1a over family and address bytes.
  std::uint32_t h = 2166136261u;
  auto mix = [&h](std::uint8_t b) { h = (h ^ b) * 16777619u; };
  mix(static_cast<std::uint8_t>(af_));
  for (std::uint8_t i = 0; i < byteLength(); ++i) mix(bytes_[i]);
  return h;
}

std::ostream& operator<<(std::ostream& os, const IpGenAddr& a) { return os << a.str(); }

// ---------------------------------------------------------------------------------------
// IpGenPrefix, IpGenAddrWithMask

namespace {

void checkMaskLen(const IpGenAddr& addr, unsigned maskLen) {
  if (maskLen > addr.byteLength() * 8u)
    throw Kel::RangeError(std::string(IpGenPrefix::kRangeErrorText));
}

// Splits "addr/len"; a missing or malformed part is a range error.
std::pair<IpGenAddr, std::uint8_t> parseWithLen(std::string_view text) {
  auto slash = text.find('/');
  auto addr = IpGenAddr::parse(text.substr(0, slash));
  unsigned len = 0;
  bool ok = addr && slash != std::string_view::npos;
  if (ok) {
    auto l = text.substr(slash + 1);
    auto [p, ec] = std::from_chars(l.data(), l.data() + l.size(), len);
    ok = !l.empty() && ec == std::errc() && p == l.data() + l.size() && len <= 255;
  }
  if (!ok) throw Kel::RangeError(fmt::format("IpGenPrefix::address '{}' not parsable", text));
  checkMaskLen(*addr, len);
  return {*addr, static_cast<std::uint8_t>(len)};
}

}  // namespace

IpGenPrefix::IpGenPrefix(const IpGenAddr& addr, std::uint8_t maskLen) : addr_(addr), len_(maskLen) {
  checkMaskLen(addr, maskLen);
}

IpGenPrefix::IpGenPrefix(std::string_view text) { std::tie(addr_, len_) = parseWithLen(text); }

namespace {

// The first len bits of an address as two big-endian words (IPv4 in the high half of the
// first), so that masking and comparing are a few word operations: prefixes are masked and
// matched on every RPF lookup and trie step, and a byte loop showed in their profiles.
struct Words {
  std::uint64_t w[2];
};
inline std::uint64_t load64(const std::uint8_t* p) noexcept {
  return (std::uint64_t{load32(p)} << 32) | load32(p + 4);
}
inline Words wordsOf(const IpGenAddr& a) noexcept {
  if (a.af() == AddressFamily::ipv6) return {{load64(a.bytes()), load64(a.bytes() + 8)}};
  return {{std::uint64_t{a.v4Addr()} << 32, 0}};
}
// Mask of the leading bits of word i for a prefix of len bits.
inline std::uint64_t leadMask(unsigned len, unsigned i) noexcept {
  const unsigned bits = len > i * 64 ? std::min(64u, len - i * 64) : 0u;
  return bits == 0 ? 0 : ~std::uint64_t{0} << (64 - bits);
}

}  // namespace

IpGenPrefix IpGenPrefix::masked() const noexcept {
  IpGenPrefix p;
  p.len_ = len_;
  if (!addr_.isSet()) return p;
  const Words w = wordsOf(addr_);
  std::uint8_t b[16];
  for (unsigned i = 0; i < 2; ++i) {
    const std::uint64_t v = w.w[i] & leadMask(len_, i);
    store32(b + i * 8, static_cast<std::uint32_t>(v >> 32));
    store32(b + i * 8 + 4, static_cast<std::uint32_t>(v));
  }
  p.addr_ = IpGenAddr(addr_.af(), b);
  return p;
}

bool IpGenPrefix::contains(const IpGenAddr& a) const noexcept {
  if (a.af() != addr_.af()) return false;
  const Words x = wordsOf(a), y = wordsOf(addr_);
  return ((x.w[0] ^ y.w[0]) & leadMask(len_, 0)) == 0 &&
         ((x.w[1] ^ y.w[1]) & leadMask(len_, 1)) == 0;
}

bool IpGenPrefix::overlaps(const IpGenPrefix& o) const noexcept {
  if (o.af() != af()) return false;
  // Both cut to the shorter length: equal networks then.
  IpGenPrefix a = *this, b = o;
  a.len_ = b.len_ = std::min(len_, o.len_);
  return a.masked().addr_ == b.masked().addr_;
}

std::string IpGenPrefix::str() const {
  if (!addr_.isSet()) return "None";
  return fmt::format("{}/{}", addr_.str(), len_);
}

std::uint32_t IpGenPrefix::hash() const noexcept { return (addr_.hash() ^ len_) * 16777619u; }

std::ostream& operator<<(std::ostream& os, const IpGenPrefix& p) { return os << p.str(); }

IpGenAddrWithMask::IpGenAddrWithMask(const IpGenAddr& addr, std::uint8_t maskLen)
    : addr_(addr), len_(maskLen) {
  checkMaskLen(addr, maskLen);
}

IpGenAddrWithMask::IpGenAddrWithMask(std::string_view text) {
  std::tie(addr_, len_) = parseWithLen(text);
}

std::string IpGenAddrWithMask::str() const {
  if (!addr_.isSet()) return "None";
  return fmt::format("{}/{}", addr_.str(), len_);
}

std::ostream& operator<<(std::ostream& os, const IpGenAddrWithMask& a) { return os << a.str(); }

// ---------------------------------------------------------------------------------------
// IntfId

IntfId::IntfId(std::string_view name) {
  if (name.size() > kMaxLen || name.find('\0') != std::string_view::npos) {
    throw Kel::RangeError(std::string(kRangeErrorText));
  }
  std::memcpy(name_.data(), name.data(), name.size());
}

std::ostream& operator<<(std::ostream& os, const IntfId& i) { return os << i.name(); }

// ---------------------------------------------------------------------------------------
// Pkt

Kel::Ptr<Pkt::Buffer> Pkt::Buffer::make(std::uint32_t cap, bool zeroed) {
  static_assert(sizeof(Buffer) % alignof(std::uint64_t) == 0, "bytes start word-aligned");
  auto* b = new (::operator new(sizeof(Buffer) + cap)) Buffer(cap);
  if (zeroed) std::memset(b->bytes, 0, cap);
  return Kel::Ptr<Buffer>(b);
}

Kel::Ptr<Pkt> Pkt::create(std::uint32_t size, std::uint32_t headroom, std::uint32_t tailroom) {
  return make(size, headroom, tailroom, true);
}

Kel::Ptr<Pkt> Pkt::make(std::uint32_t size, std::uint32_t headroom, std::uint32_t tailroom,
                        bool zeroed) {
  // In 64 bits: three 32-bit parts can overflow 32.
  const std::uint64_t total = std::uint64_t{headroom} + size + tailroom;
  if (total > std::numeric_limits<std::uint32_t>::max()) {
    throw Kel::RangeError("Pkt::size + headroom + tailroom > 4 GiB not allowed");
  }
  Kel::Ptr<Pkt> p(new Pkt());
  p->sharedBuffer_ = Buffer::make(static_cast<std::uint32_t>(total), zeroed);
  p->head_ = headroom;
  p->tail_ = headroom + size;
  p->updateSharedIovec();
  return p;
}

Kel::Ptr<Pkt> Pkt::copyOf(const void* bytes, std::uint32_t size, std::uint32_t headroom,
                          std::uint32_t tailroom) {
  // Zero only the room around the copy: a received packet is copied once per packet.
  auto p = make(size, headroom, tailroom, false);
  std::uint8_t* b = p->sharedBuffer_->bytes;
  std::memset(b, 0, headroom);
  if (size) std::memcpy(b + headroom, bytes, size);
  std::memset(b + headroom + size, 0, tailroom);
  return p;
}

Kel::Ptr<Pkt> Pkt::share() const {
  Kel::Ptr<Pkt> p(new Pkt());
  p->sharedBuffer_ = sharedBuffer_;
  p->head_ = head_;
  p->tail_ = tail_;
  p->updateSharedIovec();
  return p;
}

bool Pkt::isShared() const noexcept { return sharedBuffer_ && sharedBuffer_->references() > 1; }

const std::uint8_t* Pkt::data(std::uint32_t offset, std::uint32_t len) const noexcept {
  // 64-bit sum so that offset + len cannot wrap.
  if (!sharedBuffer_ || std::uint64_t{offset} + len > size()) return nullptr;
  return sharedBuffer_->bytes + head_ + offset;
}

std::uint8_t* Pkt::writableData(std::uint32_t offset, std::uint32_t len) {
  if (!sharedBuffer_ || std::uint64_t{offset} + len > size()) return nullptr;
  unshare();
  return sharedBuffer_->bytes + head_ + offset;
}

void Pkt::unshare() {
  if (!isShared()) return;
  auto copy = Buffer::make(sharedBuffer_->capacity, false);
  std::memcpy(copy->bytes, sharedBuffer_->bytes, sharedBuffer_->capacity);
  sharedBuffer_ = copy;
  updateSharedIovec();
}

bool Pkt::sizeIs(std::uint32_t size) {
  if (std::uint64_t{head_} + size > capacity()) return false;
  std::uint32_t newTail = head_ + size;
  if (newTail > tail_) {
    unshare();
    std::memset(sharedBuffer_->bytes + tail_, 0, newTail - tail_);
  }
  tail_ = newTail;
  updateSharedIovec();
  return true;
}

bool Pkt::sizeIsUncleared(std::uint32_t size) {
  if (isShared()) return sizeIs(size);
  if (std::uint64_t{head_} + size > capacity()) return false;
  tail_ = head_ + size;
  updateSharedIovec();
  return true;
}

bool Pkt::prepend(std::uint32_t n) {
  if (n > head_) return false;
  unshare();
  head_ -= n;
  std::memset(sharedBuffer_->bytes + head_, 0, n);
  updateSharedIovec();
  return true;
}

void Pkt::delSharedHeadData(std::uint32_t n) {
  KEL_ASSERT(sharedBuffer_ != 0);
  KEL_ASSERT(firstIoVec_ != maxIovecs_);
  head_ += std::min(n, size());
  updateSharedIovec();
}

void Pkt::delSharedTailData(std::uint32_t n) {
  KEL_ASSERT(sharedBuffer_ != 0);
  KEL_ASSERT(firstIoVec_ != maxIovecs_);
  tail_ -= std::min(n, size());
  updateSharedIovec();
}

Kel::Ptr<Pkt> Pkt::withoutBufferForTest() { return Kel::Ptr<Pkt>(new Pkt()); }

Kel::Ptr<Pkt> Pkt::withoutIovecForTest(std::uint32_t size) {
  auto p = create(size);
  p->firstIoVec_ = maxIovecs_;
  return p;
}

void Pkt::updateSharedIovec() {
  if (!sharedBuffer_) {
    firstIoVec_ = maxIovecs_;
    return;
  }
  firstIoVec_ = 0;
  iov_[0].iov_base = sharedBuffer_->bytes + head_;
  iov_[0].iov_len = size();
}

// ---------------------------------------------------------------------------------------
// Checksums. Native-order 64-bit words summed with end-around carry (a one's-complement
// sum, congruent modulo 0xffff to the sum of the 16-bit words, since 0xffff divides
// 2^64 - 1), folded and byte-swapped once at the end (RFC 1071 section 2: byte-order
// independence). Four independent sums keep each add-with-carry waiting on its own
// chain only: two instructions per 8 bytes instead of four per 8 bytes on one chain.

namespace {

inline std::uint64_t addCarry(std::uint64_t a, std::uint64_t b) noexcept {
  a += b;
  return a + (a < b);
}

#if defined(__x86_64__)
// Where the processor has AVX2 (checked once at run time: the build targets plain x86-64),
// 32-byte blocks are summed as 32-bit words widened into 64-bit lanes: no carries to keep
// (a lane overflows only after 2^32 words), and a 32-bit word is congruent to the sum of
// its two 16-bit halves modulo 0xffff. A quarter less time than the carry chains on a
// full-MTU message, which the receive path verifies and the transmit path writes.
[[gnu::target("avx2")]] std::uint64_t sumBlocksAvx2(const std::uint8_t* p,
                                                    std::size_t blocks) noexcept {
  const __m256i zero = _mm256_setzero_si256();
  __m256i lo = zero, hi = zero;
  for (std::size_t i = 0; i < blocks; ++i, p += 32) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    lo = _mm256_add_epi64(lo, _mm256_unpacklo_epi32(v, zero));
    hi = _mm256_add_epi64(hi, _mm256_unpackhi_epi32(v, zero));
  }
  alignas(32) std::uint64_t lanes[4];
  _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), _mm256_add_epi64(lo, hi));
  return addCarry(addCarry(lanes[0], lanes[1]), addCarry(lanes[2], lanes[3]));
}

// Read during static initialisation too: before then it is false, the portable path.
const bool kHaveAvx2 = [] {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") != 0;
}();
#endif

}  // namespace

std::uint64_t checksumAdd(std::uint64_t acc, const void* data, std::size_t len) noexcept {
  auto p = static_cast<const std::uint8_t*>(data);
  std::uint64_t s0 = acc, s1 = 0, s2 = 0, s3 = 0;
#if defined(__x86_64__)
  if (len >= 64 && kHaveAvx2) {
    const std::size_t blocks = len / 32;
    s1 = sumBlocksAvx2(p, blocks);
    p += blocks * 32;
    len -= blocks * 32;
  }
#endif
  while (len >= 32) {
    // Word by word: a 32-byte copy would go through the stack.
    std::uint64_t w0, w1, w2, w3;
    std::memcpy(&w0, p, 8);
    std::memcpy(&w1, p + 8, 8);
    std::memcpy(&w2, p + 16, 8);
    std::memcpy(&w3, p + 24, 8);
    s0 = addCarry(s0, w0);
    s1 = addCarry(s1, w1);
    s2 = addCarry(s2, w2);
    s3 = addCarry(s3, w3);
    p += 32;
    len -= 32;
  }
  // At most seven 32-bit words and a 16-bit and an 8-bit one: no carry out of 64 bits.
  std::uint64_t tail = 0;
  while (len >= 4) {
    std::uint32_t w;
    std::memcpy(&w, p, 4);
    tail += w;
    p += 4;
    len -= 4;
  }
  if (len >= 2) {
    std::uint16_t w;
    std::memcpy(&w, p, 2);
    tail += w;
    p += 2;
    len -= 2;
  }
  if (len) {
    // The odd last byte is the high-order byte of a zero-padded 16-bit word, i.e. the
    // first byte in memory of that word.
    std::uint16_t w = 0;
    std::memcpy(&w, p, 1);
    tail += w;
  }
  return addCarry(addCarry(addCarry(s0, s1), addCarry(s2, s3)), tail);
}

std::uint16_t checksumFold(std::uint64_t acc) noexcept {
  acc = (acc & 0xffffffffu) + (acc >> 32);
  acc = (acc & 0xffffffffu) + (acc >> 32);
  acc = (acc & 0xffffu) + (acc >> 16);
  acc = (acc & 0xffffu) + (acc >> 16);
  acc = (acc & 0xffffu) + (acc >> 16);
  return ntohs(static_cast<std::uint16_t>(~acc & 0xffffu));
}

std::uint16_t inetChecksum(const void* data, std::size_t len) noexcept {
  return checksumFold(checksumAdd(0, data, len));
}

std::uint16_t inetChecksumV6(const IpGenAddr& src, const IpGenAddr& dst,
                             std::uint32_t upperLayerLength, std::uint8_t nextHeader,
                             const void* data, std::size_t len) noexcept {
  std::uint8_t pseudo[40] = {};
  std::memcpy(pseudo, src.bytes(), 16);
  std::memcpy(pseudo + 16, dst.bytes(), 16);
  store32(pseudo + 32, upperLayerLength);
  pseudo[39] = nextHeader;
  return checksumFold(checksumAdd(checksumAdd(0, pseudo, sizeof(pseudo)), data, len));
}

// ---------------------------------------------------------------------------------------
// PIM message types

std::string_view pimMessageTypeName(PimMessageType t) noexcept {
  switch (t) {
    case PimMessageType::pimHello:
      return "Hello";
    case PimMessageType::pimRegister:
      return "Register";
    case PimMessageType::pimRegisterStop:
      return "Register-Stop";
    case PimMessageType::pimJoinPrune:
      return "Join/Prune";
    case PimMessageType::pimBootstrap:
      return "Bootstrap";
    case PimMessageType::pimAssert:
      return "Assert";
    case PimMessageType::pimGraft:
      return "Graft";
    case PimMessageType::pimGraftAck:
      return "Graft-Ack";
    case PimMessageType::pimCrpAdv:
      return "Candidate-RP-Advertisement";
    case PimMessageType::pimStateRefresh:
      return "State-Refresh";
    case PimMessageType::pimDfElection:
      return "DF-Election";
  }
  return "Unknown";
}

std::ostream& operator<<(std::ostream& os, PimMessageType t) { return os << pimMessageTypeName(t); }

// ---------------------------------------------------------------------------------------
// IP headers

void Ipv4Hdr::build(std::uint8_t tos, std::uint16_t totalLength, std::uint8_t ttl,
                    std::uint8_t protocol, const IpGenAddr& src, const IpGenAddr& dst) noexcept {
  std::memset(p_, 0, kMinSize);
  p_[0] = 0x45;
  p_[1] = tos;
  store16(p_ + 2, totalLength);
  p_[8] = ttl;
  p_[9] = protocol;
  std::memcpy(p_ + 12, src.bytes(), 4);
  std::memcpy(p_ + 16, dst.bytes(), 4);
  store16(p_ + 10, inetChecksum(p_, kMinSize));
}

void Ipv6Hdr::build(std::uint8_t trafficClass, std::uint16_t payloadLength, std::uint8_t nextHeader,
                    std::uint8_t hopLimit, const IpGenAddr& src, const IpGenAddr& dst) noexcept {
  std::memset(p_, 0, kSize);
  p_[0] = static_cast<std::uint8_t>(0x60 | (trafficClass >> 4));
  p_[1] = static_cast<std::uint8_t>(trafficClass << 4);
  store16(p_ + 4, payloadLength);
  p_[6] = nextHeader;
  p_[7] = hopLimit;
  std::memcpy(p_ + 8, src.bytes(), 16);
  std::memcpy(p_ + 24, dst.bytes(), 16);
}

}  // namespace Nimo

namespace Kel {

void ValueText<Nimo::IpGenAddr>::parse(ValueParser& in, Nimo::IpGenAddr& v) {
  auto t = in.token();
  if (t == "None") {
    v = Nimo::IpGenAddr();
    return;
  }
  auto a = Nimo::IpGenAddr::parse(t);
  if (!a) return in.fail();
  v = *a;
}

namespace {
template <typename T>
void parseWithMask(ValueParser& in, T& v) {
  auto t = in.token();
  if (t == "None") {
    v = T();
    return;
  }
  try {
    v = T(t);
  } catch (const RangeError&) {
    in.fail();
  }
}
}  // namespace

void ValueText<Nimo::IpGenPrefix>::parse(ValueParser& in, Nimo::IpGenPrefix& v) {
  parseWithMask(in, v);
}

void ValueText<Nimo::IpGenAddrWithMask>::parse(ValueParser& in, Nimo::IpGenAddrWithMask& v) {
  parseWithMask(in, v);
}

void ValueText<Nimo::IntfId>::parse(ValueParser& in, Nimo::IntfId& v) {
  std::string s = in.quoted();
  if (!in.ok() || s.size() > Nimo::IntfId::kMaxLen) return in.fail();
  v = Nimo::IntfId(s);
}

}  // namespace Kel
