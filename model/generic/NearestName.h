// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Generic::NearestName: the name that somebody may have meant, for messages about one
// that does not exist. Usable from any thread; lives for one message.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Ringward::Generic {

class NearestName {
 public:
  // Names longer than this are compared with nothing.
  static constexpr std::size_t kLongest = 64;

  // `wanted` must outlive the object.
  explicit NearestName(std::string_view wanted) : wanted_(wanted) {}

  void consider(std::string_view known);
  // "; did you mean '<name>'?", or nothing if no name considered is near enough: at most one change
  // in three letters.
  std::string suggestion() const;

 private:
  std::string_view wanted_;
  std::string nearest_;
  std::size_t distance_ = static_cast<std::size_t>(-1);
};

}  // namespace Ringward::Generic
