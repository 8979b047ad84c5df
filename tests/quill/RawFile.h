// SPDX-License-Identifier: Apache-2.0
//
// A file seen by offsets alone, as somebody else's program would see it: for tests that look at the
// store's files, or spoil them, without the store's own code.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>

namespace QuillTest {

class RawFile {
 public:
  explicit RawFile(std::string path) : path_(std::move(path)) {}

  std::uint32_t u32(std::uint64_t offset) const { return read<std::uint32_t>(offset); }
  std::uint64_t u64(std::uint64_t offset) const { return read<std::uint64_t>(offset); }
  void u32Is(std::uint64_t offset, std::uint32_t value) const { write(offset, value); }
  void u64Is(std::uint64_t offset, std::uint64_t value) const { write(offset, value); }
  std::string bytes(std::uint64_t offset, std::size_t size) const {
    std::string text(size, '\0');
    const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(pread(fd, text.data(), size, static_cast<off_t>(offset)), static_cast<ssize_t>(size))
        << path_;
    close(fd);
    return text;
  }
  std::string all() const { return bytes(0, size()); }
  std::size_t size() const { return static_cast<std::size_t>(std::filesystem::file_size(path_)); }

 private:
  template <class T>
  T read(std::uint64_t offset) const {
    T value{};
    const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(pread(fd, &value, sizeof value, static_cast<off_t>(offset)),
              static_cast<ssize_t>(sizeof value))
        << path_ << " at " << offset;
    close(fd);
    return value;
  }
  template <class T>
  void write(std::uint64_t offset, T value) const {
    const int fd = open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(pwrite(fd, &value, sizeof value, static_cast<off_t>(offset)),
              static_cast<ssize_t>(sizeof value))
        << path_ << " at " << offset;
    close(fd);
  }

  std::string path_;
};

// The text of the exception of kind `Exception` that `action` raises; what else happened otherwise.
template <class Exception, class Action>
std::string textOfRaised(Action&& action) {
  try {
    action();
  } catch (const Exception& exception) {
    return exception.msg();
  } catch (const std::exception& exception) {
    return std::string("another exception: ") + exception.what();
  }
  return "nothing raised";
}

}  // namespace QuillTest
