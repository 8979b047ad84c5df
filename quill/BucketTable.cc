// SPDX-License-Identifier: Apache-2.0
#include "quill/BucketTable.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "quill/Exceptions.h"
#include "quill/Text.h"

namespace Quill {

bool BucketTable::Header::validate(std::uint32_t fileSize, std::uint32_t wantedFenix,
                                   std::string& message) const {
  const auto wrong = [&message](const auto&... parts) {
    message = textOf(parts...);
    return false;
  };
  if (fileSize < kHeaderSize) {
    return wrong("BucketTable::validate() bad header file size: ", fileSize,
                 " wanted:", kHeaderSize);
  }
  // [O11] These are stored once, before `fenix` is written to disk, and never change in a
  // generation.
  const std::uint64_t foundMagic = magic.load(Mem::relaxed);
  if (foundMagic != Detail::magicWord(kMagic)) {
    return wrong("BucketTable::validate() bad magic: ", std::hex, foundMagic);
  }
  const std::uint32_t foundVersion = version.load(Mem::relaxed);
  if (foundVersion != kVersion) {
    return wrong("BucketTable::validate() bad version: ", foundVersion);
  }
  const std::uint32_t foundFenix = fenix.load(Mem::relaxed);
  if (wantedFenix != 0 && foundFenix != wantedFenix) {
    return wrong("BucketTable::validate() bad fenix:", foundFenix, " wanted:", wantedFenix);
  }
  const std::uint32_t count = numBuckets.load(Mem::relaxed);
  const std::uint64_t wanted = std::uint64_t{count} * kBucketSize + kHeaderSize;
  if (fileSize < wanted) {
    return wrong("BucketTable::validate() bad shmem size:", fileSize, " wanted:", wanted, " for ",
                 count, " buckets");
  }
  return true;
}

std::uint32_t BucketTable::bucketsFor(std::uint32_t maxSlots, std::uint32_t pageSize) noexcept {
  // More than fit in a file of 32-bit size: attach() refuses any such number.
  if (maxSlots > UINT32_MAX / (2 * kBucketSize)) return UINT32_MAX;
  const std::uint64_t count = std::uint64_t{maxSlots} * 2;
  const std::uint64_t bytes = count * kBucketSize + kHeaderSize;
  const std::uint64_t rounded = (bytes + pageSize - 1) / pageSize * pageSize;
  return static_cast<std::uint32_t>(count + (rounded - bytes) / kBucketSize);
}

BucketTable::BucketTable(Sable::Platform::DebugHandler& handler, const RootPath& root,
                         bool localMem)
    : Debuggable(handler), mem_(handler, root, "buckets", localMem) {}

void BucketTable::detach() {
  mem_.detach();
  headsAre(0);
  highest_ = 0;
  reachable_ = 0;
  header_ = nullptr;
}

void BucketTable::countIs(std::uint32_t count) noexcept {
  headsAre(count);
  highest_ = count - 1;
  const std::uint32_t mapped =
      mem_.size() < kHeaderSize ? 0 : (mem_.size() - kHeaderSize) / kBucketSize;
  reachable_ = std::min(count, mapped);
}

BucketWriterTable::BucketWriterTable(Sable::Platform::DebugHandler& handler, const RootPath& root,
                                     bool localMem, std::uint32_t maxSlots,
                                     Writer::Counters& counters)
    : BucketTable(handler, root, localMem),
      counters_(&counters),
      wanted_(bucketsFor(maxSlots, Mem::pageSize_)) {
  headsAre(wanted_);
}

void BucketWriterTable::detach() {
  BucketTable::detach();
  headsAre(wanted_);  // settled for the life of the object
}

bool BucketWriterTable::attach(std::uint32_t fenix) {
  detach();
  const std::uint32_t existing = mem_.memSize();
  const std::uint64_t wantedBytes = std::uint64_t{wanted_} * kBucketSize + kHeaderSize;
  const std::uint64_t size = existing != 0 ? existing : wantedBytes;
  errno = EFBIG;
  if (size <= UINT32_MAX) {
    const auto bytes = static_cast<std::uint32_t>(size);
    header_ = static_cast<Header*>(mem_.attach(bytes, Mem::Mode::readWrite));
  }
  if (header_ == nullptr) {
    const int error = errno;
    raise<Sable::InvalidInitializeException>("BucketWriter::attach() cannot attach to shmem ",
                                             mem_.getFilename(), " of size:", size, ": ",
                                             std::strerror(error));
  }
  if (existing != 0 && header_->fenix.load(Mem::relaxed) == fenix) {
    countIs(wanted_);
    trace(7, [&](std::ostream& os) {
      os << "BucketWriter::attach() to existing " << mem_.getFilename();
    });
    return false;
  }
  if (existing != 0 && existing != wantedBytes) {
    trace(7, [&](std::ostream& os) {
      os << "BucketWriter::attach() resize from " << existing << " to " << wantedBytes << " bytes";
    });
    auto* const resized = static_cast<Header*>(
        wantedBytes > UINT32_MAX ? nullptr : mem_.resize(static_cast<std::uint32_t>(wantedBytes)));
    if (resized == nullptr) {
      raise<Sable::MemoryResourceException>(
          "BucketWriter::attach() failed to resize shared memory to size ", wantedBytes, ".");
    }
    header_ = resized;
  }
  countIs(wanted_);
  format(fenix);
  if (existing == 0) {
    if (!mem_.localMem()) {
      trace(7, [&](std::ostream& os) {
        os << "BucketWriter::attach() to new file " << mem_.getFilename();
      });
    }
    return false;
  }
  trace(7, [&](std::ostream& os) {
    os << "BucketWriter::attach() re-formatted " << mem_.getFilename();
  });
  return true;
}

void BucketWriterTable::format(std::uint32_t fenix) {
  header_->fenix.store(fenix, Mem::release);
  header_->magic.store(Detail::magicWord(kMagic), Mem::release);
  header_->version.store(kVersion, Mem::release);
  header_->numBuckets.store(wanted_, Mem::release);
  header_->ownerPid.store(static_cast<std::uint32_t>(getpid()), Mem::release);
  for (std::uint32_t i = 0; i < reachable_; ++i) {
    header_->buckets()[i].store({0, kNoSlot}, Mem::release);
  }
}

void BucketWriterTable::outOfRange(std::uint32_t index) const {
  raise<CorruptionDetectedException>("BucketWriter::getRef() out-of-range, index:", index,
                                     " max:", highest_);
}

BucketReaderTable::BucketReaderTable(Sable::Platform::DebugHandler& handler, const RootPath& root)
    : BucketTable(handler, root, false) {}

bool BucketReaderTable::attach() {
  detach();
  const std::uint32_t size = mem_.memSize();
  if (size == 0) {
    trace(7, [](std::ostream& os) { os << "BucketReader::attach() no shared memory region"; });
    return false;
  }
  header_ = static_cast<Header*>(mem_.attach(size, Mem::Mode::readOnly));
  if (header_ == nullptr) {
    trace(7, [&](std::ostream& os) {
      os << "BucketReader::attach() cannot attach to shmem size:" << size;
    });
    return false;
  }
  return true;
}

void BucketReaderTable::outOfRange(std::uint32_t index) const {
  raise<CorruptionDetectedException>("BucketReader::getRef() out-of-range, index:", index,
                                     " max:", highest_);
}

}  // namespace Quill
