// SPDX-License-Identifier: Apache-2.0
#include "model/generic/PathAccess.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "model/generic/NearestName.h"
#include "runtime/vex/GenericValue.h"

namespace Ringward::Generic {

using Vex::GenericIf;
using Kind = Vex::VexType::Kind;

namespace {

constexpr std::size_t kMostCompared = 1024;  // keys, for the nearest
constexpr std::size_t kShown = 64;           // bytes of a name or key, in messages

std::string shown(std::string_view text) {
  std::string result;
  Vex::writeQuoted(result, text.substr(0, kShown));
  return text.size() > kShown ? result + "..." : result;
}

// The path up to a place, as it stands in messages.
std::string placeOf(std::string_view path, std::size_t end) {
  std::string_view place = path.substr(0, end);
  while (place.starts_with('/')) place.remove_prefix(1);
  while (place.ends_with('/')) place.remove_suffix(1);
  std::string quoted;
  Vex::writeQuoted(quoted, place.substr(0, 2 * kShown));
  return quoted.substr(1, quoted.size() - 2) + (place.size() > 2 * kShown ? "..." : "");
}

bool isKeyed(Kind kind) {
  return kind == Kind::collection || kind == Kind::queue || kind == Kind::table ||
         kind == Kind::members;
}

std::string textOf(const Vex::Ptr<GenericIf>& generic) {
  return generic ? generic->strRep().str() : "null";
}

// "(intfId: Portus::IntfId); ()".
std::string signaturesOf(const Vex::VexType::Attribute& function) {
  std::string text;
  for (const auto& signature : function.signatures) {
    text += text.empty() ? "(" : "; (";
    bool first = true;
    for (const auto& argument : signature) {
      if (!first) text += ", ";
      first = false;
      text += argument.name;
      text += ": ";
      text += argument.typeName;
    }
    text += ')';
  }
  return text;
}

// Raises PathError unless each argument is one of the function's and none is missing: by the
// signature that takes as many, or else the one that comes nearest. So the message has the name
// that was given; generic access, which comes after, knows only those it wants.
void needArguments(std::string_view path, const Vex::VexType::Attribute& function,
                   const std::vector<std::pair<std::string, std::string>>& given) {
  if (function.signatures.empty()) return;
  auto chosen = std::find_if(function.signatures.begin(), function.signatures.end(),
                             [&](const auto& one) { return one.size() >= given.size(); });
  if (chosen == function.signatures.end()) --chosen;
  const std::string takes = "; it takes " + signaturesOf(function);
  const std::string of = " of " + std::string(function.name());
  const auto isGiven = [&](std::string_view name) {
    return std::any_of(given.begin(), given.end(), [&](const auto& g) { return g.first == name; });
  };
  std::size_t unnamed = 0;
  for (const auto& [name, text] : given) {
    unnamed += name.empty() ? 1U : 0U;
    NearestName nearest(name);
    bool known = name.empty();
    for (const auto& argument : *chosen) {
      nearest.consider(argument.name);
      known = known || argument.name == name;
    }
    if (known) continue;
    const std::string suggestion = nearest.suggestion();
    throw PathError(path, path.size(),
                    "no argument " + shown(name) + of + (suggestion.empty() ? takes : suggestion));
  }
  if (given.size() > chosen->size()) {
    throw PathError(
        path, path.size(),
        std::to_string(given.size()) + " arguments for " + std::string(function.name()) + takes);
  }
  for (const auto& argument : *chosen) {
    if (isGiven(argument.name) || unnamed-- != 0) continue;
    std::string text = "argument '";
    text.append(argument.name).append("'").append(of).append(" is missing").append(takes);
    throw PathError(path, path.size(), std::move(text));
  }
}

// Another number in a key is another port or VLAN, not the same one misspelt.
bool hasSameNumbers(std::string_view a, std::string_view b) {
  const auto digits = [](std::string_view text) {
    std::string found;
    for (const char c : text) {
      if (c >= '0' && c <= '9') found += c;
    }
    return found;
  };
  return digits(a) == digits(b);
}

void needText(std::string_view path, std::string_view text) {
  if (text.size() <= PathAccess::kMaxText) return;
  throw PathError(path, 0,
                  "text of " + std::to_string(text.size()) + " bytes for " +
                      placeOf(path, path.size()) + ": at most 65536 allowed");
}

}  // namespace

// One name of a path, with its key if it has one.
struct PathAccess::Step {
  std::string name;
  std::optional<std::string> key;
  std::size_t begin;  // in the path
  std::size_t end;
};

// What a path names: an attribute of an object or an element of it, or a root.
struct PathAccess::Target {
  Vex::Ptr<GenericIf> owner;  // null for the whole tree
  // Null for a root, and for an attribute of the base of entities, which has an id alone.
  const Vex::VexType::Attribute* attribute = nullptr;
  Vex::AttributeId id = 0;
  Vex::Ptr<GenericIf> key;
  std::string place;      // the path as it stands in messages
  std::size_t begin = 0;  // of the last name

  bool isRoot() const { return owner && id == 0; }
  bool isCollection() const { return attribute != nullptr && isKeyed(attribute->kind) && !key; }
  bool isFunction() const { return attribute != nullptr && attribute->kind == Kind::function; }
};

std::vector<PathAccess::Step> PathAccess::stepsOf(std::string_view path) {
  if (path.size() > kMaxPath) {
    throw PathError(path.substr(0, kMaxPath), kMaxPath,
                    "path of " + std::to_string(path.size()) + " bytes: at most 4096 allowed");
  }
  std::vector<Step> steps;
  std::size_t at = path.starts_with('/') ? 1 : 0;
  while (at < path.size()) {
    Step step{{}, std::nullopt, at, at};
    while (at < path.size() && path[at] != '/' && path[at] != '[') step.name += path[at++];
    if (step.name.empty()) {
      throw PathError(path, at,
                      "no name at position " + std::to_string(at) + " of path " + shown(path));
    }
    if (at < path.size() && path[at] == '[') {
      const std::size_t bracket = at++;
      step.key.emplace();
      for (; at < path.size() && path[at] != ']'; ++at) {
        if (path[at] == '\\' && at + 1 < path.size()) ++at;
        *step.key += path[at];
      }
      if (at == path.size()) {
        throw PathError(path, bracket,
                        "'[' at position " + std::to_string(bracket) + " of path " + shown(path) +
                            " is not closed");
      }
      ++at;
    }
    step.end = at;
    if (at < path.size() && path[at] != '/') {
      throw PathError(path, at,
                      "expected '/' at position " + std::to_string(at) + " of path " + shown(path));
    }
    if (at < path.size()) ++at;
    steps.push_back(std::move(step));
    if (steps.size() > kMaxDepth) {
      throw PathError(path, steps.back().begin, "path of more than 32 names: " + shown(path));
    }
  }
  return steps;
}

Vex::Ptr<GenericIf> PathAccess::rootOf(std::string_view path, const Step& step) const {
  for (const Root& root : roots_) {
    if (root.name != step.name) continue;
    if (step.key) {
      throw PathError(path, step.begin, "root '" + root.name + "' takes no key");
    }
    if (auto opened = root.open()) return opened;
    throw PathError(path, step.begin, "root '" + root.name + "' is not there now");
  }
  NearestName nearest(step.name);
  for (const Root& root : roots_) nearest.consider(root.name);
  throw PathError(path, step.begin, "no root " + shown(step.name) + nearest.suggestion());
}

PathAccess::Target PathAccess::target(std::string_view path) const {
  const std::vector<Step> steps = stepsOf(path);
  Target at;
  if (steps.empty()) return at;
  at.owner = rootOf(path, steps.front());
  at.place = placeOf(path, steps.front().end);
  for (std::size_t i = 1; i < steps.size(); ++i) {
    const Step& step = steps[i];
    at.owner = object(path, at);
    const Vex::VexType* type = at.owner->fwkType();
    at.attribute = type->attribute(step.name);
    at.id = at.attribute != nullptr ? at.attribute->id : at.owner->attributeId(step.name);
    at.key = nullptr;
    if (at.id == 0) {
      NearestName nearest(step.name);
      for (const auto& attribute : type->attributes()) nearest.consider(attribute.name());
      throw PathError(
          path, step.begin,
          "no attribute " + shown(step.name) + " in " + at.place + nearest.suggestion());
    }
    at.begin = step.begin;
    if (step.key) {
      if (!at.isCollection()) {
        throw PathError(path, step.begin,
                        "attribute '" + step.name + "' in " + at.place + " takes no key");
      }
      at.key = at.owner->keyFromText(at.id, *step.key);
    }
    at.place = placeOf(path, step.end);
  }
  return at;
}

// What stands behind a target, to go on from.
Vex::Ptr<GenericIf> PathAccess::object(std::string_view path, const Target& target) {
  if (target.isRoot()) return target.owner;
  if (target.isCollection()) {
    throw PathError(path, target.begin,
                    target.place +
                        " is a collection: name one of its elements "
                        "as " +
                        target.place + "[key]");
  }
  if (target.isFunction()) throw PathError(path, target.begin, target.place + " is a function");
  auto found = target.owner->attributeOp({target.id, GenericIf::kRead}, target.key);
  if (!found) throwNotThere(path, target);
  return found;
}

void PathAccess::throwNotThere(std::string_view path, const Target& target) {
  const std::string wanted = target.key ? quotedKey(target.key->keyText()) : std::string();
  NearestName nearest(wanted);
  if (target.key) {
    auto at = target.owner->attributeIteratorConst(target.id);
    for (std::size_t left = kMostCompared; left != 0 && at->nonNull(); --left, at->inc()) {
      const std::string key = quotedKey(at->key()->keyText());
      if (hasSameNumbers(key, wanted)) nearest.consider(key);
    }
  }
  throw PathError(path, target.begin, target.place + " is not there" + nearest.suggestion());
}

std::string PathAccess::get(std::string_view path) const {
  const Target at = target(path);
  if (!at.owner) throw PathError(path, 0, "the path names nothing");
  const bool mayBeNull =
      at.attribute != nullptr && !at.key && !at.isCollection() && !at.isFunction();
  if (mayBeNull) return textOf(at.owner->attributeOp({at.id, GenericIf::kRead}));
  return textOf(object(path, at));
}

void PathAccess::set(std::string_view path, std::string_view text) {
  needText(path, text);
  const Target at = target(path);
  if (!at.owner || at.isRoot()) throw PathError(path, 0, shown(path) + " cannot be set");
  if (at.isCollection() || at.isFunction()) static_cast<void>(object(path, at));  // raises
  if (at.attribute != nullptr && at.attribute->kind == Kind::field) {
    throw PathError(path, at.begin, at.place + " is a part of a value: set the whole value");
  }
  if (at.owner->isConst()) GenericIf::throwConstException(GenericIf::kConstText);
  const bool made = at.attribute != nullptr && at.attribute->kind == Kind::members;
  const auto value = made ? nullptr : at.owner->valueFromText(at.id, text);
  at.owner->attributeOp({at.id, GenericIf::kSet}, at.key, value);
}

void PathAccess::del(std::string_view path) {
  const Target at = target(path);
  if (!at.owner || at.isRoot()) throw PathError(path, 0, shown(path) + " cannot be deleted");
  if (at.isCollection() || at.isFunction()) static_cast<void>(object(path, at));  // raises
  at.owner->attributeOp({at.id, GenericIf::kDel}, at.key);
}

PathAccess::Node PathAccess::node(GenericIf& owner, const Vex::VexType::Attribute& attribute) {
  Node made{std::string(attribute.name()),
            std::string(kindName(attribute.kind)),
            std::string(attribute.typeName),
            {},
            !attribute.flags.isReadOnly_() && !owner.isConst(),
            0};
  try {
    fill(made, owner, attribute);
  } catch (const Vex::Exception& e) {
    // A table may not be mounted, or be damaged: that is told in the place of the one attribute.
    made.text = "(" + e.text() + ")";
  }
  return made;
}

void PathAccess::fill(Node& made, GenericIf& owner, const Vex::VexType::Attribute& attribute) {
  if (attribute.kind == Kind::function) {
    made.text = signaturesOf(attribute);
  } else if (isKeyed(attribute.kind)) {
    const auto members = owner.attributeOp({attribute.id, GenericIf::kMembers});
    made.members = Vex::valueOf<std::uint32_t>(members, attribute.name());
  } else {
    made.text = textOf(owner.attributeOp({attribute.id, GenericIf::kRead}));
  }
}

std::vector<PathAccess::Node> PathAccess::elements(const Target& target, std::size_t limit,
                                                   std::string_view after) {
  const bool writable = !target.attribute->flags.isReadOnly_() && !target.owner->isConst();
  Vex::Ptr<GenericIf::Iterator> at;
  if (after.empty()) {
    at = target.owner->attributeIteratorConst(target.id);
  } else {
    const auto from = target.owner->keyFromText(target.id, unquotedKey(after));
    at = target.owner->attributeIteratorKeyConst(target.id, from);
    if (at->nonNull() && at->key()->keyText() == from->keyText()) at->inc();
  }
  std::vector<Node> nodes;
  for (; at->nonNull() && nodes.size() < limit; at->inc()) {
    const auto element = at->obj();
    if (!element) continue;
    nodes.push_back({quotedKey(at->key()->keyText()), "element",
                     std::string(target.attribute->typeName), textOf(element), writable, 0});
  }
  return nodes;
}

std::vector<PathAccess::Node> PathAccess::ls(std::string_view path, std::size_t limit,
                                             std::string_view after) const {
  const Target at = target(path);
  if (at.isCollection()) return elements(at, limit, after);
  std::vector<Node> nodes;
  bool reached = after.empty();
  const auto add = [&](std::string_view name, const auto& make) {
    if (reached && nodes.size() < limit) nodes.push_back(make());
    reached = reached || name == after;
  };
  if (!at.owner) {
    for (const Root& root : roots_) {
      const auto opened = root.open();
      if (!opened) continue;
      add(root.name, [&] {
        return Node{root.name,          "root", opened->fwkType()->typeNode().str(), textOf(opened),
                    !opened->isConst(), 0};
      });
    }
    return nodes;
  }
  if (!at.isFunction()) {
    const auto below =
        at.isRoot() ? at.owner : at.owner->attributeOp({at.id, GenericIf::kRead}, at.key);
    if (!below && at.key) throwNotThere(path, at);
    if (below && !below->fwkType()->attributes().empty()) {
      for (const auto& attribute : below->fwkType()->attributes()) {
        add(attribute.name(), [&] { return node(*below, attribute); });
      }
      return nodes;
    }
  }
  if (at.key) {
    const std::string name = quotedKey(at.key->keyText());
    const bool writable = !at.attribute->flags.isReadOnly_() && !at.owner->isConst();
    add(name, [&] {
      return Node{name, "element", std::string(at.attribute->typeName), get(path), writable, 0};
    });
  } else if (at.attribute != nullptr) {
    add(at.attribute->name(), [&] { return node(*at.owner, *at.attribute); });
  }
  return nodes;
}

std::string PathAccess::call(std::string_view path, std::string_view function,
                             const std::vector<std::pair<std::string, std::string>>& arguments) {
  for (const auto& [name, text] : arguments) needText(path, text);
  if (arguments.size() > kMaxDepth) throw PathError(path, 0, "more than 32 arguments");
  const Target at = target(path);
  if (!at.owner) throw PathError(path, 0, "the path names nothing");
  const auto callee = object(path, at);
  const auto* attribute = callee->fwkType()->attribute(function);
  if (attribute == nullptr || attribute->kind != Kind::function) {
    NearestName nearest(function);
    for (const auto& other : callee->fwkType()->attributes()) {
      if (other.kind == Kind::function) nearest.consider(other.name());
    }
    throw PathError(path, path.size(),
                    "no function " + shown(function) + " in " + at.place + nearest.suggestion());
  }
  needArguments(path, *attribute, arguments);
  const auto list = callee->argumentsFromText(attribute->id, arguments);
  // Read, not called: so a const adapter lets what leaves its object as it is be done.
  const auto op = callee->isConst() ? GenericIf::kRead : GenericIf::kCall;
  const auto result = callee->attributeOp({attribute->id, op}, nullptr, list);
  return result ? result->strRep().str() : std::string();
}

std::string quotedKey(std::string_view key) {
  std::string quoted;
  for (const char c : key) {
    if (c == ']' || c == '/' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted;
}

std::string unquotedKey(std::string_view quoted) {
  std::string key;
  for (std::size_t i = 0; i < quoted.size(); ++i) {
    if (quoted[i] == '\\' && i + 1 < quoted.size()) ++i;
    key += quoted[i];
  }
  return key;
}

}  // namespace Ringward::Generic
