// SPDX-License-Identifier: Apache-2.0
//
// VexQuill::VexNotifier: tells an entity, through one of its member functions, which key of its
// table has changed. It is the NOTIFY of a VexQuillMap.
//
// Belongs to the activity thread. The parent is not owned and must outlive it.
#pragma once

namespace VexQuill {

template <class KEY, class VALUE, class PARENT>
class VexNotifier final {
 public:
  using Member = void (PARENT::*)(const KEY&);

  VexNotifier(PARENT* parent, Member member) noexcept : parent_(parent), member_(member) {}

  void notify(const KEY& key) { (parent_->*member_)(key); }

  const VALUE& defaultValue() const noexcept { return defaultValue_; }

 private:
  PARENT* const parent_;
  const Member member_;
  const VALUE defaultValue_{};
};

}  // namespace VexQuill
