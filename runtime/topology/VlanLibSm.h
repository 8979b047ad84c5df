// SPDX-License-Identifier: Apache-2.0
//
// Topology::Library::Vlan::VlanLibSm: turns LibState, which goes by port, into LibVlanState, which
// goes by VLAN. Works on each change at once; LibSm decides when changes come. Activity thread
// only.
//
// A new VLAN is published with its ports in it and tells of itself alone; a VLAN that goes tells of
// itself alone. Ports that come and go in a VLAN that stays tell of themselves.
#pragma once

#include <string_view>

#include "runtime/topology/LibState.h"
#include "runtime/vex/Machine.h"

namespace Topology::Library::Vlan {

class VlanLibSm final : public Vex::Machine<VlanLibSm> {
 public:
  static constexpr std::string_view kTypeName = "Topology::Library::Vlan::VlanLibSm";

  VlanLibSm(const Vex::Ptr<LibState const>& topoLib, Vex::Ptr<LibVlanState> libVlanState);
  ~VlanLibSm() override { vexTeardown(); }

  const LibState* topoLib() const { return watched(topoLib_); }
  const Vex::Ptr<LibVlanState>& libVlanState() const noexcept { return libVlanState_; }

  void handleIntfVlans(const Portus::IntfId& intfId);
  void handleVlans();
  void handleInitDone();

 private:
  friend class Vex::Machine<VlanLibSm>;

  class VexTopoLib final : public Vex::Reactor<VlanLibSm, LibState> {
   public:
    void onVlans() override {
      react([](VlanLibSm& sm) { sm.handleVlans(); });
    }
    void onIntfVlans(const Portus::IntfId& intfId) override {
      react([&](VlanLibSm& sm) { sm.handleIntfVlans(intfId); });
    }
    void onInitDone() override {
      react([](VlanLibSm& sm) { sm.handleInitDone(); });
    }
  };

  auto vexReactors() { return std::tie(topoLib_); }
  static auto vexOwned() { return std::tie(); }

  Vex::Ptr<VexTopoLib> topoLib_;
  const Vex::Ptr<LibVlanState> libVlanState_;
  // What has been turned so far.
  Bridging::VlanBitmap vlans_;
  LibState::Collection intfVlans_;
};

}  // namespace Topology::Library::Vlan
