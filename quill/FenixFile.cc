// SPDX-License-Identifier: Apache-2.0
#include "quill/FenixFile.h"

#include <array>
#include <cerrno>
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

void FenixFile::validate(Sable::Platform::DebugHandler& handler, const std::string& rootPath,
                         unsigned id) {
  const unsigned stored = read(handler, rootPath);
  if (stored == id) return;
  raise<CorruptionDetectedException>("FenixFile::validate() ", rootPath, "/fenix holds ", stored,
                                     " wanted:", id);
}

}  // namespace Quill
