// What the RPF machines' tests share: Rpf values, trace search, a loop that runs to quiescence
// on a manual clock, a stepping deadline clock, and an agent that counts and drains what is
// published to it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Pim/platform/Flicklog.h"
#include "Pim/platform/PimCore.h"
#include "Pim/platform/Ulm.h"

namespace PimTest {

using Routing::Pim::RouteKey;
using Routing::Pim::Rpf;
using Routing::Pim::RpfRib;
using Routing::Pim::RpfStatus;

inline Rpf rpfOn(const std::string& prefix, const Nimo::IpGenAddr& target, RpfRib rib = RpfRib::U) {
  Rpf r;
  r.rpfIntf = Nimo::IntfId("eth1");
  r.rpfNeighbor =
      Nimo::IpGenAddr(target.af() == Nimo::AddressFamily::ipv4 ? "10.0.1.2" : "fe80::2");
  r.prefix = Nimo::IpGenPrefix(prefix);
  r.target = target;
  r.rib = rib;
  return r;
}
inline Rpf noRpf(const Nimo::IpGenAddr& target) {
  Rpf r;
  r.target = target;
  return r;
}

// Runs the loop until no timer is armed, or none of busy's (bounded), stepping the clock to
// each deadline.
inline void settleLoop(Ulm::EventLoop& loop, Kel::ManualClock& clock,
                       const std::function<bool()>& busy = {}) {
  for (int i = 0; i < 100000; ++i) {
    auto d = loop.timers().nextDeadline();
    if (!d || (busy && !busy())) return;
    clock.nowIs(std::max(clock.now(), *d));
    loop.runOnce(0.0);
  }
  ADD_FAILURE() << "the loop did not settle";
}

// A deadline clock that advances 1/1024 s at every read, so a quantum of n/1024 s is n
// steps of a review.
struct SteppingClock : Kel::Clock {
  mutable double t = 0;
  Kel::Time now() const noexcept override { return t += 1.0 / 1024; }
};

// Whether any captured trace line holds text.
inline bool traced(const Flicklog::CaptureSink& capture, std::string_view text) {
  for (const auto& l : capture.texts())
    if (l.find(text) != std::string::npos) return true;
  return false;
}

// Counts what is published to the agent and drains it; with a recompute function, writes
// the route's new Rpf from inside the handler, as a synchronous agent does.
struct Agent : RpfStatus::Notifiee {
  std::map<RouteKey, int> published;
  std::vector<RouteKey> order;
  std::function<void(const RouteKey&)> recompute;
  void onRpfRouteChanged(const RouteKey& k) override {
    if (!notifierWritable()->rpfRouteChangedHas(k)) return;  // our own drain
    ++published[k];
    order.push_back(k);
    if (recompute) recompute(k);
    notifierWritable()->rpfRouteChangedDel(k);
  }
};

}  // namespace PimTest
