// SPDX-License-Identifier: Apache-2.0
//
// Quillctl::TraceTexts: what the table store traces while the object lives. Some of what the store
// finds wrong it tells nowhere else.
//
// Belongs to the one thread of the process that uses the store; one object at a time.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "runtime/sable/Platform.h"
#include "runtime/vex/Trace.h"

namespace Quillctl {

class TraceTexts final : private Vex::TraceSink {
 public:
  TraceTexts() {
    Vex::traceSinkIs(this);
    Sable::Platform::traceHandle().levelIs(kLevel, true);
  }
  TraceTexts(const TraceTexts&) = delete;
  TraceTexts& operator=(const TraceTexts&) = delete;
  ~TraceTexts() {
    Sable::Platform::traceHandle().levelIs(kLevel, false);
    Vex::traceSinkIs(nullptr);
  }

  // What follows `mark` in the first line that has it; empty if none has.
  std::string after(std::string_view mark) const {
    for (const std::string& line : lines_) {
      const std::size_t at = line.find(mark);
      if (at != std::string::npos) return line.substr(at + mark.size());
    }
    return {};
  }

 private:
  static constexpr unsigned kLevel = 7;

  void line(std::string_view text) override { lines_.emplace_back(text); }

  std::vector<std::string> lines_;
};

}  // namespace Quillctl
