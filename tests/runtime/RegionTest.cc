// SPDX-License-Identifier: Apache-2.0
#include "runtime/mem/Region.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

class Region : public testing::Test {
 protected:
  Region() {
    std::string pattern = (std::filesystem::temp_directory_path() / "region-XXXXXX").string();
    directory_ = mkdtemp(pattern.data());
  }
  ~Region() override { std::filesystem::remove_all(directory_); }

  Mem::Shared shared(const std::string& name = "file") {
    return {directory_, name, false, Mem::Shared::SHARED_DEFAULT_FLAGS, false};
  }
  std::string path(const std::string& name = "file") const { return directory_ + "/" + name; }

  std::string directory_;
};

TEST_F(Region, MemSizeOfAMissingFileIsZero) { EXPECT_EQ(shared().memSize(), 0U); }

TEST_F(Region, AttachMakesTheFileAtItsSizeWithZeros) {
  Mem::Shared sut = shared();
  const auto* base = static_cast<const char*>(sut.attach(5000, Mem::Mode::readWrite));
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(sut.memSize(), 5000U);
  EXPECT_EQ(base[0], 0);
  EXPECT_EQ(base[4999], 0);
}

TEST_F(Region, FilesCanBeReadByEverybodyWhateverTheUmask) {
  const mode_t before = umask(077);
  Mem::Shared sut = shared();
  ASSERT_NE(sut.attach(100, Mem::Mode::readWrite), nullptr);
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644U);
}

TEST_F(Region, SpaceIsReservedBeforeTheFileIsMapped) {
  Mem::Shared sut = shared();
  ASSERT_NE(sut.attach(1 << 20, Mem::Mode::readWrite), nullptr);
  struct stat status {};
  ASSERT_EQ(stat(path().c_str(), &status), 0);
  EXPECT_GE(status.st_blocks * 512, 1 << 20) << "a file with holes can fail at a store";
}

// A limit on the size of files stands for a full file system: both refuse the space.
TEST_F(Region, NoSpaceIsAnErrorAndLeavesTheRegionAsItWas) {
  Mem::Shared sut = shared();
  auto* base = static_cast<char*>(sut.attach(4096, Mem::Mode::readWrite));
  ASSERT_NE(base, nullptr);
  base[4095] = 'x';
  struct rlimit before {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  struct rlimit small = before;
  small.rlim_cur = 8192;
  const auto signalBefore = std::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  void* const grown = sut.resize(1 << 20);
  const int error = errno;
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, signalBefore);
  EXPECT_EQ(grown, nullptr);
  EXPECT_EQ(error, EFBIG);
  EXPECT_EQ(sut.size(), 4096U);
  EXPECT_EQ(static_cast<char*>(sut.base())[4095], 'x');
}

TEST_F(Region, ResizeKeepsTheBytesAndGrowsTheFile) {
  Mem::Shared sut = shared();
  auto* base = static_cast<char*>(sut.attach(4096, Mem::Mode::readWrite));
  base[4095] = 'x';
  base = static_cast<char*>(sut.resize(1 << 20));
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(base[4095], 'x');
  EXPECT_EQ(base[(1 << 20) - 1], 0);
  EXPECT_EQ(sut.memSize(), 1U << 20);
  base = static_cast<char*>(sut.resize(100));
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(sut.memSize(), 100U);
}

TEST_F(Region, AReaderKeepsItsOldMappingWhileTheFileGrows) {
  Mem::Shared writer = shared();
  auto* base = static_cast<char*>(writer.attach(4096, Mem::Mode::readWrite));
  Mem::Shared reader = shared();
  const auto* seen = static_cast<const char*>(reader.attach(4096, Mem::Mode::readOnly));
  ASSERT_NE(seen, nullptr);
  base = static_cast<char*>(writer.resize(1 << 20));
  base[10] = 'y';
  base[1 << 19] = 'z';
  EXPECT_EQ(seen[10], 'y');
  seen = static_cast<const char*>(reader.resize(1 << 20));
  ASSERT_NE(seen, nullptr);
  EXPECT_EQ(seen[1 << 19], 'z');
}

TEST_F(Region, AReaderMakesNoFile) {
  Mem::Shared sut = shared();
  EXPECT_EQ(sut.attach(100, Mem::Mode::readOnly), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(Region, DirectoriesLinksAndFifosAreNotMapped) {
  ASSERT_EQ(mkdir(path("directory").c_str(), 0755), 0);
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0644), 0);
  ASSERT_EQ(symlink("/etc/passwd", path("link").c_str()), 0);
  for (const char* const name : {"directory", "fifo", "link"}) {
    for (const auto mode : {Mem::Mode::readOnly, Mem::Mode::readWrite}) {
      Mem::Shared sut = shared(name);
      EXPECT_EQ(sut.attach(100, mode), nullptr) << name;
    }
  }
}

TEST_F(Region, AFileThatShrinksUnderItsMappingReadsAsZerosAndSaysSo) {
  Mem::Shared writer = shared();
  auto* base = static_cast<char*>(writer.attach(3 * Mem::pageSize_, Mem::Mode::readWrite));
  std::memset(base, 'x', 3 * Mem::pageSize_);
  Mem::Shared reader = shared();
  const auto* seen =
      static_cast<const char*>(reader.attach(3 * Mem::pageSize_, Mem::Mode::readOnly));
  ASSERT_EQ(truncate(path().c_str(), Mem::pageSize_), 0);
  EXPECT_EQ(seen[0], 'x');
  EXPECT_FALSE(reader.truncated());
  EXPECT_EQ(seen[Mem::pageSize_], 0);
  EXPECT_TRUE(reader.truncated());
  EXPECT_FALSE(writer.truncated()) << "nobody has looked there yet";
  base[2 * Mem::pageSize_] = 'y';
  EXPECT_TRUE(writer.truncated());
}

TEST_F(Region, AttachingAnewForgetsThatTheFileHadShrunk) {
  Mem::Shared sut = shared();
  const auto* seen = static_cast<const char*>(sut.attach(2 * Mem::pageSize_, Mem::Mode::readWrite));
  ASSERT_EQ(truncate(path().c_str(), 0), 0);
  EXPECT_EQ(seen[Mem::pageSize_], 0);
  EXPECT_TRUE(sut.truncated());
  ASSERT_NE(sut.attach(2 * Mem::pageSize_, Mem::Mode::readWrite), nullptr);
  EXPECT_FALSE(sut.truncated());
  EXPECT_EQ(sut.memSize(), 2 * Mem::pageSize_);
}

using RegionDeathTest = Region;

TEST_F(RegionDeathTest, ABusErrorElsewhereStillEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Mem::Shared sut = shared();
        static_cast<void>(sut.attach(100, Mem::Mode::readWrite));
        raise(SIGBUS);
        raise(SIGBUS);
      },
      // A sanitizer has an action of its own, which reports and exits.
      [](int status) { return !WIFEXITED(status) || WEXITSTATUS(status) != 0; }, "");
}

TEST_F(RegionDeathTest, ASignalThatIsIgnoredIsIgnoredWithAMappingToo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::signal(SIGBUS, SIG_IGN);
        Mem::Shared sut = shared();
        const auto* seen =
            static_cast<const volatile char*>(sut.attach(2 * Mem::pageSize_, Mem::Mode::readWrite));
        raise(SIGBUS);
        static_cast<void>(!truncate(path().c_str(), 0));
        std::exit(seen[Mem::pageSize_] == 0 && sut.truncated() ? 7 : 8);
      },
      testing::ExitedWithCode(7), "");
}

TEST_F(Region, AFileThatHasShrunkIsNotMappedAnewByAResize) {
  Mem::Shared sut = shared();
  const auto* seen = static_cast<const char*>(sut.attach(2 * Mem::pageSize_, Mem::Mode::readWrite));
  ASSERT_EQ(truncate(path().c_str(), 0), 0);
  EXPECT_EQ(seen[Mem::pageSize_], 0);
  EXPECT_EQ(sut.resize(4 * Mem::pageSize_), nullptr);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(seen[0], 0) << "still mapped";
  EXPECT_TRUE(sut.truncated());
}

TEST(LocalRegion, GrowsAndShrinksWithItsFirstBytesKept) {
  Mem::Local sut;
  auto* base = static_cast<char*>(sut.attach(100, Mem::Mode::readWrite));
  ASSERT_NE(base, nullptr);
  base[99] = 'x';
  base = static_cast<char*>(sut.resize(1 << 20));
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(base[99], 'x');
  EXPECT_EQ(base[(1 << 20) - 1], 0);
  base = static_cast<char*>(sut.resize(100));
  EXPECT_EQ(base[99], 'x');
  EXPECT_EQ(sut.resize(0), nullptr);
  sut.detach();
  sut.detach();
  EXPECT_EQ(sut.size(), 0U);
}

TEST(PageSize, RoundsUpToWholePages) {
  EXPECT_EQ(Mem::roundUpToWholePage(0), 0U);
  EXPECT_EQ(Mem::roundUpToWholePage(1), Mem::pageSize_);
  EXPECT_EQ(Mem::roundUpToWholePage(Mem::pageSize_), Mem::pageSize_);
  EXPECT_EQ(Mem::roundUpToWholePage(Mem::pageSize_ + 1), 2 * Mem::pageSize_);
}

}  // namespace
