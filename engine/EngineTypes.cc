// SPDX-License-Identifier: Apache-2.0
#include "engine/EngineTypes.h"

template class Vex::GenericObject<Ringward::GlobalSm>;
template class Vex::GenericObject<Ringward::VlanIntfSmManager>;
template class Vex::GenericObject<Ringward::VlanSm>;
template class Vex::GenericObject<Ringward::VlanIntfTxSm>;
template class Vex::GenericObject<Ringward::IntfRxSm>;
template class Vex::GenericObject<Ringward::TransmitSm>;
template class Vex::GenericObject<Ringward::VlanSet>;

namespace Ringward::Generic {
namespace {

Vex::VexType* const kTypes[] = {GlobalSm::_fwkType(), VlanIntfSmManager::_fwkType(),
                                VlanSm::_fwkType(),   VlanIntfTxSm::_fwkType(),
                                IntfRxSm::_fwkType(), TransmitSm::_fwkType(),
                                VlanSet::_fwkType()};

}  // namespace

std::span<Vex::VexType* const> engineTypes() { return kTypes; }

}  // namespace Ringward::Generic
