// SPDX-License-Identifier: Apache-2.0
#include "quill/FenixFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#include "quill/Exceptions.h"
#include "quill/Text.h"
#include "quill/Util.h"

namespace Quill {

namespace {

constexpr std::string_view kIntroduction = "quill-fenix 1 ";
constexpr std::size_t kDigits = 8;

// The id in a file's text, 0 for none.
unsigned idOf(std::string_view text) {
  if (text.size() != kIntroduction.size() + kDigits + 1 || !text.starts_with(kIntroduction) ||
      text.back() != '\n') {
    return 0;
  }
  unsigned id = 0;
  for (const char c : text.substr(kIntroduction.size(), kDigits)) {
    const std::size_t digit = std::string_view("0123456789abcdef").find(c);
    if (digit == std::string_view::npos) return 0;
    id = id << 4 | static_cast<unsigned>(digit);
  }
  return id;
}

}  // namespace

unsigned FenixFile::read(Sable::Platform::DebugHandler& handler, const std::string& rootPath) {
  return idOf(Util::fileRead(handler, rootPath + "/fenix", false));
}

unsigned FenixFile::readKnown(Sable::Platform::DebugHandler& handler, const std::string& rootPath) {
  int error = 0;
  const unsigned id = idOf(Util::fileRead(handler, rootPath + "/fenix", false, error));
  switch (error) {
    case 0:
    case ENOENT:
    case ENOTDIR:
    case EINVAL:  // a directory, a FIFO
    case ELOOP:   // a symbolic link
    case ENXIO:   // a socket
      return id;
    default:
      raise<Sable::InvalidInitializeException>("FenixFile::read() cannot read ", rootPath,
                                               "/fenix: ", std::strerror(error));
  }
}

void FenixFile::write(Sable::Platform::DebugHandler& handler, const std::string& rootPath,
                      unsigned id) {
  std::array<char, kDigits + 1> digits{};
  std::snprintf(digits.data(), digits.size(), "%08x", id);
  const std::string text = std::string(kIntroduction) + digits.data() + '\n';
  if (const int error = Util::fileReplace(rootPath, "fenix", text); error != 0) {
    handler.trace(7,
                  [&](std::ostream& os) { os << "FenixFile::write() " << std::strerror(error); });
    raise<Sable::InvalidInitializeException>("FenixFile::write() cannot write ", rootPath,
                                             "/fenix: ", std::strerror(error));
  }
}

std::vector<unsigned> FenixFile::idsIn(const std::string& rootPath) {
  std::vector<unsigned> ids;
  for (const char* const name : {"/slots", "/buckets", "/conquer.1", "/conquer.2"}) {
    const std::string path = rootPath + name;
    struct stat status {};
    const auto failed = [&path] {
      raise<Sable::InvalidInitializeException>("FenixFile::idsIn() cannot read ", path, ": ",
                                               std::strerror(errno));
    };
    if (lstat(path.c_str(), &status) != 0) {
      if (errno != ENOENT && errno != ENOTDIR) failed();
      continue;
    }
    if (!S_ISREG(status.st_mode) || status.st_size == 0) continue;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) failed();
    std::array<std::uint32_t, 4> beginning{};  // the id is the last word, in each of them
    auto* const bytes = reinterpret_cast<char*>(beginning.data());
    std::size_t have = 0;
    ssize_t got = 1;
    while (got != 0 && have < sizeof beginning) {
      got = ::read(fd, bytes + have, sizeof beginning - have);
      if (got < 0 && errno != EINTR) break;
      have += got < 0 ? 0 : static_cast<std::size_t>(got);
    }
    const int error = errno;
    close(fd);
    errno = error;
    if (got < 0) failed();
    ids.push_back(have == sizeof beginning ? beginning.back() : 0);
  }
  return ids;
}

void FenixFile::validate(Sable::Platform::DebugHandler& handler, const std::string& rootPath,
                         unsigned id) {
  const unsigned stored = readKnown(handler, rootPath);
  if (stored == id) return;
  raise<CorruptionDetectedException>("FenixFile::validate() ", rootPath, "/fenix holds ", stored,
                                     " wanted:", id);
}

}  // namespace Quill
