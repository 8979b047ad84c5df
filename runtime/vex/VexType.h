// SPDX-License-Identifier: Apache-2.0
//
// The registry of types: one Vex::VexType for each class that generic access knows, made on first
// use and kept for the life of the process, and one Vex::VexAttr for each name of an attribute.
//
// Types are made by fwkTypeOf<Class>() (GenericType.h), from the class's Description; libraries
// make theirs when they are loaded. Built on the thread that loads the library, read by the
// activity thread.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/vex/Notifiee.h"
#include "runtime/vex/String8.h"

namespace Vex {

class GenericIf;

class VexAttr {
 public:
  // What a tool can know of an attribute without asking for it.
  class VexAttrIntrospectionFlags {
   public:
    static constexpr std::uint32_t kFunction = 0x01;           // is called, not read
    static constexpr std::uint32_t kInternalIndex = 0x02;      // elements with a key of their own
    static constexpr std::uint32_t kIndependentDomain = 0x04;  // elements kept in another store
    static constexpr std::uint32_t kReference = 0x08;          // refers to an object
    static constexpr std::uint32_t kCollection = 0x10;         // takes an index
    static constexpr std::uint32_t kReadOnly = 0x20;           // nobody sets it from outside
    static constexpr std::uint32_t kMax = 0x3F;

    constexpr VexAttrIntrospectionFlags() noexcept = default;
    // Raises RangeException "VexAttrIntrospectionFlags::value > 0x3f not allowed".
    explicit VexAttrIntrospectionFlags(std::uint32_t value);

    std::uint32_t value() const noexcept { return value_; }
    bool isFunction_() const noexcept { return (value_ & kFunction) != 0; }
    bool hasInternalIndex_() const noexcept { return (value_ & kInternalIndex) != 0; }
    bool isIndependentDomainAttr_() const noexcept { return (value_ & kIndependentDomain) != 0; }
    bool isReference_() const noexcept { return (value_ & kReference) != 0; }
    bool isCollection_() const noexcept { return (value_ & kCollection) != 0; }
    bool isReadOnly_() const noexcept { return (value_ & kReadOnly) != 0; }
    friend bool operator==(VexAttrIntrospectionFlags, VexAttrIntrospectionFlags) = default;

   private:
    std::uint32_t value_ = 0;
  };

  explicit VexAttr(Name name) : name_(std::move(name)) {}
  VexAttr(const VexAttr&) = delete;
  VexAttr& operator=(const VexAttr&) = delete;

  // The one object of a name. Lives as long as the process.
  static const VexAttr& attr(std::string_view name);
  const Name& name() const noexcept { return name_; }

 private:
  const Name name_;
};

using VexAttrIntrospectionFlags = VexAttr::VexAttrIntrospectionFlags;

class VexType final : public VFPtrInterface {
 public:
  enum class Kind : std::uint8_t {
    scalar,      // a value that is read and set as one
    field,       // a part of a value
    collection,  // values under keys
    queue,       // values under indexes
    table,       // values under keys of their own, in the store of tables
    members,     // objects under keys
    child,       // one owned object
    pointer,     // one object that is referred to
    control,     // the handle of a table
    function     // is called
  };
  struct Argument {
    std::string_view name;
    std::string_view typeName;
  };
  struct Attribute {
    AttributeId id = 0;
    const VexAttr* attr = nullptr;
    Kind kind = Kind::scalar;
    std::string_view typeName;     // of the value, the element, the object or the result
    std::string_view keyTypeName;  // of the index; empty for what takes none
    VexAttrIntrospectionFlags flags;
    std::vector<std::vector<Argument>> signatures;  // of a function

    std::string_view name() const noexcept { return attr->name().view(); }
  };
  // Makes an instance from a list of arguments.
  using Constructor = Ptr<GenericIf> (*)(const Ptr<GenericIf>& arguments);

  // A type without a node, unknown to the registry; fwkTypeOf() gives it both.
  explicit VexType(std::string_view shortName) : name_(shortName) {}

  // The name without its namespace.
  const Name& name() const noexcept { return name_; }
  // The whole name, under which type() finds it.
  const Name& typeNode() const noexcept { return typeNode_; }
  void typeNodeIs(std::string_view fullName);

  bool isValue() const noexcept { return isValue_; }
  void isValueIs(bool flag) noexcept { isValue_ = flag; }
  bool isEntity() const noexcept { return isEntity_; }
  void isEntityIs(bool flag) noexcept { isEntity_ = flag; }
  bool hasGenericIfSupport() const noexcept { return hasGenericIfSupport_; }
  void hasGenericIfSupportIs(bool flag) noexcept { hasGenericIfSupport_ = flag; }
  // A nondestructing type stays when its last reference goes.
  bool isNondestructing() const noexcept { return isNondestructing_; }
  void isNondestructingIs(bool flag) noexcept { isNondestructing_ = flag; }

  // In the order of declaration.
  std::span<const Attribute> attributes() const noexcept { return attributes_; }
  void attributesIs(std::vector<Attribute> all) { attributes_ = std::move(all); }
  // Null for none.
  const Attribute* attribute(std::string_view name) const noexcept;
  const Attribute* attribute(AttributeId id) const noexcept;

  // Null for a type that tools cannot make.
  Constructor constructor() const noexcept { return constructor_; }
  void constructorIs(Constructor make) noexcept { constructor_ = make; }

  // The type of a full name, null if none has been made.
  static VexType* type(std::string_view fullName);
  // Every type that has been made, ordered by name.
  static std::vector<VexType*> types();

 private:
  void handleZeroRef() override;

  const Name name_;
  Name typeNode_;
  bool isValue_ = false;
  bool isEntity_ = false;
  bool hasGenericIfSupport_ = false;
  bool isNondestructing_ = false;
  std::vector<Attribute> attributes_;
  Constructor constructor_ = nullptr;
};

// The name of a kind, as its enumerator is spelt.
std::string_view kindName(VexType::Kind kind) noexcept;

}  // namespace Vex
