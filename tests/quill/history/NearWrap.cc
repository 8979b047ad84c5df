// SPDX-License-Identifier: Apache-2.0
#include "tests/quill/history/NearWrap.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "runtime/mem/Atomics.h"
#include "tests/quill/history/TableJudge.h"
#include "tests/quill/history/TableModel.h"

namespace QuillTest {

namespace {

constexpr std::uint32_t kBelow = 6;            // changes that a version has left
constexpr std::uint32_t kWrappedTo = 1 << 20;  // a version up to this one has come by the wrap
constexpr std::uint64_t kSequencesLeft = 40;

}  // namespace

// A file mapped to be edited, by cells of the kind that the store uses.
class NearWrap::File {
 public:
  explicit File(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct stat status {};
    fstat(fd, &status);
    size_ = static_cast<std::size_t>(status.st_size);
    base_ = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (base_ == MAP_FAILED) wrong("cannot map " + path);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() { munmap(base_, size_); }

  Mem::SharedU32& u32(std::uint64_t at) const { return cell<Mem::SharedU32>(at); }
  Mem::SharedU64& u64(std::uint64_t at) const { return cell<Mem::SharedU64>(at); }
  Mem::SharedVerU32& word(std::uint64_t at) const { return cell<Mem::SharedVerU32>(at); }
  std::uint32_t load(std::uint64_t at) const { return u32(at).load(Mem::relaxed); }

 private:
  template <class Cell>
  Cell& cell(std::uint64_t at) const {
    return *reinterpret_cast<Cell*>(static_cast<unsigned char*>(base_) + at);
  }
  void* base_;
  std::size_t size_;
};

void NearWrap::put() {
  const Verdict verdict = judgeTable(directory_);
  if (!verdict.sound) return;
  const bool edited = verdict.fenix == fenix_;
  if (!edited) {
    fenix_ = verdict.fenix;
    wrappedBefore_ = wrapped();
    ++edits_;
  }
  wrappedNow_ = 0;
  links(edited);
  queue(edited);
}

void NearWrap::links(bool edited) {
  const auto version = [&](Mem::SharedVerU32& cell, std::uint32_t from) {
    const Mem::VerU32 word = cell.load(Mem::relaxed);
    if (!edited) return cell.store({from, word.value}, Mem::release);
    if (word.version < kWrappedTo) ++wrappedNow_;
  };
  const File buckets(directory_ + "/buckets");
  const std::uint32_t numBuckets = buckets.load(16);
  for (std::uint32_t bucket = 0; bucket < numBuckets; ++bucket) {
    const std::uint64_t at = 24 + 8 * std::uint64_t{bucket};
    if (buckets.load(at + 4) != Quill::kNoSlot) version(buckets.word(at), 0U - kBelow);
  }
  const File slots(directory_ + "/slots");
  const std::uint64_t slotSize = slots.load(148);
  const std::uint32_t count = slots.load(172);
  for (std::uint32_t index = 0; index < count; ++index) {
    const std::uint64_t at = 176 + slotSize * (std::uint64_t{index} + 1);
    version(slots.word(at), 0U - kBelow);
    const std::uint32_t flags = slots.load(at + 12);
    if (!edited) {
      slots.u32(at + 12).store((0U - kBelow) << 2 | (flags & 3U), Mem::release);
    } else if (flags >> 2 < kWrappedTo) {
      ++wrappedNow_;
    }
  }
  version(slots.word(168), 0U - 2);
}

// As the writer moves the queue: into the table that is not current, then the switch. So a shadow
// that reads the queue meanwhile notices.
void NearWrap::queue(bool edited) {
  const File primary(directory_ + "/conquer.1");
  const File secondary(directory_ + "/conquer.2");
  const std::uint32_t id = primary.load(36);
  const File& from = id == 0 ? primary : secondary;
  const File& to = id == 0 ? secondary : primary;
  const std::uint32_t used = from.load(48);
  const auto entry = [](std::uint32_t pos) { return 52 + 12 * std::uint64_t{pos}; };
  const auto sequence = [&](std::uint32_t pos) {
    return std::uint64_t{from.load(entry(pos) + 4)} << 32 | from.load(entry(pos));
  };
  Mem::SharedVerU32& generation = primary.word(32);
  if (edited) {
    if (generation.load(Mem::relaxed).version < kWrappedTo) ++wrappedNow_;
    if (border_ != 0 && used != 0 && sequence(used - 1) >= border_) {
      ++sequencesPassed_;
      border_ = 0;
    }
    return;
  }
  border_ = 0;
  if (used == 0 || used > to.load(44)) return;
  border_ = edits_ % 2 != 0 ? std::uint64_t{1} << 32 : std::uint64_t{1} << 63;
  const std::uint64_t by = border_ - kSequencesLeft - sequence(used - 1);
  to.u32(48).store(0, Mem::release);
  for (std::uint32_t pos = 0; pos < used; ++pos) {
    const std::uint64_t moved = sequence(pos) + by;
    to.u32(entry(pos)).store(static_cast<std::uint32_t>(moved), Mem::release);
    to.u32(entry(pos) + 4).store(static_cast<std::uint32_t>(moved >> 32), Mem::release);
    to.u32(entry(pos) + 8).store(from.load(entry(pos) + 8), Mem::release);
    to.u32(48).store(pos + 1, Mem::release);
  }
  Mem::SharedU64& minSeq = primary.u64(16);
  if (const std::uint64_t before = minSeq.load(Mem::relaxed); before != 0) {
    minSeq.store(before + by, Mem::release);
  }
  // The lowest bit of the generation goes with the table's id.
  generation.store({(0U - 4) | (id ^ 1U), id ^ 1U}, Mem::release);
}

}  // namespace QuillTest
