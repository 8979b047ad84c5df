// SPDX-License-Identifier: Apache-2.0
//
// What one operation of a writer does to a table's files, change by change, and who finds it out.
// When a process dies, memory keeps a prefix of its stores: the images of a trace are all states in
// which a death during the operation can leave the files.
//
// There are two recorders, each in a binary of its own. HookRecorder.cc is told of each store by
// Mem::Atomics, which is compiled for that. StepRecorder.cc is told by nobody: it runs the
// operation in another process, instruction by instruction, and looks at the files after each.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/quill/kills/Image.h"

namespace QuillTest {

// A store of up to 8 bytes into a mapped file; or, with `files`, whatever a system call did.
struct KillEvent {
  unsigned file = 0;
  std::uint32_t offset = 0;
  std::uint32_t size = 0;
  std::array<char, 8> bytes{};
  std::shared_ptr<const Image> files;

  void applyTo(Image& image) const {
    if (files != nullptr) {
      image = *files;
    } else {
      image.mapped(file)->replace(offset, size, bytes.data(), size);
    }
  }
};

struct KillTrace {
  Image start;
  std::vector<KillEvent> events;  // each changes a byte, a size or a name
  std::uint64_t steps = 0;        // stores, or instructions, that were looked at
};

// Runs `prepare`, then `operate`, and records what the latter does to the table in `directory`;
// then `end`. The three share a process, which need not be this one. Raises std::runtime_error if
// the record is not complete.
KillTrace recordKillTrace(const std::string& directory, const std::function<void()>& prepare,
                          const std::function<void()>& operate, const std::function<void()>& end);

// "stores" or "instructions".
const char* killRecorderCounts();

}  // namespace QuillTest
