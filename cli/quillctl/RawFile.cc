// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/RawFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace Quillctl {

RawFile::RawFile(const std::string& path)
    : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY)) {
  struct stat status {};
  if (!fd_ || fstat(fd_.get(), &status) != 0) {
    error_ = errno;
  } else if (!S_ISREG(status.st_mode)) {
    error_ = EINVAL;
  } else {
    size_ = static_cast<std::uint64_t>(status.st_size);
  }
}

std::string RawFile::bytes(std::uint64_t offset, std::size_t count) const {
  std::string text(count, '\0');
  std::size_t had = 0;
  while (had < count && opened()) {
    const ssize_t got =
        pread(fd_.get(), text.data() + had, count - had, static_cast<off_t>(offset + had));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) error_ = errno;
    if (got <= 0) break;
    had += static_cast<std::size_t>(got);
  }
  text.resize(had);
  return text;
}

}  // namespace Quillctl
