// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinkDirectory.h"

#include <gtest/gtest.h>

#include "runtime/vex/VirtualActivityManager.h"
#include "tests/platform/FakeLinks.h"

namespace Platform::Linux {
namespace {

using Texts = std::vector<std::string>;

// Writes down what the membership tells, to count notifications.
class Memberships final : public Bridging::Topology::Status::NotifieeConst {
 public:
  explicit Memberships(const Vex::Ptr<Bridging::Topology::Status>& status) {
    notifierIs(Vex::Ptr<Vex::PtrInterface const>(status));
    isRegisteredNotifieeIs(true);
  }
  void onIntfVlans(const Portus::IntfId& intfId) override {
    const auto* vlans =
        static_cast<const Bridging::Topology::Status*>(notifier())->intfVlans(intfId);
    events.push_back(intfId.name() + ":" + (vlans != nullptr ? vlans->toText() : "-"));
  }
  Texts events;
};

class LinkDirectoryTest : public testing::Test {
 protected:
  void make(PortSelection selection) {
    selection.vlans = Bridging::VlanBitmap::parse("1,10-20");
    sut = std::make_unique<LinkDirectory>(entities, access, std::move(selection));
  }
  void makeForBridge() { make(PortSelection{.bridge = "br0", .match = {}, .vlans = {}}); }
  // Tells of a link as the monitor does, with what was told of it before.
  void tell(const LinkInfo& link) {
    const auto before = told.find(link.ifindex);
    const std::optional<LinkInfo> copy =
        before != told.end() ? std::optional(before->second) : std::nullopt;
    told[link.ifindex] = link;
    sut->linkIs(link, copy ? &*copy : nullptr);
  }
  void tellGone(int ifindex) {
    const LinkInfo last = told.at(ifindex);
    told.erase(ifindex);
    sut->linkDel(last);
  }

  Vex::VirtualActivityManager manager;
  Vex::CurrentActivityManager current{manager};
  DirectoryEntities entities{Vex::makePtr<Interface::AllIntfStatusDir>(Vex::Name("all")),
                             Vex::makePtr<Interface::AllIntfStatusLocalDir>(Vex::Name("local")),
                             Vex::makePtr<Interface::EthIntfStatusDir>(Vex::Name("eth")),
                             Vex::makePtr<Bridging::Config>(Vex::Name("brConfig")),
                             Vex::makePtr<Bridging::Topology::Config>(Vex::Name("topoConfig")),
                             Vex::makePtr<Bridging::Topology::Status>(Vex::Name("topoStatus"))};
  Vex::Ptr<PacketAccess> access = Vex::makePtr<PacketAccess>(manager, true);
  Vex::Ptr<Memberships> memberships = Vex::makePtr<Memberships>(entities.brTopoStatus);
  std::unique_ptr<LinkDirectory> sut;
  std::map<int, LinkInfo> told;
  const Portus::IntfId eth1 = Portus::IntfId::fromName("eth1");
};

TEST_F(LinkDirectoryTest, APortOfTheBridgeIsAnInterfaceWithItsVlansAndItsNativeVlan) {
  makeForBridge();
  tell(bridgeLink(3, "br0"));
  tell(bridgePort(7, "eth1", 3));
  ASSERT_TRUE(entities.allIntfStatusDir->intfStatus(eth1));
  EXPECT_TRUE(entities.allIntfStatusDir->intfStatus(eth1)->intfConfig()->adminEnabled());
  EXPECT_TRUE(entities.allIntfStatusDir->intfStatus(eth1)->linkUp());
  EXPECT_TRUE(entities.allIntfStatusLocalDir->intfStatusLocal(eth1));
  EXPECT_TRUE(entities.ethIntfStatusDir->ethIntfStatus(eth1));
  EXPECT_EQ(entities.brConfig->switchIntfConfig(eth1)->nativeVlan().value(), 1);
  EXPECT_EQ(memberships->events, (Texts{"eth1:1,10-20"}));
  EXPECT_EQ(sut->ports(), 1U);
}

TEST_F(LinkDirectoryTest, TheBridgeItselfAndTheLoopbackAreNoInterfaces) {
  makeForBridge();
  tell(bridgeLink(3, "br0"));
  LinkInfo lo = ethernetLink(1, "lo");
  lo.arpType = ARPHRD_LOOPBACK;
  tell(lo);
  EXPECT_FALSE(entities.allIntfStatusDir->intfStatus(Portus::IntfId::fromName("br0")));
  EXPECT_FALSE(entities.allIntfStatusDir->intfStatus(Portus::IntfId::fromName("lo")));
}

TEST_F(LinkDirectoryTest, PortsThatAreHeardOfBeforeTheirBridgeBecomePortsWithIt) {
  makeForBridge();
  tell(bridgePort(7, "eth1", 3));
  EXPECT_EQ(memberships->events, Texts{});
  tell(bridgeLink(3, "br0"));
  EXPECT_EQ(memberships->events, (Texts{"eth1:1,10-20"}));
}

TEST_F(LinkDirectoryTest, ALinkThatLeavesTheBridgeStaysAnInterfaceAndIsNoPort) {
  makeForBridge();
  tell(bridgeLink(3, "br0"));
  tell(bridgePort(7, "eth1", 3));
  tell(ethernetLink(7, "eth1"));
  EXPECT_EQ(memberships->events, (Texts{"eth1:1,10-20", "eth1:-"}));
  EXPECT_TRUE(entities.allIntfStatusDir->intfStatus(eth1));
}

TEST_F(LinkDirectoryTest, EachChangeIsToldOnceAndAMessageWithoutOneNotAtAll) {
  makeForBridge();
  tell(bridgeLink(3, "br0"));
  LinkInfo port = bridgePort(7, "eth1", 3);
  tell(port);
  port.carrier = false;
  tell(port);
  port.alias = "uplink";
  tell(port);
  EXPECT_EQ(memberships->events, (Texts{"eth1:1,10-20"}));
  EXPECT_FALSE(entities.allIntfStatusDir->intfStatus(eth1)->linkUp());
}

TEST_F(LinkDirectoryTest, ARenamedLinkIsOneInterfaceThatGoesAndAnotherThatComes) {
  makeForBridge();
  tell(bridgeLink(3, "br0"));
  tell(bridgePort(7, "eth1", 3));
  tell(bridgePort(7, "uplink", 3));
  EXPECT_FALSE(entities.allIntfStatusDir->intfStatus(eth1));
  EXPECT_EQ(memberships->events, (Texts{"eth1:1,10-20", "eth1:-", "uplink:1,10-20"}));
}

TEST_F(LinkDirectoryTest, ANameThatMovesToAnotherLinkIsANewInterface) {
  makeForBridge();
  tell(bridgeLink(3, "br0"));
  tell(bridgePort(7, "eth1", 3));
  const auto before = entities.allIntfStatusDir->intfStatus(eth1);
  tell(bridgePort(8, "eth1", 3));
  EXPECT_NE(entities.allIntfStatusDir->intfStatus(eth1), before);
  EXPECT_EQ(sut->link(eth1)->ifindex, 8);
  tellGone(7);  // the news of the old one comes late and takes nothing along
  EXPECT_TRUE(entities.allIntfStatusDir->intfStatus(eth1));
}

TEST_F(LinkDirectoryTest, AVanishedInterfaceLosesItsIntentFirst) {
  // What follows from the end of packet access must find that nobody wants the interface any more.
  class Order final : public Interface::AllIntfStatusLocalDir::NotifieeConst {
   public:
    Order(const DirectoryEntities& e, Portus::IntfId id) : entities(e), intfId(id) {
      notifierIs(Vex::Ptr<Vex::PtrInterface const>(e.allIntfStatusLocalDir));
      isRegisteredNotifieeIs(true);
    }
    void onIntfStatusLocal(const Portus::IntfId&) override {
      known.push_back(static_cast<bool>(entities.allIntfStatusDir->intfStatus(intfId)));
    }
    const DirectoryEntities& entities;
    const Portus::IntfId intfId;
    std::vector<bool> known;
  };
  makeForBridge();
  const auto order = Vex::makePtr<Order>(entities, eth1);
  tell(bridgeLink(3, "br0"));
  tell(bridgePort(7, "eth1", 3));
  tellGone(7);
  EXPECT_EQ(order->known, (std::vector<bool>{true, false}));
  EXPECT_FALSE(entities.brConfig->switchIntfConfig(eth1));
  EXPECT_EQ(memberships->events, (Texts{"eth1:1,10-20", "eth1:-"}));
}

TEST_F(LinkDirectoryTest, WithABridgeThatFiltersAPortCarriesTheVlansThatTheKernelHas) {
  makeForBridge();
  LinkInfo bridge = bridgeLink(3, "br0");
  bridge.vlanFiltering = true;
  tell(bridge);
  LinkInfo port = bridgePort(7, "eth1", 3);
  tell(port);
  port.vlans.emplace();
  port.vlans->members.set(5);
  port.vlans->members.set(6);
  port.vlans->pvid = 5;
  tell(port);
  EXPECT_EQ(memberships->events, (Texts{"eth1:", "eth1:5-6"}));
  EXPECT_EQ(entities.brConfig->switchIntfConfig(eth1)->nativeVlan().value(), 5);
}

TEST_F(LinkDirectoryTest, ABridgeThatGoesTakesThePortsAlongAndAnotherOfItsNameBringsThemBack) {
  makeForBridge();
  tell(bridgeLink(3, "br0"));
  tell(bridgePort(7, "eth1", 3));
  tellGone(3);
  tell(ethernetLink(7, "eth1"));
  tell(bridgeLink(4, "br0"));
  tell(bridgePort(7, "eth1", 4));
  EXPECT_EQ(memberships->events, (Texts{"eth1:1,10-20", "eth1:-", "eth1:1,10-20"}));
}

TEST_F(LinkDirectoryTest, ByPatternALinkNeedsNoBridgeAndABridgeIsNeverAPort) {
  make(PortSelection{
      .bridge = {}, .match = [](std::string_view name) { return name != "eth2"; }, .vlans = {}});
  tell(ethernetLink(7, "eth1"));
  tell(ethernetLink(8, "eth2"));
  tell(bridgeLink(3, "br0"));
  EXPECT_EQ(memberships->events, (Texts{"eth1:1,10-20"}));
}

TEST_F(LinkDirectoryTest, TheSourceAddressIsTheBridgesOrElseTheFirstPorts) {
  makeForBridge();
  tell(bridgeLink(3, "br0"));
  tell(bridgePort(7, "eth1", 3));
  EXPECT_EQ(entities.brConfig->bridgeMacAddr(), bridgeLink(3, "br0").address);
  make(PortSelection{.bridge = {}, .match = [](std::string_view) { return true; }, .vlans = {}});
  told.clear();
  tell(ethernetLink(9, "eth9"));
  tell(ethernetLink(8, "eth8"));
  EXPECT_EQ(entities.brConfig->bridgeMacAddr(), ethernetLink(8, "eth8").address);
}

TEST_F(LinkDirectoryTest, ALinkWithoutAnUsableNameIsLeftOutWithAnError) {
  Vex::MemorySink sink;
  manager.logService().sinkIs(sink);
  makeForBridge();
  tell(bridgeLink(3, "br0"));
  tell(bridgePort(7, "eth\xC3\xA9", 3));
  tell(bridgePort(8, "eth1", 3));
  EXPECT_EQ(sink.entries().size(), 1U);
  EXPECT_EQ(sut->ports(), 1U);
  manager.logService().sinkDel(sink);
}

TEST_F(LinkDirectoryTest, TheOperatorsShutdownIsTheIntentAndWhatErrdisableShutsIsNot) {
  class Silent final : public Errdisable::Listener {
    void held(const Portus::IntfId&, int, ErrdisableAction, std::error_code) override {}
    void released(const Portus::IntfId&, std::error_code) override {}
  };
  makeForBridge();
  FakeKernel kernel;
  Silent silent;
  const auto cause = Vex::makePtr<::Errdisable::CauseStatus>(Vex::Name("ringward"));
  const auto errdisable =
      Vex::makePtr<Errdisable>(Vex::Ptr<::Errdisable::CauseStatus const>(cause), kernel, *sut,
                               silent, ErrdisableAction::adminDown);
  sut->errdisableIs(errdisable.get());
  tell(bridgeLink(3, "br0"));
  kernel.links[7] = bridgePort(7, "eth1", 3);
  tell(kernel.links[7]);
  const auto config = entities.allIntfStatusDir->intfStatus(eth1)->intfConfig();
  cause->intfStatusIs(eth1, 1.0);
  tell(kernel.links[7]);
  EXPECT_FALSE(kernel.links[7].adminUp());
  EXPECT_TRUE(config->adminEnabled());
  cause->intfStatusDel(eth1);
  tell(kernel.links[7]);
  kernel.links[7].flags = 0;
  tell(kernel.links[7]);
  EXPECT_FALSE(config->adminEnabled());
  sut->errdisableIs(nullptr);
}

}  // namespace
}  // namespace Platform::Linux
