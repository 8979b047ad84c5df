// SPDX-License-Identifier: Apache-2.0
//
// publish TABLE: writes the readings that come in on standard input, "<sensor> <millidegrees>" a
// line, into a shared table; a line with a sensor alone removes its reading. Ends with its input.
#include <unistd.h>

#include <exception>
#include <iostream>
#include <sstream>
#include <string>

#include "Reading.h"
#include "quill/QuillMap.h"
#include "runtime/vex/EpollActivityManager.h"

using Readings = Quill::QuillMap<Sensor, Reading, Nothing>;

class Input : public Vex::ReadableHandler {
 public:
  Input(Vex::EpollActivityManager& loop, Readings& readings) : loop_(loop), readings_(readings) {}

  void onReadable() override {
    char bytes[512];
    const ssize_t size = read(STDIN_FILENO, bytes, sizeof bytes);
    if (size <= 0) return loop_.stop();
    pending_.append(bytes, static_cast<std::size_t>(size));
    for (std::size_t end; (end = pending_.find('\n')) != std::string::npos;) {
      std::istringstream line(pending_.substr(0, end));
      pending_.erase(0, end + 1);
      Reading reading;
      if (!(line >> reading.sensor.number)) continue;
      if (line >> reading.milliDegrees) {
        readings_.safeWrite(reading);
      } else {
        readings_.safeRemove(reading.sensor);
      }
    }
  }

 private:
  Vex::EpollActivityManager& loop_;
  Readings& readings_;
  std::string pending_;
};

int main(int argc, char** argv) try {
  if (argc != 2) return std::cerr << "usage: publish TABLE\n", 2;
  Vex::EpollActivityManager loop;
  const Vex::CurrentActivityManager current(loop);
  Readings readings(argv[1], "readings");
  readings.init(Quill::QuillType::writer, false, 1000);
  Input input(loop, readings);
  loop.readableIs(STDIN_FILENO, input);
  loop.run();
  loop.readableDel(STDIN_FILENO);
} catch (const std::exception& error) {
  return std::cerr << "publish: " << error.what() << "\n", 1;
}
