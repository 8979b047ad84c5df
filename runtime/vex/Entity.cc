// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/Entity.h"

namespace Vex {

namespace {
constexpr AttributeInfo kBaseAttributes[] = {
    {Entity::kName, "name", AttributeKind::plain},
    {Entity::kParent, "parent", AttributeKind::plain},
    {Entity::kVersion, "version", AttributeKind::plain},
    {Entity::kIsNondestructing, "isNondestructing", AttributeKind::plain},
};

template <class Call>
void walk(const ListRaw<NotifieeConst>& list, AttributeId id, Call call) {
  if (list.count() == 0) return;
  SnapshotIterator<NotifieeConst> snapshot(list);
  while (Vex::NotifieeConst* notifiee = snapshot.next()) {
    // Only notifiees of an entity class can be in an entity's list (EntityOf).
    guardedNotification(*notifiee, id,
                        [&] { call(static_cast<Entity::NotifieeConst&>(*notifiee)); });
  }
}
}  // namespace

std::string_view Entity::parentAttr() const {
  return parent_ != nullptr ? parent_->attributeString(parentAttrId_) : std::string_view();
}

void Entity::parentIs(Entity* parent) {
  if (parent == parent_) return;
  parent_ = parent;
  if (parent == nullptr) parentAttrId_ = 0;
  const auto tell = [this] { walk(notifiees_, kParent, [](NotifieeConst& n) { n.onParent(); }); };
  try {
    handleParent();
  } catch (...) {
    tell();
    throw;
  }
  tell();
}

std::string Entity::fullName() const {
  std::string own(name_.view());
  if (own.empty()) {
    own = parentAttr();
    own += '[';
    own += fwkKeyText();
    own += ']';
  }
  return parent_ != nullptr ? parent_->fullName() + '/' + own : own;
}

void Entity::versionIs(std::uint32_t version) {
  if (version == version_) return;
  version_ = version;
  walk(notifiees_, kVersion, [](NotifieeConst& n) { n.onVersion(); });
}

void Entity::isNondestructingIs(bool flag) {
  if (flag == isNondestructing_) return;
  isNondestructing_ = flag;
  walk(notifiees_, kIsNondestructing, [](NotifieeConst& n) { n.onIsNondestructing(); });
}

void Entity::zeroReferencesIs() {
  walk(notifiees_, 0, [](NotifieeConst& n) { n.onZeroReferences(); });
}

std::string_view Entity::attributeString(AttributeId id) const {
  for (const AttributeInfo& info : kBaseAttributes) {
    if (info.id == id) return info.name;
  }
  for (const AttributeInfo& info : attributes()) {
    if (info.id == id) return info.name;
  }
  return "unknown";
}

void Entity::handleZeroRef() {
  zeroReferencesIs();
  if (!isNondestructing_) delete this;
}

void Entity::listNotifiee(Vex::NotifieeConst& notifiee, bool registered) const {
  if (!registered) {
    notifiees_.memberDel(notifiee);
  } else if (notifiee.isStreamAdapter()) {
    notifiees_.headIs(notifiee);
  } else {
    notifiees_.tailIs(notifiee);
  }
}

}  // namespace Vex
