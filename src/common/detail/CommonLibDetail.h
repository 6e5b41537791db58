#pragma once
// Pieces of CommonLib's file and system operations that tests feed directly.

#include <sys/stat.h>

#include <ctime>
#include <string>
#include <string_view>

namespace quarvel::detail {

// `when` in the local time zone as "YYYYMMDD_hhmmss".
std::string fileDateStamp(std::time_t when);

// The birth time statx reported, or the last modification time when the file
// system recorded none (no STATX_BTIME in the mask, or a birth time of 0).
std::time_t creationTime(const struct statx& info);

// "<NAME> <VERSION> (Kernel <kernelRelease>)" from the text of an os-release
// file. VERSION_ID stands in for a missing VERSION, PRETTY_NAME (then
// "Linux") for a missing NAME; the kernel part is left out when the release
// is empty. Never empty.
std::string systemVersionText(std::string_view osRelease, std::string_view kernelRelease);

}  // namespace quarvel::detail
