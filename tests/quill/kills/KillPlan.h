// SPDX-License-Identifier: Apache-2.0
//
// A table's history and the one operation at whose end or in whose middle its writer dies; chosen
// at random, and the same for the same seed. KillStage carries it out.
//
// Values; belong to whoever holds them.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/quill/kills/KillRecord.h"

namespace QuillTest {

// What a writer may die in.
enum class KillOp : std::uint8_t {
  format,  // of a new table
  attach,  // to a kept one
  insert,
  update,
  remove,
  directNew,  // a direct write and its commit
  directOld,
  detach,
  detachOpen,  // with a direct write that is never committed
  cleanup,
};
constexpr unsigned kKillOps = 10;

enum class KillShape : std::uint8_t {
  empty,
  small,       // a few keys, here and there
  colliding,   // keys of one chain; what is changed is its first, its last or in between
  full,        // no free slot: the next insertion grows the file
  queueFull,   // no room in the queue: the next change moves it
  queueAgain,  // the same after an earlier move, so that sequences are missing
  wide,        // more live entries than half a queue holds: the move lets the other table grow
};
constexpr unsigned kKillShapes = 7;

const char* nameOf(KillOp op);
const char* nameOf(KillShape shape);

struct KillStep {
  enum What : std::uint8_t {
    put,
    direct,  // put, by a direct write
    del,
    report,   // a reader tells how far it has come
    restart,  // another writer takes over
  };
  What what = put;
  Portus::IntfId key;
  std::uint64_t number = 0;  // the counter or the sequence
};

struct KillPlan {
  KillOp op = KillOp::format;
  KillShape shape = KillShape::empty;
  unsigned maxSlots = 0;
  std::vector<KillStep> history;
  std::uint64_t changes = 0;  // of the history
  Portus::IntfId key;
  std::uint32_t counter = 0;  // of the operation
  KillModel before;
  KillModel after;

  std::string name() const;
  // Whether the operation changes what the table holds.
  bool isChange() const { return op >= KillOp::insert && op <= KillOp::directOld; }
};

// `slotsInPage`: of a new table. A shape and an operation that do not go together give another one.
KillPlan newKillPlan(KillOp op, KillShape shape, unsigned slotsInPage, std::mt19937& random);
// More changes of keys that are there, until `count` have been made in all.
void moreChanges(KillPlan& plan, std::uint64_t count, std::mt19937& random);

}  // namespace QuillTest
