// SPDX-License-Identifier: Apache-2.0
#include "quill/RootPath.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "quill/Text.h"
#include "runtime/sable/Exceptions.h"

namespace Quill {

namespace {

constexpr std::size_t kMaxFileName = 255;  // NAME_MAX of every usual file system
constexpr mode_t kDirectoryMode = 0755;
constexpr std::string_view kHexDigits = "0123456789ABCDEF";

bool standsForItself(char c, bool first) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-' || (c == '.' && !first);
}

// Whether a component of `path` is "..".
bool climbs(std::string_view path) {
  for (std::size_t at = 0; at <= path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    if (path.substr(at, end - at) == "..") return true;
    at = end + 1;
  }
  return false;
}

std::string encodedBytes(std::string_view name) {
  std::string encoded;
  for (const char c : name) {
    if (standsForItself(c, encoded.empty())) {
      encoded += c;
    } else if (c == '/') {
      encoded += ':';
    } else {
      const auto byte = static_cast<unsigned char>(c);
      encoded += '%';
      encoded += kHexDigits[byte >> 4];
      encoded += kHexDigits[byte & 0xf];
    }
  }
  return encoded;
}

}  // namespace

std::string defaultRoot() {
  const char* const root = secure_getenv("QUILL_ROOT");
  return root != nullptr && root[0] == '/' ? root : "/run/ringward/tables";
}

std::string encodedName(std::string_view name) {
  if (name.empty()) raise<Sable::InvalidInitializeException>("table name is empty");
  std::string encoded = encodedBytes(name);
  if (encoded.size() > kMaxFileName) {
    raise<Sable::InvalidInitializeException>("table name ", name.substr(0, 64), "... of ",
                                             name.size(), " bytes: its file name is longer than ",
                                             kMaxFileName, " bytes");
  }
  return encoded;
}

std::string decodedName(std::string_view fileName) {
  std::string name;
  for (std::size_t i = 0; i < fileName.size(); ++i) {
    if (fileName[i] == ':') {
      name += '/';
    } else if (fileName[i] == '%') {
      if (i + 2 >= fileName.size()) return {};
      const std::size_t high = kHexDigits.find(fileName[i + 1]);
      const std::size_t low = kHexDigits.find(fileName[i + 2]);
      if (high == std::string_view::npos || low == std::string_view::npos) return {};
      name += static_cast<char>(high << 4 | low);
      i += 2;
    } else {
      name += fileName[i];
    }
  }
  // Only what the encoding gives: the same name in another spelling is another directory.
  return !name.empty() && encodedBytes(name) == fileName ? name : "";
}

std::string tablePath(std::string_view root, std::string_view name) {
  if (root.empty() || root.front() != '/') {
    raise<Sable::InvalidInitializeException>("table root ", root, ": must be an absolute path");
  }
  while (root.size() > 1 && root.back() == '/') root.remove_suffix(1);
  std::string path(root);
  if (path != "/") path += '/';
  return path + encodedName(name);
}

RootPath::RootPath(Sable::Platform::DebugHandler& handler, std::string_view fullName, bool shared)
    : Debuggable(handler), path_(fullName), name_(fullName) {
  if (!shared) return;
  if (fullName.empty() || fullName.front() != '/') {
    path_ = tablePath(defaultRoot(), fullName);
    return;
  }
  while (path_.size() > 1 && path_.back() == '/') path_.pop_back();
  if (path_ == "/" || climbs(path_) || path_.find('\0') != std::string::npos) {
    raise<Sable::InvalidInitializeException>(
        "table path ", fullName, ": must be a directory's absolute path without \"..\"");
  }
  const std::string last = path_.substr(path_.rfind('/') + 1);
  name_ = decodedName(last);
  if (name_.empty()) name_ = last;
}

std::string RootPath::filePath(std::string_view fileName) const {
  std::string path = path_;
  path += '/';
  path += fileName;
  return path;
}

void RootPath::makeDirectory() const {
  for (std::size_t end = path_.find('/', 1); true; end = path_.find('/', end + 1)) {
    const std::string above = path_.substr(0, end);
    if (mkdir(above.c_str(), kDirectoryMode) == 0) {
      static_cast<void>(chmod(above.c_str(), kDirectoryMode));  // the umask may have taken bits
    } else if (errno != EEXIST) {
      raise<Sable::InvalidInitializeException>("cannot make the table directory ", above, ": ",
                                               std::strerror(errno));
    }
    if (end == std::string::npos) return;
  }
}

void RootPath::removeFile(std::string_view fileName) const {
  const std::string path = filePath(fileName);
  if (unlink(path.c_str()) == 0 || errno == ENOENT) return;
  const int error = errno;
  trace(7, [&](std::ostream& os) {
    os << "RootPath::removeFile() " << path << ": " << std::strerror(error);
  });
}

void RootPath::cleanup() const {
  std::vector<std::string> left;
  if (const std::unique_ptr<DIR, int (*)(DIR*)> directory{opendir(path_.c_str()), &closedir}) {
    while (const dirent* const entry = readdir(directory.get())) {
      const std::string_view name = entry->d_name;
      if (name == "kick" || (name.starts_with('.') && name.ends_with(".new")))
        left.emplace_back(name);
    }
  }
  for (const std::string& name : left) removeFile(name);
  // The last: from here on another writer may be at home here, and keep the directory.
  removeFile("lock");
  if (rmdir(path_.c_str()) == 0 || errno == ENOENT) return;
  const int error = errno;
  trace(7, [&](std::ostream& os) {
    os << "RootPath::cleanup() " << path_ << ": " << std::strerror(error);
  });
}

}  // namespace Quill
