// SPDX-License-Identifier: Apache-2.0
//
// What a program that uses the store has of it: its templates for one type of record, compiled once
// (Subject.cc).
#pragma once

#include "quill/QuillMap.h"
#include "tests/quill/Records.h"

namespace QuillTest {

struct NumberListener {
  void notify(const Number&) noexcept { ++notified; }
  unsigned notified = 0;
};

using NumberMap = Quill::QuillMap<Number, NumberRecord, NumberListener>;

}  // namespace QuillTest

extern template class Quill::QuillWriter<QuillTest::Number, QuillTest::NumberRecord>;
extern template class Quill::QuillReader<QuillTest::Number, QuillTest::NumberRecord>;
extern template class Quill::QuillMap<QuillTest::Number, QuillTest::NumberRecord,
                                      QuillTest::NumberListener>;
