#include "Commands.h"

namespace quarvel::cli {

void addReachCommand(CLI::App&) {}

}  // namespace quarvel::cli
