// SPDX-License-Identifier: Apache-2.0
#include "quill/ConquerTable.h"

#include "quill/Exceptions.h"
#include "quill/SlotTable.h"
#include "quill/Text.h"

namespace Quill {

bool Conquer::Header::validate(std::uint32_t fileSize, std::uint32_t wantedFenix,
                               std::string& message) const {
  const auto wrong = [&message](const auto&... parts) {
    message = textOf(parts...);
    return false;
  };
  if (fileSize < kHeaderSize) {
    return wrong("ConquerTable::validate() bad header file size: ", fileSize,
                 " wanted:", kHeaderSize);
  }
  // [O11] The first three are stored once, before `fenix` is written to disk.
  const std::uint64_t foundMagic = magic.load(Mem::relaxed);
  if (foundMagic != Detail::magicWord(kMagic)) {
    return wrong("ConquerTable::validate() bad magic: ", std::hex, foundMagic);
  }
  const std::uint32_t foundVersion = version.load(Mem::relaxed);
  if (foundVersion != kVersion) {
    return wrong("ConquerTable::validate() bad version: ", foundVersion,
                 " conquer version: ", kVersion);
  }
  const std::uint32_t foundFenix = fenix.load(Mem::relaxed);
  if (foundFenix != wantedFenix) {
    return wrong("ConquerTable::validate() bad fenix:", foundFenix, " wanted:", wantedFenix);
  }
  const std::uint32_t notifications = table.notifications.load(Mem::relaxed).value;
  if (const std::uint64_t wanted = Conquer::fileSize(notifications); fileSize < wanted) {
    return wrong("ConquerTable::validate() bad shmem size:", fileSize, " wanted:", wanted, " for ",
                 notifications, " notifications");
  }
  const std::uint32_t id = currentTable.load(Mem::relaxed).value;
  if (id > secondary) return wrong("ConquerTable::validate() bad tableId:", id);
  return true;
}

Conquer::Conquer(Sable::Platform::DebugHandler& handler, const RootPath& root, bool localMem)
    : Debuggable(handler),
      conquerRoot_(&root),
      mems_{QuillMem(handler, root, "conquer.1", localMem),
            QuillMem(handler, root, "conquer.2", localMem)} {}

void Conquer::getTable() {
  // [O9] Acquire: what the writer copied into the table is visible with the switch to it. Pairs
  // with the release of currentTable in ConquerWriter::compact().
  const Mem::VerU32 word = headers_[primary]->currentTable.load(Mem::acquire);
  if (word.value > secondary) {
    raise<CorruptionDetectedException>("ConquerTable::getTable() bad tableId: ", word.value);
  }
  currentTable_ = word;
  current_ = tables_[word.value];
  other_ = tables_[(word.value + 1) & 1];
}

void Conquer::regionIs(ConquerTableId id, void* base) noexcept {
  headers_[id] = static_cast<Header*>(base);
  tables_[id] = base == nullptr ? nullptr : &headers_[id]->table;
}

void Conquer::detachRegions() {
  for (const ConquerTableId id : {primary, secondary}) {
    mems_[id].detach();
    regionIs(id, nullptr);
  }
  currentTable_ = {};
  current_ = nullptr;
  other_ = nullptr;
}

void Conquer::traceHeader(const Header& header) const {
  trace(9, [&](std::ostream& os) {
    os << "ConquerTable::Header() magic:" << std::hex << header.magic.load(Mem::relaxed) << std::dec
       << " version:" << header.version.load(Mem::relaxed)
       << " fenix:" << header.fenix.load(Mem::relaxed)
       << " numReaders:" << header.numReaders.load(Mem::relaxed)
       << " currentTable:" << header.currentTable.load(Mem::relaxed)
       << " notifications:" << header.table.notifications.load(Mem::relaxed)
       << " currentPos:" << header.table.currentPos.load(Mem::relaxed);
  });
}

}  // namespace Quill
