// PimAttrLogSm: holds the attribute-log output. Inputs: none (it watches nothing).

#include "Pim/PimAttrLogSm.h"

namespace Routing::Pim {

Kel::Ptr<Kel::PtrInterface> PimAttrLogSm::attribute(std::string_view name) const noexcept {
  if (name == "nboAttrLogOutSm") return nboAttrLogOutSm_;
  return nullptr;
}

Kel::Ptr<PimAttrLogSm> pimAttrLogSmFactory(Kel::Ptr<Kel::NboAttrLog::SocketOutSm> nboAttrLogOutSm) {
  return Kel::Ptr<PimAttrLogSm>::make(std::move(nboAttrLogOutSm));
}

}  // namespace Routing::Pim
