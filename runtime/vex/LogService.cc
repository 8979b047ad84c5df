// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/LogService.h"

#include <syslog.h>

#include <algorithm>
#include <climits>
#include <cstdio>

#include "runtime/vex/ActivityManager.h"

namespace Vex {

namespace {

double intervalOf(const LogHandle& handle) noexcept {
  return handle.interval() > 0 ? handle.interval() : LogService::kDefaultInterval;
}

bool isOpen(double began, const LogHandle& handle, double now) noexcept {
  return now >= began && now < began + intervalOf(handle);
}

}  // namespace

bool LogHandle::okToLog(std::uint32_t rateLimitKey) const {
  ActivityManager& manager = activityManager();
  return manager.logService().okToLog(*this, rateLimitKey, manager.clock()->now());
}

void LogService::sinkIs(LogSink& sink) {
  if (std::find(sinks_.begin(), sinks_.end(), &sink) == sinks_.end()) sinks_.push_back(&sink);
}

void LogService::sinkDel(LogSink& sink) noexcept { std::erase(sinks_, &sink); }

bool LogService::hasRoom(const LogHandle& handle, std::uint32_t rateLimitKey, double now) const {
  const auto found = windows_.find({&handle, rateLimitKey});
  const bool open = found != windows_.end() && isOpen(found->second.began, handle, now);
  return (open ? found->second.written : 0.0) + 1.0 <= handle.burst();
}

bool LogService::okToLog(const LogHandle& handle, std::uint32_t rateLimitKey, double now) {
  ++counts_[&handle].attempts;
  return hasRoom(handle, rateLimitKey, now);
}

void LogService::log(const LogHandle& handle, const std::vector<std::string>& arguments,
                     double now) {
  const std::uint32_t key = rateLimitArgs(arguments);
  Counts& counts = counts_[&handle];
  if (!hasRoom(handle, key, now)) {
    ++counts.suppressed;
    return;
  }
  const Identity identity{&handle, key};
  if (windows_.size() >= kMaxIdentities && !windows_.contains(identity)) windows_.clear();
  const auto [place, isNew] = windows_.try_emplace(identity);
  Window& window = place->second;
  if (isNew || !isOpen(window.began, handle, now)) window = {now, 0};
  window.written += 1;
  ++counts.written;
  const std::string text = formatLog(handle.format(), arguments);
  for (LogSink* sink : sinks_) sink->entry(handle, text);
}

LogService::Counts LogService::counts(const LogHandle& handle) const {
  const auto found = counts_.find(&handle);
  return found != counts_.end() ? found->second : Counts{};
}

std::uint32_t rateLimitArgs(const std::vector<std::string>& arguments) {
  if (arguments.empty()) return 0;
  std::uint32_t hash = 2166136261U;  // FNV-1a
  const auto add = [&](std::uint32_t byte) { hash = (hash ^ byte) * 16777619U; };
  for (const std::string& argument : arguments) {
    for (const char c : argument) add(static_cast<unsigned char>(c));
    add(0x100);  // no byte: "ab", "c" is not "a", "bc"
  }
  return hash != 0 ? hash : 1;
}

std::string formatLog(std::string_view format, const std::vector<std::string>& arguments) {
  std::string text;
  for (const std::string& argument : arguments) {
    const std::size_t place = format.find("%s");
    if (place == std::string_view::npos) break;
    text += format.substr(0, place);
    text += argument;
    format.remove_prefix(place + 2);
  }
  return text += format;
}

void logEntry(const LogHandle& handle, const std::vector<std::string>& arguments) {
  ActivityManager& manager = activityManager();
  manager.logService().log(handle, arguments, manager.clock()->now());
}

std::string toLine(const LogHandle& handle, std::string_view text) {
  std::string line(handle.id());
  line += ": ";
  line += text;
  for (char& c : line) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return line;
}

void StandardErrorSink::entry(const LogHandle& handle, std::string_view text) {
  const std::string line = toLine(handle, text) + '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
}

void SystemLogSink::entry(const LogHandle& handle, std::string_view text) {
  const auto length = [](std::string_view s) {
    return static_cast<int>(std::min<std::size_t>(s.size(), INT_MAX));
  };
  syslog(static_cast<int>(handle.severity()), "%.*s: %.*s", length(handle.id()), handle.id().data(),
         length(text), text.data());
}

void MemorySink::entry(const LogHandle& handle, std::string_view text) {
  if (limit_ == 0) return;
  if (entries_.size() >= limit_) {
    const auto oldest = static_cast<std::ptrdiff_t>(std::max<std::size_t>(limit_ / 8, 1));
    entries_.erase(entries_.begin(), entries_.begin() + oldest);
  }
  entries_.push_back({&handle, std::string(text)});
}

std::vector<std::string> MemorySink::texts() const {
  std::vector<std::string> result;
  result.reserve(entries_.size());
  for (const Entry& entry : entries_) result.push_back(entry.text);
  return result;
}

}  // namespace Vex
