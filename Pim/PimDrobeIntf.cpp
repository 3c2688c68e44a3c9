#include "Pim/PimDrobeIntf.h"

namespace Routing::Pim::IntfNghbr::Drobe {

std::string IntfStatus::mountPath(Nimo::AddressFamily af) {
  std::string p(DrobeDetail::routingRoot(af));
  p += "/pim/intf/status";
  return p;
}

::Drobe::MountInfo IntfStatus::writerMountInfo() {
  return DrobeDetail::statusMountInfo<IntfStatus>("intf", kIntfCapacity);
}

IntfStatus::IntfStatus(Kel::Name name)
    : StatusTables(
          std::move(name), writerMountInfo(), "intf",
          {&NotifieeConst::onIntf, &NotifieeConst::onIntf, &NotifieeConst::onIntfMountStatus}) {}

Kel::Ptr<IntfStatus> intfStatusFactory(const Kel::Name& name) {
  return Kel::Ptr<IntfStatus>::make(name);
}

}  // namespace Routing::Pim::IntfNghbr::Drobe
