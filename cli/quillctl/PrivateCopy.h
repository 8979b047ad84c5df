// SPDX-License-Identifier: Apache-2.0
//
// Quillctl::PrivateCopy: a table's files once more, in a directory of this process below the
// system's one for temporary files (TMPDIR), where a writer may do its worst. Holes stay holes.
//
// An object belongs to one thread; its directory goes with it. A process that is killed meanwhile
// leaves the directory.
#pragma once

#include <string>

#include "cli/quillctl/TableFacts.h"

namespace Quillctl {

class PrivateCopy {
 public:
  // Raises Failure(refused) with the path and the system's reason if it cannot be made. A file that
  // the table does not have is left out.
  explicit PrivateCopy(const TableFacts& facts);
  PrivateCopy(const PrivateCopy&) = delete;
  PrivateCopy& operator=(const PrivateCopy&) = delete;
  ~PrivateCopy();

  // The directory of the copied table.
  const std::string& table() const noexcept { return table_; }

 private:
  void remove() const noexcept;
  void copyIn(const std::string& path, const std::string& name) const;

  std::string directory_;
  std::string table_;
};

}  // namespace Quillctl
