// SPDX-License-Identifier: Apache-2.0
//
// Ringward::VlanSm as generic access sees it. The numbers are used by generic access alone; new
// attributes go to the end.
#pragma once

#include "engine/MachineDescription.h"
#include "engine/VlanSm.h"

template <>
struct Vex::Description<Ringward::VlanSm> : Ringward::MachineDescription<Ringward::VlanSm> {
  static constexpr std::string_view kTypeName = Class::kTypeName;

  static void handleVlanIntfAll(Class& sm) { sm.handleVlanIntf(); }
  static void handleVlanIntfOne(Class& sm, const Portus::IntfId& intfId) {
    sm.handleVlanIntf(intfId);
  }
  static void handleIntfExcludeAll(Class& sm) { sm.handleIntfExclude(); }
  static void handleIntfExcludeOne(Class& sm, const Portus::IntfId& intfId) {
    sm.handleIntfExclude(intfId);
  }

  static constexpr auto kAttributes = std::tuple(
      Vex::Pointer{kFirst, "vexFwkActivity", &vexFwkActivity},
      Vex::Scalar{kFirst + 1, "vlanId", &Class::vlanId},
      Vex::Pointer{kFirst + 2, "topoVlan", &Class::topoVlan},
      Vex::Pointer{kFirst + 3, "config", &Class::config},
      Vex::Pointer{kFirst + 4, "ethDevPamCollection", &Class::ethDevPamCollection},
      Vex::Pointer{kFirst + 5, "status", &Class::status},
      Vex::Pointer{kFirst + 6, "transmitStatus", &Class::transmitStatus},
      Vex::Pointer{kFirst + 7, "packetCounter", &Class::packetCounter},
      Vex::Pointer{kFirst + 8, "vlanIntfSmManager", &Class::vlanIntfSmManager},
      Vex::Pointer{kFirst + 9, "timerWheel", &Class::timerWheel},
      Vex::Machines{kFirst + 10, "vlanIntfTxSm", &Class::vlanIntfTxSmColl, &Class::vlanIntfTxSmDel},
      Vex::Scalar{kFirst + 11, "initialized", &Class::initialized},
      Vex::Function{kFirst + 12, "handleVlanIntf", Vex::signature(&handleVlanIntfAll),
                    Vex::signature(&handleVlanIntfOne, "intfId")},
      Vex::Function{kFirst + 13, "handleIntfExclude", Vex::signature(&handleIntfExcludeAll),
                    Vex::signature(&handleIntfExcludeOne, "intfId")},
      Vex::Function{kFirst + 14, "removeIntf", Vex::signature(&Class::removeIntf, "intfId")},
      Vex::Function{kFirst + 15, "handleInitialized", Vex::signature(&Class::handleInitialized)},
      Vex::Function{kFirst + 16, "doPrepareToDie", Vex::signature(&Class::doPrepareToDie)},
      Vex::Function{kFirst + 17, "hasNotificationActiveIs",
                    Vex::signature(&Class::hasNotificationActiveIs, "flag")},
      Vex::Function{kFirst + 18, "vexDoZombieReactors",
                    Vex::signature(&Class::vexDoZombieReactors, "flag")});
};
