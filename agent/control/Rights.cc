// SPDX-License-Identifier: Apache-2.0
#include "agent/control/Rights.h"

#include <grp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Agent {

namespace {

// The buffer of getgrnam_r(3) grows with the number of members.
constexpr std::size_t kLeastBuffer = 4 * 1024;
constexpr std::size_t kMostBuffer = 1024 * 1024;
// NGROUPS_MAX of Linux.
constexpr std::size_t kMostGroups = 65'536;

std::optional<gid_t> groupOf(const std::string& name) {
  if (name.empty()) return std::nullopt;
  for (std::size_t size = kLeastBuffer; size <= kMostBuffer; size *= 4) {
    std::vector<char> buffer(size);
    group entry{};
    group* found = nullptr;
    const int error = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (error == ERANGE) continue;
    if (error != 0 || found == nullptr) return std::nullopt;
    return found->gr_gid;
  }
  return std::nullopt;
}

std::vector<gid_t> peerGroups(int fd) {
  std::vector<gid_t> groups(32);
  for (;;) {
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0) {
      groups.resize(size / sizeof(gid_t));
      return groups;
    }
    if (errno != ERANGE || groups.size() >= kMostGroups) return {};
    groups.resize(kMostGroups);
  }
}

}  // namespace

SystemRights::SystemRights(std::string group, uid_t own)
    : group_(std::move(group)), own_(own), gid_(groupOf(group_)) {}

std::optional<Credentials> SystemRights::peer(int fd) const {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return std::nullopt;
  return Credentials{peer.pid, peer.uid, peer.gid, peerGroups(fd)};
}

bool SystemRights::mayWrite(const Credentials& who) const {
  if (who.uid == 0 || who.uid == own_) return true;
  if (!gid_) return false;
  return who.gid == *gid_ ||
         std::find(who.groups.begin(), who.groups.end(), *gid_) != who.groups.end();
}

std::string SystemRights::reason(const Credentials& who) const {
  const std::string user = "user " + std::to_string(who.uid);
  if (group_.empty()) return user + " is not root, and no group may change anything";
  return user + " is neither root nor in the group " + group_ +
         (gid_ ? "" : ", which does not exist");
}

}  // namespace Agent
