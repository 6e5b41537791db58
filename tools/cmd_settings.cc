#include "Commands.h"

namespace quarvel::cli {

void addSettingsCommands(CLI::App&) {}

}  // namespace quarvel::cli
