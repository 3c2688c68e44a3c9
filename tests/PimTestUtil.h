// Test helpers for the codec: annotated hex vectors, an independent checksum reference
// (deliberately the plain RFC 1071 loop, not the library's), and a trace capture fixture.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Pim/PimMessage.h"
#include "Pim/platform/Flicklog.h"
#include "Pim/platform/Nimo.h"
#include "Pim/platform/Ulm.h"

namespace PimTest {

using Bytes = std::vector<std::uint8_t>;

// The whole test program on a private shared-memory root named with the pid, removed at
// the end. Register once per program: AddGlobalTestEnvironment(new PrivateDrobeRoot("x")).
struct PrivateDrobeRoot : ::testing::Environment {
  explicit PrivateDrobeRoot(std::string_view tag)
      : root(fmt::format("/dev/shm/{}-test-{}", tag, ::getpid())) {}
  const std::string root;
  void SetUp() override {
    std::filesystem::create_directories(root);
    ::setenv("DROBE_ROOT", root.c_str(), 1);
  }
  void TearDown() override { std::filesystem::remove_all(root); }
};

// The exit code of our child pid within `seconds`; -1 if a signal ended it or it had to be
// killed when the time ran out.
inline int waitChild(pid_t pid, int seconds) {
  int status = 0;
  for (int i = 0; i < seconds * 100; ++i) {
    if (::waitpid(pid, &status, WNOHANG) == pid)
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    ::usleep(10000);
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, &status, 0);
  return -1;
}

// Blocks until fd is readable, at most `seconds`.
inline bool readable(int fd, int seconds) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, seconds * 1000) == 1;
}
template <typename T>
bool receive(int fd, T& out, int seconds = 30) {
  return readable(fd, seconds) && ::read(fd, &out, sizeof out) == static_cast<ssize_t>(sizeof out);
}
template <typename T>
void send(int fd, const T& v) {
  (void)!::write(fd, &v, sizeof v);
}
// Blocks until the other end closes (or sends), at most `seconds`.
inline void hold(int fd, int seconds = 300) {
  char c;
  if (readable(fd, seconds)) (void)!::read(fd, &c, 1);
}

// Turns loop until done() or about `seconds` of real time (a manual clock would never end
// the wait); says whether done() came true.
inline bool runUntil(Ulm::EventLoop& loop, const std::function<bool()>& done,
                     double seconds = 10.0) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!done() && std::chrono::steady_clock::now() < end) loop.runOnce(0.01);
  return done();
}

// Forked children of a cross-process test, each talking to the test over a socket pair;
// only these are ever killed, by their pid.
class Children {
 public:
  ~Children() { killAll(); }
  // Forks body(fd), fd the child's end of a socket pair; returns the parent's end.
  int spawn(const std::function<void(int)>& body) {
    int sv[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    const pid_t p = ::fork();
    if (p == 0) {
      // Siblings' ends stay with the parent, so that its close is the siblings' end of file.
      for (const auto& c : children_) ::close(c.first);
      ::close(sv[0]);
      body(sv[1]);
      ::_exit(5);
    }
    ::close(sv[1]);
    children_.emplace_back(sv[0], p);
    return sv[0];
  }
  pid_t pidOf(int fd) const {
    for (const auto& [f, pid] : children_)
      if (f == fd) return pid;
    return -1;
  }
  // Closes the parent's end of the child on fd and reaps the child: its exit code, or -1 if
  // a signal ended it or it had to be killed after `seconds`.
  int exitCode(int fd, int seconds = 30, bool killNow = false) {
    const pid_t pid = pidOf(fd);
    std::erase(children_, std::pair{fd, pid});
    if (killNow) ::kill(pid, SIGKILL);  // before its end of file could let it exit
    ::close(fd);
    return waitChild(pid, seconds);
  }
  void killAll() {
    for (const auto& [fd, pid] : children_) {
      ::close(fd);
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
    children_.clear();
  }

 private:
  std::vector<std::pair<int, pid_t>> children_;  // the parent's end, the child
};

// A shell command run to completion: its exit status and its output (stderr too, unless
// withStderr is false). Tools under test run as separate processes through this.
struct CommandOutput {
  int exitCode = -1;
  std::string out;
};
inline CommandOutput runCommand(const std::string& cmd, bool withStderr = true) {
  CommandOutput r;
  FILE* p = ::popen((cmd + (withStderr ? " 2>&1" : " 2>/dev/null")).c_str(), "r");
  if (!p) return r;
  std::array<char, 4096> buf;
  while (std::size_t n = std::fread(buf.data(), 1, buf.size(), p)) r.out.append(buf.data(), n);
  const int status = ::pclose(p);
  r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

// "20 00 ab cd" -> bytes; blanks are ignored, so a vector can be written one field per line.
inline Bytes hex(std::string_view s) {
  Bytes out;
  int hi = -1;
  for (char c : s) {
    if (std::isspace(static_cast<unsigned char>(c))) continue;
    int v = std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : (std::tolower(c) - 'a' + 10);
    if (hi < 0) {
      hi = v;
    } else {
      out.push_back(static_cast<std::uint8_t>(hi << 4 | v));
      hi = -1;
    }
  }
  return out;
}

inline std::string toHex(const std::uint8_t* p, std::size_t n) {
  std::string s;
  for (std::size_t i = 0; i < n; ++i) s += fmt::format("{:02x}{}", p[i], i % 16 == 15 ? "\n" : " ");
  return s;
}
inline std::string toHex(const Bytes& b) { return toHex(b.data(), b.size()); }

// One's-complement sum of big-endian 16-bit words with end-around carry, complemented.
inline std::uint16_t refChecksum(const Bytes& data, std::uint32_t initial = 0) {
  std::uint32_t sum = initial;
  for (std::size_t i = 0; i < data.size(); i += 2) {
    std::uint32_t word = std::uint32_t{data[i]} << 8;
    if (i + 1 < data.size()) word |= data[i + 1];
    sum += word;
    while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
  }
  return static_cast<std::uint16_t>(~sum & 0xffff);
}

// The same preceded by the IPv6 pseudo-header built byte by byte.
inline std::uint16_t refChecksumV6(const Nimo::IpGenAddr& src, const Nimo::IpGenAddr& dst,
                                   std::uint32_t upperLength, const Bytes& data) {
  Bytes all(src.bytes(), src.bytes() + 16);
  all.insert(all.end(), dst.bytes(), dst.bytes() + 16);
  for (int shift = 24; shift >= 0; shift -= 8) all.push_back(std::uint8_t(upperLength >> shift));
  all.insert(all.end(), {0, 0, 0, 103});
  all.insert(all.end(), data.begin(), data.end());
  return refChecksum(all);
}

// Writes the right checksum into bytes 2-3 of a PIM message, summed over its first covered
// bytes (a Register's header), by default the whole message.
inline Bytes withChecksum(Bytes msg, const Nimo::IpGenAddr& src, const Nimo::IpGenAddr& dst,
                          std::size_t covered = SIZE_MAX) {
  msg[2] = msg[3] = 0;
  const Bytes sum(msg.begin(), msg.begin() + std::ptrdiff_t(std::min(covered, msg.size())));
  const std::uint16_t c = src.af() == Nimo::AddressFamily::ipv6
                              ? refChecksumV6(src, dst, static_cast<std::uint32_t>(sum.size()), sum)
                              : refChecksum(sum);
  msg[2] = std::uint8_t(c >> 8);
  msg[3] = std::uint8_t(c);
  return msg;
}

// An exactly sized packet: ASan reports any read past its end.
inline Kel::Ptr<Nimo::Pkt> pkt(const Bytes& b) {
  return Nimo::Pkt::copyOf(b.data(), static_cast<std::uint32_t>(b.size()));
}

inline Bytes bytesOf(const Nimo::Pkt& p, std::uint32_t n) {
  const std::uint8_t* d = p.data(0, n);
  return d ? Bytes(d, d + n) : Bytes();
}

// Runs f, which must throw Kel::RangeError with exactly this text.
inline void expectRangeError(const std::function<void()>& f, const std::string& text) {
  try {
    f();
    ADD_FAILURE() << "accepted; expected: " << text;
  } catch (const Kel::RangeError& e) {
    EXPECT_EQ(e.what(), text);
  }
}

// v prints as text, and text parses back into v.
template <typename T>
void expectTextForm(const T& v, const std::string& text) {
  EXPECT_EQ(Kel::valueToStrep(v), text);
  EXPECT_EQ(T(text.data(), text.data() + text.size()), v) << text;
}

template <typename T>
void expectNoParse(const std::string& text) {
  EXPECT_THROW(T(text.data(), text.data() + text.size()), Kel::RangeError) << text;
}

// Captures the codec's trace at every level while a test runs.
class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = Routing::Pim::Packet::codecTrace().level();
    Routing::Pim::Packet::codecTrace().levelIs(9);
  }
  void TearDown() override { Routing::Pim::Packet::codecTrace().levelIs(saved_); }

  // Lines at one level, in order.
  std::vector<std::string> at(int level) const {
    std::vector<std::string> out;
    for (const auto& l : capture_.lines())
      if (l.level == level) out.push_back(l.text);
    return out;
  }
  std::vector<std::string> errors() const { return at(1); }
  // No line for an empty text, else exactly that one line.
  static std::vector<std::string> only(const std::string& text) {
    return text.empty() ? std::vector<std::string>{} : std::vector<std::string>{text};
  }
  std::vector<std::string> warnings() const { return at(5); }
  void clear() { capture_.clear(); }

  Flicklog::CaptureSink capture_;

 private:
  int saved_ = 0;
};

inline const Nimo::IpGenAddr kV4Src("10.0.0.1");
inline const Nimo::IpGenAddr kV4Dst("224.0.0.13");
inline const Nimo::IpGenAddr kV6Src("fe80::1");
inline const Nimo::IpGenAddr kV6Dst("ff02::d");

}  // namespace PimTest
