#include "Pim/PimDrobe.h"

#include "Pim/PimDrobeIntf.h"

namespace Routing::Pim::DrobeDetail {

Flicklog::Facility& pimDrobeTrace() {
  static Flicklog::Facility& f = Flicklog::facility("PimDrobe");
  return f;
}

::Drobe::CollectionInfo growingCollection(std::string_view name, std::uint32_t initial) {
  return {std::string(name), initial, 0, initial * kMaxGrowth};
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
  return DrobeDetail::statusMountInfo<Status>("pimIntf", kPimIntfCapacity);
}

Status::Status(Kel::Name name)
    : StatusTables(std::move(name), writerMountInfo(), "pimIntf",
                   {&NotifieeConst::onPimIntf, &NotifieeConst::onPimIntf,
                    &NotifieeConst::onPimIntfMountStatus}) {}

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
  return {{DrobeDetail::growingCollection("msgCounter", kMsgCounterCapacity)}};
}

MessageCounters::MessageCounters(Kel::Name name)
    : Kel::Entity(std::move(name)),
      msgCounter_("msgCounter",
                  DrobeDetail::dispatchTo<CounterKey>(
                      notifiees_, {&NotifieeConst::onMsgCounter, &NotifieeConst::onMsgCounter,
                                   &NotifieeConst::onMsgCounterMountStatus})) {}

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
      [d, t](MessageCounterData& e) { e.countInc(d, t); }, !notifiees_.empty());
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
