#pragma once

namespace quarvel {

/// The library's version, "MAJOR.MINOR.PATCH".
const char* version();

}  // namespace quarvel
