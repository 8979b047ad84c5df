// SPDX-License-Identifier: Apache-2.0
#include "tests/quill/faults/Subject.h"

template class Quill::QuillWriter<QuillTest::Number, QuillTest::NumberRecord>;
template class Quill::QuillReader<QuillTest::Number, QuillTest::NumberRecord>;
template class Quill::QuillMap<QuillTest::Number, QuillTest::NumberRecord,
                               QuillTest::NumberListener>;
