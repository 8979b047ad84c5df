// SPDX-License-Identifier: Apache-2.0
//
// An entity with one plain attribute and one collection, and a watcher of it that writes down what
// it is told. For the tests of the object runtime; one thread.
//
// A Watcher writes its name for each change of colour, "name:key" for each key, "name!id" for an
// exception that came back to it and "~name" when it is destroyed. The log must outlive it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "runtime/vex/Collection.h"
#include "runtime/vex/Entity.h"

namespace RuntimeTest {

using Log = std::vector<std::string>;

class Lamp final : public Vex::EntityOf<Lamp> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onColour() {}
    virtual void onSocket(const std::uint32_t& /*number*/) {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kColour = kFirstOwnAttribute;
  static constexpr Vex::AttributeId kSocket = kFirstOwnAttribute + 1;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kColour, "colour", Vex::AttributeKind::plain},
      {kSocket, "socket", Vex::AttributeKind::collection}};

  explicit Lamp(const Vex::Name& name = "lamp", Log* log = nullptr) : EntityOf(name), log_(log) {}
  ~Lamp() override {
    if (log_ != nullptr) log_->push_back("~" + name().str());
  }

  int colour() const { return colour_; }
  void colourIs(int colour) { plainIs<kColour, &NotifieeConst::onColour>(colour_, colour); }

  const bool* socket(std::uint32_t number) const { return sockets_.find(number); }
  void socketIs(std::uint32_t number, bool used) {
    if (sockets_.valueIs(number, used)) notifyKey<kSocket, &NotifieeConst::onSocket>(number);
  }
  void socketDel(std::uint32_t number) {
    if (sockets_.valueDel(number)) notifyKey<kSocket, &NotifieeConst::onSocket>(number);
  }
  // Tells of a key that lives elsewhere and may go while its change is told.
  void socketNotify(const std::uint32_t& number) {
    notifyKey<kSocket, &NotifieeConst::onSocket>(number);
  }

  struct TellColour {
    void operator()(NotifieeConst& notifiee) const { notifiee.onColour(); }
  };
  // Stores without telling; the caller delivers the walk.
  Vex::SuspendableWalk<NotifieeConst, TellColour> colourIsSuspended(int colour) {
    colour_ = colour;
    return {notifiees(), kColour, TellColour()};
  }

 private:
  int colour_ = 0;
  Vex::ValueCollection<std::uint32_t, bool> sockets_;
  Log* const log_;
};

class Watcher : public Lamp::NotifieeConst {
 public:
  Watcher(std::string name, Log* log, std::function<void()> call = {})
      : handler(std::move(call)), name_(std::move(name)), log_(log) {}
  ~Watcher() override { log_->push_back("~" + name_); }

  void onColour() override {
    if (isZombie()) return;
    log_->push_back(name_);
    if (handler) handler();
  }
  void onSocket(const std::uint32_t& number) override {
    if (isZombie()) return;
    if (handler) handler();
    log_->push_back(name_ + ":" + std::to_string(number));
  }
  using Vex::NotifieeConst::onNotificationException;
  void onNotificationException(Vex::AttributeId id) override {
    log_->push_back(name_ + "!" + std::to_string(id));
  }
  std::string_view name() const override { return name_; }

  std::function<void()> handler;

 private:
  const std::string name_;
  Log* const log_;
};

// A watcher that carries changes elsewhere and therefore stands first.
class Adapter final : public Watcher {
 public:
  using Watcher::Watcher;
  bool isStreamAdapter() const override { return true; }
};

// Makes a registered watcher.
template <class W = Watcher>
Vex::Ptr<W> newWatcher(const Vex::Ptr<Lamp>& lamp, std::string name, Log* log,
                       std::function<void()> handler = {}) {
  auto watcher = Vex::makePtr<W>(std::move(name), log, std::move(handler));
  watcher->notifierIs(lamp);
  watcher->isRegisteredNotifieeIs(true);
  return watcher;
}

}  // namespace RuntimeTest
