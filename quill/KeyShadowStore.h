// SPDX-License-Identifier: Apache-2.0
//
// Quill::KeyShadowStore: the shadow store that holds keys alone. It takes less memory and reads
// values from the table; it cannot tell a changed value from an unchanged one.
//
// Thread, ownership and invariants as in quill/ShadowStore.h. It keeps the table's file of the
// generation mapped from initialize() to flush(); nothing is read there.
#pragma once

#include "quill/ShadowStore.h"
#include "runtime/mem/Region.h"

namespace Quill {

template <class KEY, class VALUE, class MAP, class READER = QuillReader<KEY, VALUE>>
class KeyShadowStore final
    : public ShadowStore<KEY, VALUE, KeyShadowSlot<KEY, VALUE, MAP>, MAP, READER> {
  using Base = ShadowStore<KEY, VALUE, KeyShadowSlot<KEY, VALUE, MAP>, MAP, READER>;

 public:
  KeyShadowStore(Sable::Platform::DebugHandler& handler, const RootPath& root, READER& reader,
                 Reader::Counters& counters, MAP* map)
      : Base(handler, root, reader, counters, map), fenixMem_(handler, root, "fenix", false) {}

  // False too if there is no file of the generation.
  bool initialize() override {
    if (fenixMem_.attach(Mem::pageSize_, Mem::Mode::readOnly) == nullptr) {
      this->trace(7, [&](std::ostream& os) {
        os << "KeyShadowStore::initialize() failed to map fenix: " << fenixMem_.getFilename();
      });
      return false;
    }
    return Base::initialize();
  }

  void flush() override {
    this->trace(8, [&](std::ostream& os) { os << "KeyShadowStore::flush()"; });
    fenixMem_.detach();
    Base::flush();
  }

 private:
  QuillMem fenixMem_;
};

}  // namespace Quill
