// SPDX-License-Identifier: Apache-2.0
//
// The bases of a state machine and of its reactors.
//
// Vex::Machine<Self> takes from Self what it watches and what it owns, each stated once and in
// order, and gives the zombie, notification and teardown walks. Vex::Reactor<Machine, Watched> is
// the base of the nested reactor classes. Activity thread only.
//
// A machine owns its reactors by counted references; a reactor holds a plain pointer back, which
// the machine takes away in its destructor. A handler may, through nested reactions, lead to the
// end of its own machine: react() holds the machine until the handler has returned.
#pragma once

#include <exception>
#include <string_view>
#include <tuple>
#include <utility>

#include "runtime/vex/Notifiee.h"
#include "runtime/vex/Trace.h"

namespace Vex {

// Tells whoever traces that a reactor has raised; called inside a catch clause.
void traceNotificationException(std::string_view machine, AttributeId id);

// Self gives:
//   auto vexReactors()      a tuple of references to the Ptr of each reactor, in attribute order;
//   auto vexOwned()         the same for what is told of notification-active after the reactors.
// and befriends Vex::Machine<Self>. Its destructor begins with vexTeardown().
template <class Self>
class Machine : public VFPtrInterface {
 public:
  // What the class says of itself at run time. To call it, include runtime/vex/GenericType.h.
  static VexType* _fwkType() { return fwkTypeOf<Self>(); }
  VexType* fwkType() const { return _fwkType(); }

  void hasNotificationActiveIs(bool flag) override {
    if (flag == hasNotificationActive()) return;
    PtrInterface::hasNotificationActiveIs(flag);
    const auto passTo = [flag](auto& member) {
      if (member) member->hasNotificationActiveIs(flag);
    };
    const auto pass = [&passTo](auto&... member) { (passTo(member), ...); };
    std::apply(pass, self().vexReactors());
    std::apply(pass, self().vexOwned());
    self().vexOwnedCollections([flag](auto& member) { member.hasNotificationActiveIs(flag); });
  }

  // Passes the flag to the reactors in order, then records it.
  void vexDoZombieReactors(bool flag) {
    if (flag == isZombie()) return;
    forEachReactor([flag](auto& reactor) { reactor.vexDoZombieReactors(flag); });
    vexMarkedForDeletionIs(flag);
  }

 protected:
  Machine() noexcept = default;

  // Members of collections that are told too; none by default.
  template <class Call>
  void vexOwnedCollections(Call&& /*call*/) {}

  // What a destructor does first: makes the reactors zombies and takes their way back.
  void vexTeardown() {
    vexDoZombieReactors(true);
    forEachReactor([](auto& reactor) { reactor.machineDel(); });
  }

 private:
  Self& self() noexcept { return static_cast<Self&>(*this); }

  template <class Call>
  void forEachReactor(Call call) {
    const auto callFor = [&call](auto& reactor) {
      if (reactor) call(*reactor);
    };
    std::apply([&callFor](auto&... reactor) { (callFor(reactor), ...); }, self().vexReactors());
  }
};

// `Watched` is the class of the notifier; the reactor derives from Watched::NotifieeConst and
// overrides the operations of the attributes that it follows, each with one line:
//   void onDisabled() override { react([](VlanIntfTxSm& sm) { sm.handleDisabled(); }); }
template <class MachineType, class Watched>
class Reactor : public Watched::NotifieeConst {
 public:
  using Notifier = Watched;

  // Registers with the notifier. No replay: the machine's factory runs its handlers itself.
  // `notifier` may be null.
  void vexBind(MachineType* machine, const Ptr<Watched const>& notifier) {
    machine_ = machine;
    Watched::NotifieeConst::notifierIs(notifier);
    this->isRegisteredNotifieeIs(true);
  }

  // Rebinds; a notifier of another class counts as null. Replays what the machine prescribes,
  // unless the reactor is a zombie, and ends registered.
  void notifierIs(const Ptr<PtrInterface const>& notifier) override {
    const auto watched = dynamicPtrCast<Watched const>(notifier);
    if (watched.get() == this->notifier()) return;
    const Ptr<Reactor> hold(this);  // the replay may lead to the end of the machine
    Watched::NotifieeConst::notifierIs(watched);
    if (watched && !this->isZombie()) vexReplay();
    this->isRegisteredNotifieeIs(true);
  }

  void machineDel() noexcept { machine_ = nullptr; }

  using Watched::NotifieeConst::onNotificationException;
  void onNotificationException(AttributeId id) override {
    traceNotificationException(MachineType::kTypeName, id);
  }

 protected:
  Reactor() noexcept = default;

  // What a rebinding runs; nothing by default.
  virtual void vexReplay() {}

  // Runs a handler of the machine unless the reactor is a zombie.
  template <class Handler>
  void react(Handler&& handler) {
    if (this->isZombie() || machine_ == nullptr) return;
    const Ptr<MachineType> hold(machine_);
    handler(*machine_);
  }

 private:
  MachineType* machine_ = nullptr;
};

// What a reactor watches, null for a null reactor.
template <class R>
const typename R::Notifier* watched(const Ptr<R>& reactor) noexcept {
  return reactor ? static_cast<const typename R::Notifier*>(reactor->notifier()) : nullptr;
}

// Makes a reactor of class R and binds it; null for a null notifier.
template <class R, class MachineType, class N>
Ptr<R> newReactor(MachineType* machine, const Ptr<N>& notifier) {
  if (!notifier) return nullptr;
  auto reactor = makePtr<R>();
  reactor->vexBind(machine, notifier);
  return reactor;
}

}  // namespace Vex
