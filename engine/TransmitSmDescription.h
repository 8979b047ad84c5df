// SPDX-License-Identifier: Apache-2.0
//
// Ringward::TransmitSm as generic access sees it. The numbers are used by generic access alone; new
// attributes go to the end.
#pragma once

#include "engine/MachineDescription.h"
#include "engine/TransmitSm.h"

template <>
struct Vex::Description<Ringward::TransmitSm> : Ringward::MachineDescription<Ringward::TransmitSm> {
  static constexpr std::string_view kTypeName = Class::kTypeName;

  // The scheduler asserts that the topology is ready before it sends; from outside that is judged.
  static void sendPacket(Class& sm, const Ringward::Status::IntfAndVlan& intfAndVlan) {
    if (!sm.topoLibState() || !sm.topoLibState()->initDone()) {
      Vex::throwRangeException("sendPacket: the topology is not initialised");
    }
    sm.sendPacket(intfAndVlan);
  }

  static constexpr auto kAttributes = std::tuple(
      Vex::Pointer{kFirst, "vexFwkActivity", &vexFwkActivity},
      Vex::Pointer{kFirst + 1, "throttleTimer", &Class::timerWheel},
      Vex::Pointer{kFirst + 2, "transmitConfig", &Class::transmitConfig},
      Vex::Pointer{kFirst + 3, "transmitStatus", &Class::transmitStatus},
      Vex::Pointer{kFirst + 4, "ethDevPamColl", &Class::ethDevPamColl},
      Vex::Pointer{kFirst + 5, "packetCounter", &Class::packetCounter},
      Vex::Pointer{kFirst + 6, "status", &Class::status},
      Vex::Pointer{kFirst + 7, "topoLibState", &Class::topoLibState},
      Vex::Pointer{kFirst + 8, "brConfig", &Class::brConfig},
      Vex::Scalar{kFirst + 9, "transmitCount", &Class::transmitCount, &Class::transmitCountIs},
      Vex::Function{kFirst + 10, "handleThrottleTimer",
                    Vex::signature(&Class::handleThrottleTimer)},
      Vex::Function{kFirst + 11, "generatePacket",
                    Vex::signature(&Class::generatePacket, "pktInfo")},
      Vex::Function{kFirst + 12, "sendPacket", Vex::signature(&sendPacket, "intfAndVlan")},
      Vex::Function{kFirst + 13, "handleHighPriority", Vex::signature(&Class::handleHighPriority)},
      Vex::Function{kFirst + 14, "handleRegularPriority",
                    Vex::signature(&Class::handleRegularPriority)},
      Vex::Scalar{kFirst + 15, "initialized", &Class::initialized},
      Vex::Function{kFirst + 16, "handleInitialized", Vex::signature(&Class::handleInitialized)},
      Vex::Pointer{kFirst + 17, "globalSm", &Class::globalSm},
      Vex::Function{kFirst + 18, "hasNotificationActiveIs",
                    Vex::signature(&Class::hasNotificationActiveIs, "flag")},
      Vex::Function{kFirst + 19, "vexDoZombieReactors",
                    Vex::signature(&Class::vexDoZombieReactors, "flag")});
};
