// SPDX-License-Identifier: Apache-2.0
//
// Where exactly in an operation a death costs the table. Each text is the operation's stores in
// their order, equal neighbours as one; behind each, whether the table is kept (+) or given up (-)
// if the writer dies there.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tests/quill/TestTable.h"
#include "tests/quill/kills/ImageCheck.h"
#include "tests/quill/kills/KillStage.h"
#include "tests/quill/kills/KillTrace.h"

namespace QuillTest {

class KillScript : public testing::Test {
 protected:
  using Stage = KillStage<SmallRecord>;
  static constexpr std::uint32_t kSlot = 40;
  static constexpr std::uint32_t kHeader = 216;

  // The keys of one chain, in its order.
  static Portus::IntfId chained(unsigned index) { return KillKeys::all().at(index); }

  void history(std::initializer_list<KillStep> steps) {
    for (const KillStep& step : steps) add(step);
  }
  void add(const KillStep& step) {
    plan_.history.push_back(step);
    if (step.what == KillStep::del) {
      plan_.before.erase(step.key);
    } else if (step.what <= KillStep::direct) {
      plan_.before[step.key] = static_cast<std::uint32_t>(step.number);
    }
  }
  // As many changes of one key as bring the queue to `changes`.
  void fill(unsigned done, unsigned changes) {
    for (unsigned i = done; i < changes; ++i) add({KillStep::put, chained(0), 100 + i});
  }

  // What a store goes to.
  static std::string nameOf(const KillEvent& event) {
    if (event.files != nullptr) return "files";
    const std::uint32_t at = event.offset;
    if (event.file == Image::buckets) return "head";
    if (event.file == Image::slots) {
      if (at >= 160 && at < 176) {
        return at < 164 ? "occupiedSlots" : at < 168 ? "freeSlots" : "numSlots";
      }
      if (at >= 192 && at < kHeader) return "lookaside";
      if (at < kHeader) return "header";
      if (at >= kHeader + kSlot * 97) return "fresh";  // any field of a slot that a growth made
      const std::uint32_t field = (at - kHeader) % kSlot;
      return field < 8 ? "ref" : field < 12 ? "conquerSlot" : field < 16 ? "flags" : "value";
    }
    if (at >= 52) return (at - 52) % 12 < 8 ? "sequence" : "entry";
    const std::string target = event.file == Image::conquer2 ? "2." : "";
    return target + (at >= 48   ? "currentPos"
                     : at >= 40 ? "notifications"
                     : at >= 32 ? "currentTable"
                                : "minSeq");
  }

  template <class Prepare, class Operate>
  KillTrace record(const Prepare& prepare, const Operate& operate) {
    std::filesystem::remove_all(directory_);
    std::unique_ptr<Stage> stage;
    return recordKillTrace(
        directory_,
        [&] {
          stage = std::make_unique<Stage>(directory_, 97);
          prepare(*stage);
        },
        [&] { operate(*stage); }, [&] { stage.reset(); });
  }

  std::string script(KillOp op, const Portus::IntfId& key) {
    plan_.op = op;
    plan_.key = key;
    plan_.counter = 99'999;
    plan_.after = plan_.before;
    if (op == KillOp::remove) {
      plan_.after.erase(key);
    } else if (plan_.isChange()) {
      plan_.after[key] = plan_.counter;
    }
    const KillTrace trace = record([this](Stage& stage) { stage.prepare(plan_); },
                                   [this](Stage& stage) { stage.operate(plan_); });
    KillCase given;
    given.origin = given.start = &trace.start;
    given.maxSlots = 97;
    given.before = plan_.before;
    given.after = plan_.after;
    given.key = key;
    ImageCheck<SmallRecord> check(root_.path() + "/checked");
    Image image = trace.start;
    std::string text;
    std::string last;
    for (const KillEvent& event : trace.events) {
      event.applyTo(image);
      const bool kept = check.check(given, image, [](bool) {}).kept;
      const std::string store = nameOf(event) + (kept ? "+" : "-");
      if (store != last) text += (text.empty() ? "" : " ") + store;
      last = store;
    }
    return text;
  }

  TemporaryRoot root_;
  const std::string directory_ = root_.path() + "/recorded";
  KillPlan plan_;
};

TEST_F(KillScript, AnInsertionCostsTheTableFromTheFreeSlotUntilTheLink) {
  history({{KillStep::put, chained(0), 1}});
  EXPECT_EQ(
      "freeSlots- occupiedSlots- ref- flags- value- flags- ref+ "
      "sequence+ entry+ conquerSlot- currentPos+",
      script(KillOp::insert, chained(1)));
}

TEST_F(KillScript, AnInsertionAheadOfTheChainIsDoneWithItsHead) {
  history({{KillStep::put, chained(1), 1}});
  EXPECT_EQ(
      "freeSlots- occupiedSlots- ref- flags- value- flags- head+ "
      "sequence+ entry+ conquerSlot- currentPos+",
      script(KillOp::insert, chained(0)));
}

TEST_F(KillScript, AChangeCostsTheTableWhileLookasideIsUpAndFromItsTombstoneOn) {
  history({{KillStep::put, chained(0), 1}, {KillStep::put, chained(1), 2}});
  EXPECT_EQ("lookaside+ flags- value- flags+ entry- sequence- entry- conquerSlot- currentPos+",
            script(KillOp::update, chained(1)));
}

TEST_F(KillScript, ARemovalCostsTheTableUntilItIsCountedAndFromItsTombstoneOn) {
  history({{KillStep::put, chained(0), 1}, {KillStep::put, chained(1), 2}});
  EXPECT_EQ(
      "ref- flags- freeSlots- ref- occupiedSlots+ entry- sequence- entry- conquerSlot- "
      "currentPos+",
      script(KillOp::remove, chained(1)));
}

TEST_F(KillScript, ADirectWriteOfANewKeyCostsTheTableUntilItsCommitLinksIt) {
  history({{KillStep::put, chained(0), 1}});
  EXPECT_EQ(
      "freeSlots- occupiedSlots- value- ref- flags- ref+ "
      "sequence+ entry+ conquerSlot- currentPos+",
      script(KillOp::directNew, chained(1)));
}

TEST_F(KillScript, ADirectWriteOfAnOldKeyCostsNothingBeforeItsCommit) {
  history({{KillStep::put, chained(0), 1}, {KillStep::put, chained(1), 2}});
  EXPECT_EQ("lookaside+ flags- value- flags+ entry- sequence- entry- conquerSlot- currentPos+",
            script(KillOp::directOld, chained(1)));
}

TEST_F(KillScript, ADirectWriteThatIsNeverCommittedCostsNothingOnceItsSlotIsCountedBack) {
  history({{KillStep::put, chained(0), 1}});
  EXPECT_EQ("freeSlots- occupiedSlots- value- freeSlots- ref- occupiedSlots+ files+",
            script(KillOp::detachOpen, chained(1)));
}

TEST_F(KillScript, AGrowthOfSlotsCostsTheTableBetweenTheirNumberAndTheFreeList) {
  for (unsigned i = 0; i < 97; ++i) add({KillStep::put, KillKeys::all().at(i + 7), i});
  EXPECT_EQ(
      "files+ fresh+ numSlots- freeSlots+ "
      "freeSlots- occupiedSlots- fresh- head+ sequence+ entry+ fresh- currentPos+",
      script(KillOp::insert, chained(0)));
}

TEST_F(KillScript, AMoveThatTakesEverythingCostsTheTableUntilTheNextEntry) {
  // Nobody reads, so all but the last entry goes, and that one becomes the tombstone.
  history({{KillStep::put, chained(1), 1}});
  fill(1, 336);
  EXPECT_EQ(
      "conquerSlot- sequence- entry- conquerSlot- 2.currentPos- minSeq- currentTable+ "
      "lookaside+ flags- value- flags+ "
      "entry- sequence- entry- conquerSlot- 2.currentPos+",
      script(KillOp::update, chained(0)));
}

TEST_F(KillScript, CleaningUpCostsTheTableFromItsIdOn) {
  history({{KillStep::put, chained(0), 1}});
  EXPECT_EQ("files-", script(KillOp::cleanup, chained(0)));
}

// The first recovery dies when all files have the next id and `fenix` does not name it yet; the
// second one, which finds four files of an id that it does not want, after each of its stores.
TEST_F(KillScript, ARecoveryThatDiesAfterARecoveryThatDiedNeverLeavesNothingUnderTheFirstId) {
  history({{KillStep::put, chained(0), 1}});
  plan_.op = KillOp::insert;
  plan_.key = chained(1);
  plan_.counter = 2;
  plan_.after = plan_.before;
  plan_.after[plan_.key] = 2;
  KillTrace trace = record([this](Stage& stage) { stage.prepare(plan_); },
                           [this](Stage& stage) { stage.operate(plan_); });
  const Image origin = trace.start;
  Image left = trace.start;
  trace.events.front().applyTo(left);  // a slot on no list
  ASSERT_FALSE(left.atRest());
  const auto recordRecovery = [this](const Image& from) {
    return record([&](Stage&) { from.put(directory_); }, [](Stage& stage) { stage.newWriter(); });
  };
  trace = recordRecovery(left);
  left = trace.start;
  for (const KillEvent& event : trace.events) {
    Image next = left;
    event.applyTo(next);
    if (next.fenix() != origin.fenix()) break;
    left = next;
  }
  trace = recordRecovery(left);

  KillCase given;
  given.origin = &origin;
  given.start = &trace.start;
  given.maxSlots = 97;
  given.recovery = true;
  given.before = plan_.before;
  given.after = plan_.after;
  given.key = plan_.key;
  ImageCheck<SmallRecord> check(root_.path() + "/checked");
  Image image = trace.start;
  for (const KillEvent& event : trace.events) {
    event.applyTo(image);
    EXPECT_FALSE(image.atRest() && image.fenix() == origin.fenix());
    ASSERT_NO_THROW(check.check(given, image, [](bool) {}));
  }
  EXPECT_TRUE(image.atRest());
}

}  // namespace QuillTest
