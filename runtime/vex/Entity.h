// SPDX-License-Identifier: Apache-2.0
//
// Vex::Entity: a counted object with a name, a parent and attributes whose changes are told to its
// notifiees, and Vex::EntityOf<Self>, the base from which each entity class takes its setters.
// Activity thread only.
//
// A setter that changes a value stores it, walks the notifiees as they stood at that moment and
// returns when the last one has been told: handlers see the change made, may change other
// attributes, and their own reactions nest. An equal value is silent. What a handler raises ends at
// that handler (guardedNotification).
//
// A parent owns its children; a child refers to its parent by a plain pointer, which the parent
// takes back when it lets the child go.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "runtime/vex/ListRaw.h"
#include "runtime/vex/Notifiee.h"
#include "runtime/vex/String8.h"

namespace Vex {

enum class AttributeKind : std::uint8_t { plain, collection, queue, ownedChild };

// One line of an entity's description; each class keeps a constexpr table of them, in the order of
// declaration, next to its accessors.
struct AttributeInfo {
  AttributeId id;
  std::string_view name;
  AttributeKind kind;
};

class Entity : public VFPtrInterface {
 public:
  class NotifieeConst : public Vex::NotifieeConst {
   public:
    virtual void onParent() {}
    virtual void onVersion() {}
    virtual void onIsNondestructing() {}

   protected:
    NotifieeConst() noexcept = default;
  };

  static constexpr AttributeId kParent = 2;
  static constexpr AttributeId kVersion = 4;
  static constexpr AttributeId kIsNondestructing = 6;
  // The first number that an entity class may give to an attribute of its own.
  static constexpr AttributeId kFirstOwnAttribute = 258;

  const Name& name() const noexcept { return name_; }

  Entity* parent() const noexcept { return parent_; }
  // Which attribute of the parent holds this entity: its number, and its name. 0 and "" for none.
  AttributeId parentAttrId() const noexcept { return parentAttrId_; }
  std::string_view parentAttr() const;
  void parentIs(Entity* parent);
  void parentAttrIdIs(AttributeId id) noexcept { parentAttrId_ = id; }

  // The names from the root down, joined by '/'. A member of a collection that has a key instead of
  // a name appears as attribute[key].
  std::string fullName() const;
  // fullName() as an absolute path.
  std::string uriPath() const { return "/" + fullName(); }
  // The key as text of a member that its key identifies, empty for others.
  virtual std::string fwkKeyText() const { return {}; }

  // A number that the owner of the entity may use to mark states of it.
  std::uint32_t version() const noexcept { return version_; }
  void versionIs(std::uint32_t version);

  // A nondestructing entity is not deleted with its last reference but stays for the life of the
  // process.
  bool isNondestructing() const noexcept { return isNondestructing_; }
  void isNondestructingIs(bool flag);

  bool vexHasAttrLogInterface() const noexcept { return hasAttrLogInterface_; }
  void vexHasAttrLogInterfaceIs(bool flag) noexcept { hasAttrLogInterface_ = flag; }

  // Tells the notifiees that nobody refers to the entity any more.
  void zeroReferencesIs();

  // The class's own attributes.
  virtual std::span<const AttributeInfo> attributes() const noexcept { return {}; }
  // The name of an attribute, "unknown" for a number that the entity does not know.
  std::string_view attributeString(AttributeId id) const;

  std::uint32_t notifieeCount() const noexcept { return notifiees_.count(); }
  std::uint32_t notifieeListVersion() const noexcept { return notifiees_.version(); }

 protected:
  explicit Entity(Name name) noexcept : name_(std::move(name)) {}
  void handleZeroRef() override;

  void listNotifiee(Vex::NotifieeConst& notifiee, bool registered) const;
  const ListRaw<Vex::NotifieeConst>& notifiees() const noexcept { return notifiees_; }

 private:
  bool isNondestructing_ = false;  // in the padding behind the base's count word
  bool hasAttrLogInterface_ = false;
  Name name_;
  Entity* parent_ = nullptr;
  AttributeId parentAttrId_ = 0;
  std::uint32_t version_ = 0;
  mutable ListRaw<Vex::NotifieeConst> notifiees_;
};

// A notification that is delivered in pieces: to the notifiees ahead of a given one, and later to
// those behind it. What is delivered, to whom and in which order are those of one ordinary walk;
// the time between the pieces belongs to the caller. `Call` is copied and called with each
// Notifiee&.
template <class Notifiee, class Call>
class SuspendableWalk {
 public:
  SuspendableWalk(const ListRaw<NotifieeConst>& list, AttributeId id, Call call) noexcept
      : snapshot_(list), id_(id), call_(std::move(call)) {}

  // Tells every notifiee ahead of `stop` and steps over it. False if `stop` is not (or no longer)
  // among those to be told; then all have been told.
  bool tellUntil(const NotifieeConst& stop) {
    while (NotifieeConst* notifiee = snapshot_.next()) {
      if (notifiee == &stop) return true;
      tell(*notifiee);
    }
    return false;
  }
  void tellRest() {
    while (NotifieeConst* notifiee = snapshot_.next()) tell(*notifiee);
  }

 private:
  void tell(NotifieeConst& notifiee) {
    guardedNotification(notifiee, id_, [&] { call_(static_cast<Notifiee&>(notifiee)); });
  }

  SnapshotIterator<NotifieeConst> snapshot_;
  AttributeId id_;
  Call call_;
};

// The base of an entity class: `class Config : public Vex::EntityOf<Config>`. Self must have a
// nested class NotifieeConst, derived from Entity::NotifieeConst, with the operations of its
// attributes.
template <class Self>
class EntityOf : public Entity {
 public:
  // Only notifiees of the class's own kind can watch it; any other raises an internal exception.
  void notifieeRegisteredIs(Vex::NotifieeConst& notifiee, bool registered) const final {
    if (registered && dynamic_cast<typename Self::NotifieeConst*>(&notifiee) == nullptr) {
      throwInternalException("a reactor of another class cannot watch this entity");
    }
    listNotifiee(notifiee, registered);
  }

  std::span<const AttributeInfo> attributes() const noexcept override { return Self::kAttributes; }

 protected:
  explicit EntityOf(Name name) noexcept : Entity(std::move(name)) {}

  // Tells each notifiee by `call`, which takes a Self::NotifieeConst&.
  template <class Call>
  void notify(AttributeId id, Call&& call) const {
    if (notifiees().count() == 0) return;
    SnapshotIterator<Vex::NotifieeConst> snapshot(notifiees());
    while (Vex::NotifieeConst* notifiee = snapshot.next()) {
      guardedNotification(*notifiee, id,
                          [&] { call(static_cast<typename Self::NotifieeConst&>(*notifiee)); });
    }
  }

  // The setter of a plain attribute.
  template <AttributeId Id, auto Handler, class Value>
  void plainIs(Value& stored, const std::type_identity_t<Value>& value) {
    if (stored == value) return;
    stored = value;
    notify(Id, [](auto& notifiee) { (notifiee.*Handler)(); });
  }

  // The notification of one key of a collection. Takes a copy: what the caller's key belongs to may
  // go while it is told.
  template <AttributeId Id, auto Handler, class Key>
  void notifyKey(Key key) const {
    notify(Id, [&](auto& notifiee) { (notifiee.*Handler)(key); });
  }
};

}  // namespace Vex
