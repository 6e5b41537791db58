#include "Commands.h"

namespace quarvel::cli {

void addNetIdCommand(CLI::App&) {}

}  // namespace quarvel::cli
