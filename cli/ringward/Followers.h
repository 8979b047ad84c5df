// SPDX-License-Identifier: Apache-2.0
//
// RingwardCli::newFollower: tells each change of an entity, and of all entities below it, as a path
// and a text. Driven by the classes' descriptions, so that no attribute is listed here.
//
// followedPath() gives what somebody asks for the spelling that the followers tell, so that the two
// compare as texts.
//
// Belongs to the loop's thread. A follower holds its entity and goes with its reference.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "model/config/Config.h"
#include "model/status/Status.h"
#include "model/status/TransmitStatus.h"

namespace RingwardCli {

// `text`: the new value; nothing for what has gone.
using Changed =
    std::function<void(const std::string& path, const std::optional<std::string>& text)>;

Vex::Ptr<Vex::NotifieeConst> newFollower(const Vex::Ptr<Ringward::Config::Config>& entity,
                                         const std::string& path, const Changed& changed);
Vex::Ptr<Vex::NotifieeConst> newFollower(const Vex::Ptr<Ringward::Status::Status>& entity,
                                         const std::string& path, const Changed& changed);
Vex::Ptr<Vex::NotifieeConst> newFollower(const Vex::Ptr<Ringward::Status::TransmitStatus>& entity,
                                         const std::string& path, const Changed& changed);

// `path`, which begins with the name of a root, with each key as a follower spells it:
// "config/vlanEnabled[010]" becomes "config/vlanEnabled[10]". Raises Failure(usage) for a key that
// is none or stands where none is taken, Failure(failed) for a name that no follower tells.
std::string followedPath(const std::string& path);

}  // namespace RingwardCli
