// SPDX-License-Identifier: Apache-2.0
#include "model/generic/NearestName.h"

#include <algorithm>
#include <array>

namespace Ringward::Generic {
namespace {

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// How many letters to put in, leave out, change or swap with their neighbour. REQUIRES: neither
// text is longer than NearestName::kLongest.
std::size_t distance(std::string_view a, std::string_view b) {
  using Row = std::array<std::size_t, NearestName::kLongest + 1>;
  Row rows[3] = {};
  for (std::size_t j = 0; j <= b.size(); ++j) rows[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    Row& row = rows[i % 3];
    const Row& above = rows[(i + 2) % 3];
    const Row& twoAbove = rows[(i + 1) % 3];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const bool same = lower(a[i - 1]) == lower(b[j - 1]);
      row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (same ? 0U : 1U)});
      const bool swapped = i > 1 && j > 1 && lower(a[i - 1]) == lower(b[j - 2]) &&
                           lower(a[i - 2]) == lower(b[j - 1]);
      if (swapped) row[j] = std::min(row[j], twoAbove[j - 2] + 1);
    }
  }
  return rows[a.size() % 3][b.size()];
}

}  // namespace

void NearestName::consider(std::string_view known) {
  if (wanted_.size() > kLongest || known.size() > kLongest) return;
  const std::size_t changes = distance(wanted_, known);
  if (changes >= distance_ || changes > std::max<std::size_t>(1, known.size() / 3)) return;
  distance_ = changes;
  nearest_ = known;
}

std::string NearestName::suggestion() const {
  return nearest_.empty() ? std::string() : "; did you mean '" + nearest_ + "'?";
}

}  // namespace Ringward::Generic
