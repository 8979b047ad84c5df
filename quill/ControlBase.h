// SPDX-License-Identifier: Apache-2.0
//
// Quill::ControlBase: what can be done with a handle on a table without knowing the types of its
// keys and values: mount it, ask how it stands, tune it. A QuillMap is one.
//
// Belongs to the activity thread. A handle is never owned, nor deleted, through this class.
#pragma once

#include <cstdint>
#include <string>

#include "quill/Counters.h"
#include "quill/QuillBase.h"

namespace Quill {

class ControlBase {
 public:
  ControlBase(const ControlBase&) = delete;
  ControlBase& operator=(const ControlBase&) = delete;

  virtual Reader::Counters readerCounters() const = 0;
  virtual Writer::Counters writerCounters() const = 0;
  // Gives the handle its mode and mounts it. QuillMap.h has the rules.
  virtual void init(QuillType mode, bool isLocal, unsigned int size) = 0;
  // The writer's: removes the table's files. Allowed on a detached writer too.
  virtual void cleanup() = 0;
  virtual std::string rootPath() const = 0;
  virtual std::string quillName() const = 0;
  virtual bool validate() = 0;
  virtual bool validateFiles() = 0;
  // 0 not mounted, 1 mounted, 2 mounted and connected to the writer.
  virtual unsigned mountStatus() const = 0;
  virtual std::uint64_t sequence() const = 0;
  // The generation that is mounted, 0 if none is.
  virtual unsigned fenixId() const = 0;
  // "<name>:<pid>" of the table's last writer.
  virtual std::string owner() const = 0;
  // Lets go of the table; the handle reads as empty and may be mounted again by init().
  virtual void controlDetach() = 0;
  virtual bool resize() const = 0;
  virtual unsigned maxSize() const = 0;
  virtual unsigned capacity() const = 0;
  // Whether a shadow follows its table. Off also holds up mounting; on catches up with both.
  virtual void notifying(bool on) const = 0;
  // For how long a shadow may work at one go, 0 for as long as it takes, and after how many entries
  // it looks at the clock.
  virtual void yieldTimeIs(double const& seconds) const = 0;
  virtual void sampleIs(unsigned int entries) const = 0;

 protected:
  ControlBase() = default;
  ~ControlBase() = default;
};

}  // namespace Quill
