// SPDX-License-Identifier: Apache-2.0
//
// Quillctl::Writing: a table with this process as its writer, for one command.
//
// The store's writer gives a damaged table's contents up when it attaches. So this checks first and
// refuses, unless it is told to go on.
//
// Belongs to the loop's thread, the loop being current. From its making on the process is not ended
// by SIGINT, SIGTERM and SIGHUP; commands that take long ask stopped().
#pragma once

#include <cstdint>
#include <string>

#include "cli/quillctl/Check.h"
#include "cli/quillctl/Handles.h"
#include "cli/quillctl/Reading.h"
#include "cli/quillctl/Session.h"
#include "cli/quillctl/StopSignals.h"

namespace Quillctl {

// Raises Failure(refused) that names the owner if a writer lives, Failure(damaged) if the table is
// damaged and --force was not given.
void requireWritable(Session& session, const TableFacts& facts);

// Changes after which those who connect and sleep are looked after.
inline constexpr std::uint32_t kChangesPerTurn = 256;

// Serves the readers that connect, until none of them has wanted anything for a while or they have
// had their time. A reader that is turned away before it was answered stays away for a second, and
// learns of the changes only from the writer after that.
void serveReaders(Session& session) noexcept;

template <class Value>
class Writing {
 public:
  using Key = KeyOf<Value>;

  // Attaches to the table of `facts`, keeping its size. Raises as requireWritable(), and
  // Failure(refused) for what the store refuses.
  Writing(Session& session, const TableFacts& facts)
      : Writing(session, facts.path, facts.slots.maxSlots, facts.slots.classType) {}
  // Makes a table.
  Writing(Session& session, const std::string& path, std::uint32_t size,
          const std::string& classType)
      : session_(session),
        stop_(session.loop()),
        writer_(session.handler(), path.c_str(), size, false, classType) {
    writer_.initialize();
  }
  Writing(const Writing&) = delete;
  Writing& operator=(const Writing&) = delete;
  ~Writing() { serveReaders(session_); }

  void put(const Value& value) {
    writer_.write(value, true);
    changed();
  }
  bool del(const Key& key) {
    Value old;
    const bool was = writer_.remove(key, old);
    if (was) changed();
    return was;
  }
  template <class Visit>
  void forEach(const Visit& visit) {
    Value value;
    Quill::IterHint hint;
    for (bool more = writer_.first(value, hint); more;
         more = writer_.next(Key(value.key), value, hint)) {
      visit(static_cast<const Value&>(value));
    }
  }
  // Off: the changes are made inside a turn of the loop, which looks after everybody between them.
  void turnsIs(bool on) noexcept { turns_ = on; }
  // A signal asks the command to end.
  bool stopped() { return stop_.came() != 0; }
  std::uint32_t changes() const noexcept { return changes_; }

  // Prints what was done, in `word` ("written", "removed"), and how the table stands.
  void report(const char* word) {
    const TableReport now{changes_, writer_.members(), writer_.sequence()};
    if (session_.arguments().json) {
      session_.out() << lineOf({{"table", printable(writer_.quillName())},
                                {word, now.changes},
                                {"entries", now.entries},
                                {"sequence", now.sequence}});
    } else {
      session_.out() << now.changes << ' ' << word << ", " << now.entries << " entries in table "
                     << printable(writer_.quillName()) << '\n';
    }
  }

 private:
  struct TableReport {
    std::uint32_t changes;
    std::uint32_t entries;
    std::uint64_t sequence;
  };

  void changed() {
    if (++changes_ % kChangesPerTurn == 0 && turns_) session_.loop().runTurn(0);
  }

  Session& session_;
  StopSignals stop_;
  Quill::QuillWriter<Key, Value> writer_;
  std::uint32_t changes_ = 0;
  bool turns_ = true;
};

}  // namespace Quillctl
