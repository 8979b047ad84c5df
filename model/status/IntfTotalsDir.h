// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Status::IntfTotalsDir: the running totals of the packet access, per interface, as a
// collection in a table of the store. Written by the platform; the engine knows nothing of it.
// Activity thread only.
//
// As with PacketCounter, the table is a private one until somebody mounts another, and its changes
// are not told to notifiees.
#pragma once

#include "model/status/IntfTotals.h"
#include "quill/entity/TableHost.h"
#include "quill/entity/VexQuillMap.h"
#include "runtime/vex/Entity.h"

namespace Ringward::Status {

class IntfTotalsDir final : public Vex::EntityOf<IntfTotalsDir>, public VexQuill::TableHost {
 public:
  using NotifieeConst = Vex::Entity::NotifieeConst;
  static constexpr Vex::AttributeId kIntfTotals = 258;
  static constexpr Vex::AttributeId kIntfTotalsControl = 259;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kIntfTotals, "intfTotals", Vex::AttributeKind::table},
      {kIntfTotalsControl, "intfTotalsControl", Vex::AttributeKind::control}};
  using IntfTotalsMap = VexQuill::VexQuillMap<
      IntfTotalsDir, VexQuill::VexQuillMapValueWrapper<IntfTotals, Portus::IntfId>, Portus::IntfId>;

  explicit IntfTotalsDir(const Vex::Name& name);
  ~IntfTotalsDir() override;

  // The record of a key, the zero record for none.
  IntfTotals intfTotals(const Portus::IntfId& key) const { return intfTotals_.record(key); }
  // Writes a whole record under its own key.
  void intfTotalsIs(const IntfTotals& value) { intfTotals_.recordIs(value); }
  // Removes a record and returns it, the default record if there was none.
  IntfTotals intfTotalsDel(const Portus::IntfId& key) { return intfTotals_.recordDel(key); }
  IntfTotalsMap::IteratorConst intfTotalsIteratorConst() const {
    return intfTotals_.iteratorConst();
  }
  void intfTotalsNotify(const Portus::IntfId& /*key*/) {}

  VexQuill::CollectionControl intfTotalsControl() {
    return VexQuill::CollectionControl(intfTotals_);
  }
  IntfTotalsMap& intfTotalsMap() noexcept { return intfTotals_; }
  const IntfTotalsMap& intfTotalsMap() const noexcept { return intfTotals_; }

 private:
  void handleParent() override { handleTablesParent(); }

  IntfTotalsMap intfTotals_;
};

}  // namespace Ringward::Status

extern template class VexQuill::VexQuillMap<
    Ringward::Status::IntfTotalsDir,
    VexQuill::VexQuillMapValueWrapper<Ringward::Status::IntfTotals, Portus::IntfId>,
    Portus::IntfId>;
