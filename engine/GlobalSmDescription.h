// SPDX-License-Identifier: Apache-2.0
//
// Ringward::GlobalSm as generic access sees it. The numbers are used by generic access alone; new
// attributes go to the end.
#pragma once

#include "engine/GlobalSm.h"
#include "engine/MachineDescription.h"

template <>
struct Vex::Description<Ringward::GlobalSm> : Ringward::MachineDescription<Ringward::GlobalSm> {
  static constexpr std::string_view kTypeName = Class::kTypeName;
  using Arguments = Class::Arguments;

  static constexpr auto kAttributes = std::tuple(
      Vex::Pointer{kFirst, "vexFwkActivity", &vexFwkActivity},
      Vex::Pointer{kFirst + 1, "config", Argument<&Arguments::config>()},
      Vex::Pointer{kFirst + 2, "status", Argument<&Arguments::status>()},
      Vex::Pointer{kFirst + 3, "mlagStatus", Argument<&Arguments::mlagStatus>()},
      Vex::Pointer{kFirst + 4, "transmitStatus", Argument<&Arguments::transmitStatus>()},
      Vex::Pointer{kFirst + 5, "brTopoConfig", Argument<&Arguments::brTopoConfig>()},
      Vex::Pointer{kFirst + 6, "brTopoStatus", Argument<&Arguments::brTopoStatus>()},
      Vex::Pointer{kFirst + 7, "brConfig", Argument<&Arguments::brConfig>()},
      Vex::Pointer{kFirst + 8, "ethIntfStatusDir", Argument<&Arguments::ethIntfStatusDir>()},
      Vex::Pointer{kFirst + 9, "allIntfStatusDir", Argument<&Arguments::allIntfStatusDir>()},
      Vex::Pointer{kFirst + 10, "allIntfStatusLocalDir",
                   Argument<&Arguments::allIntfStatusLocalDir>()},
      Vex::Pointer{kFirst + 11, "ringwardCause", Argument<&Arguments::ringwardCause>()},
      Vex::Pointer{kFirst + 12, "packetCounter", Argument<&Arguments::packetCounter>()},
      Vex::Pointer{kFirst + 13, "deviceIntfStatusDir", &Class::deviceIntfStatusDir},
      Vex::Pointer{kFirst + 14, "pamDesiredIntfDir", &Class::pamDesiredIntfDir},
      Vex::Pointer{kFirst + 15, "ethDevPamCollection", &Class::ethDevPamCollection},
      Vex::Pointer{kFirst + 16, "intfStatusManager", &Class::intfStatusManager},
      Vex::Pointer{kFirst + 17, "ethDevPamManager", &Class::ethDevPamManager},
      Vex::Pointer{kFirst + 18, "topoLibState", &Class::topoLibState},
      Vex::Pointer{kFirst + 19, "topoLibSm", &Class::topoLibSm},
      Vex::Pointer{kFirst + 20, "topoLibVlanState", &Class::topoLibVlanState},
      Vex::Pointer{kFirst + 21, "topoLibVlanSm", &Class::topoLibVlanSm},
      Vex::Pointer{kFirst + 22, "timerWheel", &Class::timerWheel},
      Vex::Pointer{kFirst + 23, "vlanIntfSmManager", &Class::vlanIntfSmManager},
      Vex::Pointer{kFirst + 24, "transmitSm", &Class::transmitSm},
      Vex::Scalar{kFirst + 25, "oldPeer", &Class::oldPeer},
      Vex::Function{kFirst + 26, "handleGlobalEnabled",
                    Vex::signature(&Class::handleGlobalEnabled)},
      Vex::Function{kFirst + 27, "handleMacAddr", Vex::signature(&Class::handleMacAddr)},
      Vex::Function{kFirst + 28, "handleMlagPeer", Vex::signature(&Class::handleMlagPeer)},
      Vex::Function{kFirst + 29, "handleClearCounters",
                    Vex::signature(&Class::handleClearCounters)},
      Vex::Function{kFirst + 30, "hasNotificationActiveIs",
                    Vex::signature(&Class::hasNotificationActiveIs, "flag")},
      Vex::Function{kFirst + 31, "vexDoZombieReactors",
                    Vex::signature(&Class::vexDoZombieReactors, "flag")});

  // How a tool makes one, as an agent does.
  static constexpr auto kConstructor =
      Vex::signature(&Ringward::globalSmFactory, "config", "status", "mlagStatus", "transmitStatus",
                     "brTopoConfig", "brTopoStatus", "brConfig", "ethIntfStatusDir",
                     "allIntfStatusDir", "allIntfStatusLocalDir", "ringwardCause", "packetCounter");
};
