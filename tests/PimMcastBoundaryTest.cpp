// Multicast boundaries: the group and prefix walks, per interface and by interface name.

#include <gtest/gtest.h>

#include "Pim/PimMcastBoundary.h"
#include "Pim/platform/Flicklog.h"

namespace {

using Routing::Pim::Boundary::intfBoundaryFactory;
using Routing::Pim::Boundary::McastBoundary;

Kel::Ptr<Nimo::IntfBoundaryStatus> status(std::initializer_list<const char*> prefixes) {
  auto s = Kel::Ptr<Nimo::IntfBoundaryStatus>::make();
  for (const char* p : prefixes) s->groupPrefixIs(Nimo::IpGenPrefix(p));
  return s;
}

// Each row: the interface's boundary, a query (an address is a group, a prefix a group
// prefix), and whether it is filtered.
struct Case {
  std::initializer_list<const char*> boundary;
  const char* query;
  bool filtered;
};

const Case kCases[] = {
    {{"239.0.0.0/8"}, "239.1.2.3", true},
    {{"239.0.0.0/8"}, "238.255.255.255", false},
    {{"239.0.0.0/8"}, "240.0.0.0", false},
    {{"239.0.0.0/8"}, "239.1.0.0/16", true},  // inside the boundary
    {{"239.0.0.0/8"}, "224.0.0.0/4", true},   // contains the boundary
    {{"239.0.0.0/8"}, "232.0.0.0/8", false},
    {{"239.0.0.0/8"}, "0.0.0.0/0", true},
    {{"239.1.2.3/32"}, "239.1.2.3", true},
    {{"239.1.2.3/32"}, "239.1.2.2", false},
    {{"239.1.2.3/31"}, "239.1.2.2", true},  // host bits of the boundary ignored
    {{"0.0.0.0/0"}, "224.0.0.1", true},
    {{"0.0.0.0/0"}, "239.0.0.0/8", true},
    {{"0.0.0.0/0"}, "ff3e::1", false},
    {{"0.0.0.0/0"}, "ff00::/8", false},
    {{"ff00::/8"}, "239.1.2.3", false},
    {{"ff00::/8"}, "224.0.0.0/4", false},
    {{"ff3e::/16"}, "ff3e::8000:1", true},
    {{"ff3e::/16"}, "ff3f::1", false},
    {{"ff3e:0:0:1::/64"}, "ff3e::/16", true},
    {{"ff3e::/16"}, "ff3e:0:0:1::/64", true},
    {{"ff3e::/16"}, "ff3f::/16", false},
    {{"232.0.0.0/8", "239.0.0.0/8", "ff05::/16"}, "239.255.255.255", true},
    {{}, "239.1.2.3", false},
};

TEST(IntfBoundary, GroupsAndPrefixes) {
  for (const Case& c : kCases) {
    auto b = intfBoundaryFactory(status(c.boundary));
    const std::string q = c.query;
    const bool got = q.find('/') == std::string::npos ? b->filtered(Nimo::IpGenAddr(q))
                                                      : b->filteredPrefix(Nimo::IpGenPrefix(q));
    EXPECT_EQ(got, c.filtered) << q << " against " << *c.boundary.begin();
  }
}

TEST(IntfBoundary, WithoutStatusNothingIsFilteredAndChangesAreSeen) {
  auto none = intfBoundaryFactory(nullptr);
  EXPECT_FALSE(none->filtered(Nimo::IpGenAddr("239.1.2.3")));
  EXPECT_FALSE(none->filteredPrefix(Nimo::IpGenPrefix("0.0.0.0/0")));
  // No copy of the prefixes: a prefix added later filters at once.
  auto s = status({});
  auto b = intfBoundaryFactory(s);
  EXPECT_FALSE(b->filtered(Nimo::IpGenAddr("239.1.2.3")));
  s->groupPrefixIs(Nimo::IpGenPrefix("239.0.0.0/8"));
  EXPECT_TRUE(b->filtered(Nimo::IpGenAddr("239.1.2.3")));
}

TEST(McastBoundary, AnswersPerInterfaceByName) {
  auto all = Kel::Ptr<Routing::McastBoundary::Status>::make("boundary");
  all->softwareBoundaryStatusIs("Ethernet1", status({"239.0.0.0/8"}));
  McastBoundary mb("pim", all);
  const Nimo::IpGenAddr g("239.1.2.3");
  EXPECT_TRUE(mb.filtered(Nimo::IntfId("Ethernet1"), g));
  EXPECT_TRUE(mb.filteredPrefix(Nimo::IntfId("Ethernet1"), Nimo::IpGenPrefix("224.0.0.0/4")));
  EXPECT_FALSE(mb.filtered(Nimo::IntfId("Ethernet2"), g));
  EXPECT_FALSE(mb.filteredPrefix(Nimo::IntfId("Ethernet2"), Nimo::IpGenPrefix("0.0.0.0/0")));
  all->softwareBoundaryStatusDel("Ethernet1");
  EXPECT_FALSE(mb.filtered(Nimo::IntfId("Ethernet1"), g));
}

TEST(IntfBoundary, TracesTheWalk) {
  auto& f = Flicklog::facility("Pim::Boundary");
  f.levelIs(8);
  Flicklog::CaptureSink cap;
  intfBoundaryFactory(status({"ff00::/8", "239.0.0.0/8"}))->filtered(Nimo::IpGenAddr("239.1.2.3"));
  f.levelIs(0);
  EXPECT_EQ(cap.texts(), (std::vector<std::string>{"filtered(239.1.2.3)",
                                                   "Boundary Filter : checking group 239.1.2.3",
                                                   "Boundary Filter: prefix 239.0.0.0/8"}));
}

}  // namespace
