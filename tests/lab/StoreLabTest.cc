// SPDX-License-Identifier: Apache-2.0
//
// The table store where a user has it: on a file system that is full, and read by somebody who may
// write nowhere. Each in a mount namespace of its own.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>

#include "quill/QuillMap.h"
#include "runtime/vex/EpollActivityManager.h"
#include "tests/lab/Isolation.h"
#include "tests/quill/Records.h"

namespace RingwardLab {
namespace {

using QuillTest::Number;
using QuillTest::NumberRecord;
using Writer = Quill::QuillWriter<Number, NumberRecord>;

struct Changes {
  void notify(const Number&) { ++count; }
  unsigned count = 0;
};
using Map = Quill::QuillMap<Number, NumberRecord, Changes>;

// Turns of `loop` until `done` or, by the clock, too long.
template <class Done>
bool turnsUntil(Vex::EpollActivityManager& loop, const Done& done) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    loop.runTurn(0.05);
  }
  return true;
}

// Runs `body` with a directory "/run/tables" on a file system of its own of `size`.
void onFileSystem(const std::string& size, const std::function<void()>& body) {
  const Outcome outcome = runIsolated(
      [&](const Report&) {
        std::filesystem::create_directories("/run/tables");
        if (mount("tables", "/run/tables", "tmpfs", 0, ("size=" + size).c_str()) != 0) {
          throw std::runtime_error(std::string("mount: ") + std::strerror(errno));
        }
        body();
        return testing::Test::HasFailure() ? 1 : 0;
      },
      std::chrono::seconds(60));
  ASSERT_TRUE(outcome.permitted) << outcome.refusal;
  EXPECT_EQ(outcome.ending, "");
  for (const Finding& finding : outcome.findings) ADD_FAILURE() << finding.text;
  EXPECT_EQ(outcome.exitStatus, 0);
}

// An expectation in the child: throws, and so becomes a finding.
void require(bool holds, const std::string& what) {
  if (!holds) throw std::runtime_error(what);
}

TEST(StoreLab, AFullFileSystemIsAnExceptionAndTheTableStaysWhole) {
  onFileSystem("64k", [] {
    Vex::EpollActivityManager loop;
    const Vex::CurrentActivityManager current(loop);
    Sable::Platform::DebugHandler handler("lab");
    Writer writer(handler, "/run/tables/t", 100, false, "lab");
    writer.initialize();
    std::uint32_t written = 0;
    std::string text;
    try {
      for (; written < 100'000; ++written) writer.write({{written}, written}, true);
    } catch (const Sable::MemoryResourceException& exception) {
      text = exception.msg();
    }
    require(text.find("failed to resize shared memory to size") != std::string::npos,
            "no space gave: " + text);
    require(writer.members() == written, "an insertion that failed is counted");
    require(writer.validate(), "the table is not sound after the failure");
    bool found = false;
    require(writer.lookup({written - 1}, found).data == written - 1 && found, "the last is lost");
    // What needs no space goes on.
    NumberRecord old;
    require(writer.remove({5}, old), "a removal needs no space");
    writer.write({{7}, 70}, true);
    require(writer.lookup({7}, found).data == 70, "an update needs no space");
    require(writer.validate(), "the table is not sound after going on");
  });
}

TEST(StoreLab, ATableThatDoesNotFitFromTheBeginningIsRefused) {
  onFileSystem("8k", [] {
    Vex::EpollActivityManager loop;
    const Vex::CurrentActivityManager current(loop);
    Sable::Platform::DebugHandler handler("lab");
    Writer writer(handler, "/run/tables/t", 100'000, false, "lab");
    std::string text;
    try {
      writer.initialize();
    } catch (const Sable::Exception& exception) {
      text = exception.msg();
    }
    require(text.find("No space left on device") != std::string::npos, "gave: " + text);
  });
}

// Root writes; a reader and a shadow of a user without any rights follow, report damage that they
// cannot write down, and go on.
TEST(StoreLab, AReaderNeedsNoRightToWriteAnywhere) {
  onFileSystem("4m", [] {
    Vex::EpollActivityManager loop;
    const Vex::CurrentActivityManager current(loop);
    Sable::Platform::DebugHandler handler("lab");
    Writer writer(handler, "/run/tables/t", 100, false, "lab");
    writer.initialize();
    writer.write({{1}, 10}, true);
    int ready[2];
    require(pipe(ready) == 0, "pipe");
    const pid_t child = fork();
    if (child == 0) {
      close(ready[0]);
      const auto asNobody = [&]() -> int {
        if (setgid(65534) != 0 || setuid(65534) != 0) return 2;
        Vex::EpollActivityManager own;
        const Vex::CurrentActivityManager ownCurrent(own);
        Changes changes;
        Map shadow("/run/tables/t", "lab");
        shadow.notifierIs(&changes);
        shadow.init(Quill::QuillType::shadow, false, 0);
        Map reader("/run/tables/t", "lab");
        reader.init(Quill::QuillType::reader, false, 0);
        bool found = false;
        if (shadow.mountStatus() != 2) return 3;
        if (reader.lookup({1}, found).data != 10 || !found) return 4;
        if (shadow.lookup({1}, found).data != 10 || !found) return 5;
        if (write(ready[1], "r", 1) != 1) return 6;
        if (!turnsUntil(own, [&] { return shadow.lookup({2}, found).data == 20; })) return 7;
        reader.corruptionDetected("nobody's finding");
        if (reader.mountStatus() != 0) return 8;
        return std::filesystem::exists("/run/tables/t/corruption-detected") ? 9 : 0;
      };
      _exit(asNobody());
    }
    close(ready[1]);
    char byte = 0;
    require(read(ready[0], &byte, 1) == 1, "the reader did not get so far");
    writer.write({{2}, 20}, true);
    int status = -1;
    require(turnsUntil(loop, [&] { return waitpid(child, &status, WNOHANG) == child; }),
            "the reader did not end");
    require(WIFEXITED(status) && WEXITSTATUS(status) == 0,
            "the reader ended with " + std::to_string(WEXITSTATUS(status)));
  });
}

// Writers that live for one change, each in a process of its own and without a pause between them:
// a shadow hears of each, from its connection, or from what the writer has left.
TEST(StoreLab, AShadowFollowsWritersThatComeAndGo) {
  onFileSystem("4m", [] {
    Vex::EpollActivityManager loop;
    const Vex::CurrentActivityManager current(loop);
    Changes changes;
    Map shadow("/run/tables/t", "lab");
    shadow.notifierIs(&changes);
    shadow.init(Quill::QuillType::shadow, false, 0);
    for (std::uint32_t life = 1; life <= 40; ++life) {
      const pid_t child = fork();
      if (child == 0) {
        Vex::EpollActivityManager own;
        const Vex::CurrentActivityManager ownCurrent(own);
        Sable::Platform::DebugHandler handler("lab");
        Writer writer(handler, "/run/tables/t", 100, false, "lab");
        writer.initialize();
        // Some meet the shadow, some do not.
        for (std::uint32_t turn = 0; turn < life % 4; ++turn) own.runTurn(0.01);
        writer.write({{1}, life}, true);
        for (std::uint32_t turn = 0; turn < life % 3; ++turn) own.runTurn(0.01);
        writer.detach();
        _exit(0);
      }
      bool found = false;
      require(turnsUntil(loop, [&] { return shadow.lookup({1}, found).data == life; }),
              "the shadow did not hear of life " + std::to_string(life));
      int status = -1;
      require(turnsUntil(loop, [&] { return waitpid(child, &status, WNOHANG) == child; }),
              "the writer did not end");
      require(WIFEXITED(status) && WEXITSTATUS(status) == 0, "the writer failed");
    }
  });
}

}  // namespace
}  // namespace RingwardLab
