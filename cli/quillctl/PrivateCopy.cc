// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/PrivateCopy.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <new>

#include "cli/quillctl/Failure.h"
#include "cli/quillctl/RawFile.h"
#include "cli/quillctl/Texts.h"
#include "platform/linux/Fd.h"

namespace Quillctl {

namespace {

constexpr std::size_t kBlock = 65'536;
constexpr std::uint64_t kMaxFile = 0xFFFFFFFFU;  // sizes of a table's files are 32-bit numbers

[[noreturn]] void refuse(const std::string& what, int error) {
  throw Failure(ExitStatus::refused, "cannot " + what + ": " + std::strerror(error));
}

}  // namespace

PrivateCopy::PrivateCopy(const TableFacts& facts) {
  // The six X are for mkdtemp(3) to fill in.
  std::string pattern = (std::filesystem::temp_directory_path() / "quillctl-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) refuse("make " + pattern, errno);
  directory_ = pattern;
  table_ = directory_ + "/table";
  try {
    if (mkdir(table_.c_str(), S_IRWXU) != 0) refuse("make " + table_, errno);
    for (const char* const name : {"fenix", "slots", "buckets", "conquer.1", "conquer.2"}) {
      copyIn(facts.path, name);
    }
  } catch (...) {
    remove();
    throw;
  }
}

PrivateCopy::~PrivateCopy() { remove(); }

void PrivateCopy::remove() const noexcept {
  // Twice: the first may find no memory when the second does.
  for (int attempt = 0; attempt < 2; ++attempt) {
    try {
      std::error_code ignored;
      std::filesystem::remove_all(directory_, ignored);
      return;
    } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): the copy stays
    }
  }
}

void PrivateCopy::copyIn(const std::string& path, const std::string& name) const {
  const std::string source = path + "/" + name;
  const RawFile from(source);
  if (from.error() == ENOENT) return;
  if (!from.opened()) refuse("read " + printable(source), from.error());
  if (from.size() > kMaxFile) {
    throw Failure(ExitStatus::damaged, "the file " + name + " has " + std::to_string(from.size()) +
                                           " bytes; no table's file has more than " +
                                           std::to_string(kMaxFile));
  }
  const std::string target = table_ + "/" + name;
  const Platform::Linux::Fd to(
      open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!to || ftruncate(to.get(), static_cast<off_t>(from.size())) != 0) {
    refuse("write " + target, errno);
  }
  for (std::uint64_t at = 0; at < from.size();) {
    const std::string block = from.bytes(at, kBlock);
    if (from.error() != 0) refuse("read " + printable(source), from.error());
    if (block.empty()) break;  // it has become shorter; the check finds that
    const bool hole = std::all_of(block.begin(), block.end(), [](char c) { return c == '\0'; });
    if (!hole && pwrite(to.get(), block.data(), block.size(), static_cast<off_t>(at)) !=
                     static_cast<ssize_t>(block.size())) {
      refuse("write " + target, errno == 0 ? ENOSPC : errno);
    }
    at += block.size();
  }
}

}  // namespace Quillctl
