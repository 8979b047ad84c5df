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

// `members` are entities under keys, `table` a collection in the store of tables and `control` the
// handle by which it is mounted.
enum class AttributeKind : std::uint8_t {
  plain,
  collection,
  queue,
  ownedChild,
  members,
  table,
  control
};

// One line of an entity's description: a table of them, in the order of declaration, is Self's
// kAttributes. Classes that other processes reach derive it from their Description.
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

  static constexpr AttributeId kName = 1;
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
  // Runs handleParent(), then tells the notifiees. What handleParent() raises is the caller's; the
  // entity stands under its new parent all the same, and everybody has been told.
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

  // For stream adapters, of which an entity may have several: whether a transfer that one of them
  // takes in has marked the members of the attribute at this position of the class.
  static constexpr std::size_t kTransfers = 16;
  bool vexTransferUnderWay(std::size_t position) const noexcept {
    return (transfers_ >> position & 1U) != 0;
  }
  void vexTransferUnderWayIs(std::size_t position, bool flag) noexcept {
    const auto bit = static_cast<std::uint16_t>(1U << position);
    transfers_ = static_cast<std::uint16_t>(flag ? transfers_ | bit : transfers_ & ~bit);
  }

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

  // The entity was placed under a parent, or taken away from the one that it had.
  virtual void handleParent() {}

  void listNotifiee(Vex::NotifieeConst& notifiee, bool registered) const;
  const ListRaw<Vex::NotifieeConst>& notifiees() const noexcept { return notifiees_; }

 private:
  bool isNondestructing_ = false;  // in the padding behind the base's count word
  bool hasAttrLogInterface_ = false;
  std::uint16_t transfers_ = 0;
  Name name_;
  Entity* parent_ = nullptr;
  AttributeId parentAttrId_ = 0;
  std::uint32_t version_ = 0;
  mutable ListRaw<Vex::NotifieeConst> notifiees_;
};

// The address of the key that a notification is about: what `call.key` holds, null for a call that
// has none.
template <class Call>
const void* keyOfChange(const Call& call) noexcept {
  if constexpr (requires { call.key; }) {
    return &call.key;
  } else {
    return nullptr;
  }
}

// Tells one notifiee of one change, a stream adapter by number and key and everybody else by
// `call`.
template <class Notifiee, class Call>
void tellChange(Vex::NotifieeConst& notifiee, AttributeId id, Call& call) {
  guardedNotification(notifiee, id, [&] {
    if (notifiee.vexTakesNumbers()) {
      notifiee.vexOnChange(id, keyOfChange(call));
    } else {
      call(static_cast<Notifiee&>(notifiee));
    }
  });
}

// The notification of one key of a collection.
template <auto Handler, class Key>
struct KeyChange {
  Key key;
  template <class Notifiee>
  void operator()(Notifiee& notifiee) const {
    (notifiee.*Handler)(key);
  }
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
  void tell(NotifieeConst& notifiee) { tellChange<Notifiee>(notifiee, id_, call_); }

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

  // What the class says of itself at run time. To call it, include runtime/vex/GenericType.h.
  static VexType* _fwkType() { return fwkTypeOf<Self>(); }
  VexType* fwkType() const { return _fwkType(); }

 protected:
  explicit EntityOf(Name name) noexcept : Entity(std::move(name)) {}

  // Tells each notifiee by `call`, which takes a Self::NotifieeConst&. A change of one key of a
  // collection has it as `call.key`.
  template <class Call>
  void notify(AttributeId id, Call&& call) const {
    if (notifiees().count() == 0) return;
    SnapshotIterator<Vex::NotifieeConst> snapshot(notifiees());
    while (Vex::NotifieeConst* notifiee = snapshot.next()) {
      tellChange<typename Self::NotifieeConst>(*notifiee, id, call);
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
    notify(Id, KeyChange<Handler, Key>{key});
  }
};

}  // namespace Vex
