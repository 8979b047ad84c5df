// SPDX-License-Identifier: Apache-2.0
//
// Quill::QuillTemporary: a table in this process's own memory, with no files and no readers: what a
// handle stands on until somebody mounts it.
//
// As QuillWriter, with a localMem of true.
#pragma once

#include "quill/QuillWriter.h"

namespace Quill {

template <class KEY, class VALUE>
class QuillTemporary final : public QuillWriter<KEY, VALUE> {
 public:
  using QuillWriter<KEY, VALUE>::QuillWriter;
  ~QuillTemporary() override = default;
};

}  // namespace Quill
