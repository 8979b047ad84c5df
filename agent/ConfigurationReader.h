// SPDX-License-Identifier: Apache-2.0
//
// Reads and writes the agent's configuration file (TOML 1.0; keys: docs/configuration.md).
//
// Pure functions without state: any thread may call them. The caller owns the result, which keeps
// nothing of its input. The parser recurses with the nesting of the file, which the limits below
// bound to some megabytes: call from a thread with the usual stack of 8 MiB.
//
// Invariants:
//  1. All or nothing: a result holds a complete Configuration or at least one error, never both.
//  2. Every error of a file is reported, in the order of the file. The one exception: behind an
//     error of the TOML syntax nothing can be known, so that it stands alone.
//  3. No input ends the process, and no text of an error holds a control character.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "agent/Configuration.h"

namespace Agent {

// Bytes of a configuration file.
inline constexpr std::size_t kMaxConfigurationSize = 1024 * 1024;

// Dots in a file. Each can be one more level of a dotted key ("a.a.a = 1"), for which the parser
// sets no limit, although taking the levels down recurses.
inline constexpr std::size_t kMaxConfigurationDots = 4096;

struct ConfigurationError {
  std::string file;
  std::uint32_t line;    // from 1; 0: the error is about the file as a whole
  std::uint32_t column;  // from 1, in characters; 0: as above
  std::string key;       // with its section, "ports.bridge"; empty: not about one key
  std::string text;      // the value found and what is allowed
};

// "FILE:LINE: KEY: TEXT", or "FILE:LINE:COLUMN: TEXT" without a key, or "FILE: TEXT" without a
// line. One line, not terminated.
std::string toText(const ConfigurationError& error);

class ConfigurationResult {
 public:
  explicit ConfigurationResult(Configuration configuration);
  // REQUIRES: not empty.
  explicit ConfigurationResult(std::vector<ConfigurationError> errors);

  bool ok() const { return std::holds_alternative<Configuration>(value_); }
  // REQUIRES: ok(). Lives as long as the result.
  const Configuration& configuration() const;
  // REQUIRES: !ok(). Lives as long as the result.
  const std::vector<ConfigurationError>& errors() const;

 private:
  std::variant<Configuration, std::vector<ConfigurationError>> value_;
};

// Reads the regular file at `path`. A file that cannot be read is one error with the text of
// strerror(3).
ConfigurationResult readConfiguration(const std::string& path);

// The same for the content of a file; `file` is only a name for the errors.
ConfigurationResult parseConfiguration(std::string_view content, const std::string& file);

// The whole configuration as a file that reads back to an equal one; every key is written, also
// those that have their default. REQUIRES: the invariants of Configuration.
std::string toText(const Configuration& configuration);

}  // namespace Agent
