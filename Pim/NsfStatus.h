// NsfStatus: per-VRF graceful-restart (non-stop forwarding) status, in the agent and in
// every other process that could tear down multicast routes while the agent restarts.
//
// - NsfStatus: one VRF's record, its VRF name fixed at construction; restarting and
//   routeRecoveryComplete, both false when new. Lifecycle (the agent picks the order):
//   normal (both false) -> restarting (restarting) -> recovery complete
//   (routeRecoveryComplete) -> back to normal (restarting cleared).
// - NsfStatusColl: the collection vrfStatus of NsfStatus by VRF name. vrfStatusIs(vrf)
//   returns the VRF's entry, creating it (and notifying onVrfStatus(vrf)) when absent;
//   vrfStatusDel returns the removed entry, or null and notifies nothing when absent;
//   vrfStatusDelAll notifies once per VRF removed; vrfStatusNotify(vrf) notifies without a
//   change. Every setter compares first: writing the current value notifies nothing.
// - Reflection (Kel.h, "Reflection by name"): NsfStatus exposes "restarting" and
//   "routeRecoveryComplete" ("True"/"False"), NsfStatusColl the collection "vrfStatus" keyed
//   by the VRF name's text form ('red').
//
// Other processes. NsfStatusPublisher, in the agent, mirrors an NsfStatusColl into the
// shared-memory table "vrfStatus" of NsfStatusRecord at
//   routing/pim/nsf/status     (IPv4)
//   routing6/pim/nsf/status    (IPv6)
// committing on every change (the flags change a few times per restart, and a reader must
// not wait for a later loop turn). NsfStatusMirror, in any other process, rebuilds an
// NsfStatusColl from that table with the same notification rule: one notice per real
// change, none for a repeated write.
//
// The dead-agent rule. "No writer" is its own state, writerPresent() false, never "both
// flags false": when the writer retires or dies (the table library sees its lock drop, at
// once through its pidfd, at worst on a one-second health check) the mirror keeps the
// last published entries as they were and clears writerPresent. An agent killed in the
// middle of a restart therefore still reads as restarting. When a writer mounts again its
// table replaces the mirror's entries (VRFs it does not publish are deleted), then
// writerPresent becomes true.
// Within one record the mirror clears routeRecoveryComplete before it sets restarting and
// sets it only after, so that no notifiee ever sees a "recovery complete" the writer did
// not publish while two flags arrive in one commit.
//
// Threading: event-loop thread only; the mirror is driven by the Ulm::EventLoop it was
// given. No locks.
//
// Usage (agent):
//   auto coll = Nsf::nsfStatusCollFactory("nsf");
//   auto pub = Nsf::nsfStatusPublisherFactory(coll, Nimo::AddressFamily::ipv4);
//   coll->vrfStatusIs(L3::VrfName("red"))->restartingIs(true);   // readers see it now
// Usage (another process):
//   auto mirror = Nsf::nsfStatusMirrorFactory(loop, Nimo::AddressFamily::ipv4);
//   auto red = mirror->nsfStatusColl()->vrfStatus(L3::VrfName("red"));   // null until known
//   if (!mirror->writerPresent()) { /* no agent: keep the routes, do not assume recovery */ }
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "Pim/PimDrobe.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/System.h"
#include "Pim/platform/Ulm.h"

namespace Routing::Pim::Nsf {

class NsfStatus : public Kel::Entity {
 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::Nsf::NsfStatus";

  class NotifieeConst : public Kel::BaseNotifiee<NsfStatus, NotifieeConst> {
   public:
    virtual void onRestarting() {}
    virtual void onRouteRecoveryComplete() {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  explicit NsfStatus(const L3::VrfName& vrfName);

  const L3::VrfName& vrfName() const noexcept { return vrfName_; }
  bool restarting() const noexcept { return restarting_; }
  void restartingIs(bool v);
  bool routeRecoveryComplete() const noexcept { return routeRecoveryComplete_; }
  void routeRecoveryCompleteIs(bool v);

  const Kel::Reflection* reflection() const noexcept override;

 private:
  const L3::VrfName vrfName_;
  bool restarting_ = false;
  bool routeRecoveryComplete_ = false;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

class NsfStatusColl : public Kel::Entity {
 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::Nsf::NsfStatusColl";

  class NotifieeConst : public Kel::BaseNotifiee<NsfStatusColl, NotifieeConst> {
   public:
    // The VRF's entry was created or deleted (or vrfStatusNotify named it).
    virtual void onVrfStatus(const L3::VrfName&) {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  explicit NsfStatusColl(Kel::Name name) : Kel::Entity(std::move(name)) {}

  Kel::Ptr<NsfStatus> vrfStatus(const L3::VrfName& vrf) const;  // null if absent
  Kel::Ptr<NsfStatus> vrfStatusIs(const L3::VrfName& vrf);
  Kel::Ptr<NsfStatus> vrfStatusDel(const L3::VrfName& vrf);
  void vrfStatusDelAll();
  void vrfStatusNotify(const L3::VrfName& vrf);
  std::size_t vrfStatusSize() const noexcept { return vrfStatus_.size(); }
  // By VRF name.
  const std::map<L3::VrfName, Kel::Ptr<NsfStatus>>& vrfStatusMap() const noexcept {
    return vrfStatus_;
  }

  const Kel::Reflection* reflection() const noexcept override;

 private:
  std::map<L3::VrfName, Kel::Ptr<NsfStatus>> vrfStatus_;
  Kel::NotifieeList<NotifieeConst> notifiees_;
};

// One VRF's status as the shared-memory table holds it.
struct NsfStatusRecord {
  L3::VrfName vrfName;
  bool restarting = false;
  bool routeRecoveryComplete = false;

  const L3::VrfName& key() const noexcept { return vrfName; }
  friend bool operator==(const NsfStatusRecord&, const NsfStatusRecord&) = default;

  static constexpr std::string_view kTypeName = "Routing::Pim::Nsf::NsfStatusRecord";
  static constexpr auto kFields =
      std::make_tuple(Kel::field("vrfName", &NsfStatusRecord::vrfName),
                      Kel::field("restarting", &NsfStatusRecord::restarting),
                      Kel::field("routeRecoveryComplete", &NsfStatusRecord::routeRecoveryComplete));
};

using NsfStatusTable = DrobeDetail::Collection<L3::VrfName, NsfStatusRecord>;

// "routing/pim/nsf/status", "routing6/..." for IPv6; the collection is "vrfStatus".
std::string nsfStatusMountPath(Nimo::AddressFamily af);
inline constexpr std::string_view kNsfStatusCollection = "vrfStatus";
// VRFs a table holds before it grows (up to DrobeDetail::kMaxGrowth times as many).
inline constexpr std::uint32_t kNsfStatusCapacity = 256;

class NsfStatusPublisher : public Kel::PtrInterface {
 public:
  // Mounts the writer and publishes coll's entries; mounted() is false if the table
  // library refused (another live agent publishes this family), and nothing is written.
  NsfStatusPublisher(Kel::Ptr<NsfStatusColl> coll, Nimo::AddressFamily af);
  ~NsfStatusPublisher() override;
  bool mounted() const noexcept { return table_.writable(); }
  const NsfStatusTable& table() const noexcept { return table_; }

 private:
  class CollWatch;
  class EntryWatch;
  void handleVrfStatus(const L3::VrfName& vrf);
  void publish(const NsfStatus& s);

  Kel::Ptr<NsfStatusColl> coll_;
  NsfStatusTable table_;
  std::unique_ptr<CollWatch> collWatch_;
  std::map<L3::VrfName, std::unique_ptr<EntryWatch>> entryWatches_;
};

class NsfStatusMirror : public Kel::Entity {
 public:
  static constexpr std::string_view kTypeName = "Routing::Pim::Nsf::NsfStatusMirror";

  class NotifieeConst : public Kel::BaseNotifiee<NsfStatusMirror, NotifieeConst> {
   public:
    virtual void onWriterPresent() {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  NsfStatusMirror(Ulm::EventLoop& loop, Nimo::AddressFamily af);

  const Kel::Ptr<NsfStatusColl>& nsfStatusColl() const noexcept { return coll_; }
  bool writerPresent() const noexcept { return writerPresent_; }

 private:
  void handleKey(const L3::VrfName& vrf);
  void handleCollection();
  void handleMountStatus(bool mounted);
  void apply(const NsfStatusRecord& r);
  void writerPresentIs(bool v);

  Kel::Ptr<NsfStatusColl> coll_;
  bool writerPresent_ = false;
  Kel::NotifieeList<NotifieeConst> notifiees_;
  NsfStatusTable table_;  // last: its notices reach the members above
};

Kel::Ptr<NsfStatus> nsfStatusFactory(const L3::VrfName& vrfName);
Kel::Ptr<NsfStatusColl> nsfStatusCollFactory(const Kel::Name& name);
Kel::Ptr<NsfStatusPublisher> nsfStatusPublisherFactory(Kel::Ptr<NsfStatusColl> coll,
                                                       Nimo::AddressFamily af);
Kel::Ptr<NsfStatusMirror> nsfStatusMirrorFactory(Ulm::EventLoop& loop, Nimo::AddressFamily af);

}  // namespace Routing::Pim::Nsf

extern template class ::Drobe::Writer<L3::VrfName, Routing::Pim::Nsf::NsfStatusRecord>;
extern template class ::Drobe::Reader<L3::VrfName, Routing::Pim::Nsf::NsfStatusRecord>;
