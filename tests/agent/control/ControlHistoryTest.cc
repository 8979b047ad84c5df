// SPDX-License-Identifier: Apache-2.0
//
// Random histories of two processes: an agent with its control server and a mirror that follows it,
// over real sockets with a relay between. Both change things, buffers are as small as the kernel
// makes them, connections are cut behind any byte, and the agent is killed and started anew with
// other contents.
//
// The seed decides what each process is told and where connections are cut; how the three processes
// interleave is the scheduler's. CONTROL_SEEDS=1000 in the environment makes a long run of it, from
// the seed CONTROL_SEED on.
//
// It is quiet when the relay has been seen empty, both kernel buffers of either connection
// included, then the agent and then the mirror have said that nothing waits inside them, and then
// the relay is empty still and has moved nothing. Whatever either process could send would have
// been there.
#include <gtest/gtest.h>

#include <ostream>

#include "tests/agent/control/ControlProcesses.h"
#include "tests/agent/control/ControlWorld.h"
#include "tests/agent/control/Relay.h"

namespace {

using namespace ControlTest;
using AttrLogTest::below;
using What = Order::What;

struct Course {
  const char* name;
  bool configOnly;    // the one subscription that may write
  bool readOnly;      // the mode of the mirrors
  bool mirrorWrites;  // also where it may not
  bool narrow;
  unsigned fill;
  std::size_t buffer;  // of the mirror's session

  friend std::ostream& operator<<(std::ostream& out, const Course& course) {
    return out << course.name;
  }
};

// What the histories came by, so that a run that shows nothing does not pass.
struct Seen {
  unsigned cuts = 0;
  unsigned kills = 0;
  unsigned cutsInTransfer = 0;  // with keys that its commit would have taken away
  std::size_t goneAtCommit = 0;
  std::uint64_t refused = 0;
};

class History {
 public:
  History(const Course& course, unsigned seed, Seen& seen)
      : course_(course),
        random_(seed),
        seen_(seen),
        relay_(directory_ / "r", directory_ / "a", course.narrow),
        mirror_([&, this](Channel& channel) { runMirror(channel); }) {
    startAgent(below(random_, course_.fill));
  }

  void run() {
    mirror_.tell(What::change, random_(), course_.mirrorWrites ? 60 : 0);
    const unsigned connections = 2 + below(random_, 5);
    for (unsigned i = 0; i < connections; ++i) {
      const std::uint64_t endDown = randomEnd();
      connect(endDown, course_.configOnly ? randomEnd() : Relay::kNoEnd);
      live(below(random_, 40));
      if (relay_.connected()) relay_.cut();
      ++seen_.cuts;
      checkCut();
      if (testing::Test::HasFatalFailure()) return;
      if (agent_ != nullptr && below(random_, 3) == 0) kill();
      if (agent_ == nullptr) startAgent(below(random_, course_.fill));
    }
    connect(Relay::kNoEnd, Relay::kNoEnd);
    live(below(random_, 30));
    if (agent_ == nullptr) {
      checkCut();
      startAgent(below(random_, course_.fill));
      connect(Relay::kNoEnd, Relay::kNoEnd);
    }
    settle();
    checkEqual();
    for (int i = 0; i < 2 && !testing::Test::HasFatalFailure(); ++i) checkNoEcho();
    seen_.goneAtCommit += model_.goneAtCommit;
    seen_.refused += mirror_.state().refused;
  }

  // The mirror of one agent meets another with other contents, and is cut off again and again, each
  // time somewhat later, until a commit has come.
  void runCutAfterCut() {
    connect(Relay::kNoEnd, Relay::kNoEnd);
    settle();
    checkEqual();
    relay_.cut();
    agent_->killNow();
    startAgent(course_.fill);
    for (std::uint64_t end = 0; model_.goneAtCommit == 0; end += 1 + below(random_, 1500)) {
      ASSERT_LT(end, 200'000U);
      connect(end, Relay::kNoEnd);
      pumpToTheEnd();
      checkCut();
      if (testing::Test::HasFatalFailure()) return;
    }
    seen_.goneAtCommit += model_.goneAtCommit;
  }

 private:
  void runMirror(Channel& channel) {
    MirrorProcess(channel, {directory_ / "r", course_.configOnly, course_.readOnly, course_.narrow,
                            course_.buffer})
        .run();
  }
  void startAgent(unsigned fill) {
    const AgentProcess::Options options{directory_ / "a",   random_(),      fill,
                                        course_.configOnly, course_.narrow, below(random_, 2) != 0};
    agent_ =
        std::make_unique<Child>([&](Channel& channel) { AgentProcess(channel, options).run(); });
    if (agent_->answer() != "listening") throw std::runtime_error("no agent");
  }
  // Of every order of magnitude, 0 included.
  std::uint64_t randomEnd() {
    constexpr std::array<unsigned, 4> kMost{80, 1000, 20'000, 100'000};
    return below(random_, kMost.at(below(random_, kMost.size())));
  }
  void connect(std::uint64_t endDown, std::uint64_t endUp) {
    mirror_.tell(What::connect);
    relay_.accept(endDown, endUp, &model_);
  }
  std::size_t piece() {
    constexpr std::array<unsigned, 3> kMost{10, 500, 20'000};
    return 1 + below(random_, kMost.at(below(random_, kMost.size())));
  }
  // Ends early with the connection.
  void live(unsigned steps) {
    for (unsigned step = 0; step < steps && relay_.connected(); ++step) {
      const std::uint32_t seed = random_();
      switch (below(random_, 8)) {
        case 0:
        case 1:
          agent_->tell(What::change, seed, 1 + seed % 20);
          break;
        case 2:
          if (course_.mirrorWrites) mirror_.tell(What::change, seed, 1 + seed % 20);
          break;
        case 3:
          if (below(random_, 24) == 0) return kill();
          break;
        default:
          for (unsigned i = below(random_, 20); i > 0; --i) relay_.pump(piece(), 1);
      }
    }
    // To the place of the cut, if so much comes.
    if (below(random_, 4) == 0) return;
    for (unsigned i = 0; i < 3000 && relay_.pump(piece(), 5); ++i) {
    }
  }
  void kill() {
    agent_->killNow();
    agent_.reset();
    ++seen_.kills;
    // What it had written still arrives.
    pumpToTheEnd();
  }
  // Until the relay has cut the connection or found it closed.
  void pumpToTheEnd() {
    for (unsigned idle = 0; relay_.connected() && idle < 3;) {
      idle = relay_.pump(piece(), kPatienceMs) ? 0 : idle + 1;
    }
    ASSERT_FALSE(relay_.connected());
  }

  // The mirror has taken in what came whole ahead of the cut, and nothing else has happened to it.
  void checkCut() {
    ASSERT_FALSE(relay_.connected());
    State state;
    for (unsigned turns = 0; turns < 100'000; ++turns) {
      state = mirror_.state();
      if (state.connected == 0) break;
    }
    ASSERT_EQ(state.connected, 0U);
    checkMirror(state);
    if (model_.marked() != 0) ++seen_.cutsInTransfer;
    checkModel(mirror_.text());
    model_.connectionDel();
  }
  // Keys that the agent has no more are there until a commit has come, and not any longer.
  void checkModel(const std::string& text) {
    if (course_.mirrorWrites) return;
    ASSERT_EQ(membersIn(text, "vlanEnabled"), model_.vlanEnabled.members());
    ASSERT_EQ(membersIn(text, "intfExclude"), model_.intfExclude.members());
  }
  void checkMirror(const State& state) {
    ASSERT_EQ(state.trouble, 0U) << mirror_.words();
    if (course_.mirrorWrites) return;
    // Nothing that came is sent back.
    ASSERT_EQ(relay_.tap(Relay::up).values(), 0U);
  }

  // Until it is quiet.
  void settle() {
    for (unsigned turns = 0; turns < 20'000; ++turns) {
      for (unsigned i = 0; i < 10'000 && relay_.pump(65536, 0);) ++i;
      if (!relay_.empty()) {
        // Whoever has not read yet does so in the turn in which it answers.
        agent_->state();
        mirror_.state();
        ASSERT_TRUE(relay_.connected());
        continue;
      }
      const std::uint64_t moved = relay_.moved();
      const State agent = agent_->state();
      const State mirror = mirror_.state();
      ASSERT_EQ(agent.trouble, 0U) << agent_->words();
      checkMirror(mirror);
      if (testing::Test::HasFatalFailure()) return;
      if (agent.atRest == 1 && agent.connected == 1 && mirror.atRest == 1 &&
          mirror.synchronised == 1 && !relay_.pump(65536, 0) && relay_.empty() &&
          relay_.moved() == moved) {
        return;
      }
    }
    FAIL() << "it does not become quiet";
  }
  void checkEqual() {
    if (testing::Test::HasFatalFailure()) return;
    const std::string text = mirror_.text();
    ASSERT_EQ(text, agent_->text());
    checkModel(text);
  }
  // What one process changes while nothing else is on its way, the other does not send back.
  void checkNoEcho() {
    const std::uint64_t sentUp = relay_.tap(Relay::up).values();
    agent_->tell(What::correct, random_(), 30);
    settle();
    checkEqual();
    EXPECT_EQ(relay_.tap(Relay::up).values(), sentUp);
    if (!course_.mirrorWrites || !course_.configOnly) return;
    const std::uint64_t sentDown = relay_.tap(Relay::down).values();
    mirror_.tell(What::correct, random_(), 30);
    settle();
    checkEqual();
    EXPECT_EQ(relay_.tap(Relay::down).values(), sentDown);
    EXPECT_GT(relay_.tap(Relay::up).values(), sentUp);
  }

  const Course course_;
  Random random_;
  Seen& seen_;
  ConfigModel model_;
  const Directory directory_;
  Relay relay_;
  Child mirror_;
  std::unique_ptr<Child> agent_;
};

unsigned fromEnvironment(const char* name, unsigned otherwise) {
  const char* const text = std::getenv(name);
  return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

class ControlHistory : public testing::TestWithParam<Course> {};

TEST_P(ControlHistory, EndsWithEqualTreesOnceItIsQuiet) {
  const unsigned first = fromEnvironment("CONTROL_SEED", 1);
  const unsigned count = fromEnvironment("CONTROL_SEEDS", 12);
  Seen seen;
  unsigned done = 0;
  for (; done < count && !HasFailure(); ++done) {
    const unsigned seed = first + done;
    SCOPED_TRACE("CONTROL_SEED=" + std::to_string(seed));
    try {
      History(GetParam(), seed, seen).run();
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
    }
  }
  if (std::getenv("CONTROL_SEEDS") != nullptr) {
    std::printf("%s: %u histories, %u cuts, %u of them in a transfer, %u agents killed\n",
                GetParam().name, done, seen.cuts, seen.cutsInTransfer, seen.kills);
  }
  // Few histories need not have come by everything.
  if (HasFailure() || count < 12) return;
  EXPECT_GT(seen.cuts, count);
  EXPECT_GT(seen.kills, 0U);
  EXPECT_GT(seen.goneAtCommit, 0U);
  EXPECT_EQ(seen.refused > 0, GetParam().mirrorWrites);
}

TEST(ControlProcesses, AKeyThatTheAgentHasNoMoreGoesAtTheCommitAndNotBefore) {
  Seen seen;
  History({"", false, true, false, true, 600, 65536}, 1, seen).runCutAfterCut();
  EXPECT_GT(seen.cutsInTransfer, 5U);
  EXPECT_GT(seen.goneAtCommit, 100U);
}

INSTANTIATE_TEST_SUITE_P(
    Courses, ControlHistory,
    testing::Values(Course{"Following", false, true, false, false, 600, 65536},
                    Course{"FollowingThroughNarrowSockets", false, true, false, true, 600, 65536},
                    Course{"FollowingMoreThanAStreamHolds", false, true, false, true, 4000, 65536},
                    Course{"BothWrite", true, false, true, false, 1500, 65536},
                    Course{"BothWriteThroughNarrowSockets", true, false, true, true, 1500, 700},
                    Course{"WritingWithoutTheRight", false, false, true, true, 600, 700}),
    [](const auto& course) { return course.param.name; });

}  // namespace
