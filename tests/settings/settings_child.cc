// A writer process for the concurrent-writers test, run in the environment
// (HOME, XDG folders) it inherits from the test:
//   settings_child DIR NAME ROUNDS
// loads the domain, creates DIR/NAME.ready, waits (60 s at most) for DIR/go,
// sets NAME.count to 1..ROUNDS, then writes its whole dictionary to
// DIR/NAME.final. Exit status 0 when it got to write.
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "quarvel/CVUserDefaults.h"
#include "settings/PropertyList.h"

int main(int argc, char** argv) {
  using quarvel::CVUserDefaults;
  if (argc != 4) return 2;
  const std::string dir = argv[1], name = argv[2];
  // The external-address lookup of the start-up must not leave the machine.
  CVUserDefaults::setEchoServiceHost("127.0.0.1:1");
  CVUserDefaults* defaults = CVUserDefaults::standardUserDefaults();
  std::ofstream(dir + "/" + name + ".ready").put('\n');
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!std::filesystem::exists(dir + "/go")) {
    if (std::chrono::steady_clock::now() > deadline) return 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  for (int i = 1; i <= std::atoi(argv[3]); ++i) defaults->setInteger(i, name + ".count");
  std::ofstream(dir + "/" + name + ".final", std::ios::binary)
      << *quarvel::writePropertyList(quarvel::PlistValue::dictionary(quarvel::defaultsDic));
  return 0;
}
