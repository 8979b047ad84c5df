// SPDX-License-Identifier: Apache-2.0
//
// Tables of counters that are damaged while the engine counts in them: no probe, no cut and no
// machine is lost with them.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "agent/CounterTables.h"
#include "tests/integration/World.h"
#include "tests/quill/TestTable.h"

namespace Integration {
namespace {

class CounterFailure : public World {
 protected:
  void share(Switch& sw) {
    totals_ = Vex::makePtr<Ringward::Status::IntfTotalsDir>("packetAccess");
    tables_ = std::make_unique<Agent::CounterTables>(sw.system.packetCounter, totals_, [] {});
    tables_->configurationIs({true, root_.path(), 8, 8});
  }
  // Every record of both tables as if its slot were free.
  static void damage(Switch& sw) {
    const auto& counters = *sw.system.packetCounter;
    damageAll(counters.counterIntfMap());
    damageAll(counters.counterVlanMap());
  }
  template <class Map>
  static void damageAll(const Map& map) {
    std::vector<char*> flags;
    for (auto key = map.firstKey(); key; key = map.keyAfter(*key)) {
      bool found = false;
      auto* const stored =
          const_cast<char*>(reinterpret_cast<const char*>(&map.lookup(*key, found)));
      flags.push_back(stored - sizeof(std::uint32_t));
    }
    ASSERT_FALSE(flags.empty());
    for (char* const flag : flags) *flag = static_cast<char>(*flag & ~1);
  }

  QuillTest::TemporaryRoot root_;
  Vex::Ptr<Ringward::Status::IntfTotalsDir> totals_;
  std::unique_ptr<Agent::CounterTables> tables_;
};

TEST_F(CounterFailure, ALoopIsCutByTheProbeThatMeetsTheDamage) {
  Switch sw(fabric);
  auto& a = sw.newPort("eth1");
  auto& b = sw.newPort("eth2");
  share(sw);
  sw.start();
  runFor(3);
  ASSERT_FALSE(sw.disabled("eth1"));
  sw.probe("eth1");
  sw.probe("eth2");
  settle();
  fabric.wireIs(a, b);
  damage(sw);
  sw.probe("eth1");
  runFor(2 * kDelay);
  EXPECT_TRUE(sw.disabled("eth2"));
  EXPECT_TRUE(sw.inCause("eth2"));
  EXPECT_FALSE(sw.disabled("eth1"));
  EXPECT_EQ(sw.counts("eth2").rx, 1U);
  EXPECT_EQ(sw.counts("eth1").tx, 1U);
}

TEST_F(CounterFailure, EachRequestOfADrainThatMeetsTheDamageIsSent) {
  Switch sw(fabric);
  Tap tap(fabric);
  Injector station(fabric, "station");
  fabric.wireIs(sw.newPort("eth1", "10-14"), station.port(1));
  share(sw);
  for (int vlan = 10; vlan <= 14; ++vlan) sw.config().vlanEnabledIs(VlanId(vlan), true);
  sw.config().transmitConfig()->rateLimitIs(1);
  sw.start();
  runFor(20);
  // Beyond the limit every pair waits, one of them twice. They leave in one instant: the urgent one
  // first, the others as one drain, nested as deep as they are many.
  sw.system.transmitStatus->highPriorityEnq({intf("eth1"), VlanId(12)});
  ASSERT_EQ(sw.system.transmitStatus->highPriority().members(), 1U);
  const std::size_t waiting = sw.system.transmitStatus->regularPriority().members() + 1;
  ASSERT_GE(waiting, 5U);
  damage(sw);
  const std::size_t before = tap.records().size();
  sw.config().transmitConfig()->rateLimitIs(1000);
  runFor(1.0);
  std::size_t sent = 0;
  double first = 0;
  for (std::size_t i = before; i < tap.records().size(); ++i) {
    const auto& record = tap.records()[i];
    if (!record.outgoing) continue;
    if (sent == 0) first = record.time;
    sent += record.time == first ? 1 : 0;
  }
  EXPECT_GE(sent, waiting);
  EXPECT_EQ(sw.system.transmitStatus->regularPriority().members(), 0U);
}

TEST_F(CounterFailure, TheEngineStartsStopsAndClearsOverDamagedTables) {
  Switch sw(fabric);
  sw.newPort("eth1");
  share(sw);
  sw.start();
  runFor(3);
  damage(sw);
  sw.config().clearCountersIs(7);
  EXPECT_EQ(sw.counts("eth1").tx, 0U);
  runFor(3);
  damage(sw);
  sw.config().globalEnabledIs(false);
  EXPECT_FALSE(sw.status().running());
  EXPECT_EQ(sw.engine->vlanIntfSmManager(), nullptr);
  sw.config().globalEnabledIs(true);
  runFor(3);
  EXPECT_GT(sw.counts("eth1").tx, 0U);
}

}  // namespace
}  // namespace Integration
