// SPDX-License-Identifier: Apache-2.0
//
// The example of a client in another language, run as a user runs it, against a server in this
// process.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "platform/linux/Fd.h"
#include "tests/cli/ringward/World.h"

namespace RingwardCliTest {
namespace {

class PythonClient : public World {
 protected:
  // The exit status; `out` has both outputs.
  int client(std::vector<std::string> words) {
    std::vector<std::string> all{"python3", RINGWARD_EXAMPLE_CLIENT, "--socket", socket};
    all.insert(all.end(), words.begin(), words.end());
    std::vector<char*> argv;
    for (std::string& word : all) argv.push_back(word.data());
    argv.push_back(nullptr);
    const std::string file = directory + "/out";
    // Readable when the process has gone: the other end has nobody else.
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t pid = fork();
    if (pid == 0) {
      const int to = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(to, STDOUT_FILENO);
      dup2(to, STDERR_FILENO);
      fcntl(ends[1], F_SETFD, 0);
      execvp(argv[0], argv.data());
      _exit(127);
    }
    close(ends[1]);
    struct Ended final : Vex::ReadableHandler {
      bool yes = false;
      void onReadable() override { yes = true; }
    } ended;
    loop.readableIs(ends[0], ended);
    while (!ended.yes) loop.runTurn(Vex::kNever);
    loop.readableDel(ends[0]);
    close(ends[0]);
    int end = 0;
    waitpid(pid, &end, 0);
    std::ifstream in(file);
    out.assign(std::istreambuf_iterator<char>(in), {});
    return WIFEXITED(end) ? WEXITSTATUS(end) : -1;
  }

  std::string out;
};

TEST_F(PythonClient, GetsSetsAndLists) {
  EXPECT_EQ(client({"get", "config/transmitConfig/rateLimit"}), 0) << out;
  EXPECT_EQ(out, "'1000'\n");
  EXPECT_EQ(client({"set", "config/vlanEnabled[10]", "true"}), 0) << out;
  EXPECT_TRUE(config->vlanEnabled(Bridging::VlanId(10)));
  EXPECT_EQ(client({"ls", "config/vlanEnabled"}), 0);
  EXPECT_EQ(out, "10 rw 'true'\n");
  EXPECT_EQ(client({"del", "config/vlanEnabled[10]"}), 0) << out;
  EXPECT_FALSE(config->vlanEnabled(Bridging::VlanId(10)));
}

TEST_F(PythonClient, ListsMoreThanOneAnswerHolds) {
  for (std::uint32_t vlan = 1; vlan <= 1000; ++vlan) {
    config->vlanEnabledIs(Bridging::VlanId(vlan), true);
  }
  EXPECT_EQ(client({"ls", "config/vlanEnabled"}), 0);
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1000);
}

TEST_F(PythonClient, IsToldWhatCannotBe) {
  rights.write = false;
  EXPECT_EQ(client({"set", "config/globalEnabled", "true"}), 1);
  EXPECT_NE(out.find("refused: user 1000 is neither root nor in the group ringward"),
            std::string::npos)
      << out;
}

}  // namespace
}  // namespace RingwardCliTest
