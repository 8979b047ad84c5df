// SPDX-License-Identifier: Apache-2.0
#include "quill/ValidatorBase.h"

#include "quill/Exceptions.h"
#include "quill/Text.h"
#include "quill/Util.h"

namespace Quill {

bool ValidatorBase::validateFile(Sable::Platform::DebugHandler& handler,
                                 const std::string& filename, std::uint32_t size) {
  const unsigned actual = Util::memSize(handler, filename);
  if (actual >= size) return true;
  raise<CorruptionDetectedException>("ValidatorBase::validateFile() wrong size ", filename,
                                     " size:", actual, " expected:", size);
}

}  // namespace Quill
