// SPDX-License-Identifier: Apache-2.0
//
// The EntityType of a class, with the class's adapter behind it. For classes above the model;
// those of the model are compiled once and found by modelEntityType(). Constant; any thread.
#pragma once

#include "model/attrlog/EntityType.h"
#include "model/attrlog/VexNboAttrLogSa.h"

namespace Ringward::AttrLog {

template <class Class>
inline constexpr EntityType entityTypeOf{
    Logged<Class>::kTypeName,
    [](const Vex::Entity& entity) { return dynamic_cast<const Class*>(&entity) != nullptr; },
    [](Vex::NboAttrLog::Demuxer& demuxer, Vex::Entity& entity,
       std::uint32_t flags) -> Vex::StreamAdapter& {
      auto made = Vex::makePtr<VexNboAttrLogSa<Class>>(demuxer, static_cast<Class&>(entity), flags);
      auto& adapter = *made;
      demuxer.adapterIs(std::move(made), adapter);
      return adapter;
    }};

}  // namespace Ringward::AttrLog
