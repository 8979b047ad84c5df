// SPDX-License-Identifier: Apache-2.0
//
// Quill::Validator: checks the whole structure of a table, on behalf of the writer that has it
// attached: at attach, and when a reader reports damage. It repairs nothing: a table is taken as it
// stands or given up.
//
// Belongs to the writer's thread and sees a still table. Linear in slots and queue entries; needs
// three vectors of bits. Writes nothing to the files.
#pragma once

#include <string>
#include <vector>

#include "quill/ValidatorBase.h"
#include "runtime/sable/Platform.h"

namespace Quill {

template <class Key, class Value>
class QuillWriter;

template <class Key, class Value>
class Validator final : public ValidatorBase, private Sable::Debuggable {
 public:
  Validator(Sable::Platform::DebugHandler& handler, QuillWriter<Key, Value>& writer);

  // True if the table is sound and of the generation `fenix`. REQUIRES: the writer's hook points
  // here.
  bool validate(std::uint32_t fenix);
  // The first thing that was found wrong.
  const std::string& failure() const noexcept { return failure_; }

  // Raises CorruptionDetectedException for a slot that cannot be on a chain.
  void markOccupied(std::uint32_t slot) override;

 private:
  bool doValidate(std::uint32_t fenix);
  bool checkHeaders(std::uint32_t fenix);
  bool walkOccupiedSlots();
  // For a walk that has come to `bucket`: brings what it reads next into the cache.
  void fetchAhead(std::uint32_t bucket);
  bool walkFreeSlots();
  bool walkNotifications();
  // Notes what is wrong and answers false.
  template <class... Parts>
  bool wrong(const Parts&... parts);

  // So many chains, or entries of the queue, ahead of a walk. Chains, and so the slots and entries
  // that they lead to, lie anywhere: without it the walk waits for memory at each of them.
  static constexpr std::uint32_t kAhead = 16;

  QuillWriter<Key, Value>* writer_;
  std::uint32_t headsFetched_ = 0;   // the slots at the heads of so many chains are on their way
  std::uint32_t chainsFetched_ = 0;  // and what those name, of so many
  std::uint32_t occupiedCount_ = 0;
  std::uint32_t freeCount_ = 0;
  std::uint32_t conquerCount_ = 0;
  std::vector<bool> occupiedBits_;
  std::vector<bool> freeBits_;
  std::vector<bool> conquerUsed_;
  std::string failure_;
};

}  // namespace Quill

#include "quill/Validator-inl.h"
