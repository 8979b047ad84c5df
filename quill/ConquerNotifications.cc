// SPDX-License-Identifier: Apache-2.0
#include "quill/ConquerNotifications.h"

#include "quill/Exceptions.h"
#include "quill/Text.h"

namespace Quill {

void ConquerNotifications::outOfRange(std::uint32_t index) const {
  raise<CorruptionDetectedException>(
      "ConquerReader::ConquerSlots::operator[] out-of-range index:", index, " max:", word_.value);
}

}  // namespace Quill
