// SPDX-License-Identifier: Apache-2.0
#include "model/generic/TableControl.h"

#include "runtime/vex/ValueText.h"

namespace Ringward::Generic {

void TableControl::init(std::uint32_t mode, bool isLocal, std::uint32_t size) {
  constexpr std::uint32_t kModes = static_cast<std::uint32_t>(Quill::QuillType::keyshadow);
  if (mode > kModes) Vex::throwOutOfRange(mode, 0, kModes);
  table_.init(static_cast<Quill::QuillType>(mode), isLocal, size);
}

}  // namespace Ringward::Generic
