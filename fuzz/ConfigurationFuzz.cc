// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as a configuration file: the reader returns, and what it accepts it also accepts, with
// the same meaning, after printing it. A broken rule ends the process, which the fuzzer reports.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "agent/ConfigurationReader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  const Agent::ConfigurationResult result = Agent::parseConfiguration(content, "fuzz");
  if (!result.ok()) {
    for (const Agent::ConfigurationError& error : result.errors()) {
      for (const char c : Agent::toText(error)) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) std::abort();
      }
    }
    return 0;
  }
  const Agent::ConfigurationResult again =
      Agent::parseConfiguration(Agent::toText(result.configuration()), "again");
  if (!again.ok() || again.configuration() != result.configuration()) std::abort();
  return 0;
}
