// SPDX-License-Identifier: Apache-2.0
//
// Fuzz::QuillTable: a table's directory as a fuzz target sees it: files in memory-backed storage
// that are put there whole, as one of a few shapes that the store itself has made, and spoilt by
// edits that know the fields of docs/formats.md. With it the record that the tables hold.
//
// One thread. The directory is private to the process and goes with it; a process that is killed
// leaves it, so a runner gives TMPDIR and removes that.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/Input.h"

namespace Fuzz {

// Keys of one thousand share a bucket, in their order.
struct TableKey {
  std::uint32_t number = 0;

  std::uint32_t hash() const noexcept { return number / 1000; }
  friend bool operator==(const TableKey&, const TableKey&) = default;
  friend auto operator<=>(const TableKey&, const TableKey&) = default;
};
inline std::ostream& operator<<(std::ostream& out, const TableKey& key) {
  return out << key.number;
}

struct TableRecord {
  static constexpr std::string_view kTypeName = "Fuzz::TableRecord";

  TableKey key;
  std::array<std::uint32_t, 4> data{};

  friend bool operator==(const TableRecord&, const TableRecord&) = default;
};
static_assert(sizeof(TableRecord) == 20);
inline std::ostream& operator<<(std::ostream& out, const TableRecord& record) {
  return out << record.key << ": " << record.data[0];
}
inline TableRecord tableRecord(std::uint32_t key, std::uint32_t number) {
  return {{key}, {number, number, number, number}};
}

// What a table holds, by key.
using TableContent = std::map<std::uint32_t, TableRecord>;

// The entries for which the tables of all shapes are made.
inline constexpr unsigned kTableSize = 100;
// The key of the n-th entry: a handful for each bucket.
constexpr std::uint32_t tableKey(std::uint32_t n) noexcept { return n / 5 * 1000 + n % 5; }

class QuillTable {
 public:
  // The files that a table may have, and how many of them are part of a shape.
  static constexpr std::array<const char*, 9> kFiles = {
      "slots",      "buckets", "conquer.1", "conquer.2", "fenix", "corruption-detected",
      "last-owner", "lock",    "kick"};
  static constexpr std::size_t kShapeFiles = 5;
  static constexpr std::size_t kMappedFiles = 4;

  struct Shape {
    std::array<std::string, kShapeFiles> files;
    TableContent content;
    bool takenOver = true;  // a writer that attaches keeps it
  };

  // Makes the directory and the shapes.
  QuillTable();
  QuillTable(const QuillTable&) = delete;
  QuillTable& operator=(const QuillTable&) = delete;
  ~QuillTable();

  // The table's own directory, and the root that holds it and nothing else.
  const std::string& path() const noexcept { return path_; }
  const std::string& root() const noexcept { return root_; }
  const std::vector<Shape>& shapes() const noexcept { return shapes_; }

  // Adds what stands there now, and removes it.
  void shapeAdd();

  // Removes what is there, at any depth.
  void clear() const;
  // The files of a shape, after clear().
  void put(const Shape& shape) const;
  // One edit, whatever stands there now.
  void edit(Input& input) const;
  // What stands in a file, 0 if nothing does.
  std::uint32_t u32(std::size_t file, std::uint64_t at) const;

 private:
  void makeShapes();
  Shape taken(TableContent content) const;
  // A field of docs/formats.md gets a number.
  void editField(Input& input, std::size_t file) const;
  void repairChecksum() const;
  void replace(Input& input, std::size_t file) const;
  std::string filePath(std::size_t file) const { return path_ + "/" + kFiles[file]; }

  std::string root_;
  std::string path_;
  std::vector<Shape> shapes_;
};

}  // namespace Fuzz
