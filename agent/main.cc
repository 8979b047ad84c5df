// SPDX-License-Identifier: Apache-2.0
//
// ringwardd: finds forwarding loops on the ports of this host and breaks them.
// docs/configuration.md tells of the configuration file. Exit status: 0 for a clean end, 1 for a
// configuration or a system that it cannot run with, 2 for a wrong command line.
#include <signal.h>
#include <sys/signalfd.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>

#include "agent/Agent.h"
#include "agent/CommandLine.h"
#include "agent/ConfigurationReader.h"
#include "agent/LineWriter.h"
#include "platform/linux/Fd.h"
#include "runtime/vex/EpollActivityManager.h"

#ifndef RINGWARD_VERSION
#define RINGWARD_VERSION "0.1"
#endif

namespace {

// Ends the loop at SIGTERM and SIGINT; SIGHUP and SIGUSR1 go to whoever has asked for them.
class Signals final : private Vex::ReadableHandler {
 public:
  explicit Signals(Vex::EpollActivityManager& manager) : manager_(manager) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) sigaddset(&set, signal);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    fd_ = Platform::Linux::Fd(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    manager_.readableIs(fd_.get(), *this);
  }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;
  ~Signals() { manager_.readableDel(fd_.get()); }

  std::function<void()> onReload;
  std::function<void()> onStatus;

 private:
  void onReadable() override {
    signalfd_siginfo info{};
    if (read(fd_.get(), &info, sizeof info) != sizeof info) return;
    if (info.ssi_signo == SIGHUP) {
      if (onReload) onReload();
    } else if (info.ssi_signo == SIGUSR1) {
      if (onStatus) onStatus();
    } else {
      manager_.stop();
    }
  }

  Vex::EpollActivityManager& manager_;
  Platform::Linux::Fd fd_;
};

// What the machines log, one line for each entry.
class LogLines final : public Vex::LogSink {
 public:
  explicit LogLines(Agent::LineWriter& lines) : lines_(lines) {}

  void entry(const Vex::LogHandle& handle, std::string_view text) override {
    lines_.lineIs({static_cast<int>(handle.severity()), Vex::toLine(handle, text)});
  }

 private:
  Agent::LineWriter& lines_;
};

void complain(const std::string& text) { std::fprintf(stderr, "ringwardd: %s\n", text.c_str()); }

void reload(const std::string& path, Agent::RingwardAgent& agent,
            const Agent::LoopReport::Output& output) {
  const auto result = Agent::readConfiguration(path);
  if (result.ok()) {
    agent.reload(result.configuration());
    return;
  }
  for (const auto& error : result.errors()) output("reload: " + Agent::toText(error));
  output("reload: refused, the configuration in use stays as it is");
}

int run(const Agent::Configuration& configuration, const std::string& path, bool foreground) {
  Vex::EpollActivityManager manager;
  const Vex::CurrentActivityManager current(manager);
  Agent::LineWriter lines([foreground](const Agent::LineWriter::Line& line) {
    if (foreground) {
      std::fprintf(stderr, "%s\n", line.text.c_str());
    } else {
      syslog(line.severity, "%s", line.text.c_str());
    }
  });
  LogLines sink(lines);
  manager.logService().sinkIs(sink);
  const auto output = [&lines](std::string_view line) {
    lines.lineIs({LOG_WARNING, std::string(line)});
  };
  Signals signals(manager);
  Agent::RingwardAgent agent(manager, configuration, output);
  if (const auto error = agent.start()) {
    complain(std::string(error->what) + ": " + error->error.message());
    return 1;
  }
  signals.onReload = [&] { reload(path, agent, output); };
  signals.onStatus = [&] { agent.reportStatus(); };
  manager.run();
  agent.stop();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const auto parsed = Agent::parseCommandLine(argc, argv);
    if (const auto* exit = std::get_if<Agent::CommandLineExit>(&parsed)) {
      std::fputs(exit->text.c_str(), exit->code == 0 ? stdout : stderr);
      return exit->code;
    }
    const auto& commandLine = std::get<Agent::CommandLine>(parsed);
    if (commandLine.showVersion) {
      std::puts("ringwardd " RINGWARD_VERSION);
      return 0;
    }
    const auto result = Agent::readConfiguration(commandLine.configPath);
    if (!result.ok()) {
      for (const auto& error : result.errors()) complain(Agent::toText(error));
      return 1;
    }
    if (commandLine.check) {
      std::fputs(Agent::toText(result.configuration()).c_str(), stdout);
      return 0;
    }
    // Detaching changes the directory, and the file is read again at SIGHUP.
    const std::string path = std::filesystem::absolute(commandLine.configPath).string();
    openlog("ringwardd", LOG_PID, LOG_DAEMON);
    if (!commandLine.foreground && daemon(0, 0) != 0) {
      complain("cannot detach from the terminal");
      return 1;
    }
    return run(result.configuration(), path, commandLine.foreground);
  } catch (const std::exception& e) {
    complain(e.what());
    syslog(LOG_ERR, "%s", e.what());
    return 1;
  }
}
