#include "Pim/platform/Kel.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace Kel {

void assertionFailed(const char* expr, const char* file, int line) noexcept {
  std::fprintf(stderr, "KEL_ASSERT failed: %s (%s:%d)\n", expr, file, line);
  std::fflush(stderr);
  std::abort();
}

Time SystemClock::now() const noexcept {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

bool ValueParser::expect(std::string_view lit) noexcept {
  if (!ok_ || !accept(lit)) ok_ = false;
  return ok_;
}

bool ValueParser::accept(std::string_view lit) noexcept {
  if (!ok_ || rest().substr(0, lit.size()) != lit) return false;
  pos_ += lit.size();
  return true;
}

std::string_view ValueParser::token() noexcept {
  if (!ok_) return {};
  std::size_t start = pos_;
  while (pos_ < text_.size()) {
    char c = text_[pos_];
    if (c == ',' || c == '}' || c == ')' || c == ' ') break;
    ++pos_;
  }
  return text_.substr(start, pos_ - start);
}

std::string ValueParser::quoted() noexcept {
  std::string out;
  if (!expect("'")) return out;
  while (pos_ < text_.size()) {
    char c = text_[pos_++];
    if (c == '\'') return out;
    if (c == '\\') {
      if (pos_ == text_.size()) break;
      c = text_[pos_++];
    }
    out += c;
  }
  fail();  // unterminated
  return out;
}

void appendQuoted(std::string& out, std::string_view s) {
  out += '\'';
  for (char c : s) {
    if (c == '\'' || c == '\\') out += '\\';
    out += c;
  }
  out += '\'';
}

void appendDouble(std::string& out, double v) {
  // Shortest text that reads back to the same double.
  fmt::format_to(std::back_inserter(out), "{}", v);
}

void parseDouble(ValueParser& in, double& v) {
  auto t = in.token();
  double d = 0;
  auto [p, ec] = std::from_chars(t.data(), t.data() + t.size(), d);
  if (t.empty() || ec != std::errc() || p != t.data() + t.size()) return in.fail();
  v = d;
}

void throwParseError(std::string_view typeName, std::string_view attribute) {
  throw RangeError(fmt::format("{}::{} has no parsable value", typeName, attribute));
}

}  // namespace Kel
