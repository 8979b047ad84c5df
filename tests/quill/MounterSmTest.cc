// SPDX-License-Identifier: Apache-2.0
#include "quill/MounterSm.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <vector>

#include "runtime/sable/Exceptions.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

namespace {

using Names = std::vector<std::string>;
using Lines = std::vector<std::string>;

class Mounter : public Quill::MounterBase {
 public:
  using MounterBase::MounterBase;
  void notify(const std::string& eventName) override {
    names.push_back(eventName);
    const auto event = onNotify;  // may destroy the watch
    if (event) event();
  }
  Names taken() { return std::exchange(names, {}); }

  Names names;
  std::function<void()> onNotify;
};

class MounterSmTest : public TableTest {
 protected:
  MounterSmTest() { loop_.logService().sinkIs(log_); }
  ~MounterSmTest() override { loop_.logService().sinkDel(log_); }

  void watchIs() {
    sut_ = std::make_unique<Quill::MounterSm>(handler_, path_, mounter_);
    EXPECT_TRUE(sut_->ready());
    turn();
    EXPECT_EQ(Names(), mounter_.taken());
  }
  void turn() { loop_.runFor(0.0); }
  void makeTable() { std::filesystem::create_directories(path_); }
  void fileIs(const std::string& name, const std::string& text = "x") {
    std::ofstream(path_ + "/" + name) << text;
  }
  // What has been told since the last question.
  Names told() {
    turn();
    return mounter_.taken();
  }

  Vex::MemorySink log_;
  std::string path_ = root_.path() + "/a/b/t";
  Mounter mounter_{handler_};
  std::unique_ptr<Quill::MounterSm> sut_;
};

// The watches of all inotify instances of this process.
unsigned watches() {
  unsigned count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream file(entry.path());
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with("inotify wd:")) ++count;
    }
  }
  return count;
}

class MounterSmFileTest : public MounterSmTest, public testing::WithParamInterface<const char*> {};

}  // namespace

TEST(MounterSmWithoutLoop, IsNotReady) {
  Sable::Platform::DebugHandler handler("test");
  Mounter mounter(handler);
  const Quill::MounterSm sut(handler, "/tmp", mounter);
  EXPECT_FALSE(sut.ready());
}

TEST_F(MounterSmTest, WithoutAnInotifyInstanceItIsNotReady) {
  makeTable();
  rlimit before{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
  rlimit none = before;
  none.rlim_cur = 0;
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  sut_ = std::make_unique<Quill::MounterSm>(handler_, path_, mounter_);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
  EXPECT_FALSE(sut_->ready());
  fileIs("kick");
  EXPECT_EQ(Names(), told());
}

TEST_P(MounterSmFileTest, EachChangeOfTheFileIsTold) {
  const std::string name = GetParam();
  const std::string file = path_ + "/" + name;
  makeTable();
  watchIs();
  const int fd = open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  EXPECT_EQ(Names{name}, told());  // came into being
  EXPECT_EQ(1, write(fd, "x", 1));
  EXPECT_EQ(Names(), told());  // not at each write: a table is written all the time
  close(fd);
  EXPECT_EQ(Names{name}, told());
  chmod(file.c_str(), 0644);
  EXPECT_EQ(Names{name}, told());
  fileIs(".x.new");
  EXPECT_EQ(Names(), told());
  std::filesystem::rename(path_ + "/.x.new", file);
  EXPECT_EQ(Names{name}, told());
  std::filesystem::rename(file, path_ + "/.x.new");
  EXPECT_EQ(Names{name}, told());
  std::filesystem::rename(path_ + "/.x.new", file);
  EXPECT_EQ(Names{name}, told());
  std::filesystem::remove(file);
  EXPECT_EQ(Names{name}, told());
}

INSTANTIATE_TEST_SUITE_P(Files, MounterSmFileTest,
                         testing::Values("buckets", "slots", "conquer.1", "conquer.2", "fenix",
                                         "last-owner", "corruption-detected", "kick"),
                         [](const auto& parameter) {
                           std::string name = parameter.param;
                           std::erase_if(name, [](char c) { return c == '.' || c == '-'; });
                           return name;
                         });

TEST_F(MounterSmTest, OtherFilesAreNotTold) {
  makeTable();
  watchIs();
  fileIs("lock");
  fileIs("slots2");
  fileIs("slot");
  fileIs(".fenix.new");
  std::filesystem::create_directory(path_ + "/x");
  EXPECT_EQ(Names(), told());
}

TEST_F(MounterSmTest, SeveralChangesOfAFileInATurnAreOne) {
  makeTable();
  watchIs();
  for (int i = 0; i < 10; ++i) {
    fileIs("kick");
    fileIs("fenix");
  }
  EXPECT_EQ((Names{"fenix", "kick"}), told());
  EXPECT_EQ(Names(), told());
}

TEST_F(MounterSmTest, DirectoryThatComesIsToldAndItsFilesFromThenOn) {
  watchIs();
  std::filesystem::create_directory(root_.path() + "/a");
  EXPECT_EQ(Names(), told());
  std::filesystem::create_directory(root_.path() + "/a/other");
  std::filesystem::create_directory(root_.path() + "/a/b");
  EXPECT_EQ(Names(), told());
  makeTable();
  EXPECT_EQ(Names{"directory"}, told());
  fileIs("fenix");
  EXPECT_EQ(Names{"fenix"}, told());
}

TEST_F(MounterSmTest, DirectoriesThatComeAllAtOnceAreToldOnce) {
  watchIs();
  makeTable();
  fileIs("fenix");
  EXPECT_EQ(Names{"directory"}, told());
  fileIs("slots");
  EXPECT_EQ(Names{"slots"}, told());
}

TEST_F(MounterSmTest, DirectoryThatIsMovedIntoPlaceIsTold) {
  watchIs();
  std::filesystem::create_directories(root_.path() + "/elsewhere/t");
  std::filesystem::create_directory(root_.path() + "/a");
  turn();
  std::filesystem::rename(root_.path() + "/elsewhere", root_.path() + "/a/b");
  EXPECT_EQ(Names{"directory"}, told());
  fileIs("kick");
  EXPECT_EQ(Names{"kick"}, told());
}

TEST_F(MounterSmTest, DirectoryThatGoesAndComesBackIsToldEachTime) {
  makeTable();
  watchIs();
  std::filesystem::remove_all(root_.path() + "/a");
  EXPECT_EQ(Names{"directory"}, told());
  makeTable();
  EXPECT_EQ(Names{"directory"}, told());
  fileIs("kick");
  EXPECT_EQ(Names{"kick"}, told());
}

TEST_F(MounterSmTest, DirectoryThatIsReplacedWithinATurnIsWatched) {
  makeTable();
  watchIs();
  std::filesystem::remove_all(path_);
  makeTable();
  EXPECT_EQ(Names{"directory"}, told());
  fileIs("kick");
  EXPECT_EQ(Names{"kick"}, told());
}

TEST_F(MounterSmTest, DirectoryThatGoesWhileItsFilesAreMappedIsTold) {
  makeTable();
  fileIs("slots");
  const int fd = open((path_ + "/slots").c_str(), O_RDONLY | O_CLOEXEC);
  void* const mapping = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
  ASSERT_NE(MAP_FAILED, mapping);
  close(fd);
  const int directory = open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  watchIs();
  std::filesystem::remove(path_ + "/slots");
  EXPECT_EQ(Names{"slots"}, told());
  std::filesystem::remove(path_);
  EXPECT_EQ(Names{"directory"}, told());
  makeTable();
  EXPECT_EQ(Names{"directory"}, told());
  munmap(mapping, 4096);
  close(directory);
  EXPECT_EQ(Names(), told());
}

TEST_F(MounterSmTest, DirectoryThatIsMovedAwayIsGone) {
  makeTable();
  watchIs();
  std::filesystem::rename(path_, root_.path() + "/a/b/u");
  EXPECT_EQ(Names{"directory"}, told());
  std::ofstream(root_.path() + "/a/b/u/kick") << "x";
  EXPECT_EQ(Names(), told());
}

TEST_F(MounterSmTest, FileInThePlaceOfADirectoryIsWaitedOut) {
  std::ofstream(root_.path() + "/a") << "a file";
  watchIs();
  std::filesystem::remove(root_.path() + "/a");
  makeTable();
  EXPECT_EQ(Names{"directory"}, told());
}

TEST_F(MounterSmTest, ChangeOfTheDirectorysRightsAloneIsNotTold) {
  makeTable();
  watchIs();
  chmod(path_.c_str(), 0700);
  EXPECT_EQ(Names(), told());
  fileIs("kick");
  EXPECT_EQ(Names{"kick"}, told());
}

TEST_F(MounterSmTest, LostEventsCountAsAChangeOfEverything) {
  makeTable();
  watchIs();
  unsigned limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  ASSERT_GT(limit, 0U);
  ASSERT_LE(limit, 1'000'000U);
  // Equal events in a row are one, so two files in turn.
  for (unsigned i = 0; i <= limit; i += 2) {
    chmod(path_.c_str(), i % 4 == 0 ? 0755 : 0700);
    const int fd = open((path_ + "/lock").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    close(fd);
    std::filesystem::remove(path_ + "/lock");
  }
  fileIs("kick");  // this one is lost
  EXPECT_EQ(Names{"directory"}, told());
  fileIs("kick");
  EXPECT_EQ(Names{"kick"}, told());
}

TEST_F(MounterSmTest, ExceptionsEndInALogLineAndTheRestIsTold) {
  makeTable();
  watchIs();
  mounter_.onNotify = [this] {
    mounter_.onNotify = [] { throw Vex::InternalException("second"); };
    throw Sable::RuntimeException("first");
  };
  fileIs("slots");
  fileIs("fenix");
  EXPECT_EQ((Names{"slots", "fenix"}), told());
  EXPECT_EQ((Lines{"Table " + path_ + ": after a change of \"slots\": first",
                   "Table " + path_ + ": after a change of \"fenix\": second"}),
            log_.texts());
  mounter_.onNotify = nullptr;
  fileIs("kick");
  EXPECT_EQ(Names{"kick"}, told());
}

TEST_F(MounterSmTest, WatchMayBeDestroyedByWhatItTells) {
  makeTable();
  watchIs();
  mounter_.onNotify = [this] { sut_.reset(); };
  fileIs("slots");
  fileIs("kick");
  EXPECT_EQ(Names{"slots"}, told());
  fileIs("kick");
  EXPECT_FALSE(loop_.runTurn());
}

TEST_F(MounterSmTest, WatchMayBeDestroyedByWhatItTellsAndThenRaises) {
  watchIs();
  mounter_.onNotify = [this] {
    sut_.reset();
    throw Sable::RuntimeException("text");
  };
  makeTable();
  fileIs("kick");
  EXPECT_EQ(Names{"directory"}, told());
  EXPECT_EQ(Lines{"Table " + path_ + ": after a change of \"directory\": text"}, log_.texts());
}

TEST_F(MounterSmTest, WatchesOfFormerDirectoriesAreGivenUp) {
  watchIs();
  EXPECT_EQ(1U, watches());
  for (int i = 0; i < 3; ++i) {
    makeTable();
    turn();
    EXPECT_EQ(2U, watches());
    std::filesystem::rename(path_, root_.path() + "/keptTable" + std::to_string(i));
    turn();
    EXPECT_EQ(1U, watches());
  }
  sut_.reset();
  EXPECT_EQ(0U, watches());
}

TEST_F(MounterSmTest, NothingIsDoneWhileNothingChanges) {
  makeTable();
  watchIs();
  const std::uint64_t before = loop_.wakeUps();
  loop_.runFor(1'000.0);
  EXPECT_EQ(before, loop_.wakeUps());
}

TEST_F(MounterSmTest, RelativeNameLiesUnderTheDefaultRoot) {
  setenv("QUILL_ROOT", (root_.path() + "/q").c_str(), 1);
  path_ = root_.path() + "/q/some:table";
  sut_ = std::make_unique<Quill::MounterSm>(handler_, "some/table", mounter_);
  unsetenv("QUILL_ROOT");
  makeTable();
  EXPECT_EQ(Names{"directory"}, told());
}

}  // namespace QuillTest
