#include "Pim/PimTypesDrobe.h"

#include <fmt/format.h>

namespace Routing::Pim::IO {

std::ostream& operator<<(std::ostream& os, MessageCounterType t) {
  std::string out;
  Kel::ValueText<MessageCounterType>::print(out, t);
  return os << out;
}

std::ostream& operator<<(std::ostream& os, MessageCounterDirection d) {
  std::string out;
  Kel::ValueText<MessageCounterDirection>::print(out, d);
  return os << out;
}

std::ostream& operator<<(std::ostream& os, const MessageCounter& c) {
  return os << fmt::format("{{invalid={}, filtered={}, success={}}}", c.invalid(), c.filtered(),
                           c.success());
}

}  // namespace Routing::Pim::IO

namespace Routing::Pim::DrobeDetail {

void appendHuman(std::string& out, bool v) { Kel::ValueText<bool>::print(out, v); }
void appendHuman(std::string& out, double v) { Kel::appendDouble(out, v); }
void appendHuman(std::string& out, std::uint32_t v) { out += std::to_string(v); }
void appendHuman(std::string& out, const Nimo::IntfId& v) { out += v.name(); }

}  // namespace Routing::Pim::DrobeDetail

namespace Routing::Pim::Drobe {

std::string MessageCounterData::drobeString() const {
  std::string out = fmt::format("[key: (MessageType={}, MessageSubtype={}, Interface=\"{}\")",
                                key_.mtype(), key_.stype(), key_.intfId().name());
  std::ostringstream os;
  os << "), rx: " << rxMsgCounter_ << ", tx: " << txMsgCounter_ << "]";
  return out + os.str();
}

}  // namespace Routing::Pim::Drobe

namespace Routing::Pim::IntfNghbr::Drobe {

void appendHuman(std::string& out, const IntfVrfKey& k) {
  fmt::format_to(std::back_inserter(out), "{} (vrf {})", k.intfId().name(), k.vrfId());
}

}  // namespace Routing::Pim::IntfNghbr::Drobe
