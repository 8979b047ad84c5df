// SPDX-License-Identifier: Apache-2.0
#include "quill/SystemLog.h"

#include <syslog.h>

namespace Quill {

namespace {

const SystemLogCalls kCalls{&::openlog, &::syslog, &::closelog};
const SystemLogCalls* calls_ = &kCalls;

}  // namespace

void systemLogCallsIs(const SystemLogCalls* calls) noexcept {
  calls_ = calls != nullptr ? calls : &kCalls;
}

std::string asFormat(std::string_view text) {
  std::string format;
  for (const char c : text) {
    format += c;
    if (c == '%') format += '%';
  }
  return format;
}

void systemLog(std::string_view text) {
  const std::string format = asFormat(text);
  calls_->openLog(nullptr, LOG_PID | LOG_NDELAY, LOG_LOCAL5);
  calls_->message(LOG_DEBUG, format.c_str());
  calls_->closeLog();
}

}  // namespace Quill
