// SPDX-License-Identifier: Apache-2.0
//
// Put in front of every file of the counting build by the compiler's command line, and of no other:
// each store of Mem::Atomics into shared bytes is told to HookRecorder.cc, when the bytes hold it
// already.
#pragma once

namespace QuillTest {

void storedHook(const void* address, unsigned size) noexcept;

}  // namespace QuillTest

#define MEM_ATOMICS_STORED(address, size) \
  ::QuillTest::storedHook((address), static_cast<unsigned>(size))
