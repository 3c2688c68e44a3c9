// Nimo::SctpPam through the fake behind its system-call seam: the receive loop (pieces,
// oversize, notifications), association events into the status, refusals when closed or
// disabled.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "Pim/platform/Flicklog.h"
#include "tests/SctpFake.h"

namespace {

using Nimo::Sctp::AssocState;
using PimTest::FakeSctp;
using Bytes = std::vector<std::uint8_t>;

struct SctpPamTest : ::testing::Test {
  void SetUp() override {
    trace.levelIs(9);
    pam->statusIs(status);
    pam->modeIs(1);
    ASSERT_TRUE(pam->createSocket());
  }
  void TearDown() override { trace.levelIs(0); }
  // Lines of the facility at the error level.
  std::vector<std::string> errors() const {
    std::vector<std::string> out;
    for (const auto& l : capture.lines())
      if (l.level == 1) out.push_back(l.text);
    return out;
  }
  std::vector<Bytes> drain() {
    std::vector<Bytes> out;
    for (int i = 0; i < 100; ++i) {
      auto p = pam->doRecvMsg();
      if (!p) break;
      out.emplace_back(p->data(0), p->data(0) + p->size());
    }
    return out;
  }
  Flicklog::Facility& trace = Flicklog::facility("Nimo::Sctp");
  Flicklog::CaptureSink capture;
  Kel::Ptr<FakeSctp> fake = Kel::Ptr<FakeSctp>::make();
  Kel::Ptr<Nimo::Sctp::Status> status = Kel::Ptr<Nimo::Sctp::Status>::make("st");
  Kel::Ptr<Nimo::SctpPam> pam =
      Kel::Ptr<Nimo::SctpPam>::make("Port", "", PimTest::fakeFactory(fake));
};

const Nimo::IpGenAddr kPeer4("10.1.0.2");
const Nimo::IpGenAddr kPeer6("2001:db8::2");

TEST_F(SctpPamTest, ReadsJoinPiecesDropOversizeAndNeverDeliverNotifications) {
  pam->maxRxPktDataIs(8);
  const Bytes eight{1, 2, 3, 4, 5, 6, 7, 8};
  // Scripted reads and what must come out, in order.
  fake->message({{1, 2, 3}, {4, 5}, {6, 7, 8}}, 7, kPeer4);  // three pieces: one message
  fake->event(AssocState::Up, 7);                            // an event between messages
  fake->message({eight, {9}}, 7, kPeer4);                    // 9 bytes: over the limit
  fake->message({{0x23, 0, 0, 0}}, 9, kPeer6);               // the next one still arrives
  fake->message({Bytes(20, 0x23)}, 9, kPeer6);               // whole but too long for a read
  fake->reads.push_back({{0x23, 0, 0, 0, 0}, {}, 0});        // notification-shaped bytes...
  fake->reads.back().info.endOfRecord = true;                // ...as data: a message
  fake->peers[7] = {kPeer4, 8471, 0};
  const auto got = drain();
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[0], eight);
  EXPECT_EQ(got[1], (Bytes{0x23, 0, 0, 0}));
  EXPECT_EQ(got[2], (Bytes{0x23, 0, 0, 0, 0}));
  EXPECT_EQ(pam->rxCount(), 3u);
  EXPECT_EQ(pam->rxOversize(), 2u);
  EXPECT_EQ(pam->rxAssocEventCount(), 1u);
  EXPECT_EQ(pam->rxAncillaryCount(), 3u + 2u + 1u + 3u);  // the 20 bytes came in 9, 9, 2
  EXPECT_EQ(errors().size(), 2u);                         // one line per dropped message
  ASSERT_NE(status->association(7), nullptr);
  EXPECT_EQ(status->association(7)->peerAddr, kPeer4);
  EXPECT_EQ(status->association(7)->state, AssocState::Up);
}

TEST_F(SctpPamTest, MessageSourceAndAssociationComeWithIt) {
  fake->message({{0x23, 0, 0, 0}}, 11, kPeer6);
  fake->message({{0x23, 1, 0, 0}}, 12, kPeer4);
  ASSERT_TRUE(pam->doRecvMsg());
  EXPECT_EQ(pam->rxSrcIpAddr(), kPeer6);
  EXPECT_EQ(pam->rxAssociationId(), 11u);
  ASSERT_TRUE(pam->doRecvMsg());
  EXPECT_EQ(pam->rxSrcIpAddr(), kPeer4);
  EXPECT_EQ(pam->rxSrcPort(), 8471);
  EXPECT_EQ(pam->rxAssociationId(), 12u);
  // A piece whose rest has not come yet waits for the next readable event.
  fake->message({{1, 2}}, 12, kPeer4);
  fake->reads.back().info.endOfRecord = false;
  EXPECT_FALSE(pam->doRecvMsg());
  fake->message({{3}}, 12, kPeer4);
  auto p = pam->doRecvMsg();
  ASSERT_TRUE(p);
  EXPECT_EQ(p->size(), 3u);
}

TEST_F(SctpPamTest, EventsKeepOneEntryPerAssociationWithItsLastState) {
  fake->peers[3] = {kPeer6, 8471, 0};
  const AssocState states[] = {AssocState::Up, AssocState::Restarted, AssocState::Lost};
  for (auto s : states) fake->event(s, 3);
  fake->event(AssocState::CantStart, 4);
  fake->reads.push_back({{0, 0}, {}, 0});  // a notification we do not follow: counted nowhere
  fake->reads.back().info.notification = fake->reads.back().info.endOfRecord = true;
  EXPECT_TRUE(drain().empty());
  EXPECT_EQ(pam->rxAssocEventCount(), 4u);
  ASSERT_EQ(status->association().size(), 2u);
  EXPECT_EQ(status->association(3)->state, AssocState::Lost);
  EXPECT_EQ(status->association(3)->peerAddr, kPeer6);
  EXPECT_EQ(status->association(4)->state, AssocState::CantStart);
  EXPECT_EQ(status->upCount(), 0u);
}

TEST_F(SctpPamTest, ConnectAndSendFollowModeAndAddress) {
  struct Row {
    std::uint8_t mode;
    const char* dst;
    std::uint32_t scope;
    bool ok;
  };
  const Row rows[] = {
      {0, "10.1.0.2", 0, false},   {1, "10.1.0.2", 0, true},
      {1, "2001:db8::2", 0, true}, {1, "fe80::2", 0, false},  // link-local needs the interface
      {1, "fe80::2", 5, true},
  };
  for (const auto& r : rows) {
    fake->connects.clear();
    pam->modeIs(r.mode);
    pam->txDstScopeIdIs(r.scope);
    EXPECT_EQ(pam->createAssociation(Nimo::IpGenAddr(r.dst), 8471), r.ok) << r.dst;
    EXPECT_EQ(fake->connects.size(), r.mode ? 1u : 0u) << r.dst;
    if (!fake->connects.empty()) {
      EXPECT_EQ(fake->connects[0].addr, Nimo::IpGenAddr(r.dst));
      EXPECT_EQ(fake->connects[0].scopeId, r.scope);
    }
  }
  const Bytes m{0x23, 0, 0, 0};
  pam->modeIs(0);
  EXPECT_FALSE(pam->doSendMsg(m.data(), 4, 7));
  pam->modeIs(1);
  EXPECT_TRUE(pam->doSendMsg(m.data(), 4, 7));
  ASSERT_EQ(fake->sent.size(), 1u);
  EXPECT_EQ(fake->sent[0].id, 7u);
  EXPECT_EQ(pam->txCount(), 1u);
  EXPECT_EQ(pam->txBytes(), 4u);
  EXPECT_EQ(pam->txErrors(), 1u);
}

TEST_F(SctpPamTest, NoBackendLeavesItClosedAndEveryOperationFailsCleanly) {
  auto f = Kel::Ptr<FakeSctp>::make();
  f->openError = EPERM;
  auto p = Kel::Ptr<Nimo::SctpPam>::make("Port", "", PimTest::fakeFactory(f));
  p->modeIs(1);
  capture.clear();
  EXPECT_FALSE(p->createSocket());
  EXPECT_EQ(errors(), std::vector<std::string>{"Port: createSocket - Failed - Error: 1"});
  EXPECT_EQ(p->createErrors(), 1u);
  EXPECT_EQ(f->opened, 1);
  capture.clear();
  const Bytes m{1};
  EXPECT_FALSE(p->doBind());
  EXPECT_FALSE(p->doListen());
  EXPECT_FALSE(p->doConnect());
  EXPECT_FALSE(p->doSendMsg(m.data(), 1, 0));
  EXPECT_FALSE(p->doRecvMsg());
  EXPECT_EQ(errors().size(), 5u);
  EXPECT_EQ(errors()[2], "Port: doConnect - Failed - Socket Closed");
  EXPECT_EQ(f->opened, 1);  // nothing retried
}

// Built without libusrsctp (the NoUsrsctpBuild test's tree): asking for the userland stack,
// or falling back to it from a kernel without SCTP, fails with an errno and says why.
TEST_F(SctpPamTest, UserlandAbsentSaysSo) {
  if (Nimo::Sctp::userlandAvailable()) GTEST_SKIP() << "built with libusrsctp";
  struct Row {
    const char* backend;  // PIM_SCTP_BACKEND; null: unset
    std::vector<std::string> lines;
  };
  const int kernelErr = [] {
    const int fd = ::socket(AF_INET6, SOCK_SEQPACKET, IPPROTO_SCTP);
    return fd < 0 ? errno : (::close(fd), 0);
  }();
  const Row rows[] = {
      {"userland",
       {"Userland SCTP - Not Built In - Kernel Error: 0",
        "Port: createSocket - Failed - Error: 95"}},
      {nullptr,
       {fmt::format("Userland SCTP - Not Built In - Kernel Error: {}", kernelErr),
        fmt::format("Port: createSocket - Failed - Error: {}", kernelErr)}},
  };
  for (const auto& r : rows) {
    if (!r.backend && kernelErr == 0) continue;  // the kernel's sockets serve: nothing to say
    if (r.backend) ::setenv("PIM_SCTP_BACKEND", r.backend, 1);
    auto p = Kel::Ptr<Nimo::SctpPam>::make("Port", "", Nimo::SctpPam::BackendFactory{});
    capture.clear();
    EXPECT_FALSE(p->createSocket());
    ::unsetenv("PIM_SCTP_BACKEND");
    EXPECT_EQ(errors(), r.lines);
    EXPECT_EQ(p->createErrors(), 1u);
  }
}

}  // namespace
