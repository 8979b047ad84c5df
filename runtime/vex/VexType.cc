// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/VexType.h"

#include <map>
#include <memory>

namespace Vex {
namespace {

// Never destroyed: types are asked for by destructors of other static objects too.
struct Registry {
  std::map<std::string, VexType*, std::less<>> types;
  std::map<std::string, std::unique_ptr<VexAttr>, std::less<>> attributes;
};
Registry& registry() {
  static Registry* const only = new Registry;
  return *only;
}

}  // namespace

VexAttr::VexAttrIntrospectionFlags::VexAttrIntrospectionFlags(std::uint32_t value) : value_(value) {
  if (value > kMax) throwRangeException("VexAttrIntrospectionFlags::value > 0x3f not allowed");
}

const VexAttr& VexAttr::attr(std::string_view name) {
  auto& attributes = registry().attributes;
  auto at = attributes.find(name);
  if (at == attributes.end()) {
    at = attributes.emplace(std::string(name), std::make_unique<VexAttr>(Name(name))).first;
  }
  return *at->second;
}

void VexType::typeNodeIs(std::string_view fullName) {
  auto& types = registry().types;
  if (!typeNode_.empty()) types.erase(typeNode_.str());
  typeNode_ = Name(fullName);
  types[typeNode_.str()] = this;
}

const VexType::Attribute* VexType::attribute(std::string_view name) const noexcept {
  for (const Attribute& attribute : attributes_) {
    if (attribute.name() == name) return &attribute;
  }
  return nullptr;
}

const VexType::Attribute* VexType::attribute(AttributeId id) const noexcept {
  for (const Attribute& attribute : attributes_) {
    if (attribute.id == id) return &attribute;
  }
  return nullptr;
}

VexType* VexType::type(std::string_view fullName) {
  const auto& types = registry().types;
  const auto at = types.find(fullName);
  return at != types.end() ? at->second : nullptr;
}

std::vector<VexType*> VexType::types() {
  std::vector<VexType*> all;
  for (const auto& [name, type] : registry().types) all.push_back(type);
  return all;
}

void VexType::handleZeroRef() {
  if (isNondestructing_) return;
  if (!typeNode_.empty()) registry().types.erase(typeNode_.str());
  delete this;
}

std::string_view kindName(VexType::Kind kind) noexcept {
  switch (kind) {
    case VexType::Kind::scalar:
      return "scalar";
    case VexType::Kind::field:
      return "field";
    case VexType::Kind::collection:
      return "collection";
    case VexType::Kind::queue:
      return "queue";
    case VexType::Kind::table:
      return "table";
    case VexType::Kind::members:
      return "members";
    case VexType::Kind::child:
      return "child";
    case VexType::Kind::pointer:
      return "pointer";
    case VexType::Kind::control:
      return "control";
    case VexType::Kind::function:
      return "function";
  }
  return "unknown";
}

}  // namespace Vex
