// SPDX-License-Identifier: Apache-2.0
#include "tests/quill/kills/Image.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <set>
#include <stdexcept>

namespace QuillTest {

namespace {

constexpr std::string_view kSocket = "\1socket";

[[noreturn]] void failed(const std::string& path) {
  throw std::runtime_error(path + ": " + std::strerror(errno));
}

std::string contentsOfFile(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) failed(path);
  std::string bytes;
  struct stat status {};
  fstat(fd, &status);
  bytes.resize(static_cast<std::size_t>(status.st_size));
  const ssize_t got = pread(fd, bytes.data(), bytes.size(), 0);
  close(fd);
  if (got != static_cast<ssize_t>(bytes.size())) failed(path);
  return bytes;
}

void putFile(const std::string& path, const std::string& bytes) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) failed(path);
  const auto size = static_cast<off_t>(bytes.size());
  struct stat status {};
  fstat(fd, &status);
  const bool done = (status.st_size == size || ftruncate(fd, size) == 0) &&
                    pwrite(fd, bytes.data(), bytes.size(), 0) == size;
  close(fd);
  if (!done) failed(path);
}

// An id that a process made of its own number becomes 1.
std::uint32_t sameEverywhere(std::uint32_t id) {
  return id == 0 || id >> 16 == Image::kFenix >> 16 ? id : 1;
}

}  // namespace

Image Image::of(const std::string& directory) {
  Image image;
  const std::unique_ptr<DIR, int (*)(DIR*)> open(opendir(directory.c_str()), closedir);
  if (open == nullptr) return image;
  while (const dirent* const entry = readdir(open.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == ".." || name == "lock") continue;
    unsigned file = 0;
    while (file < 4 && name != kNames[file]) ++file;
    const std::string path = directory + "/" + name;
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) failed(path);
    std::string bytes(kSocket);
    if (!S_ISSOCK(status.st_mode)) bytes = contentsOfFile(path);
    if (file < 4) {
      image.mapped_[file] = std::move(bytes);
    } else {
      image.others_[name] = std::move(bytes);
    }
  }
  return image;
}

void Image::put(const std::string& directory) const {
  mkdir(directory.c_str(), 0755);
  const std::unique_ptr<DIR, int (*)(DIR*)> open(opendir(directory.c_str()), closedir);
  if (open == nullptr) failed(directory);
  std::set<std::string> there;
  while (const dirent* const entry = readdir(open.get())) there.insert(entry->d_name);
  for (const std::string& name : there) {
    if (name == "." || name == ".." || name == "lock" || others_.contains(name)) continue;
    unsigned file = 0;
    while (file < 4 && name != kNames[file]) ++file;
    if (file < 4 && mapped_[file]) continue;
    unlink((directory + "/" + name).c_str());
  }
  for (unsigned file = 0; file < 4; ++file) {
    if (mapped_[file]) putFile(directory + "/" + kNames[file], *mapped_[file]);
  }
  for (const auto& [name, bytes] : others_) {
    const std::string path = directory + "/" + name;
    if (bytes == kSocket) {
      if (!there.contains(name) && mknod(path.c_str(), S_IFSOCK | 0666, 0) != 0) failed(path);
    } else {
      putFile(path, bytes);
    }
  }
}

std::uint64_t Image::hash() const {
  std::uint64_t h = 0xcbf29ce484222325U;
  const auto add = [&h](const void* bytes, std::size_t size) {
    const auto* const from = static_cast<const unsigned char*>(bytes);
    std::size_t i = 0;
    for (; i + 8 <= size; i += 8) {
      std::uint64_t word = 0;
      std::memcpy(&word, from + i, 8);
      h = (h ^ word) * 0x9FB21C651E98DF25U;
      h ^= h >> 29;
    }
    for (; i < size; ++i) h = (h ^ from[i]) * 0x100000001b3U;
  };
  for (unsigned file = 0; file < 4; ++file) {
    const std::uint64_t size = mapped_[file] ? mapped_[file]->size() : UINT64_MAX;
    add(&size, sizeof size);
    if (!mapped_[file]) continue;
    std::string bytes = *mapped_[file];
    if (bytes.size() >= 24) {
      std::uint32_t id = 0;
      std::memcpy(&id, &bytes[12], 4);
      id = sameEverywhere(id);
      std::memcpy(&bytes[12], &id, 4);
      if (file == buckets) std::memset(&bytes[20], 0, 4);  // the writer's process
    }
    add(bytes.data(), bytes.size());
  }
  const std::uint32_t id = sameEverywhere(fenix());
  add(&id, sizeof id);
  return h;
}

std::uint32_t Image::fenix() const {
  const auto found = others_.find("fenix");
  if (found == others_.end() || found->second.size() != 23) return 0;
  return static_cast<std::uint32_t>(std::stoul(found->second.substr(14, 8), nullptr, 16));
}

}  // namespace QuillTest
