// SPDX-License-Identifier: Apache-2.0
//
// Traces: what a developer or an operator switches on to see a program at work. Each part of the
// program has one TraceHandle, made at load time, and traces by a function template:
//
//   Vex::trace(traceHandle, 8, [&](std::ostream& os) { os << "onTime, " << count << " waiting"; });
//
// The text is formatted only if the handle's master switch and the level's switch are on, or if
// coverageStream_ is set; otherwise a trace costs one branch. A trace never changes what the
// program does: a text that raises while it is formatted is replaced by a note.
//
// Levels in use: 7 for events worth knowing, 8 for the entry of a handler, 9 for each packet.
//
// Any thread may trace. Switches, sink and coverage stream belong to the process and are plain: set
// them while no other thread traces. A sink that several threads use guards itself.
#pragma once

#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

namespace Vex {

// Every trace of the process is formatted and written here too, whatever the switches say. Not
// owned; null: none. For runs that prove that each trace text can be made.
extern std::ostream* coverageStream_;

class TraceHandle {
 public:
  static constexpr unsigned kMaxLevel = 9;

  // `name` is a string literal: the handle keeps a view. `enabled` is the master switch; the
  // switches of all levels start off.
  constexpr TraceHandle(std::string_view name, bool enabled) noexcept
      : name_(name), enabled_(enabled) {}
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  std::string_view name() const noexcept { return name_; }

  // The master switch.
  void enabledIs(bool flag) noexcept;
  bool enabled() const noexcept { return enabled_; }
  // The switch of one level. Raises a range exception for a level above kMaxLevel.
  void levelIs(unsigned level, bool flag);
  bool level(unsigned level) const noexcept {
    return level <= kMaxLevel && ((levels_ >> level) & 1U) != 0;
  }

  // Both switches are on.
  bool on(unsigned level) const noexcept {
    return level <= kMaxLevel && ((effective_ >> level) & 1U) != 0;
  }
  // A trace of this level has somebody to read it.
  bool tracing(unsigned level) const noexcept {
    // Not ||: one branch where the trace stands.
    return (static_cast<unsigned>(on(level)) | static_cast<unsigned>(coverageStream_ != nullptr)) !=
           0;
  }

 private:
  std::string_view name_;
  bool enabled_;
  std::uint16_t levels_ = 0;
  std::uint16_t effective_ = 0;  // levels_ if enabled_, else 0
};

// Where traces go. A sink must not trace.
class TraceSink {
 public:
  // One line without its newline.
  virtual void line(std::string_view text) = 0;

 protected:
  ~TraceSink() = default;
};

// Replaces the sink of the process; null restores standard error. `sink` must outlive its use.
void traceSinkIs(TraceSink* sink) noexcept;

// Writes one line, "<prefix><sourceName> <level> <functionName>:<line>: <text of stream>", to the
// sink if `enabled` and to coverageStream_ if that is set. `facility` precedes the source name
// where the two differ. Newlines in the text are shown as "\n".
void traceHelper(std::string_view facility, std::string_view prefix,
                 const std::ostringstream& stream, unsigned level, bool enabled,
                 std::string_view sourceName, std::uint_least32_t line,
                 std::string_view functionName);

// The time of the thread's current activity manager and a blank; empty if none is current.
std::string tracePrefix();

// Where a trace stands. Not std::source_location: Clang 14 cannot use that of the GNU library.
struct TracePlace {
  static constexpr TracePlace current(const char* function = __builtin_FUNCTION(),
                                      std::uint_least32_t line = __builtin_LINE()) noexcept {
    return {function, line};
  }

  const char* function;
  std::uint_least32_t line;
};

namespace Detail {

template <class Format>
[[gnu::noinline, gnu::cold]] void traceText(const TraceHandle& handle, unsigned level,
                                            Format& format, const TracePlace& where) {
  try {
    std::ostringstream stream;
    try {
      format(static_cast<std::ostream&>(stream));
    } catch (...) {
      stream << " (the rest of the text raised an exception)";
    }
    traceHelper(handle.name(), tracePrefix(), stream, level, handle.on(level), handle.name(),
                where.line, where.function);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a trace never changes what the program does
  }
}

}  // namespace Detail

// `format` takes a std::ostream& and writes the text.
template <class Format>
void trace(const TraceHandle& handle, unsigned level, Format&& format,
           const TracePlace& where = TracePlace::current()) {
  if (handle.tracing(level)) [[unlikely]] {
    Detail::traceText(handle, level, format, where);
  }
}

}  // namespace Vex
