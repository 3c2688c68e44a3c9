// PimStatusReaderSm: the status readers and mode filters, which rebuild the PIM core's
// in-process status (PimCore.h) from the status tables another process publishes.
//
// - Drobe::GlobalStatusReaderSm watches GlobalStatus: while PIM is enabled in a VRF in
//   either mode it keeps that VRF's table set (Drobe::Status at Status::mountPath) mounted
//   for reading, an AllStatus for it in the AllStatusColl, and a StatusReaderSm between.
// - Drobe::StatusReaderSm mirrors one VRF's tables into its AllStatus: one handler per
//   collection, per changed key; a whole-collection notice (a resync, a mount or unmount
//   of any collection, a restarted writer) runs a full pass over every collection in
//   dependency order: interfaces, neighbours, inactive neighbours, secondary addresses and
//   prefixes. Unchanged interface records are skipped (the last one seen is kept).
// - GlobalStatusModeFilterSm keeps, per VRF of an AllStatusColl, a StatusModeFilterSm
//   that copies into a Status (StatusColl) the interfaces of one mode and their active
//   neighbours: what that mode's agent reads.
//
// Decisions where the rules are silent:
// - A neighbour (or secondary address, or inactive entry) whose interface is not mirrored
//   yet, but which the interface table already holds, pulls that interface's update
//   forward instead of being dropped: collections are separate tables whose notices a
//   reader may take in any order (a wake-up between two of the writer's commits), and a
//   neighbour must never be lost to that. What the tables do not hold is dropped with its
//   trace and not replayed. Likewise an inactive entry or neighbour secondary address pulls
//   its neighbour forward.
// - A new neighbour is active unless the inactive table lists it.
// - A slot the writer is rewriting is neither present nor absent: the handler waits for
//   the commit's own notice.
// - The filter also re-runs on a change of borderRouter (it decides mode 1) and of
//   addressWithMask (the output's primary address), and refreshes an active neighbour's
//   hold time in the output.
// - "mount" is the state database and the event loop the readers run on.
//
// Traces go to facility "PimStatusReaderSm": level 4 for changes, 5 for dropped updates.
//
// Threading: the event-loop thread only; no locks.
//
// Usage (a process that reads the sparse-mode agent's view):
//   auto global = Kel::Ptr<Routing::Pim::GlobalStatus>::make("global");
//   auto all = Kel::Ptr<Routing::Pim::AllStatusColl>::make("all");
//   auto reader = Routing::Pim::Drobe::globalStatusReaderSmFactory(
//       Nimo::AddressFamily::ipv4, global, all, true, clock, em, loop);
//   auto sparse = Kel::Ptr<Routing::Pim::StatusColl>::make("sparse");
//   auto filter = Routing::Pim::globalStatusModeFilterSmFactory(all, sparse,
//                                                              Routing::Pim::Mode::Sparse);
//   global->pimEnabledSparseModeVrfIs(L3::VrfName("default"));
//   loop.run();  // sparse->vrfStatus(vrf)->intf() follows the agent's sparse interfaces
#pragma once

#include <map>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "Pim/PimDrobe.h"
#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Ledra.h"
#include "Pim/platform/PimCore.h"
#include "Pim/platform/Ulm.h"

namespace Routing::Pim {

Flicklog::Facility& statusReaderTrace();

// The mode filter's decision: does filter mode `filter` take an interface of mode `intf`?
bool modeAccepts(Mode filter, Mode intf, bool borderRouter) noexcept;

}  // namespace Routing::Pim

namespace Routing::Pim::Drobe {

class StatusReaderSm : public Kel::Entity {
 public:
  StatusReaderSm(const L3::VrfName& vrf, const Kel::Ptr<Pim::AllStatus>& allStatus,
                 const Kel::Ptr<Status>& drobeStatus);
  // Everything this reader mirrored leaves its AllStatus.
  ~StatusReaderSm() override;

  const L3::VrfName& vrf() const noexcept { return vrf_; }
  bool enabled() const noexcept { return enabled_; }
  // Enabling runs the first full pass; the reader is initialized after it.
  void enabledIs(bool e);
  bool initialized() const noexcept { return initialized_; }

  void handleIntf(const Nimo::IntfId& intfId);
  void handleNeighbor(const NeighborKey& key);
  void handleInactiveNeighbor(const NeighborKey& key);
  void handleIntfSecondaryAddress(const IntfSecondaryAddressKey& key);
  void handleIntfSecondaryPrefix(const IntfSecondaryPrefixKey& key);
  void handleNeighborSecondaryAddress(const NeighborSecondaryAddressKey& key);
  // Every collection, in dependency order.
  void handleInitialized();

  std::uint64_t fullPasses() const noexcept { return fullPasses_; }

 private:
  class KelStatus : public Status::NotifieeConst {
   public:
    explicit KelStatus(StatusReaderSm& sm) : sm_(sm) {}
    void onPimIntf(const Nimo::IntfId& k) override { sm_.handleIntf(k); }
    void onPimIntf() override { sm_.handleCollection(); }
    void onNeighbor(const NeighborKey& k) override { sm_.handleNeighbor(k); }
    void onNeighbor() override { sm_.handleCollection(); }
    void onInactiveNeighbor(const NeighborKey& k) override { sm_.handleInactiveNeighbor(k); }
    void onInactiveNeighbor() override { sm_.handleCollection(); }
    void onIntfSecondaryAddress(const IntfSecondaryAddressKey& k) override {
      sm_.handleIntfSecondaryAddress(k);
    }
    void onIntfSecondaryAddress() override { sm_.handleCollection(); }
    void onIntfSecondaryPrefix(const IntfSecondaryPrefixKey& k) override {
      sm_.handleIntfSecondaryPrefix(k);
    }
    void onIntfSecondaryPrefix() override { sm_.handleCollection(); }
    void onNeighborSecondaryAddress(const NeighborSecondaryAddressKey& k) override {
      sm_.handleNeighborSecondaryAddress(k);
    }
    void onNeighborSecondaryAddress() override { sm_.handleCollection(); }

   private:
    StatusReaderSm& sm_;
  };

  // An interface id's own hash, for the reader's lookups by id.
  struct IdHash {
    std::size_t operator()(const Nimo::IntfId& i) const noexcept { return i.hash(); }
  };
  // Drops an interface's entry from mirrored_ on any change of it in the mirror.
  class KelMirror : public Pim::AllStatus::NotifieeConst {
   public:
    explicit KelMirror(StatusReaderSm& sm) : sm_(sm) {}
    void onPimIntf(const Nimo::IntfId& id) override { sm_.mirrored_.erase(id); }

   private:
    StatusReaderSm& sm_;
  };

  void handleCollection();
  // The mirrored interface, or null: allStatus_->pimIntf(id) through a hashed cache.
  Kel::Ptr<Pim::Intf> mirrored(const Nimo::IntfId& id);
  // Creates or updates the mirrored interface from its record (unless it is the last one
  // applied).
  void applyIntf(const Intf& r);
  // The mirrored interface, its update pulled forward if only the table has it yet.
  Kel::Ptr<Pim::Intf> intfFor(const Nimo::IntfId& id);
  // The mirrored neighbour's interface, the neighbour pulled forward likewise; null (and
  // `missingIntf` says which was missing) if either is absent.
  Kel::Ptr<Pim::Intf> neighborFor(const NeighborKey& key, bool& missingIntf);
  // Creates or updates the neighbour from its record; its interface, or null (dropped).
  Kel::Ptr<Pim::Intf> applyNeighbor(const Neighbor& r);
  void syncActive(Pim::Intf& intf, const NeighborKey& key);
  void setActive(Pim::Intf& intf, const NeighborKey& key, bool inactive);
  void removeNeighbor(Pim::Intf& intf, const NeighborKey& key);
  void syncSecondaries();
  // The handlers' bodies; `walked`: a full pass's walk just read the entry, present.
  void intfSecondaryAddress(const IntfSecondaryAddressKey& key, bool walked);
  void intfSecondaryPrefix(const IntfSecondaryPrefixKey& key, bool walked);
  template <typename K, typename V, typename T, typename Has, typename Set>
  void handleSecondary(const K& key, const DrobeDetail::Collection<K, V>& table, const T& value,
                       std::string_view handler, const std::string_view (&texts)[3], Has has,
                       Set set, bool walked);

  L3::VrfName vrf_;
  Kel::Ptr<Pim::AllStatus> allStatus_;
  Kel::Ptr<Status> drobeStatus_;
  bool enabled_ = false;
  bool initialized_ = false;
  bool inFullPass_ = false;
  std::uint64_t fullPasses_ = 0;
  std::unordered_map<Nimo::IntfId, Drobe::Intf, IdHash> lastIntf_;
  // The mirror's interfaces by id. A full pass looks one up per neighbour and secondary,
  // and the mirror's ordered map pays a 32-byte compare per tree level; an entry lives
  // until the mirror announces any change of that id (kept by mirrorReactor_).
  std::unordered_map<Nimo::IntfId, Pim::Intf*, IdHash> mirrored_;
  KelStatus reactor_;
  KelMirror mirrorReactor_;
};

Kel::Ptr<StatusReaderSm> statusReaderSmFactory(const L3::VrfName& vrf,
                                               const Kel::Ptr<Pim::AllStatus>& allStatus,
                                               const Kel::Ptr<Status>& drobeStatus);

class GlobalStatusReaderSm : public Kel::Entity {
 public:
  GlobalStatusReaderSm(Nimo::AddressFamily af, const Kel::Ptr<GlobalStatus>& pimGlobalStatus,
                       const Kel::Ptr<AllStatusColl>& allStatusColl, bool enabled,
                       const Kel::Ptr<Kel::Clock>& clock, Ledra::EntityManager& em,
                       Ulm::EventLoop& loop);
  ~GlobalStatusReaderSm() override;

  const std::map<L3::VrfName, Kel::Ptr<StatusReaderSm>>& statusReaderSm() const noexcept {
    return statusReaderSm_;
  }
  bool initialized() const noexcept { return initialized_; }

  void handlePimEnabledVrf(const L3::VrfName& vrf);
  // Every VRF once; runs at construction.
  void handleInitialized();

 private:
  class KelGlobal : public GlobalStatus::NotifieeConst {
   public:
    explicit KelGlobal(GlobalStatusReaderSm& sm) : sm_(sm) {}
    void onPimEnabledSparseModeVrf(const L3::VrfName& v) override { sm_.handlePimEnabledVrf(v); }
    void onPimEnabledBidirVrf(const L3::VrfName& v) override { sm_.handlePimEnabledVrf(v); }

   private:
    GlobalStatusReaderSm& sm_;
  };
  void deleteVrf(const L3::VrfName& vrf);

  Nimo::AddressFamily af_;
  Kel::Ptr<GlobalStatus> pimGlobalStatus_;
  Kel::Ptr<AllStatusColl> allStatusColl_;
  bool enabled_;
  Kel::Ptr<Kel::Clock> clock_;
  Ledra::EntityManager& em_;
  Ulm::EventLoop& loop_;
  std::map<L3::VrfName, Kel::Ptr<StatusReaderSm>> statusReaderSm_;
  bool initialized_ = false;
  KelGlobal reactor_;
};

Kel::Ptr<GlobalStatusReaderSm> globalStatusReaderSmFactory(
    Nimo::AddressFamily af, const Kel::Ptr<GlobalStatus>& pimGlobalStatus,
    const Kel::Ptr<AllStatusColl>& allStatusColl, bool enabled, const Kel::Ptr<Kel::Clock>& clock,
    Ledra::EntityManager& em, Ulm::EventLoop& loop);

}  // namespace Routing::Pim::Drobe

namespace Routing::Pim {

class StatusModeFilterSm : public Kel::Entity {
 public:
  StatusModeFilterSm(const L3::VrfName& vrf, const Kel::Ptr<AllStatus>& allStatus,
                     const Kel::Ptr<Status>& status, Mode mode);
  // Everything this filter wrote leaves the output.
  ~StatusModeFilterSm() override;

  bool initialized() const noexcept { return initialized_; }
  bool processIntf(const Nimo::IntfId& intfId) const;
  void doMaybeUpdate(const Nimo::IntfId& intfId);
  void handleActiveNeighbor(const Nimo::IntfId& intfId, const Nimo::IpGenAddr& addr);
  void intfDel(const Nimo::IntfId& intfId);
  void intfDelAll();

 private:
  // Watches one input interface.
  class KelIntf : public Intf::NotifieeConst {
   public:
    KelIntf(StatusModeFilterSm& sm, const Kel::Ptr<Intf>& intf) : sm_(sm), id_(intf->intfId()) {
      notifierIs(intf);
    }
    void onMode() override { sm_.doMaybeUpdate(id_); }
    void onBorderRouter() override { sm_.doMaybeUpdate(id_); }
    void onAddressWithMask() override { sm_.doMaybeUpdate(id_); }
    void onActiveNeighbor(const Nimo::IpGenAddr& a) override { sm_.handleActiveNeighbor(id_, a); }
    void onNeighbor(const Nimo::IpGenAddr& a) override { sm_.handleActiveNeighbor(id_, a); }

   private:
    StatusModeFilterSm& sm_;
    Nimo::IntfId id_;
  };
  class KelAllStatus : public AllStatus::NotifieeConst {
   public:
    explicit KelAllStatus(StatusModeFilterSm& sm) : sm_(sm) {}
    void onPimIntf(const Nimo::IntfId& id) override { sm_.handlePimIntf(id); }

   private:
    StatusModeFilterSm& sm_;
  };

  void handlePimIntf(const Nimo::IntfId& intfId);
  void addNeighbor(const Intf& intf, const Nimo::IpGenAddr& addr);
  void removeNeighbor(const Nimo::IntfId& intfId, const Nimo::IpGenAddr& addr);
  void removeNeighbors(const Nimo::IntfId& intfId);

  L3::VrfName vrf_;
  Kel::Ptr<AllStatus> allStatus_;
  Kel::Ptr<Status> status_;
  Mode mode_;
  bool initialized_ = false;
  std::map<Nimo::IntfId, std::unique_ptr<KelIntf>> kelIntf_;
  KelAllStatus reactor_;
};

Kel::Ptr<StatusModeFilterSm> statusModeFilterSmFactory(const L3::VrfName& vrf,
                                                       const Kel::Ptr<AllStatus>& allStatus,
                                                       const Kel::Ptr<Status>& status, Mode mode);

class GlobalStatusModeFilterSm : public Kel::Entity {
 public:
  GlobalStatusModeFilterSm(const Kel::Ptr<AllStatusColl>& input, const Kel::Ptr<StatusColl>& output,
                           Mode mode);
  ~GlobalStatusModeFilterSm() override;

  const std::map<L3::VrfName, Kel::Ptr<StatusModeFilterSm>>& statusModeFilterSm() const noexcept {
    return statusModeFilterSm_;
  }
  bool initialized() const noexcept { return initialized_; }
  void handleVrfStatus(const L3::VrfName& vrf);
  // Every VRF of the input once; runs at construction.
  void handleInitialized();

 private:
  class KelColl : public AllStatusColl::NotifieeConst {
   public:
    explicit KelColl(GlobalStatusModeFilterSm& sm) : sm_(sm) {}
    void onVrfStatus(const L3::VrfName& v) override { sm_.handleVrfStatus(v); }

   private:
    GlobalStatusModeFilterSm& sm_;
  };

  Kel::Ptr<AllStatusColl> input_;
  Kel::Ptr<StatusColl> output_;
  Mode mode_;
  std::map<L3::VrfName, Kel::Ptr<StatusModeFilterSm>> statusModeFilterSm_;
  bool initialized_ = false;
  KelColl reactor_;
};

Kel::Ptr<GlobalStatusModeFilterSm> globalStatusModeFilterSmFactory(
    const Kel::Ptr<AllStatusColl>& input, const Kel::Ptr<StatusColl>& output, Mode mode);

}  // namespace Routing::Pim
