// SPDX-License-Identifier: Apache-2.0
//
// The commands that change a table, as a user runs them.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "cli/quillctl/Run.h"
#include "tests/cli/quillctl/Tool.h"

namespace QuillctlTest {
namespace {

class QuillctlWrite : public testing::Test {
 protected:
  void makeIntfs() const { root_.done({"create", "i", "--type", "counterIntf", "--size", "100"}); }
  void makeVlans() const { root_.done({"create", "v", "--type", "counterVlan", "--size", "50"}); }

  Root root_;
};

TEST_F(QuillctlWrite, CreateMakesAnEmptyTableAndLeavesOneOfTheSameKindAlone) {
  EXPECT_EQ(root_.done({"create", "v", "--type", "counterVlan", "--size", "50"}),
            "table v created\n");
  root_.done({"put", "v", "1", "1", "1", "1"});
  EXPECT_EQ(root_.done({"create", "v", "--type", "counterVlan", "--size", "50"}),
            "table v exists\n");
  EXPECT_EQ(root_.done({"--json", "create", "v", "--type", "counterVlan", "--size", "50"}),
            "{\"table\":\"v\",\"created\":false}\n");
  EXPECT_EQ(root_.done({"dump", "v"}), "1: tx 1, rx 1, rxOther 1\n");
}

TEST_F(QuillctlWrite, CreateRefusesATableOfAnotherTypeOrSize) {
  makeVlans();
  for (const auto& [type, size] : {std::pair("counterIntf", "50"), {"counterVlan", "51"}}) {
    const Outcome outcome = root_.run({"create", "v", "--type", type, "--size", size});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err,
              "quillctl: table \"v\" exists, with the type \"Ringward::Status::CounterVlan\" and "
              "the size 50\n");
  }
}

TEST_F(QuillctlWrite, CreateNamesATypeAndASizeThatCannotBe) {
  EXPECT_EQ(root_.run({"create", "v", "--type", "vlan", "--size", "5"}).err,
            "quillctl: --type \"vlan\": must be counterIntf or counterVlan\n");
  for (const char* const size : {"0", "1048577", "1k", "-5"}) {
    const Outcome outcome =
        root_.run({"create", "v", "--type", "counterVlan", std::string("--size=") + size});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, std::string("quillctl: --size \"") + size +
                               "\": must be a decimal number from 1 to 1048576\n");
  }
  EXPECT_EQ(root_.run({"create", "", "--type", "counterVlan", "--size", "5"}).status, 1);
  EXPECT_EQ(
      root_.run({"create", std::string(300, 'n'), "--type", "counterVlan", "--size", "5"}).status,
      1);
  EXPECT_TRUE(std::filesystem::is_empty(root_.path()));
}

TEST_F(QuillctlWrite, PutWritesARecordAndOverwritesIt) {
  makeIntfs();
  EXPECT_EQ(root_.done({"put", "i", "eth1", "1", "2", "3"}), "1 written, 1 entries in table i\n");
  EXPECT_EQ(root_.done({"--json", "put", "i", "eth1", "4", "5", "6"}),
            "{\"table\":\"i\",\"written\":1,\"entries\":1,\"sequence\":2}\n");
  EXPECT_EQ(root_.done({"dump", "i"}), "eth1: tx 4, rx 5, rxOther 6\n");
}

TEST_F(QuillctlWrite, AnInterfaceMayBeGivenByItsBytes) {
  makeIntfs();
  root_.done({"put", "i", "intf#8000000000000001", "1", "2", "3"});
  EXPECT_EQ(root_.done({"dump", "i"}), "intf#8000000000000001: tx 1, rx 2, rxOther 3\n");
}

TEST_F(QuillctlWrite, PutNamesAWrongCount) {
  makeVlans();
  const auto put = [&](const char* tx, const char* rx, const char* other) {
    const Outcome outcome = root_.run({"put", "v", "1", tx, rx, other});
    EXPECT_EQ(outcome.status, 1);
    return outcome.err;
  };
  EXPECT_EQ(put("-1", "2", "3"),
            "quillctl: TX \"-1\": must be a decimal number from 0 to 4294967295\n");
  EXPECT_EQ(put("1", "0x2", "3"),
            "quillctl: RX \"0x2\": must be a decimal number from 0 to 4294967295\n");
  EXPECT_EQ(put("1", "2", "4294967296"),
            "quillctl: RXOTHER \"4294967296\": must be a decimal number from 0 to 4294967295\n");
  EXPECT_EQ(put("", "2", "3"),
            "quillctl: TX \"\": must be a decimal number from 0 to 4294967295\n");
  EXPECT_EQ(root_.done({"dump", "v"}), "");
}

TEST_F(QuillctlWrite, DelRemovesARecordAndNamesTheNearestToOneThatIsNotThere) {
  makeIntfs();
  root_.done({"put", "i", "eth1", "1", "2", "3"});
  const Outcome outcome = root_.run({"del", "i", "eht1"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.err, "quillctl: no key \"eht1\" in table \"i\"; the nearest is \"eth1\"\n");
  EXPECT_EQ(root_.done({"del", "i", "eth1"}), "1 removed, 0 entries in table i\n");
  EXPECT_EQ(root_.run({"--json", "del", "i", "eth1"}).status, 3);
}

TEST_F(QuillctlWrite, FillGivesTheSameRecordsForTheSameSeed) {
  makeIntfs();
  root_.done({"create", "j", "--type", "counterIntf", "--size", "100"});
  EXPECT_EQ(root_.done({"fill", "i", "300", "--seed", "7"}),
            "300 written, 300 entries in table i\n");
  root_.done({"--json", "fill", "j", "300", "--seed", "7"});
  const std::string first = root_.done({"dump", "i"});
  EXPECT_EQ(first, root_.done({"dump", "j"}));
  EXPECT_NE(first.find("eth300: tx "), std::string::npos);
  root_.done({"fill", "j", "300", "--seed", "8"});
  EXPECT_NE(first, root_.done({"dump", "j"}));
  EXPECT_EQ(root_.done({"verify", "i"}), "table i: sound, 300 entries\n");
}

TEST_F(QuillctlWrite, FillOfVlansEndsAtTheLastVlan) {
  makeVlans();
  const Outcome outcome = root_.run({"fill", "v", "4095"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "quillctl: COUNT \"4095\": must be a decimal number from 1 to 4094; the keys are VLANs "
            "1 to 4094\n");
  EXPECT_EQ(root_.done({"fill", "v", "4094"}), "4094 written, 4094 entries in table v\n");
  EXPECT_EQ(root_.run({"fill", "v", "1", "--seed", "x"}).err,
            "quillctl: --seed \"x\": must be a decimal number from 0 to 4294967295\n");
}

TEST_F(QuillctlWrite, ClearRemovesEveryRecordAndKeepsTheSize) {
  makeIntfs();
  root_.done({"fill", "i", "200"});
  EXPECT_EQ(root_.done({"clear", "i", "--json"}),
            "{\"table\":\"i\",\"removed\":200,\"entries\":0,\"sequence\":400}\n");
  EXPECT_EQ(root_.done({"dump", "i"}), "");
  EXPECT_NE(root_.done({"stat", "i"}).find("made for 100,"), std::string::npos);
}

TEST_F(QuillctlWrite, RemoveTakesTheTableAndItsDirectoryAway) {
  makeIntfs();
  makeVlans();
  EXPECT_EQ(root_.done({"remove", "i"}), "removed table i\n");
  EXPECT_EQ(root_.done({"remove", "v", "--json"}), "{\"table\":\"v\",\"removed\":true}\n");
  EXPECT_TRUE(std::filesystem::is_empty(root_.path()));
}

TEST_F(QuillctlWrite, AWriterThatLivesIsNamedAndEveryChangeRefused) {
  makeVlans();
  Running writer(root_, {"batch", "v"});
  writer.say("put 1 1 1 1\n");
  while (root_.run({"get", "v", "1"}).status != 0) {
  }
  const std::vector<std::vector<std::string>> commands{
      {"put", "v", "2", "1", "1", "1"},
      {"del", "v", "1"},
      {"fill", "v", "2"},
      {"batch", "v"},
      {"clear", "v"},
      {"create", "v", "--type", "counterVlan", "--size", "50"},
      {"remove", "v"}};
  for (const auto& command : commands) {
    const Outcome outcome = root_.run(command);
    EXPECT_EQ(outcome.status, 2) << command.front();
    EXPECT_EQ(outcome.err, "quillctl: table \"v\" is owned by quillctl (process " +
                               std::to_string(writer.pid()) + "), which lives\n");
  }
  EXPECT_EQ(root_.done({"verify", "v"}),
            "table v: sound, 1 entries\nin use by quillctl (process " +
                std::to_string(writer.pid()) +
                "): checked what a reader can see (headers, every chain, each key)\n");
  EXPECT_NE(root_.done({"list"}).find(", alive\n"), std::string::npos);
  const Outcome outcome = writer.end();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "1 applied, 1 entries in table v\n");
}

TEST_F(QuillctlWrite, AKilledWriterLeavesATableThatTheNextOneTakesOver) {
  makeVlans();
  Running writer(root_, {"batch", "v"});
  writer.say("put 1 1 1 1\n");
  while (root_.run({"get", "v", "1"}).status != 0) {
  }
  writer.signal(SIGKILL);
  EXPECT_EQ(writer.end().status, 1000 + SIGKILL);
  EXPECT_EQ(root_.done({"put", "v", "2", "2", "2", "2"}), "1 written, 2 entries in table v\n");
}

// Runs a command as somebody who may not write the root's files: as nobody, if the tests run as
// root, else as oneself without the right to write.
Outcome runWithoutRights(std::vector<std::string> arguments) {
  int ends[2];
  if (pipe(ends) != 0) return {};
  const pid_t child = fork();
  if (child == 0) {
    if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(99);
    std::vector<const char*> argv{"quillctl"};
    for (const std::string& argument : arguments) argv.push_back(argument.c_str());
    std::ostringstream out;
    const int status =
        Quillctl::run(static_cast<int>(argv.size()), argv.data(), STDIN_FILENO, out, out);
    const std::string text = out.str();
    if (write(ends[1], text.data(), text.size()) < 0) _exit(98);
    _exit(status);
  }
  close(ends[1]);
  Outcome outcome;
  char buffer[4096];
  for (ssize_t got = 0; (got = read(ends[0], buffer, sizeof buffer)) > 0;) {
    outcome.out.append(buffer, static_cast<std::size_t>(got));
  }
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  return outcome;
}

TEST_F(QuillctlWrite, WithoutTheRightToWriteEveryChangeIsRefusedAndEveryLookAllowed) {
  using std::filesystem::perms;
  makeVlans();
  root_.done({"put", "v", "1", "1", "1", "1"});
  for (const char* const file : {"slots", "buckets", "conquer.1", "conquer.2", "lock"}) {
    std::filesystem::permissions(root_.file("v", file), perms(0444));
  }
  std::filesystem::permissions(root_.table("v"), perms(0555));
  const auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--root", root_.path()});
    return runWithoutRights(arguments);
  };
  const Outcome put = run({"put", "v", "2", "2", "2", "2"});
  EXPECT_EQ(put.status, 2);
  EXPECT_EQ(put.out,
            "quillctl: table \"v\": cannot write " + root_.table("v") + ": Permission denied\n");
  EXPECT_EQ(run({"remove", "v"}).status, 2);
  EXPECT_EQ(run({"dump", "v"}).out, "1: tx 1, rx 1, rxOther 1\n");
  const Outcome verify = run({"verify", "v"});
  EXPECT_EQ(verify.status, 0);
  EXPECT_EQ(verify.out,
            "table v: sound, 1 entries\nchecked without the writer lock, which this user may not "
            "take\n");
  std::filesystem::permissions(root_.file("v", "slots"), perms(0000));
  const Outcome dump = run({"dump", "v"});
  EXPECT_EQ(dump.status, 2);
  EXPECT_EQ(dump.out,
            "quillctl: table \"v\": cannot read " + root_.table("v") + ": Permission denied\n");
  std::filesystem::permissions(root_.table("v"), perms(0755));
}

}  // namespace
}  // namespace QuillctlTest
