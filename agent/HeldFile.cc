// SPDX-License-Identifier: Apache-2.0
#include "agent/HeldFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <type_traits>
#include <utility>

#include "agent/Configuration.h"
#include "platform/linux/Fd.h"

namespace Agent {

using Platform::Linux::ErrdisableAction;
using Platform::Linux::Fd;
using Json = nlohmann::json;

namespace {

constexpr int kVersion = 1;
constexpr const char* kBootIdPath = "/proc/sys/kernel/random/boot_id";

// At most kMaxHeldFileSize + 1 bytes, so that a larger file shows.
std::error_code readAll(const char* path, std::string& content) {
  const Fd fd(::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!fd) return {errno, std::system_category()};
  content.assign(kMaxHeldFileSize + 1, '\0');
  std::size_t size = 0;
  while (size < content.size()) {
    const ssize_t count = ::read(fd.get(), content.data() + size, content.size() - size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return {errno, std::system_category()};
    if (count == 0) break;
    size += static_cast<std::size_t>(count);
  }
  content.resize(size);
  return {};
}

// Into a file that is new: opening what somebody has left there could wait for ever, as for the
// reader of a FIFO, and would write to who knows what.
std::error_code writeAll(const std::string& path, std::string_view content) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) return {errno, std::system_category()};
  const Fd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!fd) return {errno, std::system_category()};
  while (!content.empty()) {
    const ssize_t count = ::write(fd.get(), content.data(), content.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return {errno, std::system_category()};
    content.remove_prefix(static_cast<std::size_t>(count));
  }
  return {};
}

std::string bootId() {
  std::string text;
  if (readAll(kBootIdPath, text)) return {};
  return text.substr(0, text.find('\n'));
}

// A value for an error. What a list or an object holds does not stand there: printing it would take
// as much stack as the file nests, and the file is not ours to bound.
std::string shown(const Json& value) {
  if (value.is_array()) return "a list";
  if (value.is_object()) return "an object";
  return plainText(value.dump());
}

// The value of a key, or why it is not what it should be.
template <typename Value, typename Valid>
bool take(const Json& object, const char* key, const char* wanted, Valid valid, Value& out,
          std::string& error) {
  const auto at = object.find(key);
  if (at != object.end()) {
    bool typed = false;
    if constexpr (std::is_same_v<Value, std::string>) typed = at->is_string();
    if constexpr (std::is_same_v<Value, int>) {
      typed = at->is_number_integer() && std::in_range<int>(at->template get<std::int64_t>());
    }
    if constexpr (std::is_same_v<Value, double>) typed = at->is_number();
    if (typed) {
      out = at->template get<Value>();
      if (valid(out)) return true;
    }
  }
  error = std::string(key) + ": " + (at != object.end() ? shown(*at) : "missing") +
          "; wanted: " + wanted;
  return false;
}

bool takePort(const Json& entry, HeldPort& port, std::string& error) {
  if (!entry.is_object()) {
    error = "held: " + shown(entry) + "; wanted: a list of objects";
    return false;
  }
  const auto time = [](double value) { return std::isfinite(value) && value >= 0; };
  std::string action;
  if (!take(
          entry, "interface", "an interface name",
          [](const std::string& name) { return isInterfaceName(name); }, port.interface, error) ||
      !take(
          entry, "index", "an integer above 0", [](int index) { return index > 0; }, port.ifindex,
          error) ||
      !take(entry, "since", "seconds", time, port.since, error) ||
      !take(entry, "until", "seconds", time, port.until, error)) {
    return false;
  }
  const auto acts = [](const std::string& word) {
    const auto known = Platform::Linux::errdisableActionOf(word);
    return known && *known != ErrdisableAction::automatic && *known != ErrdisableAction::monitor;
  };
  if (!take(entry, "action", "\"bridge-port\", \"protodown\" or \"admin-down\"", acts, action,
            error)) {
    return false;
  }
  port.action = *Platform::Linux::errdisableActionOf(action);
  return true;
}

}  // namespace

std::string toText(const std::vector<HeldPort>& ports, std::string_view bootId) {
  Json held = Json::array();
  for (const HeldPort& port : ports) {
    held.push_back({{"interface", port.interface},
                    {"index", port.ifindex},
                    {"action", Platform::Linux::errdisableActionName(port.action)},
                    {"since", port.since},
                    {"until", port.until}});
  }
  const Json root{{"version", kVersion}, {"boot", bootId}, {"held", held}};
  // Names are any bytes to the kernel; what is no UTF-8 cannot stand in the file.
  return root.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

std::vector<HeldPort> parseHeldPorts(std::string_view text, std::string_view bootId,
                                     std::string& error) {
  error.clear();
  if (text.size() > kMaxHeldFileSize) {
    error = "larger than the limit of " + std::to_string(kMaxHeldFileSize) + " bytes";
    return {};
  }
  const Json root = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  int version = 0;
  std::string boot;
  if (!root.is_object()) {
    error = "not a JSON object";
    return {};
  }
  if (!take(
          root, "version", "1", [](int value) { return value == kVersion; }, version, error) ||
      !take(
          root, "boot", "a text", [](const std::string&) { return true; }, boot, error)) {
    return {};
  }
  if (boot != bootId) return {};
  const auto held = root.find("held");
  if (held == root.end() || !held->is_array()) {
    error = "held: wanted: a list";
    return {};
  }
  std::vector<HeldPort> ports;
  std::set<std::string> names;
  for (const Json& entry : *held) {
    HeldPort port;
    if (!takePort(entry, port, error)) return {};
    if (!names.insert(port.interface).second) {
      error = "interface: " + quotedText(port.interface) + " stands twice";
      return {};
    }
    ports.push_back(std::move(port));
  }
  return ports;
}

std::vector<HeldPort> HeldFile::read(std::string& error) const {
  error.clear();
  if (path_.empty()) return {};
  std::string text;
  if (const std::error_code failure = readAll(path_.c_str(), text)) {
    if (failure != std::errc::no_such_file_or_directory) error = failure.message();
    return {};
  }
  return parseHeldPorts(text, bootId(), error);
}

std::error_code HeldFile::write(const std::vector<HeldPort>& ports) {
  if (path_.empty() || written_ == ports) return {};
  written_.reset();
  if (ports.empty()) {
    if (::unlink(path_.c_str()) != 0 && errno != ENOENT) return {errno, std::system_category()};
    written_ = ports;
    return {};
  }
  const std::string directory = std::filesystem::path(path_).parent_path();
  if (!directory.empty() && ::mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST) {
    return {errno, std::system_category()};
  }
  const std::string beside = path_ + ".new";
  std::error_code error = writeAll(beside, toText(ports, bootId()));
  if (!error && ::rename(beside.c_str(), path_.c_str()) != 0) {
    error = {errno, std::system_category()};
  }
  if (error) {
    ::unlink(beside.c_str());
  } else {
    written_ = ports;
  }
  return error;
}

}  // namespace Agent
