// The attribute-log holder and its socket output: back-pressure from a collector that
// stops reading, records as the collector parses them, a collector that goes away, and the
// output reached by name.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Pim/PimAttrLogSm.h"

namespace {

using Kel::NboAttrLog::SocketOutSm;

struct CloggedWatch : SocketOutSm::NotifieeConst {
  std::vector<bool> seen;
  void onClogged() override { seen.push_back(notifier()->clogged()); }
};

// Reads what the collector end holds now (non-blocking).
std::string drainCollector(int fd) {
  std::string got;
  char buf[65536];
  for (ssize_t n; (n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
    got.append(buf, static_cast<std::size_t>(n));
  }
  return got;
}

// One record as the collector must see it, in network byte order.
std::string record(const std::string& path, const std::string& attr, const std::string& value) {
  const std::size_t len = 4 + 2 + path.size() + 2 + attr.size() + 4 + value.size();
  auto be = [](std::size_t v, int bytes) {
    std::string b;
    for (int i = bytes - 1; i >= 0; --i) b += static_cast<char>(v >> (8 * i));
    return b;
  };
  return be(len, 4) + be(path.size(), 2) + path + be(attr.size(), 2) + attr + be(value.size(), 4) +
         value;
}

TEST(PimAttrLogSm, HoldsTheOutputReachedByNameAndDropsItWhenDestroyed) {
  int sv[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  auto out = Kel::NboAttrLog::socketOutSmFactory("attrlog", sv[0], 1024);
  auto sm = Routing::Pim::pimAttrLogSmFactory(out);
  EXPECT_EQ(sm->nboAttrLogOutSm(), out);
  EXPECT_EQ(Kel::attributeObject(*sm, "nboAttrLogOutSm").ptr(), out.ptr());
  EXPECT_EQ(Kel::attributeText(*sm, "nboAttrLogOutSm"), "Kel::NboAttrLog::SocketOutSm('attrlog')");
  EXPECT_THROW(Kel::attributeTextIs(*sm, "nboAttrLogOutSm", "None"), Kel::AttributeError);
  EXPECT_EQ(Kel::attributeText(*Routing::Pim::pimAttrLogSmFactory(nullptr), "nboAttrLogOutSm"),
            "None");
  const std::uint32_t refs = out->references();
  sm = nullptr;
  EXPECT_EQ(out->references(), refs - 1);
  ::close(sv[1]);
}

TEST(SocketOutSm, CloggedWhileTheCollectorLagsAboveHighWater) {
  int sv[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  const int sndbuf = 4096;
  ::setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
  auto out = Kel::NboAttrLog::socketOutSmFactory("attrlog", sv[0], 8192);
  CloggedWatch watch;
  watch.notifierIs(out);

  // The collector reads nothing: the kernel buffers fill, then ours grows past the mark.
  const std::string value(100, 'v');
  unsigned records = 0;
  for (; !out->clogged() && records < 100000; ++records) {
    out->attrIs("routing/pim/status/default", "holdTime" + std::to_string(records), value);
  }
  ASSERT_TRUE(out->clogged());
  EXPECT_GT(out->unsentBytes(), out->highWater());
  EXPECT_EQ(watch.seen, std::vector<bool>{true});

  // The collector catches up: everything arrives, in order, and the output unclogs.
  std::string got;
  for (int rounds = 0; out->unsentBytes() > 0 && rounds < 10000; ++rounds) {
    got += drainCollector(sv[1]);
    out->flush();
  }
  got += drainCollector(sv[1]);
  EXPECT_FALSE(out->clogged());
  EXPECT_EQ(watch.seen, (std::vector<bool>{true, false}));
  std::string expected;
  for (unsigned i = 0; i < records; ++i) {
    expected += record("routing/pim/status/default", "holdTime" + std::to_string(i), value);
  }
  EXPECT_TRUE(got == expected) << got.size() << " bytes received, " << expected.size() << " sent";
  EXPECT_EQ(out->records(), records);
  ::close(sv[1]);
}

TEST(SocketOutSm, CollectorGoneFailsWithoutClogging) {
  int sv[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  auto out = Kel::NboAttrLog::socketOutSmFactory("attrlog", sv[0], 16);
  ::close(sv[1]);
  out->attrIs("p", "a", std::string(64, 'x'));  // EPIPE, not SIGPIPE
  EXPECT_TRUE(out->failed());
  EXPECT_FALSE(out->clogged());
  EXPECT_EQ(out->sendErrors(), 1u);
  out->attrIs("p", "a", "y");
  EXPECT_EQ(out->recordsDropped(), 1u);
  EXPECT_EQ(out->unsentBytes(), 0u);
}

}  // namespace
