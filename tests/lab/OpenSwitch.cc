// SPDX-License-Identifier: Apache-2.0
#include "tests/lab/OpenSwitch.h"

#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "tests/lab/Command.h"

namespace RingwardLab {

namespace {

constexpr const char* kDatabaseDaemon = "/usr/sbin/ovsdb-server";
constexpr const char* kSwitchDaemon = "/usr/sbin/ovs-vswitchd";
constexpr const char* kSchema = "/usr/share/openvswitch/vswitch.ovsschema";
constexpr Milliseconds kPatience{10'000};

std::vector<std::string> withWords(std::vector<std::string> arguments, const std::string& text) {
  std::istringstream stream(text);
  for (std::string word; stream >> word;) {
    arguments.push_back(word);
  }
  return arguments;
}

// The daemons see this directory of the host as /run.
std::string preparedDirectory(const Lab& lab, const std::string& host) {
  const std::string directory = lab.directory(host) + "/run";
  std::filesystem::create_directories(directory + "/openvswitch");
  runCommand({"ovsdb-tool", "create", directory + "/conf.db", kSchema});
  return directory;
}

}  // namespace

std::string OpenSwitch::missing() {
  for (const char* path : {kDatabaseDaemon, kSwitchDaemon, kSchema}) {
    if (access(path, R_OK) != 0) {
      return std::string("there is no ") + path + "; install the package openvswitch-switch";
    }
  }
  return "";
}

OpenSwitch::OpenSwitch(const Lab& lab, const std::string& host, std::string bridge,
                       const std::vector<std::string>& ports, const std::string& options)
    : directory_(preparedDirectory(lab, host)),
      bridge_(std::move(bridge)),
      database_(lab, host,
                {kDatabaseDaemon, "/run/conf.db", "--remote=punix:/run/db.sock",
                 "--unixctl=/run/database.ctl", "-vfile:off"}),
      daemon_(lab, host,
              {kSwitchDaemon, "unix:/run/db.sock", "--unixctl=/run/switch.ctl", "--disable-system",
               "-vfile:off"}) {
  const auto connected = daemon_.waitLine(
      [](const std::string& line) { return line.find(": connected") != std::string::npos; },
      kPatience);
  if (!connected) {
    throw std::runtime_error("Open vSwitch did not start; it wrote:\n" + database_.output() +
                             daemon_.output());
  }
  std::string words = "--no-wait init -- add-br " + bridge_ + " -- set bridge " + bridge_ +
                      " datapath_type=netdev fail_mode=standalone";
  configure(words + (options.empty() ? "" : " " + options));
  for (const std::string& port : ports) {
    configure("add-port " + bridge_ + " " + port);
  }
}

std::string OpenSwitch::configure(const std::string& words) const {
  // Waits until the daemon has done what it says.
  return runCommand(
      withWords({"ovs-vsctl", "--db=unix:" + directory_ + "/db.sock", "--timeout=10"}, words));
}

void OpenSwitch::flow(const std::string& flow) const {
  runCommand({"ovs-ofctl", "-O", "OpenFlow13", "add-flow",
              "unix:" + directory_ + "/openvswitch/" + bridge_ + ".mgmt", flow});
}

}  // namespace RingwardLab
