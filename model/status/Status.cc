// SPDX-License-Identifier: Apache-2.0
#include "model/status/Status.h"

namespace Ringward::Status {

namespace {
using IntfHandler = void (Status::NotifieeConst::*)(const Portus::IntfId&);
constexpr IntfHandler kOnIntfStatus = &Status::NotifieeConst::onIntfStatus;
constexpr IntfHandler kOnSysIntfExclude = &Status::NotifieeConst::onSysIntfExclude;
}  // namespace

Status::~Status() {
  for (auto it = intfStatus_.iterator(); it; ++it) it->parentIs(nullptr);
}

void Status::intfStatusNotify(const Portus::IntfId& intfId) {
  notifyKey<kIntfStatus, kOnIntfStatus>(intfId);
}

Vex::Ptr<IntfStatus> Status::intfStatusIs(const Portus::IntfId& intfId) {
  if (auto present = intfStatus(intfId)) return present;
  auto made = intfStatusFactory(intfId);
  made->parentIs(this);
  made->parentAttrIdIs(kIntfStatus);
  intfStatus_.memberIs(made);
  intfStatusNotify(made->intfId());
  return Vex::validPtr(made);
}

void Status::intfStatusDel(const Portus::IntfId& intfId) {
  const auto gone = intfStatus_.memberDel(intfId);
  if (!gone) return;
  gone->parentIs(nullptr);
  intfStatusNotify(gone->intfId());
}

void Status::intfStatusDelAll() {
  for (auto it = intfStatus_.iteratorConst(); it; ++it) intfStatusDel(it.key());
}

void Status::srcAddrIs(const Portus::EthAddr& address) {
  plainIs<kSrcAddr, &NotifieeConst::onSrcAddr>(srcAddr_, address);
}

void Status::aggressiveDisableIs(bool aggressive) {
  plainIs<kAggressiveDisable, &NotifieeConst::onAggressiveDisable>(aggressiveDisable_, aggressive);
}

void Status::sysIntfExcludeNotify(const Portus::IntfId& intfId) {
  notifyKey<kSysIntfExclude, kOnSysIntfExclude>(intfId);
}

void Status::sysIntfExcludeIs(const Portus::IntfId& intfId, bool exclude) {
  if (sysIntfExclude_.valueIs(intfId, exclude)) sysIntfExcludeNotify(intfId);
}

void Status::sysIntfExcludeDel(const Portus::IntfId& key) {
  const Portus::IntfId intfId = key;  // the caller's key may live in the entry that goes
  if (sysIntfExclude_.valueDel(intfId)) sysIntfExcludeNotify(intfId);
}

void Status::sysIntfExcludeDelAll() {
  for (auto it = sysIntfExclude_.iteratorConst(); it; ++it) sysIntfExcludeDel(it.key());
}

void Status::runningIs(bool running) {
  plainIs<kRunning, &NotifieeConst::onRunning>(running_, running);
}

}  // namespace Ringward::Status
