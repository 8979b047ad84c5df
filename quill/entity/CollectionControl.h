// SPDX-License-Identifier: Apache-2.0
//
// VexQuill::CollectionControl: the control attribute of a collection that lives in a table: through
// it, whoever decides that a table is to be shared, or is another process's, mounts it.
//
// A value that refers to the map of an entity; good as long as the entity. Activity thread only.
#pragma once

#include "quill/ControlBase.h"

namespace VexQuill {

class CollectionControl final {
 public:
  explicit CollectionControl(Quill::ControlBase& map) noexcept : map_(&map) {}

  Quill::ControlBase& control() const noexcept { return *map_; }
  Quill::ControlBase* operator->() const noexcept { return map_; }

  // The same collection.
  friend bool operator==(const CollectionControl& a, const CollectionControl& b) noexcept {
    return a.map_ == b.map_;
  }

 private:
  Quill::ControlBase* map_;
};

}  // namespace VexQuill
