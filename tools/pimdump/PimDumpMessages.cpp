// One decoder per PIM message type: build the class the first byte names, run its reader at
// the PIM header's offset, and describe what it kept in pimdump's JSON schema.

#include <sstream>

#include "Pim/PimMessage.h"
#include "tools/pimdump/PimDump.h"

namespace PimDump {

namespace {

namespace P = Routing::Pim::Packet;
using Json = nlohmann::ordered_json;

// Addresses in their usual text forms; unset ones (an option that was not sent) as null.
Json addr(const Nimo::IpGenAddr& a) { return a.isSet() ? Json(a.str()) : Json(nullptr); }
template <typename T>
Json optional(bool present, T value) {
  return present ? Json(value) : Json(nullptr);
}

void describe(const P::HelloMessage& h, Json& j) {
  j["holdtime"] = optional(h.holdTimeOption(), h.holdTime());
  j["lanPruneDelay"] = h.lanPruneDelayOption()
                           ? Json{{"t", h.tBit()},
                                  {"propagationDelay", h.propagationDelay().value()},
                                  {"overrideInterval", h.overrideInterval()}}
                           : Json(nullptr);
  j["drPriority"] = optional(h.drPriorityOption(), h.drPriority());
  j["generationId"] = optional(h.generationIdOption(), h.generationId());
  j["bidirCapable"] = h.bidirectionalCapable();
  Json list = Json::array();
  for (const auto& a : h.secondaryAddr()) list.push_back(a.str());
  j["addressList"] = std::move(list);
  j["tcpConnection"] = h.tcpConnectionOption() ? addr(h.tcpConnectionId()) : Json(nullptr);
  j["sctpConnection"] = h.sctpConnectionOption() ? addr(h.sctpConnectionId()) : Json(nullptr);
  j["interfaceId"] = h.interfaceIdOption()
                         ? Json{{"routerId", h.routerId()}, {"interfaceId", h.interfaceId()}}
                         : Json(nullptr);
}

// Runs M's reader over the located message and fills "ok" and the body fields.
template <typename M, typename Read>
void decodeAs(const LocatedPim& m, Read read, Decoded& d) {
  auto msg = Kel::Ptr<M>::make();
  msg->srcIpIs(m.src);
  msg->dstIpIs(m.dst);
  auto pkt = Nimo::Pkt::copyOf(m.ip.data(), static_cast<std::uint32_t>(m.ip.size()));
  const bool ok = ((*msg).*read)(pkt, m.pimOffset) != 0;
  d.json["ok"] = ok;
  if (!ok) return;
  describe(*msg, d.json);
  std::ostringstream os;
  os << *msg;
  d.text = os.str();
}

}  // namespace

const char* typeName(unsigned typeNumber) noexcept {
  static constexpr const char* kNames[16] = {"hello",     "register", "register-stop", "join-prune",
                                             "bootstrap", "assert",   "graft",         "graft-ack",
                                             "crp-adv",   "unknown",  "df-election"};
  return typeNumber < 16 && kNames[typeNumber] ? kNames[typeNumber] : "unknown";
}

Decoded decodePim(const LocatedPim& m) {
  Decoded d;
  const std::uint8_t first = m.ip.size() > m.pimOffset ? m.ip[m.pimOffset] : 0;
  const unsigned version = first >> 4;
  const unsigned type = first & 0x0fu;
  d.json["af"] = m.af;
  d.json["src"] = m.src.str();
  d.json["dst"] = m.dst.str();
  d.json["type"] = typeName(type);
  d.json["typeNumber"] = type;
  d.json["version"] = version;
  d.json["ok"] = false;
  if (m.ip.size() <= m.pimOffset) {
    // An empty payload: the header reader says what is missing.
    P::Message header(Nimo::PimMessageType::pimHello);
    header.srcIpIs(m.src);
    header.dstIpIs(m.dst);
    header.readHeader(Nimo::Pkt::copyOf(m.ip.data(), static_cast<std::uint32_t>(m.ip.size())),
                      m.pimOffset);
  } else if (version != 2) {
    d.error = "RX: Error - Invalid Pim Version - Version: " + std::to_string(version);
  } else {
    switch (type) {
      case 0:
        decodeAs<P::HelloMessage>(m, &P::HelloMessage::readHelloMessage, d);
        break;
      case 6:
      case 7:  // Graft and Graft-Ack are dense-mode messages: known, never handled
        d.error = "RX: Error - Unsupported Pim Message - Type: " + std::to_string(type);
        break;
      default:
        d.error = "RX: Error - Invalid Pim Message - Type: " + std::to_string(type);
        break;
    }
  }
  return d;
}

}  // namespace PimDump
