// SPDX-License-Identifier: Apache-2.0
#include "tests/quill/kills/KillRecord.h"

#include <algorithm>
#include <string>

namespace QuillTest {

const std::vector<Portus::IntfId>& KillKeys::all() {
  static const std::vector<Portus::IntfId> keys = [] {
    std::map<std::uint32_t, std::vector<Portus::IntfId>> byBucket;
    for (unsigned i = 0; i < 9000; ++i) {
      const auto key = Portus::IntfId::fromName("eth" + std::to_string(i));
      byBucket[key.hash() % kBuckets].push_back(key);
    }
    std::vector<Portus::IntfId> result;
    unsigned bucket = 0;
    for (const unsigned chain : {0U, 200U, 508U}) {
      std::vector<Portus::IntfId> chosen(byBucket.at(chain).begin(),
                                         byBucket.at(chain).begin() + kChain);
      std::sort(chosen.begin(), chosen.end());
      result.insert(result.end(), chosen.begin(), chosen.end());
    }
    while (result.size() < kChains * kChain + kSpread) {
      if (++bucket != 200) result.push_back(byBucket.at(bucket).front());
    }
    return result;
  }();
  return keys;
}

}  // namespace QuillTest
