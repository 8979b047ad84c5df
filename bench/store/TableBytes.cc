// SPDX-License-Identifier: Apache-2.0
#include <filesystem>

#include "bench/store/QuillTable.h"

namespace StoreBench {

std::size_t tableBytes(const std::string& path) {
  std::size_t sum = 0;
  for (const auto& entry : std::filesystem::directory_iterator(path)) {
    if (entry.is_regular_file()) sum += entry.file_size();
  }
  return sum;
}

}  // namespace StoreBench
