// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/ReadCommands.h"

#include <algorithm>
#include <iomanip>

#include "cli/quillctl/Check.h"
#include "cli/quillctl/RawFile.h"
#include "cli/quillctl/Reading.h"

namespace Quillctl {

namespace {

// Slots of a table that are read at one go.
constexpr std::uint32_t kSlotsAtOnce = 1024;
constexpr std::uint32_t kSlotsHeader = 176;

template <class Value>
void dumpRecords(Session& session, const TableFacts& facts) {
  Reading<Value> reading(session.handler(), facts);
  if (session.arguments().json) {
    Json entries = Json::array();
    reading.forEach([&](const Value& value) { entries.push_back(recordJson(value)); });
    session.out() << lineOf({{"table", printable(facts.name)},
                             {"type", facts.slots.valueType},
                             {"entries", std::move(entries)}});
    return;
  }
  reading.forEach([&](const Value& value) { session.out() << recordText(value) << '\n'; });
}

// The bytes of each slot in use, whatever they mean.
void dumpSlots(Session& session, const TableFacts& facts) {
  const SlotsFacts& slots = facts.slots;
  // The checksum holds, so these come from a writer; a checksum is no promise all the same.
  if (slots.slotSize < 16 || slots.slotSize > 65'536 || slots.valueSize > slots.slotSize - 16) {
    throwDamaged(facts.name, "the file slots: a slot of " + std::to_string(slots.slotSize) +
                                 " bytes for a value of " + std::to_string(slots.valueSize));
  }
  const RawFile file(facts.path + "/slots");
  const bool json = session.arguments().json;
  Json entries = Json::array();
  if (!json) {
    session.out() << "# " << printable(slots.valueType) << ", " << slots.valueSize
                  << " bytes each; class " << printable(slots.classType) << '\n';
  }
  for (std::uint32_t first = 0; first < slots.numSlots; first += kSlotsAtOnce) {
    const std::uint32_t count = std::min(kSlotsAtOnce, slots.numSlots - first);
    const std::uint64_t at = kSlotsHeader + (std::uint64_t{first} + 1) * slots.slotSize;
    const std::string bytes = file.bytes(at, std::size_t{count} * slots.slotSize);
    for (std::uint32_t i = 0; i < bytes.size() / slots.slotSize; ++i) {
      const std::string_view slot =
          std::string_view(bytes).substr(std::size_t{i} * slots.slotSize, slots.slotSize);
      if ((static_cast<unsigned char>(slot[12]) & Quill::kOccupied) == 0) continue;
      const std::string digits = hex(slot.substr(16, slots.valueSize));
      if (json) {
        entries.push_back({{"slot", first + i}, {"bytes", digits}});
      } else {
        session.out() << "slot " << first + i << ": " << digits << '\n';
      }
    }
    if (bytes.size() < std::size_t{count} * slots.slotSize) {
      throwDamaged(facts.name, "the file slots ends before slot " +
                                   std::to_string(first + bytes.size() / slots.slotSize));
    }
  }
  if (json) {
    session.out() << lineOf({{"table", printable(facts.name)},
                             {"type", printable(slots.valueType)},
                             {"slots", std::move(entries)}});
  }
}

struct Totals {
  std::uint64_t tx = 0;
  std::uint64_t rx = 0;
  std::uint64_t rxOther = 0;
};

template <class Value>
void showCountersOf(Session& session, const TableFacts& facts) {
  std::vector<Value> values = Reading<Value>(session.handler(), facts).all();
  std::sort(values.begin(), values.end(),
            [](const Value& a, const Value& b) { return a.key < b.key; });
  Totals totals;
  for (const Value& value : values) {
    totals.tx += value.tx;
    totals.rx += value.rx;
    totals.rxOther += value.rxOther;
  }
  if (session.arguments().json) {
    Json entries = Json::array();
    for (const Value& value : values) entries.push_back(recordJson(value));
    session.out() << lineOf(
        {{"table", printable(facts.name)},
         {"type", facts.slots.valueType},
         {"entries", std::move(entries)},
         {"total", {{"tx", totals.tx}, {"rx", totals.rx}, {"rxOther", totals.rxOther}}}});
    return;
  }
  std::size_t width = 5;
  for (const Value& value : values) width = std::max(width, keyText<Value>(value.key).size());
  const auto line = [&](const std::string& key, const auto& tx, const auto& rx, const auto& other) {
    session.out() << std::left << std::setw(static_cast<int>(width)) << key << std::right
                  << std::setw(13) << tx << std::setw(13) << rx << std::setw(13) << other << '\n';
  };
  line("key", "tx", "rx", "rxOther");
  for (const Value& value : values) {
    line(keyText<Value>(value.key), value.tx, value.rx, value.rxOther);
  }
  line("total", totals.tx, totals.rx, totals.rxOther);
}

}  // namespace

void verifyTable(Session& session) {
  const TableFacts facts = session.facts();
  const Verdict verdict = checkTable(session.handler(), facts);
  if (session.arguments().json) {
    Json findings = Json::array();
    if (!verdict.sound()) findings.push_back(printable(verdict.finding));
    session.out() << lineOf({{"table", printable(facts.name)},
                             {"sound", verdict.sound()},
                             {"check", howText(verdict.how)},
                             {"entries", verdict.entries},
                             {"findings", std::move(findings)}});
  } else {
    session.out() << "table " << printable(facts.name) << ": "
                  << (verdict.sound() ? "sound" : "damaged") << ", " << verdict.entries
                  << " entries\n";
    switch (verdict.how) {
      case Verdict::How::locked:
        break;
      case Verdict::How::unlocked:
        session.out() << "checked without the writer lock, which this user may not take\n";
        break;
      case Verdict::How::inUse:
        session.out() << "in use by " << facts.ownerText()
                      << ": checked what a reader can see (headers, every chain, each key)\n";
        break;
      case Verdict::How::headers:
        session.out() << "records of the type " << printable(facts.slots.valueType)
                      << ": checked the headers only\n";
        break;
    }
    if (!verdict.sound()) session.out() << "finding: " << printable(verdict.finding) << '\n';
  }
  if (!verdict.sound()) throwDamaged(facts.name, verdict.finding);
}

void getRecord(Session& session) {
  const TableFacts facts = session.knownFacts();
  visitTable(facts, [&]<class Value>() {
    const KeyOf<Value> key = keyOf<Value>(session.arguments().key);
    Reading<Value> reading(session.handler(), facts);
    Value value;
    if (!reading.lookup(key, value)) reading.throwMissing(key);
    session.out() << (session.arguments().json ? lineOf(recordJson(value))
                                               : recordText(value) + '\n');
  });
}

void dumpTable(Session& session) {
  const TableFacts facts = session.facts();
  if (!facts.slots.identified()) static_cast<void>(session.knownFacts());  // says what is wrong
  const bool known =
      visitType(facts.slots.valueType, [&]<class Value>() { dumpRecords<Value>(session, facts); });
  if (!known) dumpSlots(session, facts);
}

void showCounters(Session& session) {
  const TableFacts facts = session.knownFacts();
  visitTable(facts, [&]<class Value>() { showCountersOf<Value>(session, facts); });
}

}  // namespace Quillctl
