// SPDX-License-Identifier: Apache-2.0
//
// Two peers that transfer the same collection of one original at once: by whose commit members go.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "tests/model/attrlog/Link.h"

namespace {

using namespace AttrLogTest;
using Ringward::AttrLog::Session;

const Bridging::VlanId kVlan1(1);
const Bridging::VlanId kVlan7(7);
const Bridging::VlanId kVlan8(8);

// A peer that may write, with so small a buffer that it sends the collection as a whole.
struct Writer {
  Trees mirror;
  std::unique_ptr<Session> server =
      std::make_unique<Session>(Session::Options{65536, Session::Access::readWrite});
  Session client{{200, Session::Access::readOnly}};

  explicit Writer(Trees& original) {
    mirror.mirrorsOf(client);
    original.rootsOf(*server);
    settle();
  }
  bool settle() { return AttrLogTest::settle(*server, client); }
  // Leaves no room, so that the changes of the collection that follow wait for a transfer.
  void fillBuffer() {
    for (std::uint32_t i = 1; i <= 8; ++i) mirror.config->clearCountersIs(i);
  }
  // Sends a few bytes at a time until that is so; false if it never is.
  template <class Predicate>
  bool sendUntil(Predicate&& reached) {
    for (int turn = 0; turn < 1000 && !reached(); ++turn) {
      if (move(client, *server, 8) == 0) return false;
    }
    return reached();
  }
  // Sends whole frames until one has begun the transfer of a collection.
  bool sendBegin() {
    for (int turn = 0; turn < 1000 && !client.output().empty(); ++turn) {
      const std::size_t size = 4 + Vex::ByteConnection::In(client.output()).nextU32();
      const auto texts = textsOf(client.output().first(size));
      move(client, *server, size);
      if (std::find(texts.begin(), texts.end(), "begin 259") != texts.end()) return true;
    }
    return false;
  }
  void sendAll() {
    while (move(client, *server) != 0) {
    }
  }
};

class AttrLogMarks : public testing::Test {
 protected:
  AttrLogMarks() {
    for (unsigned vlan = 1; vlan <= 8; ++vlan) {
      original.config->vlanEnabledIs(Bridging::VlanId(vlan), true);
    }
    first.settle();
    second.settle();
  }
  bool transferUnderWay() const {
    for (std::size_t at = 0; at < Vex::Entity::kTransfers; ++at) {
      if (original.config->vexTransferUnderWay(at)) return true;
    }
    return false;
  }
  // The members that a commit would take away now.
  unsigned marked() const {
    unsigned count = 0;
    for (unsigned vlan = 1; vlan <= 8; ++vlan) {
      using Access =
          Vex::KeyedAccess<std::remove_cvref_t<decltype(original.config->vlanEnabledColl())>>;
      const auto* const member =
          Access::member(original.config->vlanEnabledColl(), Bridging::VlanId(vlan));
      if (member != nullptr && member->isZombie()) ++count;
    }
    return count;
  }
  // Both, in turns: what the one changes goes on to the other.
  bool settle() {
    for (int turn = 0; turn < 100; ++turn) {
      if (!first.settle() || !second.settle()) return false;
      if (first.server->output().empty()) return true;
    }
    return false;
  }
  unsigned vlans() const { return original.config->vlanEnabledColl().members(); }

  Trees original;
  Writer first{original};
  Writer second{original};
};

TEST_F(AttrLogMarks, WhatATransferHasMentionedOutlivesTheBeginOfAnotherPeersTransfer) {
  for (Writer* const writer : {&first, &second}) {
    writer->fillBuffer();
    writer->mirror.config->vlanEnabledIs(kVlan1, false);
  }
  ASSERT_TRUE(first.sendUntil([&] { return transferUnderWay() && marked() == 4; }));
  const bool before = original.config->vlanEnabled(kVlan1);
  ASSERT_TRUE(second.sendBegin());
  // No change has come with it: that would turn the first's commit into a transfer to it.
  ASSERT_EQ(original.config->vlanEnabled(kVlan1), before);
  EXPECT_LE(marked(), 4U);
  first.sendAll();
  EXPECT_EQ(vlans(), 8U);
  second.sendAll();
  ASSERT_TRUE(settle());
  EXPECT_EQ(vlans(), 8U);
  EXPECT_FALSE(original.config->vlanEnabled(kVlan1));
  EXPECT_EQ(first.mirror.text(), original.text());
  EXPECT_EQ(second.mirror.text(), original.text());
}

TEST_F(AttrLogMarks, ATransferThatBeganLaterDeletesNothingByWhatItLeavesOutAndIsSentWhatStands) {
  first.fillBuffer();
  first.mirror.config->vlanEnabledIs(kVlan8, false);
  second.fillBuffer();
  second.mirror.config->vlanEnabledDel(kVlan7);
  ASSERT_TRUE(first.sendUntil([&] { return transferUnderWay(); }));
  second.sendAll();
  EXPECT_EQ(vlans(), 8U);
  ASSERT_TRUE(settle());
  EXPECT_TRUE(second.mirror.config->vlanEnabled(kVlan7));
  EXPECT_EQ(first.mirror.text(), original.text());
  EXPECT_EQ(second.mirror.text(), original.text());
}

TEST_F(AttrLogMarks, AConnectionThatEndsInATransferLeavesTheNextOneItsRight) {
  first.fillBuffer();
  first.mirror.config->vlanEnabledIs(kVlan8, false);
  ASSERT_TRUE(first.sendUntil([&] { return transferUnderWay(); }));
  EXPECT_EQ(marked(), 8U);
  first.server.reset();
  EXPECT_EQ(marked(), 0U);
  second.fillBuffer();
  second.mirror.config->vlanEnabledDel(kVlan7);
  second.sendAll();
  ASSERT_TRUE(second.settle());
  EXPECT_EQ(vlans(), 7U);
  EXPECT_EQ(second.mirror.text(), original.text());
}

}  // namespace
