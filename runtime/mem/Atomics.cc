// SPDX-License-Identifier: Apache-2.0
#include "runtime/mem/Atomics.h"

#include <ostream>

namespace Mem {

std::ostream& operator<<(std::ostream& out, const VerU32& word) {
  const auto flags = out.flags();
  out << std::hex << word.version << ":" << std::dec << word.value;
  out.flags(flags);
  return out;
}

bool Atomics::checkCpuSupport() noexcept {
#if defined(__x86_64__)
  return true;
#elif defined(__i386__)
  // An aligned 64-bit move through an SSE register is atomic on every processor that has SSE2. The
  // program is compiled for one; this says so before the first such move.
  return __builtin_cpu_supports("sse2") != 0;
#else
  return __atomic_always_lock_free(sizeof(VerU32), nullptr);
#endif
}

}  // namespace Mem
