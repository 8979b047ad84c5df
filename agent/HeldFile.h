// SPDX-License-Identifier: Apache-2.0
//
// Agent::HeldFile: remembers on disk which ports the agent holds down, so that a run that was
// killed leaves no port down for ever: the next run takes over what it finds there. The format is
// described in docs/formats.md. Activity thread only.
//
// Invariants:
//  1. The file holds one complete list at any moment: it is written beside itself, to "PATH.new",
//     in place of any file that stands there, and renamed.
//  2. A list of another boot, or one that cannot be understood, is no list: after a boot no port is
//     held any more, and interface indexes mean nothing.
//  3. Nothing here throws for what the file holds or the system says.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/linux/PortAction.h"

namespace Agent {

// Bytes; far above what 4,096 held ports need.
inline constexpr std::size_t kMaxHeldFileSize = 1024 * 1024;

struct HeldPort {
  std::string interface;                       // satisfies isInterfaceName()
  int ifindex = 0;                             // above 0
  Platform::Linux::ErrdisableAction action{};  // one that changes something in the kernel
  double since = 0;                            // both in seconds on CLOCK_MONOTONIC
  double until = 0;                            // 0: for good

  bool operator==(const HeldPort&) const = default;
};

// The list as the file has it, for this boot.
std::string toText(const std::vector<HeldPort>& ports, std::string_view bootId);

// What `text` holds if it is of this boot, nothing if it is of another; `error` says what is wrong
// with a text that is no such list.
std::vector<HeldPort> parseHeldPorts(std::string_view text, std::string_view bootId,
                                     std::string& error);

class HeldFile {
 public:
  // An empty path: nothing is remembered.
  explicit HeldFile(std::string path) : path_(std::move(path)) {}

  const std::string& path() const noexcept { return path_; }

  // What an earlier run of this boot has left; an absent file is an empty list. `error` as above,
  // or why the file could not be read.
  std::vector<HeldPort> read(std::string& error) const;

  // Replaces the list. An empty one removes the file. Makes the directory if it is missing, but not
  // the one that it stands in. A list that is equal to the last one costs nothing.
  std::error_code write(const std::vector<HeldPort>& ports);

 private:
  const std::string path_;
  std::optional<std::vector<HeldPort>> written_;
};

}  // namespace Agent
