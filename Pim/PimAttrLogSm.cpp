// PimAttrLogSm: holds the attribute-log output. Inputs: none (it watches nothing).

#include "Pim/PimAttrLogSm.h"

namespace Routing::Pim {

const Kel::Reflection* PimAttrLogSm::reflection() const noexcept {
  static constexpr Kel::AttributeInfo kAttrs[] = {
      Kel::objectAttribute<&PimAttrLogSm::nboAttrLogOutSm>("nboAttrLogOutSm")};
  static constexpr Kel::Reflection kRefl{kTypeName, kAttrs, {}};
  return &kRefl;
}

Kel::Ptr<PimAttrLogSm> pimAttrLogSmFactory(Kel::Ptr<Kel::NboAttrLog::SocketOutSm> nboAttrLogOutSm) {
  return Kel::Ptr<PimAttrLogSm>::make(std::move(nboAttrLogOutSm));
}

}  // namespace Routing::Pim
