// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/WriteCommands.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <numeric>
#include <random>
#include <vector>

#include "cli/quillctl/Writing.h"

namespace Quillctl {

namespace {

// The order and the values of fill; the same for a seed everywhere.
template <class Value>
std::vector<Value> fillRecords(std::uint32_t count, std::uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<std::uint32_t> order(count);
  std::iota(order.begin(), order.end(), 0U);
  // Not std::shuffle, whose order is the library's own.
  for (std::uint32_t i = count; i > 1; --i) std::swap(order[i - 1], order[random() % i]);
  std::vector<Value> values;
  values.reserve(count);
  for (const std::uint32_t i : order) {
    const auto tx = static_cast<std::uint32_t>(random());
    const auto rx = static_cast<std::uint32_t>(random());
    const auto rxOther = static_cast<std::uint32_t>(random());
    values.push_back(Value{RecordTraits<Value>::fillKey(i), tx, rx, rxOther});
  }
  return values;
}

template <class Value>
std::uint32_t fillCount(const std::string& text) {
  try {
    return numberOf(text, "COUNT", 1, RecordTraits<Value>::kMaxFill);
  } catch (const Failure& failure) {
    throw Failure(failure.status(), std::string(failure.what()) + "; the keys are " +
                                        std::string(RecordTraits<Value>::kFillKeys));
  }
}

template <class Value>
void requireFinished(Writing<Value>& writing, std::size_t wanted) {
  if (writing.changes() < wanted) {
    throw Failure(ExitStatus::refused, "interrupted after " + std::to_string(writing.changes()) +
                                           " of " + std::to_string(wanted) + " changes");
  }
}

void reportCreated(Session& session, const TableFacts& facts, bool existed) {
  if (session.arguments().json) {
    session.out() << lineOf({{"table", printable(facts.name)}, {"created", !existed}});
  } else {
    session.out() << "table " << printable(facts.name) << (existed ? " exists" : " created")
                  << '\n';
  }
}

template <class Value>
void createOf(Session& session, std::uint32_t size) {
  const std::string path = session.tablePath();
  TableFacts facts(session.handler(), path);
  const std::string name = "table " + inQuotes(session.arguments().table);
  const bool existed = facts.exists();
  if (existed) {
    facts = session.knownFacts();
    if (facts.slots.valueType != Value::kTypeName || facts.slots.maxSlots != size) {
      throw Failure(ExitStatus::refused, name + " exists, with the type " +
                                             inQuotes(facts.slots.valueType) + " and the size " +
                                             std::to_string(facts.slots.maxSlots));
    }
    requireWritable(session, facts);
  }
  const Writing<Value> writing(session, path, size, kClassType);
  reportCreated(session, facts, existed);
}

}  // namespace

void serveReaders(Session& session) noexcept {
  // A reader on the same machine connects within a millisecond, if it gets the processor.
  constexpr double quiet = 0.05;
  constexpr double longest = 0.5;
  try {
    const double begin = Vex::now();
    for (double before = begin; before - begin < longest;) {
      session.loop().runTurn(quiet);
      const double after = Vex::now();
      if (after - before >= quiet) return;
      before = after;
    }
  } catch (const std::exception& exception) {
    try {
      session.note(printable(exception.what()));
    } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): no memory to say so
    }
  }
}

void requireWritable(Session& session, const TableFacts& facts) {
  const std::string name = "table " + inQuotes(session.arguments().table);
  if (facts.owner.alive) {
    throw Failure(ExitStatus::refused,
                  name + " is owned by " + facts.ownerText() + ", which lives");
  }
  if (access(facts.path.c_str(), W_OK) != 0 ||
      access((facts.path + "/slots").c_str(), R_OK | W_OK) != 0) {
    throw Failure(ExitStatus::refused,
                  name + ": cannot write " + printable(facts.path) + ": " + std::strerror(errno));
  }
  const Verdict verdict = checkTable(session.handler(), facts);
  if (verdict.how == Verdict::How::inUse) {
    throw Failure(ExitStatus::refused, name + " has been taken by another writer just now");
  }
  if (verdict.sound()) return;
  if (!session.arguments().force) {
    throw Failure(ExitStatus::damaged, name + " is damaged: " + printable(verdict.finding) +
                                           "; a writer would give up its entries: --force does");
  }
  session.note(name + " was damaged: " + printable(verdict.finding) + "; its entries are given up");
}

void createTable(Session& session) {
  const Arguments& arguments = session.arguments();
  const std::uint32_t size = numberOf(arguments.size, "--size", 1, kMaxSize);
  if (arguments.type == RecordTraits<CounterIntf>::kOption) {
    createOf<CounterIntf>(session, size);
  } else if (arguments.type == RecordTraits<CounterVlan>::kOption) {
    createOf<CounterVlan>(session, size);
  } else {
    throw Failure(ExitStatus::usage,
                  "--type " + inQuotes(arguments.type) + ": must be counterIntf or counterVlan");
  }
}

void putRecord(Session& session) {
  const TableFacts facts = session.knownFacts();
  visitTable(facts, [&]<class Value>() {
    const Arguments& given = session.arguments();
    const Value value = recordOf<Value>(given.key, given.tx, given.rx, given.rxOther);
    requireWritable(session, facts);
    Writing<Value> writing(session, facts);
    writing.put(value);
    writing.report("written");
  });
}

void delRecord(Session& session) {
  const TableFacts facts = session.knownFacts();
  visitTable(facts, [&]<class Value>() {
    const KeyOf<Value> key = keyOf<Value>(session.arguments().key);
    requireWritable(session, facts);
    bool was = false;
    {
      Writing<Value> writing(session, facts);
      was = writing.del(key);
      if (was) writing.report("removed");
    }
    if (!was) Reading<Value>(session.handler(), facts).throwMissing(key);
  });
}

void fillTable(Session& session) {
  const TableFacts facts = session.knownFacts();
  visitTable(facts, [&]<class Value>() {
    const Arguments& given = session.arguments();
    const std::uint32_t count = fillCount<Value>(given.count);
    const std::uint32_t seed =
        given.seed.empty() ? 1 : numberOf(given.seed, "--seed", 0, 0xFFFFFFFFU);
    const std::vector<Value> values = fillRecords<Value>(count, seed);
    requireWritable(session, facts);
    Writing<Value> writing(session, facts);
    for (const Value& value : values) {
      if (writing.stopped()) break;
      writing.put(value);
    }
    writing.report("written");
    requireFinished(writing, values.size());
  });
}

void clearTable(Session& session) {
  const TableFacts facts = session.knownFacts();
  visitTable(facts, [&]<class Value>() {
    requireWritable(session, facts);
    Writing<Value> writing(session, facts);
    // First all keys: the way to the first entry of a table grows as it is emptied.
    std::vector<KeyOf<Value>> keys;
    writing.forEach([&](const Value& value) { keys.push_back(value.key); });
    for (const KeyOf<Value>& key : keys) {
      if (writing.stopped()) break;
      writing.del(key);
    }
    writing.report("removed");
    requireFinished(writing, keys.size());
  });
}

void removeTable(Session& session) {
  const TableFacts facts = session.facts();
  const std::string name = "table " + inQuotes(session.arguments().table);
  if (facts.owner.alive) {
    throw Failure(ExitStatus::refused,
                  name + " is owned by " + facts.ownerText() + ", which lives");
  }
  // Whatever the records are: nothing of them is looked at.
  Quill::QuillWriter<KeyOf<CounterIntf>, CounterIntf> writer(session.handler(), facts.path.c_str(),
                                                             1, false, "");
  writer.cleanup();
  if (TableFacts(session.handler(), facts.path).exists()) {
    throw Failure(ExitStatus::refused,
                  name + ": cannot remove every file of " + printable(facts.path));
  }
  if (access(facts.path.c_str(), F_OK) == 0) {
    session.note("the directory " + printable(facts.path) + " stays: it holds other files too");
  }
  if (session.arguments().json) {
    session.out() << lineOf({{"table", printable(facts.name)}, {"removed", true}});
  } else {
    session.out() << "removed table " << printable(facts.name) << '\n';
  }
}

}  // namespace Quillctl
