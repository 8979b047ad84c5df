// SPDX-License-Identifier: Apache-2.0
#include "agent/control/TreeService.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "engine/EngineTypes.h"
#include "model/attrlog/Session.h"
#include "model/generic/ModelTypes.h"
#include "model/generic/NearestName.h"
#include "runtime/portus/IntfIdCodec.h"
#include "runtime/vex/Exception.h"

namespace Agent {

namespace PC = Platform::Linux::Control;
using PC::Operation;
using Ringward::AttrLog::Session;
using Ringward::Generic::PathAccess;

namespace {

// What the parts of an answer besides a list's nodes take at most.
constexpr std::size_t kAnswerReserve = 64;
constexpr std::size_t kMostNodeText = 1024;

void needTexts(const PC::Request& request, std::size_t least, std::size_t most) {
  const std::size_t count = request.texts.size();
  if (count >= least && count <= most) return;
  Vex::throwRangeException("request with " + std::to_string(count) + " texts, must be " +
                           std::to_string(least) +
                           (most != least ? " to " + std::to_string(most) : ""));
}

// The children that the engine's machines were made with and keep: another object in their place
// would be nobody's, and what is set in it without effect.
bool isHeldByEngine(std::string_view name) {
  return name == "transmitConfig" || name == "globalIntfConfig";
}

// As paths are read: a slash ahead and one behind make no difference.
std::string_view plainPath(std::string_view path) {
  if (path.starts_with('/')) path.remove_prefix(1);
  if (path.ends_with('/')) path.remove_suffix(1);
  return path;
}

void needNotHeld(std::string_view path) {
  constexpr std::string_view kConfig = "config/";
  path = plainPath(path);
  if (!path.starts_with(kConfig) || !isHeldByEngine(path.substr(kConfig.size()))) return;
  Vex::throwRangeException(std::string(path) +
                           " is held by the engine and can be neither deleted nor replaced; its "
                           "attributes can be set");
}

bool changes(Operation operation) {
  switch (operation) {
    case Operation::set:
    case Operation::del:
    case Operation::call:
      return true;
    case Operation::get:
    case Operation::ls:
    case Operation::subscribe:
      return false;
  }
  return true;
}

// Reading a name that does not pack makes it known to the process for good, and there is room for
// a limited number of such names. Those of this host's interfaces must never find it full, so
// somebody who only looks may use no name that is not known already. A name that the agent has not
// seen is in none of its collections.
void needKnown(std::string_view key) {
  const bool isName =
      !key.empty() && key.size() <= Portus::IntfId::kMaxNameLength &&
      std::all_of(key.begin(), key.end(), [](char c) { return c > ' ' && c <= '~'; });
  if (!isName) return;  // refused further on, without being remembered
  const Portus::IntfIdFields fields = Portus::encodeIntfName(key);
  if (fields.form != Portus::IntfIdForm::hashed) return;
  if (Portus::IntfId::fromValue(fields.value).name() == key) return;
  Vex::throwRangeException("no interface '" + std::string(key) + "' is known to the agent");
}

void needKnownKeys(std::string_view path) {
  for (std::size_t at = 0; at < path.size(); ++at) {
    if (path[at] != '[') continue;
    std::string key;
    for (++at; at < path.size() && path[at] != ']'; ++at) {
      if (path[at] == '\\' && at + 1 < path.size()) ++at;
      key += path[at];
    }
    needKnown(key);
  }
}

}  // namespace

// The attribute log of one client.
class TreeService::Stream final : public ControlStream {
 public:
  Stream(Session::Access access, std::function<void()> outputReady)
      : session_({.buffer = kStreamBuffer, .access = access, .childrenKept = true},
                 callbacks(std::move(outputReady))) {}

  void rootIs(Vex::Entity& entity) { session_.rootIs(entity); }
  void frameIn(const PC::Frame& frame) override { session_.frameIn(frame.type, frame.body); }
  PC::Bytes output() const override { return session_.output(); }
  void outputDel(std::size_t bytes) override { session_.outputDel(bytes); }

 private:
  static Session::Callbacks callbacks(std::function<void()> outputReady) {
    Session::Callbacks made;
    made.outputReady = std::move(outputReady);
    return made;
  }

  Session session_;
};

TreeService::TreeService(Roots roots)
    : roots_(std::move(roots)), readers_(treeRoots(true)), writers_(treeRoots(false)) {}

std::vector<PathAccess::Root> TreeService::treeRoots(bool readOnly) const {
  return {
      {"config", [this, readOnly] { return Vex::genericIf(roots_.config, readOnly); }},
      {"status", [this] { return Vex::genericIf(roots_.status, true); }},
      {"transmitStatus", [this] { return Vex::genericIf(roots_.transmitStatus, true); }},
      {"packetCounter", [this] { return Vex::genericIf(roots_.packetCounter, true); }},
      {"globalSm", [this, readOnly] { return Vex::genericIf(roots_.globalSm(), readOnly); }},
  };
}

PC::Answer TreeService::answer(const PC::Request& request, const std::string& refusal) {
  PC::Answer made{request.id, PC::Status::done, false, {}};
  const auto fail = [&made](PC::Status status, std::string reason) {
    made.status = status;
    made.more = false;
    made.texts = {std::move(reason)};
  };
  if (!refusal.empty() && changes(request.operation)) {
    fail(PC::Status::refused, refusal);
    return made;
  }
  try {
    if (!refusal.empty()) {
      // The second text of a list is a key as well, with its backslashes.
      for (const std::string& text : request.texts) needKnownKeys(text);
      if (request.texts.size() > 1) needKnownKeys('[' + request.texts[1] + ']');
    }
    carryOut(request, refusal.empty() ? writers_ : readers_, made);
  } catch (const Vex::Exception& exception) {
    fail(PC::Status::failed, exception.text());
  } catch (const std::exception& exception) {
    fail(PC::Status::failed, exception.what());
  }
  return made;
}

void TreeService::carryOut(const PC::Request& request, PathAccess& tree, PC::Answer& answer) {
  const std::vector<std::string>& texts = request.texts;
  switch (request.operation) {
    case Operation::get:
      needTexts(request, 1, 1);
      answer.texts.push_back(tree.get(texts[0]));
      return;
    case Operation::set:
      needTexts(request, 2, 2);
      needNotHeld(texts[0]);
      return tree.set(texts[0], texts[1]);
    case Operation::del:
      needTexts(request, 1, 1);
      needNotHeld(texts[0]);
      return tree.del(texts[0]);
    case Operation::ls:
      needTexts(request, 1, 2);
      return list(request, tree, answer);
    case Operation::call: {
      needTexts(request, 2, 254);
      if (texts.size() % 2 != 0) Vex::throwRangeException("an argument without its value");
      std::vector<std::pair<std::string, std::string>> arguments;
      for (std::size_t i = 2; i < texts.size(); i += 2) {
        arguments.emplace_back(texts[i], texts[i + 1]);
      }
      answer.texts.push_back(tree.call(texts[0], texts[1], arguments));
      return;
    }
    case Operation::subscribe:
      break;
  }
  Vex::throwInternalException("a subscription is no request of the tree");
}

void TreeService::list(const PC::Request& request, const PathAccess& tree, PC::Answer& answer) {
  const std::string_view after = request.texts.size() > 1 ? request.texts[1] : std::string_view();
  // One more than is told, to know whether the list goes on.
  std::vector<PathAccess::Node> nodes = tree.ls(request.texts[0], kMostNodes + 1, after);
  if (nodes.size() > kMostNodes) {
    nodes.pop_back();
    answer.more = true;
  }
  const bool isConfig = plainPath(request.texts[0]) == "config";
  std::size_t size = kAnswerReserve;
  for (PathAccess::Node& node : nodes) {
    if (isConfig && isHeldByEngine(node.name)) node.writable = false;
    // A list shows the beginning of a long text; get shows all of it.
    if (node.text.size() > kMostNodeText) node.text = node.text.substr(0, kMostNodeText) + "...";
    const std::vector<std::string> fields{node.name,
                                          node.kind,
                                          node.type,
                                          node.text,
                                          node.writable ? "1" : "0",
                                          std::to_string(node.members)};
    static_assert(PC::kLsFields == 6);
    std::size_t more = 0;
    for (const std::string& field : fields) more += PC::kTextOverhead + field.size();
    if (size + more > PC::kMaxBody) {
      answer.more = true;
      return;
    }
    size += more;
    answer.texts.insert(answer.texts.end(), fields.begin(), fields.end());
  }
}

std::unique_ptr<ControlStream> TreeService::newStream(const std::vector<std::string>& roots,
                                                      const std::string& refusal,
                                                      std::function<void()> outputReady) {
  const std::vector<std::pair<std::string_view, Vex::Entity*>> known{
      {"config", roots_.config.get()},
      {"status", roots_.status.get()},
      {"transmitStatus", roots_.transmitStatus.get()},
      {"packetCounter", roots_.packetCounter.get()},
  };
  std::vector<Vex::Entity*> found;
  for (const std::string& name : roots) {
    Ringward::Generic::NearestName nearest(name);
    Vex::Entity* entity = nullptr;
    for (const auto& [knownName, knownEntity] : known) {
      nearest.consider(knownName);
      if (knownName == name) entity = knownEntity;
    }
    if (entity == nullptr) {
      Vex::throwRangeException("no root to follow by the name '" + name + "'" +
                               nearest.suggestion());
    }
    found.push_back(entity);
  }
  if (found.empty()) Vex::throwRangeException("a subscription to nothing; name a root");
  // Only the configuration can be written through the log, whoever asks for it.
  const bool writes = refusal.empty() && found == std::vector<Vex::Entity*>{known.front().second};
  auto stream = std::make_unique<Stream>(
      writes ? Session::Access::readWrite : Session::Access::readOnly, std::move(outputReady));
  for (Vex::Entity* const entity : found) stream->rootIs(*entity);
  return stream;
}

}  // namespace Agent
