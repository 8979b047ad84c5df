// SPDX-License-Identifier: Apache-2.0
#include "model/generic/ModelTypes.h"

template class Vex::GenericObject<Ringward::Config::Config>;
template class Vex::GenericObject<Ringward::Config::GlobalIntfConfig>;
template class Vex::GenericObject<Ringward::Config::TransmitConfig>;
template class Vex::GenericObject<Ringward::Status::Status>;
template class Vex::GenericObject<Ringward::Status::IntfStatus>;
template class Vex::GenericObject<Ringward::Status::TransmitStatus>;
template class Vex::GenericObject<Ringward::Status::PacketCounter>;
template class Vex::GenericObject<Ringward::Generic::TableControl>;

namespace Ringward::Generic {
namespace {

Vex::VexType* const kTypes[] = {Config::Config::_fwkType(),
                                Config::GlobalIntfConfig::_fwkType(),
                                Config::TransmitConfig::_fwkType(),
                                Status::Status::_fwkType(),
                                Status::IntfStatus::_fwkType(),
                                Status::TransmitStatus::_fwkType(),
                                Status::PacketCounter::_fwkType(),
                                Oui::_fwkType(),
                                Payload::_fwkType(),
                                PacketEncapsulation::_fwkType(),
                                Status::CounterIntf::_fwkType(),
                                Status::CounterVlan::_fwkType(),
                                Status::IntfAndVlan::_fwkType()};

}  // namespace

std::span<Vex::VexType* const> modelTypes() { return kTypes; }

}  // namespace Ringward::Generic
