#include "Pim/PimDrobe.h"

#include "Pim/PimDrobeIntf.h"

namespace Routing::Pim::DrobeDetail {

Flicklog::Facility& pimDrobeTrace() {
  static Flicklog::Facility& f = Flicklog::facility("PimDrobe");
  return f;
}

std::string_view routingRoot(Nimo::AddressFamily af) {
  switch (af) {
    case Nimo::AddressFamily::ipv4:
      return "routing";
    case Nimo::AddressFamily::ipv6:
      return "routing6";
    default:
      break;
  }
  KEL_ASSERT(false && "Unsupported address family");
  return {};
}

}  // namespace Routing::Pim::DrobeDetail

namespace Routing::Pim::Drobe {

// ---------------------------------------------------------------------------------------
// Status

std::string Status::mountPath(Nimo::AddressFamily af, const L3::VrfName& vrf) {
  std::string p(DrobeDetail::routingRoot(af));
  p += "/pim/status/";
  p += vrf.name();
  return p;
}

::Drobe::MountInfo Status::writerMountInfo() {
  return {{{"pimIntf", kPimIntfCapacity},
           {"neighbor", kNeighborCapacity},
           {"inactiveNeighbor", kInactiveNeighborCapacity},
           {"intfSecondaryAddress", kIntfSecondaryAddressCapacity},
           {"intfSecondaryPrefix", kIntfSecondaryPrefixCapacity},
           {"neighborSecondaryAddress", kNeighborSecondaryAddressCapacity}}};
}

Status::Status(Kel::Name name)
    : Kel::Entity(std::move(name)),
      pimIntf_("pimIntf", dispatch<Nimo::IntfId>(
                              [](NotifieeConst& n, const Nimo::IntfId& k) { n.onPimIntf(k); },
                              [](NotifieeConst& n) { n.onPimIntf(); },
                              [](NotifieeConst& n, bool m) { n.onPimIntfMountStatus(m); })),
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

bool Status::mountWriter() {
  const ::Drobe::TableSet set(name().str(), writerMountInfo());
  const bool ok = pimIntf_.mountWriter(set) && neighbor_.mountWriter(set) &&
                  inactiveNeighbor_.mountWriter(set) && intfSecondaryAddress_.mountWriter(set) &&
                  intfSecondaryPrefix_.mountWriter(set) &&
                  neighborSecondaryAddress_.mountWriter(set);
  if (!ok) unmount();
  return ok;
}

void Status::mountReader(Ulm::EventLoop& loop) {
  const ::Drobe::TableSet set(name().str());
  pimIntf_.mountReader(loop, set);
  neighbor_.mountReader(loop, set);
  inactiveNeighbor_.mountReader(loop, set);
  intfSecondaryAddress_.mountReader(loop, set);
  intfSecondaryPrefix_.mountReader(loop, set);
  neighborSecondaryAddress_.mountReader(loop, set);
}

void Status::unmount() {
  // Dependants first.
  neighborSecondaryAddress_.unmount();
  intfSecondaryPrefix_.unmount();
  intfSecondaryAddress_.unmount();
  inactiveNeighbor_.unmount();
  neighbor_.unmount();
  pimIntf_.unmount();
}

void Status::commit() {
  pimIntf_.commit();
  neighbor_.commit();
  inactiveNeighbor_.commit();
  intfSecondaryAddress_.commit();
  intfSecondaryPrefix_.commit();
  neighborSecondaryAddress_.commit();
}

Kel::Ptr<Status> statusFactory(const Kel::Name& name) { return Kel::Ptr<Status>::make(name); }

// ---------------------------------------------------------------------------------------
// MessageCounters

std::string MessageCounters::mountPath(Nimo::AddressFamily af, const L3::VrfName& vrf,
                                       std::string_view name) {
  // VRF first, then the caller's name.
  std::string p(DrobeDetail::routingRoot(af));
  p += "/pim/counters/";
  p += vrf.name();
  p += '/';
  p += name;
  return p;
}

::Drobe::MountInfo MessageCounters::writerMountInfo() {
  return {{{"msgCounter", kMsgCounterCapacity}}};
}

MessageCounters::MessageCounters(Kel::Name name)
    : Kel::Entity(std::move(name)),
      msgCounter_(
          "msgCounter",
          dispatch<CounterKey>([](NotifieeConst& n, const CounterKey& k) { n.onMsgCounter(k); },
                               [](NotifieeConst& n) { n.onMsgCounter(); },
                               [](NotifieeConst& n, bool m) { n.onMsgCounterMountStatus(m); })) {}

bool MessageCounters::mountWriter() {
  return msgCounter_.mountWriter(::Drobe::TableSet(name().str(), writerMountInfo()));
}

void MessageCounters::mountReader(Ulm::EventLoop& loop) {
  msgCounter_.mountReader(loop, ::Drobe::TableSet(name().str()));
}

void MessageCounters::unmount() { msgCounter_.unmount(); }

bool MessageCounters::msgCounterInc(const CounterKey& k, IO::MessageCounterDirection d,
                                    IO::MessageCounterType t) {
  // A missing entry starts as six zero counts. Writing that zero entry separately first
  // would be invisible: readers see nothing before the commit.
  return msgCounter_.update(
      k, [&k] { return MessageCounterData(k); },
      [d, t](MessageCounterData& e) { e.countInc(d, t); });
}

Kel::Ptr<MessageCounters> messageCountersFactory(const Kel::Name& name) {
  return Kel::Ptr<MessageCounters>::make(name);
}

// ---------------------------------------------------------------------------------------
// Mounting through the state database.

namespace {

template <typename Set>
Kel::Ptr<Kel::Entity> mountSet(Ledra::EntityManager& em, std::string_view path,
                               Ulm::EventLoop* loop) {
  const std::string p = Ledra::EntityManager::normalised(path);
  if (em.mounted(p)) return nullptr;
  auto set = Kel::Ptr<Set>::make(Kel::Name(p));
  if (loop) {
    set->mountReader(*loop);
  } else if (!set->mountWriter()) {
    return nullptr;
  }
  if (!em.mount(p, set)) return nullptr;
  return set;
}

Kel::Ptr<Kel::Entity> mountByType(Ledra::EntityManager& em, std::string_view path,
                                  std::string_view type, Ulm::EventLoop* loop) {
  if (type == Status::kTypeName) return mountSet<Status>(em, path, loop);
  if (type == IntfNghbr::Drobe::IntfStatus::kTypeName) {
    return mountSet<IntfNghbr::Drobe::IntfStatus>(em, path, loop);
  }
  KEL_ASSERT(false && "Unsupported table type");
  return nullptr;
}

}  // namespace

Kel::Ptr<Kel::Entity> mountInDependencyOrder(Ledra::EntityManager& em, std::string_view path,
                                             std::string_view type) {
  return mountByType(em, path, type, nullptr);
}

Kel::Ptr<Kel::Entity> mountInDependencyOrder(Ledra::EntityManager& em, std::string_view path,
                                             std::string_view type, Ulm::EventLoop& loop) {
  return mountByType(em, path, type, &loop);
}

}  // namespace Routing::Pim::Drobe
