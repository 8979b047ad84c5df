// SPDX-License-Identifier: Apache-2.0
#include "tests/quill/kills/KillWorker.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "tests/quill/kills/CheckerProcess.h"
#include "tests/quill/kills/ImageCheck.h"
#include "tests/quill/kills/KillStage.h"
#include "tests/quill/kills/KillTrace.h"

namespace QuillTest {

namespace {

// Seconds after which one image is a hang.
constexpr unsigned kHang = 60;
// Images of a recovery that are looked at unless all are.
constexpr std::size_t kPart = 60;
// How far successors die too.
constexpr unsigned kMaxDepth = 3;

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

KillOp opOf(std::uint32_t seed) { return static_cast<KillOp>(seed % kKillOps); }
KillShape shapeOf(std::uint32_t seed) {
  return static_cast<KillShape>(seed / kKillOps % kKillShapes);
}
// Each round of operations and shapes with the other size of values. The large one would make the
// files of a wide table very long.
bool isLarge(std::uint32_t seed) {
  return seed / (kKillOps * kKillShapes) % 2 == 1 && shapeOf(seed) != KillShape::wide;
}

template <class Record>
class Scenario {
 public:
  using Stage = KillStage<Record>;

  Scenario(const std::string& root, std::uint32_t seed)
      : directory_(root + "/recorded"), random_(seed) {
    plan_ = newKillPlan(opOf(seed), shapeOf(seed), Stage::kInPage, random_);
    if (plan_.shape == KillShape::queueAgain) {
      // One change more moves the queue; then so many as there is room for again.
      moreChanges(plan_, plan_.changes + 1, random_);
      for (unsigned times = 1 + static_cast<unsigned>(random_() % 2); times > 0; --times) {
        moreChanges(plan_, plan_.changes + room(), random_);
      }
    }
  }

  const KillPlan& plan() const { return plan_; }
  std::mt19937& random() { return random_; }
  KillTrace record() {
    std::filesystem::remove_all(directory_);
    std::unique_ptr<Stage> stage;
    return recordKillTrace(
        directory_,
        [&] {
          stage = std::make_unique<Stage>(directory_, plan_.maxSlots);
          stage->prepare(plan_);
        },
        [&] { stage->operate(plan_); }, [&] { stage.reset(); });
  }
  // What a new writer does with what another one left.
  KillTrace recordRecovery(const Image& left) {
    std::filesystem::remove_all(directory_);
    std::unique_ptr<Stage> stage;
    return recordKillTrace(
        directory_,
        [&] {
          left.put(directory_);
          stage = std::make_unique<Stage>(directory_, plan_.maxSlots);
        },
        [&] { stage->newWriter(); }, [&] { stage.reset(); });
  }

 private:
  // Entries for which the current table of the queue has room after the history.
  std::uint64_t room() {
    std::filesystem::remove_all(directory_);
    Stage stage(directory_, plan_.maxSlots);
    KillPlan history = plan_;
    history.op = KillOp::insert;  // anything but a format
    stage.prepare(history);
    return Image::of(directory_).queueRoom();
  }

  std::string directory_;
  std::mt19937 random_;
  KillPlan plan_;
};

}  // namespace

KillWorker::KillWorker(std::string root, bool everyImage, unsigned checkEach)
    : root_(std::move(root)), everyImage_(everyImage), checkEach_(checkEach) {}

KillWorker::~KillWorker() = default;

// The images of one trace, one after the other.
template <class Record>
class TraceCheck {
 public:
  TraceCheck(ImageCheck<Record>& check, const KillCase& given, std::mt19937& random)
      : check_(check), given_(given), random_(random) {}

  // Visits all images, or of many a part: all of the first and the last, and some between.
  template <class Judge, class Visit>
  void run(const KillTrace& trace, bool all, const Judge& judge, const Visit& visit) {
    const std::size_t count = trace.events.size() + 1;
    Image image = trace.start;
    for (std::size_t i = 0; i < count; ++i) {
      if (i > 0) trace.events[i - 1].applyTo(image);
      const bool edge = i < 12 || i + 12 >= count;
      const bool files = i > 0 && trace.events[i - 1].files != nullptr;
      if (!all && count > 3 * kPart && !edge && !files && random_() % count >= kPart) continue;
      try {
        const KillVerdict verdict = check_.check(given_, image, judge);
        if (!visit(image, verdict)) return;
      } catch (const std::exception& exception) {
        throw std::runtime_error("image " + std::to_string(i) + " of " + std::to_string(count) +
                                 ": " + exception.what());
      }
    }
  }

 private:
  ImageCheck<Record>& check_;
  const KillCase& given_;
  std::mt19937& random_;
};

template <class Record>
void KillWorker::runWith(std::uint32_t seed, double until) {
  const std::string checked = root_ + "/checked";
  std::filesystem::remove_all(checked);
  ImageCheck<Record> check(checked);
  Scenario<Record> scenario(root_, seed);
  const KillPlan& plan = scenario.plan();
  const std::string name = plan.name();
  std::string where = name;
  try {
    KillTrace trace = scenario.record();
    const Image origin = trace.start;
    KillCase given;
    given.start = &trace.start;
    given.maxSlots = plan.maxSlots;
    given.before = plan.before;
    given.after = plan.after;
    given.key = plan.key;
    if (plan.op != KillOp::format) {
      std::string why;
      if (!origin.atRest(&why)) throw std::runtime_error("not at rest at the start: " + why);
      given.origin = &origin;
    }
    Image dead;
    for (unsigned depth = 0; depth <= kMaxDepth; ++depth) {
      unsigned open = 0;
      steps_ += trace.steps;
      const std::string kind = depth == 0 ? name : "recovery " + std::to_string(depth);
      if (depth > 0) where = kind + " of " + name;
      KillCounts& counts = counts_[kind];
      // The checker's names are for the first death of a table that was whole, and for the death in
      // the recovery of that; not for what successors of those make of it.
      const auto judged = [&](unsigned deaths) {
        return deaths == 0 ||
               (deaths == 1 && plan.op != KillOp::format && plan.op != KillOp::cleanup);
      };
      const auto judge = [&](bool atRest) {
        alarm(kHang);
        if (!judged(depth) || checkEach_ == 0 || scenario.random()() % checkEach_ != 0) return;
        if (checker_ == nullptr) checker_ = std::make_unique<CheckerProcess>();
        const std::string said = checker_->judge(checked);
        ++counts.checked;
        if (said == "rest" ? atRest : !atRest && said.starts_with("open")) return;
        throw std::runtime_error("the checker says: " + said +
                                 ", at rest: " + std::to_string(atRest));
      };
      const auto visit = [&](const Image& image, const KillVerdict& verdict) {
        ++counts.images;
        ++(verdict.kept ? counts.kept : counts.givenUp);
        if (verdict.unannounced) ++counts.unannounced;
        distinct_.insert(image.hash());
        // Each with the same probability.
        if (!verdict.kept && scenario.random()() % ++open == 0) dead = image;
        return now() < until;
      };
      TraceCheck<Record>(check, given, scenario.random())
          .run(trace, everyImage_ || depth == 0, judge, visit);
      if (open == 0 || scenario.random()() % (depth == 0 ? 4 : 2) != 0 || now() >= until) break;
      trace = scenario.recordRecovery(dead);
      given.recovery = true;
    }
  } catch (const std::exception& exception) {
    throw std::runtime_error("QUILL_SEED=" + std::to_string(seed) + " " + where + " (" +
                             std::to_string(sizeof(Record)) + " bytes): " + exception.what());
  }
}

template <class Record>
void KillWorker::listWith(std::uint32_t seed) {
  Scenario<Record> scenario(root_, seed);
  const KillTrace trace = scenario.record();
  std::uint64_t h = 0;
  std::uint64_t images = 0;
  std::uint64_t last = trace.start.hash();
  Image image = trace.start;
  for (const KillEvent& event : trace.events) {
    event.applyTo(image);
    const std::uint64_t next = image.hash();
    if (next == last) continue;
    last = next;
    h = (h ^ next) * 0x9FB21C651E98DF25U;
    ++images;
  }
  std::printf("%u %s %llu images %016llx\n", seed, scenario.plan().name().c_str(),
              static_cast<unsigned long long>(images), static_cast<unsigned long long>(h));
}

void KillWorker::run(std::uint32_t seed, double until) {
  isLarge(seed) ? runWith<LargeRecord>(seed, until) : runWith<SmallRecord>(seed, until);
}

void KillWorker::list(std::uint32_t seed) {
  isLarge(seed) ? listWith<LargeRecord>(seed) : listWith<SmallRecord>(seed);
}

}  // namespace QuillTest
