// SPDX-License-Identifier: Apache-2.0
//
// VexQuill::VexQuillMap<PARENT, VALUE, KEY>: a table as a collection attribute of an entity. The
// entity has it as a member, calls entity() in its constructor and handleParent() in its own
// handleParent(); it offers the rest of the world its operations and a CollectionControl.
//
// Belongs to the activity thread. The parent owns it and is not owned. References that an operation
// returns are valid until the next operation on the map or turn of the loop.
//
// PARENT is a Vex::Entity, whose name and place in the tree of entities name the table:
//   - before the entity is placed: <entity>/<collection>
//   - under a parent: <full name of the parent>/<entity>/<collection>, for good.
// VALUE is a VexQuillMapValueWrapper.
//
// Invariants:
//  1. From entity() on there is a table to write to: a local one of 100 slots, until somebody
//  mounts
//     another by init(), which is not forbidden before the placement but undone by it.
//  2. An entity can be placed once. Taken out of the tree, it lets go of its table.
//  3. With a guardian nothing of what the guarded operations meet in a table reaches their caller.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quill/QuillMap.h"
#include "quill/entity/CollectionControl.h"
#include "quill/entity/TableHost.h"
#include "quill/entity/VexNotifier.h"
#include "quill/entity/VexQuillMapValueWrapper.h"
#include "runtime/vex/String8.h"

namespace VexQuill {

template <class PARENT, class VALUE, class KEY>
class VexQuillMap final : public Quill::QuillMap<KEY, VALUE, VexNotifier<KEY, VALUE, PARENT>>,
                          public HostedTable {
 public:
  using Notifier = VexNotifier<KEY, VALUE, PARENT>;
  using Map = Quill::QuillMap<KEY, VALUE, Notifier>;
  using NotifyMember = void (PARENT::*)(const KEY&);

  // Good for nothing before entity().
  VexQuillMap() : Map({}, {}) {}
  ~VexQuillMap() override;

  // Binds the map to its parent. REQUIRES: called once, from the parent's constructor.
  void entity(const Vex::String8& name, PARENT* parent, NotifyMember notify);
  // The parent was placed under an entity of its own, or taken away from one. What was written
  // before the first placement is gone after it. Raises Sable::InvalidInitializeException for a
  // second placement.
  void handleParent() override;

  void init(Quill::QuillType mode, bool isLocal, unsigned int size) override;
  // The guardian hears of a table that is not sound, and not of a check that cannot be made.
  bool validate() override;
  bool validateFiles() override;
  std::string classType() const override;

  // HostedTable.
  Quill::ControlBase& control() noexcept override { return *this; }
  const std::string& fullName() const override { return Map::fullName(); }
  void guardianIs(TableGuardian* guardian) noexcept override { guardian_ = guardian; }
  void rootIs(std::string_view root) override { root_ = root; }
  void remount(bool isLocal, unsigned size, Contents contents) override;

  // Of the generic access: there is no such question to a table. Raises
  // Sable::UnimplementedException.
  [[noreturn]] bool isMemberOf(const KEY& key) const;

  // The guarded operations, in the sense of QuillMap's: damage goes to corruptionDetected(), which
  // raises for a writer; then to the guardian, if there is one.

  // The value of a key, a default one for none.
  VALUE record(const KEY& key) const;
  // The same, no value for none.
  std::optional<VALUE> find(const KEY& key) const;
  void recordIs(const VALUE& value);
  // What was removed, a default value for none.
  VALUE recordDel(const KEY& key);
  void recordDelAll();
  void recordCommit();
  // The keys, in the order of the table. `key` need not be there: a walk goes on behind a key that
  // was removed under it.
  std::optional<KEY> firstKey() const;
  std::optional<KEY> keyAfter(const KEY& key) const;

  // A walk that survives every change of the table. It shows each value as it was when the walk
  // came to it.
  class IteratorConst {
   public:
    explicit IteratorConst(const VexQuillMap& map) : map_(&map) {
      value_ = map.step([&](VALUE& value) { return map.Map::first(value, hint_); });
    }
    explicit operator bool() const noexcept { return value_.has_value(); }
    KEY key() const noexcept { return Quill::keyOf<KEY>(*value_); }
    const VALUE& value() const noexcept { return *value_; }
    IteratorConst& operator++() {
      const KEY before = key();
      value_ = map_->step([&](VALUE& value) { return map_->Map::next(before, value, hint_); });
      return *this;
    }

   private:
    const VexQuillMap* map_;
    Quill::IterHint hint_;
    std::optional<VALUE> value_;
  };
  IteratorConst iteratorConst() const { return IteratorConst(*this); }

 private:
  std::string nameInTree() const;
  // The table's full name as a shared one.
  std::string sharedName() const;
  // What can be read before damage is met.
  std::vector<VALUE> readable() const;
  // Removes the table that lies there if it was made for another size: the number of buckets
  // follows from the size, so it cannot be gone on with.
  void removeOtherSize(unsigned size) const;
  // Does `operation`, and once more if the guardian has something to mend.
  template <class Operation>
  void guarded(Operation&& operation) const;
  // One step of a walk. Damage ends the walk.
  template <class Step>
  std::optional<VALUE> step(Step&& take) const;
  // Not guarded.
  void delAll();

  PARENT* parent_ = nullptr;
  bool reparented_ = false;
  // Of the table's path: what entity() and handleParent() have made, and what rootIs() has said.
  std::string treeName_;
  std::string root_;
  TableGuardian* guardian_ = nullptr;
};

}  // namespace VexQuill

#include "quill/entity/VexQuillMap-inl.h"
