// SPDX-License-Identifier: Apache-2.0
//
// Quill::MounterBase: what watches a table's directory for a handle and decides when to mount.
//
// Belongs to the activity thread.
#pragma once

#include <string>

#include "runtime/sable/Platform.h"

namespace Quill {

class MounterBase : protected Sable::Debuggable {
 public:
  explicit MounterBase(Sable::Platform::DebugHandler& handler) : Debuggable(handler) {}
  MounterBase(const MounterBase&) = delete;
  MounterBase& operator=(const MounterBase&) = delete;
  virtual ~MounterBase() = default;

  // Something happened to the table: the name of the file of the directory that changed, or what
  // else was the occasion. May raise what the mounting raises.
  virtual void notify(const std::string& eventName) = 0;
  // Timeouts since the table was last fully mounted.
  virtual unsigned remountTimeouts() const { return 0; }

  // Calls of notify().
  unsigned notifyCount() const noexcept { return notifyCount_; }

 protected:
  unsigned notifyCount_ = 0;
};

}  // namespace Quill
