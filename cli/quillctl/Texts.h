// SPDX-License-Identifier: Apache-2.0
//
// The texts that quillctl reads and shows: numbers, names that may hold any byte, the nearest of
// several names. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Quillctl {

// The most bytes of a foreign text that a message shows.
inline constexpr std::size_t kMaxShown = 64;

// `text` with every byte that is not printable ASCII as "\xNN", a backslash as "\\".
std::string printable(std::string_view text);
// The same in double quotes, for messages: cut after kMaxShown bytes, with its length then.
std::string inQuotes(std::string_view text);

// A number of decimal digits from `least` to `most`. Raises Failure(usage) that names what it is,
// what was given and the range.
std::uint32_t numberOf(std::string_view text, std::string_view what, std::uint32_t least,
                       std::uint32_t most);

// How many single characters have to be put in, taken out or replaced to make `a` of `b`.
std::size_t editDistance(std::string_view a, std::string_view b);
// The first of the nearest candidates; empty if there is none.
std::string nearest(std::string_view given, const std::vector<std::string>& candidates);

// `bytes` as hexadecimal digits.
std::string hex(std::string_view bytes);

}  // namespace Quillctl
