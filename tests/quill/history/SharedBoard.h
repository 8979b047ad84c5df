// SPDX-License-Identifier: Apache-2.0
//
// What boards have in common, by which the processes of a test tell each other what they see:
// memory that they share, and the words of the first that saw something wrong.
#pragma once

#include <sys/mman.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <new>
#include <string>

#include "tests/quill/history/TableModel.h"

namespace QuillTest {

// `Board` derives from it, and has it as a friend if its constructor is private.
template <class Board>
class SharedBoard {
 public:
  // In a mapping that children share.
  static Board* newShared() {
    void* const room =
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (room == MAP_FAILED) wrong("no memory for the board");
    return new (room) Board;
  }
  static void sharedDel(Board* board) { munmap(board, sizeof(Board)); }

  // The first text stays.
  void failureIs(const std::string& text) {
    if (failing.exchange(true)) return;
    std::snprintf(failure.data(), failure.size(), "%s", text.c_str());
    failed = true;
  }

  std::atomic<bool> failing = false;
  std::atomic<bool> failed = false;
  std::array<char, 1'000> failure{};
};

}  // namespace QuillTest
