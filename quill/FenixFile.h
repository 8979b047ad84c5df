// SPDX-License-Identifier: Apache-2.0
//
// Quill::FenixFile: the file `fenix` of a table's directory, which names the table's present
// generation. Readers mount by it; the directory's watchers see it replaced.
//
// The file is replaced by rename(2), so that it is whole or absent at any time. Its text is
// "quill-fenix 1 xxxxxxxx\n", the id in eight hexadecimal digits.
//
// Any thread. `rootPath` is the table's directory.
#pragma once

#include <string>

#include "runtime/sable/Platform.h"

namespace Quill {

class FenixFile {
 public:
  // The stored id; 0 if there is no file or what is there is no id.
  static unsigned read(Sable::Platform::DebugHandler& handler, const std::string& rootPath);
  // The same for whoever makes a new generation where there is none, or gives one up: raises
  // Sable::InvalidInitializeException if a file that is there cannot be read.
  static unsigned readKnown(Sable::Platform::DebugHandler& handler, const std::string& rootPath);
  // Raises Sable::InvalidInitializeException with the path and the system's reason.
  static void write(Sable::Platform::DebugHandler& handler, const std::string& rootPath,
                    unsigned id);
  // The ids in those of the table's four mapped files that are there and not empty, 0 for one that
  // is too short. Raises Sable::InvalidInitializeException for a file that cannot be read.
  static std::vector<unsigned> idsIn(const std::string& rootPath);
  // Raises CorruptionDetectedException unless the stored id is `id`; what readKnown() raises if
  // that cannot be told: to have no descriptor left says nothing about the table.
  static void validate(Sable::Platform::DebugHandler& handler, const std::string& rootPath,
                       unsigned id);
};

}  // namespace Quill
