#include "tools/pimdump/Capture.h"

#include <cstring>
#include <stdexcept>

namespace PimDump {

namespace {

constexpr std::uint8_t kPim = 103;

// By resize and memcpy: g++ 12 -O3 sees a false overflow in vector::insert of a span here.
void append(Bytes& b, std::span<const std::uint8_t> s) {
  const std::size_t at = b.size();
  b.resize(at + s.size());
  if (!s.empty()) std::memcpy(b.data() + at, s.data(), s.size());
}

void put16(Bytes& b, std::uint16_t v) {
  b.push_back(static_cast<std::uint8_t>(v >> 8));
  b.push_back(static_cast<std::uint8_t>(v));
}

// Link-layer header types as capture files number them (not libpcap's DLT_ values).
std::uint32_t fileLinkType(LinkType link) {
  switch (link) {
    case LinkType::Ethernet:
      return 1;
    case LinkType::LinuxSll:
      return 113;
    case LinkType::LinuxSll2:
      return 276;
    case LinkType::RawIp:
      return 101;
    case LinkType::Unsupported:
      break;
  }
  throw std::invalid_argument("CaptureWriter: no file link type for this link");
}

// The Ethernet address a multicast IP destination maps to; a fixed unicast one otherwise.
std::array<std::uint8_t, 6> destinationMac(const Nimo::IpGenAddr& dst) {
  const std::uint8_t* a = dst.bytes();
  if (dst.af() == Nimo::AddressFamily::ipv4 && (a[0] & 0xf0) == 0xe0) {
    return {0x01, 0x00, 0x5e, static_cast<std::uint8_t>(a[1] & 0x7f), a[2], a[3]};
  }
  if (dst.af() == Nimo::AddressFamily::ipv6 && a[0] == 0xff) {
    return {0x33, 0x33, a[12], a[13], a[14], a[15]};
  }
  return {0x02, 0, 0, 0, 0, 0x02};
}
constexpr std::array<std::uint8_t, 6> kSourceMac = {0x02, 0, 0, 0, 0, 0x01};

}  // namespace

Bytes ipPacket(const Nimo::IpGenAddr& src, const Nimo::IpGenAddr& dst,
               std::span<const std::uint8_t> payload) {
  const bool v4 = src.af() == Nimo::AddressFamily::ipv4;
  const std::size_t hdr = v4 ? Nimo::Ipv4Hdr::kMinSize : Nimo::Ipv6Hdr::kSize;
  Bytes b(hdr + payload.size());
  const std::uint8_t ttl = dst.isMulticast() ? 1 : 64;
  if (v4) {
    Nimo::Ipv4Hdr(b.data()).build(0xc0, static_cast<std::uint16_t>(b.size()), ttl, kPim, src, dst);
  } else {
    Nimo::Ipv6Hdr(b.data()).build(0xc0, static_cast<std::uint16_t>(payload.size()), kPim, ttl, src,
                                  dst);
  }
  if (!payload.empty()) std::memcpy(b.data() + hdr, payload.data(), payload.size());
  return b;
}

void repairPimChecksum(Bytes& ip) {
  const bool v4 = (ip[0] >> 4) == 4;
  const std::size_t at = v4 ? (ip[0] & 0x0fu) * 4u : Nimo::Ipv6Hdr::kSize;
  std::uint8_t* pim = ip.data() + at;
  const auto len = static_cast<std::uint32_t>(ip.size() - at);
  Nimo::store16(pim + 2, 0);
  const std::uint16_t sum =
      v4 ? Nimo::inetChecksum(pim, len)
         : Nimo::inetChecksumV6(Nimo::Ipv6Hdr(ip.data()).src(), Nimo::Ipv6Hdr(ip.data()).dst(), len,
                                kPim, pim, len);
  Nimo::store16(pim + 2, sum);
}

Bytes linkFrame(LinkType link, std::span<const std::uint8_t> ip,
                std::span<const std::uint16_t> vlans) {
  const bool v4 = !ip.empty() && (ip[0] >> 4) == 4;
  const std::uint16_t etherType = v4 ? 0x0800 : 0x86dd;
  Nimo::IpGenAddr dst;
  if (ip.size() >= Nimo::Ipv6Hdr::kSize || (v4 && ip.size() >= Nimo::Ipv4Hdr::kMinSize)) {
    dst = Nimo::IpGenAddr(v4 ? Nimo::AddressFamily::ipv4 : Nimo::AddressFamily::ipv6,
                          ip.data() + (v4 ? 16 : 24));
  }
  const bool multicast = dst.isSet() && dst.isMulticast();
  Bytes b;
  switch (link) {
    case LinkType::Ethernet: {
      const auto mac = destinationMac(dst);
      append(b, mac);
      append(b, kSourceMac);
      for (std::uint16_t id : vlans) {
        put16(b, 0x8100);
        put16(b, id & 0x0fff);
      }
      put16(b, etherType);
      break;
    }
    case LinkType::LinuxSll:
      put16(b, multicast ? 2 : 0);  // packet type: to us, or multicast
      put16(b, 1);                  // ARPHRD_ETHER
      put16(b, 6);
      append(b, kSourceMac);
      put16(b, 0);
      put16(b, etherType);
      break;
    case LinkType::LinuxSll2:
      put16(b, etherType);
      put16(b, 0);
      put16(b, 0);
      put16(b, 2);  // interface index 2
      put16(b, 1);  // ARPHRD_ETHER
      b.push_back(multicast ? 2 : 0);
      b.push_back(6);
      append(b, kSourceMac);
      put16(b, 0);
      break;
    case LinkType::RawIp:
      break;
    case LinkType::Unsupported:
      throw std::invalid_argument("linkFrame: unsupported link");
  }
  append(b, ip);
  return b;
}

// Files are written in host byte order; readers detect the order from the magic numbers.
CaptureWriter::CaptureWriter(const std::string& path, Format format, LinkType link)
    : file_(std::fopen(path.c_str(), "wb")), format_(format) {
  if (file_ == nullptr) throw std::runtime_error("cannot create " + path);
  const std::uint32_t linkType = fileLinkType(link);
  if (format == Format::Pcap) {
    const std::uint32_t magic = 0xa1b2c3d4, zone = 0, sigfigs = 0, snap = 65535;
    const std::uint16_t major = 2, minor = 4;
    put(&magic, 4), put(&major, 2), put(&minor, 2), put(&zone, 4), put(&sigfigs, 4);
    put(&snap, 4), put(&linkType, 4);
    return;
  }
  // Section header block, then one interface description block.
  const std::uint32_t shb = 0x0a0d0d0a, shbLen = 28, order = 0x1a2b3c4d;
  const std::uint16_t major = 1, minor = 0;
  const std::int64_t sectionLen = -1;
  put(&shb, 4), put(&shbLen, 4), put(&order, 4), put(&major, 2), put(&minor, 2);
  put(&sectionLen, 8), put(&shbLen, 4);
  const std::uint32_t idb = 1, idbLen = 20, snap = 65535;
  const std::uint16_t link16 = static_cast<std::uint16_t>(linkType), reserved = 0;
  put(&idb, 4), put(&idbLen, 4), put(&link16, 2), put(&reserved, 2), put(&snap, 4), put(&idbLen, 4);
}

CaptureWriter::~CaptureWriter() { std::fclose(file_); }

void CaptureWriter::put(const void* p, std::size_t n) {
  if (std::fwrite(p, 1, n, file_) != n) throw std::runtime_error("capture write failed");
}

void CaptureWriter::add(std::span<const std::uint8_t> frame, std::uint32_t wireLength) {
  const auto caplen = static_cast<std::uint32_t>(frame.size());
  const std::uint32_t origLen = std::max(caplen, wireLength);
  // Deterministic timestamps, 1 ms apart from 2026-01-01, so the files are reproducible.
  const std::uint64_t usec = 1767225600ull * 1000000ull + 1000ull * frames_++;
  if (format_ == Format::Pcap) {
    const auto sec = static_cast<std::uint32_t>(usec / 1000000),
               us = static_cast<std::uint32_t>(usec % 1000000);
    put(&sec, 4), put(&us, 4), put(&caplen, 4), put(&origLen, 4);
    put(frame.data(), frame.size());
    return;
  }
  const std::uint32_t pad = (4 - caplen % 4) % 4;
  const std::uint32_t epb = 6, len = 32 + caplen + pad, intf = 0;
  const auto hi = static_cast<std::uint32_t>(usec >> 32), lo = static_cast<std::uint32_t>(usec);
  put(&epb, 4), put(&len, 4), put(&intf, 4), put(&hi, 4), put(&lo, 4), put(&caplen, 4);
  put(&origLen, 4), put(frame.data(), frame.size());
  const std::uint32_t zero = 0;
  put(&zero, pad), put(&len, 4);
}

}  // namespace PimDump
