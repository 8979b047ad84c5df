// SPDX-License-Identifier: Apache-2.0
//
// Link monitor and link control against a real kernel, in a namespace of their own. The monitor
// must end up with what a fresh one reads, whatever happened on the way.
#include <gtest/gtest.h>
#include <linux/if_bridge.h>
#include <net/if.h>
#include <poll.h>

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/linux/LinkControl.h"
#include "platform/linux/LinkMonitor.h"
#include "tests/lab/Namespace.h"

namespace Platform::Linux {
namespace {

// Follows the listener's calls in a table of its own and checks each against it.
class Follower : public LinkMonitor::Listener {
 public:
  void linkIs(const LinkInfo& now, const LinkInfo* before) override {
    const auto it = links.find(now.ifindex);
    EXPECT_EQ(before == nullptr, it == links.end()) << now.name;
    if (before != nullptr && it != links.end()) {
      EXPECT_EQ(*before, it->second) << now.name;
      EXPECT_FALSE(*before == now) << now.name << ": told of no difference";
    }
    links[now.ifindex] = now;
    ++calls;
  }
  void linkDel(const LinkInfo& last) override {
    EXPECT_EQ(links.erase(last.ifindex), 1U) << last.name;
    deleted.push_back(last.name);
    ++calls;
  }

  const LinkInfo* named(const std::string& name) const {
    for (const auto& [ifindex, link] : links) {
      if (link.name == name) return &link;
    }
    return nullptr;
  }

  std::map<int, LinkInfo> links;
  std::vector<std::string> deleted;
  std::size_t calls = 0;
};

// Carrier and bridge port states follow within a second (linkwatch), so this waits for events.
void processUntil(LinkMonitor& monitor, const std::function<bool()>& done) {
  for (;;) {
    while (monitor.process(16)) {
    }
    if (done()) return;
    pollfd waiting{monitor.fd(), POLLIN, 0};
    if (::poll(&waiting, 1, 5000) <= 0) {
      ADD_FAILURE() << "no message for five seconds";
      return;
    }
  }
}

int indexOf(const char* name) { return static_cast<int>(::if_nametoindex(name)); }

void newPair(const std::string& left, const std::string& right) {
  Lab::shell("ip link add name " + left + " type veth peer name " + right);
}

// The monitor's table, its listener's and that of a fresh start must be the same.
void expectTrue(const LinkMonitor& monitor, const Follower& follower) {
  Follower freshFollower;
  LinkMonitor fresh(freshFollower);
  ASSERT_FALSE(fresh.start());
  EXPECT_EQ(monitor.table().links(), fresh.table().links());
  EXPECT_EQ(follower.links, fresh.table().links());
}

TEST(LinkMonitorLab, StartReadsEverythingThatIsThere) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    Lab::shell("ip link add name br0 type bridge && ip link set e1 master br0");
    Lab::shell("ip link set e1 alias 'to the roof' && ip link set e1 mtu 1400");
    Lab::shell("ip link set e1 address 02:00:00:00:00:09");
    Follower follower;
    LinkMonitor sut(follower);
    ASSERT_FALSE(sut.start());
    EXPECT_TRUE(sut.inSync());
    ASSERT_EQ(follower.links.size(), 4U) << "with lo";
    const LinkInfo* e1 = sut.table().link(indexOf("e1"));
    ASSERT_NE(e1, nullptr);
    EXPECT_EQ(e1->name, "e1");
    EXPECT_EQ(e1->alias, "to the roof");
    EXPECT_EQ(e1->mtu, 1400U);
    EXPECT_EQ(e1->address, Portus::EthAddr(2, 0, 0, 0, 0, 9));
    EXPECT_EQ(e1->master, indexOf("br0"));
    EXPECT_EQ(e1->kind, "veth");
    EXPECT_EQ(e1->slaveKind, "bridge");
    EXPECT_EQ(e1->bridgePortState, BR_STATE_DISABLED);
    EXPECT_FALSE(e1->adminUp());
    EXPECT_FALSE(e1->carrier);
    const LinkInfo* bridge = sut.table().link(indexOf("br0"));
    ASSERT_NE(bridge, nullptr);
    EXPECT_EQ(bridge->kind, "bridge");
    EXPECT_FALSE(bridge->bridgePortState);
    EXPECT_NE(bridge->vlanFiltering, true);
    EXPECT_FALSE(sut.process(10));
  });
}

TEST(LinkMonitorLab, LifeOfALinkIsToldStepByStep) {
  Lab::runInNamespace([] {
    Follower follower;
    LinkMonitor sut(follower);
    ASSERT_FALSE(sut.start());
    newPair("e0", "e1");
    processUntil(sut, [&] { return follower.named("e0") && follower.named("e1"); });
    const int e0 = indexOf("e0");
    EXPECT_FALSE(follower.links[e0].adminUp());

    Lab::shell("ip link set e0 name uplink");
    processUntil(sut, [&] { return follower.links[e0].name == "uplink"; });
    EXPECT_EQ(follower.named("e0"), nullptr);
    EXPECT_TRUE(follower.deleted.empty());

    Lab::shell("ip link set uplink up && ip link set e1 up");
    processUntil(sut, [&] { return follower.links[e0].adminUp() && follower.links[e0].carrier; });

    Lab::shell("ip link add name br0 type bridge && ip link set br0 up");
    Lab::shell("ip link set uplink master br0");
    processUntil(sut, [&] { return follower.links[e0].bridgePortState == BR_STATE_FORWARDING; });
    EXPECT_EQ(follower.links[e0].master, indexOf("br0"));

    Lab::shell("ip link set e1 down");
    processUntil(sut, [&] { return !follower.links[e0].carrier; });
    EXPECT_TRUE(follower.links[e0].adminUp());
    processUntil(sut, [&] { return follower.links[e0].bridgePortState == BR_STATE_DISABLED; });

    Lab::shell("ip link set uplink nomaster");
    processUntil(sut, [&] { return follower.links[e0].master == 0; });
    EXPECT_FALSE(follower.links[e0].bridgePortState);
    EXPECT_TRUE(follower.deleted.empty()) << "leaving a bridge is no deletion";

    Lab::shell("ip link del uplink");
    processUntil(sut, [&] { return follower.deleted.size() == 2; });
    EXPECT_EQ(follower.links.count(e0), 0U);
    expectTrue(sut, follower);
    EXPECT_EQ(sut.statistics().malformed, 0U);
    EXPECT_EQ(sut.statistics().resyncs, 0U);
  });
}

TEST(LinkMonitorLab, OneCallHandlesAtMostWhatItWasAllowed) {
  Lab::runInNamespace([] {
    Follower follower;
    LinkMonitor sut(follower);
    ASSERT_FALSE(sut.start());
    for (int i = 0; i < 5; ++i) newPair("a" + std::to_string(i), "b" + std::to_string(i));
    const std::size_t before = follower.calls;
    for (int i = 0; i < 50; ++i) EXPECT_TRUE(sut.process(0));
    EXPECT_EQ(follower.calls, before);
    std::size_t rounds = 0;
    bool more = true;
    while (more) {
      const std::size_t callsBefore = follower.calls;
      more = sut.process(1);
      EXPECT_LE(follower.calls, callsBefore + 1);
      ++rounds;
    }
    EXPECT_EQ(follower.calls - before, 10U);
    EXPECT_GT(rounds, 10U);
  });
}

TEST(LinkMonitorLab, TableIsRightAfterLostMessages) {
  Lab::runInNamespace([] {
    Follower follower;
    LinkMonitor::Config config;
    config.receiveBuffer = 1;  // the kernel's minimum: a message or two
    LinkMonitor sut(follower, config);
    for (int i = 0; i < 10; ++i) newPair("a" + std::to_string(i), "b" + std::to_string(i));
    ASSERT_FALSE(sut.start());
    EXPECT_EQ(follower.links.size(), 21U);

    Lab::shell("ip link add name br0 type bridge && ip link set br0 up");
    for (int i = 0; i < 10; ++i) {
      const std::string n = std::to_string(i);
      Lab::shell("ip link set a" + n + " master br0 up && ip link set b" + n + " up");
    }
    Lab::shell("ip link del a3 && ip link set a4 name renamed && ip link set a5 nomaster");
    newPair("c0", "c1");
    processUntil(sut, [&] {
      return sut.inSync() && follower.named("c1") != nullptr && follower.named("a9") != nullptr &&
             follower.named("a9")->bridgePortState == BR_STATE_FORWARDING;
    });
    EXPECT_GT(sut.statistics().overruns, 0U);
    EXPECT_GT(sut.statistics().resyncs, 0U);
    EXPECT_EQ(follower.deleted.size(), 2U);
    ASSERT_NE(follower.named("renamed"), nullptr);
    EXPECT_EQ(follower.named("a5")->master, 0);

    const std::size_t calls = follower.calls;
    sut.resync();
    EXPECT_FALSE(sut.inSync());
    processUntil(sut, [&] { return sut.inSync(); });
    EXPECT_EQ(follower.calls, calls) << "a comparison that finds nothing tells nothing";
    expectTrue(sut, follower);
  });
}

TEST(LinkMonitorLab, ExceptionOfTheListenerLosesNoLaterMessage) {
  class Throwing : public Follower {
   public:
    void linkIs(const LinkInfo& now, const LinkInfo* before) override {
      Follower::linkIs(now, before);
      throw std::runtime_error("listener");
    }
  };
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    Throwing follower;
    LinkMonitor sut(follower);
    EXPECT_THROW(sut.start(), std::runtime_error);
    std::size_t thrown = 1;
    for (;;) {
      try {
        while (sut.process(100)) {
        }
        break;
      } catch (const std::runtime_error&) {
        ++thrown;
      }
    }
    EXPECT_EQ(thrown, 3U);
    EXPECT_TRUE(sut.inSync());
    expectTrue(sut, follower);
  });
}

TEST(LinkControlLab, AdminStateIsSetAndRead) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    LinkControl sut;
    ASSERT_FALSE(sut.open());
    const int e0 = indexOf("e0");
    EXPECT_FALSE(sut.adminUpIs(e0, true));
    EXPECT_FALSE(sut.adminUpIs(indexOf("e1"), true));
    ASSERT_TRUE(sut.read(e0));
    EXPECT_TRUE(sut.read(e0)->adminUp());
    EXPECT_EQ(sut.read(e0)->name, "e0");
    EXPECT_FALSE(sut.adminUpIs(e0, true)) << "again";
    EXPECT_FALSE(sut.adminUpIs(e0, false));
    EXPECT_FALSE(sut.read(e0)->adminUp());
    EXPECT_TRUE(sut.read(indexOf("e1"))->adminUp());
  });
}

TEST(LinkControlLab, BridgePortStateIsSetReadAndTold) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    newPair("f0", "f1");
    Lab::shell("ip link add name br0 type bridge && ip link set br0 up");
    Lab::shell("ip link set e0 master br0 && ip link set f0 master br0");
    for (const char* name : {"e0", "e1", "f0", "f1"}) {
      Lab::shell(std::string("ip link set ") + name + " up");
    }
    LinkControl sut;
    ASSERT_FALSE(sut.open());
    Follower follower;
    LinkMonitor monitor(follower);
    ASSERT_FALSE(monitor.start());
    const int e0 = indexOf("e0");
    const auto isState = [&](std::uint8_t state) {
      return [&, state] { return follower.links[e0].bridgePortState == state; };
    };
    processUntil(monitor, isState(BR_STATE_FORWARDING));
    EXPECT_EQ(sut.read(e0)->bridgePortState, BR_STATE_FORWARDING);
    EXPECT_FALSE(sut.bridgePortStateIs(e0, BR_STATE_DISABLED));
    ASSERT_TRUE(sut.read(e0));
    EXPECT_EQ(sut.read(e0)->bridgePortState, BR_STATE_DISABLED);
    EXPECT_TRUE(sut.read(e0)->adminUp());
    processUntil(monitor, isState(BR_STATE_DISABLED));
    EXPECT_FALSE(sut.bridgePortStateIs(e0, BR_STATE_FORWARDING));
    EXPECT_EQ(sut.read(e0)->bridgePortState, BR_STATE_FORWARDING);
    processUntil(monitor, isState(BR_STATE_FORWARDING));
    EXPECT_EQ(sut.bridgePortStateIs(e0, 200).value(), EINVAL);
    expectTrue(monitor, follower);
  });
}

// The state that a port falls back to when its link comes and goes is the monitor's to notice.
TEST(LinkControlLab, DisabledPortForwardsAgainAfterItsLinkFlapped) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    newPair("f0", "f1");
    Lab::shell("ip link add name br0 type bridge && ip link set br0 up");
    Lab::shell("ip link set e0 master br0 && ip link set f0 master br0");
    for (const char* name : {"e0", "e1", "f0", "f1"}) {
      Lab::shell(std::string("ip link set ") + name + " up");
    }
    LinkControl sut;
    ASSERT_FALSE(sut.open());
    Follower follower;
    LinkMonitor monitor(follower);
    ASSERT_FALSE(monitor.start());
    const int e0 = indexOf("e0");
    const auto state = [&] { return follower.links[e0].bridgePortState; };
    processUntil(monitor, [&] { return state() == BR_STATE_FORWARDING; });
    ASSERT_FALSE(sut.bridgePortStateIs(e0, BR_STATE_DISABLED));
    processUntil(monitor, [&] { return state() == BR_STATE_DISABLED; });
    Lab::shell("ip link set e1 down");
    processUntil(monitor, [&] { return !follower.links[e0].carrier; });
    Lab::shell("ip link set e1 up");
    processUntil(monitor, [&] { return state() == BR_STATE_FORWARDING; });
    EXPECT_EQ(sut.read(e0)->bridgePortState, BR_STATE_FORWARDING);
  });
}

TEST(LinkControlLab, ErrorsOfTheKernelAreReturned) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    LinkControl sut;
    EXPECT_EQ(sut.adminUpIs(1, true).value(), EBADF) << "not open";
    ASSERT_FALSE(sut.open());
    constexpr int kNobody = 4711;
    std::error_code error;
    for (const int ifindex : {kNobody, 0, -1}) {
      EXPECT_EQ(sut.adminUpIs(ifindex, true).value(), ENODEV) << ifindex;
      EXPECT_EQ(sut.bridgePortStateIs(ifindex, 0).value(), ENODEV) << ifindex;
      EXPECT_FALSE(sut.read(ifindex, &error)) << ifindex;
      EXPECT_EQ(error.value(), ENODEV) << ifindex;
    }
    EXPECT_EQ(sut.bridgePortStateIs(indexOf("e0"), 0).value(), EOPNOTSUPP) << "not a bridge port";
    EXPECT_TRUE(sut.read(indexOf("e0"), &error));
    EXPECT_FALSE(error);
  });
}

}  // namespace
}  // namespace Platform::Linux
