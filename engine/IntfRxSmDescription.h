// SPDX-License-Identifier: Apache-2.0
//
// Ringward::IntfRxSm as generic access sees it. The numbers are used by generic access alone; new
// attributes go to the end.
#pragma once

#include "engine/IntfRxSm.h"
#include "engine/MachineDescription.h"

template <>
struct Vex::Description<Ringward::IntfRxSm> : Ringward::MachineDescription<Ringward::IntfRxSm> {
  static constexpr std::string_view kTypeName = Class::kTypeName;

  static Ringward::PacketEncapsulation parsePacket(const Class& sm,
                                                   const Vex::Ptr<Portus::Pkt>& pkt) {
    return sm.parsePacket(Vex::validPtr(pkt));
  }

  static constexpr auto kAttributes = std::tuple(
      Vex::Pointer{kFirst, "vexFwkActivity", &vexFwkActivity},
      Vex::Scalar{kFirst + 1, "intfId", &Class::intfId},
      Vex::Pointer{kFirst + 2, "globalIntfConfig", &Class::globalIntfConfig},
      Vex::Pointer{kFirst + 3, "switchIntfConfig", &Class::switchIntfConfig},
      Vex::Pointer{kFirst + 4, "status", &Class::status},
      Vex::Pointer{kFirst + 5, "bringIntfUpTimer", &Class::timerWheel},
      Vex::Pointer{kFirst + 6, "packetCounter", &Class::packetCounter},
      Vex::Pointer{kFirst + 7, "intfStatus", &Class::intfStatus},
      Vex::Pointer{kFirst + 8, "ringwardCause", &Class::ringwardCause},
      Vex::Pointer{kFirst + 9, "pam", &Class::pam},
      Vex::Scalar{kFirst + 10, "initialized", &Class::initialized},
      Vex::Function{kFirst + 11, "handleRx", Vex::signature(&Class::handleRx)},
      Vex::Function{kFirst + 12, "parsePacket", Vex::signature(&parsePacket, "pkt")},
      Vex::Function{kFirst + 13, "handleBringIntfUp", Vex::signature(&Class::handleBringIntfUp)},
      Vex::Function{kFirst + 14, "resetIntfStatus", Vex::signature(&Class::resetIntfStatus)},
      Vex::Function{kFirst + 15, "handleInitialized", Vex::signature(&Class::handleInitialized)},
      Vex::Function{kFirst + 16, "doPrepareToDie", Vex::signature(&Class::doPrepareToDie)},
      Vex::Function{kFirst + 17, "hasNotificationActiveIs",
                    Vex::signature(&Class::hasNotificationActiveIs, "flag")},
      Vex::Function{kFirst + 18, "vexDoZombieReactors",
                    Vex::signature(&Class::vexDoZombieReactors, "flag")});
};
