// SPDX-License-Identifier: Apache-2.0
//
// The scenarios. Keys of one thousand share a bucket.
#include "tests/quill/faults/Scenario.h"

namespace QuillTest {

namespace {

using Quill::QuillType;

constexpr std::uint32_t keyOf(std::uint32_t n) { return n % 20 * 1'000 + n; }

void fill(Stage& stage, std::uint32_t entries, std::uint32_t data) {
  for (std::uint32_t n = 0; n < entries; ++n) stage.put(keyOf(n), data + n);
}

void prepareNothing(Stage&) {}

void prepareTable(Stage& stage) {
  stage.init(QuillType::writer);
  fill(stage, 12, 1);
  stage.drop(QuillType::writer);
}

void prepareTorn(Stage& stage) {
  prepareTable(stage);
  const RawFile slots(stage.path() + "/slots");
  slots.u32Is(200 + 12, slots.u32(200 + 12) + 2);
  stage.before = stage.after = {};  // the rules of recovery give it up
}

void prepareWriter(Stage& stage) {
  stage.init(QuillType::writer);
  fill(stage, 12, 1);
}

void prepareShadow(Stage& stage) {
  prepareWriter(stage);
  stage.init(QuillType::shadow);
  stage.settle();
}

void attachWriter(Stage& stage) {
  stage.init(QuillType::writer);
  stage.put(keyOf(3), 99);
}

// Past one page of slots, with removals on the way.
void grow(Stage& stage) {
  for (std::uint32_t n = 0; n < 260; ++n) {
    stage.put(keyOf(n), n);
    if (n % 10 == 9) stage.del(keyOf(n - 5));
  }
}

// The queue moves to the other table, and again, which has to grow for it.
void moveQueue(Stage& stage) {
  for (std::uint32_t n = 0; n < 700; ++n) {
    stage.put(keyOf(n % 220), n);
    if (n % 100 == 99) stage.settle();
  }
}

void attachReader(Stage& stage) {
  stage.init(QuillType::reader);
  bool found = false;
  static_cast<void>(stage.map(QuillType::reader).safeLookup({keyOf(3)}, found));
  grow(stage);
  static_cast<void>(stage.map(QuillType::reader).safeLookup({keyOf(150)}, found));
}

void attachShadow(Stage& stage) {
  stage.init(QuillType::shadow);
  stage.settle();
  stage.put(keyOf(3), 77);
  stage.settle();
}

void attachKeyShadow(Stage& stage) {
  stage.init(QuillType::keyshadow);
  stage.settle();
  stage.put(keyOf(3), 77);
  stage.settle();
  bool found = false;
  static_cast<void>(stage.map(QuillType::keyshadow).safeLookup({keyOf(3)}, found));
}

void followGrowth(Stage& stage) {
  grow(stage);
  stage.settle();
}

// The writer goes and comes again, under the same table.
void comeAgain(Stage& stage) {
  stage.drop(QuillType::writer);
  stage.settle();
  stage.init(QuillType::writer);
  stage.put(keyOf(1), 5);
  stage.settle(1.5);
}

// A reader lets go of the table, reports damage and mounts it again.
void report(Stage& stage) {
  stage.map(QuillType::shadow).corruptionDetected("as a test says");
  stage.settle();
  stage.put(keyOf(2), 6);
  stage.settle();
}

void remount(Stage& stage) {
  stage.map(QuillType::shadow).controlDetach();
  stage.drop(QuillType::shadow);
  stage.init(QuillType::shadow);
  stage.map(QuillType::shadow).notifying(false);
  stage.put(keyOf(4), 7);
  stage.map(QuillType::shadow).notifying(true);
  stage.settle();
}

void detachWriter(Stage& stage) {
  stage.map(QuillType::writer).controlDetach();
  stage.drop(QuillType::writer);
}

void cleanUp(Stage& stage) {
  // From the first file that goes on, there is no table any more.
  stage.after.clear();
  try {
    stage.map(QuillType::writer).cleanup();
  } catch (...) {
    stage.drop(QuillType::writer);
    throw;
  }
  stage.drop(QuillType::writer);
}

}  // namespace

const std::vector<Scenario>& scenarios() {
  static const std::vector<Scenario> kAll = {
      {"WriterMakesATable", prepareNothing, attachWriter},
      {"WriterTakesATableOver", prepareTable, attachWriter},
      {"WriterGivesATornTableUp", prepareTorn, attachWriter},
      {"TableGrows", prepareWriter, grow},
      {"QueueMoves", prepareWriter, moveQueue},
      {"QueueMovesUnderAShadow", prepareShadow, moveQueue},
      {"ReaderAttachesAndFollowsAGrowth", prepareWriter, attachReader},
      {"ShadowAttachesAndFollows", prepareWriter, attachShadow},
      {"KeyShadowAttachesAndFollows", prepareWriter, attachKeyShadow},
      {"ShadowFollowsAGrowth", prepareShadow, followGrowth},
      {"WriterComesAgainUnderAShadow", prepareShadow, comeAgain, true},
      {"ShadowReportsDamage", prepareShadow, report, true},
      {"ShadowMountsAgain", prepareShadow, remount, true},
      {"WriterDetaches", prepareWriter, detachWriter},
      {"WriterCleansUp", prepareWriter, cleanUp},
  };
  return kAll;
}

}  // namespace QuillTest
