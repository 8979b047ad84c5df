// SPDX-License-Identifier: Apache-2.0
//
// What the descriptions of all machines share. Constant; any thread.
#pragma once

#include <string_view>
#include <tuple>

#include "runtime/vex/Description.h"
#include "runtime/vex/PtrInterface.h"

namespace Ringward {

// Reads one of the objects that a machine was made with.
template <class Machine, auto Member>
struct MachineArgument {
  const auto& operator()(const Machine& sm) const { return sm.arguments().*Member; }
};

template <class Machine>
struct MachineDescription {
  using Class = Machine;
  static constexpr Vex::AttributeId kFirst = Vex::kFirstMachineAttribute;
  template <auto Member>
  using Argument = MachineArgument<Machine, Member>;
  // On which activity the machine runs: always the default one, which is null.
  static Vex::Ptr<Vex::PtrInterface const> vexFwkActivity(const Class& /*sm*/) { return nullptr; }
};

}  // namespace Ringward
