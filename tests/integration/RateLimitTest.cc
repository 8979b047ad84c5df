// SPDX-License-Identifier: Apache-2.0
//
// The limit of probes over the whole tree, counted on the wires.
#include <algorithm>
#include <map>
#include <memory>

#include "tests/integration/World.h"

namespace Integration {
namespace {

class RateLimit : public World {
 protected:
  // Each port leads to a station of its own.
  void newPorts(unsigned count, const std::string& list) {
    for (unsigned i = 1; i <= count; ++i) {
      const std::string name = "eth" + std::to_string(i);
      stations.push_back(std::make_unique<Injector>(fabric, "station" + std::to_string(i)));
      fabric.wireIs(sw.newPort(name, list), stations.back()->port(1));
    }
    vlans(list).forEach([&](std::uint16_t vlan) { sw.config().vlanEnabledIs(VlanId(vlan), true); });
  }
  std::size_t sentSoFar() const {
    const auto& records = tap.records();
    return static_cast<std::size_t>(
        std::count_if(records.begin(), records.end(), [](const auto& r) { return r.outgoing; }));
  }

  Switch sw{fabric};
  Tap tap{fabric};
  std::vector<std::unique_ptr<Injector>> stations;
};

TEST_F(RateLimit, NoWindowHasMoreThanTheLimitAndNoPairStarves) {
  constexpr unsigned kLimit = 37;
  newPorts(10, "10-19");  // 100 pairs that ask for one probe a second each
  sw.config().transmitConfig()->rateLimitIs(kLimit);
  sw.start();
  settle();
  // Where each window begins: the throttle timer says so itself.
  std::vector<double> windows{now()};
  for (int tick = 0; tick < 6000; ++tick) {
    const double due = sw.engine->transmitSm()->throttleTime();
    runFor(kTick);
    const double next = sw.engine->transmitSm()->throttleTime();
    if (next != due) windows.push_back(next - 1);
  }
  ASSERT_GE(windows.size(), 59U);
  ASSERT_LE(windows.size(), 61U);

  std::map<double, unsigned> perWindow;
  std::map<std::pair<std::string, std::uint16_t>, double> lastOfPair;
  for (const auto& r : tap.records()) {
    if (!r.outgoing) continue;
    ++perWindow[*(std::upper_bound(windows.begin(), windows.end(), r.time + 1e-9) - 1)];
    const auto [pair, isFirst] =
        lastOfPair.try_emplace({r.port, Platform::Sim::tagOf(*r.frame).value_or(0)}, r.time);
    // The queue is first come, first served: nobody waits longer than all others take together.
    EXPECT_LE(r.time - pair->second, 4.0 + 2 * kTick) << r.port;
    pair->second = r.time;
  }
  for (const auto& [begin, count] : perWindow) EXPECT_LE(count, kLimit) << "window at " << begin;
  // Always more asked for than allowed: every window but the first and the last is used up.
  ASSERT_GE(perWindow.size(), 59U);
  EXPECT_GE(sentSoFar(), 57U * kLimit);
  ASSERT_EQ(lastOfPair.size(), 100U);
  for (const auto& [pair, last] : lastOfPair) EXPECT_GE(last, now() - 4.0) << pair.first;
  const auto counts = manager.logService().counts(Ringward::RINGWARD_THROTTLE);
  EXPECT_GT(counts.written, 50U);
  EXPECT_LE(counts.written, 61U);
}

TEST_F(RateLimit, ThrottledPairHasOneRequestWaitingAndNoMore) {
  newPorts(2, "10");
  sw.config().transmitConfig()->rateLimitIs(1);
  sw.start();
  settle();
  sw.config().globalIntfConfig()->transmitIntervalIs(0);  // asks at each tick
  runFor(1);
  for (int tick = 0; tick < 500; ++tick) {
    runFor(kTick);
    ASSERT_LE(sw.system.transmitStatus->regularPriority().members(), 2U);
    ASSERT_LE(sw.engine->transmitSm()->transmitCount(), 1U);
  }
}

TEST_F(RateLimit, LimitOfZeroSendsEverythingAtOnceAndNeverThrottles) {
  newPorts(10, "10-19");
  sw.config().transmitConfig()->rateLimitIs(0);
  sw.start();
  settle();
  EXPECT_EQ(sw.engine->transmitSm()->throttleTime(), Vex::kNever);
  runFor(10);
  EXPECT_NEAR(static_cast<double>(sentSoFar()), 1000.0, 100.0);
  EXPECT_EQ(manager.logService().counts(Ringward::RINGWARD_THROTTLE).attempts, 0U);
}

TEST_F(RateLimit, LiftingTheLimitReleasesAllThatWaits) {
  newPorts(10, "10-19");
  sw.config().transmitConfig()->rateLimitIs(1);
  sw.start();
  settle();
  runFor(2);
  const auto waiting = sw.system.transmitStatus->regularPriority().members();
  ASSERT_GT(waiting, 90U);
  const std::size_t before = sentSoFar();
  sw.config().transmitConfig()->rateLimitIs(0);
  EXPECT_EQ(sw.system.transmitStatus->regularPriority().members(), 0U);
  EXPECT_EQ(sentSoFar() - before, waiting);
}

TEST_F(RateLimit, HighPriorityProbeOfAReturnGoesAheadOfAllThatWait) {
  newPorts(10, "10-19");
  Reflector reflector(fabric, "reflector");
  fabric.wireIs(sw.newPort("eth90", "10"), reflector.port(1));
  sw.start();
  settle();
  sw.probe("eth90");
  runFor(3 * kDelay);
  ASSERT_TRUE(sw.disabled("eth90"));
  Injector station(fabric, "station");
  fabric.wireIs(sw.system.port("eth90"), station.port(1));
  sw.config().transmitConfig()->rateLimitIs(1);
  const double until = sw.intfStatus("eth90")->disabledUntil();
  tap.clear();
  manager.runUntil(until + 1 + 2 * kTick);
  ASSERT_GT(sw.system.transmitStatus->regularPriority().members(), 90U);
  EXPECT_EQ(tap.records("switch:eth90", true).size(), 1U);
}

TEST_F(RateLimit, RequestsOfAnInterfaceThatGoesDownLeaveTheQueues) {
  newPorts(2, "10-19");
  sw.config().transmitConfig()->rateLimitIs(1);
  sw.start();
  settle();
  runFor(2);
  ASSERT_GT(sw.system.transmitStatus->regularPriority().members(), 10U);
  sw.config().intfExcludeIs(intf("eth1"), true);
  const auto& queue = sw.system.transmitStatus->regularPriority();
  EXPECT_GT(queue.members(), 0U);
  for (auto* m = queue.head(); m != nullptr; m = queue.memberAfter(m->vex_index())) {
    EXPECT_EQ(m->value().intfId, intf("eth2"));
  }
}

}  // namespace
}  // namespace Integration
