// SPDX-License-Identifier: Apache-2.0
//
// The table store's one line in the system log, syslog(3).
//
// Belongs to the activity thread.
#pragma once

#include <string>
#include <string_view>

namespace Quill {

// The calls of syslog(3); a test puts its own in their place.
struct SystemLogCalls {
  void (*openLog)(const char* identity, int options, int facility);
  void (*message)(int priority, const char* format, ...);
  void (*closeLog)();
};

// Replaces the calls for the process; null restores the C library's. `calls` must outlive its use.
void systemLogCallsIs(const SystemLogCalls* calls) noexcept;

// Sends one message at LOG_DEBUG to the facility LOG_LOCAL5, with the process id and no identity.
void systemLog(std::string_view text);

// `text` as a format that prints it: what reaches syslog() is its format, and a '%' in a table's
// name would make that read arguments that nobody gave.
std::string asFormat(std::string_view text);

}  // namespace Quill
