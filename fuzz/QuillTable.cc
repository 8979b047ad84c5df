// SPDX-License-Identifier: Apache-2.0
#include "fuzz/QuillTable.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "quill/QuillWriter.h"
#include "quill/Util.h"
#include "runtime/vex/VirtualActivityManager.h"

// Most of what these targets would do otherwise is keeping record of where each block came from.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "quarantine_size_mb=16:malloc_context_size=4";
}

// The kernel takes ten milliseconds to give an inotify instance back, which would be all that these
// targets do. Handles are told of changes by other ways.
extern "C" int inotify_init1(int) noexcept { return eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC); }
extern "C" int inotify_add_watch(int, const char* path, std::uint32_t) noexcept {
  return access(path, F_OK) != 0 ? -1 : 1 + static_cast<int>(Quill::Util::hash(path) & 0xFFFF);
}
extern "C" int inotify_rm_watch(int, int) noexcept { return 0; }

namespace Fuzz {

namespace {

constexpr std::uint32_t kSlotHeader = 216;
constexpr std::uint32_t kSlot = 40;
constexpr std::uint32_t kBucketHeader = 24;
constexpr std::uint32_t kEntries = 52;
constexpr std::uint32_t kEntry = 12;
// Larger files than any shape's, and small enough that they cost little.
constexpr off_t kLongest = 32'768;

using TableWriter = Quill::QuillWriter<TableKey, TableRecord>;

// Where an interesting table begins to be one that is not sound: both sides of every limit.
constexpr std::array<std::uint32_t, 24> kNumbers = {
    0,   1,   2,   3,   4,   96,  97,    98,     199,        200,        335,        336,
    337, 509, 510, 511, 678, 999, 0x101, 0x7FFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF};

std::uint32_t someNumber(Input& input) {
  const std::uint8_t choice = input.byte();
  if (choice < 128) return kNumbers[choice % kNumbers.size()];
  if (choice < 250) return choice - 128U;
  return input.number<std::uint32_t>();
}

std::string contentsOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class File {
 public:
  explicit File(const std::string& path, int flags = O_RDWR)
      : fd_(open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644)) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() {
    if (fd_ >= 0) close(fd_);
  }
  void write(const void* bytes, std::size_t size, std::uint64_t at) const {
    static_cast<void>(!pwrite(fd_, bytes, size, static_cast<off_t>(at)));
  }
  void read(void* bytes, std::size_t size, std::uint64_t at) const {
    static_cast<void>(!pread(fd_, bytes, size, static_cast<off_t>(at)));
  }
  std::uint32_t u32(std::uint64_t at) const {
    std::uint32_t number = 0;
    read(&number, sizeof number, at);
    return number;
  }
  void sizeIs(off_t size) const { static_cast<void>(!ftruncate(fd_, size)); }

 private:
  int fd_;
};

}  // namespace

QuillTable::QuillTable() {
  const char* const place = getenv("TMPDIR");
  // The six X are for mkdtemp(3) to fill in.
  root_ = std::string(place != nullptr ? place : "/dev/shm") + "/quill-fuzz-XXXXXX";
  require(mkdtemp(root_.data()) != nullptr);
  path_ = root_ + "/t";
  makeShapes();
}

QuillTable::~QuillTable() {
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

QuillTable::Shape QuillTable::taken(TableContent content) const {
  Shape shape;
  for (std::size_t i = 0; i < kShapeFiles; ++i) shape.files[i] = contentsOf(filePath(i));
  shape.content = std::move(content);
  return shape;
}

void QuillTable::shapeAdd() {
  shapes_.push_back(taken({}));
  clear();
}

void QuillTable::makeShapes() {
  Vex::VirtualActivityManager loop;
  const Vex::CurrentActivityManager current(loop);
  Sable::Platform::DebugHandler handler("fuzz");
  const auto make = [&](const auto& fill) {
    TableContent content;
    TableWriter writer(handler, path_.c_str(), kTableSize, false, "Fuzz");
    writer.initialize();
    fill(writer, content);
    shapes_.push_back(taken(content));
    writer.cleanup();
  };
  const auto write = [](TableWriter& writer, TableContent& content, std::uint32_t n,
                        std::uint32_t number) {
    const TableRecord record = tableRecord(tableKey(n), number);
    writer.write(record, true);
    content[record.key.number] = record;
  };
  const auto writeMany = [&](std::uint32_t entries, std::uint32_t rounds) {
    return [=](TableWriter& writer, TableContent& content) {
      for (std::uint32_t i = 0; i < entries * rounds; ++i) write(writer, content, i % entries, i);
    };
  };
  make(writeMany(0, 0));
  make(writeMany(12, 1));
  make(writeMany(120, 1));  // slots grown past its size
  make(writeMany(40, 10));  // the queue moved to the other file
  make([&](TableWriter& writer, TableContent& content) {
    writeMany(30, 2)(writer, content);
    for (std::uint32_t n = 0; n < 30; n += 2) {
      TableRecord old;
      writer.remove({tableKey(n)}, old);
      content.erase(tableKey(n));
    }
  });
  // As a writer leaves it that dies while it stores a value.
  Shape torn = shapes_[1];
  const std::uint64_t slot = kSlotHeader + 3 * kSlot;
  torn.files[0][slot + 12] = static_cast<char>(torn.files[0][slot + 12] + 2);
  const std::string value = torn.files[0].substr(slot + 16, sizeof(TableRecord));
  torn.files[0].replace(176 + 16, value.size(), value);
  torn.takenOver = false;
  shapes_.push_back(torn);
}

void QuillTable::clear() const {
  for (std::size_t i = 0; i < kFiles.size(); ++i) {
    if (unlink(filePath(i).c_str()) != 0 && errno == EISDIR) rmdir(filePath(i).c_str());
  }
  if (rmdir(path_.c_str()) == 0 || errno == ENOENT) return;
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void QuillTable::put(const Shape& shape) const {
  clear();
  mkdir(path_.c_str(), 0755);
  for (std::size_t i = 0; i < kShapeFiles; ++i) {
    const std::string& bytes = shape.files[i];
    File(filePath(i), O_RDWR | O_CREAT).write(bytes.data(), bytes.size(), 0);
  }
}

std::uint32_t QuillTable::u32(std::size_t file, std::uint64_t at) const {
  return File(filePath(file), O_RDONLY).u32(at);
}

void QuillTable::repairChecksum() const {
  std::array<char, kSlotHeader> header{};
  File(filePath(0)).read(header.data(), header.size(), 0);
  const auto sum = Quill::Util::hash(&header[16], 64) + Quill::Util::hash(&header[80], 64) +
                   Quill::Util::hash(&header[144], 4) + Quill::Util::hash(&header[148], 4) +
                   Quill::Util::hash(&header[152], 4);
  File(filePath(0)).write(&sum, sizeof sum, 156);
}

void QuillTable::editField(Input& input, std::size_t file) const {
  const std::uint8_t where = input.byte();
  std::uint64_t at = 0;
  if (file == 0) {
    static constexpr std::array<std::uint32_t, 14> kHeader = {0,   8,   12,  16,  80,  144, 148,
                                                              152, 156, 160, 164, 168, 172, 188};
    static constexpr std::array<std::uint32_t, 6> kInSlot = {0, 4, 8, 12, 16, 20};
    at = where < 100 ? kHeader[where % kHeader.size()]
                     : kSlotHeader + kSlot * (input.byte() % 202U) + kInSlot[where % 6];
  } else if (file == 1) {
    static constexpr std::array<std::uint32_t, 5> kHeader = {0, 8, 12, 16, 20};
    at = where < 60 ? kHeader[where % kHeader.size()]
                    : kBucketHeader + 8 * (input.byte() % 64U) + 4 * (where % 2U);
  } else {
    static constexpr std::array<std::uint32_t, 11> kHeader = {0,  8,  12, 16, 20, 24,
                                                              32, 36, 40, 44, 48};
    at = where < 128
             ? kHeader[where % kHeader.size()]
             : kEntries + kEntry * (input.number<std::uint16_t>() % 340U) + 4 * (where % 3U);
  }
  const File edited(filePath(file));
  std::uint32_t number = someNumber(input);
  // Of what stands there: a neighbour, or one bit.
  if ((where & 3) == 3) number = edited.u32(at) + (number % 5) - 2;
  if ((where & 7) == 5) number = edited.u32(at) ^ 1U << number % 32;
  edited.write(&number, sizeof number, at);
  if (file == 0 && at < 156 && input.flag()) repairChecksum();
}

// Another file takes the name, or the same file gets other bytes; with the latter a mapping sees
// it.
void QuillTable::replace(Input& input, std::size_t file) const {
  const Shape& other = input.oneOf(shapes_);
  const std::string& bytes =
      other.files[input.flag() ? file % kShapeFiles : input.below(kShapeFiles)];
  if (input.flag()) {
    const File in(filePath(file));
    in.sizeIs(static_cast<off_t>(bytes.size()));
    return in.write(bytes.data(), bytes.size(), 0);
  }
  const std::string fresh = path_ + "/.fresh.new";
  File(fresh, O_RDWR | O_CREAT | O_TRUNC).write(bytes.data(), bytes.size(), 0);
  if (rename(fresh.c_str(), filePath(file).c_str()) != 0) unlink(fresh.c_str());
}

void QuillTable::edit(Input& input) const {
  const std::uint8_t kind = input.byte();
  const std::size_t file = kind < 200 ? kind % kMappedFiles : input.below(kFiles.size());
  const std::string path = filePath(file);
  if (kind < 140) return editField(input, file);
  switch (kind % 12) {
    case 0:
    case 1: {
      const auto at = input.number<std::uint16_t>() % 8'192U;
      const Bytes bytes = input.take(1 + input.below(24));
      return File(path).write(bytes.data(), bytes.size(), at);
    }
    case 2:
    case 3:
      return File(path).sizeIs(static_cast<off_t>(input.byte()) * 17);
    case 4:
      return File(path).sizeIs(input.number<std::uint16_t>() % kLongest);
    case 5:
      return File(path).sizeIs(static_cast<off_t>(4'096) * static_cast<off_t>(input.below(4)));
    case 6:
    case 7:
      return replace(input, file);
    case 8:
      unlink(path.c_str());
      return;
    case 9: {
      const std::string other = filePath(input.below(kFiles.size()));
      static_cast<void>(rename(path.c_str(), other.c_str()));
      return;
    }
    case 10: {
      unlink(path.c_str());
      const std::size_t what = input.below(4);
      if (what == 0) mkdir(path.c_str(), 0755);
      if (what == 1) mkfifo(path.c_str(), 0644);
      if (what == 2) static_cast<void>(!symlink("slots", path.c_str()));
      if (what == 3) static_cast<void>(!symlink(path.c_str(), path.c_str()));
      return;
    }
    default:
      if (input.flag()) return clear();
      mkdir(path_.c_str(), 0755);
      return put(input.oneOf(shapes_));
  }
}

}  // namespace Fuzz
