// SPDX-License-Identifier: Apache-2.0
//
// The machines through generic access, in a whole tree: names and numbers, what may be set, calls
// with checked arguments, the way down by paths, and the making of the root from a list.
#include "engine/EngineTypes.h"

#include <gtest/gtest.h>

#include "engine/ProbeFrame.h"
#include "model/generic/PathAccess.h"
#include "tests/engine/World.h"

namespace {

using Ringward::Generic::PathAccess;
using Vex::GenericIf;
using Vex::genericIf;
using Vex::genericValue;
using Kind = Vex::VexType::Kind;
using Names = std::vector<std::string>;
using Generic = Vex::Ptr<GenericIf>;

Names namesOf(std::string_view typeName) {
  Names names;
  Vex::AttributeId id = typeName == "Ringward::VlanSet" ? 258 : 130;
  for (const auto& a : Vex::VexType::type(typeName)->attributes()) {
    names.emplace_back(a.name());
    EXPECT_EQ(a.id, id++);
  }
  return names;
}

std::string shown(const Generic& generic) { return generic ? generic->strRep().str() : "null"; }

class EngineTypes : public testing::Test {
 protected:
  void SetUp() override {
    w.brConfig->bridgeMacAddrIs(kSource);
    topoConfig->vlansIs(Bridging::VlanBitmap::parse("1-4094"));
    const auto eth1 = w.port("eth1");
    device = Vex::makePtr<FakeDevice>();
    ethDir->ethIntfStatusIs(eth1, w.allIntfStatusDir->intfStatus(eth1));
    localDir->intfStatusLocalIs(eth1, Vex::makePtr<Interface::IntfStatusLocal>(device));
    topoStatus->intfVlansIs(eth1, Bridging::VlanBitmap::parse("10"));
    w.config->vlanEnabledIs(vlanOf(10), true);
    w.config->globalEnabledIs(true);
    root = Ringward::globalSmFactory(w.config, w.status, mlag, w.queues, topoConfig, topoStatus,
                                     w.brConfig, ethDir, w.allIntfStatusDir, localDir, w.cause,
                                     w.counters);
    w.manager.runFor(0.0);
    ASSERT_TRUE(root->vlanIntfTxSm(vlanOf(10), eth1));
    scheduler = genericIf(root->transmitSm());
  }
  Vex::Ptr<GenericIf::List> listOf(const Generic& argument) {
    auto list = Vex::makePtr<GenericIf::List>();
    list->argumentIs(argument);
    return list;
  }
  Generic call(const Generic& machine, std::string_view name, const Generic& arguments) {
    return machine->attributeOp({machine->attributeId(name), 131}, nullptr, arguments);
  }
  PathAccess paths(bool isConst) {
    return PathAccess({{"globalSm", [this, isConst] { return genericIf(root, isConst); }}});
  }

  World w;
  Vex::Ptr<Mlag::Status> mlag = Vex::makePtr<Mlag::Status>("mlag");
  Vex::Ptr<Bridging::Topology::Config> topoConfig =
      Vex::makePtr<Bridging::Topology::Config>("topoConfig");
  Vex::Ptr<Bridging::Topology::Status> topoStatus =
      Vex::makePtr<Bridging::Topology::Status>("topoStatus");
  Vex::Ptr<Interface::EthIntfStatusDir> ethDir = Vex::makePtr<Interface::EthIntfStatusDir>("eth");
  Vex::Ptr<Interface::AllIntfStatusLocalDir> localDir =
      Vex::makePtr<Interface::AllIntfStatusLocalDir>("local");
  Vex::Ptr<FakeDevice> device;
  Vex::Ptr<Ringward::GlobalSm> root;
  Generic scheduler;
};

TEST_F(EngineTypes, EachMachineHasItsAttributesInOrder) {
  EXPECT_EQ(namesOf("Ringward::TransmitSm"), (Names{"vexFwkActivity",
                                                    "throttleTimer",
                                                    "transmitConfig",
                                                    "transmitStatus",
                                                    "ethDevPamColl",
                                                    "packetCounter",
                                                    "status",
                                                    "topoLibState",
                                                    "brConfig",
                                                    "transmitCount",
                                                    "handleThrottleTimer",
                                                    "generatePacket",
                                                    "sendPacket",
                                                    "handleHighPriority",
                                                    "handleRegularPriority",
                                                    "initialized",
                                                    "handleInitialized",
                                                    "globalSm",
                                                    "hasNotificationActiveIs",
                                                    "vexDoZombieReactors"}));
  EXPECT_EQ(namesOf("Ringward::GlobalSm"), (Names{"vexFwkActivity",
                                                  "config",
                                                  "status",
                                                  "mlagStatus",
                                                  "transmitStatus",
                                                  "brTopoConfig",
                                                  "brTopoStatus",
                                                  "brConfig",
                                                  "ethIntfStatusDir",
                                                  "allIntfStatusDir",
                                                  "allIntfStatusLocalDir",
                                                  "ringwardCause",
                                                  "packetCounter",
                                                  "deviceIntfStatusDir",
                                                  "pamDesiredIntfDir",
                                                  "ethDevPamCollection",
                                                  "intfStatusManager",
                                                  "ethDevPamManager",
                                                  "topoLibState",
                                                  "topoLibSm",
                                                  "topoLibVlanState",
                                                  "topoLibVlanSm",
                                                  "timerWheel",
                                                  "vlanIntfSmManager",
                                                  "transmitSm",
                                                  "oldPeer",
                                                  "handleGlobalEnabled",
                                                  "handleMacAddr",
                                                  "handleMlagPeer",
                                                  "handleClearCounters",
                                                  "hasNotificationActiveIs",
                                                  "vexDoZombieReactors"}));
  EXPECT_EQ(namesOf("Ringward::VlanIntfSmManager"), (Names{"vexFwkActivity",
                                                           "config",
                                                           "topoLibVlanState",
                                                           "ethDevPamCollection",
                                                           "status",
                                                           "transmitStatus",
                                                           "ringwardCause",
                                                           "pamDesiredIntfDir",
                                                           "packetCounter",
                                                           "timerWheel",
                                                           "brConfig",
                                                           "allIntfStatusDir",
                                                           "vlanSm",
                                                           "intfRxSm",
                                                           "desiredIntfsWithVlan",
                                                           "initialized",
                                                           "handleVlanConfigEnabled",
                                                           "handleDesiredIntf",
                                                           "handleEthDevPam",
                                                           "handleCauseStatus",
                                                           "handleInitialized",
                                                           "doPrepareToDie",
                                                           "hasNotificationActiveIs",
                                                           "vexDoZombieReactors"}));
  EXPECT_EQ(namesOf("Ringward::VlanSm"),
            (Names{"vexFwkActivity", "vlanId", "topoVlan", "config", "ethDevPamCollection",
                   "status", "transmitStatus", "packetCounter", "vlanIntfSmManager", "timerWheel",
                   "vlanIntfTxSm", "initialized", "handleVlanIntf", "handleIntfExclude",
                   "removeIntf", "handleInitialized", "doPrepareToDie", "hasNotificationActiveIs",
                   "vexDoZombieReactors"}));
  EXPECT_EQ(
      namesOf("Ringward::VlanIntfTxSm"),
      (Names{"vexFwkActivity", "intfId", "vlanId", "globalIntfConfig", "sendPacketTimer",
             "intfStatus", "transmitStatus", "packetInQueue", "initialized", "handleInitialized",
             "handleSendPacket", "handleDisabled", "removeFromTransmitQueues", "doPrepareToDie",
             "hasNotificationActiveIs", "vexDoZombieReactors"}));
  EXPECT_EQ(namesOf("Ringward::IntfRxSm"),
            (Names{"vexFwkActivity", "intfId", "globalIntfConfig", "switchIntfConfig", "status",
                   "bringIntfUpTimer", "packetCounter", "intfStatus", "ringwardCause", "pam",
                   "initialized", "handleRx", "parsePacket", "handleBringIntfUp", "resetIntfStatus",
                   "handleInitialized", "doPrepareToDie", "hasNotificationActiveIs",
                   "vexDoZombieReactors"}));
  EXPECT_EQ(namesOf("Ringward::VlanSet"), (Names{"intfId", "vlan"}));
}

TEST_F(EngineTypes, AreMadeWhenTheLibraryIsLoaded) {
  Names names;
  for (const auto* type : Ringward::Generic::engineTypes()) {
    names.push_back(type->typeNode().str());
    EXPECT_TRUE(type->hasGenericIfSupport());
  }
  EXPECT_EQ(names, (Names{"Ringward::GlobalSm", "Ringward::VlanIntfSmManager", "Ringward::VlanSm",
                          "Ringward::VlanIntfTxSm", "Ringward::IntfRxSm", "Ringward::TransmitSm",
                          "Ringward::VlanSet"}));
  EXPECT_EQ(Ringward::TransmitSm::_fwkType(), root->transmitSm()->fwkType());
}

TEST_F(EngineTypes, EveryAttributeOfEveryMachineCanBeReadDownTheTree) {
  const auto paths = this->paths(true);
  for (const char* path : {"globalSm", "globalSm/transmitSm", "globalSm/vlanIntfSmManager",
                           "globalSm/vlanIntfSmManager/vlanSm[10]",
                           "globalSm/vlanIntfSmManager/vlanSm[10]/vlanIntfTxSm[eth1]",
                           "globalSm/vlanIntfSmManager/intfRxSm[eth1]",
                           "globalSm/vlanIntfSmManager/desiredIntfsWithVlan[eth1]"}) {
    const auto nodes = paths.ls(path, 100);
    EXPECT_GE(nodes.size(), 2U);
    for (const auto& node : nodes) {
      EXPECT_FALSE(node.writable) << path << "/" << node.name;
      const auto whole = std::string(path) + "/" + node.name;
      if (node.kind == "scalar" || node.kind == "pointer") {
        EXPECT_EQ(paths.get(whole), node.text) << whole;
        EXPECT_TRUE(node.text != "null" || node.name == "vexFwkActivity") << whole;
      }
    }
  }
  EXPECT_EQ(paths.get("globalSm/vlanIntfSmManager/desiredIntfsWithVlan[eth1]/vlan[10]"), "true");
  EXPECT_EQ(paths.get("globalSm/vlanIntfSmManager/vlanSm[10]/vlanIntfTxSm[eth1]/intfId"), "eth1");
  EXPECT_EQ(paths.get("globalSm/transmitSm/transmitConfig/rateLimit"), "1000");
  EXPECT_EQ(paths.get("globalSm/transmitSm/throttleTimer"), "Helm::TimerWheel");
}

TEST_F(EngineTypes, EveryScalarThatMayBeSetReadsBackAsItWasSet) {
  auto sut = paths(false);
  Names set;
  for (const char* machine : {"globalSm/transmitSm", "globalSm/vlanIntfSmManager",
                              "globalSm/vlanIntfSmManager/vlanSm[10]/vlanIntfTxSm[eth1]",
                              "globalSm/vlanIntfSmManager/intfRxSm[eth1]"}) {
    for (const auto& node : sut.ls(machine, 100)) {
      if (node.kind != "scalar" || !node.writable) continue;
      const std::string path = std::string(machine) + "/" + node.name;
      const std::vector<std::string> texts =
          node.type == "bool" ? Names{"true", "false"} : Names{"7", "8"};
      for (const auto& text : texts) {
        sut.set(path, text);
        EXPECT_EQ(sut.get(path), text) << path;
      }
      set.push_back(node.name);
    }
  }
  EXPECT_EQ(set, (Names{"transmitCount", "packetInQueue"}));
}

TEST_F(EngineTypes, SettingTransmitCountThroughAConstAdapterFailsBeforeItIsLookedAt) {
  const auto reading = genericIf(Vex::Ptr<Ringward::TransmitSm const>(root->transmitSm()));
  const auto index = genericValue(std::uint32_t{1});
  EXPECT_EQ(textOf<GenericIf::ConstException>([&] {
              reading->attributeOp({reading->attributeId("transmitCount"), 128}, index, index);
            }),
            "attempting to modify a const instance");
  EXPECT_EQ(textOf<GenericIf::ConstException>([&] {
              reading->attributeOp({9999, 200});
            }),
            "attempting to modify a const instance");
}

TEST_F(EngineTypes, TransmitCountIsReadAndSetAndNothingElse) {
  const Vex::AttributeId id = scheduler->attributeId("transmitCount");
  EXPECT_EQ(id, 139U);
  scheduler->attributeOp({id, 128}, nullptr, genericValue(std::uint32_t{17}));
  EXPECT_EQ(root->transmitSm()->transmitCount(), 17U);
  EXPECT_EQ(shown(scheduler->attributeOp({id, 0})), "17");
  const auto index = genericValue(std::uint32_t{1});
  EXPECT_EQ(textOf<GenericIf::BadIndexAttrException>([&] {
              scheduler->attributeOp({id, 0}, index);
            }),
            "bad index for 'transmitCount'");
  EXPECT_EQ(textOf<GenericIf::OpNotSupportedException>([&] {
              scheduler->attributeOp({id, 5});
            }),
            "operation 5 not supported on 'transmitCount'");
  EXPECT_EQ(textOf<GenericIf::TypeException>([&] {
              scheduler->attributeOp({id, 128}, nullptr, genericValue(true));
            }),
            "wrong type for 'transmitCount'");
  EXPECT_EQ(root->transmitSm()->transmitCount(), 17U);
}

TEST_F(EngineTypes, APointerIsReadAndNothingElse) {
  const Vex::AttributeId id = scheduler->attributeId("transmitStatus");
  EXPECT_EQ(scheduler->attributeOp({id, 0})->fwkType(),
            Ringward::Status::TransmitStatus::_fwkType());
  EXPECT_EQ(textOf<GenericIf::OpNotSupportedException>([&] {
              scheduler->attributeOp({id, 128}, nullptr, scheduler);
            }),
            "operation 128 not supported on 'transmitStatus'");
  EXPECT_EQ(textOf<GenericIf::BadIndexAttrException>([&] {
              scheduler->attributeOp({id, 0}, scheduler);
            }),
            "bad index for 'transmitStatus'");
}

TEST_F(EngineTypes, WhatAConstMachineLeadsToIsConst) {
  const auto reading = genericIf(root, true);
  const auto status = reading->attributeOp({reading->attributeId("status"), 0});
  EXPECT_TRUE(status->isConst());
  const auto held = genericIf(root)->attributeOp({reading->attributeId("config"), 0});
  EXPECT_TRUE(held->isConst());  // the machine itself only reads it
}

TEST_F(EngineTypes, NoMachineIsAWayAroundARootThatIsConst) {
  auto sut = paths(false);
  const auto refused = [](auto change) {
    EXPECT_EQ(textOf<GenericIf::ConstException>(change), "attempting to modify a const instance");
  };
  refused([&] { sut.set("globalSm/status/running", "false"); });
  refused([&] { sut.set("globalSm/vlanIntfSmManager/vlanSm[10]/status/running", "false"); });
  refused([&] { sut.del("globalSm/status/intfStatus[eth1]"); });
  refused([&] { sut.del("globalSm/config/transmitConfig"); });
  refused([&] { sut.set("globalSm/transmitSm/transmitConfig/rateLimit", "7"); });
  refused([&] { sut.call("globalSm/packetCounter/counterIntfControl", "cleanup", {}); });
  EXPECT_TRUE(w.config->transmitConfig());
  EXPECT_EQ(w.config->transmitConfig()->rateLimit(), 1000U);
  std::size_t entities = 0;
  for (const std::string machine : {"globalSm", "globalSm/transmitSm", "globalSm/vlanIntfSmManager",
                                    "globalSm/vlanIntfSmManager/vlanSm[10]",
                                    "globalSm/vlanIntfSmManager/vlanSm[10]/vlanIntfTxSm[eth1]",
                                    "globalSm/vlanIntfSmManager/intfRxSm[eth1]"}) {
    for (const auto& node : sut.ls(machine, 100)) {
      if (node.kind != "pointer" || node.type.find("Sm") != std::string::npos) continue;
      for (const auto& below : sut.ls(machine + "/" + node.name, 100)) {
        if (below.name == node.name) continue;  // it has nothing below
        EXPECT_FALSE(below.writable) << machine << "/" << node.name << "/" << below.name;
        ++entities;
      }
    }
  }
  EXPECT_GE(entities, 50U);
  sut.set("globalSm/transmitSm/transmitCount", "3");  // the machines stay as they are
  EXPECT_EQ(root->transmitSm()->transmitCount(), 3U);
}

TEST_F(EngineTypes, AFunctionTakesAListOfCheckedArguments) {
  const auto request = genericValue(pairOf("eth1", 10));
  const std::size_t sent = device->pam->sent.size();
  EXPECT_FALSE(call(scheduler, "sendPacket", listOf(request)));
  EXPECT_EQ(device->pam->sent.size(), sent + 1);
  EXPECT_EQ(textOf<GenericIf::TypeException>([&] { call(scheduler, "sendPacket", nullptr); }),
            "wrong type for 'List'");
  EXPECT_EQ(textOf<GenericIf::TypeException>([&] { call(scheduler, "sendPacket", request); }),
            "wrong type for 'Vex::GenericIf::List_'");
  EXPECT_EQ(textOf<GenericIf::TypeException>(
                [&] { call(scheduler, "sendPacket", listOf(genericValue(true))); }),
            "wrong type for 'intfAndVlan'");
  EXPECT_EQ(textOf<GenericIf::TypeException>(
                [&] { call(scheduler, "sendPacket", Vex::makePtr<GenericIf::List>()); }),
            "wrong type for 'intfAndVlan'");
  EXPECT_EQ(
      textOf<GenericIf::TypeException>([&] { call(scheduler, "generatePacket", listOf(request)); }),
      "wrong type for 'pktInfo'");
  EXPECT_EQ(device->pam->sent.size(), sent + 1);
}

TEST_F(EngineTypes, AFunctionWithOneArgumentTooManyFailsAndIsNotRun) {
  const std::size_t sent = device->pam->sent.size();
  auto list = listOf(genericValue(pairOf("eth1", 10)));
  list->argumentIs(genericValue(true));
  EXPECT_EQ(textOf<GenericIf::UnknownArgException>([&] { call(scheduler, "sendPacket", list); }),
            "unknown argument for 'sendPacket'");
  EXPECT_EQ(device->pam->sent.size(), sent);
}

TEST_F(EngineTypes, AResultIsHandedOutAsAValueOrAnObject) {
  EXPECT_EQ(shown(call(scheduler, "handleHighPriority", Vex::makePtr<GenericIf::List>())), "true");
  const Ringward::PacketEncapsulation probe(kSource, vlanOrNone(10), intfOf("eth1"));
  const auto pkt = call(scheduler, "generatePacket", listOf(genericValue(probe)));
  EXPECT_EQ(shown(pkt), "Portus::Pkt");
  const auto receiver = genericIf(root->vlanIntfSmManager()->intfRxSm(intfOf("eth1")));
  EXPECT_EQ(shown(call(receiver, "parsePacket", listOf(pkt))), valueToStrep(probe));
  EXPECT_EQ(textOf<Vex::RangeException>([&] { call(receiver, "parsePacket", listOf(nullptr)); }),
            "null ValidPtr");
}

TEST_F(EngineTypes, AConstMachineLetsOnlyBeCalledWhatLeavesItAsItIs) {
  const auto pkt = Portus::globalPktManager()->newPkt();
  Ringward::writeProbe(*pkt, {kSource, vlanOrNone(10), intfOf("eth1")}, vlanOrNone(1));
  const auto receiver = genericIf(root->vlanIntfSmManager()->intfRxSm(intfOf("eth1")), true);
  const auto list = listOf(genericIf(pkt));
  EXPECT_EQ(receiver->attributeOp({receiver->attributeId("parsePacket"), 0}, nullptr, list)
                ->attributeOp({131, 0})
                ->strRep(),
            "10");
  const auto none = Vex::makePtr<GenericIf::List>();
  EXPECT_EQ(textOf<GenericIf::ConstException>([&] {
              receiver->attributeOp({receiver->attributeId("handleRx"), 0}, nullptr, none);
            }),
            "attempting to modify a const instance");
}

TEST_F(EngineTypes, TheNumberOfArgumentsChoosesBetweenOneKeyAndAll) {
  auto sut = paths(false);
  const std::string manager = "globalSm/vlanIntfSmManager";
  const std::string function = "handleVlanConfigEnabled";
  const auto standing = [&] {
    return static_cast<bool>(root->vlanIntfSmManager()->vlanSm(vlanOf(10)));
  };
  sut.call(manager, function, {{"vlanId", "11"}});
  EXPECT_TRUE(standing());
  sut.call(manager, function, {{"", "10"}});  // for a VLAN that has its machine: ends it
  EXPECT_FALSE(standing());
  sut.call(manager, function, {});
  EXPECT_TRUE(standing());
  const std::string takes = "; it takes (); (vlanId: Bridging::VlanId)";
  EXPECT_EQ(textOf<Ringward::Generic::PathError>([&] {
              sut.call(manager, function, {{"", "10"}, {"", "11"}});
            }),
            "2 arguments for handleVlanConfigEnabled" + takes);
  EXPECT_EQ(textOf<Ringward::Generic::PathError>([&] {
              sut.call(manager, function, {{"intfId", "10"}});
            }),
            "no argument 'intfId' of handleVlanConfigEnabled" + takes);
  // What the function itself says, for whoever has no path.
  const auto machine = genericIf(root->vlanIntfSmManager(), false);
  auto list = listOf(genericValue(vlanOf(10)));
  list->argumentIs(genericValue(vlanOf(11)));
  EXPECT_EQ(textOf<GenericIf::UnknownArgException>([&] { call(machine, function, list); }),
            "unknown argument for 'handleVlanConfigEnabled'");
  EXPECT_EQ(textOf<GenericIf::TypeException>(
                [&] { call(machine, function, listOf(genericValue(true))); }),
            "wrong type for 'vlanId'");
  EXPECT_EQ(textOf<Vex::RangeException>([&] {
              sut.call(manager, function, {{"vlanId", "0"}});
            }),
            "VlanId::value < 1 or > 4094 not allowed");
  EXPECT_TRUE(standing());
}

TEST_F(EngineTypes, FunctionsAreCalledByTextAndAnswerText) {
  auto sut = paths(false);
  EXPECT_EQ(sut.call("globalSm/transmitSm", "handleHighPriority", {}), "true");
  const std::size_t sent = device->pam->sent.size();
  EXPECT_EQ(
      sut.call("globalSm/transmitSm", "sendPacket",
               {{"intfAndVlan",
                 "Value('Ringward::Status::IntfAndVlan', ** {'intfId': eth1, 'vlanId': 10})"}}),
      "");
  EXPECT_EQ(device->pam->sent.size(), sent + 1);
  EXPECT_EQ(textOf<Vex::RangeException>([&] {
              sut.call("globalSm/vlanIntfSmManager/intfRxSm[eth1]", "parsePacket", {{"", "x"}});
            }),
            "argument 'pkt' is a Portus::Pkt and cannot be given as text");
  EXPECT_EQ(textOf<Ringward::Generic::PathError>(
                [&] { sut.call("globalSm/transmitSm", "sendPackets", {}); }),
            "no function 'sendPackets' in globalSm/transmitSm; did you mean 'sendPacket'?");
  EXPECT_EQ(textOf<GenericIf::ConstException>(
                [&] { paths(true).call("globalSm/transmitSm", "handleHighPriority", {}); }),
            "attempting to modify a const instance");
}

TEST_F(EngineTypes, SendPacketIsRefusedWhileTheTopologyIsNotReady) {
  w.config->globalEnabledIs(false);
  const auto ready = Vex::makePtr<Topology::Library::LibState>("later");
  auto sm = Ringward::transmitSmFactory(w.wheel, w.config->transmitConfig(), w.queues, w.pams,
                                        w.counters, w.status, ready, w.brConfig, nullptr);
  w.openPam(intfOf("eth1"));
  EXPECT_EQ(textOf<Vex::RangeException>([&] {
              call(genericIf(sm), "sendPacket", listOf(genericValue(pairOf("eth1", 10))));
            }),
            "sendPacket: the topology is not initialised");
}

TEST_F(EngineTypes, AMachineMayEndByWhatIsCalledOnIt) {
  auto manager = genericIf(root->vlanIntfSmManager());
  const auto vlan = genericIf(root->vlanIntfSmManager()->vlanSm(vlanOf(10)));
  manager->attributeOp({manager->attributeId("vlanSm"), 129}, genericValue(vlanOf(10)));
  EXPECT_FALSE(root->vlanIntfSmManager()->vlanSm(vlanOf(10)));
  call(vlan, "doPrepareToDie", Vex::makePtr<GenericIf::List>());
  EXPECT_EQ(
      textOf<GenericIf::OpNotSupportedException>([&] {
        manager->attributeOp({manager->attributeId("intfRxSm"), 129}, genericValue(intfOf("eth1")));
      }),
      "operation 129 not supported on 'intfRxSm' with an index");
}

class GlobalSmConstructor : public EngineTypes {
 protected:
  Vex::Ptr<GenericIf::List> arguments() {
    auto list = Vex::makePtr<GenericIf::List>();
    list->argumentIs(genericIf(w.config), "config");
    list->argumentIs(genericIf(w.status), "status");
    list->argumentIs(genericIf(mlag), "mlagStatus");
    list->argumentIs(genericIf(w.queues), "transmitStatus");
    list->argumentIs(genericIf(topoConfig), "brTopoConfig");
    list->argumentIs(genericIf(topoStatus), "brTopoStatus");
    list->argumentIs(genericIf(w.brConfig), "brConfig");
    list->argumentIs(genericIf(ethDir), "ethIntfStatusDir");
    list->argumentIs(genericIf(w.allIntfStatusDir), "allIntfStatusDir");
    list->argumentIs(genericIf(localDir), "allIntfStatusLocalDir");
    list->argumentIs(genericIf(w.cause), "ringwardCause");
    return list;
  }
  Generic make(const Generic& list) {
    return Vex::VexType::type("Ringward::GlobalSm")->constructor()(list);
  }
};

TEST_F(GlobalSmConstructor, MakesTheRootFromTwelveArguments) {
  auto list = arguments();
  list->argumentIs(genericIf(w.counters), "packetCounter");
  const auto made = make(list);
  EXPECT_EQ(made->fwkType(), Ringward::GlobalSm::_fwkType());
  EXPECT_FALSE(made->isConst());
  EXPECT_EQ(shown(made->attributeOp({made->attributeId("packetCounter"), 0})),
            "Ringward::Status::PacketCounter('packetCounter')");
}

TEST_F(GlobalSmConstructor, NamesAnArgumentOfAWrongTypeAndAMissingOne) {
  auto list = arguments();
  list->argumentIs(genericIf(w.config), "packetCounter");
  EXPECT_EQ(textOf<GenericIf::TypeException>([&] { make(list); }),
            "wrong type for 'packetCounter'");
  EXPECT_EQ(textOf<GenericIf::TypeException>([&] { make(arguments()); }),
            "wrong type for 'packetCounter'");
  EXPECT_EQ(textOf<GenericIf::TypeException>([&] { make(nullptr); }), "wrong type for 'List'");
}

TEST_F(GlobalSmConstructor, DoesNotTakeAConstObjectWhereItIsWritten) {
  auto list = arguments();
  list->argumentIs(genericIf(w.counters, true), "packetCounter");
  EXPECT_EQ(textOf<GenericIf::TypeException>([&] { make(list); }),
            "wrong type for 'packetCounter'");
}

TEST_F(GlobalSmConstructor, RefusesASurplusArgument) {
  auto list = arguments();
  list->argumentIs(genericIf(w.counters), "packetCounter");
  list->argumentIs(genericValue(true));
  EXPECT_EQ(textOf<GenericIf::UnknownArgException>([&] { make(list); }),
            "unknown argument for 'GlobalSm'");
}

}  // namespace
