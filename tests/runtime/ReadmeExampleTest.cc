// SPDX-License-Identifier: Apache-2.0
//
// The example of runtime/README.md, whole, and what it does. Change both together.
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <tuple>
#include <vector>

// [example]
#include "runtime/helm/TimerWheel.h"
#include "runtime/vex/Entity.h"
#include "runtime/vex/LogService.h"
#include "runtime/vex/Machine.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace Kitchen {

// What is known about a kettle. Anybody may watch it.
class Kettle final : public Vex::EntityOf<Kettle> {
 public:
  // One operation for each attribute. Defaults do nothing.
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onHeating() {}
    virtual void onCelsius() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kHeating = kFirstOwnAttribute;
  static constexpr Vex::AttributeId kCelsius = kFirstOwnAttribute + 1;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kHeating, "heating", Vex::AttributeKind::plain},
      {kCelsius, "celsius", Vex::AttributeKind::plain}};

  explicit Kettle(const Vex::Name& name) : EntityOf(name) {}

  bool heating() const noexcept { return heating_; }
  void heatingIs(bool on) { plainIs<kHeating, &NotifieeConst::onHeating>(heating_, on); }
  double celsius() const noexcept { return celsius_; }
  void celsiusIs(double degrees) {
    plainIs<kCelsius, &NotifieeConst::onCelsius>(celsius_, degrees);
  }

 private:
  bool heating_ = false;
  double celsius_ = 20.0;
};

const Vex::LogHandle kDryKettle("KITCHEN_DRY_KETTLE", Vex::LogSeverity::warning,
                                "Kettle %s has been heating for too long", "It may be empty.",
                                "Fill the kettle.", 0.0, 1.0, 0);

// Switches a kettle off when its water boils, or after three minutes.
class KettleGuard final : public Vex::Machine<KettleGuard> {
 public:
  static constexpr std::string_view kTypeName = "Kitchen::KettleGuard";

  KettleGuard(const Vex::Ptr<Kettle>& kettle, const Vex::Ptr<Helm::TimerWheel const>& wheel)
      : kettle_(Vex::validPtr(kettle)),
        kettleReactor_(Vex::newReactor<VexKettle>(this, Vex::Ptr<Kettle const>(kettle_))),
        timer_(Vex::newReactor<VexTimer>(this, wheel)) {
    handleHeating();  // nothing is replayed: what stands already is looked at here
    hasNotificationActiveIs(true);
  }
  ~KettleGuard() override { vexTeardown(); }

  void handleHeating() { timer_->timeMinIs(kettle_->heating() ? Vex::now() + 180.0 : Vex::kNever); }
  void handleCelsius() {
    if (kettle_->celsius() >= 100.0) kettle_->heatingIs(false);
  }
  void handleTimer() {
    Vex::log(kDryKettle, kettle_->name());
    kettle_->heatingIs(false);
  }

 private:
  friend class Vex::Machine<KettleGuard>;

  // One line for each attribute that the machine follows.
  class VexKettle final : public Vex::Reactor<KettleGuard, Kettle> {
   public:
    void onHeating() override {
      react([](KettleGuard& guard) { guard.handleHeating(); });
    }
    void onCelsius() override {
      react([](KettleGuard& guard) { guard.handleCelsius(); });
    }
  };
  // A timer is a reactor whose notifier is the wheel.
  class VexTimer final : public Vex::Reactor<KettleGuard, Helm::TimerWheel> {
   public:
    void onTime() override {
      react([](KettleGuard& guard) { guard.handleTimer(); });
    }
  };

  auto vexReactors() { return std::tie(kettleReactor_, timer_); }
  static auto vexOwned() { return std::tie(); }

  const Vex::Ptr<Kettle> kettle_;
  Vex::Ptr<VexKettle> kettleReactor_;
  Vex::Ptr<VexTimer> timer_;
};

// A morning, in virtual time. Returns what was logged.
std::vector<std::string> morning() {
  Vex::VirtualActivityManager loop;                 // a program takes Vex::EpollActivityManager
  const Vex::CurrentActivityManager current(loop);  // for what is built outside of a turn
  Vex::MemorySink log;
  loop.logService().sinkIs(log);

  const auto wheel =
      Vex::makePtr<Helm::TimerWheel const>(nullptr, loop.clock(), 10U, 60000U, true, 64U);
  const auto kettle = Vex::makePtr<Kettle>("kettle");
  const auto guard = Vex::makePtr<KettleGuard>(kettle, wheel);

  kettle->heatingIs(true);  // the guard has armed its timer when this returns
  loop.runFor(90.0);
  kettle->celsiusIs(100.0);  // the guard has switched the kettle off when this returns
  loop.runFor(600.0);        // so nothing is due

  kettle->celsiusIs(20.0);
  kettle->heatingIs(true);
  loop.runFor(600.0);  // after 180 seconds of it the guard logs and switches off
  return log.texts();
}

}  // namespace Kitchen
// [example]

namespace {

TEST(ReadmeExample, LogsTheKettleThatHeatsForTooLongAndNotTheOneThatBoils) {
  EXPECT_EQ(Kitchen::morning(),
            std::vector<std::string>{"Kettle kettle has been heating for too long"});
}

TEST(ReadmeExample, TheGuardHasActedWhenTheSetterReturns) {
  Vex::VirtualActivityManager loop;
  const Vex::CurrentActivityManager current(loop);
  const auto wheel =
      Vex::makePtr<Helm::TimerWheel const>(nullptr, loop.clock(), 10U, 60000U, true, 64U);
  const auto kettle = Vex::makePtr<Kitchen::Kettle>("kettle");
  const auto guard = Vex::makePtr<Kitchen::KettleGuard>(kettle, wheel);
  kettle->heatingIs(true);
  kettle->celsiusIs(99.0);
  EXPECT_TRUE(kettle->heating());
  kettle->celsiusIs(100.0);
  EXPECT_FALSE(kettle->heating());
}

}  // namespace
