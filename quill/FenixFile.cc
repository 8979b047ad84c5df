// SPDX-License-Identifier: Apache-2.0
#include "quill/FenixFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

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

bool FenixFile::othersIn(const std::string& rootPath, unsigned id) {
  constexpr off_t kIdOffset = 12;  // of each of them
  for (const char* const name : {"/slots", "/buckets", "/conquer.1", "/conquer.2"}) {
    const std::string path = rootPath + name;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) continue;
    struct stat status {};
    std::uint32_t found = 0;  // of a file that is too short for one
    const bool empty = fstat(fd, &status) != 0 || status.st_size == 0;
    if (pread(fd, &found, sizeof found, kIdOffset) != sizeof found) found = 0;
    close(fd);
    if (!empty && found != id) return true;
  }
  return false;
}

void FenixFile::validate(Sable::Platform::DebugHandler& handler, const std::string& rootPath,
                         unsigned id) {
  const unsigned stored = read(handler, rootPath);
  if (stored == id) return;
  raise<CorruptionDetectedException>("FenixFile::validate() ", rootPath, "/fenix holds ", stored,
                                     " wanted:", id);
}

}  // namespace Quill
