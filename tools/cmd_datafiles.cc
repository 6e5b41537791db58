#include "Commands.h"

namespace quarvel::cli {

void addDataFileCommands(CLI::App&) {}

}  // namespace quarvel::cli
