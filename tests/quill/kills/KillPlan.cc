// SPDX-License-Identifier: Apache-2.0
#include "tests/quill/kills/KillPlan.h"

#include <algorithm>

namespace QuillTest {

namespace {

constexpr unsigned kQueue = 336;  // entries in a page

unsigned below(std::mt19937& random, std::size_t limit) {
  return static_cast<unsigned>(random() % limit);
}

class Planner {
 public:
  Planner(KillPlan& plan, std::mt19937& random) : plan_(plan), random_(random) {
    counter_ = below(random_, 1'000'000);
  }

  void put(const Portus::IntfId& key, bool direct = false) {
    plan_.history.push_back({direct ? KillStep::direct : KillStep::put, key, ++counter_});
    plan_.before[key] = counter_;
    ++plan_.changes;
  }
  void del(const Portus::IntfId& key) {
    plan_.history.push_back({KillStep::del, key, 0});
    plan_.before.erase(key);
    ++plan_.changes;
  }
  void putSome(unsigned count) {
    const auto& keys = KillKeys::all();
    while (plan_.before.size() < count)
      put(keys[below(random_, keys.size())], below(random_, 4) == 0);
  }
  void changeSome(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      const Portus::IntfId key = anyOf(plan_.before);
      if (below(random_, 4) == 0) {
        del(key);
        put(below(random_, 2) == 0 ? key : absent());
      } else {
        put(key, below(random_, 4) == 0);
      }
    }
  }
  // Chains of which each place may be missing.
  void putChains() {
    const auto& keys = KillKeys::all();
    for (unsigned i = 0; i < KillKeys::kChain * KillKeys::kChains; ++i) {
      if (below(random_, 3) != 0) put(keys[i]);
    }
  }
  void report() {
    const auto upTo = static_cast<unsigned>(plan_.changes);
    const unsigned sequence = below(random_, 4) == 0 ? 0 : below(random_, upTo + 1);
    plan_.history.push_back({KillStep::report, {}, std::max<std::uint64_t>(sequence, reported_)});
    reported_ = plan_.history.back().number;
  }
  void restart() {
    plan_.history.push_back({KillStep::restart, {}, 0});
    reported_ = 0;
  }
  Portus::IntfId anyOf(const KillModel& model) {
    return std::next(model.begin(), static_cast<std::ptrdiff_t>(below(random_, model.size())))
        ->first;
  }
  Portus::IntfId absent(bool chained = false) {
    const auto& keys = KillKeys::all();
    const auto limit = static_cast<unsigned>(chained ? KillKeys::kChain : keys.size());
    std::size_t at = below(random_, limit);
    for (unsigned i = 0; i < keys.size() && plan_.before.contains(keys[at]); ++i) {
      at = (at + 1) % keys.size();
    }
    return keys[at];
  }
  void makeOperation() {
    plan_.counter = counter_ + 1;
    const bool isNew = plan_.op == KillOp::insert || plan_.op == KillOp::directNew ||
                       (plan_.op == KillOp::detachOpen && below(random_, 2) == 0) ||
                       plan_.before.empty();
    if (isNew) {
      plan_.key = absent(plan_.shape == KillShape::colliding);
    } else {
      plan_.key = anyOf(plan_.before);
    }
    plan_.after = plan_.before;
    if (plan_.op == KillOp::remove) {
      plan_.after.erase(plan_.key);
    } else if (plan_.isChange()) {
      plan_.after[plan_.key] = plan_.counter;
    } else if (plan_.op == KillOp::cleanup) {
      plan_.after.clear();
    }
  }

 private:
  KillPlan& plan_;
  std::mt19937& random_;
  std::uint32_t counter_ = 0;
  std::uint64_t reported_ = 0;
};

}  // namespace

const char* nameOf(KillOp op) {
  static constexpr std::array<const char*, kKillOps> kNames{
      "format",     "attach",     "insert", "update",      "remove",
      "direct-new", "direct-old", "detach", "detach-open", "cleanup"};
  return kNames[static_cast<unsigned>(op)];
}

const char* nameOf(KillShape shape) {
  static constexpr std::array<const char*, kKillShapes> kNames{
      "empty", "small", "colliding", "full", "queue-full", "queue-again", "wide"};
  return kNames[static_cast<unsigned>(shape)];
}

std::string KillPlan::name() const { return std::string(nameOf(op)) + "/" + nameOf(shape); }

KillPlan newKillPlan(KillOp op, KillShape shape, unsigned slotsInPage, std::mt19937& random) {
  KillPlan plan;
  plan.op = op;
  plan.shape = op == KillOp::format ? KillShape::empty : shape;
  const bool needsKey = op == KillOp::update || op == KillOp::remove || op == KillOp::directOld;
  if (needsKey && shape == KillShape::empty) plan.shape = KillShape::small;
  static constexpr std::array<unsigned, 5> kSizes{0, 3, 16, 97, 250};
  plan.maxSlots = kSizes[below(random, kSizes.size())];
  Planner planner(plan, random);
  switch (plan.shape) {
    case KillShape::empty:
      // Of which there are two kinds: never used, and empty again.
      if (op != KillOp::format && below(random, 2) == 0) {
        planner.putSome(1);
        planner.del(plan.before.begin()->first);
      }
      break;
    case KillShape::small:
      planner.putSome(1 + below(random, std::min(slotsInPage - 1, 12U)));
      planner.changeSome(below(random, 20));
      break;
    case KillShape::colliding:
      planner.putChains();
      if (plan.before.empty()) planner.put(KillKeys::all().front());
      break;
    case KillShape::full:
      planner.putSome(slotsInPage);
      if (below(random, 2) == 0) planner.report();
      break;
    case KillShape::queueFull:
    case KillShape::queueAgain:
      planner.putSome(1 + below(random, slotsInPage));
      while (plan.changes < kQueue - 2) {
        planner.changeSome(1);
        if (plan.changes > kQueue / 2 && below(random, 150) == 0) planner.report();
      }
      moreChanges(plan, kQueue, random);
      if (below(random, 3) != 0) planner.report();
      break;
    case KillShape::wide:
      planner.putSome(kQueue / 2 + 1 + below(random, 60));
      planner.report();
      moreChanges(plan, kQueue, random);
      break;
  }
  if (op == KillOp::attach && below(random, 2) == 0 && plan.changes > 0) planner.report();
  planner.makeOperation();
  return plan;
}

void moreChanges(KillPlan& plan, std::uint64_t count, std::mt19937& random) {
  Planner planner(plan, random);
  const bool planned = !plan.after.empty() || plan.counter != 0;
  if (plan.before.empty() && plan.changes < count) planner.put(planner.absent());
  while (plan.changes < count) planner.put(planner.anyOf(plan.before));
  if (planned) {
    if (below(random, 4) == 0) {
      planner.restart();
    } else if (below(random, 3) != 0) {
      planner.report();
    }
    planner.makeOperation();
  }
}

}  // namespace QuillTest
