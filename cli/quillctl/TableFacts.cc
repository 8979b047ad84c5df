// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/TableFacts.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "cli/quillctl/Failure.h"
#include "cli/quillctl/RawFile.h"
#include "cli/quillctl/Texts.h"
#include "platform/linux/Fd.h"
#include "quill/BucketTable.h"
#include "quill/ConquerTable.h"
#include "quill/FenixFile.h"
#include "quill/Util.h"

namespace Quillctl {

namespace {

constexpr std::uint32_t kSlotsVersion = 4;
constexpr std::size_t kSlotsHeader = 176;

// Numbers out of bytes; 0 behind their end.
class Fields {
 public:
  explicit Fields(std::string bytes) : bytes_(std::move(bytes)) {}

  std::uint32_t u32(std::size_t offset) const { return number<std::uint32_t>(offset); }
  std::uint64_t u64(std::size_t offset) const { return number<std::uint64_t>(offset); }
  std::string text(std::size_t offset, std::size_t size) const {
    return offset < bytes_.size() ? bytes_.substr(offset, size) : std::string();
  }
  // As text(), up to the first NUL.
  std::string name(std::size_t offset, std::size_t size) const {
    return std::string(text(offset, size).c_str());
  }

 private:
  template <class T>
  T number(std::size_t offset) const {
    T value{};
    if (offset + sizeof value <= bytes_.size()) {
      std::memcpy(&value, bytes_.data() + offset, sizeof value);
    }
    return value;
  }

  std::string bytes_;
};

Fields begun(FileFacts& facts, const RawFile& file, std::size_t headerSize) {
  facts.bytes = file.size();
  Fields fields(file.bytes(0, headerSize));
  facts.error = file.error();
  facts.magic = fields.text(0, 8);
  facts.version = fields.u32(8);
  facts.fenix = fields.u32(12);
  return fields;
}

SlotsFacts slotsFacts(const std::string& path) {
  SlotsFacts facts;
  const RawFile file(path);
  const Fields fields = begun(facts, file, kSlotsHeader);
  facts.valueType = fields.name(16, Quill::kTypeNameSize);
  facts.classType = fields.name(80, Quill::kTypeNameSize);
  facts.valueSize = fields.u32(144);
  facts.slotSize = fields.u32(148);
  facts.maxSlots = fields.u32(152);
  facts.hash = fields.u32(156);
  for (const auto& part :
       {fields.text(16, Quill::kTypeNameSize), fields.text(80, Quill::kTypeNameSize),
        fields.text(144, 4), fields.text(148, 4), fields.text(152, 4)}) {
    facts.computedHash += Quill::Util::hash(part);
  }
  facts.occupiedSlots = fields.u32(160);
  facts.freeSlots = fields.u32(164);
  facts.growths = fields.u32(168);
  facts.numSlots = fields.u32(172);
  return facts;
}

BucketsFacts bucketsFacts(const std::string& path) {
  BucketsFacts facts;
  const RawFile file(path);
  const Fields fields = begun(facts, file, Quill::BucketTable::kHeaderSize);
  facts.numBuckets = fields.u32(16);
  facts.formattedBy = fields.u32(20);
  return facts;
}

QueueFacts queueFacts(const std::string& path) {
  constexpr std::size_t firstEntry = 52;
  QueueFacts facts;
  const RawFile file(path);
  const Fields fields = begun(facts, file, firstEntry);
  facts.minSeq = fields.u64(16);
  facts.numReaders = fields.u32(24);
  facts.generation = fields.u32(32);
  facts.currentTable = fields.u32(36);
  facts.notifications = fields.u32(44);
  facts.currentPos = fields.u32(48);
  if (facts.currentPos != 0) {
    const std::uint64_t last = std::uint64_t{facts.currentPos - 1} * Quill::Conquer::kEntrySize;
    facts.lastSequence = Fields(file.bytes(firstEntry + last, 8)).u64(0);
  }
  return facts;
}

OwnerFacts ownerFacts(Sable::Platform::DebugHandler& handler, const std::string& path) {
  OwnerFacts facts;
  facts.pid = Quill::Util::readOwnerPid(handler, path, facts.name);
  const Platform::Linux::Fd fd(
      open((path + "/lock").c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!fd) {
    facts.known = errno == ENOENT;
    return facts;
  }
  struct flock request {};
  request.l_type = F_WRLCK;
  request.l_whence = SEEK_SET;
  facts.known = fcntl(fd.get(), F_GETLK, &request) == 0;
  facts.alive = facts.known && request.l_type != F_UNLCK;
  return facts;
}

}  // namespace

bool systemFailed(int error) noexcept {
  switch (error) {
    case 0:
    case ENOENT:
    case ENOTDIR:
    case EISDIR:
    case EINVAL:  // a directory, a FIFO
    case ELOOP:   // a symbolic link
    case ENXIO:   // a socket
      return false;
    default:
      return true;
  }
}

void requireReadable(Sable::Platform::DebugHandler& handler, const std::string& path) {
  const TableFacts facts(handler, path);
  const std::pair<const char*, int> files[] = {{"slots", facts.slots.error},
                                               {"buckets", facts.buckets.error},
                                               {"conquer.1", facts.queues[0].error},
                                               {"conquer.2", facts.queues[1].error}};
  for (const auto& [name, error] : files) {
    if (!systemFailed(error)) continue;
    throw Failure(ExitStatus::refused,
                  "cannot read " + printable(path) + "/" + name + ": " + std::strerror(error));
  }
  static_cast<void>(Quill::FenixFile::readKnown(handler, path));
}

bool SlotsFacts::identified() const noexcept {
  return error == 0 && bytes >= kSlotsHeader && magic == "QUILLSLT" && version == kSlotsVersion &&
         hash == computedHash;
}

TableFacts::TableFacts(Sable::Platform::DebugHandler& handler, const std::string& directory) {
  const Quill::RootPath root(handler, directory, true);
  path = root.rootPath();
  name = root.quillName();
  slots = slotsFacts(root.filePath("slots"));
  buckets = bucketsFacts(root.filePath("buckets"));
  queues = {queueFacts(root.filePath("conquer.1")), queueFacts(root.filePath("conquer.2"))};
  fenix = Quill::FenixFile::read(handler, path);
  owner = ownerFacts(handler, path);
  corruptionReport = Quill::Util::fileRead(handler, root.filePath("corruption-detected"), false);
}

bool TableFacts::exists() const noexcept {
  const auto absent = [](const FileFacts& file) {
    return file.error == ENOENT || file.error == ENOTDIR;
  };
  return !absent(slots) || !absent(buckets) || !absent(queues[0]) || !absent(queues[1]) ||
         fenix != 0;
}

std::string TableFacts::ownerText() const {
  if (owner.pid == 0) return "nobody known";
  return printable(owner.name) + " (process " + std::to_string(owner.pid) + ")";
}

}  // namespace Quillctl
