// SPDX-License-Identifier: Apache-2.0
#include "agent/control/ListeningSocket.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "tests/agent/control/ControlWorld.h"

namespace ControlTest {
namespace {

using Agent::ListeningSocket;

mode_t modeOf(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST(ListeningSocketTest, MakesTheDirectoryAndASocketThatEverybodyMayOpen) {
  const Directory directory;
  const mode_t before = umask(0077);
  ListeningSocket sut;
  EXPECT_EQ(sut.open(directory / "new/s"), "");
  umask(before);
  EXPECT_EQ(modeOf(directory / "new"), 0755u);
  EXPECT_EQ(modeOf(directory / "new/s"), 0666u);
  EXPECT_EQ(modeOf(directory / "new/s.lock"), 0600u);
}

TEST(ListeningSocketTest, AStaleSocketIsReplaced) {
  const Directory directory;
  const std::string path = directory / "s";
  {
    // Somebody who was killed: bound, and gone without taking the file along.
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(fd);
  }
  ListeningSocket sut;
  EXPECT_EQ(sut.open(path), "");
  EXPECT_FALSE(RawClient(path).refusedByKernel());
}

TEST(ListeningSocketTest, ALiveAgentKeepsItsSocket) {
  const Directory directory;
  const std::string path = directory / "s";
  ListeningSocket first;
  ASSERT_EQ(first.open(path), "");
  ListeningSocket sut;
  EXPECT_EQ(sut.open(path), "another agent listens on " + path);
  EXPECT_FALSE(RawClient(path).refusedByKernel());
  first.close();
  EXPECT_EQ(sut.open(path), "");
}

TEST(ListeningSocketTest, AnotherProgramThatListensKeepsItsSocket) {
  const Directory directory;
  const std::string path = directory / "s";
  ListeningSocket first;
  ASSERT_EQ(first.open(path), "");
  std::filesystem::remove(path + ".lock");  // it knows nothing of the lock
  ListeningSocket sut;
  EXPECT_EQ(sut.open(path), "another process listens on " + path);
  EXPECT_FALSE(RawClient(path).refusedByKernel());
}

TEST(ListeningSocketTest, AFileThatIsNoSocketStays) {
  const Directory directory;
  const std::string path = directory / "s";
  std::ofstream(path) << "precious";
  ListeningSocket sut;
  EXPECT_EQ(sut.open(path), "cannot bind " + path + ": Address already in use");
  EXPECT_TRUE(std::filesystem::is_regular_file(path));
}

TEST(ListeningSocketTest, TheFileGoesWithTheSocketUnlessItIsAnothersByThen) {
  const Directory directory;
  const std::string path = directory / "s";
  {
    ListeningSocket sut;
    ASSERT_EQ(sut.open(path), "");
  }
  EXPECT_FALSE(std::filesystem::exists(path));
  {
    ListeningSocket sut;
    ASSERT_EQ(sut.open(path), "");
    std::filesystem::remove(path);
    std::ofstream(path) << "of another";
  }
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(ListeningSocketTest, ACrowdThatComesAtOnceWaits) {
  const Directory directory;
  const std::string path = directory / "s";
  ListeningSocket sut;
  ASSERT_EQ(sut.open(path), "");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  std::vector<Platform::Linux::Fd> crowd;
  for (int i = 0; i < 128; ++i) {
    crowd.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    ASSERT_EQ(
        connect(crowd.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
        << i << ": " << std::strerror(errno);
  }
}

TEST(ListeningSocketTest, APathThatIsTooLongIsAnError) {
  const std::string path = "/tmp/" + std::string(103, 'x');
  ListeningSocket sut;
  const std::string error = sut.open(path);
  EXPECT_EQ(error, path + ": longer than 107 bytes");
  std::filesystem::remove(path + ".lock");
}

}  // namespace
}  // namespace ControlTest
