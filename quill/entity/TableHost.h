// SPDX-License-Identifier: Apache-2.0
//
// What an entity that hosts tables is, beside a Vex::Entity, for those who care for tables and not
// for entities: VexQuill::TableHost, a list of VexQuill::HostedTable; and VexQuill::TableGuardian,
// who sees to it that the host goes on when a table fails.
//
// Belongs to the activity thread. A host does not own its tables: both are parts of one entity.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "quill/ControlBase.h"
#include "runtime/sable/Exception.h"

namespace VexQuill {

class HostedTable;

// Without one, what a table raises is its caller's. With one, an operation that failed is done once
// more after the guardian has acted, and given up without a word if it fails again: a read answers
// that nothing is there.
class TableGuardian {
 public:
  // An operation has failed, by damage or for want of memory or space. Puts something usable behind
  // the handle, if need be a local table. Not called from inside the table. Must not raise.
  virtual void tableFailed(HostedTable& table, const Sable::Exception& failure) = 0;
  // A check of the whole table, which a reader's report has led to, found it unsound. Called from
  // inside the table: what is to be done is done later. Must not raise.
  virtual void tableInvalid(HostedTable& table) = 0;

 protected:
  ~TableGuardian() = default;
};

// One table of an entity, whatever its types. A VexQuillMap is one.
class HostedTable {
 public:
  HostedTable(const HostedTable&) = delete;
  HostedTable& operator=(const HostedTable&) = delete;

  virtual Quill::ControlBase& control() noexcept = 0;
  virtual const std::string& fullName() const = 0;
  // The entity was placed in, or taken out of, the tree of entities.
  virtual void handleParent() = 0;

  // Must outlive its use; null: nobody.
  virtual void guardianIs(TableGuardian* guardian) noexcept = 0;

  // The directory under which the table lies once it is shared, empty for the store's own default.
  // Counts from the next init().
  virtual void rootIs(std::string_view root) = 0;

  enum class Contents {
    dropped,  // the handle is empty afterwards
    carried,  // what the handle holds goes into the new table, in place of what stands there
    adopted   // what stands in the new table stays, what the handle holds is forgotten
  };
  // Mounts anew: as the writer of a table in files, or of a local one. A table of another size that
  // lies there is removed first. What can be read of the present table before damage is met is what
  // is carried. Raises as init() does; the handle is local then, with what was to be carried.
  virtual void remount(bool isLocal, unsigned size, Contents contents) = 0;

 protected:
  HostedTable() = default;
  ~HostedTable() = default;
};

class TableHost {
 public:
  std::span<HostedTable* const> tables() const noexcept { return tables_; }

  void tableGuardianIs(TableGuardian* guardian) noexcept {
    for (HostedTable* const table : tables_) table->guardianIs(guardian);
  }
  void tableRootIs(std::string_view root) {
    for (HostedTable* const table : tables_) table->rootIs(root);
  }

 protected:
  TableHost() = default;
  TableHost(const TableHost&) = delete;
  TableHost& operator=(const TableHost&) = delete;
  ~TableHost() = default;

  void tableIs(HostedTable& table) { tables_.push_back(&table); }
  void handleTablesParent() {
    for (HostedTable* const table : tables_) table->handleParent();
  }

 private:
  std::vector<HostedTable*> tables_;
};

}  // namespace VexQuill
