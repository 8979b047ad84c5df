// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Status::Status: the root of what the engine publishes. Given to the engine by the
// agent, outlives it, and is read by other agents and the command line. Activity thread only.
#pragma once

#include "model/status/IntfStatus.h"
#include "runtime/portus/EthAddr.h"
#include "runtime/vex/Description.h"

namespace Ringward::Status {

class Status final : public Vex::EntityOf<Status> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onIntfStatus(const Portus::IntfId& /*intfId*/) {}
    virtual void onIntfStatusvexImmediate() {}
    virtual void onIntfStatus() {}
    virtual void onSrcAddr() {}
    virtual void onAggressiveDisable() {}
    virtual void onSysIntfExclude(const Portus::IntfId& /*intfId*/) {}
    virtual void onSysIntfExcludevexImmediate() {}
    virtual void onSysIntfExclude() {}
    virtual void onRunning() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kIntfStatus = 258;
  static constexpr Vex::AttributeId kSrcAddr = 259;
  static constexpr Vex::AttributeId kAggressiveDisable = 260;
  static constexpr Vex::AttributeId kSysIntfExclude = 261;
  static constexpr Vex::AttributeId kRunning = 262;
  static const std::span<const Vex::AttributeInfo> kAttributes;
  using IntfStatusMap = Vex::HashMap<IntfStatus, Portus::IntfId>;
  using SysIntfExclude = Vex::ValueCollection<Portus::IntfId, bool>;

  explicit Status(const Vex::Name& name) : EntityOf(name) {}
  ~Status() override;

  // The entry of an interface under detection, null for any other.
  Vex::Ptr<IntfStatus> intfStatus(const Portus::IntfId& intfId) const {
    return Vex::Ptr<IntfStatus>(intfStatus_.member(intfId));
  }
  // As above, making the entry if it is absent.
  Vex::Ptr<IntfStatus> intfStatusIs(const Portus::IntfId& intfId);
  void intfStatusDel(const Portus::IntfId& intfId);
  void intfStatusDelAll();
  const IntfStatusMap& intfStatusColl() const noexcept { return intfStatus_; }
  IntfStatusMap::IteratorConst intfStatusIteratorConst() const {
    return intfStatus_.iteratorConst();
  }

  // The source address of the probes.
  const Portus::EthAddr& srcAddr() const noexcept { return srcAddr_; }
  void srcAddrIs(const Portus::EthAddr& address);

  // Any valid probe disables the interface that receives it, whoever sent it.
  bool aggressiveDisable() const noexcept { return aggressiveDisable_; }
  void aggressiveDisableIs(bool aggressive);

  // Whether the system itself excludes an interface; false for an absent key.
  bool sysIntfExclude(const Portus::IntfId& intfId) const {
    return sysIntfExclude_.valueOr(intfId);
  }
  bool sysIntfExcludeHas(const Portus::IntfId& intfId) const noexcept {
    return sysIntfExclude_.find(intfId) != nullptr;
  }
  void sysIntfExcludeIs(const Portus::IntfId& intfId, bool exclude);
  void sysIntfExcludeDel(const Portus::IntfId& intfId);
  void sysIntfExcludeDelAll();
  const SysIntfExclude& sysIntfExcludeColl() const noexcept { return sysIntfExclude_; }
  SysIntfExclude::IteratorConst sysIntfExcludeIteratorConst() const {
    return sysIntfExclude_.iteratorConst();
  }

  // True from the first step of enabling to the last step of disabling.
  bool running() const noexcept { return running_; }
  void runningIs(bool running);

 private:
  void intfStatusNotify(const Portus::IntfId& intfId);
  void sysIntfExcludeNotify(const Portus::IntfId& intfId);

  IntfStatusMap intfStatus_;
  Portus::EthAddr srcAddr_;
  bool aggressiveDisable_ = false;
  SysIntfExclude sysIntfExclude_;
  bool running_ = false;
};

// Makes a root that nobody owns yet.
inline Vex::Ptr<Status> statusFactory(const Vex::Name& name) { return Vex::makePtr<Status>(name); }

}  // namespace Ringward::Status

template <>
struct Vex::Description<Ringward::Status::Status> {
  using Class = Ringward::Status::Status;
  static constexpr std::string_view kTypeName = "Ringward::Status::Status";
  static constexpr auto kAttributes = std::tuple(
      Vex::Members{Class::kIntfStatus, "intfStatus", &Class::intfStatusColl, &Class::intfStatusIs,
                   &Class::intfStatusDel},
      Vex::Scalar{Class::kSrcAddr, "srcAddr", &Class::srcAddr, &Class::srcAddrIs},
      Vex::Scalar{Class::kAggressiveDisable, "aggressiveDisable", &Class::aggressiveDisable,
                  &Class::aggressiveDisableIs},
      Vex::Collection{Class::kSysIntfExclude, "sysIntfExclude", &Class::sysIntfExcludeColl,
                      &Class::sysIntfExcludeIs, &Class::sysIntfExcludeDel},
      Vex::Scalar{Class::kRunning, "running", &Class::running, &Class::runningIs});
};

inline constexpr std::span<const Vex::AttributeInfo> Ringward::Status::Status::kAttributes =
    Vex::attributeInfos<Ringward::Status::Status>;
