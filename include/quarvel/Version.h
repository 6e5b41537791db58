#pragma once
/// @file
/// The library's version, for hosts that check what they loaded.

namespace quarvel {

/// The library's version, "MAJOR.MINOR.PATCH": static text, never null,
/// from any thread.
const char* version();

}  // namespace quarvel
