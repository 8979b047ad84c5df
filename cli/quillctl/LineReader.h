// SPDX-License-Identifier: Apache-2.0
//
// Quillctl::LineReader: cuts what comes in pieces into lines, of which none is kept further than
// kMaxLine bytes. Knows nothing of where the bytes come from.
//
// An object belongs to one thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Quillctl {

struct InputLine {
  std::uint64_t number = 0;  // from 1 on
  std::string text;          // without its newline; cut if it is too long
  bool tooLong = false;
};

class LineReader {
 public:
  // Far beyond any line that can mean something.
  static constexpr std::size_t kMaxLine = 1024;

  // Calls `line` for each line that ends in `bytes`, and once for one that has become too long;
  // stops when it answers false.
  template <class Line>
  bool take(std::string_view bytes, const Line& line) {
    while (!bytes.empty()) {
      const std::size_t end = bytes.find('\n');
      const std::string_view part = bytes.substr(0, end);
      current_.text.append(part.substr(0, kMaxLine + 1 - current_.text.size()));
      if (current_.text.size() > kMaxLine) {
        current_.tooLong = true;
        return finish(line);
      }
      if (end == std::string_view::npos) return true;
      bytes.remove_prefix(end + 1);
      if (!finish(line)) return false;
    }
    return true;
  }
  // The input has ended: a last line may lack its newline.
  template <class Line>
  bool end(const Line& line) {
    return current_.text.empty() || finish(line);
  }

 private:
  template <class Line>
  bool finish(const Line& line) {
    InputLine done = std::move(current_);
    current_ = {};
    done.number = ++lines_;
    const bool more = line(static_cast<const InputLine&>(done));
    return more && !done.tooLong;
  }

  InputLine current_;
  std::uint64_t lines_ = 0;
};

}  // namespace Quillctl
