// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Generic::TableControl: what generic access gets when it reads the control attribute of
// a table: how the table stands, and the calls that mount it and let it go. Made for each reading;
// holds the entity, not the table. Activity thread only.
#pragma once

#include <string>
#include <utility>

#include "quill/ControlBase.h"
#include "runtime/vex/Description.h"

namespace Ringward::Generic {

class TableControl final : public Vex::VFPtrInterface {
 public:
  // `table` belongs to `owner`.
  TableControl(Vex::Ptr<Vex::Entity const> owner, Quill::ControlBase& table)
      : owner_(std::move(owner)), table_(table) {}

  std::string quillName() const { return table_.quillName(); }
  std::string rootPath() const { return table_.rootPath(); }
  std::uint32_t mountStatus() const { return table_.mountStatus(); }
  std::uint64_t sequence() const { return table_.sequence(); }
  std::uint32_t fenixId() const { return table_.fenixId(); }
  std::string owner() const { return table_.owner(); }
  std::uint32_t maxSize() const { return table_.maxSize(); }
  std::uint32_t capacity() const { return table_.capacity(); }

  // `mode` is the number of a QuillType; raises a range exception for any other.
  void init(std::uint32_t mode, bool isLocal, std::uint32_t size);
  bool validate() { return table_.validate(); }
  bool validateFiles() { return table_.validateFiles(); }
  void cleanup() { table_.cleanup(); }
  void controlDetach() { table_.controlDetach(); }
  bool resize() { return table_.resize(); }
  void notifying(bool on) { table_.notifying(on); }

 private:
  const Vex::Ptr<Vex::Entity const> owner_;
  Quill::ControlBase& table_;
};

}  // namespace Ringward::Generic

template <>
struct Vex::Description<Ringward::Generic::TableControl> {
  using Class = Ringward::Generic::TableControl;
  static constexpr std::string_view kTypeName = "VexQuill::CollectionControl";
  static constexpr AttributeId kFirst = kFirstMachineAttribute;
  static constexpr auto kAttributes = std::tuple(
      Vex::Scalar{kFirst, "quillName", &Class::quillName},
      Vex::Scalar{kFirst + 1, "rootPath", &Class::rootPath},
      Vex::Scalar{kFirst + 2, "mountStatus", &Class::mountStatus},
      Vex::Scalar{kFirst + 3, "sequence", &Class::sequence},
      Vex::Scalar{kFirst + 4, "fenixId", &Class::fenixId},
      Vex::Scalar{kFirst + 5, "owner", &Class::owner},
      Vex::Scalar{kFirst + 6, "maxSize", &Class::maxSize},
      Vex::Scalar{kFirst + 7, "capacity", &Class::capacity},
      Vex::Function{kFirst + 8, "init", Vex::signature(&Class::init, "mode", "isLocal", "size")},
      Vex::Function{kFirst + 9, "validate", Vex::signature(&Class::validate)},
      Vex::Function{kFirst + 10, "validateFiles", Vex::signature(&Class::validateFiles)},
      Vex::Function{kFirst + 11, "cleanup", Vex::signature(&Class::cleanup)},
      Vex::Function{kFirst + 12, "controlDetach", Vex::signature(&Class::controlDetach)},
      Vex::Function{kFirst + 13, "resize", Vex::signature(&Class::resize)},
      Vex::Function{kFirst + 14, "notifying", Vex::signature(&Class::notifying, "on")});
};
