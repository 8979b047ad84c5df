// SPDX-License-Identifier: Apache-2.0
//
// Log entries: static LogHandle objects say what there is to log, a LogService decides what is
// written and where. Activity thread only; each ActivityManager owns one service, so that systems
// with different clocks do not limit each other.
//
// Rate limiting, the meaning of a handle's last three arguments: an entry is identified by its
// handle and its arguments. The first entry of an identity opens a window of `interval` seconds in
// which up to `burst` entries of that identity are written; the first one after its end opens the
// next. A clock that goes back opens a new window. An interval of 0.0 stands for kDefaultInterval.
// `flags` is reserved and must be 0. So
// 0.0, 1.0, 0 means: one entry a second for the same message about the same thing, and any number
// about different things. Suppressed entries are counted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Vex {

// The numbers of syslog (RFC 5424, section 6.2.1).
enum class LogSeverity : std::uint8_t {
  emergency = 0,
  alert = 1,
  critical = 2,
  error = 3,
  warning = 4,
  notice = 5,
  informational = 6,
  debug = 7
};

inline constexpr std::string_view NoActionRequired =
    "This message is for informational purposes only and requires no action.";

// One message of the program, made at load time. All texts are string literals: the handle keeps
// views. In `format` each %s stands for the next argument.
class LogHandle {
 public:
  constexpr LogHandle(std::string_view id, LogSeverity severity, std::string_view format,
                      std::string_view explanation, std::string_view recommendedAction,
                      double interval, double burst, std::uint8_t flags) noexcept
      : id_(id),
        severity_(severity),
        format_(format),
        explanation_(explanation),
        recommendedAction_(recommendedAction),
        interval_(interval),
        burst_(burst),
        flags_(flags) {}
  LogHandle(const LogHandle&) = delete;
  LogHandle& operator=(const LogHandle&) = delete;

  std::string_view id() const noexcept { return id_; }
  LogSeverity severity() const noexcept { return severity_; }
  std::string_view format() const noexcept { return format_; }
  std::string_view explanation() const noexcept { return explanation_; }
  std::string_view recommendedAction() const noexcept { return recommendedAction_; }
  double interval() const noexcept { return interval_; }
  double burst() const noexcept { return burst_; }
  std::uint8_t flags() const noexcept { return flags_; }

  // Whether the current service would write an entry whose arguments hash to `rateLimitKey`
  // (rateLimitArgs(); 0 for an entry without arguments). Changes nothing but the count of attempts.
  bool okToLog(std::uint32_t rateLimitKey) const;

 private:
  std::string_view id_;
  LogSeverity severity_;
  std::string_view format_;
  std::string_view explanation_;
  std::string_view recommendedAction_;
  double interval_;
  double burst_;
  std::uint8_t flags_;
};

// Where entries go. A sink must not log.
class LogSink {
 public:
  virtual void entry(const LogHandle& handle, std::string_view text) = 0;

 protected:
  ~LogSink() = default;
};

class LogService {
 public:
  static constexpr double kDefaultInterval = 1.0;
  // Identities whose last entry is remembered; beyond that the memory starts afresh, which may let
  // an entry through early and never loses one.
  static constexpr std::size_t kMaxIdentities = 4096;

  // What happened to the entries of one handle so far.
  struct Counts {
    std::uint64_t attempts = 0;  // okToLog() calls
    std::uint64_t written = 0;
    std::uint64_t suppressed = 0;
  };

  // `sink` must outlive its registration. Adding a sink again, or removing an absent one, does
  // nothing.
  void sinkIs(LogSink& sink);
  void sinkDel(LogSink& sink) noexcept;

  bool okToLog(const LogHandle& handle, std::uint32_t rateLimitKey, double now);
  // Writes the entry to every sink, or counts it as suppressed.
  void log(const LogHandle& handle, const std::vector<std::string>& arguments, double now);

  Counts counts(const LogHandle& handle) const;

 private:
  struct Identity {
    const LogHandle* handle;
    std::uint32_t key;
    bool operator==(const Identity&) const = default;
  };
  struct IdentityHash {
    std::size_t operator()(const Identity& i) const noexcept {
      return std::hash<const void*>{}(i.handle) * 31U + i.key;
    }
  };
  struct Window {
    double began = 0;
    double written = 0;
  };

  bool hasRoom(const LogHandle& handle, std::uint32_t rateLimitKey, double now) const;

  std::vector<LogSink*> sinks_;
  std::unordered_map<Identity, Window, IdentityHash> windows_;
  std::unordered_map<const LogHandle*, Counts> counts_;
};

// The hash of an entry's arguments; 0 for none.
std::uint32_t rateLimitArgs(const std::vector<std::string>& arguments);

// Replaces each %s of `format` by the next argument; a %s without one stays.
std::string formatLog(std::string_view format, const std::vector<std::string>& arguments);

// Emits an entry through the current activity manager's service, subject to the rate limit. Each
// argument is shown as its operator<< shows it.
void logEntry(const LogHandle& handle, const std::vector<std::string>& arguments);

template <class... Args>
void log(const LogHandle& handle, const Args&... args) {
  std::vector<std::string> texts;
  texts.reserve(sizeof...(args));
  [[maybe_unused]] const auto add = [&](const auto& arg) {
    std::ostringstream os;
    os << arg;
    texts.push_back(std::move(os).str());
  };
  (add(args), ...);
  logEntry(handle, texts);
}

// An entry as one line "ID: text", without an end of line; control characters are shown as '?'
// (they may come from a peer and must not reach a terminal).
std::string toLine(const LogHandle& handle, std::string_view text);

// Sinks for whoever runs the program. To standard error go lines as above.
class StandardErrorSink final : public LogSink {
 public:
  void entry(const LogHandle& handle, std::string_view text) override;
};

// Writes to the system log, syslog(3). openlog() is the program's business.
class SystemLogSink final : public LogSink {
 public:
  void entry(const LogHandle& handle, std::string_view text) override;
};

// Keeps everything, for tests and for status displays; bounded by `limit` entries. A full
// memory lets go of its oldest eighth at once, so that an entry stays cheap.
class MemorySink final : public LogSink {
 public:
  struct Entry {
    const LogHandle* handle;
    std::string text;
  };
  explicit MemorySink(std::size_t limit = 65536) : limit_(limit) {}
  void entry(const LogHandle& handle, std::string_view text) override;
  const std::vector<Entry>& entries() const noexcept { return entries_; }
  std::vector<std::string> texts() const;
  void clear() noexcept { entries_.clear(); }

 private:
  std::size_t limit_;
  std::vector<Entry> entries_;
};

}  // namespace Vex
