// SPDX-License-Identifier: Apache-2.0
//
// Catches what the store sends to the system log.
#pragma once

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "quill/SystemLog.h"

namespace QuillTest {

// While it lives, calls of the system log end here, one text each: "open <identity> <options>
// <facility>", "<priority> <format> -> <the message as printed>", "close". One at a time.
class SystemLogText {
 public:
  SystemLogText() {
    calls().clear();
    Quill::systemLogCallsIs(&kRecording);
  }
  SystemLogText(const SystemLogText&) = delete;
  SystemLogText& operator=(const SystemLogText&) = delete;
  ~SystemLogText() { Quill::systemLogCallsIs(nullptr); }

  static std::vector<std::string>& calls() {
    static std::vector<std::string> calls;
    return calls;
  }

 private:
  static void open(const char* identity, int options, int facility) {
    calls().push_back("open " + std::string(identity == nullptr ? "null" : identity) + " " +
                      std::to_string(options) + " " + std::to_string(facility));
  }
  static void message(int priority, const char* format, ...) {
    char printed[512];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(printed, sizeof printed, format, arguments);
    va_end(arguments);
    calls().push_back(std::to_string(priority) + " " + format + " -> " + printed);
  }
  static void close() { calls().push_back("close"); }

  static constexpr Quill::SystemLogCalls kRecording{&open, &message, &close};
};

}  // namespace QuillTest
