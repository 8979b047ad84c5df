// SPDX-License-Identifier: Apache-2.0
//
// liburcu's lock-free hash table, inside one process, with the flavour of RCU whose readers pay
// nothing: quiescent states are reported after each pass. The table has its final size from the
// beginning. An update puts a new node in the place of the old one; what was replaced or removed is
// freed a thousand at a time, after a grace period.
#define URCU_INLINE_SMALL_FUNCTIONS
#include <urcu/rculfhash.h>
#include <urcu/urcu-qsbr.h>

#include <bit>
#include <vector>

#include "bench/store/Contestant.h"

namespace StoreBench {
namespace {

struct Node {
  cds_lfht_node link;
  Record record;
};

// The link is the first member.
Node* nodeOf(cds_lfht_node* link) { return reinterpret_cast<Node*>(link); }

int matches(cds_lfht_node* link, const void* key) {
  return nodeOf(link)->record.key == *static_cast<const IntfId*>(key) ? 1 : 0;
}

class UrcuTable {
 public:
  explicit UrcuTable(std::size_t count) {
    urcu_qsbr_register_thread();
    const unsigned long size = std::bit_ceil(count);
    table_ = cds_lfht_new_flavor(size, size, 0, 0, &urcu_qsbr_flavor, nullptr);
  }
  UrcuTable(const UrcuTable&) = delete;
  UrcuTable& operator=(const UrcuTable&) = delete;
  ~UrcuTable() {
    cds_lfht_iter place;
    cds_lfht_first(table_, &place);
    while (cds_lfht_node* const link = cds_lfht_iter_get_node(&place)) {
      cds_lfht_next(table_, &place);
      cds_lfht_del(table_, link);
      retire(nodeOf(link));
    }
    freeRetired();
    cds_lfht_destroy(table_, nullptr);
    urcu_qsbr_unregister_thread();
  }
  void insert(std::uint32_t place, const IntfId& key) { store({key, place, 0, 0}); }
  const Record* lookup(std::uint32_t, const IntfId& key) {
    urcu_qsbr_read_lock();
    cds_lfht_iter place;
    cds_lfht_lookup(table_, key.hash(), matches, &key, &place);
    cds_lfht_node* const link = cds_lfht_iter_get_node(&place);
    urcu_qsbr_read_unlock();
    return link == nullptr ? nullptr : &nodeOf(link)->record;
  }
  void update(std::uint32_t, const IntfId& key, std::uint32_t value) {
    store({key, value, value, value});
  }
  void remove(std::uint32_t, const IntfId& key) {
    cds_lfht_iter place;
    cds_lfht_lookup(table_, key.hash(), matches, &key, &place);
    cds_lfht_node* const link = cds_lfht_iter_get_node(&place);
    if (link != nullptr && cds_lfht_del(table_, link) == 0) retire(nodeOf(link));
  }
  template <class Visit>
  void iterate(const Visit& visit) {
    cds_lfht_iter place;
    cds_lfht_first(table_, &place);
    while (cds_lfht_node* const link = cds_lfht_iter_get_node(&place)) {
      visit(nodeOf(link)->record);
      cds_lfht_next(table_, &place);
    }
    urcu_qsbr_quiescent_state();
  }

 private:
  static constexpr std::size_t kRetired = 1'000;

  void store(const Record& record) {
    auto* const node = new Node{{}, record};
    cds_lfht_node_init(&node->link);
    cds_lfht_node* const old =
        cds_lfht_add_replace(table_, record.key.hash(), matches, &node->record.key, &node->link);
    if (old != nullptr) retire(nodeOf(old));
  }
  void retire(Node* node) {
    retired_.push_back(node);
    if (retired_.size() == kRetired) freeRetired();
  }
  void freeRetired() {
    urcu_qsbr_synchronize_rcu();
    for (Node* const node : retired_) delete node;
    retired_.clear();
  }

  cds_lfht* table_ = nullptr;
  std::vector<Node*> retired_;
};

const bool registered = registerTable<UrcuTable>("urcu");

}  // namespace
}  // namespace StoreBench
