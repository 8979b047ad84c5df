// SPDX-License-Identifier: Apache-2.0
#include "cli/ringward/Followers.h"

#include <map>
#include <utility>

#include "cli/ringward/Paths.h"
#include "model/config/GlobalIntfConfig.h"
#include "model/config/TransmitConfig.h"
#include "model/status/IntfStatus.h"
#include "runtime/vex/Description.h"
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

}  // namespace RingwardCli
