// SPDX-License-Identifier: Apache-2.0
//
// Random runs of the engine's counting, seen by a reader of the tables and compared with counts
// that are kept by hand. What the reader's process sees of the files is in tests/lab.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "engine/IntfRxSm.h"
#include "engine/ProbeFrame.h"
#include "engine/TransmitSm.h"
#include "quill/QuillMap.h"
#include "tests/engine/World.h"
#include "tests/quill/TestTable.h"

namespace {

using Ringward::Status::CounterIntf;
using Ringward::Status::CounterVlan;

struct Keys {
  template <class Key>
  void notify(const Key&) {}
};

class CounterReader : public testing::TestWithParam<unsigned> {
 protected:
  static constexpr int kPorts = 4;
  static constexpr int kVlans = 5;

  void SetUp() override {
    w.counters->tableRootIs(root.path());
    w.counters->counterIntfControl()->init(Quill::QuillType::writer, false, 8);
    w.counters->counterVlanControl()->init(Quill::QuillType::writer, false, 8);
    intfs = std::make_unique<Intfs>(root.table("packetCounter/counterIntf"), "counterIntf");
    vlans = std::make_unique<Vlans>(root.table("packetCounter/counterVlan"), "counterVlan");
    intfs->init(Quill::QuillType::reader, false, 0);
    vlans->init(Quill::QuillType::reader, false, 0);
    ASSERT_EQ(intfs->mountStatus(), 1U);
    for (int i = 0; i < kPorts; ++i) {
      const auto pam = w.portWithPam("eth" + std::to_string(i));
      ports.push_back({pam->intfId(), pam, receiver(pam)});
    }
    transmit =
        Ringward::transmitSmFactory(w.wheel, w.config->transmitConfig(), w.queues, w.pams,
                                    w.counters, w.status, w.topoLibState, w.brConfig, nullptr);
  }
  Vex::Ptr<Ringward::IntfRxSm> receiver(const Vex::Ptr<FakePam>& pam) {
    const auto& intfId = pam->intfId();
    auto made = Ringward::intfRxSmFactory(intfId, w.config->globalIntfConfig(),
                                          w.brConfig->switchIntfConfig(intfId), w.status, w.wheel,
                                          w.counters, w.status->intfStatusIs(intfId), w.cause);
    made->pamIs(pam);
    return made;
  }

  // The rule: one more of its kind, none of the others.
  void count(const Portus::IntfId& intfId, int vlan, std::uint32_t CounterIntf::*ofIntf,
             std::uint32_t CounterVlan::*ofVlan) {
    CounterIntf intf{intfId, 0, 0, 0};
    intf.*ofIntf = expectedIntfs[intfId].*ofIntf + 1;
    expectedIntfs[intfId] = intf;
    CounterVlan number(vlanOrNone(vlan), 0, 0, 0);
    number.*ofVlan = expectedVlans[vlanOrNone(vlan)].*ofVlan + 1;
    expectedVlans[vlanOrNone(vlan)] = number;
  }

  void doOne() {
    auto& port = ports[random() % kPorts];
    const int vlan = 10 + static_cast<int>(random() % kVlans);
    switch (random() % 8) {
      case 0:
      case 1:
      case 2:
        w.queues->regularPriorityEnq({port.intfId, vlanOf(vlan)});
        count(port.intfId, vlan, &CounterIntf::tx, &CounterVlan::tx);
        return;
      case 3:
      case 4:
        receive(port, vlan, true);
        count(port.intfId, vlan, &CounterIntf::rx, &CounterVlan::rx);
        return;
      case 5:
        receive(port, vlan, false);
        count(port.intfId, vlan, &CounterIntf::rxOther, &CounterVlan::rxOther);
        return;
      case 6: {
        const std::vector<std::uint8_t> runt(20, 0);
        port.pam->receive(runt);
        count(port.intfId, 0, &CounterIntf::rxOther, &CounterVlan::rxOther);
        return;
      }
      default:
        if (random() % 16 == 0) {
          w.counters->counterVlanDelAll();
          w.counters->counterIntfDelAll();
          expectedIntfs.clear();
          expectedVlans.clear();
        } else if (random() % 4 == 0) {
          port.receiver->doPrepareToDie();
          expectedIntfs.erase(port.intfId);
        }
        return;
    }
  }

  struct Port {
    Portus::IntfId intfId;
    Vex::Ptr<FakePam> pam;
    Vex::Ptr<Ringward::IntfRxSm> receiver;
  };
  void receive(Port& port, int vlan, bool valid) {
    auto pkt = Portus::globalPktManager()->newPkt();
    Ringward::writeProbe(*pkt, {kSource, vlanOrNone(vlan), intfOf("elsewhere")}, vlanOrNone(1));
    Frame frame(pkt->bytes().begin(), pkt->bytes().end());
    if (!valid) frame[18] ^= 1;  // the vendor
    port.pam->receive(frame);
  }

  template <class Map, class Key, class Record>
  static void expectSame(const Map& reader, const std::map<Key, Record>& expected) {
    ASSERT_EQ(reader.members(), expected.size());
    Record value;
    Quill::IterHint hint;
    std::map<Key, Record> seen;
    for (bool more = reader.first(value, hint); more; more = reader.next(value.key, value, hint)) {
      seen[value.key] = value;
    }
    ASSERT_EQ(seen, expected);
    for (const auto& [key, record] : expected) {
      bool found = false;
      ASSERT_EQ(reader.lookup(key, found), record);
    }
  }

  using Intfs = Quill::QuillMap<Portus::IntfId, CounterIntf, Keys>;
  using Vlans = Quill::QuillMap<Bridging::VlanIdOrNone, CounterVlan, Keys>;

  World w;
  QuillTest::TemporaryRoot root;
  std::unique_ptr<Intfs> intfs;
  std::unique_ptr<Vlans> vlans;
  std::vector<Port> ports;
  Vex::Ptr<Ringward::TransmitSm> transmit;
  std::map<Portus::IntfId, CounterIntf> expectedIntfs;
  std::map<Bridging::VlanIdOrNone, CounterVlan> expectedVlans;
  std::mt19937 random{GetParam()};
};

TEST_P(CounterReader, SeesAfterEachEventWhatACountByHandGives) {
  w.config->transmitConfig()->rateLimitIs(0);
  for (int event = 0; event < 3000; ++event) {
    doOne();
    ASSERT_NO_FATAL_FAILURE(expectSame(*intfs, expectedIntfs))
        << "seed " << GetParam() << " event " << event;
    ASSERT_NO_FATAL_FAILURE(expectSame(*vlans, expectedVlans))
        << "seed " << GetParam() << " event " << event;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, CounterReader, testing::Values(1U, 2U, 3U));

}  // namespace
