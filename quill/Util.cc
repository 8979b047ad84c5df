// SPDX-License-Identifier: Apache-2.0
#include "quill/Util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>
#include <mutex>

#include "quill/KickSocket.h"
#include "quill/Text.h"
#include "runtime/sable/Exceptions.h"

namespace Quill {

namespace {

constexpr mode_t kFileMode = 0644;

// The name of this program, as the kernel keeps it: up to 15 bytes, never with a line's end in it
// here.
std::string programName() {
  std::array<char, 64> name{};
  const int fd = open("/proc/self/comm", O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    const ssize_t got = read(fd, name.data(), name.size() - 1);
    close(fd);
    if (got > 0) {
      std::string text(name.data(), static_cast<std::size_t>(got));
      text.erase(std::find(text.begin(), text.end(), '\n'), text.end());
      if (!text.empty()) return text;
    }
  }
  return "unknown";
}

// Begun again if it is interrupted.
int openText(const std::string& path) {
  int fd;
  do {
    fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

bool writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t wrote = write(fd, text.data(), text.size());
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(wrote));
  }
  return true;
}

}  // namespace

void Util::encodeFenix(unsigned short pid, unsigned short instance, unsigned& out) noexcept {
  out = static_cast<unsigned>(pid) << 16 | instance;
  if (out == 0) out = 0xFFFFFFFFU;
}

Util::AutoLock::AutoLock(Sable::Platform::DebugHandler& handler, const RootPath& root, int held)
    : Debuggable(handler), taken_(-1) {
  if (held != -1) return;
  trace(8, [&](std::ostream& os) { os << "Util::AutoLock lock: " << held; });
  taken_ = acquireWriterLock(handler, root);
  if (taken_ == -1) {
    const int error = errno;
    if (error == EAGAIN || error == EACCES) {
      raise<Sable::InvalidInitializeException>("table ", root.rootPath(), " is owned by ",
                                               ownerText(handler, root.rootPath()));
    }
    raise<Sable::InvalidInitializeException>("cannot lock the table ", root.rootPath(), ": ",
                                             std::strerror(error));
  }
  trace(8, [&](std::ostream& os) { os << "Util::AutoLock lock acquired: " << taken_; });
}

Util::AutoLock::~AutoLock() {
  if (taken_ == -1) return;
  trace(8, [&](std::ostream& os) { os << "Util::~AutoLock releasing lock: " << taken_; });
  releaseWriterLock(debugHandler(), taken_);
}

int Util::writeOwner(const std::string& rootPath) {
  return fileReplace(rootPath, "last-owner", textOf(getpid(), " ", programName(), "\n"));
}

int Util::readOwnerPid(Sable::Platform::DebugHandler& handler, const std::string& rootPath,
                       std::string& ownerName) {
  ownerName.clear();
  std::string text = fileRead(handler, rootPath + "/last-owner", false);
  if (text.empty() || text.back() != '\n') return 0;
  text.pop_back();
  int pid = 0;
  const char* const end = text.data() + text.size();
  const auto [after, error] = std::from_chars(text.data(), end, pid);
  if (error != std::errc() || pid <= 0 || after == end || *after != ' ') return 0;
  ownerName.assign(after + 1, end);
  for (char& c : ownerName) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return pid;
}

std::string Util::ownerText(Sable::Platform::DebugHandler& handler, const std::string& rootPath) {
  std::string name;
  const int pid = readOwnerPid(handler, rootPath, name);
  return textOf(name, ":", pid);
}

std::string Util::fileRead(Sable::Platform::DebugHandler& handler, const std::string& path,
                           bool traceMissing) {
  int ignored = 0;
  return fileRead(handler, path, traceMissing, ignored);
}

std::string Util::fileRead(Sable::Platform::DebugHandler& handler, const std::string& path,
                           bool traceMissing, int& error) {
  std::string text;
  error = 0;
  {
    const KickDescriptor file(openText(path));
    struct stat status {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0) {
      error = errno;
    } else if (!S_ISREG(status.st_mode)) {
      error = EINVAL;
    } else {
      std::array<char, 4096> buffer{};
      while (text.size() < kMaxFileText) {
        const ssize_t got =
            read(file.get(), buffer.data(), std::min(buffer.size(), kMaxFileText - text.size()));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) error = errno;
        if (got <= 0) break;
        text.append(buffer.data(), static_cast<std::size_t>(got));
      }
    }
  }
  if (error != 0 && (error != ENOENT || traceMissing)) {
    handler.trace(7, [&](std::ostream& os) {
      os << "Util::fileRead() " << path << ": " << std::strerror(error);
    });
  }
  return error == 0 ? text : std::string();
}

int Util::fileReplace(const std::string& directory, std::string_view fileName,
                      std::string_view text) {
  // The process id keeps apart those who report to one directory at the same time.
  const std::string path = textOf(directory, "/", fileName);
  const std::string fresh = textOf(directory, "/.", fileName, ".", getpid(), ".new");
  const int fd =
      open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kFileMode);
  if (fd < 0) return errno;
  static_cast<void>(fchmod(fd, kFileMode));  // the umask may have taken bits away
  int error = writeAll(fd, text) ? 0 : errno;
  if (close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && rename(fresh.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) unlink(fresh.c_str());
  return error;
}

unsigned Util::memSize(Sable::Platform::DebugHandler&, const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return 0;
  constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<unsigned>::max());
  return static_cast<unsigned>(std::min(static_cast<std::uint64_t>(status.st_size), kMax));
}

void Util::writeCorruptionFile(Sable::Platform::DebugHandler& handler, const std::string& rootPath,
                               const std::string& message) noexcept {
  try {
    const auto text = std::string_view(message).substr(0, kMaxReport);
    const int error = fileReplace(rootPath, "corruption-detected", text);
    if (error == 0) return;
    handler.trace(7, [&](std::ostream& os) {
      os << "Util::writeCorruptionFile() " << rootPath << ": " << std::strerror(error);
    });
  } catch (...) {  // NOLINT(bugprone-empty-catch): a report that cannot be made is forgotten
  }
}

unsigned Util::hash(const char* bytes, unsigned size) noexcept {
  unsigned h = 0x811c9dc5U;
  for (unsigned i = 0; i < size; ++i) {
    h = (h ^ static_cast<unsigned char>(bytes[i])) * 0x01000193U;
  }
  h = (h ^ h >> 16) * 0x85ebca6bU;
  h = (h ^ h >> 13) * 0xc2b2ae35U;
  return h ^ h >> 16;
}

unsigned Util::hash(std::string_view text) noexcept {
  return hash(text.data(), static_cast<unsigned>(text.size()));
}

unsigned short Util::nextInstance(unsigned& counter) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  return static_cast<unsigned short>(counter++);
}

}  // namespace Quill
