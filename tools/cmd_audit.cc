#include "Commands.h"

namespace quarvel::cli {

void addAuditCommand(CLI::App&) {}

}  // namespace quarvel::cli
