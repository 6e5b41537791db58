#include "Commands.h"

namespace quarvel::cli {

void addUpdateCommands(CLI::App&) {}

}  // namespace quarvel::cli
