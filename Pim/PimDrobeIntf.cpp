#include "Pim/PimDrobeIntf.h"

namespace Routing::Pim::IntfNghbr::Drobe {

std::string IntfStatus::mountPath(Nimo::AddressFamily af) {
  std::string p(DrobeDetail::routingRoot(af));
  p += "/pim/intf/status";
  return p;
}

::Drobe::MountInfo IntfStatus::writerMountInfo() {
  return {{{"intf", kIntfCapacity},
           {"neighbor", kNeighborCapacity},
           {"inactiveNeighbor", kInactiveNeighborCapacity},
           {"intfSecondaryAddress", kIntfSecondaryAddressCapacity},
           {"intfSecondaryPrefix", kIntfSecondaryPrefixCapacity},
           {"neighborSecondaryAddress", kNeighborSecondaryAddressCapacity}}};
}

IntfStatus::IntfStatus(Kel::Name name)
    : Kel::Entity(std::move(name)),
      intf_("intf", dispatch<IntfVrfKey>([](NotifieeConst& n, const IntfVrfKey& k) { n.onIntf(k); },
                                         [](NotifieeConst& n) { n.onIntf(); },
                                         [](NotifieeConst& n, bool m) { n.onIntfMountStatus(m); })),
      neighbor_("neighbor", dispatch<NeighborKey>(
                                [](NotifieeConst& n, const NeighborKey& k) { n.onNeighbor(k); },
                                [](NotifieeConst& n) { n.onNeighbor(); },
                                [](NotifieeConst& n, bool m) { n.onNeighborMountStatus(m); })),
      inactiveNeighbor_("inactiveNeighbor",
                        dispatch<NeighborKey>(
                            [](NotifieeConst& n, const NeighborKey& k) { n.onInactiveNeighbor(k); },
                            [](NotifieeConst& n) { n.onInactiveNeighbor(); },
                            [](NotifieeConst& n, bool m) { n.onInactiveNeighborMountStatus(m); })),
      intfSecondaryAddress_(
          "intfSecondaryAddress",
          dispatch<IntfSecondaryAddressKey>(
              [](NotifieeConst& n, const IntfSecondaryAddressKey& k) {
                n.onIntfSecondaryAddress(k);
              },
              [](NotifieeConst& n) { n.onIntfSecondaryAddress(); },
              [](NotifieeConst& n, bool m) { n.onIntfSecondaryAddressMountStatus(m); })),
      intfSecondaryPrefix_(
          "intfSecondaryPrefix",
          dispatch<IntfSecondaryPrefixKey>(
              [](NotifieeConst& n, const IntfSecondaryPrefixKey& k) { n.onIntfSecondaryPrefix(k); },
              [](NotifieeConst& n) { n.onIntfSecondaryPrefix(); },
              [](NotifieeConst& n, bool m) { n.onIntfSecondaryPrefixMountStatus(m); })),
      neighborSecondaryAddress_(
          "neighborSecondaryAddress",
          dispatch<NeighborSecondaryAddressKey>(
              [](NotifieeConst& n, const NeighborSecondaryAddressKey& k) {
                n.onNeighborSecondaryAddress(k);
              },
              [](NotifieeConst& n) { n.onNeighborSecondaryAddress(); },
              [](NotifieeConst& n, bool m) { n.onNeighborSecondaryAddressMountStatus(m); })) {}

bool IntfStatus::mountWriter() {
  const ::Drobe::TableSet set(name().str(), writerMountInfo());
  const bool ok = intf_.mountWriter(set) && neighbor_.mountWriter(set) &&
                  inactiveNeighbor_.mountWriter(set) && intfSecondaryAddress_.mountWriter(set) &&
                  intfSecondaryPrefix_.mountWriter(set) &&
                  neighborSecondaryAddress_.mountWriter(set);
  if (!ok) unmount();
  return ok;
}

void IntfStatus::mountReader(Ulm::EventLoop& loop) {
  const ::Drobe::TableSet set(name().str());
  intf_.mountReader(loop, set);
  neighbor_.mountReader(loop, set);
  inactiveNeighbor_.mountReader(loop, set);
  intfSecondaryAddress_.mountReader(loop, set);
  intfSecondaryPrefix_.mountReader(loop, set);
  neighborSecondaryAddress_.mountReader(loop, set);
}

void IntfStatus::unmount() {
  // Dependants first.
  neighborSecondaryAddress_.unmount();
  intfSecondaryPrefix_.unmount();
  intfSecondaryAddress_.unmount();
  inactiveNeighbor_.unmount();
  neighbor_.unmount();
  intf_.unmount();
}

void IntfStatus::commit() {
  intf_.commit();
  neighbor_.commit();
  inactiveNeighbor_.commit();
  intfSecondaryAddress_.commit();
  intfSecondaryPrefix_.commit();
  neighborSecondaryAddress_.commit();
}

Kel::Ptr<IntfStatus> intfStatusFactory(const Kel::Name& name) {
  return Kel::Ptr<IntfStatus>::make(name);
}

}  // namespace Routing::Pim::IntfNghbr::Drobe
