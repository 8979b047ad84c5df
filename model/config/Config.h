// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Config::Config: the root of the configuration. A fresh one means "off". Written by the
// agent, by other agents or the command line; the engine only reads it and reacts. Activity thread
// only.
//
// Both children must exist before globalEnabled turns true: the machines read their values without
// asking. The root owns them.
#pragma once

#include <cstdint>

#include "model/config/GlobalIntfConfig.h"
#include "model/config/TransmitConfig.h"
#include "runtime/bridging/VlanId.h"
#include "runtime/portus/IntfId.h"
#include "runtime/vex/Description.h"

namespace Ringward::Config {

class Config final : public Vex::EntityOf<Config> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onGlobalEnabled() {}
    virtual void onVlanEnabled(const Bridging::VlanId& /*vlanId*/) {}
    virtual void onVlanEnabledvexImmediate() {}
    virtual void onVlanEnabled() {}
    virtual void onIntfExclude(const Portus::IntfId& /*intfId*/) {}
    virtual void onIntfExcludevexImmediate() {}
    virtual void onIntfExclude() {}
    virtual void onTransmitConfig() {}
    virtual void onGlobalIntfConfig() {}
    virtual void onClearCounters() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kGlobalEnabled = 258;
  static constexpr Vex::AttributeId kVlanEnabled = 259;
  static constexpr Vex::AttributeId kIntfExclude = 260;
  static constexpr Vex::AttributeId kTransmitConfig = 261;
  static constexpr Vex::AttributeId kGlobalIntfConfig = 262;
  static constexpr Vex::AttributeId kClearCounters = 263;
  static const std::span<const Vex::AttributeInfo> kAttributes;
  using VlanEnabled = Vex::ValueCollection<Bridging::VlanId, bool>;
  using IntfExclude = Vex::ValueCollection<Portus::IntfId, bool>;

  explicit Config(const Vex::Name& name) : EntityOf(name) {}
  ~Config() override;

  // The master switch: the tree of machines exists only while it is true.
  bool globalEnabled() const noexcept { return globalEnabled_; }
  void globalEnabledIs(bool enabled);

  // Whether probes run on a VLAN; false for an absent key.
  bool vlanEnabled(const Bridging::VlanId& vlanId) const { return vlanEnabled_.valueOr(vlanId); }
  bool vlanEnabledHas(const Bridging::VlanId& vlanId) const noexcept {
    return vlanEnabled_.find(vlanId) != nullptr;
  }
  void vlanEnabledIs(const Bridging::VlanId& vlanId, bool enabled);
  void vlanEnabledDel(const Bridging::VlanId& vlanId);
  void vlanEnabledDelAll();
  const VlanEnabled& vlanEnabledColl() const noexcept { return vlanEnabled_; }
  VlanEnabled::IteratorConst vlanEnabledIteratorConst() const {
    return vlanEnabled_.iteratorConst();
  }

  // Whether the operator excludes an interface; false for an absent key.
  bool intfExclude(const Portus::IntfId& intfId) const { return intfExclude_.valueOr(intfId); }
  bool intfExcludeHas(const Portus::IntfId& intfId) const noexcept {
    return intfExclude_.find(intfId) != nullptr;
  }
  void intfExcludeIs(const Portus::IntfId& intfId, bool exclude);
  void intfExcludeDel(const Portus::IntfId& intfId);
  void intfExcludeDelAll();
  const IntfExclude& intfExcludeColl() const noexcept { return intfExclude_; }
  IntfExclude::IteratorConst intfExcludeIteratorConst() const {
    return intfExclude_.iteratorConst();
  }

  // The children; null until made. xIs returns the child of this name: the present one, or a new
  // one in its place.
  const Vex::Ptr<TransmitConfig>& transmitConfig() const noexcept { return transmitConfig_; }
  Vex::Ptr<TransmitConfig> transmitConfigIs(const Vex::Name& name);
  void transmitConfigDel();
  const Vex::Ptr<GlobalIntfConfig>& globalIntfConfig() const noexcept { return globalIntfConfig_; }
  Vex::Ptr<GlobalIntfConfig> globalIntfConfigIs(const Vex::Name& name);
  void globalIntfConfigDel();

  // Every change, up or down, clears the packet counters once. The value says nothing.
  std::uint32_t clearCounters() const noexcept { return clearCounters_; }
  void clearCountersIs(std::uint32_t request);

 private:
  void vlanEnabledNotify(const Bridging::VlanId& vlanId);
  void intfExcludeNotify(const Portus::IntfId& intfId);
  template <Vex::AttributeId Id, auto Handler, class Child>
  Vex::Ptr<Child> childIs(Vex::Ptr<Child>& child, const Vex::Name& name);
  template <Vex::AttributeId Id, auto Handler, class Child>
  void childDel(Vex::Ptr<Child>& child);

  bool globalEnabled_ = false;
  VlanEnabled vlanEnabled_;
  IntfExclude intfExclude_;
  Vex::Ptr<TransmitConfig> transmitConfig_;
  Vex::Ptr<GlobalIntfConfig> globalIntfConfig_;
  std::uint32_t clearCounters_ = 0;
};

// Makes a root that nobody owns yet.
inline Vex::Ptr<Config> configFactory(const Vex::Name& name) { return Vex::makePtr<Config>(name); }

}  // namespace Ringward::Config

template <>
struct Vex::Description<Ringward::Config::Config> {
  using Class = Ringward::Config::Config;
  static constexpr std::string_view kTypeName = "Ringward::Config::Config";
  static constexpr auto kAttributes =
      std::tuple(Vex::Scalar{Class::kGlobalEnabled, "globalEnabled", &Class::globalEnabled,
                             &Class::globalEnabledIs},
                 Vex::Collection{Class::kVlanEnabled, "vlanEnabled", &Class::vlanEnabledColl,
                                 &Class::vlanEnabledIs, &Class::vlanEnabledDel},
                 Vex::Collection{Class::kIntfExclude, "intfExclude", &Class::intfExcludeColl,
                                 &Class::intfExcludeIs, &Class::intfExcludeDel},
                 Vex::Child{Class::kTransmitConfig, "transmitConfig", &Class::transmitConfig,
                            &Class::transmitConfigIs, &Class::transmitConfigDel},
                 Vex::Child{Class::kGlobalIntfConfig, "globalIntfConfig", &Class::globalIntfConfig,
                            &Class::globalIntfConfigIs, &Class::globalIntfConfigDel},
                 Vex::Scalar{Class::kClearCounters, "clearCounters", &Class::clearCounters,
                             &Class::clearCountersIs});
};

inline constexpr std::span<const Vex::AttributeInfo> Ringward::Config::Config::kAttributes =
    Vex::attributeInfos<Ringward::Config::Config>;
