// SPDX-License-Identifier: Apache-2.0
//
// What must be so of one image, whoever meets it: readers that were there before the death, the
// writer that comes after it, and the readers again.
//
//  1. If the image is at rest, the next writer keeps it and finds the contents before or after the
//     operation; otherwise it begins anew, empty, under the next id. Nothing third.
//  2. The next writer can insert, change and remove.
//  3. A reader, a shadow and a key shadow that attached before the operation find, key by key, what
//     was there before or after it. (Where the dead writer was itself giving the table up: what was
//     there, or nothing, or they report damage. Never a mixture.)
//  4. When the next writer has attached they come to hold what it holds, and their listeners know
//     it. One key may be late: the one whose change was made and not yet announced at the death. It
//     is right again when it is changed again.
//
// Raises std::runtime_error for what is not so. Belongs to one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "tests/quill/kills/Image.h"
#include "tests/quill/kills/KillRecord.h"

namespace QuillTest {

struct KillCase {
  const Image* origin = nullptr;  // to which the readers attached; null: there was no table
  const Image* start = nullptr;   // ahead of the operation
  unsigned maxSlots = 0;
  bool recovery = false;  // `start` is what a dead writer left, and the operation gives it up
  KillModel before;       // of the operation; of a recovery: what `origin` holds
  KillModel after;
  Portus::IntfId key;  // that the operation changes
};

struct KillVerdict {
  bool kept = false;
  bool unannounced = false;
};

template <class Record>
class ImageCheck {
 public:
  // `directory`: of the check's own; its files are used again for each image.
  explicit ImageCheck(std::string directory);

  // `judge`: asked when the image is in the directory and nothing else has happened.
  KillVerdict check(const KillCase& given, const Image& image,
                    const std::function<void(bool atRest)>& judge);

 private:
  class Run;
  std::string directory_;
};

}  // namespace QuillTest

#include "tests/quill/kills/ImageCheck-inl.h"
