// One decoder per PIM message type: build the class the first byte names, run its reader at
// the PIM header's offset, and describe what it kept in pimdump's JSON schema.

#include <functional>
#include <sstream>
#include <type_traits>

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

Json prefix(const Nimo::IpGenPrefix& p) { return p.str(); }

// The data set as the reader kept it. Sources are kept by kind, so their flags are the
// kind's S, W and R bits; the (*,G) entry names the RP.
void describe(const P::JoinPruneMessage& m, Json& j) {
  const auto& data = *m.joinPruneData();
  j["upstream"] = addr(data.upstreamNeighbor());
  j["holdtime"] = data.holdTime();
  using C = Routing::Pim::SourceCollection;
  static constexpr struct {
    C collection;
    bool join;
    const char* kind;
    std::uint8_t flags;
  } kKinds[] = {{C::JoinedRpt, true, "sg-rpt", 0x05},
                {C::Joined, true, "sg", 0x04},
                {C::PrunedRpt, false, "sg-rpt", 0x05},
                {C::Pruned, false, "sg", 0x04}};
  auto entry = [](const Nimo::IpGenAddr& a, std::uint8_t flags, const char* kind) {
    const auto len = static_cast<std::uint8_t>(a.byteLength() * 8);
    return Json{{"source", prefix(Nimo::IpGenPrefix(a, len))}, {"flags", flags}, {"kind", kind}};
  };
  Json groups = Json::array();
  for (const auto& [group, g] : data.joinPruneGroupData()) {
    Json joins = Json::array(), prunes = Json::array();
    for (const auto& k : kKinds) {
      for (const auto& e : g.sourceSet(k.collection)) {
        (k.join ? joins : prunes).push_back(entry(e.address(), k.flags, k.kind));
      }
    }
    if (const auto& wc = g.wcSourceData()) {
      (wc->join() ? joins : prunes).push_back(entry(wc->rp(), 0x07, "wc"));
    }
    groups.push_back(Json{{"group", prefix(group)},
                          {"flags", g.groupFlags()},
                          {"joins", std::move(joins)},
                          {"prunes", std::move(prunes)}});
  }
  j["groups"] = std::move(groups);
}

// Registers: the inner packet's addresses as the reader kept them, and its length as the
// bytes that follow the Register header (a data Register hands exactly these on).
struct RegisterView {
  const P::RegisterMessage& m;
  std::size_t innerLength;
};
void describe(const RegisterView& r, Json& j) {
  j["border"] = r.m.borderFlag();
  j["null"] = r.m.nullFlag();
  j["inner"] = Json{{"af", r.m.innerSource().af() == Nimo::AddressFamily::ipv6 ? 6 : 4},
                    {"src", addr(r.m.innerSource())},
                    {"dst", addr(r.m.innerGroup())},
                    {"length", r.innerLength}};
}

void describe(const P::RegisterStopMessage& m, Json& j) {
  j["group"] = prefix(m.group().groupAddress().address);
  j["source"] = addr(m.source().address());
}

void describe(const P::AssertMessage& m, Json& j) {
  j["group"] = prefix(m.group().groupAddress().address);
  j["source"] = addr(m.source().address());
  j["rpt"] = m.rpt();
  j["metricPreference"] = m.metricPreference().value();
  j["metric"] = m.metric();
}

void describe(const P::BootstrapMessage& m, Json& j) {
  j["fragmentTag"] = m.fragmentTag();
  j["hashMaskLen"] = m.hashMaskLen();
  j["bsrPriority"] = m.bsrPriority();
  j["bsr"] = addr(m.bsrAddress());
  j["noForward"] = m.noForward();
  Json groups = Json::array();
  for (const auto& g : m.groupData()) {
    Json rps = Json::array();
    for (const auto& [address, rp] : g.rpList) {
      rps.push_back(Json{
          {"address", addr(address)}, {"holdtime", rp.rpHoldtime}, {"priority", rp.rpPriority}});
    }
    groups.push_back(Json{{"prefix", prefix(g.prefix)},
                          {"flags", g.groupFlags},
                          {"rpCount", g.rpCount},
                          {"fragRpCount", g.fragRpCount},
                          {"rps", std::move(rps)}});
  }
  j["groups"] = std::move(groups);
}

void describe(const P::CrpAdvMessage& m, Json& j) {
  j["prefixCount"] = m.prefixCount();
  j["priority"] = m.priority();
  j["holdtime"] = m.holdtime();
  j["rp"] = addr(m.rpAddress());
  Json groups = Json::array();
  if (m.groupData()) {
    for (const auto& [p, flags] : m.groupData()->groupInfo) groups.push_back(prefix(p));
  }
  j["groups"] = std::move(groups);
}

void describe(const P::DfElectionMessage& m, Json& j) {
  using T = P::DfElectionMessageType;
  static constexpr const char* kSubtypes[] = {"unknown", "offer", "winner", "backoff", "pass"};
  const T t = m.dfElectionMessageType();
  j["subtype"] = kSubtypes[static_cast<unsigned>(t) < 5 ? static_cast<unsigned>(t) : 0];
  j["rp"] = addr(m.rpAddress().address());
  j["metricPreference"] = m.senderMetricPreference();
  j["metric"] = m.senderMetric();
  if (t == T::dfElectionBackoff) {
    const auto& b = static_cast<const P::DfElectionBackoffMessage&>(m);
    j["offeringAddress"] = addr(b.offeringAddress().address());
    j["offeringMetricPreference"] = b.offeringMetricPreference();
    j["offeringMetric"] = b.offeringMetric();
    j["interval"] = b.interval();
  } else if (t == T::dfElectionPass) {
    const auto& p = static_cast<const P::DfElectionPassMessage&>(m);
    j["winningAddress"] = addr(p.winningAddress().address());
    j["winningMetricPreference"] = p.winningMetricPreference();
    j["winningMetric"] = p.winningMetric();
  }
}

// Runs M's reader over the located message and fills "ok" and the body fields.
template <typename M, typename Read>
void decodeAs(const LocatedPim& m, Read read, Decoded& d) {
  auto msg = Kel::Ptr<M>::make();
  msg->srcIpIs(m.src);
  msg->dstIpIs(m.dst);
  auto pkt = Nimo::Pkt::copyOf(m.ip.data(), static_cast<std::uint32_t>(m.ip.size()));
  const bool ok = std::invoke(read, *msg, pkt, m.pimOffset) != 0;
  d.json["ok"] = ok;
  if (!ok) return;
  if constexpr (std::is_same_v<M, P::RegisterMessage>) {
    describe(RegisterView{*msg, m.ip.size() - m.pimOffset - 8}, d.json);
  } else {
    describe(*msg, d.json);
  }
  std::ostringstream os;
  os << *msg;
  d.text = os.str();
}

// The subtype in the high nibble of the reserved byte picks the class, as on receive.
void decodeDfElection(const LocatedPim& m, Decoded& d) {
  using T = P::DfElectionMessageType;
  // A message too short for the subtype byte goes to the common reader, which says so.
  const auto subtype = m.ip.size() > m.pimOffset + 1u ? static_cast<T>(m.ip[m.pimOffset + 1] >> 4)
                                                      : T::dfElectionUnknown;
  switch (subtype) {
    case T::dfElectionOffer:
      return decodeAs<P::DfElectionOfferMessage>(
          m, &P::DfElectionOfferMessage::readDfElectionOfferMessage, d);
    case T::dfElectionWinner:
      return decodeAs<P::DfElectionWinnerMessage>(
          m, &P::DfElectionWinnerMessage::readDfElectionWinnerMessage, d);
    case T::dfElectionBackoff:
      return decodeAs<P::DfElectionBackoffMessage>(
          m, &P::DfElectionBackoffMessage::readDfElectionBackoffMessage, d);
    case T::dfElectionPass:
      return decodeAs<P::DfElectionPassMessage>(
          m, &P::DfElectionPassMessage::readDfElectionPassMessage, d);
    default:
      return decodeAs<P::DfElectionMessage>(m, &P::DfElectionMessage::readDfElectionMessage, d);
  }
}

}  // namespace

const char* typeName(unsigned typeNumber) noexcept {
  static constexpr const char* kNames[16] = {"hello",     "register", "register-stop", "join-prune",
                                             "bootstrap", "assert",   "graft",         "graft-ack",
                                             "crp-adv",   "unknown",  "df-election"};
  return typeNumber < 16 && kNames[typeNumber] ? kNames[typeNumber] : "unknown";
}

Decoded decodePim(const LocatedPim& m, const Options& options) {
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
      case 1:
        decodeAs<P::RegisterMessage>(m, &P::RegisterMessage::readRegisterMessage, d);
        break;
      case 2:
        decodeAs<P::RegisterStopMessage>(m, &P::RegisterStopMessage::readRegisterStopMessage, d);
        break;
      case 3:
        decodeAs<P::JoinPruneMessage>(
            m,
            [&](P::JoinPruneMessage& j, const Kel::Ptr<Nimo::Pkt>& pkt, std::uint32_t off) {
              j.bidirIs(options.bidir);
              return j.readJoinPruneMessage(pkt, off, nullptr);
            },
            d);
        break;
      case 4:
        decodeAs<P::BootstrapMessage>(m, &P::BootstrapMessage::readBootstrapMessage, d);
        break;
      case 5:
        decodeAs<P::AssertMessage>(m, &P::AssertMessage::readAssertMessage, d);
        break;
      case 8:
        decodeAs<P::CrpAdvMessage>(m, &P::CrpAdvMessage::readCrpAdvMessage, d);
        break;
      case 10:
        decodeDfElection(m, d);
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
