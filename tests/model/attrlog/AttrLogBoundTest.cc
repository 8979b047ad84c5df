// SPDX-License-Identifier: Apache-2.0
//
// What the log costs: allocations of a change, memory for a peer that does not read, and what a
// stream that ends anywhere leaves behind.
#include <gtest/gtest.h>

#include "tests/model/attrlog/Link.h"
#include "tests/runtime/AllocationCount.h"

namespace {

using namespace AttrLogTest;

TEST(AttrLogBound, AScalarChangeAllocatesNothingOnTheSendingSide) {
  Link link;
  link.up();
  for (std::uint32_t i = 1; i <= 1000; ++i) link.original.config->clearCountersIs(i);
  link.settle();
  const AllocationCount allocations;
  for (std::uint32_t i = 1001; i <= 2000; ++i) link.original.config->clearCountersIs(i);
  EXPECT_EQ(allocations.sinceThen(), 0U);
  link.settle();
  EXPECT_EQ(link.mirror.config->clearCounters(), 2000U);
}

TEST(AttrLogBound, APeerThatDoesNotReadCostsNoMemoryHoweverOftenThingsChange) {
  constexpr std::size_t kBuffer = 8192;
  Link link(Session::Access::readWrite, kBuffer);
  link.up();
  const auto member = link.original.status->intfStatusIs(intf(1));
  const std::array ids{intf(1), intf(2), intf(3), intf(4)};
  const auto turn = [&](std::uint32_t i) {
    link.original.config->clearCountersIs(i);
    link.original.config->vlanEnabledIs(Bridging::VlanId(1 + i % 50), i / 50 % 2 != 0);
    link.original.status->sysIntfExcludeIs(ids[i % 4], i / 4 % 2 != 0);
    member->disabledUntilIs(i);
  };
  for (std::uint32_t i = 1; i <= 1000; ++i) turn(i);
  const std::size_t waiting = link.server.output().size();
  const AllocationCount allocations;
  for (std::uint32_t i = 1001; i <= 251000; ++i) turn(i);
  EXPECT_EQ(allocations.sinceThen(), 0U);
  EXPECT_EQ(link.server.output().size(), waiting);
  EXPECT_LE(waiting, kBuffer);
  ASSERT_TRUE(link.settle());
  EXPECT_TRUE(link.isEqual());
}

// A full transfer with something of everything.
std::vector<std::uint8_t> transferOf(Trees& original) {
  Session server({});
  original.rootsOf(server);
  std::vector<std::uint8_t> all;
  while (!server.output().empty()) {
    const auto output = server.output();
    all.insert(all.end(), output.begin(), output.end());
    server.outputDel(output.size());
  }
  return all;
}

TEST(AttrLogBound, AStreamThatEndsAfterAnyByteIsMadeGoodByTheNextConnection) {
  Random random(7);
  Trees original;
  Trees mirror;
  for (int i = 0; i < 60; ++i) change(original, random);
  const std::vector<std::uint8_t> stream = transferOf(original);
  for (std::size_t end = 0; end <= stream.size(); ++end) {
    for (int i = 0; i < 3; ++i) change(mirror, random);
    {
      Session cut({});
      mirror.mirrorsOf(cut);
      cut.bytesIn(std::span(stream).first(end));
      change(mirror, random);
    }
    Session server({300, Session::Access::readOnly});
    Session client({});
    original.rootsOf(server);
    mirror.mirrorsOf(client);
    ASSERT_TRUE(settle(server, client)) << "seed 7, cut at byte " << end;
    ASSERT_EQ(mirror.text(), original.text()) << "seed 7, cut at byte " << end;
  }
}

TEST(AttrLogBound, AStreamInSingleBytesReadsAsOneInOnePiece) {
  Random random(8);
  Trees original;
  Trees mirror;
  for (int i = 0; i < 60; ++i) change(original, random);
  Session client({});
  mirror.mirrorsOf(client);
  for (const std::uint8_t byte : transferOf(original)) client.bytesIn({&byte, 1});
  EXPECT_TRUE(client.isSynchronised());
  EXPECT_EQ(mirror.text(), original.text());
}

}  // namespace
