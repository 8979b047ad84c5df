// SPDX-License-Identifier: Apache-2.0
//
// The tree that clients see over machines that run: what requests may do to what these hold.
#include <gtest/gtest.h>

#include "agent/control/TreeService.h"
#include "engine/GlobalSm.h"
#include "tests/engine/World.h"

namespace {

namespace PC = Platform::Linux::Control;
using PC::Operation;
using Texts = std::vector<std::string>;

class EngineConfig : public testing::Test {
 protected:
  PC::Status ask(Operation operation, Texts texts) {
    return service.answer({1, operation, std::move(texts)}, "").status;
  }

  World w;
  Vex::Ptr<Ringward::GlobalSm> root = Ringward::globalSmFactory(
      w.config, w.status, Vex::makePtr<Mlag::Status>("mlag"), w.queues,
      Vex::makePtr<Bridging::Topology::Config>("topoConfig"),
      Vex::makePtr<Bridging::Topology::Status>("topoStatus"), w.brConfig,
      Vex::makePtr<Interface::EthIntfStatusDir>("eth"), w.allIntfStatusDir,
      Vex::makePtr<Interface::AllIntfStatusLocalDir>("local"), w.cause, w.counters);
  Agent::TreeService service{{w.config, w.status, w.queues, w.counters, [this] { return root; }}};
};

TEST_F(EngineConfig, WhatIsSetReachesTheRunningMachinesWhateverWasTriedBefore) {
  w.config->globalEnabledIs(true);
  w.manager.runFor(0.0);
  ASSERT_TRUE(root->transmitSm());
  const auto* const held = root->transmitSm()->transmitConfig();
  for (const std::string child : {"config/transmitConfig", "config/globalIntfConfig"}) {
    EXPECT_EQ(ask(Operation::del, {child}), PC::Status::failed);
    EXPECT_EQ(ask(Operation::set, {child, "other"}), PC::Status::failed);
  }
  EXPECT_EQ(ask(Operation::set, {"config/transmitConfig/rateLimit", "7"}), PC::Status::done);
  EXPECT_EQ(w.config->transmitConfig().get(), held);
  EXPECT_EQ(held->rateLimit(), 7U);
}

TEST_F(EngineConfig, AnArgumentOfAMachinesFunctionThatIsNoneIsNamed) {
  w.config->globalEnabledIs(true);
  w.manager.runFor(0.0);
  const auto call = [this](const std::string& name) {
    return service.answer(
        {1, Operation::call, {"globalSm/vlanIntfSmManager", "handleDesiredIntf", name, "eth1"}},
        "");
  };
  EXPECT_EQ(call("intf").texts,
            Texts{"no argument 'intf' of handleDesiredIntf; did you mean 'intfId'?"});
  EXPECT_EQ(call("intfId").status, PC::Status::done);
}

TEST_F(EngineConfig, TheMachinesAreNoWayAroundTheConstRoots) {
  for (const Texts& change : {Texts{"globalSm/status/running", "true"},
                              Texts{"globalSm/transmitStatus/highPriorityMetadata", "x"},
                              Texts{"globalSm/config/transmitConfig", "other"}}) {
    const PC::Answer answer = service.answer({1, Operation::set, change}, "");
    EXPECT_EQ(answer.texts, Texts{"attempting to modify a const instance"}) << change[0];
  }
  const PC::Answer answer = service.answer(
      {1, Operation::call, {"globalSm/packetCounter/counterIntfControl", "cleanup"}}, "");
  EXPECT_EQ(answer.texts, Texts{"attempting to modify a const instance"});
}

}  // namespace
