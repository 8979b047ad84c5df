// SPDX-License-Identifier: Apache-2.0
//
// The command watch while the entities change under it: the changes are made from the loop, by
// tasks that wait for the line before.
#include <signal.h>
#include <unistd.h>

#include <algorithm>

#include "tests/cli/ringward/World.h"

namespace RingwardCliTest {
namespace {

using Bridging::VlanId;
using Portus::IntfId;

// An output whose lines a test follows: `next` is called with each, in a turn of its own.
class Lines final : public std::stringbuf, private Vex::DeferredTask {
 public:
  explicit Lines(Vex::ActivityManager& manager) : DeferredTask(manager) {}
  ~Lines() override = default;
  std::function<void(const std::string& line)> next;
  bool closed = false;  // nobody reads any more

 private:
  int sync() override {
    if (str().size() > seen_) schedule();
    return closed ? -1 : 0;
  }
  void run() override {
    for (std::size_t end = 0; (end = str().find('\n', seen_)) != std::string::npos;) {
      const std::string line = str().substr(seen_, end - seen_);
      seen_ = end + 1;
      if (next) next(line);
    }
  }
  std::size_t seen_ = 0;
};

// SIGINT after many turns, for what should have ended by itself.
class Interrupt final : private Vex::DeferredTask {
 public:
  Interrupt(Vex::ActivityManager& manager, bool& sent) : DeferredTask(manager), sent_(sent) {
    schedule();
  }
  ~Interrupt() override = default;

 private:
  void run() override {
    if (++turns_ < 100) return schedule();
    sent_ = true;
    kill(getpid(), SIGINT);
  }
  bool& sent_;
  int turns_ = 0;
};

class WatchWorld : public World {
 protected:
  // Follows `paths`; each change is made when the line before has come; SIGINT after the last line.
  std::vector<std::string> watch(const std::vector<std::string>& paths,
                                 std::vector<std::function<void()>> changes) {
    std::vector<std::string> all{"ringward", "--socket", socket, "watch"};
    all.insert(all.end(), paths.begin(), paths.end());
    std::vector<const char*> argv;
    for (const std::string& word : all) argv.push_back(word.c_str());
    Lines lines(loop);
    std::vector<std::string> got;
    std::size_t made = 0;
    std::optional<Interrupt> interrupt;
    lines.next = [&](const std::string& line) {
      got.push_back(line);
      lines.closed = got.size() == closedAfter_;
      if (settles_) interrupt.emplace(loop, interrupted_);
      if (made < changes.size()) {
        changes[made++]();
      } else if (closedAfter_ != 0) {
        interrupt.emplace(loop, interrupted_);
      } else if (!settles_) {
        kill(getpid(), SIGINT);
      }
    };
    if (settles_) interrupt.emplace(loop, interrupted_);
    std::ostream out(&lines);
    std::ostringstream err;
    status_ =
        RingwardCli::run(static_cast<int>(argv.size()), argv.data(), loop, out, err, patience);
    err_ = err.str();
    // "2026-11-21 10:00:00.123 UTC path = value" without its time.
    for (std::string& line : got) {
      if (line.size() > 28 && line.substr(23, 5) == " UTC ") line.erase(0, 28);
    }
    return got;
  }

  int status_ = -1;
  std::string err_;
  std::size_t closedAfter_ = 0;  // lines after which the output cannot be written; 0: never
  bool settles_ = false;         // SIGINT when nothing has come for many turns
  bool interrupted_ = false;     // by it, or because it went on without an output
};

using Texts = std::vector<std::string>;

TEST_F(WatchWorld, PrintsEachChangeBelowThePaths) {
  const auto eth1 = IntfId::fromName("eth1");
  EXPECT_EQ(
      watch({"config", "status/intfStatus"},
            {[&] { config->globalEnabledIs(true); },
             [&] {
               status->runningIs(true);  // nobody asked for it
               config->vlanEnabledIs(VlanId(10), true);
             },
             [&] { config->vlanEnabledDel(VlanId(10)); },
             [&] { config->transmitConfig()->rateLimitIs(7); }, [&] { status->intfStatusIs(eth1); },
             [&] { status->intfStatus(eth1)->disabledIs(true); },
             [&] { status->intfStatusDel(eth1); }}),
      (Texts{"# following", "config/globalEnabled = true", "config/vlanEnabled[10] = true",
             "config/vlanEnabled[10] gone", "config/transmitConfig/rateLimit = 7",
             "status/intfStatus[eth1] there", "status/intfStatus[eth1]/disabled = true",
             "status/intfStatus[eth1] gone"}));
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(err_, "");
}

TEST_F(WatchWorld, FollowsWhatWasThereBeforeAsWell) {
  const auto eth1 = IntfId::fromName("eth1");
  const auto intf = status->intfStatusIs(eth1);
  EXPECT_EQ(watch({"status"}, {[&] { intf->disabledIs(true); }}),
            (Texts{"# following", "status/intfStatus[eth1]/disabled = true"}));
}

TEST_F(WatchWorld, FollowsTheQueues) {
  const auto got =
      watch({"transmitStatus/regularPriority"},
            {[&] {
               transmitStatus->regularPriorityEnq({IntfId::fromName("eth1"), VlanId(10)});
             },
             [&] { static_cast<void>(transmitStatus->regularPriorityDeq()); }});
  EXPECT_EQ(got, (Texts{"# following",
                        "transmitStatus/regularPriority[0] = "
                        "Value('Ringward::Status::IntfAndVlan', ** {'intfId': eth1, 'vlanId': 10})",
                        "transmitStatus/regularPriority[0] gone"}));
}

TEST_F(WatchWorld, EndsWhenItsOutputCannotBeWritten) {
  closedAfter_ = 1;
  watch({"config"}, {[&] { config->globalEnabledIs(true); }});
  EXPECT_FALSE(interrupted_);
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_, "ringward: cannot write the output\n");
}

TEST_F(WatchWorld, EndsWithStatusThreeWhenTheAgentGoes) {
  watch({"config"}, {[&] { server.reset(); }});
  EXPECT_EQ(status_, 3);
  EXPECT_EQ(err_, "ringward: the agent has closed the connection\n");
}

TEST_F(WatchWorld, ReconnectsToTheNextAgent) {
  const auto got = watch({"--reconnect", "config"}, {[&] {
                                                       server.reset();
                                                       startAgent();
                                                     },
                                                     [&] { config->globalEnabledIs(true); }});
  EXPECT_EQ(got, (Texts{"# following", "# following", "config/globalEnabled = true"}));
  EXPECT_EQ(status_, 0);
}

TEST_F(WatchWorld, FollowsAKeyHoweverItIsSpelt) {
  const IntfId port = IntfId::fromName("Ethernet1/1");
  const IntfId eth1 = IntfId::fromName("eth1");
  const IntfId eth2 = IntfId::fromName("eth2");
  for (const IntfId& intf : {port, eth1, eth2}) status->intfStatusIs(intf);
  config->vlanEnabledIs(VlanId(10), true);
  settles_ = true;
  auto got = watch(
      {"status/intfStatus[Ethernet1/1]", "/status/intfStatus[\\eth1]/disabled/",
       "status/intfStatus[" + Portus::intfIdEscape(eth2.value()) + "]", "config/vlanEnabled[010]"},
      {[&] {
        for (const IntfId& intf : {port, eth1, eth2}) {
          status->intfStatus(intf)->disabledIs(true);
        }
        config->vlanEnabledDel(VlanId(10));
      }});
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (Texts{"# following", "config/vlanEnabled[10] gone",
                        "status/intfStatus[Ethernet1\\\\/1]/disabled = true",
                        "status/intfStatus[eth1]/disabled = true",
                        "status/intfStatus[eth2]/disabled = true"}));
}

TEST_F(WatchWorld, TellsThatTheObjectOfAnAttributeHasGoneAndIsThereAnew) {
  const auto eth1 = IntfId::fromName("eth1");
  const auto eth2 = IntfId::fromName("eth2");
  status->intfStatusIs(eth1);
  settles_ = true;
  EXPECT_EQ(watch({"status/intfStatus[eth1]/disabled"},
                  {[&] {
                     status->intfStatusIs(eth2);  // nobody asked for it
                     status->intfStatusDel(eth1);
                   },
                   [&] { status->intfStatusIs(eth1); },
                   [&] { status->intfStatus(eth1)->disabledIs(true); }}),
            (Texts{"# following", "status/intfStatus[eth1] gone", "status/intfStatus[eth1] there",
                   "status/intfStatus[eth1]/disabled = true"}));
}

TEST_F(WatchWorld, AnAgentThatSaysNothingIsToldOfOnce) {
  server.reset();
  Agent::ListeningSocket listening;  // nobody accepts
  ASSERT_EQ(listening.open(socket), "");
  patience = 0;
  settles_ = true;
  watch({"--reconnect", "config"}, {});
  EXPECT_EQ(err_,
            "ringward: the agent does not answer; it may be stopped; waiting for the agent\n");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(failed(1, {"watch", "config"}),
            "ringward: the agent does not answer; it may be stopped, see its log\n");
}

TEST_F(WatchWorld, WaitsForAPlaceWhereTooManyWait) {
  startDeafAgent();
  FullQueue queue(loop, socket);
  queue.openTo(*server);
  EXPECT_EQ(watch({"--reconnect", "config"}, {[&] { config->globalEnabledIs(true); }}),
            (Texts{"# following", "config/globalEnabled = true"}));
  EXPECT_EQ(err_, "");
}

TEST_F(WatchWorld, ASignalEndsTheWaitForAPlace) {
  startDeafAgent();
  const FullQueue queue(loop, socket);
  const Interrupt interrupt(loop, interrupted_);
  EXPECT_EQ(watch({"--reconnect", "config"}, {}), Texts());
  EXPECT_TRUE(interrupted_);
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(err_, "");
}

TEST_F(WatchWorld, WhatCannotBeFollowedIsSaid) {
  EXPECT_EQ(failed(2, {"watch", "packetCounter"}).substr(0, 42),
            "ringward: cannot follow \"packetCounter\"; t");
  EXPECT_EQ(failed(1, {"watch", "config/globalEnabled/on"}).substr(0, 10), "ringward: ");
}

// With --reconnect the agent is not asked for the path before.
TEST_F(WatchWorld, ANameOrAKeyThatIsNoneIsSaidWithReconnectToo) {
  const auto error = [this](int expected, const std::string& path) {
    std::optional<Interrupt> interrupt;  // or it would wait for the next agent for ever
    interrupt.emplace(loop, interrupted_);
    const std::string reconnecting = failed(expected, {"watch", "--reconnect", path});
    interrupt.reset();
    EXPECT_EQ(failed(expected, {"watch", path}), reconnecting);
    return reconnecting;
  };
  EXPECT_EQ(error(1, "config/globalEnabeld"),
            "ringward: no attribute 'globalEnabeld' to follow in config; did you mean "
            "'globalEnabled'?\n");
  EXPECT_EQ(error(1, "config/transmitConfig/limit"),
            "ringward: no attribute 'limit' to follow in config/transmitConfig\n");
  EXPECT_EQ(error(2, "config/vlanEnabled[4095]").substr(0, 38),
            "ringward: \"config/vlanEnabled[4095]\": ");
  EXPECT_EQ(error(2, "config/vlanEnabled[10"),
            "ringward: \"config/vlanEnabled[10\": '[' is not closed\n");
  EXPECT_EQ(error(2, "config/vlanEnabled[10]x"),
            "ringward: \"config/vlanEnabled[10]x\": expected '/' behind ']'\n");
  EXPECT_EQ(error(2, "config[1]/globalEnabled"),
            "ringward: \"config[1]/globalEnabled\": 'config' takes no key\n");
  EXPECT_EQ(error(2, "config/globalEnabled[1]"),
            "ringward: \"config/globalEnabled[1]\": 'globalEnabled' takes no key\n");
}

}  // namespace
}  // namespace RingwardCliTest
