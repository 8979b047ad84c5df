// SPDX-License-Identifier: Apache-2.0
//
// Quillctl::Reading: a table as its reader sees it, for one command. What the store raises comes
// out as Failure.
//
// An object belongs to one thread.
#pragma once

#include <string>
#include <vector>

#include "cli/quillctl/Failure.h"
#include "cli/quillctl/Handles.h"
#include "cli/quillctl/Records.h"
#include "cli/quillctl/TableFacts.h"
#include "cli/quillctl/TraceTexts.h"

namespace Quillctl {

// Raises Failure(damaged) that names the table.
[[noreturn]] inline void throwDamaged(const std::string& table, const std::string& finding) {
  throw Failure(ExitStatus::damaged,
                "table " + inQuotes(table) + " is damaged: " + printable(finding));
}

// Whether `reader` is mounted; if not, the files contradict themselves. Tried twice: what failed
// the first time and is all right afterwards was no damage. Raises as requireReadable().
template <class Reader>
bool mounted(Sable::Platform::DebugHandler& handler, const std::string& path, Reader& reader) {
  if (reader.initialize()) return true;
  requireReadable(handler, path);
  return reader.initialize();
}

template <class Value>
class Reading {
 public:
  using Key = KeyOf<Value>;

  // Raises Failure(damaged) if the table cannot be mounted.
  Reading(Sable::Platform::DebugHandler& handler, const TableFacts& facts)
      : name_(facts.name), reader_(handler, facts.path.c_str()) {
    const TraceTexts traces;
    guarded([&] {
      if (!mounted(handler, facts.path, reader_)) {
        throwDamaged(name_, traces.after("QuillReader::initialize()"));
      }
    });
  }

  bool lookup(const Key& key, Value& value) {
    bool found = false;
    guarded([&] { value = reader_.lookup(key, found); });
    return found;
  }

  // Calls `visit` for each record, in the table's order.
  template <class Visit>
  void forEach(const Visit& visit) {
    guarded([&] {
      Value value;
      Quill::IterHint hint;
      for (bool more = reader_.first(value, hint); more;
           more = reader_.next(Key(value.key), value, hint)) {
        visit(static_cast<const Value&>(value));
      }
    });
  }

  std::vector<Value> all() {
    std::vector<Value> values;
    forEach([&](const Value& value) { values.push_back(value); });
    return values;
  }

  // The end of a command whose key is not there: Failure(missing) with the nearest key.
  [[noreturn]] void throwMissing(const Key& key) {
    std::vector<std::string> keys;
    forEach([&](const Value& value) { keys.push_back(keyText<Value>(value.key)); });
    const std::string near = nearest(keyText<Value>(key), keys);
    throw Failure(
        ExitStatus::missing,
        "no key " + inQuotes(RecordTraits<Value>::text(key)) + " in table " + inQuotes(name_) +
            (near.empty() ? "; the table is empty" : "; the nearest is \"" + near + "\""));
  }

 private:
  template <class Action>
  void guarded(const Action& action) {
    try {
      action();
    } catch (const Quill::CorruptionDetectedException& exception) {
      throwDamaged(name_, exception.msg());
    }
  }

  std::string name_;
  Quill::QuillReader<Key, Value> reader_;
};

}  // namespace Quillctl
