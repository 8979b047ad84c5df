// SPDX-License-Identifier: Apache-2.0
#include "cli/ringward/Followers.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

#include "cli/quillctl/Texts.h"
#include "cli/ringward/Failure.h"
#include "cli/ringward/Paths.h"
#include "model/config/GlobalIntfConfig.h"
#include "model/config/TransmitConfig.h"
#include "model/generic/NearestName.h"
#include "model/status/IntfStatus.h"
#include "runtime/vex/Description.h"
#include "runtime/vex/Exception.h"
#include "runtime/vex/ValueText.h"

namespace RingwardCli {

namespace {

using Kind = Vex::AttributeKind;

template <class Class>
class Follower final : public Class::NotifieeConst {
 public:
  Follower(const Vex::Ptr<Class>& entity, std::string path, Changed changed)
      : entity_(*entity), path_(std::move(path)), changed_(std::move(changed)) {
    this->vexTakesNumbersIs(true);
    this->notifierIs(Vex::Ptr<Vex::PtrInterface const>(entity));
    this->isRegisteredNotifieeIs(true);
    // What is below it already is followed from now on.
    Vex::forEachAttribute<Class>([this](const auto& attribute) { this->followAll(attribute); });
  }

  void vexOnChange(Vex::AttributeId id, const void* key) override {
    Vex::withAttribute<Class>(id, [&](const auto& attribute) { this->tell(attribute, key); });
  }

 private:
  template <class Attribute>
  using Access = Vex::KeyedAccess<Vex::CollectionOf<Attribute, Class>>;

  std::string pathOf(std::string_view attribute) const {
    return path_ + '/' + std::string(attribute);
  }
  template <class Entity>
  void follow(const std::string& path, const Vex::Ptr<Entity>& entity) {
    followers_.insert_or_assign(path, Vex::makePtr<Follower<Entity>>(entity, path, changed_));
  }

  template <class Attribute>
  void followAll(const Attribute& attribute) {
    if constexpr (Attribute::kind == Kind::ownedChild) {
      if (const auto child = std::invoke(attribute.get, entity_)) {
        follow(pathOf(attribute.name), child);
      }
    } else if constexpr (Attribute::kind == Kind::members) {
      const auto& coll = std::invoke(attribute.coll, std::as_const(entity_));
      for (auto key = Access<Attribute>::keyAfter(coll, nullptr); key;
           key = Access<Attribute>::keyAfter(coll, &*key)) {
        followMember(attribute, *key);
      }
    }
  }
  template <class Attribute, class Key>
  bool followMember(const Attribute& attribute, const Key& key) {
    const auto& coll = std::invoke(attribute.coll, std::as_const(entity_));
    const std::string path = elementPath(pathOf(attribute.name), Vex::keyToText(key));
    auto* const member = Access<Attribute>::find(coll, key);
    if (member == nullptr) {
      followers_.erase(path);
      return false;
    }
    follow(path, Vex::Ptr<std::remove_pointer_t<decltype(member)>>(member));
    return true;
  }

  template <class Attribute>
  void tell(const Attribute& attribute, const void* key) {
    const std::string path = pathOf(attribute.name);
    if constexpr (Attribute::kind == Kind::plain) {
      changed_(path, Vex::valueToStrep(std::invoke(attribute.get, std::as_const(entity_))).str());
    } else if constexpr (Attribute::kind == Kind::ownedChild) {
      followers_.erase(path);
      const auto child = std::invoke(attribute.get, entity_);
      if (child) follow(path, child);
      changed_(path, child ? std::optional<std::string>(child->name().str()) : std::nullopt);
    } else if (key != nullptr) {
      using Key = typename Access<Attribute>::Key;
      const Key at = *static_cast<const Key*>(key);
      const std::string element = elementPath(path, Vex::keyToText(at));
      if constexpr (Attribute::kind == Kind::members) {
        changed_(element,
                 followMember(attribute, at) ? std::optional<std::string>("") : std::nullopt);
      } else {
        const auto& coll = std::invoke(attribute.coll, std::as_const(entity_));
        const auto found = Access<Attribute>::find(coll, at);
        changed_(element, found ? std::optional<std::string>(Vex::valueToStrep(*found).str())
                                : std::nullopt);
      }
    }
  }

  Class& entity_;  // held by the base
  const std::string path_;
  const Changed changed_;
  std::map<std::string, Vex::Ptr<Vex::NotifieeConst>> followers_;  // of what is below, by path
};

// One name of a path with its key, if it has one, and what stands behind them: nothing, or a '/'
// and more.
struct Step {
  std::string_view name;
  std::optional<std::string> key;  // as people write it
  std::string_view rest;
};

Step firstStep(std::string_view path) {
  std::size_t at = std::min(path.find_first_of("/["), path.size());
  Step step{path.substr(0, at), std::nullopt, {}};
  if (at < path.size() && path[at] == '[') {
    const std::size_t begin = ++at;
    while (at < path.size() && path[at] != ']') at += path[at] == '\\' ? 2U : 1U;
    if (at >= path.size()) Vex::throwRangeException("'[' is not closed");
    step.key = Ringward::Generic::unquotedKey(path.substr(begin, at - begin));
    ++at;
  }
  step.rest = path.substr(at);
  if (!step.rest.empty() && step.rest.front() != '/') {
    Vex::throwRangeException("expected '/' behind ']'");
  }
  return step;
}

void needNoKey(const Step& step) {
  if (step.key) Vex::throwRangeException("'" + std::string(step.name) + "' takes no key");
}

template <class Class>
std::string followedBelow(const std::string& place, std::string_view rest);

// Of an attribute at `place`, from the step that names it on.
template <class Class, class Attribute>
std::string followedFrom(const Attribute& attribute, const std::string& place, const Step& step) {
  if constexpr (requires { attribute.coll; }) {
    if (step.key) {
      using Access = Vex::KeyedAccess<Vex::CollectionOf<Attribute, Class>>;
      const auto key = Vex::keyFromText<typename Access::Key>(*step.key);
      const std::string element = elementPath(place, Vex::keyToText(key));
      if constexpr (Attribute::kind == Kind::members) {
        return followedBelow<typename Access::Value>(element, step.rest);
      } else {
        return element + std::string(step.rest);
      }
    }
  } else {
    needNoKey(step);
    if constexpr (Attribute::kind == Kind::ownedChild) {
      using Child = typename Vex::ScalarValue<Attribute, Class>::element_type;
      return followedBelow<std::remove_const_t<Child>>(place, step.rest);
    }
  }
  return place + std::string(step.rest);
}

// Of what is below an object of the class, which stands at `place`.
template <class Class>
std::string followedBelow(const std::string& place, std::string_view rest) {
  if (rest.empty()) return place;
  const Step step = firstStep(rest.substr(1));
  Ringward::Generic::NearestName nearest(step.name);
  std::optional<std::string> found;
  Vex::forEachAttribute<Class>([&](const auto& attribute) {
    nearest.consider(attribute.name);
    if (attribute.name != step.name) return;
    found = followedFrom<Class>(attribute, place + '/' + std::string(step.name), step);
  });
  if (found) return *found;
  throw Failure(ExitStatus::failed, "no attribute '" + Quillctl::printable(step.name) +
                                        "' to follow in " + Quillctl::printable(place) +
                                        nearest.suggestion());
}

std::string followedIn(const std::string& path) {
  const Step root = firstStep(path);
  needNoKey(root);
  const std::string place(root.name);
  if (place == "config") return followedBelow<Ringward::Config::Config>(place, root.rest);
  if (place == "status") return followedBelow<Ringward::Status::Status>(place, root.rest);
  if (place == "transmitStatus") {
    return followedBelow<Ringward::Status::TransmitStatus>(place, root.rest);
  }
  return path;
}

}  // namespace

Vex::Ptr<Vex::NotifieeConst> newFollower(const Vex::Ptr<Ringward::Config::Config>& entity,
                                         const std::string& path, const Changed& changed) {
  return Vex::makePtr<Follower<Ringward::Config::Config>>(entity, path, changed);
}

Vex::Ptr<Vex::NotifieeConst> newFollower(const Vex::Ptr<Ringward::Status::Status>& entity,
                                         const std::string& path, const Changed& changed) {
  return Vex::makePtr<Follower<Ringward::Status::Status>>(entity, path, changed);
}

Vex::Ptr<Vex::NotifieeConst> newFollower(const Vex::Ptr<Ringward::Status::TransmitStatus>& entity,
                                         const std::string& path, const Changed& changed) {
  return Vex::makePtr<Follower<Ringward::Status::TransmitStatus>>(entity, path, changed);
}

std::string followedPath(const std::string& path) {
  try {
    return followedIn(path);
  } catch (const Vex::RangeException& exception) {
    throw Failure(ExitStatus::usage,
                  Quillctl::inQuotes(path) + ": " + Quillctl::printable(exception.text()));
  }
}

}  // namespace RingwardCli
