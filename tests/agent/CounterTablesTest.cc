// SPDX-License-Identifier: Apache-2.0
#include "agent/CounterTables.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>

#include "engine/CountPacket.h"
#include "quill/QuillMap.h"
#include "runtime/vex/LogService.h"
#include "tests/quill/RawFile.h"
#include "tests/quill/TestTable.h"

namespace Agent {
namespace {

using Bridging::VlanIdOrNone;
using Portus::IntfId;
using Ringward::CounterKind;
using Ringward::Status::CounterIntf;
using Ringward::Status::CounterVlan;
using Ringward::Status::IntfTotals;

struct Keys {
  template <class Key>
  void notify(const Key&) {}
};

// Another process's handle on one of the tables.
template <class Key, class Record>
class Other : public Quill::QuillMap<Key, Record, Keys> {
 public:
  Other(const std::string& path, Quill::QuillType mode, unsigned size = 0)
      : Quill::QuillMap<Key, Record, Keys>(path, "other") {
    this->init(mode, false, size);
  }
  Record at(const Key& key) const {
    bool found = false;
    return this->lookup(key, found);
  }
};
using Intfs = Other<IntfId, CounterIntf>;
using Vlans = Other<VlanIdOrNone, CounterVlan>;
using Totals = Other<IntfId, IntfTotals>;

class CounterTablesTest : public QuillTest::TableTest {
 protected:
  static constexpr auto kReader = Quill::QuillType::reader;
  static constexpr auto kWriter = Quill::QuillType::writer;

  CounterTablesTest() { loop_.logService().sinkIs(log_); }

  void start() {
    counters_ = Ringward::Status::packetCounterFactory("packetCounter");
    totals_ = Vex::makePtr<Ringward::Status::IntfTotalsDir>("packetAccess");
    sut_ = std::make_unique<CounterTables>(counters_, totals_, [this] { ++mounted_; });
    sut_->configurationIs(configuration_);
  }
  void count() { Ringward::countPacket(CounterKind::rx, eth1, vlan10, *counters_); }
  // The record that a reader of the files finds.
  CounterIntf shared(const IntfId& key) { return Intfs(intfPath_, kReader).at(key); }
  // The record of a key as if its slot were free, in memory that is shared with its readers.
  template <class Map, class Key>
  static void damage(const Map& map, const Key& key) {
    bool found = false;
    const auto* const stored = reinterpret_cast<const char*>(&map.lookup(key, found));
    ASSERT_TRUE(found);
    auto* const flags = const_cast<char*>(stored) - sizeof(std::uint32_t);
    *flags = static_cast<char>(*flags & ~1);
  }

  const std::string intfPath_ = root_.table("ringward/packetCounter/counterIntf");
  const std::string vlanPath_ = root_.table("ringward/packetCounter/counterVlan");
  const std::string totalsPath_ = root_.table("ringward/packetAccess/intfTotals");
  const IntfId eth1 = IntfId::fromName("eth1");
  const VlanIdOrNone vlan10{10};
  Vex::MemorySink log_;
  Counters configuration_{true, root_.path(), 8, 16};
  Vex::Ptr<Ringward::Status::PacketCounter> counters_;
  Vex::Ptr<Ringward::Status::IntfTotalsDir> totals_;
  std::unique_ptr<CounterTables> sut_;
  int mounted_ = 0;
};

TEST_F(CounterTablesTest, OthersReadTheThreeTablesUnderTheirNames) {
  start();
  count();
  totals_->intfTotalsIs({eth1, 1, 2, 3, 4, 5, 6});
  EXPECT_EQ(shared(eth1), (CounterIntf{eth1, 0, 1, 0}));
  EXPECT_EQ(Vlans(vlanPath_, kReader).at(vlan10), (CounterVlan{vlan10, 0, 1, 0}));
  EXPECT_EQ(Totals(totalsPath_, kReader).at(eth1), (IntfTotals{eth1, 1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(Intfs(intfPath_, kReader).maxSize(), 8U);
  EXPECT_EQ(Vlans(vlanPath_, kReader).maxSize(), 16U);
  EXPECT_EQ(Totals(totalsPath_, kReader).maxSize(), 9U);
  EXPECT_EQ(mounted_, 1);
  EXPECT_TRUE(log_.entries().empty());
}

TEST_F(CounterTablesTest, UnsharedCountersTouchNoFile) {
  configuration_.shared = false;
  start();
  count();
  EXPECT_EQ(counters_->counterIntf(eth1).rx, 1U);
  EXPECT_TRUE(std::filesystem::is_empty(root_.path()));
  EXPECT_EQ(counters_->counterIntfControl()->maxSize(), 8U);
  loop_.runFor(1000.0);
  EXPECT_TRUE(std::filesystem::is_empty(root_.path()));
}

TEST_F(CounterTablesTest, WhileAnotherWriterLivesCountingGoesOnLocallyAndIsTakenAlong) {
  auto other = std::make_unique<Intfs>(intfPath_, kWriter, 8);
  other->write({eth1, 70, 0, 0});
  start();
  ASSERT_EQ(log_.texts().size(), 1U);
  EXPECT_EQ(log_.entries()[0].handle->id(), "RINGWARD_COUNTERS");
  EXPECT_TRUE(log_.texts()[0].starts_with(
      "The counters of table ringward/packetCounter/counterIntf are kept in this process alone: "))
      << log_.texts()[0];
  count();
  count();
  EXPECT_EQ(counters_->counterIntf(eth1).rx, 2U);
  EXPECT_EQ(shared(eth1).tx, 70U);
  EXPECT_EQ(Vlans(vlanPath_, kReader).at(vlan10).rx, 2U);
  loop_.runFor(200.0);
  EXPECT_EQ(log_.texts().size(), 1U);
  other.reset();
  loop_.runFor(CounterTables::kRetryPause);
  EXPECT_EQ(shared(eth1), (CounterIntf{eth1, 0, 2, 0}));
  count();
  EXPECT_EQ(shared(eth1), (CounterIntf{eth1, 0, 3, 0}));
  ASSERT_EQ(log_.texts().size(), 2U);
  EXPECT_EQ(log_.texts()[1], "The counters of table " + intfPath_ + " can be read again");
}

TEST_F(CounterTablesTest, WhatIsNoTableWhereOneShouldBeKeepsNothingFromCounting) {
  std::ofstream(intfPath_) << "a file where the directory should be";
  std::filesystem::create_directories(vlanPath_ + "/slots");
  start();
  count();
  EXPECT_EQ(counters_->counterIntf(eth1).rx, 1U);
  EXPECT_EQ(counters_->counterVlan(vlan10).rx, 1U);
  EXPECT_EQ(log_.texts().size(), 2U);
  std::filesystem::remove(intfPath_);
  std::filesystem::remove_all(vlanPath_);
  loop_.runFor(CounterTables::kRetryPause);
  EXPECT_EQ(shared(eth1).rx, 1U);
  EXPECT_EQ(Vlans(vlanPath_, kReader).at(vlan10).rx, 1U);
}

TEST_F(CounterTablesTest, ADamagedTableIsMadeAnewAndTheEventThatMetItIsCounted) {
  start();
  loop_.runFor(100.0);
  for (int i = 0; i < 5; ++i) count();
  damage(counters_->counterIntfMap(), eth1);
  count();
  EXPECT_EQ(counters_->counterIntf(eth1), (CounterIntf{eth1, 0, 1, 0}));
  EXPECT_EQ(counters_->counterVlan(vlan10), (CounterVlan{vlan10, 0, 6, 0}));
  EXPECT_EQ(counters_->counterIntfControl()->mountStatus(), 0U);
  loop_.runFor(0.0);
  EXPECT_EQ(counters_->counterIntfControl()->mountStatus(), 1U);
  count();
  EXPECT_EQ(shared(eth1), (CounterIntf{eth1, 0, 2, 0}));
  ASSERT_EQ(log_.texts().size(), 2U);
  EXPECT_EQ(log_.texts()[0],
            "The counters of table ringward/packetCounter/counterIntf are kept in this process "
            "alone: QuillMap::corruptionDetected() " +
                intfPath_ + " QuillWriter::lookup() slot: 0 not marked as occupied");
}

TEST_F(CounterTablesTest, ATableThatBecomesShorterIsMadeAnewAndTheEventThatMetItIsCounted) {
  start();
  loop_.runFor(100.0);
  for (int i = 0; i < 5; ++i) count();
  std::filesystem::resize_file(intfPath_ + "/slots", 0);
  std::filesystem::resize_file(vlanPath_ + "/conquer.1", 0);
  count();
  EXPECT_EQ(counters_->counterIntf(eth1), (CounterIntf{eth1, 0, 1, 0}));
  EXPECT_EQ(counters_->counterVlan(vlan10).key, vlan10);
  loop_.runFor(0.0);
  loop_.runFor(CounterTables::kRetryPause);
  count();
  EXPECT_EQ(shared(eth1).rx, counters_->counterIntf(eth1).rx);
  EXPECT_EQ(Vlans(vlanPath_, kReader).at(vlan10), counters_->counterVlan(vlan10));
}

TEST_F(CounterTablesTest, AReaderFollowsThroughDamageAndTheNextTable) {
  start();
  loop_.runFor(100.0);
  count();
  Intfs reader(intfPath_, kReader);
  ASSERT_EQ(reader.at(eth1).rx, 1U);
  damage(counters_->counterIntfMap(), eth1);
  count();
  count();
  loop_.runFor(0.0);
  loop_.runFor(0.0);
  EXPECT_EQ(reader.at(eth1), (CounterIntf{eth1, 0, 2, 0}));
}

TEST_F(CounterTablesTest, ATableThatFailsWithinAMinuteOfItsMountIsTriedAgainAMinuteLater) {
  start();
  loop_.runFor(1.0);
  count();
  damage(counters_->counterIntfMap(), eth1);
  count();
  loop_.runFor(CounterTables::kRetryPause - 1.0);
  EXPECT_EQ(counters_->counterIntfControl()->mountStatus(), 0U);
  count();
  loop_.runFor(1.0);
  EXPECT_EQ(counters_->counterIntfControl()->mountStatus(), 1U);
  EXPECT_EQ(shared(eth1), (CounterIntf{eth1, 0, 2, 0}));
}

TEST_F(CounterTablesTest, WhileTheLocalTableFailsTooEachCountNeitherHastensNorDelaysTheNextTry) {
  auto other = std::make_unique<Intfs>(intfPath_, kWriter, 8);
  start();
  loop_.runFor(CounterTables::kRetryPause);
  loop_.runFor(5.0);
  other.reset();
  count();
  for (int i = 0; i < 5; ++i) {
    damage(counters_->counterIntfMap(), eth1);
    count();
    loop_.runFor(10.0);
    ASSERT_EQ(counters_->counterIntfControl()->mountStatus(), 0U) << i;
  }
  loop_.runFor(5.0);
  EXPECT_EQ(counters_->counterIntfControl()->mountStatus(), 1U);
}

TEST_F(CounterTablesTest, AReadersReportThatIsBorneOutHasTheTableMadeAnew) {
  start();
  loop_.runFor(100.0);
  count();
  damage(counters_->counterIntfMap(), eth1);
  std::ofstream(intfPath_ + "/corruption-detected") << "by a reader";
  loop_.runFor(0.0);
  loop_.runFor(0.0);
  EXPECT_EQ(counters_->counterIntfControl()->mountStatus(), 1U);
  EXPECT_EQ(counters_->counterIntfMap().members(), 0U);
  count();
  EXPECT_EQ(shared(eth1).rx, 1U);
}

TEST_F(CounterTablesTest, ADirectoryThatIsRemovedIsMadeAgain) {
  start();
  loop_.runFor(100.0);
  count();
  std::filesystem::remove_all(intfPath_);
  loop_.runFor(0.0);
  loop_.runFor(0.0);
  count();
  EXPECT_EQ(shared(eth1), counters_->counterIntf(eth1));
}

TEST_F(CounterTablesTest, WithoutRoomToGrowCountingGoesOnLocallyWithEverythingThatWasThere) {
  // Nothing of what the test process writes may be longer than the table as it stands.
  struct Limit {
    Limit() {
      getrlimit(RLIMIT_FSIZE, &before);
      handler = signal(SIGXFSZ, SIG_IGN);
    }
    ~Limit() {
      setrlimit(RLIMIT_FSIZE, &before);
      signal(SIGXFSZ, handler);
    }
    void is(rlim_t size) const {
      const rlimit now{size, before.rlim_max};
      setrlimit(RLIMIT_FSIZE, &now);
    }
    rlimit before{};
    void (*handler)(int) = nullptr;
  };
  configuration_.vlans = 4096;
  start();
  loop_.runFor(100.0);
  {
    const Limit limit;
    limit.is(std::filesystem::file_size(vlanPath_ + "/slots"));
    for (int number = 1; number <= 4000; ++number) {
      Ringward::countPacket(CounterKind::tx, eth1, VlanIdOrNone(number), *counters_);
    }
    loop_.runFor(1.0);
    EXPECT_EQ(counters_->counterVlanMap().members(), 4000U);
    EXPECT_EQ(counters_->counterVlanControl()->mountStatus(), 0U);
    EXPECT_EQ(counters_->counterIntf(eth1).tx, 4000U);
    EXPECT_EQ(log_.texts().size(), 1U);
  }
  loop_.runFor(CounterTables::kRetryPause);
  Vlans reader(vlanPath_, kReader);
  EXPECT_EQ(reader.members(), 4000U);
  EXPECT_EQ(reader.at(VlanIdOrNone(4000)).tx, 1U);
  EXPECT_EQ(log_.texts().size(), 2U);
}

TEST_F(CounterTablesTest, TheNextRunGoesOnFromTheTotalsAndCountsAnew) {
  start();
  count();
  totals_->intfTotalsIs({eth1, 1, 2, 3, 4, 5, 6});
  sut_.reset();
  EXPECT_EQ(Totals(totalsPath_, kReader).at(eth1).malformed, 5U);
  start();
  EXPECT_EQ(totals_->intfTotals(eth1), (IntfTotals{eth1, 1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(shared(eth1), CounterIntf());
  count();
  EXPECT_EQ(shared(eth1).rx, 1U);
}

TEST_F(CounterTablesTest, ATableOfAnotherSizeIsMadeAnew) {
  start();
  totals_->intfTotalsIs({eth1, 1, 2, 3, 4, 5, 6});
  sut_.reset();
  configuration_.interfaces = 500;
  start();
  EXPECT_EQ(Totals(totalsPath_, kReader).maxSize(), 501U);
  EXPECT_EQ(totals_->intfTotals(eth1), IntfTotals());
  EXPECT_TRUE(log_.entries().empty());
}

TEST_F(CounterTablesTest, AnotherConfigurationTakesTheCountsAlong) {
  start();
  count();
  QuillTest::TemporaryRoot elsewhere;
  configuration_.root = elsewhere.path();
  sut_->configurationIs(configuration_);
  EXPECT_EQ(Intfs(elsewhere.table("ringward/packetCounter/counterIntf"), kReader).at(eth1).rx, 1U);
  configuration_.shared = false;
  sut_->configurationIs(configuration_);
  count();
  EXPECT_EQ(counters_->counterIntf(eth1).rx, 2U);
  EXPECT_EQ(counters_->counterIntfControl()->mountStatus(), 0U);
  configuration_.shared = true;
  configuration_.root = root_.path();
  sut_->configurationIs(configuration_);
  EXPECT_EQ(shared(eth1).rx, 2U);
  EXPECT_TRUE(log_.entries().empty());
}

TEST_F(CounterTablesTest, ARootThatCannotBeMadeIsToldOncePerTable) {
  std::ofstream(root_.path() + "/file") << "";
  configuration_.root = root_.path() + "/file/tables";
  start();
  count();
  loop_.runFor(300.0);
  EXPECT_EQ(log_.texts().size(), 3U);
  EXPECT_EQ(counters_->counterIntf(eth1).rx, 1U);
  EXPECT_EQ(mounted_, 0);
}

}  // namespace
}  // namespace Agent
