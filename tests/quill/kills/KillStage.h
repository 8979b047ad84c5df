// SPDX-License-Identifier: Apache-2.0
//
// Carries out a plan on a table in a directory: the history, and then the operation. With its own
// loop in virtual time, and with a reader of which there is nothing but its end of the socket.
//
// Belongs to one thread; the loop is current while the object lives.
#pragma once

#include <memory>
#include <string>

#include "quill/FenixFile.h"
#include "quill/QuillWriter.h"
#include "runtime/vex/VirtualActivityManager.h"
#include "tests/quill/KickPeer.h"
#include "tests/quill/kills/Image.h"
#include "tests/quill/kills/KillPlan.h"

namespace QuillTest {

template <class Record>
class KillStage {
 public:
  using Writer = Quill::QuillWriter<Portus::IntfId, Record>;
  static constexpr unsigned kInPage = (4096 - 176) / (16 + (sizeof(Record) + 7) / 8 * 8) - 1;

  KillStage(std::string directory, unsigned maxSlots)
      : directory_(std::move(directory)), maxSlots_(maxSlots) {}
  ~KillStage() { writer_.reset(); }

  Writer& writer() { return *writer_; }
  void newWriter() {
    writer_.reset();
    peer_.hangUp();
    writer_ =
        std::make_unique<Writer>(handler_, directory_.c_str(), maxSlots_, false, "KillRecord");
    writer_->initialize();
  }

  // Everything ahead of the operation.
  void prepare(const KillPlan& plan) {
    if (plan.op == KillOp::format) return;
    Image().put(directory_);
    Quill::FenixFile::write(handler_, directory_, Image::kFenix);
    newWriter();
    for (const KillStep& step : plan.history) make(step);
    if (plan.op == KillOp::attach) writer_.reset();
  }
  void operate(const KillPlan& plan) {
    Record old;
    switch (plan.op) {
      case KillOp::format:
      case KillOp::attach:
        newWriter();
        return;
      case KillOp::insert:
      case KillOp::update:
        writer_->write(killRecord<Record>(plan.key, plan.counter), true);
        return;
      case KillOp::remove:
        writer_->remove(plan.key, old);
        return;
      case KillOp::directNew:
      case KillOp::directOld:
        directWrite(plan.key, plan.counter);
        writer_->directCommit();
        return;
      case KillOp::detach:
        writer_->detach();
        return;
      case KillOp::detachOpen:
        directWrite(plan.key, plan.counter);
        writer_->detach();
        return;
      case KillOp::cleanup:
        writer_->cleanup();
        return;
    }
  }

 private:
  void make(const KillStep& step) {
    Record old;
    const auto counter = static_cast<std::uint32_t>(step.number);
    switch (step.what) {
      case KillStep::put:
        writer_->write(killRecord<Record>(step.key, counter), true);
        return;
      case KillStep::direct:
        directWrite(step.key, counter);
        writer_->directCommit();
        return;
      case KillStep::del:
        writer_->remove(step.key, old);
        return;
      case KillStep::report:
        if (!peer_.open()) {
          peer_ = KickPeer::connected(directory_ + "/kick");
          peer_.send(hello());
        }
        peer_.send(sequenceBytes(step.number));
        loop_.runFor(0.0);
        return;
      case KillStep::restart:
        newWriter();
        return;
    }
  }
  void directWrite(const Portus::IntfId& key, std::uint32_t counter) {
    const Record record = killRecord<Record>(key, counter);
    Mem::Atomics::copyIn(writer_->directWrite(key).address, &record, sizeof record);
  }

  std::string directory_;
  unsigned maxSlots_;
  Vex::VirtualActivityManager loop_;
  Vex::CurrentActivityManager current_{loop_};
  Sable::Platform::DebugHandler handler_{"kills"};
  KickPeer peer_;
  std::unique_ptr<Writer> writer_;
};

}  // namespace QuillTest
