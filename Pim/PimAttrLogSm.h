// PimAttrLogSm: the PIM object tree's hold on the attribute-log output.
//
// The framework streams attribute changes to an external collector through a
// Kel::NboAttrLog::SocketOutSm. The agent creates one PimAttrLogSm over that output and
// hands it to the I/O state machine, which keeps it as its attribute pimAttrLogSm and reads
// the output's clogged() to pause its receive loop. This machine has no state and watches
// nothing; it only keeps the output alive and reachable by name.
//
// Threading: event-loop thread only.
//
// Usage:
//   auto out = Kel::NboAttrLog::socketOutSmFactory("attrlog", fd, 64 * 1024);
//   auto sm = Routing::Pim::pimAttrLogSmFactory(out);
//   sm->nboAttrLogOutSm()->clogged();
//   Kel::attributeObject(*sm, "nboAttrLogOutSm");   // the same output, found by name
#pragma once

#include <string_view>

#include "Pim/platform/Kel.h"

namespace Routing::Pim {

class PimAttrLogSm : public Kel::Entity {
 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::PimAttrLogSm";

  explicit PimAttrLogSm(Kel::Ptr<Kel::NboAttrLog::SocketOutSm> nboAttrLogOutSm)
      : Kel::Entity(Kel::Name(std::string(kTypeName))),
        nboAttrLogOutSm_(std::move(nboAttrLogOutSm)) {}

  const Kel::Ptr<Kel::NboAttrLog::SocketOutSm>& nboAttrLogOutSm() const noexcept {
    return nboAttrLogOutSm_;
  }

  // Reflection (Kel.h): "nboAttrLogOutSm", read-only, reached by Kel::attributeObject.
  const Kel::Reflection* reflection() const noexcept override;

 private:
  Kel::Ptr<Kel::NboAttrLog::SocketOutSm> nboAttrLogOutSm_;
};

Kel::Ptr<PimAttrLogSm> pimAttrLogSmFactory(Kel::Ptr<Kel::NboAttrLog::SocketOutSm> nboAttrLogOutSm);

}  // namespace Routing::Pim
