// SPDX-License-Identifier: Apache-2.0
//
// The scheduler's drain against the nested rule (NestedScheduler.h): the same for every observer,
// and for any number of waiting requests on a small stack.
#include <gtest/gtest.h>
#include <pthread.h>

#include <bit>
#include <memory>
#include <random>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include "engine/EngineLogs.h"
#include "engine/TransmitSm.h"
#include "tests/engine/NestedScheduler.h"
#include "tests/engine/World.h"

namespace {

using Ringward::RINGWARD_THROTTLE;
using Ringward::Status::IntfAndVlan;
using Ringward::Status::TransmitStatus;
using Events = std::vector<std::string>;

// Turns the trace of a reactor that has raised into an event.
class RaisedTraces final : public std::streambuf {
 public:
  explicit RaisedTraces(Events& events) : events_(events), stream_(this) {
    Vex::coverageStream_ = &stream_;
  }
  ~RaisedTraces() override { Vex::coverageStream_ = nullptr; }

 protected:
  int_type overflow(int_type c) override {
    if (c == '\n') {
      line();
    } else if (c != traits_type::eof()) {
      text_ += traits_type::to_char_type(c);
    }
    return c;
  }

 private:
  void line() {
    static const std::string kMark = "a reactor of Ringward::TransmitSm raised on attribute ";
    const auto at = text_.find(kMark);
    if (at != std::string::npos) {
      events_.push_back("raised " + std::to_string(std::stoul(text_.substr(at + kMark.size()))));
    }
    text_.clear();
  }
  Events& events_;
  std::ostream stream_;
  std::string text_;
};

// Writes down each notification, and now and then acts from inside one. What it does follows from
// its own seed and the notifications that it has seen.
class Watcher final : public TransmitStatus::NotifieeConst {
 public:
  Watcher(std::string name, World& w, Events& events, std::uint32_t seed, int budget)
      : name_(std::move(name)), w_(w), events_(events), random_(seed), budget_(budget) {}
  using NotifieeConst::onHighPriority;
  using NotifieeConst::onNotificationException;
  using NotifieeConst::onRegularPriority;
  void onHighPriority(std::uint32_t index) override { seen("high", index); }
  void onRegularPriority(std::uint32_t index) override { seen("regular", index); }
  void onNotificationException(Vex::AttributeId id) override {
    events_.push_back(name_ + " raised " + std::to_string(id));
  }

 private:
  void seen(const char* queue, std::uint32_t index) {
    std::ostringstream os;
    os << name_ << ' ' << queue << ' ' << index << " members "
       << w_.queues->highPriority().members() << ' ' << w_.queues->regularPriority().members();
    events_.push_back(os.str());
    if (budget_ <= 0 || random_() % 4 != 0) return;
    --budget_;
    act();
  }
  void act() {
    const auto pick = [&](std::uint32_t n) { return static_cast<std::uint32_t>(random_() % n); };
    switch (pick(7)) {
      case 0:
        w_.queues->highPriorityEnq(pairOf("eth1", static_cast<int>(100 + pick(50))));
        break;
      case 1:
        w_.queues->regularPriorityEnq(pairOf("eth1", static_cast<int>(100 + pick(50))));
        break;
      case 2:
        w_.queues->highPriorityDel(w_.queues->highPriority().headIndex() + pick(3));
        break;
      case 3:
        w_.queues->regularPriorityDel(w_.queues->regularPriority().headIndex() + pick(3));
        break;
      case 4:
        w_.queues->regularPriorityDeq();
        break;
      case 5:
        w_.config->transmitConfig()->rateLimitIs(pick(6));
        break;
      default:
        throw std::runtime_error("a watcher raises");
    }
  }

  const std::string name_;
  World& w_;
  Events& events_;
  std::mt19937 random_;
  int budget_;
};

struct Outcome {
  Events events;
  std::uint32_t transmitCount = 0;
  std::uint64_t attempts = 0;
  std::uint64_t written = 0;
  std::vector<std::uint32_t> indices;
  std::vector<IntfAndVlan> values;
  std::vector<std::uint32_t> metadata;
  bool operator==(const Outcome&) const = default;
};

void describe(const TransmitStatus::Queue& queue, Outcome& outcome) {
  for (const auto* m = queue.head(); m != nullptr; m = queue.memberAfter(m->vex_index())) {
    outcome.indices.push_back(m->vex_index());
    outcome.values.push_back(m->value());
  }
  outcome.metadata.push_back(queue.headIndex());
  outcome.metadata.push_back(queue.nextIndex());
  outcome.metadata.push_back(static_cast<std::uint32_t>(queue.dequeues()));
}

// One run of a scenario, by the machine or by the rule.
Outcome run(std::uint32_t seed, bool byRule) {
  World w;
  Outcome outcome;
  Events& events = outcome.events;
  std::mt19937 random(seed);
  const auto pick = [&](std::uint32_t n) { return static_cast<std::uint32_t>(random() % n); };
  const auto request = [&]() -> IntfAndVlan {
    const std::uint32_t kind = pick(12);
    if (kind == 0) {  // a request that raises
      return {intfOf("eth1"), std::bit_cast<Bridging::VlanId>(std::uint16_t{4095})};
    }
    if (kind == 1) return pairOf("eth9", static_cast<int>(10 + pick(5)));  // no packet access
    return pairOf("eth1", static_cast<int>(10 + pick(80)));
  };
  const auto pam = w.portWithPam("eth1", 4000);
  pam->onTx = [&] {
    const Frame& frame = pam->sent.back();
    events.push_back("send " + std::to_string((frame[14] & 0x0F) << 8 | frame[15]));
  };
  const auto fill = [&](std::uint32_t high, std::uint32_t regular) {
    for (std::uint32_t i = 0; i < high; ++i) w.queues->highPriorityEnq(request());
    for (std::uint32_t i = 0; i < regular; ++i) w.queues->regularPriorityEnq(request());
  };
  std::vector<Vex::Ptr<Watcher>> watchers;
  const auto watch = [&](std::string name) {
    const int budget = static_cast<int>(pick(6));
    watchers.push_back(Vex::makePtr<Watcher>(std::move(name), w, events,
                                             static_cast<std::uint32_t>(random()), budget));
    watchers.back()->notifierIs(w.queues);
    watchers.back()->isRegisteredNotifieeIs(true);
  };
  w.config->transmitConfig()->rateLimitIs(pick(3) == 0 ? 0 : pick(30));
  fill(pick(20), pick(20));
  for (std::uint32_t i = pick(3); i > 0; --i) watch("before" + std::to_string(i));

  Vex::Ptr<Ringward::TransmitSm> machine;
  std::unique_ptr<NestedScheduler> rule;
  const RaisedTraces traces(events);
  const auto start = [&] {
    if (!byRule) {
      machine =
          Ringward::transmitSmFactory(w.wheel, w.config->transmitConfig(), w.queues, w.pams,
                                      w.counters, w.status, w.topoLibState, w.brConfig, nullptr);
      return;
    }
    const auto send = [&](const IntfAndVlan& r) {
      (void)Bridging::VlanIdOrNone(r.vlanId.value());
      if (!w.pams->intfPam(r.intfId)) return;
      events.push_back("send " + std::to_string(r.vlanId.value()));
    };
    const auto raised = [&](Vex::AttributeId id) {
      events.push_back("raised " + std::to_string(id));
    };
    rule = std::make_unique<NestedScheduler>(w.queues, w.config->transmitConfig(), send, raised);
  };
  try {
    start();
  } catch (const Vex::RangeException&) {
    // A factory lets out what its first drain raises. The object is gone, and the queues are
    // shorter.
    events.push_back("construction raised");
  }
  for (std::uint32_t i = pick(3); i > 0; --i) watch("after" + std::to_string(i));

  for (int step = 0; step < 12 && (machine || rule); ++step) {
    switch (pick(5)) {
      case 0:
      case 1:
        fill(pick(4), pick(8));
        break;
      case 2:
        w.config->transmitConfig()->rateLimitIs(pick(20));
        break;
      default:
        // As the wheel delivers an expiry.
        try {
          machine ? machine->handleThrottleTimer() : rule->handleThrottleTimer();
        } catch (const Vex::RangeException&) {
          events.push_back("expiry raised");
        }
        break;
    }
    events.push_back("step");
  }
  if (machine || rule) {
    outcome.transmitCount = machine ? machine->transmitCount() : rule->transmitCount();
  }
  outcome.attempts = w.manager.logService().counts(RINGWARD_THROTTLE).attempts;
  outcome.written = w.manager.logService().counts(RINGWARD_THROTTLE).written;
  describe(w.queues->highPriority(), outcome);
  describe(w.queues->regularPriority(), outcome);
  for (const auto& watcher : watchers) watcher->isRegisteredNotifieeIs(false);
  return outcome;
}

TEST(TransmitDrain, LooksToEveryObserverAsTheNestedRuleDoes) {
  constexpr std::uint32_t kFirstSeed = 20240117;
  std::size_t sends = 0;
  std::size_t raised = 0;
  std::uint64_t attempts = 0;
  for (std::uint32_t seed = kFirstSeed; seed < kFirstSeed + 3000; ++seed) {
    const Outcome expected = run(seed, /*byRule=*/true);
    const Outcome actual = run(seed, /*byRule=*/false);
    ASSERT_EQ(actual.events, expected.events) << "seed " << seed;
    ASSERT_EQ(actual, expected) << "seed " << seed;
    attempts += expected.attempts;
    for (const auto& event : expected.events) {
      sends += event.starts_with("send") ? 1U : 0U;
      raised += event.starts_with("raised") ? 1U : 0U;
    }
  }
  // The scenarios are worth something only if they lead to all of this.
  EXPECT_GT(sends, 10000U);
  EXPECT_GT(raised, 500U);
  EXPECT_GT(attempts, 1000U);
}

// Runs `call` on a thread whose stack has 256 KiB.
void onSmallStack(void (*call)()) {
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 * 1024), 0);
  pthread_t thread;
  const auto entry = [](void* argument) -> void* {
    reinterpret_cast<void (*)()>(argument)();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, entry, reinterpret_cast<void*>(call)), 0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attributes);
}

constexpr std::uint32_t kMany = 1'000'000;

// Every request is a pair of its own, so that the order shows.
IntfAndVlan nthRequest(std::uint32_t n) {
  static const Portus::IntfId first = intfOf("eth0");
  return {Portus::IntfId::fromValue(first.value() + n / 4000),
          vlanOf(static_cast<int>(n % 4000 + 1))};
}

// Notes the order of the sends without keeping the frames.
class OrderPam final : public Portus::Pam {
 public:
  OrderPam(const Portus::IntfId& intfId, std::vector<IntfAndVlan>& order)
      : Pam(intfId), order_(order) {}
  Vex::Ptr<Portus::Pkt> rxPkt() override { return nullptr; }
  void txPkt(const Vex::Ptr<Portus::Pkt>& pkt) override {
    const auto* bytes = pkt->data();
    order_.push_back({intfId(), vlanOf((bytes[14] & 0x0F) << 8 | bytes[15])});
  }

 private:
  std::vector<IntfAndVlan>& order_;
};

struct ManyWorld {
  ManyWorld() {
    for (std::uint32_t n = 0; n < kMany; n += 4000) {
      const Portus::IntfId intfId = nthRequest(n).intfId;
      w.pams->intfPamIs(intfId, Vex::makePtr<OrderPam>(intfId, order));
      w.brConfig->switchIntfConfigIs(intfId)->nativeVlanIs(vlanOrNone(0));
    }
    order.reserve(kMany);
    for (std::uint32_t n = 0; n < kMany; ++n) w.queues->regularPriorityEnq(nthRequest(n));
  }
  Vex::Ptr<Ringward::TransmitSm> start(std::uint32_t limit) {
    w.config->transmitConfig()->rateLimitIs(limit);
    return Ringward::transmitSmFactory(w.wheel, w.config->transmitConfig(), w.queues, w.pams,
                                       w.counters, w.status, w.topoLibState, w.brConfig, nullptr);
  }
  World w;
  std::vector<IntfAndVlan> order;
};

void expectReverse(const std::vector<IntfAndVlan>& order, std::uint32_t count) {
  ASSERT_EQ(order.size(), count);
  for (std::uint32_t i = 0; i < count; ++i) ASSERT_EQ(order[i], nthRequest(count - 1 - i)) << i;
}

TEST(TransmitDrain, AMillionRequestsWithoutALimitAllGoOnASmallStackInReverse) {
  onSmallStack([] {
    ManyWorld many;
    const auto sut = many.start(0);
    expectReverse(many.order, kMany);
    EXPECT_EQ(sut->transmitCount(), kMany);
    EXPECT_TRUE(many.w.queues->regularPriority().empty());
    EXPECT_EQ(many.w.manager.logService().counts(RINGWARD_THROTTLE).attempts, 0U);
  });
}

TEST(TransmitDrain, ALimitInsideAMillionRequestsHoldsExactlyAndEachLevelMakesItsAttempt) {
  onSmallStack([] {
    ManyWorld many;
    const auto sut = many.start(kMany / 2);
    expectReverse(many.order, kMany / 2);
    EXPECT_EQ(sut->transmitCount(), kMany / 2);
    EXPECT_EQ(many.w.queues->regularPriority().members(), kMany / 2);
    EXPECT_EQ(many.w.queues->regularPriority().headIndex(), kMany / 2);
    // One level for each request that went, and the one that found the limit.
    EXPECT_EQ(many.w.manager.logService().counts(RINGWARD_THROTTLE).attempts, kMany / 2 + 1);
  });
}

TEST(TransmitDrain, EachRequestIsToldOfOnceForItsAppendAndOnceForItsRemoval) {
  class Counter final : public TransmitStatus::NotifieeConst {
   public:
    using NotifieeConst::onRegularPriority;
    void onRegularPriority(std::uint32_t /*index*/) override { ++count; }
    std::uint64_t count = 0;
  };
  World w;
  const auto counter = Vex::makePtr<Counter>();
  counter->notifierIs(w.queues);
  counter->isRegisteredNotifieeIs(true);
  constexpr int kRequests = 20000;
  for (int i = 0; i < kRequests; ++i) w.queues->regularPriorityEnq(pairOf("eth9", 1 + i % 4000));
  w.config->transmitConfig()->rateLimitIs(0);
  const auto sut =
      Ringward::transmitSmFactory(w.wheel, w.config->transmitConfig(), w.queues, w.pams, w.counters,
                                  w.status, w.topoLibState, w.brConfig, nullptr);
  EXPECT_EQ(counter->count, 2U * kRequests);
  counter->isRegisteredNotifieeIs(false);
}

}  // namespace
