// Flicklog: the trace facility and the system log.
//
// Trace: each facility (a named component, e.g. "PimCodec") has a level 0-9; a line of
// level L is written when 1 <= L <= the facility's level (0 turns the facility off). The
// FLICK_TRACE macro tests the level before it formats anything, so a disabled trace costs
// one load and one branch. Levels in the codec: 1 errors, 4 debug, 5 warnings, 9 the
// lowest-priority notes.
//
// Lines go to one sink: stderr (default), a file, or an in-memory capture for tests.
// The environment variable FLICKLOG ("PimCodec=9,PimIO=4" or "*=5") sets levels at start.
//
// System log: operator-visible events have a fixed identifier, severity (syslog scale),
// printf-style format, explanation and recommended action (LogMessage). logMessage()
// formats the text and sends "%<IDENTIFIER>: <text>" through syslog(3); tests can capture
// the emitted lines instead.
//
// Threading: event-loop thread only.
//
// Usage:
//   Flicklog::Facility& codec = Flicklog::facility("PimCodec");
//   FLICK_TRACE(codec, 1, "Invalid Pim Message - Missing Pim Header - Remaining: {}", n);
//   Flicklog::CaptureSink cap;          // in a test: lines land in cap.lines()
//   codec.levelIs(9);
#pragma once

#include <fmt/format.h>
#include <fmt/printf.h>

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace Flicklog {

class Facility {
 public:
  explicit Facility(std::string name) : name_(std::move(name)) {}
  const std::string& name() const noexcept { return name_; }
  int level() const noexcept { return level_; }
  void levelIs(int level) noexcept { level_ = level; }
  bool enabled(int level) const noexcept { return level <= level_ && level > 0; }

 private:
  std::string name_;
  int level_ = 0;
};

// The facility of that name, created (at the level FLICKLOG gives it, else 0) on first use.
// References stay valid for the life of the program.
Facility& facility(std::string_view name);
// Sets every facility, present and future, to level.
void allLevelsIs(int level);

struct Line {
  std::string facility;
  int level;
  std::string text;
};

class Sink {
 public:
  virtual ~Sink() = default;
  virtual void write(const Facility& f, int level, std::string_view text) = 0;
};

// Installs s as the sink; nullptr restores stderr. Returns the previous sink.
Sink* sinkIs(Sink* s) noexcept;

class FileSink final : public Sink {
 public:
  explicit FileSink(const std::string& path);  // appends; stderr if it cannot be opened
  ~FileSink() override;
  FileSink(const FileSink&) = delete;
  FileSink& operator=(const FileSink&) = delete;
  void write(const Facility& f, int level, std::string_view text) override;

 private:
  std::FILE* file_;
};

// Collects trace lines (and system-log lines) while it lives; restores the previous sink
// when destroyed.
class CaptureSink final : public Sink {
 public:
  CaptureSink();
  ~CaptureSink() override;
  CaptureSink(const CaptureSink&) = delete;
  CaptureSink& operator=(const CaptureSink&) = delete;
  void write(const Facility& f, int level, std::string_view text) override;
  const std::vector<Line>& lines() const noexcept { return lines_; }
  void clear() noexcept { lines_.clear(); }
  // Texts only, for compact assertions.
  std::vector<std::string> texts() const;

 private:
  std::vector<Line> lines_;
  Sink* previous_;
};

void emit(const Facility& f, int level, std::string_view text);

// ---------------------------------------------------------------------------------------
// System log.

struct LogMessage {
  std::string_view name;    // identifier, e.g. "PIM_MESSAGE_AF_MISMATCH"
  int severity;             // syslog scale: 0 emergency .. 7 debug
  std::string_view format;  // printf-style, %s for each argument
  std::string_view explanation;
  std::string_view action;
};

// Writes "%NAME: text" to syslog(3), and to the current CaptureSink if one is installed
// (facility "syslog", level = severity).
void logMessageText(const LogMessage& m, std::string_view text);

template <typename... Args>
void logMessage(const LogMessage& m, const Args&... args) {
  logMessageText(m, fmt::sprintf(std::string(m.format), args...));
}

}  // namespace Flicklog

// Formats and writes only when the facility's level admits the line.
#define FLICK_TRACE(fac, lvl, ...)                                                    \
  do {                                                                                \
    if ((fac).enabled(lvl)) ::Flicklog::emit((fac), (lvl), fmt::format(__VA_ARGS__)); \
  } while (0)
