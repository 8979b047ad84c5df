// SPDX-License-Identifier: Apache-2.0
//
// A handle for the tests of the mounters: it mounts nothing, notes what it is asked to do, and
// answers what the test says.
#pragma once

#include <functional>
#include <string>

#include "quill/Mountable.h"

namespace QuillTest {

class FakeMountable final : public Quill::Mountable {
 public:
  FakeMountable(std::string path, Quill::QuillType mode) : path_(std::move(path)), mode_(mode) {}

  const std::string& fullName() const override { return path_; }
  Quill::QuillType mode() const override { return mode_; }
  bool notifyingOn() const override { return notifying; }
  std::string rootPath() const override { return path_; }
  unsigned fenixId() const override { return fenix; }
  unsigned mountStatus() const override { return status; }
  bool validate() override {
    calls += "validate ";
    return valid;
  }
  bool validateFiles() override {
    calls += "validateFiles ";
    return true;
  }
  void attach() override {
    calls += "attach ";
    if (onAttach) onAttach();
  }
  void detach() override {
    calls += "detach ";
    fenix = 0;
    status = 0;
  }

  std::string calls;
  std::function<void()> onAttach;
  bool notifying = true;
  bool valid = true;
  unsigned fenix = 0;
  unsigned status = 0;

 private:
  std::string path_;
  Quill::QuillType mode_;
};

}  // namespace QuillTest
