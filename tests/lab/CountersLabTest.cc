// SPDX-License-Identifier: Apache-2.0
//
// The agent's counters as another process sees them: a reader that stays while the agent is
// stopped, killed and started again, and an agent whose tables are spoilt or taken while it guards
// its ports.
#include <signal.h>

#include <filesystem>
#include <fstream>

#include "model/status/CounterIntf.h"
#include "model/status/CounterVlan.h"
#include "model/status/IntfTotals.h"
#include "quill/QuillMap.h"
#include "runtime/vex/EpollActivityManager.h"
#include "tests/lab/LoopScenario.h"

namespace RingwardLab {
namespace {

using Bridging::VlanIdOrNone;
using Portus::IntfId;
using Ringward::Status::CounterIntf;
using Ringward::Status::CounterVlan;
using Ringward::Status::IntfTotals;

struct Keys {
  template <class Key>
  void notify(const Key&) {}
};

// Where the tables of the agent on sw1 are for whoever is not on it.
std::string tablePath(const Lab& lab, const std::string& name) {
  return lab.directory("sw1") + "/run/ringward/tables/ringward:" + name;
}

template <class Key, class Record>
class Reader : public Quill::QuillMap<Key, Record, Keys> {
 public:
  Reader(const Lab& lab, const std::string& name)
      : Quill::QuillMap<Key, Record, Keys>(tablePath(lab, name), "reader") {
    this->init(Quill::QuillType::reader, false, 0);
  }
  Record at(const Key& key) const {
    bool found = false;
    return this->safeLookup(key, found);
  }
};

class Readers {
 public:
  explicit Readers(const Lab& lab) : lab_(lab) {}
  CounterIntf intf(const std::string& name) const { return intfs_.at(IntfId::fromName(name)); }
  CounterVlan vlan(int number) const { return vlans_.at(VlanIdOrNone(number)); }
  IntfTotals totals(const std::string& name) const { return totals_.at(IntfId::fromName(name)); }
  bool empty() const { return intfs_.members() == 0 && vlans_.members() == 0; }

  // Turns of the reader's loop until `done` or, by the clock, too long.
  template <class Done>
  bool until(const Done& done, Milliseconds limit = seconds(10)) {
    const auto end = Clock::now() + limit;
    while (!done()) {
      if (Clock::now() > end) return false;
      loop_.runTurn(0.02);
    }
    return true;
  }

 private:
  const Lab& lab_;
  Vex::EpollActivityManager loop_;
  const Vex::CurrentActivityManager current_{loop_};
  Reader<IntfId, CounterIntf> intfs_{lab_, "packetCounter:counterIntf"};
  Reader<VlanIdOrNone, CounterVlan> vlans_{lab_, "packetCounter:counterVlan"};
  Reader<IntfId, IntfTotals> totals_{lab_, "packetAccess:intfTotals"};
};

// sw1 with eth1 and eth2; f1 of `foreign` is in a bridge, f2 makes it a ring once it is as well.
void newPair(Lab& lab) {
  lab.newHost("sw1");
  lab.newHost("foreign");
  for (const char* n : {"1", "2"}) {
    lab.newLink("sw1", std::string("eth") + n, "foreign", std::string("f") + n);
  }
  newSwitch(lab, "sw1", {"eth1", "eth2"});
  lab.newBridge("foreign", "fbr", {"f1"});
  lab.waitForwarding("foreign", {"f1"});
}

void makeLoop(Lab& lab) {
  lab.ip("foreign", "link set f2 master fbr");
  lab.waitForwarding("foreign", {"f2"});
}

TEST(CountersLab, OneReaderSeesThemWhileTheAgentRunsIsStoppedIsDeadAndRunsAgain) {
  agentScenario([](Lab& lab) {
    newPair(lab);
    Readers sut(lab);  // before there is a table
    EXPECT_TRUE(sut.empty());
    AgentConfig config;
    std::uint64_t sent = 0;
    {
      Agent agent(lab, "sw1", config);
      ASSERT_TRUE(sut.until([&] { return sut.intf("eth1").tx >= 2 && sut.intf("eth2").tx >= 2; }))
          << agent.process().output();
      EXPECT_GE(sut.vlan(1).tx, 4U);
      ASSERT_TRUE(sut.until([&] { return sut.totals("eth1").probesSent >= 2; }));

      agent.process().signal(SIGSTOP);
      const auto stopped = sut.intf("eth1").tx;
      EXPECT_GE(stopped, 2U);
      EXPECT_FALSE(sut.until([&] { return sut.intf("eth1").tx != stopped; }, Milliseconds(2500)));
      agent.process().signal(SIGCONT);
      EXPECT_TRUE(sut.until([&] { return sut.intf("eth1").tx > stopped; }));

      EXPECT_EQ(agent.process().end(SIGKILL, seconds(1)), "signal Killed");
    }
    EXPECT_GE(sut.intf("eth1").tx, 2U) << "the dead agent's";
    sent = sut.totals("eth1").probesSent;
    EXPECT_GE(sent, 2U);
    for (int life = 0; life < 2; ++life) {
      Agent agent(lab, "sw1", config);
      // Cleared at its start, and counting anew.
      EXPECT_TRUE(sut.until([&] { return sut.intf("eth1").tx == 1; })) << agent.process().output();
      EXPECT_TRUE(sut.until([&] { return sut.totals("eth1").probesSent > sent; }));
      EXPECT_EQ(agent.process().output().find("RINGWARD_COUNTERS"), std::string::npos)
          << agent.process().output();
      sent = sut.totals("eth1").probesSent;
      if (life == 0) {
        EXPECT_EQ(agent.process().end(SIGKILL, seconds(1)), "signal Killed");
      } else {
        expectCleanEnd(agent);
      }
    }
    // Every machine takes its record with it.
    EXPECT_TRUE(sut.until([&] { return sut.empty(); }));
    EXPECT_GE(sut.totals("eth1").probesSent, sent);
  });
}

TEST(CountersLab, TheTotalsTellWhatAPortHasReceived) {
  agentScenario([](Lab& lab) {
    newPair(lab);
    Readers sut(lab);
    AgentConfig config;
    config.action = "monitor";
    config.rateLimit = 2;
    Agent agent(lab, "sw1", config);
    makeLoop(lab);
    EXPECT_TRUE(sut.until([&] {
      return sut.totals("eth1").probesReceived + sut.totals("eth2").probesReceived > 0;
    })) << agent.process().output();
    lab.ip("foreign", "link set f2 nomaster");
    EXPECT_EQ(sut.totals("eth1").malformed, 0U);
    EXPECT_EQ(sut.totals("eth1").kernelDrops, 0U);
    expectCleanEnd(agent);
  });
}

TEST(CountersLab, SpoiltTablesCostNoCut) {
  struct Spoiling {
    const char* name;
    void (*spoil)(const std::string& path);
  };
  const Spoiling kinds[] = {
      {"cut to nothing",
       [](const std::string& path) {
         for (const char* file : {"/slots", "/buckets", "/conquer.1"}) {
           std::filesystem::resize_file(path + file, 0);
         }
       }},
      {"overwritten",
       [](const std::string& path) {
         for (const char* file : {"/slots", "/buckets"}) {
           std::fstream out(path + file, std::ios::in | std::ios::out | std::ios::binary);
           const auto size = static_cast<long>(std::filesystem::file_size(path + file));
           out.seekp(200);
           for (long i = 200; i < size; ++i) out.put(static_cast<char>(i * 37));
         }
       }},
      {"removed", [](const std::string& path) { std::filesystem::remove_all(path); }},
  };
  for (const auto& kind : kinds) {
    SCOPED_TRACE(kind.name);
    agentScenario([&](Lab& lab) {
      newPair(lab);
      Readers sut(lab);
      LinkWatch watch(lab, "sw1");
      AgentConfig config;
      Agent agent(lab, "sw1", config);
      ASSERT_TRUE(sut.until([&] { return sut.intf("eth1").tx >= 1; }));
      for (const char* table :
           {"packetCounter:counterIntf", "packetCounter:counterVlan", "packetAccess:intfTotals"}) {
        kind.spoil(tablePath(lab, table));
      }
      const auto since = Clock::now();
      makeLoop(lab);
      const auto loop = agent.waitEvent(Kind::kLoop, seconds(5));
      ASSERT_TRUE(loop.has_value()) << agent.process().output();
      expectCut(watch, *loop, since);
      lab.ip("foreign", "link set f2 nomaster");
      EXPECT_TRUE(agent.waitEvent(Kind::kRecovered, seconds(8)).has_value())
          << agent.process().output();
      expectCleanEnd(agent);
    });
  }
}

TEST(CountersLab, ATableOfAnotherLivingWriterCostsNoCutAndIsTold) {
  agentScenario([](Lab& lab) {
    newPair(lab);
    Vex::EpollActivityManager loop;
    const Vex::CurrentActivityManager current(loop);
    Quill::QuillMap<IntfId, CounterIntf, Keys> other(tablePath(lab, "packetCounter:counterIntf"),
                                                     "other");
    other.init(Quill::QuillType::writer, false, 256);
    other.write({IntfId::fromName("eth1"), 77, 0, 0});
    LinkWatch watch(lab, "sw1");
    Agent agent(lab, "sw1", AgentConfig());
    EXPECT_TRUE(
        agent.waitText("The counters of table ringward/packetCounter/counterIntf are kept "
                       "in this process alone: ",
                       seconds(2)))
        << agent.process().output();
    const auto since = Clock::now();
    makeLoop(lab);
    const auto cut = agent.waitEvent(Kind::kLoop, seconds(3));
    ASSERT_TRUE(cut.has_value()) << agent.process().output();
    expectCut(watch, *cut, since);
    bool found = false;
    EXPECT_EQ(other.lookup(IntfId::fromName("eth1"), found).tx, 77U);
    expectCleanEnd(agent);
  });
}

}  // namespace
}  // namespace RingwardLab
