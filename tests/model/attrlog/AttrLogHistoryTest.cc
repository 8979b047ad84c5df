// SPDX-License-Identifier: Apache-2.0
//
// Random histories: an original and a mirror of every entity, small buffers, bytes that move in
// pieces of any size. ATTRLOG_SEEDS=20000 in the environment makes a long run of it.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/model/attrlog/Trees.h"

namespace {

using namespace AttrLogTest;
using Ringward::AttrLog::Session;

struct Course {
  const char* name;
  unsigned seeds;
  bool mirrorWrites;
  std::size_t buffer;
};

class AttrLogHistory : public testing::TestWithParam<Course> {};

void run(const Course& course, unsigned seed) {
  Random random(seed);
  Trees original;
  Trees mirror;
  for (int i = 0; i < 60; ++i) change(original, random);
  for (int i = 0; i < 60; ++i) change(mirror, random);
  for (int connection = 0; connection < 3; ++connection) {
    Session server({course.buffer, Session::Access::readWrite});
    Session client({course.buffer, Session::Access::readOnly});
    original.rootsOf(server);
    if (below(random, 2) == 0) move(server, client, below(random, 500));
    mirror.mirrorsOf(client);
    const unsigned steps = below(random, 300);
    for (unsigned step = 0; step < steps; ++step) {
      switch (below(random, 4)) {
        case 0:
          change(original, random);
          break;
        case 1:
          if (course.mirrorWrites) change(mirror, random);
          break;
        case 2:
          move(server, client, below(random, 300));
          break;
        default:
          move(client, server, below(random, 300));
      }
    }
    // The last connection ends quiet, the others wherever they are.
    if (connection == 2 || below(random, 3) == 0) {
      ASSERT_TRUE(settle(server, client));
      EXPECT_TRUE(client.isSynchronised());
      ASSERT_EQ(mirror.text(), original.text());
    }
  }
}

unsigned seeds(const Course& course) {
  const char* const asked = std::getenv("ATTRLOG_SEEDS");
  return asked != nullptr ? static_cast<unsigned>(std::strtoul(asked, nullptr, 10)) : course.seeds;
}

TEST_P(AttrLogHistory, EndsWithEqualTreesOnceItIsQuiet) {
  for (unsigned seed = 1; seed <= seeds(GetParam()); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    run(GetParam(), seed);
    if (HasFatalFailure()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(Courses, AttrLogHistory,
                         testing::Values(Course{"TinyBuffer", 300, false, 120},
                                         Course{"SmallBuffer", 300, false, 700},
                                         Course{"LargeBuffer", 300, false, 100000},
                                         Course{"BothWriteTinyBuffer", 300, true, 120},
                                         Course{"BothWriteSmallBuffer", 1000, true, 700},
                                         Course{"BothWriteLargeBuffer", 300, true, 100000}),
                         [](const auto& course) { return course.param.name; });

}  // namespace
