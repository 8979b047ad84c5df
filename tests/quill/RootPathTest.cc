// SPDX-License-Identifier: Apache-2.0
#include "quill/RootPath.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "quill/Exceptions.h"
#include "tests/quill/RawFile.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

using Quill::RootPath;

class RootPaths : public TableTest {};

TEST_F(RootPaths, ANameLiesUnderTheDefaultRoot) {
  ASSERT_EQ(unsetenv("QUILL_ROOT"), 0);
  const RootPath sut(handler_, "a/b", true);
  EXPECT_EQ(sut.rootPath(), "/run/ringward/tables/a:b");
  EXPECT_EQ(sut.quillName(), "a/b");
}

TEST_F(RootPaths, TheEnvironmentNamesAnotherRoot) {
  ASSERT_EQ(setenv("QUILL_ROOT", "/somewhere/else", 1), 0);
  EXPECT_EQ(RootPath(handler_, "t", true).rootPath(), "/somewhere/else/t");
  ASSERT_EQ(setenv("QUILL_ROOT", "relative", 1), 0);
  EXPECT_EQ(RootPath(handler_, "t", true).rootPath(), "/run/ringward/tables/t");
  ASSERT_EQ(unsetenv("QUILL_ROOT"), 0);
}

TEST_F(RootPaths, AnAbsolutePathIsTheDirectoryItself) {
  const RootPath sut(handler_, Quill::tablePath("/x/y", "ringward/counter"), true);
  EXPECT_EQ(sut.rootPath(), "/x/y/ringward:counter");
  EXPECT_EQ(sut.quillName(), "ringward/counter");
  EXPECT_EQ(sut.filePath("slots"), "/x/y/ringward:counter/slots");
}

TEST_F(RootPaths, NoNameLeavesTheRoot) {
  for (const char* const name :
       {"..", "../x", "/../x", "a/../../b", ".", "./x", "/etc/passwd", "\xff"}) {
    const std::string path = Quill::tablePath("/root-of-tables", name);
    EXPECT_EQ(std::filesystem::path(path).parent_path(), "/root-of-tables") << name;
    EXPECT_NE(path, "/root-of-tables/..") << name;
    EXPECT_NE(path, "/root-of-tables/.") << name;
  }
}

TEST_F(RootPaths, EveryNameComesBackAndNoTwoShareADirectory) {
  EXPECT_EQ(Quill::encodedName("Az09_-.x"), "Az09_-.x");
  EXPECT_EQ(Quill::encodedName(".x"), "%2Ex");
  EXPECT_EQ(Quill::encodedName("a/b:c%d e"), "a:b%3Ac%25d%20e");
  for (int byte = 1; byte < 256; ++byte) {
    const std::string name = std::string("x") + static_cast<char>(byte);
    EXPECT_EQ(Quill::decodedName(Quill::encodedName(name)), name) << byte;
  }
  for (const char* const foreign : {"%", "%4", "%zz", "%41", ".x", "%2f", ""}) {
    EXPECT_EQ(Quill::decodedName(foreign), "") << foreign;
  }
}

TEST_F(RootPaths, AFileNameThatNoNameGivesIsNoName) {
  EXPECT_EQ(Quill::decodedName(std::string(200, ' ')), "");
  const RootPath sut(handler_, "/x/" + std::string(200, ' '), true);
  EXPECT_EQ(sut.quillName(), std::string(200, ' '));
}

TEST_F(RootPaths, NamesThatCannotBeAreRefusedByName) {
  using Sable::InvalidInitializeException;
  EXPECT_EQ(textOfRaised<InvalidInitializeException>([] { Quill::encodedName(""); }),
            "table name is empty");
  EXPECT_EQ(
      textOfRaised<InvalidInitializeException>([] { Quill::encodedName(std::string(256, 'n')); }),
      "table name " + std::string(64, 'n') +
          "... of 256 bytes: its file name is longer than 255 bytes");
  EXPECT_EQ(textOfRaised<InvalidInitializeException>([] { Quill::tablePath("x", "t"); }),
            "table root x: must be an absolute path");
  EXPECT_EQ(textOfRaised<InvalidInitializeException>([&] { RootPath(handler_, "/a/../b", true); }),
            "table path /a/../b: must be a directory's absolute path without \"..\"");
}

TEST_F(RootPaths, MakesWhatIsMissingReadableByEverybody) {
  const mode_t before = umask(077);
  const RootPath sut(handler_, root_.path() + "/one/two/t", true);
  sut.makeDirectory();
  sut.makeDirectory();
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat((root_.path() + "/one/two").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755U);
}

TEST_F(RootPaths, ADirectoryThatCannotBeMadeIsNamed) {
  std::ofstream(root_.path() + "/file") << "x";
  const RootPath sut(handler_, root_.path() + "/file/t", true);
  EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>([&] { sut.makeDirectory(); }),
            "cannot make the table directory " + root_.path() + "/file/t: Not a directory");
}

TEST_F(RootPaths, CleanupKeepsADirectoryWithSomebodyElsesFile) {
  const RootPath sut(handler_, root_.table("t"), true);
  sut.makeDirectory();
  for (const char* const name : {"lock", "kick", ".fenix.12.new", "theirs"}) {
    std::ofstream(sut.filePath(name)) << "x";
  }
  sut.cleanup();
  EXPECT_FALSE(std::filesystem::exists(sut.filePath("lock")));
  EXPECT_FALSE(std::filesystem::exists(sut.filePath(".fenix.12.new")));
  EXPECT_TRUE(std::filesystem::exists(sut.filePath("theirs")));
  sut.removeFile("theirs");
  sut.removeFile("theirs");
  sut.cleanup();
  EXPECT_FALSE(std::filesystem::exists(sut.rootPath()));
}

TEST_F(RootPaths, ALocalTableMayHaveAnyName) {
  EXPECT_EQ(RootPath(handler_, "../x/", false).quillName(), "../x/");
}

}  // namespace QuillTest
