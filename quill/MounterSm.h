// SPDX-License-Identifier: Apache-2.0
//
// Quill::MounterSm: watches a table's directory by inotify(7), also before it exists: then the
// nearest directory above it that does.
//
// Belongs to the activity thread; watches on the loop that was current when it was made, which must
// outlive it.
//
// Invariants:
//  1. Each change of one of the table's files (MounterSm.cc lists them) is followed by at least one
//     notify() with that file's name; several changes of one file within a turn may be one.
//  2. What notify() raises ends here, with a log line: the loop goes on.
//  3. Events that were lost by the kernel count as a change of everything.
//
// Not seen: that a directory further up than the table's parent is renamed while the table is
// there.
#pragma once

#include <memory>
#include <string>

#include "quill/MounterBase.h"
#include "runtime/sable/Platform.h"

namespace Quill {

class MounterSm {
 public:
  // `fullName` as RootPath takes it. `mounter` must outlive this.
  MounterSm(Sable::Platform::DebugHandler& handler, const std::string& fullName,
            MounterBase& mounter);
  MounterSm(const MounterSm&) = delete;
  MounterSm& operator=(const MounterSm&) = delete;
  ~MounterSm();

  // False: nothing can be watched (no inotify instance, no loop); notify() will not be called.
  bool ready() const noexcept;

 private:
  class Watcher;
  std::unique_ptr<Watcher> watcher_;
};

}  // namespace Quill
