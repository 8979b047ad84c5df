// SPDX-License-Identifier: Apache-2.0
//
// tkrzw's TinyDBM: a hash table in the memory of one process, for several threads, which is written
// to its file when it is closed; the file lies in memory as well.
#include <tkrzw_dbm_tiny.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "bench/store/Contestant.h"

namespace StoreBench {
namespace {

void check(const tkrzw::Status& status) {
  if (status.IsOK()) return;
  std::fprintf(stderr, "StoreBench: TinyDBM: %s\n", status.GetMessage().c_str());
  std::exit(1);
}

template <class T>
std::string_view bytesOf(const T& value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

class TkrzwTable {
 public:
  explicit TkrzwTable(std::size_t count) : table_(static_cast<std::int64_t>(count)) {
    check(table_.Open(name_, true, tkrzw::File::OPEN_TRUNCATE));
  }
  TkrzwTable(const TkrzwTable&) = delete;
  TkrzwTable& operator=(const TkrzwTable&) = delete;
  ~TkrzwTable() {
    table_.Close();
    std::filesystem::remove(name_);
  }
  void insert(std::uint32_t place, const IntfId& key) { store({key, place, 0, 0}); }
  const Record* lookup(std::uint32_t, const IntfId& key) {
    if (!table_.Get(bytesOf(key), &value_).IsOK() || value_.size() != sizeof copy_) return nullptr;
    std::memcpy(&copy_, value_.data(), sizeof copy_);
    return &copy_;
  }
  void update(std::uint32_t, const IntfId& key, std::uint32_t value) {
    store({key, value, value, value});
  }
  void remove(std::uint32_t, const IntfId& key) { check(table_.Remove(bytesOf(key))); }
  template <class Visit>
  void iterate(const Visit& visit) {
    Processor<Visit> processor(visit);
    check(table_.ProcessEach(&processor, false));
  }

 private:
  template <class Visit>
  class Processor final : public tkrzw::DBM::RecordProcessor {
   public:
    explicit Processor(const Visit& visit) : visit_(visit) {}
    std::string_view ProcessFull(std::string_view, std::string_view value) override {
      Record record;
      if (value.size() == sizeof record) {
        std::memcpy(&record, value.data(), sizeof record);
        visit_(record);
      }
      return NOOP;
    }

   private:
    const Visit& visit_;
  };

  void store(const Record& record) { check(table_.Set(bytesOf(record.key), bytesOf(record))); }

  const std::string name_ = tableRoot() + "/tkrzw";
  tkrzw::TinyDBM table_;
  std::string value_;
  Record copy_;
};

const bool registered = registerTable<TkrzwTable>("tkrzw");

}  // namespace
}  // namespace StoreBench
