// SPDX-License-Identifier: Apache-2.0
//
// Quillctl::Session: what every command works with: its arguments, its outputs, the loop, and the
// ways from a table's name to the table.
//
// Belongs to one thread. Streams and the loop are the caller's and outlive it.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "cli/quillctl/Arguments.h"
#include "cli/quillctl/Records.h"
#include "cli/quillctl/TableFacts.h"
#include "runtime/sable/Platform.h"
#include "runtime/vex/EpollActivityManager.h"

namespace Quillctl {

class Session {
 public:
  // `input` is the descriptor that a batch reads.
  Session(Arguments arguments, int input, std::ostream& out, std::ostream& err,
          Vex::EpollActivityManager& loop)
      : arguments_(std::move(arguments)), input_(input), out_(out), err_(err), loop_(loop) {}

  const Arguments& arguments() const noexcept { return arguments_; }
  int input() const noexcept { return input_; }
  std::ostream& out() noexcept { return out_; }
  Vex::EpollActivityManager& loop() noexcept { return loop_; }
  Sable::Platform::DebugHandler& handler() noexcept { return handler_; }

  // Says something beside the output, on standard error.
  void note(const std::string& text);
  // The directory of the table that was named. Raises Failure(usage) for a name that cannot be.
  std::string tablePath();
  // What that table tells. Raises Failure(missing), with the nearest name that there is, if there
  // is no such table, and Failure(refused) if its files must not be read.
  TableFacts facts();
  // The same, and its record type is one that quillctl knows; raises Failure(damaged) if the header
  // cannot be believed, Failure(refused) for records of another type.
  TableFacts knownFacts();

 private:
  Arguments arguments_;
  int input_;
  std::ostream& out_;
  std::ostream& err_;
  Vex::EpollActivityManager& loop_;
  Sable::Platform::DebugHandler handler_{"quillctl"};
};

// The tables below a root, by name, and what else lies there.
struct TableNames {
  std::vector<std::string> tables;
  std::vector<std::string> ignored;  // file names
};
// Raises Failure(missing) if there is no such directory, Failure(refused) if it cannot be read.
TableNames tableNames(Sable::Platform::DebugHandler& handler, const std::string& root);

// Calls `visit` for the record type in the header. REQUIRES: `facts` come from knownFacts().
template <class Visit>
void visitTable(const TableFacts& facts, Visit&& visit) {
  static_cast<void>(visitType(facts.slots.valueType, std::forward<Visit>(visit)));
}

}  // namespace Quillctl
