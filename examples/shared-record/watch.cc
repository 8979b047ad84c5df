// SPDX-License-Identifier: Apache-2.0
//
// watch TABLE: prints every reading of a shared table that changes, from the moment that there is a
// table on; the program that publishes it may come and go. Ends at SIGTERM.
#include <exception>
#include <iostream>

#include "Reading.h"
#include "quill/QuillMap.h"
#include "runtime/vex/EpollActivityManager.h"

class Printer;
using Readings = Quill::QuillMap<Sensor, Reading, Printer>;

// Told of each sensor whose reading has changed; what it is now stands in the handle.
class Printer {
 public:
  explicit Printer(const Readings& readings) : readings_(readings) {}

  void notify(const Sensor& sensor) {
    bool found = false;
    const Reading& reading = readings_.lookup(sensor, found);
    if (found) {
      std::cout << reading << std::endl;
    } else {
      std::cout << sensor << ": gone" << std::endl;
    }
  }

 private:
  const Readings& readings_;
};

int main(int argc, char** argv) try {
  if (argc != 2) return std::cerr << "usage: watch TABLE\n", 2;
  Vex::EpollActivityManager loop;
  const Vex::CurrentActivityManager current(loop);
  Readings readings(argv[1], "readings");
  Printer printer(readings);
  readings.notifierIs(&printer);
  readings.init(Quill::QuillType::shadow, false, 0);
  loop.run();
} catch (const std::exception& error) {
  return std::cerr << "watch: " << error.what() << "\n", 1;
}
