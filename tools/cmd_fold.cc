#include "Commands.h"

namespace quarvel::cli {

void addFoldCommand(CLI::App&) {}

}  // namespace quarvel::cli
