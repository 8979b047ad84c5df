// SPDX-License-Identifier: Apache-2.0
#include "tests/quill/faults/Scenario.h"

#include <dirent.h>

#include <fstream>
#include <iterator>
#include <new>
#include <optional>

#include "quill/Text.h"

namespace QuillTest {

namespace {

using Quill::QuillType;

constexpr unsigned kTableSize = 100;

unsigned openDescriptors() {
  unsigned count = 0;
  const std::unique_ptr<DIR, int (*)(DIR*)> directory{opendir("/proc/self/fd"), &closedir};
  while (readdir(directory.get()) != nullptr) ++count;
  return count;
}

// Of files of tables, which is all that the store maps for others to see.
unsigned tableMappings() {
  std::ifstream maps("/proc/self/maps");
  unsigned count = 0;
  for (std::string line; std::getline(maps, line);) {
    if (line.find("quill-test-") != std::string::npos) ++count;
  }
  return count;
}

std::string textOfContent(const Content& content) {
  return Quill::textOf(content.size(), " entries");
}

}  // namespace

Stage::Stage() { loop_.logService().sinkIs(log_); }

NumberMap& Stage::map(QuillType mode) { return *maps_[static_cast<std::size_t>(mode)]; }

void Stage::init(QuillType mode) {
  auto made = std::make_unique<NumberMap>(path_, "t");
  made->notifierIs(&listener_);
  NumberMap& map = *made;
  maps_[static_cast<std::size_t>(mode)] = std::move(made);
  try {
    map.init(mode, false, kTableSize);
  } catch (...) {
    if (mode == QuillType::writer) drop(mode);
    throw;
  }
}

void Stage::dropAll() {
  for (auto& map : maps_) map.reset();
}

void Stage::put(std::uint32_t key, std::uint32_t data) {
  {
    const Faults::Pause pause;
    before = after;
    after[key] = data;
  }
  map(QuillType::writer).safeWrite({{key}, data});
  const Faults::Pause pause;
  before = after;
}

void Stage::del(std::uint32_t key) {
  {
    const Faults::Pause pause;
    before = after;
    after.erase(key);
  }
  map(QuillType::writer).safeRemove({key});
  const Faults::Pause pause;
  before = after;
}

void Stage::settle(double seconds) {
  // Each turn by itself: memory that runs out is what a handler may let out of the loop.
  loop_.runFor(seconds);
}

bool Stage::attempt(const std::function<void()>& action) {
  try {
    action();
    return true;
  } catch (const Vex::Exception& exception) {
    const Faults::Pause pause;
    raised.push_back(exception.text());
  } catch (const std::bad_alloc&) {
    const Faults::Pause pause;
    raised.emplace_back("std::bad_alloc");
  }
  return false;
}

std::string Stage::told() const {
  std::string text;
  for (const std::string& line : raised) text += line + "\n";
  for (const std::string& line : log_.texts()) text += line + "\n";
  return text;
}

std::ostream& operator<<(std::ostream& out, const Scenario& scenario) {
  return out << scenario.name;
}

// One run of a scenario.
class Judge {
 public:
  Judge(const Scenario& scenario, const Faults::Fault& fault)
      : scenario_(scenario), fault_(fault) {}

  unsigned count() const noexcept { return count_; }

  std::string run() {
    Faults::watchingIs(scenario_.watched);
    const unsigned descriptors = openDescriptors();
    const unsigned mappings = tableMappings();
    const long blocks = Faults::liveBlocks();
    {
      Stage stage;
      scenario_.prepare(stage);
      act(stage);
      if (wrong_.empty()) followUp(stage);
      stage.dropAll();
      if (wrong_.empty()) recover(stage);
    }
    if (wrong_.empty()) {
      isEqual("descriptors", descriptors, openDescriptors());
      isEqual("mappings", mappings, tableMappings());
    }
    failed_.reset();
    const std::string wrong = std::exchange(wrong_, {});
    if (wrong.empty() && Faults::liveBlocks() != blocks) {
      return Quill::textOf("blocks of memory: ", Faults::liveBlocks() - blocks, " more");
    }
    return wrong;
  }

 private:
  void wrongIs(std::string text) {
    if (wrong_.empty()) wrong_ = std::move(text);
  }
  template <class Number>
  void isEqual(const char* what, Number before, Number now) {
    if (before != now) wrongIs(Quill::textOf(what, ": ", before, " before, ", now, " after"));
  }

  void act(Stage& stage) {
    std::optional<TraceText> traces;
    if (fault_.kind == Faults::Kind::call) traces.emplace();
    const Faults::Plan plan(fault_);
    stage.attempt([&] { scenario_.act(stage); });
    const Faults::Pause pause;
    count_ = plan.count();
    if (plan.failed() == nullptr) return;
    failed_ = plan.failed();
    // An exception says what failed, and so does a line of the log or a trace.
    for (const std::string& text : stage.raised) {
      if (text.empty()) wrongIs("an exception without a text");
    }
  }

  // The fault is over, and everybody who is still there goes on.
  void followUp(Stage& stage) {
    const auto note = [this, &stage](const char* what) {
      wrongIs(Quill::textOf(what, "; told: ", stage.told()));
    };
    if (!stage.has(QuillType::writer) && !stage.attempt([&] { stage.init(QuillType::writer); })) {
      return note("no writer attaches after the fault");
    }
    for (const QuillType mode : {QuillType::shadow, QuillType::keyshadow, QuillType::reader}) {
      if (!stage.has(mode) || stage.map(mode).initialized()) continue;
      if (!stage.attempt([&] { stage.map(mode).init(mode, false, 0); })) return note("no init()");
    }
    NumberMap& writer = stage.map(QuillType::writer);
    const Content content = contentOf(writer);
    if (content != stage.before && content != stage.after) {
      return note(Quill::textOf("the table has ", textOfContent(content), ", not ",
                                textOfContent(stage.before), " or ", textOfContent(stage.after))
                      .c_str());
    }
    stage.before = stage.after = content;
    if (!stage.attempt([&] { stage.put(4'321, 1); })) return note("no write after the fault");
    if (!stage.attempt([&] { stage.settle(); })) return note("the loop raised");
    // Past the longest of the store's timers: a reader tries again after a minute.
    if (!stage.attempt([&] { stage.settle(130.0); })) return note("the loop raised later");
    for (const QuillType mode : {QuillType::shadow, QuillType::keyshadow, QuillType::reader}) {
      if (!stage.has(mode)) continue;
      const NumberMap& map = stage.map(mode);
      if (map.mountStatus() != (mode == QuillType::reader ? 1U : 2U)) {
        return note(Quill::textOf(mode, " is not mounted again: ", map.mountStatus()).c_str());
      }
      if (contentOf(map) != stage.after) note("a reader differs from its writer");
    }
    if (!writer.validate()) note("the table is not valid");
  }

  // Another life of the writer, and of a reader.
  void recover(Stage& stage) {
    NumberWriter writer(stage.handler_, stage.path_.c_str(), kTableSize, false, "Test");
    if (!stage.attempt([&] { writer.initialize(); })) return wrongIs("no writer: " + stage.told());
    if (contentOf(writer) != stage.after) wrongIs("the next writer has not what was there");
    writer.cleanup();
  }

  const Scenario& scenario_;
  Faults::Fault fault_;
  unsigned count_ = 0;
  std::optional<std::string> failed_;
  std::string wrong_;
};

unsigned countOf(const Scenario& scenario, Faults::Kind kind) {
  Judge judge(scenario, {kind, 0, 0, false});
  const std::string wrong = judge.run();
  EXPECT_EQ("", wrong) << scenario << " without a fault";
  return judge.count();
}

std::string judge(const Scenario& scenario, const Faults::Fault& fault) {
  try {
    return Judge(scenario, fault).run();
  } catch (const std::exception& exception) {
    return std::string("raised after the fault: ") + exception.what();
  }
}

}  // namespace QuillTest
