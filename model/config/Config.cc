// SPDX-License-Identifier: Apache-2.0
#include "model/config/Config.h"

#include <utility>

namespace Ringward::Config {

namespace {
// Picks the overload that takes a key.
template <class Key>
constexpr auto keyed(void (Config::NotifieeConst::*handler)(const Key&)) {
  return handler;
}
constexpr auto kOnVlanEnabled = keyed<Bridging::VlanId>(&Config::NotifieeConst::onVlanEnabled);
constexpr auto kOnIntfExclude = keyed<Portus::IntfId>(&Config::NotifieeConst::onIntfExclude);
}  // namespace

Config::~Config() {
  if (transmitConfig_) transmitConfig_->parentIs(nullptr);
  if (globalIntfConfig_) globalIntfConfig_->parentIs(nullptr);
}

void Config::globalEnabledIs(bool enabled) {
  plainIs<kGlobalEnabled, &NotifieeConst::onGlobalEnabled>(globalEnabled_, enabled);
}

void Config::clearCountersIs(std::uint32_t request) {
  plainIs<kClearCounters, &NotifieeConst::onClearCounters>(clearCounters_, request);
}

void Config::vlanEnabledNotify(const Bridging::VlanId& vlanId) {
  notifyKey<kVlanEnabled, kOnVlanEnabled>(vlanId);
}

void Config::vlanEnabledIs(const Bridging::VlanId& vlanId, bool enabled) {
  if (vlanEnabled_.valueIs(vlanId, enabled)) vlanEnabledNotify(vlanId);
}

void Config::vlanEnabledDel(const Bridging::VlanId& key) {
  const Bridging::VlanId vlanId = key;  // the caller's key may live in the entry that goes
  if (vlanEnabled_.valueDel(vlanId)) vlanEnabledNotify(vlanId);
}

void Config::vlanEnabledDelAll() {
  for (auto it = vlanEnabled_.iteratorConst(); it; ++it) vlanEnabledDel(it.key());
}

void Config::intfExcludeNotify(const Portus::IntfId& intfId) {
  notifyKey<kIntfExclude, kOnIntfExclude>(intfId);
}

void Config::intfExcludeIs(const Portus::IntfId& intfId, bool exclude) {
  if (intfExclude_.valueIs(intfId, exclude)) intfExcludeNotify(intfId);
}

void Config::intfExcludeDel(const Portus::IntfId& key) {
  const Portus::IntfId intfId = key;
  if (intfExclude_.valueDel(intfId)) intfExcludeNotify(intfId);
}

void Config::intfExcludeDelAll() {
  for (auto it = intfExclude_.iteratorConst(); it; ++it) intfExcludeDel(it.key());
}

template <Vex::AttributeId Id, auto Handler, class Child>
Vex::Ptr<Child> Config::childIs(Vex::Ptr<Child>& child, const Vex::Name& name) {
  if (child && child->name() == name) return child;
  if (child) child->parentIs(nullptr);
  auto made = Vex::makePtr<Child>(name);
  made->parentIs(this);
  made->parentAttrIdIs(Id);
  child = made;
  notify(Id, [](NotifieeConst& notifiee) { (notifiee.*Handler)(); });
  return Vex::validPtr(child);
}

template <Vex::AttributeId Id, auto Handler, class Child>
void Config::childDel(Vex::Ptr<Child>& child) {
  if (!child) return;
  const auto gone = std::exchange(child, nullptr);
  gone->parentIs(nullptr);
  notify(Id, [](NotifieeConst& notifiee) { (notifiee.*Handler)(); });
}

Vex::Ptr<TransmitConfig> Config::transmitConfigIs(const Vex::Name& name) {
  return childIs<kTransmitConfig, &NotifieeConst::onTransmitConfig>(transmitConfig_, name);
}

void Config::transmitConfigDel() {
  childDel<kTransmitConfig, &NotifieeConst::onTransmitConfig>(transmitConfig_);
}

Vex::Ptr<GlobalIntfConfig> Config::globalIntfConfigIs(const Vex::Name& name) {
  return childIs<kGlobalIntfConfig, &NotifieeConst::onGlobalIntfConfig>(globalIntfConfig_, name);
}

void Config::globalIntfConfigDel() {
  childDel<kGlobalIntfConfig, &NotifieeConst::onGlobalIntfConfig>(globalIntfConfig_);
}

}  // namespace Ringward::Config
