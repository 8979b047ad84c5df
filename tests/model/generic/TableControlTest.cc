// SPDX-License-Identifier: Apache-2.0
#include "model/generic/TableControl.h"

#include <gtest/gtest.h>

#include "model/generic/ModelTypes.h"
#include "model/generic/PathAccess.h"
#include "quill/QuillMap.h"
#include "tests/runtime/ErrorOf.h"

namespace {

using Ringward::Generic::PathAccess;
using Ringward::Generic::TableControl;
using RuntimeTest::errorOf;
using Vex::GenericIf;

struct Nobody {
  void notify(const Portus::IntfId& /*key*/) {}
};
using Map = Quill::QuillMap<Portus::IntfId, Ringward::Status::CounterIntf, Nobody>;

class TableControlTest : public testing::Test {
 protected:
  PathAccess paths(bool isConst) {
    return PathAccess({{"control", [this, isConst] { return Vex::genericIf(control, isConst); }}});
  }
  Vex::Ptr<Ringward::Status::PacketCounter> owner = Ringward::Status::packetCounterFactory("c");
  Map map{"table", "t"};
  Vex::Ptr<TableControl> control = Vex::makePtr<TableControl>(owner, map);
};

TEST_F(TableControlTest, AnAttributeThatCannotBeReadSaysWhyAndTheOthersAreListed) {
  const auto nodes = paths(false).ls("control", 100);
  ASSERT_EQ(nodes.size(), 15U);
  EXPECT_EQ(nodes[2].name, "mountStatus");
  EXPECT_EQ(nodes[2].text, "(QuillMap name: table used before init())");
  EXPECT_EQ(nodes[8].text, "(mode: U32, isLocal: bool, size: U32)");
  EXPECT_EQ(Vex::genericIf(control)->strRep(), "VexQuill::CollectionControl");
}

TEST_F(TableControlTest, ATableIsMountedAndAskedByName) {
  auto sut = paths(false);
  sut.call("control", "init", {{"mode", "0"}, {"isLocal", "true"}, {"size", "50"}});
  map.write(Ringward::Status::CounterIntf(Portus::IntfId::fromName("eth1"), 1, 2, 3));
  EXPECT_EQ(sut.get("control/maxSize"), "50");
  EXPECT_EQ(map.members(), 1U);
}

TEST_F(TableControlTest, ArgumentsThatAreNotTheFunctionsAreNamed) {
  using Ringward::Generic::PathError;
  using Arguments = std::vector<std::pair<std::string, std::string>>;
  auto sut = paths(false);
  const auto error = [&sut](const Arguments& arguments) {
    return errorOf<PathError>([&] { sut.call("control", "init", arguments); });
  };
  const std::string takes = "; it takes (mode: U32, isLocal: bool, size: U32)";
  EXPECT_EQ(error({{"mode", "0"}, {"islocl", "true"}, {"size", "50"}}),
            "no argument 'islocl' of init; did you mean 'isLocal'?");
  EXPECT_EQ(error({{"x", "0"}}), "no argument 'x' of init" + takes);
  EXPECT_EQ(error({{"mode", "0"}, {"", "true"}}), "argument 'size' of init is missing" + takes);
  EXPECT_EQ(error({{"mode", "0"}, {"mode", "1"}, {"size", "50"}}),
            "argument 'isLocal' of init is missing" + takes);
  EXPECT_EQ(error({{"", "0"}, {"", "true"}, {"", "50"}, {"", "1"}}),
            "4 arguments for init" + takes);
}

TEST_F(TableControlTest, AModeThatIsNoneIsRefused) {
  auto sut = paths(false);
  EXPECT_EQ(errorOf<Vex::RangeException>([&] {
              sut.call("control", "init", {{"", "4"}, {"", "true"}, {"", "50"}});
            }),
            "value 4 is out of range: 0 to 3 allowed");
}

TEST_F(TableControlTest, ThroughAConstInstanceNothingIsMounted) {
  EXPECT_EQ(errorOf<GenericIf::ConstException>([&] {
              paths(true).call("control", "init", {{"", "0"}, {"", "true"}, {"", "50"}});
            }),
            "attempting to modify a const instance");
  EXPECT_THROW(map.members(), Sable::RuntimeException);
}

}  // namespace
