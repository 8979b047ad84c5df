// SPDX-License-Identifier: Apache-2.0
//
// Errdisable::CauseStatus: the interfaces that one feature wants taken down, with the time since
// when. The feature writes it, the platform acts on it (a time that changes for an interface that
// is listed already repeats the request), others may read it. Activity thread only.
#pragma once

#include "runtime/portus/IntfId.h"
#include "runtime/vex/Collection.h"
#include "runtime/vex/Entity.h"

namespace Errdisable {

class CauseStatus final : public Vex::EntityOf<CauseStatus> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onIntfStatus(const Portus::IntfId& /*intfId*/) {}

   protected:
    NotifieeConst() noexcept = default;
  };
  using Collection = Vex::ValueCollection<Portus::IntfId, double>;
  static constexpr Vex::AttributeId kIntfStatus = kFirstOwnAttribute;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kIntfStatus, "intfStatus", Vex::AttributeKind::collection}};

  explicit CauseStatus(const Vex::Name& name) : EntityOf(name) {}

  bool intfStatusHas(const Portus::IntfId& intfId) const noexcept {
    return intfStatus_.find(intfId) != nullptr;
  }
  // Since when the interface is listed, in seconds on the activity clock; 0 for one that is not.
  double intfStatus(const Portus::IntfId& intfId) const { return intfStatus_.valueOr(intfId); }
  void intfStatusIs(const Portus::IntfId& intfId, const double& when) {
    if (intfStatus_.valueIs(intfId, when)) intfStatusNotify(intfId);
  }
  void intfStatusDel(const Portus::IntfId& key) {
    const Portus::IntfId intfId = key;  // the caller's key may live in the entry that goes
    if (intfStatus_.valueDel(intfId)) intfStatusNotify(intfId);
  }
  Collection::IteratorConst intfStatusIteratorConst() const { return intfStatus_.iteratorConst(); }

 private:
  void intfStatusNotify(const Portus::IntfId& intfId) {
    notifyKey<kIntfStatus, &NotifieeConst::onIntfStatus>(intfId);
  }
  Collection intfStatus_;
};

}  // namespace Errdisable
