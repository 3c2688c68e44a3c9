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

// ---------------------------------------------------------------------------------------
// Reflection by name.

namespace {

std::string_view typeNameOf(const Entity& e) {
  const Reflection* r = e.reflection();
  return r ? r->typeName : std::string_view(e.name().str());
}

const AttributeInfo& findAttribute(const Entity& e, std::string_view name) {
  if (const Reflection* r = e.reflection()) {
    for (const AttributeInfo& a : r->attributes)
      if (a.name == name) return a;
  }
  throw AttributeError(fmt::format("{} has no attribute '{}'", typeNameOf(e), name));
}

const CollectionRefl& findCollection(const Entity& e, std::string_view name) {
  if (const Reflection* r = e.reflection()) {
    for (const CollectionRefl& c : r->collections)
      if (c.name == name) return c;
  }
  throw AttributeError(fmt::format("{} has no collection '{}'", typeNameOf(e), name));
}

}  // namespace

std::string attributeText(const Entity& e, std::string_view name) {
  return findAttribute(e, name).get(e);
}

void attributeTextIs(Entity& e, std::string_view name, std::string_view text) {
  const AttributeInfo& a = findAttribute(e, name);
  if (!a.set) throw AttributeError(fmt::format("{}::{} is read-only", typeNameOf(e), name));
  if (!a.set(e, text)) throwParseError(typeNameOf(e), name);
}

Ptr<PtrInterface> attributeObject(const Entity& e, std::string_view name) {
  const AttributeInfo& a = findAttribute(e, name);
  return a.object ? a.object(e) : nullptr;
}

std::vector<std::string> collectionKeys(const Entity& e, std::string_view collection) {
  return findCollection(e, collection).keys(e);
}

Ptr<Entity> collectionMember(const Entity& e, std::string_view collection, std::string_view key) {
  return findCollection(e, collection).member(e, key);
}

}  // namespace Kel
