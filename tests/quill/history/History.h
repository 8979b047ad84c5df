// SPDX-License-Identifier: Apache-2.0
//
// One history of a table: a writer, a plain reader, a shadow and a key shadow in one process, each
// on a loop of its own that runs when the history says so, beside a plain map. Every step is
// defined in every state, so any list of steps is a history.
//
// What holds, and is checked with the steps:
//  1. The writer's answers are those of the map.
//  2. A reader of the writer's generation answers as the map, at every moment: in one process it is
//     never behind. So do the values that a key shadow fetches.
//  3. Whatever else is given out is a whole value of the key asked for.
//  4. When all is quiet, everybody is mounted, holds what the map holds, and both shadows have been
//     told of every key of which the table says something else than when all was quiet before.
//     A history in which the queue dropped what a shadow still needed mounts the shadows anew
//     first: QueueWatch.h.
//  5. A table is given up exactly when its files are damaged, with a new generation.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

#include "quill/QuillMap.h"
#include "tests/quill/TestTable.h"
#include "tests/quill/history/NearWrap.h"
#include "tests/quill/history/StallLoop.h"
#include "tests/quill/history/TableModel.h"

namespace QuillTest {

struct Step {
  enum Kind : std::uint8_t {
    write,
    writeNew,
    remove,
    direct,
    fill,
    drain,
    churn,
    run,
    runAll,
    leap,
    close,
    restart,
    restartDamaged,
    nearWrap,
    cutReaders,
    cutWriter,
    away,
    falseReport,
    damage,
    settings,
    notifyingOff,
    notifyingOn,
    quiet,
    kinds
  };

  Kind kind = write;
  std::uint16_t key = 0;   // index of a key
  std::uint16_t much = 0;  // how many, how long, which
};

std::ostream& operator<<(std::ostream& out, const Step& step);

class History {
 public:
  using Map = Quill::QuillMap<Number, CheckedRecord, KeySet>;

  static constexpr std::uint32_t kKeys = 300;

  // What a history is for, and whether it has come about in any.
  struct Coverage {
    // How often.
    std::uint64_t histories = 0;
    std::uint64_t quiets = 0;
    std::uint64_t slotGrowths = 0;
    std::uint64_t kept = 0;
    std::uint64_t givenUp = 0;
    std::uint64_t connectionsCut = 0;
    std::uint64_t damagesMet = 0;
    std::uint64_t newsLost = 0;
    std::uint64_t wrapped = 0;
    std::uint64_t sequencesPassed = 0;
    // The highest count that a writer or a shadow had.
    std::uint64_t compactions = 0;
    std::uint64_t prunes = 0;
    std::uint64_t queueGrowths = 0;
    std::uint64_t resyncs = 0;
    std::uint64_t batchYields = 0;
    std::uint64_t syncYields = 0;
    std::uint64_t slotMoves = 0;
  };

  History();
  History(const History&) = delete;
  History& operator=(const History&) = delete;
  ~History();

  // Takes one step and checks. Raises std::logic_error when something does not hold.
  void take(const Step& step);
  // Lets all come to rest and checks everything.
  void quiet();

  // The directory of the table, at rest after quiet().
  const std::string& directory() const { return path_; }
  static Coverage& coverage();

 private:
  struct Party {
    const char* name = "";
    StallLoop loop;
    KeySet told;
    std::unique_ptr<Map> map;
  };

  Map& writer();
  void newParty(Party& party, const char* name, Quill::QuillType type);
  void count();
  void closeWriter();
  void restart(bool damaged);
  void restartNearWrap();
  void damageFiles(unsigned which);
  // Damage for as long as a reader and the writer look.
  void passingDamage(std::uint32_t key);

  void write(std::uint32_t key, bool overwrite);
  void remove(std::uint32_t key);
  void direct(std::uint32_t key, bool run);
  void churn(const Step& step);
  void cut(bool readerSide);
  void settings(unsigned which);
  Party& party(unsigned which);

  // Mounts the shadows from anew.
  void remount();
  // Runs every loop until nobody has anything to do.
  void runAll();
  bool allMounted();
  bool current(const Party& party) const;
  void checkKey(std::uint32_t key);
  void checkContents(const Party& party);

  Sable::Platform::DebugHandler handler_{"history"};
  TemporaryRoot root_;
  const std::string path_ = root_.table("t");
  Party writer_;
  Party reader_;
  Party shadow_;
  Party keyShadow_;
  TableModel model_;
  TableModel quietModel_;
  std::uint32_t counter_ = 0;
  std::uint32_t generation_ = 0;  // of the writer, also when it is closed
  unsigned reports_ = 0;
  unsigned steps_ = 0;
  unsigned capacity_ = 0;
  NearWrap wraps_{path_};
  bool newsLost_ = false;  // QueueWatch.h, since all was quiet
};

}  // namespace QuillTest
