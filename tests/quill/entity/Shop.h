// SPDX-License-Identifier: Apache-2.0
//
// An entity with one table as a collection attribute, a place in the tree for it, and a guardian
// that writes down what it is told.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quill/entity/VexQuillMap.h"
#include "runtime/vex/Entity.h"
#include "tests/quill/RawFile.h"
#include "tests/quill/Records.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

using IntfValue = VexQuill::VexQuillMapValueWrapper<IntfRecord, Portus::IntfId>;

class Tree final : public Vex::EntityOf<Tree> {
 public:
  using NotifieeConst = Vex::Entity::NotifieeConst;
  static constexpr std::span<const Vex::AttributeInfo> kAttributes{};
  explicit Tree(const Vex::Name& name) : EntityOf(name) {}
};

class Shop final : public Vex::EntityOf<Shop>, public VexQuill::TableHost {
 public:
  using NotifieeConst = Vex::Entity::NotifieeConst;
  using Stock = VexQuill::VexQuillMap<Shop, IntfValue, Portus::IntfId>;
  static constexpr std::span<const Vex::AttributeInfo> kAttributes{};

  explicit Shop(const Vex::Name& name) : EntityOf(name) {
    stock.entity("stock", this, &Shop::stockNotify);
    tableIs(stock);
  }
  VexQuill::CollectionControl stockControl() { return VexQuill::CollectionControl(stock); }

  Stock stock;
  std::vector<std::string> told;

 private:
  void handleParent() override { handleTablesParent(); }
  void stockNotify(const Portus::IntfId& key) { told.push_back(key.name()); }
};

class ShopTest : public TableTest {
 protected:
  static Vex::Ptr<Shop> newShop(std::string_view name) {
    return Vex::makePtr<Shop>(Vex::Name(name));
  }

  const Vex::Ptr<Tree> tree_ = Vex::makePtr<Tree>("tree");
  const Portus::IntfId eth1 = Portus::IntfId::fromName("eth1");
  const Portus::IntfId eth2 = Portus::IntfId::fromName("eth2");
};

}  // namespace QuillTest
