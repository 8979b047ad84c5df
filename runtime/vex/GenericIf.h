// SPDX-License-Identifier: Apache-2.0
//
// Vex::GenericIf: what a tool that knows only names meets instead of an object: its attributes can
// be found by name, read, set, walked and called. Behind it stands an adapter of an object
// (GenericObject.h), a value (GenericValue.h) or a list of arguments. Activity thread only.
//
// An adapter holds a counted reference to its object. One of a const object is const: it refuses
// every write before it looks at anything else, and what it leads to is const too.
//
// All failures are exceptions; the object stays as it was.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "runtime/vex/Entity.h"
#include "runtime/vex/VexType.h"

namespace Vex {

class GenericIf : public VFPtrInterface {
 public:
  class List;
  class Iterator;
  using NamedTexts = std::span<const std::pair<std::string, std::string>>;

  // Operation codes. Every code from 128 to 255 counts as a write. docs/formats.md says which kind
  // of attribute knows which, with which key and value.
  static constexpr std::uint32_t kRead = 0;
  static constexpr std::uint32_t kMembers = 1;
  static constexpr std::uint32_t kHas = 2;
  static constexpr std::uint32_t kSet = 128;
  static constexpr std::uint32_t kDel = 129;
  static constexpr std::uint32_t kDelAll = 130;
  static constexpr std::uint32_t kCall = 131;
  static constexpr std::uint32_t kEnq = 132;
  static constexpr std::uint32_t kDeq = 133;

  struct AttributeOp {
    AttributeId attributeId = 0;
    std::uint32_t opId = kRead;
    bool isWrite() const noexcept { return opId >= 128 && opId <= 255; }
  };

  virtual const VexType* fwkType() const = 0;
  virtual bool isConst() const noexcept { return false; }

  // 0 for a name that nothing knows, and "unknown" for such a number.
  virtual AttributeId attributeId(std::string_view name) const;
  virtual std::string_view attributeString(AttributeId id) const;

  // A walk over the elements of a collection, from the first one or from the one of a key (the next
  // one if that is not there). Any change in between is safe. The const form cannot delete.
  virtual Ptr<Iterator> attributeIterator(AttributeId id);
  virtual Ptr<Iterator> attributeIteratorConst(AttributeId id) const;
  virtual Ptr<Iterator> attributeIteratorKey(AttributeId id, const Ptr<GenericIf>& key);
  virtual Ptr<Iterator> attributeIteratorKeyConst(AttributeId id, const Ptr<GenericIf>& key) const;
  static void attributeIterator_iterInc(Iterator& at);
  // Deletes the current element; the next step leads to the one behind it.
  static void attributeIterator_iterDel(Iterator& at);
  static Ptr<Iterator> attributeIterator_iterClone(const Iterator& at);
  static Ptr<GenericIf> attributeIterator_iterKey(const Iterator& at);
  static Ptr<GenericIf> attributeIterator_iterObj(const Iterator& at);
  static bool attributeIterator_nonNull(const Iterator& at);

  // Does one operation. Null for one that answers nothing, and where there is nothing.
  virtual Ptr<GenericIf> attributeOp(AttributeOp op, const Ptr<GenericIf>& key = nullptr,
                                     const Ptr<GenericIf>& value = nullptr);

  // A value's text form; of an object, what it is and which.
  virtual String8 strRep() const = 0;
  // For followers of this interface that are told by number. Does nothing here.
  virtual void onAttribute(AttributeId /*id*/) {}

  // Keys, values and arguments of an attribute, read from texts. Raise RangeException for a text
  // that does not fit the type, and the exceptions of an operation for what the attribute has not.
  virtual Ptr<GenericIf> keyFromText(AttributeId id, std::string_view text) const;
  virtual Ptr<GenericIf> valueFromText(AttributeId id, std::string_view text) const;
  virtual Ptr<GenericIf> argumentsFromText(AttributeId id, NamedTexts arguments) const;
  // The text of a key as it stands between the brackets of a path. Only of values.
  virtual std::string keyText() const;

  class TypeException : public Exception {
   public:
    using Exception::Exception;
  };
  class ConstException : public Exception {
   public:
    using Exception::Exception;
  };
  class OpNotSupportedException : public Exception {
   public:
    using Exception::Exception;
  };
  class BadIndexAttrException : public Exception {
   public:
    using Exception::Exception;
  };
  class UnknownArgException : public Exception {
   public:
    using Exception::Exception;
  };

  // An argument or a value is missing or of another type: "wrong type for '<name>'".
  [[noreturn]] static void throwTypeException(std::string_view name);
  // The text is the whole message.
  [[noreturn]] static void throwConstException(std::string_view text);
  // "operation <n> not supported on '<name>'", and " with an index" if there was one.
  [[noreturn]] static void throwOpNotSupportedException(std::string_view name, AttributeOp op,
                                                        bool indexed);
  // An index where none is taken, or none where one is needed: "bad index for '<name>'".
  [[noreturn]] static void throwBadIndexAttrException(std::string_view name);
  // "unknown argument for '<function>'".
  [[noreturn]] static void throwUnknownArgException(std::string_view function);

  static constexpr std::string_view kConstText = "attempting to modify a const instance";

 protected:
  GenericIf() noexcept = default;
};

// The arguments of a call, in order, each with a name or without one.
class GenericIf::List final : public GenericIf {
 public:
  static constexpr std::string_view kTypeName = "Vex::GenericIf::List";

  // `argument` may be null: no object.
  List& argumentIs(Ptr<GenericIf> argument, std::string_view name = {});
  std::size_t members() const noexcept { return arguments_.size(); }
  // Takes off the argument of this name, or else the first one without a name. Raises
  // throwTypeException(name) if there is neither.
  Ptr<GenericIf> take(std::string_view name);

  const VexType* fwkType() const override;
  String8 strRep() const override;

 private:
  std::deque<std::pair<std::string, Ptr<GenericIf>>> arguments_;
};

// One place in a walk.
class GenericIf::Iterator : public VFPtrInterface {
 public:
  virtual bool nonNull() const = 0;
  // REQUIRES for all below: nonNull(). A walk at its end stays there.
  virtual void inc() = 0;
  virtual void del() = 0;
  virtual Ptr<GenericIf> key() const = 0;
  // Null if the element has gone since.
  virtual Ptr<GenericIf> obj() const = 0;
  virtual Ptr<Iterator> clone() const = 0;

 protected:
  Iterator() noexcept = default;
};

// The base of adapters of counted objects.
class GenericIfPtrInterface : public GenericIf {
 public:
  bool isConst() const noexcept override { return isConst_; }
  const PtrInterface* object() const noexcept { return object_.get(); }

 protected:
  GenericIfPtrInterface(Ptr<PtrInterface const> object, bool isConst) noexcept
      : object_(std::move(object)), isConst_(isConst) {}

 private:
  const Ptr<PtrInterface const> object_;
  const bool isConst_;
};

// The base of adapters of entities: knows name, version and isNondestructing.
class GenericIfEntity : public GenericIfPtrInterface {
 public:
  AttributeId attributeId(std::string_view name) const override;
  std::string_view attributeString(AttributeId id) const override;
  Ptr<GenericIf> attributeOp(AttributeOp op, const Ptr<GenericIf>& key,
                             const Ptr<GenericIf>& value) override;
  String8 strRep() const override;

 protected:
  GenericIfEntity(const Ptr<Entity const>& entity, bool isConst) noexcept
      : GenericIfPtrInterface(entity, isConst), entity_(*entity) {}

 private:
  const Entity& entity_;  // held by the base
};

}  // namespace Vex
