// SPDX-License-Identifier: Apache-2.0
#include "tests/quill/history/History.h"

#include <algorithm>
#include <ostream>
#include <utility>

#include "quill/Util.h"
#include "runtime/mem/Atomics.h"
#include "tests/quill/history/QueueWatch.h"

namespace QuillTest {

namespace {

// For which the table is made: it grows far beyond.
constexpr unsigned kMaxSlots = 16;

}  // namespace

std::ostream& operator<<(std::ostream& out, const Step& step) {
  static constexpr const char* kNames[Step::kinds] = {
      "write",          "writeNew", "remove",       "direct",      "fill",  "drain",
      "churn",          "run",      "runAll",       "leap",        "close", "restart",
      "restartDamaged", "nearWrap", "cutReaders",   "cutWriter",   "away",  "falseReport",
      "damage",         "settings", "notifyingOff", "notifyingOn", "quiet"};
  return out << kNames[step.kind] << " " << step.key << " " << step.much;
}

History::Coverage& History::coverage() {
  static Coverage coverage;
  return coverage;
}

History::History() {
  writer();
  newParty(reader_, "the reader", Quill::QuillType::reader);
  newParty(shadow_, "the shadow", Quill::QuillType::shadow);
  newParty(keyShadow_, "the key shadow", Quill::QuillType::keyshadow);
  ++coverage().histories;
}

History::~History() {
  // A handle goes on its own loop, readers first: nothing of them is told of the writer's end.
  for (Party* each : {&keyShadow_, &shadow_, &reader_, &writer_}) {
    const Vex::CurrentActivityManager current(each->loop);
    each->map.reset();
  }
}

void History::newParty(Party& party, const char* name, Quill::QuillType type) {
  const Vex::CurrentActivityManager current(party.loop);
  party.name = name;
  party.map = std::make_unique<Map>(path_, "t");
  party.map->notifierIs(&party.told);
  party.map->init(type, false, type == Quill::QuillType::writer ? kMaxSlots : 0);
}

History::Map& History::writer() {
  if (writer_.map == nullptr) {
    newParty(writer_, "the writer", Quill::QuillType::writer);
    const std::uint32_t fenix = writer_.map->fenixId();
    if (generation_ != 0) {
      ++(fenix == generation_ ? coverage().kept : coverage().givenUp);
      if (fenix != generation_) wrong("a sound table was given up");
    }
    generation_ = fenix;
    capacity_ = writer_.map->capacity();
  }
  return *writer_.map;
}

History::Party& History::party(unsigned which) {
  switch (which % 4) {
    case 0:
      return reader_;
    case 1:
      return shadow_;
    case 2:
      return keyShadow_;
    default:
      return writer_;
  }
}

void History::closeWriter() {
  if (writer_.map == nullptr) return;
  count();
  const Vex::CurrentActivityManager current(writer_.loop);
  writer_.map.reset();
}

void History::restart(bool damaged) {
  writer();
  closeWriter();
  if (!damaged) {
    writer();
    return;
  }
  damageFiles(steps_);
  const std::uint32_t before = std::exchange(generation_, 0);
  if (writer().fenixId() == before) wrong("a damaged table was kept");
  ++coverage().givenUp;
  model_.clear();
}

void History::restartNearWrap() {
  writer();
  closeWriter();
  wraps_.put();
  coverage().wrapped = std::max(coverage().wrapped, wraps_.wrapped());
  coverage().sequencesPassed = std::max(coverage().sequencesPassed, wraps_.sequencesPassed());
  quiet();
}

void History::write(std::uint32_t key, bool overwrite) {
  Map& table = writer();
  const std::uint32_t counter = ++counter_;
  const QueueWatch watch(path_);
  const CheckedRecord* const stored = table.safeWrite(checkedRecord(key, counter), overwrite);
  if (overwrite || !model_.contains(key)) model_[key] = counter;
  if (!(*stored == checkedRecord(key, model_.at(key)))) wrong("write() answers another value");
  if (watch.droppedTooEarly()) newsLost_ = true;
  if (capacity_ != table.capacity()) ++coverage().slotGrowths;
  capacity_ = table.capacity();
}

void History::remove(std::uint32_t key) {
  CheckedRecord old;
  Map& table = writer();
  const QueueWatch watch(path_);
  const bool was = table.remove({key}, old);
  if (watch.droppedTooEarly()) newsLost_ = true;
  if (was != model_.contains(key)) wrong("remove() of key " + std::to_string(key) + " is wrong");
  if (!was) return;
  if (!(old == checkedRecord(key, model_.at(key)))) wrong("remove() answers another value");
  model_.erase(key);
}

void History::direct(std::uint32_t key, bool run) {
  Map& table = writer();
  const CheckedRecord record = checkedRecord(key, ++counter_);
  const Quill::DirectTarget target = table.directWrite({key});
  checkKey(key);
  Mem::Atomics::copyIn(target.address, &record, sizeof record / 2 / 4 * 4);
  checkKey(key);
  if (run) {
    while (shadow_.loop.runTurn()) {
    }
  }
  Mem::Atomics::copyIn(target.address, &record, sizeof record);
  checkKey(key);
  const QueueWatch watch(path_);
  table.directCommit();
  if (watch.droppedTooEarly()) newsLost_ = true;
  model_[key] = record.counter;
}

void History::churn(const Step& step) {
  for (unsigned i = 0; i < 100 + 2U * step.much; ++i) {
    write(historyKey((step.key + i * 7) % (1 + step.much)), true);
  }
}

void History::settings(unsigned which) {
  static constexpr double kTimes[] = {0.0, 0.001, 0.05};
  static constexpr unsigned kSamples[] = {0, 1, 8};
  Map* const map = party(which).map.get();
  if (map == nullptr) return;
  map->yieldTimeIs(kTimes[which / 4 % 3]);
  map->sampleIs(kSamples[which / 12 % 3]);
}

void History::take(const Step& step) {
  const std::uint32_t key = historyKey(step.key);
  Party& chosen = party(step.much);
  ++steps_;
  switch (step.kind) {
    case Step::write:
      write(key, true);
      break;
    case Step::writeNew:
      write(key, false);
      break;
    case Step::remove:
      remove(key);
      break;
    case Step::direct:
      direct(key, step.much % 2 != 0);
      break;
    case Step::fill:
      for (unsigned i = 0; i < step.much; ++i) write(historyKey((step.key + i) % kKeys), true);
      break;
    case Step::drain:
      for (unsigned i = 0; i < step.much; ++i) remove(historyKey((step.key + i * 11) % kKeys));
      break;
    case Step::churn:
      churn(step);
      break;
    case Step::run:
      for (unsigned i = 0; i < 1U + step.much / 4 % 8; ++i) chosen.loop.runTurn();
      break;
    case Step::runAll:
      runAll();
      break;
    case Step::leap:
      chosen.loop.leap(step.key / 3);
      break;
    case Step::close:
      closeWriter();
      break;
    case Step::restart:
      restart(false);
      break;
    case Step::restartDamaged:
      restart(true);
      break;
    case Step::nearWrap:
      restartNearWrap();
      break;
    case Step::cutReaders:
      cut(true);
      break;
    case Step::cutWriter:
      cut(false);
      break;
    case Step::away:  // the readers' connections end, and the writer prunes before they notice
      writer();
      cut(true);
      for (unsigned i = 0; i < 8; ++i) writer_.loop.runTurn();
      writer_.loop.leap(100);
      for (unsigned i = 0; i < 8; ++i) writer_.loop.runTurn();
      churn({Step::churn, step.key, 200});
      break;
    case Step::falseReport:
      Quill::Util::writeCorruptionFile(handler_, path_, "report " + std::to_string(++reports_));
      break;
    case Step::damage:
      passingDamage(key);
      break;
    case Step::settings:
      settings(step.much);
      break;
    case Step::notifyingOff:
    case Step::notifyingOn: {
      const Vex::CurrentActivityManager current(chosen.loop);
      if (chosen.map != nullptr) chosen.map->notifying(step.kind == Step::notifyingOn);
      break;
    }
    case Step::quiet:
      quiet();
      break;
    case Step::kinds:
      break;
  }
  checkKey(key);
  if (steps_ % 16 == 0) checkContents(reader_);
}

}  // namespace QuillTest
