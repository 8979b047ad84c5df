// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/GenericIf.h"

#include <algorithm>

#include "runtime/vex/GenericValue.h"

namespace Vex {

AttributeId GenericIf::attributeId(std::string_view name) const {
  const auto* attribute = fwkType()->attribute(name);
  return attribute != nullptr ? attribute->id : 0;
}

std::string_view GenericIf::attributeString(AttributeId id) const {
  const auto* attribute = fwkType()->attribute(id);
  return attribute != nullptr ? attribute->name() : "unknown";
}

Ptr<GenericIf::Iterator> GenericIf::attributeIterator(AttributeId id) {
  throwOpNotSupportedException(attributeString(id), {id, kRead}, false);
}
Ptr<GenericIf::Iterator> GenericIf::attributeIteratorConst(AttributeId id) const {
  throwOpNotSupportedException(attributeString(id), {id, kRead}, false);
}
Ptr<GenericIf::Iterator> GenericIf::attributeIteratorKey(AttributeId id,
                                                         const Ptr<GenericIf>& /*key*/) {
  throwOpNotSupportedException(attributeString(id), {id, kRead}, true);
}
Ptr<GenericIf::Iterator> GenericIf::attributeIteratorKeyConst(AttributeId id,
                                                              const Ptr<GenericIf>& /*key*/) const {
  throwOpNotSupportedException(attributeString(id), {id, kRead}, true);
}

void GenericIf::attributeIterator_iterInc(Iterator& at) {
  if (at.nonNull()) at.inc();
}
void GenericIf::attributeIterator_iterDel(Iterator& at) {
  if (at.nonNull()) at.del();
}
Ptr<GenericIf::Iterator> GenericIf::attributeIterator_iterClone(const Iterator& at) {
  return at.clone();
}
Ptr<GenericIf> GenericIf::attributeIterator_iterKey(const Iterator& at) {
  return at.nonNull() ? at.key() : nullptr;
}
Ptr<GenericIf> GenericIf::attributeIterator_iterObj(const Iterator& at) {
  return at.nonNull() ? at.obj() : nullptr;
}
bool GenericIf::attributeIterator_nonNull(const Iterator& at) { return at.nonNull(); }

Ptr<GenericIf> GenericIf::attributeOp(AttributeOp op, const Ptr<GenericIf>& key,
                                      const Ptr<GenericIf>& /*value*/) {
  throwOpNotSupportedException(attributeString(op.attributeId), op, static_cast<bool>(key));
}

Ptr<GenericIf> GenericIf::keyFromText(AttributeId id, std::string_view /*text*/) const {
  throwBadIndexAttrException(attributeString(id));
}
Ptr<GenericIf> GenericIf::valueFromText(AttributeId id, std::string_view /*text*/) const {
  throwOpNotSupportedException(attributeString(id), {id, kSet}, false);
}
Ptr<GenericIf> GenericIf::argumentsFromText(AttributeId id, NamedTexts /*arguments*/) const {
  throwOpNotSupportedException(attributeString(id), {id, kCall}, false);
}
std::string GenericIf::keyText() const { return strRep().str(); }

void GenericIf::throwTypeException(std::string_view name) {
  throw TypeException("wrong type for '" + std::string(name) + "'");
}

void GenericIf::throwConstException(std::string_view text) {
  throw ConstException(std::string(text));
}

void GenericIf::throwOpNotSupportedException(std::string_view name, AttributeOp op, bool indexed) {
  throw OpNotSupportedException("operation " + std::to_string(op.opId) + " not supported on '" +
                                std::string(name) + "'" + (indexed ? " with an index" : ""));
}

void GenericIf::throwBadIndexAttrException(std::string_view name) {
  throw BadIndexAttrException("bad index for '" + std::string(name) + "'");
}

void GenericIf::throwUnknownArgException(std::string_view function) {
  throw UnknownArgException("unknown argument for '" + std::string(function) + "'");
}

GenericIf::List& GenericIf::List::argumentIs(Ptr<GenericIf> argument, std::string_view name) {
  arguments_.emplace_back(name, std::move(argument));
  return *this;
}

Ptr<GenericIf> GenericIf::List::take(std::string_view name) {
  auto at = std::find_if(arguments_.begin(), arguments_.end(),
                         [&](const auto& argument) { return argument.first == name; });
  if (at == arguments_.end()) {
    at = std::find_if(arguments_.begin(), arguments_.end(),
                      [](const auto& argument) { return argument.first.empty(); });
  }
  if (at == arguments_.end()) throwTypeException(name);
  Ptr<GenericIf> taken = std::move(at->second);
  arguments_.erase(at);
  return taken;
}

const VexType* GenericIf::List::fwkType() const { return fwkTypeOf<List>(); }

String8 GenericIf::List::strRep() const { return kTypeName; }

AttributeId GenericIfEntity::attributeId(std::string_view name) const {
  if (const AttributeId own = GenericIf::attributeId(name); own != 0) return own;
  if (name == "name") return Entity::kName;
  if (name == "version") return Entity::kVersion;
  return name == "isNondestructing" ? Entity::kIsNondestructing : 0;
}

std::string_view GenericIfEntity::attributeString(AttributeId id) const {
  return entity_.attributeString(id);
}

Ptr<GenericIf> GenericIfEntity::attributeOp(AttributeOp op, const Ptr<GenericIf>& key,
                                            const Ptr<GenericIf>& value) {
  const AttributeId id = op.attributeId;
  if (id != Entity::kName && id != Entity::kVersion && id != Entity::kIsNondestructing) {
    return GenericIfPtrInterface::attributeOp(op, key, value);
  }
  const std::string_view name = attributeString(id);
  if (key) throwBadIndexAttrException(name);
  if (op.opId == kRead) {
    if (id == Entity::kName) return genericValue(entity_.name());
    return id == Entity::kVersion ? genericValue(entity_.version())
                                  : genericValue(entity_.isNondestructing());
  }
  if (op.opId != kSet) throwOpNotSupportedException(name, op, false);
  if (id == Entity::kName) throwConstException(kConstText);
  // An adapter that is not const was made from an entity that is not.
  auto& entity = const_cast<Entity&>(entity_);
  if (id == Entity::kVersion) {
    entity.versionIs(valueOf<std::uint32_t>(value, name));
  } else {
    entity.isNondestructingIs(valueOf<bool>(value, name));
  }
  return nullptr;
}

String8 GenericIfEntity::strRep() const {
  return fwkType()->typeNode().str() + "('" + entity_.fullName() + "')";
}

}  // namespace Vex
