// SPDX-License-Identifier: Apache-2.0
//
// Quill::QuillBaseDummy: stands behind a handle while no table is mounted: every read finds
// nothing, every change is refused as to any reader.
//
// Belongs to the activity thread. Owns the implementation that it replaced, detached: its cleanup()
// can still be reached, and whoever was running inside it when it was replaced finds it alive.
//
// Invariants:
//  1. Nothing is mapped, made or removed here; only cleanup() reaches files, through what is
//  wrapped.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "quill/QuillBase.h"
#include "quill/RootPath.h"

namespace Quill {

template <class KEY, class VALUE>
class QuillBaseDummy final : public QuillBase<KEY, VALUE> {
 public:
  using Base = QuillBase<KEY, VALUE>;

  // `fullName` and `shared` as RootPath takes them. Wraps nothing yet.
  QuillBaseDummy(Sable::Platform::DebugHandler& handler, std::string_view fullName, bool shared);
  ~QuillBaseDummy() override = default;

  // Takes over the implementation that this one replaces; what was wrapped before ends.
  void wrap(std::unique_ptr<Base> replaced) noexcept { wrapped_ = std::move(replaced); }

  bool initialize() override { return true; }
  void detach() override {}
  bool validate() override { return true; }
  bool validateFiles() override { return true; }
  // Of the implementation that was replaced; nothing if there was none. Raises as that one does.
  void cleanup() override;

  const VALUE& lookup(const KEY& key, bool& found) const override;
  // Both leave a default VALUE in `value`.
  bool first(VALUE& value, IterHint& hint) const override;
  bool next(const KEY& key, VALUE& value, IterHint& hint) const override;
  unsigned members() const override { return 0; }
  unsigned maxSize() const override { return 0; }
  unsigned capacity() const override { return 0; }
  QuillType type() const override { return QuillType::reader; }
  Reader::Counters readerCounters() const override { return {}; }
  std::string rootPath() const override { return root_.rootPath(); }
  std::string quillName() const override { return root_.quillName(); }
  unsigned mountStatus() const override { return 0; }

 private:
  RootPath root_;
  std::unique_ptr<Base> wrapped_;
};

}  // namespace Quill

#include "quill/QuillBaseDummy-inl.h"
