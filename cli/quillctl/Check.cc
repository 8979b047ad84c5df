// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/Check.h"

#include <cerrno>
#include <cstring>
#include <set>
#include <vector>

#include "cli/quillctl/Handles.h"
#include "cli/quillctl/PrivateCopy.h"
#include "cli/quillctl/Reading.h"
#include "cli/quillctl/Records.h"
#include "cli/quillctl/TraceTexts.h"
#include "quill/FenixFile.h"
#include "quill/Util.h"

namespace Quillctl {

namespace {

// The writer lock of a table for a scope, if nobody else has it and it may be taken.
class TryLock {
 public:
  TryLock(Sable::Platform::DebugHandler& handler, const std::string& path)
      : handler_(handler), root_(handler, path, true) {
    handle_ = Quill::Util::acquireWriterLock(handler_, root_);
    if (handle_ < 0) error_ = errno;
  }
  TryLock(const TryLock&) = delete;
  TryLock& operator=(const TryLock&) = delete;
  ~TryLock() {
    if (handle_ >= 0) Quill::Util::releaseWriterLock(handler_, handle_);
  }

  bool held() const noexcept { return handle_ >= 0; }
  int error() const noexcept { return error_; }

 private:
  Sable::Platform::DebugHandler& handler_;
  const Quill::RootPath root_;
  int handle_ = -1;
  int error_ = 0;
};

// The directory of the copy means nothing to anybody.
std::string withPathOf(std::string text, const PrivateCopy& copy, const std::string& path) {
  for (std::size_t at = 0; (at = text.find(copy.table(), at)) != std::string::npos;
       at += path.size()) {
    text.replace(at, copy.table().size(), path);
  }
  return text;
}

// What the store said of a table that it gave up.
std::string findingOf(const TraceTexts& traces, const PrivateCopy& copy, const TableFacts& facts) {
  std::string found = traces.after(copy.table() + " validation failed: ");
  if (!found.empty()) return withPathOf(found, copy, facts.path);
  if (facts.fenix == 0) return "the file fenix names no generation";
  const std::string formatted = traces.after(" re-formatted " + copy.table() + "/");
  if (!formatted.empty()) {
    return "the file " + formatted + " belongs to another generation than the file fenix says";
  }
  return "the table's writer would give it up";
}

// The size for which the table was made: a writer finds its chains by it. One that does not go with
// the chains that there are is damage, which a writer of any other size finds; it might be
// enormous.
std::uint32_t sizeOf(const TableFacts& facts) {
  const std::uint32_t size = facts.slots.maxSlots;
  const std::uint32_t buckets = Quill::BucketTable::bucketsFor(size, Mem::pageSize_);
  return facts.buckets.numBuckets == buckets ? size : 1;
}

template <class Value>
Verdict tryToAttach(Sable::Platform::DebugHandler& handler, const TableFacts& facts) {
  const PrivateCopy copy(facts);
  Verdict verdict;
  const TraceTexts traces;
  try {
    const unsigned fenix = Quill::FenixFile::readKnown(handler, copy.table());
    Quill::QuillWriter<KeyOf<Value>, Value> writer(handler, copy.table().c_str(), sizeOf(facts),
                                                   false, facts.slots.classType);
    writer.initialize();
    verdict.entries = writer.members();
    if (fenix == 0 || writer.fenixId() != fenix) {
      verdict.entries = facts.slots.occupiedSlots;
      verdict.finding = findingOf(traces, copy, facts);
    }
    writer.detach();
  } catch (const Quill::CorruptionDetectedException& exception) {
    verdict.finding = withPathOf(exception.msg(), copy, facts.path);
  } catch (const Sable::Exception& exception) {
    // The copy is this process's own, of regular files: what cannot be done with it is no damage.
    throw Failure(
        ExitStatus::refused,
        "the check could not be made: " + printable(withPathOf(exception.msg(), copy, facts.path)));
  }
  return verdict;
}

template <class Value>
class ReaderCheck {
  using Key = KeyOf<Value>;

 public:
  ReaderCheck(Sable::Platform::DebugHandler& handler, const TableFacts& facts)
      : handler_(handler), path_(facts.path), reader_(handler, facts.path.c_str()) {}

  Verdict verdict() {
    Verdict result;
    result.how = Verdict::How::inUse;
    try {
      const TraceTexts traces;
      if (!mounted(handler_, path_, reader_)) {
        result.finding = traces.after("QuillReader::initialize() ");
        return result;
      }
      // A key that the walk meets and a lookup misses may have been removed in between. One that is
      // still met and still missed the second time is on a chain where nobody finds it.
      const std::set<Key> missed = pass(nullptr);
      if (!missed.empty()) {
        const std::set<Key> again = pass(&missed);
        if (!again.empty()) {
          result.finding = "key " + keyText<Value>(*again.begin()) +
                           " is on a chain on which no lookup finds it";
        }
      }
    } catch (const Quill::CorruptionDetectedException& exception) {
      result.finding = exception.msg();
    }
    result.entries = met_;
    return result;
  }

 private:
  // The keys that the walk meets, of `among` only if there is one, and a lookup misses.
  std::set<Key> pass(const std::set<Key>* among) {
    std::set<Key> missed;
    Value value;
    Quill::IterHint hint;
    met_ = 0;
    for (bool more = reader_.first(value, hint); more;
         more = reader_.next(Key(value.key), value, hint)) {
      ++met_;
      if (among != nullptr && !among->contains(value.key)) continue;
      bool found = false;
      reader_.lookup(Key(value.key), found);
      if (!found) missed.insert(value.key);
    }
    return missed;
  }

  Sable::Platform::DebugHandler& handler_;
  const std::string path_;
  Quill::QuillReader<Key, Value> reader_;
  std::uint32_t met_ = 0;
};

// Of a table whose records are of an unknown type: the four headers.
std::string headerFinding(const TableFacts& facts) {
  const auto of = [&](const char* name, const FileFacts& file, std::string_view magic,
                      std::uint64_t wanted) -> std::string {
    const std::string file_is = std::string("the file ") + name + ": ";
    if (file.error != 0) return file_is + std::strerror(file.error);
    if (file.magic != magic) return file_is + "bad magic " + inQuotes(file.magic);
    if (file.fenix != facts.fenix) {
      return file_is + "generation " + std::to_string(file.fenix) + ", but the file fenix says " +
             std::to_string(facts.fenix);
    }
    if (file.bytes < wanted) {
      return file_is + std::to_string(file.bytes) + " bytes, wanted " + std::to_string(wanted);
    }
    return {};
  };
  const SlotsFacts& slots = facts.slots;
  std::string found =
      of("slots", slots, "QUILLSLT",
         176 + std::uint64_t{slots.slotSize} + std::uint64_t{slots.slotSize} * slots.numSlots);
  if (found.empty() && slots.occupiedSlots > slots.numSlots) {
    found = "the file slots: " + std::to_string(slots.occupiedSlots) + " entries in " +
            std::to_string(slots.numSlots) + " slots";
  }
  if (found.empty()) {
    found =
        of("buckets", facts.buckets, "QUILLBKT", 24 + std::uint64_t{8} * facts.buckets.numBuckets);
  }
  for (std::size_t i = 0; i < facts.queues.size() && found.empty(); ++i) {
    const QueueFacts& queue = facts.queues[i];
    found = of(i == 0 ? "conquer.1" : "conquer.2", queue, "QUILLCQR",
               56 + std::uint64_t{12} * queue.notifications);
  }
  return found;
}

template <class Value>
Verdict checkOf(Sable::Platform::DebugHandler& handler, const TableFacts& facts) {
  const TryLock lock(handler, facts.path);
  if (lock.held()) return tryToAttach<Value>(handler, facts);
  if (lock.error() == EAGAIN) return ReaderCheck<Value>(handler, facts).verdict();
  Verdict verdict = tryToAttach<Value>(handler, facts);
  verdict.how = Verdict::How::unlocked;
  // A writer that came meanwhile makes a copy look damaged that is none.
  if (TableFacts(handler, facts.path).owner.alive) {
    return ReaderCheck<Value>(handler, facts).verdict();
  }
  return verdict;
}

}  // namespace

const char* howText(Verdict::How how) noexcept {
  switch (how) {
    case Verdict::How::locked:
      return "locked";
    case Verdict::How::unlocked:
      return "unlocked";
    case Verdict::How::inUse:
      return "in use";
    case Verdict::How::headers:
      return "headers only";
  }
  return "";
}

Verdict checkTable(Sable::Platform::DebugHandler& handler, const TableFacts& facts) {
  Verdict verdict;
  const bool known = visitType(facts.slots.valueType,
                               [&]<class Value>() { verdict = checkOf<Value>(handler, facts); });
  if (known) return verdict;
  // A header that cannot be believed names no type either; any of them finds that.
  if (!facts.slots.identified()) return checkOf<CounterIntf>(handler, facts);
  verdict.how = Verdict::How::headers;
  verdict.finding = headerFinding(facts);
  verdict.entries = facts.slots.occupiedSlots;
  return verdict;
}

}  // namespace Quillctl
