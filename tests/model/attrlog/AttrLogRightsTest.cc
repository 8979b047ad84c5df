// SPDX-License-Identifier: Apache-2.0
//
// Rights that change while something is under way, and changes of a mirror that has none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

#include "tests/model/attrlog/Link.h"

namespace {

using namespace AttrLogTest;
using Ringward::AttrLog::Session;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(AttrLogRights, AReadOnlyMirrorAsksForIsNondestructingAtOnceWhenItIsChanged) {
  Link link;
  link.client.mirrorIs(*link.mirror.counter, Session::MirrorMode::readOnly);
  link.original.rootsOf(link.server);
  link.settle();
  link.mirror.counter->isNondestructingIs(true);
  EXPECT_THAT(link.trouble,
              ElementsAre("attribute isNondestructing of counter: attribute isNondestructing of "
                          "Ringward::Status::PacketCounter counter is read-only"));
  EXPECT_THAT(textsOf(link.client.output()), ElementsAre("135 00000006"));
  link.settle();
  EXPECT_FALSE(link.mirror.counter->isNondestructing());
}

}  // namespace
