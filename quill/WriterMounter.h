// SPDX-License-Identifier: Apache-2.0
//
// Quill::WriterMounter: watches the directory of a table for its writer. When a reader reports
// damage it has the whole table checked, and tells the readers to mount again if all is well; at
// any change it has the files checked.
//
// Belongs to the activity thread, to the loop that was current when it was made, and to its handle,
// which outlives it.
#pragma once

#include <string>

#include "quill/Mountable.h"
#include "quill/MounterBase.h"
#include "quill/MounterSm.h"

namespace Quill {

class WriterMounter final : public MounterBase {
 public:
  // Begins to watch; raises Sable::InvalidInitializeException if that is impossible.
  WriterMounter(Sable::Platform::DebugHandler& handler, Mountable& map);

  // Acts on a new report, once for each text, and checks the files. Raises
  // CorruptionDetectedException for a table that does not stand the check, and what
  // Mountable::validateFiles() raises.
  void notify(const std::string& eventName) override;

 private:
  Mountable& map_;
  std::string lastCorruption_;
  MounterSm mounterSm_;  // the last member: it may call notify() as soon as it stands
};

}  // namespace Quill
