#include "Pim/platform/Flicklog.h"

#include <syslog.h>

#include <cstdlib>
#include <deque>
#include <map>
#include <utility>

namespace Flicklog {

namespace {

struct Registry {
  std::deque<Facility> facilities;  // deque: references stay valid as it grows
  std::map<std::string, int, std::less<>> configured;
  int defaultLevel = 0;
  Sink* sink = nullptr;
  CaptureSink* capture = nullptr;

  Registry() {
    // FLICKLOG="Fac=lvl,Other=lvl" or "*=lvl".
    const char* env = std::getenv("FLICKLOG");
    if (!env) return;
    std::string_view s(env);
    while (!s.empty()) {
      auto comma = s.find(',');
      auto item = s.substr(0, comma);
      auto eq = item.find('=');
      if (eq != std::string_view::npos) {
        int lvl = std::atoi(std::string(item.substr(eq + 1)).c_str());
        auto name = item.substr(0, eq);
        if (name == "*") {
          defaultLevel = lvl;
        } else {
          configured[std::string(name)] = lvl;
        }
      }
      if (comma == std::string_view::npos) break;
      s.remove_prefix(comma + 1);
    }
  }
};

Registry& registry() {
  static Registry r;
  return r;
}

}  // namespace

Facility& facility(std::string_view name) {
  auto& r = registry();
  for (auto& f : r.facilities)
    if (f.name() == name) return f;
  auto& f = r.facilities.emplace_back(std::string(name));
  auto it = r.configured.find(name);
  f.levelIs(it != r.configured.end() ? it->second : r.defaultLevel);
  return f;
}

void allLevelsIs(int level) {
  auto& r = registry();
  r.defaultLevel = level;
  r.configured.clear();
  for (auto& f : r.facilities) f.levelIs(level);
}

Sink* sinkIs(Sink* s) noexcept {
  auto& r = registry();
  return std::exchange(r.sink, s);
}

void emit(const Facility& f, int level, std::string_view text) {
  auto& r = registry();
  if (r.sink) {
    r.sink->write(f, level, text);
    return;
  }
  std::fprintf(stderr, "%s/%d %.*s\n", f.name().c_str(), level, static_cast<int>(text.size()),
               text.data());
}

FileSink::FileSink(const std::string& path) : file_(std::fopen(path.c_str(), "a")) {}
FileSink::~FileSink() {
  if (file_) std::fclose(file_);
}
void FileSink::write(const Facility& f, int level, std::string_view text) {
  std::FILE* out = file_ ? file_ : stderr;
  std::fprintf(out, "%s/%d %.*s\n", f.name().c_str(), level, static_cast<int>(text.size()),
               text.data());
  std::fflush(out);
}

CaptureSink::CaptureSink() : previous_(sinkIs(this)) { registry().capture = this; }
CaptureSink::~CaptureSink() {
  auto& r = registry();
  // An enclosing capture becomes current again for system-log lines too.
  if (r.capture == this) r.capture = dynamic_cast<CaptureSink*>(previous_);
  sinkIs(previous_);
}
void CaptureSink::write(const Facility& f, int level, std::string_view text) {
  lines_.push_back(Line{f.name(), level, std::string(text)});
}
std::vector<std::string> CaptureSink::texts() const {
  std::vector<std::string> out;
  out.reserve(lines_.size());
  for (auto& l : lines_) out.push_back(l.text);
  return out;
}

void logMessageText(const LogMessage& m, std::string_view text) {
  auto& r = registry();
  if (r.capture) {
    static const Facility syslogFacility("syslog");
    r.capture->write(syslogFacility, m.severity, fmt::format("%{}: {}", m.name, text));
    return;
  }
  syslog(m.severity, "%%%.*s: %.*s", static_cast<int>(m.name.size()), m.name.data(),
         static_cast<int>(text.size()), text.data());
}

}  // namespace Flicklog
