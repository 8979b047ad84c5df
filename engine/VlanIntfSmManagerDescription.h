// SPDX-License-Identifier: Apache-2.0
//
// Ringward::VlanIntfSmManager as generic access sees it. The numbers are used by generic access
// alone; new attributes go to the end.
#pragma once

#include "engine/MachineDescription.h"
#include "engine/VlanIntfSmManager.h"

template <>
struct Vex::Description<Ringward::VlanIntfSmManager>
    : Ringward::MachineDescription<Ringward::VlanIntfSmManager> {
  static constexpr std::string_view kTypeName = Class::kTypeName;
  using Arguments = Class::Arguments;

  static void handleVlanConfigEnabledAll(Class& sm) { sm.handleVlanConfigEnabled(); }
  static void handleVlanConfigEnabledOne(Class& sm, const Bridging::VlanId& vlanId) {
    sm.handleVlanConfigEnabled(vlanId);
  }
  static void handleDesiredIntfAll(Class& sm) { sm.handleDesiredIntf(); }
  static void handleDesiredIntfOne(Class& sm, const Portus::IntfId& intfId) {
    sm.handleDesiredIntf(intfId);
  }
  static void handleEthDevPamAll(Class& sm) { sm.handleEthDevPam(); }
  static void handleEthDevPamOne(Class& sm, const Portus::IntfId& intfId) {
    sm.handleEthDevPam(intfId);
  }
  static void handleCauseStatusAll(Class& sm) { sm.handleCauseStatus(); }
  static void handleCauseStatusOne(Class& sm, const Portus::IntfId& intfId) {
    sm.handleCauseStatus(intfId);
  }

  static constexpr auto kAttributes = std::tuple(
      Vex::Pointer{kFirst, "vexFwkActivity", &vexFwkActivity},
      Vex::Pointer{kFirst + 1, "config", Argument<&Arguments::config>()},
      Vex::Pointer{kFirst + 2, "topoLibVlanState", Argument<&Arguments::topoLibVlanState>()},
      Vex::Pointer{kFirst + 3, "ethDevPamCollection", Argument<&Arguments::ethDevPamCollection>()},
      Vex::Pointer{kFirst + 4, "status", Argument<&Arguments::status>()},
      Vex::Pointer{kFirst + 5, "transmitStatus", Argument<&Arguments::transmitStatus>()},
      Vex::Pointer{kFirst + 6, "ringwardCause", Argument<&Arguments::ringwardCause>()},
      Vex::Pointer{kFirst + 7, "pamDesiredIntfDir", Argument<&Arguments::pamDesiredIntfDir>()},
      Vex::Pointer{kFirst + 8, "packetCounter", Argument<&Arguments::packetCounter>()},
      Vex::Pointer{kFirst + 9, "timerWheel", Argument<&Arguments::timerWheel>()},
      Vex::Pointer{kFirst + 10, "brConfig", Argument<&Arguments::brConfig>()},
      Vex::Pointer{kFirst + 11, "allIntfStatusDir", Argument<&Arguments::allIntfStatusDir>()},
      Vex::Machines{kFirst + 12, "vlanSm", &Class::vlanSmColl, &Class::vlanSmDel},
      Vex::Machines{kFirst + 13, "intfRxSm", &Class::intfRxSmColl},
      Vex::Members{kFirst + 14, "desiredIntfsWithVlan", &Class::desiredIntfsWithVlanColl,
                   &Class::desiredIntfsWithVlanIs, &Class::desiredIntfsWithVlanDel},
      Vex::Scalar{kFirst + 15, "initialized", &Class::initialized},
      Vex::Function{kFirst + 16, "handleVlanConfigEnabled",
                    Vex::signature(&handleVlanConfigEnabledAll),
                    Vex::signature(&handleVlanConfigEnabledOne, "vlanId")},
      Vex::Function{kFirst + 17, "handleDesiredIntf", Vex::signature(&handleDesiredIntfAll),
                    Vex::signature(&handleDesiredIntfOne, "intfId")},
      Vex::Function{kFirst + 18, "handleEthDevPam", Vex::signature(&handleEthDevPamAll),
                    Vex::signature(&handleEthDevPamOne, "intfId")},
      Vex::Function{kFirst + 19, "handleCauseStatus", Vex::signature(&handleCauseStatusAll),
                    Vex::signature(&handleCauseStatusOne, "intfId")},
      Vex::Function{kFirst + 20, "handleInitialized", Vex::signature(&Class::handleInitialized)},
      Vex::Function{kFirst + 21, "doPrepareToDie", Vex::signature(&Class::doPrepareToDie)},
      Vex::Function{kFirst + 22, "hasNotificationActiveIs",
                    Vex::signature(&Class::hasNotificationActiveIs, "flag")},
      Vex::Function{kFirst + 23, "vexDoZombieReactors",
                    Vex::signature(&Class::vexDoZombieReactors, "flag")});
};
