// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/Trace.h"

#include <cstdio>

#include "runtime/vex/ActivityManager.h"
#include "runtime/vex/Exception.h"

namespace Vex {

std::ostream* coverageStream_ = nullptr;

namespace {

class StandardErrorTrace final : public TraceSink {
 public:
  void line(std::string_view text) override {
    std::string whole(text);
    whole += '\n';  // one write, so that lines of several threads do not mix
    std::fwrite(whole.data(), 1, whole.size(), stderr);
  }
};

constinit StandardErrorTrace standardErrorTrace;
constinit TraceSink* traceSink = &standardErrorTrace;

}  // namespace

void TraceHandle::enabledIs(bool flag) noexcept {
  enabled_ = flag;
  effective_ = flag ? levels_ : std::uint16_t{0};
}

void TraceHandle::levelIs(unsigned level, bool flag) {
  if (level > kMaxLevel) {
    throwRangeException("trace level " + std::to_string(level) + " of " + std::string(name_) +
                        ": not in 0 to " + std::to_string(kMaxLevel));
  }
  const unsigned bit = 1U << level;
  levels_ = static_cast<std::uint16_t>(flag ? levels_ | bit : levels_ & ~bit);
  enabledIs(enabled_);
}

void traceSinkIs(TraceSink* sink) noexcept {
  traceSink = sink != nullptr ? sink : &standardErrorTrace;
}

void traceHelper(std::string_view facility, std::string_view prefix,
                 const std::ostringstream& stream, unsigned level, bool enabled,
                 std::string_view sourceName, std::uint_least32_t line,
                 std::string_view functionName) {
  std::string text(prefix);
  if (facility != sourceName) {
    text += facility;
    text += ' ';
  }
  text += sourceName;
  text += ' ';
  text += std::to_string(level);
  text += ' ';
  text += functionName;
  text += ':';
  text += std::to_string(line);
  text += ": ";
  for (const char c : stream.view()) {
    if (c == '\n') {
      text += "\\n";
    } else {
      text += c;
    }
  }
  if (enabled) traceSink->line(text);
  if (coverageStream_ != nullptr) *coverageStream_ << text << '\n';
}

std::string tracePrefix() {
  ActivityManager* manager = currentActivityManager();
  if (manager == nullptr) return {};
  char text[352];  // the longest double in this form has 317 characters
  const int length = std::snprintf(text, sizeof text, "%.6f ", manager->clock()->now());
  return length > 0 ? std::string(text, static_cast<std::size_t>(length)) : std::string();
}

}  // namespace Vex
