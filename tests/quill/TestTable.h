// SPDX-License-Identifier: Apache-2.0
//
// What most tests of the store begin with: a directory of their own as the root of tables, a loop
// in virtual time, and the traces of the store as text.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <sstream>
#include <string>

#include "quill/RootPath.h"
#include "runtime/sable/Platform.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace QuillTest {

// A directory that goes with its object, and everything in it.
class TemporaryRoot {
 public:
  TemporaryRoot() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quill-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "no temporary directory " << pattern;
    path_ = pattern;
  }
  TemporaryRoot(const TemporaryRoot&) = delete;
  TemporaryRoot& operator=(const TemporaryRoot&) = delete;
  ~TemporaryRoot() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::string& path() const { return path_; }
  // The full name of a table in this root.
  std::string table(std::string_view name) const { return Quill::tablePath(path_, name); }

 private:
  std::string path_;
};

// Collects every trace text while it lives, whatever the switches say.
class TraceText {
 public:
  TraceText() : before_(Vex::coverageStream_) { Vex::coverageStream_ = &stream_; }
  TraceText(const TraceText&) = delete;
  TraceText& operator=(const TraceText&) = delete;
  ~TraceText() { Vex::coverageStream_ = before_; }

  std::string text() const { return stream_.str(); }
  bool has(std::string_view part) const { return stream_.str().find(part) != std::string::npos; }
  // How often `part` stands in the traces.
  unsigned count(std::string_view part) const {
    const std::string all = stream_.str();
    unsigned found = 0;
    for (std::size_t at = all.find(part); at != std::string::npos; at = all.find(part, at + 1)) {
      ++found;
    }
    return found;
  }
  void clear() { stream_.str({}); }

 private:
  std::ostringstream stream_;
  std::ostream* before_;
};

class TableTest : public testing::Test {
 protected:
  TemporaryRoot root_;
  Vex::VirtualActivityManager loop_;
  Vex::CurrentActivityManager current_{loop_};
  Sable::Platform::DebugHandler handler_{"test"};
};

}  // namespace QuillTest
