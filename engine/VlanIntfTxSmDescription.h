// SPDX-License-Identifier: Apache-2.0
//
// Ringward::VlanIntfTxSm as generic access sees it. The numbers are used by generic access alone;
// new attributes go to the end.
#pragma once

#include "engine/MachineDescription.h"
#include "engine/VlanIntfTxSm.h"

template <>
struct Vex::Description<Ringward::VlanIntfTxSm>
    : Ringward::MachineDescription<Ringward::VlanIntfTxSm> {
  static constexpr std::string_view kTypeName = Class::kTypeName;

  static constexpr auto kAttributes = std::tuple(
      Vex::Pointer{kFirst, "vexFwkActivity", &vexFwkActivity},
      Vex::Scalar{kFirst + 1, "intfId", &Class::intfId},
      Vex::Scalar{kFirst + 2, "vlanId", &Class::vlanId},
      Vex::Pointer{kFirst + 3, "globalIntfConfig", &Class::globalIntfConfig},
      Vex::Pointer{kFirst + 4, "sendPacketTimer", &Class::timerWheel},
      Vex::Pointer{kFirst + 5, "intfStatus", &Class::intfStatus},
      Vex::Pointer{kFirst + 6, "transmitStatus", &Class::transmitStatus},
      Vex::Scalar{kFirst + 7, "packetInQueue", &Class::packetInQueue, &Class::packetInQueueIs},
      Vex::Scalar{kFirst + 8, "initialized", &Class::initialized},
      Vex::Function{kFirst + 9, "handleInitialized", Vex::signature(&Class::handleInitialized)},
      Vex::Function{kFirst + 10, "handleSendPacket", Vex::signature(&Class::handleSendPacket)},
      Vex::Function{kFirst + 11, "handleDisabled", Vex::signature(&Class::handleDisabled)},
      Vex::Function{kFirst + 12, "removeFromTransmitQueues",
                    Vex::signature(&Class::removeFromTransmitQueues)},
      Vex::Function{kFirst + 13, "doPrepareToDie", Vex::signature(&Class::doPrepareToDie)},
      Vex::Function{kFirst + 14, "hasNotificationActiveIs",
                    Vex::signature(&Class::hasNotificationActiveIs, "flag")},
      Vex::Function{kFirst + 15, "vexDoZombieReactors",
                    Vex::signature(&Class::vexDoZombieReactors, "flag")});
};
