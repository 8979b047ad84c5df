// SPDX-License-Identifier: Apache-2.0
//
// Quill::ValidatorBase: the hook by which a check of a table rides on the writer's ordinary
// iteration.
#pragma once

#include <cstdint>
#include <string>

#include "runtime/sable/Platform.h"

namespace Quill {

class ValidatorBase {
 public:
  ValidatorBase() = default;
  ValidatorBase(const ValidatorBase&) = delete;
  ValidatorBase& operator=(const ValidatorBase&) = delete;
  virtual ~ValidatorBase() = default;

  // Called for each slot that first() and next() hand out.
  virtual void markOccupied(std::uint32_t /*slot*/) {}

  // True if the file has at least `size` bytes; else raises CorruptionDetectedException.
  static bool validateFile(Sable::Platform::DebugHandler& handler, const std::string& filename,
                           std::uint32_t size);
};

}  // namespace Quill
