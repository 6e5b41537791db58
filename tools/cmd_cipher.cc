#include "Commands.h"

namespace quarvel::cli {

void addCipherCommands(CLI::App&) {}

}  // namespace quarvel::cli
