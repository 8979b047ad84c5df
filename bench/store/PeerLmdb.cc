// SPDX-License-Identifier: Apache-2.0
//
// LMDB: a B+ tree in a file that processes map, the file in memory and never synchronised with a
// disk. One transaction for each read (the same one, renewed, as its documentation advises), one
// commit for each change.
#include <lmdb.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "bench/store/Contestant.h"

namespace StoreBench {
namespace {

void check(int error) {
  if (error == 0) return;
  std::fprintf(stderr, "StoreBench: LMDB: %s\n", mdb_strerror(error));
  std::exit(1);
}

class LmdbTable {
 public:
  // A commit takes microseconds.
  static constexpr std::size_t kWrites = 100'000;

  explicit LmdbTable(std::size_t count) {
    check(mdb_env_create(&environment_));
    check(mdb_env_set_mapsize(environment_, (std::size_t{16} << 20) + 512 * count));
    check(
        mdb_env_open(environment_, name_.c_str(), MDB_NOSUBDIR | MDB_NOSYNC | MDB_WRITEMAP, 0600));
    MDB_txn* const write = begin(0);
    check(mdb_dbi_open(write, nullptr, 0, &table_));
    check(mdb_txn_commit(write));
    read_ = begin(MDB_RDONLY);
    mdb_txn_reset(read_);
  }
  LmdbTable(const LmdbTable&) = delete;
  LmdbTable& operator=(const LmdbTable&) = delete;
  ~LmdbTable() {
    mdb_txn_abort(read_);
    mdb_env_close(environment_);
    std::filesystem::remove(name_);
    std::filesystem::remove(name_ + "-lock");
  }
  void load(const Keys& keys) {
    MDB_txn* const write = begin(0);
    for (std::uint32_t place = 0; place < keys.count(); ++place) {
      put(write, {keys.byPlace[place], place, 0, 0});
    }
    check(mdb_txn_commit(write));
  }
  void insert(std::uint32_t place, const IntfId& key) { store({key, place, 0, 0}); }
  const Record* lookup(std::uint32_t, const IntfId& key) {
    check(mdb_txn_renew(read_));
    MDB_val name = valueOf(key);
    MDB_val value;
    const int answer = mdb_get(read_, table_, &name, &value);
    if (answer == 0) std::memcpy(&copy_, value.mv_data, sizeof copy_);
    mdb_txn_reset(read_);
    return answer == 0 ? &copy_ : nullptr;
  }
  void update(std::uint32_t, const IntfId& key, std::uint32_t value) {
    store({key, value, value, value});
  }
  void remove(std::uint32_t, const IntfId& key) {
    MDB_txn* const write = begin(0);
    MDB_val name = valueOf(key);
    check(mdb_del(write, table_, &name, nullptr));
    check(mdb_txn_commit(write));
  }
  template <class Visit>
  void iterate(const Visit& visit) {
    check(mdb_txn_renew(read_));
    MDB_cursor* cursor = nullptr;
    check(mdb_cursor_open(read_, table_, &cursor));
    MDB_val name;
    MDB_val value;
    while (mdb_cursor_get(cursor, &name, &value, MDB_NEXT) == 0) {
      std::memcpy(&copy_, value.mv_data, sizeof copy_);
      visit(copy_);
    }
    mdb_cursor_close(cursor);
    mdb_txn_reset(read_);
  }
  // Pages of the tree that are in use.
  std::size_t bytes() {
    check(mdb_txn_renew(read_));
    MDB_stat tree;
    check(mdb_stat(read_, table_, &tree));
    mdb_txn_reset(read_);
    return (tree.ms_branch_pages + tree.ms_leaf_pages + tree.ms_overflow_pages) * tree.ms_psize;
  }

 private:
  template <class T>
  static MDB_val valueOf(const T& value) {
    return {sizeof value, const_cast<T*>(&value)};
  }
  MDB_txn* begin(unsigned flags) {
    MDB_txn* made = nullptr;
    check(mdb_txn_begin(environment_, nullptr, flags, &made));
    return made;
  }
  void put(MDB_txn* write, const Record& record) {
    MDB_val name = valueOf(record.key);
    MDB_val value = valueOf(record);
    check(mdb_put(write, table_, &name, &value, 0));
  }
  void store(const Record& record) {
    MDB_txn* const write = begin(0);
    put(write, record);
    check(mdb_txn_commit(write));
  }

  const std::string name_ = tableRoot() + "/lmdb";
  MDB_env* environment_ = nullptr;
  MDB_dbi table_ = 0;
  MDB_txn* read_ = nullptr;
  Record copy_;
};

const bool registered = registerTable<LmdbTable>("lmdb");

}  // namespace
}  // namespace StoreBench
