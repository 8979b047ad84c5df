// SPDX-License-Identifier: Apache-2.0
#include "agent/ConfigurationReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "agent/ConfigurationKeys.h"
#include "agent/Toml.h"
#include "runtime/vex/Exception.h"

namespace Agent {

namespace {

ConfigurationResult failure(const std::string& file, std::string text, std::uint32_t line = 0,
                            std::uint32_t column = 0) {
  return ConfigurationResult(std::vector<ConfigurationError>{
      {plainText(file), line, column, std::string(), std::move(text)}});
}

// A failure at the byte `offset` of the content.
ConfigurationResult failureAt(const std::string& file, std::string_view content, std::size_t offset,
                              std::string text) {
  const std::string_view before = content.substr(0, offset);
  const auto line = 1 + std::count(before.begin(), before.end(), '\n');
  const std::size_t lineStart = before.rfind('\n') + 1;  // npos + 1 is 0: the first line
  const auto column =
      1 + std::count_if(before.begin() + static_cast<std::ptrdiff_t>(lineStart), before.end(),
                        [](char c) { return (static_cast<unsigned char>(c) & 0xC0u) != 0x80u; });
  return failure(file, std::move(text), static_cast<std::uint32_t>(line),
                 static_cast<std::uint32_t>(column));
}

std::string sizeText() {
  return "larger than the limit of " + std::to_string(kMaxConfigurationSize) + " bytes";
}

// A file descriptor that closes itself.
class File {
 public:
  // O_NONBLOCK: the open of a FIFO would wait for its writer. Regular files ignore it.
  explicit File(const std::string& path)
      : descriptor_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK)) {}
  ~File() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  int descriptor() const { return descriptor_; }

 private:
  const int descriptor_;
};

}  // namespace

std::string toText(const ConfigurationError& error) {
  std::string text = error.file + ':';
  if (error.line != 0) text += std::to_string(error.line) + ':';
  if (error.line != 0 && error.key.empty()) text += std::to_string(error.column) + ':';
  if (!error.key.empty()) text += ' ' + error.key + ':';
  return text + ' ' + error.text;
}

ConfigurationResult::ConfigurationResult(Configuration configuration)
    : value_(std::move(configuration)) {}

ConfigurationResult::ConfigurationResult(std::vector<ConfigurationError> errors)
    : value_(std::move(errors)) {
  VEX_ASSERT(!this->errors().empty());
}

const Configuration& ConfigurationResult::configuration() const {
  VEX_ASSERT(ok());
  return *std::get_if<Configuration>(&value_);
}

const std::vector<ConfigurationError>& ConfigurationResult::errors() const {
  VEX_ASSERT(!ok());
  return *std::get_if<std::vector<ConfigurationError>>(&value_);
}

ConfigurationResult parseConfiguration(std::string_view content, const std::string& file) {
  if (content.size() > kMaxConfigurationSize) return failure(file, sizeText());
  const std::size_t nul = content.find('\0');
  if (nul != std::string_view::npos) {
    return failureAt(file, content, nul, "a NUL byte; allowed: UTF-8 text");
  }
  std::size_t dots = 0;
  for (std::size_t i = 0; i < content.size(); ++i) {
    if (content[i] == '.' && ++dots > kMaxConfigurationDots) {
      return failureAt(file, content, i,
                       "too many dots; allowed: " + std::to_string(kMaxConfigurationDots) +
                           " in the whole file");
    }
  }
  try {
    const toml::table root = toml::parse(content);
    return readKeys(root, file);
  } catch (const toml::parse_error& error) {
    const toml::source_position& where = error.source().begin;
    std::string text = "not valid TOML: " + plainText(error.description());
    // The parser knows no keys, so that the range of this one cannot be named.
    if (error.description().find("not representable in 64 bits") != std::string_view::npos) {
      text += "; allowed: at most 4294967295 for any key";
    }
    return failure(file, std::move(text), where.line, where.column);
  }
}

ConfigurationResult readConfiguration(const std::string& path) {
  const auto unreadable = [&path](int error) {
    return failure(path, "cannot read the file: " + std::generic_category().message(error));
  };
  const File file(path);
  if (file.descriptor() < 0) return unreadable(errno);
  struct stat status {};
  if (fstat(file.descriptor(), &status) != 0) return unreadable(errno);
  if (S_ISDIR(status.st_mode)) return unreadable(EISDIR);
  if (!S_ISREG(status.st_mode)) return failure(path, "not a regular file");

  // One byte more than allowed: the size in `status` may be old by now.
  std::string content(kMaxConfigurationSize + 1, '\0');
  std::size_t size = 0;
  while (size < content.size()) {
    const ssize_t count = read(file.descriptor(), content.data() + size, content.size() - size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return unreadable(errno);
    if (count == 0) break;
    size += static_cast<std::size_t>(count);
  }
  content.resize(size);
  return parseConfiguration(content, path);
}

}  // namespace Agent
