// SPDX-License-Identifier: Apache-2.0
#include "tests/quill/deaths/Field.h"

#include "tests/quill/deaths/Watcher.h"

namespace QuillTest {

Field::Field(unsigned seed) : board_(Board::newShared()), random_(seed) {
  board_->attaches = 1;
  const auto first = newWriter(false);
  awaitWork(*first);
  for (unsigned number = 0; number < Board::kWatchers; ++number) {
    watchers_[number] = std::make_unique<Child>([this, number, seed](int socket) {
      try {
        Watcher watcher(path_, kTypes[number], *board_, number);
        Child::tell(socket);
        watcher.watch(seed + number);
      } catch (const std::exception& exception) {
        board_->failureIs(exception.what());
      }
    });
    watchers_[number]->await();
  }
  kill(*first);
}

Field::~Field() {
  board_->stop = true;
  for (const auto& each : watchers_) {
    if (each != nullptr) each->kill();
  }
  Board::sharedDel(board_);
}

std::unique_ptr<Child> Field::newWriter(bool rest) {
  const unsigned seed = random();
  return std::make_unique<Child>([this, rest, seed](int socket) {
    try {
      LoadedWriter writer(path_, *board_, seed);
      writer.takeOver();
      if (rest) writer.rest();
      Child::tell(socket);
      for (unsigned i = 0; i < 2'000'000'000 && !board_->stop; ++i) writer.work();
    } catch (const std::exception& exception) {
      board_->failureIs(exception.what());
    }
  });
}

void Field::awaitWork(const Child& writer) {
  try {
    writer.await();
  } catch (const std::logic_error&) {
    requireSound();
    throw;
  }
}

void Field::kill(Child& writer) {
  if (board_->attaches % 2 == 0) ++board_->attaches;
  writer.kill();
  requireSound();
}

void Field::requireSound() {
  if (board_->failed) wrong(board_->failure.data());
}

void Field::end() {
  const auto last = newWriter(true);
  awaitWork(*last);
  kill(*last);
  board_->stop = true;
  for (const auto& each : watchers_) {
    if (each->end() != 0) wrong("a watcher did not end by itself");
  }
  requireSound();
}

}  // namespace QuillTest
