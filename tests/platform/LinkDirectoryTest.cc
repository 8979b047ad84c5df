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

class Silent final : public Errdisable::Listener {
  using Hold = Errdisable::Hold;
  void held(const Portus::IntfId&, const Hold&) override {}
  void heldAtLast(const Portus::IntfId&, const Hold&) override {}
  void released(const Portus::IntfId&, const Hold&) override {}
  void releasedAtLast(const Portus::IntfId&, const Hold&) override {}
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
  Vex::Ptr<Helm::TimerWheel> wheel = Vex::makePtr<Helm::TimerWheel>(
      Vex::Ptr<Vex::ActivityConfig>(), Vex::Ptr<Vex::Clock const>(), 10U, 64U, true, 64U);
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

TEST_F(LinkDirectoryTest, ALinkWhoseNameWasGivenAwayHasItAgainWhenTheOtherGivesItUp) {
  // What a listener hears when eth1 becomes tmp and eth1 again and the messages of that are lost.
  makeForBridge();
  tell(bridgeLink(3, "br0"));
  tell(bridgePort(7, "eth1", 3));
  tell(bridgePort(8, "eth1", 3));
  tell(bridgePort(8, "eth2", 3));
  ASSERT_TRUE(sut->link(eth1));
  EXPECT_EQ(sut->link(eth1)->ifindex, 7);
  tell(bridgePort(8, "eth1", 3));
  tellGone(8);
  ASSERT_TRUE(sut->link(eth1));
  EXPECT_EQ(sut->link(eth1)->ifindex, 7);
  EXPECT_EQ(sut->ports(), 1U);
  tell(bridgePort(8, "eth1", 3));
  LinkInfo loopback = ethernetLink(8, "eth1");
  loopback.arpType = ARPHRD_LOOPBACK;  // no interface any more
  tell(loopback);
  ASSERT_TRUE(sut->link(eth1));
  EXPECT_EQ(sut->link(eth1)->ifindex, 7);
}

TEST_F(LinkDirectoryTest, ABridgeWhoseNameWasGivenAwayHasItAgainWhenTheOtherGivesItUp) {
  makeForBridge();
  tell(bridgeLink(3, "br0"));
  tell(bridgePort(7, "eth1", 3));
  tell(bridgeLink(4, "br0"));
  EXPECT_EQ(sut->ports(), 0U);
  tell(bridgeLink(4, "br1"));
  EXPECT_EQ(sut->ports(), 1U);
  tell(bridgeLink(4, "br0"));
  tellGone(4);
  EXPECT_EQ(sut->ports(), 1U);
}

TEST_F(LinkDirectoryTest, ABridgeUnderANameWithoutAnIdentifierIsFoundByALaterSelection) {
  const std::string name = "b\xC3\xBC";
  make(PortSelection{.bridge = {}, .match = {}, .vlans = {}});
  tell(ethernetLink(3, name));  // a switch of another kind: only its name says what it is
  tell(bridgePort(7, "eth1", 3));
  sut->selectionIs(PortSelection{.bridge = name, .match = {}, .vlans = {}});
  EXPECT_EQ(sut->ports(), 1U);
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

TEST_F(LinkDirectoryTest, TheSourceAddressIsMadeFromThatOfTheBridgeOrElseOfTheFirstPort) {
  makeForBridge();
  tell(bridgeLink(3, "br0"));
  tell(bridgePort(7, "eth1", 3));
  EXPECT_EQ(entities.brConfig->bridgeMacAddr(), Portus::EthAddr(0x42, 0, 0, 0, 0, 3));
  sut->sourceAddressIs({SourceAddress::Kind::bridge, {}});
  EXPECT_EQ(entities.brConfig->bridgeMacAddr(), bridgeLink(3, "br0").address);
  const Portus::EthAddr fixed(2, 1, 2, 3, 4, 5);
  sut->sourceAddressIs({SourceAddress::Kind::fixed, fixed});
  EXPECT_EQ(entities.brConfig->bridgeMacAddr(), fixed);

  make(PortSelection{.bridge = {}, .match = [](std::string_view) { return true; }, .vlans = {}});
  sut->sourceAddressIs({SourceAddress::Kind::bridge, {}});
  told.clear();
  tell(ethernetLink(9, "eth9"));
  tell(ethernetLink(8, "eth8"));
  EXPECT_EQ(entities.brConfig->bridgeMacAddr(), ethernetLink(8, "eth8").address);
  tellGone(8);
  EXPECT_EQ(entities.brConfig->bridgeMacAddr(), ethernetLink(9, "eth9").address);
}

TEST_F(LinkDirectoryTest, ADerivedAddressIsLocalUnicastAndNeverTheOneThatItIsMadeFrom) {
  for (unsigned first = 0; first < 256; ++first) {
    const Portus::EthAddr address(static_cast<std::uint8_t>(first), 1, 2, 3, 4, 5);
    const Portus::EthAddr derived = derivedAddress(address);
    EXPECT_NE(derived, address);
    EXPECT_EQ(derived.bytes()[0] & 0x03, 0x02) << first;
  }
  EXPECT_EQ(derivedAddress(Portus::EthAddr()), Portus::EthAddr());
}

TEST_F(LinkDirectoryTest, ABondOrTeamIsAnInterfaceAndItsMembersAreNone) {
  make(PortSelection{.bridge = {}, .match = [](std::string_view) { return true; }, .vlans = {}});
  for (const char* const kind : {"bond", "team"}) {
    LinkInfo bond = ethernetLink(20, std::string(kind) + "0");
    bond.kind = kind;
    const auto bondId = Portus::IntfId::fromName(bond.name);
    LinkInfo member = ethernetLink(7, "eth1");
    tell(bond);
    tell(member);
    EXPECT_TRUE(Portus::PortChannelIntfId::isPortChannelIntfId(bondId));
    EXPECT_EQ(sut->ports(), 2U);
    member.master = 20;
    member.slaveKind = kind;
    tell(member);
    EXPECT_EQ(sut->ports(), 1U);
    EXPECT_FALSE(entities.allIntfStatusDir->intfStatus(eth1));
    EXPECT_TRUE(entities.allIntfStatusDir->intfStatus(bondId));
    tell(ethernetLink(7, "eth1"));  // it leaves
    EXPECT_TRUE(entities.allIntfStatusDir->intfStatus(eth1));
    tellGone(7);
    tellGone(20);
  }
  EXPECT_EQ(memberships->events, (Texts{"bond0:1,10-20", "eth1:1,10-20", "eth1:-", "eth1:1,10-20",
                                        "eth1:-", "bond0:-", "team0:1,10-20", "eth1:1,10-20",
                                        "eth1:-", "eth1:1,10-20", "eth1:-", "team0:-"}));
}

TEST_F(LinkDirectoryTest, AnotherSelectionTellsOnlyOfThePortsThatItChanges) {
  makeForBridge();
  tell(bridgeLink(3, "br0"));
  tell(bridgeLink(4, "br1"));
  tell(bridgePort(7, "eth1", 3));
  tell(bridgePort(8, "eth2", 4));
  tell(bridgePort(9, "eth3", 4));
  memberships->events.clear();
  PortSelection next{.bridge = "br0", .match = {}, .vlans = Bridging::VlanBitmap::parse("1,10-20")};
  sut->selectionIs(next);
  EXPECT_EQ(memberships->events, Texts{}) << "nothing has changed";
  next.bridge = "br1";
  sut->selectionIs(next);
  EXPECT_EQ(memberships->events, (Texts{"eth1:-", "eth2:1,10-20", "eth3:1,10-20"}));
  EXPECT_EQ(entities.brConfig->bridgeMacAddr(), derivedAddress(bridgeLink(4, "br1").address));
  memberships->events.clear();
  next.vlans = Bridging::VlanBitmap::parse("5");
  next.nativeVlan = Bridging::VlanIdOrNone(5);
  sut->selectionIs(next);
  EXPECT_EQ(memberships->events, (Texts{"eth2:5", "eth3:5"}));
  EXPECT_EQ(entities.brConfig->switchIntfConfig(Portus::IntfId::fromName("eth2"))->nativeVlan(),
            Bridging::VlanIdOrNone(5));
  EXPECT_EQ(entities.brTopoConfig->vlans(), next.vlans);
  memberships->events.clear();
  next.bridge.clear();
  next.match = [](std::string_view name) { return name == "eth1" || name == "eth2"; };
  sut->selectionIs(next);
  EXPECT_EQ(memberships->events, (Texts{"eth1:5", "eth3:-"}));
  sut->selectionIs({});
  EXPECT_EQ(sut->ports(), 0U);
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
  makeForBridge();
  FakeKernel kernel;
  Silent silent;
  const auto cause = Vex::makePtr<::Errdisable::CauseStatus>(Vex::Name("ringward"));
  const auto errdisable =
      Vex::makePtr<Errdisable>(Vex::Ptr<::Errdisable::CauseStatus const>(cause), wheel, kernel,
                               *sut, silent, ErrdisableAction::adminDown);
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

TEST_F(LinkDirectoryTest, AHeldPortThatTheOperatorRaisesIsShutAndRaisedToTheEngine) {
  class Intents final : public Interface::IntfConfig::NotifieeConst {
   public:
    explicit Intents(const Vex::Ptr<Interface::IntfConfig>& config) {
      notifierIs(Vex::Ptr<Vex::PtrInterface const>(config));
      isRegisteredNotifieeIs(true);
    }
    void onAdminEnabled() override {
      values.push_back(static_cast<const Interface::IntfConfig*>(notifier())->adminEnabled());
    }
    std::vector<bool> values;
  };
  makeForBridge();
  FakeKernel kernel;
  Silent silent;
  const auto cause = Vex::makePtr<::Errdisable::CauseStatus>(Vex::Name("ringward"));
  const auto errdisable =
      Vex::makePtr<Errdisable>(Vex::Ptr<::Errdisable::CauseStatus const>(cause), wheel, kernel,
                               *sut, silent, ErrdisableAction::adminDown);
  sut->errdisableIs(errdisable.get());
  tell(bridgeLink(3, "br0"));
  kernel.links[7] = bridgePort(7, "eth1", 3);
  tell(kernel.links[7]);
  const auto intents =
      Vex::makePtr<Intents>(entities.allIntfStatusDir->intfStatus(eth1)->intfConfig());
  cause->intfStatusIs(eth1, 1.0);
  tell(kernel.links[7]);
  EXPECT_EQ(intents->values, std::vector<bool>{});
  kernel.links[7].flags = IFF_UP;
  tell(kernel.links[7]);
  EXPECT_EQ(intents->values, (std::vector<bool>{false, true}));
  sut->errdisableIs(nullptr);
}

}  // namespace
}  // namespace Platform::Linux
