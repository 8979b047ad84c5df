// SPDX-License-Identifier: Apache-2.0
//
// Quill::Mountable: what a mounter needs of the handle that it serves. A QuillMap is one; tests of
// the mounters bring their own.
//
// Belongs to the activity thread.
#pragma once

#include <string>

#include "quill/QuillBase.h"

namespace Quill {

class Mountable {
 public:
  Mountable(const Mountable&) = delete;
  Mountable& operator=(const Mountable&) = delete;

  // The table's name as RootPath takes it.
  virtual const std::string& fullName() const = 0;
  virtual QuillType mode() const = 0;
  // What notifying() said last.
  virtual bool notifyingOn() const = 0;

  virtual std::string rootPath() const = 0;
  virtual unsigned fenixId() const = 0;
  virtual unsigned mountStatus() const = 0;
  virtual bool validate() = 0;
  virtual bool validateFiles() = 0;

  // Tries to mount what stands in the table's directory; mountStatus() tells the outcome. May raise
  // what the implementation raises beyond ordinary absence; the handle is unmounted then.
  virtual void attach() = 0;
  // Lets go of what is mounted: the handle reads as empty.
  virtual void detach() = 0;

 protected:
  Mountable() = default;
  ~Mountable() = default;
};

}  // namespace Quill
