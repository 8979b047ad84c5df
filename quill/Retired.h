// SPDX-License-Identifier: Apache-2.0
//
// Quill::Retired: objects that have been replaced but may still be at work further up the stack,
// such as a shadow whose lost connection led to its own replacement. They are destroyed by
// a deferred task of the loop, that is when no other handler runs.
//
// Belongs to the activity thread, to the loop that was current when it was made, which must outlive
// it. Owns what it is given; destroying it destroys the rest at once.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "runtime/vex/ActivityManager.h"

namespace Quill {

template <class T>
class Retired final : private Vex::DeferredTask {
 public:
  explicit Retired(Vex::ActivityManager& manager) : DeferredTask(manager) {
    objects_.reserve(kRoom);
  }
  ~Retired() override = default;

  void add(std::unique_ptr<T> object) {
    objects_.push_back(std::move(object));
    schedule();
  }

 private:
  // More than a turn brings: up to here add() needs no memory, whose want would destroy what it was
  // given.
  static constexpr std::size_t kRoom = 64;

  void run() override {
    while (!objects_.empty()) {
      // Taken out first: a destructor may retire something else.
      const std::unique_ptr<T> gone = std::move(objects_.back());
      objects_.pop_back();
    }
  }

  std::vector<std::unique_ptr<T>> objects_;
};

}  // namespace Quill
